#include "tavix/marshal/message_header.h"

#include <cstring>

#include "tavix/core/errors.h"

namespace TAVIX {
namespace {

constexpr std::array<uint8_t, 4> kMagic = {'X', 'G', 'R', 'Q'};
constexpr std::array<uint8_t, 4> kVersion = {1, 2, 1, 1};
constexpr size_t kCrcOffset = 18;

// Eight reflected shift steps with 0xA001 applied to each byte value, and
// the same for a byte followed by one, two and three more: every header is
// summed on both ends, four bytes per step.
constexpr std::array<std::array<uint16_t, 256>, 4> kSliceTables = [] {
  std::array<std::array<uint16_t, 256>, 4> tables{};
  for (uint32_t value = 0; value < 256; ++value) {
    uint32_t crc = value;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xA001 : crc >> 1;
    tables[0][value] = static_cast<uint16_t>(crc);
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (size_t value = 0; value < 256; ++value) {
      const uint16_t before = tables[k - 1][value];
      tables[k][value] = static_cast<uint16_t>((before >> 8) ^ tables[0][before & 0xFF]);
    }
  }
  return tables;
}();
static_assert(kSliceTables[0][1] == 0xC0C1 && kSliceTables[0][255] == 0x4040);

void PutLe32(uint8_t* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}

constexpr uint32_t GetLe32(const uint8_t* in) {
  return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 |
         static_cast<uint32_t>(in[2]) << 16 | static_cast<uint32_t>(in[3]) << 24;
}

constexpr uint32_t CrcUpdate(uint32_t crc, const uint8_t* data, size_t length) {
  const auto& [t0, t1, t2, t3] = kSliceTables;
  size_t i = 0;
  for (; i + 4 <= length; i += 4) {
    const uint32_t x = crc ^ GetLe32(data + i);
    crc = t3[x & 0xFF] ^ t2[(x >> 8) & 0xFF] ^ t1[(x >> 16) & 0xFF] ^ t0[x >> 24];
  }
  for (; i < length; ++i) crc = (crc >> 8) ^ t0[(crc ^ data[i]) & 0xFF];
  return crc;
}

// Every valid header starts with the magic and the version: their sum is
// taken once, and a header's own sum goes on from there.
constexpr uint32_t kPrefixCrc = [] {
  std::array<uint8_t, 8> prefix{};
  for (size_t i = 0; i < 4; ++i) {
    prefix[i] = kMagic[i];
    prefix[4 + i] = kVersion[i];
  }
  return CrcUpdate(0xFFFF, prefix.data(), prefix.size());
}();

uint16_t HeaderCrc(const uint8_t* header) {
  if (std::memcmp(header, kMagic.data(), 4) != 0 || std::memcmp(header + 4, kVersion.data(), 4) != 0) {
    return Crc16(header, kCrcOffset);
  }
  return static_cast<uint16_t>(CrcUpdate(kPrefixCrc, header + 8, kCrcOffset - 8));
}

}  // namespace

uint16_t Crc16(const uint8_t* data, uint16_t length) { return static_cast<uint16_t>(CrcUpdate(0xFFFF, data, length)); }

void MsgHeaderData::Init(uint8_t messageType) {
  magic = kMagic;
  version = kVersion;
  type = messageType;
  reserved = 0;
  size = HEADER_SIZE;
  crcOk = true;
}

void MsgHeaderData::Encode(uint8_t* out) const {
  std::memcpy(out, magic.data(), 4);
  std::memcpy(out + 4, version.data(), 4);
  out[8] = type;
  out[9] = reserved;
  PutLe32(out + 10, static_cast<uint32_t>(size));
  PutLe32(out + 14, 0);
  const uint16_t crc = HeaderCrc(out);
  out[18] = static_cast<uint8_t>(crc);
  out[19] = static_cast<uint8_t>(crc >> 8);
}

void MsgHeaderData::Decode(const uint8_t* in) {
  std::memcpy(magic.data(), in, 4);
  std::memcpy(version.data(), in + 4, 4);
  type = in[8];
  reserved = in[9];
  size = static_cast<int32_t>(GetLe32(in + 10));
  const uint16_t received = static_cast<uint16_t>(in[18] | in[19] << 8);
  crcOk = HeaderCrc(in) == received;
}

uint32_t MsgHeaderData::Check() const {
  if (magic != kMagic) return Err::BadMagic;
  if (version != kVersion) return Err::BadVersion;
  if (!crcOk) return Err::CrcError;
  if (size < HEADER_SIZE || size > MAX_MESSAGE_SIZE) return Err::IllegalSize;
  return 0;
}

}  // namespace TAVIX
