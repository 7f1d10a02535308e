#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pelorus {

/// Whether `text` contains `secret`: literally, percent-encoded, or with the backslash escapes of
/// JSON or of our log; dashes are ignored. For external answers that are to be logged.
bool repeats(std::string_view text, std::string_view secret);

/// Most bytes that encode one byte: \u0041.
constexpr std::size_t LONGEST_SPELLING = 6;

/// Whether `text`, which was cut, ends within `secret`, after at least four bytes of it.
bool breaks_off_in(std::string_view text, std::string_view secret);

/// The bytes that Base64 text encodes, up to the first byte that is not Base64.
std::string base64_decoded(std::string_view text);

}  // namespace pelorus
