// The whole server over real TCP: a communicator, an adapter on a free port,
// a servant, and raw-socket clients that check what only real connections
// show: the stream kept in step, bad clients ending alone, reaping, many
// clients at once, and shutdown under a running request.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/core/communicator.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/tcp_connection_factory.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// The longest an ended connection waits to be reaped (and its socket closed).
constexpr uint32_t kTick = TcpConnectionFactory::kAcceptTickMs;

class Servant : public Object {
 public:
  std::atomic<bool> sleeping{false};

  void Dispatch(ObjectHelper& request) override {
    const std::u16string& op = request.GetContext().operation;
    if (op == u"Echo") {
      std::u16string text;
      request.is()->read(text);
      request.FinishServant(0, BasicStream::lengthOf(text));
      request.os()->write(text);
    } else if (op == u"Sleep") {
      int32_t ms = 0;
      request.is()->read(ms);
      request.PrepareServant();
      sleeping.store(true);
      platform::SleepMs(static_cast<uint32_t>(ms));
      request.FinishServant(0, 0);
    } else if (op == u"Peer") {
      const Context& ctx = request.GetContext();
      request.FinishServant(0, BasicStream::lengthOf(ctx.peerAddress) + 8);
      request.os()->write(ctx.peerAddress);
      request.os()->write(static_cast<int32_t>(ctx.peerPort));
      request.os()->write(static_cast<int32_t>(ctx.connectionId));
    } else if (op == u"Throw") {
      throw std::runtime_error("servant broke");
    } else {
      Object::Dispatch(request);
    }
  }
};

// The reasons the adapter's disconnect notification reported.
class Disconnects {
 public:
  static void Callback(void* context, TavixDisconnectReason reason) {
    auto* self = static_cast<Disconnects*>(context);
    std::lock_guard lock(self->m_mutex);
    ++self->m_counts[reason];
    self->m_changed.notify_all();
  }
  bool WaitFor(const std::map<TavixDisconnectReason, int>& counts) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_counts == counts; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::map<TavixDisconnectReason, int> m_counts;
};

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_communicator = Initialize(u"server test");
    m_adapter = m_communicator->CreateObjectAdapter(std::u16string(u"S"));
    ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(m_servant), std::u16string(u"Obj")));
    m_adapter->RegisterDisconnectNotification(&Disconnects::Callback, &m_disconnects);
    m_adapter->Activate();
    bool listening = false;
    for (int attempt = 0; attempt < 20 && !listening; ++attempt) {
      m_port = FreePort();
      listening = static_cast<bool>(m_adapter->AddPassport("tcp -h #any -p " + std::to_string(m_port)));
    }
    ASSERT_TRUE(listening);
  }
  void TearDown() override { m_communicator->Destroy(); }

  void Connect(RawClient& client) {
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_EQ("58 47 52 51 01 02 01 01 02 00 14 00 00 00 00 00 00 00 12 9A", Hex(client.ReceiveValidation()));
  }
  Reply Call(RawClient& client, const Bytes& request) {
    EXPECT_TRUE(client.Send(request));
    return ParseReply(client.ReceiveMessage());
  }

  LogLines m_log;
  Disconnects m_disconnects;
  SmartPtr<Servant> m_servant = MakeShared<Servant>();
  SmartPtr<Communicator> m_communicator;
  SmartPtr<ObjectAdapter> m_adapter;
  uint16_t m_port = 0;
};

Bytes Text(const std::u16string& text) { return Writer().wstr(text).get(); }

TEST_F(ServerTest, PipelinedRequestsStayInStep) {
  RawClient client;
  Connect(client);
  Bytes batch;
  for (int32_t id = 1; id <= 40; ++id) {
    // Every third one is one-way and must stay silent.
    batch = Concat(batch, Request(id % 3 == 0 ? 0 : id, u"Obj", u"Echo", Text(WiddenString(std::to_string(id)))));
  }
  // Unread bodies larger than a block between them: an unknown operation,
  // an unknown object, a one-way call with junk arguments.
  batch = Concat(batch, Request(41, u"Obj", u"NoSuchOperation", Bytes(150000, 0xEE)));
  batch = Concat(batch, Request(42, u"Nobody", u"Echo", Bytes(70000, 0xEE)));
  batch = Concat(batch, Request(0, u"Obj", u"ObjectPing", Bytes(70000, 0xEE)));
  batch = Concat(batch, Request(43, u"Obj", u"Echo", Text(std::u16string(40000, u'w'))));
  ASSERT_TRUE(client.Send(batch));
  for (int32_t id = 1; id <= 40; ++id) {
    if (id % 3 == 0) continue;
    const Reply reply = ParseReply(client.ReceiveMessage());
    ASSERT_EQ(id, reply.requestId);
    EXPECT_EQ(Text(WiddenString(std::to_string(id))), reply.results);
  }
  EXPECT_EQ(Err::OperationNotFound, ParseReply(client.ReceiveMessage()).status);
  EXPECT_EQ(Err::ObjectNotFound, ParseReply(client.ReceiveMessage()).status);
  const Reply big = ParseReply(client.ReceiveMessage());
  EXPECT_EQ(43, big.requestId);
  EXPECT_EQ(36 + 5 + 80000, big.size) << "a reply larger than a block";
  EXPECT_EQ(Text(std::u16string(40000, u'w')), big.results);
  EXPECT_TRUE(client.Silent(100));
}

