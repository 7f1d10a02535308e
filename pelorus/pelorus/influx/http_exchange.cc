#include "pelorus/pelorus/influx/http_exchange.h"

#include <fmt/format.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <system_error>
#include <utility>

#include "skein/errors.h"
#include "skein/profile_scope.h"

namespace pelorus {
namespace {

constexpr std::size_t READ_BUFFER_BYTES = 16U << 10;
/// Time between two checks of the progress.
constexpr std::chrono::seconds PROGRESS_CHECK_TIME{5};

std::size_t pending_lookups = 0;

std::string error_text(int error) { return std::generic_category().message(error); }

addrinfo stream_hints(int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  return hints;
}

}  // namespace

HTTPExchange::HTTPExchange(std::string host, std::uint16_t port, skein::Loop& loop, Owner& owner)
    : host_(std::move(host)), port_(port), loop_(loop), owner_(owner) {
  arm(std::chrono::seconds(0), &HTTPExchange::start);
}

HTTPExchange::~HTTPExchange() { close(); }

std::size_t HTTPExchange::lookups_pending() noexcept { return pending_lookups; }

/// Every callback of the loop comes through here: whatever fails ends the exchange, once.
template <class Step>
void HTTPExchange::guarded(Step&& step) noexcept {
  try {
    step();
  } catch (const std::exception& failure) {
    assert(!ended_);
    try {
      error_ = failure.what();
    } catch (...) {
      error_ = "no memory";  // so short a text allocates nothing
    }
    end();
  }
}

void HTTPExchange::arm(std::chrono::duration<double> delay, void (HTTPExchange::*step)()) {
  timer_.cancel();
  timer_ = loop_.call_in(delay, [this, step] { guarded([this, step] { (this->*step)(); }); });
}

void HTTPExchange::start() {
  PROFILE_SCOPE();
  connect_deadline_ = now() + CONNECT_TIME;
  arm(CONNECT_TIME, &HTTPExchange::connect_timed_out);
  const addrinfo hints = stream_hints(AI_NUMERICHOST);
  addrinfo* found = nullptr;
  if (::getaddrinfo(host_.c_str(), std::to_string(port_).c_str(), &hints, &found) != 0) {
    return look_up();
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> list(found, &freeaddrinfo);
  addresses_ = copy_of(found);
  connect_next();
}

/// In libuv's thread pool: a slow name server does not hold up the loop.
void HTTPExchange::look_up() {
  looked_up_ = true;
  auto request = std::make_unique<uv_getaddrinfo_t>();
  request->data = this;
  const addrinfo hints = stream_hints(0);
  const int result = uv_getaddrinfo(loop_.uv(), request.get(), &HTTPExchange::on_lookup,
                                    host_.c_str(), std::to_string(port_).c_str(), &hints);
  if (result != 0) throw skein::SystemFailure("uv_getaddrinfo", -result);
  ++pending_lookups;
  lookup_ = request.release();
}

void HTTPExchange::on_lookup(uv_getaddrinfo_t* request, int status, addrinfo* found) noexcept {
  const std::unique_ptr<uv_getaddrinfo_t> owned(request);
  const std::unique_ptr<addrinfo, decltype(&uv_freeaddrinfo)> list(found, &uv_freeaddrinfo);
  --pending_lookups;
  auto* exchange = static_cast<HTTPExchange*>(request->data);
  if (exchange == nullptr) return;  // abandoned
  exchange->lookup_ = nullptr;
  exchange->guarded([&] {
    exchange->addresses_ = copy_of(found);
    if (status != 0) exchange->error_ = uv_strerror(status);
    exchange->connect_next();
  });
}

std::vector<HTTPExchange::Address> HTTPExchange::copy_of(const addrinfo* found) {
  std::vector<Address> addresses;
  for (; found != nullptr && addresses.size() < MAX_ADDRESSES; found = found->ai_next) {
    auto& address = addresses.emplace_back();
    std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
    address.length = found->ai_addrlen;
  }
  return addresses;
}

/// "127.0.0.1:8086", "[::1]:8086"
std::string HTTPExchange::text_of(const Address& address) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  if (::getnameinfo(reinterpret_cast<const sockaddr*>(&address.storage), address.length,
                    host.data(), host.size(), port.data(), port.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "an unknown address";
  }
  const bool v6 = address.storage.ss_family == AF_INET6;
  return fmt::format("{}{}{}:{}", v6 ? "[" : "", host.data(), v6 ? "]" : "", port.data());
}

/// Starts to connect to the next address that does not fail immediately. Each address gets an equal
/// share of the remaining time, so that one that drops every packet leaves time for the others.
void HTTPExchange::connect_next() {
  PROFILE_SCOPE();
  while (addresses_tried_ < addresses_.size()) {
    const auto share =
        (connect_deadline_ - now()) / static_cast<int>(addresses_.size() - addresses_tried_);
    const int error = connect_to(addresses_[addresses_tried_++]);
    if (error == 0) return arm(share, &HTTPExchange::connect_timed_out);
    note_failed_address(error);
  }
  end();
}

/// Returns 0 if the attempt is in progress, else its error number.
int HTTPExchange::connect_to(const Address& address) {
  poll_.reset();
  try {
    socket_ = skein::Socket::stream(address.storage.ss_family);
    if (::connect(socket_.descriptor(), reinterpret_cast<const sockaddr*>(&address.storage),
                  address.length) != 0 &&
        errno != EINPROGRESS && errno != EINTR) {
      return errno;
    }
    poll_.emplace(loop_, socket_.descriptor(), static_cast<skein::PollTarget&>(*this));
    poll_->watch(UV_WRITABLE);
    return 0;
  } catch (const skein::SystemFailure& failure) {
    return failure.error_number();
  }
}

void HTTPExchange::note_failed_address(int error) {
  if (!error_.empty()) error_ += ", ";
  if (looked_up_) error_ += text_of(addresses_[addresses_tried_ - 1]) + ": ";
  error_ += error_text(error);
}

void HTTPExchange::connect_timed_out() {
  if (addresses_.empty()) {
    error_ = "the name lookup takes too long";
  } else {
    note_failed_address(ETIMEDOUT);
  }
  connect_next();
}

void HTTPExchange::finish_connect() {
  PROFILE_SCOPE();
  int error = 0;
  socklen_t length = sizeof error;
  if (::getsockopt(socket_.descriptor(), SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  if (error != 0) {
    note_failed_address(error);
    return connect_next();
  }
  connected_ = true;
  error_.clear();  // of other addresses
  last_acknowledged_ = last_received_ = now();
  arm(PROGRESS_CHECK_TIME, &HTTPExchange::check_progress);
  unsent_ = owner_.send_request();
}

void HTTPExchange::handle_events(int) {
  guarded([this] {
    if (!connected_) finish_connect();
    if (connected_) send_and_receive();
  });
}

void HTTPExchange::send_and_receive() {
  read();  // first: an endpoint may refuse a request before it has taken all of it
  if (ended_) return;
  write();
  const bool more = send_error_ == 0 && !unsent_.empty();
  poll_->watch(more ? UV_READABLE | UV_WRITABLE : UV_READABLE);
}

void HTTPExchange::read() {
  PROFILE_SCOPE();
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
  if (response_.complete()) return end();
  if (!response_.fault().empty()) fail(response_.fault());
}

void HTTPExchange::write() {
  PROFILE_SCOPE();
  std::size_t budget = SEND_BYTES_PER_ITERATION;
  while (send_error_ == 0 && !unsent_.empty() && budget > 0) {
    const ssize_t count = ::send(socket_.descriptor(), unsent_.data(),
                                 std::min(unsent_.size(), budget), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count < 0) {
      send_error_ = errno;
      return;
    }
    unsent_.remove_prefix(static_cast<std::size_t>(count));
    budget -= static_cast<std::size_t>(count);
    last_acknowledged_ = now();
    if (unsent_.empty()) unsent_ = owner_.next_slice();
  }
  note_acknowledged();
}

/// A slow endpoint may take minutes to empty the socket's send buffer before more can be sent.
void HTTPExchange::note_acknowledged() {
  int bytes = 0;
  if (::ioctl(socket_.descriptor(), SIOCOUTQ, &bytes) != 0) bytes = 0;
  if (bytes < std::exchange(unacknowledged_, bytes)) last_acknowledged_ = now();
}

/// One timer serves all timeouts of a connection: it measures how old the last byte is, and arms
/// itself again.
void HTTPExchange::check_progress() {
  // First the socket: after the whole process was suspended, bytes are ready that nobody has read.
  send_and_receive();
  if (ended_) return;
  const auto idle = now() - std::max(last_acknowledged_, last_received_);
  const auto since_acknowledged = now() - last_acknowledged_;
  if (idle >= PROGRESS_TIME) {
    return fail(fmt::format("no progress for {} seconds while {}", PROGRESS_TIME.count(),
                            unsent_.empty() ? "waiting for the answer" : "sending"));
  }
  if (since_acknowledged >= RESPONSE_TIME) {
    return fail(fmt::format("no end of the answer within {} seconds", RESPONSE_TIME.count()));
  }
  arm(std::min<std::chrono::steady_clock::duration>(
          {PROGRESS_TIME - idle, RESPONSE_TIME - since_acknowledged, PROGRESS_CHECK_TIME}),
      &HTTPExchange::check_progress);
}

void HTTPExchange::fail(std::string error) {
  if (send_error_ != 0) error = "sending: " + error_text(send_error_) + ", then " + error;
  error_ = std::move(error);
  end();
}

void HTTPExchange::end() noexcept {
  ended_ = true;
  close();
  owner_.handle_end();
}

void HTTPExchange::close() noexcept {
  timer_.cancel();
  if (lookup_ != nullptr) {
    lookup_->data = nullptr;
    uv_cancel(reinterpret_cast<uv_req_t*>(lookup_));  // fails when a thread has begun the lookup
    lookup_ = nullptr;
  }
  poll_.reset();
  socket_ = skein::Socket();
  unsent_ = {};
}

}  // namespace pelorus
