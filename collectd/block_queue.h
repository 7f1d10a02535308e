#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace write_skein {

/// Most bytes of one block. Lines are never cut, so a block of one line may be longer.
constexpr std::size_t BLOCK_BYTES = 64U << 10;
/// Smallest limit of a queue: room for a block in flight and for one that waits.
constexpr std::size_t MIN_QUEUE_BYTES = 2 * BLOCK_BYTES;

/// Complete lines that go in one request.
struct Block {
  std::string lines;
  std::size_t values = 0;  ///< one per line
};

/// What a queue had to drop.
struct Loss {
  std::size_t bytes = 0;
  std::size_t values = 0;
};

/// The lines that wait for one node, cut into blocks. Holds at most `limit` bytes, including the
/// block in flight; above that it drops the oldest waiting block. It has neither a lock nor a
/// clock: its owner provides both.
class BlockQueue {
 public:
  using Clock = std::chrono::steady_clock;

  /// `limit` is at least MIN_QUEUE_BYTES. A block is due when it is full or `max_age` old.
  BlockQueue(std::size_t limit, Clock::duration max_age) : limit_(limit), max_age_(max_age) {}

  /// Adds complete lines.
  void add(std::string_view lines, Clock::time_point now);
  /// Completes the block that is being filled if it is at least `age` old.
  void flush(Clock::duration age, Clock::time_point now);

  /// When the next block is to be sent: far in the past if one is complete, none if the queue is
  /// empty.
  std::optional<Clock::time_point> due() const;
  bool empty() const noexcept { return blocks_.empty() && filling_.lines.empty(); }

  /// Removes the oldest block, complete or not. It is in flight until delivered() or put_back().
  Block take();
  /// The block in flight has arrived.
  void delivered() noexcept;
  /// The block in flight becomes the oldest waiting block again.
  void put_back(Block block);

  /// What was dropped since the last call.
  Loss take_loss() noexcept;
  /// Everything that waits, counted as a loss.
  Loss waiting() const noexcept;

 private:
  void add_line(std::string_view line, Clock::time_point now);
  void complete_block();
  void drop_beyond_limit();

  std::size_t limit_;
  Clock::duration max_age_;
  std::deque<Block> blocks_;         ///< complete, oldest first
  Block filling_;                    ///< takes the next lines
  Clock::time_point first_line_at_;  ///< when filling_ got its first line
  std::size_t bytes_ = 0;            ///< of all lines here and in flight
  std::size_t in_flight_ = 0;        ///< bytes
  Loss loss_;
};

}  // namespace write_skein
