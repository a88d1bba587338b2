// What a test can ask of the address sanitizer, in a program that is built with it.

#ifndef KVFS_TESTS_ADDRESS_SANITIZER_H
#define KVFS_TESTS_ADDRESS_SANITIZER_H

#include <cstddef>

#if defined(__has_feature)
#define KVFS_TEST_HAS_ADDRESS_SANITIZER __has_feature(address_sanitizer)
#elif defined(__SANITIZE_ADDRESS__)
#define KVFS_TEST_HAS_ADDRESS_SANITIZER 1
#else
#define KVFS_TEST_HAS_ADDRESS_SANITIZER 0
#endif

#if KVFS_TEST_HAS_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

namespace kvfs_test {

constexpr bool kHasAddressSanitizer = KVFS_TEST_HAS_ADDRESS_SANITIZER;

#if KVFS_TEST_HAS_ADDRESS_SANITIZER
inline void forbid_use(const void* memory, std::size_t size) {
  __asan_poison_memory_region(memory, size);
}

inline void permit_use(const void* memory, std::size_t size) {
  __asan_unpoison_memory_region(memory, size);
}

// Whether the sanitizer would report a use of the byte.
inline bool is_forbidden(const void* byte) {
  return __asan_address_is_poisoned(byte) != 0;
}
#else
inline void forbid_use(const void* /*memory*/, std::size_t /*size*/) {}
inline void permit_use(const void* /*memory*/, std::size_t /*size*/) {}
inline bool is_forbidden(const void* /*byte*/) {
  return false;
}
#endif

}  // namespace kvfs_test

#endif  // KVFS_TESTS_ADDRESS_SANITIZER_H
