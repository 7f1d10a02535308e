#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "pelorus/translate/series.h"

namespace pelorus {

/// Bytes behind the end of a line that the scanner may read, not use.
constexpr std::size_t SCAN_SLACK = 64;

/// One Graphite line, cut into its fields. Views over the block.
struct ScannedLine {
  std::string_view line;  ///< without its "\n"
  /// Runs of bytes between white space (blank, \t, \r, \v, \f); 4 stands for more than three.
  std::size_t field_count = 0;
  std::array<std::string_view, 3> fields;  ///< series, value, timestamp; the first three at most
  translate::Cuts cuts;                    ///< the dots of the series
};

/// Scans the line that begins at `begin`, up to the first "\n", which must be there, with
/// SCAN_SLACK readable bytes behind it. Returns the byte behind the "\n". One pass over the bytes.
const char* scan_line(const char* begin, ScannedLine& line) noexcept;

/// Whether all bytes of `text` are decimal digits; true for none. Reads up to 16 bytes behind it.
bool all_digits(std::string_view text) noexcept;

/// Which of 64 bytes are white space, dots and line ends: bit 0 stands for the first byte.
struct ByteMasks {
  std::uint64_t blank;  ///< line ends included
  std::uint64_t dot;
  std::uint64_t newline;
};

/// For 64 readable bytes. With the processor's vector instructions where there are some.
ByteMasks masks_of(const char* bytes) noexcept;
/// The same byte by byte, for every processor.
ByteMasks plain_masks_of(const char* bytes) noexcept;

}  // namespace pelorus
