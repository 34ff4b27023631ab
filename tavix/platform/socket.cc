#include "tavix/platform/socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <fstream>
#include <string>

#include "tavix/platform/last_error.h"

namespace TAVIX::platform {
namespace {

// Runs a call again while a signal interrupts it; a final failure leaves
// errno in the last error.
template <class Call>
auto Retried(Call call) {
  for (;;) {
    auto result = call();
    if (result >= 0) return result;
    if (errno != EINTR) {
      SaveErrno();
      return result;
    }
  }
}

bool SetIntOption(int handle, int level, int name, int value) {
  return Retried([&] { return ::setsockopt(handle, level, name, &value, sizeof value); }) == 0;
}

// Whole seconds, at least one: the unit of the keep-alive options.
int KeepAliveSeconds(uint32_t ms) { return static_cast<int>(std::max<uint32_t>(1, (ms + 999) / 1000)); }

}  // namespace

bool IsTransientAcceptError(uint32_t acceptError) {
  switch (acceptError) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
    case ECONNABORTED:
    case EPROTO:
    case EPERM:
    case EINTR:
      return true;
    default:
      return false;
  }
}

bool IsAbandonedConnection(uint32_t acceptError) {
  switch (acceptError) {
    case ECONNABORTED:
    case EPROTO:
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case ENONET:
    case ENOPROTOOPT:
      return true;
    default:
      return false;
  }
}

bool IsFamilyUnavailable(uint32_t error) {
  return error == EAFNOSUPPORT || error == EADDRNOTAVAIL || error == EPROTONOSUPPORT;
}

bool IsForeignAddress(uint32_t error) { return error == EADDRNOTAVAIL; }

bool KernelTlsAvailable() {
  std::ifstream list("/proc/sys/net/ipv4/tcp_available_ulp");
  for (std::string word; list >> word;) {
    if (word == "tls") return true;
  }
  return false;
}

bool SocketView::Bind(const void* address, uint32_t length) const {
  return Retried([&] { return ::bind(m_handle, static_cast<const sockaddr*>(address), length); }) == 0;
}

bool SocketView::Listen(int32_t backlog) const {
  return Retried([&] { return ::listen(m_handle, backlog); }) == 0;
}

