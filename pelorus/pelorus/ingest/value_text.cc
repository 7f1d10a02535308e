#include "pelorus/pelorus/ingest/value_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

#include "pelorus/translate/display.h"

namespace pelorus {
namespace {

using Type = skein::Value::Type;

/// Shortest digits that read back the same; an exponent from 1e16 up and below 1e-4.
std::string real_text(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  constexpr double FIRST_WITH_EXPONENT = 1e16;
  constexpr double LAST_WITH_EXPONENT = 1e-4;
  const double size = std::fabs(value);
  const bool exponent = size >= FIRST_WITH_EXPONENT || (size < LAST_WITH_EXPONENT && size > 0);
  std::array<char, 64> digits{};
  const auto end =
      std::to_chars(digits.data(), digits.data() + digits.size(), value,
                    exponent ? std::chars_format::scientific : std::chars_format::fixed);
  std::string text(digits.data(), end.ptr);
  if (!exponent && text.find('.') == std::string::npos) text += ".0";
  return text;
}

/// Length of the UTF-8 sequence at the front of `text`; 0 when there is none.
std::size_t sequence_length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const std::size_t length = byte(0) < 0x80   ? 1
                             : byte(0) < 0xC2 ? 0
                             : byte(0) < 0xE0 ? 2
                             : byte(0) < 0xF0 ? 3
                             : byte(0) < 0xF5 ? 4
                                              : 0;
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return 0;
  }
  return length;
}

/// As display() without its "b", with what lies beyond ASCII as it is where it is UTF-8.
std::string quoted(std::string_view text) {
  std::string shown = translate::display(text);
  if (std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
    return shown.substr(1);
  }
  const char quote = shown[1];
  std::string out(1, quote);
  while (!text.empty()) {
    const std::size_t length = sequence_length(text);
    const std::string_view unit = text.substr(0, length == 0 ? 1 : length);
    if (length > 1) {
      out += unit;
    } else if (unit.front() == quote) {
      out.append({'\\', quote});
    } else if (unit == "'") {
      out += unit;
    } else {
      shown = translate::display(unit);
      out.append(shown, 2, shown.size() - 3);
    }
    text.remove_prefix(unit.size());
  }
  return out += quote;
}

std::string item_text(skein::Value value) {
  if (value.is(Type::TEXT)) return quoted(value.bytes());
  if (value.is(Type::BYTES)) return translate::display(value.bytes());
  return value_text(value);
}

std::string list_text(skein::Value list) {
  std::string text = "[";
  for (const skein::Value item : list) {
    if (text.size() > 1) text += ", ";
    text += item_text(item);
  }
  return text + "]";
}

std::string map_text(skein::Value map) {
  std::string text = "{";
  for (auto at = map.begin(); at != map.end(); ++at) {
    if (text.size() > 1) text += ", ";
    text += item_text(*at) + ": ";
    ++at;
    text += item_text(*at);
  }
  return text + "}";
}

}  // namespace

std::string value_text(skein::Value value) {
  switch (value.type()) {
    case Type::NIL:
      return "None";
    case Type::BOOLEAN:
      return value.boolean() ? "True" : "False";
    case Type::INTEGER:
      return fmt::format("{}", value.integer());
    case Type::UNSIGNED:
      return fmt::format("{}", value.natural());
    case Type::REAL:
      return real_text(value.real());
    case Type::TEXT:
    case Type::BYTES:
      return std::string(value.bytes());
    case Type::LIST:
      return list_text(value);
    case Type::MAP:
      return map_text(value);
    case Type::EXTENSION:
      break;
  }
  return translate::display(value.bytes());
}

}  // namespace pelorus
