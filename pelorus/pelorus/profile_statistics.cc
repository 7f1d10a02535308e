#include "pelorus/pelorus/profile_statistics.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>

namespace pelorus::profile {
namespace {

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
  std::string text =
      fmt::format("{:>12} {:>14} {:>14}  {}\n", "calls", "own s", "cumulative s", "function");
  for (std::size_t i = 0; i < std::min(rows.size(), ROWS_SHOWN); ++i) {
    const auto& [function, calls, own, cumulative] = rows[i];
    const std::string_view file =
        std::string_view(function.file).substr(function.file.rfind('/') + 1);
    text += fmt::format("{:>12} {:>14.6f} {:>14.6f}  {}:{}({})\n", calls, seconds(own),
                        seconds(cumulative), file, function.line, function.name);
  }
  return text;
}

}  // namespace pelorus::profile
