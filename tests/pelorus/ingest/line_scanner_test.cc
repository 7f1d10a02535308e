#include "pelorus/pelorus/ingest/line_scanner.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "pelorus/pelorus/ingest/vector_scanner.h"

namespace pelorus {
namespace {

std::string random_bytes(std::mt19937& random, std::size_t size, std::string_view alphabet) {
  std::string bytes(size, ' ');
  for (char& byte : bytes) byte = alphabet[random() % alphabet.size()];
  return bytes;
}

translate::PartEnds ends_of(std::string_view series) {
  translate::PartEnds ends = translate::PartEnds{1} << series.size();
  for (std::size_t i = 0; i < series.size(); ++i) {
    if (series[i] == '.') ends |= translate::PartEnds{1} << i;
  }
  return ends;
}

/// Whether the vector scanner takes the line; then its cuts must be those of `scanned`.
bool fast(const std::string& padded, const ScannedLine& scanned) {
  FastPathLine line;
  if (!VectorScanner::scan(padded.data(), line)) return false;
  const auto& [series, value, timestamp] = scanned.fields;
  EXPECT_EQ(scanned.field_count, 3) << padded;
  EXPECT_EQ(line.series, series) << padded;
  EXPECT_EQ(line.ends, ends_of(series)) << padded;
  EXPECT_EQ(line.value, value) << padded;
  EXPECT_EQ(line.integer, all_digits(value)) << padded;
  EXPECT_EQ(std::string_view(line.timestamp, TIMESTAMP_BYTES), timestamp) << padded;
  EXPECT_EQ(line.end(), scanned.line.data() + scanned.line.size()) << padded;
  return true;
}

/// Cuts a line the slow way and compares. Returns whether the vector scanner takes it.
bool expect_cut_like_a_stream_does(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream stream(line);
  for (std::string word; stream >> word;) words.push_back(word);

  ScannedLine scanned;
  const std::string padded = line + "\n" + std::string(SCAN_PADDING, '.');
  EXPECT_EQ(scan_line(padded.data(), scanned), padded.data() + line.size() + 1);
  EXPECT_EQ(scanned.line, line);
  EXPECT_EQ(scanned.field_count, std::min<std::size_t>(words.size(), 4)) << line;
  for (std::size_t i = 0; i < std::min<std::size_t>(words.size(), 3); ++i) {
    EXPECT_EQ(scanned.fields[i], words[i]) << line;
  }
  return fast(padded, scanned);
}

TEST(LineScanner, CutsRandomLinesLikeAStreamDoes) {
  std::mt19937 random(1);
  for (int i = 0; i < 20'000; ++i) {
    const auto size = random() % 200;
    const char* alphabet =
        i % 2 == 0 ? "ab.1 \t" : "abcdefghijklmnopqrstuvwxyz........012345 \r\v\f";
    expect_cut_like_a_stream_does(random_bytes(random, size, alphabet));
  }
}

TEST(LineScanner, CutsAtTheEdgesOfItsWindows) {
  for (std::size_t size = 1; size < 140; ++size) {
    const std::string series(size, 's');
    const std::string value(size, '1');
    EXPECT_EQ(expect_cut_like_a_stream_does(series + " 1.5 1500000000"), size < 64);
    EXPECT_EQ(expect_cut_like_a_stream_does("a.b " + value + " 1500000000"), size < 124);
    expect_cut_like_a_stream_does("a.b 1" + std::string(size, ' ') + "1500000000");
    expect_cut_like_a_stream_does(std::string(size, ' ') + "a.b 1 1500000000");
    expect_cut_like_a_stream_does(std::string(size, '.') + " 1 " + value);
  }
}

// One byte of a line changed, to every value at every place: what the vector scanner still takes is
// cut right.
TEST(LineScanner, CutsFastPathLinesWithOneOddByte) {
  const std::string line = "node7.cpu-0.cpu-idle.value 1234567 1500000000";
  for (std::size_t place = 0; place < line.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string odd = line;
      odd[place] = static_cast<char>(byte);
      if (byte != '\n') expect_cut_like_a_stream_does(odd);
    }
  }
}

}  // namespace
}  // namespace pelorus
