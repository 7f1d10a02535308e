#include "pelorus/pelorus/ingest/line_scanner.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace pelorus {
namespace {

std::string random_bytes(std::mt19937& random, std::size_t size, std::string_view alphabet) {
  std::string bytes(size, ' ');
  for (char& byte : bytes) byte = alphabet[random() % alphabet.size()];
  return bytes;
}

TEST(LineScanner, VectorAndPlainMasksAgreeOnEveryByteAtEveryPlace) {
  for (int byte = 0; byte < 256; ++byte) {
    for (std::size_t place = 0; place < 64; ++place) {
      std::string bytes(64, 'x');
      bytes[place] = static_cast<char>(byte);
      const ByteMasks fast = masks_of(bytes.data());
      const ByteMasks plain = plain_masks_of(bytes.data());
      ASSERT_EQ(fast.blank, plain.blank) << byte << " at " << place;
      ASSERT_EQ(fast.dot, plain.dot) << byte << " at " << place;
      ASSERT_EQ(fast.newline, plain.newline) << byte << " at " << place;
    }
  }
}

/// Cuts a line the slow way and compares.
void expect_cut_like_a_stream_does(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream stream(line);
  for (std::string word; stream >> word;) words.push_back(word);

  ScannedLine scanned;
  const std::string padded = line + "\n" + std::string(SCAN_SLACK, '.');
  ASSERT_EQ(scan_line(padded.data(), scanned), padded.data() + line.size() + 1);
  ASSERT_EQ(scanned.line, line);
  ASSERT_EQ(scanned.field_count, std::min<std::size_t>(words.size(), 4)) << line;
  if (words.size() != 3) return;
  for (std::size_t i = 0; i < 3; ++i) ASSERT_EQ(scanned.fields[i], words[i]) << line;
  const translate::Cuts expected = translate::Cuts::of(words[0]);
  ASSERT_EQ(scanned.cuts.count, expected.count) << line;
  for (std::size_t i = 0; i < std::min<std::size_t>(expected.count, translate::Cuts::KEPT); ++i) {
    ASSERT_EQ(scanned.cuts.front[i], expected.front[i]) << line;
  }
  if (expected.count > 1) {
    ASSERT_EQ(scanned.cuts.last, expected.last);
    ASSERT_EQ(scanned.cuts.last_but_one, expected.last_but_one);
  }
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
  for (std::size_t size = 50; size < 140; ++size) {
    expect_cut_like_a_stream_does(std::string(size, 's') + " 1 2");
    expect_cut_like_a_stream_does("a.b " + std::string(size, '1') + " 2");
    expect_cut_like_a_stream_does("a.b 1" + std::string(size, ' ') + "2");
    expect_cut_like_a_stream_does(std::string(size, ' ') + "a.b 1 2");
    expect_cut_like_a_stream_does(std::string(size, '.') + " 1 2");
  }
}

}  // namespace
}  // namespace pelorus
