#pragma once

#include <uv.h>

#include <chrono>
#include <compare>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "skein/profile_scope.h"
#include "skein/sliding_maximum.h"

namespace skein {

/// The time since the machine was started, while it was suspended too.
std::chrono::steady_clock::time_point time_since_boot() noexcept;

/// The two clocks that a program lives by. All decisions on elapsed time, timers and time-outs run
/// on `monotonic`; `wall` is for moments that are shown, stored or compared with moments from
/// outside. Tests pass their own.
struct Clocks {
  /// Never steps.
  std::function<std::chrono::steady_clock::time_point()> monotonic = time_since_boot;
  /// Seconds since the Unix epoch, fractional.
  std::function<double()> wall = [] {
    const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(since_epoch).count();
  };
};

class Loop;

/// Names one armed callback of a Loop. Small and copyable; dropping it does not cancel.
/// The loop must outlive it.
class Timer {
 public:
  /// The order in which callbacks run.
  struct Key {
    std::chrono::steady_clock::time_point due;
    std::uint64_t number = 0;  ///< counts the loop's timers: of equal due times the older one first
    // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 takes a 0 inside <=> for a pointer
    auto operator<=>(const Key&) const = default;
  };

  Timer() = default;
  /// Made by Loop::call_in().
  Timer(Loop& loop, Key key) : loop_(&loop), key_(key) {}

  /// The callback will not run any more. Harmless when it has run, is running, was cancelled
  /// before, or was never armed.
  void cancel();

 private:
  Loop* loop_ = nullptr;
  Key key_;
};

/// Closes a libuv handle and frees its struct in the close callback. `data` is cleared first: a
/// callback that is already under way finds no object there and returns.
template <class Uv>
struct CloseThenDelete {
  void operator()(Uv* uv) const noexcept {
    uv->data = nullptr;
    uv_close(reinterpret_cast<uv_handle_t*>(uv),
             [](uv_handle_t* handle) { delete reinterpret_cast<Uv*>(handle); });
  }
};

/// The one owner of a libuv handle that has been initialised on its loop.
template <class Uv>
using UvHandle = std::unique_ptr<Uv, CloseThenDelete<Uv>>;

/// Something that must not be destroyed inside its own callback (see Loop::discard).
class LoopOwned {
 public:
  LoopOwned() = default;
  LoopOwned(const LoopOwned&) = delete;
  LoopOwned& operator=(const LoopOwned&) = delete;
  virtual ~LoopOwned() = default;

  std::unique_ptr<LoopOwned> next_discarded;  ///< the loop's own
};

/// Runs a callback once at the end of the present iteration of the loop, after all ready
/// descriptors; if that point has passed, at the end of the next one, without waiting for events.
/// Arming takes no memory and cannot fail.
class EndOfIterationTask {
 public:
  /// The loop must outlive it. Throws SystemFailure.
  EndOfIterationTask(Loop& loop, std::function<void()> callback);

  /// Again before it has run: nothing. The callback may arm it again.
  void arm() noexcept;

 private:
  void run() noexcept;

  Loop& loop_;
  const std::function<void()> callback_;
  UvHandle<uv_check_t> check_;
  UvHandle<uv_idle_t> idle_;  ///< active together with `check_`: keeps the loop from waiting
};

/// The event loop: timers, watched descriptors, and objects that end on a later iteration.
/// One per process in the daemon (loops::loop()); tests make their own. One thread.
///
/// A failure that escapes a callback goes to the failure handler and the loop goes on.
class Loop {
 public:
  using Callback = std::function<void()>;
  using FailureHandler = std::function<void(const std::exception&)>;

  explicit Loop(Clocks clocks = {});
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop();

  /// Runs `callback` once, `delay` seconds from now at the earliest; 0 means the next iteration.
  /// Never early, however long the callback before it took. NaN and negative count as 0.
  Timer call_in(double delay, Callback callback);
  Timer call_in(std::chrono::duration<double> delay, Callback callback) {
    return call_in(delay.count(), std::move(callback));
  }

  /// Serves events until stop() is called. Throws KeyboardInterrupt when watch_signals() saw
  /// SIGINT.
  void run();
  /// Makes run() return after the present callback.
  void stop();
  /// Runs one iteration: due timers and ready descriptors, without waiting. For tests.
  void run_once();

