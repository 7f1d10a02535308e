#include "skein/framing.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstdint>
#include <cstring>

#include "skein/encoders/snappyencoder.h"
#include "skein/errors.h"
#include "skein/limits.h"

namespace skein {
namespace {

using Prefix = std::uint32_t;
static_assert(sizeof(Prefix) == FRAME_PREFIX_BYTES);

std::size_t length_of(std::string_view prefix) {
  Prefix big_endian = 0;
  std::memcpy(&big_endian, prefix.data(), sizeof big_endian);
  const Prefix length = ntohl(big_endian);
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

void append_frame(std::string_view message, std::string& out) {
  const std::size_t begin = out.size();
  try {
    out.append(FRAME_PREFIX_BYTES, '\0');
    SnappyEncoder::encode(message, out);
  } catch (...) {  // no memory: nothing of it is sent
    out.resize(begin);
    throw;
  }
  const Prefix big_endian = htonl(static_cast<Prefix>(out.size() - begin - FRAME_PREFIX_BYTES));
  std::memcpy(&out[begin], &big_endian, sizeof big_endian);
}

}  // namespace skein
