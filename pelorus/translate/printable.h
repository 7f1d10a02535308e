#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace translate {

constexpr bool is_printable(char byte) noexcept { return byte >= ' ' && byte <= '~'; }

/// How many bytes of printable ASCII `text` begins with. Goes in steps of eight bytes.
inline std::size_t printable_bytes(std::string_view text) noexcept {
  constexpr std::uint64_t EACH = 0x0101010101010101;
  std::size_t count = 0;
  for (std::uint64_t bytes = 0; count + sizeof bytes <= text.size(); count += sizeof bytes) {
    std::memcpy(&bytes, text.data() + count, sizeof bytes);
    // The highest bit of a byte tells: below ' ', above '~', no ASCII. What it carries over to the
    // next one does not matter, for it is odd itself then.
    if ((((bytes - EACH * ' ') | (bytes + EACH) | bytes) & (EACH * 0x80)) != 0) break;
  }
  while (count < text.size() && is_printable(text[count])) ++count;
  return count;
}

}  // namespace translate
