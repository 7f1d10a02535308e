#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "skein/client_error.h"
#include "skein/client_stream.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/endpoint.h"
#include "skein/value.h"
#include "skein/waiter.h"

namespace skein {

/// Longest wait for each step of a client.
struct Timeouts {
  std::chrono::milliseconds connect{5000};  ///< looking up the host included
  std::chrono::milliseconds send{5000};     ///< one whole request
  std::chrono::milliseconds receive{5000};  ///< its whole reply, from the end of sending on
};

/// A decoded reply with the bytes that it stands on.
class Answer {
 public:
  /// What the server's handler returned; valid as long as this answer, also when that is moved.
  Value result() const noexcept;

 private:
  friend class Client;

  SnappyEncoder content_;  // owns the bytes that the nodes point to
  Message message_;
};

/// A blocking client for tools and plugins: one connection, one request under way, no event loop.
/// One thread uses it, save cancel(). A failure of the connection closes it; open() starts afresh.
class Client {
 public:
  /// Does not connect yet. Throws SystemFailure when there is no descriptor left.
  explicit Client(Endpoint endpoint, Timeouts timeouts = {});
  Client(const Client&) = delete;  // the stream refers to the waiter
  Client& operator=(const Client&) = delete;

  /// Connects; drops a connection that stands. Throws ClientError, SystemFailure.
  void open();
  bool is_open() const noexcept { return stream_.has_value(); }
  const Endpoint& endpoint() const noexcept { return endpoint_; }

  /// Sends the request `name` with `args`, an encoded map whose keys are text, and waits for its
  /// reply. Throws ClientError: SERVER leaves the connection open, every other kind closes it.
  /// Throws ProtocolError for a request that is too large for any server; nothing is sent then.
  Answer call(std::string_view name, const MsgpackWriter& args);

  void close() noexcept { stream_.reset(); }

  /// Ends a call or an open() that waits, and all later ones, with CANCELLED. Any thread.
  void cancel() noexcept { waiter_.cancel(); }

 private:
  void send(std::string_view name, const MsgpackWriter& args);
  /// The error of the reply that has come, none where it holds a result.
  std::optional<std::string> receive(Answer& answer);
  void receive_message(Answer& answer, Waiter::Clock::time_point deadline);

  Endpoint endpoint_;
  Timeouts timeouts_;
  Waiter waiter_;
  std::optional<ClientStream> stream_;
  std::uint32_t msgid_ = 0;  // of the last request
};

}  // namespace skein
