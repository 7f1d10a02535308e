#include "pelorus/pelorus/ingest/value_text.h"

#include <fmt/compile.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <span>
#include <string_view>
#include <utility>

#include "skein/text.h"

namespace pelorus {
namespace {

using Type = skein::Value::Type;

/// Shortest digits that read back the same; an exponent from 1e16 up and below 1e-4.
std::string_view real_text(double value, std::span<char> digits) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
  constexpr double FIRST_WITH_EXPONENT = 1e16;
  constexpr double LAST_WITH_EXPONENT = 1e-4;
  const double size = std::fabs(value);
  const bool exponent = size >= FIRST_WITH_EXPONENT || (size < LAST_WITH_EXPONENT && size > 0);
  char* end = std::to_chars(digits.data(), digits.data() + digits.size(), value,
                            exponent ? std::chars_format::scientific : std::chars_format::fixed)
                  .ptr;
  if (!exponent && std::find(digits.data(), end, '.') == end) end = std::copy_n(".0", 2, end);
  return {digits.data(), end};
}

/// As display() without its "b", with what lies beyond ASCII as it is where it is UTF-8.
void append_quoted(std::string& out, std::string_view text) {
  const char quote = skein::display_quote(text);
  out += quote;
  while (!text.empty()) {
    const std::size_t length = skein::utf8_length(text);
    if (length > 1) {
      out += text.substr(0, length);
    } else {
      skein::append_display_byte(out, text.front(), quote);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  out += quote;
}

void append_item(std::string& out, skein::Value value) {
  if (value.is(Type::TEXT)) return append_quoted(out, value.bytes());
  if (value.is(Type::BYTES)) return skein::append_display(out, value.bytes());
  append_value_text(out, value);
}

void append_list(std::string& out, skein::Value list) {
  std::string_view separator;
  out += '[';
  for (const skein::Value item : list) {
    out += std::exchange(separator, ", ");
    append_item(out, item);
  }
  out += ']';
}

void append_map(std::string& out, skein::Value map) {
  std::string_view separator;
  out += '{';
  for (auto at = map.begin(); at != map.end(); ++at) {
    out += std::exchange(separator, ", ");
    append_item(out, *at);
    out += ": ";
    append_item(out, *++at);
  }
  out += '}';
}

}  // namespace

void append_value_text(std::string& out, skein::Value value) {
  std::array<char, 64> digits{};
  switch (value.type()) {
    case Type::NIL:
      out += "None";
      break;
    case Type::BOOLEAN:
      out += value.boolean() ? "True" : "False";
      break;
    case Type::INTEGER:
      out.append(digits.data(), fmt::format_to(digits.data(), FMT_COMPILE("{}"), value.integer()));
      break;
    case Type::UNSIGNED:
      out.append(digits.data(), fmt::format_to(digits.data(), FMT_COMPILE("{}"), value.natural()));
      break;
    case Type::REAL:
      out += real_text(value.real(), digits);
      break;
    case Type::TEXT:
    case Type::BYTES:
      out += value.bytes();
      break;
    case Type::LIST:
      append_list(out, value);
      break;
    case Type::MAP:
      append_map(out, value);
      break;
    case Type::EXTENSION:
      skein::append_display(out, value.bytes());
      break;
  }
}

std::string value_text(skein::Value value) {
  std::string text;
  append_value_text(text, value);
  return text;
}

}  // namespace pelorus
