#include "skein/dispatcher.h"

#include <fmt/format.h>

#include "skein/errors.h"

namespace skein {

Reply Dispatcher::dispatch(const Request& request) const {
  for (const auto& [name, operation] : operations_) {
    if (name == request.name) return operation(request);
  }
  constexpr std::size_t SHOWN_BYTES = 64;
  throw RequestError(fmt::format("unknown request '{}'", request.name.substr(0, SHOWN_BYTES)));
}

}  // namespace skein
