#pragma once

#include <string>
#include <string_view>

namespace translate {

/// Bytes as messages show them: `b` and the bytes in quotes, printable ASCII as it is, the rest as
/// \t, \n, \r, \\ or \xNN. The quotes are single; double where the bytes hold a single quote and no
/// double quote. Where they hold both, the single quotes inside are written \'.
std::string display(std::string_view bytes);
void append_display(std::string& text, std::string_view bytes);

/// The quote around those bytes, and one byte between such quotes.
char display_quote(std::string_view bytes);
void append_display_byte(std::string& text, char byte, char quote);

}  // namespace translate
