#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "pelorus/translate/parts.h"
#include "pelorus/translate/record.h"

// One rule per plugin, and the table that chooses a rule by the plugin part of a series name.
//
// A rule writes its record's measurement, field key and tags, in this order; the parts begin with
// the plugin part. Prefixes are dropped by their length, whatever bytes stand there: collectd's
// naming is taken for granted. No state, nothing is thrown.
namespace translate {

using Rule = Outcome (*)(Record& record, Parts& parts);

namespace rules {

Outcome aggfail(Record& record, Parts& parts);
Outcome aggregator(Record& record, Parts& parts);
Outcome aggregation_cpu_average(Record& record, Parts& parts);
Outcome bridge(Record& record, Parts& parts);
Outcome conntrack(Record& record, Parts& parts);
Outcome cpu(Record& record, Parts& parts);
Outcome cpufreq(Record& record, Parts& parts);
Outcome df(Record& record, Parts& parts);
Outcome disk(Record& record, Parts& parts);
Outcome entropy(Record& record, Parts& parts);
Outcome filecount_influxdb(Record& record, Parts& parts);
Outcome interface(Record& record, Parts& parts);
Outcome irq(Record& record, Parts& parts);
Outcome load(Record& record, Parts& parts);
Outcome link_packet_loss(Record& record, Parts& parts);
Outcome memory(Record& record, Parts& parts);
Outcome nginx(Record& record, Parts& parts);
Outcome ntpd(Record& record, Parts& parts);
Outcome postgresql(Record& record, Parts& parts);
Outcome process(Record& record, Parts& parts);
Outcome processes(Record& record, Parts& parts);
Outcome redis(Record& record, Parts& parts);
Outcome status(Record& record, Parts& parts);
Outcome swap(Record& record, Parts& parts);
Outcome tunnel(Record& record, Parts& parts);
Outcome uptime(Record& record, Parts& parts);
Outcome vmem(Record& record, Parts& parts);

}  // namespace rules

enum class RuleTest : std::uint8_t { STARTS_WITH, EQUALS };

/// The first bytes of a plugin part, or of a literal, as words: compared in one step. Bytes after
/// the end of a short part or literal are masked off:
///
///     part      c p u - 0 . c p u - i d l e . v
///     mask      1 1 1 1 0 0 0 0 0 0 0 0 0 0 0 0
///     literal   c p u -
using FirstBytes = std::array<std::uint64_t, 2>;
static_assert(sizeof(FirstBytes) <= COPY_STEP);

/// One row of the table.
struct RuleRow {
  RuleTest test;
  std::string_view literal;
  Rule rule;
  const char* name;  ///< of the rule, for people
  FirstBytes first = first_bytes(false);
  FirstBytes mask = first_bytes(true);  ///< which of these bytes the literal has

  constexpr FirstBytes first_bytes(bool as_mask) const noexcept {
    std::array<unsigned char, sizeof(FirstBytes)> bytes{};
    for (std::size_t i = 0; i < std::min(literal.size(), bytes.size()); ++i) {
      bytes[i] = as_mask ? 0xFF : static_cast<unsigned char>(literal[i]);
    }
    return std::bit_cast<FirstBytes>(bytes);
  }

  /// Whether this row takes every part that `later` takes.
  constexpr bool hides(const RuleRow& later) const noexcept {
    return test == RuleTest::STARTS_WITH ? later.literal.starts_with(literal)
                                         : later.test == test && later.literal == literal;
  }

  bool matches(const FirstBytes& bytes, Slice plugin) const noexcept {
    if ((((bytes[0] & mask[0]) ^ first[0]) | ((bytes[1] & mask[1]) ^ first[1])) != 0) return false;
    const std::size_t size = literal.size();
    if (test == RuleTest::EQUALS ? plugin.size != size : plugin.size < size) return false;
    return size <= sizeof(FirstBytes) || plugin.view().starts_with(literal);
  }
};

using enum RuleTest;

/// In order: the first row that matches wins.
inline constexpr std::array<RuleRow, 27> RULES{{
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

/// The table as it is searched: the rows whose literal begins with the same byte stand together, in
/// the order of the table. A row matches only a part that begins with that byte, so a search of
/// these rows alone finds the same row as a search of all.
inline constexpr auto RULES_BY_FIRST_BYTE = [] {
  auto rows = RULES;
  std::size_t count = 0;
  for (unsigned byte = 0; byte < 256; ++byte) {
    for (const RuleRow& row : RULES) {
      if (static_cast<unsigned char>(row.literal.front()) == byte) rows[count++] = row;
    }
  }
  return rows;
}();

/// How many of those rows begin with a smaller byte: where the rows of a byte begin.
inline constexpr auto ROWS_BEFORE_BYTE = [] {
  std::array<std::uint8_t, 257> before{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    before[byte + 1] = before[byte];
    for (const RuleRow& row : RULES) {
      if (static_cast<unsigned char>(row.literal.front()) == byte) ++before[byte + 1];
    }
  }
  return before;
}();

/// The first row of the table that takes a plugin part, which has COPY_STEP readable bytes from its
/// start on; null if none does.
inline const RuleRow* choose_rule(Slice plugin) noexcept {
  FirstBytes first;
  std::memcpy(&first, plugin.data, sizeof first);
  const auto byte = static_cast<unsigned char>(*plugin.data);
  for (std::size_t i = ROWS_BEFORE_BYTE[byte]; i != ROWS_BEFORE_BYTE[byte + 1U]; ++i) {
    if (RULES_BY_FIRST_BYTE[i].matches(first, plugin)) return &RULES_BY_FIRST_BYTE[i];
  }
  return nullptr;
}

}  // namespace translate
