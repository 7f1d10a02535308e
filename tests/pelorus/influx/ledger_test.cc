#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "pelorus/influx/stand_in.h"
#include "pelorus/pelorus/influx/influx_database.h"
#include "support/body_of.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/skein_peer.h"
#include "support/turn_until.h"

namespace pelorus {
namespace {

constexpr int MESSAGES = 2000;
constexpr unsigned SEEDS = 20;
constexpr std::size_t MESSAGE_BYTES = 100;

/// "m n=0000017 xxx…": so long that what a fault cuts off can be told.
std::string message(int number) {
  std::string text = fmt::format("m n={:07} ", number);
  text.resize(MESSAGE_BYTES, 'x');
  return text;
}

/// The numbers of the whole messages in a body, or in the beginning of one.
std::vector<int> numbers_in(std::string_view body) {
  std::vector<int> numbers;
  for (; body.size() >= MESSAGE_BYTES;
       body.remove_prefix(std::min(MESSAGE_BYTES + 1, body.size()))) {
    int number = -1;
    std::from_chars(body.data() + 4, body.data() + 11, number);
    numbers.push_back(number);
  }
  return numbers;
}

/// What the endpoint does with one connection.
struct Script {
  enum Reads { NOTHING, A_PART, ALL } reads;
  std::string_view answer;  ///< goes out byte by byte
  enum End { STAYS, CLOSES, RESETS } end;
};
constexpr std::string_view NO_CONTENT = "HTTP/1.1 204 No Content\r\n\r\n";
constexpr std::array<Script, 13> SCRIPTS{{
    {Script::ALL, NO_CONTENT, Script::STAYS},
    {Script::ALL, NO_CONTENT, Script::CLOSES},
    {Script::ALL, NO_CONTENT, Script::RESETS},
    {Script::ALL, "HTTP/1.1 204 No Con", Script::CLOSES},
    {Script::ALL, "HTTP/1.1 400 Bad Request\r\nContent-Length: 2\r\n\r\n{}", Script::STAYS},
    {Script::ALL, "HTTP/1.1 500 Oh\r\n\r\nuntil the close", Script::CLOSES},
    {Script::ALL, "220 mail\r\n", Script::STAYS},
    {Script::ALL, "", Script::STAYS},
    {Script::ALL, "", Script::CLOSES},
    {Script::ALL, "", Script::RESETS},
    {Script::A_PART, "", Script::RESETS},
    {Script::NOTHING, "", Script::RESETS},
    {Script::NOTHING, "HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n", Script::STAYS},
}};

/// The endpoint's side of one connection.
class Conversation {
 public:
  Conversation(skein::Socket socket, const Script& script)
      : socket_(std::move(socket)), script_(script) {}

  /// False once it is over.
  bool step() {
    if (!has_enough()) read();
    if (!has_enough()) return !gone_;
    if (answered_ == script_.answer.size()) return script_.end == Script::STAYS && read();
    const auto sent = ::send(socket_.descriptor(), &script_.answer[answered_], 1, MSG_NOSIGNAL);
    answered_ += sent == 1 ? 1 : 0;
    return sent == 1;
  }

  void end() {
    if (script_.end == Script::RESETS) support::reset(socket_);
    socket_ = {};
  }

  std::vector<int> arrived() const {
    const auto body = received_.find(BODY);
    return numbers_in(body == received_.npos ? "" : received_.substr(body + BODY.size()));
  }
  bool acknowledged() const {
    return script_.answer == NO_CONTENT && answered_ == NO_CONTENT.size();
  }

 private:
  static constexpr std::string_view BODY = "\r\n\r\n";
  static constexpr std::string_view LENGTH = "Content-Length: ";

  bool has_enough() const {
    const auto body = received_.find(BODY);
    if (script_.reads == Script::NOTHING || body == received_.npos) {
      return script_.reads == Script::NOTHING;
    }
    if (script_.reads == Script::A_PART) return received_.size() > body + 3 * MESSAGE_BYTES;
    const auto length = std::stoul(received_.substr(received_.find(LENGTH) + LENGTH.size()));
    return received_.size() == body + BODY.size() + length;
  }

  /// All that has come, or a part; false when the far end has gone.
  bool read() {
    std::array<char, 256> buffer;
    ssize_t count = 1;
    while (count > 0 && !(script_.reads == Script::A_PART && has_enough())) {
      count = ::recv(socket_.descriptor(), buffer.data(), buffer.size(), 0);
      if (count > 0) received_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    gone_ = count == 0 || (count < 0 && errno != EAGAIN);
    return !gone_;
  }

  skein::Socket socket_;
  Script script_;
  std::string received_;
  std::size_t answered_ = 0;  ///< bytes of the answer that are out
  bool gone_ = false;
};

/// An endpoint that has a fault in store for most connections, and keeps a ledger of its own.
class FaultyEndpoint {
 public:
  explicit FaultyEndpoint(unsigned seed) : random_(seed) {}
  std::uint16_t port() const { return listening_.port(); }

