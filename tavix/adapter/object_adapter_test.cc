// The object adapter on its own: servants, passports and their factories,
// status, proxy strings, the disconnect notification and the waits.
#include "tavix/adapter/object_adapter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tavix/core/host_info.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/passport.h"

namespace TAVIX {
namespace {

using namespace test_wire;

std::string Endpoint(uint16_t port, const std::string& host = "#any") {
  return "tcp -h " + host + " -p " + std::to_string(port);
}

std::string Printed(uint16_t port) {
  return "tcp -h " + NarrowString(GetLocalHostName()) + " -p " + std::to_string(port) + " -t 0";
}

// Adds a TCP passport on a free port to an active adapter.
uint16_t Listen(ObjectAdapter& adapter) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    const uint16_t port = FreePort();
    if (adapter.AddPassport(Endpoint(port))) return port;
  }
  ADD_FAILURE() << "no free port";
  return 0;
}

TEST(ObjectAdapterServants, AddFindRemove) {
  auto adapter = MakeShared<ObjectAdapter>();
  auto one = MakeShared<Object>();
  auto two = MakeShared<Object>();
  EXPECT_TRUE(adapter->AddServant(SmartPtr<Object>(one), std::u16string(u"Printer")));
  EXPECT_FALSE(adapter->AddServant(SmartPtr<Object>(two), std::string("Printer")));
  EXPECT_EQ(Err::ObjectExists, TavixGetLastError());
  EXPECT_TRUE(adapter->AddServant(SmartPtr<Object>(two), std::string("printer")));
  EXPECT_EQ(one.get(), adapter->FindServant(u"Printer").get());
  EXPECT_EQ(two.get(), adapter->FindServant(u"printer").get());

  TavixSetLastError(0);
  EXPECT_FALSE(adapter->FindServant(u"PRINTER"));
  EXPECT_EQ(Err::ObjectNotFound, TavixGetLastError());

  EXPECT_TRUE(adapter->RemoveServant(std::string("Printer")));
  EXPECT_FALSE(adapter->FindServant(u"Printer"));
  TavixSetLastError(0);
  EXPECT_FALSE(adapter->RemoveServant(std::u16string(u"Printer")));
  EXPECT_EQ(Err::ObjectNotFound, TavixGetLastError());
  EXPECT_EQ(1, one->RefCount()) << "the adapter let the removed servant go";
}

TEST(ObjectAdapterStatusTest, EveryTransitionIsAllowed) {
  auto adapter = MakeShared<ObjectAdapter>();
  EXPECT_EQ(ADAPTER_INACTIVE, adapter->GetStatus());
  EXPECT_TRUE(adapter->Activate());
  EXPECT_EQ(ADAPTER_ACTIVE, adapter->GetStatus());
  EXPECT_TRUE(adapter->Deactivate());
  EXPECT_EQ(ADAPTER_INACTIVE, adapter->GetStatus());
  EXPECT_TRUE(adapter->Destroy());
  EXPECT_EQ(ADAPTER_DESTROYING, adapter->GetStatus());
  EXPECT_TRUE(adapter->Activate());
  EXPECT_EQ(ADAPTER_ACTIVE, adapter->GetStatus());
  adapter->WaitUntilDeactivate();  // nothing running: returns at once
  adapter->Destroy();
  adapter->WaitUntilDestroy();
  EXPECT_EQ(ADAPTER_DESTROYING, adapter->GetStatus());
}

