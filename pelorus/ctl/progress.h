#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace pelorus::ctl {

/// How far a long transfer has come, on one line of standard error. Silent where that is no
/// terminal, and for what is over at once.
class Progress {
 public:
  /// `total`: bytes in all, if that is known.
  explicit Progress(std::optional<std::uint64_t> total);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Leaves an empty line behind.
  ~Progress();

  /// So many bytes are through by now.
  void show(std::uint64_t done);

 private:
  using Clock = std::chrono::steady_clock;

  const std::optional<std::uint64_t> total_;
  const bool terminal_;
  const Clock::time_point began_ = Clock::now();
  Clock::time_point shown_;  ///< the epoch: not yet
};

/// The line itself: bar, share, amount, rate and the time that is left, as far as they are known.
std::string progress_line(std::uint64_t done, std::optional<std::uint64_t> total, double seconds);

}  // namespace pelorus::ctl
