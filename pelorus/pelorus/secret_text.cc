#include "pelorus/pelorus/secret_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace pelorus {
namespace {

constexpr std::size_t TELLING_BYTES = 4;

/// What an escape of a byte begins with, and its hexadecimal digits.
constexpr std::array<std::pair<std::string_view, std::size_t>, 3> ESCAPES{
    {{"%", 2}, {"\\x", 2}, {"\\u", 4}}};
/// Stand for themselves after a backslash.
constexpr std::string_view QUOTED = "\\/\"'";

/// The byte that `text` begins with, and how many bytes spell it.
std::pair<char, std::size_t> first_byte(std::string_view text) {
  for (const auto& [lead, digits] : ESCAPES) {
    const auto number = text.substr(std::min(lead.size(), text.size()), digits);
    const char* const end = number.data() + number.size();
    unsigned code = 0;
    if (text.starts_with(lead) && number.size() == digits &&
        std::from_chars(number.data(), end, code, 16).ptr == end && code <= 0xff) {
      return {static_cast<char>(code), lead.size() + digits};
    }
  }
  const bool quoted = text.size() > 1 && text[0] == '\\' && QUOTED.find(text[1]) != QUOTED.npos;
  if (quoted) return {text[1], 2};
  return {text[0], 1};
}

std::string without_dashes(std::string_view text) {
  std::string plain(text);
  std::erase(plain, '-');
  return plain;
}

std::string without_escapes(std::string_view text) {
  std::string plain;
  while (!text.empty()) {
    const auto [byte, length] = first_byte(text);
    plain += byte;
    text.remove_prefix(length);
  }
  return plain;
}

bool ends_within(std::string_view text, std::string_view secret) {
  for (std::size_t size = std::min(secret.size(), text.size()); size >= TELLING_BYTES; --size) {
    if (text.ends_with(secret.substr(0, size))) return true;
  }
  return false;
}

/// Whether `holds` of any spelling of the text.
template <class Holds>
bool in_any_spelling(std::string_view text, std::string_view secret, Holds&& holds) {
  const std::string plain = without_dashes(secret);
  return holds(without_dashes(text), plain) || holds(without_dashes(without_escapes(text)), plain);
}

}  // namespace

bool repeats(std::string_view text, std::string_view secret) {
  return in_any_spelling(text, secret, [](const std::string& spelling, const std::string& plain) {
    return spelling.find(plain) != spelling.npos;
  });
}

bool breaks_off_in(std::string_view text, std::string_view secret) {
  return in_any_spelling(text, secret, ends_within);
}

std::string base64_decoded(std::string_view text) {
  constexpr std::string_view DIGITS =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bytes;
  unsigned bits = 0, count = 0;
  for (const char digit : text) {
    const std::size_t value = DIGITS.find(digit);
    if (value == DIGITS.npos) break;
    bits = bits << 6U | static_cast<unsigned>(value);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    bytes += static_cast<char>(bits >> count & 0xffU);
  }
  return bytes;
}

}  // namespace pelorus
