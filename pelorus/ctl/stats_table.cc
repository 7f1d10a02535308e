#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <iterator>
#include <optional>
#include <vector>

#include "pelorus/ctl/stats.h"

namespace pelorus::ctl {
namespace {

using skein::Value;
using Line = std::array<std::string, 5>;

const Line HEADINGS{"database", "writing", "waiting", "failures", "last write"};

std::optional<double> number_of(std::optional<Value> value) {
  if (!value) return std::nullopt;
  if (value->is(Value::Type::REAL)) return value->real();
  if (value->is(Value::Type::UNSIGNED)) return static_cast<double>(value->natural());
  if (value->is(Value::Type::INTEGER)) return static_cast<double>(value->integer());
  return std::nullopt;
}

std::string yes_or_no(std::optional<Value> value) {
  if (!value || !value->is(Value::Type::BOOLEAN)) return "?";
  return value->boolean() ? "yes" : "no";
}

std::string count(std::optional<Value> value) {
  const auto number = number_of(value);
  return number ? fmt::format("{:.0f}", *number) : "?";
}

/// In local time, by the second.
std::string moment(std::optional<Value> value) {
  const auto number = number_of(value);
  if (!number || !std::isfinite(*number) || std::abs(*number) > 1e11) return "?";
  const auto seconds = static_cast<std::time_t>(*number);
  std::tm local{};
  std::array<char, 32> text{};
  localtime_r(&seconds, &local);
  std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
  return text.data();
}

Line line_of(Value name, Value stats) {
  const auto get = [&](std::string_view key) {
    return stats.is(Value::Type::MAP) ? stats.find(key) : std::nullopt;
  };
  return {std::string(name.text().value_or("?")), yes_or_no(get("has_current_request")),
          count(get("pending_data_len")), count(get("failure_count")),
          moment(get("last_sent_time"))};
}

}  // namespace

std::string stats_table(Value databases) {
  std::vector<Line> lines{HEADINGS};
  if (databases.is(Value::Type::MAP)) {
    for (auto at = databases.begin(); at != databases.end(); ++at) {
      const Value name = *at;
      lines.push_back(line_of(name, *++at));
    }
  }
  std::array<std::size_t, 4> widths{};
  for (const Line& line : lines) {
    for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  std::string table;
  for (const Line& line : lines) {
    fmt::format_to(std::back_inserter(table), "{:<{}}  {:<{}}  {:>{}}  {:>{}}  {}\n", line[0],
                   widths[0], line[1], widths[1], line[2], widths[2], line[3], widths[3], line[4]);
  }
  return table;
}

}  // namespace pelorus::ctl
