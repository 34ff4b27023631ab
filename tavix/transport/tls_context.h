// TLS settings made ready for connections: the files read and checked
// once, and the rules every connection of this end follows (TLS 1.3 only,
// no renegotiation, the protocol id "tavix/1" on both ends, the peer's
// certificate verified as the settings ask). Immutable once made, so any
// number of connections share one; a reload makes a new one.
#ifndef TAVIX_TRANSPORT_TLS_CONTEXT_H_
#define TAVIX_TRANSPORT_TLS_CONTEXT_H_

#include <cstdint>
#include <memory>
#include <string>

#include "tavix/core/locks.h"
#include "tavix/transport/tls_settings.h"

struct ssl_ctx_st;

namespace TAVIX {

class TlsContext {
 public:
  enum class Role { kServer, kClient };

  // 0 with the context in `out`, or the code of what failed (also the last
  // error): Err::TlsCertificateUnreadable, TlsKeyUnreadable, TlsKeyMismatch,
  // TlsCaUnreadable, or TlsNotConfigured for a server without a
  // certificate and key.
  static uint32_t Make(const TlsSettings& settings, Role role, std::shared_ptr<const TlsContext>& out);

  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  Role GetRole() const { return m_role; }
  const TlsSettings& Settings() const { return m_settings; }
  ssl_ctx_st* Native() const { return m_native; }

  // The protocol id both ends must name, in the wire form of the
  // protocol-negotiation extension (a length byte, then the id).
  static const std::string& ProtocolList();

 private:
  TlsContext(ssl_ctx_st* native, const TlsSettings& settings, Role role)
      : m_native(native), m_settings(settings), m_role(role) {}

  ssl_ctx_st* m_native;
  TlsSettings m_settings;
  Role m_role;
};

// The context a server end hands to its next connections. Swapped whole
// by a reload; connections keep the one they started with.
class TlsContextSlot {
 public:
  std::shared_ptr<const TlsContext> Get() const;
  void Set(std::shared_ptr<const TlsContext> context);

 private:
  mutable SpinLock m_lock;
  std::shared_ptr<const TlsContext> m_context;  // guarded by m_lock
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TLS_CONTEXT_H_
