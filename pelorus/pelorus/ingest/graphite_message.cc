#include "pelorus/pelorus/ingest/graphite_message.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "pelorus/pelorus/errors.h"

namespace pelorus {
namespace {

using translate::Match;
using translate::Piece;
using translate::Tags;

constexpr std::size_t TIMESTAMP_BYTES = 10;  // seconds since the epoch, from 2001 to 2286
constexpr std::string_view NANOSECONDS = "000000000\n";
/// One very long line does not keep its memory.
constexpr std::size_t KEPT_TAIL_BYTES = 1U << 20;
constexpr std::size_t TAIL_BYTES = TIMESTAMP_BYTES + NANOSECONDS.size();

static_assert(SCAN_SLACK >= translate::PIECE_SLACK);

/// Copies 16 bytes at a time: writes up to 15 bytes behind the piece.
struct CopyInSteps {
  char* operator()(char* out, Piece piece) const noexcept {
    constexpr std::size_t STEP = 16;
    static_assert(STEP <= translate::PIECE_SLACK);
    std::memcpy(out, piece.data, STEP);
    for (std::size_t done = STEP; done < piece.size; done += STEP) {
      std::memcpy(out + done, piece.data + done, STEP);
    }
    return out + piece.size;
  }
};

/// Copies the piece and nothing else.
struct CopyExactly {
  char* operator()(char* out, Piece piece) const noexcept {
    std::memcpy(out, piece.data, piece.size);
    return out + piece.size;
  }
};

Piece piece(std::string_view text) { return {text.data(), text.size()}; }

std::size_t record_bytes(const Match& match, const Tags& tags, const ScannedLine& line) {
  const auto& [series, value, timestamp] = line.fields;
  std::size_t size = match.measurement.size() + 1 + match.key.size() + 1 + value.size() +
                     (all_digits(value) ? 2 : 1) + timestamp.size() + NANOSECONDS.size();
  for (const auto& tag : tags) size += 1 + tag.key.size + 1 + tag.value.size();
  return size;
}

/// More than the record of a line can come to: a rule uses the series' bytes seven times at most,
/// next to literals, and a copy in steps writes somewhat further.
std::size_t record_bytes_at_most(const ScannedLine& line) { return 8 * line.line.size() + 256; }

/// Writes "measurement,tag=value key=value " (or "…i "); returns its end.
template <class Copy>
char* write_names_and_value(char* out, const Match& match, const Tags& tags, std::string_view value,
                            Copy copy) {
  out = match.measurement.write(out, copy);
  for (const auto& tag : tags) {
    *out++ = ',';
    out = copy(out, tag.key);
    *out++ = '=';
    out = tag.value.write(out, copy);
  }
  *out++ = ' ';
  out = match.key.write(out, copy);
  *out++ = '=';
  out = copy(out, piece(value));
  std::memcpy(out, "i ", 2);
  out += all_digits(value) ? 1 : 0;
  *out++ = ' ';
  return out;
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

GraphiteMessage::Built GraphiteMessage::build(std::string_view block, BadLineReporter& reporter) {
  position_ = buffer_.begin();
  num_metrics_ = 0;
  // Lines are scanned in windows that reach beyond their end: those that end near the end of the
  // block, and the last one, which has no line end, are copied to where there is room behind them.
  const std::size_t safe = block.size() > SCAN_SLACK ? block.size() - SCAN_SLACK : 0;
  const std::size_t tail = safe == 0 ? 0 : block.rfind('\n', safe - 1) + 1;
  add_lines(block.data(), block.data() + tail, reporter);
  tail_.assign(block.substr(tail)).push_back('\n');
  const std::size_t size = tail_.size();
  tail_.append(SCAN_SLACK, '\0');
  add_lines(tail_.data(), tail_.data() + size, reporter);
  reporter.block_ends();
  if (tail_.capacity() > KEPT_TAIL_BYTES) tail_ = {};
  return {{buffer_.begin(), static_cast<std::size_t>(position_ - buffer_.begin())}, num_metrics_};
}

void GraphiteMessage::add_lines(const char* begin, const char* end, BadLineReporter& reporter) {
  ScannedLine line;
  while (begin != end) {
    begin = scan_line(begin, line);
    add_line(line, reporter);
  }
}

void GraphiteMessage::add_line(const ScannedLine& line, BadLineReporter& reporter) {
  if (line.field_count != line.fields.size()) return reporter.improperly_formatted(line.line);
  const auto& [series, value, timestamp] = line.fields;
  if (value == "nan") return;
  Tags tags;
  const Match match = series_translator_.translate(series, line.cuts, tags);
  if (match.outcome != translate::Outcome::TRANSLATED) {
    return reporter.not_translated(series, match.outcome);
  }
  add_record(match, tags, line);
  ++num_metrics_;
}

void GraphiteMessage::add_record(const Match& match, const Tags& tags, const ScannedLine& line) {
  const auto& [series, value, timestamp] = line.fields;
  const auto room = static_cast<std::size_t>(buffer_.end() - position_);
  // What copying in steps writes too far, the blank, the timestamp and the zeros of the same record
  // cover again: behind a record the buffer holds what it held.
  static_assert(TAIL_BYTES > translate::PIECE_SLACK);
  if (timestamp.size() == TIMESTAMP_BYTES && room > record_bytes_at_most(line)) [[likely]] {
    char* const out = write_names_and_value(position_, match, tags, value, CopyInSteps{});
    std::memcpy(out, timestamp.data(), TIMESTAMP_BYTES);
    std::memcpy(out + TIMESTAMP_BYTES, NANOSECONDS.data(), NANOSECONDS.size());
    position_ = out + TAIL_BYTES;
    return;
  }
  const std::size_t size = record_bytes(match, tags, line);
  if (size > room) {
    throw OutputBufferFullError(
        fmt::format("a record of {} bytes does not fit the {} bytes left of the {}-byte output "
                    "buffer; nothing of the block is queued",
                    size, room, buffer_.size()));
  }
  position_ = write_names_and_value(position_, match, tags, value, CopyExactly{});
  // Kept: ten bytes are copied and the timestamp's length is stepped over. Of a longer one the
  // buffer keeps what it held between its tenth byte and the zeros.
  std::memcpy(position_, timestamp.data(), std::min(timestamp.size(), TIMESTAMP_BYTES));
  position_ += timestamp.size();
  std::memcpy(position_, NANOSECONDS.data(), NANOSECONDS.size());
  position_ += NANOSECONDS.size();
}

}  // namespace pelorus
