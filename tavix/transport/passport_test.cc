// Endpoint strings: what the grammar takes and refuses, the printed forms, conflicts between listeners, the factory
// by protocol word, and endpoints that cannot be opened.
#include "tavix/transport/passport.h"

#include "tavix/core/host_info.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

std::u16string Printed(const IPassport& passport) {
  std::u16string text;
  return passport.toString(text);
}

SmartPtr<TcpPassport> Made(const std::u16string& text) {
  SmartPtr<TcpPassport> passport = MakeShared<TcpPassport>();
  EXPECT_TRUE(passport->Create(text)) << NarrowString(text);
  return passport;
}

TEST(PassportGrammarTest, AcceptedStringsAndTheirFields) {
  const std::tuple<const char16_t*, const char16_t*, uint16_t, uint32_t> cases[] = {
      {u"tcp -h 10.0.0.1 -p 5678 -t 3000", u"10.0.0.1", 5678, 3000},
      {u"tcp -p 1 -h a", u"a", 1, 0},
      {u"TCP -h a -p 1", u"a", 1, 0},
      {u" \t\ntcp\r-h  a -p 1 \r\n", u"a", 1, 0},
      {u"tcp -h a -h b", u"b", 5678, 0},      // repeated -h counts twice
      {u"tcp -p 1 -p 2", u"0.0.0.0", 2, 0},   // default host
      {u"-t 50 tcp -h a -p 1", u"a", 1, 50},  // -t does not count
      {u"-h a -p 1 -p 2", u"a", 2, 0},        // no protocol word at all
      {u"tcp -h a -p 70000", u"a", 4464, 0},  // kept modulo 65536
      {u"tcp -h a -p 12abc", u"a", 12, 0},    // leading digits only
      {u"tcp -h a -p +7", u"a", 7, 0},
      {u"tcp -h a -p 1 -t 0", u"a", 1, 0},
      {u"tcp -h a -p 1 -t 4294967295", u"a", 1, 2147483647},  // saturates
  };
  for (const auto& [text, host, port, timeout] : cases) {
    const SmartPtr<TcpPassport> p = Made(text);
    EXPECT_EQ(std::tuple(host, port, timeout, false),
              std::tuple(p->Host(), p->Port(), p->Timeout(), p->IsLocal()))
        << NarrowString(text);
  }
}

TEST(PassportGrammarTest, RefusedStringsSetBadPassportString) {
  const char16_t* const refused[] = {
      u"", u" \t ", u"tcp", u"tcp -h a",  // fewer than three counted tokens
      u"tcp -h a -p 1 tcp", u"-h a tcp -p 1", u"udp -h a -p 1",  // misplaced or foreign protocol word
      u"tcp -H a -p 1", u"tcp -h a -p 1 -x 5", u"tcp -h a -p 1 --", u"tcp -h a -p 1 -hh b", u"tcp -h a -p 1 extra",
      u"tcp -h -p 10", u"tcp -h #ANY -p 1", u"tcp -h #x -p 1",                      // bad host
      u"tcp -h a -p", u"tcp -h a -p 0", u"tcp -h a -p x", u"tcp -h a -p 65536",  // bad port
      u"tcp -h a -p 1 -t 00", u"tcp -h a -p 1 -t abc", u"tcp -h a -p 1 -t",     // bad time-out
  };
  for (const char16_t* text : refused) {
    EXPECT_EQ(Err::BadPassportString, Refused([&] { return TcpPassport().Create(std::u16string(text)); }))
        << NarrowString(text);
  }
  // Fields set before the failure keep their values.
  TcpPassport partial;
  EXPECT_FALSE(partial.Create(std::u16string(u"tcp -h kept -p 99 -t 7 -x")));
  EXPECT_EQ(u"tcp -h kept -p 99 -t 7", Printed(partial));
}

TEST(PassportGrammarTest, AnyAndOwnNameMeanEveryInterface) {
  EXPECT_TRUE(Made(u"tcp -h #any -p 1")->IsLocal());
  EXPECT_EQ(u"0.0.0.0", Made(u"tcp -h #any -p 1")->Host());
  std::u16string shouted = GetLocalHostName();
  ASSERT_FALSE(shouted.empty());
  for (char16_t& c : shouted) {
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  }
  const SmartPtr<TcpPassport> named = Made(u"tcp -h " + shouted + u" -p 1");
  EXPECT_TRUE(named->IsLocal());
  EXPECT_EQ(shouted, named->Host());
  ASSERT_TRUE(named->Create(std::u16string(u"tcp -h 10.1.2.3 -p 1")));
  EXPECT_FALSE(named->IsLocal());  // another host clears the flag again
}

