#include "skein/text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace skein {
namespace {

void append_hex(std::string& out, char byte) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  const std::array<char, 4> shown{'\\', 'x', DIGITS[value >> 4U], DIGITS[value & 0xFU]};
  out.append(shown.data(), shown.size());
}

/// Appends \t, \n, \r or \xNN.
void append_escape(std::string& out, char byte) {
  if (byte == '\t') {
    out += "\\t";
  } else if (byte == '\n') {
    out += "\\n";
  } else if (byte == '\r') {
    out += "\\r";
  } else {
    append_hex(out, byte);
  }
}

/// Whether a character of utf8_length() bytes may be shown as it is: no C1 control, no
/// overlong form, no surrogate and nothing beyond the last code point. The second byte tells.
bool is_printable_character(std::string_view character) noexcept {
  if (character.size() == 1) return is_printable(character[0]);
  const auto lead = static_cast<unsigned char>(character[0]);
  const auto second = static_cast<unsigned char>(character[1]);
  const unsigned char least = lead == 0xC2 || lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  return second >= least && second <= most;
}

/// Appends what may stand there as it is, and gives every other byte to `replace`.
template <class Replace>
void append_printable(std::string& out, std::string_view text, Replace&& replace) {
  while (!text.empty()) {
    const std::size_t printable = printable_bytes(text);
    out += text.substr(0, printable);
    text.remove_prefix(printable);
    if (text.empty()) return;
    const auto character = text.substr(0, utf8_length(text));
    if (!character.empty() && is_printable_character(character)) {
      out += character;
      text.remove_prefix(character.size());
    } else {
      replace(text[0]);
      text.remove_prefix(1);
    }
  }
}

}  // namespace

std::size_t printable_bytes(std::string_view text) noexcept {
  constexpr std::uint64_t EACH = 0x0101010101010101;
  std::size_t count = 0;
  for (std::uint64_t bytes = 0; count + sizeof bytes <= text.size(); count += sizeof bytes) {
    std::memcpy(&bytes, text.data() + count, sizeof bytes);
    // The highest bit of a byte is set if it is below ' ', above '~' or not ASCII. A carry into the
    // next byte does no harm: it comes only from a byte that is not printable itself.
    if ((((bytes - EACH * ' ') | (bytes + EACH) | bytes) & (EACH * 0x80)) != 0) break;
  }
  while (count < text.size() && is_printable(text[count])) ++count;
  return count;
}

std::size_t utf8_length(std::string_view text) noexcept {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80   ? 1
                             : lead < 0xC2 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
  if (length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!is_utf8_continuation(text[i])) return 0;
  }
  return length;
}

void append_escaped(std::string& out, std::string_view text) {
  append_printable(out, text, [&out](char byte) { append_escape(out, byte); });
}

std::string without_controls(std::string_view text) {
  std::string out;
  append_printable(out, text, [&out](char) { out += '?'; });
  return out;
}

std::string as_ascii(std::string_view text) {
  std::string out;
  for (const char byte : text) {
    if (is_printable(byte)) {
      out += byte;
    } else {
      append_hex(out, byte);
    }
  }
  return out;
}

char display_quote(std::string_view bytes) noexcept {
  const bool only_single = bytes.find('\'') != bytes.npos && bytes.find('"') == bytes.npos;
  return only_single ? '"' : '\'';
}

void append_display_byte(std::string& out, char byte, char quote) {
  if (byte == quote || byte == '\\') {
    out += {'\\', byte};
  } else if (is_printable(byte)) {
    out += byte;
  } else {
    append_escape(out, byte);
  }
}

void append_display(std::string& out, std::string_view bytes) {
  const char quote = display_quote(bytes);
  const auto stands_as_it_is = [quote](char byte) {
    return is_printable(byte) && byte != '\\' && byte != quote;
  };
  out += 'b';
  out += quote;
  // Nearly all texts have nothing to escape.
  if (printable_bytes(bytes) == bytes.size() && bytes.find('\\') == bytes.npos &&
      bytes.find(quote) == bytes.npos) {
    out += bytes;
    bytes = {};
  }
  while (!bytes.empty()) {
    const auto* const escaped = std::ranges::find_if_not(bytes, stands_as_it_is);
    out.append(bytes.begin(), escaped);
    bytes.remove_prefix(static_cast<std::size_t>(escaped - bytes.begin()));
    if (bytes.empty()) break;
    append_display_byte(out, bytes[0], quote);
    bytes.remove_prefix(1);
  }
  out += quote;
}

std::string display(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size() + 3);  // b and two quotes; escapes are rare
  append_display(out, bytes);
  return out;
}

}  // namespace skein
