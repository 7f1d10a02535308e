#include "pelorus/pelorus/influx/http_response.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace pelorus {
namespace {

enum Stream { STAYS_OPEN, ENDS };

struct Row {
  std::string bytes;
  Stream stream;
  std::string outcome;  ///< status and body, "waiting", or why it was refused
};

std::string outcome(const Row& row, std::size_t piece_bytes) {
  HTTPResponse response;
  for (std::size_t at = 0; at < row.bytes.size(); at += piece_bytes) {
    response.feed(std::string_view(row.bytes).substr(at, piece_bytes));
  }
  if (row.stream == ENDS) response.finish();
  if (response.complete()) return fmt::format("{} {}", response.status(), response.body());
  return response.fault().empty() ? "waiting" : response.fault();
}

void expect_outcomes(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(outcome(row, row.bytes.size() + 1), row.outcome) << row.bytes.substr(0, 200);
    EXPECT_EQ(outcome(row, 1), row.outcome) << "byte by byte: " << row.bytes.substr(0, 200);
  }
}

const std::string OK = "HTTP/1.1 200 OK\r\n";
const std::string CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n";
const std::string NO_STATUS = "the answer does not begin with an HTTP/1.x status line";
const std::string NO_NAME = "a header line of the answer has no name";
const std::string NO_LENGTH = "the answer's Content-Length is no length";
const std::string NO_SIZE = "a chunk of the answer has no size";
const std::string TOO_LONG = "the answer's head, trailers or chunk size are too long";
const std::string CUT_OFF = "closed in the middle of the answer";

TEST(HTTPResponse, BodyEndsWhereItsHeadSays) {
  expect_outcomes({
      {"HTTP/1.1 204 No Content\r\n\r\n", STAYS_OPEN, "204 "},
      {"HTTP/1.1 204\r\ncontent-length: 7\r\n\r\n", STAYS_OPEN, "204 "},
      {"HTTP/1.0 413 x\nCONTENT-LENGTH:4 \n\nbody and more", STAYS_OPEN, "413 body"},
      {OK + "Content-Length: 0\r\n\r\n", STAYS_OPEN, "200 "},
      {OK + "Content-Length: 4\r\nContent-Length: 4\r\n\r\nbody", STAYS_OPEN, "200 body"},
      {OK + "Content-Length: 5\r\n\r\nbody", ENDS, CUT_OFF},
      {OK + "\r\nuntil the close", STAYS_OPEN, "waiting"},
      {OK + "Transfer-Encoding: gzip\r\nContent-Length: 1\r\n\r\nall", ENDS, "200 all"},
      {OK + "\r\n" + std::string(MAX_BODY_KEPT_BYTES + 5, 'b'), STAYS_OPEN,
       "200 " + std::string(MAX_BODY_KEPT_BYTES, 'b')},
      {OK + "Content-Length: 9999999999999\r\n\r\n" + std::string(MAX_BODY_KEPT_BYTES, 'b'),
       STAYS_OPEN, "200 " + std::string(MAX_BODY_KEPT_BYTES, 'b')},
  });
}

TEST(HTTPResponse, ChunksAreJoined) {
  expect_outcomes({
      {CHUNKED + "3\r\nabc\r\nA;x=y\r\n0123456789\r\n0\r\n\r\n", STAYS_OPEN, "200 abc0123456789"},
      {CHUNKED + "3 \nabc\n0\nTrailer: 1\n\nmore", STAYS_OPEN, "200 abc"},
      {OK + "transfer-encoding: gzip, Chunked\r\n\r\n0\r\n\r\n", STAYS_OPEN, "200 "},
      {CHUNKED + "FFFFFFFF\r\n" + std::string(MAX_BODY_KEPT_BYTES + 5, 'b'), STAYS_OPEN,
       "200 " + std::string(MAX_BODY_KEPT_BYTES, 'b')},
      {CHUNKED + "3\r\nabc\r\n0\r\n", ENDS, CUT_OFF},
      {CHUNKED + "3\r\nabcd\r\n0\r\n\r\n", STAYS_OPEN, "a chunk is longer than its size"},
      {CHUNKED + "-1\r\n", STAYS_OPEN, NO_SIZE},
      {CHUNKED + "0x3\r\nabc\r\n", STAYS_OPEN, NO_SIZE},
      {CHUNKED + "10000000000000000\r\n", STAYS_OPEN, NO_SIZE},
      {CHUNKED + "1;" + std::string(MAX_CHUNK_LINE_BYTES, 'x'), STAYS_OPEN, TOO_LONG},
  });
}

TEST(HTTPResponse, AnswersBeforeTheRealOneAreSkipped) {
  const std::string go_on = "HTTP/1.1 100 Continue\r\nContent-Length: 9\r\n\r\n";
  expect_outcomes({
      {go_on + "HTTP/1.1 103 Early\r\n\r\n" + OK + "\r\nbody", ENDS, "200 body"},
      {go_on, ENDS, "closed without an answer"},
      {"HTTP/1.1 101 Switching Protocols\r\n\r\n\x01", STAYS_OPEN, "101 "},
  });
  std::string endless;
  while (endless.size() <= MAX_HEAD_BYTES) endless += go_on;
  expect_outcomes({{endless, STAYS_OPEN, TOO_LONG}});
}

TEST(HTTPResponse, RubbishIsRefused) {
  expect_outcomes({
      {"", ENDS, "closed without an answer"},
      {"\x15\x03\x01", ENDS, CUT_OFF},
      {"SSH-2.0-x\r\n", STAYS_OPEN, NO_STATUS},
      {"HTTP/2 204\r\n", STAYS_OPEN, NO_STATUS},
      {"HTTP/1.1 2040\r\n", STAYS_OPEN, NO_STATUS},
      {"HTTP/1.1 600\r\n", STAYS_OPEN, NO_STATUS},
      {"HTTP/1.1\r\n", STAYS_OPEN, NO_STATUS},
      {OK + "no colon\r\n", STAYS_OPEN, NO_NAME},
      {OK + "A: 1\r\n folded: 2\r\n", STAYS_OPEN, NO_NAME},
      {OK + "Content-Length: -5\r\n", STAYS_OPEN, NO_LENGTH},
      {OK + "Content-Length:\r\n", STAYS_OPEN, NO_LENGTH},
      {OK + "Content-Length: 5 5\r\n", STAYS_OPEN, NO_LENGTH},
      {OK + "Content-Length: 18446744073709551616\r\n", STAYS_OPEN, NO_LENGTH},
      {OK + "Content-Length: 5\r\nContent-Length: 6\r\n", STAYS_OPEN,
       "the answer has two different Content-Lengths"},
      {OK + "A: " + std::string(MAX_HEAD_BYTES, 'x'), STAYS_OPEN, TOO_LONG},
  });
}

}  // namespace
}  // namespace pelorus
