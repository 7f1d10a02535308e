#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

namespace skein {

/// What may be served of one connection before the others have their turn.
class Share {
 public:
  /// A frame costs this much, however little is in it.
  static constexpr std::size_t LEAST_BYTES = 1024;

  /// `bytes` of content in at most `requests` frames, taken out of `rest`, which a turn of the loop
  /// has left for all connections of a kind. With `large`, one frame with more content as well.
  Share(std::size_t requests, std::size_t bytes, std::size_t& rest, bool large) noexcept
      : requests_(requests), bytes_(bytes), most_(bytes), rest_(rest), large_(large) {}

  bool is_used_up() const noexcept { return requests_ == 0; }

  /// Whether a frame with so much content may be served now. If not, nothing else may.
  bool take(std::size_t content) noexcept {
    const bool granted = !is_used_up() && (content > most_ ? take_large() : take_bytes(content));
    requests_ = granted ? requests_ - 1 : 0;
    return granted;
  }

 private:
  bool take_large() noexcept { return std::exchange(large_, false); }
  bool take_bytes(std::size_t content) noexcept {
    const std::size_t bytes = std::max(content, LEAST_BYTES);
    if (bytes > bytes_ || bytes > rest_) return false;
    bytes_ -= bytes;
    rest_ -= bytes;
    return true;
  }

  std::size_t requests_;
  std::size_t bytes_;
  std::size_t most_;
  std::size_t& rest_;
  bool large_;
};

}  // namespace skein
