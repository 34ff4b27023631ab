// The servant base and one request's way through ObjectHelper, driven over
// an in-memory transceiver so that the exact reply bytes can be checked.
#include "tavix/invoke/object.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

struct Lookup : Object {
  using Object::FindOperationName;
};

TEST(ObjectTable, FindOperationNameIsAnExactCaseSensitiveSearch) {
  constexpr std::u16string_view base[] = {u"ObjectIsA", u"ObjectPing"};
  EXPECT_EQ(-1, Lookup::FindOperationName(base, 0, u"ObjectIsA"));
  EXPECT_EQ(0, Lookup::FindOperationName(base, 2, u"ObjectIsA"));
  EXPECT_EQ(1, Lookup::FindOperationName(base, 2, u"ObjectPing"));
  for (const char16_t* miss : {u"objectisa", u"OBJECTPING", u"ObjectIs", u"ObjectPingX", u""}) {
    EXPECT_EQ(-1, Lookup::FindOperationName(base, 2, miss));
  }
  constexpr std::u16string_view names[] = {u"A", u"Ab", u"B", u"Echo", u"EchoBlob", u"Fail", u"Z", u"\u00e9"};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(i, Lookup::FindOperationName(names, 8, std::u16string(names[i])));
  for (const char16_t* gap : {u"AA", u"Ec", u"F", u"a", u"\uffff"}) {
    EXPECT_EQ(-1, Lookup::FindOperationName(names, 8, gap));
  }
}

TEST(ObjectTable, TypeIdsAppendAndIsAUsesTheVirtualList) {
  struct Printer : Object {
    void GetObjectIds(std::vector<std::u16string>& ids) override {
      Object::GetObjectIds(ids);
      ids.emplace_back(u"::App::Printer");
    }
  };
  Printer printer;
  std::vector<std::u16string> ids{u"already"};
  printer.GetObjectIds(ids);
  EXPECT_EQ((std::vector<std::u16string>{u"already", u"::TAVIX::Object", u"::App::Printer"}), ids);
  bool answer = false;
  EXPECT_EQ(0u, printer.ObjectIsA(u"::App::Printer", answer, Context()));
  EXPECT_TRUE(answer);
  EXPECT_EQ(0u, printer.ObjectIsA(u"::app::printer", answer, Context()));
  EXPECT_FALSE(answer);
}

// Besides the built-in operations: "Big" answers that many wide units,
// "Slow" takes 40 ms, "Forget" never finishes, "Throw" throws.
class Servant : public Object {
 public:
  uint32_t pingStatus = 0;
  int pings = 0;
  int32_t invocationsSeen = -1;
  Context seen;
  ObjectAdapter* adapter = nullptr;

  uint32_t ObjectPing(const Context& ctx) override {
    ++pings;
    seen = ctx;
    invocationsSeen = adapter->GetInvocationCount();
    return pingStatus;
  }
  void Dispatch(ObjectHelper& request) override {
    const std::u16string& op = request.GetContext().operation;
    if (op == u"Big") {
      int32_t units = 0;
      request.is()->read(units);
      const std::u16string text(static_cast<size_t>(units), u'x');
      request.FinishServant(0, BasicStream::lengthOf(text));
      request.os()->write(text);
    } else if (op == u"Slow") {
      request.PrepareServant();
      platform::SleepMs(40);
      request.FinishServant(0, 0);
    } else if (op == u"Forget") {
      request.PrepareServant();
    } else if (op == u"Throw") {
      throw std::runtime_error("servant failed");
    } else {
      Object::Dispatch(request);
    }
  }
};

// Handles request bodies on the test's thread, as the run loop would.
class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_adapter->Activate();
    m_servant->adapter = m_adapter.get();
    ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(m_servant), std::u16string(u"A")));
  }

  // Feeds the body of `message` to a fresh transceiver, handles it and
  // returns what was sent.
  Bytes Handle(const Bytes& message) {
    m_transceiver = MakeShared<FakeTransceiver>();
    m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
    m_transceiver->Feed(Bytes(message.begin() + HEADER_SIZE, message.end()));
    ObjectHelper request(m_connection, m_adapter, static_cast<int32_t>(message.size()));
    request.Invoke();
    return m_transceiver->Output();
  }

  SmartPtr<ObjectAdapter> m_adapter = MakeShared<ObjectAdapter>();
  SmartPtr<Servant> m_servant = MakeShared<Servant>();
  SmartPtr<FakeTransceiver> m_transceiver;
  SmartPtr<Connection> m_connection = MakeShared<Connection>();
};

Bytes ErrorReply(int32_t id, uint32_t status) {
  return Concat(Header(MSG_REPLY, 36), Writer().i32(id).i32(static_cast<int32_t>(status)).f64(0.0).get());
}

