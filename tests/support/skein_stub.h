#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "skein/client_stream.h"
#include "skein/request.h"
#include "skein/socket.h"
#include "support/skein_peer.h"

namespace support {

/// The server of a client under test, in a thread of its own: takes one connection at a time, keeps
/// the requests that came, and answers each as it is told.
class SkeinStub {
 public:
  struct Call {
    std::uint32_t msgid = 0;
    std::string name;
    std::map<std::string, std::string> args;  ///< the text arguments
    int connection = 0;                       ///< counted from 1
  };
  /// The bytes that answer a call, if any; none: the connection is closed.
  using Answer = std::function<std::optional<std::string>(const Call&)>;

  static std::string reply(const Call& call, const skein::Reply& reply = {});
  static std::string error(const Call& call, std::string_view text);

  /// At a path or, without one, on a port of 127.0.0.1.
  explicit SkeinStub(
      Answer answer = [](const Call& call) { return reply(call); }, std::string path = "");
  ~SkeinStub();

  skein::Endpoint endpoint() const;
  /// All calls so far; waits at most 10 s until there are `count`.
  std::vector<Call> calls(std::size_t count);

 private:
  void run();
  void serve(skein::Socket socket);
  bool answer(SkeinPeer& peer, std::string_view content);

  const Answer answer_;
  const std::string path_;  // empty: TCP
  skein::Waiter waiter_;
  skein::Socket listening_;
  int connections_ = 0;  // so far
  std::mutex mutex_;
  std::condition_variable called_;
  std::vector<Call> calls_;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace support
