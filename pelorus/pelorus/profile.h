#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "skein/profile_scope.h"

// The call profiler behind "--profile": the main functions begin with PROFILE_SCOPE(). A profiled
// run counts and times every call of them, writes the result to a file and prints a table.
//
// Times are in nanoseconds. A function's own time excludes the measured functions that it calls;
// its cumulative time includes them, and counts once in a recursion. Most of the cost of measuring
// a call counts as time of that call.
namespace pelorus::profile {

using skein::profile::active;
using skein::profile::Scope;
using skein::profile::Site;

/// Measures as long as it exists; one at a time. Its results include only calls that have ended.
class Profiler final : private skein::profile::Recorder {
 public:
  using Clock = std::int64_t (*)();  ///< nanoseconds that never step
  static std::int64_t steady_nanoseconds();

  explicit Profiler(Clock clock = steady_nanoseconds);
  Profiler(const Profiler&) = delete;
  Profiler& operator=(const Profiler&) = delete;
  ~Profiler();

  /// The result in callgrind's format, with one event "Nanoseconds". Functions are named
  /// "name:line", because names alone are not unique within a file.
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
    int running = 0;  // calls in progress: more than one in a recursion
    std::deque<Calls> callees{};
  };
  struct Frame {
    Function* function;
    Calls* calls;  // none if the caller is not measured
    std::int64_t start;
    std::int64_t in_callees = 0;
  };

  void enter(Site& site) override;
  void leave() noexcept override;
  Function& function_of(Site& site);
  static Calls& calls_of(Function& caller, const Function& callee);

  Clock clock_;
  std::deque<Function> functions_;  // stable addresses: sites, calls and frames point here
  std::vector<Frame> frames_;
};

/// "pelorus.profile" and the moment in its shortest exact decimal form, never with an exponent.
std::string file_name(double seconds_since_epoch);

/// Runs `main` under the profiler and announces that on standard output. After `main` has returned,
/// writes the data file into the current directory and prints the table. After the terminal's
/// interrupt it writes only the file, after any other failure nothing; both are passed on. Throws
/// skein::SystemFailure if the file cannot be written.
void run(const std::function<void()>& main);

}  // namespace pelorus::profile