TEST(ObjectAdapterPassports, ConflictsAndForeignAddresses) {
  auto adapter = MakeShared<ObjectAdapter>();
  const uint16_t port = FreePort();
  // Inactive: nothing is opened, so even a foreign address is taken.
  ASSERT_TRUE(adapter->AddPassport(Endpoint(port, "10.0.0.1")));
  TavixSetLastError(0);
  EXPECT_FALSE(adapter->AddPassport(Endpoint(port)));
  EXPECT_EQ(Err::PassportConflict, TavixGetLastError());
  EXPECT_FALSE(adapter->AddPassport(Endpoint(port, "10.0.0.1")));
  EXPECT_EQ(Err::PassportConflict, TavixGetLastError());
  EXPECT_TRUE(adapter->AddPassport(Endpoint(port, "10.0.0.2"))) << "another host, no conflict";
  EXPECT_FALSE(adapter->AddPassport("udp -h #any -p " + std::to_string(port)));
  EXPECT_EQ(Err::UnsupportedFunction, TavixGetLastError()) << "datagram endpoints are refused";
  EXPECT_FALSE(adapter->AddPassport("tcp -h #any"));
  EXPECT_EQ(Err::BadPassportString, TavixGetLastError());

  // The foreign passports fail to start; Activate does not mind.
  EXPECT_TRUE(adapter->Activate());
  EXPECT_EQ(ADAPTER_ACTIVE, adapter->GetStatus());

  // Active: a passport is opened at once, and its failure is the caller's.
  TavixSetLastError(0);
  EXPECT_FALSE(adapter->AddPassport(Endpoint(FreePort(), "10.0.0.3")));
  EXPECT_EQ(Err::CannotCreateAcceptor, TavixGetLastError());

  const uint16_t open = Listen(*adapter);
  auto other = MakeShared<ObjectAdapter>();
  other->Activate();
  TavixSetLastError(0);
  EXPECT_FALSE(other->AddPassport(Endpoint(open)));
  EXPECT_EQ(static_cast<uint32_t>(EADDRINUSE), TavixGetLastError());

  adapter->Destroy();
  adapter->WaitUntilDestroy();
  EXPECT_EQ(1, adapter->RefCount()) << "the factories let the adapter go";
  other->Destroy();
  other->WaitUntilDestroy();
  EXPECT_EQ(1, other->RefCount()) << "a failed passport leaves nothing behind";
}

TEST(ObjectAdapterPassports, ProxyStringsFollowThePassports) {
  auto adapter = MakeShared<ObjectAdapter>();
  ASSERT_TRUE(adapter->AddServant(MakeShared<Object>(), std::u16string(u"Obj")));

  std::vector<std::u16string> wide{u"kept"};
  TavixSetLastError(0);
  EXPECT_FALSE(adapter->GetProxyString(u"Nobody", wide));
  EXPECT_EQ(Err::ObjectNotFound, TavixGetLastError());
  EXPECT_TRUE(adapter->GetProxyString(u"Obj", wide));
  EXPECT_EQ(std::vector<std::u16string>{u"kept"}, wide) << "no passport, nothing appended";

  adapter->Activate();
  const uint16_t first = Listen(*adapter);
  const uint16_t second = Listen(*adapter);
  std::vector<std::string> narrow;
  EXPECT_TRUE(adapter->GetProxyString(std::string("Obj"), narrow));
  EXPECT_TRUE(adapter->GetProxyString(std::string("Obj"), narrow));
  std::sort(narrow.begin(), narrow.end());
  std::vector<std::string> expected{"Obj:" + Printed(first), "Obj:" + Printed(first), "Obj:" + Printed(second),
                                    "Obj:" + Printed(second)};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, narrow);

  wide.clear();
  EXPECT_TRUE(adapter->GetProxyString(u"Obj", wide));
  ASSERT_EQ(2u, wide.size());
  EXPECT_TRUE(NarrowString(wide[0]) == "Obj:" + Printed(first) || NarrowString(wide[0]) == "Obj:" + Printed(second));

  adapter->Destroy();
  adapter->WaitUntilDestroy();
  wide.clear();
  EXPECT_TRUE(adapter->GetProxyString(u"Obj", wide));
  EXPECT_TRUE(wide.empty());
}

