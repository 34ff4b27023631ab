#include "tavix/transport/stream_transceiver_buf.h"

#include "tavix/core/errors.h"

namespace TAVIX {

namespace {

// A failure without a last error (a closed transceiver sets none) is still
// a failure: it never travels as code 0.
int32_t CheckedTransfer(int32_t r) {
  if (r > 0) return r;
  const uint32_t error = r == 0 ? 0 : TavixGetLastError();
  TavixThrow(error != 0 ? error : Err::ConnectionClosed);
}

}  // namespace

StreamTransceiverBuf::StreamTransceiverBuf(const SmartPtr<ITransceiver>& transceiver)
    : m_transceiver(transceiver) {}

StreamTransceiverBuf::~StreamTransceiverBuf() = default;

int32_t StreamTransceiverBuf::sputn(const void* data, int32_t count) {
  return CheckedTransfer(m_transceiver->Send(data, count));
}

int32_t StreamTransceiverBuf::sputPair(const void* first, int32_t firstCount, const void* second,
                                       int32_t secondCount) {
  return CheckedTransfer(m_transceiver->SendPair(first, firstCount, second, secondCount));
}

int32_t StreamTransceiverBuf::sgetn(void* data, int32_t count) {
  return CheckedTransfer(m_transceiver->Recvn(data, count));
}

}  // namespace TAVIX
