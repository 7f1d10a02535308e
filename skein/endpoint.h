#pragma once

#include <string>
#include <utility>

namespace skein {

/// Where a client connects to: a unix socket, or a host (name or address) and its TCP port.
class Endpoint {
 public:
  static Endpoint unix_socket(std::string path) { return {std::move(path), "", ""}; }
  static Endpoint tcp(std::string host, std::string port) {
    return {"", std::move(host), std::move(port)};
  }

  bool is_unix() const noexcept { return host_.empty(); }
  const std::string& path() const noexcept { return path_; }
  const std::string& host() const noexcept { return host_; }
  const std::string& port() const noexcept { return port_; }

  /// For messages: the path, "host:port" or "[v6]:port".
  std::string text() const {
    if (is_unix()) return path_;
    const bool brackets = host_.find(':') != std::string::npos;
    return (brackets ? "[" + host_ + "]:" : host_ + ":") + port_;
  }

 private:
  Endpoint(std::string path, std::string host, std::string port)
      : path_(std::move(path)), host_(std::move(host)), port_(std::move(port)) {}

  std::string path_;
  std::string host_;  // empty: a unix socket
  std::string port_;
};

}  // namespace skein
