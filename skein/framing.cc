#include "skein/framing.h"

#include <fmt/format.h>

#include <cstdint>

#include "skein/errors.h"
#include "skein/limits.h"

namespace skein {
namespace {

std::size_t length_of(std::string_view prefix) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < FRAME_PREFIX_BYTES; ++i) {
    length = length << 8U | static_cast<unsigned char>(prefix[i]);
  }
  if (length == 0) throw ProtocolError("frame of length 0");
  if (length > MAX_FRAME_BYTES) {
    throw ProtocolError(fmt::format("frame of {} bytes, {} are allowed", length, MAX_FRAME_BYTES));
  }
  return length;
}

}  // namespace

std::optional<std::string_view> take_frame(std::string_view& bytes) {
  if (bytes.size() < FRAME_PREFIX_BYTES) return std::nullopt;
  const std::size_t length = length_of(bytes);
  if (bytes.size() - FRAME_PREFIX_BYTES < length) return std::nullopt;
  const std::string_view payload = bytes.substr(FRAME_PREFIX_BYTES, length);
  bytes.remove_prefix(FRAME_PREFIX_BYTES + length);
  return payload;
}

std::size_t missing_to_frame(std::string_view bytes) {
  if (bytes.size() < FRAME_PREFIX_BYTES) return FRAME_PREFIX_BYTES - bytes.size();
  const std::size_t whole = FRAME_PREFIX_BYTES + length_of(bytes);
  return whole > bytes.size() ? whole - bytes.size() : 0;
}

std::size_t begin_frame(std::string& out) {
  const std::size_t begin = out.size();
  out.append(FRAME_PREFIX_BYTES, '\0');
  return begin;
}

void end_frame(std::string& out, std::size_t begin) {
  auto length = static_cast<std::uint32_t>(out.size() - begin - FRAME_PREFIX_BYTES);
  for (std::size_t i = FRAME_PREFIX_BYTES; i-- > 0; length >>= 8U) {
    out[begin + i] = static_cast<char>(length & 0xFFU);
  }
}

}  // namespace skein
