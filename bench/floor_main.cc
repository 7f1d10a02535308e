// pelorus_floor STAGE PORT SINK_PORT: the least that any program does with the frames of a node. It
// takes one connection after the other, reads to its end, and does with each frame what STAGE says:
// "walk" (receive, uncompress, and go through the value once, keeping nothing), "decode" (receive,
// uncompress, decode) or "write" (also split and copy the lines, and post each 5 blocks to the
// sink). It answers nothing. Plain blocking calls, one buffer for each purpose.

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <snappy.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <msgpack.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/line_floor.h"

namespace {

constexpr std::size_t BUFFER_BYTES = 256U << 10;
constexpr std::size_t CONTENT_BYTES = 16U << 20;
constexpr std::size_t BODY_BYTES = 64U << 20;
constexpr std::size_t PREFIX_BYTES = 4;
constexpr int BLOCKS_PER_WRITE = 5;

int check(int result, const char* call) {
  if (result < 0) throw std::runtime_error(fmt::format("{}: {}", call, std::strerror(errno)));
  return result;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

/// The text behind "metrics" in a request.
std::string_view metrics_of(const msgpack::object& request) {
  const auto& args = request.via.array.ptr[3].via.map;
  for (const auto* pair = args.ptr; pair != args.ptr + args.size; ++pair) {
    const std::string_view name(pair->key.via.str.ptr, pair->key.via.str.size);
    if (name == "metrics") return {pair->val.via.str.ptr, pair->val.via.str.size};
  }
  throw std::runtime_error("a request without lines");
}

class Floor {
 public:
  Floor(std::string_view stage, int sink_port)
      : walks_(stage == "walk"), writes_(stage == "write"), sink_(loopback(sink_port)) {}

  void serve(int stream) {
    std::size_t held = 0;
    for (;;) {
      const ssize_t count = check(
          static_cast<int>(::recv(stream, buffer_.get() + held, BUFFER_BYTES - held, 0)), "recv");
      if (count == 0) break;
      held += static_cast<std::size_t>(count);
      std::string_view bytes(buffer_.get(), held);
      while (take_frame(bytes)) {
      }
      held = bytes.size();
      std::memmove(buffer_.get(), bytes.data(), held);
    }
  }

 private:
  bool take_frame(std::string_view& bytes) {
    std::uint32_t size = 0;
    if (bytes.size() < PREFIX_BYTES) return false;
    std::memcpy(&size, bytes.data(), PREFIX_BYTES);
    size = ntohl(size);
    if (bytes.size() < PREFIX_BYTES + size) return false;
    take_block(bytes.substr(PREFIX_BYTES, size));
    bytes.remove_prefix(PREFIX_BYTES + size);
    return true;
  }

  void take_block(std::string_view block) {
    std::size_t size = 0;
    snappy::GetUncompressedLength(block.data(), block.size(), &size);
    if (size > CONTENT_BYTES ||
        !snappy::RawUncompress(block.data(), block.size(), content_.get())) {
      throw std::runtime_error("a frame that does not decompress");
    }
    if (walks_) {
      msgpack::null_visitor nothing;
      msgpack::parse(content_.get(), size, nothing);
      return;
    }
    // As the library offers it; texts stay where they lie.
    const auto request =
        msgpack::unpack(content_.get(), size, [](auto, std::size_t, void*) { return true; });
    const std::string_view metrics = metrics_of(request.get());
    if (!writes_) return;
    body_end_ = bench::scan_split_copy(metrics, body_end_);
    if (++blocks_ % BLOCKS_PER_WRITE == 0) write();
  }

  void write() {
    const auto size = static_cast<std::size_t>(body_end_ - body_.get());
    const std::string head = fmt::format(
        "POST /write?db=bonding HTTP/1.1\r\nAuthorization: Basic {}\r\nHost: 127.0.0.1:8086\r\n"
        "Content-Length: {}\r\n\r\n",
        "ZGVtbzpub3QtdG8tYmUtbG9nZ2Vk", size);
    const int stream = check(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    check(::connect(stream, reinterpret_cast<const sockaddr*>(&sink_), sizeof sink_), "connect");
    std::array<iovec, 2> parts{
        {{const_cast<char*>(head.data()), head.size()}, {body_.get(), size}}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    const ssize_t sent = ::sendmsg(stream, &message, MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(head.size() + size)) throw std::runtime_error("sendmsg");
    std::array<char, 256> answer;
    check(static_cast<int>(::recv(stream, answer.data(), answer.size(), 0)), "recv");
    ::close(stream);
    body_end_ = body_.get();
  }

  const bool walks_;
  const bool writes_;
  const sockaddr_in sink_;
  std::unique_ptr<char[]> buffer_{new char[BUFFER_BYTES]};
  std::unique_ptr<char[]> content_{new char[CONTENT_BYTES]};
  std::unique_ptr<char[]> body_{new char[BODY_BYTES]};
  char* body_end_ = body_.get();
  std::size_t blocks_ = 0;
};

}  // namespace

int main(int count, char** arguments) {
  try {
    if (count != 4)
      throw std::runtime_error("usage: pelorus_floor walk|decode|write PORT SINK_PORT");
    const int listener = check(::socket(AF_INET, SOCK_STREAM, 0), "socket");
    const int on = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const auto address = loopback(std::atoi(arguments[2]));
    check(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    check(::listen(listener, SOMAXCONN), "listen");
    Floor floor(arguments[1], std::atoi(arguments[3]));
    std::puts("listening");
    std::fflush(stdout);
    for (;;) {
      const int stream = check(::accept(listener, nullptr, nullptr), "accept");
      floor.serve(stream);
      ::close(stream);
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "pelorus_floor: %s\n", failure.what());
    return 1;
  }
}
