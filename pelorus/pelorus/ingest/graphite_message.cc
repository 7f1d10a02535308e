#include "pelorus/pelorus/ingest/graphite_message.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/vector_scanner.h"
#include "skein/profile_scope.h"

namespace pelorus {
namespace {

using translate::names_bytes_at_most;
using translate::Outcome;

constexpr std::string_view NANOSECONDS = "000000000\n";
/// One very long line does not keep its memory.
constexpr std::size_t KEPT_BYTES = 1U << 20;
constexpr std::size_t TIME_BYTES = TIMESTAMP_BYTES + NANOSECONDS.size();
// What a copy in steps writes too much is covered by the rest of the same record.
static_assert(TIME_BYTES >= translate::COPY_STEP);

/// "value " or "valuei ", with the "i" of an integer.
char* write_value(char* out, std::string_view value, bool integer) {
  out = translate::copy_in_steps(out, {value.data(), value.size()});
  out[0] = 'i';
  out[integer ? 1 : 0] = ' ';
  return out + (integer ? 2 : 1);
}

void free_if_large(std::string& text) {
  if (text.capacity() > KEPT_BYTES) std::string().swap(text);
}

}  // namespace

OutputBuffer::OutputBuffer(std::size_t size) : size_(size) {
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "mmap of the output buffer");
  }
  bytes_ = static_cast<char*>(memory);
}

OutputBuffer::~OutputBuffer() { ::munmap(bytes_, size_); }

GraphiteMessage::GraphiteMessage(std::size_t buffer_bytes) : buffer_(buffer_bytes) {}

template <class Scanner>
GraphiteMessage::Built GraphiteMessage::build_part(std::string_view& rest, std::size_t most_bytes,
                                                   std::size_t built_bytes,
                                                   BadLineReporter& reporter) {
  PROFILE_SCOPE();
  char* const begin = position_ = buffer_.begin() + built_bytes;
  num_metrics_ = 0;
  const std::size_t safe = rest.size() > SCAN_PADDING ? rest.size() - SCAN_PADDING : 0;
  const std::size_t tail = safe == 0 ? 0 : rest.rfind('\n', safe - 1) + 1;
  if (tail > most_bytes) {
    std::size_t part = rest.rfind('\n', most_bytes - 1) + 1;
    if (part == 0) part = rest.find('\n', most_bytes) + 1;
    add_lines<Scanner>(rest.data(), rest.data() + part, reporter);
    rest.remove_prefix(part);
  } else {
    add_lines<Scanner>(rest.data(), rest.data() + tail, reporter);
    tail_.reserve(rest.size() - tail + 1 + SCAN_PADDING);
    tail_.assign(rest.substr(tail)).push_back('\n');
    const std::size_t size = tail_.size();
    tail_.append(SCAN_PADDING, '\0');
    add_lines<Scanner>(tail_.data(), tail_.data() + size, reporter);
    reporter.block_ends();
    free_if_large(tail_);
    free_if_large(names_);
    rest = {};
  }
  return {{begin, static_cast<std::size_t>(position_ - begin)}, num_metrics_};
}

template <class Scanner>
void GraphiteMessage::add_lines(const char* begin, const char* end, BadLineReporter& reporter) {
  while (begin != end) {
    FastPathLine fast;
    if (Scanner::scan(begin, fast) && add_fast(fast, reporter)) [[likely]] {
      begin = fast.end() + 1;
      continue;
    }
    if (*begin == '\n') {
      const char* const after = std::find_if(begin, end, [](char c) { return c != '\n'; });
      reporter.empty_lines(static_cast<std::size_t>(after - begin));
      begin = after;
      continue;
    }
    ScannedLine line;
    begin = scan_line(begin, line);
    add_slowly(line, reporter);
  }
}

/// False if the record may not fit the buffer.
bool GraphiteMessage::add_fast(const FastPathLine& line, BadLineReporter& reporter) {
  if (line.value == "nan") return true;
  const auto room = static_cast<std::size_t>(buffer_.end() - position_);
  if (room < names_bytes_at_most(line.series.size()) + line.value.size() + TIME_BYTES) return false;
  const auto [names_end, outcome] = series_translator_.translate(line.series, line.ends, position_);
  if (outcome != Outcome::TRANSLATED) {
    reporter.not_translated(line.series, outcome);
    return true;
  }
  char* const out = write_value(names_end, line.value, line.integer);
  std::memcpy(out, line.timestamp, TIMESTAMP_BYTES);
  std::memcpy(out + TIMESTAMP_BYTES, NANOSECONDS.data(), NANOSECONDS.size());
  position_ = out + TIME_BYTES;
  ++num_metrics_;
  return true;
}

void GraphiteMessage::add_slowly(const ScannedLine& line, BadLineReporter& reporter) {
  if (line.field_count != line.fields.size()) return reporter.improperly_formatted(line.line);
  const auto& [series, value, timestamp] = line.fields;
  if (value == "nan") return;
  names_.resize(names_bytes_at_most(series.size()));
  const auto [names_end, outcome] =
      series_translator_.translate(series, translate::UNKNOWN_ENDS, names_.data());
  if (outcome != Outcome::TRANSLATED) return reporter.not_translated(series, outcome);
  names_.resize(static_cast<std::size_t>(names_end - names_.data()));
  names_.append(value).append(all_digits(value) ? "i " : " ");
  const auto room = static_cast<std::size_t>(buffer_.end() - position_);
  const std::size_t size = names_.size() + timestamp.size() + NANOSECONDS.size();
  if (size > room) {
    throw OutputBufferFullError(
        fmt::format("a record of {} bytes does not fit the {} bytes left of the {}-byte output "
                    "buffer; nothing of the block is queued",
                    size, room, buffer_.size()));
  }
  char* const out = std::ranges::copy(names_, position_).out;
  // Kept: ten bytes are copied, and the position advances by the timestamp's length. After the
  // tenth byte of a longer one the record shows what the buffer held.
  std::memcpy(out, timestamp.data(), std::min(timestamp.size(), TIMESTAMP_BYTES));
  std::ranges::copy(NANOSECONDS, out + timestamp.size());
  position_ += size;
  ++num_metrics_;
}

template GraphiteMessage::Built GraphiteMessage::build_part<VectorScanner>(std::string_view&,
                                                                           std::size_t, std::size_t,
                                                                           BadLineReporter&);
template GraphiteMessage::Built GraphiteMessage::build_part<FallbackScanner>(std::string_view&,
                                                                             std::size_t,
                                                                             std::size_t,
                                                                             BadLineReporter&);

}  // namespace pelorus
