// The object adapter on its own: servants, passports and the ports they
// open, and proxy strings. The wait for running requests is a server test.
#include "tavix/adapter/object_adapter.h"

#include <cerrno>

#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

std::string Endpoint(uint16_t port, const std::string& host = "#any") {
  return "tcp -h " + host + " -p " + std::to_string(port);
}

// True when a client connects to `port` and is sent the validation message.
bool Accepts(uint16_t port) {
  RawClient client;
  return client.Connect(port) && client.Receive(HEADER_SIZE) == Header(MSG_VALIDATE, 20);
}

TEST(ObjectAdapter, ServantsByExactId) {
  auto adapter = MakeShared<ObjectAdapter>();
  auto one = MakeShared<Object>(), two = MakeShared<Object>();
  EXPECT_TRUE(adapter->AddServant(SmartPtr<Object>(one), std::u16string(u"Printer")));
  EXPECT_EQ(Err::ObjectExists,
            Refused([&] { return adapter->AddServant(SmartPtr<Object>(two), std::string("Printer")); }));
  EXPECT_TRUE(adapter->AddServant(SmartPtr<Object>(two), std::string("printer")));
  EXPECT_EQ(one.get(), adapter->FindServant(u"Printer").get());
  EXPECT_EQ(two.get(), adapter->FindServant(u"printer").get());
  EXPECT_TRUE(adapter->RemoveServant(std::string("Printer")));
  EXPECT_EQ(1, one->RefCount()) << "the adapter let the removed servant go";
  std::vector<std::string> proxies;
  EXPECT_EQ(Err::ObjectNotFound, Refused([&] { return adapter->FindServant(u"PRINTER"); }));
  EXPECT_EQ(Err::ObjectNotFound, Refused([&] { return adapter->RemoveServant(std::u16string(u"Printer")); }));
  EXPECT_EQ(Err::ObjectNotFound, Refused([&] { return adapter->GetProxyString(std::string("Printer"), proxies); }));
}

// The printed form of proxy strings is checked through `tavix serve`.
TEST(ObjectAdapter, PassportsConflictOpenAndClose) {
  auto adapter = MakeShared<ObjectAdapter>();
  ASSERT_TRUE(adapter->AddServant(MakeShared<Object>(), std::u16string(u"Obj")));
  const uint16_t port = FreePort();
  // Inactive: nothing is opened, so even a foreign address is taken.
  ASSERT_TRUE(adapter->AddPassport(Endpoint(port, "10.0.0.1")));
  const std::pair<std::string, uint32_t> refused[] = {
      {Endpoint(port), Err::PassportConflict}, {Endpoint(port, "10.0.0.1"), Err::PassportConflict},
      {"sctp -h #any -p " + std::to_string(port), Err::UnsupportedFunction}, {"tcp -h #any", Err::BadPassportString}};
  for (const auto& [endpoint, error] : refused) {
    EXPECT_EQ(error, Refused([&] { return adapter->AddPassport(endpoint); })) << endpoint;
  }
  EXPECT_TRUE(adapter->AddPassport(Endpoint(port, "10.0.0.2"))) << "another host, no conflict";
  const uint16_t local = FreePort();
  SmartPtr<IPassport> passport = adapter->AddPassport(Endpoint(local));
  ASSERT_TRUE(passport);
  EXPECT_FALSE(Accepts(local)) << "opened while inactive";

  // The foreign passports fail to start; Activate does not mind.
  EXPECT_TRUE(adapter->Activate());
  EXPECT_EQ(ADAPTER_ACTIVE, adapter->GetStatus());
  RawClient before;
  ASSERT_TRUE(before.Connect(local));
  ASSERT_EQ(Header(MSG_VALIDATE, 20), before.Receive(HEADER_SIZE));

  // Active: a passport is opened at once, and its failure is the caller's.
  EXPECT_EQ(Err::CannotCreateAcceptor, Refused([&] { return adapter->AddPassport(Endpoint(FreePort(), "10.0.0.3")); }));
  auto other = MakeShared<ObjectAdapter>();
  other->Activate();
  EXPECT_EQ(static_cast<uint32_t>(EADDRINUSE), Refused([&] { return other->AddPassport(Endpoint(local)); }));

  std::vector<std::string> proxies{"kept"};
  EXPECT_TRUE(adapter->GetProxyString(std::string("Obj"), proxies));
  EXPECT_EQ(4u, proxies.size()) << "appended to what was there";
  EXPECT_TRUE(adapter->RemovePassport(passport));
  EXPECT_TRUE(before.ClosedByPeer(1000)) << "its connections end with it";
  EXPECT_FALSE(Accepts(local));
  proxies.clear();
  adapter->GetProxyString(std::string("Obj"), proxies);
  EXPECT_EQ(2u, proxies.size());
  EXPECT_TRUE(adapter->AddPassport(Endpoint(local))) << "the port can be opened again";

  for (auto* a : {&adapter, &other}) {
    (*a)->Destroy();
    (*a)->WaitUntilDestroy();
    EXPECT_EQ(1, (*a)->RefCount()) << "the factories let the adapter go";
  }
  proxies.clear();
  EXPECT_TRUE(adapter->GetProxyString(std::string("Obj"), proxies));
  EXPECT_TRUE(proxies.empty());
}

}  // namespace
}  // namespace TAVIX
