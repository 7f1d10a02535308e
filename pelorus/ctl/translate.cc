#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/ctl/options.h"
#include "pelorus/ctl/output.h"
#include "pelorus/ctl/subcommands.h"
#include "pelorus/translate/rule_table.h"
#include "pelorus/translate/series_translator.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

/// What the daemon makes of one series name or one Graphite line.
struct TranslatedLine {
  std::string series;
  std::string value;  ///< empty if only a series name was given
  std::string rule;   ///< its name and which plugin parts it matches; empty if none matches
  std::string measurement;
  std::string key;
  std::vector<std::pair<std::string, std::string>> tags;
  std::string error;     ///< as the daemon logs it; empty if it is translated
  bool skipped = false;  ///< its value is "nan": the daemon leaves it out without logging that
};

/// The daemon splits a line at these.
constexpr std::string_view WHITE_SPACE = " \t\r\v\f\n";

std::vector<std::string_view> fields_of(std::string_view line) {
  std::vector<std::string_view> fields;
  while (true) {
    const std::size_t begin = line.find_first_not_of(WHITE_SPACE);
    if (begin == line.npos) return fields;
    line.remove_prefix(begin);
    const std::size_t size = std::min(line.find_first_of(WHITE_SPACE), line.size());
    fields.push_back(line.substr(0, size));
    line.remove_prefix(size);
  }
}

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
  const auto rule = translate::choose_rule({padded.data(), plugin.size()});
  if (rule == nullptr) return "";
  const translate::RuleRow& row = translate::row_of(rule);
  return fmt::format("{} ({} \"{}\")", row.name,
                     row.test == translate::EQUALS ? "equals" : "starts with", row.literal);
}

/// `text`: "series", or "series value timestamp".
TranslatedLine translate_line(std::string_view text) {
  TranslatedLine line;
  const auto fields = fields_of(text);
  if (fields.size() != 1 && fields.size() != 3) {
    line.series = text;
    line.error = fmt::format("Improperly formatted metric: \"{}\"", skein::display(text));
    return line;
  }
  line.series = fields[0];
  if (fields.size() == 3) line.value = fields[1];
  line.skipped = line.value == "nan";
  try {
    auto translated = translate::GraphiteSeriesTranslator().translate(line.series);
    line.rule = rule_of(line.series);
    line.measurement = std::move(translated.measurement);
    line.key = std::move(translated.key);
    line.tags = std::move(translated.tags);
  } catch (const translate::GraphiteSeriesTranslationError& error) {
    line.error = error.what();
  } catch (const translate::UnexpectedSeriesError& error) {
    line.rule = rule_of(line.series);
    line.error = fmt::format("Unexpected error occurred when translating series: {}", error.what());
  }
  return line;
}

/// Whether the daemon writes the value as an integer.
bool is_integer(std::string_view value) {
  return !value.empty() &&
         std::ranges::all_of(value, [](char byte) { return byte >= '0' && byte <= '9'; });
}

struct TranslateOptions {
  std::vector<std::string> series;
  bool json = false;
  bool lint = false;
};

/// Which fields came as integers and which as floats. InfluxDB refuses the type that comes second.
class FieldTypes {
 public:
  void note(const TranslatedLine& line) {
    if (line.value.empty()) return;
    Seen& seen = fields_[{line.measurement, line.key}];
    std::string& first = is_integer(line.value) ? seen.integer : seen.real;
    if (first.empty()) first = line.series + " " + line.value;
  }
  /// One line for each field that came as both.
  std::vector<std::string> conflicts() const {
    std::vector<std::string> lines;
    for (const auto& [field, seen] : fields_) {
      if (seen.integer.empty() || seen.real.empty()) continue;
      lines.push_back(
          fmt::format("field {} of measurement {} is an integer in \"{}\" and a float "
                      "in \"{}\"",
                      field.second, field.first, seen.integer, seen.real));
    }
    return lines;
  }

 private:
  struct Seen {
    std::string integer;  ///< the first line that had one
    std::string real;
  };
  std::map<std::pair<std::string, std::string>, Seen> fields_;
};

std::string joined(const TranslatedLine& line) {
  std::string tags;
  for (const auto& [key, value] : line.tags) {
    tags += fmt::format("{}{}={}", tags.empty() ? "" : " ", key, value);
  }
  return tags;
}

void print_line(const TranslatedLine& line, const Palette& palette) {
  const auto row = [&](const char* name, const std::string& text, Tone tone = Tone::PLAIN) {
    if (!text.empty()) {
      fmt::print("  {:<12} {}\n", name, palette.paint(tone, skein::without_controls(text)));
    }
  };
  fmt::print("{}\n", palette.paint(Tone::HEADING, skein::without_controls(line.series)));
  row("rule", line.rule);
  row("measurement", line.measurement);
  row("tags", joined(line));
  row("key", line.key);
  if (line.skipped) row("left out", "its value is nan");
  row("error", line.error, Tone::BAD);
}

/// One JSON object a line.
void print_json(const TranslatedLine& line) {
  nlohmann::ordered_json object{{"series", line.series}, {"rule", line.rule}};
  if (line.error.empty()) {
    object["measurement"] = line.measurement;
    object["tags"] = nlohmann::ordered_json::object();
    for (const auto& [key, value] : line.tags) object["tags"][key] = value;
    object["key"] = line.key;
  } else {
    object["error"] = line.error;
  }
  const auto replace = nlohmann::ordered_json::error_handler_t::replace;
  fmt::print("{}\n", object.dump(-1, ' ', false, replace));
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
  const Palette palette = Palette::of_stdout();
  FieldTypes types;
  std::size_t lines = 0;
  std::size_t failed = 0;
  each_line(options, [&](const std::string& text) {
    const TranslatedLine line = translate_line(text);
    const bool good = line.error.empty();
    ++lines;
    if (!good) ++failed;
    if (good && !line.skipped) types.note(line);
    if (options.lint && good) return;
    options.json ? print_json(line) : print_line(line, palette);
  });
  std::size_t conflicts = 0;
  if (options.lint) {
    for (const std::string& conflict : types.conflicts()) {
      ++conflicts;
      fmt::print("{}\n", palette.paint(Tone::WARNING, skein::without_controls(conflict)));
    }
    fmt::print("{}, {} not translated, {} of two types\n", human_number_of("line", lines), failed,
               human_number_of("field", conflicts));
  }
  if (failed + conflicts > 0) throw CLI::RuntimeError(static_cast<int>(ExitStatus::FAILURE));
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
                 "Print only what cannot be translated, and fields that come both as an integer "
                 "and as a float: InfluxDB refuses the type that comes second")
      ->excludes(json);
  command->footer(
      "Exit status:\n  0  everything was translated\n"
      "  1  something was not, or with --lint a field comes in two types\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
