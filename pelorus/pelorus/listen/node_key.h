#pragma once

#include <string>
#include <utility>

#include "skein/request.h"

namespace pelorus {

class CollectdConnection;

/// A key without dashes, and the time of its last success, seconds since the epoch.
using VerifiedKey = std::pair<const std::string, double>;

/// The key of a request, without its dashes. Nearly every request has the one with which its
/// connection was let through before: that costs a comparison, no copy and no look-up.
class NodeKey {
 public:
  /// Notes a key that is another one with the connection. Throws RequestError for one that is
  /// missing, no text, or too long.
  NodeKey(const skein::Request& request, CollectdConnection& connection);

  const std::string& text() const noexcept { return verified_ ? verified_->first : text_; }
  /// The connection's, if it is that one; else none.
  const VerifiedKey* verified() const noexcept { return verified_; }

 private:
  const VerifiedKey* verified_ = nullptr;
  std::string text_;  ///< of another one
};

}  // namespace pelorus
