// Blocks of Graphite lines, with an output buffer that is small and guarded at its end: with and
// without vector instructions the message is the reference's, byte for byte, and nothing
// is written past the buffer.
#include <sanitizer/asan_interface.h>
#include <unistd.h>

#include <array>
#include <functional>
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

std::vector<std::string> cut(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    separators.find(c) != separators.npos ? parts.emplace_back() : parts.back() += c;
  }
  return parts;
}

/// Graphite blocks to messages in the plainest way: cut a line into fields, translate by itself,
/// copy byte by byte. What the daemon's fast path has to yield, down to the bytes that a timestamp
/// of more than ten digits leaves in the buffer.
class PlainGraphite {
 public:
  explicit PlainGraphite(std::size_t buffer_bytes) : buffer_(buffer_bytes, '\0') {}

  pelorus::GraphiteMessage::Built build(std::string_view block, pelorus::BadLineReporter& bad) {
    position_ = 0;
    std::int64_t records = 0;
    for (const std::string& line : cut(block, "\n")) records += add_line(line, bad) ? 1 : 0;
    return {std::string_view(buffer_).substr(0, position_), records};
  }

 private:
  bool add_line(const std::string& line, pelorus::BadLineReporter& bad) {
    auto fields = cut(line, " \t\r\v\f");
    std::erase(fields, "");
    if (fields.size() != 3) {
      bad.improperly_formatted(line);
      return false;
    }
    const auto& [series, value, timestamp] = std::tie(fields[0], fields[1], fields[2]);
    if (value == "nan") return false;
    std::string record;
    try {
      const auto translated = translate::GraphiteSeriesTranslator().translate(series);
      record = translated.measurement;
      for (const auto& [key, tag] : translated.tags) record += "," + key + "=" + tag;
      const bool integer = value.find_first_not_of("0123456789") == value.npos;
      record += " " + translated.key + "=" + value + (integer ? "i " : " ");
    } catch (const std::runtime_error&) {
      bad.not_translated(series, translate::Outcome::REFUSED);
      return false;
    }
    const std::string_view zeros = "000000000\n";
    if (record.size() + timestamp.size() + zeros.size() > buffer_.size() - position_) {
      throw pelorus::OutputBufferFullError("full");
    }
    put(record, record.size());
    put(timestamp.substr(0, 10), timestamp.size());
    put(zeros, zeros.size());
    return true;
  }
  void put(std::string_view bytes, std::size_t step) {
    bytes.copy(buffer_.data() + position_, bytes.size());
    position_ += step;
  }

  std::string buffer_;
  std::size_t position_ = 0;
};

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

/// What came of a block: records, bad lines of both kinds, and the message; -1 records if it was
/// too long.
using Outcome = std::tuple<std::int64_t, std::int64_t, std::int64_t, std::string>;

Outcome outcome_of(const std::function<pelorus::GraphiteMessage::Built(CountBadLines&)>& build) {
  CountBadLines bad;
  try {
    const auto built = build(bad);
    return {built.num_metrics, bad.improper, bad.untranslated, std::string(built.message)};
  } catch (const pelorus::OutputBufferFullError&) {
    return {-1, 0, 0, ""};
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

template <class Scanner>
void expect_the_reference(std::size_t size, const std::array<std::string_view, 2>& blocks) {
  pelorus::GraphiteMessage message(size);
  PlainGraphite plain(size);
  CountBadLines none;
  const Guard guard(message.build<Scanner>("", none).message.data(), size);
  for (const auto block : blocks) {  // the second one meets what the first one left in the buffer
    require(outcome_of([&](auto& bad) { return message.build<Scanner>(block, bad); }) ==
                outcome_of([&](auto& bad) { return plain.build(block, bad); }),
            "the reference's message, count and bad lines, or neither fits");
  }
}

}  // namespace

void run(std::string_view input) {
  const auto size = BUFFER_BYTES[take_byte(input) % BUFFER_BYTES.size()];
  const auto end = input.find('\0');
  const std::array blocks{input.substr(0, end), end == input.npos ? "" : input.substr(end + 1)};
  expect_the_reference<pelorus::VectorScanner>(size, blocks);
  expect_the_reference<pelorus::FallbackScanner>(size, blocks);
}

}  // namespace fuzz
