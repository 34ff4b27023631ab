// The secure transport end to end: certificates made fresh for the run (two CAs; good, expired, wrong-name and
// foreign certificates), servers and proxies of this process speaking TLS 1.3, and other clients (the openssl
// command, raw sockets) that must be refused one connection at a time while the server goes on serving.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "tavix/client/typed_call.h"
#include "tavix/marshal/blob_bytes.h"
#include "tavix/testing/wire.h"
#include "tavix/transport/ssl_transceiver.h"

namespace TAVIX {
namespace {

using namespace test_wire;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using WhoOp = Operation<u"Who", In<>, Out<std::u16string, std::u16string>>;
using EchoBlobOp = Operation<u"EchoBlob", In<SmartPtr<ITavixBlob>>, Out<SmartPtr<ITavixBlob>>>;
using Secure = Interface<u"::Test::Secure", WhoOp, EchoBlobOp>;
using SecurePrx = TAVIX::Proxy<Secure>;

// Tells the caller who the server thinks it is.
class SecureServant final : public Servant<SecureServant, Secure> {
 public:
  uint32_t Serve(WhoOp, std::u16string& subject, std::u16string& fingerprint, const Context& ctx) {
    if (ctx.peerIdentity != nullptr) {
      subject = ctx.peerIdentity->subject;
      fingerprint = ctx.peerIdentity->fingerprint;
    }
    return 0;
  }
  uint32_t Serve(EchoBlobOp, const SmartPtr<ITavixBlob>& in, SmartPtr<ITavixBlob>& out, const Context&) {
    out = in;
    return 0;
  }
};

std::filesystem::path g_certs;

std::string Cert(const std::string& name) { return (g_certs / name).string(); }

// This end's certificate `name` (none when empty), trusting `ca`.
TlsSettings Settings(const std::string& name, const std::string& ca = "ca.pem",
                     ClientCertificates clients = ClientCertificates::kNone) {
  TlsSettings settings;
  if (!name.empty()) {
    settings.certificateChainFile = Cert(name + ".pem");
    settings.privateKeyFile = Cert(name + ".key");
  }
  if (!ca.empty()) settings.trustedCaFile = Cert(ca);
  settings.clientCertificates = clients;
  return settings;
}

// What a shell command printed, its exit status ignored.
std::string Output(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    pclose(pipe);
  }
  return out;
}

// A server with one ssl and one tcp endpoint on ports of the system's choice.
struct SecureServer {
  explicit SecureServer(const TlsSettings& settings) {
    EXPECT_EQ(0u, adapter->SetTlsSettings(settings));
    adapter->RegisterDisconnectNotification(&Disconnects::Callback, &disconnects);
    adapter->AddServant(MakeShared<SecureServant>(), std::string("S"));
    adapter->Activate();
    sslPort = PortOf("ssl -h 127.0.0.1 -p 0");
    tcpPort = PortOf("tcp -h 127.0.0.1 -p 0");
  }
  ~SecureServer() { communicator->Destroy(); }
  uint16_t PortOf(const std::string& endpoint) {
    const SmartPtr<IpPassport> passport = SmartPtr<IpPassport>::DynamicCast(adapter->AddPassport(endpoint));
    return passport ? passport->Port() : 0;
  }
  std::string Proxy(const std::string& host = "localhost") const {
    return "S:ssl -h " + host + " -p " + std::to_string(sslPort) + " -t 3000";
  }
  SmartPtr<Communicator> communicator = Initialize();
  SmartPtr<ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("Secure"));
  Disconnects disconnects;
  uint16_t sslPort = 0, tcpPort = 0;
};

// A client communicator of its own with `settings`.
struct SecureClient {
  explicit SecureClient(const TlsSettings& settings) { EXPECT_EQ(0u, communicator->SetTlsSettings(settings)); }
  ~SecureClient() { communicator->Destroy(); }
  uint32_t Who(const std::string& proxyString, std::u16string* subject = nullptr) {
    SmartPtr<SecurePrx> proxy = CreateProxy<SecurePrx>(communicator, proxyString);
    std::u16string who, fingerprint;
    const uint32_t r = proxy ? proxy->Call<WhoOp>(who, fingerprint) : TavixGetLastError();
    if (subject != nullptr) *subject = who;
    return r;
  }
  SmartPtr<Communicator> communicator = Initialize();
};

class TlsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_certs = std::filesystem::temp_directory_path() / ("tavix-tls-" + std::to_string(platform::ProcessId()));
    const std::string make = std::string("bash ") + TAVIX_SOURCE_DIR + "/tests/tls/make_certs.sh " + g_certs.string();
    ASSERT_EQ(0, std::system(make.c_str()));
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(g_certs); }
};

