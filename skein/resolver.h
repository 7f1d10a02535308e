#pragma once

#include <netdb.h>

#include <memory>

#include "skein/endpoint.h"
#include "skein/waiter.h"

namespace skein {

struct FreeAddresses {
  void operator()(addrinfo* found) const noexcept { freeaddrinfo(found); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

/// The stream addresses, IPv4 and IPv6, of a TCP end point in the order they are to be tried.
/// Numeric hosts never wait. Names are looked up in a thread of their own, because the resolver
/// knows no deadline; what comes back late is thrown away there.
/// Throws ClientError UNREACHABLE, TIMED_OUT, CANCELLED.
Addresses resolve(const Endpoint& endpoint, const Waiter& waiter,
                  Waiter::Clock::time_point deadline);

}  // namespace skein
