#include "pelorus/translate/series_translator.h"

#include "pelorus/translate/rule_table.h"
#include "skein/text.h"

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

/// What stands in a failure's text before and behind the series.
struct FailureTexts {
  std::string_view before = "Could not translate \"";
  std::string_view behind;
};

FailureTexts failure_texts(Outcome outcome) {
  switch (outcome) {
    case Outcome::SHORT_SOURCE:
      return {.behind = "\": Could not determine source type"};
    case Outcome::INVALID_SOURCE_TYPE:
      return {.behind = "\": Invalid source type "};
    case Outcome::NO_RULE:
      return {.behind = "\": No match for series"};
    case Outcome::KEY_MISSING:
      return {.behind = "\": Field key is missing"};
    case Outcome::PART_MISSING:
      return {"series ", " has too few parts for its rule"};
    case Outcome::NOT_TWO_PIECES:
      return {"series ", " has no \"-\" where its rule splits it"};
    case Outcome::KEY_UNASSIGNED:
      return {"series ", ": local variable 'key' referenced before assignment"};
    default:
      return {.behind = "\": "};
  }
}

}  // namespace

std::string failure_text(Outcome outcome, std::string_view series) {
  const auto [before, behind] = failure_texts(outcome);
  std::string text;
  text.reserve(before.size() + series.size() + behind.size() + 8);  // the quotes of the series
  text += before;
  skein::append_display(text, series);
  text += behind;
  if (outcome == Outcome::INVALID_SOURCE_TYPE) {
    skein::append_display(text, series.substr(0, SOURCE_TYPE_BYTES));
  }
  return text;
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
  for (std::size_t i = 0; i < sizes.tag_count; ++i) {
    std::string tag_key = next(sizes.tags[i].key);
    translated.tags.emplace_back(std::move(tag_key), next(sizes.tags[i].value));
  }
  translated.key = next(sizes.key);
  return translated;
}

}  // namespace translate
