#include "pelorus/ctl/stats.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>

#include "pelorus/ctl/server_options.h"
#include "skein/client.h"

namespace pelorus::ctl {
namespace {

void run(const ServerOptions& server, bool json) {
  skein::Client client(server.endpoint(), server.timeouts());
  client.open();
  skein::MsgpackWriter no_args;
  const skein::Answer answer = client.call("stats", no_args.map(0));
  const std::string text = json ? to_json(answer.result()) : stats_table(answer.result());
  std::fputs(text.c_str(), stdout);
}

}  // namespace

void add_stats(CLI::App& app, ServerOptions& server) {
  CLI::App* command =
      app.add_subcommand("stats", "Show what waits for each database and how its writes fare");
  const auto json = std::make_shared<bool>(false);  // shared with the callback
  command->add_flag("--json", *json, "Print the daemon's reply as JSON");
  server.add_local(*command);
  command->callback([&server, json] { run(server, *json); });
}

}  // namespace pelorus::ctl
