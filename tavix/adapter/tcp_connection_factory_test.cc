#include "tavix/adapter/tcp_connection_factory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/core/errors.h"
#include "tavix/core/host_info.h"
#include "tavix/core/text.h"
#include "tavix/marshal/message_header.h"
#include "tavix/transport/passport.h"
#include "tavix/transport/transport_test_util.h"

namespace TAVIX {
namespace {

using testing::MsSince;
using Clock = std::chrono::steady_clock;

// The reasons the adapter's disconnect notification reported.
struct Reasons {
  static void Record(void* context, TavixDisconnectReason reason) {
    auto* self = static_cast<Reasons*>(context);
    std::lock_guard guard(self->mutex);
    self->seen.push_back(reason);
  }

  // The next reason, or -1 when none came within two seconds.
  int32_t Next() {
    const bool came = testing::Eventually([this] {
      std::lock_guard guard(mutex);
      return seen.size() > taken;
    });
    if (!came) return -1;
    std::lock_guard guard(mutex);
    return seen[taken++];
  }

  std::mutex mutex;
  std::vector<int32_t> seen;
  size_t taken = 0;
};

class TcpConnectionFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(GetLocalHostIP().empty());
    m_adapter = MakeShared<ObjectAdapter>();
    m_adapter->RegisterDisconnectNotification(&Reasons::Record, &m_reasons);
  }

  void TearDown() override {
    if (m_factory) {
      m_factory->Destroy();
      m_factory->WaitUntilDestroy();
    }
    m_adapter->RegisterDisconnectNotification(nullptr, nullptr);
  }

  // A factory for this machine's own address and a port that was free.
  void MakeFactory(const std::u16string& host = GetLocalHostIP().front()) {
    m_passport = PassportFactory().Create(u"tcp -h " + host + u" -p " +
                                          WiddenString(std::to_string(testing::FreePort())));
    ASSERT_TRUE(m_passport);
    m_factory = MakeShared<TcpConnectionFactory>(m_passport, m_adapter);
  }

  // A client; when `served`, it first receives the validation header.
  SmartPtr<ITransceiver> Connect(bool served = true) {
    SmartPtr<ITransceiver> client;
    EXPECT_EQ(0, m_passport->CreateClientTransceiver(client));
    if (!served) return client;
    uint8_t bytes[HEADER_SIZE] = {};
    EXPECT_EQ(1, client->WaitForRecv(2000));
    EXPECT_EQ(HEADER_SIZE, client->Recvn(bytes, HEADER_SIZE));
    const uint8_t expected[HEADER_SIZE] = {0x58, 0x47, 0x52, 0x51, 0x01, 0x02, 0x01, 0x01, 0x02, 0x00,
                                           0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x9A};
    EXPECT_EQ(0, std::memcmp(expected, bytes, HEADER_SIZE));
    return client;
  }

  // The next thing arriving is the end of the stream.
  static void ExpectHangUp(const SmartPtr<ITransceiver>& client) {
    ASSERT_EQ(1, client->WaitForRecv(2000));
    char byte = 0;
    EXPECT_EQ(0, client->Recv(&byte, 1));
  }

  bool WaitForFactoryRefs(int32_t count) {
    return testing::Eventually([&] { return m_factory->RefCount() == count; });
  }

  // Destroy and wait; Interrupt must wake the accept loop long before its tick.
  void ExpectPromptShutdown() {
    const auto start = Clock::now();
    m_factory->Destroy();
    m_factory->WaitUntilDestroy();
    EXPECT_LT(MsSince(start), static_cast<int64_t>(TcpConnectionFactory::kAcceptTickMs) / 2);
  }

  Reasons m_reasons;
  SmartPtr<ObjectAdapter> m_adapter;
  SmartPtr<IPassport> m_passport;
  SmartPtr<TcpConnectionFactory> m_factory;
};

