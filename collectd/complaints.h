#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "collectd/block_queue.h"

namespace write_skein {

enum class Level { WARNING, NOTICE };
using Report = std::function<void(Level, const std::string&)>;

/// Says each thing about one node once: one line when it cannot be reached, one when it can be
/// again; blocks that it refuses, and values that a full queue drops while it can be reached, at
/// most every REPEAT. Lines begin with the node's name.
class Complaints {
 public:
  using Clock = BlockQueue::Clock;
  static constexpr std::chrono::minutes REPEAT{5};

  Complaints(std::string node, Report report);

  /// An attempt failed; the block is kept.
  void failed(const std::string& reason, Clock::time_point now);
  /// The server answered; `loss` is what the queue dropped since the last answer.
  void answered(Loss loss, Clock::time_point now);
  /// The answer was an error: the block of `values` values is dropped.
  void refused(const std::string& reason, std::size_t values, Clock::time_point now);
  /// `loss` never went out, because of `reason`.
  void stopped(Loss loss, const std::string& reason);

 private:
  /// Collects until the next line may be said.
  struct Pending {
    std::size_t values = 0;
    std::optional<Clock::time_point> said;

    bool may_say(Clock::time_point now) const { return !said || now - *said >= REPEAT; }
  };

  std::string prefix_;
  Report report_;
  std::optional<Clock::time_point> outage_;  ///< its first failure
  Pending refused_;
  Pending dropped_;
};

}  // namespace write_skein
