#pragma once

#include <algorithm>
#include <chrono>
#include <random>

namespace write_skein {

/// Waits between attempts to reach a node: anything between nothing and an upper bound that
/// doubles with every failure, so that many senders do not come back in step.
class Backoff {
 public:
  using Duration = std::chrono::milliseconds;
  static constexpr Duration FIRST_BOUND{1000};
  static constexpr Duration LAST_BOUND{60'000};

  explicit Backoff(unsigned seed) : random_(seed) {}

  Duration next() {
    std::uniform_int_distribution<Duration::rep> wait(0, bound_.count());
    bound_ = std::min(bound_ * 2, LAST_BOUND);
    return Duration(wait(random_));
  }
  void reset() noexcept { bound_ = FIRST_BOUND; }

 private:
  std::minstd_rand random_;
  Duration bound_ = FIRST_BOUND;
};

}  // namespace write_skein
