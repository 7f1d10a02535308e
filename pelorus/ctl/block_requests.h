#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "skein/encoders/msgpackencoder.h"

namespace pelorus::ctl {

/// What the lines of a file are.
enum class LineKind {
  GRAPHITE,  ///< "series value timestamp": request "collectd"
  ADD,       ///< line protocol: request "add"
  SUBMIT,    ///< "name milliseconds value": request "submit", one for each run of equal names
};

/// One request with its arguments.
struct BlockRequest {
  const char* name;
  skein::MsgpackWriter args;
};

/// Whom a block goes to: empty where the request has no such argument.
struct BlockTarget {
  std::string key;
  std::string database;
};

/// The requests for one block of whole lines. Throws skein::Failure for a line of SUBMIT
/// that is none.
std::vector<BlockRequest> requests_of(std::string_view block, LineKind kind,
                                      const BlockTarget& target);

}  // namespace pelorus::ctl
