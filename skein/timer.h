#pragma once

#include <chrono>
#include <compare>
#include <cstdint>

namespace skein {

class Loop;

/// Names one armed callback of a Loop. Small and copyable; dropping it does not cancel.
/// The loop must outlive it.
class Timer {
 public:
  /// The order in which callbacks run.
  struct Key {
    std::chrono::steady_clock::time_point due;
    std::uint64_t number = 0;  ///< counts the loop's timers: of equal due times the older one first
    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 takes a 0 inside <=> for a pointer
    auto operator<=>(const Key&) const = default;
  };

  Timer() = default;
  /// Made by Loop::call_in().
  Timer(Loop& loop, Key key) : loop_(&loop), key_(key) {}

  /// The callback will not run any more. Harmless when it has run, is running, was cancelled
  /// before, or was never armed.
  void cancel();

 private:
  Loop* loop_ = nullptr;
  Key key_;
};

}  // namespace skein
