#pragma once

#include <span>
#include <string>
#include <vector>

namespace pelorus {

/// The command line, decoded from the multibyte encoding of the environment's locale, which is set
/// for as long as this takes. A byte that does not decode becomes 0xDC00 + byte, so that every
/// argument survives. Throws ArgumentDecodingError where an argument ends within a character.
std::vector<std::wstring> decode_arguments(std::span<char* const> arguments);

/// Whether "--profile" is one of them, at any position, that of the program name included.
bool wants_profile(const std::vector<std::wstring>& arguments);

}  // namespace pelorus
