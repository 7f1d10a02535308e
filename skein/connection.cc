#include "skein/connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "skein/encoders/snappyencoder.h"
#include "skein/framing.h"
#include "skein/limits.h"
#include "skein/profile_scope.h"

namespace skein {
namespace {

/// Capacity of a connection's buffers that is kept for the next one.
constexpr std::size_t KEPT_BUFFER_BYTES = 64U << 10;
/// From this length on a half frame gets memory for the whole of it, which takes up nothing before
/// it is filled. If they grew by doubling, those of many peers would be copied to a new place in
/// the same iteration again and again. A shorter one has not earned the memory that its length
/// claims.
constexpr std::size_t LONG_HALF_FRAME = 64U << 10;
/// Sent bytes that lie in front of unsent ones are dropped once there are so many.
constexpr std::size_t MANY_SENT_BYTES = 256U << 10;

/// The connection is well; the system is busy, or short of memory.
bool may_try_again(int error_number) {
  return error_number == EAGAIN || error_number == EINTR || error_number == ENOBUFS ||
         error_number == ENOMEM;
}

void make_empty(std::string& buffer) {
  buffer.clear();
  if (buffer.capacity() > KEPT_BUFFER_BYTES) buffer.shrink_to_fit();
}

}  // namespace

/// What is unfinished on a connection.
struct Connection::Buffers {
  /// Somewhat more than the bytes that this object takes itself.
  static constexpr std::size_t OVERHEAD_BYTES = 256;

  std::string_view received;  ///< in the shared buffer, not taken yet; comes behind `stored`
  std::string stored;         ///< received earlier
  std::size_t taken = 0;      ///< bytes at the front of `stored` that have been taken
  std::string out;            ///< frames for the peer
  std::size_t sent = 0;       ///< bytes at the front of `out` that have been sent
  bool write_closed = false;  ///< the peer takes nothing any more; what it sent is still served
  std::chrono::steady_clock::time_point progress;

  std::string_view waiting() const { return std::string_view(stored).substr(taken); }
  bool is_empty() const { return waiting().empty() && received.empty() && sent == out.size(); }

  void store(std::string_view bytes, std::size_t expected) {
    if (waiting().size() + bytes.size() >= LONG_HALF_FRAME)
      stored.reserve(stored.size() + expected);
    stored.append(bytes);
  }
  void drop_taken() {
    if (taken != stored.size()) return;
    make_empty(stored);
    taken = 0;
  }
  /// Gives memory back, at the cost of a copy of the rest: so only when that is the smaller part.
  void compact() {
    if (taken == 0 || taken < waiting().size()) return;
    std::string(waiting()).swap(stored);  // assigning a short text would keep the memory
    taken = 0;
  }
  void reset() {
    make_empty(stored);
    make_empty(out);
    received = {};
    taken = sent = 0;
    write_closed = false;
    progress = {};
  }

  /// Those of the connection before, so that a frame does not cost an allocation.
  static inline std::unique_ptr<Buffers> spare;
};

Connection::Connection(Loop& loop, Socket socket, PollTarget& target, std::uint32_t slot)
    : socket_(std::move(socket)),
      slot_(slot),
      poll_(loop, socket_.descriptor(), target),
      traffic_{.since = loop.seconds(), .last_seen = loop.seconds()} {
  poll_.watch(UV_READABLE);
}

Connection::~Connection() = default;

Connection::Buffers& Connection::buffers() {
  if (!buffers_) {
    buffers_ = Buffers::spare ? std::move(Buffers::spare) : std::make_unique<Buffers>();
  }
  return *buffers_;
}

Connection::Received Connection::receive(std::span<char> buffer, std::uint32_t now) {
  Buffers& unfinished = buffers();
  const ssize_t count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
  if (count < 0 && may_try_again(errno)) return Received::NOTHING;
  if (count <= 0) return Received::END;
  traffic_.last_seen = now;
  unfinished.received = {buffer.data(), static_cast<std::size_t>(count)};
  return Received::BYTES;
}

std::optional<std::string_view> Connection::front_frame() {
  if (!buffers_) return std::nullopt;
  Buffers& in = *buffers_;
  in.drop_taken();
  while (!in.waiting().empty()) {  // twice at most: the length, then what is behind it
    const std::size_t missing = missing_to_frame(in.waiting());
    if (missing == 0) {
      std::string_view waiting = in.waiting();
      return take_frame(waiting);
    }
    if (in.received.empty()) return std::nullopt;
    const std::string_view more = in.received.substr(0, missing);
    in.store(more, missing);
    in.received.remove_prefix(more.size());
  }
  std::string_view received = in.received;
  return take_frame(received);
}

void Connection::pop_frame(std::string_view payload) {
  ++traffic_.requests;
  Buffers& in = *buffers_;
  const std::size_t bytes = FRAME_PREFIX_BYTES + payload.size();
  if (in.waiting().empty()) return in.received.remove_prefix(bytes);
  in.taken += bytes;  // stays in place: the payload is being served
}

void Connection::store_rest(std::chrono::steady_clock::time_point now) {
  if (!buffers_) return;
  Buffers& in = *buffers_;
  in.compact();
  if (!in.received.empty()) in.stored += std::exchange(in.received, {});
  if (!in.is_empty()) in.progress = now;
}

std::size_t Connection::unserved() const noexcept {
  return buffers_ ? buffers_->waiting().size() + buffers_->received.size() : 0;
}

void Connection::send(std::string_view message) {
  Buffers& unfinished = buffers();
  if (!unfinished.write_closed) append_frame(message, unfinished.out);
}

void Connection::flush(std::chrono::steady_clock::time_point now) {
  PROFILE_SCOPE();
  if (!buffers_) return;
  Buffers& kept = *buffers_;
  const std::size_t before = kept.sent;
  while (kept.sent != kept.out.size()) {
    const ssize_t count = ::send(socket_.descriptor(), kept.out.data() + kept.sent,
                                 kept.out.size() - kept.sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && may_try_again(errno)) {
      const bool is_new = kept.progress == decltype(kept.progress)();
      if (is_new || kept.sent != before) kept.progress = now;
      if (kept.sent >= MANY_SENT_BYTES) {
        kept.out.erase(0, kept.sent);
        kept.sent = 0;
      }
      return;
    }
    if (count < 0) {
      kept.write_closed = true;  // stop sending; receive until the end of the peer's stream
      break;
    }
    kept.sent += static_cast<std::size_t>(count);
  }
  make_empty(kept.out);
  kept.sent = 0;
}

std::size_t Connection::unsent() const noexcept {
  return buffers_ ? buffers_->out.size() - buffers_->sent : 0;
}

std::size_t Connection::release_empty_buffers() noexcept {
  if (!buffers_) return 0;
  if (buffers_->is_empty() && !buffers_->write_closed) {
    buffers_->reset();
    Buffers::spare = std::move(buffers_);
    return 0;
  }
  return buffers_->stored.size() + buffers_->out.capacity() + Buffers::OVERHEAD_BYTES;
}

std::chrono::steady_clock::time_point Connection::last_progress() const noexcept {
  return buffers_ ? buffers_->progress : std::chrono::steady_clock::time_point();
}

void Connection::close() noexcept {
  poll_.close();
  socket_ = Socket();
}

}  // namespace skein
