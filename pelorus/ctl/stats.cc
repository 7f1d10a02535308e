#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelorus/ctl/options.h"
#include "pelorus/ctl/output.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/subcommands.h"
#include "pelorus/ctl/watch.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

// For people: a table with one row for each database, in the order of the reply. A value that is
// missing or of an unexpected type shows as "?".

std::string yes_or_no(const ReplyValue& value) {
  const auto boolean = value.boolean();
  return boolean ? (*boolean ? "yes" : "no") : "?";
}

std::string count(const ReplyValue& value) {
  const auto number = value.number();
  return number ? human_count(*number) : "?";
}

std::string moment(const ReplyValue& value) {
  const auto number = value.number();
  return number ? human_moment(*number) : "?";
}

std::string stats_table(skein::Value databases, const Palette& palette, const Room& room) {
  Table table({{"database"},
               {"writing"},
               {"waiting", Table::RIGHT},
               {"failures", Table::RIGHT},
               {"last write"}});
  ReplyValue(databases).each_pair([&](const std::string& name, const ReplyValue& stats) {
    const ReplyValue failures = stats["failure_count"];
    table.add({{name},
               {yes_or_no(stats["has_current_request"])},
               {count(stats["pending_data_len"])},
               {count(failures), failures.amount() > 0 ? Tone::BAD : Tone::PLAIN},
               {moment(stats["last_sent_time"])}});
  });
  return table.draw(palette, room);
}

// For a monitoring system: one line with a verdict and performance data.

/// Exit status of a monitoring plugin.
enum class Health : int { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };
constexpr std::array<const char*, 4> HEALTH_NAMES{"OK", "WARNING", "CRITICAL", "UNKNOWN"};

struct Measure {
  const char* name;    ///< in a threshold, and in the performance data
  const char* group;   ///< the map of the database that holds the value; null for the outermost
  const char* key;     ///< in that map
  const char* phrase;  ///< what is wrong, around the value

  std::optional<double> value_in(const ReplyValue& database) const {
    return (group == nullptr ? database[key] : database[group][key]).number();
  }
};

constexpr std::array<Measure, 6> MEASURES{{
    {"queue", "queued", "messages", "messages waiting: {:.0f}"},
    {"failures", nullptr, "failure_count", "failed writes: {:.0f}"},
    {"age", nullptr, "last_sent_time", "seconds since the last good write: {:.0f}"},
    {"failed", "failed", "messages", "messages lost in failed writes since the last look: {:.0f}"},
    {"partial", "partial", "messages",
     "messages of writes stored in part since the last look: {:.0f}"},
    {"discarded", "discarded", "messages", "messages discarded since the last look: {:.0f}"},
}};
constexpr std::size_t AGE = 2;
/// This one and those after it count from one look to the next.
constexpr std::size_t FIRST_LOSS = 3;

/// What the last look saw: the daemon's reply, in a file. Its counters are subtracted from those of
/// the present look, unless the daemon has started again since; without a file, nothing is.
class LastLook {
 public:
  /// Throws std::runtime_error for a file that is there and cannot be read.
  explicit LastLook(std::string path) : path_(std::move(path)) {
    std::ifstream file(path_);
    if (!file && std::filesystem::exists(path_)) fail("cannot read");
    if (file) seen_ = nlohmann::json::parse(file, nullptr, false);
    if (seen_.is_discarded()) fail("no JSON in");
  }

  /// The measure's value then; 0 if it counts from the daemon's start.
  double value(const ReplyValue& status, const std::string& database,
               const Measure& measure) const {
    if (seen_.value("started", 0.0) != status["started"].amount()) return 0;
    const auto pointer =
        nlohmann::json::json_pointer() / "databases" / database / measure.group / measure.key;
    return seen_.contains(pointer) ? seen_[pointer].get<double>() : 0;
  }

  /// Replaces the file as a whole. Throws std::runtime_error.
  void keep(skein::Value status) const {
    const std::string draft = path_ + ".new";
    std::ofstream file(draft);
    file << to_json(status, JsonLines::MANY);
    file.close();
    if (!file || std::rename(draft.c_str(), path_.c_str()) != 0) fail("cannot write");
  }

