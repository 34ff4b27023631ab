#include "tools/serve.h"

#include <cstdint>
#include <cstdio>
#include <string>

#include "tavix/adapter/object_adapter.h"
#include "tavix/core/errors.h"
#include "tavix/core/trace_log.h"
#include "tavix/platform/signals.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/passport.h"
#include "tools/echo_servant.h"

namespace TAVIX::tools {
namespace {

constexpr const char* kDefaultEndpoint = "tcp -h #any -p 5678";

// Reports on standard error and in the trace log beside the executable.
void ReportFailure(const std::string& what, uint32_t code) {
  std::string text;
  GetErrMsg(code, text);
  std::fprintf(stderr, "tavix serve: %s: 0x%08X %s\n", what.c_str(), code, text.c_str());
  TraceLog::Write(u"ERROR: tavix serve: %hs: 0x%08X %hs\n", what, code, text);
}

}  // namespace

int Serve(const ServeOptions& options) {
  SmartPtr<Communicator> communicator = Initialize(u"tavix");
  communicator->SetShutdownGracePeriod(options.graceMs);
  SmartPtr<ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("Serve"));
  const SmartPtr<EchoServant> echo = MakeShared<EchoServant>(options.allowFaults);
  if (!adapter || !adapter->AddServant(echo, options.name)) {
    ReportFailure("cannot register \"" + options.name + "\"", TavixGetLastError());
    communicator->Destroy();
    return 1;
  }
  adapter->SetLimits(options.limits);
  if (options.useTls) {
    if (const uint32_t r = adapter->SetTlsSettings(options.tls); r != 0) {
      ReportFailure("cannot use the TLS settings", r);
      communicator->Destroy();
      return 1;
    }
  }
  // Active before the endpoints come, so that each one is opened at once
  // and a port that cannot be listened on fails here.
  adapter->Activate();
  const std::vector<std::string> endpoints =
      options.endpoints.empty() ? std::vector<std::string>{kDefaultEndpoint} : options.endpoints;
  for (const std::string& endpoint : endpoints) {
    if (!adapter->AddPassport(endpoint)) {
      ReportFailure("cannot serve \"" + endpoint + "\"", TavixGetLastError());
      communicator->Destroy();
      return 1;
    }
  }

  std::vector<std::string> proxies;
  adapter->GetProxyString(options.name, proxies);
  for (const std::string& proxy : proxies) std::printf("%s\n", proxy.c_str());
  // Several endpoints: last, one proxy string naming them all.
  std::string all;
  if (proxies.size() > 1 && adapter->GetProxyStringOfAll(options.name, all)) std::printf("%s\n", all.c_str());
  std::fflush(stdout);

  int32_t signal = 0;
  while ((signal = platform::WaitForTerminationOrReload()) == platform::kReloadSignal) {
    if (const uint32_t r = adapter->ReloadTls(); r != 0) {
      ReportFailure("TLS reload failed, the settings in use stay", r);
    } else {
      std::printf("TLS settings reloaded\n");
      std::fflush(stdout);
    }
  }
  if (signal < 0) ReportFailure("cannot wait for a termination signal", TavixGetLastError());
  communicator->Destroy();
  std::printf("requests: %s\n", std::to_string(echo->Requests()).c_str());
  return 0;
}

}  // namespace TAVIX::tools
