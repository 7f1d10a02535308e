#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "pelorus/pelorus/ingest/influx_handler.h"

namespace pelorus {

/// What one connection has brought so far. Small, for there are thousands: what only a connection
/// in trouble has lies elsewhere.
class ConnectionCounters {
 public:
  /// What has gone wrong on a connection.
  struct Trouble {
    std::uint64_t bad_lines = 0;
    std::uint64_t refused_auths = 0;
    std::string last_warning;  ///< of the last bad line
  };

  void count(IngestResult ingested) {
    records_ += static_cast<std::uint64_t>(ingested.records);
    if (ingested.bad_lines == 0) return;
    trouble().bad_lines += ingested.bad_lines;
    trouble().last_warning = std::move(ingested.last_warning);
  }
  /// The web server has confirmed, or refused, the key that the connection sent.
  void count_auth(bool accepted) {
    accepted ? void(++accepted_auths_) : void(++trouble().refused_auths);
  }
  /// Keeps the last characters of the key, as many of four as fit into four bytes.
  void note_key(std::string_view key) noexcept;

  std::uint64_t records() const noexcept { return records_; }
  std::uint32_t accepted_auths() const noexcept { return accepted_auths_; }
  /// None as long as nothing has gone wrong.
  const Trouble* trouble_if_any() const noexcept { return trouble_.get(); }
  /// Empty before the first key, and for a key so short that this would be all of it.
  std::string_view key_ending() const noexcept;

 private:
  Trouble& trouble() {
    if (!trouble_) trouble_ = std::make_unique<Trouble>();
    return *trouble_;
  }

  std::uint64_t records_ = 0;
  std::uint32_t accepted_auths_ = 0;
  std::array<char, 4> key_ending_{};  ///< filled up with zeros
  std::unique_ptr<Trouble> trouble_;
};

/// The last four characters of a key; one of UTF-8 is not cut apart. All of a shorter one.
std::string_view key_ending(std::string_view key);

}  // namespace pelorus
