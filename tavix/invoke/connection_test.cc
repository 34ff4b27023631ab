// The connection's protocol outside of calls and the server run loop: every
// way a loop ends, with its reason, its report to the factory and its log
// lines, driven over in-memory transceivers.
#include "tavix/invoke/connection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/wire_test_util.h"
#include "tavix/transport/connection_factory.h"
#include "tavix/transport/passport.h"

namespace TAVIX {
namespace {

using namespace test_wire;

// Records what the run loops report.
class RecordingFactory : public IConnectionFactory {
 public:
  struct Report {
    bool withConnection;
    TavixDisconnectReason reason;
  };

  explicit RecordingFactory(const SmartPtr<ObjectAdapter>& adapter) : m_adapter(adapter) {}

  bool Activate() override { return true; }
  void Destroy() override {}
  void WaitUntilDestroy() override {}
  bool ConnectionClosed(const SmartPtr<Connection>& connection, TavixDisconnectReason reason) override {
    std::lock_guard lock(m_mutex);
    m_reports.push_back({connection.get() != nullptr, reason});
    m_changed.notify_all();
    return true;
  }
  const SmartPtr<IPassport>& GetPassport() const override { return m_passport; }
  const SmartPtr<ObjectAdapter>& GetAdapter() const override { return m_adapter; }

  // The first report, waiting for it; reason -1 when none came.
  Report WaitReport(uint32_t timeoutMs = 5000) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return !m_reports.empty(); })) {
      return {false, static_cast<TavixDisconnectReason>(-1)};
    }
    return m_reports.front();
  }
  size_t Reports() {
    std::lock_guard lock(m_mutex);
    return m_reports.size();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Report> m_reports;
  SmartPtr<IPassport> m_passport;
  SmartPtr<ObjectAdapter> m_adapter;
};

// Operations that misbehave in the ways a servant can, and one that blocks
// until released.
class Misbehaving : public Object {
 public:
  std::atomic<bool> entered{false};
  std::atomic<bool> released{false};

  void Dispatch(ObjectHelper& request) override {
    const std::u16string& op = request.GetContext().operation;
    if (op == u"Std") throw std::runtime_error("disk on fire");
    if (op == u"Int") throw 42;
    if (op == u"Fault") throw Win32SE(nullptr);
    if (op == u"Library") TavixThrow(Err::BlobIoError);
    if (op != u"Block") return Object::Dispatch(request);
    entered.store(true);
    while (!released.load()) platform::SleepMs(1);
    request.FinishServant(0, 0);
  }
};

class ServerLoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_adapter = MakeShared<ObjectAdapter>();
    m_adapter->Activate();
    m_servant = MakeShared<Misbehaving>();
    m_adapter->AddServant(SmartPtr<Object>(m_servant), std::u16string(u"A"));
    m_factory = MakeShared<RecordingFactory>(m_adapter);
    m_transceiver = MakeShared<FakeTransceiver>();
    m_connection = MakeShared<Connection>(SmartPtr<IConnectionFactory>(m_factory));
    m_connection->SetTransceiver(SmartPtr<ITransceiver>(m_transceiver));
  }
  void TearDown() override { m_connection->WaitUntilDestroy(); }

  // Starts the loop on `input`, waits for its report.
  RecordingFactory::Report Run(const Bytes& input, bool endInput = false) {
    m_transceiver->Feed(input);
    if (endInput) m_transceiver->EndInput();
    EXPECT_TRUE(m_connection->Activate());
    return m_factory->WaitReport();
  }

  LogLines m_log;
  SmartPtr<ObjectAdapter> m_adapter;
  SmartPtr<Misbehaving> m_servant;
  SmartPtr<RecordingFactory> m_factory;
  SmartPtr<FakeTransceiver> m_transceiver;
  SmartPtr<Connection> m_connection;
};

const Bytes kValidation = {0x58, 0x47, 0x52, 0x51, 0x01, 0x02, 0x01, 0x01, 0x02, 0x00,
                           0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12, 0x9A};
const Bytes kClose = {0x58, 0x47, 0x52, 0x51, 0x01, 0x02, 0x01, 0x01, 0x03, 0x00,
                      0x14, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x43, 0x5F};

