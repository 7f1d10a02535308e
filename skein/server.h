#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "skein/backlog.h"
#include "skein/connection.h"
#include "skein/dispatcher.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/errors.h"
#include "skein/keepalive.h"
#include "skein/loops.h"
#include "skein/progress_watch.h"
#include "skein/quota.h"
#include "skein/socket.h"
#include "skein/throttle.h"

namespace skein {

/// The encoders of a server's connections, in the order in which they are applied to a message
/// that goes out.
struct Encoders {
  MsgpackEncoder msgpack;
  SnappyEncoder snappy;
};

/// A listening end point on the loop: accepts connections, decodes their requests and runs the
/// operation that the subclass names for them. Owns its connections. Borrows the loop. No peer gets
/// more of it than the quota's limits allow, however it behaves.
class Server : private PollTarget {
 public:
  /// Takes a socket that is bound and listens already. With a `connection_keepalive`, every
  /// accepted TCP connection gets it. Servers of one process share a `quota`; one without has its
  /// own. Throws SystemFailure.
  Server(Socket sock, Loop& loop, std::optional<Keepalive> connection_keepalive = std::nullopt,
         std::shared_ptr<Quota> quota = nullptr);
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
  /// Called with the fault of a peer that broke the protocol, or went beyond a limit (a
  /// LimitError); its connection ends after this.
  virtual void handle_protocol_error(Connection& connection, const ProtocolError& fault) = 0;

  /// Called when the process is short of something, and goes on with what it has: once in
  /// Limits::shortage_report_interval. `text` says of what.
  virtual void handle_shortage(const std::string& text) { handle_exception(Failure(text)); }

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
  Quota& quota() noexcept { return *quota_; }
  const Limits& limits() const noexcept { return quota_->limits(); }

 private:
  friend class Connection;
  friend class HeldRequest;

  void handle_events(int events) override;
  void pause_listening(const std::string& reason);
  void report_shortage(Throttle& throttle, const std::string& text);
  void enforce_quota() {
    if (quota_->is_short()) enforce_short_quota();
  }
  void enforce_short_quota();
  std::chrono::steady_clock::time_point now() const { return loop_.now().monotonic; }
  /// Lends buffers to a connection, and takes them back when nothing waits in them.
  std::unique_ptr<Buffers> fresh_buffers();
  void take_back(Connection& connection);
  void forget_buffers(Connection& connection);
  std::span<char> read_buffer() noexcept;
  /// Decodes one frame and answers the request in it. Throws ProtocolError for bytes that are
  /// none; every other failure is the request's.
  void serve(Connection& connection, std::string_view frame);
  void trim() noexcept;
  static void answer(Connection& connection, std::uint32_t msgid, const Reply& reply);
  void end(Connection& connection);
  HeldRequest hold(Connection& connection);
  /// None when it has ended.
  Connection* held_connection(std::uint64_t number) const noexcept;
  void answer_held(std::uint64_t number, const Reply& reply);
  void fail_held(std::uint64_t number, const std::exception& failure);
  void release(std::uint64_t number,
               const std::function<void(Connection&, std::uint32_t)>& send_answer);

  Loop& loop_;
  Socket socket_;
  std::unique_ptr<Poll> poll_;  // none once closed
  Timer resume_listening_;
  std::shared_ptr<Quota> quota_;  // the process's other servers own it, too
  std::chrono::milliseconds accept_pause_;
  Throttle accept_reports_;
  Throttle quota_reports_;
  Backlog backlog_;
  ProgressWatch progress_;
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
  /// Those of one connection after the other, so that a frame does not cost an allocation.
  std::unique_ptr<Buffers> spare_buffers_;
};

}  // namespace skein