TEST_F(TcpConnectionFactoryTest, ServesClientsAndReportsTheirEnd) {
  MakeFactory();
  m_factory->WaitUntilDestroy();  // never activated: nothing to do
  ASSERT_TRUE(m_factory->Activate());
  ASSERT_TRUE(m_factory->Activate());

  SmartPtr<ITransceiver> client = Connect();
  // The close message ends the connection normally.
  MsgHeaderData header;
  header.Init(MSG_CLOSE);
  uint8_t encoded[HEADER_SIZE];
  header.Encode(encoded);
  ASSERT_EQ(HEADER_SIZE, client->Send(encoded, HEADER_SIZE));
  EXPECT_EQ(DISCONNECT_NORMAL, m_reasons.Next());

  Connect()->Close();
  EXPECT_EQ(DISCONNECT_NETWORK_CLOSED, m_reasons.Next());
}

// Each live connection holds its factory; a reaped one lets go. Ended
// connections are reaped when the accept loop next wakes, here for a new
// client rather than after the idle tick.
TEST_F(TcpConnectionFactoryTest, EndedConnectionsAreReapedOnTheNextPass) {
  MakeFactory();
  ASSERT_TRUE(m_factory->Activate());
  ASSERT_EQ(1, m_factory->RefCount());
  SmartPtr<ITransceiver> first = Connect();
  EXPECT_TRUE(WaitForFactoryRefs(2));
  first->Close();
  EXPECT_EQ(DISCONNECT_NETWORK_CLOSED, m_reasons.Next());
  EXPECT_EQ(2, m_factory->RefCount());  // ended, not yet reaped

  SmartPtr<ITransceiver> second = Connect();
  EXPECT_TRUE(WaitForFactoryRefs(2));  // the first reaped, the second live
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(2, m_factory->RefCount());
}

TEST_F(TcpConnectionFactoryTest, ShutdownEndsClientsPromptlyAndReactivates) {
  MakeFactory();
  ASSERT_TRUE(m_factory->Activate());
  SmartPtr<ITransceiver> a = Connect();
  SmartPtr<ITransceiver> b = Connect();
  EXPECT_TRUE(WaitForFactoryRefs(3));
  ExpectPromptShutdown();
  ExpectHangUp(a);
  ExpectHangUp(b);
  EXPECT_EQ(1, m_factory->RefCount());
  // Deactivated while waiting: the reason is passed on either way.
  EXPECT_NE(-1, m_reasons.Next());
  EXPECT_NE(-1, m_reasons.Next());

  // Nobody listens now; then the same port opens again.
  SmartPtr<ITransceiver> refused;
  EXPECT_EQ(-1, m_passport->CreateClientTransceiver(refused));
  ASSERT_TRUE(m_factory->Activate());
  Connect();
}

TEST_F(TcpConnectionFactoryTest, ClientOfDestroyingAdapterIsHungUpAtOnce) {
  MakeFactory();
  ASSERT_TRUE(m_factory->Activate());
  m_adapter->Destroy();
  ASSERT_EQ(ADAPTER_DESTROYING, m_adapter->GetStatus());
  ExpectHangUp(Connect(false));
  EXPECT_EQ(1, m_factory->RefCount());
}

TEST_F(TcpConnectionFactoryTest, ActivateOnForeignAddressFails) {
  MakeFactory(u"192.0.2.1");
  TavixSetLastError(0);
  EXPECT_FALSE(m_factory->Activate());
  EXPECT_EQ(Err::CannotCreateAcceptor, TavixGetLastError());
  m_factory->WaitUntilDestroy();  // no acceptor, no thread: returns at once
}

// Listening on every interface, too, the accept loop stops long before its
// tick, whether destroyed or dropped.
TEST_F(TcpConnectionFactoryTest, EveryInterfaceListenerStopsPromptly) {
  MakeFactory(u"#any");
  ASSERT_TRUE(m_factory->Activate());
  SmartPtr<ITransceiver> client = Connect();
  ExpectPromptShutdown();
  ExpectHangUp(client);

  ASSERT_TRUE(m_factory->Activate());
  const auto start = Clock::now();
  m_factory = nullptr;
  EXPECT_LT(MsSince(start), static_cast<int64_t>(TcpConnectionFactory::kAcceptTickMs) / 2);
  SmartPtr<ITransceiver> refused;
  EXPECT_EQ(-1, m_passport->CreateClientTransceiver(refused));
}

}  // namespace
}  // namespace TAVIX
