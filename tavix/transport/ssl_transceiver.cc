#include "tavix/transport/ssl_transceiver.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/socket_address.h"

namespace TAVIX {
namespace {

// Records of a whole message go out as one when it fits one record.
constexpr int32_t kOneRecord = 16384;

std::string ErrorReason(SSL* ssl) {
  if (ssl != nullptr) {
    const auto verified = SSL_get_verify_result(ssl);
    if (verified != X509_V_OK) return std::string("certificate verify failed: ") + X509_verify_cert_error_string(verified);
  }
  const auto error = ERR_peek_last_error();
  const char* reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  return reason != nullptr ? reason : "the connection ended during the handshake";
}

std::u16string Rfc2253(X509_NAME* name) {
  BIO* text = BIO_new(BIO_s_mem());
  if (text == nullptr) return {};
  X509_NAME_print_ex(text, name, 0, XN_FLAG_RFC2253);
  char* data = nullptr;
  const auto size = BIO_get_mem_data(text, &data);
  std::u16string subject = WiddenString(std::string_view(data, size > 0 ? static_cast<size_t>(size) : 0));
  BIO_free(text);
  return subject;
}

std::u16string Sha256Fingerprint(X509* certificate) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(certificate, EVP_sha256(), digest, &length) != 1) return {};
  static constexpr char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string text;
  for (unsigned int i = 0; i < length; ++i) {
    if (i > 0) text += u':';
    text += kDigits[digest[i] >> 4];
    text += kDigits[digest[i] & 0xF];
  }
  return text;
}

}  // namespace

SslTransceiver::SslTransceiver(std::shared_ptr<const TlsContext> context) : m_context(std::move(context)) {}

SslTransceiver::SslTransceiver(std::shared_ptr<const TlsContext> context, std::string host)
    : m_context(std::move(context)), m_host(std::move(host)) {}

SslTransceiver::~SslTransceiver() {
  Close();
  ScopedLock guard(m_engineLock);
  FreeEngine();
}

void SslTransceiver::SetClient(std::shared_ptr<const TlsContext> context, std::string host) {
  ScopedLock guard(m_engineLock);
  m_context = std::move(context);
  m_host = std::move(host);
}

void SslTransceiver::FreeEngine() {
  // The engine owns both memory streams.
  if (m_ssl != nullptr) SSL_free(m_ssl);
  m_ssl = nullptr;
  m_in = nullptr;
  m_out = nullptr;
}

void SslTransceiver::Attached() {
  ScopedLock guard(m_engineLock);
  FreeEngine();
  m_established = false;
  m_readAny = false;
  m_identity = PeerIdentity{};
  if (!m_context) return;
  m_ssl = SSL_new(m_context->Native());
  m_in = BIO_new(BIO_s_mem());
  m_out = BIO_new(BIO_s_mem());
  if (m_ssl == nullptr || m_in == nullptr || m_out == nullptr) {
    if (m_in != nullptr && m_ssl == nullptr) BIO_free(m_in);
    if (m_out != nullptr && m_ssl == nullptr) BIO_free(m_out);
    FreeEngine();
    return;
  }
  // An empty memory stream means "no bytes yet", not the end.
  BIO_set_mem_eof_return(m_in, -1);
  SSL_set_bio(m_ssl, m_in, m_out);
  if (m_context->GetRole() == TlsContext::Role::kServer) {
    SSL_set_accept_state(m_ssl);
    return;
  }
  SSL_set_connect_state(m_ssl);
  const std::string& protocols = TlsContext::ProtocolList();
  SSL_set_alpn_protos(m_ssl, reinterpret_cast<const unsigned char*>(protocols.data()),
                      static_cast<unsigned int>(protocols.size()));
  platform::SocketAddress numeric;
  if (platform::SocketAddress::ParseNumeric(m_host.c_str(), 0, numeric)) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(m_ssl), m_host.c_str());
  } else {
    SSL_set_tlsext_host_name(m_ssl, m_host.c_str());
    SSL_set1_host(m_ssl, m_host.c_str());
  }
}

