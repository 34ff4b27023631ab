// A connected TCP stream as a transceiver. One thread reads (or waits)
// while another may send or close; Close wakes a blocked waiter.
#ifndef TAVIX_TRANSPORT_TCP_TRANSCEIVER_H_
#define TAVIX_TRANSPORT_TCP_TRANSCEIVER_H_

#include <cstdint>
#include <string>

#include "tavix/transport/socket_transceiver.h"

namespace TAVIX {

class TcpTransceiver : public SocketTransceiver {
 public:
  // Socket buffers each way.
  static constexpr int32_t kBufferSize = 65536;
  // Send halves its chunk on ENOBUFS only while the chunk is above this.
  static constexpr int32_t kMinChunk = 8192;

  TcpTransceiver();
  ~TcpTransceiver() override;

  // The client connection: a fresh socket connected (blocking, no limit) to
  // `address`, then left in `holder`, whose TcpTransceiver is closed and
  // reused, or a new one. 0, or -1 with the connect's error; on failure
  // `holder` is untouched.
  static int32_t Connect(const InetAddr& address, SmartPtr<ITransceiver>& holder);

  // Takes a connected socket, names its peer and applies the TCP option
  // set (blocking, 64 KiB buffers, keep-alive). A held socket is closed
  // first.
  void Attach(platform::Socket socket, const InetAddr& peer);
  // Attach to the TcpTransceiver in `holder`, reused, or to a new one put
  // there: how both connecting and accepting hand over their socket.
  static void AttachToHolder(SmartPtr<ITransceiver>& holder, platform::Socket socket,
                             const InetAddr& peer);

  // A TCP pipe is opened by connecting or accepting: does nothing.
  int32_t Open() override { return 0; }
  // Shuts the socket down and closes it without waiting for anyone: a
  // thread still inside a call keeps the descriptor until it leaves. The
  // caller's last error survives. Closing a closed transceiver does nothing.
  void Close() override;
  int32_t Recv(void* buffer, int32_t length) override;
  int32_t Recvn(void* buffer, int32_t length) override;
  int32_t Send(const void* buffer, int32_t length) override;
  bool GetPeer(std::u16string& address, uint16_t& port) const override;
  int32_t Type() const override { return 1; }
  int32_t MaxMessageSize() const override { return 0; }
  bool IsBroadcast() const override { return false; }

  void SetPeer(const std::u16string& address, uint16_t port);
  // How long Recv and Recvn wait for the next bytes before they fail with
  // -2 and Err::ReceiveTimeout; 0 (the default) waits without limit.
  // WaitForRecv keeps its own time-out.
  bool SetStallTimeout(uint32_t timeoutMs);
  // Waits until the socket takes data; results as WaitForRecv.
  int32_t WaitForSend(uint32_t timeoutMs);

 private:
  void ApplyTcpOptionsLocked();

  std::u16string m_peerAddress;
  uint16_t m_peerPort = 0;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TCP_TRANSCEIVER_H_
