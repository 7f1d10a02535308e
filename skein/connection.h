#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <list>
#include <memory>
#include <string_view>

#include "skein/buffers.h"
#include "skein/loops.h"
#include "skein/quota.h"
#include "skein/request.h"
#include "skein/share.h"
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

  /// Reports that a limit ends the connection, and ends it. False: it has ended before.
  bool give_up(const LimitError& reason) const;

 private:
  friend class Server;
  HeldRequest(Server& server, std::uint64_t number) : server_(&server), number_(number) {}

  Server* server_;
  std::uint64_t number_;
};

/// One accepted stream: bytes in, complete frames to the server, replies out.
/// Owned by its server until it ends, then by the loop until the next turn. A server that keeps
/// state with a connection derives from this class (Server::make_connection).
///
/// Small while it idles: whatever waits lies in its Buffers, which it has only then.
class Connection : public LoopOwned, private PollTarget, public Holder {
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

  /// The peer has shown a valid key, or needs none.
  void set_valid();

  /// Reports that a limit ends this connection, and ends it.
  void give_up(const LimitError& reason) override;

 protected:
  /// Bytes that a subclass keeps for the peer.
  virtual std::size_t kept_bytes() const { return 0; }

 private:
  friend class Server;
  friend class Quota;
  friend class Backlog;
  friend class ProgressWatch;

  void handle_events(int events) override;
  bool may_go_on() const noexcept;
  void read();
  /// Serves so much of what waits.
  void serve_waiting(Share share) { take({}, share); }
  /// Serves what waits, then `bytes`, as far as it may, and keeps the rest.
  void take(std::string_view bytes, Share& share);
  void take_or_throw(std::string_view bytes, Share& share);
  void serve_kept(std::string_view& bytes, Share& share);
  void serve_frames(std::string_view& bytes, Share& share);
  /// Comes back on the next turn where whole frames wait that may be served.
  void queue_up();
  void flush();
  /// After bytes have come or gone: gives back what is empty, and keeps account of the rest.
  void settle();
  void watch();
  /// No request is held any more; resume() serves what came meanwhile.
  void go_on() noexcept { held_ = 0; }
  void resume();
  void end();

  bool has_kept() const noexcept { return buffers_ && buffers_->in.size() > buffers_->served; }
  std::size_t unread() const noexcept { return buffers_ ? buffers_->unread() : 0; }
  Buffers& buffers();
  /// When the peer will have made no progress for too long; max() while it owes none.
  std::chrono::steady_clock::time_point due() const;
  void time_out();

  // First of all: here they fit behind the last base's flag and take up nothing.
  bool serving_ = false;  ///< replies wait for the end of the present read
  bool deaf_ = false;     ///< the peer takes no replies any more; what it sent is still served
  bool ended_ = false;
  Server& server_;
  Socket socket_;
  std::uint32_t index_ = 0;  ///< place among the server's connections
  Poll poll_;                // destroyed before the descriptor that it watches is closed
  Traffic traffic_;
  std::unique_ptr<Buffers> buffers_;
  std::list<Connection*>::iterator newcomer_;  ///< place in the quota's list until it is valid
  std::uint64_t held_ = 0;                     ///< number of the held request; 0: none
};

}  // namespace skein
