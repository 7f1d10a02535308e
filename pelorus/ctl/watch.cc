#include "pelorus/ctl/watch.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "pelorus/ctl/options.h"

namespace pelorus::ctl {
namespace {

using Clock = std::chrono::steady_clock;

/// Leaves one line for the cursor, so that nothing scrolls and a prompt has its place at the end.
Room room_of_terminal() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row < 2 || size.ws_col == 0) {
    return {.columns = 80, .rows = 23};
  }
  return {.columns = size.ws_col, .rows = size.ws_row - 1U};
}

/// Overwrites the screen: clears each line before it is written, and the screen after the last one.
/// No line wraps, even if a character takes two columns.
std::string in_place(std::string_view text) {
  std::string out = "\033[?7l\033[H\033[K";
  for (const char byte : text) {
    out += byte;
    if (byte == '\n') out += "\033[K";
  }
  return out + "\033[J\033[?7h";
}

void write(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    throw std::runtime_error("cannot write to standard output");
  }
}

/// Notices that the terminal got another size.
class Resizing {
 public:
  Resizing() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGWINCH);
    sigprocmask(SIG_BLOCK, &signals_, nullptr);  // it stays pending until it is waited for
  }
  /// True as soon as that happens; false when the time has come.
  bool happens_before(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::nanoseconds>(end - Clock::now()).count();
    if (left <= 0) return false;
    constexpr std::int64_t SECOND = 1'000'000'000;
    const timespec timeout{left / SECOND, left % SECOND};
    return sigtimedwait(&signals_, nullptr, &timeout) == SIGWINCH;
  }

 private:
  sigset_t signals_{};
};

Picture look_or_explain(const std::function<Picture()>& look) {
  try {
    return look();
  } catch (const skein::ClientError& error) {
    return [text = explain(error)](const Room& room) {
      return fitted(Palette::of_stdout().paint(Tone::BAD, text) + "\n", room);
    };
  }
}

Clock::duration duration_of(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

void watch(double seconds, const std::function<Picture()>& look) {
  if (isatty(STDOUT_FILENO) != 1) watch_lines(seconds, [&] { return look()({}) + "\n"; });
  Resizing resizing;
  write("\033[2J");
  while (true) {
    const Clock::time_point next = Clock::now() + duration_of(seconds);
    const Picture picture = look_or_explain(look);
    do {
      write(in_place(picture(room_of_terminal())));
    } while (resizing.happens_before(next));
  }
}

void watch_lines(double seconds, const std::function<std::string()>& look) {
  while (true) {
    const Clock::time_point next = Clock::now() + duration_of(seconds);
    write(look());
    std::this_thread::sleep_until(next);
  }
}

}  // namespace pelorus::ctl
