#include "pelorus/pelorus/log_writer.h"

#include <fcntl.h>
#include <fmt/compile.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <exception>
#include <iterator>
#include <memory>
#include <utility>

#include "skein/profile_scope.h"
#include "skein/text.h"

namespace pelorus::log {
namespace {

/// From this size on the buffer is written without waiting for the end of the iteration.
constexpr std::size_t GATHERED_BYTES = 64U << 10;
/// Records of one iteration that are written immediately: as many as one connection may cause in an
/// iteration, so that they are in the log when its peer receives the reply.
constexpr int WRITES_PER_ITERATION = 32;
/// Time until the next attempt to write: exponential backoff.
constexpr std::chrono::milliseconds SHORTEST_WAIT{2}, LONGEST_WAIT{100};
/// Memory that the buffer keeps when it is empty.
constexpr std::size_t KEPT_BYTES = 256U << 10;

/// In the order of Level.
constexpr std::array<std::string_view, 4> LEVEL_NAMES{"debug", "info", "warning", "error"};
/// The same in the system log.
constexpr std::array<char, 4> PRIORITIES{'7', '6', '4', '3'};

/// "2024-05-01 13:45:00"
std::string local_time(std::time_t second) {
  std::tm parts{};
  localtime_r(&second, &parts);
  std::array<char, sizeof("2024-05-01 13:45:00") + 8> text{};  // room for a year of more digits
  const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  return {text.data(), length};
}

/// What a pipe takes atomically, not mixed with other writers: whole lines, if one ends within it.
std::string_view pipe_part(std::string_view bytes) {
  const auto part = bytes.substr(0, PIPE_BUF);
  const auto lines = part.substr(0, part.rfind('\n') + 1);
  return lines.empty() ? part : lines;
}

bool has_room_within(int descriptor, std::chrono::milliseconds longest) noexcept {
  pollfd state{.fd = descriptor, .events = POLLOUT, .revents = 0};
  return ::poll(&state, 1, static_cast<int>(longest.count())) > 0;
}

}  // namespace

std::string_view name_of(Level level) { return LEVEL_NAMES[static_cast<std::size_t>(level)]; }

std::string dropped_text(std::uint64_t lines) {
  return fmt::format("{} log lines were dropped: more than could be written", lines);
}

void RecordBuffer::end_record(std::size_t lines) {
  records_.push_back({text_.size() - tail_, lines});
  lines_ += lines;
  tail_ = text_.size();
  const auto too_much = [this] { return lines_ > BUFFER_LINES || tail_ - head_ > BUFFER_BYTES; };
  while (records_.size() > 1 && too_much()) drop_oldest();
  if (head_ > BUFFER_BYTES) free_written();
}

void RecordBuffer::drop_oldest() {
  const Record& oldest = records_.front();
  dropped_ += oldest.lines;
  lines_ -= oldest.lines;
  head_ += oldest.bytes;
  records_.pop_front();
}

void RecordBuffer::drop(std::uint64_t lines) {
  while (!records_.empty()) drop_oldest();
  dropped_ += lines;
  free_written();
}

void RecordBuffer::dropped_written(std::string_view rest) {
  reported_ += std::exchange(dropped_, 0);
  begun_ = rest;
}

std::string_view RecordBuffer::next() const noexcept {
  if (begun()) return begun_;
  return std::string_view(text_).substr(head_, tail_ - head_);
}

void RecordBuffer::written(std::size_t bytes) {
  if (begun()) {
    begun_.erase(0, bytes);
    return;
  }
  while (bytes > 0) {
    const Record first = records_.front();
    if (bytes < first.bytes) begun_ = text_.substr(head_ + bytes, first.bytes - bytes);
    bytes -= std::min(bytes, first.bytes);
    lines_ -= first.lines;
    head_ += first.bytes;
    records_.pop_front();
  }
  if (records_.empty()) free_written();
}

void RecordBuffer::free_written() {
  text_.erase(0, head_);
  tail_ -= head_;
  head_ = 0;
  if (text_.empty() && text_.capacity() > KEPT_BYTES) text_.shrink_to_fit();
}

LogWriter::LogWriter(int descriptor, Prefix prefix)
    : descriptor_(descriptor),
      kind_(kind_of(descriptor)),
      prefix_(prefix),
      retry_wait_(SHORTEST_WAIT) {
  if (kind_ != Kind::STREAM) return;
  const auto path = fmt::format("/proc/self/fd/{}", descriptor);
  own_ = skein::Socket(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

LogWriter::Kind LogWriter::kind_of(int descriptor) noexcept {
  struct stat about {};
  if (::fstat(descriptor, &about) != 0) return Kind::FILE;
  if (S_ISSOCK(about.st_mode)) return Kind::SOCKET;
  return S_ISFIFO(about.st_mode) || ::isatty(descriptor) != 0 ? Kind::STREAM : Kind::FILE;
}

void LogWriter::write(Level level, Moment moment, std::string_view first,
                      std::span<const std::string> others) {
  PROFILE_SCOPE();
  const std::string_view begin = prefix(level, moment);
  append_line(begin, first);
  for (const std::string& line : others) append_line(begin, line);
  end_record(1 + others.size());
}

void LogWriter::write_bare(std::string_view line) {
  skein::append_escaped(buffer_.text(), line);
  buffer_.text() += '\n';
  end_record(1);
}

void LogWriter::append_line(std::string_view prefix, std::string_view line) {
  std::string& text = buffer_.text();
  text += prefix;
  skein::append_escaped(text, line.substr(0, LINE_BYTES));
  if (line.size() > LINE_BYTES) {
    text += fmt::format(" ({} bytes left out)", line.size() - LINE_BYTES);
  }
  text += '\n';
}

/// What a line begins with; good until the next call.
std::string_view LogWriter::prefix(Level level, Moment moment) {
  const auto millisecond = std::chrono::floor<std::chrono::milliseconds>(moment.time_since_epoch());
  if (millisecond == prefix_millisecond_ && level == prefix_level_) return prefix_text_;
  prefix_millisecond_ = millisecond;
  prefix_level_ = level;
  prefix_text_.clear();
  if (prefix_ == Prefix::PRIORITY) {
    return prefix_text_ += {'<', PRIORITIES[static_cast<std::size_t>(level)], '>'};
  }
  const std::time_t second = std::chrono::system_clock::to_time_t(moment);
  if (second != second_) second_text_ = local_time(second);
  second_ = second;
  fmt::format_to(std::back_inserter(prefix_text_), FMT_COMPILE("{}.{:03} {} "), second_text_,
                 millisecond.count() % 1000, name_of(level));
  return prefix_text_;
}

void LogWriter::end_record(std::size_t lines) {
  buffer_.end_record(lines);
  flush_if_due();
}

void LogWriter::hold(bool held) {
  held_ = held;
  flush_if_due();
}

void LogWriter::flush_if_due() {
  if (reader_ != Reader::READY) return;
  const bool at_once = !held_ && (loop_ == nullptr || writes_ < WRITES_PER_ITERATION);
  if (at_once || buffer_.next().size() >= GATHERED_BYTES) flush();
}

void LogWriter::drop(std::uint64_t lines) {
  if (reader_ == Reader::READY) flush();
  buffer_.drop(lines);
}

void LogWriter::attach(skein::Loop& loop) {
  loop_ = &loop;
  auto handle = std::make_unique<uv_prepare_t>();
  uv_prepare_init(loop.uv(), handle.get());  // neither this nor the start can fail
  handle->data = this;
  iteration_end_.reset(handle.release());
  uv_prepare_start(iteration_end_.get(), [](uv_prepare_t* prepare) {
    if (prepare->data != nullptr) static_cast<LogWriter*>(prepare->data)->iteration_ends();
  });
  uv_unref(reinterpret_cast<uv_handle_t*>(iteration_end_.get()));
  flush();
}

void LogWriter::detach() {
  if (loop_ == nullptr) return;
  retry_.cancel();
  iteration_end_.reset();
  loop_ = nullptr;
  flush();
}

void LogWriter::iteration_ends() {
  writes_ = 0;
  if (reader_ != Reader::READY || buffer_.next().empty()) return;
  loop_->guarded([this] { flush(); });  // no exception may cross a frame of libuv
}

bool LogWriter::flush() {
  PROFILE_SCOPE();
  retry_.cancel();
  ++writes_;
  reader_ = Reader::READY;
  write_buffer();
  if (reader_ == Reader::READY) {
    retry_wait_ = SHORTEST_WAIT;
  } else if (loop_ != nullptr) {
    retry_ = loop_->call_in(retry_wait_, [this] { flush(); });
    retry_wait_ = std::min(2 * retry_wait_, LONGEST_WAIT);
  }
  return reader_ == Reader::READY;
}

/// Writes until the buffer is empty or the reader is not ready.
void LogWriter::write_buffer() {
  while (!buffer_.next().empty()) {
    if (buffer_.dropped() > 0 && !buffer_.begun() && !write_dropped()) return;
    buffer_.written(put(buffer_.next()));
    if (reader_ != Reader::READY) return;
  }
}

/// False if no byte of it was written.
bool LogWriter::write_dropped() {
  std::string line(prefix(Level::WARNING, std::chrono::system_clock::now()));
  line += dropped_text(buffer_.dropped()) + '\n';
  const std::size_t taken = put(line);
  if (taken > 0) buffer_.dropped_written(std::string_view(line).substr(taken));
  return taken > 0;
}

/// Returns how many of the bytes were written. A pipe gets whole lines in one write if they fit.
std::size_t LogWriter::put(std::string_view bytes) noexcept {
  std::size_t taken = 0;
  while (taken < bytes.size()) {
    const ssize_t written = put_part(bytes.substr(taken));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      reader_ = written < 0 && errno == EAGAIN ? Reader::FULL : Reader::FAILED;
      break;
    }
    taken += static_cast<std::size_t>(written);
  }
  if (taken > 0) retry_wait_ = SHORTEST_WAIT;
  return taken;
}

/// As write(2).
ssize_t LogWriter::put_part(std::string_view bytes) const noexcept {
  if (kind_ == Kind::FILE) return ::write(descriptor_, bytes.data(), bytes.size());
  if (kind_ == Kind::SOCKET) {
    return ::send(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  const auto part = pipe_part(bytes);
  if (own_) return ::write(own_.descriptor(), part.data(), part.size());
  if (has_room_within(descriptor_, std::chrono::milliseconds(0))) {
    return ::write(descriptor_, part.data(), part.size());
  }
  errno = EAGAIN;
  return -1;
}

void LogWriter::finish(std::chrono::milliseconds longest) {
  detach();
  const auto end = std::chrono::steady_clock::now() + longest;
  while (!flush() && reader_ == Reader::FULL) {
    const auto left = end - std::chrono::steady_clock::now();
    if (left <= left.zero()) return;
    has_room_within(descriptor_, std::chrono::ceil<std::chrono::milliseconds>(left));
  }
}

}  // namespace pelorus::log
