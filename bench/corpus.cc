#include "bench/corpus.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t LINES = 200'000;
constexpr int NODES = 50;
constexpr long FIRST_TIMESTAMP = 1'700'000'000;
constexpr int INTERVAL_SECONDS = 10;

void add_host(std::vector<std::string>& series, int cpus, std::initializer_list<const char*> disks,
              std::initializer_list<const char*> interfaces) {
  for (int cpu = 0; cpu < cpus; ++cpu) {
    for (const char* state : {"idle", "user", "system", "wait", "nice", "interrupt", "softirq"}) {
      series.push_back(fmt::format("cpu-{}.cpu-{}.value", cpu, state));
    }
  }
  for (const char* disk : disks) {
    for (const char* type : {"disk_octets", "disk_ops", "disk_time", "disk_merged"}) {
      for (const char* way : {"read", "write"}) {
        series.push_back(fmt::format("disk-{}.{}.{}", disk, type, way));
      }
    }
  }
  for (const char* interface : interfaces) {
    for (const char* type : {"if_octets", "if_packets", "if_errors", "if_dropped"}) {
      for (const char* way : {"rx", "tx"}) {
        series.push_back(fmt::format("interface-{}.{}.{}", interface, type, way));
      }
    }
  }
  for (const char* name : {"load.load.shortterm",
                           "load.load.midterm",
                           "memory.memory-used.value",
                           "memory.memory-free.value",
                           "swap.swap-free.value",
                           "swap.swap_io-in.value",
                           "processes.ps_state-running.value",
                           "processes.fork_rate.value",
                           "processes-collectd.ps_rss.value",
                           "processes-bonding.ps_cputime.user",
                           "irq.irq-LOC.value",
                           "irq.irq-9.value",
                           "conntrack.conntrack.value",
                           "df-var-log.df_complex-free.value",
                           "df-root.df_complex-used.value",
                           "vmem.vmpage_number-free_pages.value",
                           "vmem.vmpage_io-memory.in",
                           "ntpd.time_offset-10.20.30.40.value",
                           "entropy.entropy.value",
                           "uptime.uptime.value"}) {
    series.emplace_back(name);
  }
}

void add_tunnel(std::vector<std::string>& series, int tunnel, int link) {
  for (const char* type : {"latency.value", "jitter.value", "rtt.value", "link_traffic.rx",
                           "link_traffic.tx", "packets.rx", "packets.tx"}) {
    series.push_back(fmt::format("tunnel-{}.link_{}.{}", tunnel, link, type));
  }
  for (const char* name : {"rx_packets", "tx_packets", "rx_bytes", "tx_bytes"}) {
    series.push_back(fmt::format("tunnel-{}.link-{}.interface_statistics.{}", tunnel, link, name));
  }
  for (const char* rest : {"tun_traffic.rx", "reorderer.drops.count", "compressor.ratios.in",
                           "packet_protocols_udp.value", "balancer.flows.active.value"}) {
    series.push_back(fmt::format("tunnel-{}.{}", tunnel, rest));
  }
  series.push_back(fmt::format("link-{}.packet_loss.value", link));
}

std::vector<std::string> series_of(int node) {
  std::vector<std::string> series;
  if (node == 0) {
    add_host(series, 16, {"sda", "sdb", "md0"}, {"lo", "eth0", "bond0"});
    for (const char* type : {"pg_n_tup_c-ins", "pg_blks-heap_read", "pg_xact-commit"}) {
      series.push_back(fmt::format("postgresql-main.{}.value", type));
    }
    series.emplace_back("bridge-main.traffic_bytes.outside_tx");
    series.emplace_back("aggregator.tun_sent.bytes");
    series.emplace_back("aggfail.gauge-api_failed_checks.value");
  } else {
    add_host(series, 2, {"sda"}, {"eth0", "eth1", "tun0"});
    for (int link = 1; link < 4; ++link) add_tunnel(series, 100 + node, link);
  }
  const std::string source = node == 0 ? "mgmt" : fmt::format("node{}", 1000 + node);
  for (std::string& name : series) name = source + "." + name;
  return series;
}

std::string make_corpus() {
  std::mt19937 random(1);
  std::vector<std::string> series;
  for (int node = 0; node <= NODES; ++node) {
    std::ranges::move(series_of(node), std::back_inserter(series));
  }
  std::string text;
  for (std::size_t line = 0; line < LINES; ++line) {
    const auto round = static_cast<long>(line / series.size());
    const std::string value = random() % 2 == 0
                                  ? fmt::format("{}", random())
                                  : fmt::format("{:f}", static_cast<double>(random()) / 7919.0);
    text += fmt::format("{} {} {}\n", series[line % series.size()], value,
                        FIRST_TIMESTAMP + round * INTERVAL_SECONDS);
  }
  return text;
}

std::string read_corpus(const char* path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(fmt::format("cannot read the corpus '{}'", path));
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

const std::string& corpus() {
  static const std::string lines = [] {
    const char* path = std::getenv("PELORUS_CORPUS");
    return path == nullptr ? make_corpus() : read_corpus(path);
  }();
  return lines;
}

std::vector<std::string_view> blocks_of(std::size_t lines) {
  std::vector<std::string_view> blocks;
  const std::string_view all = corpus();
  for (std::size_t begin = 0; begin < all.size();) {
    std::size_t end = begin;
    for (std::size_t line = 0; line < lines && end < all.size(); ++line) {
      end = std::min(all.find('\n', end), all.size() - 1) + 1;
    }
    blocks.push_back(all.substr(begin, end - begin));
    begin = end;
  }
  return blocks;
}

std::size_t line_count(const std::vector<std::string_view>& blocks) {
  std::size_t lines = 0;
  for (const auto block : blocks) {
    lines += static_cast<std::size_t>(std::ranges::count(block, '\n'));
  }
  return lines;
}

}  // namespace bench
