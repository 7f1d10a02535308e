#pragma once

#include <stdexcept>
#include <string>

#include "skein/client.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// What the subcommands have in common on the command line: which daemon, how often, and the exit
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

/// Exit status of a monitoring plugin that cannot judge; 0 to 3 have other meanings there.
constexpr ExitStatus MONITORING_UNKNOWN{3};

ExitStatus exit_status_of(skein::ClientError::Kind kind);

/// What happened and what the reason may be, for a person.
std::string explain(const skein::ClientError& error);

/// The list of exit statuses, as the help shows it.
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

}  // namespace pelorus::ctl
