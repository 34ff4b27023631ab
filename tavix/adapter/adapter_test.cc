// The server side over real TCP, driven by raw-socket clients: exact request and reply bytes through ObjectHelper and
// the servant base, the stream kept in step, every way a connection's loop ends (reason, log line, reaping), many
// clients at once, shutdown under a running request; what a connection sends outside of calls; the object adapter's
// servants, passports and ports; and the TCP connection factory's shutdown.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "tavix/adapter/tcp_connection_factory.h"
#include "tavix/client/proxy_object.h"
#include "tavix/core/host_info.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/message_buffers.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/testing/wire.h"
#include "tavix/transport/passport.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// Besides the built-ins: "Echo", "Peer" (the client as the request context names it), "Sleep" (200 ms), "Forget"
// (never finishes) and four operations that throw.
class Servant : public Object {
 public:
  std::atomic<bool> sleeping{false};
  std::atomic<uint32_t> pingStatus{0};
  std::atomic<int> pings{0};
  std::atomic<int32_t> invocationsSeen{-1}, oneway{-1};
  ObjectAdapter* adapter = nullptr;
  uint32_t ObjectPing(const Context& ctx) override {
    ++pings;
    oneway = ctx.oneway;
    invocationsSeen = adapter->GetInvocationCount();
    return pingStatus;
  }
  void Dispatch(ObjectHelper& request) override {
    const Context& ctx = request.GetContext();
    const std::u16string& op = ctx.operation;
    if (op == u"Std") throw std::runtime_error("disk on fire");
    if (op == u"Int") throw 42;
    if (op == u"Fault") throw Win32SE(nullptr);
    if (op == u"Library") TavixThrow(Err::BlobIoError);
    if (op == u"Echo") {
      std::u16string text;
      request.is()->read(text);
      request.FinishServant(0, BasicStream::lengthOf(text));
      request.os()->write(text);
    } else if (op == u"Sleep" || op == u"Forget") {
      request.PrepareServant();
      if (op == u"Forget") return;
      sleeping.store(true);
      platform::SleepMs(200);
      request.FinishServant(0, 0);
    } else if (op == u"Peer") {
      request.FinishServant(0, BasicStream::lengthOf(ctx.peerAddress) + 8);
      request.os()->write(ctx.peerAddress);
      request.os()->write(static_cast<int32_t>(ctx.peerPort));
      request.os()->write(static_cast<int32_t>(ctx.connectionId));
    } else {
      Object::Dispatch(request);
    }
  }
};

// The servant served on a free port, and a client of it already validated.
class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(0, m_server.port);
    m_servant->adapter = m_server.adapter.get();
    m_server.adapter->RegisterDisconnectNotification(&Disconnects::Callback, &m_disconnects);
    Connect(m_client);
  }
  void Connect(RawClient& client) {
    ASSERT_TRUE(client.Connect(m_server.port));
    ASSERT_EQ("58 47 52 51 01 02 01 01 02 00 14 00 00 00 00 00 00 00 12 9A", Hex(client.Receive(HEADER_SIZE)));
  }
  // The whole reply message to `request`, on the fixture's client unless another is given.
  Bytes RawCall(const Bytes& request, RawClient* client = nullptr) {
    RawClient& on = client != nullptr ? *client : m_client;
    EXPECT_TRUE(on.Send(request));
    return on.ReceiveMessage();
  }
  Reply Call(const Bytes& request, RawClient* client = nullptr) { return ParseReply(RawCall(request, client)); }
  Disconnects m_disconnects;
  SmartPtr<Servant> m_servant = MakeShared<Servant>();
  TestServer m_server{m_servant};
  RawClient m_client;
};

