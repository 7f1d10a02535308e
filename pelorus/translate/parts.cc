#include "pelorus/translate/parts.h"

#include <algorithm>

namespace translate {

Slice Parts::missing() noexcept {
  fault_ = Outcome::PART_MISSING;
  return {series_.data(), 0};
}

std::size_t Parts::look_up_end(std::size_t begin) const noexcept {
  return std::min(series_.find('.', begin), series_.size());
}

Slice Parts::look_up(std::size_t index) noexcept {
  for (std::size_t begin = begin_; begin <= series_.size();) {
    const std::size_t end = look_up_end(begin);
    if (index-- == 0) return between(begin, end);
    begin = end + 1;
  }
  return missing();
}

Slice Parts::last_but_one() noexcept {
  const std::size_t end = series_.rfind('.');
  if (end == std::string_view::npos || end < begin_) return missing();
  const std::size_t dot = end == 0 ? std::string_view::npos : series_.rfind('.', end - 1);
  return between(dot == std::string_view::npos || dot < begin_ ? begin_ : dot + 1, end);
}

Slice Parts::up_to_last(Slice begin) const noexcept {
  const std::size_t last_dot = series_.rfind('.');
  const auto at = static_cast<std::size_t>(begin.data - series_.data());
  if (last_dot == std::string_view::npos || last_dot < at + begin.size) return begin;
  return {begin.data, last_dot - at};
}

}  // namespace translate
