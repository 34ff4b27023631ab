// The communicator: its adapters by name, the shutdown flag, and the wait for client calls in progress. Closing client
// connections and listeners at shutdown is covered end to end by the proxy and server tests.
#include "tavix/runtime/communicator.h"

#include "tavix/testing/wire.h"

namespace TAVIX {

// The tests' window on the calls in progress, which proxies count.
namespace {

using testing::Refused;

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
