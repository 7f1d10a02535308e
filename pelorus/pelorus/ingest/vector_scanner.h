#pragma once

#include <simde/x86/sse2.h>

#include <cstddef>
#include <cstdint>

#include "pelorus/pelorus/ingest/line_scanner.h"

namespace pelorus {

/// Scans with vector instructions: a bit for each of 64 bytes at once, from which all cuts are
/// taken. They are SSE2's, which every x86-64 has; SIMDe makes those of other processors out of
/// them.
///
///     begin     n o d e 7 . l o a d . a   1 . 5   1 5 0 0 0 0 0 0 0 0 \n │ padding …
///     blanks    0 0 0 0 0 0 0 0 0 0 0 0 1 0 0 0 1 0 0 0 …               64 bits
///     dots      0 0 0 0 0 1 0 0 0 0 1 0 0 0 1 …                         64 bits
///     ends      0 0 0 0 0 1 0 0 0 0 1 0 1                               dots before the first
///                                                                       blank, and that blank
///
/// The lowest blank ends the series, the next one the value. If the second lies beyond the first 64
/// bytes, the next 64 are scanned for it. The timestamp is tested with one load of 16 bytes: its
/// first blank must be the "\n" after ten bytes.
class VectorScanner {
 public:
  static bool scan(const char* begin, FastPathLine& line) noexcept {
    const std::uint64_t blanks = bits_of_64(begin, at_most_blank);
    if (blanks == 0) return false;
    const std::size_t series_size = lowest(blanks);
    const std::uint64_t after_series = blanks & (0 - blanks);
    std::uint64_t later_blanks = blanks ^ after_series;
    const char* window = begin;
    if (later_blanks == 0) [[unlikely]] {
      if (begin[series_size] != ' ') return false;  // else the line goes on after the 64 bytes
      window += WINDOW;
      later_blanks = bits_of_64(window, at_most_blank);
      if (later_blanks == 0) return false;
    }
    const char* const value = begin + series_size + 1;
    const char* const value_end = window + lowest(later_blanks);
    const auto value_size = static_cast<std::size_t>(value_end - value);
    line.timestamp = value_end + 1;
    const unsigned timestamp_blanks = bits(at_most_blank(load(line.timestamp)));
    if (series_size == 0 || value_size == 0 || begin[series_size] != ' ' || *value_end != ' ' ||
        (timestamp_blanks & TIMESTAMP_MASK) != 1U << TIMESTAMP_BYTES || *line.end() != '\n')
        [[unlikely]] {
      return false;
    }
    line.series = {begin, series_size};
    line.ends = (bits_of_64(begin, is_dot) & (after_series - 1)) | after_series;
    line.value = {value, value_size};
    line.integer = value_size <= STEP
                       ? (~bits(is_digit(load(value))) & ((1U << value_size) - 1)) == 0
                       : all_digits(line.value);
    return true;
  }

 private:
  static constexpr std::size_t STEP = sizeof(simde__m128i);
  static constexpr std::size_t WINDOW = 64;
  static_assert(WINDOW + STEP <= SCAN_PADDING);
  static constexpr unsigned TIMESTAMP_MASK =
      (2U << TIMESTAMP_BYTES) - 1;  ///< and the byte after it
  static_assert(TIMESTAMP_BYTES < STEP);

  static simde__m128i load(const char* bytes) noexcept {
    return simde_mm_loadu_si128(reinterpret_cast<const simde__m128i*>(bytes));
  }
  static unsigned bits(simde__m128i matches) noexcept {
    return static_cast<unsigned>(simde_mm_movemask_epi8(matches));
  }
  static std::size_t lowest(std::uint64_t word) noexcept {
    return static_cast<std::size_t>(__builtin_ctzll(word));
  }

  /// White space, and other control characters, which keep a line off the fast path.
  static simde__m128i at_most_blank(simde__m128i chunk) noexcept {
    return simde_mm_cmpeq_epi8(simde_mm_min_epu8(chunk, simde_mm_set1_epi8(' ')), chunk);
  }
  static simde__m128i is_dot(simde__m128i chunk) noexcept {
    return simde_mm_cmpeq_epi8(chunk, simde_mm_set1_epi8('.'));
  }
  static simde__m128i is_digit(simde__m128i chunk) noexcept {
    const simde__m128i above_zero = simde_mm_sub_epi8(chunk, simde_mm_set1_epi8('0'));
    return simde_mm_cmpeq_epi8(simde_mm_min_epu8(above_zero, simde_mm_set1_epi8(9)), above_zero);
  }

  template <class Test>
  static std::uint64_t bits_of_64(const char* bytes, Test test) noexcept {
    std::uint64_t word = 0;
#pragma GCC unroll 4
    for (std::size_t i = 0; i < WINDOW; i += STEP) {
      word |= std::uint64_t{bits(test(load(bytes + i)))} << i;
    }
    return word;
  }
};

}  // namespace pelorus
