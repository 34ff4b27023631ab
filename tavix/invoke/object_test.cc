// One request's way through ObjectHelper and the servant base, sent by a raw client so that the exact reply bytes
// can be checked; and what a connection sends outside of calls, with the one loop ending a TCP client cannot cause:
// the validation message failing to go out.
#include "tavix/invoke/object.h"

#include "tavix/adapter/tcp_connection_factory.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// Besides the built-ins: "Slow" takes 40 ms, "Forget" never finishes.
class Servant : public Object {
 public:
  std::atomic<uint32_t> pingStatus{0};
  std::atomic<int> pings{0};
  std::atomic<int32_t> invocationsSeen{-1};
  std::atomic<int32_t> oneway{-1};
  ObjectAdapter* adapter = nullptr;

  uint32_t ObjectPing(const Context& ctx) override {
    ++pings;
    oneway = ctx.oneway;
    invocationsSeen = adapter->GetInvocationCount();
    return pingStatus;
  }
  void Dispatch(ObjectHelper& request) override {
    const std::u16string& op = request.GetContext().operation;
    if (op != u"Slow" && op != u"Forget") return Object::Dispatch(request);
    request.PrepareServant();
    if (op == u"Forget") return;
    platform::SleepMs(40);
    request.FinishServant(0, 0);
  }
};

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_servant->adapter = m_server.adapter.get();
    ASSERT_TRUE(m_client.Connect(m_server.port));
    m_client.Receive(HEADER_SIZE);
  }
  Bytes Call(const Bytes& request) {
    EXPECT_TRUE(m_client.Send(request));
    return m_client.ReceiveMessage();
  }

  SmartPtr<Servant> m_servant = MakeShared<Servant>();
  TestServer m_server{m_servant};
  RawClient m_client;
};

