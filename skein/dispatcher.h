#pragma once

#include <span>
#include <string_view>

#include "skein/request.h"

namespace skein {

class Server;

/// One row of a server's table of requests: the name on the wire and the operation behind it.
struct RequestRow {
  std::string_view name;
  Reply (*handle)(Server& server, const Request& request);
};

/// The operation `method` of a server class as it stands in a RequestRow.
template <auto method>
struct RequestHandler;

template <class Derived, Reply (Derived::*method)(const Request&)>
struct RequestHandler<method> {
  static Reply handle(Server& server, const Request& request) {
    return (static_cast<Derived&>(server).*method)(request);
  }
};

/// Runs the operation that the table names for the request; nothing outside the table can be
/// called. Throws RequestError for an unknown name, and what the operation throws.
Reply dispatch(std::span<const RequestRow> table, Server& server, const Request& request);

}  // namespace skein