TEST_F(ServerLoopTest, CloseMessageEndsNormallyAfterServingRequests) {
  const Bytes input = Concat(Concat(Request(1, u"A", u"ObjectPing"), Request(0, u"A", u"ObjectPing")), kClose);
  const auto report = Run(input);
  EXPECT_EQ(DISCONNECT_NORMAL, report.reason);
  EXPECT_TRUE(report.withConnection);
  const Bytes output = m_transceiver->Output();
  ASSERT_EQ(20u + 36u, output.size()) << "validation and one reply; the one-way request is silent";
  EXPECT_EQ(kValidation, Bytes(output.begin(), output.begin() + 20));
  EXPECT_EQ(1, ParseReply(Bytes(output.begin() + 20, output.end())).requestId);
  EXPECT_TRUE(m_log.Has(u"Thread for client  stoped."));
  EXPECT_EQ(1u, m_log.Count(u"Thread for client  started."));
  for (const std::u16string& line : m_log.New()) EXPECT_NE(0u, line.rfind(u"ERROR", 0)) << NarrowString(line);
}

TEST(ServerLoop, EveryBadInputEndsWithItsReasonAndLine) {
  Bytes badCrc = kClose;
  badCrc[18] ^= 0xFF;
  Bytes truncated = Request(1, u"A", u"ObjectPing");
  truncated.resize(truncated.size() - 3);
  struct Case {
    Bytes input;
    bool endInput;
    TavixDisconnectReason reason;
    std::u16string line;
  };
  const Case cases[] = {
      {badCrc, false, DISCONNECT_RECV_ERROR, u"ERROR: Receive packect error(-2): 536870945,CRC check error."},
      {Header(MSG_REQUEST, -5), false, DISCONNECT_RECV_ERROR, u"ERROR: Receive packect error(-2): 536871940,Illegal size"},
      {Bytes(kClose.begin(), kClose.begin() + 8), true, DISCONNECT_NETWORK_CLOSED,
       u"ERROR: Network Closed when receive packect(0)."},
      {Header(MSG_REPLY, 20), false, DISCONNECT_PROTOCOL_ERROR,
       u"ERROR: Request not supported::536870927,Message type not support."},
      {Header(MSG_REQUEST, 20), false, DISCONNECT_LIBRARY_EXCEPTION,
       u"ERROR: Tavix Exception catched: 536871938,Unmarshal or marshal Out Of Bounds"},
      {truncated, true, DISCONNECT_LIBRARY_EXCEPTION,
       u"ERROR: Tavix Exception catched: 536870912,Connection has been closed."},
      {Request(4, u"A", u"Library"), false, DISCONNECT_LIBRARY_EXCEPTION,
       u"ERROR: Tavix Exception catched: 536871944,Error when read or write blob"},
      {Request(4, u"A", u"Std"), false, DISCONNECT_OTHER_ERROR, u"ERROR: STD exception cathed: disk on fire."},
      {Request(4, u"A", u"Int"), false, DISCONNECT_OTHER_ERROR, u"ERROR: Unknown exception cathed."},
      {Request(4, u"A", u"Fault"), false, DISCONNECT_SYSTEM_EXCEPTION, u"ERROR: Win32 SE catched."},
  };
  auto adapter = MakeShared<ObjectAdapter>();
  adapter->Activate();
  adapter->AddServant(MakeShared<Misbehaving>(), std::u16string(u"A"));
  for (const Case& c : cases) {
    LogLines log;
    auto factory = MakeShared<RecordingFactory>(adapter);
    auto transceiver = MakeShared<FakeTransceiver>();
    auto connection = MakeShared<Connection>(SmartPtr<IConnectionFactory>(factory));
    connection->SetTransceiver(SmartPtr<ITransceiver>(transceiver));
    transceiver->Feed(c.input);
    if (c.endInput) transceiver->EndInput();
    ASSERT_TRUE(connection->Activate());
    const auto report = factory->WaitReport();
    EXPECT_EQ(c.reason, report.reason) << NarrowString(c.line);
    EXPECT_TRUE(report.withConnection);
    EXPECT_TRUE(log.Has(c.line)) << NarrowString(c.line);
    EXPECT_TRUE(log.Has(u"Thread for client  stoped."));
    connection->WaitUntilDestroy();
    EXPECT_EQ(kValidation, transceiver->Output()) << "a broken request is never answered";
    EXPECT_EQ(0, adapter->GetInvocationCount());
  }
}

