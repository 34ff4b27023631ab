#include "tavix/transport/passport.h"

#include <algorithm>
#include <climits>
#include <string_view>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/host_info.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/text.h"
#include "tavix/core/trace_log.h"
#include "tavix/platform/last_error.h"
#include "tavix/platform/socket.h"
#include "tavix/transport/ssl_acceptor.h"
#include "tavix/transport/ssl_transceiver.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/tcp_transceiver.h"
#include "tavix/transport/udp_transceiver.h"

namespace TAVIX {
namespace {

constexpr std::u16string_view kSeparators = u" \t\n\r";

std::vector<std::u16string_view> Tokens(std::u16string_view text) {
  std::vector<std::u16string_view> tokens;
  size_t start = text.find_first_not_of(kSeparators);
  while (start != std::u16string_view::npos) {
    const size_t end = std::min(text.find_first_of(kSeparators, start), text.size());
    tokens.push_back(text.substr(start, end - start));
    start = text.find_first_not_of(kSeparators, end);
  }
  return tokens;
}

char16_t FoldCase(char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c; }

bool EqualsNoCase(std::u16string_view a, std::u16string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char16_t x, char16_t y) { return FoldCase(x) == FoldCase(y); });
}

// A leading decimal number: optional sign, digits up to the first other
// character, 0 without digits. Values beyond 32 bits saturate.
int32_t ReadDecimal(std::u16string_view text) {
  size_t pos = 0;
  bool negative = false;
  if (pos < text.size() && (text[pos] == u'+' || text[pos] == u'-')) negative = text[pos++] == u'-';
  int64_t value = 0;
  for (; pos < text.size() && text[pos] >= u'0' && text[pos] <= u'9'; ++pos) {
    value = std::min<int64_t>(value * 10 + (text[pos] - u'0'), int64_t{INT32_MAX} + 1);
  }
  if (negative) value = -value;
  return static_cast<int32_t>(std::clamp<int64_t>(value, INT32_MIN, INT32_MAX));
}

std::u16string_view ProtocolWord(PassportType type) {
  switch (type) {
    case PASSPORT_UDP:
      return u"udp";
    case PASSPORT_SSL:
      return u"ssl";
    default:
      return u"tcp";
  }
}

// TCP and TLS endpoints both listen on TCP ports.
bool IsStream(PassportType type) { return type == PASSPORT_TCP || type == PASSPORT_SSL; }

bool IsBracketed(std::u16string_view host) { return host.size() >= 2 && host.front() == u'[' && host.back() == u']'; }

// Only an IPv6 address goes in brackets, and only there may a host hold a
// colon: a proxy string separates its endpoints with colons.
bool IsWellFormedHost(std::u16string_view host) {
  if (!IsBracketed(host)) return host.find_first_of(u"[]:") == std::u16string_view::npos;
  platform::SocketAddress address;
  return platform::SocketAddress::ParseNumeric(NarrowString(host.substr(1, host.size() - 2)).c_str(), 0, address) &&
         address.Family() == platform::AddressFamily::kIPv6;
}

}  // namespace

IpPassport::IpPassport(const IpPassport& other)
    : Shared(),
      IPassport(other),
      m_host(other.m_host),
      m_local(other.m_local),
      m_port(other.Port()),
      m_timeout(other.m_timeout) {}

IpPassport& IpPassport::operator=(const IpPassport& other) {
  m_host = other.m_host;
  m_local = other.m_local;
  m_port.store(other.Port());
  m_timeout = other.m_timeout;
  return *this;
}

bool IpPassport::Create(const std::u16string& text) {
  if (!Parse(text)) {
    TavixSetLastError(Err::BadPassportString);
    return false;
  }
  return true;
}

bool IpPassport::Create(const std::string& text) { return Create(WiddenString(text)); }

