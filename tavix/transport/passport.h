// Passports: one transport endpoint (protocol, host, port, call time-out),
// written as an endpoint string such as "tcp -h 10.0.0.1 -p 5678 -t 3000",
// and the maker of the transport objects for that endpoint.
#ifndef TAVIX_TRANSPORT_PASSPORT_H_
#define TAVIX_TRANSPORT_PASSPORT_H_

#include <atomic>
#include <memory>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/platform/socket_address.h"
#include "tavix/transport/passport_type.h"

namespace TAVIX {

class IAcceptor;
class ITransceiver;
class TcpAcceptor;
class TlsContext;
class TlsContextSlot;

// The Create* operations return 0 on success, -1 when a platform call
// failed (its errno is the last error) and -2 with a library code as the
// last error.
class IPassport : public virtual Shared {
 public:
  IPassport() = default;
  // Nothing of its own to copy; the reference count is never copied.
  IPassport(const IPassport&) noexcept : Shared() {}
  IPassport& operator=(const IPassport&) noexcept { return *this; }
  ~IPassport() override = default;

  // Parses an endpoint string into this passport. On failure the last
  // error is Err::BadPassportString and the fields set before the faulty
  // token keep their new values.
  virtual bool Create(const std::u16string& text) = 0;
  virtual bool Create(const std::string& text) = 0;
  // The printed endpoint string, assigned to `out`.
  virtual std::u16string& toString(std::u16string& out) const = 0;
  virtual std::string& toString(std::string& out) const = 0;
  virtual PassportType Type() const { return PASSPORT_NONE; }
  // The call time-out in milliseconds; 0 waits without limit.
  virtual void Timeout(uint32_t timeoutMs) = 0;
  virtual uint32_t Timeout() const = 0;
  virtual bool IsCompress() const { return false; }
  // `holder` may bring a transceiver or acceptor to reuse.
  virtual int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder) const = 0;
  // Every address a client may reach this endpoint at, looked up now: a
  // host name stands for all the addresses it resolves to.
  virtual int32_t ClientAddresses(std::vector<platform::SocketAddress>& out) const = 0;
  // A client transceiver for one of those addresses.
  virtual int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                          const platform::SocketAddress& address) const = 0;
  virtual int32_t CreateServerTransceiver(SmartPtr<ITransceiver>& holder) const = 0;
  virtual int32_t CreateAcceptor(SmartPtr<IAcceptor>& holder) const = 0;
  // True when both would claim the same listening resource.
  virtual bool Conflict(const IPassport& other) const = 0;
  // Passports are never equal nor ordered by value; containers key them by
  // identity.
  virtual bool operator==(const IPassport& other) const = 0;
  virtual bool operator<(const IPassport& other) const = 0;
};

// The fields, grammar, printed form and conflict rule that the IP
// passports share; the protocol word comes from Type().
class IpPassport : public IPassport {
 public:
  static constexpr uint16_t kDefaultPort = 5678;

  IpPassport() = default;
  IpPassport(const IpPassport& other);
  IpPassport& operator=(const IpPassport& other);

  bool Create(const std::u16string& text) override;
  bool Create(const std::string& text) override;
  std::u16string& toString(std::u16string& out) const override;
  std::string& toString(std::string& out) const override;
  void Timeout(uint32_t timeoutMs) override { m_timeout = timeoutMs; }
  uint32_t Timeout() const override { return m_timeout; }
  bool Conflict(const IPassport& other) const override;
  bool operator==(const IPassport& other) const override;
  bool operator<(const IPassport& other) const override;

  // The host text exactly as written after -h; an IPv6 address is written
  // in brackets ([2001:db8::1]), which keep its colons apart from the
  // separators of a proxy string.
  const std::u16string& Host() const { return m_host; }
  // The host's addresses (a name through the resolver): -2 with
  // Err::HostNotFound and a "DNS Error" line in the log when it has none,
  // -2 with Err::BadPassportString for port 0. A UDP client of #any aims
  // at the broadcast address instead.
  int32_t ClientAddresses(std::vector<platform::SocketAddress>& out) const override;
  // A transceiver for the first of those addresses.
  int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder) const override;
  using IPassport::CreateClientTransceiver;
  // This machine on every interface (-h #any, or for TCP its own name).
  bool IsLocal() const { return m_local; }
  // 0 on a server endpoint until its first listening socket is bound:
  // the system picks the port, and the endpoint prints it from then on.
  uint16_t Port() const { return m_port.load(std::memory_order_acquire); }

 protected:
  // Records the port the system chose for an endpoint written with -p 0.
  void SettlePort(uint16_t bound) const;
  // -2 with Err::BadPassportString when the endpoint names no port: a
  // client cannot connect to port 0.
  int32_t RefuseUnsettledPort() const;

 private:
  bool Parse(const std::u16string& text);
  bool ParseHost(std::u16string_view value);
  // Every address of the host, a numeric one without asking the resolver.
  int32_t ResolveHost(std::vector<platform::SocketAddress>& out) const;

 protected:
  // The host text as the resolver takes it: without brackets.
  std::string ResolverHost() const;
  // The host's first address; -2 with Err::HostNotFound when it has none.
  int32_t HostAddress(platform::SocketAddress& out) const;

  std::u16string m_host = u"0.0.0.0";
  bool m_local = false;
  // Settled at most once, from 0, by the first bind (SettlePort); printed
  // concurrently by the adapter's proxy strings.
  mutable std::atomic<uint16_t> m_port{kDefaultPort};
  uint32_t m_timeout = 0;
};

