#include "skein/backlog.h"

#include <algorithm>
#include <limits>

#include "skein/connection.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/framing.h"

namespace skein {
namespace {

/// Bytes of content of the whole frame that waits first.
std::size_t next_content(const Buffers& buffers) {
  std::string_view waiting = buffers.waiting();
  const auto payload = take_frame(waiting);
  return payload ? SnappyEncoder::content_size(*payload) : 0;
}

}  // namespace

Backlog::Backlog(Loop& loop, const Limits& limits)
    : loop_(loop),
      limits_(limits),
      next_turn_(loop, [this] { run(); }),
      valid_{.waiting = {},
             .with_large = {},
             .share = limits.bytes_per_turn,
             .per_turn = std::numeric_limits<std::size_t>::max()},
      newcomers_{.waiting = {},
                 .with_large = {},
                 .share = limits.newcomer_bytes_per_turn,
                 .per_turn = limits.newcomers_bytes_per_turn} {}

Backlog::Line& Backlog::line_of(const Connection& connection) {
  return connection.is_valid() ? valid_ : newcomers_;
}

Share Backlog::share_at_once(const Connection& connection) {
  begin_turn();
  Line& line = line_of(connection);
  const bool has_to_wait = &line == &newcomers_ && !line.waiting.empty();
  return {has_to_wait ? 0 : limits_.requests_per_turn, line.share, line.rest, false};
}

void Backlog::add(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (buffers.queue != nullptr) return;
  Line& line = line_of(connection);
  Queue& queue = next_content(buffers) > line.share ? line.with_large : line.waiting;
  buffers.turn = queue.insert(queue.end(), &connection);
  buffers.queue = &queue;
  next_turn_.arm();
}

void Backlog::remove(Connection& connection) {
  Buffers& buffers = *connection.buffers_;
  if (buffers.queue == nullptr) return;
  buffers.queue->erase(buffers.turn);
  buffers.queue = nullptr;
}

void Backlog::begin_turn() {
  if (turn_ == loop_.turn_number()) return;
  turn_ = loop_.turn_number();
  for (Line* line : {&valid_, &newcomers_}) line->rest = line->per_turn;
}

void Backlog::run() {
  next_turn_.arm();  // first: whatever fails, the others have their turn
  begin_turn();
  serve(valid_);
  serve(newcomers_);
  for (const Line* line : {&valid_, &newcomers_}) {
    if (!line->waiting.empty() || !line->with_large.empty()) return;
  }
  next_turn_.disarm();
}

void Backlog::serve(Line& line) {
  if (!line.with_large.empty()) serve_front(line, line.with_large, true);
  for (std::size_t left = line.waiting.size(); left > 0 && !line.waiting.empty(); --left) {
    const std::size_t next = next_content(*line.waiting.front()->buffers_);
    if (std::max(next, Share::LEAST_BYTES) > line.rest) return;  // it goes on first
    serve_front(line, line.waiting, false);
  }
}

void Backlog::serve_front(Line& line, Queue& queue, bool large) {
  Connection& connection = *queue.front();
  remove(connection);
  // This may add it again, behind the others.
  connection.serve_waiting(Share(limits_.requests_per_turn, line.share, line.rest, large));
}

}  // namespace skein
