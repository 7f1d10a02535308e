#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace write_skein {

/// Most bytes of one block, save that a single line is never cut.
constexpr std::size_t BLOCK_BYTES = 64U << 10;
/// Below it the oldest block could not be dropped while another is on its way.
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

/// The lines that wait for one node, cut into blocks. Holds at most `limit` bytes, the block that
/// is on its way included; beyond that the oldest waiting block is dropped. No lock, no clock: its
/// owner has both.
class BlockQueue {
 public:
  using Clock = std::chrono::steady_clock;

  /// `limit` is at least MIN_QUEUE_BYTES. A block goes when it is full or `max_age` old.
  BlockQueue(std::size_t limit, Clock::duration max_age) : limit_(limit), max_age_(max_age) {}

  /// Takes complete lines in.
  void add(std::string_view lines, Clock::time_point now);
  /// Ends the block that is being filled if it is `age` old.
  void flush(Clock::duration age, Clock::time_point now);

  /// When the next block is to go: a time that is long past for one that is complete, none while
  /// nothing waits.
  std::optional<Clock::time_point> due() const;
  bool empty() const noexcept { return blocks_.empty() && open_.lines.empty(); }

  /// The oldest block, complete or not; it is on its way until one of the next two is called.
  Block take();
  void delivered() noexcept;
  /// It becomes the oldest waiting block again.
  void give_back(Block block);

  /// What was dropped since this was last asked.
  Loss take_loss() noexcept;
  /// Everything that waits, as if it were lost.
  Loss waiting() const noexcept;

 private:
  void add_line(std::string_view line, Clock::time_point now);
  void complete_open();
  void drop_beyond_limit();

  std::size_t limit_;
  Clock::duration max_age_;
  std::deque<Block> blocks_;  ///< complete, oldest first
  Block open_;                ///< being filled
  Clock::time_point opened_;  ///< when open_ got its first line
  std::size_t bytes_ = 0;     ///< of all lines here and on their way
  std::size_t on_its_way_ = 0;
  Loss loss_;
};

}  // namespace write_skein
