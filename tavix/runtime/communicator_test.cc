// The communicator: its adapters by name, the shutdown flag, and the wait for client calls in progress. Closing client
// connections and listeners at shutdown is covered end to end by the proxy and server tests.
#include "tavix/runtime/communicator.h"

#include <atomic>
#include <thread>

#include "tavix/testing/wire.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {
namespace {

using testing::Refused;
using test_wire::Eventually;

// A transceiver whose sends wait until `release` is set (none wait when it starts set).
class HeldTransceiver : public ITransceiver {
 public:
  explicit HeldTransceiver(bool released = false) : release(released) {}
  std::atomic<bool> sending{false}, release;
  int32_t Send(const void*, int32_t length) override {
    sending = true;
    while (!release.load()) platform::SleepMs(1);
    return length;
  }
  int32_t GetHandle() const override { return 3; }
  int32_t Open() override { return 0; }
  void Close() override { m_open = false; }
  bool IsOpen() const override { return m_open.load(); }
  int32_t WaitForRecv(uint32_t) override { return -3; }
  bool IsWaiting() const override { return false; }
  int32_t Recv(void*, int32_t) override { return -3; }
  int32_t Recvn(void*, int32_t) override { return -3; }
  bool GetPeer(std::u16string&, uint16_t&) const override { return false; }
  PassportType Type() const override { return PASSPORT_TCP; }
  int32_t MaxMessageSize() const override { return 0; }
  bool IsBroadcast() const override { return false; }

 private:
  std::atomic<bool> m_open{true};
};

SmartPtr<Connection> ConnectionOn(const SmartPtr<HeldTransceiver>& transceiver) {
  SmartPtr<Connection> connection = MakeShared<Connection>();
  connection->SetTransceiver(transceiver);
  connection->SetState(Connection::StateConnected);  // as a proxy registers it
  return connection;
}

// A close message that does not leave holds up no other connection's registration or close: the communicator's
// lock is not held while it sends.
TEST(Communicator, AStalledCloseHoldsUpNoOtherConnection) {
  SmartPtr<Communicator> communicator = Initialize();
  const auto stalled = MakeShared<HeldTransceiver>(), free = MakeShared<HeldTransceiver>(true);
  const SmartPtr<Connection> slow = ConnectionOn(stalled), quick = ConnectionOn(free);
  communicator->RegisterConnection(slow);
  std::thread closing([&] { communicator->Finish(slow); });
  ASSERT_TRUE(Eventually([&] { return stalled->sending.load(); }));
  std::atomic<bool> done{false};
  std::thread other([&] {
    communicator->RegisterConnection(quick);
    communicator->Finish(quick);
    done = true;
  });
  const bool prompt = Eventually([&] { return done.load(); }, 2000);
  stalled->release = true;
  other.join();
  closing.join();
  EXPECT_TRUE(prompt) << "the other connection waited for the stalled close";
  EXPECT_FALSE(free->IsOpen());
  EXPECT_FALSE(stalled->IsOpen());
}

TEST(Communicator, AdaptersByExactNameUntilShutdownIsWaitedFor) {
  SmartPtr<Communicator> first = Initialize(u"same"), second = Initialize(u"same");
  SmartPtr<ObjectAdapter> b = first->CreateObjectAdapter(std::u16string(u"b"));
  ASSERT_TRUE(b);
  ASSERT_TRUE(first->CreateObjectAdapter(std::u16string(u"B")));
  EXPECT_EQ(Err::AdapterNameExists, Refused([&] { return first->CreateObjectAdapter(std::string("b")); }));
  EXPECT_EQ(ADAPTER_INACTIVE, b->GetStatus()) << "the existing adapter is untouched";
  EXPECT_TRUE(second->CreateObjectAdapter(std::u16string(u"b"))) << "communicators are independent";
  // Shutdown happens once, refuses new adapters, and keeps the adapters until it is waited for.
  b->Activate();
  first->Shutdown();
  EXPECT_EQ(ADAPTER_DESTROYING, b->GetStatus());
  b->Activate();
  first->Shutdown();
  EXPECT_EQ(ADAPTER_ACTIVE, b->GetStatus()) << "a second Shutdown does nothing";
  EXPECT_EQ(Err::CommunicatorClosed, Refused([&] { return first->CreateObjectAdapter(std::string("c")); }));
  EXPECT_EQ(2, b->RefCount());
  first->WaitForShutdown();
  EXPECT_EQ(1, b->RefCount()) << "the communicator released its adapters";
  // Shutdown alone, then the last reference: an adapter whose listening factory holds it is still released.
  SmartPtr<ObjectAdapter> d = second->CreateObjectAdapter(std::string("d"));
  d->Activate();
  ASSERT_NE(0, test_wire::Listen(*d));
  second->Shutdown();
  second = nullptr;
  EXPECT_EQ(1, d->RefCount()) << "released, its factories waited for";
}

TEST(Communicator, WaitForShutdownWaitsForCallsInWholeSteps) {
  SmartPtr<Communicator> communicator = Initialize();
  communicator->EndCall();  // the count never goes below 0
  communicator->BeginCall();
  // Destroy after Shutdown returns at once, whatever is running.
  communicator->Shutdown();
  const uint64_t before = platform::TickCountMs();
  communicator->Destroy();
  EXPECT_LT(platform::TickCountMs() - before, 500u);
  std::thread caller([&] {
    platform::SleepMs(100);
    communicator->EndCall();
  });
  const uint64_t start = platform::TickCountMs();
  communicator->WaitForShutdown();
  const uint64_t waited = platform::TickCountMs() - start;
  caller.join();
  EXPECT_GE(waited, Communicator::kCallWaitStepMs - 50) << "the call ended during the first step";
  EXPECT_LT(waited, 2 * Communicator::kCallWaitStepMs + 500);
}

}  // namespace
}  // namespace TAVIX