TEST_F(RequestTest, PingAndIsABytes) {
  const Bytes request = Request(1, u"A", u"ObjectPing");
  ASSERT_EQ(
      "58 47 52 51 01 02 01 01 00 00 30 00 00 00 00 00 00 00 B0 BB 01 00 00 00 01 41 00 0A 4F 00 62 00 6A 00 65 "
      "00 63 00 74 00 50 00 69 00 6E 00 67 00",
      Hex(request));
  Bytes ping = Call(request);
  ASSERT_EQ(36u, ping.size());
  const double serverTime = ParseReply(ping).serverTime;
  EXPECT_TRUE(serverTime >= 0.0 && serverTime < 1000.0) << serverTime;
  std::fill(ping.begin() + 28, ping.end(), 0);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 24 00 00 00 00 00 00 00 E1 81 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
      Hex(ping));
  EXPECT_EQ(1, m_servant->invocationsSeen.load());
  EXPECT_EQ(0, m_server.adapter->GetInvocationCount());

  Bytes yes = Call(Request(2, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get()));
  ASSERT_EQ(37u, yes.size());
  std::fill(yes.begin() + 28, yes.begin() + 36, 0);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 25 00 00 00 00 00 00 00 20 4D 02 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01",
      Hex(yes));
  const Reply no = ParseReply(Call(Request(3, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Printer").get())));
  EXPECT_EQ(0u, no.status) << "false is an answer, not an error";
  EXPECT_EQ(Bytes{0x00}, no.results);

  EXPECT_GE(ParseReply(Call(Request(4, u"A", u"Slow"))).serverTime, 39.0);
}

TEST_F(RequestTest, ErrorRepliesEchoTheIdAndCarryNoResults) {
  // Before any servant runs the server time is exactly 0.0.
  EXPECT_EQ(Hex(ReplyMessage(3, Err::ObjectNotFound)), Hex(Call(Request(3, u"B", u"ObjectPing"))));
  m_servant->pingStatus = 5;
  const std::tuple<const char16_t*, const char16_t*, uint32_t> cases[] = {
      {u"a", u"ObjectPing", Err::ObjectNotFound},
      {u"A", u"Print", Err::OperationNotFound},
      {u"A", u"objectping", Err::OperationNotFound},
      {u"A", u"ObjectPing", 5},
      {u"A", u"Forget", Err::Unhandled},
  };
  int32_t id = 10;
  for (const auto& [object, operation, status] : cases) {
    const Reply reply = ParseReply(Call(Request(++id, object, operation)));
    EXPECT_EQ(status, reply.status) << NarrowString(operation);
    EXPECT_EQ(id, reply.requestId);
    EXPECT_EQ(36, reply.size);
  }
  m_server.adapter->Deactivate();
  const int pings = m_servant->pings;
  EXPECT_EQ(Hex(ReplyMessage(9, Err::AdapterInactive)), Hex(Call(Request(9, u"A", u"ObjectPing"))));
  EXPECT_EQ(pings, m_servant->pings);
}

// Whatever happens to a one-way request, the next reply is the two-way request's after it.
TEST_F(RequestTest, OneWayRequestsRunAndSendNothing) {
  m_servant->pingStatus = 7;
  Bytes oneWays;
  for (const char16_t* object : {u"A", u"nobody"}) {
    for (const char16_t* operation : {u"ObjectPing", u"Forget", u"Unknown"}) {
      oneWays = Concat(oneWays, Request(0, object, operation, Bytes(10, 1)));
    }
  }
  EXPECT_EQ(20, ParseReply(Call(Concat(oneWays, Request(20, u"A", u"Forget")))).requestId);
  EXPECT_EQ(1, m_servant->pings.load());
  EXPECT_EQ(1, m_servant->oneway.load());
  m_server.adapter->Deactivate();
  EXPECT_EQ(21, ParseReply(Call(Concat(Request(0, u"A", u"ObjectPing"), Request(21, u"A", u"ObjectPing")))).requestId);
}

// Keeps what is sent, or fails every send with `sendError`; never has anything to read.
class SendOnlyTransceiver : public TcpTransceiver {
 public:
  explicit SendOnlyTransceiver(int32_t type = 1) : m_type(type) {}
  int32_t GetHandle() const override { return 0x7FFF0000; }  // never a descriptor of this process
  int32_t Type() const override { return m_type; }
  int32_t Send(const void* buffer, int32_t length) override {
    if (sendError != 0) return TavixSetLastError(sendError), -1;
    sent.insert(sent.end(), static_cast<const uint8_t*>(buffer), static_cast<const uint8_t*>(buffer) + length);
    return length;
  }

  Bytes sent;
  uint32_t sendError = 0;

 private:
  const int32_t m_type;
};

// The validation and close bytes over TCP are checked by the server and proxy tests; datagrams are not validated.
TEST(Connection, DatagramsAreNotValidated) {
  auto udp = MakeShared<SendOnlyTransceiver>(2);
  Connection datagram;
  datagram.SetTransceiver(SmartPtr<ITransceiver>(udp));
  EXPECT_EQ(0, datagram.SendValidation());
  EXPECT_EQ(0, datagram.Validate(0));
  EXPECT_TRUE(udp->sent.empty());
}

TEST(Connection, FailedValidationIsAReceiveErrorWithoutStopLine) {
  LogLines log;
  auto adapter = MakeShared<ObjectAdapter>();
  int32_t reason = -1;
  adapter->RegisterDisconnectNotification(
      [](void* context, TavixDisconnectReason why) { *static_cast<int32_t*>(context) = why; }, &reason);
  auto transceiver = MakeShared<SendOnlyTransceiver>();
  transceiver->sendError = EPIPE;
  auto connection = MakeShared<Connection>(MakeShared<TcpConnectionFactory>(nullptr, adapter));
  connection->SetTransceiver(SmartPtr<ITransceiver>(transceiver));
  ASSERT_TRUE(connection->Activate());
  std::u16string text;
  GetErrMsg(EPIPE, text);
  EXPECT_TRUE(log.Has(FormatString(u"ERROR: Send Validation message to client failed:%d,%s.", EPIPE, text)));
  connection->WaitUntilDestroy();
  EXPECT_EQ(DISCONNECT_RECV_ERROR, reason);
  EXPECT_TRUE(log.Has(u"Thread for client  started.", 0));
  EXPECT_FALSE(log.Has(u"Thread for client  stoped.", 0));
}

}  // namespace
}  // namespace TAVIX
