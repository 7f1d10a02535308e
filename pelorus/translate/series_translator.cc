#include "pelorus/translate/series_translator.h"

#include <fmt/format.h>

#include "pelorus/translate/display.h"
#include "pelorus/translate/rule_table.h"

namespace translate {
namespace {

constexpr std::size_t SOURCE_TYPE_BYTES = 4;

/// The first part names who sent the value: "node" + identifier, or "m…" for a host.
Outcome read_source(Piece source, Record& record) noexcept {
  if (source.size < SOURCE_TYPE_BYTES) return Outcome::SHORT_SOURCE;
  if (*source.data == 'n') {
    record.set_node({source.data + SOURCE_TYPE_BYTES, source.size - SOURCE_TYPE_BYTES});
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

NamesWritten GraphiteSeriesTranslator::translate(std::string_view series, PartEnds ends, char* out,
                                                 NameSizes* sizes) const noexcept {
  Parts parts(series, ends);
  Record record(parts, out, sizes);
  const Outcome source = read_source(parts[0], record);
  if (source != Outcome::TRANSLATED) return {out, source};
  parts.remove_first();
  const Piece plugin = parts[0];
  if (parts.fault() != Outcome::TRANSLATED) return {out, parts.fault()};
  const Rule rule = choose_rule(plugin);
  if (rule == nullptr) return {out, Outcome::NO_RULE};
  const Outcome outcome = rule(record, parts);
  // A part that is missing comes before whatever else the rule finds wrong.
  if (parts.fault() != Outcome::TRANSLATED) return {out, parts.fault()};
  return {record.end(), outcome};
}

TranslatedSeries GraphiteSeriesTranslator::translate(std::string_view series) const {
  std::string padded(series);
  padded.append(PIECE_SLACK, '\0');
  std::string names(names_bytes_at_most(series.size()), '\0');
  NameSizes sizes;
  const auto written =
      translate({padded.data(), series.size()}, UNKNOWN_ENDS, names.data(), &sizes);
  if (is_unexpected(written.outcome)) {
    throw UnexpectedSeriesError(failure_text(written.outcome, series));
  }
  if (written.outcome != Outcome::TRANSLATED) {
    throw GraphiteSeriesTranslationError(failure_text(written.outcome, series));
  }
  std::size_t at = 0;
  const auto next = [&](std::size_t size) {  // and the byte that ends it
    const std::string piece = names.substr(at, size);
    at += size + 1;
    return piece;
  };
  TranslatedSeries translated{next(sizes.measurement), "", {}};
  for (const auto& [key, value] : sizes.tags) {
    std::string tag_key = next(key);
    translated.tags.emplace_back(std::move(tag_key), next(value));
  }
  translated.key = next(sizes.key);
  return translated;
}

}  // namespace translate
