#include "skein/waiter.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "skein/client_error.h"
#include "skein/errors.h"

namespace skein {
namespace {

using std::chrono::milliseconds;

/// Rounded up: a wait that ends a moment early would only be repeated.
int milliseconds_until(Waiter::Clock::time_point deadline) {
  const auto left = std::chrono::ceil<milliseconds>(deadline - Waiter::Clock::now());
  return static_cast<int>(std::clamp(left, milliseconds(0), milliseconds(3'600'000)).count());
}

}  // namespace

Waiter::Waiter() : cancelled_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!cancelled_) throw SystemFailure("eventfd", errno);
}

bool Waiter::wait(int descriptor, short events, Clock::time_point deadline) const {
  std::array<pollfd, 2> watched{{{cancelled_.descriptor(), POLLIN, 0}, {descriptor, events, 0}}};
  for (;;) {
    const int timeout = milliseconds_until(deadline);
    const int ready = ::poll(watched.data(), watched.size(), timeout);
    if (ready < 0 && errno != EINTR) throw SystemFailure("poll", errno);
    if (watched[0].revents != 0) throw ClientError(ClientError::Kind::CANCELLED, "cancelled");
    if (ready > 0) return true;
    if (ready == 0 && Clock::now() >= deadline) return false;
  }
}

void Waiter::cancel() noexcept { ::eventfd_write(cancelled_.descriptor(), 1); }

}  // namespace skein
