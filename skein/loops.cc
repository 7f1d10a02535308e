#include "skein/loops.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <ctime>
#include <utility>

#include "skein/errors.h"
#include "skein/socket.h"

namespace skein {
namespace {

void check(int result, const char* call) {
  if (result < 0) throw SystemFailure(call, -result);
}

/// Longest delay that is kept as it stands; longer ones are cut to it. A century.
constexpr double LONGEST_DELAY_SECONDS = 3.2e9;

}  // namespace

std::chrono::steady_clock::time_point time_since_boot() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::steady_clock::time_point(std::chrono::seconds(now.tv_sec) +
                                               std::chrono::nanoseconds(now.tv_nsec));
}

/// The alarm of the loop, by a clock that goes on while the machine is suspended: libuv's timers
/// would be late by that time.
class Loop::Wake final : private PollTarget {
 public:
  explicit Wake(Loop& loop)
      : loop_(loop),
        timer_(::timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC)),
        poll_(loop, timer_.descriptor(), *this) {}

  bool set(std::chrono::nanoseconds wait) noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(wait);
    itimerspec due{};
    due.it_value = {seconds.count(), (wait - seconds).count()};
    if (::timerfd_settime(timer_.descriptor(), 0, &due, nullptr) != 0) return false;
    poll_.watch(UV_READABLE);
    return true;
  }
  /// A loop that waits for no timer may end.
  void stop() noexcept { poll_.watch(0); }

 private:
  void handle_events(int) override {
    std::uint64_t times = 0;
    if (::read(timer_.descriptor(), &times, sizeof times) > 0) loop_.run_due_timers();
  }

  Loop& loop_;
  Socket timer_;
  Poll poll_;
};

void Timer::cancel() {
  if (loop_ != nullptr) loop_->cancel(key_);
}

Loop::Loop(Clocks clocks) : clocks_(std::move(clocks)) {
  check(uv_loop_init(&uv_), "uv_loop_init");
  uv_.data = this;
  wake_ = std::make_unique<Wake>(*this);
  auto due_now = std::make_unique<uv_idle_t>();
  check(uv_idle_init(&uv_, due_now.get()), "uv_idle_init");
  due_now->data = this;
  due_now_.reset(due_now.release());
  auto before_wait = std::make_unique<uv_prepare_t>();
  check(uv_prepare_init(&uv_, before_wait.get()), "uv_prepare_init");
  before_wait->data = this;
  before_wait_.reset(before_wait.release());
  check(uv_prepare_start(before_wait_.get(),
                         [](uv_prepare_t* handle) {
                           if (handle->data != nullptr)
                             static_cast<Loop*>(handle->data)->begin_wait();
                         }),
        "uv_prepare_start");
  uv_unref(reinterpret_cast<uv_handle_t*>(before_wait_.get()));
  sweep_.emplace(*this, [this] { sweep(); });
}

Loop::~Loop() {
  sweep();
  sweep_.reset();
  wake_.reset();
  due_now_.reset();
  before_wait_.reset();
  terminate_.reset();
  interrupt_.reset();
  uv_run(&uv_, UV_RUN_NOWAIT);  // the close callbacks free the handles
  uv_loop_close(&uv_);  // busy only while a name lookup hangs: the process is about to end then
}

Timer Loop::call_in(double delay, Callback callback) {
  const double seconds = delay > 0 ? std::fmin(delay, LONGEST_DELAY_SECONDS) : 0;
  const auto wait = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(seconds));
  const Timer::Key key{clocks_.monotonic() + wait, ++timers_made_};
  timers_.emplace(key, std::move(callback));
  wake_at_first_due();
  return {*this, key};
}

/// The alarm wakes the loop when the first timer is due. It is only ever moved to an earlier
/// moment: cancelling leaves it alone, and a wake-up that finds nothing due sets it again. What is
/// due already waits for the next iteration, so that descriptors have theirs.
/// An alarm that cannot be set is tried again on the next iteration.
void Loop::wake_at_first_due() noexcept {
  if (timers_.empty()) return wake_->stop();
  if (timers_.begin()->first.due >= wake_due_) return;
  wake_due_ = timers_.begin()->first.due;
  const auto wait = wake_due_ - clocks_.monotonic();
  if (wait.count() > 0 && wake_->set(wait)) return;
  uv_idle_start(due_now_.get(), [](uv_idle_t* handle) {
    if (handle->data != nullptr) static_cast<Loop*>(handle->data)->run_due_timers();
  });
}

void Loop::end_work() noexcept {
  if (work_began_ == 0) return;
  uv_update_time(&uv_);
  iterations_.note(uv_now(&uv_), uv_now(&uv_) - work_began_);
  work_began_ = 0;
}

/// Before libuv waits. It calls nobody when it has waited: the first callback ends the wait.
void Loop::begin_wait() noexcept {
  static constinit profile::Site site{__FILE__, __LINE__, "wait"};
  end_work();
  if (profile::active != nullptr) waiting_.emplace(site);
}

