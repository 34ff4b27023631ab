// The bodies of request and reply messages: the records at their start,
// the call modes, request ids, and the two records the invocation layer
// hands to application code (Context on the server, TavixPerfmon on the
// client).
#ifndef TAVIX_INVOKE_MESSAGES_H_
#define TAVIX_INVOKE_MESSAGES_H_

#include <atomic>
#include <cstdint>
#include <string>

#include "tavix/core/peer_identity.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/message_header.h"

namespace TAVIX {

enum OperationMode : int32_t {
  TwoWay = 0,  // the client waits for a reply; the id comes from the counter
  OneWay = 1,  // no reply; the request id is 0
};

// How a client call treats its request message. ProxyHelper exposes these
// as its own BlobType.
enum ProxyBlobType : int32_t {
  NoBlob = 0,         // header, head and arguments go to the connection
  RequestToBlob = 1,  // the whole request is written into a blob, not sent
  BlobAsRequest = 2,  // a caller-supplied request is sent unchanged; the
                      // reply's id is not compared
};

// Starts every request body.
struct RequestHead {
  int32_t requestId = 0;  // 0 for a one-way call
  std::u16string objectName;
  std::u16string operation;

  void write(BasicStream& s) const;
  void read(BasicStream& s);
  int32_t lengthOf() const;
  // The same encoding from the caller's own strings, with no copy of them.
  static void write(BasicStream& s, int32_t requestId, const std::u16string& objectName,
                    const std::u16string& operation);
  static int32_t lengthOf(const std::u16string& objectName, const std::u16string& operation);
  // Reads into the caller's strings, reusing their room.
  static void read(BasicStream& s, int32_t& requestId, std::u16string& objectName, std::u16string& operation);
};

// Starts every reply body; always 16 bytes.
struct ReplyHead {
  static constexpr int32_t kLength = 16;

  int32_t requestId = 0;
  uint32_t status = 0;      // 0, a library code or the servant's own status
  double serverTime = 0.0;  // milliseconds the servant's operation took

  void write(BasicStream& s) const;
  void read(BasicStream& s);
  static int32_t lengthOf() { return kLength; }
};

// What a servant operation learns about the request it serves.
struct Context {
  uint32_t connectionId = 0;  // the connection's socket handle
  std::u16string objectName;
  std::u16string operation;
  std::u16string reserved;  // always empty
  int32_t oneway = 0;       // 1 when the request's id is 0
  std::u16string peerAddress;  // "10.0.0.7" or "2001:db8::7" on TCP, empty on UDP
  uint16_t peerPort = 0;
  // The client's verified certificate on an ssl connection that has one;
  // null otherwise. Lives as long as the connection.
  const PeerIdentity* peerIdentity = nullptr;
};

// Timings and sizes of a proxy's last call.
struct TavixPerfmon {
  double networkTime = 0.0;  // client-measured milliseconds minus serverTime
  double serverTime = 0.0;
  int32_t requestSize = 0;  // header included
  int32_t replySize = 0;    // header included

  void Reset() { *this = TavixPerfmon{}; }
};

// Hands out request ids: 1, 2, 3, ... and after wrapping around 1 again,
// never 0, because the server reads an id of 0 as a one-way call.
class RequestIdCounter {
 public:
  explicit RequestIdCounter(uint32_t last = 0) noexcept : m_last(last) {}
  RequestIdCounter(const RequestIdCounter&) = delete;
  RequestIdCounter& operator=(const RequestIdCounter&) = delete;

  int32_t Next() noexcept;

 private:
  std::atomic<uint32_t> m_last;
};

// The process-wide counter shared by every proxy and thread.
RequestIdCounter& ProcessRequestIds();
// The id a call of this mode carries: 0 for OneWay (the counter is not
// touched), the next id for TwoWay.
int32_t RequestIdFor(OperationMode mode);

// Writes the 20-byte header of a message of the given type and total size
// as the first bytes of the stream.
void WriteMessageHeader(BasicStream& s, MessageType type, int32_t size);

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_MESSAGES_H_
