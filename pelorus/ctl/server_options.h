#pragma once

#include <stdexcept>
#include <string>

#include "skein/client.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace pelorus::ctl {

/// A command line that makes no sense; the text says why.
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

  /// --socket and --timeout.
  void add_local(CLI::App& command);
  /// --host, --port and --key-file.
  void add_remote(CLI::App& command);

  /// Throws UsageError: both a socket and a host.
  skein::Endpoint endpoint() const;
  skein::Timeouts timeouts() const;
  /// The node key for the host: that of the key file, else of PELORUS_NODE_KEY; empty for the local
  /// socket. Throws UsageError when there is none, skein::Failure when the file holds none.
  std::string key() const;
};

/// Adds --watch [SECONDS], which sets `seconds`.
CLI::Option* add_watch(CLI::App& command, double& seconds);

}  // namespace pelorus::ctl
