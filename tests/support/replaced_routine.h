// Routines of the library that a test replaces where the library calls them.
//
//   BrokenCall g_search;
//   KVFS_REPLACED_ROUTINE(kvfs_catalog_search_node, real_search, wrap_search);
//   kvfs_result wrap_search(...) { return g_search.is_due() ? kvfs_ok : real_search(...); }
//   ...
//   g_search.choose(2);  // the second call from here on succeeds and gives nothing

#ifndef KVFS_TESTS_REPLACED_ROUTINE_H
#define KVFS_TESTS_REPLACED_ROUTINE_H

// Declares `real`, the routine as the library has it, and `replacement`, which the test defines: the linker sends every
// call from another source there. The test program names the routine in CMake too (kvfs_replace_routine), which finds
// out its name in object files.
// NOLINTBEGIN(bugprone-macro-parentheses): around a name that is declared the compiler does not want them
#define KVFS_REPLACED_ROUTINE(routine, real, replacement)         \
  decltype(routine) real asm("__real_" KVFS_SYMBOL_OF_##routine); \
  decltype(routine) replacement asm("__wrap_" KVFS_SYMBOL_OF_##routine)
// NOLINTEND(bugprone-macro-parentheses)

namespace kvfs_test {

// A call of a replaced routine that breaks the routine's contract.
class BrokenCall {
 public:
  // Has the n-th call from here on be the broken one; with 0 none is.
  void choose(unsigned n) { left_ = n; }

  // Whether the call that is being made is the broken one. To be asked once in each call.
  bool is_due() { return left_ != 0 && --left_ == 0; }

  // Whether the broken call was made, or none was chosen.
  [[nodiscard]] bool is_over() const { return left_ == 0; }

 private:
  unsigned left_ = 0;
};

}  // namespace kvfs_test

#endif  // KVFS_TESTS_REPLACED_ROUTINE_H
