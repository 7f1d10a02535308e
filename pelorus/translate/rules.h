#pragma once

#include "pelorus/translate/parts.h"
#include "pelorus/translate/record.h"

// One rule per plugin. Each writes its record's measurement, field key and tags, in this order; the
// parts begin with the plugin part. Prefixes are dropped by their length, whatever bytes stand
// there: collectd's naming is taken for granted. No state, nothing is thrown.
namespace translate {

using Rule = Outcome (*)(Record& record, Parts& parts);

namespace rules {

Outcome aggfail(Record& record, Parts& parts);
Outcome aggregator(Record& record, Parts& parts);
Outcome aggregation_cpu_average(Record& record, Parts& parts);
Outcome bridge(Record& record, Parts& parts);
Outcome conntrack(Record& record, Parts& parts);
Outcome cpu(Record& record, Parts& parts);
Outcome cpufreq(Record& record, Parts& parts);
Outcome df(Record& record, Parts& parts);
Outcome disk(Record& record, Parts& parts);
Outcome entropy(Record& record, Parts& parts);
Outcome filecount_influxdb(Record& record, Parts& parts);
Outcome interface(Record& record, Parts& parts);
Outcome irq(Record& record, Parts& parts);
Outcome load(Record& record, Parts& parts);
Outcome link_packet_loss(Record& record, Parts& parts);
Outcome memory(Record& record, Parts& parts);
Outcome nginx(Record& record, Parts& parts);
Outcome ntpd(Record& record, Parts& parts);
Outcome postgresql(Record& record, Parts& parts);
Outcome process(Record& record, Parts& parts);
Outcome processes(Record& record, Parts& parts);
Outcome redis(Record& record, Parts& parts);
Outcome status(Record& record, Parts& parts);
Outcome swap(Record& record, Parts& parts);
Outcome tunnel(Record& record, Parts& parts);
Outcome uptime(Record& record, Parts& parts);
Outcome vmem(Record& record, Parts& parts);

// `tunnel` calls these, with the parts after the plugin part.
using TunnelTag = Tag<"tunnel">;
Outcome tunnel_interface_statistics(Record& record, Parts& parts, TunnelTag tunnel);
Outcome tunnel_balancer(Record& record, Parts& parts, TunnelTag tunnel);
Outcome tunnel_compressor(Record& record, Parts& parts, TunnelTag tunnel);
Outcome tunnel_link(Record& record, Parts& parts, TunnelTag tunnel);
Outcome tunnel_packet_protocols(Record& record, Parts& parts, TunnelTag tunnel);
Outcome tunnel_reorderer(Record& record, Parts& parts, TunnelTag tunnel);
Outcome tunnel_statistics(Record& record, Parts& parts, TunnelTag tunnel);

}  // namespace rules
}  // namespace translate
