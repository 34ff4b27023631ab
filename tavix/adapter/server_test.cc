// The whole server over real TCP: a communicator, an adapter listening on a
// free port, a servant, and raw-socket clients that check the bytes on the
// wire, the disconnect reasons, the log lines and the shutdown.
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
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/passport.h"
#include "tavix/transport/tcp_connection_factory.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// The longest an ended connection waits to be reaped (and its socket closed).
constexpr uint32_t kTick = TcpConnectionFactory::kAcceptTickMs;

// Echo, a large answer, a slow answer, the request's context, a failure.
class Servant : public Object {
 public:
  void Dispatch(ObjectHelper& request) override {
    const std::u16string& op = request.GetContext().operation;
    if (op == u"Echo") {
      std::u16string text;
      request.is()->read(text);
      request.PrepareServant();
      request.FinishServant(0, BasicStream::lengthOf(text));
      request.os()->write(text);
    } else if (op == u"Big") {
      int32_t units = 0;
      request.is()->read(units);
      request.PrepareServant();
      std::u16string text(static_cast<size_t>(units), u'?');
      for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char16_t>(u'a' + i % 26);
      request.FinishServant(0, BasicStream::lengthOf(text));
      request.os()->write(text);
    } else if (op == u"Sleep") {
      int32_t ms = 0;
      request.is()->read(ms);
      request.PrepareServant();
      entered.store(true);
      platform::SleepMs(static_cast<uint32_t>(ms));
      request.FinishServant(0, 0);
    } else if (op == u"Context") {
      request.PrepareServant();
      const Context& ctx = request.GetContext();
      const auto port = static_cast<int32_t>(ctx.peerPort);
      const auto id = static_cast<int32_t>(ctx.connectionId);
      request.FinishServant(0, BasicStream::lengthOf(ctx.peerAddress) + 8);
      request.os()->write(ctx.peerAddress);
      request.os()->write(port);
      request.os()->write(id);
    } else if (op == u"Throw") {
      throw std::runtime_error("servant broke");
    } else {
      Object::Dispatch(request);
    }
  }

  std::atomic<bool> entered{false};
};

// What the adapter's disconnect notification reported.
class Disconnects {
 public:
  static void Callback(void* context, TavixDisconnectReason reason) {
    auto* self = static_cast<Disconnects*>(context);
    std::lock_guard lock(self->m_mutex);
    self->m_reasons.push_back(reason);
    self->m_changed.notify_all();
  }
  // Waits until `count` reports of `reason` came.
  bool WaitFor(TavixDisconnectReason reason, size_t count = 1, uint32_t timeoutMs = 5000) {
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
      return static_cast<size_t>(std::count(m_reasons.begin(), m_reasons.end(), reason)) >= count;
    });
  }
  size_t Total() {
    std::lock_guard lock(m_mutex);
    return m_reasons.size();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<TavixDisconnectReason> m_reasons;
};

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_communicator = Initialize(u"server test");
    m_adapter = m_communicator->CreateObjectAdapter(std::u16string(u"S"));
    ASSERT_TRUE(m_adapter);
    m_servant = MakeShared<Servant>();
    ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(m_servant), std::u16string(u"Obj")));
    m_adapter->RegisterDisconnectNotification(&Disconnects::Callback, &m_disconnects);
    m_adapter->Activate();
    for (int attempt = 0; attempt < 20 && !m_passport; ++attempt) {
      m_port = FreePort();
      m_passport = m_adapter->AddPassport("tcp -h #any -p " + std::to_string(m_port));
    }
    ASSERT_TRUE(m_passport);
  }
  void TearDown() override { m_communicator->Destroy(); }

  // A client that has received and checked its validation message.
  void Connect(RawClient& client) {
    ASSERT_TRUE(client.Connect(m_port));
    ASSERT_EQ(Header(MSG_VALIDATE, 20), client.ReceiveValidation());
  }
  Reply Call(RawClient& client, const Bytes& request) {
    EXPECT_TRUE(client.Send(request));
    return ParseReply(client.ReceiveMessage());
  }

  LogLines m_log;
  Disconnects m_disconnects;
  SmartPtr<Communicator> m_communicator;
  SmartPtr<ObjectAdapter> m_adapter;
  SmartPtr<Servant> m_servant;
  SmartPtr<IPassport> m_passport;
  uint16_t m_port = 0;
};