 private:
  [[noreturn]] void fail(const char* what) const {
    throw std::runtime_error(fmt::format("{} the file of --state, '{}'", what, path_));
  }

  std::string path_;
  nlohmann::json seen_ = nlohmann::json::object();
};

/// The value of each measure from which a database is not well. None: the measure is not judged.
using Thresholds = std::array<std::optional<double>, MEASURES.size()>;

/// From texts such as "queue=1000,age=60". Throws UsageError.
Thresholds parse_thresholds(const std::vector<std::string>& texts) {
  Thresholds thresholds;
  for (const std::string& text : texts) {
    const std::size_t sign = std::min(text.find('='), text.size());
    const auto* measure =
        std::ranges::find(MEASURES, std::string_view(text).substr(0, sign), &Measure::name);
    double number = 0;
    const char* const end = text.data() + text.size();
    const char* const begin = std::min(text.data() + sign + 1, end);
    const auto result = std::from_chars(begin, end, number);
    if (measure == MEASURES.end() || result.ec != std::errc() || result.ptr != end ||
        !std::isfinite(number)) {
      throw UsageError(
          fmt::format("'{}' is no threshold: queue=N, failures=N, age=SECONDS, failed=N, partial=N "
                      "or discarded=N",
                      text));
    }
    thresholds.at(static_cast<std::size_t>(measure - MEASURES.begin())) = number;
  }
  return thresholds;
}

/// Collects what is said about all databases. The worst finding decides.
class Verdict {
 public:
  void add(Health health, std::string_view finding) {
    health_ = std::max(health_, health);
    if (!findings_.empty()) findings_ += ", ";
    findings_ += finding;
  }
  void judge(const std::string& database, std::size_t measure, double value,
             std::optional<double> warning, std::optional<double> critical) {
    const auto finding = [&](double limit) {
      return fmt::format("{}: {} (limit {:g})", database,
                         fmt::format(fmt::runtime(MEASURES.at(measure).phrase), value), limit);
    };
    if (critical && value >= *critical) {
      add(Health::CRITICAL, finding(*critical));
    } else if (warning && value >= *warning) {
      add(Health::WARNING, finding(*warning));
    }
    const auto shown = [](auto limit) { return limit ? fmt::format("{:g}", *limit) : ""; };
    performance_ += fmt::format(" '{}_{}'={:.0f}{};{};{};0", database, MEASURES.at(measure).name,
                                value, measure == AGE ? "s" : "", shown(warning), shown(critical));
  }

  Health health() const { return health_; }
  /// "WARNING - bonding: … | performance data"
  std::string line(std::size_t databases) const {
    const std::string well =
        human_number_of("database", databases) + (databases == 1 ? " is well" : " are well");
    return fmt::format("{} - {}{}{}", HEALTH_NAMES.at(static_cast<std::size_t>(health_)),
                       findings_.empty() ? well : findings_, performance_.empty() ? "" : " |",
                       performance_);
  }

 private:
  Health health_ = Health::OK;
  std::string findings_;
  std::string performance_;
};

/// A name without the characters that would end the quotation or the text before the "|".
std::string plain_name(std::string name) {
  name = skein::without_controls(name);
  std::ranges::replace_if(
      name, [](char c) { return c == '|' || c == '\'' || c == '='; }, '_');
  return name;
}

