#include "tavix/transport/socket_transceiver.h"

#include <cerrno>
#include <string>
#include <utility>

#include "tavix/core/errors.h"
#include "tavix/platform/last_error.h"

namespace TAVIX {

bool LastErrorIsWouldBlock() {
  const uint32_t code = platform::LastError();
  return code == EWOULDBLOCK || code == EAGAIN;
}

SocketTransceiver::Pin::Pin(SocketTransceiver& owner) : m_owner(owner) {
  ScopedLock guard(m_owner.m_lock);
  m_socket = m_owner.PinLocked();
}

SocketTransceiver::Pin::~Pin() {
  if (!m_socket.IsValid()) return;
  ScopedLock guard(m_owner.m_lock);
  m_owner.UnpinLocked();
}

SocketTransceiver::~SocketTransceiver() = default;

int32_t SocketTransceiver::GetHandle() const {
  ScopedLock guard(m_lock);
  return m_socket.Handle();
}

bool SocketTransceiver::IsOpen() const {
  ScopedLock guard(m_lock);
  return m_socket.IsValid();
}

bool SocketTransceiver::IsWaiting() const {
  ScopedLock guard(m_lock);
  return m_waiting;
}

void SocketTransceiver::CloseSocketLocked() {
  EnsureLastError keepCallerError;
  if (!m_socket.IsValid()) return;
  // Best effort: the descriptor goes whatever shutdown answers.
  ShutdownBoth();
  if (m_pins == 0) {
    CloseSocket();
  } else {
    m_retired.push_back(std::move(m_socket));
  }
}

void SocketTransceiver::ShutdownReceive() {
  EnsureLastError keepCallerError;
  ScopedLock guard(m_lock);
  if (m_socket.IsValid()) m_socket.ShutdownRead();
}

int32_t SocketTransceiver::WaitForRecv(uint32_t timeoutMs) {
  platform::SocketView socket;
  {
    ScopedLock guard(m_lock);
    if (!m_socket.IsValid()) return -3;
    m_waiting = true;
    socket = PinLocked();
  }
  const int32_t ready = socket.Poll(platform::PollFor::kRead, timeoutMs);
  const uint32_t error = platform::LastError();
  ScopedLock guard(m_lock);
  m_waiting = false;
  UnpinLocked();
  if (ready == 0) {
    TavixSetLastError(Err::ReceiveTimeout);
    return -2;
  }
  if (ready < 0) {
    platform::SetLastError(error);
    return -1;
  }
  return m_socket.IsValid() ? ready : -3;
}

platform::SocketView SocketTransceiver::PinLocked() {
  if (m_socket.IsValid()) ++m_pins;
  return m_socket.View();
}

void SocketTransceiver::UnpinLocked() {
  if (--m_pins > 0 || m_retired.empty()) return;
  EnsureLastError keepCallerError;
  m_retired.clear();
}

}  // namespace TAVIX