TEST(ObjectAdapterPassports, RemovePassportClosesItsPort) {
  auto adapter = MakeShared<ObjectAdapter>();
  ASSERT_TRUE(adapter->AddServant(MakeShared<Object>(), std::u16string(u"Obj")));
  adapter->Activate();
  const uint16_t port = FreePort();
  SmartPtr<IPassport> passport = adapter->AddPassport(Endpoint(port));
  ASSERT_TRUE(passport);
  RawClient before;
  ASSERT_TRUE(before.Connect(port));
  EXPECT_EQ(Header(MSG_VALIDATE, 20), before.ReceiveValidation());

  EXPECT_TRUE(adapter->RemovePassport(PassportFactory().Create(Endpoint(port)))) << "never handed out";
  std::vector<std::string> proxies;
  adapter->GetProxyString(std::string("Obj"), proxies);
  EXPECT_EQ(1u, proxies.size());

  EXPECT_TRUE(adapter->RemovePassport(passport));
  EXPECT_TRUE(before.ClosedByPeer(1000)) << "its connections end with it";
  RawClient after;
  EXPECT_FALSE(after.Connect(port));
  proxies.clear();
  adapter->GetProxyString(std::string("Obj"), proxies);
  EXPECT_TRUE(proxies.empty());
  EXPECT_TRUE(adapter->AddPassport(Endpoint(port))) << "the port can be opened again";
  adapter->Destroy();
  adapter->WaitUntilDestroy();
}

TEST(ObjectAdapterPassports, InactiveAdapterOpensItsPassportsOnActivate) {
  auto adapter = MakeShared<ObjectAdapter>();
  const uint16_t port = FreePort();
  ASSERT_TRUE(adapter->AddPassport(Endpoint(port)));
  RawClient early;
  EXPECT_FALSE(early.Connect(port));
  adapter->Activate();
  RawClient late;
  ASSERT_TRUE(late.Connect(port));
  EXPECT_EQ(Header(MSG_VALIDATE, 20), late.ReceiveValidation());
  adapter->Destroy();
  adapter->WaitUntilDestroy();
}

// Sleeps in "Sleep" for the given milliseconds.
class Sleeper : public Object {
 public:
  std::atomic<bool> entered{false};
  void Dispatch(ObjectHelper& request) override {
    if (request.GetContext().operation != u"Sleep") return Object::Dispatch(request);
    int32_t ms = 0;
    request.is()->read(ms);
    request.PrepareServant();
    entered.store(true);
    platform::SleepMs(static_cast<uint32_t>(ms));
    request.FinishServant(0, 0);
  }
};

TEST(ObjectAdapterWaits, DeactivateRefusesNewRequestsAndWaitsForRunningOnes) {
  auto adapter = MakeShared<ObjectAdapter>();
  auto sleeper = MakeShared<Sleeper>();
  ASSERT_TRUE(adapter->AddServant(SmartPtr<Object>(sleeper), std::u16string(u"Z")));
  adapter->Activate();
  const uint16_t port = Listen(*adapter);
  RawClient slow;
  RawClient fast;
  ASSERT_TRUE(slow.Connect(port));
  ASSERT_TRUE(fast.Connect(port));
  slow.ReceiveValidation();
  fast.ReceiveValidation();

  ASSERT_TRUE(slow.Send(Request(1, u"Z", u"Sleep", Writer().i32(600).get())));
  while (!sleeper->entered.load()) platform::SleepMs(1);
  EXPECT_EQ(1, adapter->GetInvocationCount());
  adapter->Deactivate();
  ASSERT_TRUE(fast.Send(Request(2, u"Z", u"ObjectPing")));
  EXPECT_EQ(Err::AdapterInactive, ParseReply(fast.ReceiveMessage()).status);

  const uint64_t start = platform::TickCountMs();
  adapter->WaitUntilDeactivate();
  const uint64_t waited = platform::TickCountMs() - start;
  EXPECT_EQ(0, adapter->GetInvocationCount());
  EXPECT_GE(waited, 400u);
  EXPECT_LT(waited, 3000u);
  EXPECT_EQ(0u, ParseReply(slow.ReceiveMessage()).status);
  adapter->Destroy();
  adapter->WaitUntilDestroy();
}

}  // namespace
}  // namespace TAVIX
