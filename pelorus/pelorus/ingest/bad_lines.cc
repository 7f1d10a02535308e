#include "pelorus/pelorus/ingest/bad_lines.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "pelorus/pelorus/log.h"
#include "pelorus/pelorus/log_writer.h"
#include "pelorus/translate/series_translator.h"
#include "skein/text.h"

namespace pelorus {
namespace {

using translate::Outcome;

/// Each bad line takes a line of the log at least.
constexpr std::size_t RING_SIZE = log::BUFFER_LINES;
static_assert(4 * SHOWN_BYTES < log::LINE_BYTES, "with every byte as \\xNN it still fits a line");

/// `outcome` of the translation: TRANSLATED for a line that was malformed before.
BadLineKind kind_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::TRANSLATED:
      return BadLineKind::FORMAT;
    case Outcome::SHORT_SOURCE:
    case Outcome::INVALID_SOURCE_TYPE:
      return BadLineKind::SOURCE;
    case Outcome::NO_RULE:
      return BadLineKind::NO_RULE;
    default:
      return is_unexpected(outcome) ? BadLineKind::UNEXPECTED : BadLineKind::REFUSED;
  }
}

}  // namespace

BadLines::BadLines(BadLineCounts& totals)
    : totals_(totals), warns_(log::enabled(log::Level::WARNING)) {}

// Out of memory, it stays silent: the block has failed as well then, and that is logged.
BadLines::~BadLines() {
  try {
    block_ends();
  } catch (const std::exception&) {  // NOLINT
  }
}

void BadLines::improperly_formatted(std::string_view line) {
  if (!line.empty()) count(line, Outcome::TRANSLATED);
  if (warns_) add(line, Outcome::TRANSLATED);
}

void BadLines::empty_lines(std::size_t count) {
  if (!warns_) return;
  if (count > RING_SIZE) {  // the log takes no more than these
    while (begin_ < end_) skip_oldest();
    skipped_ += count - RING_SIZE;
    count = RING_SIZE;
  }
  while (count-- > 0) add({}, Outcome::TRANSLATED);
}

void BadLines::not_translated(std::string_view series, Outcome outcome) {
  count(series, outcome);
  const bool unexpected = is_unexpected(outcome);
  if (unexpected && trace_.empty()) {
    trace_ = log::trace_lines(translate::UnexpectedSeriesError(""));
    for (const std::string& line : trace_) trace_bytes_ += line.size();
    kind_ = trace_.front();
  }
  if (unexpected || warns_) add(series, outcome);
}

void BadLines::count(std::string_view text, Outcome outcome) {
  ++count_;
  ++totals_.at(static_cast<std::size_t>(kind_of(outcome)));
  last_.text = text;
  last_.outcome = outcome;
}

void BadLines::add(std::string_view text, Outcome outcome) {
  lines_ += lines_of(outcome);
  bytes_ += bytes_of(text, outcome);
  while (begin_ < end_ && (lines_ > log::BUFFER_LINES || bytes_ > log::BUFFER_BYTES)) skip_oldest();
  if (ring_.size() < RING_SIZE) {
    ring_.push_back({text, outcome});
  } else {
    BadLine& place = ring_[end_ % RING_SIZE];
    place.text = text;
    place.outcome = outcome;
  }
  ++end_;
}

void BadLines::skip_oldest() {
  const BadLine& oldest = ring_[begin_++ % RING_SIZE];
  const std::size_t lines = lines_of(oldest.outcome);
  skipped_ += lines;
  lines_ -= lines;
  bytes_ -= bytes_of(oldest.text, oldest.outcome);
}

std::size_t BadLines::lines_of(Outcome outcome) const {
  if (!is_unexpected(outcome)) return 1;
  return (warns_ ? 1U : 0U) + 1 + trace_.size();
}

std::size_t BadLines::bytes_of(std::string_view text, Outcome outcome) const {
  const std::size_t shown = std::min(text.size(), SHOWN_BYTES);
  return shown + (is_unexpected(outcome) ? trace_bytes_ : 0);
}

void BadLines::block_ends() {
  if (count_ != 0 && last_warning_.empty()) {  // once: the line may be gone afterwards
    last_warning_ = text_of(last_, KEPT_WARNING_BYTES).substr(0, KEPT_WARNING_BYTES);
  }
  if (skipped_ > 0) log::drop(std::exchange(skipped_, 0));
  if (begin_ < end_) {
    log::hold(true);
    while (begin_ < end_) log(ring_[begin_++ % RING_SIZE]);
    log::hold(false);
  }
  lines_ = bytes_ = 0;
}

std::string BadLines::text_of(const BadLine& line, std::size_t shown_bytes) {
  const auto shown = line.text.substr(0, shown_bytes);
  if (line.outcome != Outcome::TRANSLATED) return failure_text(line.outcome, shown);
  return fmt::format("Improperly formatted metric: \"{}\"", skein::display(shown));
}

void BadLines::log(const BadLine& line) {
  const auto text = with_left_out(text_of(line, SHOWN_BYTES), line.text);
  is_unexpected(line.outcome) ? log_unexpected(text) : log::warning("{}", text);
}

void BadLines::log_unexpected(const std::string& text) {
  log::warning("Unexpected error occurred when translating series");
  trace_.front() = kind_ + text;
  log::exception(text, trace_);
}

std::string with_left_out(std::string text, std::string_view shown) {
  if (shown.size() <= SHOWN_BYTES) return text;
  return fmt::format("{} ({} bytes left out)", text, shown.size() - SHOWN_BYTES);
}

}  // namespace pelorus
