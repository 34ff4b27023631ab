// What the connection sends outside of calls, and the one loop ending a
// TCP client cannot cause: the validation message failing to go out.
#include "tavix/invoke/connection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "tavix/adapter/tcp_connection_factory.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// Keeps what is sent, or fails every send with `sendError`; never has
// anything to read.
class SendOnlyTransceiver : public ITransceiver {
 public:
  explicit SendOnlyTransceiver(int32_t type = 1) : m_type(type) {}
  Bytes sent;
  uint32_t sendError = 0;  // every send fails with it when set

  int32_t GetHandle() const override { return 0x7FFF0000; }  // never a descriptor of this process
  int32_t Open() override { return 0; }
  void Close() override { m_open = false; }
  bool IsOpen() const override { return m_open; }
  int32_t WaitForRecv(uint32_t) override { return -3; }
  bool IsWaiting() const override { return false; }
  int32_t Recv(void*, int32_t) override { return 0; }
  int32_t Recvn(void*, int32_t) override { return 0; }
  int32_t Send(const void* buffer, int32_t length) override {
    if (sendError != 0) {
      TavixSetLastError(sendError);
      return -1;
    }
    sent.insert(sent.end(), static_cast<const uint8_t*>(buffer), static_cast<const uint8_t*>(buffer) + length);
    return length;
  }
  bool GetPeer(std::u16string&, uint16_t&) const override { return false; }
  int32_t Type() const override { return m_type; }
  int32_t MaxMessageSize() const override { return 0; }
  bool IsBroadcast() const override { return false; }

 private:
  std::atomic<bool> m_open{true};  // closed by the test's thread
  const int32_t m_type;
};

// The validation and close bytes over TCP are checked by the server and
// proxy tests; datagrams are not validated.
TEST(Connection, DatagramsAreNotValidated) {
  auto udp = MakeShared<SendOnlyTransceiver>(2);
  Connection datagram;
  datagram.SetTransceiver(SmartPtr<ITransceiver>(udp));
  EXPECT_EQ(0, datagram.SendValidation());
  EXPECT_EQ(0, datagram.Validate(0));
  EXPECT_TRUE(udp->sent.empty());
}

TEST(Connection, FailedValidationIsAReceiveErrorWithoutStopLine) {
  LogLines log;
  auto adapter = MakeShared<ObjectAdapter>();
  int32_t reason = -1;
  adapter->RegisterDisconnectNotification(
      [](void* context, TavixDisconnectReason why) { *static_cast<int32_t*>(context) = why; }, &reason);
  auto transceiver = MakeShared<SendOnlyTransceiver>();
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
