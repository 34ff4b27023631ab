#include "tools/client_commands.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/tls_settings.h"
#include "tools/echo_proxy.h"

namespace TAVIX::tools {

const char* const kClientUsage =
    "       tavix ping <proxy-string> [--count N] [--oneway] [--timeout MS]\n"
    "       tavix call <proxy-string> echo <text> | isa <type-id> | fail <status> | fault <kind>\n"
    "                  | peer-identity [--timeout MS] [--status-text CODE=TEXT]... [--repeat N]\n"
    "       both take --tls-ca F [--tls-cert F --tls-key F] for ssl proxies: the CAs the server's\n"
    "                  certificate must come from, and this client's certificate\n"
    "  <proxy-string>  \"object-id:endpoint\" as serve prints it, e.g. \"Echo:tcp -h host -p 5678 -t 0\"\n"
    "  --count         number of pings (default 1)\n"
    "  --oneway        send one-way pings (the time is the sending time)\n"
    "  --timeout       reply time-out in milliseconds, replacing the proxy string's\n"
    "  fail <status>   the Echo object answers with that status (decimal or 0x hex)\n"
    "  --repeat N      echo only: N calls on one proxy with \"<text> 1\" ... \"<text> N\",\n"
    "                  one line each (a failed call's line names its code); exit 1 if any failed\n"
    "  --status-text   a text for an application status (0x40000000..0x4FFFFFFF),\n"
    "                  printed when a call ends with it; may repeat\n"
    "  fault <kind>    makes a server started with --allow-faults fault: 1 null write,\n"
    "                  2 integer division by zero, 3 stack overflow, 4 abort\n";

namespace {

int Usage(const char* command, const char* complaint) {
  std::fprintf(stderr, "tavix %s: %s\n", command, complaint);
  std::fputs(kClientUsage, stderr);
  return 2;
}

int Failure(const char* command, const std::string& what, uint32_t code) {
  std::string text;
  GetErrMsg(code, text);
  std::fprintf(stderr, "tavix %s: %s: 0x%08X %s\n", command, what.c_str(), code, text.c_str());
  return 1;
}

// A whole decimal number in [minimum, 2^31); false otherwise.
bool ParseCount(std::string_view text, int32_t minimum, int32_t& value) {
  if (text.empty() || text.size() > 10) return false;
  int64_t n = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    n = n * 10 + (c - '0');
  }
  if (n < minimum || n > INT32_MAX) return false;
  value = static_cast<int32_t>(n);
  return true;
}

// A status: decimal, or hexadecimal after "0x"; false unless it is whole
// and fits 32 bits.
bool ParseStatus(std::string_view text, uint32_t& value) {
  const bool hex = text.size() > 2 && (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X");
  if (hex) text.remove_prefix(2);
  if (text.empty() || text.size() > (hex ? 8u : 10u)) return false;
  uint64_t n = 0;
  for (const char c : text) {
    const int digit = c >= '0' && c <= '9' ? c - '0' : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                                                    : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (digit < 0) return false;
    n = n * (hex ? 16 : 10) + static_cast<uint64_t>(digit);
  }
  if (n > UINT32_MAX) return false;
  value = static_cast<uint32_t>(n);
  return true;
}

// "CODE=TEXT" registered as an application status's text.
bool RegisterStatusOption(std::string_view option) {
  const size_t equals = option.find('=');
  uint32_t code = 0;
  return equals != std::string_view::npos && ParseStatus(option.substr(0, equals), code) &&
         RegisterStatusText(code, option.substr(equals + 1));
}

// The proxy string and the words after it, with the shared options taken
// out.
struct ClientArgs {
  std::string proxyString;
  std::vector<std::string> words;
  int32_t count = 1;  // pings, or echo calls with --repeat
  bool repeat = false;
  bool oneway = false;
  int32_t timeoutMs = -1;  // -1: as the proxy string says
  TlsSettings tls;         // for ssl proxies
  bool useTls = false;
};

// Null, with the message already printed, when the arguments are unusable.
const char* ParseArgs(int argc, char** argv, bool pingOptions, ClientArgs& args) {
  for (int i = 0; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--status-text") {
      if (i + 1 >= argc || !RegisterStatusOption(argv[++i])) {
        return "--status-text needs CODE=TEXT with a code from 0x40000000 to 0x4FFFFFFF";
      }
    } else if (arg == "--tls-ca" || arg == "--tls-cert" || arg == "--tls-key") {
      if (i + 1 >= argc) return "--tls-ca, --tls-cert and --tls-key need a file";
      (arg == "--tls-ca" ? args.tls.trustedCaFile
                         : arg == "--tls-cert" ? args.tls.certificateChainFile : args.tls.privateKeyFile) = argv[++i];
      args.useTls = true;
    } else if (arg == "--timeout") {
      if (i + 1 >= argc || !ParseCount(argv[++i], 0, args.timeoutMs)) return "--timeout needs milliseconds";
    } else if (!pingOptions && arg == "--repeat") {
      if (i + 1 >= argc || !ParseCount(argv[++i], 1, args.count)) return "--repeat needs a number above 0";
      args.repeat = true;
    } else if (pingOptions && arg == "--count") {
      if (i + 1 >= argc || !ParseCount(argv[++i], 1, args.count)) return "--count needs a number above 0";
    } else if (pingOptions && arg == "--oneway") {
      args.oneway = true;
    } else if (arg.size() > 2 && arg.substr(0, 2) == "--") {
      return "unknown option";
    } else if (args.proxyString.empty()) {
      args.proxyString = arg;
    } else {
      args.words.emplace_back(arg);
    }
  }
  return args.proxyString.empty() ? "a proxy string is needed" : nullptr;
}

// Runs `body` with a proxy for the proxy string; the communicator is shut
// down afterwards, which sends the close message.
template <class Body>
int WithProxy(const char* command, const ClientArgs& args, Body body) {
  SmartPtr<Communicator> communicator = Initialize(u"tavix");
  int status = 0;
  if (args.useTls) {
    if (const uint32_t r = communicator->SetTlsSettings(args.tls); r != 0) {
      communicator->Destroy();
      return Failure(command, "cannot use the TLS settings", r);
    }
  }
  {
    SmartPtr<EchoPrx> proxy = CreateProxy<EchoPrx>(communicator, args.proxyString);
    if (!proxy) {
      status = Failure(command, "bad proxy string \"" + args.proxyString + "\"", TavixGetLastError());
    } else {
      if (args.timeoutMs >= 0) proxy->Timeout(static_cast<uint32_t>(args.timeoutMs));
      status = body(*proxy);
    }
  }
  communicator->Destroy();
  return status;
}

// `--repeat N`: N echo calls on the one proxy, each reply or failure on
// its own line in request order. The proxy reconnects after a failure, so
// that failing over to another endpoint can be watched.
int RepeatEcho(EchoPrx& proxy, const ClientArgs& args) {
  proxy.AutoReconnect(true);
  int status = 0;
  for (int32_t seq = 1; seq <= args.count; ++seq) {
    const std::u16string text = WiddenString(args.words[1] + " " + std::to_string(seq));
    std::u16string answer;
    if (const uint32_t r = proxy.Echo(text, answer); r != 0) {
      std::string message;
      std::printf("call %d failed: 0x%08X %s\n", seq, r, GetErrMsg(r, message).c_str());
      status = 1;
    } else {
      std::printf("%s\n", NarrowString(answer).c_str());
    }
    std::fflush(stdout);
  }
  return status;
}

}  // namespace

