// Client calls end to end: proxies made from proxy strings, typed operations, calls against a real adapter in this
// process, and fault cases against a raw server that sends exactly the bytes a test wants.
#include <list>

#include "tavix/client/typed_call.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

using EchoOp = Operation<u"Echo", In<std::u16string>, Out<std::u16string>>;
using MissingOp = Operation<u"Missing">;
using MixOp = Operation<u"Mix", In<int32_t, std::u16string, std::vector<double>>, Out<bool, std::string, int64_t>>;
using NoteOp = OneWayOperation<u"Note", In<std::u16string>>;

// The table order is checked when compiling.
static_assert(typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 4>{u"A", u"B", u"a", u"\u00e9"}));
static_assert(!typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 2>{u"Echo", u"Echo"}));
static_assert(!typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 2>{u"EchoBlob", u"Echo"}));

class TestServant final : public Object {
 public:
  std::atomic<uint32_t> mixStatus{0};

  uint32_t Echo(const std::u16string& in, std::u16string& out, const Context&) { return out = in, 0; }
  uint32_t Mix(const int32_t& n, const std::u16string& text, const std::vector<double>& values, bool& flag,
               std::string& narrow, int64_t& sum, const Context& ctx) {
    flag = ctx.operation == u"Mix";
    narrow = NarrowString(text);
    sum = n + static_cast<int64_t>(values.size()) + (int64_t{1} << 56);
    return mixStatus;
  }
  uint32_t Note(const std::u16string& text, const Context&) {
    std::lock_guard lock(m_mutex);
    m_notes.push_back(text);
    return 0;
  }
  std::vector<std::u16string> Notes() {
    std::lock_guard lock(m_mutex);
    return m_notes;
  }
  void Dispatch(ObjectHelper& request) override {
    ServantTable<TestServant, Entry<EchoOp, &TestServant::Echo>, Entry<MixOp, &TestServant::Mix>,
                 Entry<NoteOp, &TestServant::Note>>::Dispatch(*this, request);
  }

 private:
  std::mutex m_mutex;
  std::vector<std::u16string> m_notes;
};

// A raw server on 127.0.0.1: accepts connections one after another and runs the next script on each; connections
// stay open until it goes.
class FakeServer {
 public:
  using Script = std::function<void(RawClient&)>;

  explicit FakeServer(std::vector<Script> scripts) {
    InetAddr address = Loopback(0);
    uint32_t length = InetAddr::SockAddrLen();
    EXPECT_TRUE(m_listener.Create(platform::SocketType::kStream) && m_listener.Bind(address.SockAddr(), length) &&
                m_listener.Listen(4) && m_listener.LocalName(address.SockAddr(), length));
    m_port = address.Port();
    m_thread = std::thread([this, scripts] {
      for (const Script& script : scripts) {
        platform::Socket accepted;
        InetAddr peer;
        uint32_t peerLength = InetAddr::SockAddrLen();
        if (m_listener.Poll(platform::PollFor::kRead, 5000) != 1 ||
            !m_listener.Accept(accepted, peer.SockAddr(), peerLength)) {
          return;
        }
        script(m_peers.emplace_back(std::move(accepted)));
      }
    });
  }
  ~FakeServer() { Join(); }
  void Join() {
    if (m_thread.joinable()) m_thread.join();
  }
  std::string ProxyString(uint32_t timeoutMs = 2000) const {
    return "A:tcp -h 127.0.0.1 -p " + std::to_string(m_port) + " -t " + std::to_string(timeoutMs);
  }

 private:
  platform::Socket m_listener;
  uint16_t m_port = 0;
  std::list<RawClient> m_peers;
  std::thread m_thread;
};

Bytes PingReply(const Bytes& request) { return ReplyMessage(ReadI32(request, 20), 0); }

class ProxyTest : public ::testing::Test {
 protected:
  SmartPtr<ProxyObject> Proxy(const std::string& proxyString) {
    SmartPtr<ProxyObject> proxy = CreateProxy(m_client, proxyString);
    EXPECT_TRUE(proxy);
    return proxy;
  }
  SmartPtr<Communicator> m_client = Initialize();
  SmartPtr<TestServant> m_servant = MakeShared<TestServant>();
};

