#include "fuzz/peer.h"

#include <pwd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <msgpack.hpp>
#include <utility>

#include "fuzz/fuzz.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/errors.h"
#include "skein/framing.h"

namespace fuzz {
namespace {

/// The server's end of a pair, until it accepts it.
skein::Socket to_be_accepted;

/// Far more than any input takes: a connection that does not end by then never will.
constexpr int MOST_TURNS = 100'000;

}  // namespace

Peer::Peer(skein::Server& server, skein::Loop& loop) : loop_(loop) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw skein::SystemFailure("socketpair", errno);
  }
  socket_ = skein::Socket(ends[0]);
  to_be_accepted = skein::Socket(ends[1]);
  require(server.handle_read() != nullptr, "the server accepts the connection");
}

void Peer::send(std::string_view bytes) {
  for (int turns = 0; !bytes.empty(); ++turns) {
    require(turns < MOST_TURNS, "the server goes on reading");
    const ssize_t count = ::send(socket_.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN) return;  // the server has ended the connection
    if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
    loop_.turn();
    if (count < 0) receive();
  }
}

void Peer::finish() {
  ::shutdown(socket_.descriptor(), SHUT_WR);
  for (int turns = 0; receive(); ++turns) {
    require(turns < MOST_TURNS, "the server ends a connection that its peer has ended");
    loop_.turn();
  }
}

/// False at the end of the stream.
bool Peer::receive() {
  std::array<char, 16384> buffer;
  for (;;) {
    const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
    if (count > 0) {
      received_.append(buffer.data(), static_cast<std::size_t>(count));
    } else {
      return count < 0 && errno == EAGAIN;
    }
  }
}

std::vector<std::string> Peer::messages() const {
  std::vector<std::string> messages;
  skein::SnappyEncoder snappy;
  std::string_view rest = received_;
  while (const auto payload = skein::take_frame(rest)) {
    messages.emplace_back(snappy.decode(*payload));
  }
  require(rest.empty(), "replies are whole frames");
  return messages;
}

std::string frame(std::string_view message) {
  std::string bytes;
  skein::append_frame(message, bytes);
  return bytes;
}

std::string_view take_value(std::string_view& bytes) {
  msgpack::null_visitor visitor;
  std::size_t end = 0;
  if (!msgpack::parse(bytes.data(), bytes.size(), end, visitor)) end = bytes.size();
  const auto value = bytes.substr(0, end);
  bytes.remove_prefix(end);
  return value;
}

}  // namespace fuzz

// These stand before the C library's: there is no network in a fuzz target, and no account
// "tidewell".
extern "C" {

int accept4(int, sockaddr*, socklen_t*, int) {
  if (!fuzz::to_be_accepted) {
    errno = EAGAIN;
    return -1;
  }
  const int accepted = ::dup(fuzz::to_be_accepted.descriptor());
  fuzz::to_be_accepted = {};
  return accepted;
}
int bind(int, const sockaddr*, socklen_t) noexcept { return 0; }
int listen(int, int) noexcept { return 0; }
int setsockopt(int, int, int, const void*, socklen_t) noexcept { return 0; }
passwd* getpwnam(const char*) { return nullptr; }
// A failure's trace is not what is looked at, and takes longer than all else.
int backtrace(void**, int) { return 0; }
}
