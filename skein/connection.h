#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "skein/loops.h"
#include "skein/socket.h"

namespace skein {

class Server;

/// One accepted stream: bytes in, complete frames to the server, replies out.
/// Owned by its server until it ends, then by the loop until the next turn. A server that keeps
/// state with a connection derives from this class (Server::make_connection).
class Connection : public LoopOwned, private PollTarget {
 public:
  Connection(Server& server, Loop& loop, Socket socket);

  const Socket& socket() const noexcept { return socket_; }

  /// Sends one message. Order is kept; what the peer does not take yet waits here.
  void send(std::string_view message);

 private:
  friend class Server;

  void handle_events(int events) override;
  void read();
  /// Serves every complete frame of `bytes` and keeps the rest.
  void take(std::string_view bytes);
  void serve_frames(std::string_view& bytes);
  void flush();
  void end();

  Server& server_;
  Socket socket_;
  Poll poll_;            // destroyed before the descriptor that it watches is closed
  std::string partial_;  ///< the frame that is still coming, and nothing else; empty while idle
  std::string unsent_;
  std::size_t sent_ = 0;   ///< bytes at the front of unsent_ that are out
  std::size_t index_ = 0;  ///< place among the server's connections
  bool serving_ = false;   ///< replies wait for the end of the present read
  bool ended_ = false;
};

}  // namespace skein
