#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace pelorus::ctl {

/// How a piece of text stands out on a terminal.
enum class Tone { PLAIN, HEADING, FAINT, GOOD, WARNING, BAD };

/// Colours for standard output; plain where it is no terminal, with NO_COLOR, and on a dumb one.
class Palette {
 public:
  static Palette of_stdout();
  explicit Palette(bool coloured) : coloured_(coloured) {}

  std::string paint(Tone tone, std::string_view text) const;

 private:
  bool coloured_;
};

/// Text from elsewhere, with every control byte shown as "?": it cannot move the cursor.
std::string without_controls(std::string_view text);

/// Shows what `draw` returns, every `seconds` until the process is interrupted: in place on a
/// terminal, else one after another. On a terminal a failure to reach the daemon is shown as well,
/// and the next time may be better.
[[noreturn]] void watch(double seconds, const std::function<std::string()>& draw);

}  // namespace pelorus::ctl
