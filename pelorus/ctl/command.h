#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "skein/client.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// What the subcommands have in common: the daemon that they talk to, its replies, and the exit
// status.
namespace pelorus::ctl {

/// Exit status of pelorusctl. Scripts rely on the numbers.
enum class ExitStatus : int {
  SUCCESS = 0,
  FAILURE = 1,  ///< any failure that is not listed here
  USAGE = 2,    ///< the command line is wrong
  NO_SOCKET = 3,
  REFUSED = 4,
  NOT_PERMITTED = 5,
  TIMED_OUT = 6,
  SERVER_ERROR = 7,
  UNREACHABLE = 8,
  LOST = 9,
};

/// Exit status of a monitoring plugin that cannot judge; a plugin's statuses 0 to 3 have other
/// meanings.
constexpr ExitStatus MONITORING_UNKNOWN{3};

ExitStatus exit_status_of(skein::ClientError::Kind kind);

/// The failure and a possible reason, for people.
std::string explain(const skein::ClientError& error);

/// The list of exit statuses, for the help.
std::string exit_status_help();

/// A wrong command line; the text says what is wrong.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Which daemon to talk to, and how long to wait for it.
struct ServerOptions {
  std::string socket;  ///< empty: not given
  std::string host;    ///< empty: the local socket
  std::string port = "8995";
  std::string key_file;
  double timeout = 5;  ///< seconds: to connect, to send a request, for its reply

  /// Adds --socket and --timeout.
  void add_local(CLI::App& command);
  /// Adds --host, --port and --key-file.
  void add_remote(CLI::App& command);

  /// Throws UsageError if both a socket and a host are given.
  skein::Endpoint endpoint() const;
  skein::Timeouts timeouts() const;
  /// The node key for the host: from the key file, else from PELORUS_NODE_KEY. Empty for the local
  /// socket. Throws UsageError if there is none, skein::Failure if the file holds none.
  std::string key() const;
};

/// Adds --watch [SECONDS], which sets `seconds`.
CLI::Option* add_watch(CLI::App& command, double& seconds);

/// A reply of the daemon. Maps keep their order.
using Json = nlohmann::ordered_json;

/// Sends one request to the local daemon and returns its result. Throws skein::ClientError.
Json ask(const ServerOptions& server, std::string_view request, const skein::MsgpackWriter& args);

/// The value at a JSON pointer such as "/totals/messages"; null if it is missing.
const Json& at(const Json& json, std::string_view pointer);
/// What the reply to "status" says of a database; null if it is missing.
const Json& database_in(const Json& status, const std::string& name);
/// The number at a JSON pointer; none if it is missing or no number.
std::optional<double> number_at(const Json& json, std::string_view pointer);
/// The number at a JSON pointer, or 0.
double count_at(const Json& json, std::string_view pointer);
/// The text at a JSON pointer, or an empty one.
std::string text_at(const Json& json, std::string_view pointer);

/// The value as JSON with a newline at the end. Bytes that are not UTF-8 become replacement
/// characters.
std::string indented(const Json& json);
std::string on_one_line(const Json& json);

// Each function adds one subcommand to `app`, which runs it once the command line has been parsed.
// Those that talk to a daemon borrow `server` until then.

/// "status": what the local daemon has done since its start, and for which connections.
void add_status(CLI::App& app, ServerOptions& server);
/// "stats": the queues and writes of the local daemon, for people, Prometheus and monitoring.
void add_stats(CLI::App& app, ServerOptions& server);
/// "translate": what the daemon makes of series names or Graphite lines. Needs no daemon.
void add_translate(CLI::App& app);
/// "check": whether the daemon can work with its settings. Needs no daemon.
void add_check(CLI::App& app);
/// "send": sends lines to a local or remote daemon.
void add_send(CLI::App& app, ServerOptions& server);

}  // namespace pelorus::ctl
