#pragma once

#include <openssl/ssl.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "skein/socket.h"

namespace support {

/// A server of HTTP on a free port of 127.0.0.1, which answers only what a test says.
class HttpServer {
 public:
  enum class Mode { LISTENS, REFUSES, HANGS };
  struct Request {
    const skein::Socket* peer;  ///< valid as long as its connection
    std::string body;
  };

  explicit HttpServer(Mode mode = Mode::LISTENS);
  std::uint16_t port() const;
  /// The connection that waits, if any.
  skein::Socket accept() const;
  /// The whole requests that have come since the last call. Accepts every connection and keeps it
  /// until its client closes it.
  std::vector<Request> requests();

 private:
  struct Connection {
    skein::Socket socket;
    std::string received;
  };

  skein::Socket socket_;
  skein::Socket filler_;  ///< takes the only place of one that hangs
  std::list<Connection> connections_;
};

/// What has come by now.
std::string receive(const skein::Socket& peer);
void answer(const skein::Socket& peer, std::string_view text);

/// The name "several.test" resolves to these ports of 127.0.0.1, in this order.
void resolve_several_to(std::vector<std::uint16_t> ports);
/// Lookups of the name "hangs.test" wait in their thread while one of these lives.
struct HangingLookups {
  HangingLookups();
  ~HangingLookups();
};

/// The web server's side of one connection, which does nothing but what a test says. Never blocks.
/// Its certificate has about every fault that there is.
class TlsPeer {
 public:
  explicit TlsPeer(skein::Socket socket);

  /// Goes on with the handshake; true once it is complete.
  bool handshake();
  /// What has come by now.
  std::string receive();
  /// The client has closed.
  bool at_end();
  /// In one TLS record.
  void send(std::string_view text);
  /// An orderly end of the stream.
  void close();
  /// Breaks the connection off.
  void reset();

 private:
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_;
  skein::Socket socket_;
};

}  // namespace support
