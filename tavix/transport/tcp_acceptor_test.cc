#include "tavix/transport/tcp_acceptor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "tavix/core/errors.h"
#include "tavix/invoke/wire_test_util.h"

namespace TAVIX {
namespace {

using namespace test_wire;

TEST(TcpAcceptorTest, AcceptTimesOutOrFailsWithHolderUnchanged) {
  SmartPtr<TcpAcceptor> acceptor = LoopbackAcceptor();
  EXPECT_NE(0, acceptor->Address().Port());
  SmartPtr<ITransceiver> holder;
  const uint64_t start = platform::TickCountMs();
  EXPECT_EQ(0, acceptor->Accept(holder, 100));
  EXPECT_GE(MsSince(start), 90);
  EXPECT_FALSE(holder);
  acceptor->Close();
  EXPECT_EQ(-1, acceptor->Accept(holder, 10));
  EXPECT_EQ(static_cast<uint32_t>(ENOTSOCK), TavixGetLastError());
  EXPECT_FALSE(holder);
}

TEST(TcpAcceptorTest, AcceptReusesHeldTransceiver) {
  SmartPtr<TcpAcceptor> acceptor = LoopbackAcceptor();
  SmartPtr<ITransceiver> first;
  SmartPtr<ITransceiver> second;
  ASSERT_EQ(0, TcpTransceiver::Connect(acceptor->Address(), first));
  ASSERT_EQ(0, TcpTransceiver::Connect(acceptor->Address(), second));
  SmartPtr<ITransceiver> holder;
  ASSERT_EQ(0, acceptor->Accept(holder, 2000));
  ITransceiver* object = holder.get();
  ASSERT_EQ(0, acceptor->Accept(holder, 2000));
  EXPECT_EQ(object, holder.get());
  // The reuse hung up on the first client, who sees the end of its stream.
  char byte = 0;
  EXPECT_EQ(0, first->Recv(&byte, 1));
  ASSERT_EQ(1, second->Send("z", 1));
  EXPECT_EQ(1, holder->Recvn(&byte, 1));
  EXPECT_EQ('z', byte);
}

}  // namespace
}  // namespace TAVIX
