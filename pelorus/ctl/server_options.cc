#include "pelorus/ctl/server_options.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdlib>

#include "pelorus/node_key_file.h"

namespace pelorus::ctl {
namespace {

constexpr const char* DEFAULT_SOCKET = "/run/pelorus/collectd.sock";
constexpr const char* KEY_VARIABLE = "PELORUS_NODE_KEY";
constexpr double MAX_TIMEOUT = 86400;  // seconds

}  // namespace

void ServerOptions::add_local(CLI::App& command) {
  command.add_option("--socket", socket, "Local socket of the daemon")
      ->type_name("PATH")
      ->default_str(DEFAULT_SOCKET);
  command.add_option("--timeout", timeout, "Longest wait to connect, to send and for each reply")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, MAX_TIMEOUT).description(""))
      ->capture_default_str();
}

void ServerOptions::add_remote(CLI::App& command) {
  auto* with_host = command
                        .add_option("--host", host,
                                    "Send to the node listener of this host instead, as a node "
                                    "does. It takes every block and drops those of keys that the "
                                    "administration application does not confirm")
                        ->type_name("HOST");
  command.add_option("--port", port, "Port of the node listener")
      ->type_name("PORT")
      ->check(CLI::Range(1, 65535).description(""))
      ->capture_default_str()
      ->needs(with_host);
  command
      .add_option("--key-file", key_file,
                  "File whose first line is the node key; without it the environment variable "
                  "PELORUS_NODE_KEY holds the key")
      ->type_name("FILE")
      ->needs(with_host);
}

CLI::Option* add_watch(CLI::App& command, double& seconds) {
  const auto take = [&seconds](const std::string& text) {
    constexpr double USUAL_SECONDS = 2;
    constexpr double LEAST_SECONDS = 0.1;
    seconds = USUAL_SECONDS;
    if (text.empty()) return;
    if (!CLI::detail::lexical_cast(text, seconds) || !(seconds >= LEAST_SECONDS) ||
        seconds > MAX_TIMEOUT) {
      throw CLI::ValidationError("--watch", "must be 0.1 to 86400 seconds");
    }
  };
  return command
      .add_option_function<std::string>(
          "--watch", take, "Show it again and again, in place on a terminal; usually every 2 s")
      ->type_name("[SECONDS]")
      ->expected(0, 1);
}

skein::Endpoint ServerOptions::endpoint() const {
  if (host.empty()) return skein::Endpoint::unix_socket(socket.empty() ? DEFAULT_SOCKET : socket);
  if (!socket.empty()) throw UsageError("--socket and --host exclude each other");
  return skein::Endpoint::tcp(host, port);
}

skein::Timeouts ServerOptions::timeouts() const {
  const auto each =
      std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(timeout));
  return {.connect = each, .send = each, .receive = each};
}

std::string ServerOptions::key() const {
  if (host.empty()) return "";
  if (!key_file.empty()) return read_node_key_file(key_file);
  const char* key = std::getenv(KEY_VARIABLE);
  if (key == nullptr || !is_node_key(key)) {
    throw UsageError("--host needs a node key: --key-file or the environment variable " +
                     std::string(KEY_VARIABLE));
  }
  return key;
}

}  // namespace pelorus::ctl
