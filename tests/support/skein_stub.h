#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "skein/client_stream.h"
#include "skein/request.h"
#include "skein/socket.h"
#include "support/folder.h"
#include "support/skein_peer.h"

namespace support {

/// The far end of a client under test: takes one connection at a time, keeps the requests that
/// came, and answers each as its handler says. Runs in a thread of its own as long as it lives.
class SkeinStub {
 public:
  struct Call {
    std::uint32_t msgid = 0;
    std::string name;
    std::map<std::string, std::string> args;  ///< the text arguments
    int connection = 0;                       ///< counted from 1
  };
  /// What becomes of one call: `bytes` go out as they are, then the connection may be closed.
  struct Outcome {
    std::string bytes;
    bool close = false;
  };
  using Handler = std::function<Outcome(const Call&)>;

  static Outcome reply(const Call& call, const skein::Reply& reply = {});
  static Outcome error(const Call& call, std::string_view text);
  static Outcome silence() { return {}; }
  static Outcome close() { return {"", true}; }

  /// Answers nil unless a handler says otherwise. On a unix socket, at a path of its own if none is
  /// given.
  explicit SkeinStub(
      Handler handler = [](const Call& call) { return reply(call); }, std::string path = "");
  /// On a TCP port of 127.0.0.1.
  struct Tcp {};
  SkeinStub(Tcp, Handler handler);
  ~SkeinStub();

  const std::string& path() const noexcept { return path_; }
  std::string port() const { return std::to_string(bound_port(listening_)); }

  /// All calls so far; waits at most 10 s until there are `count`.
  std::vector<Call> calls(std::size_t count = 0);
  /// The "metrics" of all calls joined, as soon as they hold `text`, or after 10 s.
  std::string metrics_with(const std::string& text);

 private:
  void run();
  void serve(skein::Socket socket);
  bool answer(SkeinPeer& peer, std::string_view content);

  const Folder folder_;
  const std::string path_;  // empty: TCP
  Handler handler_;
  skein::Waiter waiter_;
  skein::Socket listening_;
  int connections_ = 0;  // so far
  std::mutex mutex_;
  std::condition_variable called_;
  std::vector<Call> calls_;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace support