int32_t SslTransceiver::Establish(std::string& failure) {
  const Pin pin(*this);
  if (!pin) return -3;
  uint32_t timeoutMs = 0;
  {
    ScopedLock guard(m_engineLock);
    if (m_ssl == nullptr) {
      failure = "no TLS settings for this connection";
      TavixSetLastError(Err::TlsNotConfigured);
      return -2;
    }
    timeoutMs = m_context->Settings().handshakeTimeoutMs;
  }
  const uint64_t deadline = platform::TickCountMs() + timeoutMs;
  for (;;) {
    const Step step = HandshakeStep(failure);
    if (!Flush(pin.Socket()) && step != Step::kFailed) {
      failure = "the connection failed during the handshake";
      TavixSetLastError(Err::TlsHandshakeFailed);
      return -2;
    }
    if (step == Step::kDone) return 0;
    if (step == Step::kFailed) {
      TavixSetLastError(Err::TlsHandshakeFailed);
      return -2;
    }
    const uint64_t now = platform::TickCountMs();
    bool timedOut = now >= deadline;
    const int32_t fed = timedOut ? 0 : FeedWithin(pin.Socket(), static_cast<uint32_t>(deadline - now), timedOut);
    if (timedOut) {
      failure = "no complete handshake within " + std::to_string(timeoutMs) + " ms";
      TavixSetLastError(Err::TlsHandshakeTimeout);
      return -2;
    }
    if (fed <= 0) {
      failure = fed == 0 ? "the peer closed the connection during the handshake"
                         : "the connection failed during the handshake";
      TavixSetLastError(Err::TlsHandshakeFailed);
      return -2;
    }
  }
}

SslTransceiver::Step SslTransceiver::HandshakeStep(std::string& failure) {
  ScopedLock guard(m_engineLock);
  ERR_clear_error();
  const int result = SSL_do_handshake(m_ssl);
  if (result == 1) {
    // A client insists on the protocol id; a server refused a missing one
    // in the handshake already.
    const unsigned char* chosen = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(m_ssl, &chosen, &length);
    const std::string& ours = TlsContext::ProtocolList();
    if (length != ours.size() - 1 || std::memcmp(chosen, ours.data() + 1, length) != 0) {
      failure = "the peer did not agree on the protocol tavix/1";
      return Step::kFailed;
    }
    ReadIdentity();
    m_established = true;
    return Step::kDone;
  }
  if (SSL_get_error(m_ssl, result) == SSL_ERROR_WANT_READ) return Step::kWantRead;
  failure = ErrorReason(m_ssl);
  ERR_clear_error();
  return Step::kFailed;
}

void SslTransceiver::ReadIdentity() {
  X509* certificate = SSL_get0_peer_certificate(m_ssl);
  if (certificate == nullptr || SSL_get_verify_result(m_ssl) != X509_V_OK) return;
  m_identity.subject = Rfc2253(X509_get_subject_name(certificate));
  m_identity.fingerprint = Sha256Fingerprint(certificate);
}

const PeerIdentity* SslTransceiver::GetPeerIdentity() const {
  return m_established && !m_identity.IsEmpty() ? &m_identity : nullptr;
}

int32_t SslTransceiver::FeedWithin(const platform::SocketView& socket, uint32_t waitMs, bool& timedOut) {
  const int32_t ready = socket.Poll(platform::PollFor::kRead, std::max<uint32_t>(waitMs, 1));
  timedOut = ready == 0;
  if (ready <= 0) return ready < 0 ? -1 : 0;
  return Feed(socket);
}

int32_t SslTransceiver::Feed(const platform::SocketView& socket) {
  if (!m_records) m_records = std::make_unique<uint8_t[]>(kRecordRead);
  const int32_t count = socket.Recv(m_records.get(), kRecordRead);
  if (count <= 0) return count;
  ScopedLock guard(m_engineLock);
  BIO_write(m_in, m_records.get(), count);
  return count;
}

bool SslTransceiver::Flush(const platform::SocketView& socket) {
  {
    ScopedLock guard(m_engineLock);
    const size_t pending = m_out != nullptr ? BIO_ctrl_pending(m_out) : 0;
    if (pending == 0) return true;
    m_outgoing.resize(pending);
    BIO_read(m_out, m_outgoing.data(), static_cast<int>(pending));
  }
  const uint8_t* next = m_outgoing.data();
  size_t left = m_outgoing.size();
  while (left > 0) {
    const int32_t sent = socket.Send(next, static_cast<int32_t>(std::min<size_t>(left, INT32_MAX)));
    if (sent <= 0) {
      if (sent < 0 && LastErrorIsWouldBlock() && socket.Poll(platform::PollFor::kWrite, 0) >= 0) continue;
      return false;
    }
    next += sent;
    left -= static_cast<size_t>(sent);
  }
  return true;
}