// A client with a certificate is served over TLS and the servant sees its subject and fingerprint as the openssl
// command prints them; on tcp, or without a client certificate, the servant sees no identity. An 8 MiB blob comes
// back byte for byte, and small calls never wait behind Nagle.
TEST_F(TlsTest, ServantsSeeTheClientsVerifiedIdentityAndBytesArriveIntact) {
  SecureServer server(Settings("server", "ca.pem", ClientCertificates::kRequest));
  SecureClient alice(Settings("client"));
  SmartPtr<SecurePrx> proxy = CreateProxy<SecurePrx>(alice.communicator, server.Proxy());
  std::u16string subject, fingerprint;
  ASSERT_EQ(0u, proxy->Call<WhoOp>(subject, fingerprint));
  const std::string expected = Output("openssl x509 -in " + Cert("client.pem") +
                                      " -noout -subject -nameopt RFC2253 -fingerprint -sha256");
  EXPECT_EQ(expected, "subject=" + NarrowString(subject) + "\nsha256 Fingerprint=" + NarrowString(fingerprint) + "\n");

  std::u16string none;
  SecureClient anonymous(Settings(""));
  EXPECT_EQ(0u, anonymous.Who(server.Proxy("127.0.0.1"), &none)) << "the certificate names 127.0.0.1 too";
  EXPECT_EQ(u"", none);
  EXPECT_EQ(0u, alice.Who("S:tcp -h 127.0.0.1 -p " + std::to_string(server.tcpPort), &none));
  EXPECT_EQ(u"", none) << "no identity on tcp";

  std::string big(8 << 20, '\0');
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + (i >> 13));
  SmartPtr<ITavixBlob> echoed;
  ASSERT_EQ(0u, proxy->Call<EchoBlobOp>(MakeBlob(big), echoed));
  std::string back;
  ASSERT_EQ(0u, ReadBlob(echoed, back));
  EXPECT_TRUE(back == big) << "8 MiB over ssl, " << back.size() << " bytes back";

  auto slowest = steady_clock::duration::zero();
  for (int i = 0; i < 1000; ++i) {
    const auto start = steady_clock::now();
    ASSERT_EQ(0u, proxy->Call<WhoOp>(subject, fingerprint));
    slowest = std::max(slowest, steady_clock::now() - start);
  }
  EXPECT_LT(slowest, milliseconds(20));
}

// Each refusal ends only its own connection, with its own disconnect reason and one log line naming the peer's
// address and the reason; a good client is served right after.
TEST_F(TlsTest, RefusedHandshakesEndOnlyTheirConnection) {
  struct Case {
    const char* what;
    const char* serverCert;
    ClientCertificates clients;
    const char* clientCert;  // "" for none
    const char* clientCa;
    const char* opensslArgs;  // a client made with the openssl command instead, when not null
    const char* reason;       // in the server's log line
  };
  const Case cases[] = {
      {"expired server certificate", "expired-server", ClientCertificates::kNone, "", "ca.pem", nullptr,
       "certificate expired"},
      {"unknown CA", "server", ClientCertificates::kNone, "", "other-ca.pem", nullptr, "unknown ca"},
      {"name mismatch", "wrong-name", ClientCertificates::kNone, "", "ca.pem", nullptr, "bad certificate"},
      {"client certificate required but missing", "server", ClientCertificates::kRequire, "", "ca.pem", nullptr,
       "peer did not return a certificate"},
      {"expired client certificate", "server", ClientCertificates::kRequire, "expired-client", "ca.pem", nullptr,
       "certificate has expired"},
      {"client certificate of another CA", "server", ClientCertificates::kRequire, "stranger", "ca.pem", nullptr,
       "unable to get local issuer certificate"},
      {"TLS 1.2 client", "server", ClientCertificates::kNone, "", "ca.pem", "-tls1_2", "unsupported protocol"},
      {"another protocol id", "server", ClientCertificates::kNone, "", "ca.pem", "-tls1_3 -alpn h2",
       "no application protocol"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    SecureServer server(Settings(c.serverCert, "ca.pem", c.clients));
    const LogLines log;
    if (c.opensslArgs != nullptr) {
      Output("openssl s_client -connect 127.0.0.1:" + std::to_string(server.sslPort) + " " + c.opensslArgs +
             " -CAfile " + Cert("ca.pem") + " </dev/null 2>&1");
    } else {
      SecureClient client(Settings(c.clientCert, c.clientCa));
      EXPECT_NE(0u, client.Who(server.Proxy()));
    }
    EXPECT_EQ(DISCONNECT_HANDSHAKE_FAILED, server.disconnects.Next());
    std::vector<std::u16string> lines;
    Eventually([&] { return !(lines = log.Containing(u"ERROR: TLS handshake with client ")).empty(); });
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::u16string::npos, lines[0].find(u"(127.0.0.1:")) << NarrowString(lines[0]);
    EXPECT_NE(std::u16string::npos, lines[0].find(WiddenString(c.reason))) << NarrowString(lines[0]);
    SecureClient good(Settings("client"));
    EXPECT_EQ(0u, good.Who("S:tcp -h 127.0.0.1 -p " + std::to_string(server.tcpPort))) << "the server goes on";
    if (std::string(c.serverCert) == "server") {
      EXPECT_EQ(0u, good.Who(server.Proxy()));
    }
  }
}

