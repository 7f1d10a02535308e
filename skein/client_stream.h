#pragma once

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "skein/socket.h"

// A blocking byte stream with deadlines, for programs without an event loop: how it fails
// (ClientError), where it leads (Endpoint), how it waits (Waiter), and the stream itself.
namespace skein {

/// Why an operation of a client failed. These are expected outcomes, so there is no stack trace.
class ClientError : public std::runtime_error {
 public:
  enum class Kind {
    NO_SOCKET,      ///< nothing exists at the path
    REFUSED,        ///< nobody listens there
    NOT_PERMITTED,  ///< this user must not use the socket
    UNREACHABLE,    ///< cannot connect for another reason: no route, unknown host
    TIMED_OUT,      ///< connecting, sending or the reply took too long
    LOST,           ///< the connection broke, or the peer does not speak skein
    SERVER,         ///< the server answered with an error; the text is the server's
    CANCELLED,      ///< Client::cancel() was called
  };

  ClientError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
  Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

/// Where a client connects to: a unix socket, or a host (name or address) and its TCP port.
class Endpoint {
 public:
  static Endpoint unix_socket(std::string path) { return {std::move(path), "", ""}; }
  static Endpoint tcp(std::string host, std::string port) {
    return {"", std::move(host), std::move(port)};
  }

  bool is_unix() const noexcept { return host_.empty(); }
  const std::string& path() const noexcept { return path_; }
  const std::string& host() const noexcept { return host_; }
  const std::string& port() const noexcept { return port_; }

  /// For messages: the path, "host:port" or "[v6]:port".
  std::string text() const;

 private:
  Endpoint(std::string path, std::string host, std::string port)
      : path_(std::move(path)), host_(std::move(host)), port_(std::move(port)) {}

  std::string path_;
  std::string host_;  // empty: a unix socket
  std::string port_;
};

/// Waits for one descriptor at a time until a deadline. One thread uses it, except for cancel().
class Waiter {
 public:
  using Clock = std::chrono::steady_clock;

  /// Throws SystemFailure if no descriptor is left.
  Waiter();

  /// Waits until `descriptor` is ready for `events` (of poll(2)) or has failed. Returns false if
  /// the deadline came first. A descriptor of -1 waits for the deadline only.
  /// Throws ClientError CANCELLED.
  bool wait(int descriptor, short events, Clock::time_point deadline) const;

  /// Ends every present and future wait of this object. Any thread.
  void cancel() noexcept;

 private:
  Socket cancelled_;  // an eventfd, readable once cancelled
};

/// One connected byte stream. Every operation ends by its deadline. Borrows the waiter.
/// After an exception the stream must not be used any more.
class ClientStream {
 public:
  using Clock = Waiter::Clock;

  /// Looks up the host and connects. If the host has several addresses, each of them gets an equal
  /// share of the remaining time. Throws ClientError of every kind except LOST and SERVER.
  ClientStream(const Endpoint& endpoint, const Waiter& waiter, Clock::time_point deadline);

  /// Throws ClientError TIMED_OUT, LOST, CANCELLED.
  void send(std::string_view bytes, Clock::time_point deadline);

  /// Appends exactly `count` bytes to `bytes`. Throws ClientError TIMED_OUT, LOST, CANCELLED.
  void receive(std::string& bytes, std::size_t count, Clock::time_point deadline);

 private:
  void wait(short events, Clock::time_point deadline, std::string_view action) const;

  const Waiter& waiter_;
  std::string peer_;  // for messages
  Socket socket_;
};

}  // namespace skein
