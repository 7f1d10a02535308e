#include "pelorus/pelorus/line_queue.h"

#include <algorithm>
#include <utility>

namespace pelorus::log {
namespace {

/// A flood does not keep its memory.
constexpr std::size_t KEPT_BYTES = 256U << 10;

}  // namespace

void LineQueue::end_record() {
  if (open_lines_ == 0) return;
  records_.push_back({text_.size() - tail_, open_lines_});
  lines_ += std::exchange(open_lines_, 0);
  tail_ = text_.size();
  while (records_.size() > 1 && (lines_ > QUEUE_LINES || tail_ - head_ > QUEUE_BYTES)) drop_front();
  if (head_ > QUEUE_BYTES) tidy();
}

void LineQueue::drop_front() {
  const Record& oldest = records_.front();
  dropped_ += oldest.lines;
  lines_ -= oldest.lines;
  head_ += oldest.bytes;
  records_.pop_front();
}

void LineQueue::drop(std::uint64_t lines) {
  while (!records_.empty()) drop_front();
  dropped_ += lines;
  tidy();
}

void LineQueue::told(std::string_view rest) {
  dropped_ = 0;
  begun_ = rest;
}

std::string_view LineQueue::next() const noexcept {
  if (!begun_.empty()) return begun_;
  return std::string_view(text_).substr(head_, tail_ - head_);
}

void LineQueue::took(std::size_t bytes) {
  if (!begun_.empty()) {
    begun_.erase(0, bytes);
    return;
  }
  while (bytes > 0) {
    const Record first = records_.front();
    if (bytes < first.bytes) begun_ = text_.substr(head_ + bytes, first.bytes - bytes);
    bytes -= std::min(bytes, first.bytes);
    lines_ -= first.lines;
    head_ += first.bytes;
    records_.pop_front();
  }
  if (records_.empty()) tidy();
}

void LineQueue::tidy() {
  text_.erase(0, head_);
  tail_ -= head_;
  head_ = 0;
  if (text_.empty() && text_.capacity() > KEPT_BYTES) text_.shrink_to_fit();
}

}  // namespace pelorus::log
