#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "skein/connection.h"
#include "skein/errors.h"
#include "skein/loops.h"
#include "skein/request.h"
#include "skein/socket.h"

namespace skein {

struct Limits;
struct Resources;
enum class Standing : std::uint8_t;

/// A listening end point on the loop: accepts connections, decodes their requests and runs the
/// operation that the subclass has named for each. Owns its connections. Borrows loop and
/// resources.
///
/// A readable connection is added to the ready queue. When its turn comes it is read once, and its
/// frames are served one after the other; replies gather and are sent at the end. A handler that
/// defers its reply suspends the connection. At the end of a peer's stream all that came before is
/// answered, then the connection is closed.
class Server : private PollTarget {
 public:
  class DeferredReply;
  /// Somebody who has deferred a reply.
  class Deferrer {
   public:
    /// The peer sends nothing more, or its connection has ended. Called once, at most.
    virtual void handle_hang_up() noexcept = 0;

   protected:
    ~Deferrer() = default;
  };

  /// Takes a socket that is bound and listens already. With a `connection_keepalive`, every
  /// accepted TCP connection gets it. Throws SystemFailure.
  Server(Socket sock, Loop& loop, Resources& resources,
         std::optional<Keepalive> connection_keepalive = std::nullopt);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  virtual ~Server();

  /// Called when the listening socket is readable. Accepts one pending connection, registers it
  /// and returns it; none if there was none, or if it has disconnected again.
  virtual Connection* handle_read();
  /// Called once for each accepted connection, before any request of it. Call the base first.
  virtual void add_connection(Connection& connection);
  /// Called once when a connection ends, for any reason. Call the base last.
  virtual void remove_connection(Connection& connection);
  /// Called with a failure of a request handler or of the server's own I/O. The server goes on. Of
  /// one connection ten failures a second are reported, and the number of the others.
  virtual void handle_exception(const std::exception& failure) = 0;
  /// Called with the text about a request that no operation answers: of an unknown name, or no
  /// request at all.
  virtual void handle_refusal(const std::string& text) { handle_exception(RequestError(text)); }
  /// Called with the fault of a peer that broke the protocol, or went beyond a limit (a
  /// LimitError); its connection ends after this.
  virtual void handle_protocol_error(Connection& connection, const ProtocolError& fault) = 0;
  /// Called when the process is short of something, and goes on with what it has (once in
  /// Limits::shortage_report_interval), or leaves out reports. `text` says of what.
  virtual void handle_shortage(const std::string& text) { handle_exception(Failure(text)); }

  /// The peer has shown who it is, or need not: it is served first and evicted last. Throws
  /// std::bad_alloc.
  void set_authenticated(const Connection& connection);
  Standing standing(const Connection& connection) const;
  /// Number of the address of its peer.
  std::uint32_t origin(const Connection& connection) const;

  /// Defers the reply to `request`; its handler returns Reply::later(). Until the reply is sent,
  /// the connection is neither read nor served. `deferrer` is told if the peer disconnects; it must
  /// outlive the deferral or call forget_deferrer(). Cannot fail.
  DeferredReply defer(const Request& request, Deferrer* deferrer = nullptr) noexcept;

  /// Stops listening, ends every connection and leaves the loop. Again: nothing.
  void close();

  std::size_t connection_count() const noexcept { return connection_count_; }
  /// The open ones, in no order that means anything.
  std::vector<const Connection*> connections() const;
  const Socket& socket() const noexcept { return socket_; }

 protected:
  using Handler = std::function<Reply(const Request&)>;
  /// Names the handler of the request `name`, a literal.
  void answer_to(std::string_view name, Handler handler) {
    handlers_.emplace_back(name, std::move(handler));
  }
  /// Bytes that the subclass keeps for a peer, beyond those of its connection.
  virtual std::size_t held_bytes(const Connection&) const { return 0; }
  Loop& loop() noexcept { return loop_; }
  Resources& resources() noexcept { return resources_; }

 private:
  class Peer;
  struct Internals;

