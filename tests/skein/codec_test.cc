#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "skein/encoders/msgpackencoder.h"
#include "skein/encoders/snappyencoder.h"
#include "skein/envelope.h"
#include "skein/errors.h"
#include "skein/framing.h"
#include "skein/limits.h"
#include "support/skein_peer.h"

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

TEST(Envelope, NamesTheRequestOrItsFaultAndItsNumberWhereverThereIsOne) {
  const struct {
    std::string message, number, said;
  } rows[] = {
      {"\x94\0\x07\xa1s\x80"s, "7", "s"},
      {"\x94\0\xce\xff\xff\xff\xff\xc4\x01s\x80"s, "4294967295", "s"},
      {"\x93\x02\xa1s\x80", "", "s"},
      {"\xc0", "", "message is no list of a request"},
      {"\x90", "", "message is no list of a request"},
      {"\x94\x01\x07\xc0\xc0", "", "message is neither a request nor a one-way request"},
      {"\x94\xc2\x07\xa1s\x80", "", "message is neither a request nor a one-way request"},
      {"\x94\x02\xa1s\x80\x80", "", "message is neither a request nor a one-way request"},
      {"\x91\0"s, "", "request has no 32-bit message number"},
      {"\x94\0\xff\xa1s\x80"s, "", "request has no 32-bit message number"},
      {"\x94\0\xcf\0\0\0\1\0\0\0\0\xa1s\x80"s, "", "request has no 32-bit message number"},
      {"\x92\0\x07"s, "7", "request has 2 items instead of 4"},
      {"\x95\0\x07\xa1s\x80\x80"s, "7", "request has 5 items instead of 4"},
      {"\x94\0\x07\x05\x80"s, "7", "request name is no text"},
      {"\x94\0\x07\xa1s\x91\x01"s, "7", "request args are no map"},
      {"\x94\0\x07\xa1s\x81\x05\x06"s, "7", "request args have a key that is no text"},
  };
  for (const auto& row : rows) {
    Message message;
    MsgpackEncoder::decode(row.message, message);
    const Envelope envelope = read_envelope(message);
    EXPECT_EQ(envelope.fault.empty() ? envelope.name : envelope.fault, row.said);
    EXPECT_EQ(envelope.msgid ? std::to_string(*envelope.msgid) : "", row.number) << row.said;
  }
}

/// Why these bytes are no message.
std::string fault_of(std::string_view bytes) {
  try {
    const auto block = take_frame(bytes);
    SnappyEncoder snappy;
    Message message;
    if (block) MsgpackEncoder::decode(snappy.decode(*block), message);
  } catch (const ProtocolError& fault) {
    return fault.what();
  }
  return "none";
}

/// A frame around any bytes.
std::string block_frame(std::string_view block) {
  const auto size = htonl(static_cast<std::uint32_t>(block.size()));
  return std::string(reinterpret_cast<const char*>(&size), sizeof size).append(block);
}

TEST(Limits, BrokenBytesAreRefusedWithAReason) {
  using support::frame;
  const std::string no_snappy = "frame does not decompress";
  const std::string cut_off = "content ends inside a MessagePack value";
  const std::string deep = "content nested more than 32 deep";
  const std::string elements = "content of 4294967295 elements or more, 1000000 are allowed";
  const struct {
    std::string bytes, fault;
  } rows[] = {
      {std::string(4, '\0'), "frame of length 0"},
      {"\x01\x2a\xaa\xcb", "frame of 19573451 bytes, 19573450 are allowed"},
      {block_frame("\xff\xff\xff\xff\xff"), no_snappy},      // a length without an end
      {block_frame("\x05\x01\0"s), no_snappy},               // copies from before its begin
      {block_frame("\x05\xfc\xff\xff\xff\xff"), no_snappy},  // a literal of 4 GiB
      {block_frame("\xff\xff\xff\xff\x0f"), "content of 4294967295 bytes, 16777216 are allowed"},
      {block_frame("\x81\x80\x80\x08" + std::string(900'000, 'x')),
       "content of 16777217 bytes, 16777216 are allowed"},
      {block_frame("\x80\x80\x80\x08"), "4 compressed bytes claim to hold 16777216"},
      {frame(""), "content is no MessagePack"},
      {frame("\xc1"), "content is no MessagePack"},
      {frame("\xdb\xff\xff\xff\xff"), cut_off},  // a text, bytes and an extension of 4 GiB
      {frame("\xc6\xff\xff\xff\xff"), cut_off},
      {frame("\xc9\xff\xff\xff\xff\x01"), cut_off},
      {frame("\x01\x01"), "1 bytes behind the MessagePack value"},
      {frame(std::string(33, '\x91') + "\x01"), deep},
      {frame(std::string(1'000'000, '\x91')), deep},
      {frame("\xdd\xff\xff\xff\xff"), elements},
      {frame("\xdf\xff\xff\xff\xff"), elements},
      {frame("\xdd\0\x0f\x42\x41"s + std::string(1'000'001, '\xc0')),
       "content of 1000001 elements or more, 1000000 are allowed"},
  };
  for (const auto& row : rows) EXPECT_EQ(fault_of(row.bytes), row.fault);
}

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
