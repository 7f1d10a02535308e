#include "pelorus/pelorus/influx/influx_database.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "pelorus/pelorus/influx/influx_http_request.h"
#include "pelorus/pelorus/log.h"

namespace pelorus {

InfluxDatabase::InfluxDatabase(std::string name, const BufferSettings& settings,
                               const InfluxConnection& connection, skein::Loop& loop)
    : InfluxDatabase(std::move(name), settings, loop, [&connection, &loop](InfluxDatabase& self) {
        auto request = std::make_unique<InfluxHTTPRequest>(self.name(), self, connection, loop);
        const auto* view = request.get();
        loop.keep(std::move(request));
        return view;
      }) {}

InfluxDatabase::InfluxDatabase(std::string name, const BufferSettings& settings, skein::Loop& loop,
                               MakeRequest make_request)
    : name_(std::move(name)),
      settings_(settings),
      loop_(loop),
      make_request_(std::move(make_request)),
      last_sent_time_(loop.clocks().wall()) {}

InfluxDatabase::~InfluxDatabase() { stop_process_data_timer(); }

void InfluxDatabase::add(std::string message) {
  const std::size_t bytes = message.size();
  pending_data_.push_back(std::move(message));
  counters_.queued += {1, bytes};
  process_data();
}

void InfluxDatabase::process_data() {
  // Kept: a request leaves the timer alone, whether armed or not. One more look during a write does
  // no harm, and without one the next add looks.
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
  if (loop_.now().wall - last_sent_time_ > settings_.max_buffer_time) return true;
  return pending_data_.size() >= settings_.ideal_queued_messages;
}

bool InfluxDatabase::should_drop_data() const {
  return pending_data_.size() >= settings_.max_pending_messages;
}

void InfluxDatabase::send_request() { current_request_ = make_request_(*this); }

std::string InfluxDatabase::get_data() {
  std::string data;
  for (const std::string& message : take_batch()) (data += message) += '\n';
  if (!data.empty()) data.pop_back();
  return data;
}

std::deque<std::string> InfluxDatabase::take_batch() {
  const Amount taken = amount_of(std::min(settings_.max_batch_size, pending_data_.size()));
  const auto end = pending_data_.begin() + static_cast<std::ptrdiff_t>(taken.messages);
  std::deque<std::string> batch(std::move_iterator(pending_data_.begin()), std::move_iterator(end));
  pending_data_.erase(pending_data_.begin(), end);
  counters_.queued -= taken;
  counters_.in_flight += taken;
  counters_.largest_body = std::max(counters_.largest_body, joined_bytes(taken));
  return batch;
}

void InfluxDatabase::discard_old_data() {
  log::warning("Queue filled up, discarding data");
  const auto count = std::min(settings_.discard_size, pending_data_.size());
  const Amount dropped = amount_of(count);
  counters_.queued -= dropped;
  counters_.discarded += dropped;
  pending_data_.erase(pending_data_.begin(),
                      pending_data_.begin() + static_cast<std::ptrdiff_t>(count));
}

/// Every message puts the look off. Only its moment moves: the timer that is armed stays, and waits
/// for the rest when it fires before that moment.
void InfluxDatabase::reset_process_data_timer() {
  const auto now = loop_.now().monotonic;
  look_again_ = now + std::chrono::duration_cast<Moment::duration>(
                          std::chrono::duration<double>(settings_.check_for_process_data_time));
  if (!timer_armed_) arm_process_data_timer(now);
}

void InfluxDatabase::arm_process_data_timer(Moment now) {
  process_data_timer_ = loop_.call_in(look_again_ - now, [this] {
    timer_armed_ = false;
    const auto fired = loop_.clocks().monotonic();
    fired < look_again_ ? arm_process_data_timer(fired) : process_data();
  });
  timer_armed_ = true;
}

void InfluxDatabase::stop_process_data_timer() {
  process_data_timer_.cancel();
  timer_armed_ = false;
}

void InfluxDatabase::handle_success() {
  if (failure_count_ != 0) log::info("Connected to InfluxDB API ({} database)", name_);
  failure_count_ = 0;
  last_sent_time_ = loop_.clocks().wall();
  counters_.sent += std::exchange(counters_.in_flight, {});
  current_request_ = nullptr;
}

void InfluxDatabase::handle_failure() {
  ++failure_count_;
  counters_.failed += std::exchange(counters_.in_flight, {});
  current_request_ = nullptr;
}

void InfluxDatabase::note_failure(std::string text, std::optional<std::string_view> answer) {
  counters_.last_failure = {loop_.clocks().wall(), std::move(text)};
  if (!answer) return;
  if (const auto dropped = dropped_points(*answer)) {
    ++counters_.partial_writes;
    counters_.dropped_points += *dropped;
  }
}

Amount InfluxDatabase::amount_of(std::size_t messages) const {
  Amount amount{messages, 0};
  for (std::size_t i = 0; i < messages; ++i) amount.bytes += pending_data_[i].size();
  return amount;
}

double InfluxDatabase::monotonic_seconds() const {
  const auto now = loop_.clocks().monotonic().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

std::int64_t InfluxDatabase::backlog() const noexcept {
  return static_cast<std::int64_t>(pending_data_.size() + counters_.discarded.messages);
}

void InfluxDatabase::sample_queue() { growth_.sample(monotonic_seconds(), backlog()); }

std::optional<double> InfluxDatabase::seconds_until_full() const {
  const auto growth = growth_.per_second(monotonic_seconds(), backlog());
  if (!growth || *growth <= 0) return std::nullopt;
  const auto room = static_cast<double>(settings_.max_pending_messages) -
                    static_cast<double>(pending_data_.size());
  return std::max(room, 0.0) / *growth;
}

void InfluxDatabase::handle_close() { current_request_ = nullptr; }

}  // namespace pelorus
