#include "pelorus/translate/series_translator.h"

#include <algorithm>
#include <array>

#include "pelorus/translate/rules.h"
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
Outcome run(const RuleRow& row, Record& record, Parts& parts) {
  using skein::profile::Site;
  if (skein::profile::active == nullptr) [[likely]]
    return row.rule(record, parts);
  static auto sites = [] {
    std::array<Site, RULES_BY_FIRST_BYTE.size()> made{};
    std::ranges::transform(RULES_BY_FIRST_BYTE, made.begin(), [](const RuleRow& each) {
      return Site{__FILE__, __LINE__, each.name};
    });
    return made;
  }();
  const skein::profile::Scope scope(
      sites.at(static_cast<std::size_t>(&row - RULES_BY_FIRST_BYTE.data())));
  return row.rule(record, parts);
}

/// What a failure's text has after the series.
std::string_view text_after_series(Outcome outcome) {
  switch (outcome) {
    case Outcome::SHORT_SOURCE:
      return "\": Could not determine source type";
    case Outcome::INVALID_SOURCE_TYPE:
      return "\": Invalid source type ";
    case Outcome::NO_RULE:
      return "\": No match for series";
    case Outcome::KEY_MISSING:
      return "\": Field key is missing";
    case Outcome::PART_MISSING:
      return " has too few parts for its rule";
    case Outcome::NO_DASH:
      return " has no \"-\" where its rule splits it";
    case Outcome::KEY_UNASSIGNED:
      return ": local variable 'key' referenced before assignment";
    default:
      return "\": ";
  }
}

}  // namespace

std::string failure_text(Outcome outcome, std::string_view series) {
  const std::string_view after = text_after_series(outcome);
  std::string text = is_unexpected(outcome) ? "series " : "Could not translate \"";
  text.reserve(text.size() + series.size() + after.size() + 8);  // the quotes of the series
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
  const RuleRow* row = choose_rule(plugin);
  if (row == nullptr) return {out, Outcome::NO_RULE};
  const Outcome outcome = run(*row, record, parts);
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
