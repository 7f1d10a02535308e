#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/ctl/command.h"
#include "pelorus/ctl/output.h"
#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/translate/rules.h"
#include "pelorus/translate/series_translator.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

/// The translation of one series name or one Graphite line.
struct TranslatedLine {
  std::string series;
  std::string value;  ///< empty if only a series name was given
  std::string rule;   ///< its name and which plugin parts it matches; empty if none was asked
  translate::TranslatedSeries names;
  std::string record;    ///< as it is sent; empty without a value, or if nothing is sent
  std::string note;      ///< why InfluxDB will refuse the record; empty if it will not
  std::string error;     ///< as the daemon logs it; empty if it is translated
  bool skipped = false;  ///< its value is "nan": the daemon leaves it out without logging that
};

/// The part of a series name that selects the rule.
std::string_view plugin_of(std::string_view series) {
  const std::size_t dot = series.find('.');
  if (dot == series.npos) return {};
  series.remove_prefix(dot + 1);
  return series.substr(0, series.find('.'));
}

/// "load (equals \"load\")"; empty if no row of the translator's table matches the series.
std::string rule_of(std::string_view series) {
  const std::string_view plugin = plugin_of(series);
  const std::string padded = std::string(plugin) + std::string(translate::COPY_STEP, '\0');
  const auto* row = translate::choose_rule({padded.data(), plugin.size()});
  if (row == nullptr) return "";
  return fmt::format("{} ({} \"{}\")", row->name,
                     row->test == translate::EQUALS ? "equals" : "starts with", row->literal);
}

/// The record that the daemon builds of a line; empty if it builds none.
std::string record_of(const std::string& text) {
  struct Ignore : BadLineReporter {
    void improperly_formatted(std::string_view) override {}
    void not_translated(std::string_view, translate::Outcome) override {}
  } ignore;
  GraphiteMessage message(translate::names_bytes_at_most(text.size()) + 2 * text.size());
  std::string record(message.build(text, ignore).message);
  if (record.ends_with('\n')) record.pop_back();
  return record;
}

template <class Number>
std::errc parse(std::string_view text, Number& number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ptr != text.data() + text.size()) return std::errc::invalid_argument;
  return result.ec;
}

/// Whether InfluxDB takes what follows the "=" of a field.
bool is_field_value(std::string_view value) {
  constexpr std::array<std::string_view, 10> BOOLEANS{"t", "T", "true",  "True",  "TRUE",
                                                      "f", "F", "false", "False", "FALSE"};
  if (std::ranges::find(BOOLEANS, value) != BOOLEANS.end()) return true;
  if (value.starts_with('"')) return value.find('"', 1) == value.size() - 1;
  if (value.ends_with('i')) {
    std::int64_t integer = 0;
    return parse(value.substr(0, value.size() - 1), integer) == std::errc();
  }
  double number = 0;
  if (value.find_first_not_of("0123456789+-.eE") != value.npos) return false;  // no "inf"
  const std::errc error = parse(value, number);
  // Too small is 0 for InfluxDB, too large an error.
  return error == std::errc() || (error == std::errc::result_out_of_range &&
                                  std::isfinite(std::strtod(std::string(value).c_str(), nullptr)));
}

bool is_time(std::string_view nanoseconds) {
  constexpr std::int64_t LAST = std::numeric_limits<std::int64_t>::max() - 1;
  std::int64_t time = 0;
  return parse(nanoseconds, time) == std::errc() && time >= -LAST && time <= LAST;
}

/// Why InfluxDB will refuse a record; empty if it will not. A name that breaks the record apart is
/// named before what is around the break.
std::string refusal_of(const TranslatedLine& line, std::string_view timestamp) {
  std::vector<std::string_view> texts{line.names.measurement, line.names.key};
  for (const auto& [key, value] : line.names.tags) texts.insert(texts.end(), {key, value});
  for (const std::string_view text : texts) {
    if (text.empty()) return "InfluxDB refuses an empty measurement, field or tag";
    if (text.find_first_of(",=\\") != text.npos) {
      return fmt::format("InfluxDB takes \",\", \"=\" and \"\\\" in \"{}\" for its own signs",
                         text);
    }
  }
  const std::string_view record = line.record;
  const std::size_t blank = record.rfind(' ');
  const bool integer = all_digits(line.value);
  if (!is_field_value(integer ? line.value + "i" : line.value)) {
    return fmt::format("InfluxDB refuses the value \"{}\"{}", line.value,
                       integer ? ": an integer has up to 9223372036854775807" : "");
  }
  if (!is_time(record.substr(blank + 1))) {
    return fmt::format(
        "InfluxDB refuses the time: \"{}\" is no number of seconds of up to {} bytes", timestamp,
        TIMESTAMP_BYTES);
  }
  return "";
}