double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// Judges the reply to "status" and prints the line. `only`: the databases that count; all if
/// empty. A database or a value that is missing makes it UNKNOWN. Without a last look no loss is
/// judged.
Health judge(const ReplyValue& status, const std::vector<std::string>& only,
             const Thresholds& warning, const Thresholds& critical, const LastLook* last_look) {
  Verdict verdict;
  std::vector<std::string> seen;
  status["databases"].each_pair([&](const std::string& name, const ReplyValue& database) {
    if (!only.empty() && std::ranges::find(only, name) == only.end()) return;
    seen.push_back(name);
    for (std::size_t i = 0; i < (last_look != nullptr ? MEASURES.size() : FIRST_LOSS); ++i) {
      const auto number = MEASURES.at(i).value_in(database);
      if (!number) {
        verdict.add(Health::UNKNOWN,
                    fmt::format("{}: no {} in the answer", plain_name(name), MEASURES.at(i).name));
        continue;
      }
      double value = *number;
      if (i == AGE) value = std::fmax(now() - value, 0);
      if (i >= FIRST_LOSS) value -= last_look->value(status, name, MEASURES.at(i));
      verdict.judge(plain_name(name), i, value, warning.at(i), critical.at(i));
    }
  });
  for (const std::string& name : only) {
    if (std::ranges::find(seen, name) == seen.end()) {
      verdict.add(Health::UNKNOWN, fmt::format("{}: no such database", plain_name(name)));
    }
  }
  if (seen.empty() && only.empty()) verdict.add(Health::UNKNOWN, "no databases");
  std::puts(verdict.line(seen.size()).c_str());
  return verdict.health();
}

// For Prometheus: the reply to "status" as text for a textfile collector. Connections are counted,
// not listed.

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
  const char* group;  ///< the map that holds the value; null for the outermost
  const char* key;

  std::optional<double> value_in(const ReplyValue& map) const {
    return (group == nullptr ? map[key] : map[group][key]).number();
  }
};

constexpr std::array<Metric, 6> DAEMON_METRICS{{
    {"pelorus_start_time_seconds", "gauge", "Unix time at which the daemon started.", nullptr,
     "started"},
    {"pelorus_loop_delay_seconds", "gauge", "Longest turn of the event loop in the last minute.",
     nullptr, "loop_delay"},
    {"pelorus_messages_total", "counter", "Messages received.", "totals", "messages"},
    {"pelorus_records_total", "counter", "Records received.", "totals", "records"},
    {"pelorus_refused_requests_total", "counter", "Requests that failed and were answered so.",
     "totals", "refused_requests"},
    {"pelorus_dropped_log_lines_total", "counter", "Log lines that could not be written.", "totals",
     "dropped_log_lines"},
}};

constexpr std::array<Metric, 20> DATABASE_METRICS{{
    {"pelorus_queue_messages", "gauge", "Messages that wait.", "queued", "messages"},
    {"pelorus_queue_bytes", "gauge", "Bytes that wait.", "queued", "bytes"},
    {"pelorus_queue_limit_messages", "gauge", "Messages at which the oldest are dropped.", nullptr,
     "max_pending"},
    {"pelorus_queue_full_seconds", "gauge", "Seconds until the queue is full; absent when never.",
     nullptr, "seconds_until_full"},
    {"pelorus_in_flight_messages", "gauge", "Messages of the present write.", "in_flight",
     "messages"},
    {"pelorus_sent_messages_total", "counter", "Messages that were acknowledged.", "sent",
     "messages"},
    {"pelorus_sent_bytes_total", "counter", "Bytes that were acknowledged.", "sent", "bytes"},
    {"pelorus_partial_messages_total", "counter", "Messages of writes stored in part.", "partial",
     "messages"},
    {"pelorus_partial_bytes_total", "counter", "Bytes of writes stored in part.", "partial",
     "bytes"},
    {"pelorus_failed_messages_total", "counter", "Messages of failed writes.", "failed",
     "messages"},
    {"pelorus_failed_bytes_total", "counter", "Bytes of failed writes.", "failed", "bytes"},
    {"pelorus_discarded_messages_total", "counter", "Messages dropped from a full queue.",
     "discarded", "messages"},
    {"pelorus_discarded_bytes_total", "counter", "Bytes dropped from a full queue.", "discarded",
     "bytes"},
    {"pelorus_consecutive_failures", "gauge", "Failed writes since the last good one.", nullptr,
     "failure_count"},
    {"pelorus_last_success_timestamp_seconds", "gauge", "Unix time of the last good write.",
     nullptr, "last_sent_time"},
    {"pelorus_last_failure_timestamp_seconds", "gauge", "Unix time of the last failed write.",
     nullptr, "last_failure_time"},
    {"pelorus_partial_writes_total", "counter", "Writes that InfluxDB stored in part.", nullptr,
     "partial_writes"},
    {"pelorus_dropped_points_total", "counter", "Points that InfluxDB dropped of such writes.",
     nullptr, "dropped_points"},
    {"pelorus_unknown_drops_total", "counter",
     "Such writes whose answer names no number of dropped points.", nullptr, "unknown_drops"},
    {"pelorus_largest_body_bytes", "gauge", "Largest body of one write.", nullptr, "largest_body"},
}};

