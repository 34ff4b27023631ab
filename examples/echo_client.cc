// A TAVIX client in one file: it calls the example server's Echo object
// through a proxy made from a proxy string, as the server prints it.
//
//   echo_client "Echo:tcp -h 127.0.0.1 -p 10000 -t 3000" [text]
#include <cstdio>
#include <string>

#include "examples/echo_interface.h"
#include "tavix/core/errors.h"
#include "tavix/core/text.h"
#include "tavix/runtime/communicator.h"

namespace {

// Every remote call returns 0 or a code with a fixed text.
bool Check(const char* call, uint32_t code) {
  if (code == 0) return true;
  std::string text;
  std::fprintf(stderr, "echo_client: %s failed: 0x%08X %s\n", call, code, TAVIX::GetErrMsg(code, text).c_str());
  return false;
}

int Run(const TAVIX::SmartPtr<TAVIX::Communicator>& communicator, const std::string& proxyString,
        const std::string& text) {
  // Nothing is connected yet: the first call connects and validates.
  TAVIX::SmartPtr<example::EchoPrx> echo = TAVIX::CreateProxy<example::EchoPrx>(communicator, proxyString);
  if (!echo) {
    Check("CreateProxy", TAVIX::TavixGetLastError());
    return 1;
  }
  // A connection lost to a network failure is reopened by the next call.
  echo->AutoReconnect(true);

  bool isEcho = false;
  if (!Check("ObjectIsA", echo->ObjectIsA(std::u16string(example::kEchoTypeId), isEcho))) return 1;
  std::printf("is an echo object: %s\n", isEcho ? "yes" : "no");

  std::u16string answer;
  if (!Check("Echo", echo->Echo(TAVIX::WiddenString(text), answer))) return 1;
  const TAVIX::TavixPerfmon& perfmon = echo->GetLastPerfmon();
  std::printf("echo: \"%s\" (request %d bytes, reply %d bytes, %.3f ms on the network)\n",
              TAVIX::NarrowString(answer).c_str(), perfmon.requestSize, perfmon.replySize, perfmon.networkTime);

  // One-way: returns as soon as the request is sent.
  if (!Check("Note", echo->Note(u"the client says goodbye"))) return 1;

  int32_t count = 0;
  if (!Check("Count", echo->Count(count))) return 1;
  std::printf("the server has echoed %d text(s)\n", count);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: echo_client <proxy-string> [text]\n");
    return 2;
  }
  TAVIX::SmartPtr<TAVIX::Communicator> communicator = TAVIX::Initialize();
  const int status = Run(communicator, argv[1], argc > 2 ? argv[2] : "hello, TAVIX");
  // Sends the close message on every connection the proxies opened.
  communicator->Destroy();
  return status;
}