TEST_F(ServerTest, ValidationPingAndIsABytes) {
  RawClient client;
  ASSERT_TRUE(client.Connect(m_port));
  EXPECT_EQ("58 47 52 51 01 02 01 01 02 00 14 00 00 00 00 00 00 00 12 9A", Hex(client.ReceiveValidation()));

  ASSERT_TRUE(client.Send(Request(1, u"Obj", u"ObjectPing")));
  Bytes ping = client.ReceiveMessage();
  ASSERT_EQ(36u, ping.size());
  std::fill(ping.begin() + 28, ping.end(), 0);
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 01 00 24 00 00 00 00 00 00 00 E1 81 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
      Hex(ping));

  ASSERT_TRUE(client.Send(Request(2, u"Obj", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get())));
  const Bytes isA = client.ReceiveMessage();
  ASSERT_EQ(37u, isA.size());
  EXPECT_EQ("25 00 00 00", Hex(Bytes(isA.begin() + 10, isA.begin() + 14)));
  EXPECT_EQ(2, ParseReply(isA).requestId);
  EXPECT_EQ(0x01, isA.back());
  EXPECT_EQ(Bytes{0x00},
            Call(client, Request(3, u"Obj", u"ObjectIsA", Writer().wstr(u"::TAVIX::Other").get())).results);
}

TEST_F(ServerTest, ErrorRepliesAndOneWaySilence) {
  RawClient client;
  Connect(client);
  const Bytes missing = (client.Send(Request(3, u"Nobody", u"ObjectPing")), client.ReceiveMessage());
  EXPECT_EQ(Hex(Concat(Header(MSG_REPLY, 36), Writer().i32(3).i32(0x2000000C).f64(0.0).get())), Hex(missing));

  const Reply unknown = Call(client, Request(4, u"Obj", u"Print", Writer().wstr(u"ignored").get()));
  EXPECT_EQ(Err::OperationNotFound, unknown.status);
  EXPECT_EQ(4, unknown.requestId);
  EXPECT_EQ(36, unknown.size);

  // One-way requests, answered or failing, produce no bytes at all.
  ASSERT_TRUE(client.Send(Concat(Request(0, u"Obj", u"ObjectPing"), Request(0, u"Nobody", u"ObjectPing"))));
  ASSERT_TRUE(client.Send(Request(0, u"Obj", u"Print")));
  EXPECT_TRUE(client.Silent(200));

  m_adapter->Deactivate();
  const Reply inactive = Call(client, Request(5, u"Obj", u"ObjectPing"));
  EXPECT_EQ(Err::AdapterInactive, inactive.status);
  EXPECT_EQ(0.0, inactive.serverTime);
  m_adapter->Activate();
  EXPECT_EQ(0u, Call(client, Request(6, u"Obj", u"ObjectPing")).status);
}

TEST_F(ServerTest, PipelinedRequestsAreAnsweredInOrder) {
  RawClient client;
  Connect(client);
  Bytes batch;
  for (int32_t id = 1; id <= 60; ++id) {
    const std::u16string text = u"call " + WiddenString(std::to_string(id));
    batch = Concat(batch, Request(id % 3 == 0 ? 0 : id, u"Obj", u"Echo", Writer().wstr(text).get()));
  }
  // An unread body larger than a block between them must not break the stream.
  batch = Concat(batch, Request(61, u"Obj", u"NoSuchOperation", Bytes(150000, 0xEE)));
  batch = Concat(batch, Request(62, u"Obj", u"ObjectPing"));
  ASSERT_TRUE(client.Send(batch));
  for (int32_t id = 1; id <= 60; ++id) {
    if (id % 3 == 0) continue;
    const Reply reply = ParseReply(client.ReceiveMessage());
    ASSERT_EQ(id, reply.requestId);
    EXPECT_EQ(Writer().wstr(u"call " + WiddenString(std::to_string(id))).get(), reply.results);
  }
  EXPECT_EQ(Err::OperationNotFound, ParseReply(client.ReceiveMessage()).status);
  const Reply last = ParseReply(client.ReceiveMessage());
  EXPECT_EQ(62, last.requestId);
  EXPECT_EQ(0u, last.status);
}

