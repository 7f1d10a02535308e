#include "pelorus/translate/series_translator.h"

#include <algorithm>
#include <array>

#include "pelorus/translate/rule_table.h"
#include "skein/profile_scope.h"
#include "skein/text.h"

namespace translate {
namespace {

constexpr std::size_t SOURCE_TYPE_BYTES = 4;

/// The first part names who sent the value: "node" + identifier, or "m…" for a host.
Outcome read_source(Slice source, Record& record) noexcept {
  if (source.size < SOURCE_TYPE_BYTES) return Outcome::SHORT_SOURCE;
  if (*source.data == 'n') {
    record.set_node({source.data + SOURCE_TYPE_BYTES, source.size - SOURCE_TYPE_BYTES});
  } else if (*source.data != 'm') {
    return Outcome::INVALID_SOURCE_TYPE;
  }
  return Outcome::TRANSLATED;
}

/// Runs the rule, which in a profiled run is a function of its own.
Outcome run(Rule rule, Record& record, Parts& parts) {
  using skein::profile::Site;
  if (skein::profile::active == nullptr) [[likely]]
    return rule(record, parts);
  static auto sites = [] {
    std::array<Site, RULES.size()> made{};
    std::ranges::transform(RULES, made.begin(), [](const RuleRow& row) {
      return Site{__FILE__, __LINE__, row.name};
    });
    return made;
  }();
  const skein::profile::Scope scope(
      sites.at(static_cast<std::size_t>(&row_of(rule) - RULES.data())));
  return rule(record, parts);
}

/// What a failure's text has before and after the series.
struct FailureTexts {
  std::string_view before = "Could not translate \"";
  std::string_view after;
};

FailureTexts failure_texts(Outcome outcome) {
  switch (outcome) {
    case Outcome::SHORT_SOURCE:
      return {.after = "\": Could not determine source type"};
    case Outcome::INVALID_SOURCE_TYPE:
      return {.after = "\": Invalid source type "};
    case Outcome::NO_RULE:
      return {.after = "\": No match for series"};
    case Outcome::KEY_MISSING:
      return {.after = "\": Field key is missing"};
    case Outcome::PART_MISSING:
      return {"series ", " has too few parts for its rule"};
    case Outcome::NO_DASH:
      return {"series ", " has no \"-\" where its rule splits it"};
    case Outcome::KEY_UNASSIGNED:
      return {"series ", ": local variable 'key' referenced before assignment"};
    default:
      return {.after = "\": "};
  }
}

}  // namespace

std::string failure_text(Outcome outcome, std::string_view series) {
  const auto [before, after] = failure_texts(outcome);
  std::string text;
  text.reserve(before.size() + series.size() + after.size() + 8);  // the quotes of the series
  text += before;
  skein::append_display(text, series);
  text += after;
  if (outcome == Outcome::INVALID_SOURCE_TYPE) {
    skein::append_display(text, series.substr(0, SOURCE_TYPE_BYTES));
  }
  return text;
}

NamesWritten GraphiteSeriesTranslator::translate(std::string_view series, PartEnds ends, char* out,
                                                 TranslatedSeries* separate) const {
  PROFILE_SCOPE();
  Parts parts(series, ends);
  Record record(parts, out, separate);
  const Outcome source = read_source(parts[0], record);
  if (source != Outcome::TRANSLATED) return {out, source};
  parts.remove_first();
  const Slice plugin = parts[0];
  if (parts.fault() != Outcome::TRANSLATED) return {out, parts.fault()};
  const Rule rule = choose_rule(plugin);
  if (rule == nullptr) return {out, Outcome::NO_RULE};
  const Outcome outcome = run(rule, record, parts);
  // A part that is missing comes before whatever else the rule finds wrong.
  if (parts.fault() != Outcome::TRANSLATED) return {out, parts.fault()};
  return {record.end(), outcome};
}

TranslatedSeries GraphiteSeriesTranslator::translate(std::string_view series) const {
  std::string padded(series);
  padded.append(COPY_STEP, '\0');
  std::string names(names_bytes_at_most(series.size()), '\0');
  TranslatedSeries separate;
  const auto [end, outcome] =
      translate({padded.data(), series.size()}, UNKNOWN_ENDS, names.data(), &separate);
  if (is_unexpected(outcome)) throw UnexpectedSeriesError(failure_text(outcome, series));
  if (outcome != Outcome::TRANSLATED) {
    throw GraphiteSeriesTranslationError(failure_text(outcome, series));
  }
  return separate;
}

}  // namespace translate