int Ping(int argc, char** argv) {
  ClientArgs args;
  if (const char* complaint = ParseArgs(argc, argv, true, args)) return Usage("ping", complaint);
  if (!args.words.empty()) return Usage("ping", "unexpected argument");

  return WithProxy("ping", args, [&args](EchoPrx& proxy) {
    for (int32_t seq = 1; seq <= args.count; ++seq) {
      const auto start = std::chrono::steady_clock::now();
      const uint32_t r = args.oneway ? proxy.OneWayPing() : proxy.ObjectPing();
      const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
      if (r != 0) return Failure("ping", "ping " + std::to_string(seq) + " failed", r);
      const TavixPerfmon& perfmon = proxy.GetLastPerfmon();
      std::printf("ping %d: %.3f ms  request %d bytes  reply %d bytes  server %.3f ms\n", seq, elapsed.count(),
                  perfmon.requestSize, perfmon.replySize, perfmon.serverTime);
      std::fflush(stdout);
    }
    return 0;
  });
}

int Call(int argc, char** argv) {
  ClientArgs args;
  if (const char* complaint = ParseArgs(argc, argv, false, args)) return Usage("call", complaint);
  const std::string_view verb = args.words.empty() ? std::string_view() : std::string_view(args.words[0]);
  const bool fault = verb == "fault", fail = verb == "fail";
  int32_t kind = 0;
  uint32_t status = 0;
  const bool identity = verb == "peer-identity" && args.words.size() == 1;
  if (!identity && (args.words.size() != 2 || (verb != "echo" && verb != "isa" && !fault && !fail))) {
    return Usage("call", "expected: echo <text>, isa <type-id>, fail <status>, fault <kind> or peer-identity");
  }
  if (fault && !ParseCount(args.words[1], 0, kind)) return Usage("call", "fault needs a kind from 1 to 4");
  if (fail && !ParseStatus(args.words[1], status)) return Usage("call", "fail needs a 32-bit status");
  if (args.repeat && verb != "echo") return Usage("call", "--repeat goes with echo only");
  const std::u16string argument = identity ? std::u16string() : WiddenString(args.words[1]);
  if (args.repeat) return WithProxy("call", args, [&](EchoPrx& proxy) { return RepeatEcho(proxy, args); });
  if (identity) {
    return WithProxy("call", args, [&](EchoPrx& proxy) {
      std::u16string subject;
      if (const uint32_t r = proxy.PeerIdentity(subject); r != 0) return Failure("call", "PeerIdentity failed", r);
      std::printf("%s\n", NarrowString(subject).c_str());
      return 0;
    });
  }

  return WithProxy("call", args, [&](EchoPrx& proxy) {
    if (fault || fail) {
      const uint32_t r = fault ? proxy.Fault(kind) : proxy.Fail(static_cast<int32_t>(status));
      if (r != 0) return Failure("call", fault ? "Fault failed" : "Fail failed", r);
      std::printf("0x00000000\n");
    } else if (args.words[0] == "echo") {
      std::u16string answer;
      if (const uint32_t r = proxy.Echo(argument, answer); r != 0) return Failure("call", "Echo failed", r);
      std::printf("%s\n", NarrowString(answer).c_str());
    } else {
      bool answer = false;
      if (const uint32_t r = proxy.ObjectIsA(argument, answer); r != 0) {
        return Failure("call", "ObjectIsA failed", r);
      }
      std::printf("%s\n", answer ? "true" : "false");
    }
    return 0;
  });
}

}  // namespace TAVIX::tools