TEST_F(ProxyTest, ProxyStringsSplitAtTheFirstColon) {
  SmartPtr<ProxyObject> proxy = Proxy("Printer:tcp -h 10.0.0.1 -p 5678 -t 250");
  EXPECT_EQ(u"Printer", proxy->ObjectName());
  EXPECT_EQ(250u, proxy->Timeout());
  const std::pair<const char*, uint32_t> bad[] = {
      {"no colon here", Err::BadProxyString}, {":tcp -h a -p 1", Err::BadProxyString},
      {"A:tcp -h a", Err::BadPassportString}, {"A:b:tcp -h a -p 1", Err::UnsupportedFunction}};
  for (const auto& [text, error] : bad) {
    EXPECT_EQ(error, Refused([&] { return CreateProxy(m_client, text); })) << text;
  }
}

TEST_F(ProxyTest, CallsReachTheServantAndStatusesComeBack) {
  TestServer server(m_servant);
  SmartPtr<ProxyObject> proxy = Proxy(server.ProxyString());
  std::u16string out;
  EXPECT_EQ(0u, Invoke<EchoOp>(*proxy, std::u16string(300, u'x'), out));
  EXPECT_EQ(std::u16string(300, u'x'), out);
  bool isA = false;
  EXPECT_EQ(0u, proxy->ObjectIsA(u"::TAVIX::Object", isA));
  EXPECT_TRUE(isA);
  EXPECT_EQ(Err::OperationNotFound, Invoke<MissingOp>(*proxy));
  EXPECT_EQ(0u, proxy->ObjectPing()) << "error statuses leave the connection usable";
  SmartPtr<ProxyObject> stranger = Proxy("Nobody" + server.ProxyString().substr(1));
  EXPECT_EQ(Err::ObjectNotFound, stranger->ObjectIsA(u"::TAVIX::Object", isA));
  EXPECT_TRUE(isA) << "left as it was";
  EXPECT_EQ(0u, Invoke<NoteOp>(*proxy, std::u16string(u"one-way")));
  SmartPtr<ITavixBlob> note = CreateTavixMemBlob();
  ASSERT_EQ(0u, Record<NoteOp>(*proxy, note, std::u16string(u"recorded")));
  EXPECT_EQ(0u, proxy->SendBlobWithoutOutParam(note, true));

  // Threads sharing a proxy take turns on its connection.
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        const std::u16string text = WiddenString(std::to_string(t * 100 + i));
        std::u16string echoed;
        if (Invoke<EchoOp>(*proxy, text, echoed) != 0 || echoed != text) ++failures;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(0, failures.load());
  EXPECT_EQ((std::vector<std::u16string>{u"one-way", u"recorded"}), m_servant->Notes()) << "served in order";
}

// The typed skeleton's reply bytes to a raw client, then the typed proxy against the same servant.
TEST_F(ProxyTest, TypedSkeletonAndProxyMarshalTheSameValuesInOrder) {
  TestServer server(m_servant);
  RawClient raw;
  ASSERT_TRUE(raw.Connect(server.port));
  raw.Receive(HEADER_SIZE);
  const Bytes mixArguments = Writer().i32(40).wstr(u"h\u00e9").u8(2).f64(1.5).f64(-2.0).get();
  ASSERT_TRUE(raw.Send(Request(11, u"A", u"Mix", mixArguments)));
  const Reply reply = ParseReply(raw.ReceiveMessage());
  EXPECT_EQ(0u, reply.status);
  // bool true, "hé" as three UTF-8 bytes, 2^56 + 40 + 2 as eight bytes.
  EXPECT_EQ("01 03 68 C3 A9 2A 00 00 00 00 00 00 01", Hex(reply.results));
  EXPECT_EQ(36 + 13, reply.size);

  SmartPtr<ProxyObject> proxy = Proxy(server.ProxyString());
  SmartPtr<ITavixBlob> recorded = CreateTavixMemBlob();
  const std::u16string text(u"h\u00e9");
  ASSERT_EQ(0u, Record<MixOp>(*proxy, recorded, 40, text, std::vector<double>{1.5, -2.0}));
  const Bytes sent = BlobBytes(recorded);
  EXPECT_EQ(Hex(Request(ReadI32(sent, 20), u"A", u"Mix", mixArguments)), Hex(sent));
  bool flag = false;
  std::string narrow;
  int64_t sum = 0;
  ASSERT_EQ(0u, Invoke<MixOp>(*proxy, 40, text, std::vector<double>{1.5, -2.0}, flag, narrow, sum));
  EXPECT_TRUE(flag);
  EXPECT_EQ("h\xC3\xA9", narrow);
  EXPECT_EQ(0x010000000000002A, sum);
  EXPECT_EQ(static_cast<int32_t>(sent.size()), proxy->GetLastPerfmon().requestSize);
  EXPECT_EQ(36 + 13, proxy->GetLastPerfmon().replySize);

  EXPECT_EQ(0u, Invoke<NoteOp>(*proxy, std::u16string(u"hi")));
  m_servant->mixStatus = 0x77;
  flag = false;
  narrow = "kept";
  EXPECT_EQ(0x77u, Invoke<MixOp>(*proxy, 1, std::u16string(), std::vector<double>{}, flag, narrow, sum));
  EXPECT_EQ(36, proxy->GetLastPerfmon().replySize) << "no results with an error status";
  EXPECT_FALSE(flag);
  EXPECT_EQ("kept", narrow) << "outs are written only on success";
  EXPECT_EQ(std::vector<std::u16string>{u"hi"}, m_servant->Notes()) << "the one-way call came first";
}

