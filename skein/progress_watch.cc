#include "skein/progress_watch.h"

#include <algorithm>
#include <utility>

#include "skein/connection.h"

namespace skein {
namespace {

/// However many due times there are, all connections are looked through no more often than this.
constexpr std::chrono::seconds SHORTEST_REST{1};

/// So many are ended in one turn of the loop: a log line and a socket each.
constexpr std::size_t MOST_AT_ONCE = 256;

/// A timer that comes this late tells that the process stood still. What has come in the meantime
/// has not been read yet.
constexpr std::chrono::seconds STOOD_STILL{1};

}  // namespace

void ProgressWatch::add(Connection& connection) {
  std::size_t& place = connection.buffers_->place;
  if (place == Buffers::NOWHERE) {
    place = watched_.size();
    watched_.push_back(&connection);
  }
  wake_at(connection.due());
}

void ProgressWatch::remove(Connection& connection) {
  const std::size_t place = std::exchange(connection.buffers_->place, Buffers::NOWHERE);
  if (place == Buffers::NOWHERE) return;
  watched_[place] = watched_.back();
  watched_.pop_back();
  if (place < watched_.size()) watched_[place]->buffers_->place = place;
}

/// The timer is only ever moved to an earlier moment: one that finds nobody due sets it anew.
void ProgressWatch::wake_at(Time due) {
  if (due >= wake_) return;
  timer_.cancel();
  timer_ = loop_.call_in(due - loop_.clocks().monotonic(), [this] { look(); });
  wake_ = due;
}

void ProgressWatch::look() {
  const Time now = loop_.clocks().monotonic();
  const Time wanted = std::exchange(wake_, Time::max());
  if (now - wanted >= STOOD_STILL) return wake_at(now + SHORTEST_REST);
  Time next = Time::max();
  std::vector<Connection*> overdue;
  for (Connection* connection : watched_) {
    const Time due = connection->due();
    if (due <= now && overdue.size() < MOST_AT_ONCE) {
      overdue.push_back(connection);
    } else {
      next = std::min(next, due);
    }
  }
  for (Connection* connection : overdue) connection->time_out();
  if (next <= now) return wake_at(now);
  if (next != Time::max()) wake_at(std::max(next, now + SHORTEST_REST));
}

}  // namespace skein
