#include "tools/echo_servant.h"

#include "tavix/invoke/operation.h"
#include "tavix/invoke/messages.h"
#include "tavix/platform/process.h"
#include "tools/echo_faults.h"
#include "tools/echo_ops.h"

namespace TAVIX {

uint32_t EchoServant::Echo(const std::u16string& text, std::u16string& result, const Context& /*ctx*/) {
  result = text;
  return 0;
}

uint32_t EchoServant::EchoBlob(const SmartPtr<ITavixBlob>& blob, SmartPtr<ITavixBlob>& result,
                               const Context& /*ctx*/) {
  result = blob;
  return 0;
}

uint32_t EchoServant::Fail(int32_t code, const Context& /*ctx*/) { return static_cast<uint32_t>(code); }

uint32_t EchoServant::Sleep(int32_t milliseconds, const Context& /*ctx*/) {
  if (milliseconds > 0) platform::SleepMs(static_cast<uint32_t>(milliseconds));
  return 0;
}

uint32_t EchoServant::Fault(int32_t kind, const Context& /*ctx*/) { return echo_faults::Cause(kind); }

uint32_t EchoServant::PeerIdentity(std::u16string& subject, const Context& ctx) {
  subject = ctx.peerIdentity != nullptr ? ctx.peerIdentity->subject : std::u16string();
  return 0;
}

void EchoServant::Dispatch(ObjectHelper& request) {
  m_requests.fetch_add(1);
  if (m_allowFaults && ServantTable<EchoServant, Entry<echo_ops::Fault, &EchoServant::Fault>>::TryDispatch(*this, request)) {
    return;
  }
  // Sorted by name; "ObjectIsA", "ObjectPing" and unknown names go to the base.
  ServantTable<EchoServant, Entry<echo_ops::Echo, &EchoServant::Echo>,
               Entry<echo_ops::EchoBlob, &EchoServant::EchoBlob>, Entry<echo_ops::Fail, &EchoServant::Fail>,
               Entry<echo_ops::Sleep, &EchoServant::Sleep>,
               Entry<echo_ops::PeerIdentity, &EchoServant::PeerIdentity>>::Dispatch(*this, request);
}

void EchoServant::GetObjectIds(std::vector<std::u16string>& ids) {
  Object::GetObjectIds(ids);
  ids.emplace_back(kTypeId);
}

std::u16string EchoServant::GetObjectId() { return std::u16string(kTypeId); }

}  // namespace TAVIX
