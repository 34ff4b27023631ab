#include "tavix/transport/stream_transceiver_buf.h"

#include "tavix/core/errors.h"
#include "tavix/transport/transfer.h"

namespace TAVIX {

namespace {

// Inside a message every transfer must move its bytes; anything else ends
// the message with the transfer's code.
int32_t CheckedTransfer(int32_t result) {
  const Transfer transfer = Transfer::Of(result);
  if (!transfer.Ok()) TavixThrow(transfer.Code());
  return transfer.Count();
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
