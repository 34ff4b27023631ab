// The servant base and one request's way through ObjectHelper, driven over
// an in-memory transceiver so that the exact reply bytes can be checked.
#include "tavix/invoke/object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// Exposes the protected lookup.
struct Lookup : Object {
  static int Find(const std::u16string_view* table, int count, const std::u16string& name) {
    return FindOperationName(table, count, name);
  }
};

TEST(ObjectTable, FindOperationNameIsAnExactCaseSensitiveSearch) {
  constexpr std::u16string_view base[] = {u"ObjectIsA", u"ObjectPing"};
  EXPECT_EQ(-1, Lookup::Find(base, 0, u"ObjectIsA"));
  EXPECT_EQ(0, Lookup::Find(base, 2, u"ObjectIsA"));
  EXPECT_EQ(1, Lookup::Find(base, 2, u"ObjectPing"));
  EXPECT_EQ(-1, Lookup::Find(base, 2, u"objectisa"));
  EXPECT_EQ(-1, Lookup::Find(base, 2, u"OBJECTPING"));
  EXPECT_EQ(-1, Lookup::Find(base, 2, u"ObjectIs"));
  EXPECT_EQ(-1, Lookup::Find(base, 2, u"ObjectPingX"));
  EXPECT_EQ(-1, Lookup::Find(base, 2, u""));

  // Every element of a longer table is found, and the gaps are not.
  constexpr std::u16string_view names[] = {u"A", u"Ab", u"B", u"Echo", u"EchoBlob", u"Fail", u"Z", u"\u00e9"};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(i, Lookup::Find(names, 8, std::u16string(names[i])));
  for (const char16_t* gap : {u"", u"AA", u"Ec", u"F", u"a", u"\uffff"}) EXPECT_EQ(-1, Lookup::Find(names, 8, gap));
}

TEST(ObjectTable, TypeIdsAppendAndIsAUsesTheVirtualList) {
  struct Printer : Object {
    void GetObjectIds(std::vector<std::u16string>& ids) override {
      Object::GetObjectIds(ids);
      ids.emplace_back(u"::App::Printer");
    }
    std::u16string GetObjectId() override { return u"::App::Printer"; }
  };
  Printer printer;
  std::vector<std::u16string> ids{u"already"};
  printer.GetObjectIds(ids);
  EXPECT_EQ((std::vector<std::u16string>{u"already", u"::TAVIX::Object", u"::App::Printer"}), ids);
  EXPECT_EQ(u"::TAVIX::Object", Object().GetObjectId());

  const Context ctx;
  bool answer = false;
  EXPECT_EQ(0u, printer.ObjectIsA(u"::App::Printer", answer, ctx));
  EXPECT_TRUE(answer);
  EXPECT_EQ(0u, printer.ObjectIsA(u"::app::printer", answer, ctx));
  EXPECT_FALSE(answer);
  EXPECT_EQ(0u, Object().ObjectIsA(u"::App::Printer", answer, ctx));
  EXPECT_FALSE(answer);
}

// A servant whose behaviour each test chooses.
class ProbeServant : public Object {
 public:
  uint32_t pingStatus = 0;
  int pings = 0;
  Context seen;
  int32_t invocationsSeen = -1;
  SmartPtr<ObjectAdapter> adapter;

  uint32_t ObjectPing(const Context& ctx) override {
    ++pings;
    seen = ctx;
    if (adapter) invocationsSeen = adapter->GetInvocationCount();
    return pingStatus;
  }
};

// Handles one request body (the header is the run loop's) on the test's
// thread, as the run loop would.
class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_adapter = MakeShared<ObjectAdapter>();
    m_adapter->Activate();
    m_servant = MakeShared<ProbeServant>();
    m_servant->adapter = m_adapter;
    ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(m_servant), std::u16string(u"A")));
    m_transceiver = MakeShared<FakeTransceiver>();
    m_connection = MakeShared<Connection>();
    m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  }
  void TearDown() override { m_servant->adapter = nullptr; }

  // Feeds the body of `message` and handles it; returns what was sent.
  Bytes Handle(const Bytes& message) {
    m_transceiver->Feed(Bytes(message.begin() + HEADER_SIZE, message.end()));
    ObjectHelper request(m_connection, m_adapter, static_cast<int32_t>(message.size()));
    request.Invoke();
    return m_transceiver->Output();
  }

  SmartPtr<ObjectAdapter> m_adapter;
  SmartPtr<ProbeServant> m_servant;
  SmartPtr<FakeTransceiver> m_transceiver;
  SmartPtr<Connection> m_connection;
};

// The reply without its serverTime, which depends on the clock.
Bytes WithoutServerTime(Bytes reply) {
  if (reply.size() >= 36) std::fill(reply.begin() + 28, reply.begin() + 36, 0);
  return reply;
}

