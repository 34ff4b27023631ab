// Object, the base of every servant: the two operations every remote object
// has ("ObjectIsA" and "ObjectPing"), its type ids, and the dispatch of an
// operation name through a sorted table to a skeleton that reads the
// arguments, calls the servant and writes the reply.
#ifndef TAVIX_INVOKE_OBJECT_H_
#define TAVIX_INVOKE_OBJECT_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/shared.h"

namespace TAVIX {

class ObjectHelper;
struct Context;

class Object : public virtual Shared {
 public:
  Object() = default;
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
  ~Object() override = default;

  // Servant operations return a status: 0, or a code the client receives
  // as the call's result.
  virtual uint32_t ObjectIsA(const std::u16string& typeId, bool& result, const Context& ctx);
  virtual uint32_t ObjectPing(const Context& ctx);
  // Runs the request's operation; an unknown name is answered with
  // "Operation not find". Derived servants look their own names up first
  // and hand the rest to this one.
  virtual void Dispatch(ObjectHelper& request);
  // Appends every type id the object supports (the vector is not cleared).
  virtual void GetObjectIds(std::vector<std::u16string>& ids);
  // The most derived interface's type id.
  virtual std::u16string GetObjectId();

  // Skeletons of the two built-in operations.
  void __ObjectIsA(ObjectHelper& request);
  void __ObjectPing(ObjectHelper& request);

  static constexpr std::u16string_view kTypeId = u"::TAVIX::Object";

 protected:
  // Index of `name` in `table`, `count` names sorted ascending by UTF-16
  // code units without duplicates; -1 when absent.
  static int FindOperationName(const std::u16string_view* table, int count, const std::u16string& name);
};

}  // namespace TAVIX

#endif  // TAVIX_INVOKE_OBJECT_H_
