#include "pelorus/pelorus/influx/http_request.h"

#include <fmt/format.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/secret_text.h"
#include "skein/errors.h"
#include "skein/text.h"

namespace pelorus {
namespace {

constexpr std::size_t READ_BUFFER_BYTES = 16U << 10;
constexpr std::size_t EXCERPT_BYTES = 256;
/// Between two looks at what the kernel still holds.
constexpr std::chrono::seconds PROGRESS_CHECK_TIME{5};
/// Most bytes that are sent before others have their turn: a reader on this machine may take them
/// as fast as they come.
constexpr std::size_t SEND_BYTES_PER_TURN = 2U << 20;

/// A shorter password stands in many an answer that does not know it.
constexpr std::size_t SHORTEST_PASSWORD = 4;

std::string error_text(int error) { return std::generic_category().message(error); }

}  // namespace

HTTPRequest::HTTPRequest(std::string database_name, const InfluxConnection& connection,
                         int success_code, skein::Loop& loop)
    : database_name_(std::move(database_name)),
      connection_(connection),
      loop_(loop),
      success_code_(success_code) {
  timer_ = loop_.call_in(0, [this] { start(); });
}

HTTPRequest::~HTTPRequest() { timer_.cancel(); }

void HTTPRequest::start() {
  connect_deadline_ = now() + CONNECT_TIME;
  timer_ = loop_.call_in(CONNECT_TIME, [this] { give_up_address(); });
  addresses_ = numeric_address(connection_.host, connection_.port);
  if (!addresses_.empty()) return connect_next();
  try {
    lookup_.emplace(loop_, connection_.host, connection_.port,
                    [this](std::vector<SocketAddress> addresses, std::string fault) {
                      addresses_ = std::move(addresses);
                      connect_error_ = std::move(fault);
                      connect_next();
                    });
  } catch (const skein::SystemFailure& failure) {
    connect_error_ = failure.what();
    connect_next();
  }
}

/// Begins with the next address that lets itself be begun with. Each gets an equal share of the
/// time that is left: one that swallows every packet leaves the others theirs.
void HTTPRequest::connect_next() {
  while (addresses_tried_ < addresses_.size()) {
    const auto share =
        (connect_deadline_ - now()) / static_cast<int>(addresses_.size() - addresses_tried_);
    const int error = connect_to(addresses_[addresses_tried_++]);
    if (error == 0) {
      timer_.cancel();
      timer_ = loop_.call_in(share, [this] { give_up_address(); });
      return;
    }
    note_failed_address(error);
  }
  fail(fmt::format("could not connect to {}: {}", connection_.http_connection, connect_error_));
}

/// Returns 0 when the attempt is under way, else its error number.
int HTTPRequest::connect_to(const SocketAddress& address) {
  poll_.reset();
  try {
    socket_ = skein::Socket::stream(address.storage.ss_family);
    if (::connect(socket_.descriptor(), address.get(), address.length) != 0 &&
        errno != EINPROGRESS && errno != EINTR) {
      return errno;
    }
    poll_ = skein::Poll(loop_, socket_.descriptor(), *this);
    poll_->watch(UV_WRITABLE);
    return 0;
  } catch (const skein::SystemFailure& failure) {
    return failure.error_number();
  }
}

void HTTPRequest::note_failed_address(int error) {
  if (!connect_error_.empty()) connect_error_ += ", ";
  connect_error_ += addresses_[addresses_tried_ - 1].text() + ": " + error_text(error);
}

void HTTPRequest::give_up_address() {
  if (addresses_.empty()) {
    connect_error_ = "the name lookup takes too long";
  } else {
    note_failed_address(ETIMEDOUT);
  }
  connect_next();
}

void HTTPRequest::finish_connect() {
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(socket_.descriptor(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  if (error != 0) {
    note_failed_address(error);
    return connect_next();
  }
  connected_ = true;
  last_taken_ = last_received_ = now();
  timer_.cancel();
  timer_ = loop_.call_in(PROGRESS_CHECK_TIME, [this] { await_progress(); });
  send_request();
  join_more();
}

/// Bytes that the kernel has been given and the endpoint has not yet taken.
int HTTPRequest::untaken() const {
  int bytes = 0;
  return ::ioctl(socket_.descriptor(), SIOCOUTQ, &bytes) == 0 ? bytes : 0;
}

/// A slow endpoint may take for minutes what the kernel holds before there is room for more.
void HTTPRequest::note_taken() {
  const int before = std::exchange(untaken_, untaken());
  if (untaken_ < before) last_taken_ = now();
}

/// One timer for the whole exchange: it looks how long ago the last byte was, and comes back.
void HTTPRequest::await_progress() {
  // First: when the whole process stood still for a while, all is ready and nobody has looked yet.
  handle_events(UV_READABLE | UV_WRITABLE);
  if (ended_) return;
  const auto idle = now() - std::max(last_taken_, last_received_);
  const auto since_taken = now() - last_taken_;
  if (idle >= PROGRESS_TIME) {
    return fail(fmt::format("no progress for {} seconds while {}", PROGRESS_TIME.count(),
                            has_unsent() ? "sending" : "waiting for the answer"));
  }
  if (since_taken >= ANSWER_TIME) {
    return fail(fmt::format("no end of the answer within {} seconds", ANSWER_TIME.count()));
  }
  timer_ =
      loop_.call_in(std::min<std::chrono::steady_clock::duration>(
                        {PROGRESS_TIME - idle, ANSWER_TIME - since_taken, PROGRESS_CHECK_TIME}),
                    [this] { await_progress(); });
}

void HTTPRequest::handle_events(int) {
  if (ended_) return;
  if (!connected_) finish_connect();
  if (!connected_) return;
  read();  // first: an endpoint may refuse a batch before it has taken all of it
  if (!ended_) write();
  if (ended_) return;
  const bool more = write_error_.empty() && has_unsent();
  poll_->watch(more ? UV_READABLE | UV_WRITABLE : UV_READABLE);
}

void HTTPRequest::read() {
  std::array<char, READ_BUFFER_BYTES> buffer;
  const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count < 0) return fail("receiving: " + error_text(errno));
  last_received_ = now();
  if (count > 0) {
    response_.feed({buffer.data(), static_cast<std::size_t>(count)});
  } else {
    response_.finish();
  }
  if (response_.complete()) return judge();
  if (!response_.fault().empty()) fail(response_.fault());
}

void HTTPRequest::write() {
  std::size_t left = SEND_BYTES_PER_TURN;
  while (write_error_.empty() && has_unsent() && left > 0) {
    if (sent_ == send_buf_.size()) {
      send_buf_.clear();
      sent_ = 0;
      join_more();
    }
    const ssize_t count = ::send(socket_.descriptor(), send_buf_.data() + sent_,
                                 std::min(send_buf_.size() - sent_, left), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count < 0) {
      write_error_ = "sending: " + error_text(errno) + ", then ";
      return;
    }
    sent_ += static_cast<std::size_t>(count);
    left -= static_cast<std::size_t>(count);
    last_taken_ = now();
  }
  note_taken();
}

/// As much of the batch as is sent in one turn, and to the end of a message.
void HTTPRequest::join_more() {
  send_buf_.reserve(send_buf_.size() + std::min(data_length_.value_or(0), SEND_BYTES_PER_TURN));
  while (!batch_.empty() && send_buf_.size() < SEND_BYTES_PER_TURN) {
    send_buf_ += batch_.front();
    batch_.pop_front();
    if (!batch_.empty()) send_buf_ += '\n';
  }
}

// The outcome and handle_close() come in one go, from here or from fail(): the database hears of
// this request's close before it can begin the next one, so that a late close never takes the next
// one's place from it.
void HTTPRequest::judge() {
  end([this] {
    if (response_.status() == success_code_) {
      handle_success(response_.body());
    } else {
      handle_failure(response_.body());
    }
  });
}

void HTTPRequest::fail(std::string error) {
  end([&] {
    error_ = write_error_ + std::move(error);
    if (connected_) handle_failure(std::nullopt);
  });
}

template <class Report>
void HTTPRequest::end(Report&& report) {
  ended_ = true;
  reported(report);
  if (!reported([this] { handle_close(); })) HTTPRequest::handle_close();
}

/// Whether `step` went well.
template <class Step>
bool HTTPRequest::reported(Step&& step) noexcept {
  try {
    step();
    return true;
  } catch (const std::exception& failure) {
    loop_.report(failure);
    return false;
  }
}

void HTTPRequest::handle_failure(std::optional<std::string_view> data) {
  log::warning("InfluxDB write ({} database) failed: {}; {} messages lost ({} bytes)",
               database_name_, failure_text(data), messages_, data_length_.value_or(0));
}

std::string HTTPRequest::failure_text(std::optional<std::string_view> data) const {
  std::string reason = error_;
  if (response_.status() != 0) {
    reason = fmt::format("status {}{}{}", response_.status(), reason.empty() ? "" : ", ", reason);
  }
  return reason + excerpt(data);
}

void HTTPRequest::handle_close() {
  timer_.cancel();
  lookup_.reset();
  poll_.reset();
  socket_ = skein::Socket();
  loop_.discard(*this);
}

/// The beginning of what came: of the body, else of the line that made no sense. Some servers put
/// the request that they refuse into their answer; what repeats the credentials is not shown.
std::string HTTPRequest::excerpt(std::optional<std::string_view> data) const {
  std::string_view text = data.value_or(response_.body());
  if (text.empty()) text = response_.line();
  if (text.empty()) return "";
  if (tells_credentials(text)) return ": an answer that repeats the credentials";
  return ": " + skein::display(text.substr(0, EXCERPT_BYTES));
}

/// Whether what is shown of it, or what begins there, holds what was sent as it was sent, or
/// decoded.
bool HTTPRequest::tells_credentials(std::string_view text) const {
  const std::string pair = base64_decoded(connection_.auth);
  const std::string password = pair.substr(pair.find(':') + 1);
  for (const std::string& secret : {connection_.auth, pair, password}) {
    if (secret.size() < SHORTEST_PASSWORD) continue;
    const auto begin = text.substr(0, EXCERPT_BYTES + LONGEST_SPELLING * secret.size());
    if (repeats(begin, secret) || breaks_off_in(begin, secret)) return true;
  }
  return false;
}

}  // namespace pelorus
