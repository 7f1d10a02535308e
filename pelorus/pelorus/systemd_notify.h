#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "skein/loops.h"

// Notifications of the service manager: states, a status line, and signs of life.
namespace pelorus {

/// Sends the service manager a state, for example "READY=1": one datagram to the socket that
/// NOTIFY_SOCKET names (a path, or an abstract name after '@'). Without it, sends nothing. Never
/// blocks, and never throws for a failure to send: that is logged as a warning.
void systemd_notify(std::string_view state);

/// Informs the service manager while the loop runs: sends a status line (STATUS=) and, if the
/// manager has a watchdog (WATCHDOG_USEC), a sign of life (WATCHDOG=1) twice as often as it asks
/// for. Without a watchdog the line is sent once in STATS_INTERVAL. A failure to send is logged
/// once until sending works again.
class ServiceStatus {
 public:
  using Describe = std::function<std::string()>;

  /// `describe` makes the line. Starts on the next iteration of the loop, which it borrows.
  ServiceStatus(Describe describe, skein::Loop& loop);
  ServiceStatus(const ServiceStatus&) = delete;
  ServiceStatus& operator=(const ServiceStatus&) = delete;
  ~ServiceStatus() { timer_.cancel(); }

 private:
  void report();

  Describe describe_;
  skein::Loop& loop_;
  /// Time without a sign of life after which the manager kills the daemon; none without a watchdog.
  std::optional<std::chrono::microseconds> watchdog_;
  skein::Timer timer_;
  bool failed_ = false;  ///< the last report failed
};

}  // namespace pelorus
