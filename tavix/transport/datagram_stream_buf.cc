#include "tavix/transport/datagram_stream_buf.h"

#include <algorithm>
#include <cstring>

#include "tavix/core/errors.h"

namespace TAVIX {

DatagramStreamBuf::DatagramStreamBuf(const SmartPtr<ITransceiver>& transceiver) : m_transceiver(transceiver) {}

Transfer DatagramStreamBuf::Receive() {
  const int32_t limit = m_transceiver->MaxMessageSize();
  if (m_capacity < limit) {
    m_received = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(limit));
    m_capacity = limit;
  }
  m_readAt = 0;
  m_receivedSize = 0;
  const Transfer received = Transfer::Of(m_transceiver->Recv(m_received.get(), m_capacity));
  if (received.Ok()) m_receivedSize = received.Count();
  return received;
}

int32_t DatagramStreamBuf::sgetn(void* data, int32_t count) {
  if (count < 0 || count > m_receivedSize - m_readAt) TavixThrow(Err::OutOfBounds);
  std::memcpy(data, m_received.get() + m_readAt, static_cast<size_t>(count));
  m_readAt += count;
  return count;
}

int32_t DatagramStreamBuf::sputn(const void* data, int32_t count) {
  if (count <= 0) return 0;
  const int64_t room = std::max<int64_t>(0, m_transceiver->MaxMessageSize() - m_gatheredSize);
  const auto* bytes = static_cast<const uint8_t*>(data);
  m_gathered.insert(m_gathered.end(), bytes, bytes + std::min<int64_t>(room, count));
  m_gatheredSize += count;
  return count;
}

Transfer DatagramStreamBuf::SendGathered() {
  const Transfer sent = Oversized()
                            ? Transfer::LibraryError(Err::IllegalBufferSize)
                            : Transfer::Of(m_transceiver->Send(m_gathered.data(), static_cast<int32_t>(m_gathered.size())));
  DropGathered();
  return sent;
}

void DatagramStreamBuf::DropGathered() {
  m_gathered.clear();
  m_gatheredSize = 0;
}

}  // namespace TAVIX
