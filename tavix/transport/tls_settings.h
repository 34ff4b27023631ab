// What the secure transport (`ssl` endpoints) needs to know: this end's
// certificate and key, the CAs the other end's certificate must come from,
// and how a server treats client certificates. Files are PEM. None of it
// ever appears in an endpoint or proxy string.
#ifndef TAVIX_TRANSPORT_TLS_SETTINGS_H_
#define TAVIX_TRANSPORT_TLS_SETTINGS_H_

#include <cstdint>
#include <string>

namespace TAVIX {

enum class ClientCertificates {
  kNone,     // a server asks for none
  kRequest,  // asked for; a client without one is still served
  kRequire,  // a client without a valid one is refused
};

struct TlsSettings {
  // This end's certificate followed by its intermediates. A server needs
  // one; a client sends one when it has it.
  std::string certificateChainFile;
  std::string privateKeyFile;
  // The CAs that the other end's certificate must chain to. A client with
  // none uses the system's trusted CAs; a server with none cannot verify
  // client certificates.
  std::string trustedCaFile;
  ClientCertificates clientCertificates = ClientCertificates::kNone;
  // A server cuts a connection whose handshake has not ended by then,
  // however the client dribbles its bytes.
  uint32_t handshakeTimeoutMs = 10000;
  // Asks the kernel to encrypt the records where it can; where it cannot,
  // records are encrypted in this process and the log says so once.
  bool kernelTls = false;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TLS_SETTINGS_H_
