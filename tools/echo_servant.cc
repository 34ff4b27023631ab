#include "tools/echo_servant.h"

#include <array>

#include "tavix/core/errors.h"
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/platform/clock.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

// Sorted by UTF-16 code units, the two built-in operations included.
constexpr std::array<std::u16string_view, 6> kOperations = {u"Echo",      u"EchoBlob",   u"Fail",
                                                            u"ObjectIsA", u"ObjectPing", u"Sleep"};

// The status-only ending shared by Fail and Sleep.
void FinishWithStatus(ObjectHelper& request, uint32_t status) {
  const FILETIME end = platform::SystemTimeAsFileTime();
  request.FinishServant(status, 0, end);
}

}  // namespace

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

void EchoServant::Dispatch(ObjectHelper& request) {
  switch (FindOperationName(kOperations.data(), static_cast<int>(kOperations.size()),
                            request.GetContext().operation)) {
    case 0:
      __Echo(request);
      break;
    case 1:
      __EchoBlob(request);
      break;
    case 2:
      __Fail(request);
      break;
    case 3:
      __ObjectIsA(request);
      break;
    case 4:
      __ObjectPing(request);
      break;
    case 5:
      __Sleep(request);
      break;
    default:
      request.FinishServant(Err::OperationNotFound, 0);
      break;
  }
}

void EchoServant::GetObjectIds(std::vector<std::u16string>& ids) {
  Object::GetObjectIds(ids);
  ids.emplace_back(kTypeId);
}

std::u16string EchoServant::GetObjectId() { return std::u16string(kTypeId); }

void EchoServant::__Echo(ObjectHelper& request) {
  std::u16string text;
  request.is()->read(text);
  request.PrepareServant();
  std::u16string result;
  const uint32_t status = Echo(text, result, request.GetContext());
  const FILETIME end = platform::SystemTimeAsFileTime();
  if (status != 0) {
    request.FinishServant(status, 0, end);
    return;
  }
  request.FinishServant(0, BasicStream::lengthOf(result), end);
  request.os()->write(result);
}

void EchoServant::__EchoBlob(ObjectHelper& request) {
  SmartPtr<ITavixBlob> blob;
  request.is()->read(blob);
  request.PrepareServant();
  SmartPtr<ITavixBlob> result;
  const uint32_t status = EchoBlob(blob, result, request.GetContext());
  const FILETIME end = platform::SystemTimeAsFileTime();
  if (status != 0) {
    request.FinishServant(status, 0, end);
    return;
  }
  request.FinishServant(0, BasicStream::lengthOf(result), end);
  request.os()->write(result);
}

void EchoServant::__Fail(ObjectHelper& request) {
  int32_t code = 0;
  request.is()->read(code);
  request.PrepareServant();
  const uint32_t status = Fail(code, request.GetContext());
  FinishWithStatus(request, status);
}

void EchoServant::__Sleep(ObjectHelper& request) {
  int32_t milliseconds = 0;
  request.is()->read(milliseconds);
  request.PrepareServant();
  const uint32_t status = Sleep(milliseconds, request.GetContext());
  FinishWithStatus(request, status);
}

}  // namespace TAVIX
