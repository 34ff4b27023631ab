#include "tavix/transport/stream_transceiver_buf.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>

#include "tavix/core/errors.h"
#include "tavix/marshal/marshal_test_util.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX {
namespace {

using testing::B;
using testing::Bytes;
using testing::CodeOf;
using testing::Pattern;
using testing::Sink;
using testing::Source;

// An in-memory pipe over an unconnected TCP transceiver. Each send takes
// at most `sendTake` bytes and each receive delivers at most `recvTake`; a
// value of 0 or below is returned as the transfer's result instead.
class FakeTransceiver : public TcpTransceiver {
 public:
  int32_t Recvn(void* buffer, int32_t length) override {
    if (recvTake <= 0) return recvTake;
    const auto n = std::min({static_cast<size_t>(length), static_cast<size_t>(recvTake), incoming.size() - readAt});
    std::memcpy(buffer, incoming.data() + readAt, n);
    readAt += n;
    return static_cast<int32_t>(n);
  }
  int32_t Send(const void* buffer, int32_t length) override {
    sends.push_back(length);
    if (sendTake <= 0) return sendTake;
    const auto* p = static_cast<const uint8_t*>(buffer);
    sent.insert(sent.end(), p, p + std::min(length, sendTake));
    return std::min(length, sendTake);
  }
  // Each piece as its own Send, so that partial takes stay visible.
  int32_t SendPair(const void* first, int32_t firstLength, const void* second, int32_t secondLength) override {
    return ITransceiver::SendPair(first, firstLength, second, secondLength);
  }

