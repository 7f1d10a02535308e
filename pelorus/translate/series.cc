#include "pelorus/translate/series.h"

namespace translate {

std::string Text::str() const {
  std::string text(size(), '\0');
  write(text.data(), [](char* out, Piece piece) {
    std::memcpy(out, piece.data, piece.size);
    return out + piece.size;
  });
  return text;
}

Cuts Cuts::of(std::string_view series) noexcept {
  Cuts cuts;
  for (auto dot = series.find('.'); dot != std::string_view::npos;
       dot = series.find('.', dot + 1)) {
    cuts.add(static_cast<std::uint32_t>(dot));
  }
  return cuts;
}

Piece Parts::operator[](std::size_t index) noexcept {
  index += first_;
  if (index > cuts_.count) {
    set_fault(Fault::PART_MISSING);
    return {series_.data(), 0};
  }
  const std::size_t begin = index == 0 ? 0 : cuts_.front[index - 1] + 1;
  const std::size_t end = index == cuts_.count ? series_.size() : cuts_.front[index];
  return between(begin, end);
}

Piece Parts::last_but_one() noexcept {
  if (size() < 2) {
    set_fault(Fault::PART_MISSING);
    return {series_.data(), 0};
  }
  return between(cuts_.count < 2 ? 0 : cuts_.last_but_one + 1, cuts_.last);
}

Piece Parts::up_to_last(Piece begin) const noexcept {
  const char* const stop = series_.data() + (cuts_.count == 0 ? 0 : cuts_.last);
  return stop > begin.data + begin.size
             ? Piece{begin.data, static_cast<std::size_t>(stop - begin.data)}
             : begin;
}

void Tags::set(Piece key, const Text& value) noexcept {
  for (std::size_t i = 0; i < count_; ++i) {
    if (tags_[i].key.view() == key.view()) {
      tags_[i].value = value;
      return;
    }
  }
  tags_[count_++] = {key, value};
}

std::optional<std::array<Piece, 2>> split_at_dash(Piece text) noexcept {
  const auto dash = text.view().find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  return {{Piece{text.data, dash}, Piece{text.data + dash + 1, text.size - dash - 1}}};
}

}  // namespace translate
