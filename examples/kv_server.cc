// A TAVIX server in one file: it serves the key-value service under the
// object name "Store", prints the proxy string clients use, and serves
// until SIGINT or SIGTERM.
//
//   kv_server ["tcp -h 127.0.0.1 -p 0"]
#include <signal.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "kv_interface.h"

namespace {

// Requests from different connections run on different threads at once,
// so the servant guards its map.
class KeyValueServant : public TAVIX::Servant<KeyValueServant, kv::KeyValue> {
 public:
  uint32_t Serve(kv::PutOp, const std::string& key, const TAVIX::SmartPtr<TAVIX::ITavixBlob>& value,
                 uint64_t& version, const TAVIX::Context&) {
    if (key.empty()) return kv::kEmptyKey;
    std::lock_guard lock(m_mutex);
    kv::Entry& entry = m_entries[key];
    entry.key = key;
    entry.value = value;  // an empty value arrives as a null blob: both mean "no bytes"
    version = ++entry.version;
    return 0;
  }

  uint32_t Serve(kv::GetOp, const std::string& key, kv::Entry& entry, const TAVIX::Context&) {
    std::lock_guard lock(m_mutex);
    const auto it = m_entries.find(key);
    if (it == m_entries.end()) return kv::kNoSuchKey;
    entry = it->second;
    return 0;
  }

  uint32_t Serve(kv::ListOp, std::map<std::string, uint64_t>& sizes, const TAVIX::Context&) {
    std::lock_guard lock(m_mutex);
    for (const auto& [key, entry] : m_entries) sizes[key] = TAVIX::BlobSize(entry.value);
    return 0;
  }

  uint32_t Serve(kv::DeleteOp, const std::string& key, const TAVIX::Context&) {
    std::lock_guard lock(m_mutex);
    m_entries.erase(key);
    return 0;
  }

 private:
  std::mutex m_mutex;
  std::map<std::string, kv::Entry> m_entries;  // guarded by m_mutex
};

int Fail(const char* what) {
  std::string text;
  const uint32_t code = TAVIX::TavixGetLastError();
  std::fprintf(stderr, "kv_server: %s: 0x%08X %s\n", what, code, TAVIX::GetErrMsg(code, text).c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string endpoint = argc > 1 ? argv[1] : "tcp -h 127.0.0.1 -p 0";

  // Block the stop signals before TAVIX starts threads, so that every
  // thread inherits the mask and sigwait below takes them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGINT);
  sigaddset(&stop, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  TAVIX::SmartPtr<TAVIX::Communicator> communicator = TAVIX::Initialize();
  TAVIX::SmartPtr<TAVIX::ObjectAdapter> adapter = communicator->CreateObjectAdapter(std::string("KeyValue"));
  if (!adapter->AddServant(TAVIX::MakeShared<KeyValueServant>(), std::string("Store"))) return Fail("AddServant");
  adapter->Activate();
  if (!adapter->AddPassport(endpoint)) return Fail(("AddPassport \"" + endpoint + "\"").c_str());

  // With "-p 0" the system chose the port: the proxy string names it.
  std::vector<std::string> proxies;
  adapter->GetProxyString(std::string("Store"), proxies);
  for (const std::string& proxy : proxies) std::printf("%s\n", proxy.c_str());
  std::fflush(stdout);

  int signal = 0;
  sigwait(&stop, &signal);
  communicator->Destroy();  // ends every connection and waits for them
  std::printf("kv_server: stopped\n");
  return 0;
}
