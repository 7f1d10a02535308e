#include <array>

#include "pelorus/translate/rules.h"

namespace translate::rules {

using namespace literals;

namespace {

/// One row of a choice by the first byte of a part.
struct SelectorRow {
  char selector;
  Rule rule;
};

constexpr std::array<SelectorRow, 6> TUNNEL_RULES{{
    {'l', tunnel_link},
    {'t', tunnel_statistics},
    {'r', tunnel_reorderer},
    {'p', tunnel_packet_protocols},
    {'c', tunnel_compressor},
    {'b', tunnel_balancer},
}};

using BridgeChoice = Match (*)(Parts& parts);

/// One row of a choice by the whole of a part.
struct BridgeRow {
  std::string_view type;
  BridgeChoice choice;
};

constexpr std::array<BridgeRow, 6> BRIDGE_CHOICES{{
    {"failures",
     [](Parts& parts) {
       return Match{"bridge_failures"_p, parts[2]};
     }},
    {"local_message_queue_size",
     [](Parts&) {
       return Match{"bridge_local_message_queue"_p, "size"_p};
     }},
    {"open_connections",
     [](Parts&) {
       return Match{"bridge_connections"_p, "open"_p};
     }},
    {"outside_connection_queues",
     [](Parts& parts) {
       // The single gauge of the older form has no name of its own.
       const Piece name = parts[2];
       return Match{"bridge_outside_connection_queues"_p, name == "value" ? "legacy"_p : name};
     }},
    {"pending_connections",
     [](Parts&) {
       return Match{"bridge_connections"_p, "pending"_p};
     }},
    {"traffic_bytes",
     [](Parts& parts) {
       const Piece name = parts[2];  // outside_tx → bridge_outside_bytes tx
       return Match{Text("bridge_"_p, without_last(name, 3), "_bytes"_p), last(name, 2)};
     }},
}};

}  // namespace

// tunnel-4.… → tunnel=4, and a rule for what is behind it
Match tunnel(Tags& tags, Parts& parts) {
  tags.set("tunnel"_p, past(parts[0], "tunnel-"));
  parts.remove_first();
  const Piece type = parts[0];
  if (parts[1] == "interface_statistics") return tunnel_interface_statistics(tags, parts);
  if (type.size == 0) return no_match();
  for (const SelectorRow& row : TUNNEL_RULES) {
    if (row.selector == *type.data) return row.rule(tags, parts);
  }
  return no_match();
}

// link-2.interface_statistics.rx_packets → link_interface_statistics,link=2 rx_packets
// Kept: the tag's key comes from the data, the text before the dash.
Match tunnel_interface_statistics(Tags& tags, Parts& parts) {
  const auto pieces = split_at_dash(parts[0]);
  if (!pieces) return {.outcome = Outcome::NOT_TWO_PIECES};
  const auto [kind, instance] = *pieces;
  tags.set(kind, instance);
  return Match{Text(kind, "_interface_statistics"_p), parts[2]};
}

// link_2.latency.value → link_latency,link=2 value
Match tunnel_link(Tags& tags, Parts& parts) {
  tags.set("link"_p, past(parts[0], "link_"));
  parts.remove_first();
  const Piece type = parts[0];
  return Match{starts_with(type, "link_") ? Text(type) : Text("link_"_p, type), parts[1]};
}

// tun_traffic.rx → tunnel_traffic rx
Match tunnel_statistics(Tags&, Parts& parts) {
  const Piece type = parts[0];
  return Match{starts_with(type, "tun_") ? Text("tunnel_"_p, past(type, "tun_")) : Text(type),
               parts[1]};
}

// reorderer.drops.count → tunnel_reorderer_drops count
Match tunnel_reorderer(Tags&, Parts& parts) {
  return Match{Text("tunnel_reorderer_"_p, parts[1]), parts[2]};
}

// compressor.ratios.in → tunnel_compressor_ratio in
// Kept: one byte, the plural's "s", goes here and not in tunnel_reorderer.
Match tunnel_compressor(Tags&, Parts& parts) {
  return Match{Text("tunnel_compressor_"_p, without_last(parts[1], 1)), parts[2]};
}

// packet_protocols_udp.value → tunnel_packet_protocols udp
Match tunnel_packet_protocols(Tags&, Parts& parts) {
  return Match{"tunnel_packet_protocols"_p, past(parts[0], "packet_protocols_")};
}

// balancer.flows.active.value → tunnel_balancer_flows active
Match tunnel_balancer(Tags&, Parts& parts) {
  return Match{"tunnel_balancer_flows"_p, parts.last_but_one()};
}

// link-7.packet_loss.value → link_packet_loss,link=7 value
Match link_packet_loss(Tags& tags, Parts& parts) {
  tags.set("link"_p, past(parts[0], "link-"));
  return Match{"link_packet_loss"_p, "value"_p};
}

// aggregation-cpu-average.cpu-idle → aggregation_cpu_average idle
Match aggregation_cpu_average(Tags&, Parts& parts) {
  return Match{"aggregation_cpu_average"_p, past(parts[1], "cpu-")};
}

// aggregator.tun_sent.bytes → aggregator_tunnel_sent bytes; aggregator.flows.open →
// aggregator_flows
Match aggregator(Tags&, Parts& parts) {
  const Piece type = parts[1];
  return Match{starts_with(type, "tun") ? Text("aggregator_tunnel_"_p, past(type, "tun_"))
                                        : Text("aggregator_"_p, type),
               parts[2]};
}

// aggfail.gauge-link1_failed_checks → aggfail link1_failures
// Kept: cut by the marker's length at the end, wherever the marker stands.
Match aggfail(Tags&, Parts& parts) {
  constexpr std::string_view FAILED = "failed_checks";
  constexpr std::string_view SUCCESSFUL = "successful_checks";
  const Piece name = past(parts[1], "gauge-");
  if (name.view().find(FAILED) != std::string_view::npos) {
    return Match{parts[0], Text(without_last(name, FAILED.size()), "failures"_p)};
  }
  if (name.view().find(SUCCESSFUL) != std::string_view::npos) {
    return Match{parts[0], Text(without_last(name, SUCCESSFUL.size()), "successes"_p)};
  }
  return Match{parts[0], name};
}

// status.config_updates.sent → config_updates sent
Match status(Tags&, Parts& parts) {
  if (!starts_with(parts[1], "config_updates")) return no_match();
  return Match{"config_updates"_p, parts[2]};
}

// bridge-main.open_connections.value → bridge_connections,bridge=main open
Match bridge(Tags& tags, Parts& parts) {
  tags.set("bridge"_p, past(parts[0], "bridge-"));
  const Piece type = parts[1];
  for (const BridgeRow& row : BRIDGE_CHOICES) {
    if (type.view() == row.type) return row.choice(parts);
  }
  return no_match();
}

}  // namespace translate::rules
