#include "pelorus/ctl/translated_line.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>

#include "pelorus/ctl/rule_names.h"
#include "pelorus/translate/series_translator.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

/// What the daemon splits a line at.
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

/// The part that chooses the rule.
std::string_view plugin_of(std::string_view series) {
  const std::size_t dot = series.find('.');
  if (dot == series.npos) return {};
  series.remove_prefix(dot + 1);
  return series.substr(0, series.find('.'));
}

/// "load (equals \"load\")"; empty when no row of the translator's table takes the series.
std::string rule_of(std::string_view series) {
  const std::string_view plugin = plugin_of(series);
  const std::string padded = std::string(plugin) + std::string(translate::COPY_STEP, '\0');
  const auto rule = translate::choose_rule({padded.data(), plugin.size()});
  if (rule == nullptr) return "";
  const auto* row = std::ranges::find(translate::RULES, rule, &translate::RuleRow::rule);
  const auto* name = std::ranges::find(RULE_NAMES, rule, &RuleName::rule);
  return fmt::format("{} ({} \"{}\")", name->name,
                     row->test == translate::EQUALS ? "equals" : "starts with", row->literal);
}

}  // namespace

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

bool is_integer(std::string_view value) {
  return !value.empty() &&
         std::ranges::all_of(value, [](char byte) { return byte >= '0' && byte <= '9'; });
}

}  // namespace pelorus::ctl
