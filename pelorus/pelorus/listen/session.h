#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "pelorus/pelorus/ingest/ingest_result.h"
#include "pelorus/pelorus/listen/line_assembler.h"
#include "skein/socket.h"

namespace pelorus {

/// A key without dashes, and what is known of it.
struct Verification {
  std::chrono::steady_clock::time_point time;  ///< of the last successful one
  std::uint32_t connections = 0;               ///< whose session has this key
};
using VerifiedKey = std::pair<const std::string, Verification>;

/// What one connection has brought so far. Small, for there are thousands: what only a connection
/// with errors has lies elsewhere.
class SessionCounters {
 public:
  struct Errors {
    std::uint64_t bad_lines = 0;
    std::uint64_t refused_auths = 0;
    std::string last_warning;  ///< of the last bad line
  };

  void count(IngestResult ingested) {
    records_ += static_cast<std::uint64_t>(ingested.records);
    if (ingested.bad_lines == 0) return;
    errors_or_new().bad_lines += ingested.bad_lines;
    errors_or_new().last_warning = std::move(ingested.last_warning);
  }
  /// The web server has confirmed, or refused, the key that the connection sent.
  void count_auth(bool accepted) {
    accepted ? void(++accepted_auths_) : void(++errors_or_new().refused_auths);
  }
  /// Keeps the last characters of the key, as many of four as fit into four bytes.
  void note_key(std::string_view key) noexcept;

  std::uint64_t records() const noexcept { return records_; }
  std::uint32_t accepted_auths() const noexcept { return accepted_auths_; }
  const Errors& errors() const noexcept;
  /// Empty before the first key, and for a key so short that this would be all of it.
  std::string_view key_ending() const noexcept;

 private:
  Errors& errors_or_new() {
    if (!errors_) errors_ = std::make_unique<Errors>();
    return *errors_;
  }

  std::uint64_t records_ = 0;
  std::uint32_t accepted_auths_ = 0;
  std::array<char, 4> key_ending_{};  ///< filled up with zeros
  std::unique_ptr<Errors> errors_;    ///< none without any
};

/// What a listener keeps for each of its connections.
struct Session {
  LineAssembler graphite_remainder;
  SessionCounters counters;
  skein::Address address;  ///< of a node; its port is 0 for a local peer
  /// The cache entry of the key with which the last request was let in.
  VerifiedKey* verified_key = nullptr;
  /// The server knows that the connection is authenticated.
  bool is_authenticated = false;
};

/// The last four characters of a key; one of UTF-8 is not cut apart. All of a shorter one.
std::string_view key_ending(std::string_view key);

}  // namespace pelorus
