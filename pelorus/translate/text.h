#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>

namespace translate {

/// Bytes that may be read, not used, behind the begin of every piece that is to be written: so it
/// can be copied in whole steps of as many. Literals carry them along; the owner of a series name
/// provides them behind its end.
constexpr std::size_t PIECE_SLACK = 16;

/// A run of bytes. A view.
struct Piece {
  const char* data;
  std::size_t size;

  constexpr std::string_view view() const noexcept { return {data, size}; }
};

/// Copies a piece in steps of PIECE_SLACK bytes: writes up to 15 bytes behind its end, which is
/// returned. Most pieces take one step.
[[gnu::always_inline]] inline char* copy_in_steps(char* out, Piece piece) noexcept {
  std::memcpy(out, piece.data, PIECE_SLACK);
  for (std::size_t done = PIECE_SLACK; done < piece.size; done += PIECE_SLACK) [[unlikely]] {
      std::memcpy(out + done, piece.data + done, PIECE_SLACK);
    }
  return out + piece.size;
}

/// The text of a literal, padded so that it can be read in whole steps.
template <std::size_t N>
struct Padded {
  static constexpr std::size_t SIZE = N - 1;
  std::array<char, N + PIECE_SLACK> bytes{};
  constexpr Padded() = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a literal becomes its padded self
  constexpr Padded(const char (&literal)[N]) { std::copy_n(literal, N, bytes.begin()); }
  constexpr Piece piece() const noexcept { return {bytes.data(), SIZE}; }
};

namespace literals {
template <Padded padded>
constexpr Piece operator""_p() {
  return padded.piece();
}
}  // namespace literals

/// A text put together from pieces that stay where they are until it is written. A view.
template <std::size_t COUNT>
struct Text {
  std::array<Piece, COUNT> pieces;

  std::size_t size() const noexcept {
    std::size_t total = 0;
    for (const Piece& piece : pieces) total += piece.size;
    return total;
  }
  /// Copies in steps; returns the text's end.
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    for (const Piece& piece : pieces) out = copy_in_steps(out, piece);
    return out;
  }
};

/// A text in which one byte is written as another throughout.
template <std::size_t COUNT>
struct Replaced {
  Text<COUNT> text;
  char from;
  char to;

  std::size_t size() const noexcept { return text.size(); }
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    char* const end = text.write(out);
    std::replace(out, end, from, to);
    return end;
  }
};

template <class... Pieces>
Text<sizeof...(Pieces)> text(Pieces... pieces) noexcept {
  return {{{pieces...}}};
}

template <std::size_t COUNT>
Replaced<COUNT> replaced(Text<COUNT> text, char from, char to) noexcept {
  return {text, from, to};
}

/// `text` without as many bytes as `skipped` has, whatever they are; empty when it is shorter.
template <std::size_t N>
Piece past(Piece text, const char (&)[N]) noexcept {
  const std::size_t drop = std::min(text.size, N - 1);
  return {text.data + drop, text.size - drop};
}

/// `text` without its last `count` bytes; empty when it is shorter.
inline Piece without_last(Piece text, std::size_t count) noexcept {
  return {text.data, text.size - std::min(text.size, count)};
}

/// The last `count` bytes of `text`, or all of it when it is shorter.
inline Piece last(Piece text, std::size_t count) noexcept {
  const std::size_t kept = std::min(text.size, count);
  return {text.data + text.size - kept, kept};
}

template <std::size_t N>
bool starts_with(Piece text, const char (&prefix)[N]) noexcept {
  return text.size >= N - 1 && std::memcmp(text.data, prefix, N - 1) == 0;
}

template <std::size_t N>
bool operator==(Piece text, const char (&literal)[N]) noexcept {
  return text.size == N - 1 && std::memcmp(text.data, literal, N - 1) == 0;
}

/// `text` at both sides of its first "-"; none without one.
inline std::optional<std::array<Piece, 2>> split_at_dash(Piece text) noexcept {
  for (std::size_t at = 0; at < text.size; ++at) {
    if (text.data[at] != '-') continue;
    return {{Piece{text.data, at}, Piece{text.data + at + 1, text.size - at - 1}}};
  }
  return std::nullopt;
}

}  // namespace translate
