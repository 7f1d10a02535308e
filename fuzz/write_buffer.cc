// A write buffer driven by operations, one byte each, beside a model of what it has to do.
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "support/body_of.h"
#include "support/fake_clock.h"

namespace fuzz {
namespace {

constexpr double QUARTER = 0.25;  // seconds: exact in both clocks

/// The buffer's rules, said once more.
struct Model {
  const pelorus::BufferSettings& settings;
  double now = 0;  // seconds of the monotonic clock
  double wall = 0;
  double last_sent = 0;
  std::deque<std::string> queue{};
  std::optional<double> timer{};
  bool writing = false;
  int requests = 0;
  std::int64_t failures = 0;
  std::size_t added = 0, dropped = 0, in_flight = 0, acknowledged = 0, lost = 0;

  void add(const std::string& message) {
    queue.push_back(message);
    ++added;
    decide();
  }
  void decide() {
    const bool due = wall - last_sent > settings.max_buffer_time ||
                     queue.size() >= settings.ideal_queued_messages;
    if (!writing && !queue.empty() && due) {
      writing = true;
      ++requests;
    } else {
      timer = now + 1;
    }
    if (queue.size() < settings.max_pending_messages) return;
    for (std::size_t i = 0; i < settings.discard_size && !queue.empty(); ++i, ++dropped) {
      queue.pop_front();
    }
  }
  void tick(double seconds) {
    now += seconds;
    wall += seconds;
    if (!timer || *timer > now) return;
    timer.reset();
    decide();
  }
  std::string pull() {
    std::string data;
    for (std::size_t i = 0; i < settings.max_batch_size && !queue.empty(); ++i, ++in_flight) {
      if (i > 0) data += '\n';
      data += queue.front();
      queue.pop_front();
    }
    return data;
  }
  void succeed() {
    writing = false;
    failures = 0;
    last_sent = wall;
    acknowledged += std::exchange(in_flight, 0);
  }
  void fail() {
    writing = false;
    ++failures;
    lost += std::exchange(in_flight, 0);
  }
};

class Run {
 public:
  explicit Run(std::string_view& input) {
    settings_ = {.max_pending_messages = 1U + take_byte(input) % 20U,
                 .max_buffer_time = QUARTER * (take_byte(input) % 40),
                 .ideal_queued_messages = take_byte(input) % 12U,
                 .max_batch_size = 1U + take_byte(input) % 8U,
                 .discard_size = 1U + take_byte(input) % 24U};
    model_.wall = model_.last_sent = clock_.clocks().wall();
  }

  void act(std::uint8_t byte) {
    const auto amount = byte / 9;  // 0 to 28
    switch (byte % 9) {
      case 0:
        return add(1);
      case 1:
        return add(amount);
      case 2:
        clock_.tick(QUARTER * amount);
        model_.tick(QUARTER * amount);
        return loop_.turn();
      case 3:  // the write's connection stands
        if (!model_.writing || pulled_) return;
        pulled_ = true;
        return require(support::body_of(database_.get_data()) == model_.pull(),
                       "the batch of the model");
      case 4:  // status 204
        if (!std::exchange(pulled_, false)) return;
        database_.handle_success();
        database_.handle_close();
        return model_.succeed();
      case 5:  // another status, or the connection ended early
        if (!std::exchange(pulled_, false)) return;
        database_.handle_failure();
        database_.handle_close();
        return model_.fail();
      case 6:  // no connection
        if (!model_.writing || pulled_) return;
        database_.handle_close();
        database_.handle_failure();
        return model_.fail();
      case 7:
        database_.stop_process_data_timer();
        return model_.timer.reset();
      default:  // the wall clock is set
        model_.wall += 3600.0 * (amount - 14);
        return clock_.set_wall(model_.wall);
    }
  }

  void compare() const {
    require(database_.pending_data_len() == model_.queue.size(), "the queue of the model");
    require(database_.has_current_request() == model_.writing, "a write when, and only when, due");
    require(requests_ == model_.requests, "as many writes as the model's");
    require(database_.failure_count() == model_.failures, "the failures of the model");
    require(database_.last_sent_time() == model_.last_sent, "the time of the last success");
    const auto& counted = database_.counters();
    require(counted.queued.messages == model_.queue.size() &&
                counted.in_flight.messages == model_.in_flight &&
                counted.sent.messages == model_.acknowledged &&
                counted.failed.messages == model_.lost &&
                counted.discarded.messages == model_.dropped,
            "the counters of the model");
    require(model_.added == model_.queue.size() + model_.in_flight + model_.acknowledged +
                                model_.lost + model_.dropped,
            "every message is accounted for");
  }

 private:
  void add(int count) {
    for (int i = 0; i < count; ++i) {
      const auto message = std::to_string(model_.added);
      database_.add(message);
      model_.add(message);
    }
  }

  support::FakeClock clock_;
  skein::Loop loop_{clock_.clocks()};
  pelorus::BufferSettings settings_;
  Model model_{settings_};
  int requests_ = 0;
  bool pulled_ = false;  ///< the write in flight has taken its batch
  pelorus::InfluxDatabase database_{"x", settings_, loop_, [this](pelorus::InfluxDatabase&) {
                                      ++requests_;
                                      return std::make_unique<pelorus::InfluxDatabase::Request>();
                                    }};
};

}  // namespace

void run(std::string_view input) {
  Run run(input);
  while (!input.empty()) {
    run.act(take_byte(input));
    run.compare();
  }
}

}  // namespace fuzz
