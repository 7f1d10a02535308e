#pragma once

#include <sys/types.h>

#include <cerrno>
#include <ctime>
#include <system_error>

namespace bench {

/// CPU time, user and system and of all threads, that a process has used so far; to the
/// nanosecond, where the times that /proc shows are cut to a hundredth of a second.
inline double cpu_seconds(pid_t process) {
  clockid_t clock{};
  if (const int error = ::clock_getcpuclockid(process, &clock); error != 0) {
    throw std::system_error(error, std::generic_category(), "CPU clock of the other process");
  }
  timespec used{};
  if (::clock_gettime(clock, &used) != 0) {
    throw std::system_error(errno, std::generic_category(), "CPU clock of the other process");
  }
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

}  // namespace bench
