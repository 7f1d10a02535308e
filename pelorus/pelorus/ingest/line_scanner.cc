#include "pelorus/pelorus/ingest/line_scanner.h"

#include <algorithm>
#include <bit>
#include <cstdint>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace pelorus {
namespace {

constexpr std::size_t WINDOW = 64;
static_assert(WINDOW <= SCAN_SLACK);

/// Begin and end of three fields, and the begin of a fourth that should not be there.
constexpr std::size_t MOST_EDGES = 7;

bool is_blank(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

#ifdef __SSE2__
std::uint64_t bits(__m128i matches) noexcept {
  return static_cast<std::uint32_t>(_mm_movemask_epi8(matches));
}
#endif

}  // namespace

ByteMasks plain_masks_of(const char* bytes) noexcept {
  ByteMasks masks{};
  for (std::size_t i = 0; i < WINDOW; ++i) {
    const auto bit = std::uint64_t{1} << i;
    if (is_blank(bytes[i])) masks.blank |= bit;
    if (bytes[i] == '.') masks.dot |= bit;
    if (bytes[i] == '\n') masks.newline |= bit;
  }
  return masks;
}

#ifdef __SSE2__
ByteMasks masks_of(const char* bytes) noexcept {
  ByteMasks masks{};
#pragma GCC unroll 4
  for (unsigned i = 0; i < WINDOW; i += 16) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    const __m128i newline = _mm_cmpeq_epi8(chunk, _mm_set1_epi8('\n'));
    // \t to \r: less than 5 above \t. Saturating subtraction leaves 0 there and nowhere else.
    const __m128i control = _mm_cmpeq_epi8(
        _mm_subs_epu8(_mm_sub_epi8(chunk, _mm_set1_epi8('\t')), _mm_set1_epi8('\r' - '\t')),
        _mm_setzero_si128());
    const __m128i blank = _mm_or_si128(control, _mm_cmpeq_epi8(chunk, _mm_set1_epi8(' ')));
    const __m128i dot = _mm_cmpeq_epi8(chunk, _mm_set1_epi8('.'));
    masks.blank |= bits(blank) << i;
    masks.dot |= bits(dot) << i;
    masks.newline |= bits(newline) << i;
  }
  return masks;
}

bool all_digits(std::string_view text) noexcept {
  constexpr std::size_t STEP = 16;
  static_assert(STEP <= SCAN_SLACK);
  for (std::size_t at = 0; at < text.size(); at += STEP) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
    const __m128i digit =
        _mm_cmpeq_epi8(_mm_subs_epu8(_mm_sub_epi8(chunk, _mm_set1_epi8('0')), _mm_set1_epi8(9)),
                       _mm_setzero_si128());
    const auto others = static_cast<std::uint32_t>(~_mm_movemask_epi8(digit));
    if (static_cast<std::size_t>(std::countr_zero(others)) < std::min(STEP, text.size() - at)) {
      return false;
    }
  }
  return true;
}
#else
ByteMasks masks_of(const char* bytes) noexcept { return plain_masks_of(bytes); }

bool all_digits(std::string_view text) noexcept {
  return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}
#endif

const char* scan_line(const char* begin, ScannedLine& line) noexcept {
  std::array<std::size_t, MOST_EDGES> edges;  // begin and end of each field in turn
  std::size_t edge_count = 0;
  std::uint64_t blank_before = 1;  // the line's begin counts as behind a blank
  line.cuts.count = 0;
  for (std::size_t base = 0;; base += WINDOW) {
    const ByteMasks masks = masks_of(begin + base);
    const std::uint64_t upto_newline = masks.newline ^ (masks.newline - 1);  // all without one
    std::uint64_t changes = (masks.blank ^ (masks.blank << 1U | blank_before)) & upto_newline;
    blank_before = masks.blank >> (WINDOW - 1);
    const bool in_series = edge_count < 2;
    for (; changes != 0 && edge_count < MOST_EDGES; changes &= changes - 1) {
      edges[edge_count++] = base + static_cast<std::size_t>(std::countr_zero(changes));
    }
    if (in_series) {
      std::uint64_t dots = masks.dot & upto_newline;
      if (edge_count >= 2) dots &= (std::uint64_t{1} << (edges[1] - base)) - 1;  // ends here
      for (; dots != 0; dots &= dots - 1) {
        const auto at = base + static_cast<std::size_t>(std::countr_zero(dots)) - edges[0];
        line.cuts.add(static_cast<std::uint32_t>(at));
      }
    }
    if (masks.newline == 0) continue;
    const std::size_t length = base + static_cast<std::size_t>(std::countr_zero(masks.newline));
    line.line = {begin, length};
    line.field_count = (edge_count + 1) / 2;
    for (std::size_t i = 0; i < line.fields.size() && 2 * i + 1 < edge_count; ++i) {
      line.fields[i] = {begin + edges[2 * i], edges[2 * i + 1] - edges[2 * i]};
    }
    return begin + length + 1;
  }
}

}  // namespace pelorus