bool SocketView::Connect(const void* address, uint32_t length) const {
  // An interrupted connect goes on in the background; wait for its end
  // instead of starting it again.
  if (::connect(m_handle, static_cast<const sockaddr*>(address), length) == 0) return true;
  if (errno != EINTR) {
    SaveErrno();
    return false;
  }
  if (Poll(PollFor::kWrite, 0) < 0) return false;
  int error = 0;
  socklen_t size = sizeof error;
  if (::getsockopt(m_handle, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
    SaveErrno();
    return false;
  }
  if (error == 0) return true;
  SetLastError(static_cast<uint32_t>(error));
  return false;
}

bool SocketView::Accept(Socket& accepted, void* address, uint32_t& length) const {
  socklen_t size = length;
  const int handle =
      Retried([&] { return ::accept4(m_handle, static_cast<sockaddr*>(address), &size, SOCK_CLOEXEC); });
  if (handle < 0) return false;
  length = size;
  accepted.Adopt(handle);
  return true;
}

bool SocketView::PeerName(void* address, uint32_t& length) const {
  socklen_t size = length;
  if (Retried([&] { return ::getpeername(m_handle, static_cast<sockaddr*>(address), &size); }) != 0) {
    return false;
  }
  length = size;
  return true;
}

bool SocketView::LocalName(void* address, uint32_t& length) const {
  socklen_t size = length;
  if (Retried([&] { return ::getsockname(m_handle, static_cast<sockaddr*>(address), &size); }) != 0) {
    return false;
  }
  length = size;
  return true;
}

bool SocketView::Shutdown() const {
  return Retried([&] { return ::shutdown(m_handle, SHUT_RDWR); }) == 0;
}

bool SocketView::ShutdownRead() const {
  return Retried([&] { return ::shutdown(m_handle, SHUT_RD); }) == 0;
}

bool SocketView::SetReceiveTimeout(uint32_t timeoutMs) const {
  timeval limit{};
  limit.tv_sec = static_cast<time_t>(timeoutMs / 1000);
  limit.tv_usec = static_cast<suseconds_t>(timeoutMs % 1000) * 1000;
  return Retried([&] { return ::setsockopt(m_handle, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit); }) == 0;
}

bool SocketView::SetBlocking(bool blocking) const {
  int nonBlocking = blocking ? 0 : 1;
  return Retried([&] { return ::ioctl(m_handle, FIONBIO, &nonBlocking); }) == 0;
}

bool SocketView::SetReuseAddress(bool on) const {
  return SetIntOption(m_handle, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}

bool SocketView::SetKeepAlive(bool on, uint32_t idleMs, uint32_t intervalMs) const {
  if (!SetIntOption(m_handle, SOL_SOCKET, SO_KEEPALIVE, on ? 1 : 0)) return false;
  if (!on) return true;
  return SetIntOption(m_handle, IPPROTO_TCP, TCP_KEEPIDLE, KeepAliveSeconds(idleMs)) &&
         SetIntOption(m_handle, IPPROTO_TCP, TCP_KEEPINTVL, KeepAliveSeconds(intervalMs));
}

bool SocketView::SetSendBufSize(int32_t bytes) const {
  return SetIntOption(m_handle, SOL_SOCKET, SO_SNDBUF, bytes);
}

bool SocketView::SetRecvBufSize(int32_t bytes) const {
  return SetIntOption(m_handle, SOL_SOCKET, SO_RCVBUF, bytes);
}

bool SocketView::SetBroadcast(bool on) const {
  return SetIntOption(m_handle, SOL_SOCKET, SO_BROADCAST, on ? 1 : 0);
}

bool SocketView::SetIPv6Only(bool on) const {
  return SetIntOption(m_handle, IPPROTO_IPV6, IPV6_V6ONLY, on ? 1 : 0);
}

int32_t SocketView::GetBroadcast() const {
  int value = 0;
  socklen_t size = sizeof value;
  if (Retried([&] { return ::getsockopt(m_handle, SOL_SOCKET, SO_BROADCAST, &value, &size); }) != 0) {
    return -1;
  }
  return value != 0 ? 1 : 0;
}

bool SocketView::IoCtl(uint32_t request, uint32_t* argument) const {
  return Retried([&] { return ::ioctl(m_handle, request, argument); }) == 0;
}

bool SocketView::PeerHasHungUp() const {
  pollfd entry{};
  entry.fd = m_handle;
  entry.events = POLLRDHUP;
  return IsValid() && ::poll(&entry, 1, 0) == 1 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

int32_t SocketView::Poll(PollFor what, uint32_t timeoutMs) const {
  // poll would skip a negative descriptor and merely time out.
  if (!IsValid()) {
    SetLastError(ENOTSOCK);
    return -1;
  }
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  pollfd entry{};
  entry.fd = m_handle;
  entry.events = what == PollFor::kRead ? POLLIN : POLLOUT;
  for (;;) {
    int wait = -1;
    if (timeoutMs != 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      wait = static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
    }
    const int ready = ::poll(&entry, 1, wait);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) {
      SaveErrno();
      return -1;
    }
    if (ready == 0) {
      // A wait longer than poll can express goes round again.
      if (timeoutMs != 0 && Clock::now() < deadline) continue;
      return 0;
    }
    if ((entry.revents & POLLNVAL) != 0) {
      SetLastError(EBADF);
      return -1;
    }
    return 1;
  }
}

int32_t SocketView::Send(const void* data, int32_t length) const {
  return static_cast<int32_t>(
      Retried([&] { return ::send(m_handle, data, static_cast<size_t>(length), MSG_NOSIGNAL); }));
}

int32_t SocketView::Recv(void* data, int32_t length) const {
  return static_cast<int32_t>(Retried([&] { return ::recv(m_handle, data, static_cast<size_t>(length), 0); }));
}

int32_t SocketView::SendGather(const ConstBytes* pieces, int32_t count) const {
  constexpr int32_t kMaxPieces = 64;
  if (count < 0 || count > kMaxPieces) {
    SetLastError(EINVAL);
    return -1;
  }
  iovec vector[kMaxPieces];
  size_t total = 0;
  for (int32_t i = 0; i < count; ++i) {
    vector[i].iov_base = const_cast<void*>(pieces[i].data);
    vector[i].iov_len = static_cast<size_t>(pieces[i].length);
    total += vector[i].iov_len;
  }
  if (total > INT32_MAX) {
    SetLastError(EINVAL);
    return -1;
  }
  msghdr message{};
  message.msg_iov = vector;
  message.msg_iovlen = static_cast<size_t>(count);
  return static_cast<int32_t>(Retried([&] { return ::sendmsg(m_handle, &message, MSG_NOSIGNAL); }));
}

int32_t SocketView::SendTo(const void* data, int32_t length, const void* address, uint32_t addressLength) const {
  return static_cast<int32_t>(Retried([&] {
    return ::sendto(m_handle, data, static_cast<size_t>(length), MSG_NOSIGNAL,
                    static_cast<const sockaddr*>(address), addressLength);
  }));
}

int32_t SocketView::RecvFrom(void* data, int32_t length, void* address, uint32_t& addressLength) const {
  socklen_t size = addressLength;
  const auto count = Retried([&] {
    return ::recvfrom(m_handle, data, static_cast<size_t>(length), 0, static_cast<sockaddr*>(address), &size);
  });
  if (count >= 0) addressLength = size;
  return static_cast<int32_t>(count);
}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    m_handle = other.m_handle;
    other.m_handle = kInvalidSocket;
  }
  return *this;
}

bool Socket::Create(SocketType type, AddressFamily family) {
  Close();
  const int kind = type == SocketType::kStream ? SOCK_STREAM : SOCK_DGRAM;
  const int domain = family == AddressFamily::kIPv6 ? AF_INET6 : AF_INET;
  m_handle = Retried([&] { return ::socket(domain, kind | SOCK_CLOEXEC, 0); });
  return IsValid();
}

void Socket::Adopt(int32_t handle) {
  Close();
  m_handle = handle;
}

bool Socket::Close() {
  if (!IsValid()) return true;
  const int handle = m_handle;
  m_handle = kInvalidSocket;
  // The descriptor is gone even when close reports an error, so it is
  // never closed twice.
  if (::close(handle) == 0) return true;
  SaveErrno();
  return false;
}

}  // namespace TAVIX::platform
