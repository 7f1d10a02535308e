// Blocks of Graphite lines, with an output buffer that is small and guarded at its end: with and
// without vector instructions the message is the reference's, byte for byte, and nothing
// is written past the buffer.
#include <sanitizer/asan_interface.h>
#include <unistd.h>

#include <array>

#include "fuzz/fuzz.h"
#include "fuzz/plain_graphite.h"
#include "pelorus/pelorus/errors.h"
#include "pelorus/pelorus/ingest/graphite_message.h"

namespace fuzz {
namespace {

constexpr std::array<std::size_t, 6> BUFFER_BYTES{1, 41, 100, 777, 4090, 4096};

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
