#pragma once

#include <array>
#include <cstddef>
#include <string_view>

#include "pelorus/translate/parts.h"

namespace pelorus {

/// Readable padding after the end of a line. A scanner that reads 64 bytes for series and value,
/// and 16 more for the timestamp, may find the line's end in the first of them:
///
///     a . b   7   1 5 0 0 0 0 0 0 0 0 \n │ next line, or padding …
///     ├─ 64 bytes: series and value ─────────────────────────────────────────────┤
///             ├─ 16 bytes: timestamp ────────┤
constexpr std::size_t SCAN_PADDING = 64 + 16;
static_assert(SCAN_PADDING >= translate::COPY_STEP);

/// One Graphite line, cut into its fields. Views over the block.
struct ScannedLine {
  std::string_view line;  ///< without its "\n"
  /// Runs of bytes between white space (blank, \t, \r, \v, \f); 4 stands for more than three.
  std::size_t field_count = 0;
  std::array<std::string_view, 3> fields;  ///< series, value, timestamp; the first three at most
};

/// Cuts the line that begins at `begin`, up to the first "\n", which must be there. Returns the
/// byte after the "\n".
const char* scan_line(const char* begin, ScannedLine& line) noexcept;

/// Whether all bytes of `text` are decimal digits; true for none.
bool all_digits(std::string_view text) noexcept;

/// Seconds since the epoch, from 2001 to 2286.
constexpr std::size_t TIMESTAMP_BYTES = 10;

/// A line for the fast path: series, a blank, value, a blank, timestamp of TIMESTAMP_BYTES, "\n". A
/// scanner's `scan` cuts the line that begins at `begin` and returns true, or returns false if it
/// is not of this form or the scanner cannot tell. SCAN_PADDING bytes after the line are readable.
struct FastPathLine {
  std::string_view series;
  translate::PartEnds ends;  ///< of its parts
  std::string_view value;
  bool integer;  ///< all digits
  const char* timestamp;

  const char* end() const noexcept { return timestamp + TIMESTAMP_BYTES; }
};

/// The scanner without a fast path, to compare with: leaves every line to scan_line.
struct FallbackScanner {
  static bool scan(const char*, FastPathLine&) noexcept { return false; }
};

}  // namespace pelorus
