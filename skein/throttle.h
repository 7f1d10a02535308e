#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace skein {

/// Lets one report through per interval and counts those that it left out.
class Throttle {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Throttle(std::chrono::seconds interval) : interval_(interval) {}

  /// How many were left out since the last one that was let through; none: leave this one out.
  std::optional<std::uint64_t> pass(Time now) {
    if (next_ && now < *next_) {
      ++left_out_;
      return std::nullopt;
    }
    next_ = now + interval_;
    return std::exchange(left_out_, 0);
  }

 private:
  std::chrono::seconds interval_;
  std::optional<Time> next_;
  std::uint64_t left_out_ = 0;
};

}  // namespace skein
