#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "skein/value.h"

namespace skein {

/// Messages as MessagePack.
class MsgpackEncoder {
 public:
  /// Decodes `content`, which must be exactly one MessagePack value, into `message`; its texts are
  /// views into `content`. Throws ProtocolError for anything else, for bytes behind the value, and
  /// beyond MAX_NESTING and MAX_ELEMENTS.
  static void decode(std::string_view content, Message& message);
};

/// Writes MessagePack value by value: what a map or a list announces must be written after it.
class MsgpackWriter {
 public:
  MsgpackWriter& nil();
  MsgpackWriter& boolean(bool value);
  MsgpackWriter& integer(std::int64_t value);
  MsgpackWriter& natural(std::uint64_t value);
  MsgpackWriter& real(double value);
  MsgpackWriter& text(std::string_view value);
  /// Announces `size` values.
  MsgpackWriter& list(std::size_t size);
  /// Announces `size` pairs of a key and a value.
  MsgpackWriter& map(std::size_t size);
  /// A value that is encoded already.
  MsgpackWriter& encoded(std::string_view value);

  const std::string& bytes() const noexcept { return bytes_; }
  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

}  // namespace skein
