// Datagram transceivers and passports over loopback: limits, refused operations and the reply address of a server.
// A close that wakes a waiting thread is shown by the prompt shutdown of a datagram serving loop.
#include "tavix/transport/udp_transceiver.h"

#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/passport.h"

namespace TAVIX {
namespace {

using namespace test_wire;

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

TEST(UdpTransceiverTest, LimitsAndRefusedOperations) {
  UdpPair pair = OpenPair();
  UdpTransceiver& client = *pair.client;
  EXPECT_EQ(2, client.Type());
  EXPECT_EQ(65507, client.MaxMessageSize());
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
  EXPECT_EQ(u"untouched", address);
  EXPECT_EQ(7, port);

  // The largest datagram goes through whole; nothing is sent for 0 bytes.
  EXPECT_EQ(65507, client.Send(big.data(), 65507));
  EXPECT_EQ(std::string(65507, 'x'), ReceiveText(*pair.server));
  EXPECT_EQ((Outcome{-2, Err::ReceiveTimeout}), OutcomeOf([&] { return pair.server->WaitForRecv(50); }));

  client.Close();
  EXPECT_FALSE(client.IsOpen());
  for (const int32_t result : {client.Send(big.data(), 1), client.Recv(big.data(), 1), client.WaitForRecv(10)}) {
    EXPECT_EQ(-3, result);
  }
  EXPECT_EQ(0, client.Open()) << "a closed transceiver opens again with its mode and address";
  EXPECT_EQ(UdpTransceiver::UDP_MODE_CLIENT, client.GetMode());
}

TEST(UdpTransceiverTest, ServerAnswersTheLastSender) {
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
  EXPECT_EQ(2, holder->Type());
  EXPECT_FALSE(tcp.client->IsOpen());
  ITransceiver* const reused = holder.get();
  ASSERT_EQ(0, any->CreateClientTransceiver(holder));
  EXPECT_EQ(reused, holder.get());
}

}  // namespace
}  // namespace TAVIX
