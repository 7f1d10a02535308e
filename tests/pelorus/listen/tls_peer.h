#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <string_view>

#include "skein/socket.h"

namespace support {

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
