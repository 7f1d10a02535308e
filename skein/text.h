#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Text of unknown origin, made fit to be shown. One function for each reader: the log, a reply's
// error, a terminal, and messages that quote bytes. Pure.
namespace skein {

constexpr bool is_printable(char byte) noexcept { return byte >= ' ' && byte <= '~'; }
constexpr bool is_control(char byte) noexcept {
  return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
}
/// The second, third or fourth byte of a UTF-8 character.
constexpr bool is_utf8_continuation(char byte) noexcept {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
}

/// How many bytes of printable ASCII `text` begins with. Takes steps of eight bytes.
std::size_t printable_bytes(std::string_view text) noexcept;

/// Bytes of the UTF-8 character that `text`, which is not empty, begins with: a lead byte and its
/// continuation bytes. 0 if there is none. Overlong forms of three and four bytes and surrogates
/// count as characters.
std::size_t utf8_length(std::string_view text) noexcept;

/// For the log: appends `text` with control bytes as \xNN (\t, \n and \r in their short form). C1
/// control characters and bytes that are not UTF-8 are escaped as well. A backslash stays.
void append_escaped(std::string& out, std::string_view text);

/// For a terminal: the same bytes as "?", so that the text cannot move the cursor.
std::string without_controls(std::string_view text);

/// For the error of a reply: every byte that is not printable ASCII as \xNN.
std::string as_ascii(std::string_view text);

/// For messages that quote bytes: `b` and the bytes in quotes, printable ASCII as it is, the rest
/// as \t, \n, \r, \\ or \xNN. The quotes are single; double if the bytes contain a single quote and
/// no double quote. If they contain both, the single quotes inside are written \'.
std::string display(std::string_view bytes);
void append_display(std::string& out, std::string_view bytes);
/// The quote that display() puts around the bytes, and one byte as it writes it in such quotes.
char display_quote(std::string_view bytes) noexcept;
void append_display_byte(std::string& out, char byte, char quote);

}  // namespace skein
