#include "skein/encoders/snappyencoder.h"

#include <fmt/format.h>
#include <snappy.h>

#include <algorithm>
#include <array>

#include "skein/errors.h"
#include "skein/limits.h"
#include "skein/profile_scope.h"

namespace skein {
namespace {

/// Kept between blocks; ordinary flushes stay below it.
constexpr std::size_t KEPT_BUFFER_BYTES = 1U << 20;
constexpr std::size_t FIRST_BUFFER_BYTES = 64U << 10;

/// The longest content whose literal tells its length in its tag.
constexpr std::size_t SHORT_BYTES = 60;

/// A block of one literal: the content as it stands. Worth it for a reply of a few bytes, for which
/// a compressor only sets up its tables.
void append_literal(std::string_view content, std::string& out) {
  const std::array<char, 2> head{static_cast<char>(content.size()),
                                 static_cast<char>((content.size() - 1) << 2U)};
  out.append(head.data(), content.empty() ? 1 : head.size()).append(content);
}

std::size_t most_content(std::string_view block) {
  return block.size() * MAX_SNAPPY_GROWTH + MAX_SNAPPY_GROWTH_SLACK;
}

}  // namespace

std::size_t SnappyEncoder::content_size(std::string_view block) noexcept {
  std::size_t size = 0;
  if (!snappy::GetUncompressedLength(block.data(), block.size(), &size)) return block.size();
  return std::min(size, most_content(block));
}

std::string_view SnappyEncoder::decode(std::string_view block) {
  PROFILE_SCOPE();
  std::size_t size = 0;
  if (!snappy::GetUncompressedLength(block.data(), block.size(), &size)) {
    throw ProtocolError("frame does not decompress");
  }
  if (size > MAX_CONTENT_BYTES) {
    throw ProtocolError(
        fmt::format("content of {} bytes, {} are allowed", size, MAX_CONTENT_BYTES));
  }
  if (size > most_content(block)) {
    throw ProtocolError(fmt::format("{} compressed bytes claim to hold {}", block.size(), size));
  }
  if (size > capacity_) {
    const std::size_t wanted =
        std::max({size, std::min(capacity_ * 2, KEPT_BUFFER_BYTES), FIRST_BUFFER_BYTES});
    release();
    buffer_ = std::make_unique_for_overwrite<char[]>(wanted);  // may throw
    capacity_ = wanted;
  }
  if (!snappy::RawUncompress(block.data(), block.size(), buffer_.get())) {
    throw ProtocolError("frame does not decompress");
  }
  return {buffer_.get(), size};
}

void SnappyEncoder::encode(std::string_view content, std::string& out) {
  if (content.size() <= SHORT_BYTES) return append_literal(content, out);
  const std::size_t begin = out.size();
  out.resize(begin + snappy::MaxCompressedLength(content.size()));
  std::size_t size = 0;
  snappy::RawCompress(content.data(), content.size(), out.data() + begin, &size);
  out.resize(begin + size);
}

void SnappyEncoder::trim() noexcept {
  if (capacity_ > KEPT_BUFFER_BYTES) release();
}

void SnappyEncoder::release() noexcept {
  buffer_.reset();
  capacity_ = 0;
}

}  // namespace skein