  Bytes sent, incoming;
  std::vector<int32_t> sends;
  size_t readAt = 0;
  int32_t sendTake = 0x7FFFFFFF;
  int32_t recvTake = 0x7FFFFFFF;
};

TEST(StreamMemBuf, LimitAndModeRules) {
  StreamMemBuf mem;
  mem.setLimit(10);
  const Bytes data = Pattern(15);
  EXPECT_EQ(mem.sputn(data.data(), 15), 10);
  EXPECT_EQ(mem.sputn(data.data(), 1), 0);
  uint8_t out[4];
  EXPECT_EQ(mem.sgetn(out, 4), 0);  // a writing buffer refuses reads
  EXPECT_EQ(mem.size(), 10);

  // clear: back to a fresh, unlimited, unused state, the next link kept and
  // cleared as well.
  SmartPtr<Sink> sink(new Sink());
  EXPECT_TRUE(mem.setNext(sink));
  mem.clear();
  EXPECT_EQ(sink->clears, 1);
  EXPECT_EQ(mem.size(), 0);
  EXPECT_EQ(mem.sputn(data.data(), 15), 15);  // limit gone
  EXPECT_EQ(mem.flush(), 15);
  EXPECT_EQ(sink->bytes, data);
  mem.reserve(0);
  EXPECT_EQ(sink->clears, 2);

  mem.setNext(SmartPtr<ITavixStreamBuf>(new Source(B({1, 2, 3, 4, 5}))));
  EXPECT_EQ(mem.sgetn(out, 4), 0);  // no room made yet: nothing can arrive
  mem.clear();
  mem.reserve(3);
  EXPECT_EQ(mem.sgetn(out, 4), 4);
  EXPECT_EQ(Bytes(out, out + 4), B({1, 2, 3, 4}));
  EXPECT_EQ(mem.sputn(data.data(), 1), 0);  // a reading buffer refuses writes
  EXPECT_EQ(mem.flush(), 0);
}

TEST(StreamMemBuf, OverflowKeepsWhatNextDidNotTake) {
  SmartPtr<Sink> sink(new Sink());
  sink->accept = 40000;
  StreamMemBuf mem;
  mem.setNext(sink);
  const Bytes data = Pattern(65537);
  // More than the block holds passes on at once, without a copy.
  EXPECT_EQ(mem.sputn(data.data(), 65537), 65537);
  EXPECT_EQ(sink->calls, std::vector<int32_t>{65537});
  EXPECT_EQ(mem.fill(), 25537);
  EXPECT_TRUE(std::equal(data.begin() + 40000, data.end(), mem.block()));

  // A next that takes nothing: the block doubles and nothing is lost.
  sink->accept = 0;
  const Bytes more = Pattern(100000, 1);
  EXPECT_EQ(mem.sputn(more.data(), 100000), 100000);
  EXPECT_EQ(mem.capacity(), 131072);
  sink->accept = -1;
  EXPECT_EQ(mem.flush(), 125537);
  Bytes all = data;
  all.insert(all.end(), more.begin(), more.end());
  EXPECT_EQ(sink->bytes, all);
  EXPECT_EQ(mem.size(), 165537);

  // A failure below comes back unchanged, and the bytes stay held.
  sink->result = -7;
  EXPECT_EQ(mem.sputn(more.data(), 1), 1);
  EXPECT_EQ(mem.flush(), -7);
  EXPECT_EQ(mem.fill(), 1);
}

TEST(StreamTransceiverBuf, MessagesOverManyBlocksBothWays) {
  SmartPtr<FakeTransceiver> pipe(new FakeTransceiver());
  pipe->sendTake = 50000;  // the transceiver takes part of each block
  std::vector<int32_t> numbers(100000);
  std::iota(numbers.begin(), numbers.end(), 0);
  const std::u16string text(1000, u'\u4E2D');
  const int32_t total = BasicStream::lengthOf(numbers) + BasicStream::lengthOf(text);
  {
    BasicStream s;
    AttachMessageBuffer(s, total, SmartPtr<ITavixStreamBuf>(new StreamTransceiverBuf(pipe)));
    s.write(numbers);
    s.write(text);
    while (s.Flush() > 0) {
    }
    EXPECT_EQ(CodeOf([&] { s.write(int32_t{1}); }), Err::OutOfBounds);  // beyond the announced size
  }
  ASSERT_EQ(static_cast<int32_t>(pipe->sent.size()), total);
  // The numbers are larger than the block: they leave in one piece behind
  // the bytes held before them, and what the transceiver left of a piece
  // is offered again.
  ASSERT_GE(pipe->sends.size(), 2u);
  EXPECT_EQ(pipe->sends[0], 5);
  EXPECT_EQ(pipe->sends[1], 400000);
  EXPECT_EQ(pipe->sends[2], 350000);

  pipe->incoming = pipe->sent;
  pipe->recvTake = 1234;
  BasicStream r;
  AttachMessageBuffer(r, total, SmartPtr<ITavixStreamBuf>(new StreamTransceiverBuf(pipe)));
  std::vector<int32_t> numbersBack;
  std::u16string textBack;
  r.read(numbersBack);
  r.read(textBack);
  EXPECT_EQ(numbersBack, numbers);
  EXPECT_EQ(textBack, text);
}

TEST(StreamTransceiverBuf, ClosedAndFailedTransfersRaise) {
  SmartPtr<FakeTransceiver> pipe(new FakeTransceiver());
  StreamTransceiverBuf end(pipe);
  uint8_t byte = 0;
  pipe->sendTake = pipe->recvTake = 0;
  EXPECT_EQ(CodeOf([&] { end.sputn(&byte, 1); }), Err::ConnectionClosed);
  EXPECT_EQ(CodeOf([&] { end.sgetn(&byte, 1); }), Err::ConnectionClosed);
  for (const int32_t failure : {-1, -2, -3}) {
    TavixSetLastError(ECONNRESET);
    pipe->sendTake = pipe->recvTake = failure;
    EXPECT_EQ(CodeOf([&] { end.sputn(&byte, 1); }), static_cast<uint32_t>(ECONNRESET));
    EXPECT_EQ(CodeOf([&] { end.sgetn(&byte, 1); }), static_cast<uint32_t>(ECONNRESET));
  }
  EXPECT_FALSE(end.setNext(SmartPtr<ITavixStreamBuf>(new Sink())));
}

// A blob that always fails, leaving the last error as it found it.
class FailingBlob : public TavixBlob {
 public:
  int32_t Write(const void*, int32_t, uint64_t) override { return -2; }
};

TEST(StreamBlobBuf, CollectsAMessageAndReportsBlobFailures) {
  SmartPtr<ITavixBlob> blob = CreateTavixMemBlob();
  BasicStream s;
  AttachMessageBuffer(s, 100000, SmartPtr<ITavixStreamBuf>(new StreamBlobBuf(blob)));
  const Bytes data = Pattern(100000);
  s.writeBlob(data.data(), 100000);
  s.Flush();
  ASSERT_EQ(blob->Size(), 100000u);
  EXPECT_EQ(std::memcmp(blob->Data(), data.data(), 100000), 0);

  StreamBlobBuf end(blob);
  uint8_t byte = 0;
  EXPECT_EQ(CodeOf([&] { end.sgetn(&byte, 1); }), Err::UnsupportedFunction);
  StreamBlobBuf failing(SmartPtr<ITavixBlob>(new FailingBlob()));
  TavixSetLastError(0);
  EXPECT_EQ(CodeOf([&] { failing.sputn(&byte, 1); }), Err::BlobIoError);
  StreamBlobBuf unopenable(CreateTavixFileBlob("/nonexistent-dir/blob.bin"));
  EXPECT_EQ(CodeOf([&] { unopenable.sputn(&byte, 1); }), static_cast<uint32_t>(ENOENT));
}

}  // namespace
}  // namespace TAVIX
