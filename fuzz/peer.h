#pragma once

#include <string_view>
#include <vector>

#include "skein/loops.h"
#include "skein/server.h"
#include "support/skein_peer.h"

namespace fuzz {

/// A peer of a server in this process. The network is left out: what the server accepts is one end
/// of a socket pair, and its listening socket is neither bound nor does it listen. The connection
/// that serves it is the real one.
class Peer {
 public:
  Peer(skein::Server& server, skein::Loop& loop);

  /// Sends the bytes and runs the loop, so that they are read by themselves.
  void send(std::string_view bytes);
  /// Sends no more, and runs the loop until the server has ended the connection.
  void finish();

  /// All that came back.
  const std::string& received() const noexcept { return peer_.received(); }
  /// The messages in it, decompressed. A broken frame is a finding.
  std::vector<std::string> messages();

 private:
  skein::Loop& loop_;
  support::SkeinPeer peer_;
};

}  // namespace fuzz
