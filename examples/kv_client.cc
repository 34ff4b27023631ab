// A TAVIX client in one file: it stores a 5 MiB value in the key-value
// server, reads it back, lists the keys, deletes one and shows how the
// service's own statuses read.
//
//   kv_client "Store:tcp -h 127.0.0.1 -p 41234 -t 5000"
#include <cstdio>
#include <map>
#include <string>

#include "kv_interface.h"

namespace {

// Every call returns 0 or a status with a text.
bool Check(const char* call, uint32_t status) {
  if (status == 0) return true;
  std::string text;
  std::printf("%s: 0x%08X %s\n", call, status, TAVIX::GetErrMsg(status, text).c_str());
  return false;
}

int Run(const TAVIX::SmartPtr<TAVIX::Communicator>& communicator, const std::string& proxyString) {
  // Nothing is connected yet: the first call connects.
  TAVIX::SmartPtr<kv::KeyValuePrx> store = TAVIX::CreateProxy<kv::KeyValuePrx>(communicator, proxyString);
  if (!store) return Check("CreateProxy", TAVIX::TavixGetLastError()) ? 0 : 1;
  store->AutoReconnect(true);  // a lost connection is reopened by the next call

  const std::string big(5 << 20, 'v');
  uint64_t version = 0;
  if (!Check("Put", store->Call<kv::PutOp>(std::string("big"), TAVIX::MakeBlob(big), version))) return 1;
  if (!Check("Put", store->Call<kv::PutOp>(std::string("empty"), TAVIX::MakeBlob(""), version))) return 1;

  kv::Entry entry;
  if (!Check("Get", store->Call<kv::GetOp>(std::string("big"), entry))) return 1;
  std::string value;
  if (!Check("ReadBlob", TAVIX::ReadBlob(entry.value, value))) return 1;
  std::printf("big: %zu bytes, version %llu, %s\n", value.size(), static_cast<unsigned long long>(entry.version),
              value == big ? "intact" : "CHANGED");

  std::map<std::string, uint64_t> sizes;
  if (!Check("List", store->Call<kv::ListOp>(sizes))) return 1;
  for (const auto& [key, size] : sizes) {
    std::printf("  %s: %llu bytes\n", key.c_str(), static_cast<unsigned long long>(size));
  }

  if (!Check("Delete", store->Call<kv::DeleteOp>(std::string("big")))) return 1;
  kv::RegisterStatusTexts();
  const uint32_t missing = store->Call<kv::GetOp>(std::string("big"), entry);
  Check("Get after Delete", missing);  // 0x40000001 No such key
  return missing == kv::kNoSuchKey ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: kv_client <proxy-string>\n");
    return 2;
  }
  TAVIX::SmartPtr<TAVIX::Communicator> communicator = TAVIX::Initialize();
  const int status = Run(communicator, argv[1]);
  communicator->Destroy();  // sends the close message on every connection
  return status;
}
