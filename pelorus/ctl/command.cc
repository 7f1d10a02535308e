#include "pelorus/ctl/command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <nlohmann/json.hpp>

#include "pelorus/node_key_file.h"

namespace pelorus::ctl {
namespace {

using Kind = skein::ClientError::Kind;

struct Row {
  Kind kind;
  ExitStatus status;
  const char* meaning;
  const char* hint;  ///< after the text of the error
};

constexpr std::array<Row, 7> ROWS{{
    {Kind::NO_SOCKET, ExitStatus::NO_SOCKET, "no socket at that path",
     "; pelorus does not run, or its socket lies elsewhere (--socket)"},
    {Kind::REFUSED, ExitStatus::REFUSED, "connection refused",
     "; nobody listens there, pelorus may have ended"},
    {Kind::NOT_PERMITTED, ExitStatus::NOT_PERMITTED, "no permission to use the socket",
     "; only the socket's owner and root may use it"},
    {Kind::TIMED_OUT, ExitStatus::TIMED_OUT, "time-out", " (--timeout)"},
    {Kind::SERVER, ExitStatus::SERVER_ERROR, "the server answered with an error", ""},
    {Kind::UNREACHABLE, ExitStatus::UNREACHABLE, "cannot connect for another reason", ""},
    {Kind::LOST, ExitStatus::LOST, "connection lost, or no skein server", ""},
}};

const Row* row_of(Kind kind) {
  const auto* row =
      std::find_if(ROWS.begin(), ROWS.end(), [&](const Row& known) { return known.kind == kind; });
  return row == ROWS.end() ? nullptr : row;
}

constexpr const char* DEFAULT_SOCKET = "/run/pelorus/collectd.sock";
constexpr const char* SOCKET_VARIABLE = "PELORUS_SOCKET";
constexpr const char* KEY_VARIABLE = "PELORUS_NODE_KEY";
constexpr double MAX_TIMEOUT = 86400;  // seconds

Json json_of(skein::Value value);

Json json_of_list(skein::Value list) {
  Json items = Json::array();
  for (const skein::Value item : list) items.push_back(json_of(item));
  return items;
}

Json json_of_map(skein::Value map) {
  Json pairs = Json::object();
  for (auto at = map.begin(); at != map.end(); ++at) {
    const std::string key((*at).text().value_or("?"));
    pairs[key] = json_of(*++at);
  }
  return pairs;
}

Json json_of(skein::Value value) {
  using Type = skein::Value::Type;
  switch (value.type()) {
    case Type::NIL:
      return nullptr;
    case Type::BOOLEAN:
      return value.boolean();
    case Type::INTEGER:
      return value.integer();
    case Type::UNSIGNED:
      return value.natural();
    case Type::REAL:
      return value.real();
    case Type::TEXT:
    case Type::BYTES:
    case Type::EXTENSION:
      return std::string(value.bytes());
    case Type::LIST:
      return json_of_list(value);
    case Type::MAP:
      return json_of_map(value);
  }
  return nullptr;
}

std::string text_of(const Json& json, int indentation) {
  return json.dump(indentation, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

ExitStatus exit_status_of(Kind kind) {
  const Row* row = row_of(kind);
  return row == nullptr ? ExitStatus::FAILURE : row->status;
}

std::string explain(const skein::ClientError& error) {
  const Row* row = row_of(error.kind());
  const char* lead = error.kind() == Kind::SERVER ? "the server answered: " : "";
  return fmt::format("{}{}{}", lead, error.what(), row == nullptr ? "" : row->hint);
}

std::string exit_status_help() {
  std::string help = "Exit status:\n  0  done\n  1  any other failure\n  2  wrong command line\n";
  for (const Row& row : ROWS) {
    fmt::format_to(std::back_inserter(help), "  {}  {}\n", static_cast<int>(row.status),
                   row.meaning);
  }
  return help;
}

void ServerOptions::add_local(CLI::App& command) {
  command
      .add_option("--socket", socket,
                  "Local socket of the daemon; without this option, the environment variable "
                  "PELORUS_SOCKET names it")
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
                                    "does. It answers every block, but drops those whose key the "
                                    "administration application does not confirm")
                        ->type_name("HOST");
  command.add_option("--port", port, "Port of the node listener")
      ->type_name("PORT")
      ->check(CLI::Range(1, 65535).description(""))
      ->capture_default_str()
      ->needs(with_host);
  command
      .add_option("--key-file", key_file,
                  "File whose first line is the node key; without this option, the key is taken "
                  "from the environment variable PELORUS_NODE_KEY")
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
      .add_option_function<std::string>("--watch", take,
                                        "Repeat every SECONDS (default 2), in place on a terminal")
      ->type_name("[SECONDS]")
      ->expected(0, 1);
}

skein::Endpoint ServerOptions::endpoint() const {
  if (host.empty()) {
    const char* named = std::getenv(SOCKET_VARIABLE);
    const bool is_named = named != nullptr && *named != '\0';
    return skein::Endpoint::unix_socket(!socket.empty() ? socket
                                        : is_named      ? named
                                                        : DEFAULT_SOCKET);
  }
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

Json ask(const ServerOptions& server, std::string_view request, const skein::MsgpackWriter& args) {
  skein::Client client(server.endpoint(), server.timeouts());
  client.open();
  return json_of(client.call(request, args).result());
}

const Json& at(const Json& json, std::string_view pointer) {
  static const Json MISSING;
  const Json::json_pointer path{std::string(pointer)};
  return json.contains(path) ? json.at(path) : MISSING;
}

const Json& database_in(const Json& status, const std::string& name) {
  return at(status, (Json::json_pointer("/databases") / name).to_string());
}

std::optional<double> number_at(const Json& json, std::string_view pointer) {
  const Json& value = at(json, pointer);
  return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

double count_at(const Json& json, std::string_view pointer) {
  return number_at(json, pointer).value_or(0);
}

std::string text_at(const Json& json, std::string_view pointer) {
  const Json& value = at(json, pointer);
  return value.is_string() ? value.get<std::string>() : "";
}

std::string indented(const Json& json) { return text_of(json, 2); }
std::string on_one_line(const Json& json) { return text_of(json, -1); }

}  // namespace pelorus::ctl