/// `text`: "series", or "series value timestamp".
TranslatedLine translate_line(const std::string& text) {
  TranslatedLine line;
  ScannedLine scanned;
  const std::string terminated = text + "\n";  // outlives the fields
  scan_line(terminated.data(), scanned);
  if (scanned.field_count != 1 && scanned.field_count != 3) {
    line.series = scanned.line;
    line.error = fmt::format("Improperly formatted metric: \"{}\"", skein::display(scanned.line));
    return line;
  }
  const auto& [series, value, timestamp] = scanned.fields;
  line.series = series;
  const std::string padded = line.series + std::string(translate::COPY_STEP, '\0');
  std::string names(translate::names_bytes_at_most(series.size()), '\0');
  const translate::Outcome outcome =
      translate::GraphiteSeriesTranslator()
          .translate({padded.data(), series.size()}, translate::UNKNOWN_ENDS, names.data(),
                     &line.names)
          .outcome;
  if (outcome != translate::Outcome::SHORT_SOURCE &&
      outcome != translate::Outcome::INVALID_SOURCE_TYPE) {
    line.rule = rule_of(series);
  }
  if (outcome != translate::Outcome::TRANSLATED) {
    line.error = translate::failure_text(outcome, series);
    if (translate::is_unexpected(outcome)) {
      line.error = "Unexpected error occurred when translating series: " + line.error;
    }
  }
  if (scanned.field_count == 1) return line;
  line.value = value;
  line.skipped = value == "nan";
  line.record = record_of(text);
  if (!line.record.empty()) line.note = refusal_of(line, timestamp);
  return line;
}

struct TranslateOptions {
  std::vector<std::string> series;
  bool json = false;
  bool lint = false;
};

/// Conflicts between lines that are good by themselves.
class Lint {
 public:
  void add(const TranslatedLine& line) {
    auto tags = line.names.tags;
    std::ranges::sort(tags);  // as InfluxDB does
    std::string target = fmt::format("field {} of {}", line.names.key, line.names.measurement);
    for (const auto& [key, value] : tags) target += fmt::format(",{}={}", key, value);
    auto& series = series_[std::move(target)];
    if (std::ranges::find(series, line.series) == series.end()) series.push_back(line.series);
    if (line.value.empty() || line.skipped) return;
    auto& [integer, real] = types_[{line.names.measurement, line.names.key}];
    std::string& first = all_digits(line.value) ? integer : real;
    if (first.empty()) first = line.series + " " + line.value;
  }
  /// One line for each field that came as an integer and as a float: InfluxDB refuses the type that
  /// comes second.
  std::vector<std::string> fields_of_two_types() const {
    std::vector<std::string> lines;
    for (const auto& [field, first] : types_) {
      const auto& [integer, real] = first;
      if (integer.empty() || real.empty()) continue;
      lines.push_back(
          fmt::format("field {} of measurement {} is an integer in \"{}\" and a float in \"{}\"",
                      field.second, field.first, integer, real));
    }
    return lines;
  }
  /// One line for each field that several series write: they overwrite each other.
  std::vector<std::string> overwritten() const {
    std::vector<std::string> lines;
    for (const auto& [target, series] : series_) {
      if (series.size() < 2) continue;
      lines.push_back(fmt::format("{} is overwritten: it comes from \"{}\"", target,
                                  fmt::join(series, "\" and \"")));
    }
    return lines;
  }

 private:
  /// The first line with an integer and the first with a float, by measurement and key.
  std::map<std::pair<std::string, std::string>, std::array<std::string, 2>> types_;
  /// The series by the field, measurement and tags that they become.
  std::map<std::string, std::vector<std::string>> series_;
};