TEST_F(RequestTest, PingAndIsABytes) {
  const Bytes request = Request(1, u"A", u"ObjectPing");
  ASSERT_EQ(
      "58 47 52 51 01 02 01 01 00 00 30 00 00 00 00 00 00 00 B0 BB 01 00 00 00 01 41 00 0A 4F 00 62 00 6A 00 65 "
      "00 63 00 74 00 50 00 69 00 6E 00 67 00",
      Hex(request));
  Bytes ping = Handle(request);
  ASSERT_EQ(36u, ping.size());
  const double serverTime = ParseReply(ping).serverTime;
  EXPECT_TRUE(serverTime >= 0.0 && serverTime < 1000.0) << serverTime;
  std::fill(ping.begin() + 28, ping.end(), 0);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 24 00 00 00 00 00 00 00 E1 81 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
      Hex(ping));
  EXPECT_EQ(1, m_servant->invocationsSeen);
  EXPECT_EQ(0, m_adapter->GetInvocationCount());

  const Bytes yes = Handle(Request(2, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get()));
  ASSERT_EQ(37u, yes.size());
  EXPECT_EQ("25 00 00 00", Hex(Bytes(yes.begin() + 10, yes.begin() + 14)));
  EXPECT_EQ(2, ParseReply(yes).requestId);
  EXPECT_EQ(0x01, yes.back());
  const Reply no = ParseReply(Handle(Request(3, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Printer").get())));
  EXPECT_EQ(0u, no.status) << "false is an answer, not an error";
  EXPECT_EQ(Bytes{0x00}, no.results);
}

TEST_F(RequestTest, ErrorRepliesEchoTheIdAndCarryNoResults) {
  // Before any servant runs the serverTime is exactly 0.0.
  EXPECT_EQ(Hex(ErrorReply(3, Err::ObjectNotFound)), Hex(Handle(Request(3, u"B", u"ObjectPing"))));
  EXPECT_EQ(Hex(ErrorReply(4, Err::ObjectNotFound)), Hex(Handle(Request(4, u"a", u"ObjectPing"))));

  // Arguments of an unknown operation are never read, yet do not linger.
  const Reply unknown = ParseReply(Handle(Request(5, u"A", u"Print", Bytes(200000, 0x7A))));
  EXPECT_EQ(Err::OperationNotFound, unknown.status);
  EXPECT_EQ(36, unknown.size);
  EXPECT_EQ(5, unknown.requestId);
  EXPECT_NE(1, m_transceiver->WaitForRecv(1)) << "unread arguments left behind";

  m_servant->pingStatus = 5;
  const Reply five = ParseReply(Handle(Request(6, u"A", u"ObjectPing")));
  EXPECT_EQ(5u, five.status);
  EXPECT_EQ(36, five.size);

  const Reply forgotten = ParseReply(Handle(Request(7, u"A", u"Forget")));
  EXPECT_EQ(Err::Unhandled, forgotten.status);
  EXPECT_EQ(36, forgotten.size);

  m_adapter->Deactivate();
  const int pings = m_servant->pings;
  EXPECT_EQ(Hex(ErrorReply(9, Err::AdapterInactive)), Hex(Handle(Request(9, u"A", u"ObjectPing"))));
  EXPECT_EQ(pings, m_servant->pings);
}

TEST_F(RequestTest, OneWayRequestsRunAndSendNothing) {
  m_servant->pingStatus = 7;
  EXPECT_TRUE(Handle(Request(0, u"A", u"ObjectPing")).empty());
  EXPECT_EQ(1, m_servant->pings);
  EXPECT_EQ(1, m_servant->seen.oneway);
  EXPECT_TRUE(Handle(Request(0, u"nobody", u"ObjectPing")).empty());
  EXPECT_TRUE(Handle(Request(0, u"A", u"Forget")).empty());
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

TEST_F(RequestTest, LargeRepliesAndServerTime) {
  const Bytes big = Handle(Request(1, u"A", u"Big", Writer().i32(100000).get()));
  const Reply reply = ParseReply(big);
  EXPECT_EQ(36 + 5 + 200000, reply.size);
  EXPECT_EQ(static_cast<size_t>(reply.size), big.size());
  EXPECT_EQ(Writer().wstr(std::u16string(100000, u'x')).get(), reply.results);

  const double measured = ParseReply(Handle(Request(2, u"A", u"Slow"))).serverTime;
  EXPECT_GE(measured, 39.0);
  EXPECT_LT(measured, 2000.0);
}

TEST_F(RequestTest, FailuresRaiseAndLeaveTheCounterClean) {
  EXPECT_THROW(Handle(Request(1, u"A", u"Throw")), std::runtime_error);
  EXPECT_TRUE(m_transceiver->Output().empty());

  // The type id of ObjectIsA claims more than the message holds.
  Bytes cut = Request(2, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get());
  cut.resize(cut.size() - 4);
  const Bytes header = Header(MSG_REQUEST, static_cast<int32_t>(cut.size()));
  std::copy(header.begin(), header.end(), cut.begin());
  const auto code = [&](const Bytes& message) {
    try {
      Handle(message);
    } catch (const TavixException& e) {
      return e.Code();
    }
    return 0u;
  };
  EXPECT_EQ(Err::OutOfBounds, code(cut));
  EXPECT_EQ(Err::IllegalSize, code(Concat(Header(MSG_REQUEST, 20 + 9), Writer().i32(1).u8(0xFF).i32(-5).get())));
  EXPECT_EQ(0, m_adapter->GetInvocationCount());
}

}  // namespace
}  // namespace TAVIX