TEST_F(ServerTest, PingAndIsABytes) {
  const Bytes request = Request(1, u"A", u"ObjectPing");
  ASSERT_EQ(
      "58 47 52 51 01 02 01 01 00 00 30 00 00 00 00 00 00 00 B0 BB 01 00 00 00 01 41 00 0A 4F 00 62 00 6A 00 65 "
      "00 63 00 74 00 50 00 69 00 6E 00 67 00",
      Hex(request));
  Bytes ping = RawCall(request);
  ASSERT_EQ(36u, ping.size());
  const double serverTime = ParseReply(ping).serverTime;
  EXPECT_TRUE(serverTime >= 0.0 && serverTime < 1000.0) << serverTime;
  std::fill(ping.begin() + 28, ping.end(), 0);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 24 00 00 00 00 00 00 00 E1 81 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
      Hex(ping));
  EXPECT_EQ(1, m_servant->invocationsSeen.load());
  EXPECT_EQ(0, m_server.adapter->GetInvocationCount());
  Bytes yes = RawCall(Request(2, u"A", u"ObjectIsA", WStr(u"::TAVIX::Object")));
  ASSERT_EQ(37u, yes.size());
  std::fill(yes.begin() + 28, yes.begin() + 36, 0);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 25 00 00 00 00 00 00 00 20 4D 02 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01",
      Hex(yes));
  const Reply no = Call(Request(3, u"A", u"ObjectIsA", WStr(u"::TAVIX::Printer")));
  EXPECT_EQ(0u, no.status) << "false is an answer, not an error";
  EXPECT_EQ(Bytes{0x00}, no.results);
}

TEST_F(ServerTest, ErrorRepliesEchoTheIdAndCarryNoResults) {
  // Before any servant runs the server time is exactly 0.0.
  EXPECT_EQ(Hex(ReplyMessage(3, Err::ObjectNotFound)), Hex(RawCall(Request(3, u"B", u"ObjectPing"))));
  m_servant->pingStatus = 5;
  const std::tuple<const char16_t*, const char16_t*, uint32_t> cases[] = {
      {u"a", u"ObjectPing", Err::ObjectNotFound}, {u"A", u"Print", Err::OperationNotFound},
      {u"A", u"objectping", Err::OperationNotFound}, {u"A", u"ObjectPing", 5}, {u"A", u"Forget", Err::Unhandled},
  };
  int32_t id = 10;
  for (const auto& [object, operation, status] : cases) {
    const Reply reply = Call(Request(++id, object, operation));
    EXPECT_EQ(std::tuple(status, id, 36), std::tuple(reply.status, reply.requestId, reply.size))
        << NarrowString(operation);
  }
  m_server.adapter->Deactivate();
  const int pings = m_servant->pings;
  EXPECT_EQ(Hex(ReplyMessage(9, Err::AdapterInactive)), Hex(RawCall(Request(9, u"A", u"ObjectPing"))));
  EXPECT_EQ(pings, m_servant->pings);
}

// A connection keeps the servant it found last: a removed or replaced one
// must show at the very next request on the same connection.
TEST_F(ServerTest, ServantsRemovedOrReplacedShowAtTheNextRequest) {
  EXPECT_EQ(0u, Call(Request(1, u"A", u"ObjectPing")).status);
  ASSERT_TRUE(m_server.adapter->RemoveServant(std::string("A")));
  EXPECT_EQ(Err::ObjectNotFound, Call(Request(2, u"A", u"ObjectPing")).status);
  auto other = MakeShared<Servant>();
  other->adapter = m_server.adapter.get();
  other->pingStatus = 9;
  ASSERT_TRUE(m_server.adapter->AddServant(SmartPtr<Object>(other), std::string("A")));
  EXPECT_EQ(9u, Call(Request(3, u"A", u"ObjectPing")).status);
  EXPECT_EQ(std::pair(1, 1), std::pair(m_servant->pings.load(), other->pings.load()));
}

