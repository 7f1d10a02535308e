#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "skein/encoders/msgpackencoder.h"
#include "skein/socket.h"

namespace support {

/// One message as it goes over the wire.
std::string frame(std::string_view message);
inline std::string frame(const skein::MsgpackWriter& message) { return frame(message.bytes()); }
/// A request whose arguments are texts.
std::string request(std::uint32_t msgid, std::string_view name,
                    const std::vector<std::pair<std::string, std::string>>& args = {});

/// Bytes that do not compress, always the same ones.
std::string noise(std::size_t size);

/// The far end of a server under test in the same thread. Never blocks.
class SkeinPeer {
 public:
  explicit SkeinPeer(skein::Socket socket) : socket_(std::move(socket)) {}
  static SkeinPeer tcp(int port);
  static SkeinPeer unix_socket(const std::string& path);

  void send(std::string_view bytes);
  /// As much as goes at once; returns how much.
  std::size_t send_now(std::string_view bytes);
  /// The server reads the end of the stream; replies still come.
  void finish_sending();
  void reset();
  /// Receives what has come by now; false at the end of the stream.
  bool receive();
  /// What has been received, without the messages that were taken.
  const std::string& received() const noexcept { return received_; }
  /// Takes the whole messages off received(), decompressed.
  std::vector<std::string> messages();
  /// What has come back by now: "msgid=result" or "msgid!error", each with a blank behind it, where
  /// a result that is no text shows as "nil" or "map"; then "end" at the end of the stream.
  std::string replies();

 private:
  template <class Address>
  static SkeinPeer connected(const Address& address, int family);

  skein::Socket socket_;
  std::string received_;
};

/// Breaks a connection off.
void reset(skein::Socket& socket);

/// The port that a socket is bound to.
int bound_port(const skein::Socket& socket);

}  // namespace support