TEST_F(RequestTest, PingRequestAndReplyBytes) {
  const Bytes request = Request(1, u"A", u"ObjectPing");
  ASSERT_EQ(
      "58 47 52 51 01 02 01 01 00 00 30 00 00 00 00 00 00 00 B0 BB 01 00 00 00 01 41 00 0A 4F 00 62 00 6A 00 65 "
      "00 63 00 74 00 50 00 69 00 6E 00 67 00",
      Hex(request));
  const Bytes reply = Handle(request);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 24 00 00 00 00 00 00 00 E1 81 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
      Hex(WithoutServerTime(reply)));
  const double serverTime = ParseReply(reply).serverTime;
  EXPECT_GE(serverTime, 0.0);
  EXPECT_LT(serverTime, 1000.0);
  EXPECT_EQ(1, m_servant->pings);
  EXPECT_EQ(1, m_servant->invocationsSeen);
  EXPECT_EQ(0, m_adapter->GetInvocationCount());
}

TEST_F(RequestTest, IsAAnswersTrueAndFalse) {
  const Bytes yes = Handle(Request(2, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get()));
  ASSERT_EQ(37u, yes.size());
  EXPECT_EQ("25 00 00 00", Hex(Bytes(yes.begin() + 10, yes.begin() + 14)));
  EXPECT_EQ(2, ParseReply(yes).requestId);
  EXPECT_EQ(0u, ParseReply(yes).status);
  EXPECT_EQ(0x01, yes.back());

  const Bytes no = Handle(Request(3, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Printer").get()));
  ASSERT_EQ(74u, no.size());
  const Reply second = ParseReply(Bytes(no.begin() + 37, no.end()));
  EXPECT_EQ(3, second.requestId);
  EXPECT_EQ(0u, second.status);
  EXPECT_EQ(Bytes{0x00}, second.results);
}

TEST_F(RequestTest, ErrorRepliesCarryTheirStatusAndNoResults) {
  // No servant under the name: exact bytes, serverTime 0.0 since no servant ran.
  const Bytes missing = Handle(Request(3, u"B", u"ObjectPing"));
  Bytes expected = Header(MSG_REPLY, 36);
  expected = Concat(expected, Writer().i32(3).i32(0x2000000C).f64(0.0).get());
  EXPECT_EQ(Hex(expected), Hex(missing));

  // Names are case-sensitive.
  m_transceiver = MakeShared<FakeTransceiver>();
  m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  EXPECT_EQ(Err::ObjectNotFound, ParseReply(Handle(Request(4, u"a", u"ObjectPing"))).status);

  // An unknown operation; its arguments are never read but do not linger.
  m_transceiver = MakeShared<FakeTransceiver>();
  m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  const Reply unknown = ParseReply(Handle(Request(5, u"A", u"Print", Bytes(200000, 0x7A))));
  EXPECT_EQ(Err::OperationNotFound, unknown.status);
  EXPECT_EQ(36, unknown.size);
  EXPECT_EQ(5, unknown.requestId);
  EXPECT_TRUE(unknown.results.empty());
  EXPECT_NE(1, m_transceiver->WaitForRecv(1)) << "the unread arguments were left behind";

  // A servant's own status.
  m_transceiver = MakeShared<FakeTransceiver>();
  m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  m_servant->pingStatus = 5;
  const Reply five = ParseReply(Handle(Request(6, u"A", u"ObjectPing")));
  EXPECT_EQ(5u, five.status);
  EXPECT_EQ(36, five.size);
}

TEST_F(RequestTest, InactiveAdapterRefusesWithoutLookingUp) {
  m_adapter->Deactivate();
  const Bytes reply = Handle(Request(9, u"A", u"ObjectPing"));
  Bytes expected = Concat(Header(MSG_REPLY, 36), Writer().i32(9).i32(0x20000014).f64(0.0).get());
  EXPECT_EQ(Hex(expected), Hex(reply));
  EXPECT_EQ(0, m_servant->pings);
  EXPECT_EQ(0, m_adapter->GetInvocationCount());
}

TEST_F(RequestTest, OneWayRequestsRunAndSendNothing) {
  m_servant->pingStatus = 7;
  EXPECT_TRUE(Handle(Request(0, u"A", u"ObjectPing")).empty());
  EXPECT_EQ(1, m_servant->pings);
  EXPECT_EQ(1, m_servant->seen.oneway);
  EXPECT_TRUE(Handle(Request(0, u"nobody", u"ObjectPing")).empty());
  EXPECT_TRUE(Handle(Request(0, u"A", u"Unknown", Bytes(10, 1))).empty());
  m_adapter->Deactivate();
  EXPECT_TRUE(Handle(Request(0, u"A", u"ObjectPing")).empty());
}

TEST_F(RequestTest, ContextDescribesTheRequest) {
  Handle(Request(11, u"A", u"ObjectPing"));
  const Context& ctx = m_servant->seen;
  EXPECT_EQ(static_cast<uint32_t>(FakeTransceiver::kHandle), ctx.connectionId);
  EXPECT_EQ(u"A", ctx.objectName);
  EXPECT_EQ(u"ObjectPing", ctx.operation);
  EXPECT_EQ(u"", ctx.reserved);
  EXPECT_EQ(0, ctx.oneway);
  EXPECT_EQ(u"10.1.2.3", ctx.peerAddress);
  EXPECT_EQ(4321, ctx.peerPort);
}

// A servant with operations of its own beside the built-in ones.
class Custom : public Object {
 public:
  int32_t big = 0;          // "Big": a wide string of this many units
  uint32_t sleepMs = 0;     // "Slow": this long between start and end
  bool throwIt = false;     // "Throw"

  void Dispatch(ObjectHelper& request) override {
    const std::u16string& op = request.GetContext().operation;
    if (op == u"Big") {
      request.PrepareServant();
      const std::u16string text(static_cast<size_t>(big), u'x');
      request.FinishServant(0, BasicStream::lengthOf(text));
      request.os()->write(text);
    } else if (op == u"Slow") {
      request.PrepareServant();
      platform::SleepMs(sleepMs);
      request.FinishServant(0, 0);
    } else if (op == u"Forget") {
      request.PrepareServant();  // and never finishes
    } else if (op == u"Throw") {
      throw std::runtime_error("servant failed");
    } else {
      Object::Dispatch(request);
    }
  }
};

TEST_F(RequestTest, CustomServantsLargeRepliesTimesAndForgottenReplies) {
  SmartPtr<Custom> custom = MakeShared<Custom>();
  ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(custom), std::u16string(u"C")));

  custom->big = 100000;  // 200005 bytes of results, streamed in 64 KiB blocks
  const Bytes big = Handle(Request(1, u"C", u"Big"));
  const Reply reply = ParseReply(big);
  EXPECT_EQ(36 + 5 + 200000, reply.size);
  ASSERT_EQ(static_cast<size_t>(reply.size), big.size());
  EXPECT_EQ(Writer().wstr(std::u16string(100000, u'x')).get(), reply.results);

  m_transceiver = MakeShared<FakeTransceiver>();
  m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  custom->sleepMs = 40;
  const double measured = ParseReply(Handle(Request(2, u"C", u"Slow"))).serverTime;
  EXPECT_GE(measured, 39.0);
  EXPECT_LT(measured, 2000.0);

  m_transceiver = MakeShared<FakeTransceiver>();
  m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  const Reply forgotten = ParseReply(Handle(Request(3, u"C", u"Forget")));
  EXPECT_EQ(Err::Unhandled, forgotten.status);
  EXPECT_EQ(36, forgotten.size);
  EXPECT_EQ(3, forgotten.requestId);

  // The base operations still answer through the derived Dispatch.
  m_transceiver = MakeShared<FakeTransceiver>();
  m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  EXPECT_EQ(0u, ParseReply(Handle(Request(4, u"C", u"ObjectPing"))).status);
}

