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
  const char* name;  ///< of the rule, for people

  /// Whether this row takes every part that `later` takes.
  constexpr bool hides(const RuleRow& later) const noexcept {
    return test == RuleTest::STARTS_WITH ? later.literal.starts_with(literal)
                                         : later.test == test && later.literal == literal;
  }
};

using enum RuleTest;

/// In order: the first row that matches wins.
constexpr std::array<RuleRow, 27> RULES{{
    {STARTS_WITH, "t", rules::tunnel, "tunnel"},  // every "t…" is a tunnel, every "b…" a bridge
    {STARTS_WITH, "b", rules::bridge, "bridge"},
    {STARTS_WITH, "processes-", rules::process, "process"},
    {EQUALS, "processes", rules::processes, "processes"},
    {EQUALS, "vmem", rules::vmem, "vmem"},
    {EQUALS, "irq", rules::irq, "irq"},
    {STARTS_WITH, "interface", rules::interface, "interface"},
    {STARTS_WITH, "cpu-", rules::cpu, "cpu"},
    {EQUALS, "aggregation-cpu-average", rules::aggregation_cpu_average, "aggregation_cpu_average"},
    {EQUALS, "aggregator", rules::aggregator, "aggregator"},
    {STARTS_WITH, "disk", rules::disk, "disk"},
    {STARTS_WITH, "df", rules::df, "df"},
    {EQUALS, "load", rules::load, "load"},
    {EQUALS, "swap", rules::swap, "swap"},
    {EQUALS, "memory", rules::memory, "memory"},
    {STARTS_WITH, "link", rules::link_packet_loss, "link_packet_loss"},
    {EQUALS, "conntrack", rules::conntrack, "conntrack"},
    {EQUALS, "cpufreq", rules::cpufreq, "cpufreq"},
    {EQUALS, "entropy", rules::entropy, "entropy"},
    {EQUALS, "uptime", rules::uptime, "uptime"},
    {EQUALS, "ntpd", rules::ntpd, "ntpd"},
    {STARTS_WITH, "postgresql", rules::postgresql, "postgresql"},
    {EQUALS, "aggfail", rules::aggfail, "aggfail"},
    {EQUALS, "nginx", rules::nginx, "nginx"},
    {EQUALS, "redis", rules::redis, "redis"},
    {EQUALS, "status", rules::status, "status"},
    {EQUALS, "filecount-influxdb", rules::filecount_influxdb, "filecount_influxdb"},
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

/// The first row of a rule, which stands in the table.
constexpr const RuleRow& row_of(Rule rule) noexcept {
  return *std::ranges::find(RULES, rule, &RuleRow::rule);
}

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
  RuleTest test;
  std::string_view text;  ///< the literal
  Rule rule;
  FirstBytes literal;
  FirstBytes mask;  ///< which of these bytes the literal has

  bool matches(const FirstBytes& first, Slice plugin) const noexcept {
    const auto differing = ((first.words[0] & mask.words[0]) ^ literal.words[0]) |
                           ((first.words[1] & mask.words[1]) ^ literal.words[1]);
    if (differing != 0) return false;
    const std::size_t size = text.size();
    if (test == EQUALS ? plugin.size != size : plugin.size < size) return false;
    return size <= FirstBytes::SIZE || plugin.view().starts_with(text);
  }
};

consteval WordRow word_row(const RuleRow& row) {
  std::array<unsigned char, FirstBytes::SIZE> literal{};
  std::array<unsigned char, FirstBytes::SIZE> mask{};
  for (std::size_t i = 0; i < std::min(row.literal.size(), FirstBytes::SIZE); ++i) {
    literal[i] = static_cast<unsigned char>(row.literal[i]);
    mask[i] = 0xFF;
  }
  return {row.test, row.literal, row.rule, std::bit_cast<FirstBytes>(literal),
          std::bit_cast<FirstBytes>(mask)};
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
    if (row.matches(first, plugin)) return row.rule;
  }
  return nullptr;
}

}  // namespace translate
