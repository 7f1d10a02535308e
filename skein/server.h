#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "skein/connection.h"
#include "skein/dispatcher.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/errors.h"
#include "skein/keepalive.h"
#include "skein/loops.h"
#include "skein/socket.h"

namespace skein {

/// The encoders of a server's connections, in the order in which they are applied to a message
/// that goes out.
struct Encoders {
  MsgpackEncoder msgpack;
  SnappyEncoder snappy;
};

/// A listening end point on the loop: accepts connections, decodes their requests and runs the
/// operation that the subclass names for them. Owns its connections. Borrows the loop.
class Server : private PollTarget {
 public:
  /// Takes a socket that is bound and listens already. With a `connection_keepalive`, every
  /// accepted TCP connection gets it. Throws SystemFailure.
  Server(Socket sock, Loop& loop, std::optional<Keepalive> connection_keepalive = std::nullopt);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  virtual ~Server();

  /// Called when the listening socket is readable. Accepts one pending connection, registers it
  /// and returns it; none when there was none, or it had gone again.
  virtual Connection* handle_read();
  /// Called once for each accepted connection, before any request of it. Call the base first.
  virtual void add_connection(Connection& connection);
  /// Called once when a connection ends, for any reason. Call the base last.
  virtual void remove_connection(Connection& connection);
  /// Called with a failure of a request handler or of the server's own I/O. The server goes on.
  virtual void handle_exception(const std::exception& failure) = 0;
  /// Called with the fault of a peer that broke the protocol; its connection ends after this.
  virtual void handle_protocol_error(Connection& connection, const ProtocolError& fault) = 0;

  /// Stops listening, ends every connection and leaves the loop. Again: nothing.
  void close();

  std::size_t connection_count() const noexcept { return connections_.size(); }
  /// The open ones, in no order that means anything.
  std::span<const std::unique_ptr<Connection>> connections() const noexcept { return connections_; }
  const Socket& socket() const noexcept { return socket_; }

 protected:
  /// The requests that peers may call.
  virtual std::span<const RequestRow> requests() const = 0;
  /// A subclass that keeps state with its connections makes its own kind here.
  virtual std::unique_ptr<Connection> make_connection(Socket socket);
  Loop& loop() noexcept { return loop_; }

 private:
  friend class Connection;
  friend class HeldRequest;

  void handle_events(int events) override;
  void pause_listening();
  std::span<char> read_buffer() noexcept;
  /// Decodes one frame and answers the request in it. Throws ProtocolError for bytes that are
  /// none; every other failure is the request's.
  void serve(Connection& connection, std::string_view frame);
  void end(Connection& connection);
  HeldRequest hold(Connection& connection);
  Connection* held_connection(std::uint64_t number) const noexcept;
  void answer_held(std::uint64_t number, const Reply& reply);
  void fail_held(std::uint64_t number, const std::exception& failure);
  void release(std::uint64_t number, const std::function<std::string(std::uint32_t)>& answer);

  Loop& loop_;
  Socket socket_;
  std::unique_ptr<Poll> poll_;  // none once closed
  Timer resume_listening_;
  std::optional<Keepalive> connection_keepalive_;
  Encoders encoders_;
  Message message_;
  std::vector<std::unique_ptr<Connection>> connections_;
  /// A connection that waits for the answer to its request, and the number under which the peer
  /// waits for it; none for a one-way request.
  struct Held {
    Connection* connection;
    std::optional<std::uint32_t> msgid;
  };
  std::unordered_map<std::uint64_t, Held> held_;
  std::uint64_t held_made_ = 0;
  std::optional<std::uint32_t> msgid_;   ///< of the request that is being handled
  std::unique_ptr<char[]> read_buffer_;  ///< shared by all connections: each empties it at once
};

}  // namespace skein