std::string joined(const TranslatedLine& line) {
  std::string tags;
  for (const auto& [key, value] : line.names.tags) {
    tags += fmt::format("{}{}={}", tags.empty() ? "" : " ", key, value);
  }
  return tags;
}

void print_line(const TranslatedLine& line) {
  const auto row = [&](const char* name, const std::string& text, Style style = PLAIN) {
    if (!text.empty()) {
      fmt::print("  {:<12} {}\n", name, styled(style, skein::without_controls(text)));
    }
  };
  fmt::print("{}\n", styled(HEADING, skein::without_controls(line.series)));
  row("rule", line.rule);
  row("measurement", line.names.measurement);
  row("tags", joined(line));
  row("key", line.names.key);
  row("record", line.record);
  if (line.skipped) row("left out", "its value is nan");
  row("note", line.note, WARNING);
  row("error", line.error, BAD);
}

/// One JSON object a line.
void print_json(const TranslatedLine& line) {
  Json object{{"series", line.series}, {"rule", line.rule}};
  if (line.error.empty()) {
    object["measurement"] = line.names.measurement;
    object["tags"] = Json::object();
    for (const auto& [key, value] : line.names.tags) object["tags"][key] = value;
    object["key"] = line.names.key;
  }
  const auto add = [&](const char* name, const std::string& text) {
    if (!text.empty()) object[name] = text;
  };
  add("record", line.record);
  if (line.skipped) object["left_out"] = "its value is nan";
  add("note", line.note);
  add("error", line.error);
  fmt::print("{}", on_one_line(object));
}

/// Every series of the command line, else every line of standard input that is not empty.
void each_line(const TranslateOptions& options,
               const std::function<void(const std::string&)>& take) {
  for (const std::string& series : options.series) take(series);
  if (!options.series.empty()) return;
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty()) take(line);
  }
}

void run(const TranslateOptions& options) {
  Lint lint;
  std::size_t lines = 0;
  std::size_t failed = 0;
  std::size_t refused = 0;
  each_line(options, [&](const std::string& text) {
    const TranslatedLine line = translate_line(text);
    const bool translated = line.error.empty();
    ++lines;
    if (!translated) ++failed;
    if (!line.note.empty()) ++refused;
    if (translated && options.lint) lint.add(line);
    if (options.lint && translated && line.note.empty()) return;
    options.json ? print_json(line) : print_line(line);
  });
  const auto two_types = lint.fields_of_two_types();
  const auto overwritten = lint.overwritten();
  if (options.lint) {
    for (const auto* conflicts : {&two_types, &overwritten}) {
      for (const std::string& conflict : *conflicts) {
        fmt::print("{}\n", styled(WARNING, skein::without_controls(conflict)));
      }
    }
    fmt::print("{}, {} not translated, {} refused by InfluxDB, {} of two types, {} overwritten\n",
               human_number_of("line", lines), failed, refused,
               human_number_of("field", two_types.size()), overwritten.size());
  }
  if (failed + refused + two_types.size() + overwritten.size() > 0) {
    throw CLI::RuntimeError(static_cast<int>(ExitStatus::FAILURE));
  }
}

}  // namespace

void add_translate(CLI::App& app) {
  CLI::App* command = app.add_subcommand(
      "translate",
      "Show how the daemon translates series names or Graphite lines; needs no daemon");
  const auto options = std::make_shared<TranslateOptions>();  // shared with the callback
  command
      ->add_option("series", options->series,
                   "Series names, or whole lines (\"series value timestamp\") in quotation marks; "
                   "without any, the lines of standard input")
      ->type_name("");
  auto* json = command->add_flag("--json", options->json, "Print one JSON object a line");
  command
      ->add_flag("--lint", options->lint,
                 "Print only what cannot be translated or InfluxDB refuses, fields that come both "
                 "as an integer and as a float (InfluxDB refuses the type that comes second), and "
                 "series that overwrite each other")
      ->excludes(json);
  command->footer(
      "Exit status:\n  0  everything was translated\n"
      "  1  something was not, or InfluxDB refuses it, or --lint found something else\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
