#pragma once

#include <cstdlib>
#include <new>

namespace module_testing {

/// Allocations of this thread up to the one that fails; negative: none does.
inline thread_local int allocations_left = -1;

/// Lets the `nth` allocation of this thread from now on (1: the next) fail.
class Short_Memory {
public:
  explicit Short_Memory(int nth) { allocations_left = nth - 1; }
  ~Short_Memory() { allocations_left = -1; }
  Short_Memory(const Short_Memory&) = delete;
  Short_Memory& operator=(const Short_Memory&) = delete;
};

inline void* allocate(std::size_t size) noexcept {
  if (allocations_left >= 0 && allocations_left-- == 0)
    return nullptr;
  return std::malloc(size ? size : 1);
}

} // namespace module_testing

/// Replaces the allocating operators of a test program, once in each that uses Short_Memory.
#define MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()                                                                      \
  void* operator new(std::size_t size) {                                                                               \
    if (void* const memory = module_testing::allocate(size))                                                           \
      return memory;                                                                                                   \
    throw std::bad_alloc();                                                                                            \
  }                                                                                                                    \
  void* operator new[](std::size_t size) {                                                                             \
    return operator new(size);                                                                                         \
  }                                                                                                                    \
  void* operator new(std::size_t size, const std::nothrow_t&) noexcept {                                               \
    return module_testing::allocate(size);                                                                             \
  }                                                                                                                    \
  void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {                                             \
    return module_testing::allocate(size);                                                                             \
  }                                                                                                                    \
  void operator delete(void* memory) noexcept {                                                                        \
    std::free(memory);                                                                                                 \
  }                                                                                                                    \
  void operator delete[](void* memory) noexcept {                                                                      \
    std::free(memory);                                                                                                 \
  }                                                                                                                    \
  void operator delete(void* memory, std::size_t) noexcept {                                                           \
    std::free(memory);                                                                                                 \
  }                                                                                                                    \
  void operator delete[](void* memory, std::size_t) noexcept {                                                         \
    std::free(memory);                                                                                                 \
  }                                                                                                                    \
  void operator delete(void* memory, const std::nothrow_t&) noexcept {                                                 \
    std::free(memory);                                                                                                 \
  }                                                                                                                    \
  void operator delete[](void* memory, const std::nothrow_t&) noexcept {                                               \
    std::free(memory);                                                                                                 \
  }
