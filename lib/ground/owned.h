// Ownership of memory from the C allocator.

#ifndef KVFS_GROUND_OWNED_H
#define KVFS_GROUND_OWNED_H

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <type_traits>

// Owns one block of malloc'ed memory that holds a T (or an array of them) and frees it. T needs no destructor.
template <typename T>
class kvfs_owned {
  static_assert(std::is_trivially_destructible_v<T>);

 public:
  kvfs_owned() = default;
  explicit kvfs_owned(T* pointer) : pointer_(pointer) {}
  kvfs_owned(kvfs_owned&& other) noexcept : pointer_(other.release()) {}
  kvfs_owned& operator=(kvfs_owned&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~kvfs_owned() { std::free(pointer_); }

  T* get() const { return pointer_; }
  T* operator->() const { return pointer_; }
  T& operator*() const { return *pointer_; }
  T& operator[](std::size_t index) const { return pointer_[index]; }
  explicit operator bool() const { return pointer_ != nullptr; }

  // Frees what is owned and owns `pointer` instead.
  void reset(T* pointer = nullptr) {
    std::free(pointer_);
    pointer_ = pointer;
  }

  // Hands the block to the caller, who frees it.
  T* release() {
    T* const pointer = pointer_;
    pointer_ = nullptr;
    return pointer;
  }

 private:
  T* pointer_ = nullptr;
};

// Allocates one zeroed T; tests false when memory is short. All bytes zero must be a valid T.
template <typename T>
kvfs_owned<T> kvfs_allocate_zeroed() {
  static_assert(std::is_trivially_copyable_v<T>);
  return kvfs_owned<T>(static_cast<T*>(std::calloc(1, sizeof(T))));
}

// Allocates `size` bytes as they come. An empty block is never mistaken for a failure: some C libraries return null
// for a request of 0 bytes.
inline kvfs_owned<unsigned char> kvfs_allocate_bytes(std::size_t size) {
  return kvfs_owned<unsigned char>(static_cast<unsigned char*>(std::malloc(size == 0 ? 1 : size)));
}

// Zeroes an object and frees it, so that stale handles meet null pointers rather than old ones.
template <typename T>
void kvfs_zero_and_free(T* object) {
  static_assert(std::is_trivially_copyable_v<T>);
  if (object != nullptr) {
    std::memset(static_cast<void*>(object), 0, sizeof(T));
    asm volatile("" : : "r"(object) : "memory");  // the stores look dead to the compiler: the memory is freed next
    std::free(object);
  }
}

#endif  // KVFS_GROUND_OWNED_H
