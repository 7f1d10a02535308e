#include "skein/connection.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "skein/framing.h"
#include "skein/server.h"

namespace skein {
namespace {

/// While more of a peer's requests wait, so many bytes of replies gather and go with one call:
/// those of some 350 requests that were good. A call costs as much as several such requests.
constexpr std::size_t GATHERED_REPLY_BYTES = 4U << 10;

bool is_queued(const Buffers* buffers) { return buffers != nullptr && buffers->queue != nullptr; }

}  // namespace

void HeldRequest::answer(const Reply& reply) const { server_->answer_held(number_, reply); }

void HeldRequest::fail(const std::exception& failure) const {
  server_->fail_held(number_, failure);
}

Connection* HeldRequest::connection() const noexcept { return server_->held_connection(number_); }

bool HeldRequest::give_up(const LimitError& reason) const {
  Connection* const ending = connection();
  if (ending != nullptr) ending->give_up(reason);
  return ending != nullptr;
}

Connection::Connection(Server& server, Loop& loop, Socket socket)
    : server_(server),
      socket_(std::move(socket)),
      poll_(loop, socket_.descriptor(), static_cast<PollTarget&>(*this)),
      traffic_{.since = loop.seconds(), .last_seen = loop.seconds()} {
  poll_.watch(UV_READABLE);
}

void Connection::set_valid() {
  if (!is_valid()) server_.quota().set_valid(*this);
}

void Connection::handle_events(int events) {
  if (!ended_ && (events & UV_WRITABLE) != 0) {
    flush();
    queue_up();
    settle();
  }
  if (!ended_ && (events & UV_READABLE) != 0 && may_go_on() && !is_queued(buffers_.get())) read();
}

void Connection::give_up(const LimitError& reason) {
  server_.handle_protocol_error(*this, reason);
  end();
}

HeldRequest Connection::hold() { return server_.hold(*this); }

bool Connection::may_go_on() const noexcept {
  return !ended_ && held_ == 0 && unread() <= server_.limits().unread_reply_bytes;
}

void Connection::read() {
  const auto buffer = server_.read_buffer();
  const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return end();  // end of stream, or the peer reset it: nothing more will come
  traffic_.last_seen = server_.loop_.seconds();
  Share share = server_.backlog_.share_at_once(*this);
  take({buffer.data(), static_cast<std::size_t>(count)}, share);
}

void Connection::resume() {
  if (ended_ || serving_) return;
  serve_waiting(server_.backlog_.share_at_once(*this));
}

void Connection::take(std::string_view bytes, Share& share) {
  serving_ = true;
  try {
    take_or_throw(bytes, share);
    serving_ = false;
    queue_up();
    if (unread() >= (is_queued(buffers_.get()) ? GATHERED_REPLY_BYTES : 1)) flush();
    if (buffers_ && !buffers_->is_empty()) buffers_->progress = server_.now();
    queue_up();  // if it might not before, for all the replies
    settle();
  } catch (const ProtocolError& fault) {
    serving_ = false;
    if (ended_) return;
    if (unread() != 0) flush();  // what was asked before is answered
    server_.handle_protocol_error(*this, fault);
    end();
  } catch (const std::exception& failure) {  // no memory: where its next frame begins is lost
    serving_ = false;
    if (ended_) return;
    end();
    server_.handle_exception(failure);
  }
}

void Connection::take_or_throw(std::string_view bytes, Share& share) {
  if (has_kept()) serve_kept(bytes, share);
  if (!has_kept()) serve_frames(bytes, share);
  if (ended_) return;
  if (!bytes.empty()) {
    const bool begins_frame = !has_kept() && held_ == 0;
    buffers().keep(bytes, bytes.size() + (begins_frame ? missing_to_frame(bytes) : 0));
  }
  // A length that is refused is refused before its frame has come; behind a held request it waits
  // for its turn.
  if (has_kept() && held_ == 0) missing_to_frame(buffers_->waiting());
}

void Connection::serve_kept(std::string_view& bytes, Share& share) {
  Buffers& kept = *buffers_;
  while (has_kept() && may_go_on() && !share.is_used_up()) {
    const std::size_t missing = missing_to_frame(kept.waiting());
    const std::size_t count = std::min(missing, bytes.size());
    kept.keep(bytes.substr(0, count), missing);
    bytes.remove_prefix(count);
    std::string_view waiting = kept.waiting();
    const std::size_t before = waiting.size();
    serve_frames(waiting, share);
    kept.served = kept.in.size() - waiting.size();
    if (waiting.size() == before) return;
    if (waiting.empty()) kept.drop_served();
  }
}

void Connection::serve_frames(std::string_view& bytes, Share& share) {
  while (may_go_on() && !share.is_used_up()) {
    std::string_view rest = bytes;
    const auto payload = take_frame(rest);
    if (!payload) return;
    if (!share.take(SnappyEncoder::content_size(*payload))) return;
    bytes = rest;
    ++traffic_.requests;
    server_.serve(*this, *payload);
  }
}

void Connection::queue_up() {
  if (!has_kept() || !may_go_on() || missing_to_frame(buffers_->waiting()) != 0) return;
  server_.backlog_.add(*this);
}

void Connection::send(std::string_view message) {
  if (ended_ || deaf_) return;
  append_frame(message, buffers().out);
  if (serving_) return;
  flush();
  settle();
}

void Connection::flush() {
  if (!buffers_) return;
  Buffers& kept = *buffers_;
  const std::size_t before = kept.sent;
  while (kept.unread() != 0) {
    const ssize_t count =
        ::send(socket_.descriptor(), kept.out.data() + kept.sent, kept.unread(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) {
      const bool is_new = kept.progress == decltype(kept.progress)();
      if (is_new || kept.sent != before) kept.progress = server_.now();
      return kept.drop_sent();
    }
    if (count < 0) {
      deaf_ = true;  // reading what it sent before it went will meet its end
      break;
    }
    kept.sent += static_cast<std::size_t>(count);
  }
  kept.out.clear();
  kept.sent = 0;
}

void Connection::settle() {
  if (ended_) return;
  if (buffers_) {
    if (buffers_->is_empty()) {
      server_.take_back(*this);
    } else {
      if (!is_queued(buffers_.get()) && held_ == 0) buffers_->drop_served();
      server_.progress_.add(*this);
    }
  }
  watch();
  server_.quota().hold(*this, kept_bytes() + (buffers_ ? buffers_->bytes() : 0));
  server_.enforce_quota();
}

void Connection::watch() {
  const bool has_replies = unread() != 0 && !is_queued(buffers_.get());
  poll_.watch((may_go_on() ? UV_READABLE : 0) | (has_replies ? UV_WRITABLE : 0));
}

void Connection::end() {
  if (ended_) return;
  if (is_queued(buffers_.get())) flush();  // what has gathered so far
  ended_ = true;
  poll_.close();
  server_.end(*this);
}

Buffers& Connection::buffers() {
  if (!buffers_) buffers_ = server_.fresh_buffers();
  return *buffers_;
}

std::chrono::steady_clock::time_point Connection::due() const {
  const Limits& limits = server_.limits();
  if (unread() > limits.unread_reply_bytes) return buffers_->progress + limits.unread_reply_wait;
  const bool half_frame = has_kept() && held_ == 0 && !is_queued(buffers_.get());
  if (half_frame) return buffers_->progress + limits.half_frame_wait;
  return std::chrono::steady_clock::time_point::max();
}

void Connection::time_out() {
  const Limits& limits = server_.limits();
  if (unread() > limits.unread_reply_bytes) {
    return give_up(LimitError(
        fmt::format("{} bytes of replies, {} are allowed, and none taken for {} seconds", unread(),
                    limits.unread_reply_bytes, limits.unread_reply_wait.count())));
  }
  give_up(LimitError(fmt::format("{} bytes of a half frame and no more for {} seconds",
                                 buffers_->waiting().size(), limits.half_frame_wait.count())));
}

}  // namespace skein
