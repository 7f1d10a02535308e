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
#include <optional>
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
  std::string record;  ///< as it is sent; empty without a value, or if nothing is sent
  std::string note;    ///< why InfluxDB will refuse the record; empty if it will not
  /// The type of each field of the record; empty if InfluxDB will refuse it.
  std::vector<std::pair<std::string, std::string_view>> types;
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

/// The type of what follows the "=" of a field; empty if InfluxDB refuses it.
std::string_view type_of(std::string_view value) {
  constexpr std::array<std::string_view, 10> BOOLEANS{"t", "T", "true",  "True",  "TRUE",
                                                      "f", "F", "false", "False", "FALSE"};
  if (std::ranges::find(BOOLEANS, value) != BOOLEANS.end()) return "a boolean";
  if (value.starts_with('"')) return "a text";
  if (value.ends_with('i')) {
    std::int64_t integer = 0;
    return parse(value.substr(0, value.size() - 1), integer) == std::errc() ? "an integer" : "";
  }
  double number = 0;
  if (value.find_first_not_of("0123456789+-.eE") != value.npos) return "";  // no "inf"
  const std::errc error = parse(value, number);
  // Too small is 0 for InfluxDB, too large an error.
  const bool good =
      error == std::errc() || (error == std::errc::result_out_of_range &&
                               std::isfinite(std::strtod(std::string(value).c_str(), nullptr)));
  return good ? "a float" : "";
}

bool is_time(std::string_view nanoseconds) {
  constexpr std::int64_t LAST = std::numeric_limits<std::int64_t>::max() - 1;
  std::int64_t time = 0;
  return parse(nanoseconds, time) == std::errc() && time >= -LAST && time <= LAST;
}

// A record as InfluxDB reads it, where "\" before a sign takes its meaning away:
//
//     measurement,tag=value,tag=value field=value,field="a text" 1700000000000000000

/// Where the first `sign` that has its meaning is; npos without one.
std::size_t find_sign(char sign, std::string_view text) {
  std::size_t found = text.find(sign);
  while (found != text.npos && found > 0 && text[found - 1] == '\\') {
    found = text.find(sign, found + 1);
  }
  return found;
}

/// Cuts `text` in two at that sign, and returns the first part; all of it without such a sign.
std::string_view take_until(char sign, std::string_view& text) {
  const std::string_view first = text.substr(0, find_sign(sign, text));
  text.remove_prefix(std::min(first.size() + 1, text.size()));
  return first;
}

/// The bytes of a field's value at the beginning of `text`. None: it goes on in the next line,
/// because a quotation mark is open.
std::optional<std::size_t> value_bytes(std::string_view text) {
  bool quoted = false;
  std::size_t i = 0;
  for (; i < text.size() && (quoted || text[i] != ','); ++i) {
    if (text[i] == '"') quoted = !quoted;
    if (text[i] == '\\') ++i;
  }
  return quoted ? std::nullopt : std::optional(std::min(i, text.size()));
}

std::string unreadable(std::string_view part) {
  return fmt::format(
      "InfluxDB cannot read \"{}\": it takes \",\", \"=\" and \"\\\" in a name for its own signs",
      part);
}

/// Why InfluxDB refuses a name and what follows its "="; empty if it does not.
std::string refusal_of_pair(std::string_view name, std::string_view value) {
  if (name.empty() || value.empty()) return "InfluxDB refuses an empty measurement, field or tag";
  if (name == "time") return "InfluxDB refuses a field or a tag that is named \"time\"";
  return "";
}

/// Why InfluxDB refuses a measurement with its tags; empty if it does not.
std::string refusal_of_series(std::string_view text) {
  std::string_view rest = text.substr(std::min(find_sign(',', text), text.size()));
  if (rest.size() == text.size()) return refusal_of_pair("", "");  // no measurement
  std::vector<std::string_view> names;
  while (!rest.empty()) {
    rest.remove_prefix(1);  // the ","
    const std::string_view tag = rest.substr(0, find_sign(',', rest));
    rest.remove_prefix(tag.size());
    std::string_view value = tag;
    const std::string_view name = take_until('=', value);
    const bool known = std::ranges::find(names, name) != names.end();
    if (name == tag || known || find_sign('=', value) != value.npos) return unreadable(text);
    if (std::string refusal = refusal_of_pair(name, value); !refusal.empty()) return refusal;
    names.push_back(name);
  }
  return "";
}

