// What the connection sends outside of calls, and the one loop ending a
// TCP client cannot cause: the validation message failing to go out.
#include "tavix/invoke/connection.h"

#include <gtest/gtest.h>

#include <string>

#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/tcp_connection_factory.h"

namespace TAVIX {
namespace {

using namespace test_wire;

TEST(Connection, ValidationAndCloseBytes) {
  auto tcp = MakeShared<FakeTransceiver>();
  Connection server;
  server.SetTransceiver(SmartPtr<ITransceiver>(tcp));
  EXPECT_EQ(20, server.SendValidation());
  server.SendCloseMsg();
  EXPECT_EQ(
      "58 47 52 51 01 02 01 01 02 00 14 00 00 00 00 00 00 00 12 9A "
      "58 47 52 51 01 02 01 01 03 00 14 00 00 00 00 00 00 00 43 5F",
      Hex(tcp->Output()));

  // Datagrams are not validated.
  auto udp = MakeShared<FakeTransceiver>(2);
  Connection datagram;
  datagram.SetTransceiver(SmartPtr<ITransceiver>(udp));
  EXPECT_EQ(0, datagram.SendValidation());
  EXPECT_EQ(0, datagram.Validate(0));
  EXPECT_TRUE(udp->Output().empty());
}

TEST(Connection, FailedValidationIsAReceiveErrorWithoutStopLine) {
  LogLines log;
  auto adapter = MakeShared<ObjectAdapter>();
  int32_t reason = -1;
  adapter->RegisterDisconnectNotification(
      [](void* context, TavixDisconnectReason why) { *static_cast<int32_t*>(context) = why; }, &reason);
  auto transceiver = MakeShared<FakeTransceiver>();
  transceiver->sendError = EPIPE;
  auto connection = MakeShared<Connection>(MakeShared<TcpConnectionFactory>(nullptr, adapter));
  connection->SetTransceiver(SmartPtr<ITransceiver>(transceiver));
  ASSERT_TRUE(connection->Activate());
  std::u16string text;
  GetErrMsg(EPIPE, text);
  EXPECT_TRUE(log.Has(FormatString(u"ERROR: Send Validation message to client failed:%d,%s.", EPIPE, text)));
  connection->WaitUntilDestroy();
  EXPECT_EQ(DISCONNECT_RECV_ERROR, reason);
  EXPECT_TRUE(log.Has(u"Thread for client  started.", 0));
  EXPECT_FALSE(log.Has(u"Thread for client  stoped.", 0));
}

}  // namespace
}  // namespace TAVIX