TEST_F(ServerLoopTest, FailedValidationIsAReceiveErrorWithoutStopLine) {
  m_transceiver->FailSends(EPIPE);
  const auto report = Run({});
  EXPECT_EQ(DISCONNECT_RECV_ERROR, report.reason);
  EXPECT_TRUE(report.withConnection);
  std::u16string text;
  GetErrMsg(EPIPE, text);
  EXPECT_TRUE(m_log.Has(u"ERROR: Send Validation message to client failed:" +
                        WiddenString(std::to_string(EPIPE)) + u"," + text + u"."));
  m_connection->WaitUntilDestroy();
  EXPECT_EQ(0u, m_log.Count(u"Thread for client  stoped."));
}

TEST_F(ServerLoopTest, DestroyWhileWaitingEndsNormallyWithoutTheConnection) {
  ASSERT_TRUE(m_connection->Activate());
  ASSERT_EQ(kValidation, m_transceiver->WaitOutput(20));
  m_connection->Destroy();
  const auto report = m_factory->WaitReport();
  EXPECT_EQ(DISCONNECT_NORMAL, report.reason);
  EXPECT_FALSE(report.withConnection);
  EXPECT_FALSE(m_transceiver->IsOpen());
  EXPECT_TRUE(m_log.Has(u"Thread for client  stoped."));
}

TEST_F(ServerLoopTest, DestroyDuringARequestLetsItsReplyOut) {
  m_transceiver->Feed(Concat(Request(8, u"A", u"Block"), Request(9, u"A", u"ObjectPing")));
  ASSERT_TRUE(m_connection->Activate());
  while (!m_servant->entered.load()) platform::SleepMs(1);
  m_connection->Destroy();
  EXPECT_TRUE(m_transceiver->IsOpen()) << "closed under a request in progress";
  m_servant->released.store(true);
  const auto report = m_factory->WaitReport();
  EXPECT_EQ(DISCONNECT_NORMAL, report.reason);
  EXPECT_FALSE(report.withConnection);
  const Bytes output = m_transceiver->Output();
  ASSERT_EQ(20u + 36u, output.size()) << "the blocked request is answered, the next one is not read";
  EXPECT_EQ(8, ParseReply(Bytes(output.begin() + 20, output.end())).requestId);
  m_connection->WaitUntilDestroy();
  EXPECT_FALSE(m_transceiver->IsOpen());
}

TEST_F(ServerLoopTest, ActivateTwiceStartsOneLoopAndWaitUntilDestroyLetsGo) {
  const int32_t factoryRefs = m_factory->RefCount();
  ASSERT_TRUE(m_connection->Activate());
  ASSERT_TRUE(m_connection->Activate());
  m_transceiver->Feed(kClose);
  EXPECT_EQ(DISCONNECT_NORMAL, m_factory->WaitReport().reason);
  m_connection->WaitUntilDestroy();
  EXPECT_EQ(kValidation, m_transceiver->Output()) << "one loop, one validation message";
  EXPECT_EQ(1u, m_factory->Reports());
  EXPECT_FALSE(m_transceiver->IsOpen());
  EXPECT_EQ(factoryRefs - 1, m_factory->RefCount()) << "the factory is released";
}

TEST(ServerLoop, TransceiverMissingOrWithoutSocketNotifiesNobody) {
  auto adapter = MakeShared<ObjectAdapter>();
  for (const bool withTransceiver : {false, true}) {
    LogLines log;
    auto factory = MakeShared<RecordingFactory>(adapter);
    auto connection = MakeShared<Connection>(SmartPtr<IConnectionFactory>(factory));
    SmartPtr<FakeTransceiver> transceiver;
    if (withTransceiver) {
      transceiver = MakeShared<FakeTransceiver>(1, INVALID_SOCKET);
      connection->SetTransceiver(SmartPtr<ITransceiver>(transceiver));
    }
    ASSERT_TRUE(connection->Activate());
    EXPECT_TRUE(log.Has(u"ERROR: Uninitialize connection."));
    connection->WaitUntilDestroy();
    EXPECT_EQ(0u, factory->Reports());
    if (transceiver) {
      EXPECT_TRUE(transceiver->Output().empty());
    }
  }
}

