#include "pelorus/translate/display.h"

#include <algorithm>
#include <array>

#include "pelorus/translate/printable.h"

namespace translate {
namespace {

void append_hex(std::string& text, char byte) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  const std::array<char, 4> shown{'\\', 'x', DIGITS[value >> 4U], DIGITS[value & 0xFU]};
  text.append(shown.data(), shown.size());
}

/// What follows the backslash in the short escape of a byte; none for most bytes.
constexpr char short_escape(char byte) {
  if (byte == '\t') return 't';
  if (byte == '\n') return 'n';
  if (byte == '\r') return 'r';
  if (byte == '\\') return '\\';
  return '\0';
}

}  // namespace

char display_quote(std::string_view bytes) {
  const bool only_single = bytes.find('\'') != bytes.npos && bytes.find('"') == bytes.npos;
  return only_single ? '"' : '\'';
}

void append_display_byte(std::string& text, char byte, char quote) {
  if (const char letter = short_escape(byte)) {
    text += {'\\', letter};
  } else if (byte == quote) {
    text += {'\\', byte};
  } else if (is_printable(byte)) {
    text += byte;
  } else {
    append_hex(text, byte);
  }
}

void append_display(std::string& text, std::string_view bytes) {
  const char quote = display_quote(bytes);
  text += 'b';
  text += quote;
  // As a rule there is nothing to escape.
  if (printable_bytes(bytes) == bytes.size() && bytes.find('\\') == bytes.npos &&
      bytes.find(quote) == bytes.npos) {
    text.append(bytes) += quote;
    return;
  }
  const auto is_plain = [quote](char byte) {
    return is_printable(byte) && byte != '\\' && byte != quote;
  };
  for (const char* at = bytes.data(); at != bytes.data() + bytes.size();) {
    const char* const odd = std::find_if_not(at, bytes.data() + bytes.size(), is_plain);
    text.append(at, odd);
    at = odd;
    if (at != bytes.data() + bytes.size()) append_display_byte(text, *at++, quote);
  }
  text += quote;
}

std::string display(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() + 3);  // b and two quotes; escapes are rare
  append_display(text, bytes);
  return text;
}

}  // namespace translate
