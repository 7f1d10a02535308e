#include "pelorus/ctl/stats.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <memory>

#include "pelorus/ctl/exit_status.h"
#include "pelorus/ctl/json.h"
#include "pelorus/ctl/prometheus.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/server_options.h"
#include "pelorus/ctl/thresholds.h"

namespace pelorus::ctl {
namespace {

struct StatsOptions {
  bool json = false;
  bool prometheus = false;
  double watch = 0;  ///< seconds between two looks; 0: one look
  std::vector<std::string> warning;
  std::vector<std::string> critical;
  std::vector<std::string> databases;

  bool monitoring() const { return !warning.empty() || !critical.empty(); }
};

std::string draw(const ServerOptions& server, const StatsOptions& options) {
  if (options.prometheus) {
    skein::MsgpackWriter args;
    args.map(1).text("connections").natural(0);
    return prometheus_text(ask(server, "status", args).result());
  }
  const skein::Answer answer = ask(server, "stats");
  return options.json ? to_json(answer.result())
                      : stats_table(answer.result(), Palette::of_stdout());
}

double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

/// One line for a monitoring system, whatever happens.
Judgement judge_daemon(const ServerOptions& server, const StatsOptions& options) {
  try {
    const auto warning = Thresholds::parse(options.warning);
    const auto critical = Thresholds::parse(options.critical);
    const skein::Answer answer = ask(server, "stats");
    return judge(answer.result(), options.databases, warning, critical, now());
  } catch (const skein::ClientError& error) {
    return {Health::UNKNOWN, "UNKNOWN - " + explain(error)};
  } catch (const std::exception& error) {
    return {Health::UNKNOWN, std::string("UNKNOWN - ") + error.what()};
  }
}

void run(const ServerOptions& server, const StatsOptions& options) {
  if (options.monitoring()) {
    const Judgement judgement = judge_daemon(server, options);
    std::puts(judgement.line.c_str());
    throw CLI::RuntimeError(static_cast<int>(judgement.health));
  }
  if (!options.databases.empty()) throw UsageError("--database needs --warn or --crit");
  if (options.watch > 0) watch(options.watch, [&] { return draw(server, options); });
  std::fputs(draw(server, options).c_str(), stdout);
}

}  // namespace

void add_stats(CLI::App& app, ServerOptions& server) {
  CLI::App* command =
      app.add_subcommand("stats", "Show what waits for each database and how its writes fare");
  const auto options = std::make_shared<StatsOptions>();  // shared with the callback
  auto* json = command->add_flag("--json", options->json, "Print the daemon's reply as JSON");
  auto* prometheus =
      command
          ->add_flag("--prometheus", options->prometheus,
                     "Print counters in Prometheus' text format, for a textfile collector")
          ->excludes(json);
  auto* watching = add_watch(*command, options->watch)->excludes(prometheus);
  const char* form = "NAME=NUMBER";
  auto* warning =
      command
          ->add_option("--warn", options->warning,
                       "Be a monitoring plugin: one line, and WARNING from this value "
                       "on. NAME is queue (messages that wait), failures (failed writes "
                       "since the last good one) or age (seconds since that)")
          ->type_name(form);
  auto* critical =
      command->add_option("--crit", options->critical, "The same for CRITICAL")->type_name(form);
  for (auto* option : {warning, critical}) {
    option->delimiter(',')->excludes(json)->excludes(prometheus)->excludes(watching);
  }
  command
      ->add_option("--database", options->databases,
                   "Judge this database alone; may be given again. With --warn or --crit")
      ->type_name("NAME");
  command->footer(
      "With --warn or --crit the exit status is a monitoring plugin's:\n"
      "  0  OK\n  1  WARNING\n  2  CRITICAL\n  3  UNKNOWN: whatever keeps it from judging\n\n" +
      exit_status_help());
  server.add_local(*command);
  command->callback([&server, options] { run(server, *options); });
}

}  // namespace pelorus::ctl
