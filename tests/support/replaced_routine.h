// Routines of the library that a test replaces where the library calls them.

#ifndef KVFS_TESTS_REPLACED_ROUTINE_H
#define KVFS_TESTS_REPLACED_ROUTINE_H

// Declares `real`, the routine as the library has it, and `replacement`, which the test defines: the linker sends every
// call from another source there. The test program names the routine in CMake too (kvfs_replace_routine), which finds
// out its name in object files.
#define KVFS_REPLACED_ROUTINE(routine, real, replacement)         \
  decltype(routine) real asm("__real_" KVFS_SYMBOL_OF_##routine); \
  decltype(routine) replacement asm("__wrap_" KVFS_SYMBOL_OF_##routine)

#endif  // KVFS_TESTS_REPLACED_ROUTINE_H
