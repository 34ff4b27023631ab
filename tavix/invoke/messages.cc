#include "tavix/invoke/messages.h"

#include <array>

namespace TAVIX {

void RequestHead::write(BasicStream& s) const { write(s, requestId, objectName, operation); }

void RequestHead::write(BasicStream& s, int32_t requestId, const std::u16string& objectName,
                        const std::u16string& operation) {
  s.write(requestId);
  s.write(objectName);
  s.write(operation);
}

int32_t RequestHead::lengthOf(const std::u16string& objectName, const std::u16string& operation) {
  return BasicStream::lengthOf(int32_t{0}) + BasicStream::lengthOf(objectName) + BasicStream::lengthOf(operation);
}

void RequestHead::read(BasicStream& s) { read(s, requestId, objectName, operation); }

void RequestHead::read(BasicStream& s, int32_t& requestId, std::u16string& objectName, std::u16string& operation) {
  s.read(requestId);
  s.read(objectName);
  s.read(operation);
}

int32_t RequestHead::lengthOf() const {
  return lengthOf(objectName, operation);
}

void ReplyHead::write(BasicStream& s) const {
  s.write(requestId);
  s.write(static_cast<int32_t>(status));
  s.write(serverTime);
}

void ReplyHead::read(BasicStream& s) {
  int32_t code = static_cast<int32_t>(status);
  s.read(requestId);
  s.read(code);
  s.read(serverTime);
  status = static_cast<uint32_t>(code);
}

int32_t RequestIdCounter::Next() noexcept {
  uint32_t id = 0;
  // An id of 0 would turn the call into a one-way call on the server.
  while (id == 0) id = m_last.fetch_add(1, std::memory_order_relaxed) + 1;
  return static_cast<int32_t>(id);
}

RequestIdCounter& ProcessRequestIds() {
  static RequestIdCounter counter;
  return counter;
}

int32_t RequestIdFor(OperationMode mode) {
  return mode == OneWay ? 0 : ProcessRequestIds().Next();
}

void WriteMessageHeader(BasicStream& s, MessageType type, int32_t size) {
  MsgHeaderData header;
  header.Init(type);
  header.size = size;
  std::array<uint8_t, HEADER_SIZE> bytes{};
  header.Encode(bytes.data());
  s.writeBlob(bytes.data(), HEADER_SIZE);
}

}  // namespace TAVIX
