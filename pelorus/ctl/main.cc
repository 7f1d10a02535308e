// pelorusctl, the operator's tool. One file per subcommand: each adds itself to the command line
// and runs when it was named. What fails is thrown and becomes an exit status here.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "pelorus/ctl/exit_status.h"
#include "pelorus/ctl/send.h"
#include "pelorus/ctl/server_options.h"
#include "pelorus/ctl/stats.h"

namespace {

namespace ctl = pelorus::ctl;
using ctl::ExitStatus;

ExitStatus complain(std::string_view text, ExitStatus status) {
  fmt::print(stderr, "pelorusctl: {}\n", text);
  return status;
}

ExitStatus run(int argc, char** argv) {
  CLI::App app("Asks and feeds a running pelorus.", "pelorusctl");
  ctl::ServerOptions server;
  app.set_version_flag("--version", "pelorusctl " PELORUS_VERSION, "Print the version and exit");
  app.require_subcommand(1);
  app.footer(ctl::exit_status_help());
  server.add_local(app);
  ctl::add_stats(app, server);
  ctl::add_send(app, server);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? ExitStatus::SUCCESS : ExitStatus::USAGE;
  }
  return ExitStatus::SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  ExitStatus status = ExitStatus::SUCCESS;
  try {
    status = run(argc, argv);
  } catch (const skein::ClientError& error) {
    status = complain(ctl::explain(error), ctl::exit_status_of(error.kind()));
  } catch (const ctl::UsageError& error) {
    status = complain(error.what(), ExitStatus::USAGE);
  } catch (const std::exception& error) {
    status = complain(error.what(), ExitStatus::FAILURE);
  }
  if (std::fflush(stdout) != 0 && status == ExitStatus::SUCCESS) {
    status = complain("cannot write to standard output", ExitStatus::FAILURE);
  }
  return static_cast<int>(status);
}