void Loop::run_due_timers() {
  begin_work();
  PROFILE_SCOPE();
  uv_idle_stop(due_now_.get());
  wake_due_ = std::chrono::steady_clock::time_point::max();
  const auto now = clocks_.monotonic();
  const auto last = timers_made_;  // what a callback arms waits for the next iteration
  for (auto next = timers_.begin(); next != timers_.end() && next->first.due <= now;) {
    if (next->first.number > last) {
      ++next;
      continue;
    }
    auto timer = timers_.extract(next);
    guarded(timer.mapped());
    next = timers_.begin();  // the callback may have armed and cancelled others
  }
  wake_at_first_due();
}

void Loop::run() {
  interrupted_ = false;
  uv_run(&uv_, UV_RUN_DEFAULT);
  waiting_.reset();
  end_work();
  if (std::exchange(interrupted_, false)) throw KeyboardInterrupt();
}

void Loop::stop() { uv_stop(&uv_); }

void Loop::run_once() {
  run_due_timers();
  uv_run(&uv_, UV_RUN_NOWAIT);
  waiting_.reset();
  end_work();
}

void Loop::watch_signals() {
  const auto watch = [this](int number, uv_signal_cb callback) {
    auto handle = std::make_unique<uv_signal_t>();
    check(uv_signal_init(&uv_, handle.get()), "uv_signal_init");
    handle->data = this;
    UvHandle<uv_signal_t> owned(handle.release());
    check(uv_signal_start(owned.get(), callback, number), "uv_signal_start");
    uv_unref(reinterpret_cast<uv_handle_t*>(owned.get()));
    return owned;
  };
  terminate_ = watch(SIGTERM, [](uv_signal_t* handle, int) {
    if (handle->data != nullptr) static_cast<Loop*>(handle->data)->stop();
  });
  interrupt_ = watch(SIGINT, [](uv_signal_t* handle, int) {
    if (handle->data == nullptr) return;
    auto* loop = static_cast<Loop*>(handle->data);
    loop->interrupted_ = true;
    loop->stop();
  });
}

void Loop::report(const std::exception& failure) noexcept {
  try {
    if (failure_handler_) failure_handler_(failure);
  } catch (...) {  // NOLINT: a failing report has nowhere left to go, and the loop goes on
  }
}

void Loop::discard(std::unique_ptr<LoopOwned> object) noexcept {
  object->next_discarded = std::move(discarded_);
  discarded_ = std::move(object);
  sweep_->arm();
}

/// One by one: a chain that destroys itself takes a stack frame for each object.
void Loop::sweep() noexcept {
  auto object = std::move(discarded_);
  while (object) object = std::move(object->next_discarded);
}

struct Poll::Handle : uv_poll_t {
  int watched = 0;  ///< asking for the same again would cost a system call
};

Poll::~Poll() = default;

void Poll::close() noexcept { handle_.reset(); }

Poll::Poll(Loop& loop, int descriptor, PollTarget& target) {
  auto handle = std::make_unique<Handle>();
  check(uv_poll_init(loop.uv(), handle.get(), descriptor), "uv_poll_init");
  handle->data = &target;
  handle_.reset(handle.release());
}

void Poll::watch(int events) {
  if (events == handle_->watched) return;
  handle_->watched = events;
  if (events == 0) {
    check(uv_poll_stop(handle_.get()), "uv_poll_stop");
  } else {
    start(*handle_, events);
  }
}

void Poll::start(Handle& handle, int events) {
  check(uv_poll_start(&handle, events, &Poll::on_events), "uv_poll_start");
}

void Poll::on_events(uv_poll_t* uv, int status, int events) noexcept {
  if (uv->data == nullptr) return;
  auto* loop = static_cast<Loop*>(uv->loop->data);
  loop->begin_work();
  loop->guarded([=]() mutable {
    if (status < 0) {
      // The peer reset the connection, and libuv has stopped the handle. What came before is still
      // to be read, which may take more than one iteration; reading tells the error at last.
      auto& handle = *static_cast<Handle*>(uv);
      start(handle, handle.watched);
      events = UV_READABLE | UV_WRITABLE;
    }
    static_cast<PollTarget*>(uv->data)->handle_events(events);
  });
}

EndOfIterationTask::EndOfIterationTask(Loop& loop, std::function<void()> callback)
    : loop_(loop), callback_(std::move(callback)) {
  auto check_handle = std::make_unique<uv_check_t>();
  check(uv_check_init(loop.uv(), check_handle.get()), "uv_check_init");
  check_handle->data = this;
  check_.reset(check_handle.release());
  auto idle_handle = std::make_unique<uv_idle_t>();
  check(uv_idle_init(loop.uv(), idle_handle.get()), "uv_idle_init");
  idle_.reset(idle_handle.release());
}

void EndOfIterationTask::arm() noexcept {
  uv_check_start(check_.get(), [](uv_check_t* handle) {
    if (handle->data != nullptr) static_cast<EndOfIterationTask*>(handle->data)->run();
  });
  uv_idle_start(idle_.get(), [](uv_idle_t*) {});
}

void EndOfIterationTask::run() noexcept {
  uv_check_stop(check_.get());
  uv_idle_stop(idle_.get());
  loop_.begin_work();
  loop_.guarded(callback_);
}

namespace loops {
Loop& loop() {
  static Loop shared;
  return shared;
}
}  // namespace loops

}  // namespace skein