// Whatever happens to a one-way request, the next reply is the two-way request's after it.
TEST_F(ServerTest, OneWayRequestsRunAndSendNothing) {
  m_servant->pingStatus = 7;
  Bytes oneWays;
  for (const char16_t* object : {u"A", u"nobody"}) {
    for (const char16_t* operation : {u"ObjectPing", u"Forget", u"Unknown"}) {
      oneWays = Concat(oneWays, Request(0, object, operation, Bytes(10, 1)));
    }
  }
  EXPECT_EQ(20, Call(Concat(oneWays, Request(20, u"A", u"Forget"))).requestId);
  EXPECT_EQ(1, m_servant->pings.load());
  EXPECT_EQ(1, m_servant->oneway.load());
  m_server.adapter->Deactivate();
  EXPECT_EQ(21, Call(Concat(Request(0, u"A", u"ObjectPing"), Request(21, u"A", u"ObjectPing"))).requestId);
}

TEST_F(ServerTest, PipelinedRequestsStayInStep) {
  Bytes batch;
  for (int32_t id = 1; id <= 40; ++id) {
    // Every third one is one-way and must stay silent.
    batch = Concat(batch, Request(id % 3 == 0 ? 0 : id, u"A", u"Echo", WStr(WiddenString(std::to_string(id)))));
  }
  // Bodies larger than a block left unread by the server: an unknown
  // operation, an unknown object, a one-way call with junk arguments.
  batch = Concat(batch, Request(41, u"A", u"NoSuchOperation", Bytes(150000, 0xEE)));
  batch = Concat(batch, Request(42, u"Nobody", u"Echo", Bytes(70000, 0xEE)));
  batch = Concat(batch, Request(0, u"A", u"ObjectPing", Bytes(70000, 0xEE)));
  batch = Concat(batch, Request(43, u"A", u"Echo", WStr(std::u16string(40000, u'w'))));
  ASSERT_TRUE(m_client.Send(batch));
  for (int32_t id = 1; id <= 40; ++id) {
    if (id % 3 == 0) continue;
    const Reply reply = ParseReply(m_client.ReceiveMessage());
    ASSERT_EQ(id, reply.requestId);
    EXPECT_EQ(WStr(WiddenString(std::to_string(id))), reply.results);
  }
  EXPECT_EQ(Err::OperationNotFound, ParseReply(m_client.ReceiveMessage()).status);
  EXPECT_EQ(Err::ObjectNotFound, ParseReply(m_client.ReceiveMessage()).status);
  const Reply big = ParseReply(m_client.ReceiveMessage());
  EXPECT_EQ(43, big.requestId);
  EXPECT_EQ(36 + 5 + 80000, big.size) << "a reply larger than 64 KiB";
  EXPECT_EQ(WStr(std::u16string(40000, u'w')), big.results);
  EXPECT_TRUE(m_client.Silent(100));
}

TEST_F(ServerTest, ContextAndLogNameTheClientAsTheSocketSeesIt) {
  LogLines log;
  RawClient client;
  Connect(client);
  const Reply reply = Call(Request(9, u"A", u"Peer"), &client);
  ASSERT_EQ(WStr(u"127.0.0.1").size() + 8, reply.results.size());
  EXPECT_EQ(WStr(u"127.0.0.1"), Bytes(reply.results.begin(), reply.results.begin() + 19));
  const int32_t port = ReadI32(reply.results, 19), handle = ReadI32(reply.results, 23);
  EXPECT_TRUE(log.Has(FormatString(u"Thread for client %d(127.0.0.1:%d) started.", handle, port)));
  ASSERT_TRUE(client.Send(Header(MSG_CLOSE, 20)));
  EXPECT_EQ(DISCONNECT_NORMAL, m_disconnects.Next());
  EXPECT_TRUE(log.Has(FormatString(u"Thread for client %d(127.0.0.1:%d) stoped.", handle, port)));
}

