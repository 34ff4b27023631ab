#include "tavix/transport/passport.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/core/errors.h"
#include "tavix/core/host_info.h"
#include "tavix/core/text.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/transport_test_util.h"

namespace TAVIX {
namespace {

std::u16string Printed(const IPassport& passport) {
  std::u16string text;
  return passport.toString(text);
}

TEST(PassportGrammarTest, AcceptedStringsAndTheirFields) {
  struct Case {
    const char16_t* text;
    const char16_t* host;
    uint16_t port;
    uint32_t timeout;
  };
  const Case cases[] = {
      {u"tcp -h 10.0.0.1 -p 5678 -t 3000", u"10.0.0.1", 5678, 3000},
      {u"tcp -p 1 -h a", u"a", 1, 0},
      {u"TCP -h a -p 1", u"a", 1, 0},
      {u" \t\ntcp\r-h  a -p 1 \r\n", u"a", 1, 0},
      {u"tcp -h a -h b", u"b", 5678, 0},               // repeated -h counts twice
      {u"tcp -p 1 -p 2", u"0.0.0.0", 2, 0},            // default host
      {u"-t 50 tcp -h a -p 1", u"a", 1, 50},           // -t does not count
      {u"-h a -p 1 -p 2", u"a", 2, 0},                 // no protocol word at all
      {u"tcp -h a -p 70000", u"a", 4464, 0},           // kept modulo 65536
      {u"tcp -h a -p 12abc", u"a", 12, 0},             // leading digits only
      {u"tcp -h a -p +7", u"a", 7, 0},
      {u"tcp -h a -p 1 -t 0", u"a", 1, 0},
      {u"tcp -h a -p 1 -t 4294967295", u"a", 1, 2147483647},  // saturates
  };
  for (const Case& c : cases) {
    TcpPassport passport;
    EXPECT_TRUE(passport.Create(std::u16string(c.text))) << NarrowString(c.text);
    EXPECT_EQ(c.host, passport.Host()) << NarrowString(c.text);
    EXPECT_EQ(c.port, passport.Port()) << NarrowString(c.text);
    EXPECT_EQ(c.timeout, passport.Timeout()) << NarrowString(c.text);
    EXPECT_FALSE(passport.IsLocal()) << NarrowString(c.text);
  }
}

TEST(PassportGrammarTest, RefusedStringsSetBadPassportString) {
  const char16_t* const refused[] = {
      u"",
      u" \t ",
      u"tcp",
      u"tcp -h a",                 // two counted tokens only
      u"tcp -h a -p 1 tcp",        // second protocol word
      u"-h a tcp -p 1",            // protocol word after -h
      u"tcp -H a -p 1",            // option letters keep their case
      u"tcp -h -p 10",             // -h without value
      u"tcp -h a -p",              // -p without value reads as 0
      u"tcp -h a -p 0",
      u"tcp -h a -p x",
      u"tcp -h a -p 65536",
      u"tcp -h a -p 1 -t 00",
      u"tcp -h a -p 1 -t abc",
      u"tcp -h a -p 1 -t",
      u"tcp -h #ANY -p 1",
      u"tcp -h #x -p 1",
      u"tcp -h a -p 1 -x 5",
      u"tcp -h a -p 1 --",
      u"tcp -h a -p 1 -hh b",
      u"tcp -h a -p 1 extra",
      u"udp -h a -p 1",            // not this passport's protocol word
  };
  for (const char16_t* text : refused) {
    TcpPassport passport;
    TavixSetLastError(0);
    EXPECT_FALSE(passport.Create(std::u16string(text))) << NarrowString(text);
    EXPECT_EQ(Err::BadPassportString, TavixGetLastError()) << NarrowString(text);
  }
}

TEST(PassportGrammarTest, FieldsSetBeforeFailureKeepTheirValues) {
  TcpPassport passport;
  EXPECT_FALSE(passport.Create(std::u16string(u"tcp -h kept -p 99 -t 7 -x")));
  EXPECT_EQ(u"kept", passport.Host());
  EXPECT_EQ(99, passport.Port());
  EXPECT_EQ(7u, passport.Timeout());
}

TEST(PassportGrammarTest, AnyAndOwnNameMeanEveryInterface) {
  TcpPassport any;
  ASSERT_TRUE(any.Create(std::string("tcp -h #any -p 1")));
  EXPECT_TRUE(any.IsLocal());
  EXPECT_EQ(u"0.0.0.0", any.Host());

  const std::u16string name = GetLocalHostName();
  ASSERT_FALSE(name.empty());
  std::u16string shouted = name;
  for (char16_t& c : shouted) {
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  }
  TcpPassport named;
  ASSERT_TRUE(named.Create(u"tcp -h " + shouted + u" -p 1"));
  EXPECT_TRUE(named.IsLocal());
  EXPECT_EQ(shouted, named.Host());
  // Another host clears the flag again.
  ASSERT_TRUE(named.Create(std::u16string(u"tcp -h 10.1.2.3 -p 1")));
  EXPECT_FALSE(named.IsLocal());
}

TEST(PassportPrintTest, PrintedFormsWideAndNarrow) {
  TcpPassport passport;
  ASSERT_TRUE(passport.Create(std::u16string(u"tcp -h 10.0.0.1 -p 5678")));
  EXPECT_EQ(u"tcp -h 10.0.0.1 -p 5678 -t 0", Printed(passport));

  passport.Timeout(0xFFFFFFFF);
  std::string narrow = "overwritten";
  EXPECT_EQ("tcp -h 10.0.0.1 -p 5678 -t -1", passport.toString(narrow));
  EXPECT_EQ("tcp -h 10.0.0.1 -p 5678 -t -1", narrow);

  TcpPassport any;
  ASSERT_TRUE(any.Create(std::u16string(u"tcp -h #any -p 20000 -t 250")));
  EXPECT_EQ(u"tcp -h " + GetLocalHostName() + u" -p 20000 -t 250", Printed(any));

  // The printed form reads back to the same endpoint, still local.
  TcpPassport again;
  ASSERT_TRUE(again.Create(Printed(any)));
  EXPECT_TRUE(again.IsLocal());
  EXPECT_EQ(Printed(any), Printed(again));
}

TEST(PassportValueTest, CopiesCarryFieldsButNeverTheCount) {
  SmartPtr<TcpPassport> original = MakeShared<TcpPassport>();
  ASSERT_TRUE(original->Create(std::u16string(u"tcp -h #any -p 42 -t 9")));
  SmartPtr<TcpPassport> holder2 = original;
  SmartPtr<TcpPassport> copy = MakeShared<TcpPassport>(*original);
  EXPECT_EQ(1, copy->RefCount());
  EXPECT_EQ(Printed(*original), Printed(*copy));
  TcpPassport assigned;
  assigned = *original;
  EXPECT_EQ(0, assigned.RefCount());
  EXPECT_EQ(Printed(*original), Printed(assigned));
  EXPECT_TRUE(assigned.IsLocal());
  EXPECT_FALSE(assigned.IsCompress());
  EXPECT_EQ(PASSPORT_TCP, assigned.Type());
  // Value comparisons always answer false, even for the same object.
  EXPECT_FALSE(*original == *original);
  EXPECT_FALSE(*original < *copy);
  EXPECT_FALSE(*copy < *original);
}

TEST(PassportConflictTest, SameListeningResourceConflicts) {
  auto make = [](const char16_t* text) {
    SmartPtr<TcpPassport> passport = MakeShared<TcpPassport>();
    EXPECT_TRUE(passport->Create(std::u16string(text)));
    return passport;
  };
  const auto anyTen = make(u"tcp -h #any -p 10");
  const auto hostTen = make(u"tcp -h 10.0.0.1 -p 10");
  const auto hostTenUpper = make(u"tcp -h HostA -p 10");
  const auto hostTenLower = make(u"tcp -h hosta -p 10");
  const auto hostEleven = make(u"tcp -h 10.0.0.1 -p 11");
  const auto otherTen = make(u"tcp -h 10.0.0.2 -p 10");
  const auto anyEleven = make(u"tcp -h #any -p 11");

  EXPECT_TRUE(anyTen->Conflict(*hostTen));
  EXPECT_TRUE(hostTen->Conflict(*anyTen));
  EXPECT_TRUE(hostTenUpper->Conflict(*hostTenLower));
  EXPECT_TRUE(hostTen->Conflict(*hostTen));
  EXPECT_FALSE(hostTen->Conflict(*hostEleven));
  EXPECT_FALSE(hostTen->Conflict(*otherTen));
  EXPECT_FALSE(anyTen->Conflict(*anyEleven));
  EXPECT_TRUE(anyEleven->Conflict(*hostEleven));

  // Another kind of passport never conflicts.
  class OtherKind : public TcpPassport {
   public:
    PassportType Type() const override { return PASSPORT_UDP; }
  };
  SmartPtr<OtherKind> other = MakeShared<OtherKind>();
  ASSERT_TRUE(other->Create(std::u16string(u"udp -h #any -p 10")));
  EXPECT_FALSE(anyTen->Conflict(*other));
  EXPECT_FALSE(other->Conflict(*anyTen));
}

TEST(PassportFactoryTest, MakesPassportsByProtocolWord) {
  PassportFactory factory;
  SmartPtr<IPassport> passport = factory.Create(std::u16string(u"tcp -h 10.0.0.1 -p 5678 -t 3000"));
  ASSERT_TRUE(passport);
  EXPECT_EQ(PASSPORT_TCP, passport->Type());
  EXPECT_EQ(3000u, passport->Timeout());
  EXPECT_EQ(u"tcp -h 10.0.0.1 -p 5678 -t 3000", Printed(*passport));
  EXPECT_TRUE(factory.Create(std::string("  Tcp -p 9 -h x")));

  const struct {
    const char* text;
    uint32_t error;
  } refused[] = {
      {"", Err::BadPassportString},
      {" \t\r\n", Err::BadPassportString},
      {"xyz -h a -p 1", Err::UnsupportedFunction},
      {"-h a -p 1", Err::UnsupportedFunction},
      {"tcp -h a", Err::BadPassportString},
      {"tcp -h a -p 1 tcp", Err::BadPassportString},
  };
  for (const auto& r : refused) {
    TavixSetLastError(0);
    EXPECT_FALSE(factory.Create(std::string(r.text))) << r.text;
    EXPECT_EQ(r.error, TavixGetLastError()) << r.text;
  }
}

TEST(TcpPassportTest, ServerTransceiverNeedsAnAcceptor) {
  TcpPassport passport;
  SmartPtr<ITransceiver> holder = MakeShared<TcpTransceiver>();
  ITransceiver* before = holder.get();
  EXPECT_EQ(-2, passport.CreateServerTransceiver(holder));
  EXPECT_EQ(Err::NeedAcceptor, TavixGetLastError());
  EXPECT_EQ(before, holder.get());
}

TEST(TcpPassportTest, AcceptorOnlyOnThisMachinesAddresses) {
  for (const char16_t* host : {u"0.0.0.0", u"192.0.2.1"}) {
    TcpPassport passport;
    ASSERT_TRUE(passport.Create(u"tcp -h " + std::u16string(host) + u" -p 5678"));
    SmartPtr<IAcceptor> holder;
    EXPECT_EQ(-2, passport.CreateAcceptor(holder));
    EXPECT_EQ(Err::CannotCreateAcceptor, TavixGetLastError());
    EXPECT_FALSE(holder);
  }
}

TEST(TcpPassportTest, AcceptorOnOwnAddressServesClientTransceiver) {
  ASSERT_FALSE(GetLocalHostIP().empty());
  const std::u16string ownAddress = GetLocalHostIP().front();
  const uint16_t port = testing::FreePort();
  TcpPassport passport;
  ASSERT_TRUE(passport.Create(u"tcp -h " + ownAddress + u" -p " + WiddenString(std::to_string(port))));
  SmartPtr<IAcceptor> acceptor;
  ASSERT_EQ(0, passport.CreateAcceptor(acceptor));
  ASSERT_TRUE(acceptor);
  EXPECT_EQ(1, acceptor->Type());

  SmartPtr<ITransceiver> client;
  ASSERT_EQ(0, passport.CreateClientTransceiver(client));
  SmartPtr<ITransceiver> server;
  ASSERT_EQ(0, acceptor->Accept(server, 2000));
  ASSERT_TRUE(server);
  ASSERT_EQ(4, client->Send("ping", 4));
  char buffer[4];
  EXPECT_EQ(4, server->Recvn(buffer, 4));

  // A second listener on the same resource fails in bind, and the holder
  // it brought stays, closed.
  SmartPtr<IAcceptor> second = MakeShared<TcpAcceptor>();
  IAcceptor* before = second.get();
  EXPECT_EQ(-1, passport.CreateAcceptor(second));
  EXPECT_EQ(static_cast<uint32_t>(EADDRINUSE), TavixGetLastError());
  EXPECT_EQ(before, second.get());

  // The acceptor it made is reused, closed and reopened on the same port.
  IAcceptor* object = acceptor.get();
  server->Close();
  client->Close();
  ASSERT_EQ(0, passport.CreateAcceptor(acceptor));
  EXPECT_EQ(object, acceptor.get());
  ASSERT_EQ(0, passport.CreateClientTransceiver(client));
}

TEST(TcpPassportTest, ClientTransceiverFailsOnUnknownHost) {
  TcpPassport passport;
  ASSERT_TRUE(passport.Create(std::u16string(u"tcp -h no-such-host.invalid -p 1")));
  SmartPtr<ITransceiver> holder;
  EXPECT_EQ(-1, passport.CreateClientTransceiver(holder));
  EXPECT_EQ(static_cast<uint32_t>(EINVAL), TavixGetLastError());
  EXPECT_FALSE(holder);
}

}  // namespace
}  // namespace TAVIX
