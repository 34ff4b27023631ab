// The end of a message's stream-buffer chain that talks to a connection's
// transceiver.
#ifndef TAVIX_TRANSPORT_STREAM_TRANSCEIVER_BUF_H_
#define TAVIX_TRANSPORT_STREAM_TRANSCEIVER_BUF_H_

#include <cstdint>

#include "tavix/core/shared.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

// Writes are the transceiver's Send (SendPair for two pieces), reads its
// Recvn. A closed peer raises
// Err::ConnectionClosed; a failure raises the thread's last error.
class StreamTransceiverBuf : public EndStreamBuf {
 public:
  explicit StreamTransceiverBuf(const SmartPtr<ITransceiver>& transceiver);
  ~StreamTransceiverBuf() override;
  StreamTransceiverBuf(const StreamTransceiverBuf&) = delete;
  StreamTransceiverBuf& operator=(const StreamTransceiverBuf&) = delete;

  int32_t sputn(const void* data, int32_t count) override;
  int32_t sgetn(void* data, int32_t count) override;
  // One gathering send of both pieces.
  int32_t sputPair(const void* first, int32_t firstCount, const void* second, int32_t secondCount) override;

 private:
  SmartPtr<ITransceiver> m_transceiver;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_STREAM_TRANSCEIVER_BUF_H_
