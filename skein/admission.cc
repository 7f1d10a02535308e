#include "skein/admission.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <limits>

namespace skein {
namespace {

/// However many deadlines there are, they are looked at no more often than this.
constexpr std::chrono::seconds SHORTEST_PAUSE{1};

/// So many time out in one turn of the loop: each takes a log line and a socket.
constexpr std::size_t TIME_OUTS_PER_TURN = 256;

/// A timer that is this late tells that the process stood still. What has come in the meantime has
/// not been read yet.
constexpr std::chrono::seconds STOOD_STILL{1};

std::size_t descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return std::numeric_limits<std::size_t>::max();
  return limit.rlim_cur;
}

}  // namespace

Admission::Admission(Loop& loop, const Limits& limits)
    : loop_(loop), limits_(limits), start_(loop.clocks().monotonic()) {
  if (limits_.connections != 0) return;
  const std::size_t descriptors = descriptor_limit();
  const std::size_t spare = std::min(limits_.spare_descriptors, descriptors / 2);
  limits_.connections = descriptors - spare;
}

void Admission::change(Account& account, std::size_t bytes) {
  BySize& accounts = by_size(account);
  if (bytes != 0 && account.bytes_ == 0) {
    accounts.insert({bytes, &account});
  } else {
    auto node = accounts.extract({account.bytes_, &account});
    if (bytes != 0) {
      node.value().first = bytes;
      accounts.insert(std::move(node));
    }
  }
  held_bytes_ += bytes - account.bytes_;
  account.bytes_ = static_cast<std::uint32_t>(bytes);
}

std::string Admission::enforce() {
  while (is_short() && !unauthenticated_.empty()) evict_largest(unauthenticated_);
  while (held_bytes_ > 2 * limits_.held_bytes && !authenticated_.empty()) {
    evict_largest(authenticated_);
  }
  if (!is_short()) return {};
  return fmt::format("{} bytes are held for connections with valid keys, {} are allowed",
                     held_bytes_, limits_.held_bytes);
}

void Admission::evict_largest(BySize& accounts) {
  const auto [bytes, account] = *accounts.rbegin();
  const LimitError reason(
      EndReason::HELD_BYTES,
      fmt::format("{} bytes are held for all connections, {} are allowed, and {} for this one",
                  held_bytes_, limits_.held_bytes, bytes));
  hold(*account, 0);
  account->evict(reason);
}

void Admission::add_connection(Account& account) noexcept {
  arrivals_.push_back(account);
  ++connections_;
}

void Admission::make_room(Account& newest) {
  if (connections_ <= limits_.connections) return;
  Account& evicted = arrivals_.empty() ? newest : arrivals_.front();
  const LimitError reason(
      EndReason::CONNECTIONS,
      fmt::format("{} connections are open, {} are allowed, and this one is the {}", connections_,
                  limits_.connections,
                  arrivals_.empty() ? "newest" : "oldest without a valid key"));
  evicted.evict(reason);
}

void Admission::set_authenticated(Account& connection) {
  if (connection.authenticated_) return;
  auto node = unauthenticated_.extract({connection.bytes_, &connection});
  if (!node.empty()) authenticated_.insert(std::move(node));
  connection.authenticated_ = true;
  arrivals_.remove(connection);
}

void Admission::remove_connection(Account& connection) noexcept {
  --connections_;
  if (!connection.authenticated_) arrivals_.remove(connection);
  release(connection);
}

void Admission::release(Account& account) noexcept {
  hold(account, 0);
  forget_deadline(account);
}

/// Rounded up: what is due at the result is due.
std::uint32_t Admission::seconds(Time time) const {
  return static_cast<std::uint32_t>(std::chrono::ceil<std::chrono::seconds>(time - start_).count());
}

void Admission::watch(Account& account) {
  const Time deadline = account.deadline();
  if (deadline == Time::max()) return;
  const std::uint32_t due = seconds(deadline);
  if (account.watched_until_ != 0 && account.watched_until_ <= due) return;
  forget_deadline(account);
  deadlines_.insert({due, &account});
  account.watched_until_ = due;
  wake_at(start_ + std::chrono::seconds(due));
}

void Admission::forget_deadline(Account& account) noexcept {
  if (account.watched_until_ == 0) return;
  deadlines_.erase({account.watched_until_, &account});
  account.watched_until_ = 0;
}

/// The timer is only ever moved to an earlier moment: one that finds nothing due sets it anew.
void Admission::wake_at(Time time) {
  if (time >= wake_) return;
  timer_.cancel();
  timer_ = loop_.call_in(time - loop_.clocks().monotonic(), [this] { check_deadlines(); });
  wake_ = time;
}

void Admission::check_deadlines() {
  const Time now = loop_.clocks().monotonic();
  const Time wanted = std::exchange(wake_, Time::max());
  if (now - wanted >= STOOD_STILL) return wake_at(now + SHORTEST_PAUSE);
  std::size_t timed_out = 0;
  while (!deadlines_.empty() && start_ + std::chrono::seconds(deadlines_.begin()->first) <= now) {
    if (timed_out == TIME_OUTS_PER_TURN) return wake_at(now);
    Account& account = *deadlines_.begin()->second;
    forget_deadline(account);
    if (account.deadline() <= now) {
      account.time_out();
      ++timed_out;
    } else {
      watch(account);
    }
  }
  if (deadlines_.empty()) return;
  wake_at(std::max(start_ + std::chrono::seconds(deadlines_.begin()->first), now + SHORTEST_PAUSE));
}

}  // namespace skein
