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

#include "pelorus/ctl/command.h"
#include "pelorus/ctl/output.h"
#include "skein/text.h"

namespace pelorus::ctl {
namespace {

// For people: a table with one row for each database, in the order of the reply. A value that is
// missing or of an unexpected type shows as "?".

std::string stats_table(const Json& databases, const Screen& screen) {
  Table table({{"database"},
               {"writing"},
               {"waiting", Table::RIGHT},
               {"failures", Table::RIGHT},
               {"last write"}});
  const auto shown = [](std::optional<double> number, std::string (*text)(double)) {
    return number ? text(*number) : "?";
  };
  for (const auto& [name, database] : databases.items()) {
    const Json& writing = at(database, "/has_current_request");
    const auto failures = number_at(database, "/failure_count");
    table.add({{name},
               {!writing.is_boolean() ? "?"
                : writing.get<bool>() ? "yes"
                                      : "no"},
               {shown(number_at(database, "/pending_data_len"), human_count)},
               {shown(failures, human_count), failures > 0 ? BAD : PLAIN},
               {shown(number_at(database, "/last_sent_time"), human_moment)}});
  }
  return table.draw(screen);
}

// For a monitoring system: one line with a verdict and performance data.

/// Exit status of a monitoring plugin.
enum class Health : int { OK = 0, WARNING = 1, CRITICAL = 2, UNKNOWN = 3 };
constexpr std::array<const char*, 4> HEALTH_NAMES{"OK", "WARNING", "CRITICAL", "UNKNOWN"};

struct Measure {
  const char* name;     ///< in a threshold, and in the performance data
  const char* pointer;  ///< to the value in what the reply says of a database
  const char* phrase;   ///< what is wrong, around the value
};

constexpr std::array<Measure, 6> MEASURES{{
    {"queue", "/queued/messages", "messages waiting: {:.0f}"},
    {"failures", "/failure_count", "failed writes: {:.0f}"},
    {"age", "/last_sent_time", "seconds since the last good write: {:.0f}"},
    {"failed", "/failed/messages", "messages lost in failed writes since the last check: {:.0f}"},
    {"partial", "/partial/messages",
     "messages of writes stored in part since the last check: {:.0f}"},
    {"discarded", "/discarded/messages", "messages discarded since the last check: {:.0f}"},
}};
constexpr std::size_t AGE = 2;
/// This one and those after it count from one check to the next: the reply of the last one, which
/// --state keeps in a file, is subtracted. Nothing is if the daemon has started again since.
constexpr std::size_t FIRST_LOSS = 3;

[[noreturn]] void fail_state(const char* what, const std::string& path) {
  throw std::runtime_error(fmt::format("{} the file of --state, '{}'", what, path));
}

/// The reply in the file of --state; an empty map if there is no file. Throws std::runtime_error.
Json read_state(const std::string& path) {
  std::ifstream file(path);
  if (!file && std::filesystem::exists(path)) fail_state("cannot read", path);
  Json status = file ? Json::parse(file, nullptr, false) : Json::object();
  if (status.is_discarded()) fail_state("no JSON in", path);
  return status;
}

/// Replaces the file as a whole. Throws std::runtime_error.
void write_state(const std::string& path, const Json& status) {
  const std::string draft = path + ".new";
  std::ofstream file(draft);
  file << indented(status);
  file.close();
  if (!file || std::rename(draft.c_str(), path.c_str()) != 0) fail_state("cannot write", path);
}

/// The limit of each measure. None: the measure is not judged.
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

/// Collects the findings about all databases. The worst one decides: CRITICAL, then UNKNOWN.
class Verdict {
 public:
  void add(Health health, std::string_view finding) {
    const bool critical = health == Health::CRITICAL || health_ == Health::CRITICAL;
    health_ = critical ? Health::CRITICAL : std::max(health_, health);
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
/// empty. A database or a value that is missing makes it UNKNOWN. `last`: the reply that --state
/// has kept; without one no loss is judged.
Health judge(const Json& status, const std::vector<std::string>& only, const Thresholds& warning,
             const Thresholds& critical, const std::optional<Json>& last) {
  Verdict verdict;
  std::vector<std::string> seen;
  const bool same_run = last && number_at(*last, "/started") == number_at(status, "/started");
  for (const auto& [name, database] : at(status, "/databases").items()) {
    if (!only.empty() && std::ranges::find(only, name) == only.end()) continue;
    seen.push_back(name);
    for (std::size_t i = 0; i < (last ? MEASURES.size() : FIRST_LOSS); ++i) {
      const auto& [measure, pointer, phrase] = MEASURES.at(i);
      const auto number = number_at(database, pointer);
      if (!number) {
        verdict.add(Health::UNKNOWN,
                    fmt::format("{}: no {} in the answer", plain_name(name), measure));
        continue;
      }
      double value = *number;
      if (i == AGE) value = std::fmax(now() - value, 0);
      if (i >= FIRST_LOSS && same_run) value -= count_at(database_in(*last, name), pointer);
      verdict.judge(plain_name(name), i, value, warning.at(i), critical.at(i));
    }
  }
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
  const char* pointer;          ///< to the value in the reply, or in that of a database
  const char* label = nullptr;  ///< with one: the value is a map, each entry of it a sample
};

constexpr std::array<Metric, 10> DAEMON_METRICS{{
    {"pelorus_start_time_seconds", "gauge", "Unix time at which the daemon started.", "/started"},
    {"pelorus_loop_delay_seconds", "gauge",
     "Longest iteration of the event loop in the last minute.", "/loop_delay"},
    {"pelorus_messages_total", "counter", "Messages received.", "/totals/messages"},
    {"pelorus_records_total", "counter", "Records received.", "/totals/records"},
    {"pelorus_queues_memory_bytes", "gauge",
     "Memory of all queues, and of what writes have not sent yet.", "/totals/queued_memory"},
    {"pelorus_queues_limit_bytes", "gauge", "Memory at which the oldest messages are dropped.",
     "/totals/max_queued_bytes"},
    {"pelorus_refused_requests_total", "counter", "Requests that failed and were answered so.",
     "/totals/refused_requests"},
    {"pelorus_dropped_log_lines_total", "counter", "Log lines that could not be written.",
     "/totals/dropped_log_lines"},
    {"pelorus_bad_lines_total", "counter", "Lines that yielded no record.", "/totals/bad_lines",
     "kind"},
    {"pelorus_ended_connections_total", "counter",
     "Connections that the daemon ended because of a limit or a broken protocol.",
     "/totals/ended_connections", "reason"},
}};

constexpr std::array<Metric, 20> DATABASE_METRICS{{
    {"pelorus_queue_messages", "gauge", "Messages that wait.", "/queued/messages"},
    {"pelorus_queue_bytes", "gauge", "Bytes that wait.", "/queued/bytes"},
    {"pelorus_queue_limit_messages", "gauge", "Messages at which the oldest are dropped.",
     "/max_pending"},
    {"pelorus_queue_full_seconds", "gauge",
     "Seconds until messages are dropped; absent when never.", "/seconds_until_full"},
    {"pelorus_in_flight_messages", "gauge", "Messages of the present write.",
     "/in_flight/messages"},
    {"pelorus_sent_messages_total", "counter", "Messages that were acknowledged.",
     "/sent/messages"},
    {"pelorus_sent_bytes_total", "counter", "Bytes that were acknowledged.", "/sent/bytes"},
    {"pelorus_partial_messages_total", "counter", "Messages of writes stored in part.",
     "/partial/messages"},
    {"pelorus_partial_bytes_total", "counter", "Bytes of writes stored in part.", "/partial/bytes"},
    {"pelorus_failed_messages_total", "counter", "Messages of failed writes.", "/failed/messages"},
    {"pelorus_failed_bytes_total", "counter", "Bytes of failed writes.", "/failed/bytes"},
    {"pelorus_discarded_messages_total", "counter", "Messages dropped from a full queue.",
     "/discarded/messages"},
    {"pelorus_discarded_bytes_total", "counter", "Bytes dropped from a full queue.",
     "/discarded/bytes"},
    {"pelorus_consecutive_failures", "gauge", "Failed writes since the last good one.",
     "/failure_count"},
    {"pelorus_last_success_timestamp_seconds", "gauge", "Unix time of the last good write.",
     "/last_sent_time"},
    {"pelorus_last_failure_timestamp_seconds", "gauge", "Unix time of the last failed write.",
     "/last_failure_time"},
    {"pelorus_partial_writes_total", "counter", "Writes that InfluxDB stored in part.",
     "/partial_writes"},
    {"pelorus_dropped_points_total", "counter", "Points that InfluxDB dropped of such writes.",
     "/dropped_points"},
    {"pelorus_unknown_drops_total", "counter",
     "Such writes whose answer names no number of dropped points.", "/unknown_drops"},
    {"pelorus_largest_body_bytes", "gauge", "Largest body of one write.", "/largest_body"},
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

std::string label(std::string_view name, std::string_view value) {
  return fmt::format("{}=\"{}\"", name, escaped(value));
}

void append_daemon_metric(std::string& out, const Metric& metric, const Json& status) {
  append_head(out, metric);
  if (metric.label == nullptr) {
    return append_sample(out, metric, "", number_at(status, metric.pointer));
  }
  for (const auto& [name, value] : at(status, metric.pointer).items()) {
    append_sample(out, metric, label(metric.label, name), number_at(value, ""));
  }
}

std::string prometheus_text(const Json& status) {
  std::string out;
  const Metric build{"pelorus_build_info", "gauge", "Version of the daemon.", ""};
  append_head(out, build);
  append_sample(out, build, label("version", text_at(status, "/version")), 1);
  for (const Metric& metric : DAEMON_METRICS) append_daemon_metric(out, metric, status);
  const Metric auths{"pelorus_authentications_total", "counter",
                     "Answers of the web server about node keys.", ""};
  append_head(out, auths);
  for (const char* result : {"accepted", "refused"}) {
    append_sample(out, auths, label("result", result),
                  number_at(status, fmt::format("/totals/{}_auths", result)));
  }
  const Metric open{"pelorus_connections", "gauge", "Open connections.", ""};
  append_head(out, open);
  for (const char* listener : {"nodes", "local"}) {
    append_sample(out, open, label("listener", listener),
                  number_at(status, fmt::format("/{}/open", listener)));
  }
  for (const Metric& metric : DATABASE_METRICS) {
    append_head(out, metric);
    for (const auto& [name, database] : at(status, "/databases").items()) {
      append_sample(out, metric, label("database", name), number_at(database, metric.pointer));
    }
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
Json ask_status(const ServerOptions& server) {
  skein::MsgpackWriter args;
  args.map(1).text("connections").natural(0);
  return ask(server, "status", args);
}

Json ask_stats(const ServerOptions& server) {
  skein::MsgpackWriter no_args;
  return ask(server, "stats", no_args.map(0));
}

std::string for_programs(const ServerOptions& server, const StatsOptions& options) {
  if (options.prometheus) return prometheus_text(ask_status(server));
  const Json stats = ask_stats(server);
  return options.watch > 0 ? on_one_line(stats) : indented(stats);
}

/// Prints one line, also after a failure.
Health monitor(const ServerOptions& server, const StatsOptions& options) {
  try {
    const auto warning = parse_thresholds(options.warning);
    const auto critical = parse_thresholds(options.critical);
    std::optional<Json> last;
    if (!options.state.empty()) last = read_state(options.state);
    const auto of_losses = [](const Thresholds& thresholds) {
      return std::any_of(thresholds.begin() + FIRST_LOSS, thresholds.end(),
                         [](auto limit) { return limit.has_value(); });
    };
    if (!last && (of_losses(warning) || of_losses(critical))) {
      throw UsageError("failed, partial and discarded need --state");
    }
    const Json status = ask_status(server);
    const Health health = judge(status, options.databases, warning, critical, last);
    if (last) write_state(options.state, status);
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
    const auto text = [&] { return for_programs(server, options); };
    if (options.watch > 0) watch_lines(options.watch, text);
    std::fputs(text().c_str(), stdout);
    return;
  }
  Json stats;
  const auto update = [&] { stats = ask_stats(server); };
  const auto draw = [&](const Screen& screen) { return stats_table(stats, screen); };
  if (options.watch > 0) watch(options.watch, update, draw);
  update();
  std::fputs(draw({}).c_str(), stdout);
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
                       "--state, failed, partial or discarded (messages since the last check: lost "
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
                   "File that keeps the counters of this check for the next one; needed to judge "
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
