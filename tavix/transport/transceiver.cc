#include "tavix/transport/transceiver.h"

#include <cerrno>

#include "tavix/core/inet_addr.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

constexpr uint32_t kKeepAliveIdleMs = 60000;
constexpr uint32_t kKeepAliveIntervalMs = 1000;

}  // namespace

int32_t ITransceiver::SendPair(const void* first, int32_t firstLength, const void* second, int32_t secondLength) {
  if (firstLength < 1) return Send(second, secondLength);
  const int32_t sent = Send(first, firstLength);
  if (sent < firstLength || secondLength < 1) return sent;
  const int32_t rest = Send(second, secondLength);
  return rest < 0 ? rest : firstLength + rest;
}

int32_t ITransceiver::RecvMessageStart(void* buffer, int32_t length, uint32_t timeoutMs) {
  const int32_t waited = WaitForRecv(timeoutMs);
  if (waited < 0) return waited;
  return Recvn(buffer, length);
}

bool SockWrapper::CreateSocket(platform::SocketType type, platform::AddressFamily family) {
  return m_socket.Create(type, family);
}

bool SockWrapper::CloseSocket() {
  if (!m_socket.IsValid()) return true;
  return m_socket.Close();
}

bool SockWrapper::ShutdownBoth() { return m_socket.Shutdown(); }

bool SockWrapper::Bind(const InetAddr& address) { return Bind(address.ToSocketAddress()); }

bool SockWrapper::Bind(const platform::SocketAddress& address) {
  return m_socket.Bind(address.Data(), address.Length());
}

bool SockWrapper::Listen(int32_t backlog) { return m_socket.Listen(backlog); }

bool SockWrapper::SetBlocking(bool blocking) {
  if (!HasSocket()) return false;
  return m_socket.SetBlocking(blocking);
}

bool SockWrapper::SetKeepAlive(bool on) {
  return m_socket.SetKeepAlive(on, kKeepAliveIdleMs, kKeepAliveIntervalMs);
}

bool SockWrapper::SetSendBufSize(int32_t bytes) {
  if (!HasSocket()) return false;
  return m_socket.SetSendBufSize(bytes);
}

bool SockWrapper::SetRecvBufSize(int32_t bytes) {
  if (!HasSocket()) return false;
  return m_socket.SetRecvBufSize(bytes);
}

bool SockWrapper::SetBroadcast(bool on) {
  if (!HasSocket()) return false;
  return m_socket.SetBroadcast(on);
}

int32_t SockWrapper::GetBroadcast() const {
  if (!HasSocket()) return -1;
  return m_socket.GetBroadcast();
}

bool SockWrapper::IoCtl(uint32_t request, uint32_t* argument) {
  if (!HasSocket()) return false;
  return m_socket.IoCtl(request, argument);
}

bool SockWrapper::HasSocket() const {
  if (m_socket.IsValid()) return true;
  platform::SetLastError(ENOTSOCK);
  return false;
}

}  // namespace TAVIX
