#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace pelorus {

/// How fast a queue has grown of late, from samples that are taken now and then.
class QueueGrowth {
 public:
  /// `now`: seconds of a clock that never steps. `level`: any running total of the queue.
  void sample(double now, std::int64_t level) noexcept {
    samples_[taken_++ % samples_.size()] = {now, level};
  }

  /// Messages per second since the oldest sample; negative when it shrinks. None without samples.
  std::optional<double> per_second(double now, std::int64_t level) const noexcept {
    if (taken_ == 0) return std::nullopt;
    const Sample& oldest = samples_[taken_ < samples_.size() ? 0 : taken_ % samples_.size()];
    if (now <= oldest.time) return std::nullopt;
    return static_cast<double>(level - oldest.level) / (now - oldest.time);
  }

 private:
  struct Sample {
    double time = 0;
    std::int64_t level = 0;
  };
  std::array<Sample, 6> samples_{};  ///< one every ten seconds: the last minute
  std::size_t taken_ = 0;
};

}  // namespace pelorus
