#include "skein/resolver.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "skein/client_error.h"
#include "skein/errors.h"

namespace skein {
namespace {

using Kind = ClientError::Kind;

/// One question to the resolver and its answer.
struct Lookup {
  explicit Lookup(const Endpoint& asked)
      : endpoint(asked), done(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!done) throw SystemFailure("eventfd", errno);
  }

  void run(int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    result = ::getaddrinfo(endpoint.host().c_str(), endpoint.port().c_str(), &hints, &list);
    error_number = errno;
    found.reset(list);
  }

  Endpoint endpoint;
  Socket done;  ///< an eventfd, readable once `finished`
  std::atomic<bool> finished = false;
  int result = 0;
  int error_number = 0;  ///< of result EAI_SYSTEM
  Addresses found;
};

ClientError failure(const Lookup& lookup) {
  const char* reason = lookup.result == EAI_SYSTEM ? std::strerror(lookup.error_number)
                                                   : gai_strerror(lookup.result);
  return {Kind::UNREACHABLE,
          fmt::format("cannot find the address of {}: {}", lookup.endpoint.text(), reason)};
}

void start(const std::shared_ptr<Lookup>& lookup) {
  try {
    std::thread([lookup] {
      lookup->run(0);
      lookup->finished = true;
      ::eventfd_write(lookup->done.descriptor(), 1);
    }).detach();
  } catch (const std::system_error& error) {
    throw ClientError(Kind::UNREACHABLE,
                      fmt::format("cannot look up {}: {}", lookup->endpoint.text(), error.what()));
  }
}

}  // namespace

Addresses resolve(const Endpoint& endpoint, const Waiter& waiter,
                  Waiter::Clock::time_point deadline) {
  // Shared with the thread that asks: whichever of the two ends last frees it.
  const auto lookup = std::make_shared<Lookup>(endpoint);
  lookup->run(AI_NUMERICHOST);
  if (lookup->result == EAI_NONAME) {
    start(lookup);
    const bool in_time = waiter.wait(lookup->done.descriptor(), POLLIN, deadline);
    if (!in_time || !lookup->finished) {
      throw ClientError(Kind::TIMED_OUT,
                        fmt::format("looking up {} took too long", endpoint.text()));
    }
  }
  if (lookup->result != 0) throw failure(*lookup);
  return std::move(lookup->found);
}

}  // namespace skein