// The protocol word and every -h and -p count; a complete endpoint has at
// least three. The protocol word may only come before -h and -p.
bool IpPassport::Parse(const std::u16string& text) {
  const std::vector<std::u16string_view> tokens = Tokens(text);
  if (tokens.empty()) return false;
  int32_t counter = 0;
  for (size_t i = 0; i < tokens.size(); ++i) {
    const std::u16string_view token = tokens[i];
    if (EqualsNoCase(token, ProtocolWord(Type()))) {
      if (counter != 0) return false;
      counter = 1;
      continue;
    }
    if (token.size() != 2 || token[0] != u'-') return false;
    std::u16string_view value;
    if (i + 1 < tokens.size() && tokens[i + 1][0] != u'-') value = tokens[++i];
    switch (token[1]) {
      case u'h':
        if (!ParseHost(value)) return false;
        ++counter;
        break;
      case u'p': {
        // 0 only as written: a server then listens on a port the system
        // picks; anything else unreadable is refused.
        const auto port = static_cast<uint16_t>(ReadDecimal(value));
        if (port == 0 && value != u"0") return false;
        m_port.store(port);
        ++counter;
        break;
      }
      case u't': {
        const auto timeout = value == u"0" ? 0 : static_cast<uint32_t>(ReadDecimal(value));
        if (timeout == 0 && value != u"0") return false;
        m_timeout = timeout;
        break;
      }
      default:
        return false;
    }
  }
  return counter >= 3;
}

bool IpPassport::ParseHost(std::u16string_view value) {
  if (value.empty()) return false;
  if (value[0] == u'#') {
    if (value != u"#any") return false;
    m_local = true;
    return true;
  }
  if (!IsWellFormedHost(value)) return false;
  m_host = value;
  // A TCP server named by this machine's own name listens everywhere.
  m_local = IsStream(Type()) && EqualsNoCase(value, GetLocalHostName());
  return true;
}

std::u16string& IpPassport::toString(std::u16string& out) const {
  std::u16string text(ProtocolWord(Type()));
  text += u" -h ";
  text += m_local ? GetLocalHostName() : m_host;
  text += u" -p ";
  text += WiddenString(std::to_string(Port()));
  text += u" -t ";
  text += WiddenString(std::to_string(static_cast<int32_t>(m_timeout)));
  out = std::move(text);
  return out;
}

std::string& IpPassport::toString(std::string& out) const {
  std::u16string wide;
  out = NarrowString(toString(wide));
  return out;
}

bool IpPassport::Conflict(const IPassport& other) const {
  if (other.Type() != Type() && !(IsStream(other.Type()) && IsStream(Type()))) return false;
  const auto* ip = dynamic_cast<const IpPassport*>(&other);
  if (ip == nullptr) return false;
  if (!m_local && !ip->m_local && !EqualsNoCase(m_host, ip->m_host)) return false;
  // Two endpoints that let the system pick never pick the same port.
  return Port() != 0 && Port() == ip->Port();
}

void IpPassport::SettlePort(uint16_t bound) const {
  uint16_t unsettled = 0;
  m_port.compare_exchange_strong(unsettled, bound, std::memory_order_acq_rel);
}

int32_t IpPassport::RefuseUnsettledPort() const {
  TavixSetLastError(Err::BadPassportString);
  return -2;
}

std::string IpPassport::ResolverHost() const {
  const std::u16string_view host = m_host;
  return NarrowString(IsBracketed(host) ? host.substr(1, host.size() - 2) : host);
}

int32_t IpPassport::ResolveHost(std::vector<platform::SocketAddress>& out) const {
  const std::string host = ResolverHost();
  out.clear();
  platform::SocketAddress numeric;
  if (platform::SocketAddress::ParseNumeric(host.c_str(), Port(), numeric)) {
    out.push_back(numeric);
    return 0;
  }
  if (platform::ResolveHost(host.c_str(), Port(), out)) return 0;
  TavixSetLastError(Err::HostNotFound);
  TraceLog::Write(u"DNS Error:%hs\n", host.c_str());
  return -2;
}

