#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "skein/socket.h"

namespace support {

/// A listening socket on a free port of 127.0.0.1 that answers only what a test says.
class StandIn {
 public:
  enum class Mode { LISTENS, REFUSES, HANGS };

  explicit StandIn(Mode mode = Mode::LISTENS);
  std::uint16_t port() const;
  /// The connection that waits, if any.
  skein::Socket accept() const;

 private:
  skein::Socket socket_;
  skein::Socket filler_;  ///< takes the only place of one that hangs
};

/// What has come by now.
std::string receive(const skein::Socket& peer);
void answer(const skein::Socket& peer, std::string_view text);

/// The name "several.test" resolves to these ports of 127.0.0.1, in this order.
void resolve_several_to(std::vector<std::uint16_t> ports);
/// Lookups of the name "hangs.test" wait in their thread while one of these lives.
struct HangingLookups {
  HangingLookups();
  ~HangingLookups();
};

}  // namespace support
