#include "pelorus/pelorus/profile.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string_view>

#include "skein/errors.h"

namespace pelorus::profile {
namespace {

/// The file without the way from the build's folder to the sources.
Function function_of(const Site& site) {
  std::string_view file = site.file;
  while (file.starts_with("../")) file.remove_prefix(3);
  return {std::string(file), site.line, site.function};
}

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

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw skein::SystemFailure("Cannot read " + path, errno);
  return {std::istreambuf_iterator<char>(file), {}};
}

constexpr std::size_t ROWS_SHOWN = 40;

std::string unique_name(const Function& function) {
  return fmt::format("{}:{}", function.name, function.line);
}

void append_call(fmt::memory_buffer& data, unsigned line, const Call& call) {
  fmt::format_to(std::back_inserter(data), "cfi={}\ncfn={}\ncalls={} {}\n{} {}\n", call.callee.file,
                 unique_name(call.callee), call.calls, call.callee.line, line, call.time);
}

/// The decimal number at the beginning of `text`.
template <class Number = std::int64_t>
Number number(std::string_view text) {
  Number value{};
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

/// Gathers the lines of a data file.
class Reader {
 public:
  void read(std::string_view line) {
    const auto equals = static_cast<std::size_t>(std::ranges::find(line, '=') - line.begin());
    const std::string_view key = line.substr(0, equals);
    const std::string_view value = line.substr(std::min(equals + 1, line.size()));
    if (key == "fl") {
      file_ = value;
    } else if (key == "fn") {
      current_ = &entry(file_, value);
    } else if (key == "cfi") {
      callee_file_ = value;
    } else if (key == "cfn") {
      callee_ = &entry(callee_file_, value);
    } else if (key == "calls") {
      callee_->row.calls += number<std::uint64_t>(value);
      cost_of_call_ = true;
    } else if (current_ != nullptr && !line.empty() && line[0] >= '0' && line[0] <= '9') {
      read_cost(number(line.substr(line.find(' ') + 1)));
    }
  }

  std::vector<Row> rows() const {
    std::vector<Row> rows;
    for (const auto& [name, entry] : entries_) {
      rows.push_back(entry.row);
      if (entry.row.calls > 0) continue;
      rows.back().calls = 1;
      rows.back().cumulative = entry.row.own + entry.in_callees;
    }
    return rows;
  }

 private:
  struct Entry {
    Row row;
    std::int64_t in_callees = 0;
  };

  Entry& entry(const std::string& file, std::string_view unique_name) {
    Entry& found = entries_[fmt::format("{}:{}", file, unique_name)];
    const auto colon = unique_name.rfind(':');
    found.row.function = {file, number<unsigned>(unique_name.substr(colon + 1)),
                          std::string(unique_name.substr(0, colon))};
    return found;
  }

  /// The line after "calls=" holds the time of those calls, any other one the function's own.
  void read_cost(std::int64_t time) {
    if (cost_of_call_) {
      callee_->row.cumulative += time;
      current_->in_callees += time;
    } else {
      current_->row.own += time;
    }
    cost_of_call_ = false;
  }

  std::map<std::string, Entry> entries_;  // by "file:name:line"
  std::string file_;
  std::string callee_file_;
  Entry* current_ = nullptr;
  Entry* callee_ = nullptr;
  bool cost_of_call_ = false;
};

double seconds(std::int64_t nanoseconds) { return static_cast<double>(nanoseconds) * 1e-9; }

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
  for (const Record& record : records_) record.site->record = nullptr;
}

void Profiler::enter(Site& site) {
  const std::int64_t start = clock_();
  Record& record = record_of(site);
  CallRecord* call = frames_.empty() ? nullptr : &call_of(*frames_.back().record, record);
  frames_.push_back({&record, call, start});
  ++record.running;
}

void Profiler::leave() noexcept {
  const Frame frame = frames_.back();
  frames_.pop_back();
  const std::int64_t time = clock_() - frame.start;
  frame.record->own += time - frame.in_callees;
  --frame.record->running;
  if (!frames_.empty()) frames_.back().in_callees += time;
  if (frame.call == nullptr) return;
  ++frame.call->calls;
  if (frame.record->running == 0) frame.call->time += time;
}

std::vector<Measurement> Profiler::measurements() const {
  std::vector<Measurement> measurements;
  for (const Record& record : records_) {
    Measurement& measurement =
        measurements.emplace_back(Measurement{function_of(*record.site), record.own, {}});
    for (const CallRecord& call : record.callees) {
      measurement.callees.push_back({function_of(*call.callee->site), call.calls, call.time});
    }
  }
  return measurements;
}

Profiler::Record& Profiler::record_of(Site& site) {
  if (site.record == nullptr) site.record = &records_.emplace_back(Record{&site});
  return *static_cast<Record*>(site.record);
}

Profiler::CallRecord& Profiler::call_of(Record& caller, Record& callee) {
  for (CallRecord& call : caller.callees) {
    if (call.callee == &callee) return call;
  }
  return caller.callees.emplace_back(CallRecord{&callee});
}

std::string to_callgrind(const std::vector<Measurement>& measurements) {
  fmt::memory_buffer data;
  const auto out = std::back_inserter(data);
  fmt::format_to(out, "# callgrind format\nversion: 1\ncreator: pelorus\npositions: line\n");
  fmt::format_to(out, "events: Nanoseconds\n");
  std::int64_t total = 0;
  for (const auto& [function, own, callees] : measurements) {
    fmt::format_to(out, "\nfl={}\nfn={}\n{} {}\n", function.file, unique_name(function),
                   function.line, own);
    for (const Call& call : callees) append_call(data, function.line, call);
    total += own;
  }
  fmt::format_to(out, "\ntotals: {}\n", total);
  return fmt::to_string(data);
}

std::vector<Row> from_callgrind(std::string_view data) {
  Reader reader;
  while (!data.empty()) {
    const auto end = std::min(data.find('\n'), data.size());
    reader.read(data.substr(0, end));
    data.remove_prefix(std::min(end + 1, data.size()));
  }
  std::vector<Row> rows = reader.rows();
  std::stable_sort(rows.begin(), rows.end(), [](const Row& left, const Row& right) {
    return left.cumulative > right.cumulative;
  });
  return rows;
}

std::string table(const std::vector<Row>& rows) {
  std::string text = fmt::format("{:>12} {:>14} {:>6} {:>14}  {}\n", "calls", "own s", "own %",
                                 "cumulative s", "function");
  std::int64_t total = 0;
  for (const Row& row : rows) total += row.own;
  for (std::size_t i = 0; i < std::min(rows.size(), ROWS_SHOWN); ++i) {
    const auto& [function, calls, own, cumulative] = rows[i];
    const std::string_view file =
        std::string_view(function.file).substr(function.file.rfind('/') + 1);
    const double share = total == 0 ? 0 : static_cast<double>(own) / static_cast<double>(total);
    text += fmt::format("{:>12} {:>14.6f} {:>6.1f} {:>14.6f}  {}:{}({})\n", calls, seconds(own),
                        100 * share, seconds(cumulative), file, function.line, function.name);
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
  const auto write = [&] { write_file(path, to_callgrind(profiler.measurements())); };
  try {
    PROFILE_SCOPE();
    main();
  } catch (const skein::KeyboardInterrupt&) {
    write();
    throw;
  }
  write();
  print(table(from_callgrind(read_file(path))));
}

}  // namespace pelorus::profile
