#include "bench/corpus.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace bench {
namespace {

constexpr std::size_t LINES = 1'000'000;
constexpr int NODES = 50;
constexpr long FIRST_TIMESTAMP = 1'700'000'000;
constexpr int INTERVAL_SECONDS = 10;

using Names = std::vector<std::string>;

/// A plugin of a source and what it reports.
struct Plugin {
  std::string name;
  Names values;
};

/// `first` before every one of `seconds`.
Names each(const std::string& first, const Names& seconds) {
  Names all;
  for (const std::string& second : seconds) all.push_back(first + second);
  return all;
}

Names pairs(const Names& firsts, const Names& seconds) {
  Names all;
  for (const std::string& first : firsts)
    std::ranges::move(each(first, seconds), std::back_inserter(all));
  return all;
}

/// What nodes and the management server both run.
std::vector<Plugin> host_plugins(int cpus, const Names& disks, const Names& mounts,
                                 const Names& interfaces, const Names& processes,
                                 const Names& irqs) {
  const Names cpu_values =
      each("cpu-", {"idle.value", "user.value", "system.value", "wait.value", "nice.value",
                    "interrupt.value", "softirq.value", "steal.value"});
  std::vector<Plugin> plugins{
      {"aggregation-cpu-average", cpu_values},
      {"load", each("load.", {"shortterm", "midterm", "longterm"})},
      {"memory", each("memory-", {"used.value", "free.value", "cached.value", "buffered.value",
                                  "slab_unrecl.value", "slab_recl.value"})},
      {"swap", each("swap", {"-used.value", "-free.value", "-cached.value", "_io-in.value",
                             "_io-out.value"})},
      {"processes", each("ps_state-", {"running.value", "sleeping.value", "zombies.value",
                                       "stopped.value", "paging.value", "blocked.value"})},
      {"processes", {"fork_rate.value"}},
      {"irq", each("irq-", irqs)},
      {"conntrack", {"conntrack.value", "conntrack-max.value", "percent-used.value"}},
      {"ntpd",
       {"time_offset-10.2.33.144.value", "delay-10.2.33.144.value",
        "time_dispersion-10.2.33.144.value", "frequency_offset-loop.value"}},
      {"entropy", {"entropy.value"}},
      {"uptime", {"uptime.value"}},
  };
  for (int cpu = 0; cpu < cpus; ++cpu) plugins.push_back({fmt::format("cpu-{}", cpu), cpu_values});
  for (const std::string& mount : mounts) {
    plugins.push_back(
        {"df-" + mount, each("df_complex-", {"free.value", "used.value", "reserved.value"})});
  }
  for (const std::string& disk : disks) {
    plugins.push_back(
        {"disk-" + disk,
         pairs({"disk_octets.", "disk_ops.", "disk_time.", "disk_merged."}, {"read", "write"})});
  }
  for (const std::string& interface : interfaces) {
    plugins.push_back(
        {"interface-" + interface,
         pairs({"if_octets.", "if_packets.", "if_errors.", "if_dropped."}, {"rx", "tx"})});
  }
  for (const std::string& process : processes) {
    plugins.push_back({"processes-" + process,
                       {"ps_rss.value", "ps_vm.value", "ps_cputime.user", "ps_count.processes",
                        "ps_pagefaults.minflt", "ps_disk_octets.read"}});
  }
  return plugins;
}

Plugin vmem() {
  return {
      "vmem",
      {"vmpage_number-free_pages.value", "vmpage_number-inactive_anon.value",
       "vmpage_number-active_anon.value", "vmpage_number-inactive_file.value",
       "vmpage_number-active_file.value", "vmpage_number-mlock.value",
       "vmpage_number-anon_pages.value", "vmpage_number-mapped.value", "vmpage_number-dirty.value",
       "vmpage_number-slab_reclaimable.value", "vmpage_io-memory.in", "vmpage_io-memory.out",
       "vmpage_io-swap.in", "vmpage_io-swap.out", "vmpage_faults.minflt", "vmpage_faults.majflt",
       "vmpage_action-dirtied.value", "vmpage_action-written.value"}};
}

std::vector<Plugin> tunnel_plugins(int tunnel, int first_link, int links) {
  const std::string name = fmt::format("tunnel-{}", tunnel);
  std::vector<Plugin> plugins;
  for (int link = first_link; link < first_link + links; ++link) {
    plugins.push_back({name, each(fmt::format("link_{}.", link),
                                  {"latency.value", "jitter.value", "rtt.value", "link_traffic.rx",
                                   "link_traffic.tx", "packets.rx", "packets.tx"})});
    plugins.push_back({name, each(fmt::format("link-{}.interface_statistics.", link),
                                  {"rx_packets", "tx_packets", "rx_bytes", "tx_bytes", "rx_dropped",
                                   "tx_dropped"})});
    plugins.push_back({fmt::format("link-{}", link), {"packet_loss.value"}});
  }
  plugins.push_back({name, pairs({"tun_traffic.", "tun_packets."}, {"rx", "tx"})});
  plugins.push_back({name, each("reorderer.", {"drops.count", "reordered.count", "late.count"})});
  plugins.push_back({name, each("compressor.ratios.", {"in", "out"})});
  plugins.push_back(
      {name, each("packet_protocols_", {"tcp.value", "udp.value", "icmp.value", "other.value"})});
  plugins.push_back({name, each("balancer.flows.", {"active.value", "total.value"})});
  return plugins;
}

std::vector<Plugin> node_plugins(int node) {
  auto plugins = host_plugins(
      2, {"sda"}, {"root", "var-log"}, {"eth0", "eth1", "eth2", "tun0"}, {"bonding", "collectd"},
      {"0.value", "1.value", "8.value", "9.value", "LOC.value", "RES.value", "NMI.value"});
  if (node % 2 == 0) plugins.push_back(vmem());
  const int tunnels = node % 4 == 3 ? 2 : 1;
  for (int tunnel = 0; tunnel < tunnels; ++tunnel) {
    std::ranges::move(tunnel_plugins(71 * node + tunnel, 157 * node, 2 + node % 3),
                      std::back_inserter(plugins));
  }
  return plugins;
}

std::vector<Plugin> management_plugins() {
  auto plugins = host_plugins(
      16, {"sda", "sdb", "md0"}, {"root", "boot-efi", "var-log"}, {"lo", "eth0", "bond0"},
      {"nginx", "postgres", "redis-server", "influxd"}, {"24.value", "25.value", "TLB.value"});
  const std::vector<Plugin> servers{
      vmem(),
      {"postgresql-main",
       {"pg_n_tup_c-ins.value", "pg_blks-heap_read.value", "pg_xact-commit.value",
        "pg_numbackends.value"}},
      {"nginx",
       {"nginx_connections-active.value", "connections-accepted.value", "nginx_requests.value"}},
      {"redis", {"memory.value", "clients.value"}},
      {"bridge-main",
       {"open_connections.value", "outside_connection_queues.largest", "traffic_bytes.outside_rx",
        "traffic_bytes.outside_tx"}},
      {"aggregator", {"tun_sent.bytes", "flows.open"}},
      {"aggfail", {"gauge-api_failed_checks.value", "gauge-api_successful_checks.value"}},
      {"status", {"config_updates.sent"}},
      {"filecount-influxdb", {"files.value"}},
      {"cpufreq", {"cpufreq-0.value"}},
  };
  plugins.insert(plugins.end(), servers.begin(), servers.end());
  return plugins;
}

Names series_of(int node) {
  const std::string source = node == 0 ? "mgmt" : fmt::format("node{}", 197 * node);
  Names series;
  for (const Plugin& plugin : node == 0 ? management_plugins() : node_plugins(node)) {
    for (const std::string& value : plugin.values) {
      series.push_back(fmt::format("{}.{}.{}", source, plugin.name, value));
    }
  }
  return series;
}

/// Counters and gauges as whole numbers of all lengths, rates and shares with decimals.
std::string value_text(std::mt19937& random) {
  const double any = static_cast<double>(random()) / static_cast<double>(std::mt19937::max());
  const auto kind = random() % 11;
  if (kind < 4) return fmt::format("{:f}", std::pow(10, 7 * any));
  if (kind < 5) return fmt::format("{:.2f}", 100 * any);
  if (kind < 6) return "0";
  return fmt::format("{:.0f}", std::pow(10, 0.5 + 11 * any));
}

std::string make_corpus() {
  std::mt19937 random(1);
  Names series;
  for (int node = NODES; node >= 0; --node) {  // the management server, node 0, comes last
    std::ranges::move(series_of(node), std::back_inserter(series));
  }
  std::string text;
  for (std::size_t line = 0; line < LINES; ++line) {
    const auto round = static_cast<long>(line / series.size());
    text += fmt::format("{} {} {}\n", series[line % series.size()], value_text(random),
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
