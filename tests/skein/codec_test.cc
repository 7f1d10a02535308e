#include <gtest/gtest.h>
#include <snappy.h>

#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/errors.h"
#include "skein/framing.h"
#include "skein/limits.h"
#include "skein/request.h"

namespace skein {
namespace {

using namespace std::string_literals;

std::string fault_of(const std::function<void()>& decode) {
  try {
    decode();
  } catch (const ProtocolError& fault) {
    return fault.what();
  }
  return "";
}

TEST(Framing, FramesComeOutWholeAndInOrder) {
  const std::string stream = "\0\0\0\1a\0\0\0\2bc\0\0\0\3d"s;
  std::string_view bytes = stream;
  EXPECT_EQ(take_frame(bytes), "a");
  EXPECT_EQ(take_frame(bytes), "bc");
  EXPECT_EQ(take_frame(bytes), std::nullopt);
  EXPECT_EQ(missing_to_frame(bytes), 2U);
  EXPECT_EQ(missing_to_frame(bytes.substr(0, 1)), 3U);
}

TEST(Framing, ImpossibleLengthsAreRefusedAtThePrefix) {
  EXPECT_EQ(fault_of([] { missing_to_frame("\0\0\0\0"s); }), "frame of length 0");
  EXPECT_EQ(fault_of([] { missing_to_frame("\x01\x2a\xaa\xcb"s); }),
            "frame of 19573451 bytes, 19573450 are allowed");
  EXPECT_EQ(fault_of([] { missing_to_frame("\x01\x2a\xaa\xca"s); }), "");
}

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

TEST(SnappyEncoder, LiesAndRubbishAreRefused) {
  SnappyEncoder encoder;
  EXPECT_EQ(fault_of([&] { encoder.decode(""); }), "frame does not decompress");
  EXPECT_EQ(fault_of([&] {
              encoder.decode(
                  "\x05\x10"
                  "abc");
            }),
            "frame does not decompress");
  EXPECT_EQ(fault_of([&] {
              encoder.decode(
                  "\xff\xff\xff\x07"
                  "abc");
            }),
            "7 compressed bytes claim to hold 16777215");
  EXPECT_EQ(fault_of([&] { encoder.decode("\x81\x80\x80\x08" + std::string(1 << 20, 'x')); }),
            "content of 16777217 bytes, 16777216 are allowed");
  std::string bomb;
  SnappyEncoder::encode(std::string(MAX_CONTENT_BYTES, '\0'), bomb);
  EXPECT_EQ(encoder.decode(bomb).size(), MAX_CONTENT_BYTES) << "the worst that is honest passes";
}

std::string decode_fault(const std::string& content) {
  Message message;
  return fault_of([&] { MsgpackEncoder::decode(content, message); });
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

TEST(MsgpackEncoder, LimitsHoldToTheElement) {
  const auto nested = [](std::size_t depth) { return std::string(depth, '\x91') + '\xc0'; };
  EXPECT_EQ(decode_fault(nested(MAX_NESTING)), "");
  EXPECT_EQ(decode_fault(nested(MAX_NESTING + 1)), "content nested more than 32 deep");
  const auto listed = [](std::uint32_t size) {
    MsgpackWriter writer;
    writer.list(size);
    return writer.take() + std::string(size, '\xc0');
  };
  EXPECT_EQ(decode_fault(listed(MAX_ELEMENTS)), "");
  EXPECT_NE(decode_fault(listed(MAX_ELEMENTS + 1)).find("1000001 elements"), std::string::npos);
}

TEST(MsgpackEncoder, WhatIsNotOneValueIsRefused) {
  EXPECT_EQ(decode_fault(""), "content is no MessagePack");
  EXPECT_EQ(decode_fault("\xc1"), "content is no MessagePack");
  EXPECT_EQ(decode_fault("\x92\x01"), "content ends inside a MessagePack value");
  EXPECT_EQ(decode_fault("\xdb\xff\xff\xff\xff"
                         "abc"),
            "content ends inside a MessagePack value");
  EXPECT_EQ(decode_fault("\xdd\x00\x0f\x42\x40"s), "content ends inside a MessagePack value");
  EXPECT_EQ(decode_fault("\x01\x02"), "1 bytes behind the MessagePack value");
}

/// "msgid/fault" of a message, "msgid/name" of a good one; "-" for no msgid.
std::string envelope_of(const std::function<void(MsgpackWriter&)>& write) {
  MsgpackWriter writer;
  write(writer);
  Message message;
  MsgpackEncoder::decode(writer.bytes(), message);
  const Envelope envelope = read_envelope(message);
  const std::string msgid = envelope.msgid ? std::to_string(*envelope.msgid) : "-";
  return msgid + "/" + (envelope.fault.empty() ? std::string(envelope.name) : envelope.fault);
}

TEST(Envelope, OddShapesAreFaultsAndKeepTheNumberWhereThereIsOne) {
  const struct {
    std::function<void(MsgpackWriter&)> write;
    const char* expected;
  } rows[] = {
      {[](auto& w) { w.list(4).natural(0).natural(7).text("stats").map(0); }, "7/stats"},
      {[](auto& w) { w.list(3).natural(2).text("stats").map(0); }, "-/stats"},
      {[](auto& w) { w.list(4).natural(0).natural(7).text("x").nil(); },
       "7/request args are no map"},
      {[](auto& w) { w.list(4).natural(0).natural(7).text("x").map(1).natural(1).nil(); },
       "7/request args have a key that is no text"},
      {[](auto& w) { w.list(4).natural(0).natural(7).nil().map(0); }, "7/request name is no text"},
      {[](auto& w) { w.list(2).natural(0).natural(7); }, "7/request has 2 items instead of 4"},
      {[](auto& w) { w.list(1).natural(0); }, "-/request has no 32-bit message number"},
      {[](auto& w) { w.list(4).natural(0).natural(1ULL << 32).text("x").map(0); },
       "-/request has no 32-bit message number"},
      {[](auto& w) { w.list(4).natural(1).natural(7).nil().nil(); },
       "-/message is neither a request nor a one-way request"},
      {[](auto& w) { w.list(0); }, "-/message is no list of a request"},
      {[](auto& w) { w.text("x"); }, "-/message is no list of a request"},
  };
  for (const auto& row : rows) EXPECT_EQ(envelope_of(row.write), row.expected);
}

}  // namespace
}  // namespace skein
