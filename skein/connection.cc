#include "skein/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "skein/errors.h"
#include "skein/framing.h"
#include "skein/server.h"

namespace skein {

void HeldRequest::answer(const Reply& reply) const { server_->answer_held(number_, reply); }

void HeldRequest::fail(const std::exception& failure) const {
  server_->fail_held(number_, failure);
}

Connection* HeldRequest::connection() const noexcept { return server_->held_connection(number_); }

Connection::Connection(Server& server, Loop& loop, Socket socket)
    : server_(server),
      traffic_{.since = loop.seconds(), .last_seen = loop.seconds()},
      socket_(std::move(socket)),
      poll_(loop, socket_.descriptor(), *this) {
  poll_.watch(UV_READABLE);
}

void Connection::handle_events(int events) {
  if (!ended_ && (events & UV_WRITABLE) != 0) flush();
  if (!ended_ && held_ == 0 && (events & UV_READABLE) != 0) read();
}

HeldRequest Connection::hold() {
  const HeldRequest held = server_.hold(*this);
  watch();
  return held;
}

void Connection::read() {
  const auto buffer = server_.read_buffer();
  const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return end();  // end of stream, or the peer reset it: nothing more will come
  traffic_.last_seen = server_.loop_.seconds();
  take({buffer.data(), static_cast<std::size_t>(count)});
}

void Connection::go_on() {
  held_ = 0;
  if (!ended_) watch();
}

void Connection::resume() {
  const std::string waiting = std::exchange(partial_, {});
  take(waiting);
}

void Connection::take(std::string_view bytes) {
  serving_ = true;
  try {
    while (!partial_.empty() && !bytes.empty() && !ended_ && held_ == 0) {
      const std::size_t count = std::min(missing_to_frame(partial_), bytes.size());
      partial_.append(bytes.substr(0, count));
      bytes.remove_prefix(count);
      if (missing_to_frame(partial_) != 0) continue;
      const std::string frame = std::exchange(partial_, {});
      std::string_view whole = frame;
      serve_frames(whole);
    }
    serve_frames(bytes);
    if (!ended_ && !bytes.empty()) {
      // A length that is refused is refused before its frame has come; behind a held request it
      // waits for its turn.
      if (held_ == 0) missing_to_frame(bytes);
      partial_.append(bytes);
    }
    serving_ = false;
    if (!ended_ && !unsent_.empty()) flush();
  } catch (const ProtocolError& fault) {
    serving_ = false;
    if (!unsent_.empty()) flush();  // what was asked before is answered
    server_.handle_protocol_error(*this, fault);
    if (!ended_) end();
  }
}

void Connection::serve_frames(std::string_view& bytes) {
  while (!ended_ && held_ == 0) {
    const auto payload = take_frame(bytes);
    if (!payload) return;
    ++traffic_.requests;
    server_.serve(*this, *payload);
  }
}

void Connection::send(std::string_view message) {
  if (ended_ || deaf_) return;
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
    if (count < 0 && errno == EAGAIN) return watch();
    if (count < 0) {
      deaf_ = true;  // reading what it sent before it went will meet its end
      break;
    }
    sent_ += static_cast<std::size_t>(count);
  }
  unsent_ = {};
  sent_ = 0;
  watch();
}

void Connection::watch() {
  poll_.watch((held_ == 0 ? UV_READABLE : 0) | (unsent_.empty() ? 0 : UV_WRITABLE));
}

void Connection::end() {
  ended_ = true;
  poll_.watch(0);
  server_.end(*this);
}

}  // namespace skein
