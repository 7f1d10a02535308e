#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelorus/pelorus/influx/http_response.h"
#include "pelorus/pelorus/influx/name_lookup.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"
#include "skein/socket.h"

namespace pelorus {

/// Longest time to a connection: the name lookup and all addresses together.
constexpr std::chrono::seconds CONNECT_TIME{5};
/// Longest time in which the endpoint neither takes a byte nor sends one, once connected.
constexpr std::chrono::seconds PROGRESS_TIME{20};
/// Longest time from the last byte that the endpoint took to the end of its answer, however
/// steadily that drips. Taking the request may last as long as it goes on.
constexpr std::chrono::seconds ANSWER_TIME{60};

/// One HTTP/1.1 request to InfluxDB on a connection of its own, and the judging of its answer.
/// The loop owns it (Loop::keep) until its connection has closed. Borrows the connection's settings
/// and the loop. Loop thread only.
///
/// It begins on the turn after its construction. Exactly one of handle_success and handle_failure
/// follows, in the same turn handle_close, and the loop destroys it on the next. A failure before
/// the connection stood shows as handle_close alone; what that means is the derived class's to say.
/// When the loop ends first, none is called. What these two throw is reported to the loop, and the
/// request ends all the same.
class HTTPRequest : public skein::LoopOwned, private skein::PollTarget {
 public:
  ~HTTPRequest() override;

 protected:
  /// `success_code`: the one status of an answer that counts as success.
  HTTPRequest(std::string database_name, const InfluxConnection& connection, int success_code,
              skein::Loop& loop);

  /// The connection stands: put the request's head into send_buf_ and its messages into batch_.
  /// They are written from then on, as one.
  virtual void send_request() = 0;
  /// The answer has the status that counts as success.
  virtual void handle_success(std::string_view body) = 0;
  /// The request has failed. `data`: the body of an answer with another status; none when no whole
  /// answer came. The base logs the one warning of this request.
  virtual void handle_failure(std::optional<std::string_view> data);
  /// The connection is over, or could not be made; nothing is called after this. The base closes
  /// it and hands this request to the loop to be destroyed.
  virtual void handle_close();

  /// Why this has failed: "status 400: b'…'", "could not connect to …". No secret in it.
  std::string failure_text(std::optional<std::string_view> data) const;
  /// The connection has been established (and may have ended since).
  bool connected() const noexcept { return connected_; }

  const std::string database_name_;
  const InfluxConnection& connection_;      ///< holds a secret: its auth is never logged
  std::string send_buf_;                    ///< what goes out next: the head, messages behind it
  std::deque<std::string> batch_;           ///< not in it yet; joined by one '\n'
  std::size_t messages_ = 0;                ///< of the batch that is lost when this request fails
  std::optional<std::size_t> data_length_;  ///< bytes of its body; none until it has been pulled

 private:
  void start();
  void connect_next();
  int connect_to(const SocketAddress& address);
  void note_failed_address(int error);
  void give_up_address();
  void finish_connect();
  int untaken() const;
  void note_taken();
  void await_progress();
  void handle_events(int events) override;
  void read();
  void write();
  bool has_unsent() const noexcept { return sent_ < send_buf_.size() || !batch_.empty(); }
  void join_more();
  void judge();
  void fail(std::string error);
  template <class Report>
  void end(Report&& report);
  template <class Step>
  bool reported(Step&& step) noexcept;
  std::string excerpt(std::optional<std::string_view> data) const;
  bool tells_credentials(std::string_view text) const;
  std::chrono::steady_clock::time_point now() const { return loop_.clocks().monotonic(); }

  skein::Loop& loop_;
  const int success_code_;
  skein::Timer timer_;  ///< of the present attempt to connect, then of the progress
  std::chrono::steady_clock::time_point connect_deadline_;
  std::optional<NameLookup> lookup_;
  std::vector<SocketAddress> addresses_;
  std::size_t addresses_tried_ = 0;
  std::string connect_error_;  ///< what became of each address
  skein::Socket socket_;
  std::optional<skein::Poll> poll_;  // destroyed before the descriptor that it watches is closed
  bool connected_ = false;
  bool ended_ = false;
  std::size_t sent_ = 0;     ///< bytes of send_buf_ that are out
  std::string write_error_;  ///< why no more can be sent; the answer is read all the same
  int untaken_ = 0;          ///< bytes in the kernel's hands at the last look
  std::chrono::steady_clock::time_point last_taken_;     ///< by the endpoint, as far as is known
  std::chrono::steady_clock::time_point last_received_;  ///< from it
  HTTPResponse response_;
  std::string error_;  ///< of a failed request, for the log
};

}  // namespace pelorus
