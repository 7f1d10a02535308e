#include "pelorus/ctl/translate.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "pelorus/ctl/exit_status.h"
#include "pelorus/ctl/human.h"
#include "pelorus/ctl/terminal.h"
#include "pelorus/ctl/translated_line.h"

namespace pelorus::ctl {
namespace {

struct TranslateOptions {
  std::vector<std::string> series;
  bool json = false;
  bool lint = false;
};

/// Which fields came as integers and which as floats. InfluxDB refuses the second kind.
class FieldTypes {
 public:
  void note(const TranslatedLine& line) {
    if (line.value.empty()) return;
    Seen& seen = fields_[{line.measurement, line.key}];
    std::string& first = is_integer(line.value) ? seen.integer : seen.real;
    if (first.empty()) first = line.series + " " + line.value;
  }
  /// A line for each field that came as both.
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
      fmt::print("  {:<12} {}\n", name, palette.paint(tone, without_controls(text)));
    }
  };
  fmt::print("{}\n", palette.paint(Tone::HEADING, without_controls(line.series)));
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
      fmt::print("{}\n", palette.paint(Tone::WARNING, without_controls(conflict)));
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
      "Show what the daemon makes of series names or Graphite lines, without a daemon");
  const auto options = std::make_shared<TranslateOptions>();  // shared with the callback
  command
      ->add_option("series", options->series,
                   "Series names, or whole lines (\"series value timestamp\") in quotation marks; "
                   "without any, each line of standard input")
      ->type_name("");
  auto* json = command->add_flag("--json", options->json, "Print one JSON object a line");
  command
      ->add_flag("--lint", options->lint,
                 "Print only what cannot be translated, and each field that comes both as an "
                 "integer and as a float: InfluxDB refuses one of the two")
      ->excludes(json);
  command->footer(
      "Exit status:\n  0  everything is translated\n"
      "  1  something is not, or with --lint a field comes in two types\n"
      "  2  wrong command line\n");
  command->callback([options] { run(*options); });
}

}  // namespace pelorus::ctl