class TcpPassport : public IpPassport {
 public:
  TcpPassport() = default;
  TcpPassport(const TcpPassport& other) : Shared(), IpPassport(other) {}
  TcpPassport& operator=(const TcpPassport& other) {
    IpPassport::operator=(other);
    return *this;
  }

  PassportType Type() const override { return PASSPORT_TCP; }
  using IpPassport::CreateClientTransceiver;
  // A connected TcpTransceiver; the time-out does not limit the connect.
  int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                  const platform::SocketAddress& address) const override;
  // Always -2 with Err::NeedAcceptor: TCP pipes come from an acceptor.
  int32_t CreateServerTransceiver(SmartPtr<ITransceiver>& holder) const override;
  // A listening TcpAcceptor on every interface of both families (local
  // flag) or on one of this machine's own addresses; any other host gives
  // -2 with Err::CannotCreateAcceptor.
  int32_t CreateAcceptor(SmartPtr<IAcceptor>& holder) const override;

 protected:
  // The acceptor CreateAcceptor opens; null (last error set) when this
  // endpoint cannot listen.
  virtual SmartPtr<TcpAcceptor> NewAcceptor() const;
};

// A TCP endpoint whose connections carry TLS ("ssl -h host -p port -t
// ms"). Certificates never come with the endpoint string: the adapter
// hands a server endpoint the slot of its current context, the proxy hands
// a client endpoint the communicator's client context.
class SslPassport : public TcpPassport {
 public:
  SslPassport() = default;
  SslPassport(const SslPassport& other) : Shared(), TcpPassport(other) {}
  SslPassport& operator=(const SslPassport& other) {
    TcpPassport::operator=(other);
    return *this;
  }

  PassportType Type() const override { return PASSPORT_SSL; }
  void SetServerContexts(std::shared_ptr<const TlsContextSlot> slot);
  void SetClientContext(std::shared_ptr<const TlsContext> context);
  using TcpPassport::CreateClientTransceiver;
  // A connected SslTransceiver (the one in `holder` when it is one), not
  // yet through its handshake; -2 with Err::TlsNotConfigured without a
  // client context.
  int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                  const platform::SocketAddress& address) const override;

 protected:
  // An SslAcceptor; null with Err::TlsNotConfigured when the adapter has
  // no server context.
  SmartPtr<TcpAcceptor> NewAcceptor() const override;

 private:
  mutable SpinLock m_contextLock;
  std::shared_ptr<const TlsContextSlot> m_serverSlot;    // guarded by m_contextLock
  std::shared_ptr<const TlsContext> m_clientContext;    // guarded by m_contextLock
};

class UdpPassport : public IpPassport {
 public:
  UdpPassport() = default;
  UdpPassport(const UdpPassport& other) : Shared(), IpPassport(other) {}
  UdpPassport& operator=(const UdpPassport& other) {
    IpPassport::operator=(other);
    return *this;
  }

  PassportType Type() const override { return PASSPORT_UDP; }
  using IpPassport::CreateClientTransceiver;
  // A client-mode UdpTransceiver aimed at `address` (one of
  // ClientAddresses). The one in `holder` is reused when it aims there.
  int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                  const platform::SocketAddress& address) const override;
  // A server-mode UdpTransceiver bound to the host's address, or to every
  // IPv4 interface when the local flag is set (broadcasts are IPv4).
  int32_t CreateServerTransceiver(SmartPtr<ITransceiver>& holder) const override;
  // Always -2 with Err::UnsupportedFunction: datagrams are not accepted.
  int32_t CreateAcceptor(SmartPtr<IAcceptor>& holder) const override;

 private:
  // Closes and reuses a UDP transceiver in `holder` when it aims at
  // `address` in `mode`, else makes one, and opens it. On failure `holder`
  // keeps what it had.
  int32_t OpenInHolder(SmartPtr<ITransceiver>& holder, int32_t mode, const platform::SocketAddress& address) const;
};

// Makes the passport that an endpoint string's protocol word names.
class PassportFactory {
 public:
  // Null on failure: Err::BadPassportString for a string without tokens,
  // Err::UnsupportedFunction for an unknown protocol word, else the error
  // the passport's Create left.
  SmartPtr<IPassport> Create(const std::u16string& text) const;
  SmartPtr<IPassport> Create(const std::string& text) const;
  // Whether `word` names a transport ("tcp", "udp", "ssl"; any case).
  static bool IsProtocolWord(std::u16string_view word);
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_PASSPORT_H_
