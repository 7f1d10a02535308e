#include "pelorus/pelorus/profile.h"

#include <fmt/format.h>

#include <array>
#include <cassert>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <string_view>

#include "skein/errors.h"

namespace pelorus::profile {
namespace {

Function function_of(const Site& site) { return {site.file, site.line, site.function}; }

std::vector<Measurement> measure(const std::function<void()>& main) {
  Profiler profiler;
  {
    PROFILE_SCOPE();
    main();
  }
  return profiler.measurements();
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
  Record& record = record_of(site);
  CallRecord* call = frames_.empty() ? nullptr : &call_of(*frames_.back().record, record);
  frames_.push_back({&record, call, clock_()});
  ++record.running;
}

void Profiler::leave() noexcept {
  const Frame frame = frames_.back();
  const std::int64_t time = clock_() - frame.start;
  frames_.pop_back();
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
  write_file(path, to_callgrind(measure(main)));
  print(table(from_callgrind(read_file(path))));
}

}  // namespace pelorus::profile
