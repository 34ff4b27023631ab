// What one transfer of bytes came to. The transceivers' public operations
// answer in numbers (a count, 0 when the peer closed, -1 a platform error,
// -2 a library code, -3 the transceiver is closed, the code of a failure
// left as the thread's last error); inside the library a result is read
// into a Transfer at once and told apart by its named state, and a
// Transfer is turned back into a number only where a public operation
// answers.
#ifndef TAVIX_TRANSPORT_TRANSFER_H_
#define TAVIX_TRANSPORT_TRANSFER_H_

#include <cstdint>

namespace TAVIX {

enum class TransferState : uint8_t {
  kDone,          // Count() bytes moved (for a wait: data is ready)
  kPeerClosed,    // the other end closed the stream
  kSystemError,   // a platform call failed; Code() is its error
  kLibraryError,  // the library refused; Code() is its library code
  kClosed,        // this end's transceiver is closed
  kUnknown,       // a number no transceiver should answer; Count() keeps it
};

class Transfer {
 public:
  static constexpr Transfer Done(int32_t count) { return Transfer(TransferState::kDone, count, 0); }
  static constexpr Transfer PeerClosed() { return Transfer(TransferState::kPeerClosed, 0, 0); }
  static constexpr Transfer Closed(uint32_t code = 0) { return Transfer(TransferState::kClosed, 0, code); }
  static constexpr Transfer SystemError(uint32_t code) { return Transfer(TransferState::kSystemError, 0, code); }
  static constexpr Transfer LibraryError(uint32_t code) { return Transfer(TransferState::kLibraryError, 0, code); }
  static constexpr Transfer Unknown(int32_t result) { return Transfer(TransferState::kUnknown, result, 0); }

  // Reads a public operation's number; a failure or a closed transceiver
  // takes the thread's last error as its code. Every message passes here
  // several times, so the success path stays inline.
  static Transfer Of(int32_t result) { return result > 0 ? Done(result) : OfFailure(result); }
  // The public number; a failure's code becomes the thread's last error.
  int32_t Result() const;

  // The public number without touching the last error, for log lines.
  int32_t Number() const;

  TransferState State() const { return m_state; }
  bool Ok() const { return m_state == TransferState::kDone; }
  // Failed for a reason other than a closing peer. On a datagram
  // transceiver "peer closed" is the empty datagram, which is no failure.
  bool Failed() const { return !Ok() && m_state != TransferState::kPeerClosed; }
  int32_t Count() const { return m_count; }
  // The code of a failed transfer as reported: its own, or 0x20000000
  // "Connection has been closed." when it has none (a closed end, a peer
  // that went, a failure that left no code), so that no failure ever
  // reads as success.
  uint32_t Code() const;

 private:
  static Transfer OfFailure(int32_t result);

  constexpr Transfer(TransferState state, int32_t count, uint32_t code)
      : m_state(state), m_count(count), m_code(code) {}

  TransferState m_state;
  int32_t m_count;
  uint32_t m_code;
};

}  // namespace TAVIX

#endif  // TAVIX_TRANSPORT_TRANSFER_H_
