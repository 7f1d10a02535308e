#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "skein/errors.h"
#include "skein/intrusive_list.h"
#include "skein/limits.h"
#include "skein/loops.h"

namespace skein {

/// What a peer has shown of itself. In this order peers are evicted.
enum class Standing : std::uint8_t {
  DISCONNECTED,     ///< its stream has ended; perhaps nobody is there
  UNAUTHENTICATED,  ///< has not shown who it is
  AUTHENTICATED,    ///< has, or need not
};

/// Protects the process from its peers: how much memory is held for them, how many connections
/// there are, and how long one may go on without progress. It sees accounts, bytes, a standing and
/// an origin (a number: the network address), and nothing of connections or requests.
///
/// Which account is evicted when a limit is reached, in this order:
///
///     bytes held    disconnected: the largest account of the origin that holds most
///                   unauthenticated: likewise, down to what is reserved for them
///                   authenticated, from twice the limit on: the largest account
///     connections   disconnected: the first to end of the origin that has most of them
///                   unauthenticated: the oldest of the origin that has most of them
///                   the newest
///     no progress   the account itself
///
/// So somebody who sends much is not helped by many connections, as long as they come from one
/// address, and no peer is evicted as long as there is a disconnected one.
///
/// One for all servers of a process; outlives its accounts. Loop thread only.
class Admission {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Somebody for whom bytes are held: a connection, or something that may outlive it.
  /// release() it before it is destroyed.
  class Account {
   public:
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;
    Standing standing() const noexcept { return standing_; }
    bool is_authenticated() const noexcept { return standing_ == Standing::AUTHENTICATED; }
    std::uint32_t origin() const noexcept { return origin_; }
    /// Bytes that are held for it.
    std::size_t bytes() const noexcept { return bytes_; }

   protected:
    Account(std::uint32_t origin, Standing standing) noexcept
        : origin_(origin), standing_(standing) {}
    ~Account() = default;

   private:
    friend class Admission;

    /// A limit ends it: it lets go of all that is held, and reports the reason.
    virtual void evict(const LimitError& reason) = 0;
    /// When it must have made progress; max() while nothing is expected of it.
    virtual Time deadline() const { return Time::max(); }
    /// The deadline has passed.
    virtual void time_out() {}

    // Small, because there is one for each connection.
    ListLink<Account> place_;  ///< among the connections of its origin
    std::uint32_t bytes_ = 0;
    std::uint32_t watched_until_ = 0;  ///< seconds since the start, as in deadlines_; 0: not there
    std::uint32_t origin_;
    Standing standing_ : 2;
    bool is_connection_ : 1 = false;
    bool has_place_ : 1 = false;
  };

  /// Borrows the loop.
  Admission(Loop& loop, const Limits& limits);
  Admission(const Admission&) = delete;
  Admission& operator=(const Admission&) = delete;
  ~Admission() { timer_.cancel(); }

  const Limits& limits() const noexcept { return limits_; }

  /// `bytes` are held for `account` from now on. Costs nothing while that stays the same. Throws
  /// std::bad_alloc, and leaves everything as it is then.
  void hold(Account& account, std::size_t bytes) {
    if (account.bytes_ != bytes) change(account, bytes);
  }
  std::size_t held_bytes() const noexcept { return held_bytes_; }
  bool is_short() const noexcept {
    return held_bytes_ > limits_.held_bytes ||
           of(Standing::DISCONNECTED).most() > limits_.disconnected_bytes;
  }
  /// Evicts accounts until the limits are kept. Returns what is to be reported if they are not kept
  /// even so. Not from within the handler of a request, whose own connection it may end.
  std::string enforce();
  /// Looks at the account again at its deadline. To be called when that has become an earlier one.
  void watch(Account& account);

  /// An unauthenticated connection has come. Throws std::bad_alloc.
  void add_connection(Account& account);
  /// If there are too many connections now, evicts one; `newest` is the one that came last.
  void make_room(Account& newest);
  void remove_connection(Account& connection) noexcept;
  /// A disconnected account stays so. Throws std::bad_alloc; a connection is to be ended then.
  void set_standing(Account& account, Standing standing);
  /// Nothing is held for `account` any more, or expected of it.
  void release(Account& account) noexcept;

 private:
  /// Accounts of one origin by the bytes that are held for them, the largest first.
  struct BySize {
    void add(Account& account, std::size_t bytes) { accounts.insert({bytes, &account}); }
    void remove(Account& account, std::size_t bytes) { accounts.erase({bytes, &account}); }
    Account& first() const { return *accounts.rbegin()->second; }
    std::set<std::pair<std::size_t, Account*>> accounts{};
    std::size_t weight = 0;  ///< of all
  };
  /// Connections of one origin, the oldest first. Nearly all connections stand here at first, so
  /// their places lie in the accounts.
  struct ByAge {
    void add(Account& account, std::size_t) { accounts.push_back(account); }
    void remove(Account& account, std::size_t) { accounts.remove(account); }
    Account& first() const { return accounts.front(); }
    IntrusiveList<Account, &Account::place_> accounts{};
    std::size_t weight = 0;  ///< how many
  };

  /// Accounts of one standing in the order of eviction: the heaviest origin first; within it, the
  /// order of `Accounts`.
  template <class Accounts>
  class EvictionOrder {
   public:
    /// `weight` is more than 0. Throws std::bad_alloc, and leaves everything as it is then.
    void add(std::uint32_t origin, Account& account, std::size_t weight);
    void remove(std::uint32_t origin, Account& account, std::size_t weight) noexcept;
    bool empty() const noexcept { return heaviest_.empty(); }
    /// Weight of the heaviest origin.
    std::size_t most() const noexcept { return empty() ? 0 : heaviest_.rbegin()->first; }
    /// Of all origins.
    std::size_t weight() const noexcept { return weight_; }
    Account& first() const { return origins_.find(heaviest_.rbegin()->second)->second.first(); }

   private:
    void reweigh(typename std::map<std::uint32_t, Accounts>::iterator origin,
                 std::size_t weight) noexcept;

    std::map<std::uint32_t, Accounts> origins_;
    std::set<std::pair<std::size_t, std::uint32_t>> heaviest_;  ///< origins by weight
    std::size_t weight_ = 0;
  };

  /// Of the bytes that are held.
  EvictionOrder<BySize>& of(Standing standing) {
    return by_size_[static_cast<std::size_t>(standing)];
  }
  const EvictionOrder<BySize>& of(Standing standing) const {
    return by_size_[static_cast<std::size_t>(standing)];
  }
  static std::uint32_t group_of(const Account& account, Standing standing) noexcept;
  void change(Account& account, std::size_t bytes);
  void evict_largest(Standing standing);
  void take_place(Account& connection);
  void leave_place(Account& connection) noexcept;
  std::uint32_t seconds(Time time) const;
  void forget_deadline(Account& account) noexcept;
  void wake_at(Time time);
  void check_deadlines();

  Loop& loop_;
  Limits limits_;
  std::size_t held_bytes_ = 0;
  std::array<EvictionOrder<BySize>, 3> by_size_;  ///< one for each standing
  /// Connections: disconnected, unauthenticated. Those that are authenticated stand in none.
  std::array<EvictionOrder<ByAge>, 2> by_age_;
  std::size_t connections_ = 0;
  const Time start_;
  /// Whose deadline is when, in seconds since the start. It may have become a later one since,
  /// which is noticed when the time has come: progress costs nothing here.
  std::set<std::pair<std::uint32_t, Account*>> deadlines_;
  Timer timer_;
  Time wake_ = Time::max();  ///< when the timer fires
};

}  // namespace skein
