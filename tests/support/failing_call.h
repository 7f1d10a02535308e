#pragma once

#include <curl/curl.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

// Replaces operator new, libcurl's allocator and the socket and timer calls of a test program, to
// make a chosen one of them fail. Include it in exactly one source of the program.
namespace support {

/// While one lives, allocations and system calls are counted that are made within a Scope, and the
/// one of this number (0: the next one) fails, and so do those behind it, `count` in all. One at a
/// time, one thread.
class FailingCall {
 public:
  static constexpr std::size_t ALL = SIZE_MAX;

  explicit FailingCall(std::size_t number, std::size_t count = 1) {
    before = number;
    left = count;
    failed = false;
  }
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;
  ~FailingCall() { left = 0; }

  /// What is done within one is the program under test, and not the test.
  struct Scope {
    Scope() { active = true; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { active = false; }
  };

  /// False while there have not been that many calls.
  static bool happened() noexcept { return failed; }

  /// Of the replaced functions.
  static bool fails_now() noexcept {
    if (!active || left == 0) return false;
    if (before > 0) {
      --before;
      return false;
    }
    --left;
    return failed = true;
  }

 private:
  static inline thread_local bool active = false;
  static inline thread_local std::size_t before = 0;  ///< calls until the first that fails
  static inline thread_local std::size_t left = 0;    ///< calls that fail from then on
  static inline thread_local bool failed = false;
};

/// Makes libcurl's allocations fail as well. To be called before it is used.
inline void replace_allocator_of_curl() {
  curl_global_init_mem(
      CURL_GLOBAL_DEFAULT,
      [](std::size_t size) { return FailingCall::fails_now() ? nullptr : std::malloc(size); },
      [](void* memory) { std::free(memory); },
      [](void* memory, std::size_t size) {
        return FailingCall::fails_now() ? nullptr : std::realloc(memory, size);
      },
      [](const char* text) { return FailingCall::fails_now() ? nullptr : ::strdup(text); },
      [](std::size_t count, std::size_t size) {
        return FailingCall::fails_now() ? nullptr : std::calloc(count, size);
      });
}

/// Calls the system's function of this name, or fails with `error_number`.
template <class Function, class... Args>
auto call_or_fail(const char* name, int error_number, Args... args) {
  static const auto real = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
  using Result = decltype(real(args...));
  if (!FailingCall::fails_now()) return real(args...);
  errno = error_number;
  return static_cast<Result>(-1);
}

}  // namespace support

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = support::FailingCall::fails_now() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

extern "C" {
int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
  return support::call_or_fail<decltype(::accept4)>("accept4", ENFILE, socket, address, length,
                                                    flags);
}
int socket(int family, int type, int protocol) noexcept {
  return support::call_or_fail<int(int, int, int)>("socket", EMFILE, family, type, protocol);
}
int connect(int socket, const sockaddr* address, socklen_t length) {
  return support::call_or_fail<decltype(::connect)>("connect", ENOBUFS, socket, address, length);
}
ssize_t recv(int socket, void* buffer, std::size_t size, int flags) {
  return support::call_or_fail<decltype(::recv)>("recv", ENOBUFS, socket, buffer, size, flags);
}
ssize_t send(int socket, const void* bytes, std::size_t size, int flags) {
  return support::call_or_fail<decltype(::send)>("send", ENOBUFS, socket, bytes, size, flags);
}
int getpeername(int socket, sockaddr* address, socklen_t* length) noexcept {
  return support::call_or_fail<int(int, sockaddr*, socklen_t*)>("getpeername", ENOBUFS, socket,
                                                                address, length);
}
int setsockopt(int socket, int level, int name, const void* value, socklen_t length) noexcept {
  return support::call_or_fail<int(int, int, int, const void*, socklen_t)>(
      "setsockopt", ENOBUFS, socket, level, name, value, length);
}
int timerfd_settime(int timer, int flags, const itimerspec* due, itimerspec* before) noexcept {
  return support::call_or_fail<int(int, int, const itimerspec*, itimerspec*)>(
      "timerfd_settime", ENOMEM, timer, flags, due, before);
}
}
