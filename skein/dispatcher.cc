#include "skein/dispatcher.h"

#include <fmt/format.h>

#include "skein/errors.h"

namespace skein {

Reply dispatch(std::span<const RequestRow> table, Server& server, const Request& request) {
  for (const RequestRow& row : table) {
    if (row.name == request.name) return row.handle(server, request);
  }
  constexpr std::size_t SHOWN_BYTES = 64;
  throw RequestError(fmt::format("unknown request '{}'", request.name.substr(0, SHOWN_BYTES)));
}

}  // namespace skein