  /// From now on SIGTERM stops the loop and SIGINT ends run() with KeyboardInterrupt.
  void watch_signals();
  /// Where failures go that escape a callback. Until set, they are dropped.
  void set_failure_handler(FailureHandler handler) { failure_handler_ = std::move(handler); }
  void report(const std::exception& failure) noexcept;
  /// Runs `step`; its failure is reported.
  template <class Step>
  void guarded(Step&& step) noexcept {
    try {
      step();
    } catch (const std::exception& failure) {
      report(failure);
    }
  }

  /// Destroys the object later in this iteration, or on the next one.
  void discard(std::unique_ptr<LoopOwned> object) noexcept;

  const Clocks& clocks() const noexcept { return clocks_; }
  /// The monotonic clock as of the present iteration, in which it is read once: for who asks with
  /// every request. Between iterations it is read each time.
  std::chrono::steady_clock::time_point now() {
    if (!now_ || work_began_ == 0) now_ = clocks_.monotonic();
    return *now_;
  }
  /// now() in whole seconds since the machine was started.
  std::uint32_t seconds() {
    const auto since_start = now().time_since_epoch();
    return static_cast<std::uint32_t>(
        std::chrono::duration_cast<std::chrono::seconds>(since_start).count());
  }
  /// The longest iteration of the last minute: so long an event had to wait for others at worst.
  std::chrono::milliseconds longest_iteration() const noexcept {
    return std::chrono::milliseconds(iterations_.most(uv_now(&uv_)));
  }
  uv_loop_t* uv() noexcept { return &uv_; }
  /// Called first by every callback of libuv: the present iteration has something to do. An
  /// iteration that has nothing is not measured.
  void begin_work() noexcept {
    if (work_began_ != 0) return;
    work_began_ = uv_now(&uv_);
    now_.reset();
    waiting_.reset();
  }
  /// For Timer::cancel().
  void cancel(const Timer::Key& key) noexcept { timers_.erase(key); }

 private:
  void end_work() noexcept;
  void begin_wait() noexcept;
  void run_due_timers();
  void wake_at_first_due() noexcept;
  void sweep() noexcept;

  uv_loop_t uv_{};
  Clocks clocks_;
  FailureHandler failure_handler_;
  /// Armed timers, the next one first. Cancelling erases: a timer that is re-armed a million times
  /// leaves nothing behind.
  std::map<Timer::Key, Callback> timers_;
  std::uint64_t timers_made_ = 0;
  SlidingMaximum iterations_;     ///< milliseconds of each iteration that had work
  std::uint64_t work_began_ = 0;  ///< by uv_now(); 0: nothing has been done in this iteration
  std::optional<std::chrono::steady_clock::time_point>
      now_;                                ///< of the present iteration, once somebody has asked
  std::optional<profile::Scope> waiting_;  ///< for events, in a profiled run
  UvHandle<uv_prepare_t> before_wait_;
  class Wake;
  std::unique_ptr<Wake> wake_;
  UvHandle<uv_idle_t> due_now_;  ///< active while a timer is due on the next iteration
  std::chrono::steady_clock::time_point wake_due_ = std::chrono::steady_clock::time_point::max();
  UvHandle<uv_signal_t> terminate_;
  UvHandle<uv_signal_t> interrupt_;
  bool interrupted_ = false;
  std::unique_ptr<LoopOwned> discarded_;  ///< a chain
  std::optional<EndOfIterationTask> sweep_;
};

/// Receives the readiness of one descriptor.
class PollTarget {
 public:
  /// `events` holds UV_READABLE and UV_WRITABLE bits; an error or hang-up shows as both.
  virtual void handle_events(int events) = 0;

 protected:
  ~PollTarget() = default;
};

/// Watches one descriptor, which stays its owner's. Destroy it before the descriptor is closed.
class Poll {
 public:
  /// The loop and the target must outlive it.
  Poll(Loop& loop, int descriptor, PollTarget& target);
  ~Poll();

  /// Watches for `events` (UV_READABLE, UV_WRITABLE) from now on; 0 pauses.
  void watch(int events);
  /// Watches no more; the descriptor may be closed. Nothing but destruction is left after this.
  void close() noexcept;

 private:
  struct Handle;

  static void start(Handle& handle, int events);
  static void on_events(uv_poll_t* handle, int status, int events) noexcept;

  UvHandle<Handle> handle_;
};

namespace loops {
/// The one shared loop of the process; exists from the first use on.
Loop& loop();
}  // namespace loops

}  // namespace skein
