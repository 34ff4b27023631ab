// The transport over loopback: TCP transceivers and the listening acceptor (refused calls, socket options, waits, the
// peer's close, a close from another thread, message bounds, reuse of a held transceiver); endpoint strings (grammar,
// printed forms, conflicts, the factory, endpoints that cannot be opened); and datagram transceivers and passports.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "tavix/core/host_info.h"
#include "tavix/testing/wire.h"
#include "tavix/transport/passport.h"
#include "tavix/transport/udp_transceiver.h"

namespace TAVIX {
namespace {

using namespace test_wire;
using testing::Pattern;

TEST(TcpTransceiverTest, ClosedTransceiverAndIllegalLengthsFail) {
  TcpTransceiver closed;
  char buffer[8] = {};
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

// Keep-alive and the buffer sizes on both ends (the kernel doubles what it is given for its own bookkeeping).
TEST(TcpTransceiverTest, ConnectedPairCarriesTcpOptions) {
  TcpPair pair = ConnectedPair();
  for (const auto& side : {pair.client, pair.server}) {
    const auto option = [&](int level, int name) {
      int value = -1;
      socklen_t size = sizeof value;
      return ::getsockopt(side->GetHandle(), level, name, &value, &size) == 0 ? value : -1;
    };
    EXPECT_EQ(std::tuple(1, 60, 1), std::tuple(option(SOL_SOCKET, SO_KEEPALIVE), option(IPPROTO_TCP, TCP_KEEPIDLE),
                                               option(IPPROTO_TCP, TCP_KEEPINTVL)));
    EXPECT_GE(std::min(option(SOL_SOCKET, SO_SNDBUF), option(SOL_SOCKET, SO_RCVBUF)), TcpTransceiver::kBufferSize);
  }
}

// A wait sees data; the peer's orderly close after part of a message counts as readable and ends an exact read with
// 0. (Waits that time out show in the datagram and proxy tests.)
TEST(TcpTransceiverTest, WaitsAndReadsUpToThePeersClose) {
  TcpPair pair = ConnectedPair();
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

// Messages keep their bounds however they are cut: two messages in one send are read one after the other, and a message
// split across sends is read whole, each byte exactly once.
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

// Without a limit an idle peer is waited for past the stall time-out, which still ends a message that stops in the
// middle; with a limit the wait for the first byte ends with a time-out; a close from another thread ends the wait with
// -3.
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

// A gathered send puts both pieces on the wire in order, a large second piece included, byte for byte.
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

std::u16string Printed(const IPassport& passport) {
  std::u16string text;
  return passport.toString(text);
}

SmartPtr<TcpPassport> Made(const std::u16string& text) {
  SmartPtr<TcpPassport> passport = MakeShared<TcpPassport>();
  EXPECT_TRUE(passport->Create(text)) << NarrowString(text);
  return passport;
}

TEST(PassportGrammarTest, AcceptedStringsTheirFieldsAndLocalHosts) {
  const std::tuple<const char16_t*, const char16_t*, uint16_t, uint32_t> cases[] = {
      {u"tcp -h 10.0.0.1 -p 5678 -t 3000", u"10.0.0.1", 5678, 3000},
      {u"tcp -p 1 -h a", u"a", 1, 0},
      {u"TCP -h a -p 1", u"a", 1, 0},
      {u" \t\ntcp\r-h  a -p 1 \r\n", u"a", 1, 0},
      {u"tcp -h a -h b", u"b", 5678, 0},      // repeated -h counts twice
      {u"tcp -p 1 -p 2", u"0.0.0.0", 2, 0},   // default host
      {u"-t 50 tcp -h a -p 1", u"a", 1, 50},  // -t does not count
      {u"-h a -p 1 -p 2", u"a", 2, 0},        // no protocol word at all
      {u"tcp -h a -p 70000", u"a", 4464, 0},  // kept modulo 65536
      {u"tcp -h a -p 12abc", u"a", 12, 0},    // leading digits only
      {u"tcp -h a -p +7", u"a", 7, 0},
      {u"tcp -h a -p 1 -t 0", u"a", 1, 0},
      {u"tcp -h a -p 1 -t 4294967295", u"a", 1, 2147483647},  // saturates
  };
  for (const auto& [text, host, port, timeout] : cases) {
    const SmartPtr<TcpPassport> p = Made(text);
    EXPECT_EQ(std::tuple(host, port, timeout, false),
              std::tuple(p->Host(), p->Port(), p->Timeout(), p->IsLocal()))
        << NarrowString(text);
  }
  // "#any" and this host's own name, in any case, mean every interface; another host clears the flag again.
  EXPECT_TRUE(Made(u"tcp -h #any -p 1")->IsLocal());
  EXPECT_EQ(u"0.0.0.0", Made(u"tcp -h #any -p 1")->Host());
  std::u16string shouted = GetLocalHostName();
  ASSERT_FALSE(shouted.empty());
  for (char16_t& c : shouted) {
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  }
  const SmartPtr<TcpPassport> named = Made(u"tcp -h " + shouted + u" -p 1");
  EXPECT_EQ(std::tuple(true, shouted), std::tuple(named->IsLocal(), named->Host()));
  ASSERT_TRUE(named->Create(std::u16string(u"tcp -h 10.1.2.3 -p 1")));
  EXPECT_FALSE(named->IsLocal());
}

TEST(PassportGrammarTest, RefusedStringsSetBadPassportString) {
  const char16_t* const refused[] = {
      u"", u" \t ", u"tcp", u"tcp -h a",  // fewer than three counted tokens
      u"tcp -h a -p 1 tcp", u"-h a tcp -p 1", u"udp -h a -p 1",  // misplaced or foreign protocol word
      u"tcp -H a -p 1", u"tcp -h a -p 1 -x 5", u"tcp -h a -p 1 --", u"tcp -h a -p 1 -hh b", u"tcp -h a -p 1 extra",
      u"tcp -h -p 10", u"tcp -h #ANY -p 1", u"tcp -h #x -p 1",                      // bad host
      u"tcp -h a -p", u"tcp -h a -p 00", u"tcp -h a -p x", u"tcp -h a -p 65536",  // bad port
      u"tcp -h a -p 1 -t 00", u"tcp -h a -p 1 -t abc", u"tcp -h a -p 1 -t",     // bad time-out
  };
  for (const char16_t* text : refused) {
    EXPECT_EQ(Err::BadPassportString, Refused([&] { return TcpPassport().Create(std::u16string(text)); }))
        << NarrowString(text);
  }
  // Fields set before the failure keep their values.
  TcpPassport partial;
  EXPECT_FALSE(partial.Create(std::u16string(u"tcp -h kept -p 99 -t 7 -x")));
  EXPECT_EQ(u"tcp -h kept -p 99 -t 7", Printed(partial));
}

TEST(PassportPrintTest, PrintedFormsWideAndNarrow) {
  const SmartPtr<TcpPassport> passport = Made(u"tcp -h 10.0.0.1 -p 5678");
  EXPECT_EQ(u"tcp -h 10.0.0.1 -p 5678 -t 0", Printed(*passport));
  passport->Timeout(0xFFFFFFFF);
  std::string narrow = "overwritten";
  EXPECT_EQ("tcp -h 10.0.0.1 -p 5678 -t -1", passport->toString(narrow));
  EXPECT_EQ("tcp -h 10.0.0.1 -p 5678 -t -1", narrow);
  // Every interface prints as this host's name and reads back as local.
  const SmartPtr<TcpPassport> any = Made(u"tcp -h #any -p 20000 -t 250");
  EXPECT_EQ(u"tcp -h " + GetLocalHostName() + u" -p 20000 -t 250", Printed(*any));
  const SmartPtr<TcpPassport> again = Made(Printed(*any));
  EXPECT_TRUE(again->IsLocal());
  EXPECT_EQ(Printed(*any), Printed(*again));
  // Copies carry the fields but never the reference count.
  const SmartPtr<TcpPassport> holder = any;
  EXPECT_EQ(1, MakeShared<TcpPassport>(*any)->RefCount());
  TcpPassport assigned;
  assigned = *any;
  EXPECT_EQ(0, assigned.RefCount());
  EXPECT_EQ(Printed(*any), Printed(assigned));
  EXPECT_TRUE(assigned.IsLocal());
}

TEST(PassportConflictTest, SameListeningResourceConflicts) {
  const std::tuple<const char16_t*, const char16_t*, bool> cases[] = {
      {u"tcp -h #any -p 10", u"tcp -h 10.0.0.1 -p 10", true},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h #any -p 10", true},
      {u"tcp -h HostA -p 10", u"tcp -h hosta -p 10", true},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h 10.0.0.1 -p 10", true},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h 10.0.0.1 -p 11", false},
      {u"tcp -h 10.0.0.1 -p 10", u"tcp -h 10.0.0.2 -p 10", false},
      {u"tcp -h #any -p 10", u"tcp -h #any -p 11", false},
  };
  for (const auto& [a, b, conflict] : cases) {
    EXPECT_EQ(conflict, Made(a)->Conflict(*Made(b))) << NarrowString(a) << " / " << NarrowString(b);
  }
  // Another kind of passport never conflicts.
  class OtherKind : public TcpPassport {
   public:
    PassportType Type() const override { return PASSPORT_UDP; }
  };
  SmartPtr<OtherKind> other = MakeShared<OtherKind>();
  ASSERT_TRUE(other->Create(std::u16string(u"udp -h #any -p 10")));
  EXPECT_FALSE(Made(u"tcp -h #any -p 10")->Conflict(*other));
  EXPECT_FALSE(other->Conflict(*Made(u"tcp -h #any -p 10")));
}

TEST(PassportFactoryTest, MakesPassportsByProtocolWordAndRefusedEndpointsLeaveHoldersAlone) {
  PassportFactory factory;
  SmartPtr<IPassport> passport = factory.Create(std::u16string(u"tcp -h 10.0.0.1 -p 5678 -t 3000"));
  ASSERT_TRUE(passport);
  EXPECT_EQ(PASSPORT_TCP, passport->Type());
  EXPECT_EQ(u"tcp -h 10.0.0.1 -p 5678 -t 3000", Printed(*passport));
  EXPECT_TRUE(factory.Create(std::string("  Tcp -p 9 -h x")));
  // The grammar's refusals pass through; an unknown protocol word is unsupported.
  const std::pair<const char*, uint32_t> refused[] = {
      {"", Err::BadPassportString}, {" \t\r\n", Err::BadPassportString}, {"tcp -h a", Err::BadPassportString},
      {"xyz -h a -p 1", Err::UnsupportedFunction}, {"-h a -p 1", Err::UnsupportedFunction}};
  for (const auto& [text, error] : refused) {
    EXPECT_EQ(error, Refused([&] { return factory.Create(std::string(text)); })) << text;
  }
  // Endpoints that cannot be opened leave the holders alone.
  SmartPtr<ITransceiver> server = MakeShared<TcpTransceiver>(), client;
  ITransceiver* before = server.get();
  EXPECT_EQ((Outcome{-2, Err::NeedAcceptor}),
            OutcomeOf([&] { return Made(u"tcp -h a -p 1")->CreateServerTransceiver(server); }));
  EXPECT_EQ(before, server.get());
  // Listening only on this machine's own addresses.
  for (const char16_t* host : {u"0.0.0.0", u"192.0.2.1"}) {
    SmartPtr<IAcceptor> holder;
    const SmartPtr<TcpPassport> foreign = Made(u"tcp -h " + std::u16string(host) + u" -p 5678");
    EXPECT_EQ((Outcome{-2, Err::CannotCreateAcceptor}), OutcomeOf([&] { return foreign->CreateAcceptor(holder); }));
    EXPECT_FALSE(holder);
  }
  const SmartPtr<TcpPassport> unknown = Made(u"tcp -h no-such-host.invalid -p 1");
  EXPECT_EQ((Outcome{-2, Err::HostNotFound}), OutcomeOf([&] { return unknown->CreateClientTransceiver(client); }));
  EXPECT_FALSE(client);
  // Port 0 asks the system for a port, which a client cannot connect to.
  EXPECT_EQ((Outcome{-2, Err::BadPassportString}),
            OutcomeOf([&] { return Made(u"tcp -h 127.0.0.1 -p 0")->CreateClientTransceiver(client); }));
  EXPECT_FALSE(client);
}

struct UdpPair {
  SmartPtr<UdpTransceiver> server, client;
};

UdpPair OpenPair() {
  const uint16_t port = RawUdp().port;
  UdpPair pair{MakeShared<UdpTransceiver>(UdpTransceiver::UDP_MODE_SERVER, Loopback(port)),
               MakeShared<UdpTransceiver>(UdpTransceiver::UDP_MODE_CLIENT, Loopback(port))};
  EXPECT_EQ(0, pair.server->Open());
  EXPECT_EQ(0, pair.client->Open());
  return pair;
}

std::string ReceiveText(UdpTransceiver& t) {
  std::vector<char> buffer(UdpTransceiver::kMaxDatagram);
  if (t.WaitForRecv(2000) < 1) return "<nothing>";
  const int32_t n = t.Recv(buffer.data(), static_cast<int32_t>(buffer.size()));
  return n < 0 ? "<error>" : std::string(buffer.data(), static_cast<size_t>(n));
}

TEST(UdpTransceiverTest, LimitsRefusedOperationsAndTheReplyAddress) {
  UdpPair pair = OpenPair();
  UdpTransceiver& client = *pair.client;
  EXPECT_FALSE(client.IsBroadcast());
  std::vector<char> big(65508, 'x');
  const Outcome illegal{-2, Err::IllegalBufferSize};
  EXPECT_EQ(illegal, OutcomeOf([&] { return client.Send(big.data(), 65508); }));
  EXPECT_EQ(illegal, OutcomeOf([&] { return client.Send(big.data(), -1); }));
  EXPECT_EQ(0, client.Send(big.data(), 0));
  EXPECT_EQ(illegal, OutcomeOf([&] { return client.Recv(big.data(), 0); }));
  EXPECT_EQ((Outcome{-2, Err::UnsupportedFunction}), OutcomeOf([&] { return client.Recvn(big.data(), 20); }));
  std::u16string address = u"untouched";
  uint16_t port = 7;
  EXPECT_FALSE(client.GetPeer(address, port));
  EXPECT_EQ(std::tuple(std::u16string(u"untouched"), uint16_t{7}), std::tuple(address, port));
  // The largest datagram goes through whole; nothing is sent for 0 bytes.
  EXPECT_EQ(65507, client.Send(big.data(), 65507));
  EXPECT_EQ(std::string(65507, 'x'), ReceiveText(*pair.server));
  EXPECT_EQ((Outcome{-2, Err::ReceiveTimeout}), OutcomeOf([&] { return pair.server->WaitForRecv(50); }));
  client.Close();
  for (const int32_t result : {client.Send(big.data(), 1), client.Recv(big.data(), 1), client.WaitForRecv(10)}) {
    EXPECT_EQ(-3, result);
  }
  EXPECT_EQ(0, client.Open()) << "a closed transceiver opens again with its mode and address";
  EXPECT_EQ(UdpTransceiver::UDP_MODE_CLIENT, client.GetMode());
  // A server answers the last sender.
  UdpPair first = OpenPair();
  UdpTransceiver second(UdpTransceiver::UDP_MODE_CLIENT, first.client->Endpoint());
  ASSERT_EQ(0, second.Open());
  ASSERT_EQ(3, first.client->Send("one", 3));
  EXPECT_EQ("one", ReceiveText(*first.server));
  ASSERT_EQ(3, second.Send("two", 3));
  EXPECT_EQ("two", ReceiveText(*first.server));
  ASSERT_EQ(5, first.server->Send("reply", 5));
  EXPECT_EQ("reply", ReceiveText(second));
  EXPECT_EQ(-2, first.client->WaitForRecv(50)) << "the earlier sender gets nothing";
  // Bind and Connect in the other mode still work, with the mismatch noted.
  UdpTransceiver switched(UdpTransceiver::UDP_MODE_SERVER, Loopback(RawUdp().port));
  ASSERT_EQ(0, switched.Open());
  TavixSetLastError(0);
  EXPECT_TRUE(switched.Connect());
  EXPECT_EQ(Err::UdpModeMismatch, TavixGetLastError());
  EXPECT_EQ(UdpTransceiver::UDP_MODE_CLIENT, switched.GetMode());
}

TEST(UdpPassportTest, MakesDatagramTransceiversAndNoAcceptor) {
  PassportFactory factory;
  const uint16_t port = RawUdp().port;
  SmartPtr<IPassport> any = factory.Create("udp -h #any -p " + std::to_string(port));
  ASSERT_TRUE(any);
  EXPECT_EQ(PASSPORT_UDP, any->Type());
  SmartPtr<IAcceptor> acceptor;
  EXPECT_EQ((Outcome{-2, Err::UnsupportedFunction}), OutcomeOf([&] { return any->CreateAcceptor(acceptor); }));
  EXPECT_FALSE(acceptor);
  // "#any" broadcasts as a client and binds every interface as a server.
  SmartPtr<ITransceiver> broadcast, server, client;
  ASSERT_EQ(0, any->CreateClientTransceiver(broadcast));
  EXPECT_TRUE(broadcast->IsBroadcast());
  ASSERT_EQ(0, any->CreateServerTransceiver(server));
  ASSERT_EQ(0, factory.Create("udp -h 127.0.0.1 -p " + std::to_string(port))->CreateClientTransceiver(client));
  ASSERT_EQ(2, client->Send("hi", 2));
  EXPECT_EQ("hi", ReceiveText(*SmartPtr<UdpTransceiver>::DynamicCast(server)));
  // A held TCP transceiver is closed and replaced; a held UDP one reused.
  TcpPair tcp = ConnectedPair();
  SmartPtr<ITransceiver> holder(tcp.client);
  ASSERT_EQ(0, any->CreateClientTransceiver(holder));
  EXPECT_EQ(PASSPORT_UDP, holder->Type());
  EXPECT_FALSE(tcp.client->IsOpen());
  ITransceiver* const reused = holder.get();
  ASSERT_EQ(0, any->CreateClientTransceiver(holder));
  EXPECT_EQ(reused, holder.get());
}

}  // namespace
}  // namespace TAVIX
