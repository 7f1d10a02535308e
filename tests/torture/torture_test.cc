#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "pelorus/listen/listener_fixture.h"
#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/local_server.h"
#include "pelorus/pelorus/listen/node_server.h"
#include "skein/resources.h"
#include "support/failing_call.h"
#include "support/http_server.h"

// A session with the whole daemon in which one allocation or system call fails, or thirty in a row:
// whichever it is, nothing is left behind but a failed request or write. Afterwards the same key is
// served, both databases are written, and each message is in one account.
namespace pelorus {
namespace {

constexpr const char* LINE = "node7.load.load.a 1 1500000000\n";

class Torture : public ListenerTest {
 protected:
  Torture() {
    buffer_settings_ = {.max_pending_messages = 1000,
                        .max_buffer_time = 0.1,
                        .ideal_queued_messages = 2,
                        .max_batch_size = 1000,
                        .discard_size = 10};
    connection_.port = influx_.port();
  }

  static std::string confirm(const std::string& question) {
    const std::string key = question.substr(std::string_view("key=").size());
    const std::string body = "{\"key\": \"" + (key == "unknown" ? "" : key) + "\"}";
    return fmt::format("HTTP/1.1 200 OK\r\nContent-Length: {}\r\n\r\n{}", body.size(), body);
  }

  void run_loop(int count) {
    for (int i = 0; i < count; ++i) {
      clock_.tick(0.02);
      {
        const support::FailingCall::Scope under_test;
        loop_.run_once();
      }
      if (web_answers_) {
        for (const auto& [peer, body] : web_.requests()) support::answer(*peer, confirm(body));
      }
      for (const auto& write : influx_.requests()) {
        support::answer(*write.peer, "HTTP/1.1 204 No Content\r\n\r\n");
      }
    }
  }

  support::SkeinPeer node() {
    return support::SkeinPeer::tcp(support::bound_port(node_server_.socket()));
  }
  support::SkeinPeer local() { return support::SkeinPeer::unix_socket(socket_path()); }
  static std::string block(const std::string& key) {
    return support::request(1, "collectd", {{"key", key}, {"metrics", LINE}});
  }

  /// Nodes of one key that send all there is, one that goes, one without a good key, collectd, and
  /// an operator.
  void session(const std::string& key) {
    auto first = node();
    auto operators = local();
    run_loop(3);
    first.send_now(block(key) + block(key) + submit(key, 1100));
    auto collectd = local();
    collectd.send_now(support::request(1, "collectd", {{"metrics", "a bad line\nhalf a li"}}));
    auto refused = node();
    refused.send_now(block("unknown") + support::request(2, "none"));
    {
      auto leaves = node();
      run_loop(2);
      leaves.send_now(block(key));
      run_loop(2);
    }
    auto second = node();
    second.send_now(block(key));
    operators.send_now(support::request(1, "status") + support::request(2, "stats"));
    run_loop(10);
    second.send_now(
        support::request(3, "add", {{"key", key}, {"database", "bonding"}, {"data", "m v=1 1\n"}}) +
        support::request(4, "add", {{"key", key}, {"database", "no"}, {"data", ""}}));
    collectd.send_now(support::request(2, "collectd", {{"metrics", std::string("ne\n") + LINE}}));
    run_loop(10);
    for (auto* peer : {&first, &second, &collectd}) {
      const std::string replies = peer->replies();
      acknowledged_ += static_cast<std::uint64_t>(std::ranges::count(replies, '='));
    }
  }

