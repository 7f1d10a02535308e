#include "pelorus/ctl/line_blocks.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "skein/errors.h"

namespace pelorus::ctl {

std::string LineBlocks::next() {
  fill();
  if (ended_ && !unread_.empty() && unread_.back() != '\n' && unread_.size() < BLOCK_BYTES) {
    unread_ += '\n';
  }
  const std::size_t end = unread_.rfind('\n') + 1;  // 0: there is no whole line
  if (end == 0 && !unread_.empty()) {
    throw skein::Failure("a line is longer than " + std::to_string(BLOCK_BYTES) + " bytes");
  }
  std::string block = unread_.substr(0, end);
  unread_.erase(0, end);
  return block;
}

void LineBlocks::fill() {
  std::size_t size = unread_.size();
  unread_.resize(BLOCK_BYTES);
  while (!ended_ && size < BLOCK_BYTES) {
    const ssize_t count = ::read(descriptor_, unread_.data() + size, BLOCK_BYTES - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw skein::SystemFailure("cannot read the lines", errno);
    ended_ = count == 0;
    size += static_cast<std::size_t>(count);
  }
  unread_.resize(size);
}

}  // namespace pelorus::ctl
