#include "pelorus/translate/series_translator.h"

#include <fmt/format.h>

#include "pelorus/translate/display.h"
#include "pelorus/translate/rule_table.h"

namespace translate {
namespace {

using namespace literals;

constexpr std::size_t SOURCE_TYPE_BYTES = 4;

/// The first part names who sent the value: "node" + identifier, or "m…" for a host.
Outcome read_source(Piece source, Tags& tags) noexcept {
  if (source.size < SOURCE_TYPE_BYTES) return Outcome::SHORT_SOURCE;
  if (*source.data == 'n') {
    tags.set("node"_p, Piece{source.data + SOURCE_TYPE_BYTES, source.size - SOURCE_TYPE_BYTES});
  } else if (*source.data != 'm') {
    return Outcome::INVALID_SOURCE_TYPE;
  }
  return Outcome::TRANSLATED;
}

std::string reason(Outcome outcome, std::string_view series) {
  switch (outcome) {
    case Outcome::SHORT_SOURCE:
      return "Could not determine source type";
    case Outcome::INVALID_SOURCE_TYPE:
      return "Invalid source type " + display(series.substr(0, SOURCE_TYPE_BYTES));
    case Outcome::NO_RULE:
      return "No match for series";
    case Outcome::KEY_MISSING:
      return "Field key is missing";
    default:
      return "";
  }
}

/// A part that is missing comes before whatever else the rule made of the name.
Match checked(Rule rule, Tags& tags, Parts& parts) noexcept {
  Match match = rule(tags, parts);
  if (parts.fault() != Outcome::TRANSLATED) {
    match.outcome = parts.fault();
  } else if (match.outcome == Outcome::TRANSLATED && match.key.empty()) {
    match.outcome = Outcome::KEY_MISSING;
  }
  return match;
}

}  // namespace

std::string failure_text(Outcome outcome, std::string_view series) {
  switch (outcome) {
    case Outcome::PART_MISSING:
      return fmt::format("series {} has too few parts for its rule", display(series));
    case Outcome::NOT_TWO_PIECES:
      return fmt::format("series {} has no \"-\" where its rule splits it", display(series));
    case Outcome::KEY_UNASSIGNED:
      return fmt::format("series {}: local variable 'key' referenced before assignment",
                         display(series));
    default:
      return fmt::format("Could not translate \"{}\": {}", display(series),
                         reason(outcome, series));
  }
}

Match GraphiteSeriesTranslator::translate(std::string_view series, const Cuts& cuts,
                                          Tags& tags) const noexcept {
  Parts parts(series, cuts);
  const Outcome source = read_source(parts[0], tags);
  if (source != Outcome::TRANSLATED) return {.outcome = source};
  parts.remove_first();
  const Piece plugin = parts[0];
  if (parts.fault() != Outcome::TRANSLATED) return {.outcome = parts.fault()};
  const Rule rule = choose_rule(plugin);
  if (rule == nullptr) return {.outcome = Outcome::NO_RULE};
  return checked(rule, tags, parts);
}

TranslatedSeries GraphiteSeriesTranslator::translate(std::string_view series) const {
  std::string padded(series);
  padded.append(PIECE_SLACK, '\0');
  const std::string_view name(padded.data(), series.size());
  Tags tags;
  const Match match = translate(name, Cuts::of(name), tags);
  if (is_unexpected(match.outcome)) {
    throw UnexpectedSeriesError(failure_text(match.outcome, series));
  }
  if (match.outcome != Outcome::TRANSLATED) {
    throw GraphiteSeriesTranslationError(failure_text(match.outcome, series));
  }
  TranslatedSeries translated{match.measurement.str(), match.key.str(), {}};
  for (const Tags::Tag& tag : tags) {
    translated.tags.emplace_back(tag.key.view(), tag.value.str());
  }
  return translated;
}

}  // namespace translate
