#include "tavix/core/errors.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

#include "tavix/core/text.h"
#include "tavix/platform/last_error.h"

namespace TAVIX {
namespace {

constexpr std::array<ErrorEntry, 47> kErrorTable{{
    {0x20000000, u"Connection has been closed."},
    {0x20000001, u"Illegal buffer size."},
    {0x20000002, u"Unsupported funtion."},
    {0x20000003, u"Error passport string."},
    {0x20000004, u"Error transceiver type."},
    {0x20000005, u"Need Acceptor to create transceiver."},
    {0x20000006, u"Invalid handle."},
    {0x20000007, u"Bad magic."},
    {0x20000008, u"Unacceptable protocol version"},
    {0x20000009, u"Validate fail"},
    {0x2000000A, u"Error Prxoy String."},
    {0x2000000B, u"Object name already exist."},
    {0x2000000C, u"Object not find."},
    {0x2000000D, u"Can not create acceptor at specified address."},
    {0x2000000E, u"Passport resource conflict."},
    {0x2000000F, u"Message type not support."},
    {0x20000010, u"Operation not find"},
    {0x20000011, u"Reply message type error."},
    {0x20000012, u"Reply request ID error."},
    {0x20000013, u"Object do not support interface required."},
    {0x20000014, u"Object Adapter is inactive"},
    {0x20000015, u"Commucation has been closed"},
    {0x20000016, u"Object Adapter Name already exist"},
    {0x20000017, u"Unmatched upd transceiver mode"},
    {0x20000018, u"Receive Data Timeout."},
    {0x20000019, u"Broadcast transfers can be only used with oneway mode."},
    {0x20000020, u"PROXY has been closed for network error."},
    {0x20000021, u"CRC check error."},
    {0x20000400, u"Unhandle error"},
    {0x20000401, u"Null pointer referenced"},
    {0x20000402, u"Unmarshal or marshal Out Of Bounds"},
    {0x20000403, u"Packet size reach memory limitation"},
    {0x20000404, u"Illegal size"},
    {0x20000405, u"Unsupported encapsulation encoding"},
    {0x20000406, u"Error variant type in discriminated union"},
    {0x20000407, u"Uninitialized union data type"},
    {0x20000408, u"Error when read or write blob"},
    {0x20000409, u"Host not found."},
    {0x2000040A, u"TLS certificate file cannot be read."},
    {0x2000040B, u"TLS private key file cannot be read."},
    {0x2000040C, u"TLS private key does not match the certificate."},
    {0x2000040D, u"TLS trusted CA file cannot be read."},
    {0x2000040E, u"TLS is not configured for this endpoint."},
    {0x2000040F, u"TLS handshake failed."},
    {0x20000410, u"TLS handshake timed out."},
    {0x20000411, u"TLS record error."},
    {0x20000412, u"UDP endpoints are refused by this adapter."},
}};

const char16_t* LibraryMessage(uint32_t code) {
  const auto row = std::find_if(kErrorTable.begin(), kErrorTable.end(),
                                [code](const ErrorEntry& e) { return e.code == code; });
  if (row == kErrorTable.end() || row->message == nullptr) return u"Unknown Error";
  return row->message;
}

bool IsLibraryCode(uint32_t code) { return code >= Err::First && code <= Err::Last; }

// Platform texts lose one final line feed, as the system's message texts do.
std::string PlatformText(uint32_t code) {
  std::string text = platform::ErrnoText(code);
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// The application's texts, by code. Named process-wide state: written by
// RegisterStatusText, read by GetErrMsg.
class StatusTexts {
 public:
  static StatusTexts& Instance() {
    static StatusTexts texts;
    return texts;
  }

  void Set(uint32_t code, std::u16string text) {
    std::unique_lock guard(m_lock);
    m_texts[code] = std::move(text);
  }

  std::u16string Get(uint32_t code) const {
    std::shared_lock guard(m_lock);
    const auto it = m_texts.find(code);
    return it == m_texts.end() ? std::u16string(u"Unknown Error") : it->second;
  }

 private:
  mutable std::shared_mutex m_lock;
  std::unordered_map<uint32_t, std::u16string> m_texts;  // guarded by m_lock
};

std::u16string AnyText(uint32_t code) {
  if (IsLibraryCode(code)) return LibraryMessage(code);
  if (IsAppStatus(code)) return StatusTexts::Instance().Get(code);
  return WiddenString(PlatformText(code));
}

}  // namespace

bool RegisterStatusText(uint32_t code, std::u16string_view text) {
  if (!IsAppStatus(code)) return false;
  StatusTexts::Instance().Set(code, std::u16string(text));
  return true;
}

bool RegisterStatusText(uint32_t code, std::string_view text) {
  return RegisterStatusText(code, WiddenString(text));
}

std::span<const ErrorEntry> ErrorTable() { return kErrorTable; }

void TavixThrow(uint32_t code) {
  throw TavixException(code);
}

uint32_t TavixGetLastError() { return platform::LastError(); }

void TavixSetLastError(uint32_t code) { platform::SetLastError(code); }

std::u16string& GetErrMsg(uint32_t code, std::u16string& out) {
  out = AnyText(code);
  return out;
}

std::string& GetErrMsg(uint32_t code, std::string& out) {
  out = IsLibraryCode(code) || IsAppStatus(code) ? NarrowString(AnyText(code)) : PlatformText(code);
  return out;
}

EnsureLastError::EnsureLastError() : m_saved(platform::LastError()) {}

EnsureLastError::~EnsureLastError() { platform::SetLastError(m_saved); }

std::u16string ErrorText(uint32_t code) {
  std::u16string text;
  return GetErrMsg(code, text);
}

}  // namespace TAVIX
