#include "skein/trace.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fmt/format.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <unordered_map>

namespace skein {
namespace {

std::string line_of(void* address) {
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  Dl_info info{};
  if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) return fmt::format("{:#x}", at);
  std::string_view file = info.dli_fname;
  file.remove_prefix(file.rfind('/') + 1);
  const auto offset = at - reinterpret_cast<std::uintptr_t>(info.dli_fbase);
  if (info.dli_sname == nullptr) return fmt::format("{}+{:#x}", file, offset);
  const auto into = at - reinterpret_cast<std::uintptr_t>(info.dli_saddr);
  return fmt::format("{}+{:#x} ({}+{:#x})", demangled(info.dli_sname), into, file, offset);
}

}  // namespace

std::string demangled(const char* name) {
  struct Free {
    void operator()(char* text) const noexcept { std::free(text); }  // NOLINT: the ABI's contract
  };
  int status = 0;
  std::unique_ptr<char, Free> text(abi::__cxa_demangle(name, nullptr, nullptr, &status));
  return status == 0 ? text.get() : name;
}

Trace Trace::here() noexcept {
  Trace trace;
  trace.depth_ = backtrace(trace.frames_.data(), static_cast<int>(trace.frames_.size()));
  return trace;
}

std::vector<std::string> Trace::lines() const {
  // As many as there are calls in the program's code that ever failed.
  static thread_local std::unordered_map<void*, std::string> known;
  std::vector<std::string> lines;
  for (int i = 1; i < depth_; ++i) {  // frame 0 is here() itself
    void* const address = frames_[static_cast<std::size_t>(i)];
    auto& line = known[address];
    if (line.empty()) line = line_of(address);
    lines.push_back(line);
  }
  return lines;
}

}  // namespace skein
