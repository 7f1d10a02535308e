#pragma once

#include <chrono>

#include "skein/socket.h"

namespace skein {

/// Waits for one descriptor at a time, never beyond a deadline. Used by one thread, save cancel().
class Waiter {
 public:
  using Clock = std::chrono::steady_clock;

  /// Throws SystemFailure when there is no descriptor left.
  Waiter();

  /// Waits until `descriptor` is ready for `events` (of poll(2)) or has failed; false when the
  /// deadline came first. A descriptor of -1 waits for the deadline alone.
  /// Throws ClientError CANCELLED.
  bool wait(int descriptor, short events, Clock::time_point deadline) const;

  /// Ends all waiting of this object, present and future. Any thread.
  void cancel() noexcept;

 private:
  Socket cancelled_;  // an eventfd, readable once cancelled
};

}  // namespace skein
