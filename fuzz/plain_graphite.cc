#include "fuzz/plain_graphite.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "pelorus/translate/series_translator.h"

namespace fuzz {
namespace {

std::vector<std::string> cut(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    separators.find(c) != separators.npos ? parts.emplace_back() : parts.back() += c;
  }
  return parts;
}

bool is_integer(const std::string& value) {
  return value.find_first_not_of("0123456789") == value.npos;
}

}  // namespace

PlainGraphite::Built PlainGraphite::build(std::string_view block) {
  position_ = 0;
  Built built;
  for (const std::string& line : cut(block, "\n")) {
    if (!built.full) add_line(line, built);
  }
  built.message = std::string_view(buffer_).substr(0, position_);
  return built;
}

void PlainGraphite::add_line(std::string_view line, Built& built) {
  auto fields = cut(line, " \t\r\v\f");
  std::erase(fields, "");
  if (fields.size() != 3) {
    ++built.improperly_formatted;
    return;
  }
  const auto& [series, value, timestamp] = std::tie(fields[0], fields[1], fields[2]);
  if (value == "nan") return;
  std::string record;
  try {
    const auto translated = translate::GraphiteSeriesTranslator().translate(series);
    record = translated.measurement;
    for (const auto& [key, tag] : translated.tags) record += "," + key + "=" + tag;
    record += " " + translated.key + "=" + value + (is_integer(value) ? "i " : " ");
  } catch (const std::runtime_error&) {
    ++built.not_translated;
    return;
  }
  constexpr std::string_view ZEROS = "000000000\n";
  built.full = record.size() + timestamp.size() + ZEROS.size() > buffer_.size() - position_;
  if (built.full) return;
  const auto put = [&](std::string_view bytes) {
    bytes.copy(buffer_.data() + position_, bytes.size());
  };
  put(record);
  position_ += record.size();
  put(std::string_view(timestamp).substr(0, 10));
  position_ += timestamp.size();
  put(ZEROS);
  position_ += ZEROS.size();
  ++built.num_metrics;
}

}  // namespace fuzz
