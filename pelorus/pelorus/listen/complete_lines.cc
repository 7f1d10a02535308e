#include "pelorus/pelorus/listen/complete_lines.h"

#include <fmt/format.h>

#include <utility>

#include "skein/errors.h"

namespace pelorus {

void Remainder::append(std::string_view more) {
  if (more.empty()) return;
  if (!text_) text_ = std::make_unique<std::string>();
  *text_ += more;
}

std::string Remainder::take() {
  if (!text_) return {};
  return std::move(*std::exchange(text_, nullptr));
}

CompleteLines::CompleteLines(Remainder& remainder, std::string_view data,
                             std::size_t most_remainder) {
  const std::size_t cut = data.rfind('\n') + 1;  // 0 without any
  const std::size_t size = data.size() - cut + (cut == 0 ? remainder.size() : 0);
  if (size > most_remainder) {
    throw skein::LimitError(
        fmt::format("a line of {} bytes without an end, {} are allowed", size, most_remainder));
  }
  if (cut != 0) {
    lines_ = data.substr(0, cut);
    if (!remainder.empty()) {
      joined_ = remainder.take();
      lines_ = joined_ += lines_;
    }
  }
  remainder.append(data.substr(cut));
}

}  // namespace pelorus