  /// One step of every conversation.
  void serve() {
    while (auto accepted = listening_.accept()) {
      conversations_.emplace_back(std::move(accepted), SCRIPTS[random_() % SCRIPTS.size()]);
    }
    std::erase_if(conversations_, [this](Conversation& each) {
      if (each.step()) return false;
      for (const int number : each.arrived()) ++arrived[number];
      if (each.acknowledged()) acknowledged += each.arrived().size();
      each.end();
      return true;
    });
  }
  bool is_idle() const { return conversations_.empty(); }

  std::map<int, int> arrived;  ///< how often each message came
  std::size_t acknowledged = 0;

 private:
  support::StandIn listening_;
  std::minstd_rand random_;
  std::vector<Conversation> conversations_;
};

/// A buffer and its endpoint through 2,000 messages in bursts, with pauses.
struct Ledger {
  explicit Ledger(unsigned seed) : endpoint(seed), random(seed) {}

  void run() {
    for (int number = 0; number < MESSAGES;) {
      connection.port = random() % 8 == 0 ? refusing.port() : endpoint.port();
      for (auto burst = random() % 30; burst > 0 && number < MESSAGES; --burst) {
        database.add(message(number++));
      }
      for (auto steps = random() % 8; steps > 0; --steps)
        step(0.25 * static_cast<double>(random() % 8));
    }
    support::turn_until(loop, [this] {
      step(1);
      return !database.has_current_request() && endpoint.is_idle();
    });
    database.stop_process_data_timer();
  }

  void step(double seconds) {
    clock.tick(seconds);
    loop.turn();
    endpoint.serve();
  }

  /// As the log tells it.
  std::size_t lost() const {
    std::size_t messages = 0;
    for (const std::string& line : logs.texts("warning")) {
      const auto count = line.rfind("; ");
      if (line.ends_with(" bytes)")) messages += std::stoul(line.substr(count + 2));
    }
    return messages;
  }
  std::size_t discards() const {
    const auto count =
        std::ranges::count(logs.texts("warning"), "Queue filled up, discarding data");
    return static_cast<std::size_t>(count);
  }

  support::FakeClock clock;
  support::LogCapture logs;
  skein::Loop loop{clock.clocks()};
  FaultyEndpoint endpoint;
  support::StandIn refusing{support::StandIn::Mode::REFUSES};
  std::minstd_rand random;
  InfluxConnection connection{.auth = "c2VjcmV0",
                              .http_connection = "influx:8086",
                              .host = "127.0.0.1",
                              .port = endpoint.port()};
  BufferSettings settings{.max_pending_messages = 120,
                          .max_buffer_time = 2,
                          .ideal_queued_messages = 20,
                          .max_batch_size = 50,
                          .discard_size = 35};
  InfluxDatabase database{"x", settings, connection, loop};
};

TEST(Ledger, EveryMessageIsAcknowledgedLostDiscardedOrQueuedAndNoneIsSentTwice) {
  std::size_t acknowledged = 0, lost = 0, discarded = 0;
  for (unsigned seed = 1; seed <= SEEDS; ++seed) {
    SCOPED_TRACE(fmt::format("seed {}", seed));
    Ledger ledger(seed);
    ledger.run();
    const auto& counters = ledger.database.counters();
    EXPECT_EQ(ledger.endpoint.acknowledged, counters.sent.messages);
    EXPECT_EQ(ledger.lost(), counters.failed.messages);
    EXPECT_EQ(ledger.discards() * ledger.settings.discard_size, counters.discarded.messages);
    EXPECT_EQ(ledger.endpoint.acknowledged + ledger.lost() + counters.discarded.messages +
                  ledger.database.pending_data_len(),
              std::size_t{MESSAGES});
    for (const int number : numbers_in(support::body_of(ledger.database.get_data())))
      ++ledger.endpoint.arrived[number];
    for (const auto& [number, times] : ledger.endpoint.arrived) EXPECT_EQ(times, 1) << number;
    acknowledged += ledger.endpoint.acknowledged;
    lost += ledger.lost();
    discarded += counters.discarded.messages;
  }
  EXPECT_TRUE(acknowledged > 0 && lost > 0 && discarded > 0) << "every way was taken";
}

}  // namespace
}  // namespace pelorus
