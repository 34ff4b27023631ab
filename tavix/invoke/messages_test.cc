#include "tavix/invoke/messages.h"

#include <set>
#include <thread>

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

// The body of a message, read the way a receiver does after the header.
Decoder BodyOf(const Bytes& message, size_t cut = 0) {
  return Decoder(Bytes(message.begin() + HEADER_SIZE, message.end() - static_cast<ptrdiff_t>(cut)));
}

// Whole messages are checked byte for byte end to end, by the request and
// proxy tests; here the heads' lengths, limits and reading back.
TEST(RequestMessage, LongNamesLengthsAndLimits) {
  const RequestHead head{5, std::u16string(255, u'n'), u"Op"};
  const Bytes message = Message(MSG_REQUEST, head.lengthOf(), [&](BasicStream& s) { head.write(s); });
  ASSERT_EQ(message.size(), static_cast<size_t>(HEADER_SIZE + 4 + 5 + 510 + 1 + 4));
  EXPECT_EQ(Bytes(message.begin() + 24, message.begin() + 29), B({0xFF, 0xFF, 0x00, 0x00, 0x00}));
  RequestHead read;
  Decoder whole = BodyOf(message);
  read.read(whole.stream);
  EXPECT_EQ(read.requestId, 5);
  EXPECT_EQ(read.objectName, head.objectName);
  EXPECT_EQ(read.operation, u"Op");
  uint8_t extra = 0;
  EXPECT_EQ(CodeOf([&] { whole.stream.readBlob(&extra, 1); }), Err::OutOfBounds) << "read past the body";

  // Writing more than announced fails; so does a body cut short or a negative size prefix.
  EXPECT_EQ(CodeOf([&] {
              Message(MSG_REQUEST, head.lengthOf(), [&](BasicStream& s) { head.write(s), s.write(int32_t{0}); });
            }),
            Err::OutOfBounds);
  Decoder cut = BodyOf(message, 3);
  EXPECT_EQ(CodeOf([&] { read.read(cut.stream); }), Err::OutOfBounds);
  Decoder negative(B({1, 0, 0, 0, 0xFF, 0xFE, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(CodeOf([&] { read.read(negative.stream); }), Err::IllegalSize);
}

TEST(ReplyMessage, HeadAndResultsReadBack) {
  const Bytes isA = Message(MSG_REPLY, ReplyHead::lengthOf() + BasicStream::lengthOf(true), [](BasicStream& s) {
    ReplyHead{2, Err::ObjectNotFound, 1.25}.write(s);
    s.write(true);
  });
  ASSERT_EQ(isA.size(), 37u);
  ReplyHead read;
  bool answer = false;
  Decoder d = BodyOf(isA);
  read.read(d.stream);
  d.stream.read(answer);
  EXPECT_EQ(read.requestId, 2);
  EXPECT_EQ(read.status, Err::ObjectNotFound);
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
