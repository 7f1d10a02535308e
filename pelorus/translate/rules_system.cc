#include <algorithm>

#include "pelorus/translate/rules.h"

namespace translate::rules {

using namespace literals;

// load.load.shortterm → load shortterm
Outcome load(Record& record, Parts& parts) { return record.write(parts[0], parts[2]); }

// entropy.entropy.value → entropy value
Outcome entropy(Record& record, Parts& parts) { return record.write(parts[0], parts[2]); }

// uptime.uptime.value → uptime value
Outcome uptime(Record& record, Parts& parts) { return record.write(parts[0], parts[2]); }

// redis.memory → redis memory
Outcome redis(Record& record, Parts& parts) { return record.write(parts[0], parts[1]); }

// memory.memory-used → memory used
Outcome memory(Record& record, Parts& parts) {
  return record.write(parts[0], drop_prefix(parts[1], "memory-"));
}

// cpu-3.cpu-idle → cpu,cpu=3 idle
Outcome cpu(Record& record, Parts& parts) {
  return record.write("cpu"_p, drop_prefix(parts[1], "cpu-"),
                      tag<"cpu">(drop_prefix(parts[0], "cpu-")));
}

// cpufreq.cpufreq-1 → cpu,cpu=1 frequency
Outcome cpufreq(Record& record, Parts& parts) {
  return record.write("cpu"_p, "frequency"_p, tag<"cpu">(drop_prefix(parts[1], "cpufreq-")));
}

// processes-nginx.ps_rss → process,process=nginx rss
Outcome process(Record& record, Parts& parts) {
  return record.write("process"_p, drop_prefix(parts[1], "ps_"),
                      tag<"process">(drop_prefix(parts[0], "processes-")));
}

// processes.ps_state-running → processes running; processes.fork_rate → processes fork_rate
Outcome processes(Record& record, Parts& parts) {
  const Slice type = parts[1];
  return record.write(parts[0],
                      starts_with(type, "ps_state") ? drop_prefix(type, "ps_state-") : type);
}

// disk-sda.disk_octets.read → disk,device=sda read_octets
// Kept: the offsets hold for a plugin part "diskX…" too, since collectd sends none.
Outcome disk(Record& record, Parts& parts) {
  return record.write("disk"_p, concat(parts[2], drop_prefix(parts[1], "disk")),
                      tag<"device">(drop_prefix(parts[0], "disk-")));
}

// interface-eth0.if_octets.rx → interface,interface=eth0 rx_octets
Outcome interface(Record& record, Parts& parts) {
  return record.write("interface"_p, concat(parts[2], drop_prefix(parts[1], "if")),
                      tag<"interface">(drop_prefix(parts[0], "interface-")));
}

// postgresql-main.pg_n_tup_c-ins → postgresql,db=main pg_n_tup_c_ins
Outcome postgresql(Record& record, Parts& parts) {
  return record.write("postgresql"_p, replaced(concat(parts[1]), '-', '_'),
                      tag<"db">(drop_prefix(parts[0], "postgresql-")));
}

// swap.swap_io-in → swap io_in; swap.swap-free → swap free
Outcome swap(Record& record, Parts& parts) {
  return record.write(parts[0], replaced(concat(drop_prefix(parts[1], "swap-")), '-', '_'));
}

// filecount-influxdb.files → influxdb_filecount files
Outcome filecount_influxdb(Record& record, Parts& parts) {
  return record.write("influxdb_filecount"_p, parts[1]);
}

// df-root.df_complex-free → filesystem,path=/ free; df-var-log… → path=/var/log
Outcome df(Record& record, Parts& parts) {
  const Slice name = drop_prefix(parts[0], "df-");
  const Slice path = name == "root" ? ""_p : name;
  return record.write("filesystem"_p, drop_prefix(parts[1], "df_complex-"),
                      tag<"path">(replaced(concat("/"_p, path), '-', '/')));
}

// irq.irq-12 → irq irq12; irq.irq-NMI → irq NMI
Outcome irq(Record& record, Parts& parts) {
  const Slice name = drop_prefix(parts[1], "irq-");
  const bool numbered = name.size > 0 && std::ranges::all_of(name.view(), [](char c) {
                          return c >= '0' && c <= '9';
                        });
  return record.write(parts[0], numbered ? concat("irq"_p, name) : concat(""_p, name));
}

// conntrack.percent-used → conntrack percent
Outcome conntrack(Record& record, Parts& parts) {
  const Slice type = parts[1];
  if (type == "conntrack-max") return record.write(parts[0], "max"_p);
  if (type == "conntrack") return record.write(parts[0], "current"_p);
  if (type == "percent-used") return record.write(parts[0], "percent"_p);
  return Outcome::KEY_UNASSIGNED;
}

// vmem.vmpage_number-free_pages → vmem num_free_pages; vmem.vmpage_io-memory.in → vmem memory_in
Outcome vmem(Record& record, Parts& parts) {
  const Slice type = parts[1];
  if (starts_with(type, "vmpage_number")) {
    return record.write(parts[0], concat("num_"_p, drop_prefix(type, "vmpage_number-")));
  }
  if (starts_with(type, "vmpage_io")) {
    return record.write(parts[0], concat(drop_prefix(type, "vmpage_io-"), "_"_p, parts[2]));
  }
  if (type == "vmpage_faults") return record.write(parts[0], parts[2]);
  if (starts_with(type, "vmpage_action")) {
    return record.write(parts[0], concat("num_"_p, drop_prefix(type, "vmpage_action-")));
  }
  return Outcome::REFUSED;
}

// nginx.nginx_connections-active → nginx active_connections
Outcome nginx(Record& record, Parts& parts) {
  const Slice type = parts[1];
  if (starts_with(type, "connections")) {
    // Kept: "accepted_connected", "handled_connected": dashboards know these names.
    return record.write(parts[0], concat(drop_prefix(type, "connections-"), "_connected"_p));
  }
  if (starts_with(type, "nginx_connections")) {
    return record.write(parts[0],
                        concat(drop_prefix(type, "nginx_connections-"), "_connections"_p));
  }
  if (type == "nginx_requests") return record.write(parts[0], "requests"_p);
  return Outcome::REFUSED;
}

// ntpd.time_offset-192.168.1.1.value → ntpd,peer=192.168.1.1 time_offset
// The peer is an address whose dots cut it into parts; the last part is the data source's name.
Outcome ntpd(Record& record, Parts& parts) {
  const auto sides = split_at_dash(parts[1]);
  if (!sides) return Outcome::NO_DASH;
  const auto [type, instance] = *sides;
  if (type == "frequency_offset") return record.write(parts[0], type);
  return record.write(parts[0], type, tag<"peer">(parts.up_to_last(instance)));
}

}  // namespace translate::rules
