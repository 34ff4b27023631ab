// The communicator: its adapters by name, the shutdown flag, the count of
// client calls, the registered client connections and the shutdown order.
#include "tavix/core/communicator.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {

// The tests' window on the communicator's private side, which proxies use.
class CommunicatorProbe {
 public:
  static void BeginCall(Communicator& c) { c.BeginCall(); }
  static void EndCall(Communicator& c) { c.EndCall(); }
  static int32_t Calls(Communicator& c) { return c.m_activeCalls.load(); }
  static bool IsShutdown(Communicator& c) { return c.IsShutdown(); }
  static void Register(Communicator& c, const SmartPtr<Connection>& connection) { c.RegisterConnection(connection); }
  static void Finish(Communicator& c, const SmartPtr<Connection>& connection) { c.Finish(connection); }
  static std::vector<std::u16string> AdapterNames(Communicator& c) {
    std::vector<std::u16string> names;
    ScopedLock guard(c.m_adaptersLock);
    for (const auto& entry : c.m_adapters) names.push_back(entry.first);
    return names;
  }
};

namespace {

using namespace test_wire;
using Probe = CommunicatorProbe;

// A client connection over an in-memory transceiver, validated.
struct ClientConnection {
  SmartPtr<FakeTransceiver> transceiver = MakeShared<FakeTransceiver>();
  SmartPtr<Connection> connection = MakeShared<Connection>();
  ClientConnection() {
    connection->SetTransceiver(SmartPtr<ITransceiver>(transceiver));
    connection->SetState(Connection::StateValidating);
    connection->SetState(Connection::StateConnected);
  }
};

TEST(Communicator, AdaptersAreKeptByExactName) {
  SmartPtr<Communicator> first = Initialize(u"same");
  SmartPtr<Communicator> second = Initialize(u"same");
  ASSERT_NE(first.get(), second.get());

  SmartPtr<ObjectAdapter> upper = first->CreateObjectAdapter(std::u16string(u"A"));
  ASSERT_TRUE(upper);
  EXPECT_TRUE(first->CreateObjectAdapter(std::string("a")));
  TavixSetLastError(0);
  EXPECT_FALSE(first->CreateObjectAdapter(std::string("A")));
  EXPECT_EQ(Err::AdapterNameExists, TavixGetLastError());
  EXPECT_TRUE(second->CreateObjectAdapter(std::u16string(u"A"))) << "communicators are independent";
  EXPECT_EQ(ADAPTER_INACTIVE, upper->GetStatus()) << "the existing adapter is untouched";

  first->Destroy();
  EXPECT_EQ(ADAPTER_DESTROYING, upper->GetStatus());
  EXPECT_FALSE(Probe::IsShutdown(*second));
  EXPECT_EQ(1, upper->RefCount()) << "the communicator released its adapters";
}

TEST(Communicator, AdaptersGoInNameOrder) {
  SmartPtr<Communicator> communicator = Initialize();
  for (const char16_t* name : {u"b", u"a", u"c", u"B", u"\u00e4"}) {
    ASSERT_TRUE(communicator->CreateObjectAdapter(std::u16string(name)));
  }
  EXPECT_EQ((std::vector<std::u16string>{u"B", u"a", u"b", u"c", u"\u00e4"}), Probe::AdapterNames(*communicator));
  communicator->Destroy();
  EXPECT_TRUE(Probe::AdapterNames(*communicator).empty());
}

TEST(Communicator, ShutdownIsOnceAndStopsNewAdapters) {
  SmartPtr<Communicator> communicator = Initialize();
  SmartPtr<ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("x"));
  ASSERT_TRUE(adapter);
  adapter->Activate();
  communicator->Shutdown();
  EXPECT_TRUE(Probe::IsShutdown(*communicator));
  EXPECT_EQ(ADAPTER_DESTROYING, adapter->GetStatus());
  adapter->Activate();
  communicator->Shutdown();
  EXPECT_EQ(ADAPTER_ACTIVE, adapter->GetStatus()) << "a second Shutdown does nothing";