  /// As many requests of one key wait as may, while the web server does not answer. Then one comes
  /// more, and blocks that take several steps.
  std::vector<support::SkeinPeer> crowd() {
    std::vector<support::SkeinPeer> peers;
    web_answers_ = false;
    for (std::size_t i = 0; i < MAX_UNCONFIRMED_REQUESTS; ++i) {
      peers.push_back(node());
      peers.back().send(block("unknown"));
    }
    run_loop(3);
    return peers;
  }
  void session_beside_crowd() {
    auto refused = node();
    auto known = node();
    auto collectd = local();
    refused.send_now(block("unknown"));
    std::string long_block;
    for (int i = 0; i < 20'000; ++i) long_block += LINE;
    known.send_now(support::request(1, "collectd", {{"key", "warm-up"}, {"metrics", long_block}}));
    collectd.send_now(support::request(1, "collectd", {{"metrics", long_block}}));
    run_loop(10);
    web_answers_ = true;
    const std::string replies = known.replies() + collectd.replies();
    acknowledged_ += static_cast<std::uint64_t>(std::ranges::count(replies, '='));
  }

  /// Messages of both databases: all that were added, and those that wait.
  std::pair<std::uint64_t, std::uint64_t> account() const {
    std::uint64_t added = 0, waiting = 0;
    for (const auto& database : handler_.databases()) {
      const WriteCounters& counters = database->counters();
      added += support::accounted(counters).messages;
      waiting += counters.queued.messages + counters.in_flight.messages;
    }
    return {added, waiting};
  }

  void expect_recovered(const std::string& key) {
    for (int i = 0; i < 13; ++i) {  // the longest time-outs pass
      clock_.tick(10);
      run_loop(3);
    }
    auto peer = node();
    auto collectd = local();
    run_loop(3);
    peer.send(block(key));
    collectd.send(support::request(1, "collectd", {{"metrics", LINE}}));
    run_loop(20);
    clock_.tick(2);
    for (int i = 0; i < 100 && account().second != 0; ++i) run_loop(1);
    EXPECT_EQ(peer.replies(), "1=nil ") << "the key is stuck";
    EXPECT_EQ(collectd.replies(), "1=nil ");
    acknowledged_ += 2;
    const auto [added, waiting] = account();
    EXPECT_EQ(waiting, 0U) << "a database is stuck";
    for (const auto& database : handler_.databases()) EXPECT_EQ(database->failure_count(), 0);
    EXPECT_GE(added, acknowledged_);
    const auto since = loop_.clocks().monotonic() - start_;
    const auto reports = since / std::chrono::seconds(STATS_INTERVAL) + 1;  // the daemon's own
    EXPECT_LE(added, static_cast<std::uint64_t>(handler_.totals().messages + reports));
    EXPECT_GE(handler_.databases()[0]->counters().sent.messages, last_report_ + 10) << "no reports";
    last_report_ = handler_.databases()[0]->counters().sent.messages;
  }

  support::HttpServer web_;
  support::HttpServer influx_;
  Settings settings_ = settings(socket_path());
  skein::Resources resources_{loop_};
  NodeServer node_server_{handler_, settings_, loop_, resources_,
                          fmt::format("http://127.0.0.1:{}/", web_.port())};
  LocalServer local_server_{handler_, settings_, loop_, resources_, &node_server_};
  bool web_answers_ = true;
  std::uint64_t acknowledged_ = 0;
  std::uint64_t last_report_ = 0;  ///< messages of "tidewell" that were written before
  const std::chrono::steady_clock::time_point start_ = loop_.clocks().monotonic();
};

std::ptrdiff_t open_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// PELORUS_TORTURE_STEP: how many calls to go on from one session to the next. 1 tries each.
TEST_F(Torture, WhateverFailsLeavesNothingBehindButAFailedRequestOrWrite) {
  const char* given = std::getenv("PELORUS_TORTURE_STEP");
  const std::size_t step = given == nullptr ? 1 : std::strtoul(given, nullptr, 10);
  support::replace_allocator_of_curl();
  handler_.send_stats();
  session("warm-up");
  expect_recovered("warm-up");
  const auto descriptors = open_descriptors();
  std::size_t sessions = 0;
  const auto fail_each_call = [&](auto&& prepare, auto&& run) {
    for (const std::size_t count : {1, 30}) {
      bool happened = true;
      for (std::size_t number = 0; happened && !HasFailure(); number += step) {
        SCOPED_TRACE(fmt::format("{} from call {} on", count, number));
        const std::string key = fmt::format("key{}x{}x{}", sessions, number, count);
        {
          [[maybe_unused]] const auto others = prepare();
          const support::FailingCall failing(number, count);
          run(key);
          happened = support::FailingCall::happened();
        }
        expect_recovered(key);
        ++sessions;
      }
    }
  };
  fail_each_call([] { return 0; }, [this](const std::string& key) { session(key); });
  fail_each_call([this] { return crowd(); },
                 [this](const std::string&) { session_beside_crowd(); });
  for (int i = 0; i < 50 && node_server_.connection_count() != 0; ++i) run_loop(10);
  EXPECT_EQ(node_server_.connection_count() + local_server_.connection_count(), 0U);
  EXPECT_EQ(resources_.admission.held_bytes(), 0U);
  EXPECT_LE(open_descriptors(), descriptors);
  RecordProperty("sessions", static_cast<int>(sessions));
  fmt::print("{} sessions\n", sessions);
}

}  // namespace
}  // namespace pelorus
