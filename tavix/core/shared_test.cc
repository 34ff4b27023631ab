// Shared objects and their smart pointers: null access, counting edge cases, concurrent release and ordering.
#include "tavix/core/shared.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

namespace TAVIX {
namespace {

struct Counted : public virtual Shared {
  explicit Counted(std::atomic<int>* deletions) : m_deletions(deletions) {}
  ~Counted() override { m_deletions->fetch_add(1); }
  std::atomic<int>* m_deletions;
};

// A destructor that takes and drops a new holder of its own object.
struct Resurrecting : public virtual Shared {
  explicit Resurrecting(int* deletions) : m_deletions(deletions) {}
  ~Resurrecting() override {
    SmartPtr<Resurrecting> again(this);
    ++*m_deletions;
  }
  int* m_deletions;
};

TEST(SmartPtrTest, NullDereferenceRaisesRuntimeError) {
  SmartPtr<Counted> empty;
  EXPECT_THAT([&] { empty->m_deletions = nullptr; },
              ::testing::ThrowsMessage<std::runtime_error>(::testing::StrEq("Null pointer referenced")));
  EXPECT_THROW(*empty, std::runtime_error);
  EXPECT_EQ(nullptr, empty.get());
}

// Self-assignment keeps the count, an uncounted holder never deletes, and a
// destructor that takes a holder of its own object does not delete twice.
TEST(SmartPtrTest, CountingEdgeCases) {
  std::atomic<int> deletions{0};
  SmartPtr<Counted> p(new Counted(&deletions));
  SmartPtr<Counted>& alias = p;
  p = alias;
  p = p.get();
  EXPECT_EQ(1, p->RefCount());
  {
    Counted onStack(&deletions);
    SmartPtr<Counted> uncounted(&onStack, false);
    EXPECT_EQ(0, onStack.RefCount());
  }
  EXPECT_EQ(1, deletions.load());  // only the stack object's own scope ended it
  int resurrected = 0;
  { SmartPtr<Resurrecting> r(new Resurrecting(&resurrected)); }
  EXPECT_EQ(1, resurrected);
}

TEST(SmartPtrTest, ConcurrentCopiesAndReleasesDeleteOnce) {
  std::atomic<int> deletions{0};
  for (int round = 0; round < 50; ++round) {
    auto* object = new Counted(&deletions);
    std::vector<SmartPtr<Counted>> holders(8, SmartPtr<Counted>(object));
    std::vector<std::thread> threads;
    for (auto& holder : holders) {
      threads.emplace_back([h = std::move(holder)]() mutable {
        for (int i = 0; i < 1000; ++i) {
          SmartPtr<Counted> copy = h;
          copy = nullptr;
        }
        h = nullptr;
      });
    }
    for (auto& t : threads) t.join();
  }
  EXPECT_EQ(50, deletions.load());
}

TEST(SmartPtrTest, SetsOrderByAddressAndHoldEachObjectOnce) {
  std::atomic<int> deletions{0};
  std::vector<SmartPtr<Counted>> objects;
  for (int i = 0; i < 5; ++i) objects.emplace_back(new Counted(&deletions));
  std::set<SmartPtr<Counted>> set(objects.rbegin(), objects.rend());
  set.insert(objects[2]);
  std::sort(objects.begin(), objects.end(), [](auto& a, auto& b) { return a.get() < b.get(); });
  EXPECT_TRUE(std::equal(set.begin(), set.end(), objects.begin(), objects.end()));
}

}  // namespace
}  // namespace TAVIX
