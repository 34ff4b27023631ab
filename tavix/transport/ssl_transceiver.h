// A TCP stream carrying TLS 1.3 records: the same messages as a plain TCP
// transceiver, framed, timed and closed the same way (it is one, with the
// records put in between the framing and the socket). The TLS engine works
// on memory: a receive feeds it what the socket gave, a send encrypts up to
// 256 KiB into many records and hands them to the socket in one call.
//
// One thread reads and one thread sends at a time, as on any TCP
// connection of this library; the engine itself is guarded for the case
// where the two are different threads.
#ifndef TAVIX_TRANSPORT_SSL_TRANSCEIVER_H_
#define TAVIX_TRANSPORT_SSL_TRANSCEIVER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tavix/core/peer_identity.h"
#include "tavix/transport/tcp_transceiver.h"
#include "tavix/transport/tls_context.h"

struct ssl_st;
struct bio_st;

namespace TAVIX {

class SslTransceiver : public TcpTransceiver {
 public:
  // Plain bytes encrypted per socket call, at most.
  static constexpr int32_t kEncryptBatch = 256 * 1024;
  // Bytes taken from the socket per receive while records are read.
  static constexpr int32_t kRecordRead = 32 * 1024;

  // The server end of accepted connections, with `context`'s rules.
  explicit SslTransceiver(std::shared_ptr<const TlsContext> context);
  // A client end: the server's certificate must name `host` (a DNS name,
  // which is also sent as the server name, or an IP address).
  SslTransceiver(std::shared_ptr<const TlsContext> context, std::string host);
  ~SslTransceiver() override;

  // Takes effect with the next socket attached: a client moving on.
  void SetClient(std::shared_ptr<const TlsContext> context, std::string host);

  PassportType Type() const override { return PASSPORT_SSL; }
  // The handshake, bounded as a whole by the context's handshake time-out
  // (a peer that dribbles its bytes gains nothing). Failures: -2 with
  // Err::TlsHandshakeTimeout or Err::TlsHandshakeFailed, the reason (the
  // TLS library's, or the certificate check's) in `failure`.
  int32_t Establish(std::string& failure) override;
  const PeerIdentity* GetPeerIdentity() const override;
  // Plain bytes already decrypted, or records already received, count as
  // readable at once.
  int32_t WaitForRecv(uint32_t timeoutMs) override;

 protected:
  int32_t StreamRecv(const platform::SocketView& socket, void* buffer, int32_t length) override;
  int32_t StreamSend(const platform::SocketView& socket, const void* buffer, int32_t length) override;
  int32_t StreamSendGather(const platform::SocketView& socket, const platform::ConstBytes* pieces,
                           int32_t count) override;
  // A fresh TLS engine for the new socket.
  void Attached() override;

 private:
  enum class Step { kDone, kWantRead, kFailed };

  // One step of the handshake under the engine's lock.
  Step HandshakeStep(std::string& failure);
  // Waits (at most `waitMs`) and receives once into the engine: the
  // socket's result, with 0 for a wait that ran out marked by `timedOut`.
  int32_t FeedWithin(const platform::SocketView& socket, uint32_t waitMs, bool& timedOut);
  // Moves one receive of records into the engine; the socket's result.
  int32_t Feed(const platform::SocketView& socket);
  // Sends every byte the engine has written; false with the last error.
  bool Flush(const platform::SocketView& socket);
  int32_t Encrypt(const void* data, int32_t length);
  void ReadIdentity();
  void FreeEngine();

  mutable SpinLock m_engineLock;
  std::shared_ptr<const TlsContext> m_context;  // guarded by m_engineLock
  std::string m_host;                           // guarded by m_engineLock; empty on a server
  ssl_st* m_ssl = nullptr;                      // guarded by m_engineLock
  bio_st* m_in = nullptr;                       // guarded by m_engineLock: records received
  bio_st* m_out = nullptr;                      // guarded by m_engineLock: records to send
  // Written once by Establish, before any message moves; read-only after.
  PeerIdentity m_identity;
  bool m_established = false;
  // Whether any plain byte came in yet; only the reader touches it.
  bool m_readAny = false;
  // The reader's receive block, and the sender's outgoing records.
  std::unique_ptr<uint8_t[]> m_records;
  std::vector<uint8_t> m_outgoing;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_SSL_TRANSCEIVER_H_
