#include "tavix/invoke/messages.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/marshal/marshal_test_util.h"
#include "tavix/marshal/stream_buffers.h"

namespace TAVIX {
namespace {

using testing::B;
using testing::Bytes;
using testing::CodeOf;
using testing::Decoder;

// A whole message as a sender produces it: size computed first, then the
// header and the body through a memory buffer limited to that size.
Bytes Message(MessageType type, int32_t bodyLength, const std::function<void(BasicStream&)>& body) {
  SmartPtr<testing::Sink> wire(new testing::Sink());
  BasicStream s;
  const int32_t total = HEADER_SIZE + bodyLength;
  AttachMessageBuffer(s, total, wire);
  WriteMessageHeader(s, type, total);
  body(s);
  s.Flush();
  EXPECT_EQ(s.Size(), total);
  return wire->bytes;
}

Bytes Request(const RequestHead& head) {
  return Message(MSG_REQUEST, head.lengthOf(), [&](BasicStream& s) { head.write(s); });
}

Bytes Reply(const ReplyHead& head, const std::function<void(BasicStream&)>& results = {}, int32_t resultLength = 0) {
  return Message(MSG_REPLY, ReplyHead::lengthOf() + resultLength, [&](BasicStream& s) {
    head.write(s);
    if (results) results(s);
  });
}

// The body of a message, read the way a receiver does after the header.
Decoder BodyOf(const Bytes& message, size_t cut = 0) {
  return Decoder(Bytes(message.begin() + HEADER_SIZE, message.end() - static_cast<ptrdiff_t>(cut)));
}

TEST(RequestMessage, PingBytesTwoWayAndOneWay) {
  RequestHead head{1, u"A", u"ObjectPing"};
  const Bytes ping = B({0x58, 0x47, 0x52, 0x51, 0x01, 0x02, 0x01, 0x01, 0x00, 0x00, 0x30, 0x00, 0x00, 0x00, 0x00, 0x00,
                        0x00, 0x00, 0xB0, 0xBB, 0x01, 0x00, 0x00, 0x00, 0x01, 0x41, 0x00, 0x0A, 0x4F, 0x00, 0x62, 0x00,
                        0x6A, 0x00, 0x65, 0x00, 0x63, 0x00, 0x74, 0x00, 0x50, 0x00, 0x69, 0x00, 0x6E, 0x00, 0x67, 0x00});
  EXPECT_EQ(Request(head), ping);
  head.requestId = 0;
  Bytes oneway = ping;
  oneway[20] = 0;
  EXPECT_EQ(Request(head), oneway);

  // Read back through a buffer limited to the body: nothing past it.
  RequestHead read;
  Decoder d = BodyOf(ping);
  read.read(d.stream);
  EXPECT_EQ(read.requestId, 1);
  EXPECT_EQ(read.objectName, u"A");
  EXPECT_EQ(read.operation, u"ObjectPing");
  uint8_t extra = 0;
  EXPECT_EQ(CodeOf([&] { d.stream.readBlob(&extra, 1); }), Err::OutOfBounds);
}

TEST(RequestMessage, LongNamesAndLimits) {
  const RequestHead head{5, std::u16string(255, u'n'), u"Op"};
  const Bytes message = Request(head);
  ASSERT_EQ(message.size(), static_cast<size_t>(HEADER_SIZE + 4 + 5 + 510 + 1 + 4));
  EXPECT_EQ(Bytes(message.begin() + 24, message.begin() + 29), B({0xFF, 0xFF, 0x00, 0x00, 0x00}));

  // Writing more than announced fails; so does a body cut short or a
  // negative size prefix.
  EXPECT_EQ(CodeOf([&] {
              Message(MSG_REQUEST, head.lengthOf(), [&](BasicStream& s) { head.write(s), s.write(int32_t{0}); });
            }),
            Err::OutOfBounds);
  RequestHead read;
  Decoder cut = BodyOf(message, 3);
  EXPECT_EQ(CodeOf([&] { read.read(cut.stream); }), Err::OutOfBounds);
  Decoder negative(B({1, 0, 0, 0, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(CodeOf([&] { read.read(negative.stream); }), Err::IllegalSize);
}

TEST(ReplyMessage, SuccessErrorAndObjectIsABytes) {
  const Bytes ok = B({0x58, 0x47, 0x52, 0x51, 0x01, 0x02, 0x01, 0x01, 0x01, 0x00, 0x24, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                      0x00, 0xE1, 0x81, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                      0x00, 0x00, 0x00});
  EXPECT_EQ(Reply(ReplyHead{1, 0, 0.0}), ok);

  const Bytes error = Reply(ReplyHead{3, Err::ObjectNotFound, 0.0});
  ASSERT_EQ(error.size(), 36u);
  EXPECT_EQ(error[10], 36);
  EXPECT_EQ(Bytes(error.begin() + 24, error.begin() + 28), B({0x0C, 0x00, 0x00, 0x20}));
  ReplyHead status;
  Decoder e = BodyOf(error);
  status.read(e.stream);
  EXPECT_EQ(status.status, Err::ObjectNotFound);

  const Bytes isA = Reply(ReplyHead{2, 0, 1.25}, [](BasicStream& s) { s.write(true); }, BasicStream::lengthOf(true));
  ASSERT_EQ(isA.size(), 37u);
  EXPECT_EQ(Bytes(isA.begin() + 10, isA.begin() + 14), B({0x25, 0, 0, 0}));
  EXPECT_EQ(isA.back(), 0x01);
  ReplyHead read;
  bool answer = false;
  Decoder d = BodyOf(isA);
  read.read(d.stream);
  d.stream.read(answer);
  EXPECT_EQ(read.requestId, 2);
  EXPECT_EQ(read.serverTime, 1.25);
  EXPECT_TRUE(answer);
}

TEST(RequestIds, CountUpShareAcrossThreadsAndSkipZero) {
  RequestIdCounter wrapping(0xFFFFFFFEu);
  EXPECT_EQ(wrapping.Next(), -1);
  EXPECT_EQ(wrapping.Next(), 1);  // 0 would read as one-way
  RequestIdCounter signedEdge(0x7FFFFFFFu);
  EXPECT_EQ(signedEdge.Next(), INT32_MIN);

  const int32_t first = RequestIdFor(TwoWay);
  EXPECT_EQ(RequestIdFor(OneWay), 0);  // one-way calls leave the counter alone
  EXPECT_EQ(RequestIdFor(TwoWay), first + 1);

  std::vector<std::vector<int32_t>> taken(4);
  std::vector<std::thread> threads;
  for (auto& ids : taken) {
    threads.emplace_back([&ids] {
      for (int i = 0; i < 1000; ++i) ids.push_back(ProcessRequestIds().Next());
    });
  }
  for (auto& t : threads) t.join();
  std::set<int32_t> all;
  for (const auto& ids : taken) all.insert(ids.begin(), ids.end());
  EXPECT_EQ(all.size(), 4000u);
  EXPECT_EQ(*all.begin(), first + 2);
  EXPECT_EQ(*all.rbegin(), first + 4001);
}

}  // namespace
}  // namespace TAVIX
