#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "collectd/block_queue.h"

namespace write_skein {

/// Writes a line to the log. `priority`: LOG_WARNING or LOG_NOTICE of syslog(3).
using Log = std::function<void(int priority, const std::string& line)>;

/// Reports the errors of one node without flooding the log. An outage gets one line when it begins
/// and one when it ends. Values that the server refuses, or that a full queue drops while the
/// server answers, are summed up and reported at most once per REPEAT. Every line begins with the
/// node's name.
class ErrorReporter {
 public:
  using Clock = BlockQueue::Clock;
  static constexpr std::chrono::minutes REPEAT{5};

  ErrorReporter(const std::string& node, Log log);

  /// An attempt to send failed; the block stays in the queue.
  void failed(const std::string& reason, Clock::time_point now);
  /// The server answered. `loss`: what the queue dropped since the last answer.
  void answered(Loss loss, Clock::time_point now);
  /// The server answered with an error; the block of `values` values is dropped.
  void refused(const std::string& reason, std::size_t values, Clock::time_point now);
  /// At the end of collectd, `loss` was not sent because of `reason`.
  void stopped(Loss loss, const std::string& reason);

 private:
  /// Values that the log does not mention yet.
  struct Unreported {
    std::size_t values = 0;
    std::optional<Clock::time_point> last_line;

    bool is_due(Clock::time_point now) const { return !last_line || now - *last_line >= REPEAT; }
  };

  std::string prefix_;
  Log log_;
  std::optional<Clock::time_point> outage_;  ///< its first failure
  Unreported refused_;
  Unreported dropped_;
};

}  // namespace write_skein
