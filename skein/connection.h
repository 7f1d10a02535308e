#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "skein/loops.h"
#include "skein/request.h"
#include "skein/socket.h"

namespace skein {

class Server;

/// A request whose answer comes later. Small and copyable; the connection may have ended when the
/// answer comes, which then goes nowhere. The server must outlive it.
class HeldRequest {
 public:
  /// Answers and lets the connection go on with what it has sent since. Once.
  void answer(const Reply& reply) const;
  /// Takes the failure to the server's handle_exception, and its text to the peer. Once.
  void fail(const std::exception& failure) const;
  /// The connection that it came on; none when that has ended, or once it is answered.
  Connection* connection() const noexcept;

 private:
  friend class Server;
  HeldRequest(Server& server, std::uint64_t number) : server_(&server), number_(number) {}

  Server* server_;
  std::uint64_t number_;
};

/// One accepted stream: bytes in, complete frames to the server, replies out.
/// Owned by its server until it ends, then by the loop until the next turn. A server that keeps
/// state with a connection derives from this class (Server::make_connection).
class Connection : public LoopOwned, private PollTarget {
 public:
  Connection(Server& server, Loop& loop, Socket socket);

  /// What came on a connection. Moments are those of Loop::seconds().
  struct Traffic {
    std::uint32_t since = 0;      ///< accepted
    std::uint32_t last_seen = 0;  ///< bytes came
    std::uint64_t requests = 0;   ///< good and bad ones
  };

  const Socket& socket() const noexcept { return socket_; }
  const Traffic& traffic() const noexcept { return traffic_; }

  /// Suspends this connection until the request that is being handled is answered: it is not read,
  /// and what has come already waits. The others go on. The handler returns Reply::later().
  HeldRequest hold();

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
  void watch();
  /// No request is held any more; resume() serves what came meanwhile.
  void go_on();
  void resume();
  void end();

  Server& server_;
  Traffic traffic_;
  Socket socket_;
  Poll poll_;  // destroyed before the descriptor that it watches is closed
  /// The frame that is still coming; with a held request, all that came behind it. Empty while
  /// idle.
  std::string partial_;
  std::string unsent_;
  std::size_t sent_ = 0;    ///< bytes at the front of unsent_ that are out
  std::size_t index_ = 0;   ///< place among the server's connections
  std::uint64_t held_ = 0;  ///< number of the held request; 0: none
  bool serving_ = false;    ///< replies wait for the end of the present read
  bool deaf_ = false;       ///< the peer takes no replies any more; what it sent is still served
  bool ended_ = false;
};

}  // namespace skein
