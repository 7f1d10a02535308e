#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace skein {

/// Limits the rate of a report that may repeat a thousand times a second: lets one through per
/// interval and counts those that it leaves out.
class Throttle {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Throttle(std::chrono::seconds interval) : interval_(interval) {}

  /// How many were left out since the last one that was let through; none: leave this one out.
  std::optional<std::uint64_t> pass(Time now) noexcept {
    if (next_ && now < *next_) {
      ++left_out_;
      return std::nullopt;
    }
    next_ = now + interval_;
    return std::exchange(left_out_, 0);
  }
  /// The next report is let through. Those that were left out are forgotten.
  void reset() noexcept {
    next_.reset();
    left_out_ = 0;
  }

 private:
  std::chrono::seconds interval_;
  std::optional<Time> next_;
  std::uint64_t left_out_ = 0;
};

}  // namespace skein
