#include "pelorus/pelorus/influx/influx_database.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include "pelorus/pelorus/influx/influx_http_request.h"
#include "pelorus/pelorus/log.h"
#include "skein/profile_scope.h"

namespace pelorus {
namespace {

/// Between two log lines about failed writes that lost nothing.
constexpr std::chrono::seconds IDLE_FAILURE_INTERVAL{10};

}  // namespace

Batch::Batch(Messages::iterator begin, Messages::iterator end, const Amount& amount)
    : messages_(std::move_iterator(begin), std::move_iterator(end)),
      unjoined_(amount),
      amount_(amount) {}

std::size_t Batch::data_length() const noexcept {
  return amount_.bytes + (amount_.messages == 0 ? 0 : amount_.messages - 1);
}

void Batch::append_slice(std::string& buffer, std::size_t size) {
  while (!messages_.empty() && buffer.size() < size) {
    buffer += messages_.front();
    unjoined_ -= {1, messages_.front().size()};
    messages_.pop_front();
    if (!messages_.empty()) buffer += '\n';
  }
}

InfluxDatabase::InfluxDatabase(std::string name, const BufferSettings& settings,
                               const InfluxConnection& connection, skein::Loop& loop)
    : InfluxDatabase(std::move(name), settings, loop, [&connection, &loop](InfluxDatabase& self) {
        return std::make_unique<InfluxHTTPRequest>(self.name(), self, connection, loop);
      }) {}

InfluxDatabase::InfluxDatabase(std::string name, const BufferSettings& settings, skein::Loop& loop,
                               MakeRequest make_request)
    : name_(std::move(name)),
      settings_(settings),
      loop_(loop),
      make_request_(std::move(make_request)),
      idle_failures_(IDLE_FAILURE_INTERVAL),
      last_sent_time_(loop.clocks().wall()),
      last_sent_(loop.clocks().monotonic()) {}

InfluxDatabase::~InfluxDatabase() { stop_process_data_timer(); }

void InfluxDatabase::add(std::string message) {
  const std::size_t bytes = message.size();
  pending_data_.push_back(std::move(message));
  counters_.queued += {1, bytes};
  loop_.guarded([this] { process_data(); });  // the message is queued: it must not be added again
}

void InfluxDatabase::process_data() {
  PROFILE_SCOPE();
  // Kept: a request leaves the timer alone, whether armed or not. A timer that fires during a write
  // does no harm, and without a timer the next add decides.
  if (should_send()) {
    send_request();
  } else {
    reset_process_data_timer();
  }
  if (should_drop_data()) discard_old_data();
}

bool InfluxDatabase::should_send() const {
  if (current_request_ != nullptr) return false;
  if (pending_data_.empty()) return false;
  const std::chrono::duration<double> since = loop_.now() - last_sent_;
  if (since.count() > settings_.max_buffer_time) return true;
  return pending_data_.size() >= settings_.ideal_queued_messages;
}

bool InfluxDatabase::should_drop_data() const {
  return pending_data_.size() >= settings_.max_pending_messages;
}

/// A request that cannot be made counts as a failed one: its messages stay queued, and the caller
/// of add() gets no exception, since its message is queued.
void InfluxDatabase::send_request() {
  try {
    request_ = make_request_(*this);
    current_request_ = request_.get();
  } catch (const std::exception& failure) {
    handle_failure();
    loop_.report(failure);
    note_failure(failure.what());
  }
}

Batch InfluxDatabase::get_data() {
  const Amount taken = amount_of(std::min(settings_.max_batch_size, pending_data_.size()));
  const auto end = pending_data_.begin() + static_cast<std::ptrdiff_t>(taken.messages);
  Batch batch(pending_data_.begin(), end, taken);
  pending_data_.erase(pending_data_.begin(), end);
  shortest_ = std::min(shortest_, length_with_discarded());
  counters_.queued -= taken;
  counters_.in_flight += taken;
  counters_.largest_body = std::max<std::uint64_t>(counters_.largest_body, batch.data_length());
  return batch;
}

void InfluxDatabase::discard_old_data() { discard(settings_.discard_size); }

void InfluxDatabase::discard_bytes(std::uint64_t bytes) {
  Amount dropped;
  while (dropped.memory() < bytes && dropped.messages < pending_data_.size()) {
    dropped += {1, pending_data_[dropped.messages].size()};
  }
  discard(dropped.messages);
}

void InfluxDatabase::discard(std::size_t count) {
  log::warning("Queue filled up, discarding data");
  const Amount dropped = amount_of(std::min(count, pending_data_.size()));
  counters_.queued -= dropped;
  counters_.discarded += dropped;
  pending_data_.erase(pending_data_.begin(),
                      pending_data_.begin() + static_cast<std::ptrdiff_t>(dropped.messages));
}

/// Every message moves the due time. The timer that is armed stays, so that a message costs no
/// timer; when the timer fires too early, it is armed again for the rest.
void InfluxDatabase::reset_process_data_timer() {
  const auto now = loop_.now();
  process_data_due_ =
      now + std::chrono::duration_cast<TimePoint::duration>(
                std::chrono::duration<double>(settings_.check_for_process_data_time));
  if (!timer_armed_) arm_process_data_timer(now);
}

void InfluxDatabase::arm_process_data_timer(TimePoint now) {
  process_data_timer_ = loop_.call_in(process_data_due_ - now, [this] {
    timer_armed_ = false;
    const auto fired = loop_.clocks().monotonic();
    fired < process_data_due_ ? arm_process_data_timer(fired) : process_data();
  });
  timer_armed_ = true;
}

void InfluxDatabase::stop_process_data_timer() {
  process_data_timer_.cancel();
  timer_armed_ = false;
}

void InfluxDatabase::handle_success() {
  const bool recovered = std::exchange(failure_count_, 0) != 0;
  last_sent_time_ = loop_.clocks().wall();
  last_sent_ = loop_.clocks().monotonic();
  counters_.sent += std::exchange(counters_.in_flight, {});
  current_request_ = nullptr;
  idle_failures_.reset();
  if (recovered) log::info("Connected to InfluxDB API ({} database)", name_);
}

void InfluxDatabase::handle_failure() noexcept {
  ++failure_count_;
  counters_.failed += std::exchange(counters_.in_flight, {});
  current_request_ = nullptr;
}

void InfluxDatabase::handle_partial_write(std::optional<std::uint64_t> dropped_points) noexcept {
  counters_.partial += std::exchange(counters_.in_flight, {});
  ++counters_.partial_writes;
  counters_.dropped_points += dropped_points.value_or(0);
  if (!dropped_points) ++counters_.unknown_drops;
  handle_failure();  // nothing is in flight any more
}

void InfluxDatabase::handle_close() noexcept { current_request_ = nullptr; }

void InfluxDatabase::note_failure(std::string text) {
  counters_.last_failure = {loop_.clocks().wall(), std::move(text)};
}

std::optional<std::uint64_t> InfluxDatabase::pass_idle_failure() noexcept {
  return idle_failures_.pass(loop_.clocks().monotonic());
}

Amount InfluxDatabase::amount_of(std::size_t messages) const {
  Amount amount{messages, 0};
  for (std::size_t i = 0; i < messages; ++i) amount.bytes += pending_data_[i].size();
  return amount;
}

/// Discarded messages count, so that a full queue that keeps overflowing still counts as growing.
std::uint64_t InfluxDatabase::length_with_discarded() const {
  return pending_data_.size() + counters_.discarded.messages;
}

void InfluxDatabase::sample_queue() noexcept {
  shortest_lengths_[samples_taken_++ % SAMPLES] = std::min(shortest_, length_with_discarded());
  shortest_ = length_with_discarded();
}

// A queue that is written in time rises and falls. Only if it really grows, its shortest length of
// the last half minute lies above that of the half minute before:
//
//     length      /| /| /|        written in time       /|/   grows
//                / |/ |/ |/                         /|/
//     shortest  0       0                       /|/   5     12
double InfluxDatabase::growth() const {
  if (samples_taken_ < SAMPLES) return 0;
  const auto shortest_of_half = [this](std::size_t begin) {
    std::uint64_t shortest = shortest_lengths_[(samples_taken_ + begin) % SAMPLES];
    for (std::size_t i = begin + 1; i < begin + HALF; ++i) {
      shortest = std::min(shortest, shortest_lengths_[(samples_taken_ + i) % SAMPLES]);
    }
    return shortest;
  };
  const std::uint64_t before = shortest_of_half(0);
  const std::uint64_t now = shortest_of_half(HALF);
  return now <= before ? 0 : static_cast<double>(now - before) / (HALF * SAMPLE_INTERVAL);
}

double InfluxDatabase::memory_growth() const {
  const Amount& queued = counters_.queued;
  if (queued.messages == 0) return 0;
  return growth() * static_cast<double>(queued.memory()) / static_cast<double>(queued.messages);
}

std::optional<double> InfluxDatabase::seconds_until_full(double seconds) const {
  const double per_second = growth();
  if (per_second == 0) return std::nullopt;
  const auto room = static_cast<double>(settings_.max_pending_messages) -
                    static_cast<double>(pending_data_.size());
  seconds = std::min(seconds, std::max(room, 0.0) / per_second);
  return seconds < LONGEST_FORECAST ? std::optional(seconds) : std::nullopt;
}

}  // namespace pelorus
