#include "pelorus/influx/stand_in.h"

#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <stdexcept>

#include "support/skein_peer.h"

namespace support {
namespace {

std::vector<std::uint16_t> several;
std::atomic<bool> hanging = false;

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

StandIn::StandIn(Mode mode) : socket_(skein::Socket::stream(AF_INET)) {
  skein::bind_tcp(socket_, "127.0.0.1", 0);
  if (mode == Mode::REFUSES) return;
  skein::listen(socket_, mode == Mode::HANGS ? 0 : 16);
  if (mode == Mode::LISTENS) return;
  filler_ = skein::Socket::stream(AF_INET);
  const sockaddr_in address = loopback(port());
  ::connect(filler_.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::uint16_t StandIn::port() const { return static_cast<std::uint16_t>(bound_port(socket_)); }

skein::Socket StandIn::accept() const {
  return skein::Socket(::accept4(socket_.descriptor(), nullptr, nullptr, SOCK_NONBLOCK));
}

std::string receive(const skein::Socket& peer) {
  std::string text;
  std::array<char, 65536> buffer;
  for (ssize_t count; (count = ::recv(peer.descriptor(), buffer.data(), buffer.size(), 0)) > 0;) {
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return text;
}

void answer(const skein::Socket& peer, std::string_view text) {
  const ssize_t sent = ::send(peer.descriptor(), text.data(), text.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(text.size())) throw std::runtime_error("the answer is not out");
}

void resolve_several_to(std::vector<std::uint16_t> ports) { several = std::move(ports); }

HangingLookups::HangingLookups() { hanging = true; }
HangingLookups::~HangingLookups() {
  hanging = false;
  hanging.notify_all();
}

}  // namespace support

/// Stands before the C library's, for libuv too: names of this file's need no name server.
extern "C" int getaddrinfo(const char* host, const char* port, const addrinfo* hints,
                           addrinfo** found) {
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  const std::string name = host == nullptr ? "" : host;
  const bool numeric = (hints->ai_flags & AI_NUMERICHOST) != 0;
  if (name == "hangs.test" && !numeric) support::hanging.wait(true);
  if (name == "hangs.test") return EAI_NONAME;
  if (name != "several.test" || numeric) return real(host, port, hints, found);
  for (const auto each : support::several) {
    if (const int error = real("127.0.0.1", std::to_string(each).c_str(), hints, found))
      return error;
    found = &(*found)->ai_next;
  }
  return 0;
}