TEST_F(ServerTest, ContextAndLogNameTheClientAsTheSocketSeesIt) {
  RawClient client;
  Connect(client);
  const Reply reply = Call(client, Request(9, u"Obj", u"Peer"));
  ASSERT_EQ(Text(u"127.0.0.1").size() + 8, reply.results.size());
  EXPECT_EQ(Text(u"127.0.0.1"), Bytes(reply.results.begin(), reply.results.begin() + 19));
  const int32_t port = ReadI32(reply.results, 19);
  const int32_t handle = ReadI32(reply.results, 23);
  EXPECT_TRUE(m_log.Has(FormatString(u"Thread for client %d(127.0.0.1:%d) started.", handle, port)));
  ASSERT_TRUE(client.Send(Header(MSG_CLOSE, 20)));
  EXPECT_TRUE(m_log.Has(FormatString(u"Thread for client %d(127.0.0.1:%d) stoped.", handle, port)));
}

TEST_F(ServerTest, BadClientsEndOnlyTheirOwnConnectionAndAreReaped) {
  RawClient bystander;
  Connect(bystander);
  Bytes badCrc = Header(MSG_CLOSE, 20);
  badCrc[18] ^= 0x01;
  Bytes cutShort = Request(5, u"Obj", u"Echo", Text(u"never complete"));
  cutShort.resize(30);
  struct Case {
    Bytes send;
    bool vanish;  // the client closes right after sending
    std::u16string line;
  };
  const std::vector<Case> cases = {
      {Header(MSG_CLOSE, 20), false, u""},
      {badCrc, false, u"ERROR: Receive packect error(-2): 536870945,CRC check error."},
      {{}, true, u"ERROR: Network Closed when receive packect(0)."},
      {Header(MSG_VALIDATE, 20), false, u"ERROR: Request not supported::536870927,Message type not support."},
      {cutShort, true, u"ERROR: Tavix Exception catched: 536870912,Connection has been closed."},
      {Request(6, u"Obj", u"Throw"), false, u"ERROR: STD exception cathed: servant broke."},
  };
  // In parallel: waiting for the reaping is the slow part.
  std::atomic<int> reapedInTime{0};
  std::vector<std::thread> clients;
  for (const Case& c : cases) {
    clients.emplace_back([&, c] {
      RawClient client;
      Connect(client);
      EXPECT_TRUE(c.send.empty() || client.Send(c.send));
      if (c.vanish) return client.Close();
      const uint64_t start = platform::TickCountMs();
      if (client.ClosedByPeer(kTick + 2000) && platform::TickCountMs() - start <= kTick + 1000) {
        reapedInTime.fetch_add(1);
      }
    });
  }
  for (std::thread& t : clients) t.join();
  EXPECT_TRUE(m_disconnects.WaitFor({{DISCONNECT_NORMAL, 1},
                                     {DISCONNECT_RECV_ERROR, 1},
                                     {DISCONNECT_NETWORK_CLOSED, 1},
                                     {DISCONNECT_PROTOCOL_ERROR, 1},
                                     {DISCONNECT_LIBRARY_EXCEPTION, 1},
                                     {DISCONNECT_OTHER_ERROR, 1}}));
  EXPECT_EQ(4, reapedInTime.load());
  for (const Case& c : cases) EXPECT_TRUE(c.line.empty() || m_log.Has(c.line)) << NarrowString(c.line);
  EXPECT_EQ(0u, Call(bystander, Request(2, u"Obj", u"ObjectPing")).status) << "the bystander never noticed";
}

TEST_F(ServerTest, HundredSimultaneousClients) {
  constexpr int kClients = 100;
  std::vector<RawClient> clients(kClients);
  for (RawClient& client : clients) Connect(client);
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      const Bytes text = Text(u"client " + WiddenString(std::to_string(i)));
      for (int32_t call = 1; call <= 3; ++call) {
        const Reply reply = Call(clients[static_cast<size_t>(i)], Request(call, u"Obj", u"Echo", text));
        if (reply.requestId == call && reply.status == 0 && reply.results == text) answered.fetch_add(1);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(3 * kClients, answered.load());
}

TEST_F(ServerTest, DestroyLetsTheRunningRequestFinish) {
  RawClient client;
  Connect(client);
  ASSERT_TRUE(client.Send(Request(4, u"Obj", u"Sleep", Writer().i32(300).get())));
  while (!m_servant->sleeping.load()) platform::SleepMs(1);
  std::thread destroyer([&] { m_communicator->Destroy(); });
  const Reply reply = ParseReply(client.ReceiveMessage());
  destroyer.join();
  EXPECT_EQ(4, reply.requestId);
  EXPECT_EQ(0u, reply.status);
  EXPECT_GE(reply.serverTime, 290.0);
  EXPECT_TRUE(m_disconnects.WaitFor({{DISCONNECT_NORMAL, 1}}));
  EXPECT_TRUE(client.ClosedByPeer(1000));
  std::vector<std::u16string> proxies;
  EXPECT_TRUE(m_adapter->GetProxyString(u"Obj", proxies));
  EXPECT_TRUE(proxies.empty()) << "no passport is left";
}

}  // namespace
}  // namespace TAVIX
