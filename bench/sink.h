#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "skein/loops.h"
#include "skein/socket.h"

namespace bench {

/// An InfluxDB that keeps nothing: takes each write, answers 204, and closes once its peer has. The
/// harness's server takes twelve times as much of the processor for the same bytes (2.1 against
/// 0.2 ms for a MB), which the daemon under measurement would lack.
class Sink : private skein::PollTarget {
 public:
  /// Listens on 127.0.0.1:`port`. `written` is called after each write, when its peer has closed
  /// the connection and so knows of the answer.
  Sink(skein::Loop& loop, std::int64_t port, std::function<void()> written);
  ~Sink();

  std::size_t writes() const noexcept { return writes_; }
  std::size_t bytes() const noexcept { return bytes_; }
  std::size_t open() const noexcept { return writing_.size(); }

 private:
  class Write;

  void handle_events(int events) override;
  void end(Write& write, std::size_t bytes);

  skein::Loop& loop_;
  std::function<void()> written_;
  skein::Socket socket_;
  std::optional<skein::Poll> poll_;
  std::unordered_map<Write*, std::unique_ptr<Write>> writing_;
  std::unique_ptr<char[]> buffer_;  ///< for all of them: what comes is thrown away
  std::size_t writes_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace bench
