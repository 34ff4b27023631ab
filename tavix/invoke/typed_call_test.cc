// Typed operations over in-memory transceivers: the bytes a typed proxy
// method sends and a typed skeleton answers, checked against the body
// encoding written out by hand.
#include "tavix/invoke/typed_call.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/core/communicator.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

using MixOp = Operation<u"Mix", In<int32_t, std::u16string, std::vector<double>>, Out<bool, std::string, int64_t>>;
using NoteOp = OneWayOperation<u"Note", In<std::string>>;
using VoidOp = Operation<u"Void">;

static_assert(typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 4>{u"A", u"B", u"a", u"\u00e9"}));
static_assert(!typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 2>{u"Echo", u"Echo"}));
static_assert(!typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 2>{u"EchoBlob", u"Echo"}));
static_assert(MixOp::kName == u"Mix" && NoteOp::kMode == OneWay && VoidOp::kMode == TwoWay);

class MixServant : public Object {
 public:
  uint32_t status = 0;
  std::vector<std::string> notes;

  uint32_t Mix(const int32_t& n, const std::u16string& text, const std::vector<double>& values, bool& flag,
               std::string& narrow, int64_t& sum, const Context& ctx) {
    flag = ctx.operation == u"Mix";
    narrow = NarrowString(text);
    sum = n + static_cast<int64_t>(values.size());
    return status;
  }
  uint32_t Note(const std::string& text, const Context&) {
    notes.push_back(text);
    return 0;
  }
  using Table = ServantTable<MixServant, Entry<MixOp, &MixServant::Mix>, Entry<NoteOp, &MixServant::Note>>;
  void Dispatch(ObjectHelper& request) override { Table::Dispatch(*this, request); }
};

TEST(ServantTable, FindsListedNamesOnly) {
  EXPECT_EQ(0, MixServant::Table::Find(u"Mix"));
  EXPECT_EQ(1, MixServant::Table::Find(u"Note"));
  for (const char16_t* absent : {u"", u"mix", u"Mi", u"Mixx", u"ObjectPing", u"Z"}) {
    EXPECT_EQ(-1, MixServant::Table::Find(absent)) << NarrowString(absent);
  }
}

// One request body handled as the serving loop would, on this thread.
class SkeletonTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_adapter->Activate();
    ASSERT_TRUE(m_adapter->AddServant(SmartPtr<Object>(m_servant), std::u16string(u"A")));
  }
  Bytes Handle(const Bytes& message) {
    SmartPtr<FakeTransceiver> transceiver = MakeShared<FakeTransceiver>();
    SmartPtr<Connection> connection = MakeShared<Connection>();
    connection->SetTransceiver(SmartPtr<ITransceiver>(transceiver));
    transceiver->Feed(Bytes(message.begin() + HEADER_SIZE, message.end()));
    ObjectHelper request(connection, m_adapter, static_cast<int32_t>(message.size()));
    request.Invoke();
    return transceiver->Output();
  }

  SmartPtr<ObjectAdapter> m_adapter = MakeShared<ObjectAdapter>();
  SmartPtr<MixServant> m_servant = MakeShared<MixServant>();
};

Bytes MixArguments() {
  Writer w;
  w.i32(40).wstr(u"h\u00e9").u8(2).f64(1.5).f64(-2.0);
  return w.get();
}

TEST_F(SkeletonTest, ReadsInsCallsTheMemberAndWritesOuts) {
  const Reply reply = ParseReply(Handle(Request(11, u"A", u"Mix", MixArguments())));
  EXPECT_EQ(MSG_REPLY, reply.type);
  EXPECT_EQ(11, reply.requestId);
  EXPECT_EQ(0u, reply.status);
  // bool true, "hé" as three UTF-8 bytes, 40 + 2 as eight bytes.
  EXPECT_EQ("01 03 68 C3 A9 2A 00 00 00 00 00 00 00", Hex(reply.results));
  EXPECT_EQ(36 + 13, reply.size);
}

TEST_F(SkeletonTest, StatusesOneWayAndUnlistedNames) {
  m_servant->status = 0x77;
  Reply reply = ParseReply(Handle(Request(12, u"A", u"Mix", MixArguments())));
  EXPECT_EQ(0x77u, reply.status);
  EXPECT_EQ(36, reply.size);
  EXPECT_TRUE(reply.results.empty());

  EXPECT_TRUE(Handle(Request(0, u"A", u"Note", Writer().size(2).raw("hi", 2).get())).empty());
  EXPECT_EQ(std::vector<std::string>{"hi"}, m_servant->notes);

  // The built-ins and the unknown-name answer come from Object::Dispatch.
  reply = ParseReply(Handle(Request(13, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get())));
  EXPECT_EQ(0u, reply.status);
  EXPECT_EQ(Bytes{1}, reply.results);
  EXPECT_EQ(Err::OperationNotFound, ParseReply(Handle(Request(14, u"A", u"Void"))).status);
}

