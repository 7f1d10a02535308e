#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "skein/loops.h"
#include "support/fake_clock.h"

namespace support {

/// Runs the loop until `condition()` holds. Fails after ten seconds of real time.
template <class Condition>
void run_until(skein::Loop& loop, Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "waited in vain";
    loop.run_once();
  }
}

/// A loop that the test runs, on a clock that it ticks.
class LoopTest : public testing::Test {
 protected:
  void run_loop(int count = 5) {
    for (int i = 0; i < count; ++i) loop_.run_once();
  }
  void tick(double seconds) {
    clock_.tick(seconds);
    loop_.run_once();
  }
  template <class Condition>
  void until(Condition condition) {
    run_until(loop_, condition);
  }

  FakeClock clock_;
  skein::Loop loop_{clock_.clocks()};
};

}  // namespace support
