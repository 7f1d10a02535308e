#pragma once

#include "pelorus/translate/series.h"

// One rule per plugin. Each adds its tags to those it is given and names measurement and field key;
// the parts begin with the plugin part. Fixed offsets are applied blindly: collectd's naming is
// taken for granted, whatever bytes stand there. No state, nothing is thrown.
namespace translate::rules {

Match aggfail(Tags& tags, Parts& parts);
Match aggregator(Tags& tags, Parts& parts);
Match aggregation_cpu_average(Tags& tags, Parts& parts);
Match bridge(Tags& tags, Parts& parts);
Match conntrack(Tags& tags, Parts& parts);
Match cpu(Tags& tags, Parts& parts);
Match cpufreq(Tags& tags, Parts& parts);
Match df(Tags& tags, Parts& parts);
Match disk(Tags& tags, Parts& parts);
Match entropy(Tags& tags, Parts& parts);
Match filecount_influxdb(Tags& tags, Parts& parts);
Match interface(Tags& tags, Parts& parts);
Match irq(Tags& tags, Parts& parts);
Match load(Tags& tags, Parts& parts);
Match link_packet_loss(Tags& tags, Parts& parts);
Match memory(Tags& tags, Parts& parts);
Match nginx(Tags& tags, Parts& parts);
Match ntpd(Tags& tags, Parts& parts);
Match postgresql(Tags& tags, Parts& parts);
Match process(Tags& tags, Parts& parts);
Match processes(Tags& tags, Parts& parts);
Match redis(Tags& tags, Parts& parts);
Match status(Tags& tags, Parts& parts);
Match swap(Tags& tags, Parts& parts);
Match tunnel(Tags& tags, Parts& parts);
// These run behind `tunnel`, on the parts behind the plugin part.
Match tunnel_interface_statistics(Tags& tags, Parts& parts);
Match tunnel_balancer(Tags& tags, Parts& parts);
Match tunnel_compressor(Tags& tags, Parts& parts);
Match tunnel_link(Tags& tags, Parts& parts);
Match tunnel_packet_protocols(Tags& tags, Parts& parts);
Match tunnel_reorderer(Tags& tags, Parts& parts);
Match tunnel_statistics(Tags& tags, Parts& parts);
Match uptime(Tags& tags, Parts& parts);
Match vmem(Tags& tags, Parts& parts);

}  // namespace translate::rules
