#include "support/skein_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <cerrno>
#include <random>
#include <stdexcept>

#include "skein/encoders/snappyencoder.h"
#include "skein/framing.h"

namespace support {
namespace {

std::string shown(skein::Value result) {
  if (const auto text = result.text()) return std::string(*text);
  return result.is(skein::Value::Type::MAP) ? "map" : "nil";
}

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

}  // namespace

std::string frame(std::string_view message) {
  std::string bytes;
  skein::append_frame(message, bytes);
  return bytes;
}

std::string request(std::uint32_t msgid, std::string_view name,
                    const std::vector<std::pair<std::string, std::string>>& args) {
  skein::MsgpackWriter message;
  message.list(4).natural(0).natural(msgid).text(name).map(args.size());
  for (const auto& [key, value] : args) message.text(key).text(value);
  return frame(message);
}

std::string noise(std::size_t size) {
  std::minstd_rand random;
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8U);
  return bytes;
}

template <class Address>
SkeinPeer SkeinPeer::connected(const Address& address, int family) {
  skein::Socket socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  require(::connect(socket.descriptor(), reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) == 0,
          "not connected");
  return SkeinPeer(std::move(socket));
}

SkeinPeer SkeinPeer::tcp(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  SkeinPeer peer = connected(address, AF_INET);
  skein::send_without_delay(peer.socket_.descriptor());
  return peer;
}

SkeinPeer SkeinPeer::unix_socket(const std::string& path) {
  return connected(skein::unix_address(path).value(), AF_UNIX);
}

void SkeinPeer::send(std::string_view bytes) {
  require(::send(socket_.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
              static_cast<ssize_t>(bytes.size()),
          "not sent");
}

std::size_t SkeinPeer::send_now(std::string_view bytes) {
  const ssize_t sent =
      ::send(socket_.descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

void SkeinPeer::finish_sending() { ::shutdown(socket_.descriptor(), SHUT_WR); }

void SkeinPeer::reset() { support::reset(socket_); }

bool SkeinPeer::receive() {
  std::array<char, 65536> chunk{};
  ssize_t count = 0;
  while ((count = ::recv(socket_.descriptor(), chunk.data(), chunk.size(), MSG_DONTWAIT)) > 0) {
    received_.append(chunk.data(), static_cast<std::size_t>(count));
  }
  return count < 0 && errno == EAGAIN;
}

std::vector<std::string> SkeinPeer::messages() {
  std::vector<std::string> messages;
  skein::SnappyEncoder snappy;
  std::string_view rest = received_;
  while (const auto payload = skein::take_frame(rest)) {
    messages.emplace_back(snappy.decode(*payload));
  }
  received_ = std::string(rest);
  return messages;
}

std::string SkeinPeer::replies() {
  const bool open = receive();
  std::string text;
  skein::Message message;
  for (const std::string& content : messages()) {
    skein::MsgpackEncoder::decode(content, message);
    auto item = message.root().begin();
    const auto msgid = (*++item).natural();
    const skein::Value error = *++item;
    const skein::Value result = *++item;
    text += std::to_string(msgid) + (error.text() ? "!" : "=") +
            (error.text() ? std::string(*error.text()) : shown(result)) + " ";
  }
  return open ? text : text + "end";
}

void reset(skein::Socket& socket) {
  const linger at_once{.l_onoff = 1, .l_linger = 0};
  ::setsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  socket = {};
}

int bound_port(const skein::Socket& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  require(::getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
          "not bound");
  return ntohs(address.sin_port);
}

}  // namespace support
