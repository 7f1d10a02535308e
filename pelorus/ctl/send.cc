#include "pelorus/ctl/send.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>

#include "pelorus/ctl/line_blocks.h"
#include "pelorus/ctl/server_options.h"
#include "skein/client.h"

namespace pelorus::ctl {
namespace {

void send_block(skein::Client& client, const std::string& key, const std::string& block) {
  skein::MsgpackWriter args;
  args.map(key.empty() ? 1 : 2);
  if (!key.empty()) args.text("key").text(key);
  args.text("metrics").text(block);
  client.call("collectd", args);
}

/// Sends all blocks and adds up in `sent` the lines that were answered.
void send_all(const ServerOptions& server, std::size_t& sent) {
  skein::Client client(server.endpoint(), server.timeouts());
  const std::string key = server.key();
  client.open();
  LineBlocks blocks(STDIN_FILENO);
  for (std::string block = blocks.next(); !block.empty(); block = blocks.next()) {
    send_block(client, key, block);
    sent += static_cast<std::size_t>(std::count(block.begin(), block.end(), '\n'));
  }
}

void run(const ServerOptions& server) {
  std::size_t sent = 0;
  try {
    send_all(server, sent);
  } catch (...) {
    if (sent > 0) fmt::print(stderr, "pelorusctl: {} lines were sent, then it failed\n", sent);
    throw;
  }
  fmt::print("{} lines sent\n", sent);
}

}  // namespace

void add_send(CLI::App& app, ServerOptions& server) {
  CLI::App* command =
      app.add_subcommand("send",
                         "Send Graphite lines (\"series value timestamp\") from standard "
                         "input, in blocks that each wait for their reply");
  server.add_local(*command);
  server.add_remote(*command);
  command->callback([&server] { run(server); });
}

}  // namespace pelorus::ctl
