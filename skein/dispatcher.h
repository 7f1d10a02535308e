#pragma once

#include <functional>
#include <string>
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

  /// None for an unknown name.
  const Operation* find(std::string_view name) const;
  /// What the peer is told then.
  static std::string unknown_request(std::string_view name);

 private:
  std::vector<std::pair<std::string_view, Operation>> operations_;  ///< a handful
};

}  // namespace skein
