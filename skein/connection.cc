#include "skein/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "skein/errors.h"
#include "skein/framing.h"
#include "skein/server.h"

namespace skein {

Connection::Connection(Server& server, Loop& loop, Socket socket)
    : server_(server), socket_(std::move(socket)), poll_(loop, socket_.descriptor(), *this) {
  poll_.watch(UV_READABLE);
}

void Connection::handle_events(int events) {
  if (!ended_ && (events & UV_WRITABLE) != 0) flush();
  if (!ended_ && (events & UV_READABLE) != 0) read();
}

void Connection::read() {
  const auto buffer = server_.read_buffer();
  const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return end();  // end of stream, or the peer reset it: nothing more will come
  serving_ = true;
  take({buffer.data(), static_cast<std::size_t>(count)});
  serving_ = false;
  if (!ended_ && !unsent_.empty()) flush();
}

void Connection::take(std::string_view bytes) {
  try {
    while (!partial_.empty() && !bytes.empty() && !ended_) {
      const std::size_t count = std::min(missing_to_frame(partial_), bytes.size());
      partial_.append(bytes.substr(0, count));
      bytes.remove_prefix(count);
      if (missing_to_frame(partial_) != 0) continue;
      const std::string frame = std::exchange(partial_, {});
      std::string_view whole = frame;
      serve_frames(whole);
    }
    if (ended_) return;
    serve_frames(bytes);
    if (!ended_ && !bytes.empty()) {
      missing_to_frame(bytes);  // a length that is refused is refused before its frame has come
      partial_.append(bytes);
    }
  } catch (const ProtocolError& fault) {
    server_.handle_protocol_error(*this, fault);
    if (!ended_) end();
  }
}

void Connection::serve_frames(std::string_view& bytes) {
  while (!ended_) {
    const auto payload = take_frame(bytes);
    if (!payload) return;
    server_.serve(*this, *payload);
  }
}

void Connection::send(std::string_view message) {
  if (ended_) return;
  const std::size_t begin = begin_frame(unsent_);
  SnappyEncoder::encode(message, unsent_);
  end_frame(unsent_, begin);
  if (!serving_) flush();
}

void Connection::flush() {
  while (sent_ < unsent_.size()) {
    const ssize_t count =
        ::send(socket_.descriptor(), unsent_.data() + sent_, unsent_.size() - sent_, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return poll_.watch(UV_READABLE | UV_WRITABLE);
    if (count < 0) return end();
    sent_ += static_cast<std::size_t>(count);
  }
  unsent_ = {};
  sent_ = 0;
  poll_.watch(UV_READABLE);
}

void Connection::end() {
  ended_ = true;
  poll_.watch(0);
  server_.end(*this);
}

}  // namespace skein