// Hands out one in-memory transceiver, as if connected.
class FakePassport : public IPassport {
 public:
  explicit FakePassport(const SmartPtr<ITransceiver>& transceiver) : m_transceiver(transceiver) {}
  bool Create(const std::u16string&) override { return true; }
  bool Create(const std::string&) override { return true; }
  std::u16string& toString(std::u16string& out) const override { return out = u"fake"; }
  std::string& toString(std::string& out) const override { return out = "fake"; }
  void Timeout(uint32_t) override {}
  uint32_t Timeout() const override { return 1000; }
  int32_t CreateClientTransceiver(SmartPtr<ITransceiver>& holder) const override {
    holder = m_transceiver;
    return 0;
  }
  int32_t CreateServerTransceiver(SmartPtr<ITransceiver>&) const override { return -2; }
  int32_t CreateAcceptor(SmartPtr<IAcceptor>&) const override { return -2; }
  bool Conflict(const IPassport&) const override { return false; }
  bool operator==(const IPassport&) const override { return false; }
  bool operator<(const IPassport&) const override { return false; }

 private:
  SmartPtr<ITransceiver> m_transceiver;
};

// Answers each complete request it is sent with `reply(request)`.
class AnsweringTransceiver : public FakeTransceiver {
 public:
  std::function<Bytes(const Bytes&)> reply;

  int32_t Send(const void* buffer, int32_t length) override {
    const int32_t r = FakeTransceiver::Send(buffer, length);
    const Bytes sent = Output();
    const Bytes message(sent.begin() + static_cast<std::ptrdiff_t>(m_answered), sent.end());
    m_answered = sent.size();
    if (reply && message.size() > static_cast<size_t>(HEADER_SIZE) && message[8] == MSG_REQUEST) {
      Feed(reply(message));
    }
    return r;
  }

 private:
  size_t m_answered = 0;
};

class TypedProxyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_transceiver->Feed(Header(MSG_VALIDATE, HEADER_SIZE));
    m_proxy->Bind(m_communicator, MakeShared<FakePassport>(SmartPtr<ITransceiver>(m_transceiver)), u"A");
  }
  SmartPtr<Communicator> m_communicator = Initialize();
  SmartPtr<AnsweringTransceiver> m_transceiver = MakeShared<AnsweringTransceiver>();
  SmartPtr<ProxyObject> m_proxy = MakeShared<ProxyObject>();
};

TEST_F(TypedProxyTest, WritesInsInOrderAndReadsOuts) {
  m_transceiver->reply = [](const Bytes& request) {
    Writer results;
    results.u8(1).size(2).raw("ok", 2).raw("\x07\0\0\0\0\0\0\x01", 8);
    Writer body;
    body.i32(ReadI32(request, 20)).i32(0).f64(0.25).bytes(results.get());
    return Concat(Header(MSG_REPLY, static_cast<int32_t>(HEADER_SIZE + body.get().size())), body.get());
  };
  bool flag = false;
  std::string narrow;
  int64_t sum = 0;
  ASSERT_EQ(0u, Invoke<MixOp>(*m_proxy, 40, std::u16string(u"h\u00e9"), std::vector<double>{1.5, -2.0}, flag,
                              narrow, sum));
  EXPECT_TRUE(flag);
  EXPECT_EQ("ok", narrow);
  EXPECT_EQ(0x0100000000000007, sum);
  const Bytes sent = m_transceiver->Output();
  EXPECT_EQ(Hex(Request(ReadI32(sent, 20), u"A", u"Mix", MixArguments())), Hex(sent));
  EXPECT_EQ(static_cast<int32_t>(sent.size()), m_proxy->GetLastPerfmon().requestSize);
  EXPECT_EQ(36 + 12, m_proxy->GetLastPerfmon().replySize);
  EXPECT_DOUBLE_EQ(0.25, m_proxy->GetLastPerfmon().serverTime);
}

TEST_F(TypedProxyTest, ErrorStatusLeavesOutsAndOneWayReadsNothing) {
  m_transceiver->reply = [](const Bytes& request) {
    if (ReadI32(request, 20) == 0) return Bytes{};
    Writer body;
    body.i32(ReadI32(request, 20)).i32(0x2000000C).f64(0.0);
    return Concat(Header(MSG_REPLY, 36), body.get());
  };
  bool flag = true;
  std::string narrow = "kept";
  int64_t sum = 5;
  EXPECT_EQ(Err::ObjectNotFound, Invoke<MixOp>(*m_proxy, 1, std::u16string(), std::vector<double>{}, flag, narrow, sum));
  EXPECT_TRUE(flag);
  EXPECT_EQ("kept", narrow);
  EXPECT_EQ(5, sum);

  const size_t before = m_transceiver->Output().size();
  EXPECT_EQ(0u, Invoke<NoteOp>(*m_proxy, std::string("hi")));
  const Bytes sent = m_transceiver->Output();
  EXPECT_EQ(Hex(Request(0, u"A", u"Note", Writer().size(2).raw("hi", 2).get())),
            Hex(Bytes(sent.begin() + static_cast<std::ptrdiff_t>(before), sent.end())));
}

}  // namespace
}  // namespace TAVIX