  TavixSetLastError(0);
  EXPECT_FALSE(communicator->CreateObjectAdapter(std::string("y")));
  EXPECT_EQ(Err::CommunicatorClosed, TavixGetLastError());
  EXPECT_EQ(std::vector<std::u16string>{u"x"}, Probe::AdapterNames(*communicator)) << "kept until waited for";
  communicator->WaitForShutdown();
  EXPECT_TRUE(Probe::AdapterNames(*communicator).empty());
  communicator->WaitForShutdown();  // again: nothing left to do
}

TEST(Communicator, CallCounterNeverGoesNegative) {
  SmartPtr<Communicator> communicator = Initialize();
  Probe::EndCall(*communicator);
  EXPECT_EQ(0, Probe::Calls(*communicator));
  Probe::BeginCall(*communicator);
  Probe::BeginCall(*communicator);
  Probe::EndCall(*communicator);
  EXPECT_EQ(1, Probe::Calls(*communicator));
  Probe::EndCall(*communicator);
  Probe::EndCall(*communicator);
  EXPECT_EQ(0, Probe::Calls(*communicator));
}

TEST(Communicator, WaitForShutdownWaitsForCallsInWholeSteps) {
  SmartPtr<Communicator> communicator = Initialize();
  Probe::BeginCall(*communicator);

  // Destroy after Shutdown returns at once, whatever is running.
  communicator->Shutdown();
  const uint64_t before = platform::TickCountMs();
  communicator->Destroy();
  EXPECT_LT(platform::TickCountMs() - before, 500u);

  std::thread caller([&] {
    platform::SleepMs(1200);
    Probe::EndCall(*communicator);
  });
  const uint64_t start = platform::TickCountMs();
  communicator->WaitForShutdown();
  const uint64_t waited = platform::TickCountMs() - start;
  caller.join();
  EXPECT_GE(waited, 1900u) << "the call ended during the second step";
  EXPECT_LT(waited, 3500u);
}

TEST(Communicator, FinishClosesOnlyRegisteredConnections) {
  SmartPtr<Communicator> communicator = Initialize();
  ClientConnection stranger;
  Probe::Finish(*communicator, stranger.connection);
  EXPECT_TRUE(stranger.transceiver->Output().empty());
  EXPECT_EQ(Connection::StateConnected, stranger.connection->GetState());

  ClientConnection registered;
  Probe::Register(*communicator, registered.connection);
  Probe::Finish(*communicator, registered.connection);
  EXPECT_EQ(Header(MSG_CLOSE, 20), registered.transceiver->Output());
  EXPECT_EQ(Connection::StateClosed, registered.connection->GetState());
  EXPECT_FALSE(registered.transceiver->IsOpen());
  EXPECT_EQ(1, registered.connection->RefCount()) << "forgotten";
  Probe::Finish(*communicator, registered.connection);
  EXPECT_EQ(Header(MSG_CLOSE, 20), registered.transceiver->Output());
}

TEST(Communicator, ShutdownClosesRegisteredConnectionsAndListeners) {
  ClientConnection one;
  ClientConnection two;
  uint16_t port = 0;
  RawClient client;
  {
    SmartPtr<Communicator> communicator = Initialize();
    Probe::Register(*communicator, one.connection);
    Probe::Register(*communicator, two.connection);
    SmartPtr<ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("S"));
    adapter->Activate();
    for (int attempt = 0; attempt < 20 && port == 0; ++attempt) {
      const uint16_t candidate = FreePort();
      if (adapter->AddPassport("tcp -h #any -p " + std::to_string(candidate))) port = candidate;
    }
    ASSERT_NE(0, port);
    ASSERT_TRUE(client.Connect(port));
    ASSERT_EQ(Header(MSG_VALIDATE, 20), client.ReceiveValidation());
    // The communicator goes with its last holder, shutting everything down.
  }
  for (ClientConnection* c : {&one, &two}) {
    EXPECT_EQ(Header(MSG_CLOSE, 20), c->transceiver->Output());
    EXPECT_EQ(Connection::StateClosed, c->connection->GetState());
    EXPECT_EQ(1, c->connection->RefCount());
  }
  EXPECT_TRUE(client.ClosedByPeer(1000));
  RawClient late;
  EXPECT_FALSE(late.Connect(port)) << "nothing listens any more";
}

}  // namespace
}  // namespace TAVIX
