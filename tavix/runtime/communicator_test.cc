// The communicator: its adapters by name and in name order, the shutdown
// flag, and the wait for client calls in progress. Closing client
// connections and listeners at shutdown is covered end to end by the proxy
// and server tests.
#include "tavix/runtime/communicator.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"

namespace TAVIX {

// The tests' window on the communicator's private side, which proxies use.
class CommunicatorProbe {
 public:
  static void BeginCall(Communicator& c) { c.BeginCall(); }
  static void EndCall(Communicator& c) { c.EndCall(); }
  static std::vector<std::u16string> AdapterNames(Communicator& c) {
    std::vector<std::u16string> names;
    ScopedLock guard(c.m_adaptersLock);
    for (const auto& entry : c.m_adapters) names.push_back(entry.first);
    return names;
  }
};

namespace {

using Probe = CommunicatorProbe;

TEST(Communicator, AdaptersByExactNameInNameOrder) {
  SmartPtr<Communicator> first = Initialize(u"same");
  SmartPtr<Communicator> second = Initialize(u"same");
  SmartPtr<ObjectAdapter> b = first->CreateObjectAdapter(std::u16string(u"b"));
  ASSERT_TRUE(b);
  for (const char16_t* name : {u"c", u"a", u"B", u"\u00e4"}) {
    ASSERT_TRUE(first->CreateObjectAdapter(std::u16string(name)));
  }
  TavixSetLastError(0);
  EXPECT_FALSE(first->CreateObjectAdapter(std::string("b")));
  EXPECT_EQ(Err::AdapterNameExists, TavixGetLastError());
  EXPECT_EQ(ADAPTER_INACTIVE, b->GetStatus()) << "the existing adapter is untouched";
  EXPECT_TRUE(second->CreateObjectAdapter(std::u16string(u"b"))) << "communicators are independent";
  EXPECT_EQ((std::vector<std::u16string>{u"B", u"a", u"b", u"c", u"\u00e4"}), Probe::AdapterNames(*first));

  first->Destroy();
  EXPECT_EQ(ADAPTER_DESTROYING, b->GetStatus());
  EXPECT_EQ(1, b->RefCount()) << "the communicator released its adapters";
  EXPECT_TRUE(Probe::AdapterNames(*first).empty());
  EXPECT_EQ(1u, Probe::AdapterNames(*second).size());
}

TEST(Communicator, ShutdownIsOnceAndStopsNewAdapters) {
  SmartPtr<Communicator> communicator = Initialize();
  SmartPtr<ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("x"));
  ASSERT_TRUE(adapter);
  adapter->Activate();
  communicator->Shutdown();
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
}

TEST(Communicator, WaitForShutdownWaitsForCallsInWholeSteps) {
  SmartPtr<Communicator> communicator = Initialize();
  Probe::EndCall(*communicator);  // the count never goes below 0
  Probe::BeginCall(*communicator);

  // Destroy after Shutdown returns at once, whatever is running.
  communicator->Shutdown();
  const uint64_t before = platform::TickCountMs();
  communicator->Destroy();
  EXPECT_LT(platform::TickCountMs() - before, 500u);

  std::thread caller([&] {
    platform::SleepMs(100);
    Probe::EndCall(*communicator);
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
