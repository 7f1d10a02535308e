#include <gtest/gtest.h>

#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/framing.h"
#include "skein/limits.h"

namespace skein {
namespace {

using namespace std::string_literals;

TEST(SnappyEncoder, RoundTripKeepsEveryByte) {
  SnappyEncoder encoder;
  for (const std::size_t size : {0U, 1U, 60U, 61U, 70'000U, 3'000'000U}) {
    std::string content(size, 'x');
    for (std::size_t i = 0; i < size; i += 7) content[i] = static_cast<char>(i * 31);
    std::string block;
    SnappyEncoder::encode(content, block);
    EXPECT_EQ(encoder.decode(block), content);
    encoder.trim();
  }
}

TEST(MsgpackEncoder, WhatTheWriterWritesReadsTheSame) {
  MsgpackWriter writer;
  writer.list(9).nil().boolean(true).integer(-5).natural(5).real(2.0).text("t\xff");
  writer.map(2).text("a").list(1).natural(1).text("b").nil();
  writer.encoded("\xc4\x01z").natural(18446744073709551615U);
  Message message;
  MsgpackEncoder::decode(writer.bytes(), message);
  auto at = message.root().begin();
  EXPECT_TRUE((*at).is(Value::Type::NIL));
  EXPECT_TRUE((*++at).boolean());
  EXPECT_EQ((*++at).integer(), -5);
  EXPECT_EQ((*++at).natural(), 5U);
  EXPECT_TRUE((*++at).is(Value::Type::REAL)) << "whole, and a float all the same";
  EXPECT_EQ((*++at).text(), "t\xff");
  const Value map = *++at;
  EXPECT_EQ((*map.find("a")->begin()).natural(), 1U);
  EXPECT_TRUE(map.find("b")->is(Value::Type::NIL));
  EXPECT_FALSE(map.find("c"));
  EXPECT_EQ((*++at).text(), "z") << "bytes where text is expected";
  EXPECT_EQ((*++at).natural(), 18446744073709551615U);
  EXPECT_EQ(++at, message.root().end());

  const OwnedValue copy(map);
  message.nodes.assign(message.nodes.size(), {});
  EXPECT_EQ((*copy.value().find("a")->begin()).natural(), 1U);
}

// Beyond them, and other rubbish, is for the end-to-end tests and the fuzz targets.
TEST(Limits, ThemselvesPass) {
  EXPECT_GT(missing_to_frame("\x01\x2a\xaa\xca"s), MAX_CONTENT_BYTES);
  std::string bomb;
  SnappyEncoder::encode(std::string(MAX_CONTENT_BYTES, '\0'), bomb);
  EXPECT_EQ(SnappyEncoder().decode(bomb).size(), MAX_CONTENT_BYTES);
  Message message;
  MsgpackEncoder::decode(std::string(MAX_NESTING, '\x91') + '\xc0', message);
  MsgpackWriter list;
  list.list(MAX_ELEMENTS);
  MsgpackEncoder::decode(list.take() + std::string(MAX_ELEMENTS, '\xc0'), message);
  EXPECT_TRUE((*message.root().begin()).is(Value::Type::NIL));
}

}  // namespace
}  // namespace skein
