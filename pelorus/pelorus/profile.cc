#include "pelorus/pelorus/profile.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string_view>

#include "skein/errors.h"

namespace pelorus::profile {
namespace {

constexpr std::size_t ROWS_SHOWN = 40;

/// The file without the relative path from the build's folder to the sources.
std::string_view file_of(const Site& site) {
  std::string_view file = site.file;
  while (file.starts_with("../")) file.remove_prefix(3);
  return file;
}

double seconds(std::int64_t nanoseconds) { return static_cast<double>(nanoseconds) * 1e-9; }

void print(std::string_view text) {
  fmt::print("{}", text);
  std::fflush(stdout);
}

void write_file(const std::string& path, const std::string& content) {
  // Never through a link or over a file that is there already.
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wxe"),
                                                       std::fclose);
  const bool written = file && std::fputs(content.c_str(), file.get()) >= 0;
  if (!written || std::fclose(file.release()) != 0) {
    throw skein::SystemFailure("Cannot write " + path, errno);
  }
}

}  // namespace

std::int64_t Profiler::steady_nanoseconds() {
  const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(since_start).count();
}

Profiler::Profiler(Clock clock) : clock_(clock) {
  assert(active == nullptr);
  active = this;
}

Profiler::~Profiler() {
  assert(frames_.empty());
  active = nullptr;
  for (const Function& function : functions_) function.site->record = nullptr;
}

void Profiler::enter(Site& site) {
  const std::int64_t start = clock_();
  Function& function = function_of(site);
  Calls* calls = frames_.empty() ? nullptr : &calls_of(*frames_.back().function, function);
  frames_.push_back({&function, calls, start});
  ++function.running;
}

void Profiler::leave() noexcept {
  const Frame frame = frames_.back();
  Function& function = *frame.function;
  frames_.pop_back();
  const std::int64_t time = clock_() - frame.start;
  const bool outermost = --function.running == 0;
  ++function.calls;
  function.own += time - frame.in_callees;
  if (outermost) function.cumulative += time;
  if (!frames_.empty()) frames_.back().in_callees += time;
  if (frame.calls == nullptr) return;
  ++frame.calls->count;
  if (outermost) frame.calls->time += time;
}

Profiler::Function& Profiler::function_of(Site& site) {
  if (site.record == nullptr) site.record = &functions_.emplace_back(Function{&site});
  return *static_cast<Function*>(site.record);
}

Profiler::Calls& Profiler::calls_of(Function& caller, const Function& callee) {
  for (Calls& calls : caller.callees) {
    if (calls.callee == &callee) return calls;
  }
  return caller.callees.emplace_back(Calls{&callee});
}

std::string Profiler::to_callgrind() const {
  fmt::memory_buffer data;
  const auto out = std::back_inserter(data);
  fmt::format_to(out, "# callgrind format\nversion: 1\ncreator: pelorus\npositions: line\n");
  fmt::format_to(out, "events: Nanoseconds\n");
  std::int64_t total = 0;
  for (const Function& function : functions_) {
    const Site& site = *function.site;
    fmt::format_to(out, "\nfl={}\nfn={}:{}\n{} {}\n", file_of(site), site.function, site.line,
                   site.line, function.own);
    for (const Calls& calls : function.callees) {
      const Site& callee = *calls.callee->site;
      fmt::format_to(out, "cfi={}\ncfn={}:{}\ncalls={} {}\n{} {}\n", file_of(callee),
                     callee.function, callee.line, calls.count, callee.line, site.line, calls.time);
    }
    total += function.own;
  }
  fmt::format_to(out, "\ntotals: {}\n", total);
  return fmt::to_string(data);
}

std::string Profiler::table() const {
  std::int64_t total = 0;
  std::vector<const Function*> rows;
  for (const Function& function : functions_) {
    total += function.own;
    rows.push_back(&function);
  }
  std::ranges::stable_sort(rows, std::ranges::greater(), &Function::cumulative);
  if (rows.size() > ROWS_SHOWN) rows.resize(ROWS_SHOWN);
  std::string text = fmt::format("{:>12} {:>14} {:>6} {:>14}  {}\n", "calls", "own s", "own %",
                                 "cumulative s", "function");
  for (const Function* row : rows) {
    const Site& site = *row->site;
    const std::string_view file = file_of(site);
    const double share =
        total == 0 ? 0 : static_cast<double>(row->own) / static_cast<double>(total);
    text += fmt::format("{:>12} {:>14.6f} {:>6.1f} {:>14.6f}  {}:{}({})\n", row->calls,
                        seconds(row->own), 100 * share, seconds(row->cumulative),
                        file.substr(file.rfind('/') + 1), site.line, site.function);
  }
  return text;
}

std::string file_name(double seconds_since_epoch) {
  std::array<char, 512> digits{};  // the largest double has 309 digits
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), seconds_since_epoch,
                                 std::chars_format::fixed);
  return fmt::format("pelorus.profile{}", std::string_view(digits.data(), end.ptr));
}

void run(const std::function<void()>& main) {
  print("Starting to profile!\n");
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const std::string path = file_name(std::chrono::duration<double>(since_epoch).count());
  Profiler profiler;
  try {
    PROFILE_SCOPE();
    main();
  } catch (const skein::KeyboardInterrupt&) {
    write_file(path, profiler.to_callgrind());
    throw;
  }
  write_file(path, profiler.to_callgrind());
  print(profiler.table());
}

}  // namespace pelorus::profile
