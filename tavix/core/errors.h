// Error codes of the library, their fixed texts, the exception that carries
// them and the per-thread last-error slot they travel through.
#ifndef TAVIX_CORE_ERRORS_H_
#define TAVIX_CORE_ERRORS_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace TAVIX {

// The library's own codes. Codes from 0x20000409 on are this library's
// additions after the original table. Every value outside
// 0x20000000..Last is an application status (AppStatus below) or a
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
inline constexpr uint32_t HostNotFound = 0x20000409;
// The secure transport.
inline constexpr uint32_t TlsCertificateUnreadable = 0x2000040A;
inline constexpr uint32_t TlsKeyUnreadable = 0x2000040B;
inline constexpr uint32_t TlsKeyMismatch = 0x2000040C;
inline constexpr uint32_t TlsCaUnreadable = 0x2000040D;
inline constexpr uint32_t TlsNotConfigured = 0x2000040E;
inline constexpr uint32_t TlsHandshakeFailed = 0x2000040F;
inline constexpr uint32_t TlsHandshakeTimeout = 0x20000410;
inline constexpr uint32_t TlsStreamError = 0x20000411;
inline constexpr uint32_t UdpRefused = 0x20000412;

inline constexpr uint32_t First = 0x20000000;
inline constexpr uint32_t Last = 0x20000412;
}  // namespace Err

// Statuses that servants return for their own outcomes. The range meets
// neither the library's codes nor platform error numbers, so a client can
// tell the three apart; texts for these codes are the application's own
// (RegisterStatusText).
namespace AppStatus {
inline constexpr uint32_t First = 0x40000000;
inline constexpr uint32_t Last = 0x4FFFFFFF;
}  // namespace AppStatus

constexpr bool IsAppStatus(uint32_t code) { return code >= AppStatus::First && code <= AppStatus::Last; }
// The n-th application status: AppStatusCode(0) is AppStatus::First.
constexpr uint32_t AppStatusCode(uint32_t n) { return AppStatus::First + n; }

// Gives an application status its text for GetErrMsg, replacing an earlier
// one; the registry is process-wide and safe to use from any thread. False
// (nothing registered) for a code outside the application range.
bool RegisterStatusText(uint32_t code, std::u16string_view text);
bool RegisterStatusText(uint32_t code, std::string_view text);

struct ErrorEntry {
  uint32_t code;
  const char16_t* message;
};

// The rows in table order: the 37 of the original table, then this
// library's additions.
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

// The text of a library code, an application status or a platform code. A
// library code missing from the table and an application status without a
// registered text give "Unknown Error"; a platform code without a text
// gives "".
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
