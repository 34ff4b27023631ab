// IPv4 and IPv6 sockets. SocketView names a descriptor without owning it and carries
// every call on an existing socket; Socket owns its descriptor and closes
// it once. Every failing call copies errno into the thread's last error and
// retries by itself when a signal interrupted it.
#ifndef TAVIX_PLATFORM_SOCKET_H_
#define TAVIX_PLATFORM_SOCKET_H_

#include <cstdint>

#include "tavix/platform/socket_address.h"

namespace TAVIX::platform {

inline constexpr int32_t kInvalidSocket = -1;

enum class SocketType { kStream, kDatagram };

// One piece of a gathered send.
struct ConstBytes {
  const void* data;
  int32_t length;
};

// What Poll waits for. Readable includes the peer's orderly close, a local
// shutdown and a pending error, so a woken reader always learns something.
enum class PollFor { kRead, kWrite };

class Socket;

// True for the errors with which accept reports a client that gave up
// between its connect and the accept: nobody is left to serve, but the
// listener is fine.
bool IsAbandonedConnection(uint32_t acceptError);
// True for the accept errors that pass by themselves (descriptors or
// memory running short, an aborted handshake): accepting may go on after a
// pause, the listener is fine.
bool IsTransientAcceptError(uint32_t acceptError);

// True for the errors with which the system says it has no such address
// family (no IPv6 in this kernel or on any interface).
bool IsFamilyUnavailable(uint32_t error);
// True for the bind error that names an address this machine does not have.
bool IsForeignAddress(uint32_t error);
// Whether the kernel offers TLS as a TCP upper layer protocol ("tls" in
// /proc/sys/net/ipv4/tcp_available_ulp).
bool KernelTlsAvailable();

class SocketView {
 public:
  constexpr SocketView() = default;
  constexpr explicit SocketView(int32_t handle) : m_handle(handle) {}

  int32_t Handle() const { return m_handle; }
  bool IsValid() const { return m_handle != kInvalidSocket; }

  // Addresses are socket address images of `length` bytes.
  bool Bind(const void* address, uint32_t length) const;
  bool Listen(int32_t backlog) const;
  bool Connect(const void* address, uint32_t length) const;
  // Takes one pending connection into `accepted` and its address into
  // `address`; `length` is the buffer size in and the address size out.
  bool Accept(Socket& accepted, void* address, uint32_t& length) const;
  bool PeerName(void* address, uint32_t& length) const;
  bool LocalName(void* address, uint32_t& length) const;
  // Both directions; wakes every thread blocked in a call on the socket.
  bool Shutdown() const;
  // The receiving direction only: a blocked receive wakes and sees the end
  // of the stream, while sends still go out.
  bool ShutdownRead() const;

  bool SetBlocking(bool blocking) const;
  // Lets a listener bind while old connections of its port linger in
  // TIME_WAIT; a port with a live listener stays refused.
  bool SetReuseAddress(bool on) const;
  // Keep-alive probes after `idleMs` of silence, then every `intervalMs`
  // (rounded up to whole seconds, the platform's unit).
  bool SetKeepAlive(bool on, uint32_t idleMs, uint32_t intervalMs) const;
  bool SetSendBufSize(int32_t bytes) const;
  // A blocking receive that waits longer than this fails with EAGAIN; 0
  // waits without limit.
  bool SetReceiveTimeout(uint32_t timeoutMs) const;
  bool SetRecvBufSize(int32_t bytes) const;
  bool SetBroadcast(bool on) const;
  // On an IPv6 socket: false lets it take IPv4 peers too (dual stack).
  bool SetIPv6Only(bool on) const;
  // 1 or 0, -1 on failure.
  int32_t GetBroadcast() const;
  // A device request with an int-sized in/out argument.
  bool IoCtl(uint32_t request, uint32_t* argument) const;

  // 1 when ready, 0 when `timeoutMs` passed first (0 waits without limit),
  // -1 on failure.
  int32_t Poll(PollFor what, uint32_t timeoutMs) const;
  // Without waiting: the peer closed its sending side or the connection
  // failed. Data still queued for reading does not count.
  bool PeerHasHungUp() const;

  // Byte counts (0: the peer closed), -1 on failure. Sends never raise
  // SIGPIPE; a send to a closed peer fails with EPIPE instead.
  int32_t Send(const void* data, int32_t length) const;
  int32_t Recv(void* data, int32_t length) const;
  // The pieces in order as one run of bytes, in one call: what the socket
  // took of them all (a blocking socket takes everything unless a time-out
  // or an error cuts it short), -1 on failure. At most 64 pieces.
  int32_t SendGather(const ConstBytes* pieces, int32_t count) const;
  int32_t SendTo(const void* data, int32_t length, const void* address, uint32_t addressLength) const;
  int32_t RecvFrom(void* data, int32_t length, void* address, uint32_t& addressLength) const;

 protected:
  int32_t m_handle = kInvalidSocket;
};

class Socket : public SocketView {
 public:
  Socket() = default;
  ~Socket() { Close(); }
  Socket(Socket&& other) noexcept : SocketView(other.m_handle) { other.m_handle = kInvalidSocket; }
  Socket& operator=(Socket&& other) noexcept;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // A new socket of the family, replacing (and closing) any held one.
  bool Create(SocketType type, AddressFamily family = AddressFamily::kIPv4);
  // Takes ownership of a descriptor made elsewhere.
  void Adopt(int32_t handle);
  // True when there was nothing to close or the close succeeded; the socket
  // is invalid afterwards either way.
  bool Close();

  SocketView View() const { return SocketView(m_handle); }
};

}  // namespace TAVIX::platform

#endif  // TAVIX_PLATFORM_SOCKET_H_