  void handle_events(int events) override;
  void pause_listening(const std::string& reason);
  /// `left_out`: of the same reports, before; none if this one is to be left out as well.
  void report_shortage(std::optional<std::uint64_t> left_out, const std::string& text);
  /// Counts a failed request; whether it is to be reported.
  bool note_failure(const Peer* peer);
  void report_left_out(const Peer* peer, std::uint64_t failures);
  Peer& add_peer(Socket socket, std::uint32_t origin);
  /// Decodes the message of a frame and answers the request in it. Throws ProtocolError for bytes
  /// that are none; every other failure is the request's.
  void serve(Peer& peer, std::string_view frame);
  /// A failure of `step`, which does something for the peer, ends its connection.
  template <class Step>
  void guarded(Peer& peer, Step&& step) noexcept;
  /// What the peer is told of a failure. A stranger is not told what is inside.
  static std::string_view error_text(const Peer& peer, const std::exception& failure);
  void enforce_limits();
  /// Reports the fault and ends the connection.
  void end_for(Peer& peer, const ProtocolError& fault) noexcept;
  void end(Peer& peer) noexcept;
  void sweep() noexcept;
  Peer& peer_of(const Connection& connection) const;

  Loop& loop_;
  Resources& resources_;
  const Limits& limits_;
  Socket socket_;
  std::unique_ptr<Poll> poll_;  // none once closed
  Timer resume_listening_;
  std::chrono::milliseconds accept_pause_;
  std::optional<Keepalive> connection_keepalive_;
  std::vector<std::pair<std::string_view, Handler>> handlers_;  ///< a handful
  const std::unique_ptr<Internals> internals_;
  EndOfIterationTask sweep_;
  std::size_t connection_count_ = 0;
  std::uint32_t deferrals_ = 0;  ///< made so far
};

/// The reply to a request whose handler has returned Reply::later(). Small and copyable; when the
/// connection has ended meanwhile, the reply goes nowhere. The server must outlive it.
class Server::DeferredReply {
 public:
  /// Made by Server::defer(). `number`: of the deferral, since the slot may get another connection.
  DeferredReply(Server& server, std::uint32_t slot, std::uint32_t number)
      : server_(&server), slot_(slot), number_(number) {}

  /// Replies, and the connection continues with what it has sent since. Once.
  void send(const Reply& reply) const noexcept;
  /// Takes the text to the server's handle_refusal and to the peer. Once.
  void refuse(const std::string& text) const noexcept;
  /// Takes the failure to the server's handle_exception, and its text to the peer. Once.
  void fail(const std::exception& failure) const noexcept;
  /// The connection of the request; none when it has ended, or once this was sent.
  Connection* connection() const noexcept;
  /// Whether the peer is there, as far as is known.
  bool has_peer() const noexcept;
  /// The deferrer does not want to be told any more.
  void forget_deferrer() const noexcept;
  /// Reports that a limit ends the connection, and ends it. False: it has ended before.
  bool end_connection(const LimitError& reason) const;

 private:
  Peer* peer() const noexcept;
  /// Reports a failed request, and replies with `text`.
  template <class Report>
  void reply_error(Report&& report, std::string_view text) const noexcept;

  Server* server_;
  std::uint32_t slot_;
  std::uint32_t number_;
};
using DeferredReply = Server::DeferredReply;

/// What a server keeps for each of its connections: a T for each slot, in blocks of many, because
/// an allocation for each would cost an idle connection more. A T stays where it is.
template <class T>
class PerConnection {
 public:
  /// A connection has come. Throws std::bad_alloc.
  T& add(std::uint32_t slot) {
    while (slot >= slots()) blocks_.push_back(std::make_unique<std::array<T, BLOCK>>());
    return (*this)[slot];
  }
  T& add(const Connection& connection) { return add(connection.slot()); }
  /// It has ended. Returns what was kept for it; a fresh T if it was not added.
  T remove(const Connection& connection) noexcept {
    if (connection.slot() >= slots()) return T();
    return std::exchange((*this)[connection], T());
  }
  T& operator[](std::uint32_t slot) { return (*blocks_[slot / BLOCK])[slot % BLOCK]; }
  T& operator[](const Connection& connection) { return (*this)[connection.slot()]; }
  const T& operator[](const Connection& connection) const {
    return (*blocks_[connection.slot() / BLOCK])[connection.slot() % BLOCK];
  }
  /// Slots are smaller than this.
  std::uint32_t slots() const noexcept {
    return static_cast<std::uint32_t>(blocks_.size()) * BLOCK;
  }

  static constexpr std::uint32_t BLOCK = 64;  ///< slots of a block

 private:
  std::vector<std::unique_ptr<std::array<T, BLOCK>>> blocks_;
};

}  // namespace skein