int32_t IpPassport::HostAddress(platform::SocketAddress& out) const {
  std::vector<platform::SocketAddress> addresses;
  if (const int32_t r = ResolveHost(addresses); r != 0) return r;
  out = addresses.front();
  return 0;
}

int32_t IpPassport::ClientAddresses(std::vector<platform::SocketAddress>& out) const {
  if (Port() == 0) return RefuseUnsettledPort();
  if (!IsLocal() || Type() != PASSPORT_UDP) return ResolveHost(out);
  InetAddr broadcast;
  broadcast.SetBroadcast(Port());
  out.assign(1, broadcast.ToSocketAddress());
  return 0;
}

int32_t IpPassport::CreateClientTransceiver(SmartPtr<ITransceiver>& holder) const {
  std::vector<platform::SocketAddress> addresses;
  if (const int32_t r = ClientAddresses(addresses); r != 0) return r;
  return CreateClientTransceiver(holder, addresses.front());
}

bool IpPassport::operator==(const IPassport& /*other*/) const { return false; }

bool IpPassport::operator<(const IPassport& /*other*/) const { return false; }

int32_t TcpPassport::CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                             const platform::SocketAddress& address) const {
  if (holder && holder->Type() != PASSPORT_TCP) {
    holder->Close();
    holder = nullptr;
  }
  return TcpTransceiver::Connect(address, holder);
}

SmartPtr<TcpAcceptor> TcpPassport::NewAcceptor() const { return MakeShared<TcpAcceptor>(); }

int32_t TcpPassport::CreateServerTransceiver(SmartPtr<ITransceiver>& /*holder*/) const {
  TavixSetLastError(Err::NeedAcceptor);
  return -2;
}

int32_t TcpPassport::CreateAcceptor(SmartPtr<IAcceptor>& holder) const {
  if (holder && holder->Type() != Type()) {
    holder->Close();
    holder = nullptr;
  }
  // An IPv4 host must be one of this machine's addresses; an IPv6 one is
  // found out by the bind.
  const bool ipv6 = IsBracketed(Host());
  platform::SocketAddress address = platform::SocketAddress::Any(platform::AddressFamily::kIPv6, Port());
  if (!IsLocal()) {
    const std::vector<std::u16string>& own = GetLocalHostIP();
    if (!ipv6 && std::find(own.begin(), own.end(), Host()) == own.end()) {
      TavixSetLastError(Err::CannotCreateAcceptor);
      return -2;
    }
    if (const int32_t r = HostAddress(address); r != 0) return r;
  }
  SmartPtr<TcpAcceptor> acceptor = SmartPtr<TcpAcceptor>::DynamicCast(holder);
  if (acceptor) {
    acceptor->Close();
  } else {
    acceptor = NewAcceptor();
    if (!acceptor) return -2;
  }
  acceptor->SetAddress(address);
  if (acceptor->Open() != 0) {
    if (!ipv6 || !platform::IsForeignAddress(platform::LastError())) return -1;
    TavixSetLastError(Err::CannotCreateAcceptor);
    return -2;
  }
  SettlePort(acceptor->Address().Port());
  holder = acceptor;
  return 0;
}

int32_t UdpPassport::OpenInHolder(SmartPtr<ITransceiver>& holder, int32_t mode,
                                  const platform::SocketAddress& address) const {
  if (holder && holder->Type() != PASSPORT_UDP) {
    holder->Close();
    holder = nullptr;
  }
  SmartPtr<UdpTransceiver> transceiver = SmartPtr<UdpTransceiver>::DynamicCast(holder);
  // A server reopens where it was; a client keeps its socket only for the
  // same destination.
  if (transceiver && mode == UdpTransceiver::UDP_MODE_CLIENT && !(transceiver->Endpoint() == address)) {
    transceiver = nullptr;
  }
  if (transceiver) {
    transceiver->Close();
  } else {
    transceiver = MakeShared<UdpTransceiver>(static_cast<UdpTransceiver::Mode>(mode), address);
  }
  if (transceiver->Open() != 0) return -1;
  if (mode == UdpTransceiver::UDP_MODE_SERVER) SettlePort(transceiver->Endpoint().Port());
  holder = transceiver;
  return 0;
}

