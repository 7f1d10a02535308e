#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "skein/request.h"

namespace skein {

/// The requests that a server answers: the request N is handled by the server's operation req_N.
class Dispatcher {
 public:
  using Operation = std::function<Reply(const Request&)>;

  /// `name`: a literal.
  void add(std::string_view name, Operation operation) {
    operations_.emplace_back(name, std::move(operation));
  }

  /// Runs the operation of the request. Throws RequestError for an unknown name, and what the
  /// operation throws.
  Reply dispatch(const Request& request) const;

 private:
  std::vector<std::pair<std::string_view, Operation>> operations_;  ///< a handful
};

}  // namespace skein
