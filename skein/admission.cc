#include "skein/admission.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <limits>

namespace skein {
namespace {

/// However many deadlines there are, they are looked at no more often than this.
constexpr std::chrono::seconds SHORTEST_PAUSE{1};

/// So many time out in one iteration of the loop: each takes a log line and a socket.
constexpr std::size_t TIME_OUTS_PER_ITERATION = 256;

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
  if (limits_.connections == 0) {
    const std::size_t descriptors = descriptor_limit();
    limits_.connections = descriptors - std::min(limits_.spare_descriptors, descriptors / 2);
  }
  limits_.unauthenticated_bytes = std::min(limits_.unauthenticated_bytes, limits_.held_bytes / 8);
  limits_.reserved_connections = std::min(limits_.reserved_connections, limits_.connections / 8);
}

template <class Accounts>
void Admission::EvictionOrder<Accounts>::add(std::uint32_t origin, Account& account,
                                             std::size_t weight) {
  const auto found = origins_.try_emplace(origin).first;
  try {
    if (found->second.weight == 0) heaviest_.insert({0, origin});
    found->second.add(account, weight);
  } catch (...) {
    reweigh(found, found->second.weight);
    throw;
  }
  reweigh(found, found->second.weight + weight);
}

template <class Accounts>
void Admission::EvictionOrder<Accounts>::remove(std::uint32_t origin, Account& account,
                                                std::size_t weight) noexcept {
  const auto found = origins_.find(origin);
  found->second.remove(account, weight);
  reweigh(found, found->second.weight - weight);
}

/// An origin without weight leaves.
template <class Accounts>
void Admission::EvictionOrder<Accounts>::reweigh(
    typename std::map<std::uint32_t, Accounts>::iterator origin, std::size_t weight) noexcept {
  weight_ += weight - origin->second.weight;
  auto place = heaviest_.extract({origin->second.weight, origin->first});
  if (weight == 0) {
    origins_.erase(origin);
    return;
  }
  origin->second.weight = place.value().first = weight;
  heaviest_.insert(std::move(place));
}

/// All authenticated accounts are of one origin here: the largest of them is looked for.
std::uint32_t Admission::group_of(const Account& account, Standing standing) noexcept {
  return standing == Standing::AUTHENTICATED ? 0 : account.origin_;
}

void Admission::change(Account& account, std::size_t bytes) {
  EvictionOrder<BySize>& order = of(account.standing_);
  const std::uint32_t group = group_of(account, account.standing_);
  if (bytes != 0) order.add(group, account, bytes);
  if (account.bytes_ != 0) order.remove(group, account, account.bytes_);
  held_bytes_ += bytes - account.bytes_;
  account.bytes_ = static_cast<std::uint32_t>(bytes);
}

std::string Admission::enforce() {
  const auto& disconnected = of(Standing::DISCONNECTED);
  const std::size_t most = limits_.held_bytes;
  while (disconnected.most() > limits_.disconnected_bytes ||
         (held_bytes_ > most && !disconnected.empty())) {
    evict_largest(Standing::DISCONNECTED);
  }
  const auto& strangers = of(Standing::UNAUTHENTICATED);
  while (held_bytes_ > most && strangers.weight() > limits_.unauthenticated_bytes) {
    evict_largest(Standing::UNAUTHENTICATED);
  }
  while (held_bytes_ > 2 * most && !of(Standing::AUTHENTICATED).empty()) {
    evict_largest(Standing::AUTHENTICATED);
  }
  if (held_bytes_ <= most) return {};
  return fmt::format("{} bytes are held for connections with valid keys, {} are allowed",
                     held_bytes_, limits_.held_bytes);
}

void Admission::evict_largest(Standing standing) {
  Account& account = of(standing).first();
  const LimitError reason(
      EndReason::HELD_BYTES,
      held_bytes_ > limits_.held_bytes
          ? fmt::format(
                "{} bytes are held for all connections, {} are allowed, and {} for this one",
                held_bytes_, limits_.held_bytes, account.bytes_)
          : fmt::format("{} bytes are held for peers of its address that have gone, {} are allowed",
                        of(standing).most(), limits_.disconnected_bytes));
  hold(account, 0);
  account.evict(reason);
}

void Admission::add_connection(Account& account) {
  take_place(account);
  account.is_connection_ = true;
  ++connections_;
}

void Admission::make_room(Account& newest) {
  const std::size_t reserved = newest.is_authenticated() ? 0 : limits_.reserved_connections;
  const std::size_t allowed = limits_.connections - reserved;
  if (connections_ <= allowed) return;
  for (const auto& order : by_age_) {
    if (order.empty()) continue;
    const LimitError reason(EndReason::CONNECTIONS,
                            fmt::format("{} connections are open, {} are allowed, and this one is "
                                        "the oldest without a valid key",
                                        connections_, allowed));
    return order.first().evict(reason);
  }
  newest.evict(
      LimitError(EndReason::CONNECTIONS,
                 fmt::format("{} connections are open, {} are allowed, and this one is the newest",
                             connections_, allowed)));
}

void Admission::set_standing(Account& account, Standing standing) {
  const Standing before = account.standing_;
  if (before == standing || before == Standing::DISCONNECTED) return;
  if (const std::uint32_t bytes = account.bytes_; bytes != 0) {
    of(standing).add(group_of(account, standing), account, bytes);
    of(before).remove(group_of(account, before), account, bytes);
  }
  leave_place(account);
  account.standing_ = standing;
  if (account.is_connection_) take_place(account);
}

/// At the end of its order.
void Admission::take_place(Account& connection) {
  if (connection.is_authenticated()) return;
  by_age_.at(static_cast<std::size_t>(connection.standing_)).add(connection.origin_, connection, 1);
  connection.has_place_ = true;
}

void Admission::leave_place(Account& connection) noexcept {
  if (!connection.has_place_) return;
  by_age_[static_cast<std::size_t>(connection.standing_)].remove(connection.origin_, connection, 1);
  connection.has_place_ = false;
}

void Admission::remove_connection(Account& connection) noexcept {
  --connections_;
  leave_place(connection);
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
    if (timed_out == TIME_OUTS_PER_ITERATION) return wake_at(now);
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
