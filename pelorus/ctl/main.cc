// pelorusctl, the operator's tool. Each subcommand has a file of its own, adds itself to the
// command line and runs if it was named. It throws what fails; main() turns that into an exit
// status.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string_view>
#include <utility>

#include "pelorus/ctl/options.h"
#include "pelorus/ctl/subcommands.h"

namespace {

namespace ctl = pelorus::ctl;
using ctl::ExitStatus;

ExitStatus fail(std::string_view text, ExitStatus status) {
  fmt::print(stderr, "pelorusctl: {}\n", text);
  return status;
}

void add_version(CLI::App& app) {
  app.set_version_flag("--version", "pelorusctl " PELORUS_VERSION, "Print the version and exit");
}

/// Whether a monitoring system reads the exit status. For it, 2 means CRITICAL, not a wrong
/// command.
bool monitoring(int argc, char** argv) {
  return std::any_of(argv, argv + argc, [](std::string_view argument) {
    return argument.starts_with("--warn") || argument.starts_with("--crit");
  });
}

/// Names a word that is no subcommand, instead of saying that there is no subcommand.
void parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError&) {
    if (app.get_subcommands().empty() && app.remaining_size() > 0) {
      auto words = app.remaining();
      std::ranges::reverse(words);  // the error expects the last one first
      throw CLI::ExtrasError(std::move(words));
    }
    throw;
  }
}

ExitStatus run(int argc, char** argv) {
  CLI::App app("Queries and feeds a running pelorus, and checks lines and settings without one.",
               "pelorusctl");
  ctl::ServerOptions server;
  app.require_subcommand(1);
  app.footer(ctl::exit_status_help());
  server.add_local(app);
  ctl::add_stats(app, server);
  ctl::add_status(app, server);
  ctl::add_translate(app);
  ctl::add_check(app);
  ctl::add_send(app, server);
  add_version(app);
  for (CLI::App* command : app.get_subcommands({})) add_version(*command);
  try {
    parse(app, argc, argv);
  } catch (const CLI::RuntimeError& ended) {
    return static_cast<ExitStatus>(ended.get_exit_code());
  } catch (const CLI::ParseError& error) {
    if (app.exit(error) == 0) return ExitStatus::SUCCESS;
    return monitoring(argc, argv) ? ctl::MONITORING_UNKNOWN : ExitStatus::USAGE;
  }
  return ExitStatus::SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  ExitStatus status = ExitStatus::SUCCESS;
  try {
    status = run(argc, argv);
  } catch (const skein::ClientError& error) {
    status = fail(ctl::explain(error), ctl::exit_status_of(error.kind()));
  } catch (const ctl::UsageError& error) {
    status = fail(error.what(), ExitStatus::USAGE);
  } catch (const std::exception& error) {
    status = fail(error.what(), ExitStatus::FAILURE);
  }
  if (std::fflush(stdout) != 0 && status == ExitStatus::SUCCESS) {
    status = fail("cannot write to standard output", ExitStatus::FAILURE);
  }
  return static_cast<int>(status);
}
