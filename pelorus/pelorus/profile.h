#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "skein/profile_scope.h"

// The call profiler behind "--profile": each function that matters says PROFILE_SCOPE() first, and
// a profiled run counts and times every call of it, writes what it measured to a file and prints a
// table of that.
//
// Times are in nanoseconds. A function's own time is what it spent itself; its cumulative time is
// from entering to leaving it, so what it called included, and counted once where it calls itself.
// Most of what measuring a call costs counts as time of that call.
namespace pelorus::profile {

using skein::profile::active;
using skein::profile::Scope;
using skein::profile::Site;

/// Collects for as long as it lives. One at a time. What it shows are the calls that have ended.
class Profiler final : private skein::profile::Recorder {
 public:
  using Clock = std::int64_t (*)();  ///< nanoseconds that never step
  static std::int64_t steady_nanoseconds();

  explicit Profiler(Clock clock = steady_nanoseconds);
  Profiler(const Profiler&) = delete;
  Profiler& operator=(const Profiler&) = delete;
  ~Profiler();

  /// Callgrind's format, one event "Nanoseconds". A function is named "name:line" there, for names
  /// alone are not unique within a file.
  std::string to_callgrind() const;

  /// A heading and a line for each of the first 40 functions, the longest cumulative time first:
  /// calls, times in seconds, the own time in percent of all own times, and "file:line(function)",
  /// the file without its folders.
  std::string table() const;

 private:
  struct Function;
  /// All calls from one function to another.
  struct Calls {
    const Function* callee;
    std::uint64_t count = 0;
    std::int64_t time = 0;  // only of calls while the callee was not running already
  };
  struct Function {
    Site* site;
    std::uint64_t calls = 0;
    std::int64_t own = 0;
    std::int64_t cumulative = 0;
    int running = 0;  // calls under way: more than one in a recursion
    std::deque<Calls> callees{};
  };
  struct Frame {
    Function* function;
    Calls* calls;  // none: nobody measured has called
    std::int64_t start;
    std::int64_t in_callees = 0;
  };

  void enter(Site& site) override;
  void leave() noexcept override;
  Function& function_of(Site& site);
  static Calls& calls_of(Function& caller, const Function& callee);

  Clock clock_;
  std::deque<Function> functions_;  // addresses stay: sites, calls and frames point here
  std::vector<Frame> frames_;
};

/// "pelorus.profile" and the moment in its shortest exact decimal form, never with an exponent.
std::string file_name(double seconds_since_epoch);

/// Runs `main` under the profiler: says so on standard output, and when `main` has returned writes
/// the data file into the current directory and prints the table to standard output.
/// The terminal's interrupt passes through and leaves the file, any other failure of `main` passes
/// through and leaves none. Throws skein::SystemFailure where the file cannot be written.
void run(const std::function<void()>& main);

}  // namespace pelorus::profile
