// The byte-pipe interface every layer above the transports talks to, and
// the socket-owning base shared by the transceivers and the TCP acceptor.
#ifndef TAVIX_TRANSPORT_TRANSCEIVER_H_
#define TAVIX_TRANSPORT_TRANSCEIVER_H_

#include <cstdint>
#include <string>

#include "tavix/core/peer_identity.h"
#include "tavix/core/shared.h"
#include "tavix/transport/passport_type.h"
#include "tavix/platform/socket.h"

namespace TAVIX {

class InetAddr;

// The handle of a transceiver without a socket.
inline constexpr int32_t INVALID_SOCKET = platform::kInvalidSocket;

// Results of the int operations: a positive count (or 1) on success; 0 from
// a receive or send when the peer closed; -1 a socket call failed, its errno
// is the last error; -2 a library code is the last error; -3 the transceiver
// is closed.
class ITransceiver : public virtual Shared {
 public:
  ~ITransceiver() override = default;

  virtual int32_t GetHandle() const = 0;
  virtual int32_t Open() = 0;
  virtual void Close() = 0;
  virtual bool IsOpen() const = 0;
  // Waits until data (or the end of the stream) can be read; 0 = no limit.
  // A time-out gives -2 with Err::ReceiveTimeout.
  virtual int32_t WaitForRecv(uint32_t timeoutMs) = 0;
  virtual bool IsWaiting() const = 0;
  // One receive of at most `length` bytes.
  virtual int32_t Recv(void* buffer, int32_t length) = 0;
  // Exactly `length` bytes, or 0 when the peer closed before they came.
  virtual int32_t Recvn(void* buffer, int32_t length) = 0;
  // The whole buffer.
  virtual int32_t Send(const void* buffer, int32_t length) = 0;
  // Both pieces in order, as Send of their joined bytes would send them:
  // `first` + `second` on success. A stream sends them together, so a
  // message's head never travels alone ahead of its body.
  virtual int32_t SendPair(const void* first, int32_t firstLength, const void* second, int32_t secondLength);
  // Exactly `length` bytes that begin a message: waits at most `timeoutMs`
  // for the first of them (0: no limit; a time-out gives -2 with
  // Err::ReceiveTimeout), then reads as Recvn. The default waits with
  // WaitForRecv and reads with Recvn.
  virtual int32_t RecvMessageStart(void* buffer, int32_t length, uint32_t timeoutMs);
  // The other end's dotted address and port; false (arguments untouched)
  // when the transceiver has no single peer.
  virtual bool GetPeer(std::u16string& address, uint16_t& port) const = 0;
  virtual PassportType Type() const = 0;
  // The largest message one Send accepts; 0 means no limit.
  virtual int32_t MaxMessageSize() const = 0;
  virtual bool IsBroadcast() const = 0;
  // Wakes a thread blocked in a receive, which then sees the end of the
  // stream, and refuses later receives; sends still go out. Nothing when
  // closed.
  virtual void ShutdownReceive() {}
  // Brings up what the stream needs before its first message (the TLS
  // handshake); 0, or -2 with the code as the last error and the reason in
  // `failure`. Nothing to do by default.
  virtual int32_t Establish(std::string& /*failure*/) { return 0; }
  // The other end's verified identity, null when it has none.
  virtual const PeerIdentity* GetPeerIdentity() const { return nullptr; }
  // Whether the other end is known, without waiting, to have closed or
  // reset the connection. False when the transceiver cannot tell.
  virtual bool PeerHasLeft() { return false; }
};

// Owns one socket. The checked options (IoCtl, SetBlocking, the buffer
// sizes and the broadcast pair) refuse a missing socket with ENOTSOCK; the
// rest hand the handle to the platform as it is.
class SockWrapper {
 public:
  SockWrapper() = default;
  SockWrapper(const SockWrapper&) = delete;
  SockWrapper& operator=(const SockWrapper&) = delete;

  bool CreateSocket(platform::SocketType type, platform::AddressFamily family = platform::AddressFamily::kIPv4);
  // True when there was no socket; the handle is INVALID_SOCKET afterwards.
  bool CloseSocket();
  bool ShutdownBoth();
  bool Bind(const InetAddr& address);
  bool Bind(const platform::SocketAddress& address);
  bool Listen(int32_t backlog);
  bool SetBlocking(bool blocking);
  // Probes after 60000 ms of silence, then every 1000 ms.
  bool SetKeepAlive(bool on);
  bool SetSendBufSize(int32_t bytes);
  bool SetRecvBufSize(int32_t bytes);
  bool SetBroadcast(bool on);
  // 1 enabled, 0 disabled, -1 on failure.
  int32_t GetBroadcast() const;
  bool IoCtl(uint32_t request, uint32_t* argument);

 protected:
  ~SockWrapper() = default;

  platform::Socket m_socket;

 private:
  // False with ENOTSOCK when there is no socket.
  bool HasSocket() const;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TRANSCEIVER_H_
