#pragma once

#include <string>
#include <string_view>

#include "pelorus/pelorus/listen/connection_counters.h"
#include "skein/connection.h"

namespace pelorus {

/// A connection that sends Graphite lines.
class CollectdConnection : public skein::Connection {
 public:
  using Connection::Connection;

  /// The begin of a line whose end has not come yet; never holds a "\n".
  std::string graphite_remainder;
  ConnectionCounters counters;
};

/// The complete lines that a peer has sent: what remained of the last request, then `data` up to
/// its last "\n". What is behind that becomes the new remainder.
///
/// Without a remainder, and with the "\n" at the end, nothing is copied: `lines` is a view of
/// `data`.
class CompleteLines {
 public:
  CompleteLines(std::string& remainder, std::string_view data);
  CompleteLines(const CompleteLines&) = delete;
  CompleteLines& operator=(const CompleteLines&) = delete;

  /// Ends in "\n", or is empty. Valid as long as this object and the data.
  std::string_view lines() const noexcept { return lines_; }

 private:
  std::string joined_;
  std::string_view lines_;
};

}  // namespace pelorus
