#include "tavix/marshal/message_header.h"

#include <gtest/gtest.h>

#include <array>

#include "tavix/core/errors.h"

namespace TAVIX {
namespace {

using Bytes = std::array<uint8_t, 20>;

Bytes Encoded(uint8_t type, int32_t size) {
  MsgHeaderData h;
  h.Init(type);
  h.size = size;
  Bytes out{};
  h.Encode(out.data());
  return out;
}

uint32_t CheckOf(const Bytes& wire) {
  MsgHeaderData h;
  h.Decode(wire.data());
  return h.Check();
}

TEST(Crc16Test, MatchesPublishedCheckValue) {
  const uint8_t digits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(0x4B37, Crc16(digits, 9));
  EXPECT_EQ(0xFFFF, Crc16(digits, 0));
}

TEST(MessageHeaderTest, EncodesKnownVectors) {
  EXPECT_EQ((Bytes{0x58, 0x47, 0x52, 0x51, 1, 2, 1, 1, 2, 0, 0x14, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x9A}),
            Encoded(MSG_VALIDATE, 20));
  EXPECT_EQ((Bytes{0x58, 0x47, 0x52, 0x51, 1, 2, 1, 1, 3, 0, 0x14, 0, 0, 0, 0, 0, 0, 0, 0x43, 0x5F}),
            Encoded(MSG_CLOSE, 20));
  EXPECT_EQ((Bytes{0x58, 0x47, 0x52, 0x51, 1, 2, 1, 1, 0, 0, 0x64, 0, 0, 0, 0, 0, 0, 0, 0xB4, 0x74}),
            Encoded(MSG_REQUEST, 100));
}

TEST(MessageHeaderTest, DecodeAndCheck) {
  MsgHeaderData h;
  const Bytes wire = Encoded(MSG_REPLY, 36);
  h.Decode(wire.data());
  EXPECT_TRUE(h.crcOk);
  EXPECT_EQ(MSG_REPLY, h.type);
  EXPECT_EQ(36, h.size);

  // Sizes are bounded inclusively; an unknown type passes; the magic is
  // checked before the CRC, and the reserved bytes are covered by the CRC.
  for (const int32_t size : {20, 0x40000000}) EXPECT_EQ(0u, CheckOf(Encoded(MSG_REQUEST, size)));
  for (const int32_t size : {19, 0x40000001, -1}) EXPECT_EQ(Err::IllegalSize, CheckOf(Encoded(MSG_REQUEST, size)));
  EXPECT_EQ(0u, CheckOf(Encoded(7, 20)));
  const auto broken = [](size_t at, uint8_t value) {
    Bytes bytes = Encoded(MSG_REQUEST, 100);
    bytes[at] = value;
    if (at == 0) bytes[18] ^= 0xFF;
    return CheckOf(bytes);
  };
  EXPECT_EQ(Err::BadMagic, broken(0, 'Y'));
  EXPECT_EQ(Err::BadVersion, broken(6, 2));
  for (const size_t at : {9u, 14u, 15u, 16u, 17u}) EXPECT_EQ(Err::CrcError, broken(at, 1)) << at;
}

}  // namespace
}  // namespace TAVIX
