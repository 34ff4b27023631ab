#include "tavix/transport/stream_transceiver_buf.h"

#include "tavix/core/errors.h"

namespace TAVIX {

namespace {

int32_t CheckedTransfer(int32_t r) {
  if (r == 0) TavixThrow(Err::ConnectionClosed);
  if (r == -1 || r == -2 || r == -3) TavixThrow(TavixGetLastError());
  return r;
}

}  // namespace

StreamTransceiverBuf::StreamTransceiverBuf(const SmartPtr<ITransceiver>& transceiver)
    : m_transceiver(transceiver) {}

StreamTransceiverBuf::~StreamTransceiverBuf() = default;

int32_t StreamTransceiverBuf::sputn(const void* data, int32_t count) {
  return CheckedTransfer(m_transceiver->Send(data, count));
}

int32_t StreamTransceiverBuf::sgetn(void* data, int32_t count) {
  return CheckedTransfer(m_transceiver->Recvn(data, count));
}

}  // namespace TAVIX
