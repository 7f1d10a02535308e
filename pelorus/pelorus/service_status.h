#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "skein/loops.h"

namespace pelorus {

/// Keeps the service manager informed while the loop runs: a line about the state (STATUS=), and,
/// where the manager watches for it, a sign of life (WATCHDOG=1) at twice the pace that it asks
/// for. Without a watchdog the line is sent once in STATS_INTERVAL.
class ServiceStatus {
 public:
  using Describe = std::function<std::string()>;

  /// `describe` makes the line. Begins on the next turn of the loop, which it borrows.
  ServiceStatus(Describe describe, skein::Loop& loop);
  ServiceStatus(const ServiceStatus&) = delete;
  ServiceStatus& operator=(const ServiceStatus&) = delete;
  ~ServiceStatus() { timer_.cancel(); }

 private:
  void report();

  Describe describe_;
  skein::Loop& loop_;
  std::optional<std::chrono::microseconds> watchdog_;  ///< without a sign for so long we are dead
  skein::Timer timer_;
  bool failed_ = false;  ///< the last report: it is warned of once
};

/// What WATCHDOG_USEC asks of this process; none where it asks nothing, or asks another process
/// (WATCHDOG_PID). What is no number is a warning.
std::optional<std::chrono::microseconds> watchdog_interval();

}  // namespace pelorus
