#include "tavix/invoke/object.h"

#include <algorithm>
#include <array>

#include "tavix/core/errors.h"
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/platform/clock.h"

namespace TAVIX {
namespace {

// Sorted by UTF-16 code units: FindOperationName searches it by halves.
constexpr std::array<std::u16string_view, 2> kOperations = {u"ObjectIsA", u"ObjectPing"};

}  // namespace

uint32_t Object::ObjectIsA(const std::u16string& typeId, bool& result, const Context& /*ctx*/) {
  std::vector<std::u16string> ids;
  GetObjectIds(ids);
  result = std::find(ids.begin(), ids.end(), typeId) != ids.end();
  return 0;
}

uint32_t Object::ObjectPing(const Context& /*ctx*/) { return 0; }

void Object::Dispatch(ObjectHelper& request) {
  switch (FindOperationName(kOperations.data(), static_cast<int>(kOperations.size()),
                            request.GetContext().operation)) {
    case 0:
      __ObjectIsA(request);
      break;
    case 1:
      __ObjectPing(request);
      break;
    default:
      request.FinishServant(Err::OperationNotFound, 0);
      break;
  }
}

void Object::GetObjectIds(std::vector<std::u16string>& ids) { ids.emplace_back(kTypeId); }

std::u16string Object::GetObjectId() { return std::u16string(kTypeId); }

void Object::__ObjectIsA(ObjectHelper& request) {
  std::u16string typeId;
  request.is()->read(typeId);
  request.PrepareServant();
  bool result = false;
  const uint32_t status = ObjectIsA(typeId, result, request.GetContext());
  const FILETIME end = platform::SystemTimeAsFileTime();
  if (status != 0) {
    request.FinishServant(status, 0, end);
    return;
  }
  request.FinishServant(0, BasicStream::lengthOf(result), end);
  request.os()->write(result);
}

void Object::__ObjectPing(ObjectHelper& request) {
  request.PrepareServant();
  const uint32_t status = ObjectPing(request.GetContext());
  const FILETIME end = platform::SystemTimeAsFileTime();
  request.FinishServant(status, 0, end);
}

int Object::FindOperationName(const std::u16string_view* table, int count, const std::u16string& name) {
  int low = 0;
  int high = count - 1;
  while (low <= high) {
    const int mid = (low + high) / 2;
    const int order = std::u16string_view(name).compare(table[mid]);
    if (order == 0) return mid;
    if (order > 0) {
      low = mid + 1;
    } else {
      high = mid - 1;
    }
  }
  return -1;
}

}  // namespace TAVIX