void append_head(std::string& out, const Metric& metric) {
  fmt::format_to(std::back_inserter(out), "# HELP {0} {1}\n# TYPE {0} {2}\n", metric.name,
                 metric.help, metric.type);
}

/// `labels`: as they stand between the braces. A value that the reply lacks is left out.
void append_sample(std::string& out, const Metric& metric, const std::string& labels,
                   std::optional<double> value) {
  if (!value) return;
  const std::string braced = labels.empty() ? "" : "{" + labels + "}";
  fmt::format_to(std::back_inserter(out), "{}{} {}\n", metric.name, braced, *value);
}

/// A counter for each entry of a map, with the entry's name as a label.
struct LabelledMetric {
  Metric metric;
  const char* label;
};

constexpr std::array<LabelledMetric, 2> LABELLED_METRICS{{
    {{"pelorus_bad_lines_total", "counter", "Lines that yielded no record.", "totals", "bad_lines"},
     "kind"},
    {{"pelorus_ended_connections_total", "counter",
      "Connections that the daemon ended because of a limit or a broken protocol.", "totals",
      "ended_connections"},
     "reason"},
}};

std::string prometheus_text(skein::Value reply) {
  const ReplyValue status(reply);
  std::string out;
  const Metric build{"pelorus_build_info", "gauge", "Version of the daemon.", nullptr, "version"};
  append_head(out, build);
  append_sample(out, build, fmt::format("version=\"{}\"", escaped(status["version"].text())), 1);
  for (const Metric& metric : DAEMON_METRICS) {
    append_head(out, metric);
    append_sample(out, metric, "", metric.value_in(status));
  }
  const Metric auths{"pelorus_authentications_total", "counter",
                     "Answers of the web server about node keys.", "totals", nullptr};
  append_head(out, auths);
  const ReplyValue totals = status["totals"];
  append_sample(out, auths, "result=\"accepted\"", totals["accepted_auths"].number());
  append_sample(out, auths, "result=\"refused\"", totals["refused_auths"].number());
  for (const LabelledMetric& row : LABELLED_METRICS) {
    append_head(out, row.metric);
    const ReplyValue counts = status[row.metric.group][row.metric.key];
    counts.each_pair([&](const std::string& name, const ReplyValue& count) {
      append_sample(out, row.metric, fmt::format("{}=\"{}\"", row.label, escaped(name)),
                    count.number());
    });
  }
  const Metric open{"pelorus_connections", "gauge", "Open connections.", nullptr, "open"};
  append_head(out, open);
  for (const char* listener : {"nodes", "local"}) {
    append_sample(out, open, fmt::format("listener=\"{}\"", listener),
                  open.value_in(status[listener]));
  }
  for (const Metric& metric : DATABASE_METRICS) {
    append_head(out, metric);
    status["databases"].each_pair([&](const std::string& name, const ReplyValue& database) {
      append_sample(out, metric, fmt::format("database=\"{}\"", escaped(name)),
                    metric.value_in(database));
    });
  }
  return out;
}

// The subcommand.

struct StatsOptions {
  bool json = false;
  bool prometheus = false;
  double watch = 0;  ///< seconds between two requests; 0: only one
  std::vector<std::string> warning;
  std::vector<std::string> critical;
  std::vector<std::string> databases;
  std::string state;  ///< path; empty: losses are not judged

  bool monitoring() const { return !warning.empty() || !critical.empty(); }
};

/// The daemon's "status" without its connections.
skein::Answer ask_status(const ServerOptions& server) {
  skein::MsgpackWriter args;
  args.map(1).text("connections").natural(0);
  return ask(server, "status", args);
}

std::string for_programs(const ServerOptions& server, const StatsOptions& options) {
  if (options.prometheus) return prometheus_text(ask_status(server).result());
  return to_json(ask(server, "stats").result(),
                 options.watch > 0 ? JsonLines::ONE : JsonLines::MANY);
}

