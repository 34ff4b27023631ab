// The 20-byte header that begins every message in either direction: magic
// "XGRQ", version 1.2.1.1, message type, total size and a CRC-16/MODBUS over
// the first 18 bytes.
#ifndef TAVIX_MARSHAL_MESSAGE_HEADER_H_
#define TAVIX_MARSHAL_MESSAGE_HEADER_H_

#include <array>
#include <cstddef>
#include <cstdint>

namespace TAVIX {

enum MessageType : uint8_t {
  MSG_REQUEST = 0,
  MSG_REPLY = 1,
  MSG_VALIDATE = 2,
  MSG_CLOSE = 3,
};

inline constexpr int32_t HEADER_SIZE = 20;
inline constexpr int32_t MAX_MESSAGE_SIZE = 0x40000000;

uint16_t Crc16(const uint8_t* data, uint16_t length);

struct MsgHeaderData {
  std::array<uint8_t, 4> magic{};
  std::array<uint8_t, 4> version{};
  uint8_t type = 0;
  uint8_t reserved = 0;
  int32_t size = 0;
  bool crcOk = false;

  // A header for sending: size HEADER_SIZE until the sender adds its body.
  void Init(uint8_t messageType);
  void Encode(uint8_t* out) const;
  void Decode(const uint8_t* in);
  // 0, or the code of the first failing test: magic, version, CRC, size.
  // The message type is left to each receiver.
  uint32_t Check() const;
};

}  // namespace TAVIX

#endif  // TAVIX_MARSHAL_MESSAGE_HEADER_H_
