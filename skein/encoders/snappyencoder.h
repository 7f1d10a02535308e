#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace skein {

/// Bytes as one raw Snappy block. Decodes into a buffer of its own that is reused.
class SnappyEncoder {
 public:
  /// The content of `block`, valid until the next call. Throws ProtocolError when the block is
  /// none, or claims more than MAX_CONTENT_BYTES or than a block of its length can hold.
  std::string_view decode(std::string_view block);

  /// Appends `content` to `out` as a block.
  static void encode(std::string_view content, std::string& out);

  /// Gives a buffer back that one large block made grow. What decode() returned ends here.
  void trim() noexcept;

 private:
  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
};

}  // namespace skein
