#include "pelorus/pelorus/influx/http_response.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace pelorus {
namespace {

constexpr std::string_view HTTP_1 = "HTTP/1.";
constexpr std::string_view BLANKS = " \t";

bool is_digit(char byte) { return byte >= '0' && byte <= '9'; }

char lower(char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte; }

/// `expected` is in lower case.
bool same_word(std::string_view word, std::string_view expected) {
  return std::equal(word.begin(), word.end(), expected.begin(), expected.end(),
                    [](char left, char right) { return lower(left) == right; });
}

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
  return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

/// The number at the start of `text`, and the rest; none without digits or beyond 64 bits.
std::optional<std::pair<std::uint64_t, std::string_view>> leading_number(std::string_view text,
                                                                         int base) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc()) return std::nullopt;
  return std::pair(number, text.substr(static_cast<std::size_t>(end - text.data())));
}

}  // namespace

void HTTPResponse::feed(std::string_view bytes) {
  while (!bytes.empty() && phase_ != Phase::COMPLETE && phase_ != Phase::REFUSED) {
    bytes.remove_prefix(in_body() ? take_body(bytes) : take_line(bytes));
  }
}

void HTTPResponse::finish() {
  if (phase_ == Phase::COMPLETE || phase_ == Phase::REFUSED) return;
  if (phase_ == Phase::BODY_UNTIL_CLOSE) {
    phase_ = Phase::COMPLETE;
  } else {
    const bool nothing_came = status_ == 0 && line_.empty();
    refuse(nothing_came ? "closed without an answer" : "closed in the middle of the answer");
  }
}

bool HTTPResponse::in_body() const noexcept {
  return phase_ == Phase::SIZED_BODY || phase_ == Phase::CHUNK || phase_ == Phase::BODY_UNTIL_CLOSE;
}

std::size_t HTTPResponse::take_body(std::string_view bytes) {
  const bool sized = phase_ != Phase::BODY_UNTIL_CLOSE;
  if (sized && bytes.size() > body_bytes_left_) bytes = bytes.substr(0, body_bytes_left_);
  body_.append(bytes.substr(0, MAX_BODY_KEPT_BYTES - body_.size()));
  if (body_.size() == MAX_BODY_KEPT_BYTES) {
    phase_ = Phase::COMPLETE;
    return bytes.size();
  }
  if (!sized) return bytes.size();
  body_bytes_left_ -= bytes.size();
  if (body_bytes_left_ == 0 && phase_ == Phase::SIZED_BODY) phase_ = Phase::COMPLETE;
  if (body_bytes_left_ == 0 && phase_ == Phase::CHUNK) {
    expect_line(Phase::CHUNK_END, MAX_CHUNK_LINE_BYTES);
  }
  return bytes.size();
}

std::size_t HTTPResponse::take_line(std::string_view bytes) {
  const std::size_t end = bytes.find('\n');
  const bool whole = end != std::string_view::npos;
  const std::size_t count = whole ? end + 1 : bytes.size();
  line_.append(bytes.substr(0, whole ? end : count));
  if (count > line_bytes_left_) {
    refuse("the answer's head, trailers or chunk size are too long");
    return count;
  }
  line_bytes_left_ -= count;
  if (whole) end_line();
  return count;
}

void HTTPResponse::end_line() {
  std::string_view line = line_;
  if (line.ends_with('\r')) line.remove_suffix(1);
  switch (phase_) {
    case Phase::STATUS_LINE:
      read_status(line);
      break;
    case Phase::HEADERS:
      line.empty() ? end_head() : read_header(line);
      break;
    case Phase::CHUNK_SIZE:
      read_chunk_size(line);
      break;
    case Phase::CHUNK_END:
      line.empty() ? expect_line(Phase::CHUNK_SIZE, MAX_CHUNK_LINE_BYTES)
                   : refuse("a chunk is longer than its size");
      break;
    default:  // trailers
      if (line.empty()) phase_ = Phase::COMPLETE;
  }
  if (phase_ != Phase::REFUSED) line_.clear();
}

/// "HTTP/1.1 204 No Content": the version's last digit and the reason do not matter.
void HTTPResponse::read_status(std::string_view line) {
  constexpr std::size_t code_at = HTTP_1.size() + 2;
  const auto code = line.substr(std::min(code_at, line.size()), 3);
  if (!line.starts_with(HTTP_1) || code.size() != 3 || !is_digit(line[HTTP_1.size()]) ||
      line[code_at - 1] != ' ' || !std::all_of(code.begin(), code.end(), is_digit) ||
      code[0] < '1' || code[0] > '5' || !(line.size() == code_at + 3 || line[code_at + 3] == ' ')) {
    return refuse("the answer does not begin with an HTTP/1.x status line");
  }
  status_ = static_cast<int>(leading_number(code, 10)->first);
  phase_ = Phase::HEADERS;
}

void HTTPResponse::read_header(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || colon == 0 || line.find_first_of(BLANKS) < colon) {
    return refuse("a header line of the answer has no name");
  }
  const auto name = line.substr(0, colon);
  const auto value = trimmed(line.substr(colon + 1));
  if (same_word(name, "content-length")) {
    read_content_length(value);
  } else if (same_word(name, "transfer-encoding")) {
    transfer_encoded_ = true;
    chunked_ = same_word(trimmed(value.substr(value.rfind(',') + 1)), "chunked");
  }
}

void HTTPResponse::read_content_length(std::string_view value) {
  const auto length = leading_number(value, 10);
  if (!length || !length->second.empty()) return refuse("the answer's Content-Length is no length");
  if (content_length_ && *content_length_ != length->first) {
    return refuse("the answer has two different Content-Lengths");
  }
  content_length_ = length->first;
}

void HTTPResponse::end_head() {
  if (status_ < 200 && status_ != 101) {  // the final response follows, within the same limits
    phase_ = Phase::STATUS_LINE;
    status_ = 0;
    content_length_.reset();
    transfer_encoded_ = chunked_ = false;
  } else if (status_ == 101 || status_ == 204 || status_ == 304) {
    phase_ = Phase::COMPLETE;  // no body, whatever the headers say
  } else if (chunked_) {
    expect_line(Phase::CHUNK_SIZE, MAX_CHUNK_LINE_BYTES);
  } else if (transfer_encoded_ || !content_length_) {
    phase_ = Phase::BODY_UNTIL_CLOSE;
  } else {
    body_bytes_left_ = *content_length_;
    phase_ = body_bytes_left_ == 0 ? Phase::COMPLETE : Phase::SIZED_BODY;
  }
}

/// "1f4" or "1f4;name=value": what follows the size is ignored.
void HTTPResponse::read_chunk_size(std::string_view line) {
  const auto size = leading_number(line, 16);
  if (!size || (!size->second.empty() && size->second.find_first_of("; \t") != 0)) {
    return refuse("a chunk of the answer has no size");
  }
  body_bytes_left_ = size->first;
  if (body_bytes_left_ == 0) return expect_line(Phase::TRAILERS, MAX_HEAD_BYTES);
  phase_ = Phase::CHUNK;
}

void HTTPResponse::expect_line(Phase phase, std::size_t most_bytes) {
  phase_ = phase;
  line_bytes_left_ = most_bytes;
}

void HTTPResponse::refuse(std::string fault) {
  phase_ = Phase::REFUSED;
  fault_ = std::move(fault);
}

}  // namespace pelorus