// Each client ends its own connection in one way; a bystander never notices, ended connections are reaped at the next
// accept, and a broken request is never answered.
TEST_F(ServerTest, EveryLoopEndingHasItsReasonAndLogLine) {
  Bytes badCrc = Header(MSG_CLOSE, 20), cutShort = Request(5, u"A", u"Echo", WStr(u"never complete"));
  badCrc[18] ^= 0x01;
  cutShort.resize(30);
  const std::u16string received = u"ERROR: Receive packect error(-2): ", thrown = u"ERROR: Tavix Exception catched: ";
  // What a client sends, whether it closes right after sending, the reason reported and the log line written.
  const std::tuple<Bytes, bool, TavixDisconnectReason, std::u16string> cases[] = {
      {Header(MSG_CLOSE, 20), false, DISCONNECT_NORMAL, u""},
      {badCrc, false, DISCONNECT_RECV_ERROR, received + u"536870945,CRC check error."},
      {Header(MSG_REQUEST, -5), false, DISCONNECT_RECV_ERROR, received + u"536871940,Illegal size"},
      {Bytes(8, 0x58), true, DISCONNECT_NETWORK_CLOSED, u"ERROR: Network Closed when receive packect(0)."},
      {Header(MSG_VALIDATE, 20), false, DISCONNECT_PROTOCOL_ERROR,
       u"ERROR: Request not supported::536870927,Message type not support."},
      {Header(MSG_REQUEST, 20), false, DISCONNECT_LIBRARY_EXCEPTION,
       thrown + u"536871938,Unmarshal or marshal Out Of Bounds"},
      {cutShort, true, DISCONNECT_LIBRARY_EXCEPTION, thrown + u"536870912,Connection has been closed."},
      {Request(4, u"A", u"Library"), false, DISCONNECT_LIBRARY_EXCEPTION,
       thrown + u"536871944,Error when read or write blob"},
      {Request(4, u"A", u"Std"), false, DISCONNECT_OTHER_ERROR, u"ERROR: STD exception cathed: disk on fire."},
      {Request(4, u"A", u"Int"), false, DISCONNECT_OTHER_ERROR, u"ERROR: Unknown exception cathed."},
      {Request(4, u"A", u"Fault"), false, DISCONNECT_SYSTEM_EXCEPTION, u"ERROR: Win32 SE catched."},
  };
  std::vector<RawClient> clients(std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    LogLines log;
    Connect(clients[i]);
    const auto& [send, vanish, reason, line] = cases[i];
    ASSERT_TRUE(clients[i].Send(send));
    if (vanish) clients[i].Close();
    EXPECT_EQ(reason, m_disconnects.Next()) << i;
    EXPECT_TRUE(line.empty() || log.Has(line)) << NarrowString(line);
  }
  RawClient next;
  Connect(next);
  for (size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_TRUE(std::get<1>(cases[i]) || clients[i].ClosedByPeer(2000)) << "not reaped, or answered: " << i;
  }
  EXPECT_EQ(0, m_server.adapter->GetInvocationCount());
  EXPECT_EQ(0u, Call(Request(2, u"A", u"ObjectPing")).status) << "the bystander";
}

