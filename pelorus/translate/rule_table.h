#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "pelorus/translate/rules.h"

namespace translate {

enum class RuleTest : std::uint8_t { STARTS_WITH, EQUALS };

/// One row of the table that chooses a rule by the plugin part.
struct RuleRow {
  RuleTest test;
  std::string_view literal;
  Rule rule;

  constexpr bool matches(std::string_view plugin) const noexcept {
    return test == RuleTest::STARTS_WITH ? plugin.starts_with(literal) : plugin == literal;
  }
  /// Whether every part that `later` takes is taken here already.
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

/// The rows whose literal begins with a given byte, in the order of the table. As every literal
/// begins with some byte, looking at these alone finds the same row as looking at all.
struct RowsOfByte {
  std::uint8_t count = 0;
  std::array<std::uint8_t, 5> rows{};
};

consteval std::array<RowsOfByte, 256> rows_by_first_byte() {
  std::array<RowsOfByte, 256> index{};
  for (std::size_t row = 0; row < RULES.size(); ++row) {
    RowsOfByte& of_byte = index[static_cast<unsigned char>(RULES[row].literal.front())];
    of_byte.rows.at(of_byte.count++) = static_cast<std::uint8_t>(row);
  }
  return index;
}

/// The rule for a plugin part; null when no row matches.
inline Rule choose_rule(Piece plugin) noexcept {
  static constexpr auto INDEX = rows_by_first_byte();
  if (plugin.size == 0) return nullptr;
  const RowsOfByte& of_byte = INDEX[static_cast<unsigned char>(*plugin.data)];
  for (std::size_t i = 0; i < of_byte.count; ++i) {
    const RuleRow& row = RULES[of_byte.rows[i]];
    if (row.matches(plugin.view())) return row.rule;
  }
  return nullptr;
}

}  // namespace translate
