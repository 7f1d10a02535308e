#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace skein {

/// Limits the rate of a report that may repeat a thousand times a second: lets so many through in
/// each interval and counts those that it leaves out.
class Throttle {
 public:
  using Time = std::chrono::steady_clock::time_point;

  explicit Throttle(std::chrono::seconds interval, std::uint32_t most = 1)
      : interval_(interval), most_(most) {}

  /// How many were left out since the last one that was let through; none: leave this one out.
  std::optional<std::uint64_t> pass(Time now) noexcept {
    if (now >= end_) {
      end_ = now + interval_;
      passed_ = 0;
    }
    if (passed_ == most_) {
      ++left_out_;
      return std::nullopt;
    }
    ++passed_;
    return std::exchange(left_out_, 0);
  }
  /// Since the last report that was let through.
  std::uint64_t left_out() const noexcept { return left_out_; }
  /// The next report is let through. Those that were left out are forgotten.
  void reset() noexcept {
    end_ = Time::min();
    left_out_ = 0;
  }

 private:
  std::chrono::seconds interval_;
  std::uint32_t most_;
  std::uint32_t passed_ = 0;  ///< in the present interval
  Time end_ = Time::min();    ///< of the present interval
  std::uint64_t left_out_ = 0;
};

}  // namespace skein