int32_t UdpPassport::CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                             const platform::SocketAddress& address) const {
  return OpenInHolder(holder, UdpTransceiver::UDP_MODE_CLIENT, address);
}

int32_t UdpPassport::CreateServerTransceiver(SmartPtr<ITransceiver>& holder) const {
  platform::SocketAddress address = platform::SocketAddress::Any(platform::AddressFamily::kIPv4, Port());
  if (!IsLocal()) {
    if (const int32_t r = HostAddress(address); r != 0) return r;
  }
  return OpenInHolder(holder, UdpTransceiver::UDP_MODE_SERVER, address);
}

int32_t UdpPassport::CreateAcceptor(SmartPtr<IAcceptor>& /*holder*/) const {
  TavixSetLastError(Err::UnsupportedFunction);
  return -2;
}

void SslPassport::SetServerContexts(std::shared_ptr<const TlsContextSlot> slot) {
  ScopedLock guard(m_contextLock);
  m_serverSlot = std::move(slot);
}

void SslPassport::SetClientContext(std::shared_ptr<const TlsContext> context) {
  ScopedLock guard(m_contextLock);
  m_clientContext = std::move(context);
}

int32_t SslPassport::CreateClientTransceiver(SmartPtr<ITransceiver>& holder,
                                             const platform::SocketAddress& address) const {
  std::shared_ptr<const TlsContext> context;
  {
    ScopedLock guard(m_contextLock);
    context = m_clientContext;
  }
  if (!context) {
    TavixSetLastError(Err::TlsNotConfigured);
    return -2;
  }
  SmartPtr<SslTransceiver> ssl = SmartPtr<SslTransceiver>::DynamicCast(holder);
  if (ssl) {
    ssl->SetClient(context, ResolverHost());
  } else {
    if (holder) holder->Close();
    holder = MakeShared<SslTransceiver>(context, ResolverHost());
  }
  return TcpTransceiver::Connect(address, holder);
}

SmartPtr<TcpAcceptor> SslPassport::NewAcceptor() const {
  ScopedLock guard(m_contextLock);
  if (!m_serverSlot || !m_serverSlot->Get()) {
    TavixSetLastError(Err::TlsNotConfigured);
    return nullptr;
  }
  return MakeShared<SslAcceptor>(m_serverSlot);
}

SmartPtr<IPassport> PassportFactory::Create(const std::u16string& text) const {
  const std::vector<std::u16string_view> tokens = Tokens(text);
  if (tokens.empty()) {
    TavixSetLastError(Err::BadPassportString);
    return nullptr;
  }
  SmartPtr<IPassport> passport;
  if (EqualsNoCase(tokens.front(), ProtocolWord(PASSPORT_TCP))) {
    passport = MakeShared<TcpPassport>();
  } else if (EqualsNoCase(tokens.front(), ProtocolWord(PASSPORT_UDP))) {
    passport = MakeShared<UdpPassport>();
  } else if (EqualsNoCase(tokens.front(), ProtocolWord(PASSPORT_SSL))) {
    passport = MakeShared<SslPassport>();
  } else {
    TavixSetLastError(Err::UnsupportedFunction);
    return nullptr;
  }
  if (!passport->Create(text)) return nullptr;
  return passport;
}

SmartPtr<IPassport> PassportFactory::Create(const std::string& text) const { return Create(WiddenString(text)); }

bool PassportFactory::IsProtocolWord(std::u16string_view word) {
  return EqualsNoCase(word, ProtocolWord(PASSPORT_TCP)) || EqualsNoCase(word, ProtocolWord(PASSPORT_UDP)) ||
         EqualsNoCase(word, ProtocolWord(PASSPORT_SSL));
}

}  // namespace TAVIX
