#pragma once

#include <array>
#include <string>
#include <vector>

namespace skein {

/// The name of a type or function as its source has it; `name` itself if it is not a mangled one.
std::string demangled(const char* name);

/// The call stack at one moment: return addresses only, so that taking one is cheap.
/// Names are looked up when, and only when, somebody wants to read them.
class Trace {
 public:
  /// The stack of the caller, innermost frame first, at most 32 frames deep.
  static Trace here() noexcept;

  /// One line per frame: "function+0x12 (binary+0x3456)", demangled where a name is known.
  std::vector<std::string> lines() const;

 private:
  std::array<void*, 32> frames_{};
  int depth_ = 0;
};

}  // namespace skein
