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

  /// Bytes of content that `block` claims, as far as a block of its length can hold them.
  static std::size_t content_size(std::string_view block) noexcept;

  /// Appends `content` to `out` as a block.
  static void encode(std::string_view content, std::string& out);

  /// Gives a buffer back that one large block made grow. What decode() returned ends here.
  void trim() noexcept;

 private:
  void release() noexcept;

  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
};

}  // namespace skein