TEST_F(ProxyTest, ServerThatGoesAwayFailsTheCallAndIsReconnectedWhenBack) {
  SmartPtr<ProxyObject> steady, reconnecting;
  uint16_t port = 0;
  {
    TestServer server(m_servant);
    port = server.port;
    steady = Proxy(server.ProxyString());
    reconnecting = Proxy(server.ProxyString());
    reconnecting->AutoReconnect(true);
    ASSERT_EQ(0u, steady->ObjectPing());
    ASSERT_EQ(0u, reconnecting->ObjectPing());
  }
  EXPECT_NE(0u, steady->ObjectPing());
  EXPECT_EQ(Err::ProxyClosed, steady->ObjectPing());
  EXPECT_NE(0u, reconnecting->ObjectPing());
  EXPECT_EQ(static_cast<uint32_t>(ECONNREFUSED), reconnecting->ObjectPing());

  TestServer back(m_servant, port);
  ASSERT_EQ(port, back.port);
  EXPECT_EQ(0u, reconnecting->ObjectPing());
  EXPECT_EQ(Err::ProxyClosed, steady->ObjectPing());
}

// The first call connects and validates, later calls reuse the connection; the close message follows when the
// proxy goes and when the communicator shuts down.
TEST_F(ProxyTest, FirstCallValidatesAndTheEndSendsClose) {
  std::vector<Bytes> requests;
  Bytes closes[2];
  const auto serve = [&](int pings, Bytes* closing) {
    return [&, pings, closing](RawClient& peer) {
      EXPECT_TRUE(peer.Send(Header(MSG_VALIDATE, HEADER_SIZE)));
      for (int i = 0; i < pings; ++i) {
        requests.push_back(peer.ReceiveMessage());
        EXPECT_TRUE(peer.Send(PingReply(requests.back())));
      }
      *closing = peer.ReceiveMessage();
    };
  };
  FakeServer server({serve(3, &closes[0]), serve(1, &closes[1])});
  {
    SmartPtr<ProxyObject> dropped = Proxy(server.ProxyString());
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0u, dropped->ObjectPing());
  }
  SmartPtr<ProxyObject> proxy = Proxy(server.ProxyString());
  ASSERT_EQ(0u, proxy->ObjectPing());
  m_client->Destroy();
  server.Join();
  EXPECT_EQ(Err::CommunicatorClosed, proxy->ObjectPing());
  ASSERT_EQ(4u, requests.size());
  const int32_t first = ReadI32(requests[0], 20);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(Hex(Request(first + i, u"A", u"ObjectPing")), Hex(requests[i]));
  for (const Bytes& closing : closes) EXPECT_EQ(Header(MSG_CLOSE, HEADER_SIZE), closing);
}

