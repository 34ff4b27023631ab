// A datagram socket as a transceiver: one message is one datagram. A
// client-mode transceiver is connected to one destination (or to the
// broadcast address); a server-mode one is bound and answers whoever sent
// the datagram it received last.
#ifndef TAVIX_TRANSPORT_UDP_TRANSCEIVER_H_
#define TAVIX_TRANSPORT_UDP_TRANSCEIVER_H_

#include <cstdint>
#include <string>

#include "tavix/platform/socket_address.h"
#include "tavix/transport/socket_transceiver.h"

namespace TAVIX {

class UdpTransceiver : public SocketTransceiver {
 public:
  enum Mode : int32_t {
    UDP_MODE_CLIENT = 0,
    UDP_MODE_SERVER = 1,
  };
  // The largest IPv4 UDP payload.
  static constexpr int32_t kMaxDatagram = 65507;
  static constexpr int32_t kServerRecvBufSize = 0x40000;

  UdpTransceiver(Mode mode, const platform::SocketAddress& endpoint);
  ~UdpTransceiver() override;

  // A new non-blocking socket, bound (server) or connected (client) to the
  // endpoint address; 0, or -1 with the failing call's error. A socket
  // made by a failed Open stays until Close.
  int32_t Open() override;
  // Shuts the socket down and closes it; no pause.
  void Close() override;
  // One whole datagram; the server remembers its sender for the reply. A
  // datagram longer than `length` fails (-1).
  int32_t Recv(void* buffer, int32_t length) override;
  // Datagrams cannot be read piecemeal: -2 with Err::UnsupportedFunction.
  int32_t Recvn(void* buffer, int32_t length) override;
  // One datagram of at most kMaxDatagram bytes; 0 bytes sends nothing.
  int32_t Send(const void* buffer, int32_t length) override;
  // A datagram socket has no single peer: the arguments are left alone.
  bool GetPeer(std::u16string& address, uint16_t& port) const override;
  PassportType Type() const override { return PASSPORT_UDP; }
  int32_t MaxMessageSize() const override;
  bool IsBroadcast() const override;

  // The two halves of Open. Each sets the mode to its own; called in the
  // other mode it first leaves Err::UdpModeMismatch as the last error.
  bool Bind();
  bool Connect();

  Mode GetMode() const;
  const platform::SocketAddress& Endpoint() const { return m_endpoint; }

 private:
  // The buffer size applies to the socket being opened.
  void SetModeLocked(Mode mode);

  Mode m_mode;                             // guarded by m_lock
  platform::SocketAddress m_replyAddress;  // guarded by m_lock
  // Set before the socket opens; a port of 0 becomes the bound one.
  platform::SocketAddress m_endpoint;
  int32_t m_maxMessageSize = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_UDP_TRANSCEIVER_H_
