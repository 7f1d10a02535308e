#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "pelorus/translate/parts.h"

namespace pelorus {

/// Bytes behind the end of a line that a scanner may read, not use: one that takes 64 bytes for a
/// series and a value, and the next 16 for a timestamp, may find the line's end in the first.
constexpr std::size_t SCAN_SLACK = 64 + 16;
static_assert(SCAN_SLACK >= translate::COPY_STEP);

/// One Graphite line, cut into its fields. Views over the block.
struct ScannedLine {
  std::string_view line;  ///< without its "\n"
  /// Runs of bytes between white space (blank, \t, \r, \v, \f); 4 stands for more than three.
  std::size_t field_count = 0;
  std::array<std::string_view, 3> fields;  ///< series, value, timestamp; the first three at most
};

/// Cuts the line that begins at `begin`, up to the first "\n", which must be there. Any line, on
/// any processor. Returns the byte behind the "\n".
const char* scan_line(const char* begin, ScannedLine& line) noexcept;

/// Whether all bytes of `text` are decimal digits; true for none.
bool all_digits(std::string_view text) noexcept;

/// Seconds since the epoch, from 2001 to 2286.
constexpr std::size_t TIMESTAMP_BYTES = 10;

/// A line of the usual form: series, a blank, value, a blank, timestamp of TIMESTAMP_BYTES, "\n". A
/// scanner's `scan` tells whether the line that begins at `begin` is one, if it can, and cuts it;
/// its end stands within SCAN_SLACK bytes before the last that may be read.
struct UsualLine {
  std::string_view series;
  translate::PartEnds ends;  ///< of its parts
  std::string_view value;
  bool integer;  ///< all digits
  const char* timestamp;

  const char* end() const noexcept { return timestamp + TIMESTAMP_BYTES; }
};

/// Scans no line by itself: leaves all to scan_line, on any processor.
struct PlainScanner {
  static bool scan(const char*, UsualLine&) noexcept { return false; }
};

}  // namespace pelorus
