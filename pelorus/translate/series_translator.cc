#include "pelorus/translate/series_translator.h"

#include <fmt/format.h>

#include "pelorus/translate/display.h"
#include "pelorus/translate/rule_table.h"

namespace translate {
namespace {

using namespace literals;

constexpr std::size_t SOURCE_TYPE_BYTES = 4;

Outcome outcome_of(Fault fault) noexcept {
  switch (fault) {
    case Fault::PART_MISSING:
      return Outcome::PART_MISSING;
    case Fault::NOT_TWO_PIECES:
      return Outcome::NOT_TWO_PIECES;
    case Fault::KEY_UNASSIGNED:
      return Outcome::KEY_UNASSIGNED;
    case Fault::NONE:
      break;
  }
  return Outcome::TRANSLATED;
}

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

Outcome GraphiteSeriesTranslator::translate(std::string_view series, const Cuts& cuts,
                                            Translation& translation) const noexcept {
  Parts parts(series, cuts);
  const Outcome source = read_source(parts[0], translation.tags);
  if (source != Outcome::TRANSLATED) return source;
  parts.remove_first();
  const Piece plugin = parts[0];
  if (parts.fault() != Fault::NONE) return outcome_of(parts.fault());
  const Rule rule = choose_rule(plugin.view());
  if (rule == nullptr) return Outcome::NO_RULE;
  const Match match = rule(translation.tags, parts);
  if (parts.fault() != Fault::NONE) return outcome_of(parts.fault());
  if (!match) return Outcome::REFUSED;
  if (match->key.empty()) return Outcome::KEY_MISSING;
  translation.measurement = match->measurement;
  translation.key = match->key;
  return Outcome::TRANSLATED;
}

TranslatedSeries GraphiteSeriesTranslator::translate(std::string_view series) const {
  std::string padded(series);
  padded.append(PIECE_SLACK, '\0');
  const std::string_view name(padded.data(), series.size());
  Translation translation;
  const Outcome outcome = translate(name, Cuts::of(name), translation);
  if (is_unexpected(outcome)) throw UnexpectedSeriesError(failure_text(outcome, series));
  if (outcome != Outcome::TRANSLATED) {
    throw GraphiteSeriesTranslationError(failure_text(outcome, series));
  }
  TranslatedSeries translated{translation.measurement.str(), translation.key.str(), {}};
  for (const Tags::Tag& tag : translation.tags) {
    translated.tags.emplace_back(tag.key.view(), tag.value.str());
  }
  return translated;
}

}  // namespace translate
