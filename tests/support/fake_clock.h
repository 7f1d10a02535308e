#pragma once

#include <chrono>

#include "skein/loops.h"

namespace support {

/// Both clocks of a loop under test: they stand still until a test ticks them.
class FakeClock {
 public:
  /// Pass to the Loop under test; this object must outlive it.
  skein::Clocks clocks() {
    return {.monotonic = [this] { return monotonic_; }, .wall = [this] { return wall_; }};
  }

  void tick(double seconds) {
    monotonic_ += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
    wall_ += seconds;
  }
  void set_wall(double seconds_since_epoch) { wall_ = seconds_since_epoch; }

 private:
  std::chrono::steady_clock::time_point monotonic_ = std::chrono::steady_clock::now();
  double wall_ = 1'700'000'000.0;
};

}  // namespace support
