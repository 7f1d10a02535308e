#include "pelorus/translate/series_translator.h"

#include <gtest/gtest.h>

namespace translate {
namespace {

/// "measurement,tag=value key", or "! " and the failure's text, "? " for an unexpected one.
std::string translated(const std::string& series) {
  try {
    const TranslatedSeries result = GraphiteSeriesTranslator().translate(series);
    std::string text = result.measurement;
    for (const auto& [key, value] : result.tags) text += "," + key + "=" + value;
    return text + " " + result.key;
  } catch (const GraphiteSeriesTranslationError& error) {
    return std::string("! ") + error.what();
  } catch (const UnexpectedSeriesError&) {
    return "?";
  }
}

struct Row {
  const char* series;
  const char* expected;
};

void check(std::initializer_list<Row> rows) {
  for (const Row& row : rows) EXPECT_EQ(translated(row.series), row.expected) << row.series;
}

TEST(SeriesTranslator, SourcePartGivesTheNodeTagOrFails) {
  check({
      {"node1234.load.load.shortterm", "load,node=1234 shortterm"},
      {"n1234.load.load.shortterm", "load,node=4 shortterm"},
      {"nxyz1.load.load.shortterm", "load,node=1 shortterm"},
      {"node.load.load.shortterm", "load,node= shortterm"},
      {"m123.load.load.shortterm", "load shortterm"},
      {"abc.load.load.shortterm",
       R"(! Could not translate "b'abc.load.load.shortterm'": Could not determine source type)"},
      {"host1.load.load.shortterm",
       R"(! Could not translate "b'host1.load.load.shortterm'": Invalid source type b'host')"},
      {"h\x01\"'.load",
       "! Could not translate \"b'h\\x01\"\\'.load'\": "
       "Invalid source type b'h\\x01\"\\''"},
      {"", R"(! Could not translate "b''": Could not determine source type)"},
      {"m000", "?"},
  });
}

TEST(SeriesTranslator, TableChoosesTheFirstRowThatMatches) {
  check({
      {"m000.processes-nginx.ps_count.processes", "process,process=nginx count"},
      {"m000.processes.ps_state-running", "processes running"},
      {"m000.processes.fork_rate.value", "processes fork_rate"},
      {"m000.processesX.a.b",
       R"(! Could not translate "b'm000.processesX.a.b'": No match for series)"},
      {"m000.df-root.df_complex-used", "filesystem,path=/ used"},
      {"m000.dfx.df_complex-b", "filesystem,path=/ b"},
      {"m000.tcpconns.link_1.rtt.value", "link_rtt,tunnel=s,link=1 value"},
      {"m000.cpufreq.cpufreq-1.value", "cpu,cpu=1 frequency"},
      {"m000..a.b", R"(! Could not translate "b'm000..a.b'": No match for series)"},
      {"m000.foo.bar", R"(! Could not translate "b'm000.foo.bar'": No match for series)"},
  });
}

TEST(SeriesTranslator, HostPlugins) {
  check({
      {"m000.cpu-3.cpu-idle.value", "cpu,cpu=3 idle"},
      {"m000.entropy.entropy.value", "entropy value"},
      {"m000.uptime.uptime.value", "uptime value"},
      {"m000.redis.memory.value", "redis memory"},
      {"m000.memory.memory-used.value", "memory used"},
      {"m000.disk-sda.disk_octets.read", "disk,device=sda read_octets"},
      {"m000.interface-eth0.if_octets.rx", "interface,interface=eth0 rx_octets"},
      {"m000.postgresql-main.pg_n_tup_c-ins.value", "postgresql,db=main pg_n_tup_c_ins"},
      {"m000.swap.swap_io-in.value", "swap io_in"},
      {"m000.swap.swap-free.value", "swap free"},
      {"m000.filecount-influxdb.files.value", "influxdb_filecount files"},
      {"m000.df-boot-efi.df_complex-free.value", "filesystem,path=/boot/efi free"},
      {"m000.irq.irq-0.value", "irq irq0"},
      {"m000.irq.irq-NMI.value", "irq NMI"},
      {"m000.conntrack.conntrack.value", "conntrack current"},
      {"m000.conntrack.conntrack-max.value", "conntrack max"},
      {"m000.conntrack.percent-used.value", "conntrack percent"},
      {"m000.vmem.vmpage_number-free_pages.value", "vmem num_free_pages"},
      {"m000.vmem.vmpage_io-memory.in", "vmem memory_in"},
      {"m000.vmem.vmpage_faults.majflt", "vmem majflt"},
      {"m000.vmem.vmpage_action-dirtied.value", "vmem num_dirtied"},
      {"m000.nginx.connections-accepted.value", "nginx accepted_connected"},
      {"m000.nginx.nginx_connections-active.value", "nginx active_connections"},
      {"m000.nginx.nginx_requests.value", "nginx requests"},
      {"m000.ntpd.frequency_offset-loop.value", "ntpd frequency_offset"},
      {"m000.ntpd.time_offset-192.168.1.1.value", "ntpd,peer=192.168.1.1 time_offset"},
      {"m000.ntpd.delay-1.2.3.4.5.6.7.8.9.value", "ntpd,peer=1.2.3.4.5.6.7.8.9 delay"},
      {"m000.ntpd.delay-pool-a.value", "ntpd,peer=pool-a delay"},
      {"m000.ntpd.delay-x", "ntpd,peer=x delay"},
  });
}

TEST(SeriesTranslator, BondingPlugins) {
  check({
      {"n000x.tunnel-4.link_2.latency.value", "link_latency,node=x,tunnel=4,link=2 value"},
      {"m000.tunnel-4.link_2.link_traffic.rx", "link_traffic,tunnel=4,link=2 rx"},
      {"m000.tunnel-4.link-2.interface_statistics.tx_bytes",
       "link_interface_statistics,tunnel=4,link=2 tx_bytes"},
      {"n0001.tunnel-4.node-9.interface_statistics.tx",
       "node_interface_statistics,node=9,tunnel=4 tx"},
      {"m000.tunnel-4.tun_traffic.rx", "tunnel_traffic,tunnel=4 rx"},
      {"m000.tunnel-4.traffic.rx", "traffic,tunnel=4 rx"},
      {"m000.tunnel-4.reorderer.drops.count", "tunnel_reorderer_drops,tunnel=4 count"},
      {"m000.tunnel-4.compressor.ratios.in", "tunnel_compressor_ratio,tunnel=4 in"},
      {"m000.tunnel-4.packet_protocols_udp.value", "tunnel_packet_protocols,tunnel=4 udp"},
      {"m000.tunnel-4.balancer.flows.active.value", "tunnel_balancer_flows,tunnel=4 active"},
      {"m000.tunnel-4.balancer.x", "tunnel_balancer_flows,tunnel=4 balancer"},
      {"m000.tcp.traffic.rx", "traffic,tunnel= rx"},
      {"m000.link-7.packet_loss.value", "link_packet_loss,link=7 value"},
      {"m000.aggregation-cpu-average.cpu-idle.value", "aggregation_cpu_average idle"},
      {"m000.aggregator.tun_sent.bytes", "aggregator_tunnel_sent bytes"},
      {"m000.aggregator.flows.open", "aggregator_flows open"},
      {"m000.aggfail.gauge-x_failed_checks.value", "aggfail x_failures"},
      {"m000.aggfail.gauge-x_successful_checks.value", "aggfail x_successes"},
      {"m000.aggfail.gauge-failed_checks_of_some_x.value", "aggfail failed_chefailures"},
      {"m000.aggfail.gauge-x_state.value", "aggfail x_state"},
      {"m000.status.config_updates.sent", "config_updates sent"},
      {"m000.bridge-main.failures.auth", "bridge_failures,bridge=main auth"},
      {"m000.bridge-main.local_message_queue_size.value",
       "bridge_local_message_queue,bridge=main size"},
      {"m000.bridge-main.open_connections.value", "bridge_connections,bridge=main open"},
      {"m000.bridge-main.pending_connections.value", "bridge_connections,bridge=main pending"},
      {"m000.bridge-main.outside_connection_queues.value",
       "bridge_outside_connection_queues,bridge=main legacy"},
      {"m000.bridge-main.outside_connection_queues.largest",
       "bridge_outside_connection_queues,bridge=main largest"},
      {"m000.bridge-main.traffic_bytes.outside_tx", "bridge_outside_bytes,bridge=main tx"},
      {"m000.bridge-main.traffic_bytes.x", "bridge__bytes,bridge=main x"},
  });
}

TEST(SeriesTranslator, NamesThatARuleCannotReadFailWithoutReason) {
  for (const char* series :
       {"m000.tunnel-4.xyz.a", "m000.tunnel-4..a", "m000.vmem.other.value", "m000.nginx.other",
        "m000.status.other.x", "m000.bridge-main.other.x"}) {
    EXPECT_EQ(translated(series), "! Could not translate \"b'" + std::string(series) + "'\": ");
  }
}

TEST(SeriesTranslator, EmptyKeysFail) {
  for (const char* series : {"m000.irq.irq-", "m000.cpu-0.cpu", "m000.memory.memory",
                             "m000.load.load.", "m000.bridge-a.traffic_bytes."}) {
    EXPECT_EQ(translated(series),
              "! Could not translate \"b'" + std::string(series) + "'\": Field key is missing");
  }
}

TEST(SeriesTranslator, NamesThatNoRuleChecksForAreUnexpected) {
  for (const char* series :
       {"m000.load.load", "m000.irq", "m000.vmem.vmpage_faults", "m000.vmem.vmpage_io-memory",
        "m000.conntrack.other", "m000.ntpd.delay.value", "m000.ntpd", "m000.tunnel-4",
        "m000.tunnel-4.link_2", "m000.tunnel-4.link_2.latency", "m000.tunnel-4.xyz",
        "m000.tunnel-4.link.interface_statistics.x", "m000.bridge-main",
        "m000.bridge-main.traffic_bytes", "m000.aggregator.flows", "m000.disk-sda.disk_octets"}) {
    EXPECT_EQ(translated(series), "?") << series;
  }
}

}  // namespace
}  // namespace translate
