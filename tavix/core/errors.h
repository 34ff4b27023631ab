// Error codes of the library, their fixed texts, the exception that carries
// them and the per-thread last-error slot they travel through.
#ifndef TAVIX_CORE_ERRORS_H_
#define TAVIX_CORE_ERRORS_H_

#include <cstdint>
#include <span>
#include <string>

namespace TAVIX {

// The library's own codes; every value outside 0x20000000..0x20000408 is a
// platform code (an errno value on this platform).
namespace Err {
inline constexpr uint32_t ConnectionClosed = 0x20000000;
inline constexpr uint32_t IllegalBufferSize = 0x20000001;
inline constexpr uint32_t UnsupportedFunction = 0x20000002;
inline constexpr uint32_t BadPassportString = 0x20000003;
inline constexpr uint32_t BadTransceiverType = 0x20000004;
inline constexpr uint32_t NeedAcceptor = 0x20000005;
inline constexpr uint32_t InvalidHandle = 0x20000006;
inline constexpr uint32_t BadMagic = 0x20000007;
inline constexpr uint32_t BadVersion = 0x20000008;
inline constexpr uint32_t ValidateFail = 0x20000009;
inline constexpr uint32_t BadProxyString = 0x2000000A;
inline constexpr uint32_t ObjectExists = 0x2000000B;
inline constexpr uint32_t ObjectNotFound = 0x2000000C;
inline constexpr uint32_t CannotCreateAcceptor = 0x2000000D;
inline constexpr uint32_t PassportConflict = 0x2000000E;
inline constexpr uint32_t MessageTypeNotSupported = 0x2000000F;
inline constexpr uint32_t OperationNotFound = 0x20000010;
inline constexpr uint32_t ReplyTypeError = 0x20000011;
inline constexpr uint32_t ReplyIdError = 0x20000012;
inline constexpr uint32_t InterfaceNotSupported = 0x20000013;
inline constexpr uint32_t AdapterInactive = 0x20000014;
inline constexpr uint32_t CommunicatorClosed = 0x20000015;
inline constexpr uint32_t AdapterNameExists = 0x20000016;
inline constexpr uint32_t UdpModeMismatch = 0x20000017;
inline constexpr uint32_t ReceiveTimeout = 0x20000018;
inline constexpr uint32_t BroadcastNeedsOneway = 0x20000019;
inline constexpr uint32_t ProxyClosed = 0x20000020;
inline constexpr uint32_t CrcError = 0x20000021;
inline constexpr uint32_t Unhandled = 0x20000400;
inline constexpr uint32_t NullPointer = 0x20000401;
inline constexpr uint32_t OutOfBounds = 0x20000402;
inline constexpr uint32_t PacketTooLarge = 0x20000403;
inline constexpr uint32_t IllegalSize = 0x20000404;
inline constexpr uint32_t UnsupportedEncoding = 0x20000405;
inline constexpr uint32_t BadUnionVariant = 0x20000406;
inline constexpr uint32_t UninitializedUnion = 0x20000407;
inline constexpr uint32_t BlobIoError = 0x20000408;

inline constexpr uint32_t First = 0x20000000;
inline constexpr uint32_t Last = 0x20000408;
}  // namespace Err

struct ErrorEntry {
  uint32_t code;
  const char16_t* message;
};

// The 37 rows, in table order.
std::span<const ErrorEntry> ErrorTable();

// The only exception type the library raises for its own errors.
class TavixException {
 public:
  explicit TavixException(uint32_t code) noexcept : m_code(code) {}
  uint32_t Code() const noexcept { return m_code; }

 private:
  uint32_t m_code;
};

[[noreturn]] void TavixThrow(uint32_t code);

// The thread's last error. Library codes and platform codes share the slot.
uint32_t TavixGetLastError();
void TavixSetLastError(uint32_t code);

// The text of a library or platform code. A library code missing from the
// table gives "Unknown Error"; a platform code without a text gives "".
std::u16string& GetErrMsg(uint32_t code, std::u16string& out);
std::string& GetErrMsg(uint32_t code, std::string& out);
// GetErrMsg as a value, for log lines.
std::u16string ErrorText(uint32_t code);

// Keeps the caller's last error across a scope whose platform calls fail
// without the caller's concern (log writes, connection set-up).
struct EnsureLastError {
  EnsureLastError();
  virtual ~EnsureLastError();
  EnsureLastError(const EnsureLastError&) = delete;
  EnsureLastError& operator=(const EnsureLastError&) = delete;

  uint32_t m_saved;
};

// What is known of a hardware fault: the signal, its code and the faulting
// address. Filled in by the fault handler of the exception report.
struct FaultRecord {
  int32_t signal = 0;
  int32_t code = 0;
  const void* address = nullptr;
};

// A fault inside servant code, caught as its own type by the serving loop.
class Win32SE {
 public:
  explicit Win32SE(const FaultRecord* record) noexcept : m_record(record) {}
  const FaultRecord* Record() const noexcept { return m_record; }

 private:
  const FaultRecord* m_record;
};

}  // namespace TAVIX

#endif  // TAVIX_CORE_ERRORS_H_
