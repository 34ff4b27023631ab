// Must not compile: an operation whose struct holds a member no codec
// carries. The build stops once, naming the member's type.
#include "tavix/invoke/operation.h"

#include <list>

struct Order {
  int32_t id = 0;
  std::list<int32_t> lines;
  static constexpr auto kFields = TAVIX::Fields(&Order::id, &Order::lines);
};

using PlaceOp = TAVIX::Operation<u"Place", TAVIX::In<std::vector<Order>>, TAVIX::Out<uint32_t>>;
using Shop = TAVIX::Interface<u"::Test::Shop", PlaceOp>;

class ShopServant : public TAVIX::Servant<ShopServant, Shop> {
 public:
  uint32_t Serve(PlaceOp, const std::vector<Order>&, uint32_t&, const TAVIX::Context&) { return 0; }
};

int main() {
  TAVIX::SmartPtr<ShopServant> servant(new ShopServant());
  return servant ? 0 : 1;
}