TEST_F(ServerTest, ReplyLargerThanABlockArrivesWhole) {
  RawClient client;
  Connect(client);
  const Reply reply = Call(client, Request(7, u"Obj", u"Big", Writer().i32(70000).get()));
  ASSERT_EQ(36 + 5 + 140000, reply.size);
  ASSERT_EQ(5u + 140000u, reply.results.size());
  for (size_t i = 0; i < 70000; i += 997) {
    EXPECT_EQ('a' + i % 26, reply.results[5 + 2 * i]) << i;
    EXPECT_EQ(0, reply.results[5 + 2 * i + 1]);
  }
  EXPECT_EQ(0u, Call(client, Request(8, u"Obj", u"ObjectPing")).status) << "the stream stays in step";
}

TEST_F(ServerTest, ContextCarriesTheClientAsTheServerSeesIt) {
  RawClient client;
  Connect(client);
  const Reply reply = Call(client, Request(9, u"Obj", u"Context"));
  ASSERT_EQ(0u, reply.status);
  const Bytes expectedAddress = Writer().wstr(u"127.0.0.1").get();
  ASSERT_EQ(expectedAddress.size() + 8, reply.results.size());
  EXPECT_EQ(expectedAddress, Bytes(reply.results.begin(), reply.results.begin() + 19));
  const int32_t port = ReadI32(reply.results, 19);
  const int32_t handle = ReadI32(reply.results, 23);
  EXPECT_GT(port, 0);
  // The serving thread's label names the same socket and client.
  const std::u16string started = FormatString(u"Thread for client %d(127.0.0.1:%d) started.", handle, port);
  EXPECT_TRUE(m_log.Has(started)) << NarrowString(started);
}

TEST_F(ServerTest, EachBadClientEndsOnlyItsOwnConnection) {
  RawClient bystander;
  Connect(bystander);
  EXPECT_EQ(0u, Call(bystander, Request(1, u"Obj", u"ObjectPing")).status);

  Bytes badCrc = Header(MSG_CLOSE, 20);
  badCrc[18] ^= 0x01;
  Bytes cutShort = Request(5, u"Obj", u"Echo", Writer().wstr(u"never complete").get());
  cutShort.resize(30);
  struct Case {
    Bytes send;
    bool closeAfterSending;
    TavixDisconnectReason reason;
    std::u16string line;  // empty: no error line
  };
  const std::vector<Case> cases = {
      {Header(MSG_CLOSE, 20), false, DISCONNECT_NORMAL, u""},
      {badCrc, false, DISCONNECT_RECV_ERROR, u"ERROR: Receive packect error(-2): 536870945,CRC check error."},
      {Header(MSG_REQUEST, -1), false, DISCONNECT_RECV_ERROR, u"ERROR: Receive packect error(-2): 536871940,Illegal size"},
      {{}, true, DISCONNECT_NETWORK_CLOSED, u"ERROR: Network Closed when receive packect(0)."},
      {Header(MSG_VALIDATE, 20), false, DISCONNECT_PROTOCOL_ERROR,
       u"ERROR: Request not supported::536870927,Message type not support."},
      {Header(MSG_REQUEST, 20), false, DISCONNECT_LIBRARY_EXCEPTION,
       u"ERROR: Tavix Exception catched: 536871938,Unmarshal or marshal Out Of Bounds"},
      {cutShort, true, DISCONNECT_LIBRARY_EXCEPTION, u"ERROR: Tavix Exception catched: 536870912,Connection has been closed."},
      {Request(6, u"Obj", u"Throw"), false, DISCONNECT_OTHER_ERROR, u"ERROR: STD exception cathed: servant broke."},
  };

  // All at once: the slow part, the reaping, runs in parallel.
  std::vector<std::thread> clients;
  std::atomic<int> closedByServer{0};
  for (const Case& c : cases) {
    clients.emplace_back([&, c] {
      RawClient client;
      Connect(client);
      if (!c.send.empty()) {
        ASSERT_TRUE(client.Send(c.send));
      }
      if (c.closeAfterSending) {
        client.Close();
        return;
      }
      // The server's socket goes when the factory reaps the connection,
      // at most one accept tick after its loop ended.
      if (client.ClosedByPeer(kTick + 2000)) closedByServer.fetch_add(1);
    });
  }
  for (std::thread& t : clients) t.join();

  std::map<TavixDisconnectReason, size_t> expected;
  for (const Case& c : cases) ++expected[c.reason];
  for (const auto& [reason, count] : expected) EXPECT_TRUE(m_disconnects.WaitFor(reason, count)) << reason;
  EXPECT_EQ(cases.size(), m_disconnects.Total());
  EXPECT_EQ(6, closedByServer.load());
  for (const Case& c : cases) {
    if (!c.line.empty()) {
      EXPECT_TRUE(m_log.Has(c.line)) << NarrowString(c.line);
    }
  }

  // The bystander never noticed.
  EXPECT_EQ(0u, Call(bystander, Request(2, u"Obj", u"ObjectPing")).status);
}