TEST(ConnectionProtocol, HandshakeAndCloseBytes) {
  auto tcp = MakeShared<FakeTransceiver>();
  Connection server;
  server.SetTransceiver(SmartPtr<ITransceiver>(tcp));
  EXPECT_EQ(20, server.SendValidation());
  server.SendCloseMsg();
  EXPECT_EQ(Concat(kValidation, kClose), tcp->Output());

  auto udp = MakeShared<FakeTransceiver>(2);
  Connection datagram;
  datagram.SetTransceiver(SmartPtr<ITransceiver>(udp));
  EXPECT_EQ(0, datagram.SendValidation());
  EXPECT_EQ(0, datagram.Validate(0));
  EXPECT_TRUE(udp->Output().empty());
}

TEST(ConnectionProtocol, ValidateChecksTheFirstHeader) {
  struct Case {
    Bytes input;
    bool end;
    int result;
    uint32_t error;
  };
  Bytes badCrc = kValidation;
  badCrc[15] = 1;
  Bytes badMagic = kValidation;
  badMagic[0] = 'Y';
  const Case cases[] = {
      {kValidation, false, 20, 0},
      {kClose, false, -2, Err::ValidateFail},
      {Bytes(kValidation.begin(), kValidation.begin() + 10), true, -2, Err::ConnectionClosed},
      {badCrc, false, -2, Err::CrcError},
      {badMagic, false, -2, Err::BadMagic},
      {{}, false, -2, Err::ReceiveTimeout},
  };
  for (const Case& c : cases) {
    auto transceiver = MakeShared<FakeTransceiver>();
    Connection client;
    client.SetTransceiver(SmartPtr<ITransceiver>(transceiver));
    transceiver->Feed(c.input);
    if (c.end) transceiver->EndInput();
    TavixSetLastError(0);
    EXPECT_EQ(c.result, client.Validate(50)) << Hex(c.input);
    if (c.error != 0) {
      EXPECT_EQ(c.error, TavixGetLastError()) << Hex(c.input);
    }
  }
  auto closed = MakeShared<FakeTransceiver>();
  closed->Close();
  Connection client;
  client.SetTransceiver(SmartPtr<ITransceiver>(closed));
  EXPECT_EQ(-3, client.Validate(0));
}

TEST(ConnectionProtocol, RecvPacketHeaderDecodesAndChecks) {
  auto transceiver = MakeShared<FakeTransceiver>();
  Connection connection;
  connection.SetTransceiver(SmartPtr<ITransceiver>(transceiver));
  MsgHeaderData header;
  transceiver->Feed(Header(7, 64));
  EXPECT_EQ(20, connection.RecvPacketHeader(header, 0));
  EXPECT_EQ(7, header.type) << "the type is the caller's business";
  EXPECT_EQ(64, header.size);

  transceiver->Feed(Header(MSG_REQUEST, 0x40000001));
  EXPECT_EQ(-2, connection.RecvPacketHeader(header, 0));
  EXPECT_EQ(Err::IllegalSize, TavixGetLastError());

  EXPECT_EQ(-2, connection.RecvPacketHeader(header, 20));
  EXPECT_EQ(Err::ReceiveTimeout, TavixGetLastError());

  transceiver->EndInput();
  EXPECT_EQ(0, connection.RecvPacketHeader(header, 0));
  transceiver->Close();
  EXPECT_EQ(-3, connection.RecvPacketHeader(header, 0));
}

TEST(ConnectionProtocol, StateChangesAndClosing) {
  auto transceiver = MakeShared<FakeTransceiver>();
  Connection client;
  client.SetTransceiver(SmartPtr<ITransceiver>(transceiver));
  EXPECT_EQ(Connection::StateClosed, client.GetState());
  client.SetState(Connection::StateClosed);
  EXPECT_TRUE(transceiver->IsOpen()) << "setting the current state does nothing";
  client.SetState(Connection::StateValidating);
  client.SetState(Connection::StateConnected);
  EXPECT_EQ(Connection::StateConnected, client.GetState());
  EXPECT_TRUE(transceiver->IsOpen());
  client.SetState(Connection::StateClosed);
  EXPECT_FALSE(transceiver->IsOpen());
}

}  // namespace
}  // namespace TAVIX