int32_t SslTransceiver::StreamRecv(const platform::SocketView& socket, void* buffer, int32_t length) {
  for (;;) {
    int result = 0;
    int error = SSL_ERROR_NONE;
    {
      ScopedLock guard(m_engineLock);
      if (!m_established) {
        TavixSetLastError(Err::TlsNotConfigured);
        return -1;
      }
      ERR_clear_error();
      result = SSL_read(m_ssl, buffer, length);
      if (result <= 0) error = SSL_get_error(m_ssl, result);
    }
    if (result > 0) {
      m_readAny = true;
      return result;
    }
    if (error == SSL_ERROR_ZERO_RETURN) return 0;
    if (error != SSL_ERROR_WANT_READ) {
      ERR_clear_error();
      // A TLS 1.3 server checks the client's certificate after the client
      // is done: its refusal arrives with the first read.
      TavixSetLastError(m_readAny ? Err::TlsStreamError : Err::TlsHandshakeFailed);
      return -1;
    }
    const int32_t fed = Feed(socket);
    if (fed <= 0) return fed;
  }
}

int32_t SslTransceiver::Encrypt(const void* data, int32_t length) {
  ScopedLock guard(m_engineLock);
  if (!m_established) {
    TavixSetLastError(Err::TlsNotConfigured);
    return -1;
  }
  ERR_clear_error();
  // The memory stream takes everything: a write is whole or it failed.
  if (SSL_write(m_ssl, data, length) == length) return length;
  ERR_clear_error();
  TavixSetLastError(Err::TlsStreamError);
  return -1;
}

int32_t SslTransceiver::StreamSend(const platform::SocketView& socket, const void* buffer, int32_t length) {
  const auto* next = static_cast<const uint8_t*>(buffer);
  for (int32_t left = length; left > 0;) {
    const int32_t piece = std::min(left, kEncryptBatch);
    if (Encrypt(next, piece) < 0 || !Flush(socket)) return -1;
    next += piece;
    left -= piece;
  }
  return length;
}

int32_t SslTransceiver::StreamSendGather(const platform::SocketView& socket, const platform::ConstBytes* pieces,
                                         int32_t count) {
  int64_t total = 0;
  for (int32_t i = 0; i < count; ++i) total += pieces[i].length;
  // A small message (a header and its body) becomes one record.
  if (total <= kOneRecord) {
    uint8_t joined[kOneRecord];
    size_t at = 0;
    for (int32_t i = 0; i < count; ++i) {
      std::memcpy(joined + at, pieces[i].data, static_cast<size_t>(pieces[i].length));
      at += static_cast<size_t>(pieces[i].length);
    }
    return StreamSend(socket, joined, static_cast<int32_t>(total));
  }
  for (int32_t i = 0; i < count; ++i) {
    const auto* next = static_cast<const uint8_t*>(pieces[i].data);
    for (int32_t left = pieces[i].length; left > 0;) {
      const int32_t piece = std::min(left, kEncryptBatch);
      if (Encrypt(next, piece) < 0) return -1;
      next += piece;
      left -= piece;
      // Large pieces go out batch by batch; the small tail waits for the
      // next piece, so the records of one message leave together.
      if (piece == kEncryptBatch && !Flush(socket)) return -1;
    }
  }
  return Flush(socket) ? static_cast<int32_t>(total) : -1;
}

int32_t SslTransceiver::WaitForRecv(uint32_t timeoutMs) {
  {
    ScopedLock guard(m_engineLock);
    if (m_ssl != nullptr && (SSL_pending(m_ssl) > 0 || BIO_ctrl_pending(m_in) > 0)) return IsOpen() ? 1 : -3;
  }
  return TcpTransceiver::WaitForRecv(timeoutMs);
}

}  // namespace TAVIX
