// pelorus_load: puts load on servers of node frames and says what CPU time they took for it. One
// argument, a JSON object; its "run" names what to do, the rest is described at each. Prints one
// JSON object.

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/corpus.h"
#include "bench/cpu_clock.h"
#include "bench/frames.h"
#include "bench/side.h"
#include "bench/sink.h"
#include "skein/client.h"

namespace {

using nlohmann::json;

/// The loop, the sink and the sides of one run.
class Bench {
 public:
  explicit Bench(std::int64_t sink_port)
      : sink_(loop_, sink_port, [this] {
          if (current_ != nullptr) current_->written();
        }) {}

  bench::Side& add_side(const json& server) {
    const bench::Side::Server read{.process = server.at("pid").get<pid_t>(),
                                   .port = server.at("port").get<std::int64_t>(),
                                   .answers = server.value("answers", true)};
    sides_.push_back(std::make_unique<bench::Side>(loop_, read));
    return *sides_.back();
  }

  double burst(bench::Side& side, const bench::Frames& frames, const bench::Pace& pace) {
    current_ = &side;
    const double used = side.burst(frames, pace, [this] { return sink_.writes(); });
    current_ = nullptr;
    return used;
  }

  /// Lets pending work finish.
  void run_for(double seconds) {
    loop_.call_in(seconds, [this] { loop_.stop(); });
    loop_.run();
  }

  const bench::Sink& sink() const noexcept { return sink_; }

 private:
  skein::Loop loop_;
  bench::Side* current_ = nullptr;
  bench::Sink sink_;
  std::vector<std::unique_ptr<bench::Side>> sides_;
};

bench::Frames read_frames(const json& wanted, const json& all) {
  return {{.first_line = wanted.value("first_line", std::size_t{0}),
           .lines = wanted.at("lines").get<std::size_t>(),
           .per_frame = wanted.at("per_frame").get<std::size_t>(),
           .bad_every = wanted.value("bad_every", std::size_t{0})},
          all.at("key").get<std::string>()};
}

bench::Pace read_pace(const json& wanted) {
  return {.in_flight = wanted.value("in_flight", std::size_t{1}),
          .per_write = wanted.value("per_write", std::size_t{0})};
}

/// {"run": "alternate", "sink": PORT, "key": KEY, "pairs": N, "sides": [{"pid", "port", "answers",
/// "connections", "first_line", "lines", "per_frame", "bad_every", "in_flight", "per_write"}, …]}:
/// N times one burst to each side alternately, after one that does not count.
json alternate(const json& wanted) {
  Bench bench(wanted.at("sink").get<std::int64_t>());
  struct Prepared {
    bench::Side& side;
    bench::Frames frames;
    bench::Pace pace;
  };
  std::vector<Prepared> prepared;
  for (const json& each : wanted.at("sides")) {
    prepared.push_back({bench.add_side(each), read_frames(each, wanted), read_pace(each)});
    const auto connections = each.value("connections", std::size_t{1});
    prepared.back().side.connect(connections, connections);
  }
  json cpu = json::array();
  for (int pair = -1; pair < wanted.at("pairs").get<int>(); ++pair) {
    json used = json::array();
    for (Prepared& each : prepared) {
      used.push_back(bench.burst(each.side, each.frames, each.pace));
      bench.run_for(0.02);
    }
    if (pair >= 0) cpu.push_back(used);
  }
  return {{"cpu", cpu}, {"writes", bench.sink().writes()}, {"bytes", bench.sink().bytes()}};
}

/// Bytes that a process keeps in memory.
std::size_t resident_bytes(pid_t process) {
  std::ifstream status(fmt::format("/proc/{}/status", process));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stoul(line.substr(6)) << 10U;
  }
  throw std::runtime_error("no VmRSS");
}