TEST_F(ServerTest, HundredSimultaneousClients) {
  constexpr int kClients = 100;
  std::vector<RawClient> clients(kClients);
  for (RawClient& client : clients) Connect(client);
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      const Bytes text = WStr(u"client " + WiddenString(std::to_string(i)));
      for (int32_t call = 1; call <= 3; ++call) {
        const Reply reply = Call(Request(call, u"A", u"Echo", text), &clients[static_cast<size_t>(i)]);
        if (reply.requestId == call && reply.status == 0 && reply.results == text) answered.fetch_add(1);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(3 * kClients, answered.load());
}

TEST_F(ServerTest, DeactivateRefusesNewRequestsAndWaitsForRunningOnes) {
  RawClient slow;
  Connect(slow);
  ASSERT_TRUE(slow.Send(Request(1, u"A", u"Sleep")));
  while (!m_servant->sleeping.load()) platform::SleepMs(1);
  EXPECT_EQ(1, m_server.adapter->GetInvocationCount());
  m_server.adapter->Deactivate();
  EXPECT_EQ(Err::AdapterInactive, Call(Request(2, u"A", u"ObjectPing")).status);
  const uint64_t start = platform::TickCountMs();
  m_server.adapter->WaitUntilDeactivate();
  const uint64_t waited = MsSince(start);
  EXPECT_EQ(0, m_server.adapter->GetInvocationCount());
  EXPECT_GE(waited, 100u);
  EXPECT_LT(waited, 3000u);
  EXPECT_EQ(0u, ParseReply(slow.ReceiveMessage()).status);
}

// The reply's server time is the servant's own.
TEST_F(ServerTest, DestroyLetsTheRunningRequestFinishAndReadsNoMore) {
  ASSERT_TRUE(m_client.Send(Concat(Request(4, u"A", u"Sleep"), Request(5, u"A", u"ObjectPing"))));
  while (!m_servant->sleeping.load()) platform::SleepMs(1);
  std::thread destroyer([&] { m_server.communicator->Destroy(); });
  const Reply reply = ParseReply(m_client.ReceiveMessage());
  destroyer.join();
  EXPECT_EQ(std::tuple(4, 0u), std::tuple(reply.requestId, reply.status));
  EXPECT_TRUE(reply.serverTime >= 190.0 && reply.serverTime < 1000.0) << reply.serverTime;
  EXPECT_EQ(DISCONNECT_NORMAL, m_disconnects.Next());
  EXPECT_TRUE(m_client.ClosedByPeer(1000)) << "the queued ping is not answered";
  EXPECT_FALSE(RawClient().Connect(m_server.port)) << "nothing listens any more";
}

// Fails every send as a vanished peer does; never has anything to read.
class UnsendableTransceiver : public TcpTransceiver {
 public:
  int32_t GetHandle() const override { return 0x7FFF0000; }  // never a descriptor of this process
  int32_t Send(const void*, int32_t) override { return TavixSetLastError(EPIPE), -1; }
};

// The one loop ending a TCP client cannot cause: the validation message failing to go out.
TEST(Connection, FailedValidationIsAReceiveErrorWithoutStopLine) {
  LogLines log;
  auto adapter = MakeShared<ObjectAdapter>();
  int32_t reason = -1;
  adapter->RegisterDisconnectNotification(
      [](void* context, TavixDisconnectReason why) { *static_cast<int32_t*>(context) = why; }, &reason);
  auto connection = MakeShared<Connection>(MakeShared<TcpConnectionFactory>(nullptr, adapter));
  connection->SetTransceiver(MakeShared<UnsendableTransceiver>());
  ASSERT_TRUE(connection->Activate());
  std::u16string text;
  GetErrMsg(EPIPE, text);
  EXPECT_TRUE(log.Has(FormatString(u"ERROR: Send Validation message to client failed:%d,%s.", EPIPE, text)));
  connection->WaitUntilDestroy();
  EXPECT_EQ(DISCONNECT_RECV_ERROR, reason);
  EXPECT_TRUE(log.Has(u"Thread for client  started.", 0));
  EXPECT_FALSE(log.Has(u"Thread for client  stoped.", 0));
}

// A connection lends its two message buffers to one borrower at a time, and keeps what a borrower made in them: the
// next borrower gets the same block, held by the connection alone, with no count taken by the lending.
TEST(Connection, LendsItsBuffersToOneBorrowerAndKeepsTheirBlocks) {
  const SmartPtr<Connection> connection(new Connection());
  MessageBuffers first;
  ASSERT_TRUE(connection->BorrowBuffers(first));
  ASSERT_TRUE(first.Borrowed());
  Buffer stream;
  AttachMessageBuffer(stream, first.Output(), 48, nullptr);
  StreamMemBuf* const made = first.Output().get();
  ASSERT_NE(nullptr, made);

  MessageBuffers second;
  EXPECT_FALSE(connection->BorrowBuffers(second));
  EXPECT_FALSE(second.Borrowed());
  EXPECT_EQ(nullptr, second.Output());

  stream.Attach(nullptr);
  connection->ReturnBuffers();
  MessageBuffers third;
  ASSERT_TRUE(connection->BorrowBuffers(third));
  EXPECT_EQ(made, third.Output().get());
  EXPECT_EQ(1, made->RefCount());
  EXPECT_EQ(nullptr, third.Input());
}

std::string Endpoint(uint16_t port, const std::string& host = "#any") {
  return "tcp -h " + host + " -p " + std::to_string(port);
}

// True when a client connects to `port` and is sent the validation message.
bool Accepts(uint16_t port) {
  RawClient client;
  return client.Connect(port) && client.Receive(HEADER_SIZE) == Header(MSG_VALIDATE, 20);
}

TEST(ObjectAdapter, ServantsByExactIdAndPassportsThatConflictOpenAndClose) {
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
  // Passports conflict, open and close (the printed form of proxy strings is checked through `tavix serve`).
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
  RawClient before;
  ASSERT_TRUE(before.Connect(local));
  ASSERT_EQ(Header(MSG_VALIDATE, 20), before.Receive(HEADER_SIZE));
  // Active: a passport is opened at once, and its failure is the caller's.
  EXPECT_EQ(Err::CannotCreateAcceptor, Refused([&] { return adapter->AddPassport(Endpoint(FreePort(), "10.0.0.3")); }));
  auto other = MakeShared<ObjectAdapter>();
  other->Activate();
  EXPECT_EQ(static_cast<uint32_t>(EADDRINUSE), Refused([&] { return other->AddPassport(Endpoint(local)); }));
  proxies = {"kept"};
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

// -p 0 lets the system pick: each endpoint gets its own port when it starts listening, the proxy strings print it,
// and a client reaches the servant through the printed string.
TEST(ObjectAdapter, PortZeroListensOnAChosenPortThatProxyStringsPrint) {
  SmartPtr<Communicator> server = Initialize();
  SmartPtr<ObjectAdapter> adapter = server->CreateObjectAdapter(std::string("Zero"));
  ASSERT_TRUE(adapter->AddServant(MakeShared<Object>(), std::string("Obj")));
  const SmartPtr<IpPassport> tcp = SmartPtr<IpPassport>::DynamicCast(adapter->AddPassport("tcp -h 127.0.0.1 -p 0"));
  ASSERT_TRUE(tcp);
  EXPECT_EQ(0, tcp->Port()) << "not chosen before the endpoint listens";
  adapter->Activate();
  const SmartPtr<IpPassport> second = SmartPtr<IpPassport>::DynamicCast(adapter->AddPassport("tcp -h 127.0.0.1 -p 0"));
  const SmartPtr<IpPassport> udp = SmartPtr<IpPassport>::DynamicCast(adapter->AddPassport("udp -h 127.0.0.1 -p 0"));
  ASSERT_TRUE(second && udp) << "two endpoints that let the system pick do not conflict";
  EXPECT_NE(0, tcp->Port());
  EXPECT_NE(0, udp->Port());
  EXPECT_NE(tcp->Port(), second->Port());
  EXPECT_TRUE(Accepts(tcp->Port()));
  std::vector<std::string> proxies;
  ASSERT_TRUE(adapter->GetProxyString(std::string("Obj"), proxies));
  ASSERT_EQ(3u, proxies.size());
  SmartPtr<Communicator> client = Initialize();
  for (const std::string& proxy : proxies) {
    EXPECT_EQ(std::string::npos, proxy.find("-p 0 ")) << proxy;
    SmartPtr<ProxyObject> object = CreateProxy(client, proxy);
    ASSERT_TRUE(object) << proxy;
    object->Timeout(2000);
    EXPECT_EQ(0u, object->ObjectPing()) << proxy;
  }
  client->Destroy();
  server->Destroy();
}

// Added first and activated after (the usual order), an endpoint whose port is taken leaves Activate true but is
// logged and reported as not listening until a later Activate starts it.
TEST(ObjectAdapter, AnEndpointThatCannotListenIsLoggedAndReportedUntilItStarts) {
  const LogLines log;
  SmartPtr<TcpAcceptor> holder = LoopbackAcceptor();  // takes the port as another listener would
  ASSERT_TRUE(holder);
  const uint16_t taken = holder->Address().Port();
  auto adapter = MakeShared<ObjectAdapter>();
  const SmartPtr<IPassport> blocked = adapter->AddPassport(Endpoint(taken, "127.0.0.1"));
  const SmartPtr<IPassport> free = adapter->AddPassport(Endpoint(FreePort(), "127.0.0.1"));
  ASSERT_TRUE(blocked && free);
  EXPECT_EQ(2u, adapter->NotListening().size()) << "nothing listens before Activate";
  EXPECT_TRUE(adapter->Activate());
  std::u16string printed;
  EXPECT_TRUE(log.Has(u"ERROR: Endpoint " + blocked->toString(printed) + u" is not listening: " +
                      FormatString(u"%d,%s", EADDRINUSE, ErrorText(EADDRINUSE))));
  EXPECT_EQ(std::vector<SmartPtr<IPassport>>{blocked}, adapter->NotListening());
  holder->Close();
  adapter->Activate();
  EXPECT_TRUE(adapter->NotListening().empty());
  EXPECT_TRUE(Accepts(taken));
  adapter->Destroy();
  adapter->WaitUntilDestroy();
}

// Of two calls that add the same endpoint at once, exactly one succeeds: the conflict scan and the insert are one
// step.
TEST(ObjectAdapter, ConcurrentAddPassportForOneEndpointLetsOneIn) {
  const std::string endpoint = Endpoint(FreePort(), "127.0.0.1");
  constexpr int kRounds = 3000;
  std::vector<SmartPtr<ObjectAdapter>> adapters;
  for (int round = 0; round < kRounds; ++round) adapters.push_back(MakeShared<ObjectAdapter>());
  std::vector<std::atomic<int>> added(kRounds);
  std::atomic<int> arrived{0};
  // Both threads meet before every round, then race for that round's adapter.
  auto add = [&] {
    for (int round = 0; round < kRounds; ++round) {
      arrived.fetch_add(1);
      while (arrived.load() < 2 * (round + 1)) std::this_thread::yield();
      if (adapters[static_cast<size_t>(round)]->AddPassport(endpoint)) added[static_cast<size_t>(round)].fetch_add(1);
    }
  };
  std::thread first(add), second(add);
  first.join();
  second.join();
  for (int round = 0; round < kRounds; ++round) {
    ASSERT_EQ(1, added[static_cast<size_t>(round)].load()) << "round " << round;
    adapters[static_cast<size_t>(round)]->WaitUntilDestroy();
  }
}

// The disconnect callback runs while WaitUntilDestroy waits for its very thread; the adapter's lock is not held
// across that wait, so the callback may still use the adapter.
TEST(ObjectAdapter, DisconnectCallbackMayUseTheAdapterDuringWaitUntilDestroy) {
  TestServer server(MakeShared<Object>());
  ASSERT_NE(0, server.port);
  struct Seen {
    ObjectAdapter* adapter;
    std::atomic<int> proxies{-1};
    static void Callback(void* context, TavixDisconnectReason) {
      auto* seen = static_cast<Seen*>(context);
      std::vector<std::u16string> found;
      seen->adapter->GetProxyString(std::u16string(u"A"), found);
      seen->proxies = static_cast<int>(found.size());
    }
  } seen{server.adapter.get()};
  server.adapter->RegisterDisconnectNotification(&Seen::Callback, &seen);
  RawClient client;
  ASSERT_TRUE(client.Connect(server.port));
  ASSERT_EQ(Header(MSG_VALIDATE, HEADER_SIZE), client.Receive(HEADER_SIZE));
  std::atomic<bool> waited{false};
  std::thread shutdown([&] {
    server.adapter->Destroy();
    server.adapter->WaitUntilDestroy();
    waited = true;
  });
  if (!Eventually([&] { return waited.load(); }, 5000)) {
    // Deadlocked: nothing could shut this process down any more.
    std::fputs("WaitUntilDestroy deadlocked with the disconnect callback\n", stderr);
    std::_Exit(1);
  }
  shutdown.join();
  EXPECT_EQ(1, seen.proxies.load());
  server.adapter->RegisterDisconnectNotification(nullptr, nullptr);
}

class TcpConnectionFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override { m_adapter->RegisterDisconnectNotification(&Disconnects::Callback, &m_disconnects); }
  void TearDown() override {
    if (m_factory) m_factory->Destroy(), m_factory->WaitUntilDestroy(platform::kNoDeadline);
    m_adapter->RegisterDisconnectNotification(nullptr, nullptr);
  }
  // A factory for `host` and a port that was free.
  void MakeFactory(const std::string& host) {
    m_host = host == "#any" ? "127.0.0.1" : host;
    m_port = FreePort();
    SmartPtr<IPassport> passport = PassportFactory().Create(Endpoint(m_port, host));
    ASSERT_TRUE(passport);
    m_factory = MakeShared<TcpConnectionFactory>(passport, m_adapter);
  }
  void Connect(RawClient& client) {
    ASSERT_TRUE(client.Connect(m_port, m_host));
    EXPECT_EQ(Header(MSG_VALIDATE, HEADER_SIZE), client.Receive(HEADER_SIZE));
  }
  // Interrupt must wake the accept loop long before its tick.
  void ExpectPromptly(const std::function<void()>& shutdown) {
    const uint64_t start = platform::TickCountMs();
    shutdown();
    EXPECT_LT(MsSince(start), TcpConnectionFactory::kAcceptTickMs / 2);
  }
  Disconnects m_disconnects;
  SmartPtr<ObjectAdapter> m_adapter = MakeShared<ObjectAdapter>();
  SmartPtr<TcpConnectionFactory> m_factory;
  std::string m_host;
  uint16_t m_port = 0;
};

// On one address and on every interface the accept loop stops long before its tick, whether destroyed or dropped,
// and the port opens again.
TEST_F(TcpConnectionFactoryTest, ShutdownEndsClientsPromptlyAndReactivates) {
  ASSERT_FALSE(GetLocalHostIP().empty());
  for (const std::string& host : {NarrowString(GetLocalHostIP().front()), std::string("#any")}) {
    MakeFactory(host);
    m_factory->WaitUntilDestroy(platform::kNoDeadline);  // never activated: nothing to do
    ASSERT_TRUE(m_factory->Activate());
    ASSERT_TRUE(m_factory->Activate());
    RawClient a, b, again;
    Connect(a);
    Connect(b);
    EXPECT_TRUE(Eventually([&] { return m_factory->RefCount() == 3; })) << "each live connection holds its factory";
    ExpectPromptly([&] { m_factory->Destroy(), m_factory->WaitUntilDestroy(platform::kNoDeadline); });
    EXPECT_TRUE(a.ClosedByPeer(2000));
    EXPECT_TRUE(b.ClosedByPeer(2000));
    EXPECT_EQ(1, m_factory->RefCount());
    // Deactivated while waiting: the reason is passed on either way.
    EXPECT_NE(-1, m_disconnects.Next());
    EXPECT_NE(-1, m_disconnects.Next());
    // Nobody listens now; then the same port opens again.
    EXPECT_FALSE(RawClient().Connect(m_port, m_host));
    ASSERT_TRUE(m_factory->Activate());
    Connect(again);
    m_factory->Destroy(), m_factory->WaitUntilDestroy(platform::kNoDeadline);
    EXPECT_NE(-1, m_disconnects.Next());
    ASSERT_TRUE(m_factory->Activate());
    ExpectPromptly([&] { m_factory = nullptr; });
    EXPECT_FALSE(RawClient().Connect(m_port, m_host));
  }
}

TEST_F(TcpConnectionFactoryTest, ClientOfDestroyingAdapterIsHungUpAtOnce) {
  MakeFactory("#any");
  ASSERT_TRUE(m_factory->Activate());
  m_adapter->Destroy();
  ASSERT_EQ(ADAPTER_DESTROYING, m_adapter->GetStatus());
  RawClient client;
  ASSERT_TRUE(client.Connect(m_port));
  EXPECT_TRUE(client.ClosedByPeer(2000)) << "validated or left open";
  EXPECT_EQ(1, m_factory->RefCount());
}

}  // namespace
}  // namespace TAVIX
