// The whole server over real TCP, driven by raw-socket clients: the validation bytes, the stream kept in step, every
// way a connection's loop ends (reason, log line, reaping), many clients at once, and shutdown under a running request.
#include <stdexcept>

#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

class Servant : public Object {
 public:
  std::atomic<bool> sleeping{false};

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
    } else if (op == u"Sleep") {
      request.PrepareServant();
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

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(0, m_server.port);
    m_server.adapter->RegisterDisconnectNotification(&Disconnects::Callback, &m_disconnects);
  }

  void Connect(RawClient& client) {
    ASSERT_TRUE(client.Connect(m_server.port));
    ASSERT_EQ("58 47 52 51 01 02 01 01 02 00 14 00 00 00 00 00 00 00 12 9A", Hex(client.Receive(HEADER_SIZE)));
  }
  Reply Call(RawClient& client, const Bytes& request) {
    EXPECT_TRUE(client.Send(request));
    return ParseReply(client.ReceiveMessage());
  }

  Disconnects m_disconnects;
  SmartPtr<Servant> m_servant = MakeShared<Servant>();
  TestServer m_server{m_servant};
};

TEST_F(ServerTest, PipelinedRequestsStayInStep) {
  RawClient client;
  Connect(client);
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
  ASSERT_TRUE(client.Send(batch));
  for (int32_t id = 1; id <= 40; ++id) {
    if (id % 3 == 0) continue;
    const Reply reply = ParseReply(client.ReceiveMessage());
    ASSERT_EQ(id, reply.requestId);
    EXPECT_EQ(WStr(WiddenString(std::to_string(id))), reply.results);
  }
  EXPECT_EQ(Err::OperationNotFound, ParseReply(client.ReceiveMessage()).status);
  EXPECT_EQ(Err::ObjectNotFound, ParseReply(client.ReceiveMessage()).status);
  const Reply big = ParseReply(client.ReceiveMessage());
  EXPECT_EQ(43, big.requestId);
  EXPECT_EQ(36 + 5 + 80000, big.size) << "a reply larger than 64 KiB";
  EXPECT_EQ(WStr(std::u16string(40000, u'w')), big.results);
  EXPECT_TRUE(client.Silent(100));
}

TEST_F(ServerTest, ContextAndLogNameTheClientAsTheSocketSeesIt) {
  LogLines log;
  RawClient client;
  Connect(client);
  const Reply reply = Call(client, Request(9, u"A", u"Peer"));
  ASSERT_EQ(WStr(u"127.0.0.1").size() + 8, reply.results.size());
  EXPECT_EQ(WStr(u"127.0.0.1"), Bytes(reply.results.begin(), reply.results.begin() + 19));
  const int32_t port = ReadI32(reply.results, 19);
  const int32_t handle = ReadI32(reply.results, 23);
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
  RawClient bystander;
  Connect(bystander);
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
  EXPECT_EQ(0u, Call(bystander, Request(2, u"A", u"ObjectPing")).status);
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
        const Reply reply = Call(clients[static_cast<size_t>(i)], Request(call, u"A", u"Echo", text));
        if (reply.requestId == call && reply.status == 0 && reply.results == text) answered.fetch_add(1);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(3 * kClients, answered.load());
}

TEST_F(ServerTest, DeactivateRefusesNewRequestsAndWaitsForRunningOnes) {
  RawClient slow, fast;
  Connect(slow);
  Connect(fast);
  ASSERT_TRUE(slow.Send(Request(1, u"A", u"Sleep")));
  while (!m_servant->sleeping.load()) platform::SleepMs(1);
  EXPECT_EQ(1, m_server.adapter->GetInvocationCount());
  m_server.adapter->Deactivate();
  EXPECT_EQ(Err::AdapterInactive, Call(fast, Request(2, u"A", u"ObjectPing")).status);
  const uint64_t start = platform::TickCountMs();
  m_server.adapter->WaitUntilDeactivate();
  const uint64_t waited = MsSince(start);
  EXPECT_EQ(0, m_server.adapter->GetInvocationCount());
  EXPECT_GE(waited, 100u);
  EXPECT_LT(waited, 3000u);
  EXPECT_EQ(0u, ParseReply(slow.ReceiveMessage()).status);
}

TEST_F(ServerTest, DestroyLetsTheRunningRequestFinishAndReadsNoMore) {
  RawClient client;
  Connect(client);
  ASSERT_TRUE(client.Send(Concat(Request(4, u"A", u"Sleep"), Request(5, u"A", u"ObjectPing"))));
  while (!m_servant->sleeping.load()) platform::SleepMs(1);
  std::thread destroyer([&] { m_server.communicator->Destroy(); });
  const Reply reply = ParseReply(client.ReceiveMessage());
  destroyer.join();
  EXPECT_EQ(4, reply.requestId);
  EXPECT_EQ(0u, reply.status);
  EXPECT_GE(reply.serverTime, 190.0);
  EXPECT_EQ(DISCONNECT_NORMAL, m_disconnects.Next());
  EXPECT_TRUE(client.ClosedByPeer(1000)) << "the queued ping is not answered";
  RawClient late;
  EXPECT_FALSE(late.Connect(m_server.port)) << "nothing listens any more";
}

}  // namespace
}  // namespace TAVIX
