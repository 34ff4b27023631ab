#include "tavix/transport/transfer.h"

#include "tavix/core/errors.h"

namespace TAVIX {

Transfer Transfer::OfFailure(int32_t result) {
  switch (result) {
    case 0:
      return PeerClosed();
    case -1:
      return SystemError(TavixGetLastError());
    case -2:
      return LibraryError(TavixGetLastError());
    case -3:
      return Closed(TavixGetLastError());
    default:
      return Unknown(result);
  }
}

int32_t Transfer::Number() const {
  switch (m_state) {
    case TransferState::kDone:
    case TransferState::kUnknown:
      return m_count;
    case TransferState::kPeerClosed:
      return 0;
    case TransferState::kSystemError:
      return -1;
    case TransferState::kLibraryError:
      return -2;
    case TransferState::kClosed:
      break;
  }
  return -3;
}

int32_t Transfer::Result() const {
  if (m_state == TransferState::kSystemError || m_state == TransferState::kLibraryError) TavixSetLastError(m_code);
  return Number();
}

uint32_t Transfer::Code() const { return m_code != 0 ? m_code : Err::ConnectionClosed; }

}  // namespace TAVIX
