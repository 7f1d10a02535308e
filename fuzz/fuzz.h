#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

// What every fuzz target stands on. A target is one function over the bytes of an input; whatever
// it throws, and every require() that does not hold, is a finding.
namespace fuzz {

/// The target's own function. `input` is a copy of exactly its size on the heap.
void run(std::string_view input);

/// Ends the process with a finding unless `holds`; `wanted` says what should have held.
void require(bool holds, std::string_view wanted);

/// Takes the first byte off `input`; 0 when there is none.
std::uint8_t take_byte(std::string_view& input);

/// `text` cut somehow, by `seed`, into at most 64 pieces; some of them are empty.
std::vector<std::string_view> pieces(std::string_view text, std::uint8_t seed);

}  // namespace fuzz
