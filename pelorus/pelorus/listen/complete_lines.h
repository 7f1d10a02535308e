#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "pelorus/pelorus/listen/connection_counters.h"
#include "pelorus/pelorus/listen/node_key.h"
#include "skein/connection.h"

namespace pelorus {

/// The begin of a line whose end has not come yet; never holds a "\n". Takes up one pointer while
/// there is none.
class Remainder {
 public:
  std::size_t size() const noexcept { return text_ ? text_->size() : 0; }
  bool empty() const noexcept { return size() == 0; }

  void append(std::string_view more);
  /// What there was; none is left.
  std::string take();

 private:
  std::unique_ptr<std::string> text_;
};

/// A connection that sends Graphite lines. What is known of it lies here instead of in maps: a
/// map's node costs an idle connection more than the rest of its part of them.
class CollectdConnection : public skein::Connection {
 public:
  using Connection::Connection;

  Remainder graphite_remainder;
  ConnectionCounters counters;
  skein::Address address;  ///< the peer's; its port is 0 before it is known, and after the end
  /// The server's entry of the last request's key, if that let it through at once.
  const VerifiedKey* verified_key = nullptr;

 private:
  std::size_t kept_bytes() const override { return graphite_remainder.size(); }
};

/// The complete lines that a peer has sent: what remained of the last request, then `data` up to
/// its last "\n". What is behind that becomes the new remainder.
///
/// Without a remainder, and with the "\n" at the end, nothing is copied: `lines` is a view of
/// `data`. However long the remainder is, taking more costs time for what is new alone.
class CompleteLines {
 public:
  /// Throws LimitError, and leaves the remainder as it is, when it would exceed `most_remainder`
  /// bytes.
  CompleteLines(Remainder& remainder, std::string_view data, std::size_t most_remainder);
  CompleteLines(const CompleteLines&) = delete;
  CompleteLines& operator=(const CompleteLines&) = delete;

  /// Ends in "\n", or is empty. Valid as long as this object and the data.
  std::string_view lines() const noexcept { return lines_; }

 private:
  std::string joined_;
  std::string_view lines_;
};

}  // namespace pelorus
