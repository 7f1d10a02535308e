#include "pelorus/ctl/send.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "pelorus/ctl/block_requests.h"
#include "pelorus/ctl/human.h"
#include "pelorus/ctl/line_blocks.h"
#include "pelorus/ctl/progress.h"
#include "pelorus/ctl/server_options.h"
#include "skein/client.h"
#include "skein/errors.h"
#include "skein/socket.h"

namespace pelorus::ctl {
namespace {

struct SendOptions {
  std::string file;  ///< empty: standard input
  std::string kind = "graphite";
  std::string database = "bonding";
};

const std::map<std::string, LineKind> KINDS{
    {"graphite", LineKind::GRAPHITE}, {"add", LineKind::ADD}, {"submit", LineKind::SUBMIT}};

/// A descriptor to read from, closed at the end.
skein::Socket open_input(const std::string& file) {
  const bool standard = file.empty() || file == "-";
  skein::Socket input(standard ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!input) {
    throw skein::SystemFailure(
        standard ? "cannot read standard input" : fmt::format("cannot read '{}'", file), errno);
  }
  return input;
}

std::optional<std::uint64_t> size_of(const skein::Socket& input) {
  struct stat status {};
  if (::fstat(input.descriptor(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

/// Sends all blocks and adds up in `sent` the lines that were answered.
void send_all(const ServerOptions& server, const SendOptions& options, std::size_t& sent) {
  const LineKind kind = KINDS.at(options.kind);
  const skein::Socket input = open_input(options.file);
  skein::Client client(server.endpoint(), server.timeouts());
  const BlockTarget target{server.key(), options.database};
  client.open();
  LineBlocks blocks(input.descriptor());
  Progress progress(size_of(input));
  std::uint64_t bytes = 0;
  for (std::string block = blocks.next(); !block.empty(); block = blocks.next()) {
    for (const BlockRequest& request : requests_of(block, kind, target)) {
      client.call(request.name, request.args);
    }
    sent += static_cast<std::size_t>(std::count(block.begin(), block.end(), '\n'));
    progress.show(bytes += block.size());
  }
}

void run(const ServerOptions& server, const SendOptions& options) {
  if (KINDS.at(options.kind) != LineKind::GRAPHITE && server.host.empty()) {
    throw UsageError(
        "the local socket takes Graphite lines alone: --kind add and --kind submit "
        "need --host");
  }
  std::size_t sent = 0;
  try {
    send_all(server, options, sent);
  } catch (...) {
    if (sent > 0)
      fmt::print(stderr, "pelorusctl: {} sent, then it failed\n", human_number_of("line", sent));
    throw;
  }
  fmt::print("{} sent\n", human_number_of("line", sent));
}

}  // namespace

void add_send(CLI::App& app, ServerOptions& server) {
  CLI::App* command = app.add_subcommand(
      "send", "Send lines to a daemon, in blocks that each wait for their reply");
  const auto options = std::make_shared<SendOptions>();  // shared with the callback
  command->add_option("file", options->file, "Lines to send; without it, standard input")
      ->type_name("FILE");
  command
      ->add_option("--kind", options->kind,
                   "What a line is: graphite, \"series value timestamp\"; add, a record of line "
                   "protocol; submit, \"name milliseconds value\", a point of the legacy API whose "
                   "value is the rest of the line. The last two need --host")
      ->type_name("graphite|add|submit")
      ->check(CLI::IsMember({"graphite", "add", "submit"}).description(""))
      ->capture_default_str();
  command->add_option("--database", options->database, "Database for --kind add and --kind submit")
      ->type_name("NAME")
      ->capture_default_str();
  server.add_local(*command);
  server.add_remote(*command);
  command->callback([&server, options] { run(server, *options); });
}

}  // namespace pelorus::ctl