/// {"run": "crowd", "sink", "key", "pairs", "crowded": {"pid", "port"}, "alone": {…},
/// "connections": N, "lines", "per_frame", "in_flight", "idle_seconds", "idle_windows"}: two fresh
/// daemons, one of which gets N connections. What a connection takes in memory once it has sent one
/// line, what N silent ones cost, and the CPU time of the same frames over one connection beside N
/// silent ones, over all N, and over one alone.
json crowd(const json& wanted) {
  Bench bench(wanted.at("sink").get<std::int64_t>());
  bench::Side& crowded = bench.add_side(wanted.at("crowded"));
  bench::Side& alone = bench.add_side(wanted.at("alone"));
  const bench::Frames frames = read_frames(wanted, wanted);
  const auto connections = wanted.at("connections").get<std::size_t>();
  const bench::Pace one_by_one{.in_flight = 1};
  const bench::Pace many{.in_flight = wanted.at("in_flight").get<std::size_t>()};
  json answer;

  // Before anything larger: memory that greater work had left behind would hide what they take.
  const bench::Frames lines({.lines = connections, .per_frame = 1},
                            wanted.at("key").get<std::string>());
  crowded.connect(1, 1);
  bench.run_for(0.5);
  const std::size_t before = resident_bytes(crowded.process());
  crowded.connect(connections + 1, connections + 1);
  bench.burst(crowded, lines, one_by_one);
  bench.run_for(2.5);  // the rest of the queue is written a second after the last message
  const std::size_t after = resident_bytes(crowded.process());
  answer["bytes_per_connection"] =
      (static_cast<double>(after) - static_cast<double>(before)) / static_cast<double>(connections);

  for (int window = 0; window < wanted.at("idle_windows").get<int>(); ++window) {
    const double used = bench::cpu_seconds(crowded.process());
    bench.run_for(wanted.at("idle_seconds").get<double>());
    answer["idle_cpu"].push_back(bench::cpu_seconds(crowded.process()) - used);
  }
  alone.connect(1, 1);
  for (int pair = -1; pair < wanted.at("pairs").get<int>(); ++pair) {  // the first one warms up
    crowded.connect(connections + 1, 1);
    const double beside = bench.burst(crowded, frames, one_by_one);
    const double single = bench.burst(alone, frames, one_by_one);
    crowded.connect(connections + 1, connections + 1);
    const double all = bench.burst(crowded, frames, many);
    if (pair >= 0) answer["cpu"].push_back({beside, single, all});
  }
  return answer;
}

/// {"run": "stats", "socket": PATH, "count": N, "rounds": N}: microseconds of each round trip of
/// the request "stats", one list. Waits for a line on standard input before each round and prints
/// one after it, so that something else can be changed in between.
json stats(const json& wanted) {
  using Clock = std::chrono::steady_clock;
  skein::Client client(skein::Endpoint::unix_socket(wanted.at("socket").get<std::string>()));
  client.open();
  json rounds = json::array();
  for (int round = 0; round < wanted.at("rounds").get<int>(); ++round) {
    std::string line;
    std::getline(std::cin, line);
    std::vector<double> taken;
    for (int i = 0; i < wanted.at("count").get<int>(); ++i) {
      const auto begin = Clock::now();
      client.call("stats", skein::MsgpackWriter().map(0));
      taken.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    std::ranges::sort(taken);
    rounds.push_back({taken[taken.size() / 2], taken[taken.size() * 99 / 100]});
    std::puts("round");
    std::fflush(stdout);
  }
  return rounds;
}

/// {"run": "corpus", "file": PATH}: writes the corpus into a file.
json write_corpus(const json& wanted) {
  const auto path = wanted.at("file").get<std::string>();
  std::ofstream file(path, std::ios::binary);
  file << bench::corpus();
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
  return {{"bytes", bench::corpus().size()}};
}

/// As many descriptors as the process is allowed to have.
void raise_descriptor_limit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int count, char** arguments) {
  try {
    raise_descriptor_limit();
    const json wanted = json::parse(count == 2 ? arguments[1] : "");
    const auto run = wanted.at("run").get<std::string>();
    const json answer = run == "alternate" ? alternate(wanted)
                        : run == "crowd"   ? crowd(wanted)
                        : run == "stats"   ? stats(wanted)
                                           : write_corpus(wanted);
    std::cout << answer.dump() << std::endl;
  } catch (const std::exception& failure) {
    std::cerr << "pelorus_load: " << failure.what() << '\n';
    return 1;
  }
}
