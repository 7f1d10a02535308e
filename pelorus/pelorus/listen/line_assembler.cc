#include "pelorus/pelorus/listen/line_assembler.h"

#include <fmt/format.h>

#include <utility>

#include "skein/errors.h"

namespace pelorus {

CompleteLines LineAssembler::add(std::string_view data, std::size_t most_remainder) {
  const std::size_t cut = data.rfind('\n') + 1;  // 0 without any
  const std::string_view tail = data.substr(cut);
  const std::size_t remaining_then = tail.size() + (cut == 0 ? remaining() : 0);
  if (remaining_then > most_remainder) {
    throw skein::LimitError(skein::EndReason::LINE_BYTES,
                            fmt::format("a line of {} bytes without an end, {} are allowed",
                                        remaining_then, most_remainder));
  }
  const auto before = cut == 0 ? nullptr : std::exchange(remainder_, nullptr);
  if (!tail.empty()) {
    if (!remainder_) remainder_ = std::make_unique<std::string>();
    *remainder_ += tail;
  }
  if (!before) return CompleteLines(data.substr(0, cut));
  return CompleteLines(std::move(*before += data.substr(0, cut)));
}

}  // namespace pelorus
