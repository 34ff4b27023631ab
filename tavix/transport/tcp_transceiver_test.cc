// TCP transceivers and the listening acceptor over loopback: refused calls, socket options, waits, the peer's close,
// a close from another thread, and the reuse of a transceiver a holder already has.
#include "tavix/transport/tcp_transceiver.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

int IntOption(int32_t handle, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(0, ::getsockopt(handle, level, name, &value, &size));
  return value;
}

std::vector<uint8_t> Pattern(size_t size, uint8_t seed) {
  std::vector<uint8_t> bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 31 + seed);
  return bytes;
}

TEST(TcpTransceiverTest, ClosedTransceiverAndIllegalLengthsFail) {
  TcpTransceiver closed;
  char buffer[8] = {};
  EXPECT_EQ(INVALID_SOCKET, closed.GetHandle());
  for (const int32_t result : {closed.WaitForRecv(10), closed.WaitForSend(10), closed.Recv(buffer, 8),
                               closed.Recvn(buffer, 8), closed.Send(buffer, 8)}) {
    EXPECT_EQ(-3, result);
  }
  TavixSetLastError(1234);
  closed.Close();
  EXPECT_EQ(1234u, TavixGetLastError());

  TcpPair pair = ConnectedPair();
  for (const int32_t length : {0, -1}) {
    const Outcome illegal{-2, Err::IllegalBufferSize};
    EXPECT_EQ(illegal, OutcomeOf([&] { return pair.client->Send(buffer, length); }));
    EXPECT_EQ(illegal, OutcomeOf([&] { return pair.server->Recv(buffer, length); }));
    EXPECT_EQ(illegal, OutcomeOf([&] { return pair.server->Recvn(buffer, length); }));
  }
}

