#include "pelorus/pelorus/escape.h"

#include <fmt/format.h>

#include "pelorus/translate/printable.h"

namespace pelorus::log {
namespace {

/// Bytes of the printable character that `text` begins with: 1 for ASCII, 2 to 4 for well-formed
/// UTF-8, 0 where the first byte has to be escaped.
std::size_t printable_length(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7F ? 1 : 0;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) return 0;
  // What the second byte may be: no C1 control, overlong form, surrogate or too large a number.
  const unsigned char least = lead == 0xC2 || lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned char most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byte(1) < least || byte(1) > most) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80) return 0;
  }
  return length;
}

std::string escaped(char byte) {
  if (byte == '\t') return "\\t";
  if (byte == '\n') return "\\n";
  if (byte == '\r') return "\\r";
  return fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
}

}  // namespace

void append_escaped(std::string& out, std::string_view text) {
  while (!text.empty()) {
    const std::size_t printable = translate::printable_bytes(text);
    out.append(text.substr(0, printable));
    text.remove_prefix(printable);
    if (text.empty()) return;
    const std::size_t length = printable_length(text);
    if (length > 0) {
      out += text.substr(0, length);
    } else {
      out += escaped(text[0]);
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
}

}  // namespace pelorus::log