TEST_F(RequestTest, FailuresRaiseAndLeaveTheCountersClean) {
  SmartPtr<Custom> custom = MakeShared<Custom>();
  ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(custom), std::u16string(u"C")));
  EXPECT_THROW(Handle(Request(1, u"C", u"Throw")), std::runtime_error);
  EXPECT_EQ(0, m_adapter->GetInvocationCount());
  EXPECT_TRUE(m_transceiver->Output().empty());

  // A body cut short: the type id of ObjectIsA claims more than the message holds.
  Bytes cut = Request(2, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get());
  cut.resize(cut.size() - 4);
  const Bytes header = Header(MSG_REQUEST, static_cast<int32_t>(cut.size()));
  std::copy(header.begin(), header.end(), cut.begin());
  try {
    Handle(cut);
    ADD_FAILURE() << "no exception";
  } catch (const TavixException& e) {
    EXPECT_EQ(Err::OutOfBounds, e.Code());
  }

  // A negative string size.
  const Bytes negative = Concat(Header(MSG_REQUEST, 20 + 4 + 5),
                                Writer().i32(1).u8(0xFF).i32(-5).get());
  try {
    Handle(negative);
    ADD_FAILURE() << "no exception";
  } catch (const TavixException& e) {
    EXPECT_EQ(Err::IllegalSize, e.Code());
  }
  EXPECT_EQ(0, m_adapter->GetInvocationCount());
}

}  // namespace
}  // namespace TAVIX
