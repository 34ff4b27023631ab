// A connected TCP stream as a transceiver. One thread reads (or waits)
// while another may send or close; Close wakes a blocked waiter.
#ifndef TAVIX_TRANSPORT_TCP_TRANSCEIVER_H_
#define TAVIX_TRANSPORT_TCP_TRANSCEIVER_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "tavix/transport/socket_transceiver.h"

namespace TAVIX {

class TcpTransceiver : public SocketTransceiver {
 public:
  // Socket buffers each way.
  static constexpr int32_t kBufferSize = 65536;
  // Send halves its chunk on ENOBUFS only while the chunk is above this.
  static constexpr int32_t kMinChunk = 8192;
  // A read of less than this asks the socket for this much, so that a
  // message's header and the body behind it arrive in one receive; the
  // bytes beyond the read wait for the next one. Larger reads go straight
  // into the caller's memory.
  static constexpr int32_t kReadAhead = 8192;

  TcpTransceiver();
  ~TcpTransceiver() override;

  // The client connection: a fresh socket connected (blocking, no limit) to
  // `address`, then left in `holder`, whose TcpTransceiver is closed and
  // reused, or a new one. 0, or -1 with the connect's error; on failure
  // `holder` is untouched.
  static int32_t Connect(const platform::SocketAddress& address, SmartPtr<ITransceiver>& holder);

  // Takes a connected socket, names its peer (its address printed as
  // HostText prints it) and applies the TCP option set (blocking, 64 KiB
  // buffers, keep-alive). A held socket is closed first.
  void Attach(platform::Socket socket, const platform::SocketAddress& peer);
  // Attach to the TcpTransceiver in `holder`, reused, or to a new one put
  // there: how both connecting and accepting hand over their socket.
  static void AttachToHolder(SmartPtr<ITransceiver>& holder, platform::Socket socket,
                             const platform::SocketAddress& peer);

  // A TCP pipe is opened by connecting or accepting: does nothing.
  int32_t Open() override { return 0; }
  // Shuts the socket down and closes it without waiting for anyone: a
  // thread still inside a call keeps the descriptor until it leaves. The
  // caller's last error survives. Closing a closed transceiver does nothing.
  void Close() override;
  // Data already received ahead counts as readable at once.
  int32_t WaitForRecv(uint32_t timeoutMs) override;
  int32_t Recv(void* buffer, int32_t length) override;
  int32_t Recvn(void* buffer, int32_t length) override;
  int32_t Send(const void* buffer, int32_t length) override;
  // One gathering send for both pieces.
  int32_t SendPair(const void* first, int32_t firstLength, const void* second, int32_t secondLength) override;
  // No separate wait: the receive itself waits, bounded by the socket's
  // receive time-out, which is set only when it differs from the last one.
  // With a limit, the limit bounds the wait and the rest of the message;
  // without one, an idle peer is waited for without end, and the stall
  // time-out guards the bytes inside the message.
  int32_t RecvMessageStart(void* buffer, int32_t length, uint32_t timeoutMs) override;
  bool GetPeer(std::u16string& address, uint16_t& port) const override;
  bool PeerHasLeft() override;
  PassportType Type() const override { return PASSPORT_TCP; }
  int32_t MaxMessageSize() const override { return 0; }
  bool IsBroadcast() const override { return false; }

  void SetPeer(const std::u16string& address, uint16_t port);
  // How long Recv and Recvn wait for the next bytes before they fail with
  // -2 and Err::ReceiveTimeout; 0 (the default) waits without limit. It is
  // set on the socket at the first receive that must wait. WaitForRecv
  // keeps its own time-out.
  bool SetStallTimeout(uint32_t timeoutMs);
  // Waits until the socket takes data; results as WaitForRecv.
  int32_t WaitForSend(uint32_t timeoutMs);

 protected:
  // The byte stream under the message framing, with the socket's results
  // (a count, 0 at the end of the stream, -1 with the last error set):
  // plain socket calls here; a secure transceiver puts its records in
  // between. A send takes all it is given unless it fails.
  virtual int32_t StreamRecv(const platform::SocketView& socket, void* buffer, int32_t length);
  virtual int32_t StreamSend(const platform::SocketView& socket, const void* buffer, int32_t length);
  virtual int32_t StreamSendGather(const platform::SocketView& socket, const platform::ConstBytes* pieces,
                                   int32_t count);
  // Runs after Attach took a new socket, before any byte moves on it.
  virtual void Attached() {}

 private:
  void ApplyTcpOptionsLocked();
  int32_t RecvnPinned(const platform::SocketView& socket, void* buffer, int32_t length);
  int32_t SendPinned(const platform::SocketView& socket, const void* buffer, int32_t length);
  // Copies up to `length` bytes received ahead into `buffer`; the count.
  int32_t TakeAhead(void* buffer, int32_t length);
  // One receive into the read-ahead block; its result as the socket's.
  int32_t FillAhead(const platform::SocketView& socket);
  // Sets the socket's receive time-out unless it is set so already.
  bool ApplyReceiveTimeout(const platform::SocketView& socket, uint32_t timeoutMs);
  // The result of a receive that failed: -2 with Err::ReceiveTimeout when
  // its time-out passed, otherwise -1 with the trace line.
  static int32_t ReceiveFailure();

  std::u16string m_peerAddress;  // guarded by m_lock
  uint16_t m_peerPort = 0;       // guarded by m_lock
  // Only the one reading thread touches the read-ahead block.
  std::unique_ptr<uint8_t[]> m_ahead;
  int32_t m_aheadBegin = 0;
  int32_t m_aheadEnd = 0;
  // The stall time-out asked for, the one that bounds the receives of the
  // current message, and the receive time-out the socket has. Each value
  // stands alone, publishing no other memory, so the reader's own updates
  // may be relaxed.
  std::atomic<uint32_t> m_stallTimeoutMs{0};
  std::atomic<uint32_t> m_messageTimeoutMs{0};
  std::atomic<uint32_t> m_socketTimeoutMs{0};
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TCP_TRANSCEIVER_H_