// The peer's address is checked through the server's request context.
TEST(TcpTransceiverTest, ConnectedPairCarriesTcpOptions) {
  TcpPair pair = ConnectedPair();
  for (const auto& side : {pair.client, pair.server}) {
    const int32_t handle = side->GetHandle();
    EXPECT_EQ(1, IntOption(handle, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(60, IntOption(handle, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(1, IntOption(handle, IPPROTO_TCP, TCP_KEEPINTVL));
    // The kernel doubles what it is given for its own bookkeeping.
    EXPECT_GE(IntOption(handle, SOL_SOCKET, SO_SNDBUF), TcpTransceiver::kBufferSize);
    EXPECT_GE(IntOption(handle, SOL_SOCKET, SO_RCVBUF), TcpTransceiver::kBufferSize);
  }
}

// A wait times out, then sees data; the peer's orderly close after part of a message counts as readable and ends an
// exact read with 0.
TEST(TcpTransceiverTest, WaitsAndReadsUpToThePeersClose) {
  TcpPair pair = ConnectedPair();
  const uint64_t start = platform::TickCountMs();
  EXPECT_EQ(-2, pair.server->WaitForRecv(150));
  EXPECT_EQ(Err::ReceiveTimeout, TavixGetLastError());
  EXPECT_GE(MsSince(start), 140);
  EXPECT_FALSE(pair.server->IsWaiting());
  EXPECT_EQ(1, pair.client->WaitForSend(100));

  ASSERT_EQ(3, pair.client->Send("abc", 3));
  EXPECT_EQ(1, pair.server->WaitForRecv(2000));
  char buffer[20] = {};
  EXPECT_EQ(3, pair.server->Recv(buffer, sizeof buffer));
  EXPECT_STREQ("abc", buffer);
  ASSERT_EQ(8, pair.client->Send("12345678", 8));
  pair.client->Close();
  EXPECT_FALSE(pair.client->IsOpen());
  EXPECT_EQ(1, pair.server->WaitForRecv(2000));
  EXPECT_EQ(0, pair.server->Recvn(buffer, 20));
  EXPECT_EQ(0, std::memcmp("12345678", buffer, 8));
  EXPECT_EQ(0, pair.server->Recv(buffer, 20));
}

TEST(TcpTransceiverTest, SendToVanishedPeerFailsWithoutSignal) {
  TcpPair pair = ConnectedPair();
  pair.server->Close();
  std::vector<char> data(64 * 1024, 'x');
  int32_t result = 1;
  // The first sends may still be buffered; the reset arrives soon after.
  for (int i = 0; i < 100 && result > 0; ++i) {
    result = pair.client->Send(data.data(), static_cast<int32_t>(data.size()));
    if (result > 0) platform::SleepMs(5);
  }
  EXPECT_EQ(-1, result);
  const uint32_t error = TavixGetLastError();
  EXPECT_TRUE(error == EPIPE || error == ECONNRESET) << error;
  EXPECT_TRUE(pair.client->IsOpen());  // the owner decides
}

// Close from another thread ends a wait without limit (-3) and a blocked exact read (an orderly end), promptly.
TEST(TcpTransceiverTest, CloseFromAnotherThreadWakesWaiterAndReader) {
  TcpPair pair = ConnectedPair();
  std::atomic<int32_t> waited{0};
  std::thread waiter([&] { waited = pair.server->WaitForRecv(0); });
  while (!pair.server->IsWaiting()) std::this_thread::yield();
  platform::SleepMs(30);
  uint64_t start = platform::TickCountMs();
  pair.server->Close();
  waiter.join();
  EXPECT_EQ(-3, waited.load());
  EXPECT_LT(MsSince(start), 1000);
  EXPECT_FALSE(pair.server->IsWaiting());
  pair.server->Close();  // closing again does nothing
  EXPECT_EQ(-3, pair.server->WaitForRecv(10));

  TcpPair other = ConnectedPair();
  ASSERT_EQ(4, other.client->Send("part", 4));
  std::atomic<int32_t> read{1};
  std::thread reader([&] {
    char buffer[20];
    read = other.server->Recvn(buffer, 20);
  });
  platform::SleepMs(30);
  start = platform::TickCountMs();
  other.server->Close();
  reader.join();
  EXPECT_EQ(0, read.load());
  EXPECT_LT(MsSince(start), 1000);
}

// Accept and Connect reuse the transceiver a holder has, hanging up on its earlier peer; a failure leaves the holder
// alone.
TEST(TcpTransceiverTest, AcceptAndConnectReuseTheHeldTransceiver) {
  SmartPtr<TcpAcceptor> acceptor = LoopbackAcceptor();
  ASSERT_NE(0, acceptor->Address().Port());
  SmartPtr<ITransceiver> a, b, served, accepted;
  const uint64_t start = platform::TickCountMs();
  EXPECT_EQ(0, acceptor->Accept(served, 100));
  EXPECT_GE(MsSince(start), 90);
  EXPECT_FALSE(served);
  ASSERT_EQ(0, TcpTransceiver::Connect(acceptor->Address(), a));
  ASSERT_EQ(0, TcpTransceiver::Connect(acceptor->Address(), b));
  ASSERT_EQ(0, acceptor->Accept(served, 2000));
  ITransceiver* const servedObject = served.get();
  ASSERT_EQ(0, acceptor->Accept(served, 2000));
  EXPECT_EQ(servedObject, served.get());
  char byte = 0;
  EXPECT_EQ(0, a->Recv(&byte, 1)) << "a's server end was hung up";

  ITransceiver* const bObject = b.get();
  ASSERT_EQ(0, TcpTransceiver::Connect(acceptor->Address(), b));
  EXPECT_EQ(bObject, b.get());
  EXPECT_EQ(0, served->Recv(&byte, 1)) << "b's first connection was hung up";
  ASSERT_EQ(0, acceptor->Accept(accepted, 2000));
  ASSERT_EQ(1, b->Send("z", 1));
  EXPECT_EQ(1, accepted->Recvn(&byte, 1));
  EXPECT_EQ('z', byte);

  const uint16_t port = acceptor->Address().Port();
  acceptor->Close();  // nobody listens there now
  a = nullptr;
  EXPECT_EQ((Outcome{-1, ENOTSOCK}), OutcomeOf([&] { return acceptor->Accept(a, 10); }));
  EXPECT_FALSE(a);
  EXPECT_EQ((Outcome{-1, ECONNREFUSED}), OutcomeOf([&] { return TcpTransceiver::Connect(Loopback(port), b); }));
  EXPECT_EQ(bObject, b.get());
}

// Messages keep their bounds however they are cut: two messages in one
// send are read one after the other, and a message split across sends is
// read whole, each byte exactly once.
TEST(TcpTransceiverTest, MessageStartsKeepTheirBoundsAcrossReceives) {
  TcpPair pair = ConnectedPair();
  const std::vector<uint8_t> stream = Pattern(20 + 28 + 20 + 5000, 7);
  ASSERT_EQ(68, pair.client->Send(stream.data(), 68));
  std::vector<uint8_t> got(stream.size());
  ASSERT_EQ(20, pair.server->RecvMessageStart(got.data(), 20, 2000));
  // The body and the next header were received with the first header.
  EXPECT_EQ(1, pair.server->WaitForRecv(1));
  ASSERT_EQ(28, pair.server->Recvn(got.data() + 20, 28));
  ASSERT_EQ(20, pair.server->RecvMessageStart(got.data() + 48, 20, 2000));

  std::thread sender([&] {
    for (int32_t at = 68; at < static_cast<int32_t>(stream.size()); at += 1700) {
      const int32_t piece = std::min<int32_t>(1700, static_cast<int32_t>(stream.size()) - at);
      EXPECT_EQ(piece, pair.client->Send(stream.data() + at, piece));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  EXPECT_EQ(5000, pair.server->Recvn(got.data() + 68, 5000));
  sender.join();
  EXPECT_EQ(stream, got);
}

// Without a limit an idle peer is waited for past the stall time-out,
// which still ends a message that stops in the middle; with a limit the
// wait for the first byte ends with a time-out; a close from another thread
// ends the wait with -3.
TEST(TcpTransceiverTest, MessageStartWaitsAsAskedWhileStallsStillEnd) {
  TcpPair pair = ConnectedPair();
  ASSERT_TRUE(pair.server->SetStallTimeout(100));
  std::thread late([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(350));
    EXPECT_EQ(3, pair.client->Send("abc", 3));
  });
  char buffer[8] = {};
  uint64_t start = platform::TickCountMs();
  EXPECT_EQ(-2, pair.server->RecvMessageStart(buffer, 4, 0));
  EXPECT_EQ(Err::ReceiveTimeout, TavixGetLastError()) << "a message that stopped after 3 bytes";
  EXPECT_GE(MsSince(start), 400u);
  late.join();
  EXPECT_EQ(0, std::memcmp("abc", buffer, 3));

  start = platform::TickCountMs();
  EXPECT_EQ(-2, pair.server->RecvMessageStart(buffer, 4, 150));
  EXPECT_EQ(Err::ReceiveTimeout, TavixGetLastError());
  EXPECT_GE(MsSince(start), 140u);

  std::atomic<int32_t> waited{1};
  std::thread waiter([&] { waited = pair.server->RecvMessageStart(buffer, 4, 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  pair.server->Close();
  waiter.join();
  EXPECT_EQ(-3, waited.load());
}

// A gathered send puts both pieces on the wire in order, a large second
// piece included, byte for byte.
TEST(TcpTransceiverTest, SendPairArrivesByteExact) {
  TcpPair pair = ConnectedPair();
  const std::vector<uint8_t> head = Pattern(60, 1);
  const std::vector<uint8_t> body = Pattern(3 << 20, 2);
  std::vector<uint8_t> got(head.size() + body.size());
  const auto total = static_cast<int32_t>(got.size());
  std::thread reader([&] { EXPECT_EQ(total, pair.server->Recvn(got.data(), total)); });
  EXPECT_EQ(total, pair.client->SendPair(head.data(), 60, body.data(), static_cast<int32_t>(body.size())));
  reader.join();
  EXPECT_TRUE(std::equal(head.begin(), head.end(), got.begin()));
  EXPECT_TRUE(std::equal(body.begin(), body.end(), got.begin() + 60));
  ASSERT_EQ(4, pair.client->SendPair(nullptr, 0, "only", 4));
  EXPECT_EQ(4, pair.server->Recvn(got.data(), 4));
  EXPECT_EQ(0, std::memcmp("only", got.data(), 4));
  EXPECT_EQ(-2, pair.client->SendPair(nullptr, 0, nullptr, 0));
}

}  // namespace
}  // namespace TAVIX
