#include "pelorus/translate/rules.h"

namespace translate::rules {

using namespace literals;

namespace {

// The rules of a tunnel get the parts after the plugin part.
using TunnelTag = Tag<"tunnel">;

// link-2.interface_statistics.rx_packets → link_interface_statistics,link=2 rx_packets
// Kept: the tag's key comes from the data, the text before the dash. A key that is there already
// keeps its place and gets the new value.
Outcome tunnel_interface_statistics(Record& record, Parts& parts, TunnelTag tunnel) {
  const auto sides = split_at_dash(parts[0]);
  if (!sides) return Outcome::NO_DASH;
  const auto [kind, instance] = *sides;
  const auto measurement = concat(kind, "_interface_statistics"_p);
  if (kind == "tunnel") return record.write(measurement, parts[2], tag<"tunnel">(instance));
  if (kind == "node" && record.has_node()) {
    record.set_node(instance);
    return record.write(measurement, parts[2], tunnel);
  }
  return record.write(measurement, parts[2], tunnel, tag(kind, instance));
}

// link_2.latency.value → link_latency,link=2 value
Outcome tunnel_link(Record& record, Parts& parts, TunnelTag tunnel) {
  const auto link = tag<"link">(drop_prefix(parts[0], "link_"));
  const Slice type = parts[1];
  const Slice key = parts[2];
  if (starts_with(type, "link_")) return record.write(type, key, tunnel, link);
  return record.write(concat("link_"_p, type), key, tunnel, link);
}

// tun_traffic.rx → tunnel_traffic rx
Outcome tunnel_statistics(Record& record, Parts& parts, TunnelTag tunnel) {
  const Slice type = parts[0];
  if (!starts_with(type, "tun_")) return record.write(type, parts[1], tunnel);
  return record.write(concat("tunnel_"_p, drop_prefix(type, "tun_")), parts[1], tunnel);
}

// reorderer.drops.count → tunnel_reorderer_drops count
Outcome tunnel_reorderer(Record& record, Parts& parts, TunnelTag tunnel) {
  return record.write(concat("tunnel_reorderer_"_p, parts[1]), parts[2], tunnel);
}

// compressor.ratios.in → tunnel_compressor_ratio in
// Kept: one byte, the plural's "s", goes here and not in tunnel_reorderer.
Outcome tunnel_compressor(Record& record, Parts& parts, TunnelTag tunnel) {
  return record.write(concat("tunnel_compressor_"_p, drop_last(parts[1], 1)), parts[2], tunnel);
}

// packet_protocols_udp.value → tunnel_packet_protocols udp
Outcome tunnel_packet_protocols(Record& record, Parts& parts, TunnelTag tunnel) {
  return record.write("tunnel_packet_protocols"_p, drop_prefix(parts[0], "packet_protocols_"),
                      tunnel);
}

// balancer.flows.active.value → tunnel_balancer_flows active
Outcome tunnel_balancer(Record& record, Parts& parts, TunnelTag tunnel) {
  return record.write("tunnel_balancer_flows"_p, parts.last_but_one(), tunnel);
}

}  // namespace

// tunnel-4.… → tunnel=4, and a rule for the parts after it
Outcome tunnel(Record& record, Parts& parts) {
  const auto id = tag<"tunnel">(drop_prefix(parts[0], "tunnel-"));
  parts.remove_first();
  const Slice type = parts[0];
  if (parts[1] == "interface_statistics") return tunnel_interface_statistics(record, parts, id);
  switch (type.size == 0 ? '\0' : *type.data) {
    case 'l':
      return tunnel_link(record, parts, id);
    case 't':
      return tunnel_statistics(record, parts, id);
    case 'r':
      return tunnel_reorderer(record, parts, id);
    case 'p':
      return tunnel_packet_protocols(record, parts, id);
    case 'c':
      return tunnel_compressor(record, parts, id);
    case 'b':
      return tunnel_balancer(record, parts, id);
    default:
      return Outcome::REFUSED;
  }
}

// link-7.packet_loss.value → link_packet_loss,link=7 value
Outcome link_packet_loss(Record& record, Parts& parts) {
  return record.write("link_packet_loss"_p, "value"_p, tag<"link">(drop_prefix(parts[0], "link-")));
}

// aggregation-cpu-average.cpu-idle → aggregation_cpu_average idle
Outcome aggregation_cpu_average(Record& record, Parts& parts) {
  return record.write("aggregation_cpu_average"_p, drop_prefix(parts[1], "cpu-"));
}

// aggregator.tun_sent.bytes → aggregator_tunnel_sent bytes; aggregator.flows.open →
// aggregator_flows
Outcome aggregator(Record& record, Parts& parts) {
  const Slice type = parts[1];
  return record.write(starts_with(type, "tun")
                          ? concat("aggregator_tunnel_"_p, drop_prefix(type, "tun_"))
                          : concat("aggregator_"_p, type),
                      parts[2]);
}

// aggfail.gauge-link1_failed_checks → aggfail link1_failures
// Kept: cut by the marker's length at the end, wherever the marker stands.
Outcome aggfail(Record& record, Parts& parts) {
  constexpr std::string_view FAILED = "failed_checks";
  constexpr std::string_view SUCCESSFUL = "successful_checks";
  const Slice name = drop_prefix(parts[1], "gauge-");
  if (name.view().find(FAILED) != std::string_view::npos) {
    return record.write(parts[0], concat(drop_last(name, FAILED.size()), "failures"_p));
  }
  if (name.view().find(SUCCESSFUL) != std::string_view::npos) {
    return record.write(parts[0], concat(drop_last(name, SUCCESSFUL.size()), "successes"_p));
  }
  return record.write(parts[0], name);
}

// status.config_updates.sent → config_updates sent
Outcome status(Record& record, Parts& parts) {
  if (!starts_with(parts[1], "config_updates")) return Outcome::REFUSED;
  return record.write("config_updates"_p, parts[2]);
}

// bridge-main.open_connections.value → bridge_connections,bridge=main open
Outcome bridge(Record& record, Parts& parts) {
  const auto id = tag<"bridge">(drop_prefix(parts[0], "bridge-"));
  const Slice type = parts[1];
  if (type == "failures") return record.write("bridge_failures"_p, parts[2], id);
  if (type == "local_message_queue_size") {
    return record.write("bridge_local_message_queue"_p, "size"_p, id);
  }
  if (type == "open_connections") return record.write("bridge_connections"_p, "open"_p, id);
  if (type == "pending_connections") return record.write("bridge_connections"_p, "pending"_p, id);
  if (type == "outside_connection_queues") {
    // The single gauge of the older form has no name of its own.
    const Slice name = parts[2] == "value" ? "legacy"_p : parts[2];
    return record.write("bridge_outside_connection_queues"_p, name, id);
  }
  if (type == "traffic_bytes") {
    const Slice name = parts[2];  // outside_tx → bridge_outside_bytes tx
    return record.write(concat("bridge_"_p, drop_last(name, 3), "_bytes"_p), last(name, 2), id);
  }
  return Outcome::REFUSED;
}

}  // namespace translate::rules