// Bytes that are no TLS end their connection at once: a plaintext request on an ssl port, a forged record after the
// handshake, and a TLS client on a tcp port, which fails with its own code instead of waiting for its time-out.
TEST_F(TlsTest, BytesThatAreNoTlsFailFast) {
  SecureServer server(Settings("server"));
  SecureClient client(Settings(""));
  RawClient plain;
  ASSERT_TRUE(plain.Connect(server.sslPort));
  const auto start = steady_clock::now();
  ASSERT_TRUE(plain.Send(Request(1, u"S", u"Who")));
  EXPECT_TRUE(plain.Receive(1).empty()) << "closed without a reply";
  EXPECT_LT(steady_clock::now() - start, milliseconds(1000));
  EXPECT_EQ(DISCONNECT_HANDSHAKE_FAILED, server.disconnects.Next());

  std::shared_ptr<const TlsContext> context;
  ASSERT_EQ(0u, TlsContext::Make(Settings(""), TlsContext::Role::kClient, context));
  SmartPtr<ITransceiver> forger = MakeShared<SslTransceiver>(context, "localhost");
  std::string failure;
  ASSERT_EQ(0, TcpTransceiver::Connect(Loopback(server.sslPort), forger));
  ASSERT_EQ(0, forger->Establish(failure)) << failure;
  uint8_t validation[HEADER_SIZE];
  ASSERT_EQ(HEADER_SIZE, forger->Recvn(validation, HEADER_SIZE));
  const int32_t handle = forger->GetHandle();
  const Bytes forged = {0x17, 0x03, 0x03, 0x00, 0x20, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                        17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
  ASSERT_EQ(static_cast<int32_t>(forged.size()),
            platform::SocketView(handle).Send(forged.data(), static_cast<int32_t>(forged.size())));
  EXPECT_NE(-1, server.disconnects.Next());
  EXPECT_EQ(0u, client.Who(server.Proxy())) << "the server goes on";

  const auto tlsToTcp = steady_clock::now();
  EXPECT_EQ(Err::TlsHandshakeFailed, client.Who("S:ssl -h 127.0.0.1 -p " + std::to_string(server.tcpPort) + " -t 3000"));
  EXPECT_LT(steady_clock::now() - tlsToTcp, milliseconds(1000));
}

// Clients that never finish their handshake are cut at the deadline, reported in bursts, while others are served.
TEST_F(TlsTest, SilentClientsAreCutAtTheHandshakeDeadline) {
  TlsSettings settings = Settings("server");
  settings.handshakeTimeoutMs = 1500;
  SecureServer server(settings);
  const LogLines log;
  std::vector<RawClient> silent(50);
  for (RawClient& c : silent) ASSERT_TRUE(c.Connect(server.sslPort));
  SecureClient good(Settings(""));
  const auto start = steady_clock::now();
  EXPECT_EQ(0u, good.Who(server.Proxy()));
  EXPECT_LT(steady_clock::now() - start, milliseconds(1000)) << "served while 50 handshakes wait";
  for (RawClient& c : silent) EXPECT_TRUE(c.Receive(1).empty());
  EXPECT_GE(steady_clock::now() - start, milliseconds(1400));
  const std::vector<std::u16string> lines = log.Containing(u"no complete handshake within 1500 ms");
  EXPECT_GE(lines.size(), 1u);
  EXPECT_LE(lines.size(), 3u) << "a flood is written in bursts";
}

// Settings that cannot be used are refused with their own codes; an ssl endpoint needs settings, conflicts with a
// tcp endpoint on its port, and an adapter can refuse udp; a reload swaps files in for new connections only, and a
// failed reload keeps what was there. Kernel TLS asked for where the kernel has none says so once.
TEST_F(TlsTest, SettingsReloadAndEndpointRules) {
  SmartPtr<Communicator> communicator = Initialize();
  SmartPtr<ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("Rules"));
  adapter->Activate();
  TlsSettings bad = Settings("server");
  bad.certificateChainFile = Cert("missing.pem");
  EXPECT_EQ(Err::TlsCertificateUnreadable, adapter->SetTlsSettings(bad));
  bad = Settings("server");
  bad.privateKeyFile = Cert("client.key");
  EXPECT_EQ(Err::TlsKeyMismatch, adapter->SetTlsSettings(bad));
  EXPECT_EQ(Err::TlsCaUnreadable, adapter->SetTlsSettings(Settings("server", "missing.pem")));
  EXPECT_EQ(Err::TlsNotConfigured, Refused([&] { return adapter->AddPassport(std::string("ssl -h 127.0.0.1 -p 0")); }));
  const LogLines log;
  TlsSettings kernel = Settings("server");
  kernel.kernelTls = true;
  ASSERT_EQ(0u, adapter->SetTlsSettings(kernel));
  if (!platform::KernelTlsAvailable()) {
    EXPECT_EQ(1u, log.Containing(u"TLS: the kernel offers no TLS").size());
  }
  const SmartPtr<IpPassport> ssl =
      SmartPtr<IpPassport>::DynamicCast(adapter->AddPassport(std::string("ssl -h 127.0.0.1 -p 0")));
  ASSERT_TRUE(ssl);
  EXPECT_EQ(Err::PassportConflict,
            Refused([&] { return adapter->AddPassport("tcp -h 127.0.0.1 -p " + std::to_string(ssl->Port())); }));
  adapter->RefuseUdpEndpoints(true);
  EXPECT_EQ(Err::UdpRefused, Refused([&] { return adapter->AddPassport(std::string("udp -h 127.0.0.1 -p 0")); }));
  adapter->AddServant(MakeShared<SecureServant>(), std::string("S"));

  const std::string proxyString = "S:ssl -h localhost -p " + std::to_string(ssl->Port()) + " -t 3000";
  SecureClient client(Settings(""));
  SmartPtr<SecurePrx> open = CreateProxy<SecurePrx>(client.communicator, proxyString);
  std::u16string who, fingerprint;
  ASSERT_EQ(0u, open->Call<WhoOp>(who, fingerprint));
  // The files change under the adapter: the server's certificate now names another host.
  std::filesystem::copy_file(Cert("server.pem"), Cert("saved.pem"));
  std::filesystem::copy_file(Cert("wrong-name.pem"), Cert("server.pem"), std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(Err::TlsKeyMismatch, adapter->ReloadTls()) << "the key file did not change with it";
  EXPECT_TRUE(log.Has(u"ERROR: TLS reload failed: 0x2000040C TLS private key does not match the certificate. The "
                      u"settings in use stay."));
  EXPECT_EQ(0u, client.Who(proxyString)) << "the old settings still serve new connections";
  std::filesystem::copy_file(Cert("wrong-name.key"), Cert("server.key"), std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(0u, adapter->ReloadTls());
  EXPECT_EQ(Err::TlsHandshakeFailed, client.Who(proxyString)) << "a new connection meets the new certificate";
  EXPECT_EQ(0u, open->Call<WhoOp>(who, fingerprint)) << "an open connection keeps its own";
  std::filesystem::copy_file(Cert("saved.pem"), Cert("server.pem"), std::filesystem::copy_options::overwrite_existing);
  communicator->Destroy();
}

// Reloads while clients keep connecting: every new connection gets one whole context, old or new, and every call
// succeeds.
TEST_F(TlsTest, ReloadsUnderLoadServeEveryConnection) {
  SecureServer server(Settings("server"));
  std::atomic<bool> stop{false};
  std::atomic<int> calls{0}, failures{0};
  std::vector<std::thread> clients;
  for (int t = 0; t < 3; ++t) {
    clients.emplace_back([&] {
      SecureClient client(Settings("client"));
      while (!stop.load()) {
        (client.Who(server.Proxy()) == 0 ? calls : failures).fetch_add(1);
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(0u, server.adapter->ReloadTls());
    std::this_thread::sleep_for(milliseconds(10));
  }
  stop.store(true);
  for (std::thread& t : clients) t.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_GT(calls.load(), 20);
}

}  // namespace
}  // namespace TAVIX
