#include "pelorus/pelorus/listen/complete_lines.h"

#include <utility>

namespace pelorus {

CompleteLines::CompleteLines(std::string& remainder, std::string_view data) {
  const std::size_t cut = data.rfind('\n') + 1;  // 0 without any
  if (cut == 0) {
    remainder += data;
    return;
  }
  lines_ = data.substr(0, cut);
  if (!remainder.empty()) {
    joined_ = std::exchange(remainder, {});
    lines_ = joined_ += lines_;
  }
  if (cut < data.size()) remainder = data.substr(cut);
}

}  // namespace pelorus
