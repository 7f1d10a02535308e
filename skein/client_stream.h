#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "skein/endpoint.h"
#include "skein/socket.h"
#include "skein/waiter.h"

namespace skein {

/// One connected byte stream of a client; every operation ends by its deadline.
/// Borrows the waiter. Whatever throws leaves a stream that must not be used any further.
class ClientStream {
 public:
  using Clock = Waiter::Clock;

  /// Connects; of several addresses each gets its share of the time that is left.
  /// Throws ClientError: every kind but LOST and SERVER.
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