Picture look(const ServerOptions& server) {
  const auto answer = std::make_shared<skein::Answer>(ask(server, "stats"));  // of each drawing
  return [answer](const Room& room) {
    return stats_table(answer->result(), Palette::of_stdout(), room);
  };
}

/// Prints one line whatever happens.
Health monitor(const ServerOptions& server, const StatsOptions& options) {
  try {
    const auto warning = parse_thresholds(options.warning);
    const auto critical = parse_thresholds(options.critical);
    std::optional<LastLook> last_look;
    if (!options.state.empty()) last_look.emplace(options.state);
    const auto of_losses = [](const Thresholds& thresholds) {
      return std::any_of(thresholds.begin() + FIRST_LOSS, thresholds.end(),
                         [](auto limit) { return limit.has_value(); });
    };
    if (!last_look && (of_losses(warning) || of_losses(critical))) {
      throw UsageError("failed, partial and discarded need --state");
    }
    const skein::Answer answer = ask_status(server);
    const Health health = judge(ReplyValue(answer.result()), options.databases, warning, critical,
                                last_look ? &*last_look : nullptr);
    if (last_look) last_look->keep(answer.result());
    return health;
  } catch (const skein::ClientError& error) {
    fmt::print("UNKNOWN - {}\n", explain(error));
  } catch (const std::exception& error) {
    fmt::print("UNKNOWN - {}\n", error.what());
  }
  return Health::UNKNOWN;
}

void run(const ServerOptions& server, const StatsOptions& options) {
  if (options.monitoring()) throw CLI::RuntimeError(static_cast<int>(monitor(server, options)));
  if (!options.databases.empty()) throw UsageError("--database needs --warn or --crit");
  if (options.json || options.prometheus) {
    if (options.watch > 0)
      watch_lines(options.watch, [&] { return for_programs(server, options); });
    std::fputs(for_programs(server, options).c_str(), stdout);
    return;
  }
  if (options.watch > 0) watch(options.watch, [&] { return look(server); });
  std::fputs(look(server)({}).c_str(), stdout);
}

}  // namespace

void add_stats(CLI::App& app, ServerOptions& server) {
  CLI::App* command = app.add_subcommand("stats", "Show the queue and the writes of each database");
  const auto options = std::make_shared<StatsOptions>();  // shared with the callback
  auto* json = command->add_flag("--json", options->json, "Print the daemon's reply as JSON");
  auto* prometheus =
      command
          ->add_flag("--prometheus", options->prometheus,
                     "Print metrics in the text format of Prometheus, for a textfile collector")
          ->excludes(json);
  auto* watching = add_watch(*command, options->watch)->excludes(prometheus);
  const char* form = "NAME=NUMBER";
  auto* warning =
      command
          ->add_option("--warn", options->warning,
                       "Act as a monitoring plugin: print one line, with WARNING from this "
                       "value. NAME is queue (waiting messages), failures (failed writes "
                       "since the last good one), age (seconds since the last good one), or, with "
                       "--state, failed, partial or discarded (messages since the last look: lost "
                       "in failed writes, of writes stored in part, dropped from a full queue)")
          ->type_name(form);
  auto* critical =
      command->add_option("--crit", options->critical, "The same for CRITICAL")->type_name(form);
  for (auto* option : {warning, critical}) {
    option->delimiter(',')->excludes(json)->excludes(prometheus)->excludes(watching);
  }
  command
      ->add_option("--database", options->databases,
                   "Judge only this database; may be repeated. Needs --warn or --crit")
      ->type_name("NAME");
  command
      ->add_option("--state", options->state,
                   "File that keeps what this look has seen for the next one; needed to judge "
                   "failed, partial and discarded")
      ->type_name("FILE");
  command->footer(
      "With --warn or --crit the exit status is a monitoring plugin's:\n"
      "  0  OK\n  1  WARNING\n  2  CRITICAL\n  3  UNKNOWN: it could not judge\n\n" +
      exit_status_help());
  server.add_local(*command);
  command->callback([&server, options] { run(server, *options); });
}

}  // namespace pelorus::ctl
