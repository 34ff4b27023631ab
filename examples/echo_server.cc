// A TAVIX server in one file: it registers one servant under the name
// "Echo", listens on a TCP endpoint, prints the proxy strings clients can
// use, and serves until it receives SIGINT or SIGTERM.
//
//   echo_server ["tcp -h #any -p 10000"]
#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "examples/echo_interface.h"
#include "tavix/adapter/object_adapter.h"
#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/platform/signals.h"
#include "tavix/runtime/communicator.h"

namespace {

// The servant: the object that does the work. Requests of different client
// connections run on different threads, so its state is atomic.
class EchoServant : public TAVIX::Object {
 public:
  // Each operation takes its in-parameters, then its out-parameters, then
  // the request's context, and returns a status: 0, or an error code that
  // the client receives as the call's result.
  uint32_t Echo(const std::u16string& text, std::u16string& result, const TAVIX::Context&) {
    result = text;
    m_echoed.fetch_add(1);
    return 0;
  }
  uint32_t Count(int32_t& count, const TAVIX::Context&) {
    count = m_echoed.load();
    return 0;
  }
  uint32_t Note(const std::u16string& text, const TAVIX::Context& ctx) {
    std::printf("note from %s:%u: %s\n", TAVIX::NarrowString(ctx.peerAddress).c_str(), ctx.peerPort,
                TAVIX::NarrowString(text).c_str());
    std::fflush(stdout);
    return 0;
  }

  // The operation table, sorted by name (checked when compiling). Names it
  // does not list, such as "ObjectPing", go to the base class.
  void Dispatch(TAVIX::ObjectHelper& request) override {
    TAVIX::ServantTable<EchoServant, TAVIX::Entry<example::CountOp, &EchoServant::Count>,
                        TAVIX::Entry<example::EchoOp, &EchoServant::Echo>,
                        TAVIX::Entry<example::NoteOp, &EchoServant::Note>>::Dispatch(*this, request);
  }
  void GetObjectIds(std::vector<std::u16string>& ids) override {
    Object::GetObjectIds(ids);
    ids.emplace_back(example::kEchoTypeId);
  }
  std::u16string GetObjectId() override { return std::u16string(example::kEchoTypeId); }

 private:
  std::atomic<int32_t> m_echoed{0};
};

int Fail(const char* what) {
  std::string text;
  const uint32_t code = TAVIX::TavixGetLastError();
  std::fprintf(stderr, "echo_server: %s: 0x%08X %s\n", what, code, TAVIX::GetErrMsg(code, text).c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string endpoint = argc > 1 ? argv[1] : "tcp -h #any -p 10000";

  // Signals are taken by a wait below rather than by a handler; block them
  // before the library starts any thread, so every thread inherits that.
  if (!TAVIX::platform::BlockTerminationSignals()) return Fail("blocking signals");

  TAVIX::SmartPtr<TAVIX::Communicator> communicator = TAVIX::Initialize();
  TAVIX::SmartPtr<TAVIX::ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("Example"));
  if (!adapter->AddServant(TAVIX::MakeShared<EchoServant>(), std::string("Echo"))) return Fail("AddServant");
  adapter->Activate();
  if (!adapter->AddPassport(endpoint)) return Fail(("AddPassport \"" + endpoint + "\"").c_str());

  std::vector<std::string> proxies;
  adapter->GetProxyString(std::string("Echo"), proxies);
  for (const std::string& proxy : proxies) std::printf("%s\n", proxy.c_str());
  std::fflush(stdout);

  TAVIX::platform::WaitForTerminationSignal();
  communicator->Destroy();  // ends every connection and waits for them
  std::printf("echo_server: stopped\n");
  return 0;
}
