#include "tavix/transport/tls_context.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstring>

#include "tavix/core/errors.h"
#include "tavix/core/trace_log.h"
#include "tavix/platform/socket.h"

namespace TAVIX {
namespace {

struct ContextFree {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
using OwnedContext = std::unique_ptr<SSL_CTX, ContextFree>;

uint32_t Refuse(uint32_t code) {
  ERR_clear_error();
  TavixSetLastError(code);
  return code;
}

// The server takes a client only when it names our protocol.
int SelectProtocol(SSL* /*ssl*/, const unsigned char** out, unsigned char* outLength, const unsigned char* offered,
                   unsigned int offeredLength, void* /*arg*/) {
  const std::string& ours = TlsContext::ProtocolList();
  unsigned char* chosen = nullptr;
  const int found = SSL_select_next_proto(&chosen, outLength, reinterpret_cast<const unsigned char*>(ours.data()),
                                          static_cast<unsigned int>(ours.size()), offered, offeredLength);
  if (found != OPENSSL_NPN_NEGOTIATED) return SSL_TLSEXT_ERR_ALERT_FATAL;
  *out = chosen;
  return SSL_TLSEXT_ERR_OK;
}

int VerifyMode(const TlsSettings& settings, TlsContext::Role role) {
  if (role == TlsContext::Role::kClient) return SSL_VERIFY_PEER;
  switch (settings.clientCertificates) {
    case ClientCertificates::kRequire:
      return SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
    case ClientCertificates::kRequest:
      return SSL_VERIFY_PEER;
    case ClientCertificates::kNone:
      break;
  }
  return SSL_VERIFY_NONE;
}

// This end's certificate and key: both or neither; a server needs them.
uint32_t LoadIdentity(SSL_CTX* ctx, const TlsSettings& settings, TlsContext::Role role) {
  const bool cert = !settings.certificateChainFile.empty(), key = !settings.privateKeyFile.empty();
  if (!cert && !key) return role == TlsContext::Role::kServer ? Refuse(Err::TlsNotConfigured) : 0;
  if (!cert || SSL_CTX_use_certificate_chain_file(ctx, settings.certificateChainFile.c_str()) != 1) {
    return Refuse(Err::TlsCertificateUnreadable);
  }
  if (!key || SSL_CTX_use_PrivateKey_file(ctx, settings.privateKeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    // Loading checks the key against the certificate already.
    const bool mismatch = key && ERR_GET_REASON(ERR_peek_last_error()) == X509_R_KEY_VALUES_MISMATCH;
    return Refuse(mismatch ? Err::TlsKeyMismatch : Err::TlsKeyUnreadable);
  }
  if (SSL_CTX_check_private_key(ctx) != 1) return Refuse(Err::TlsKeyMismatch);
  return 0;
}

uint32_t LoadTrust(SSL_CTX* ctx, const TlsSettings& settings, TlsContext::Role role) {
  if (settings.trustedCaFile.empty()) {
    if (role == TlsContext::Role::kClient) SSL_CTX_set_default_verify_paths(ctx);
    return 0;
  }
  if (SSL_CTX_load_verify_locations(ctx, settings.trustedCaFile.c_str(), nullptr) != 1) {
    return Refuse(Err::TlsCaUnreadable);
  }
  // A server names its CAs, so that a client with several certificates
  // can pick the one that will do.
  if (role == TlsContext::Role::kServer) {
    if (STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(settings.trustedCaFile.c_str())) {
      SSL_CTX_set_client_CA_list(ctx, names);
    }
  }
  return 0;
}

void NoteKernelTls(const TlsSettings& settings) {
  if (!settings.kernelTls) return;
  if (!platform::KernelTlsAvailable()) {
    TraceLog::Write(u"TLS: the kernel offers no TLS (no \"tls\" upper layer protocol); records are encrypted in "
                    u"this process.\n");
  } else {
    TraceLog::Write(u"TLS: kernel TLS is not used by this build; records are encrypted in this process.\n");
  }
}

}  // namespace

const std::string& TlsContext::ProtocolList() {
  static const std::string list("\x07tavix/1", 8);
  return list;
}

uint32_t TlsContext::Make(const TlsSettings& settings, Role role, std::shared_ptr<const TlsContext>& out) {
  ERR_clear_error();
  OwnedContext ctx(SSL_CTX_new(role == Role::kServer ? TLS_server_method() : TLS_client_method()));
  if (!ctx) return Refuse(Err::TlsNotConfigured);
  SSL_CTX_set_min_proto_version(ctx.get(), TLS1_3_VERSION);
  SSL_CTX_set_options(ctx.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET);
  // Nothing resumes a session: no tickets, no cache.
  SSL_CTX_set_num_tickets(ctx.get(), 0);
  SSL_CTX_set_session_cache_mode(ctx.get(), SSL_SESS_CACHE_OFF);
  if (const uint32_t r = LoadIdentity(ctx.get(), settings, role); r != 0) return r;
  if (const uint32_t r = LoadTrust(ctx.get(), settings, role); r != 0) return r;
  SSL_CTX_set_verify(ctx.get(), VerifyMode(settings, role), nullptr);
  if (role == Role::kServer) SSL_CTX_set_alpn_select_cb(ctx.get(), SelectProtocol, nullptr);
  NoteKernelTls(settings);
  out.reset(new TlsContext(ctx.release(), settings, role));
  return 0;
}

TlsContext::~TlsContext() { SSL_CTX_free(m_native); }

std::shared_ptr<const TlsContext> TlsContextSlot::Get() const {
  ScopedLock guard(m_lock);
  return m_context;
}

void TlsContextSlot::Set(std::shared_ptr<const TlsContext> context) {
  ScopedLock guard(m_lock);
  m_context.swap(context);
}

}  // namespace TAVIX
