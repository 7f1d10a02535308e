#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
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

struct Function {
  std::string file;  ///< as the compiler was given it
  unsigned line = 0;
  std::string name;
  bool operator==(const Function&) const = default;
};

/// All calls from one function to another.
struct Call {
  Function callee;
  std::uint64_t calls = 0;
  std::int64_t time = 0;  ///< only of calls while the callee was not running already
};

struct Measurement {
  Function function;
  std::int64_t own = 0;
  std::vector<Call> callees;
};

/// The data file: callgrind's format, one event "Nanoseconds". A function is named "name:line"
/// there, for names alone are not unique within a file.
std::string to_callgrind(const std::vector<Measurement>& measurements);

struct Row {
  Function function;
  std::uint64_t calls = 0;  ///< 1 for a function without a caller: the profiler entered it
  std::int64_t own = 0;
  std::int64_t cumulative = 0;
  bool operator==(const Row&) const = default;
};

/// Reads what to_callgrind() wrote; the longest cumulative time first.
std::vector<Row> from_callgrind(std::string_view data);

/// A heading and a line for each of the first 40 rows: calls, times in seconds, the own time in
/// percent of all rows' own times, and "file:line(function)", the file without its folders.
std::string table(const std::vector<Row>& rows);

/// Collects for as long as it lives. One at a time.
class Profiler final : private skein::profile::Recorder {
 public:
  using Clock = std::int64_t (*)();  ///< nanoseconds that never step
  static std::int64_t steady_nanoseconds();

  explicit Profiler(Clock clock = steady_nanoseconds);
  Profiler(const Profiler&) = delete;
  Profiler& operator=(const Profiler&) = delete;
  ~Profiler();

  /// What the calls that have ended took, in the order of their first.
  std::vector<Measurement> measurements() const;

 private:
  struct Record;
  struct CallRecord {
    Record* callee;
    std::uint64_t calls = 0;
    std::int64_t time = 0;
  };
  struct Record {
    Site* site;
    std::int64_t own = 0;
    int running = 0;  // calls under way: more than one in a recursion
    std::deque<CallRecord> callees{};
  };
  struct Frame {
    Record* record;
    CallRecord* call;  // none: nobody measured has called
    std::int64_t start;
    std::int64_t in_callees = 0;
  };

  void enter(Site& site) override;
  void leave() noexcept override;
  Record& record_of(Site& site);
  static CallRecord& call_of(Record& caller, Record& callee);

  Clock clock_;
  std::deque<Record> records_;  // addresses stay: sites, calls and frames point here
  std::vector<Frame> frames_;
};

/// "pelorus.profile" and the moment in its shortest exact decimal form, never with an exponent.
std::string file_name(double seconds_since_epoch);

/// Runs `main` under the profiler: says so on standard output, and when `main` has returned writes
/// the data file into the current directory, reads it and prints its table to standard output.
/// The terminal's interrupt passes through and leaves the file, any other failure of `main` passes
/// through and leaves none. Throws skein::SystemFailure where the file cannot be written or read.
void run(const std::function<void()>& main);

}  // namespace pelorus::profile
