#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "skein/loops.h"
#include "skein/socket.h"

namespace skein {

/// One accepted stream: bytes in, whole frames out of them; messages in, bytes out. Passive: its
/// server tells it when to read, to write, to be watched and to close.
///
/// Frames are taken where they lie in the buffer that they were received into, which all
/// connections of a server share. Only what is left in the end is copied:
///
///     receive()     shared buffer  | frame | frame | beginning of a fra|
///     front_frame()                  ^ payload, a view
///     pop_frame()                          ^ the next one
///     store_rest()  own memory                     | beginning of a fra|
///
/// Later bytes are appended to it until that frame is complete. A connection without anything
/// unfinished has no memory of its own, which is what a server of thousands of idle peers needs.
class Connection {
 public:
  /// What came on a connection. Moments are those of Loop::seconds().
  struct Traffic {
    std::uint32_t since = 0;      ///< accepted
    std::uint32_t last_seen = 0;  ///< bytes came
    std::uint64_t requests = 0;   ///< frames, good and bad ones
  };
  enum class Received : std::uint8_t { BYTES, NOTHING, END };

  /// `target` hears when the socket is ready. `slot`: see slot(). Throws SystemFailure.
  Connection(Loop& loop, Socket socket, PollTarget& target, std::uint32_t slot);
  ~Connection();

  const Socket& socket() const noexcept { return socket_; }
  const Traffic& traffic() const noexcept { return traffic_; }
  /// Its number among the connections of its server, small, and used again after its end: what is
  /// kept for a connection lies in an array (see PerConnection).
  std::uint32_t slot() const noexcept { return slot_; }

  /// Receives once, as much as is there and fits. END: the peer sends no more. The buffer must stay
  /// untouched until store_rest().
  Received receive(std::span<char> buffer, std::uint32_t now);
  /// Payload of the frame in front, once all of it is there; valid until the next call of anything
  /// but send(). Throws ProtocolError for a length that is refused, as soon as that is there.
  std::optional<std::string_view> front_frame();
  /// Passes over the frame that front_frame() has returned: `payload`.
  void pop_frame(std::string_view payload);
  /// Copies what is left of the received bytes; `now` is the time of the last progress if there is
  /// something left.
  void store_rest(std::chrono::steady_clock::time_point now);
  /// Bytes that have come and are in no frame that was taken.
  std::size_t unserved() const noexcept;

  /// Appends one message, as a frame, to what flush() sends. A peer that takes nothing any more is
  /// sent nothing.
  void send(std::string_view message);
  /// Sends as much as the peer takes now.
  void flush(std::chrono::steady_clock::time_point now);
  std::size_t unsent() const noexcept;

  /// Memory that is held for the peer. Given back as far as it is empty.
  std::size_t release_empty_buffers() noexcept;
  /// When a byte of what is unfinished came or went last.
  std::chrono::steady_clock::time_point last_progress() const noexcept;

  /// For UV_READABLE and UV_WRITABLE, or neither (0).
  void watch(int events) { poll_.watch(events); }
  /// Closes the socket at once: descriptors are few.
  void close() noexcept;

 private:
  struct Buffers;
  Buffers& buffers();

  Socket socket_;
  const std::uint32_t slot_;
  Poll poll_;  // destroyed before the descriptor that it watches is closed
  Traffic traffic_;
  std::unique_ptr<Buffers> buffers_;  ///< none while nothing is unfinished
};

}  // namespace skein
