#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What a profiled run measured, the file it is kept in and the table that is printed. Times are in
// nanoseconds. A function's own time is what it spent itself; its cumulative time is from entering
// to leaving it, so what it called included, and counted once where it calls itself.
namespace pelorus::profile {

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

/// A heading and a line for each of the first 40 rows: calls, times in seconds and
/// "file:line(function)", the file without its folders.
std::string table(const std::vector<Row>& rows);

}  // namespace pelorus::profile
