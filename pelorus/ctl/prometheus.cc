#include "pelorus/ctl/prometheus.h"

#include <fmt/format.h>

#include <array>
#include <iterator>
#include <optional>

#include "pelorus/ctl/reply.h"

namespace pelorus::ctl {
namespace {

/// A label's value between its quotation marks.
std::string escaped(std::string_view text) {
  std::string out;
  for (const char byte : text) {
    if (byte == '\\' || byte == '"') out += '\\';
    if (byte == '\n') {
      out += "\\n";
    } else {
      out += byte;
    }
  }
  return out;
}

struct Metric {
  const char* name;
  const char* type;
  const char* help;
};

class Exposition {
 public:
  void head(const Metric& metric) {
    fmt::format_to(std::back_inserter(text_), "# HELP {0} {1}\n# TYPE {0} {2}\n", metric.name,
                   metric.help, metric.type);
  }
  /// `labels`: ready to stand between the braces.
  void sample(const Metric& metric, const std::string& labels, std::optional<double> value) {
    if (!value) return;
    text_ += metric.name;
    if (!labels.empty()) text_ += "{" + labels + "}";
    fmt::format_to(std::back_inserter(text_), " {}\n", *value);
  }
  std::string take() { return std::move(text_); }

 private:
  std::string text_;
};

struct PlainRow {
  Metric metric;
  const char* group;  ///< the map that the value lies in; null for the outermost
  const char* key;
};

constexpr std::array<PlainRow, 4> PLAIN{{
    {{"pelorus_start_time_seconds", "gauge", "Unix time at which the daemon started."},
     nullptr,
     "started"},
    {{"pelorus_loop_delay_seconds", "gauge", "Longest turn of the event loop in the last minute."},
     nullptr,
     "loop_delay"},
    {{"pelorus_messages_total", "counter", "Messages received."}, "totals", "messages"},
    {{"pelorus_records_total", "counter", "Records received."}, "totals", "records"},
}};

struct DatabaseRow {
  Metric metric;
  const char* group;
  const char* key;
};

constexpr std::array<DatabaseRow, 17> DATABASE{{
    {{"pelorus_queue_messages", "gauge", "Messages that wait."}, "queued", "messages"},
    {{"pelorus_queue_bytes", "gauge", "Bytes that wait."}, "queued", "bytes"},
    {{"pelorus_queue_limit_messages", "gauge", "Messages at which the oldest are dropped."},
     nullptr,
     "max_pending"},
    {{"pelorus_queue_full_seconds", "gauge", "Seconds until the queue is full; absent when never."},
     nullptr,
     "seconds_until_full"},
    {{"pelorus_in_flight_messages", "gauge", "Messages of the present write."},
     "in_flight",
     "messages"},
    {{"pelorus_sent_messages_total", "counter", "Messages that were acknowledged."},
     "sent",
     "messages"},
    {{"pelorus_sent_bytes_total", "counter", "Bytes that were acknowledged."}, "sent", "bytes"},
    {{"pelorus_failed_messages_total", "counter", "Messages of failed writes."},
     "failed",
     "messages"},
    {{"pelorus_failed_bytes_total", "counter", "Bytes of failed writes."}, "failed", "bytes"},
    {{"pelorus_discarded_messages_total", "counter", "Messages dropped from a full queue."},
     "discarded",
     "messages"},
    {{"pelorus_discarded_bytes_total", "counter", "Bytes dropped from a full queue."},
     "discarded",
     "bytes"},
    {{"pelorus_consecutive_failures", "gauge", "Failed writes since the last good one."},
     nullptr,
     "failure_count"},
    {{"pelorus_last_success_timestamp_seconds", "gauge", "Unix time of the last good write."},
     nullptr,
     "last_sent_time"},
    {{"pelorus_last_failure_timestamp_seconds", "gauge", "Unix time of the last failed write."},
     nullptr,
     "last_failure_time"},
    {{"pelorus_partial_writes_total", "counter", "Writes that InfluxDB took in part."},
     nullptr,
     "partial_writes"},
    {{"pelorus_dropped_points_total", "counter", "Points that InfluxDB dropped of such writes."},
     nullptr,
     "dropped_points"},
    {{"pelorus_largest_body_bytes", "gauge", "Largest body of one write."},
     nullptr,
     "largest_body"},
}};

Reading in_group(const Reading& map, const char* group, const char* key) {
  return group == nullptr ? map[key] : map[group][key];
}

}  // namespace

std::string prometheus_text(skein::Value value) {
  const Reading status(value);
  Exposition out;
  const Metric build{"pelorus_build_info", "gauge", "Version of the daemon."};
  out.head(build);
  out.sample(build, fmt::format("version=\"{}\"", escaped(status["version"].text())), 1);
  for (const PlainRow& row : PLAIN) {
    out.head(row.metric);
    out.sample(row.metric, "", in_group(status, row.group, row.key).number());
  }
  const Metric auths{"pelorus_authentications_total", "counter",
                     "Answers of the web server about node keys."};
  out.head(auths);
  out.sample(auths, "result=\"accepted\"", status["totals"]["accepted_auths"].number());
  out.sample(auths, "result=\"refused\"", status["totals"]["refused_auths"].number());
  const Metric open{"pelorus_connections", "gauge", "Open connections."};
  out.head(open);
  for (const char* listener : {"nodes", "local"}) {
    out.sample(open, fmt::format("listener=\"{}\"", listener), status[listener]["open"].number());
  }
  for (const DatabaseRow& row : DATABASE) {
    out.head(row.metric);
    status["databases"].each_pair([&](const std::string& name, const Reading& database) {
      out.sample(row.metric, fmt::format("database=\"{}\"", escaped(name)),
                 in_group(database, row.group, row.key).number());
    });
  }
  return out.take();
}

}  // namespace pelorus::ctl
