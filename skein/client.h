#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "skein/client_stream.h"
#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/value.h"

namespace skein {

/// Longest wait for each step of a client.
struct Timeouts {
  std::chrono::milliseconds connect{5000};  ///< including the lookup of the host
  std::chrono::milliseconds send{5000};     ///< one whole request
  std::chrono::milliseconds receive{5000};  ///< its whole reply, from the end of sending
};

/// A decoded reply `[1, msgid, error, result]`, which owns its bytes. The values are valid as long
/// as the answer, even after it was moved.
class Answer {
 public:
  /// Throws ProtocolError if `payload` is not the Snappy block of a reply.
  explicit Answer(std::string_view payload);

  Value msgid() const noexcept { return item(1); }
  Value error() const noexcept { return item(2); }
  /// What the server's handler returned.
  Value result() const noexcept { return item(3); }

 private:
  Value item(int index) const noexcept;

  SnappyEncoder content_;  // owns the bytes that the values point to
  Message message_;
};

/// A blocking client for tools and plugins: one connection, one request at a time, no event loop.
/// One thread uses it, except for cancel(). A failure of the connection closes it; open() connects
/// again.
class Client {
 public:
  /// Does not connect yet. Throws SystemFailure if no descriptor is left.
  explicit Client(Endpoint endpoint, Timeouts timeouts = {});
  Client(const Client&) = delete;  // the stream refers to the waiter
  Client& operator=(const Client&) = delete;

  /// Connects; closes an open connection first. Throws ClientError, SystemFailure.
  void open();
  bool is_open() const noexcept { return stream_.has_value(); }
  const Endpoint& endpoint() const noexcept { return endpoint_; }

  /// Sends the request `name` with `args`, an encoded map with text keys, and waits for its reply.
  /// Throws ClientError: SERVER leaves the connection open, every other kind closes it.
  /// Throws ProtocolError if the request is too large for any server; nothing is sent then.
  Answer call(std::string_view name, const MsgpackWriter& args);

  void close() noexcept { stream_.reset(); }

  /// Ends the present and all later calls of open() and call() with CANCELLED. Any thread.
  void cancel() noexcept { waiter_.cancel(); }

 private:
  void send(std::string_view name, const MsgpackWriter& args);
  /// The reply to the last request; replies to others are skipped.
  Answer receive();

  Endpoint endpoint_;
  Timeouts timeouts_;
  Waiter waiter_;
  std::optional<ClientStream> stream_;
  std::uint32_t msgid_ = 0;  // of the last request
};

}  // namespace skein
