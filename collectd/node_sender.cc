#include "collectd/node_sender.h"

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>
#include <syslog.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace write_skein {
namespace {

/// A wait of the sender's thread while nothing is due.
constexpr std::chrono::hours LONGEST_WAIT{24};

/// Threads that are started while it exists take no signals.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

skein::Timeouts timeouts_of(const NodeSettings& settings) {
  return {.connect = settings.connect_timeout,
          .send = settings.send_timeout,
          .receive = settings.send_timeout};
}

}  // namespace

ErrorReporter::ErrorReporter(const std::string& node, Log log)
    : prefix_("node \"" + node + "\": "), log_(std::move(log)) {}

void ErrorReporter::failed(const std::string& reason, Clock::time_point now) {
  if (outage_) return;
  outage_ = now;
  log_(LOG_WARNING, prefix_ + reason + "; values are queued until it is back");
}

void ErrorReporter::answered(Loss loss, Clock::time_point now) {
  if (outage_) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - *outage_).count();
    log_(LOG_NOTICE, fmt::format("{}back after {} s; {} values ({} bytes) were dropped", prefix_,
                                 seconds, loss.values, loss.bytes));
    outage_.reset();
    return;
  }
  dropped_.values += loss.values;
  report(now);
}

void ErrorReporter::refused(const std::string& reason, std::size_t values, Clock::time_point now) {
  refused_.values += values;
  refusal_ = reason;
  report(now);
}

ErrorReporter::Clock::time_point ErrorReporter::due() const {
  return std::min(refused_.due(), dropped_.due());
}

void ErrorReporter::report(Clock::time_point now) {
  if (refused_.due() <= now) say_refused(now);
  if (dropped_.due() <= now) say_dropped(now);
}

std::size_t ErrorReporter::Unreported::take(Clock::time_point now) {
  next_line = now + REPEAT;
  return std::exchange(values, 0);
}

void ErrorReporter::say_refused(Clock::time_point now) {
  log_(LOG_WARNING, fmt::format("{}the server refused {} values, they are lost: {}", prefix_,
                                refused_.take(now), refusal_));
}

void ErrorReporter::say_dropped(Clock::time_point now) {
  log_(LOG_WARNING, fmt::format("{}{}{} values were dropped from a full queue", prefix_,
                                outage_ ? "" : "too slow: ", dropped_.take(now)));
}

void ErrorReporter::stopped(Loss unsent, Loss dropped, const std::string& reason) {
  dropped_.values += dropped.values;
  report(Clock::time_point::max() - REPEAT);  // whatever is left, before its time
  if (unsent.values == 0) return;
  log_(LOG_WARNING, fmt::format("{}{} values ({} bytes) could not be sent before the end: {}",
                                prefix_, unsent.values, unsent.bytes, reason));
}

NodeSender::NodeSender(NodeSettings settings, Clock::duration max_age, Log log)
    : settings_(std::move(settings)),
      client_(settings_.endpoint, timeouts_of(settings_)),
      errors_(settings_.name, std::move(log)),
      backoff_(std::random_device()()),
      queue_(settings_.queue_limit, max_age) {}

NodeSender::~NodeSender() { stop(Clock::duration::zero()); }

void NodeSender::start() {
  const SignalsBlocked blocked;
  thread_ = std::thread([this] { run(); });
}

void NodeSender::add(std::string_view lines) {
  const std::lock_guard lock(mutex_);
  const auto before = queue_.due();
  queue_.add(lines, Clock::now());
  if (queue_.due() != before) changed_.notify_one();
}

void NodeSender::flush(Clock::duration age) {
  const std::lock_guard lock(mutex_);
  queue_.flush(age, Clock::now());
  changed_.notify_one();
}

void NodeSender::begin_stop() {
  const std::lock_guard lock(mutex_);
  stopping_ = true;
  changed_.notify_one();
}

void NodeSender::stop(Clock::duration grace) {
  if (!thread_.joinable()) return;
  begin_stop();
  {
    std::unique_lock lock(mutex_);
    finished_.wait_for(lock, grace, [this] { return ended_; });
  }
  client_.cancel();
  thread_.join();
  client_.close();
  errors_.stopped(queue_.waiting(), queue_.take_loss(), last_failure_);
}

void NodeSender::run() {
  while (auto block = next_block()) deliver(std::move(*block));
  const std::lock_guard lock(mutex_);
  ended_ = true;
  finished_.notify_one();
}

std::optional<Block> NodeSender::next_block() {
  std::unique_lock lock(mutex_);
  while (!last_attempt_failed_) {
    const auto due = queue_.due();
    const auto now = Clock::now();
    if (due && (stopping_ || *due <= now)) return queue_.take();
    if (stopping_) return std::nullopt;
    if (errors_.due() <= now) {
      lock.unlock();
      errors_.report(now);
      lock.lock();
      continue;
    }
    // Far in the future, but not so far that the wait overflows.
    const auto wake = std::min(due.value_or(now + LONGEST_WAIT), errors_.due());
    changed_.wait_until(lock, wake);
  }
  return std::nullopt;
}

void NodeSender::deliver(Block block) {
  try {
    send(block);
  } catch (const std::exception& failure) {
    client_.close();
    last_failure_ = failure.what();
    return retry_later(std::move(block));
  }
  backoff_.reset();
  std::unique_lock lock(mutex_);
  queue_.delivered();
  const Loss loss = queue_.take_loss();
  lock.unlock();
  errors_.answered(loss, Clock::now());
}

void NodeSender::send(const Block& block) {
  skein::MsgpackWriter args;
  args.map(settings_.key.empty() ? 1 : 2);
  if (!settings_.key.empty()) args.text("key").text(settings_.key);
  args.text("metrics").text(block.lines);
  if (settings_.reconnect_interval > Clock::duration::zero() &&
      Clock::now() - opened_at_ >= settings_.reconnect_interval) {
    client_.close();
  }
  const bool was_open = client_.is_open();
  try {
    if (!was_open) {
      client_.open();
      opened_at_ = Clock::now();
    }
    client_.call("collectd", args);
  } catch (const skein::ClientError& error) {
    if (error.kind() == skein::ClientError::Kind::SERVER) {
      return errors_.refused(error.what(), block.values, Clock::now());
    }
    // The server may have been restarted since the last block: reconnect and report nothing.
    if (!was_open || error.kind() != skein::ClientError::Kind::LOST) throw;
    send(block);
  }
}

void NodeSender::retry_later(Block block) {
  const auto now = Clock::now();
  std::unique_lock lock(mutex_);
  queue_.put_back(std::move(block));
  // At the end there is only one attempt.
  last_attempt_failed_ = stopping_;
  if (last_attempt_failed_) return;
  lock.unlock();
  errors_.failed(last_failure_, now);
  lock.lock();
  changed_.wait_until(lock, now + backoff_.next(), [this] { return stopping_; });
}

}  // namespace write_skein
