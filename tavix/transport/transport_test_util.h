// Loopback helpers shared by the transport tests: listeners on ports the
// system picks, and connected TCP pairs.
#ifndef TAVIX_TRANSPORT_TRANSPORT_TEST_UTIL_H_
#define TAVIX_TRANSPORT_TRANSPORT_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "tavix/core/inet_addr.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/tcp_transceiver.h"

namespace TAVIX::testing {

inline InetAddr Loopback(uint16_t port) {
  InetAddr address;
  address.Set("127.0.0.1", port);
  return address;
}

// An open acceptor on 127.0.0.1 and a port of the system's choice.
inline SmartPtr<TcpAcceptor> LoopbackAcceptor() {
  SmartPtr<TcpAcceptor> acceptor = MakeShared<TcpAcceptor>();
  acceptor->SetAddress(Loopback(0));
  EXPECT_EQ(0, acceptor->Open());
  return acceptor;
}

// A port that was free a moment ago, for the places that refuse port 0.
inline uint16_t FreePort() {
  TcpAcceptor probe;
  probe.SetAddress(Loopback(0));
  EXPECT_EQ(0, probe.Open());
  return probe.Address().Port();
}

struct TcpPair {
  SmartPtr<TcpTransceiver> client;
  SmartPtr<TcpTransceiver> server;
};

inline TcpPair ConnectedPair() {
  SmartPtr<TcpAcceptor> acceptor = LoopbackAcceptor();
  SmartPtr<ITransceiver> client;
  SmartPtr<ITransceiver> server;
  EXPECT_EQ(0, TcpTransceiver::Connect(acceptor->Address(), client));
  EXPECT_EQ(0, acceptor->Accept(server, 2000));
  return {SmartPtr<TcpTransceiver>::DynamicCast(client), SmartPtr<TcpTransceiver>::DynamicCast(server)};
}

inline int64_t MsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Polls `done` until it holds; false when it still does not after two seconds.
template <class Predicate>
bool Eventually(Predicate done) {
  const auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if (MsSince(start) > 2000) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

}  // namespace TAVIX::testing

#endif  // TAVIX_TRANSPORT_TRANSPORT_TEST_UTIL_H_
