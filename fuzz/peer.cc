#include "fuzz/peer.h"

#include <pwd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "fuzz/fuzz.h"
#include "skein/errors.h"

namespace fuzz {
namespace {

/// The server's end of a pair, until it accepts it.
skein::Socket to_be_accepted;

/// Far more than any input takes: a connection that does not end by then never will.
constexpr int MOST_ITERATIONS = 100'000;

/// One end of a socket pair; the other one is to be accepted.
skein::Socket make_pair_end() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw skein::SystemFailure("socketpair", errno);
  }
  to_be_accepted = skein::Socket(ends[1]);
  return skein::Socket(ends[0]);
}

}  // namespace

Peer::Peer(skein::Server& server, skein::Loop& loop) : loop_(loop), peer_(make_pair_end()) {
  require(server.handle_read() != nullptr, "the server accepts the connection");
}

void Peer::send(std::string_view bytes) {
  for (int iterations = 0; !bytes.empty(); ++iterations) {
    require(iterations < MOST_ITERATIONS, "the server goes on reading");
    const std::size_t sent = peer_.send_now(bytes);
    bytes.remove_prefix(sent);
    if (sent == 0 && !peer_.receive()) return;  // the server has ended the connection
    loop_.run_once();
  }
}

void Peer::finish() {
  peer_.finish_sending();
  for (int iterations = 0; peer_.receive(); ++iterations) {
    require(iterations < MOST_ITERATIONS, "the server ends a connection that its peer has ended");
    loop_.run_once();
  }
}

std::vector<std::string> Peer::messages() {
  auto messages = peer_.messages();
  require(received().empty(), "replies are whole frames");
  return messages;
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
