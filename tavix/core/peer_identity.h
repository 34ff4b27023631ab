// Who is at the other end of a connection, as its verified certificate
// says. Built once per connection; a request reads it in place.
#ifndef TAVIX_CORE_PEER_IDENTITY_H_
#define TAVIX_CORE_PEER_IDENTITY_H_

#include <string>

namespace TAVIX {

struct PeerIdentity {
  // The certificate's subject in RFC 2253 form ("CN=alice,O=Example").
  std::u16string subject;
  // SHA-256 of the whole certificate (DER), upper-case hex pairs joined by
  // colons, as `openssl x509 -fingerprint -sha256` prints it.
  std::u16string fingerprint;

  bool IsEmpty() const { return subject.empty() && fingerprint.empty(); }
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_PEER_IDENTITY_H_
