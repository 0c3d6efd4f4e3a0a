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

// Not inlined: a compiler that sees malloc() and free() behind the operators takes them for a mismatch.
__attribute__((noinline)) inline void* allocate(std::size_t size) noexcept {
  if (allocations_left >= 0 && allocations_left-- == 0)
    return nullptr;
  return std::malloc(size ? size : 1);
}
__attribute__((noinline)) inline void release(void* memory) noexcept {
  std::free(memory);
}
inline void* allocate_or_throw(std::size_t size) {
  if (void* const memory = allocate(size))
    return memory;
  throw std::bad_alloc();
}

} // namespace module_testing

/// Replaces the allocating operators of a test program, once in each that uses Short_Memory.
// clang-format off
#define MODULE_TESTING_DEFINE_FAILING_ALLOCATOR()                                                                    \
  void* operator new(std::size_t size) { return module_testing::allocate_or_throw(size); }                          \
  void* operator new[](std::size_t size) { return module_testing::allocate_or_throw(size); }                        \
  void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return module_testing::allocate(size); }   \
  void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return module_testing::allocate(size); } \
  void operator delete(void* memory) noexcept { module_testing::release(memory); }                                  \
  void operator delete[](void* memory) noexcept { module_testing::release(memory); }                                \
  void operator delete(void* memory, std::size_t) noexcept { module_testing::release(memory); }                     \
  void operator delete[](void* memory, std::size_t) noexcept { module_testing::release(memory); }                   \
  void operator delete(void* memory, const std::nothrow_t&) noexcept { module_testing::release(memory); }           \
  void operator delete[](void* memory, const std::nothrow_t&) noexcept { module_testing::release(memory); }
// clang-format on
