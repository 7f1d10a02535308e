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

Piece Parts::missing() noexcept {
  fault_ = Outcome::PART_MISSING;
  return {series_.data(), 0};
}

Piece Parts::last_but_one() noexcept {
  if (size() < 2) return missing();
  return between(cuts_.count < 2 ? 0 : cuts_.last_but_one + 1, cuts_.last);
}

Piece Parts::up_to_last(Piece begin) const noexcept {
  const char* const stop = series_.data() + (cuts_.count == 0 ? 0 : cuts_.last);
  return stop > begin.data + begin.size
             ? Piece{begin.data, static_cast<std::size_t>(stop - begin.data)}
             : begin;
}

std::optional<std::array<Piece, 2>> split_at_dash(Piece text) noexcept {
  const auto dash = text.view().find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  return {{Piece{text.data, dash}, Piece{text.data + dash + 1, text.size - dash - 1}}};
}

}  // namespace translate
