// The TCP connection factory on its own: clients hung up at shutdown or while the adapter goes, and an accept loop
// that stops promptly on one address and on every interface. Serving, loop endings and reaping are covered end to end
// by the server tests.
#include "tavix/adapter/tcp_connection_factory.h"

#include "tavix/core/host_info.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/passport.h"

namespace TAVIX {
namespace {

using namespace test_wire;

class TcpConnectionFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override { m_adapter->RegisterDisconnectNotification(&Disconnects::Callback, &m_disconnects); }
  void TearDown() override {
    if (m_factory) m_factory->Destroy(), m_factory->WaitUntilDestroy(platform::kNoDeadline);
    m_adapter->RegisterDisconnectNotification(nullptr, nullptr);
  }

  // A factory for `host` and a port that was free.
  void MakeFactory(const std::string& host) {
    m_host = host == "#any" ? "127.0.0.1" : host;
    m_port = FreePort();
    SmartPtr<IPassport> passport = PassportFactory().Create("tcp -h " + host + " -p " + std::to_string(m_port));
    ASSERT_TRUE(passport);
    m_factory = MakeShared<TcpConnectionFactory>(passport, m_adapter);
  }
  void Connect(RawClient& client) {
    ASSERT_TRUE(client.Connect(m_port, m_host));
    EXPECT_EQ(Header(MSG_VALIDATE, HEADER_SIZE), client.Receive(HEADER_SIZE));
  }
  // Interrupt must wake the accept loop long before its tick.
  void ExpectPromptly(const std::function<void()>& shutdown) {
    const uint64_t start = platform::TickCountMs();
    shutdown();
    EXPECT_LT(MsSince(start), TcpConnectionFactory::kAcceptTickMs / 2);
  }

  Disconnects m_disconnects;
  SmartPtr<ObjectAdapter> m_adapter = MakeShared<ObjectAdapter>();
  SmartPtr<TcpConnectionFactory> m_factory;
  std::string m_host;
  uint16_t m_port = 0;
};

// On one address and on every interface the accept loop stops long before its tick, whether destroyed or dropped,
// and the port opens again.
TEST_F(TcpConnectionFactoryTest, ShutdownEndsClientsPromptlyAndReactivates) {
  ASSERT_FALSE(GetLocalHostIP().empty());
  for (const std::string& host : {NarrowString(GetLocalHostIP().front()), std::string("#any")}) {
    MakeFactory(host);
    m_factory->WaitUntilDestroy(platform::kNoDeadline);  // never activated: nothing to do
    ASSERT_TRUE(m_factory->Activate());
    ASSERT_TRUE(m_factory->Activate());
    RawClient a, b, again;
    Connect(a);
    Connect(b);
    EXPECT_TRUE(Eventually([&] { return m_factory->RefCount() == 3; })) << "each live connection holds its factory";
    ExpectPromptly([&] { m_factory->Destroy(), m_factory->WaitUntilDestroy(platform::kNoDeadline); });
    EXPECT_TRUE(a.ClosedByPeer(2000));
    EXPECT_TRUE(b.ClosedByPeer(2000));
    EXPECT_EQ(1, m_factory->RefCount());
    // Deactivated while waiting: the reason is passed on either way.
    EXPECT_NE(-1, m_disconnects.Next());
    EXPECT_NE(-1, m_disconnects.Next());

    // Nobody listens now; then the same port opens again.
    EXPECT_FALSE(RawClient().Connect(m_port, m_host));
    ASSERT_TRUE(m_factory->Activate());
    Connect(again);
    m_factory->Destroy(), m_factory->WaitUntilDestroy(platform::kNoDeadline);
    EXPECT_NE(-1, m_disconnects.Next());
    ASSERT_TRUE(m_factory->Activate());
    ExpectPromptly([&] { m_factory = nullptr; });
    EXPECT_FALSE(RawClient().Connect(m_port, m_host));
  }
}

TEST_F(TcpConnectionFactoryTest, ClientOfDestroyingAdapterIsHungUpAtOnce) {
  MakeFactory("#any");
  ASSERT_TRUE(m_factory->Activate());
  m_adapter->Destroy();
  ASSERT_EQ(ADAPTER_DESTROYING, m_adapter->GetStatus());
  RawClient client;
  ASSERT_TRUE(client.Connect(m_port));
  EXPECT_TRUE(client.ClosedByPeer(2000)) << "validated or left open";
  EXPECT_EQ(1, m_factory->RefCount());
}

}  // namespace
}  // namespace TAVIX