/// The same for fields. Adds their types.
std::string refusal_of_fields(std::string_view text, TranslatedLine& line) {
  while (true) {
    const std::string_view all = text;
    const std::string_view key = take_until('=', text);
    if (key == all || find_sign(',', key) != key.npos) return unreadable(all);
    const auto bytes = value_bytes(text);
    if (!bytes) {
      return fmt::format(
          "InfluxDB finds no end of the value \"{}\": it swallows what follows, up to the next "
          "quotation mark",
          text);
    }
    const std::string_view value = text.substr(0, *bytes);
    if (std::string refusal = refusal_of_pair(key, value); !refusal.empty()) return refusal;
    const std::string_view type = type_of(value);
    if (type.empty()) {
      const bool integer = value.ends_with('i') && all_digits(value.substr(0, value.size() - 1));
      return fmt::format("InfluxDB refuses the value \"{}\"{}", value,
                         integer ? ": an integer has up to 9223372036854775807" : "");
    }
    line.types.emplace_back(key, type);
    if (*bytes == text.size()) return "";
    text.remove_prefix(*bytes + 1);
  }
}

/// Why InfluxDB will refuse the record; empty if it will not, and then adds the types of its
/// fields.
std::string refusal_of(TranslatedLine& line, std::string_view timestamp) {
  std::string_view fields = line.record;
  const std::size_t blank = fields.rfind(' ');
  const std::string_view time = fields.substr(blank + 1);
  fields = fields.substr(0, blank);
  std::string refusal = refusal_of_series(take_until(' ', fields));
  if (refusal.empty()) refusal = refusal_of_fields(fields, line);
  if (refusal.empty() && !is_time(time)) {
    refusal =
        fmt::format("InfluxDB refuses the time: \"{}\" is no number of seconds of up to {} bytes",
                    timestamp, TIMESTAMP_BYTES);
  }
  if (!refusal.empty()) line.types.clear();
  return refusal;
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
    for (const auto& [key, type] : line.types) {
      auto& types = types_[{line.names.measurement, key}];
      if (std::ranges::find(types, type, &FirstOfType::first) != types.end()) continue;
      types.emplace_back(type, fmt::format("{} in \"{} {}\"", type, line.series, line.value));
    }
  }
  /// One line for each field that came with several types: InfluxDB refuses those that do not come
  /// first.
  std::vector<std::string> fields_of_two_types() const {
    std::vector<std::string> lines;
    for (const auto& [field, types] : types_) {
      if (types.size() < 2) continue;
      std::string all;
      for (const auto& [type, line] : types) all += (all.empty() ? "" : " and ") + line;
      lines.push_back(
          fmt::format("field {} of measurement {} is {}", field.second, field.first, all));
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
  /// A type and the first line that has it, as it is shown.
  using FirstOfType = std::pair<std::string_view, std::string>;
  /// By measurement and key.
  std::map<std::pair<std::string, std::string>, std::vector<FirstOfType>> types_;
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
        options.json ? fmt::print("{}", on_one_line({{"warning", conflict}}))
                     : fmt::print("{}\n", styled(WARNING, skein::without_controls(conflict)));
      }
    }
    options.json ? fmt::print("{}", on_one_line({{"lines", lines},
                                                 {"not_translated", failed},
                                                 {"refused", refused},
                                                 {"two_types", two_types.size()},
                                                 {"overwritten", overwritten.size()}}))
                 : fmt::print(
                       "{}, {} not translated, {} refused by InfluxDB, {} of two types, {} "
                       "overwritten\n",
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
  command->add_flag("--json", options->json, "Print one JSON object a line");
  command->add_flag("--lint", options->lint,
                    "Print only what cannot be translated or InfluxDB refuses, fields that come "
                    "with several types (InfluxDB refuses those that do not come first), and "
                    "series that overwrite each other");
  command->footer(
      "Exit status:\n  0  everything was translated\n"
      "  1  something was not, or InfluxDB refuses it, or --lint found something else\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
