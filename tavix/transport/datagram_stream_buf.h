// The end of a message's stream-buffer chain on a datagram transceiver,
// where a message must travel as one datagram: reads come from a datagram
// received whole, writes gather the whole message, which then goes out in
// one send.
#ifndef TAVIX_TRANSPORT_DATAGRAM_STREAM_BUF_H_
#define TAVIX_TRANSPORT_DATAGRAM_STREAM_BUF_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "tavix/core/shared.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/transport/transceiver.h"
#include "tavix/transport/transfer.h"

namespace TAVIX {

class DatagramStreamBuf : public EndStreamBuf {
 public:
  explicit DatagramStreamBuf(const SmartPtr<ITransceiver>& transceiver);
  DatagramStreamBuf(const DatagramStreamBuf&) = delete;
  DatagramStreamBuf& operator=(const DatagramStreamBuf&) = delete;

  // Receives one datagram in place of the last one. Reading starts at its
  // first byte.
  Transfer Receive();
  const uint8_t* Received() const { return m_received.get(); }
  int32_t ReceivedSize() const { return m_receivedSize; }
  // Skips `offset` bytes of the received datagram (its header).
  void StartReading(int32_t offset) { m_readAt = offset; }

  // Reads from the received datagram; past its end raises Err::OutOfBounds.
  int32_t sgetn(void* data, int32_t count) override;
  // Gathers. Bytes beyond the transceiver's largest message are counted
  // but not kept, so an oversized message costs no more than a full one.
  int32_t sputn(const void* data, int32_t count) override;

  // Every byte written since the last send, kept or not.
  int64_t GatheredSize() const { return m_gatheredSize; }
  bool Oversized() const { return m_gatheredSize > static_cast<int64_t>(m_gathered.size()); }
  const std::vector<uint8_t>& Gathered() const { return m_gathered; }
  // Sends what was gathered as one datagram and starts over. An oversized
  // message is not sent: a library error Err::IllegalBufferSize.
  Transfer SendGathered();
  void DropGathered();

 private:
  SmartPtr<ITransceiver> m_transceiver;
  // Left uninitialised: a receive fills what is read.
  std::unique_ptr<uint8_t[]> m_received;
  int32_t m_capacity = 0;
  int32_t m_receivedSize = 0;
  int32_t m_readAt = 0;
  std::vector<uint8_t> m_gathered;
  int64_t m_gatheredSize = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_DATAGRAM_STREAM_BUF_H_
