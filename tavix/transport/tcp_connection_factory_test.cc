#include "tavix/transport/tcp_connection_factory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

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
class Reasons {
 public:
  static void Record(void* context, TavixDisconnectReason reason) {
    auto* self = static_cast<Reasons*>(context);
    std::lock_guard guard(self->m_mutex);
    self->m_reasons.push_back(reason);
    self->m_changed.notify_all();
  }

  // The next reason, or -1 when none came within two seconds.
  int32_t Next() {
    std::unique_lock guard(m_mutex);
    if (!m_changed.wait_for(guard, std::chrono::seconds(2), [this] { return !m_reasons.empty(); })) return -1;
    const int32_t reason = m_reasons.front();
    m_reasons.pop_front();
    return reason;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<int32_t> m_reasons;
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

  SmartPtr<ITransceiver> Connect() {
    SmartPtr<ITransceiver> client;
    EXPECT_EQ(0, m_passport->CreateClientTransceiver(client));
    return client;
  }

  // The first thing a served client receives is the validation header.
  static void ExpectValidation(const SmartPtr<ITransceiver>& client) {
    uint8_t bytes[HEADER_SIZE] = {};
    ASSERT_EQ(1, client->WaitForRecv(2000));
    ASSERT_EQ(HEADER_SIZE, client->Recvn(bytes, HEADER_SIZE));
    const uint8_t expected[HEADER_SIZE] = {0x58, 0x47, 0x52, 0x51, 0x01, 0x02, 0x01, 0x01, 0x02, 0x00,
                                           0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x9A};
    EXPECT_EQ(0, std::memcmp(expected, bytes, HEADER_SIZE));
  }

  // The next thing arriving is the end of the stream.
  static void ExpectHangUp(const SmartPtr<ITransceiver>& client) {
    ASSERT_EQ(1, client->WaitForRecv(2000));
    char byte = 0;
    EXPECT_EQ(0, client->Recv(&byte, 1));
  }

  bool WaitForFactoryRefs(int32_t count) {
    const auto start = Clock::now();
    while (m_factory->RefCount() != count) {
      if (MsSince(start) > 2000) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
  }

  Reasons m_reasons;
  SmartPtr<ObjectAdapter> m_adapter;
  SmartPtr<IPassport> m_passport;
  SmartPtr<TcpConnectionFactory> m_factory;
};

TEST_F(TcpConnectionFactoryTest, ServesClientsAndReportsTheirEnd) {
  MakeFactory();
  EXPECT_EQ(m_passport.get(), m_factory->GetPassport().get());
  EXPECT_EQ(m_adapter.get(), m_factory->GetAdapter().get());
  m_factory->WaitUntilDestroy();  // never activated: nothing to do
  ASSERT_TRUE(m_factory->Activate());
  ASSERT_TRUE(m_factory->Activate());

  SmartPtr<ITransceiver> client = Connect();
  ExpectValidation(client);
  // The close message ends the connection normally.
  MsgHeaderData header;
  header.Init(MSG_CLOSE);
  uint8_t encoded[HEADER_SIZE];
  header.Encode(encoded);
  ASSERT_EQ(HEADER_SIZE, client->Send(encoded, HEADER_SIZE));
  EXPECT_EQ(DISCONNECT_NORMAL, m_reasons.Next());

  SmartPtr<ITransceiver> second = Connect();
  ExpectValidation(second);
  second->Close();
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
  ExpectValidation(first);
  EXPECT_TRUE(WaitForFactoryRefs(2));
  first->Close();
  EXPECT_EQ(DISCONNECT_NETWORK_CLOSED, m_reasons.Next());
  EXPECT_EQ(2, m_factory->RefCount());  // ended, not yet reaped

  SmartPtr<ITransceiver> second = Connect();
  ExpectValidation(second);
  EXPECT_TRUE(WaitForFactoryRefs(2));  // the first reaped, the second live
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(2, m_factory->RefCount());
}

TEST_F(TcpConnectionFactoryTest, ShutdownEndsClientsPromptlyAndReactivates) {
  MakeFactory();
  ASSERT_TRUE(m_factory->Activate());
  SmartPtr<ITransceiver> a = Connect();
  SmartPtr<ITransceiver> b = Connect();
  ExpectValidation(a);
  ExpectValidation(b);
  EXPECT_TRUE(WaitForFactoryRefs(3));

  const auto start = Clock::now();
  m_factory->Destroy();
  m_factory->WaitUntilDestroy();
  // Interrupt woke the accept loop long before its tick.
  EXPECT_LT(MsSince(start), static_cast<int64_t>(TcpConnectionFactory::kAcceptTickMs) / 2);
  ExpectHangUp(a);
  ExpectHangUp(b);
  EXPECT_EQ(1, m_factory->RefCount());
  // Deactivated while waiting: the reason is passed on either way.
  EXPECT_NE(-1, m_reasons.Next());
  EXPECT_NE(-1, m_reasons.Next());

  // Nobody listens now.
  SmartPtr<ITransceiver> refused;
  EXPECT_EQ(-1, m_passport->CreateClientTransceiver(refused));

  // The same port opens again.
  ASSERT_TRUE(m_factory->Activate());
  SmartPtr<ITransceiver> again = Connect();
  ExpectValidation(again);
}

TEST_F(TcpConnectionFactoryTest, ClientOfDestroyingAdapterIsHungUpAtOnce) {
  MakeFactory();
  ASSERT_TRUE(m_factory->Activate());
  m_adapter->Destroy();
  ASSERT_EQ(ADAPTER_DESTROYING, m_adapter->GetStatus());
  SmartPtr<ITransceiver> client = Connect();
  ExpectHangUp(client);
  EXPECT_EQ(1, m_factory->RefCount());
}

TEST_F(TcpConnectionFactoryTest, ActivateOnForeignAddressFails) {
  MakeFactory(u"192.0.2.1");
  TavixSetLastError(0);
  EXPECT_FALSE(m_factory->Activate());
  EXPECT_EQ(Err::CannotCreateAcceptor, TavixGetLastError());
  m_factory->WaitUntilDestroy();  // no acceptor, no thread: returns at once
}

TEST_F(TcpConnectionFactoryTest, DroppingAnActiveFactoryStopsItsAcceptThread) {
  MakeFactory();
  ASSERT_TRUE(m_factory->Activate());
  const auto start = Clock::now();
  m_factory = nullptr;
  EXPECT_LT(MsSince(start), static_cast<int64_t>(TcpConnectionFactory::kAcceptTickMs) / 2);
  SmartPtr<ITransceiver> refused;
  EXPECT_EQ(-1, m_passport->CreateClientTransceiver(refused));
}

TEST_F(TcpConnectionFactoryTest, EveryInterfaceListenerStopsPromptly) {
  MakeFactory(u"#any");
  ASSERT_TRUE(m_factory->Activate());
  SmartPtr<ITransceiver> client = Connect();
  ExpectValidation(client);
  const auto start = Clock::now();
  m_factory->Destroy();
  m_factory->WaitUntilDestroy();
  EXPECT_LT(MsSince(start), static_cast<int64_t>(TcpConnectionFactory::kAcceptTickMs) / 2);
  ExpectHangUp(client);
}

}  // namespace
}  // namespace TAVIX
