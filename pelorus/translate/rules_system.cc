#include <algorithm>

#include "pelorus/translate/rules.h"

namespace translate::rules {

using namespace literals;

// load.load.shortterm → load shortterm
Match load(Tags&, Parts& parts) { return Match{parts[0], parts[2]}; }

// entropy.entropy.value → entropy value
Match entropy(Tags&, Parts& parts) { return Match{parts[0], parts[2]}; }

// uptime.uptime.value → uptime value
Match uptime(Tags&, Parts& parts) { return Match{parts[0], parts[2]}; }

// redis.memory → redis memory
Match redis(Tags&, Parts& parts) { return Match{parts[0], parts[1]}; }

// memory.memory-used → memory used
Match memory(Tags&, Parts& parts) { return Match{parts[0], past(parts[1], "memory-")}; }

// cpu-3.cpu-idle → cpu,cpu=3 idle
Match cpu(Tags& tags, Parts& parts) {
  tags.set("cpu"_p, past(parts[0], "cpu-"));
  return Match{"cpu"_p, past(parts[1], "cpu-")};
}

// cpufreq.cpufreq-1 → cpu,cpu=1 frequency
Match cpufreq(Tags& tags, Parts& parts) {
  tags.set("cpu"_p, past(parts[1], "cpufreq-"));
  return Match{"cpu"_p, "frequency"_p};
}

// processes-nginx.ps_rss → process,process=nginx rss
Match process(Tags& tags, Parts& parts) {
  tags.set("process"_p, past(parts[0], "processes-"));
  return Match{"process"_p, past(parts[1], "ps_")};
}

// processes.ps_state-running → processes running; processes.fork_rate → processes fork_rate
Match processes(Tags&, Parts& parts) {
  const Piece type = parts[1];
  return Match{parts[0], starts_with(type, "ps_state") ? past(type, "ps_state-") : type};
}

// disk-sda.disk_octets.read → disk,device=sda read_octets
// Kept: the offsets hold for a plugin part "diskX…" too, since collectd sends none.
Match disk(Tags& tags, Parts& parts) {
  tags.set("device"_p, past(parts[0], "disk-"));
  return Match{"disk"_p, Text(parts[2], past(parts[1], "disk"))};
}

// interface-eth0.if_octets.rx → interface,interface=eth0 rx_octets
Match interface(Tags& tags, Parts& parts) {
  tags.set("interface"_p, past(parts[0], "interface-"));
  return Match{"interface"_p, Text(parts[2], past(parts[1], "if"))};
}

// postgresql-main.pg_n_tup_c-ins → postgresql,db=main pg_n_tup_c_ins
Match postgresql(Tags& tags, Parts& parts) {
  tags.set("db"_p, past(parts[0], "postgresql-"));
  return Match{"postgresql"_p, Text(parts[1]).replacing('-', '_')};
}

// swap.swap_io-in → swap io_in; swap.swap-free → swap free
Match swap(Tags&, Parts& parts) {
  return Match{parts[0], Text(past(parts[1], "swap-")).replacing('-', '_')};
}

// filecount-influxdb.files → influxdb_filecount files
Match filecount_influxdb(Tags&, Parts& parts) { return Match{"influxdb_filecount"_p, parts[1]}; }

// df-root.df_complex-free → filesystem,path=/ free; df-var-log… → path=/var/log
Match df(Tags& tags, Parts& parts) {
  const Piece name = past(parts[0], "df-");
  tags.set("path"_p, name == "root" ? Text("/"_p) : Text("/"_p, name).replacing('-', '/'));
  return Match{"filesystem"_p, past(parts[1], "df_complex-")};
}

// irq.irq-12 → irq irq12; irq.irq-NMI → irq NMI
Match irq(Tags&, Parts& parts) {
  const Piece name = past(parts[1], "irq-");
  const bool numbered = name.size > 0 && std::ranges::all_of(name.view(), [](char c) {
                          return c >= '0' && c <= '9';
                        });
  return Match{parts[0], numbered ? Text("irq"_p, name) : Text(name)};
}

// conntrack.percent-used → conntrack percent
Match conntrack(Tags&, Parts& parts) {
  const Piece type = parts[1];
  if (type == "conntrack-max") return Match{parts[0], "max"_p};
  if (type == "conntrack") return Match{parts[0], "current"_p};
  if (type == "percent-used") return Match{parts[0], "percent"_p};
  return {.outcome = Outcome::KEY_UNASSIGNED};
}

// vmem.vmpage_number-free_pages → vmem num_free_pages; vmem.vmpage_io-memory.in → vmem memory_in
Match vmem(Tags&, Parts& parts) {
  const Piece type = parts[1];
  if (starts_with(type, "vmpage_number")) {
    return Match{parts[0], Text("num_"_p, past(type, "vmpage_number-"))};
  }
  if (starts_with(type, "vmpage_io")) {
    return Match{parts[0], Text(past(type, "vmpage_io-"), "_"_p, parts[2])};
  }
  if (type == "vmpage_faults") return Match{parts[0], parts[2]};
  if (starts_with(type, "vmpage_action")) {
    return Match{parts[0], Text("num_"_p, past(type, "vmpage_action-"))};
  }
  return no_match();
}

// nginx.nginx_connections-active → nginx active_connections
Match nginx(Tags&, Parts& parts) {
  const Piece type = parts[1];
  if (starts_with(type, "connections")) {
    // Kept: "accepted_connected", "handled_connected": dashboards know these names.
    return Match{parts[0], Text(past(type, "connections-"), "_connected"_p)};
  }
  if (starts_with(type, "nginx_connections")) {
    return Match{parts[0], Text(past(type, "nginx_connections-"), "_connections"_p)};
  }
  if (type == "nginx_requests") return Match{parts[0], "requests"_p};
  return no_match();
}

// ntpd.time_offset-192.168.1.1.value → ntpd,peer=192.168.1.1 time_offset
// The peer is an address whose dots cut it into parts; the last part is the data source's name.
Match ntpd(Tags& tags, Parts& parts) {
  const auto pieces = split_at_dash(parts[1]);
  if (!pieces) return {.outcome = Outcome::NOT_TWO_PIECES};
  const auto [type, instance] = *pieces;
  if (!(type == "frequency_offset")) tags.set("peer"_p, parts.up_to_last(instance));
  return Match{parts[0], type};
}

}  // namespace translate::rules
