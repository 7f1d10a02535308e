// Blocks of Graphite lines, with an output buffer that is small and guarded at its end: with and
// without vector instructions the message is the reference's, byte for byte, and nothing
// is written past the buffer.
#include <sanitizer/asan_interface.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "fuzz/fuzz.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/graphite_message.h"
#include "pelorus/translate/series_translator.h"

namespace fuzz {
namespace {

constexpr std::array<std::size_t, 6> BUFFER_BYTES{1, 41, 100, 777, 4090, 4096};

/// Graphite blocks to messages in the plainest way: cut a line into fields, translate by itself,
/// copy byte by byte. What the daemon's fast path has to yield, down to the bytes that a timestamp
/// of more than ten digits leaves in the buffer.
class PlainGraphite {
 public:
  explicit PlainGraphite(std::size_t buffer_bytes) : buffer_(buffer_bytes, '\0') {}

  struct Built {
    bool full = false;         ///< a record did not fit: nothing else holds
    std::string_view message;  ///< until the next build
    std::int64_t num_metrics = 0;
    std::int64_t improperly_formatted = 0;
    std::int64_t not_translated = 0;
    bool operator==(const Built&) const = default;
  };
  Built build(std::string_view block);

 private:
  void add_line(std::string_view line, Built& built);

  std::string buffer_;
  std::size_t position_ = 0;
};

std::vector<std::string> cut(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    separators.find(c) != separators.npos ? parts.emplace_back() : parts.back() += c;
  }
  return parts;
}

bool is_integer(const std::string& value) {
  return value.find_first_not_of("0123456789") == value.npos;
}

PlainGraphite::Built PlainGraphite::build(std::string_view block) {
  position_ = 0;
  Built built;
  for (const std::string& line : cut(block, "\n")) {
    if (!built.full) add_line(line, built);
  }
  built.message = std::string_view(buffer_).substr(0, position_);
  return built;
}

void PlainGraphite::add_line(std::string_view line, Built& built) {
  auto fields = cut(line, " \t\r\v\f");
  std::erase(fields, "");
  if (fields.size() != 3) {
    ++built.improperly_formatted;
    return;
  }
  const auto& [series, value, timestamp] = std::tie(fields[0], fields[1], fields[2]);
  if (value == "nan") return;
  std::string record;
  try {
    const auto translated = translate::GraphiteSeriesTranslator().translate(series);
    record = translated.measurement;
    for (const auto& [key, tag] : translated.tags) record += "," + key + "=" + tag;
    record += " " + translated.key + "=" + value + (is_integer(value) ? "i " : " ");
  } catch (const std::runtime_error&) {
    ++built.not_translated;
    return;
  }
  constexpr std::string_view ZEROS = "000000000\n";
  built.full = record.size() + timestamp.size() + ZEROS.size() > buffer_.size() - position_;
  if (built.full) return;
  const auto put = [&](std::string_view bytes) {
    bytes.copy(buffer_.data() + position_, bytes.size());
  };
  put(record);
  position_ += record.size();
  put(std::string_view(timestamp).substr(0, 10));
  position_ += timestamp.size();
  put(ZEROS);
  position_ += ZEROS.size();
  ++built.num_metrics;
}

class CountBadLines : public pelorus::BadLineReporter {
 public:
  void improperly_formatted(std::string_view) override { ++improper; }
  void not_translated(std::string_view, translate::Outcome outcome) override {
    require(outcome != translate::Outcome::TRANSLATED, "a failure has a reason");
    ++untranslated;
  }
  std::int64_t improper = 0;
  std::int64_t untranslated = 0;
};

using Build = pelorus::GraphiteMessage::Built (pelorus::GraphiteMessage::*)(
    std::string_view, pelorus::BadLineReporter&);

PlainGraphite::Built build(Build with, pelorus::GraphiteMessage& message, std::string_view block) {
  CountBadLines bad;
  try {
    const auto built = (message.*with)(block, bad);
    return {.full = false,
            .message = built.message,
            .num_metrics = built.num_metrics,
            .improperly_formatted = bad.improper,
            .not_translated = bad.untranslated};
  } catch (const pelorus::OutputBufferFullError&) {
    PlainGraphite::Built full;
    full.full = true;
    return full;
  }
}

/// Makes the bytes after the end of a buffer, up to the end of its last page, a fault to touch.
class Guard {
 public:
  Guard(const char* buffer, std::size_t size) : begin_(buffer + size) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    size_ = (page - size % page) % page;
    ASAN_POISON_MEMORY_REGION(begin_, size_);
  }
  ~Guard() { ASAN_UNPOISON_MEMORY_REGION(begin_, size_); }

 private:
  const char* begin_;
  std::size_t size_;
};

}  // namespace

void run(std::string_view input) {
  const auto size = BUFFER_BYTES[take_byte(input) % BUFFER_BYTES.size()];
  const auto end = input.find('\0');
  const std::array blocks{input.substr(0, end), end == input.npos ? "" : input.substr(end + 1)};
  for (const Build with : {&pelorus::GraphiteMessage::build<pelorus::VectorScanner>,
                           &pelorus::GraphiteMessage::build<pelorus::FallbackScanner>}) {
    pelorus::GraphiteMessage message(size);
    PlainGraphite plain(size);
    const Guard guard(build(with, message, "").message.data(), size);
    for (const auto block : blocks) {  // the second one meets what the first one left in the buffer
      const auto built = build(with, message, block);
      const auto wanted = plain.build(block);
      require(built.full == wanted.full, "a block fails when, and only when, it does not fit");
      require(built.full || built == wanted, "the reference's message, count and bad lines");
    }
  }
}

}  // namespace fuzz