TEST(PassportPrintTest, PrintedFormsWideAndNarrow) {
  const SmartPtr<TcpPassport> passport = Made(u"tcp -h 10.0.0.1 -p 5678");
  EXPECT_EQ(u"tcp -h 10.0.0.1 -p 5678 -t 0", Printed(*passport));
  passport->Timeout(0xFFFFFFFF);
  std::string narrow = "overwritten";
  EXPECT_EQ("tcp -h 10.0.0.1 -p 5678 -t -1", passport->toString(narrow));
  EXPECT_EQ("tcp -h 10.0.0.1 -p 5678 -t -1", narrow);

  // Every interface prints as this host's name and reads back as local.
  const SmartPtr<TcpPassport> any = Made(u"tcp -h #any -p 20000 -t 250");
  EXPECT_EQ(u"tcp -h " + GetLocalHostName() + u" -p 20000 -t 250", Printed(*any));
  const SmartPtr<TcpPassport> again = Made(Printed(*any));
  EXPECT_TRUE(again->IsLocal());
  EXPECT_EQ(Printed(*any), Printed(*again));

  // Copies carry the fields but never the reference count; value comparisons always answer false.
  const SmartPtr<TcpPassport> holder = any;
  const SmartPtr<TcpPassport> copy = MakeShared<TcpPassport>(*any);
  EXPECT_EQ(1, copy->RefCount());
  TcpPassport assigned;
  assigned = *any;
  EXPECT_EQ(0, assigned.RefCount());
  EXPECT_EQ(Printed(*any), Printed(assigned));
  EXPECT_TRUE(assigned.IsLocal());
  EXPECT_FALSE(*any == *any);
  EXPECT_FALSE(*any < *copy || *copy < *any);
}

TEST(PassportConflictTest, SameListeningResourceConflicts) {
  const std::tuple<const char16_t*, const char16_t*, bool> cases[] = {
      {u"tcp -h #any -p 10", u"tcp -h 10.0.0.1 -p 10", true},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h #any -p 10", true},
      {u"tcp -h HostA -p 10", u"tcp -h hosta -p 10", true},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h 10.0.0.1 -p 10", true},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h 10.0.0.1 -p 11", false},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h 10.0.0.2 -p 10", false},
      {u"tcp -h #any -p 10", u"tcp -h #any -p 11", false},
  };
  for (const auto& [a, b, conflict] : cases) {
    EXPECT_EQ(conflict, Made(a)->Conflict(*Made(b))) << NarrowString(a) << " / " << NarrowString(b);
  }

  // Another kind of passport never conflicts.
  class OtherKind : public TcpPassport {
   public:
    PassportType Type() const override { return PASSPORT_UDP; }
  };
  SmartPtr<OtherKind> other = MakeShared<OtherKind>();
  ASSERT_TRUE(other->Create(std::u16string(u"udp -h #any -p 10")));
  EXPECT_FALSE(Made(u"tcp -h #any -p 10")->Conflict(*other));
  EXPECT_FALSE(other->Conflict(*Made(u"tcp -h #any -p 10")));
}

TEST(PassportFactoryTest, MakesPassportsByProtocolWord) {
  PassportFactory factory;
  SmartPtr<IPassport> passport = factory.Create(std::u16string(u"tcp -h 10.0.0.1 -p 5678 -t 3000"));
  ASSERT_TRUE(passport);
  EXPECT_EQ(PASSPORT_TCP, passport->Type());
  EXPECT_EQ(u"tcp -h 10.0.0.1 -p 5678 -t 3000", Printed(*passport));
  EXPECT_TRUE(factory.Create(std::string("  Tcp -p 9 -h x")));

  // The grammar's refusals pass through; an unknown protocol word is unsupported.
  const std::pair<const char*, uint32_t> refused[] = {
      {"", Err::BadPassportString}, {" \t\r\n", Err::BadPassportString}, {"tcp -h a", Err::BadPassportString},
      {"xyz -h a -p 1", Err::UnsupportedFunction}, {"-h a -p 1", Err::UnsupportedFunction}};
  for (const auto& [text, error] : refused) {
    EXPECT_EQ(error, Refused([&] { return factory.Create(std::string(text)); })) << text;
  }
}

TEST(TcpPassportTest, RefusedEndpointsLeaveHoldersAlone) {
  SmartPtr<ITransceiver> server = MakeShared<TcpTransceiver>(), client;
  ITransceiver* before = server.get();
  EXPECT_EQ((Outcome{-2, Err::NeedAcceptor}),
            OutcomeOf([&] { return Made(u"tcp -h a -p 1")->CreateServerTransceiver(server); }));
  EXPECT_EQ(before, server.get());
  // Listening only on this machine's own addresses.
  for (const char16_t* host : {u"0.0.0.0", u"192.0.2.1"}) {
    SmartPtr<IAcceptor> holder;
    const SmartPtr<TcpPassport> passport = Made(u"tcp -h " + std::u16string(host) + u" -p 5678");
    EXPECT_EQ((Outcome{-2, Err::CannotCreateAcceptor}), OutcomeOf([&] { return passport->CreateAcceptor(holder); }));
    EXPECT_FALSE(holder);
  }
  const SmartPtr<TcpPassport> unknown = Made(u"tcp -h no-such-host.invalid -p 1");
  EXPECT_EQ((Outcome{-1, EINVAL}), OutcomeOf([&] { return unknown->CreateClientTransceiver(client); }));
  EXPECT_FALSE(client);
}

}  // namespace
}  // namespace TAVIX
