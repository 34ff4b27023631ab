// The `tavix` command-line tool.
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "tavix/platform/signals.h"
#include "tools/client_commands.h"
#include "tools/serve.h"

// The tool's file version, shown in its exception reports.
extern "C" const char tavix_file_version[] = "0, 1, 0, 0";

namespace {

constexpr const char* kUsage =
    "usage: tavix serve [--endpoint \"<endpoint string>\"]... [--name <object-id>] [--allow-faults]\n"
    "  --endpoint      an endpoint to listen on (default \"tcp -h #any -p 5678\"), tcp, udp or ssl; may repeat;\n"
    "                  -p 0 lets the system pick the port, which the printed proxy string names\n"
    "  --name          the Echo object's id (default \"Echo\")\n"
    "  --allow-faults  the Echo object also answers \"Fault\" (see tavix call ... fault)\n"
    "  --max-connections N  live TCP clients at most (default 10000); more are closed at once\n"
    "  --body-timeout MS    silence allowed inside a request (default 60000; 0 = no limit)\n"
    "  --grace MS           how long shutdown waits for running requests (default 10000)\n"
    "  --tls-cert F --tls-key F  this server's certificate chain and key (PEM), for ssl endpoints\n"
    "  --tls-ca F           the CAs client certificates must come from\n"
    "  --tls-client-certs none|request|require  (default none)\n"
    "  --handshake-timeout MS  a TLS handshake ends by then (default 10000)\n"
    "  --kernel-tls         let the kernel encrypt records where it can\n"
    "  SIGHUP reads the TLS files again (\"TLS settings reloaded\").\n"
    "  Prints the proxy strings, serves until SIGINT or SIGTERM, then prints\n"
    "  \"requests: N\", the requests the Echo object received.\n";

int Usage(const char* complaint) {
  if (complaint != nullptr) std::fprintf(stderr, "tavix: %s\n", complaint);
  std::fputs(kUsage, stderr);
  std::fputs(TAVIX::tools::kClientUsage, stderr);
  return 2;
}

// Reads "--option value" or "--option=value" at argv[i]; false when argv[i]
// is not that option. A missing value leaves `missing` set.
bool OptionValue(int argc, char** argv, int& i, std::string_view option, std::string& value, bool& missing) {
  const std::string_view arg = argv[i];
  if (arg == option) {
    if (i + 1 >= argc) {
      missing = true;
      return true;
    }
    value = argv[++i];
    return true;
  }
  if (arg.size() > option.size() && arg.substr(0, option.size()) == option && arg[option.size()] == '=') {
    value = std::string(arg.substr(option.size() + 1));
    return true;
  }
  return false;
}

// A whole non-negative decimal number that fits `out`.
template <class T>
bool ParseCount(const std::string& text, T& out) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  return !std::is_signed_v<T> || out >= 0;
}

bool ParseClientCertificates(const std::string& text, TAVIX::ClientCertificates& out) {
  using TAVIX::ClientCertificates;
  static constexpr std::pair<std::string_view, ClientCertificates> kModes[] = {
      {"none", ClientCertificates::kNone}, {"request", ClientCertificates::kRequest},
      {"require", ClientCertificates::kRequire}};
  for (const auto& [name, mode] : kModes) {
    if (text == name) {
      out = mode;
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage(nullptr);
  if (std::strcmp(argv[1], "ping") == 0) return TAVIX::tools::Ping(argc - 2, argv + 2);
  if (std::strcmp(argv[1], "call") == 0) return TAVIX::tools::Call(argc - 2, argv + 2);
  if (std::strcmp(argv[1], "serve") != 0) return Usage("unknown command");

  TAVIX::tools::ServeOptions options;
  for (int i = 2; i < argc; ++i) {
    std::string value;
    bool missing = false;
    if (OptionValue(argc, argv, i, "--endpoint", value, missing)) {
      if (missing) return Usage("--endpoint needs a value");
      options.endpoints.push_back(value);
    } else if (OptionValue(argc, argv, i, "--name", value, missing)) {
      if (missing || value.empty()) return Usage("--name needs a value");
      options.name = value;
    } else if (std::strcmp(argv[i], "--allow-faults") == 0) {
      options.allowFaults = true;
    } else if (OptionValue(argc, argv, i, "--max-connections", value, missing)) {
      if (missing || !ParseCount(value, options.limits.maxConnections)) return Usage("--max-connections needs a count");
    } else if (OptionValue(argc, argv, i, "--body-timeout", value, missing)) {
      if (missing || !ParseCount(value, options.limits.bodyTimeoutMs)) return Usage("--body-timeout needs milliseconds");
    } else if (OptionValue(argc, argv, i, "--grace", value, missing)) {
      if (missing || !ParseCount(value, options.graceMs)) return Usage("--grace needs milliseconds");
    } else if (OptionValue(argc, argv, i, "--tls-cert", value, missing)) {
      if (missing) return Usage("--tls-cert needs a file");
      options.tls.certificateChainFile = value;
      options.useTls = true;
    } else if (OptionValue(argc, argv, i, "--tls-key", value, missing)) {
      if (missing) return Usage("--tls-key needs a file");
      options.tls.privateKeyFile = value;
      options.useTls = true;
    } else if (OptionValue(argc, argv, i, "--tls-ca", value, missing)) {
      if (missing) return Usage("--tls-ca needs a file");
      options.tls.trustedCaFile = value;
      options.useTls = true;
    } else if (OptionValue(argc, argv, i, "--tls-client-certs", value, missing)) {
      if (!ParseClientCertificates(value, options.tls.clientCertificates)) {
        return Usage("--tls-client-certs needs none, request or require");
      }
    } else if (OptionValue(argc, argv, i, "--handshake-timeout", value, missing)) {
      if (missing || !ParseCount(value, options.tls.handshakeTimeoutMs)) {
        return Usage("--handshake-timeout needs milliseconds");
      }
    } else if (std::strcmp(argv[i], "--kernel-tls") == 0) {
      options.tls.kernelTls = true;
    } else {
      return Usage("unknown option");
    }
  }

  // Before any thread starts, so that every thread inherits the mask and
  // the signals wait for the main thread.
  if (!TAVIX::platform::BlockTerminationSignals()) {
    std::fputs("tavix: cannot block the termination signals\n", stderr);
    return 1;
  }
  return TAVIX::tools::Serve(options);
}
