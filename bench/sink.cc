#include "bench/sink.h"

#include <sys/socket.h>

#include <charconv>
#include <string_view>

namespace bench {
namespace {

constexpr std::size_t BUFFER_BYTES = 1U << 20;
constexpr std::string_view NO_CONTENT = "HTTP/1.1 204 No Content\r\n\r\n";
constexpr std::string_view LENGTH = "\r\nContent-Length: ";
constexpr std::string_view HEAD_END = "\r\n\r\n";

}  // namespace

/// One connection with its one write.
class Sink::Write : public skein::LoopOwned, private skein::PollTarget {
 public:
  Write(Sink& sink, skein::Socket socket)
      : sink_(sink), socket_(std::move(socket)), poll_(sink.loop_, socket_.descriptor(), *this) {
    poll_.watch(UV_READABLE);
  }

 private:
  void handle_events(int) override {
    const ssize_t count = ::recv(socket_.descriptor(), sink_.buffer_.get(), BUFFER_BYTES, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      poll_.watch(0);
      return sink_.end(*this, answered_ ? received_ : 0);
    }
    received_ += static_cast<std::size_t>(count);
    if (!whole_) read_head({sink_.buffer_.get(), static_cast<std::size_t>(count)});
    if (whole_ && received_ >= *whole_ && !answered_) {
      answered_ = true;
      ::send(socket_.descriptor(), NO_CONTENT.data(), NO_CONTENT.size(), MSG_NOSIGNAL);
    }
  }

  void read_head(std::string_view bytes) {
    head_ += bytes;
    const std::size_t end = head_.find(HEAD_END);
    const std::size_t length = head_.find(LENGTH);
    if (end == std::string::npos || length == std::string::npos) return;
    std::size_t body = 0;
    const char* const digits = head_.data() + length + LENGTH.size();
    std::from_chars(digits, head_.data() + end, body);
    whole_ = end + HEAD_END.size() + body;
    head_.clear();
  }

  Sink& sink_;
  skein::Socket socket_;
  skein::Poll poll_;
  std::string head_;
  std::optional<std::size_t> whole_;  ///< bytes of head and body, once known
  std::size_t received_ = 0;
  bool answered_ = false;
};

Sink::Sink(skein::Loop& loop, std::int64_t port, std::function<void()> written)
    : loop_(loop),
      written_(std::move(written)),
      socket_(skein::Socket::stream(AF_INET)),
      buffer_(std::make_unique_for_overwrite<char[]>(BUFFER_BYTES)) {
  const int on = 1;
  ::setsockopt(socket_.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  skein::bind_tcp(socket_, "127.0.0.1", port);
  skein::listen(socket_, SOMAXCONN);
  poll_.emplace(loop, socket_.descriptor(), static_cast<skein::PollTarget&>(*this));
  poll_->watch(UV_READABLE);
}

Sink::~Sink() = default;

void Sink::handle_events(int) {
  for (;;) {
    skein::Socket accepted(
        ::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted) return;
    auto write = std::make_unique<Write>(*this, std::move(accepted));
    writing_.emplace(write.get(), std::move(write));
  }
}

void Sink::end(Write& write, std::size_t bytes) {
  auto node = writing_.extract(&write);
  loop_.discard(std::move(node.mapped()));
  if (bytes == 0) return;
  ++writes_;
  bytes_ += bytes;
  written_();
}

}  // namespace bench
