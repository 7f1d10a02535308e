#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "skein/loops.h"

namespace support {

/// Turns the loop until `condition()` holds. Fails after ten seconds of real time.
template <class Condition>
void turn_until(skein::Loop& loop, Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "waited in vain";
    loop.turn();
  }
}

}  // namespace support
