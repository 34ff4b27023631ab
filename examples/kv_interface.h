// The key-value service that kv_server serves and kv_client calls. Both
// include this one declaration: the proxy's calls and the servant's
// operation table are made from it, so the two ends always agree on the
// bytes.
#ifndef TAVIX_EXAMPLES_KV_INTERFACE_H_
#define TAVIX_EXAMPLES_KV_INTERFACE_H_

#include <tavix/tavix.h>

#include <cstdint>
#include <map>
#include <string>

namespace kv {

// A stored value with its bookkeeping. The member list tells TAVIX how to
// marshal it: each member in this order, nothing else.
struct Entry {
  std::string key;
  TAVIX::SmartPtr<TAVIX::ITavixBlob> value;  // any size; large values stream
  uint64_t version = 0;
  static constexpr auto kFields = TAVIX::Fields(&Entry::key, &Entry::value, &Entry::version);
};

// Put stores a value and returns the key's new version.
using PutOp = TAVIX::Operation<u"Put", TAVIX::In<std::string, TAVIX::SmartPtr<TAVIX::ITavixBlob>>,
                               TAVIX::Out<uint64_t>>;
// Get returns the whole entry.
using GetOp = TAVIX::Operation<u"Get", TAVIX::In<std::string>, TAVIX::Out<Entry>>;
// List returns every key with the size of its value.
using ListOp = TAVIX::Operation<u"List", TAVIX::In<>, TAVIX::Out<std::map<std::string, uint64_t>>>;
// Delete is one-way: the client does not wait for it.
using DeleteOp = TAVIX::OneWayOperation<u"Delete", TAVIX::In<std::string>>;

using KeyValue = TAVIX::Interface<u"::Example::KeyValue", PutOp, GetOp, ListOp, DeleteOp>;
using KeyValuePrx = TAVIX::Proxy<KeyValue>;

// The service's own statuses, in the application range, with their texts.
inline constexpr uint32_t kNoSuchKey = TAVIX::AppStatusCode(1);
inline constexpr uint32_t kEmptyKey = TAVIX::AppStatusCode(2);

inline void RegisterStatusTexts() {
  TAVIX::RegisterStatusText(kNoSuchKey, "No such key");
  TAVIX::RegisterStatusText(kEmptyKey, "A key must not be empty");
}

}  // namespace kv

#endif  // TAVIX_EXAMPLES_KV_INTERFACE_H_
