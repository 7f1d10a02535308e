#pragma once

#include <string>
#include <string_view>

namespace pelorus::log {

/// Appends `text` with every control byte as \xNN (\t, \n, \r in their short form), the C1 controls
/// of UTF-8 and bytes that are no UTF-8 included.
void append_escaped(std::string& out, std::string_view text);

}  // namespace pelorus::log
