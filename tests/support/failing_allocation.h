#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

// Replaces the operator new of a test program, to make a chosen allocation fail. Include it in
// exactly one source of the program.
namespace support {

/// While one lives, the allocation of this number (0: the next one) throws std::bad_alloc, and so
/// do those behind it, `count` in all. One at a time, one thread.
class FailingAllocation {
 public:
  static constexpr std::size_t ALL = SIZE_MAX;

  explicit FailingAllocation(std::size_t number, std::size_t count = 1) {
    before = number;
    left = count;
    failed = false;
  }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
  ~FailingAllocation() { left = 0; }

  /// False while there have not been that many allocations.
  static bool happened() noexcept { return failed; }

  /// Of the replaced operator new.
  static bool fails_now() noexcept {
    if (left == 0) return false;
    if (before > 0) {
      --before;
      return false;
    }
    --left;
    return failed = true;
  }

 private:
  static inline thread_local std::size_t before = 0;  ///< allocations until the first that fails
  static inline thread_local std::size_t left = 0;    ///< allocations that fail from then on
  static inline thread_local bool failed = false;
};

}  // namespace support

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = support::FailingAllocation::fails_now() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
