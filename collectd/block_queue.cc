#include "collectd/block_queue.h"

#include <algorithm>
#include <utility>

namespace write_skein {

void BlockQueue::add(std::string_view lines, Clock::time_point now) {
  while (!lines.empty()) {
    const std::size_t end = std::min(lines.find('\n'), lines.size() - 1) + 1;
    add_line(lines.substr(0, end), now);
    lines.remove_prefix(end);
  }
  drop_beyond_limit();
}

void BlockQueue::add_line(std::string_view line, Clock::time_point now) {
  if (filling_.lines.size() + line.size() > BLOCK_BYTES) complete_block();
  if (filling_.lines.empty()) first_line_at_ = now;
  filling_.lines += line;
  ++filling_.values;
  bytes_ += line.size();
}

void BlockQueue::complete_block() {
  if (filling_.lines.empty()) return;
  filling_.lines.shrink_to_fit();
  blocks_.push_back(std::exchange(filling_, {}));
}

void BlockQueue::flush(Clock::duration age, Clock::time_point now) {
  if (now - first_line_at_ >= age) complete_block();
}

std::optional<BlockQueue::Clock::time_point> BlockQueue::due() const {
  if (!blocks_.empty()) return Clock::time_point::min();
  if (filling_.lines.empty()) return std::nullopt;
  return first_line_at_ + max_age_;
}

Block BlockQueue::take() {
  if (blocks_.empty()) complete_block();
  Block block = std::move(blocks_.front());
  blocks_.pop_front();
  in_flight_ = block.lines.size();
  return block;
}

void BlockQueue::delivered() noexcept { bytes_ -= std::exchange(in_flight_, 0); }

void BlockQueue::put_back(Block block) {
  in_flight_ = 0;
  blocks_.push_front(std::move(block));
}

void BlockQueue::drop_beyond_limit() {
  while (bytes_ > limit_ && !blocks_.empty()) {
    const Block& oldest = blocks_.front();
    bytes_ -= oldest.lines.size();
    loss_.bytes += oldest.lines.size();
    loss_.values += oldest.values;
    blocks_.pop_front();
  }
}

Loss BlockQueue::take_loss() noexcept { return std::exchange(loss_, {}); }

Loss BlockQueue::waiting() const noexcept {
  Loss all{bytes_ - in_flight_, filling_.values};
  for (const Block& block : blocks_) all.values += block.values;
  return all;
}

}  // namespace write_skein
