#pragma once

#include <cstddef>

namespace skein {

/// What one turn of the loop has left for all connections of a kind.
struct TurnRest {
  std::size_t bytes;  ///< of content
  bool large;         ///< one frame with more content than a connection's share of the turn
};

/// What may be served of one connection before the others have their turn.
class Share {
 public:
  /// `bytes` of content in at most `requests` frames, taken out of `rest`. A large frame is served
  /// only where `may_be_large`.
  Share(std::size_t requests, std::size_t bytes, TurnRest& rest, bool may_be_large) noexcept
      : requests_(requests), bytes_(bytes), most_(bytes), rest_(rest), large_(may_be_large) {}

  bool is_used_up() const noexcept { return requests_ == 0; }

  /// Whether a frame with so much content may be served now. If not, nothing else may.
  bool take(std::size_t content) noexcept {
    const bool granted = !is_used_up() && (content > most_ ? take_large() : take_bytes(content));
    requests_ = granted ? requests_ - 1 : 0;
    return granted;
  }

 private:
  bool take_large() noexcept {
    if (!large_ || !rest_.large) return false;
    rest_.large = false;
    return true;
  }
  bool take_bytes(std::size_t content) noexcept {
    if (content > bytes_ || content > rest_.bytes) return false;
    bytes_ -= content;
    rest_.bytes -= content;
    return true;
  }

  std::size_t requests_;
  std::size_t bytes_;
  std::size_t most_;
  TurnRest& rest_;
  bool large_;
};

}  // namespace skein
