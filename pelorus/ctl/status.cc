#include "pelorus/ctl/status.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "pelorus/ctl/json.h"
#include "pelorus/ctl/reply.h"
#include "pelorus/ctl/server_options.h"

namespace pelorus::ctl {
namespace {

struct StatusOptions {
  bool json = false;
  double watch = 0;                ///< seconds between two looks; 0: one look
  std::uint32_t connections = 20;  ///< of each server
  std::string order = "trouble";
};

std::string draw(const ServerOptions& server, const StatusOptions& options) {
  skein::MsgpackWriter args;
  args.map(2).text("connections").natural(options.connections);
  args.text("order").text(options.order);
  const skein::Answer answer = ask(server, "status", args);
  if (options.json) return to_json(answer.result());
  const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
  return status_table(answer.result(), now.count(), Palette::of_stdout());
}

void run(const ServerOptions& server, const StatusOptions& options) {
  if (options.watch > 0) watch(options.watch, [&] { return draw(server, options); });
  std::fputs(draw(server, options).c_str(), stdout);
}

}  // namespace

void add_status(CLI::App& app, ServerOptions& server) {
  CLI::App* command = app.add_subcommand(
      "status", "Show what the daemon has done since its start, and for which connections");
  const auto options = std::make_shared<StatusOptions>();  // shared with the callback
  command->add_flag("--json", options->json, "Print the daemon's reply as JSON");
  add_watch(*command, options->watch);
  command
      ->add_option("--connections", options->connections,
                   "List at most so many connections of nodes, and as many local ones; the daemon "
                   "lists 2000 at most")
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--order", options->order,
                   "Which connections come first: those in trouble (bad lines, refused keys, then "
                   "those silent the longest), those with the most records, those silent the "
                   "longest, or the newest")
      ->type_name("trouble|records|silent|newest")
      ->check(CLI::IsMember({"trouble", "records", "silent", "newest"}).description(""))
      ->capture_default_str();
  server.add_local(*command);
  command->callback([&server, options] { run(server, *options); });
}

}  // namespace pelorus::ctl
