#pragma once

#include <sys/socket.h>
#include <uv.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/influx/http_response.h"
#include "skein/loops.h"
#include "skein/socket.h"

namespace pelorus {

/// One HTTP/1.1 request and its response on a TCP connection of its own. It looks the host up,
/// tries its addresses in turn, sends the bytes that its owner supplies and reads the response. It
/// knows neither what is sent nor which status is a success, and it logs nothing.
///
/// A member of its owner. It starts on the iteration after its construction and ends once, with a
/// whole response or an error: a failed system call, a timeout, no memory. The end is reported as
/// its last statement. Destroyed before its end, it reports nothing. Loop thread only.
///
///   connected  ended | timer             lookup   poll
///   no         no    | start             -        -                    not started
///   no         no    | connect_timed_out running  -                    name lookup
///   no         no    | connect_timed_out -        writable             connecting to an address
///   yes        no    | check_progress    -        readable; writable   sending and receiving
///              |     |                            while bytes are unsent
///   any        yes   | -                 -        -                    over
class HTTPExchange : private skein::PollTarget {
 public:
  /// Longest time to a connection: the name lookup and all addresses together.
  static constexpr std::chrono::seconds CONNECT_TIME{5};
  /// Longest time without a byte in either direction, once connected.
  static constexpr std::chrono::seconds PROGRESS_TIME{20};
  /// Longest time from the last byte that the endpoint took to the end of its response. Sending has
  /// no such limit: a large request may take as long as it makes progress.
  static constexpr std::chrono::seconds RESPONSE_TIME{60};
  /// Most bytes sent in one iteration of the loop: an endpoint on this machine may take them as
  /// fast as they are sent.
  static constexpr std::size_t SEND_BYTES_PER_ITERATION = 2U << 20;
  /// Most addresses of the host that are tried.
  static constexpr std::size_t MAX_ADDRESSES = 8;

  /// What an exchange needs from the object that owns it. An exception from the first two ends the
  /// exchange.
  class Owner {
   public:
    /// The connection is established. Returns the first slice of the request, not empty. A slice
    /// stays valid until the next one is asked for.
    virtual std::string_view send_request() = 0;
    /// The slice before has been sent. Returns the next one; empty after the last one.
    virtual std::string_view next_slice() = 0;
    /// The exchange is over and its connection is closed. Nothing is called after this. Must not
    /// destroy the exchange, whose callback is still running.
    virtual void handle_end() noexcept = 0;

   protected:
    ~Owner() = default;
  };

  /// `host`: a name or a numeric address. Borrows the loop and the owner.
  HTTPExchange(std::string host, std::uint16_t port, skein::Loop& loop, Owner& owner);
  HTTPExchange(const HTTPExchange&) = delete;
  HTTPExchange& operator=(const HTTPExchange&) = delete;
  ~HTTPExchange();

  /// The connection has been established, and may have ended since.
  bool connected() const noexcept { return connected_; }
  /// What has been received. An exchange that ended with a complete response has not failed.
  const HTTPResponse& response() const noexcept { return response_; }
  /// Why the exchange failed. If it could not connect: the error of each address that the name
  /// lookup found, or of the host itself if it is an address.
  const std::string& error() const noexcept { return error_; }

  /// Name lookups that libuv has not finished, abandoned ones included. While there are any, the
  /// process must end by _exit: an orderly exit waits for libuv's threads, however long a lookup
  /// hangs.
  static std::size_t lookups_pending() noexcept;

 private:
  struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;
  };

  static std::vector<Address> copy_of(const addrinfo* found);
  static std::string text_of(const Address& address);
  static void on_lookup(uv_getaddrinfo_t* request, int status, addrinfo* found) noexcept;

  void start();
  void look_up();
  void connect_next();
  int connect_to(const Address& address);
  void note_failed_address(int error);
  void connect_timed_out();
  void finish_connect();
  void handle_events(int events) override;
  void send_and_receive();
  void read();
  void write();
  void check_progress();
  void note_acknowledged();
  void fail(std::string error);
  void end() noexcept;
  void close() noexcept;

  template <class Step>
  void guarded(Step&& step) noexcept;
  void arm(std::chrono::duration<double> delay, void (HTTPExchange::*step)());
  std::chrono::steady_clock::time_point now() const { return loop_.clocks().monotonic(); }

  const std::string host_;
  const std::uint16_t port_;
  skein::Loop& loop_;
  Owner& owner_;
  bool connected_ = false;
  bool ended_ = false;
  skein::Timer timer_;
  uv_getaddrinfo_t* lookup_ = nullptr;  ///< libuv's until on_lookup(), which frees it
  bool looked_up_ = false;              ///< the host is a name
  std::vector<Address> addresses_;      ///< in the resolver's order
  std::size_t addresses_tried_ = 0;
  std::chrono::steady_clock::time_point connect_deadline_;
  skein::Socket socket_;
  std::optional<skein::Poll> poll_;  // destroyed before the descriptor that it watches is closed
  std::string_view unsent_;          ///< of the present slice; empty after the last one
  int send_error_ = 0;               ///< why no more can be sent; the response is read all the same
  int unacknowledged_ = 0;           ///< bytes in the socket's send buffer at the last check
  std::chrono::steady_clock::time_point last_acknowledged_;  ///< sent or found acknowledged
  std::chrono::steady_clock::time_point last_received_;
  HTTPResponse response_;
  std::string error_;
};

}  // namespace pelorus
