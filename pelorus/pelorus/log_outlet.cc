#include "pelorus/pelorus/log_outlet.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace pelorus::log {
namespace {

/// What a pipe takes in one piece, unmixed with other writers: whole lines if one ends within it.
std::string_view piece_of(std::string_view bytes) {
  const auto piece = bytes.substr(0, PIPE_BUF);
  return piece.substr(0, piece.rfind('\n') + 1).empty() ? piece
                                                        : piece.substr(0, piece.rfind('\n') + 1);
}

bool has_room_within(int descriptor, int milliseconds) noexcept {
  pollfd state{.fd = descriptor, .events = POLLOUT, .revents = 0};
  return ::poll(&state, 1, milliseconds) > 0;
}

}  // namespace

Outlet::Outlet(int descriptor) : descriptor_(descriptor), kind_(kind_of(descriptor)) {
  if (kind_ != Kind::STREAM) return;
  const auto path = fmt::format("/proc/self/fd/{}", descriptor);
  own_ = skein::Socket(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

Outlet::Kind Outlet::kind_of(int descriptor) noexcept {
  struct stat about {};
  if (::fstat(descriptor, &about) != 0) return Kind::FILE;
  if (S_ISSOCK(about.st_mode)) return Kind::SOCKET;
  return S_ISFIFO(about.st_mode) || ::isatty(descriptor) != 0 ? Kind::STREAM : Kind::FILE;
}

std::size_t Outlet::put(std::string_view bytes) noexcept {
  std::size_t taken = 0;
  full_ = false;
  while (taken < bytes.size()) {
    const ssize_t written = put_piece(bytes.substr(taken));
    if (written < 0 && errno == EINTR) continue;
    full_ = written < 0 && errno == EAGAIN;
    if (written <= 0) break;
    taken += static_cast<std::size_t>(written);
  }
  return taken;
}

ssize_t Outlet::put_piece(std::string_view bytes) const noexcept {
  if (kind_ == Kind::FILE) return ::write(descriptor_, bytes.data(), bytes.size());
  if (kind_ == Kind::SOCKET) {
    return ::send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  const auto piece = piece_of(bytes);
  if (own_) return ::write(own_.descriptor(), piece.data(), piece.size());
  if (has_room_within(descriptor_, 0)) return ::write(descriptor_, piece.data(), piece.size());
  errno = EAGAIN;
  return -1;
}

void Outlet::wait(std::chrono::milliseconds longest) const noexcept {
  has_room_within(descriptor_, static_cast<int>(longest.count()));
}

}  // namespace pelorus::log
