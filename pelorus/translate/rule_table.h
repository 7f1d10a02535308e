#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "pelorus/translate/rules.h"

namespace translate {

enum class RuleTest : std::uint8_t { STARTS_WITH, EQUALS };

/// One row of the table that chooses a rule by the plugin part.
struct RuleRow {
  RuleTest test;
  std::string_view literal;
  Rule rule;

  /// Whether this row takes every part that `later` takes.
  constexpr bool hides(const RuleRow& later) const noexcept {
    return test == RuleTest::STARTS_WITH ? later.literal.starts_with(literal)
                                         : later.test == test && later.literal == literal;
  }
};

using enum RuleTest;

/// In order: the first row that matches wins.
constexpr std::array<RuleRow, 27> RULES{{
    {STARTS_WITH, "t", rules::tunnel},  // every "t…" is a tunnel, every "b…" a bridge
    {STARTS_WITH, "b", rules::bridge},
    {STARTS_WITH, "processes-", rules::process},
    {EQUALS, "processes", rules::processes},
    {EQUALS, "vmem", rules::vmem},
    {EQUALS, "irq", rules::irq},
    {STARTS_WITH, "interface", rules::interface},
    {STARTS_WITH, "cpu-", rules::cpu},
    {EQUALS, "aggregation-cpu-average", rules::aggregation_cpu_average},
    {EQUALS, "aggregator", rules::aggregator},
    {STARTS_WITH, "disk", rules::disk},
    {STARTS_WITH, "df", rules::df},
    {EQUALS, "load", rules::load},
    {EQUALS, "swap", rules::swap},
    {EQUALS, "memory", rules::memory},
    {STARTS_WITH, "link", rules::link_packet_loss},
    {EQUALS, "conntrack", rules::conntrack},
    {EQUALS, "cpufreq", rules::cpufreq},
    {EQUALS, "entropy", rules::entropy},
    {EQUALS, "uptime", rules::uptime},
    {EQUALS, "ntpd", rules::ntpd},
    {STARTS_WITH, "postgresql", rules::postgresql},
    {EQUALS, "aggfail", rules::aggfail},
    {EQUALS, "nginx", rules::nginx},
    {EQUALS, "redis", rules::redis},
    {EQUALS, "status", rules::status},
    {EQUALS, "filecount-influxdb", rules::filecount_influxdb},
}};

consteval bool every_row_reachable() {
  for (std::size_t later = 0; later < RULES.size(); ++later) {
    for (std::size_t earlier = 0; earlier < later; ++earlier) {
      if (RULES[earlier].hides(RULES[later])) return false;
    }
  }
  return true;
}
static_assert(every_row_reachable());

/// The first bytes of a plugin part, or of a literal, as words: compared in one step. Bytes after
/// the end of a short part or literal are masked off:
///
///     part      c p u - 0 . c p u - i d l e . v
///     mask      1 1 1 1 0 0 0 0 0 0 0 0 0 0 0 0
///     literal   c p u -
struct FirstBytes {
  static constexpr std::size_t SIZE = 16;
  static_assert(SIZE <= COPY_STEP);

  std::array<std::uint64_t, 2> words;
};

/// A row as it is looked up. Few literals are longer than FirstBytes.
struct WordRow {
  RuleRow row;
  FirstBytes literal;
  FirstBytes mask;  ///< which of these bytes the literal has

  bool matches(const FirstBytes& first, Slice plugin) const noexcept {
    const auto differing = ((first.words[0] & mask.words[0]) ^ literal.words[0]) |
                           ((first.words[1] & mask.words[1]) ^ literal.words[1]);
    if (differing != 0) return false;
    const std::size_t size = row.literal.size();
    if (row.test == EQUALS ? plugin.size != size : plugin.size < size) return false;
    return size <= FirstBytes::SIZE || plugin.view().starts_with(row.literal);
  }
};

consteval WordRow word_row(const RuleRow& row) {
  std::array<unsigned char, FirstBytes::SIZE> literal{};
  std::array<unsigned char, FirstBytes::SIZE> mask{};
  for (std::size_t i = 0; i < std::min(row.literal.size(), FirstBytes::SIZE); ++i) {
    literal[i] = static_cast<unsigned char>(row.literal[i]);
    mask[i] = 0xFF;
  }
  return {row, std::bit_cast<FirstBytes>(literal), std::bit_cast<FirstBytes>(mask)};
}

/// The table as it is looked up: the rows whose literal begins with the same byte stand together,
/// in the order of the table. A row matches only a part that begins with that byte, so looking at
/// these rows alone finds the same row as looking at all.
struct RulesByFirstByte {
  struct Range {
    std::uint8_t begin = 0;
    std::uint8_t end = 0;
  };
  std::array<WordRow, RULES.size()> rows;
  std::array<Range, 256> of_byte{};
};

consteval RulesByFirstByte rules_by_first_byte() {
  RulesByFirstByte by_byte{};
  std::uint8_t row_count = 0;
  for (std::size_t byte = 0; byte < 256; ++byte) {
    by_byte.of_byte[byte].begin = row_count;
    for (const RuleRow& row : RULES) {
      if (static_cast<unsigned char>(row.literal.front()) == byte) {
        by_byte.rows[row_count++] = word_row(row);
      }
    }
    by_byte.of_byte[byte].end = row_count;
  }
  return by_byte;
}

/// The rule for a plugin part, which has COPY_STEP readable bytes from its start on; null if no row
/// matches.
inline Rule choose_rule(Slice plugin) noexcept {
  static constexpr RulesByFirstByte BY_BYTE = rules_by_first_byte();
  FirstBytes first;
  std::memcpy(&first, plugin.data, sizeof first);
  const auto range = BY_BYTE.of_byte[static_cast<unsigned char>(*plugin.data)];
  for (std::size_t i = range.begin; i != range.end; ++i) {
    const WordRow& row = BY_BYTE.rows[i];
    if (row.matches(first, plugin)) return row.row.rule;
  }
  return nullptr;
}

}  // namespace translate