// What the server does wrong and the call's result; the connection is closed afterwards (0x20000020).
TEST_F(ProxyTest, BrokenServersFailTheCallWithTheirCode) {
  const auto validateThen = [](std::function<void(RawClient&, const Bytes&)> act) {
    return [act](RawClient& peer) {
      EXPECT_TRUE(peer.Send(Header(MSG_VALIDATE, HEADER_SIZE)));
      act(peer, peer.ReceiveMessage());
      peer.ReceiveMessage();  // a second ping would show here; the client hangs up instead
    };
  };
  const auto sends = [&](const Bytes& bytes) {
    return validateThen([bytes](RawClient& peer, const Bytes&) { EXPECT_TRUE(peer.Send(bytes)); });
  };
  Bytes badCrc = Header(MSG_VALIDATE, HEADER_SIZE), badMagic = PingReply(Request(1, u"A", u"ObjectPing"));
  badCrc[19] ^= 0xFF;
  badMagic[0] = 'Y';
  const std::tuple<const char*, FakeServer::Script, uint32_t> cases[] = {
      {"wrong validation type", [](RawClient& peer) { EXPECT_TRUE(peer.Send(Header(MSG_REPLY, HEADER_SIZE))); },
       Err::ValidateFail},
      {"validation with a broken CRC", [badCrc](RawClient& peer) { EXPECT_TRUE(peer.Send(badCrc)); }, Err::CrcError},
      {"no validation at all", [](RawClient& peer) { peer.ReceiveMessage(); }, Err::ReceiveTimeout},
      {"closed before validating", [](RawClient& peer) { peer.Close(); }, Err::ConnectionClosed},
      {"reply for another id", validateThen([](RawClient& peer, const Bytes& r) {
         EXPECT_TRUE(peer.Send(ReplyMessage(ReadI32(r, 20) + 7, 0)));
       }),
       Err::ReplyIdError},
      {"reply of another type", sends(Header(MSG_VALIDATE, 36)), Err::ReplyTypeError},
      {"reply with a broken header", sends(badMagic), Err::BadMagic},
      {"no reply", validateThen([](RawClient&, const Bytes&) {}), Err::ReceiveTimeout},
      {"server gone mid-call", validateThen([](RawClient& peer, const Bytes&) { peer.Close(); }),
       Err::ConnectionClosed},
  };
  for (const auto& [what, script, result] : cases) {
    FakeServer server({script});
    SmartPtr<ProxyObject> proxy = Proxy(server.ProxyString(300));
    const auto start = steady_clock::now();
    EXPECT_EQ(result, proxy->ObjectPing()) << what;
    EXPECT_LT(steady_clock::now() - start, milliseconds(1000)) << what;
    EXPECT_EQ(Err::ProxyClosed, proxy->ObjectPing()) << what;
  }
}

TEST_F(ProxyTest, RecordedRequestsMatchSentOnesAndAreSentAsTheyAre) {
  Bytes sentNote, replayed;
  FakeServer server({[&](RawClient& peer) {
    EXPECT_TRUE(peer.Send(Header(MSG_VALIDATE, HEADER_SIZE)));
    sentNote = peer.ReceiveMessage();
    replayed = peer.ReceiveMessage();
    // The reply's id is not compared for a sent blob.
    EXPECT_TRUE(peer.Send(ReplyMessage(99999, Err::ObjectNotFound)));
    EXPECT_TRUE(peer.Send(PingReply(peer.ReceiveMessage())));
  }});
  SmartPtr<ProxyObject> proxy = Proxy(server.ProxyString());

  // Recording neither connects nor waits.
  SmartPtr<ITavixBlob> note = CreateTavixMemBlob(), echo = CreateTavixMemBlob();
  ASSERT_EQ(0u, Record<NoteOp>(*proxy, note, std::u16string(u"hello")));
  ASSERT_EQ(0u, Record<EchoOp>(*proxy, echo, std::u16string(u"again")));
  {
    // The plain pattern, recording into a blob of the helper's own.
    static const std::u16string ping(u"ObjectPing");
    ProxyHelper call(proxy.get(), ping, OneWay, ProxyHelper::RequestToBlob, 0);
    ASSERT_EQ(0u, call.PrepareIPC());
    ASSERT_EQ(0u, call.InvokeIPC());
    EXPECT_EQ(Hex(Request(0, u"A", u"ObjectPing")), Hex(BlobBytes(call.GetBlob())));
  }

  EXPECT_EQ(0u, Invoke<NoteOp>(*proxy, std::u16string(u"hello")));
  EXPECT_EQ(Err::NullPointer, proxy->SendBlobWithoutOutParam(nullptr, false));
  EXPECT_EQ(Err::ObjectNotFound, proxy->SendBlobWithoutOutParam(echo, false));
  EXPECT_EQ(0u, proxy->ObjectPing()) << "still in step";
  server.Join();
  EXPECT_EQ(Hex(sentNote), Hex(BlobBytes(note)));
  EXPECT_EQ(Hex(BlobBytes(echo)), Hex(replayed));
  EXPECT_NE(0, ReadI32(replayed, 20));
}

}  // namespace
}  // namespace TAVIX
