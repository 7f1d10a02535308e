#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace translate {

/// Bytes that may be read, not used, behind the end of every piece: whoever copies a piece may take
/// PIECE_SLACK bytes at a time. Literals carry them along; the owner of a series name provides
/// them.
constexpr std::size_t PIECE_SLACK = 16;

/// A run of bytes with PIECE_SLACK readable bytes behind it. A view.
struct Piece {
  const char* data;
  std::size_t size;

  std::string_view view() const noexcept { return {data, size}; }
  bool is(Piece other) const noexcept {
    return size == other.size && (data == other.data || view() == other.view());
  }
};

/// The text of a literal, padded so that it can be read in whole steps.
template <std::size_t N>
struct Padded {
  static constexpr std::size_t SIZE = N - 1;
  std::array<char, N + PIECE_SLACK> bytes{};
  // NOLINTNEXTLINE(google-explicit-constructor): a literal becomes its padded self
  constexpr Padded(const char (&literal)[N]) { std::copy_n(literal, N, bytes.begin()); }
};

namespace literals {
template <Padded padded>
constexpr Piece operator""_p() {
  return {padded.bytes.data(), padded.SIZE};
}
}  // namespace literals

/// A text put together from up to three pieces that stay where they are until it is written. One
/// byte may be replaced by another throughout. A view: as long-lived as its pieces.
class Text {
 public:
  Text() = default;
  // NOLINTNEXTLINE(google-explicit-constructor): one piece is a text
  Text(Piece piece) noexcept : count_(1) { pieces_[0] = piece; }
  Text(Piece a, Piece b) noexcept : count_(2) {
    pieces_[0] = a;
    pieces_[1] = b;
  }
  Text(Piece a, Piece b, Piece c) noexcept : count_(3) {
    pieces_[0] = a;
    pieces_[1] = b;
    pieces_[2] = c;
  }

  /// This text with every `from` written as `to`.
  Text replacing(char from, char to) const noexcept {
    Text text = *this;
    text.from_ = from;
    text.to_ = to;
    return text;
  }

  bool empty() const noexcept { return size() == 0; }
  std::size_t size() const noexcept {
    std::size_t total = 0;
    for (unsigned i = 0; i < count_; ++i) total += pieces_[i].size;
    return total;
  }

  /// Writes the text to `out` by copy(out, piece), which returns the end of what it wrote.
  template <class Copy>
  char* write(char* out, Copy&& copy) const {
    char* const begin = out;
    for (unsigned i = 0; i < count_; ++i) out = copy(out, pieces_[i]);
    if (from_ != to_) std::replace(begin, out, from_, to_);
    return out;
  }

  std::string str() const;

 private:
  // The first count_ pieces are set; the others are not worth the stores on the road of each line.
  std::array<Piece, 3> pieces_;
  unsigned count_ = 0;
  char from_ = '\0';
  char to_ = '\0';
};

}  // namespace translate
