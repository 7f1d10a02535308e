#include "bench/side.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <string_view>

#include "bench/cpu_clock.h"
#include "skein/socket.h"

namespace bench {
namespace {

/// A burst that takes longer has failed.
constexpr double LONGEST_BURST_SECONDS = 120;
/// Connections from one address, which has some 28,000 ports for them.
constexpr std::size_t CONNECTIONS_PER_ADDRESS = 5000;

sockaddr_in loopback(std::uint32_t host, std::int64_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + host);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

skein::Socket connected(std::int64_t port, std::size_t number) {
  auto socket = skein::Socket::stream(AF_INET);
  const auto from = loopback(static_cast<std::uint32_t>(number / CONNECTIONS_PER_ADDRESS), 0);
  const auto to = loopback(0, port);
  const auto failed = [](const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
  };
  const int on = 1;
  ::setsockopt(socket.descriptor(), IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  if (::bind(socket.descriptor(), reinterpret_cast<const sockaddr*>(&from), sizeof from) != 0) {
    failed("bind");
  }
  if (::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 &&
      errno != EINPROGRESS) {
    failed("connect");
  }
  skein::send_without_delay(socket.descriptor());
  return socket;
}

}  // namespace

/// One connection: sends what it is given, counts the good replies.
class Side::Stream : private skein::PollTarget {
 public:
  Stream(Side& side, skein::Socket socket)
      : side_(side), socket_(std::move(socket)), poll_(side.loop_, socket_.descriptor(), *this) {
    poll_.watch(UV_READABLE);
  }

  bool idle() const noexcept { return in_flight_ == 0; }

  void send(std::string_view frames, std::size_t count) {
    in_flight_ += count;
    unsent_ += frames;
    flush();
  }
  /// No more frames will come.
  void close_after_them() {
    last_ = true;
    flush();
  }

 private:
  void handle_events(int events) override {
    if ((events & UV_WRITABLE) != 0) flush();
    if ((events & UV_READABLE) != 0) read();
  }

  void flush() {
    while (sent_ < unsent_.size()) {
      const ssize_t count = ::send(socket_.descriptor(), unsent_.data() + sent_,
                                   unsent_.size() - sent_, MSG_NOSIGNAL);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return poll_.watch(UV_READABLE | UV_WRITABLE);
      sent_ += static_cast<std::size_t>(count);
    }
    unsent_.clear();
    sent_ = 0;
    poll_.watch(UV_READABLE);
    if (last_) ::shutdown(socket_.descriptor(), SHUT_WR);
  }

  void read() {
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      poll_.watch(0);
      return side_.closed(*this);
    }
    std::size_t good = 0;
    for (ssize_t i = 0; i < count; ++i) {
      if (buffer[static_cast<std::size_t>(i)] != reply_[matched_]) {
        side_.fault_ = "the server answered with an error";
        return side_.finish();
      }
      if (++matched_ == reply_.size()) {
        matched_ = 0;
        ++good;
      }
    }
    in_flight_ -= good;
    side_.answered(good);
  }

  Side& side_;
  skein::Socket socket_;
  skein::Poll poll_;
  std::string unsent_;
  std::size_t sent_ = 0;
  std::size_t in_flight_ = 0;
  std::size_t matched_ = 0;  ///< bytes of a reply that have come
  bool last_ = false;
  const std::string reply_ = good_reply();
};

Side::Side(skein::Loop& loop, const Server& server) : loop_(loop), server_(server) {}

Side::~Side() = default;

void Side::connect(std::size_t count, std::size_t active) {
  while (streams_.size() < count) {
    streams_.push_back(std::make_unique<Stream>(*this, connected(server_.port, streams_.size())));
    if (streams_.size() % 64 == 0) loop_.run_once();
  }
  active_ = active;
  next_stream_ = 0;
}

double Side::burst(const Frames& frames, const Pace& pace,
                   const std::function<std::size_t()>& writes) {
  if (!server_.answers) {
    streams_.clear();
    connect(1, 1);
  }
  frames_ = &frames;
  pace_ = pace;
  writes_ = writes;
  writes_before_ = writes();
  sent_ = answered_ = 0;
  over_ = false;
  skein::Timer limit = loop_.call_in(LONGEST_BURST_SECONDS, [this] {
    fault_ = fmt::format("{} of {} frames sent, {} answered, {} writes, and then nothing more",
                         sent_, frames_->count(), answered_, writes_() - writes_before_);
    finish();
  });
  const double before = cpu_seconds(server_.process);
  advance();
  if (!over_) loop_.run();
  const double used = cpu_seconds(server_.process) - before;
  limit.cancel();
  if (!fault_.empty()) throw std::runtime_error(fault_);
  return used;
}

void Side::written() {
  if (!over_) advance();
}

void Side::advance() {
  const std::size_t answered = server_.answers ? answered_ : sent_;
  if (pace_.per_write != 0) {
    const std::size_t round_end =
        std::min((writes_() - writes_before_ + 1) * pace_.per_write, frames_->count());
    const bool round_sent = sent_ == round_end;
    if (!round_sent && answered == sent_) send(*streams_[0], round_end - sent_);
  } else if (active_ == 1) {
    // Refilled by halves: several frames are sent with one call.
    const std::size_t in_flight = sent_ - answered_;
    if (!server_.answers || in_flight <= pace_.in_flight / 2) {
      const std::size_t room = server_.answers ? pace_.in_flight - in_flight : frames_->count();
      const std::size_t count = std::min(room, frames_->count() - sent_);
      if (count != 0) send(*streams_[0], count);
    }
  } else {
    while (sent_ < frames_->count() && sent_ - answered_ < pace_.in_flight) {
      Stream& stream = *streams_[next_stream_];
      if (!stream.idle()) break;
      next_stream_ = (next_stream_ + 1) % active_;
      send(stream, 1);
    }
  }
  if (sent_ != frames_->count()) return;
  if (!server_.answers) return streams_[0]->close_after_them();
  const bool all_written =
      pace_.per_write == 0 || (writes_() - writes_before_) * pace_.per_write >= sent_;
  if (answered_ == sent_ && all_written) finish();
}

void Side::send(Stream& stream, std::size_t count) {
  const std::size_t first = sent_;
  sent_ += count;
  stream.send(frames_->run(first, count), count);
}

void Side::answered(std::size_t count) {
  answered_ += count;
  if (!over_) advance();
}

void Side::closed(Stream&) {
  if (server_.answers || sent_ != frames_->count()) fault_ = "the server closed the connection";
  finish();
}

void Side::finish() {
  over_ = true;
  loop_.stop();
}

}  // namespace bench
