#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>

// Slices of a series name, and names put together from them without an allocation.
//
// A slice is copied in whole steps of 16 bytes, since most are shorter and one step of a fixed
// size costs a load and a store. So a copy reads and writes beyond the end of the slice. Bytes that
// it reads there must be readable; bytes that it writes there are overwritten by the next copy:
//
//     series   n o d e 7 . l o a d . l o a d . m i d t e r m │ padding, 16 bytes │
//                                              ├ slice ────┤
//                                              ├ one step reads 16 bytes ─────┤
//
//     out      l o a d , n o d e = 7   m i d t e r m x x x x x x x x x
//                                      ├ slice ────┤ ↑ written too much; the next copy begins here
namespace translate {

/// Bytes that one step copies, and readable padding after the start of every slice. A literal
/// brings its padding along; the owner of a series name provides it after the name's end.
constexpr std::size_t COPY_STEP = 16;

/// A run of bytes of a series name or a literal. A view.
struct Slice {
  const char* data;
  std::size_t size;

  constexpr std::string_view view() const noexcept { return {data, size}; }
};

/// Copies a slice in steps: writes up to COPY_STEP - 1 bytes beyond its end, which is returned.
[[gnu::always_inline]] inline char* copy_in_steps(char* out, Slice slice) noexcept {
  std::memcpy(out, slice.data, COPY_STEP);
  for (std::size_t done = COPY_STEP; done < slice.size; done += COPY_STEP) [[unlikely]] {
      std::memcpy(out + done, slice.data + done, COPY_STEP);
    }
  return out + slice.size;
}

/// A literal with the padding that copying in steps needs.
template <std::size_t N>
struct Padded {
  static constexpr std::size_t SIZE = N - 1;
  std::array<char, N + COPY_STEP> bytes{};
  constexpr Padded() = default;
  // NOLINTNEXTLINE(google-explicit-constructor): a literal becomes its padded self
  constexpr Padded(const char (&literal)[N]) { std::copy_n(literal, N, bytes.begin()); }
  constexpr Slice slice() const noexcept { return {bytes.data(), SIZE}; }
};

namespace literals {
/// A padded literal as a slice.
template <Padded padded>
constexpr Slice operator""_p() {
  return padded.slice();
}
}  // namespace literals

/// Slices one after the other, which stay where they are until they are written. A view.
template <std::size_t COUNT>
struct Concatenation {
  std::array<Slice, COUNT> slices;

  std::size_t size() const noexcept {
    std::size_t total = 0;
    for (const Slice& slice : slices) total += slice.size;
    return total;
  }
  /// Copies in steps; returns the end.
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    for (const Slice& slice : slices) out = copy_in_steps(out, slice);
    return out;
  }
};

/// A concatenation in which one byte is written as another throughout.
template <std::size_t COUNT>
struct Replaced {
  Concatenation<COUNT> original;
  char from;
  char to;

  std::size_t size() const noexcept { return original.size(); }
  [[gnu::always_inline]] char* write(char* out) const noexcept {
    char* const end = original.write(out);
    std::replace(out, end, from, to);
    return end;
  }
};

template <class... Slices>
Concatenation<sizeof...(Slices)> concat(Slices... slices) noexcept {
  return {{{slices...}}};
}

template <std::size_t COUNT>
Replaced<COUNT> replaced(Concatenation<COUNT> original, char from, char to) noexcept {
  return {original, from, to};
}

/// `slice` without as many bytes as `prefix` has, whatever they are; empty if it is shorter.
template <std::size_t N>
Slice drop_prefix(Slice slice, const char (&)[N]) noexcept {
  const std::size_t dropped = std::min(slice.size, N - 1);
  return {slice.data + dropped, slice.size - dropped};
}

/// `slice` without its last `count` bytes; empty if it is shorter.
inline Slice drop_last(Slice slice, std::size_t count) noexcept {
  return {slice.data, slice.size - std::min(slice.size, count)};
}

/// The last `count` bytes of `slice`, or all of it if it is shorter.
inline Slice last(Slice slice, std::size_t count) noexcept {
  const std::size_t kept = std::min(slice.size, count);
  return {slice.data + slice.size - kept, kept};
}

template <std::size_t N>
bool starts_with(Slice slice, const char (&prefix)[N]) noexcept {
  return slice.size >= N - 1 && std::memcmp(slice.data, prefix, N - 1) == 0;
}

template <std::size_t N>
bool operator==(Slice slice, const char (&literal)[N]) noexcept {
  return slice.size == N - 1 && std::memcmp(slice.data, literal, N - 1) == 0;
}

/// The two sides of the first "-"; none without one.
inline std::optional<std::array<Slice, 2>> split_at_dash(Slice slice) noexcept {
  for (std::size_t at = 0; at < slice.size; ++at) {
    if (slice.data[at] != '-') continue;
    return {{Slice{slice.data, at}, Slice{slice.data + at + 1, slice.size - at - 1}}};
  }
  return std::nullopt;
}

}  // namespace translate
