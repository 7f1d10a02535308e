#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "skein/request.h"
#include "skein/socket.h"
#include "skein/waiter.h"

namespace support {

/// The far end of a client under test: takes one connection at a time, keeps the requests that
/// came, and answers each as its handler says. Runs in a thread of its own as long as it lives.
class SkeinStub {
 public:
  struct Call {
    std::uint32_t msgid = 0;
    std::string name;
    std::map<std::string, std::string> args;  ///< the text arguments
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
  /// `message` as a frame.
  static std::string frame(std::string_view message);

  /// On a unix socket in a new directory. Answers nil unless a handler says otherwise.
  explicit SkeinStub(Handler handler = [](const Call& call) { return reply(call); });
  /// On a unix socket at `path`.
  SkeinStub(std::string path, Handler handler);
  /// On a TCP port of 127.0.0.1.
  struct Tcp {};
  SkeinStub(Tcp, Handler handler);
  ~SkeinStub();

  const std::string& path() const noexcept { return path_; }
  std::string port() const;

  /// All calls so far; waits at most 10 s until there are `count`.
  std::vector<Call> calls(std::size_t count = 0);
  /// The "metrics" of all calls joined, as soon as they hold `text`, or after `longest`.
  std::string metrics_with(const std::string& text,
                           std::chrono::milliseconds longest = std::chrono::seconds(10));

 private:
  SkeinStub(skein::Socket listening, Handler handler);
  void run();
  void serve(const skein::Socket& peer);
  bool answer(const skein::Socket& peer, std::string_view payload);

  std::string directory_;  // ours to remove; empty if the path was given
  std::string path_;       // empty: TCP
  Handler handler_;
  skein::Waiter waiter_;
  skein::Socket listening_;
  std::mutex mutex_;
  std::condition_variable called_;
  std::vector<Call> calls_;  // guarded by mutex_
  std::thread thread_;
};

/// A new directory below the temporary one; the caller removes it.
std::string make_directory();

}  // namespace support
