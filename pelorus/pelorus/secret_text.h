#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace pelorus {

/// Whether `text` holds `secret`: as it stands, percent-encoded or with a backslash's escapes,
/// those of JSON and of our log, and with dashes anywhere. For answers of others that are to be
/// logged.
bool repeats(std::string_view text, std::string_view secret);

/// Bytes that one byte may be spelt with: \u0041.
constexpr std::size_t LONGEST_SPELLING = 6;

/// Whether `text`, as one that was cut may, ends in the midst of `secret`. Less than four bytes of
/// it tell nothing.
bool breaks_off_in(std::string_view text, std::string_view secret);

/// The bytes that Base64 text stands for, as far as it is some.
std::string base64_decoded(std::string_view text);

}  // namespace pelorus
