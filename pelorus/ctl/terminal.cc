#include "pelorus/ctl/terminal.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "pelorus/ctl/exit_status.h"

namespace pelorus::ctl {
namespace {

const char* code_of(Tone tone) {
  switch (tone) {
    case Tone::HEADING:
      return "\033[1m";
    case Tone::FAINT:
      return "\033[2m";
    case Tone::GOOD:
      return "\033[32m";
    case Tone::WARNING:
      return "\033[33m";
    case Tone::BAD:
      return "\033[1;31m";
    case Tone::PLAIN:
      break;
  }
  return "";
}

bool is_control(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return code < 0x20 || code == 0x7f;
}

/// Over what stands there: each line is cleared behind its end, and so is the rest of the screen.
std::string in_place(std::string_view text) {
  std::string out = "\033[H";
  for (const char byte : text) {
    if (byte == '\n') out += "\033[K";
    out += byte;
  }
  return out + "\033[J";
}

std::string draw_or_explain(const std::function<std::string()>& draw) {
  try {
    return draw();
  } catch (const skein::ClientError& error) {
    return Palette::of_stdout().paint(Tone::BAD, explain(error)) + "\n";
  }
}

}  // namespace

Palette Palette::of_stdout() {
  const char* no_color = std::getenv("NO_COLOR");
  const char* terminal = std::getenv("TERM");
  const bool refused = no_color != nullptr && *no_color != '\0';
  const bool dumb = terminal == nullptr || std::string_view(terminal) == "dumb";
  return Palette(isatty(STDOUT_FILENO) == 1 && !refused && !dumb);
}

std::string Palette::paint(Tone tone, std::string_view text) const {
  if (!coloured_ || tone == Tone::PLAIN) return std::string(text);
  return fmt::format("{}{}\033[0m", code_of(tone), text);
}

std::string without_controls(std::string_view text) {
  std::string safe(text);
  std::replace_if(safe.begin(), safe.end(), is_control, '?');
  return safe;
}

void watch(double seconds, const std::function<std::string()>& draw) {
  const bool terminal = isatty(STDOUT_FILENO) == 1;
  if (terminal) std::fputs("\033[2J", stdout);
  while (true) {
    const std::string text = terminal ? in_place(draw_or_explain(draw)) : draw() + "\n";
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
      throw std::runtime_error("cannot write to standard output");
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }
}

}  // namespace pelorus::ctl
