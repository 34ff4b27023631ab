// What the TCP and UDP transceivers share: one socket under a lock, pins
// that keep the descriptor open while a call runs on it, a close that never
// takes a descriptor from under such a call, and the wait for data.
#ifndef TAVIX_TRANSPORT_SOCKET_TRANSCEIVER_H_
#define TAVIX_TRANSPORT_SOCKET_TRANSCEIVER_H_

#include <cstdint>
#include <vector>

#include "tavix/core/locks.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {

class SocketTransceiver : public ITransceiver, public SockWrapper {
 public:
  ~SocketTransceiver() override;

  int32_t GetHandle() const override;
  bool IsOpen() const override;
  bool IsWaiting() const override;
  // Close from another thread wakes the wait, which then returns -3.
  int32_t WaitForRecv(uint32_t timeoutMs) override;
  void ShutdownReceive() override;

 protected:
  // Holds the descriptor open for one socket call; empty when the
  // transceiver was closed.
  class Pin {
   public:
    explicit Pin(SocketTransceiver& owner);
    ~Pin();
    Pin(const Pin&) = delete;
    Pin& operator=(const Pin&) = delete;

    explicit operator bool() const { return m_socket.IsValid(); }
    const platform::SocketView& Socket() const { return m_socket; }

   private:
    SocketTransceiver& m_owner;
    platform::SocketView m_socket;
  };

  SocketTransceiver() = default;

  // Shuts the socket down, which wakes every thread blocked on it, then
  // closes it, or leaves that to the last pinned call still inside it, so a
  // descriptor number is never reused under a woken thread. The caller's
  // last error survives.
  void CloseSocketLocked();

  // Guards the socket (SockWrapper::m_socket), the pins and the retired
  // sockets, and the fields of the transceiver classes marked so.
  mutable SpinLock m_lock;
  bool m_waiting = false;  // guarded by m_lock

 private:
  // Both run under m_lock. A pinned descriptor stays open, even through a
  // close, until its last pin goes.
  platform::SocketView PinLocked();
  void UnpinLocked();

  int32_t m_pins = 0;                        // guarded by m_lock
  std::vector<platform::Socket> m_retired;  // guarded by m_lock
};

// True when the last error says a non-blocking call found nothing to do.
bool LastErrorIsWouldBlock();

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_SOCKET_TRANSCEIVER_H_
