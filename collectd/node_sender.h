#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "collectd/backoff.h"
#include "collectd/block_queue.h"
#include "collectd/complaints.h"
#include "collectd/node_settings.h"
#include "skein/client.h"

namespace write_skein {

/// Sends the lines of one node from a thread of its own, a block at a time; a block is kept until
/// the server has answered. collectd's threads only queue. Owned by the plugin from start to end.
class NodeSender {
 public:
  using Clock = BlockQueue::Clock;

  /// `max_age`: longest time that a line waits for its block to fill. `report` is called from the
  /// sender's thread and from stop(). Throws skein::Failure when there is no descriptor left.
  NodeSender(NodeSettings settings, Clock::duration max_age, Report report);
  /// Stops at once if stop() was not called.
  ~NodeSender();

  const NodeSettings& settings() const noexcept { return settings_; }

  /// Starts the thread, which takes no signals: they are collectd's.
  void start();

  /// Queues complete lines; never waits for the network. Any thread.
  void add(std::string_view lines);
  /// Sends what has waited for `age`. Any thread.
  void flush(Clock::duration age);

  /// Makes the thread send all that waits and then end; does not wait for it.
  void begin_stop();
  /// The same, and waits for the end: for at most `grace`, then what still runs is cut off.
  /// Reports what stayed behind.
  void stop(Clock::duration grace);

 private:
  void run();
  /// Waits for the next block that is to go; none when the thread is to end.
  std::optional<Block> next_block();
  void deliver(Block block);
  /// Throws when the block has to be sent again.
  void send(const Block& block);
  void call(const Block& block);
  /// Puts the block back and waits for the next attempt.
  void keep(Block block);

  const NodeSettings settings_;
  // Thread of the sender only, save client_.cancel().
  skein::Client client_;
  Complaints complaints_;
  Backoff backoff_;
  std::string last_failure_;

  std::mutex mutex_;
  std::condition_variable changed_;   // queue_.due(), stopping_
  std::condition_variable finished_;  // ended_
  // Guarded by mutex_:
  BlockQueue queue_;
  bool stopping_ = false;
  bool gave_up_ = false;  ///< the attempt that is left at the end has failed
  bool ended_ = false;    ///< the thread touches nothing any more
  std::thread thread_;
};

}  // namespace write_skein
