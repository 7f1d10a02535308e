#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/frames.h"
#include "skein/loops.h"

namespace bench {

/// How fast a burst of frames is sent to a server.
struct Pace {
  /// Frames sent and not answered yet, over all connections. With more than one connection, each
  /// has at most one of them: a node waits for the answer to its request.
  std::size_t in_flight = 1;
  /// Frames after which the sender waits until all are answered and one write has reached the
  /// sink; 0: it continues without waiting for the sink.
  std::size_t per_write = 0;
};

/// A server under measurement, with lasting connections to it. Compares replies with the expected
/// bytes instead of parsing them, so that thousands of connections cost little. Borrows the loop.
class Side {
 public:
  struct Server {
    pid_t process = 0;
    std::int64_t port = 0;
    /// It answers each frame; else it reads until the end of the stream, and each burst has a
    /// connection of its own.
    bool answers = true;
  };

  Side(skein::Loop& loop, const Server& server);
  ~Side();

  /// Opens connections until there are `count`, of which the first `active` take part in bursts.
  void connect(std::size_t count, std::size_t active);
  /// Sends all frames and runs the loop until the burst is over. Returns the CPU seconds that the
  /// server took. `writes`: how many writes the sink has taken. Throws std::runtime_error.
  double burst(const Frames& frames, const Pace& pace, const std::function<std::size_t()>& writes);
  /// The sink has taken a write.
  void written();

  pid_t process() const noexcept { return server_.process; }

 private:
  class Stream;

  void advance();
  void send(Stream& stream, std::size_t count);
  void answered(std::size_t count);
  void closed(Stream& stream);
  void finish();

  skein::Loop& loop_;
  const Server server_;
  std::vector<std::unique_ptr<Stream>> streams_;
  std::size_t active_ = 0;
  std::size_t next_stream_ = 0;

  const Frames* frames_ = nullptr;  ///< of the present burst
  Pace pace_;
  std::function<std::size_t()> writes_;
  std::size_t writes_before_ = 0;
  std::size_t sent_ = 0;
  std::size_t answered_ = 0;
  bool over_ = true;
  std::string fault_;
};

}  // namespace bench
