// Typed operations: the bytes a typed skeleton answers and a typed proxy
// method sends, checked against the body encoding written out by hand.
#include "tavix/client/typed_call.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

using MixOp = Operation<u"Mix", In<int32_t, std::u16string, std::vector<double>>, Out<bool, std::string, int64_t>>;
using NoteOp = OneWayOperation<u"Note", In<std::string>>;
using VoidOp = Operation<u"Void">;

// The table order is checked when compiling.
static_assert(typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 4>{u"A", u"B", u"a", u"\u00e9"}));
static_assert(!typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 2>{u"Echo", u"Echo"}));
static_assert(!typed_call_detail::StrictlyAscending(std::array<std::u16string_view, 2>{u"EchoBlob", u"Echo"}));

class MixServant : public Object {
 public:
  std::atomic<uint32_t> status{0};

  uint32_t Mix(const int32_t& n, const std::u16string& text, const std::vector<double>& values, bool& flag,
               std::string& narrow, int64_t& sum, const Context& ctx) {
    flag = ctx.operation == u"Mix";
    narrow = NarrowString(text);
    sum = n + static_cast<int64_t>(values.size()) + (int64_t{1} << 56);
    return status;
  }
  uint32_t Note(const std::string& text, const Context&) {
    std::lock_guard lock(m_mutex);
    m_notes.push_back(text);
    return 0;
  }
  std::vector<std::string> Notes() {
    std::lock_guard lock(m_mutex);
    return m_notes;
  }
  using Table = ServantTable<MixServant, Entry<MixOp, &MixServant::Mix>, Entry<NoteOp, &MixServant::Note>>;
  void Dispatch(ObjectHelper& request) override { Table::Dispatch(*this, request); }

 private:
  std::mutex m_mutex;
  std::vector<std::string> m_notes;
};

Bytes MixArguments() { return Writer().i32(40).wstr(u"h\u00e9").u8(2).f64(1.5).f64(-2.0).get(); }

// The skeleton's reply bytes to a raw client, then the typed proxy against
// the same servant.
TEST(TypedCall, SkeletonAndProxyMarshalTheSameValuesInOrder) {
  auto servant = MakeShared<MixServant>();
  TestServer server(servant);
  RawClient raw;
  ASSERT_TRUE(raw.Connect(server.port));
  raw.Receive(HEADER_SIZE);
  const auto call = [&](const Bytes& request) {
    EXPECT_TRUE(raw.Send(request));
    return ParseReply(raw.ReceiveMessage());
  };
  Reply reply = call(Request(11, u"A", u"Mix", MixArguments()));
  EXPECT_EQ(0u, reply.status);
  // bool true, "hé" as three UTF-8 bytes, 2^56 + 40 + 2 as eight bytes.
  EXPECT_EQ("01 03 68 C3 A9 2A 00 00 00 00 00 00 01", Hex(reply.results));
  EXPECT_EQ(36 + 13, reply.size);
  // The built-ins and the unknown-name answer still come from Object.
  reply = call(Request(13, u"A", u"ObjectIsA", Writer().wstr(u"::TAVIX::Object").get()));
  EXPECT_EQ(Bytes{1}, reply.results);
  EXPECT_EQ(Err::OperationNotFound, call(Request(14, u"A", u"Void")).status);

  SmartPtr<Communicator> client = Initialize();
  SmartPtr<ProxyObject> proxy = CreateProxy(client, server.ProxyString());
  SmartPtr<ITavixBlob> recorded = CreateTavixMemBlob();
  ASSERT_EQ(0u, Record<MixOp>(*proxy, recorded, 40, std::u16string(u"h\u00e9"), std::vector<double>{1.5, -2.0}));
  const Bytes sent = BlobBytes(recorded);
  EXPECT_EQ(Hex(Request(ReadI32(sent, 20), u"A", u"Mix", MixArguments())), Hex(sent));

  bool flag = false;
  std::string narrow;
  int64_t sum = 0;
  ASSERT_EQ(0u,
            Invoke<MixOp>(*proxy, 40, std::u16string(u"h\u00e9"), std::vector<double>{1.5, -2.0}, flag, narrow, sum));
  EXPECT_TRUE(flag);
  EXPECT_EQ("h\xC3\xA9", narrow);
  EXPECT_EQ(0x010000000000002A, sum);
  EXPECT_EQ(static_cast<int32_t>(sent.size()), proxy->GetLastPerfmon().requestSize);
  EXPECT_EQ(36 + 13, proxy->GetLastPerfmon().replySize);

  EXPECT_EQ(0u, Invoke<NoteOp>(*proxy, std::string("hi")));
  servant->status = 0x77;
  flag = false;
  narrow = "kept";
  EXPECT_EQ(0x77u, Invoke<MixOp>(*proxy, 1, std::u16string(), std::vector<double>{}, flag, narrow, sum));
  EXPECT_EQ(36, proxy->GetLastPerfmon().replySize) << "no results with an error status";
  EXPECT_FALSE(flag);
  EXPECT_EQ("kept", narrow) << "outs are written only on success";
  EXPECT_EQ(std::vector<std::string>{"hi"}, servant->Notes()) << "the one-way call came first";
}

}  // namespace
}  // namespace TAVIX