TEST_F(ServerTest, EndedConnectionIsReapedWithinAnAcceptTick) {
  RawClient client;
  Connect(client);
  // A protocol error ends the loop; the socket goes when the factory reaps.
  ASSERT_TRUE(client.Send(Header(MSG_REPLY, 20)));
  ASSERT_TRUE(m_disconnects.WaitFor(DISCONNECT_PROTOCOL_ERROR));
  const uint64_t ended = platform::TickCountMs();
  ASSERT_TRUE(client.ClosedByPeer(kTick + 2000));
  EXPECT_LE(platform::TickCountMs() - ended, kTick + 1000u);
}

TEST_F(ServerTest, HundredSimultaneousClients) {
  constexpr int kClients = 100;
  std::vector<RawClient> clients(kClients);
  for (RawClient& client : clients) Connect(client);
  std::atomic<int> answered{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      const std::u16string text = u"client " + WiddenString(std::to_string(i));
      for (int32_t call = 1; call <= 3; ++call) {
        const Reply reply = Call(clients[static_cast<size_t>(i)], Request(call, u"Obj", u"Echo", Writer().wstr(text).get()));
        if (reply.requestId == call && reply.status == 0 && reply.results == Writer().wstr(text).get()) {
          answered.fetch_add(1);
        }
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
  while (!m_servant->entered.load()) platform::SleepMs(1);
  const uint64_t start = platform::TickCountMs();
  std::thread destroyer([&] { m_communicator->Destroy(); });
  const Reply reply = ParseReply(client.ReceiveMessage());
  destroyer.join();
  EXPECT_EQ(4, reply.requestId);
  EXPECT_EQ(0u, reply.status);
  EXPECT_GE(reply.serverTime, 290.0);
  EXPECT_GE(platform::TickCountMs() - start, 250u) << "Destroy waited for the request";
  EXPECT_TRUE(m_disconnects.WaitFor(DISCONNECT_NORMAL));
  EXPECT_TRUE(client.ClosedByPeer(1000));
  EXPECT_EQ(ADAPTER_DESTROYING, m_adapter->GetStatus());
  std::vector<std::string> proxies;
  EXPECT_TRUE(m_adapter->GetProxyString(std::string("Obj"), proxies));
  EXPECT_TRUE(proxies.empty()) << "no passport is left";
}

}  // namespace
}  // namespace TAVIX
