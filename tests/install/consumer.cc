// An application outside the tree, built against the installed package: it
// serves a struct-typed operation on a port the system picks and calls it.
#include <tavix/tavix.h>

#include <cstdio>
#include <string>
#include <vector>

struct Range {
  uint32_t low = 0;
  uint32_t high = 0;
  static constexpr auto kFields = TAVIX::Fields(&Range::low, &Range::high);
};

using WidthOp = TAVIX::Operation<u"Width", TAVIX::In<Range>, TAVIX::Out<uint64_t>>;
using Ranges = TAVIX::Interface<u"::Consumer::Ranges", WidthOp>;
constexpr uint32_t kReversed = TAVIX::AppStatusCode(3);

class RangeServant : public TAVIX::Servant<RangeServant, Ranges> {
 public:
  uint32_t Serve(WidthOp, const Range& range, uint64_t& width, const TAVIX::Context&) {
    if (range.high < range.low) return kReversed;
    width = uint64_t{range.high} - range.low;
    return 0;
  }
};

int main() {
  TAVIX::RegisterStatusText(kReversed, "Range is reversed");
  TAVIX::SmartPtr<TAVIX::Communicator> communicator = TAVIX::Initialize();
  TAVIX::SmartPtr<TAVIX::ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("Consumer"));
  adapter->AddServant(TAVIX::MakeShared<RangeServant>(), std::string("Ranges"));
  adapter->Activate();
  adapter->AddPassport(std::string("tcp -h 127.0.0.1 -p 0"));
  std::vector<std::string> proxies;
  adapter->GetProxyString(std::string("Ranges"), proxies);
  if (proxies.size() != 1) return 1;
  auto proxy = TAVIX::CreateProxy<TAVIX::Proxy<Ranges>>(communicator, proxies[0]);
  uint64_t width = 0;
  const uint32_t status = proxy->Call<WidthOp>(Range{5, 0xFFFFFFFF}, width);
  std::printf("status %u width %llu\n", status, static_cast<unsigned long long>(width));
  std::string text;
  const uint32_t reversed = proxy->Call<WidthOp>(Range{9, 1}, width);
  std::printf("0x%08X %s\n", reversed, TAVIX::GetErrMsg(reversed, text).c_str());
  std::printf("%s\n", TAVIX::GetErrMsg(0x20000016, text).c_str());
  communicator->Destroy();
  return 0;
}
