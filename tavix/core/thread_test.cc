#include "tavix/core/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

using namespace std::chrono_literals;

class Worker : public Thread {
 public:
  std::atomic<int> runs{0};
  std::atomic<bool> release{false};
  std::atomic<uint32_t> seenId{0};

 protected:
  uint32_t Run() override {
    seenId = platform::ThreadId();
    runs.fetch_add(1);
    while (!release.load()) std::this_thread::sleep_for(1ms);
    return 7;
  }
};

TEST(ThreadTest, StartTwiceCreatesOneThreadAndReportsKernelId) {
  SmartPtr<Worker> worker(new Worker);
  ASSERT_TRUE(worker->Start());
  // Start returns only once the thread has begun to run.
  const uint32_t id = worker->ThreadId();
  EXPECT_NE(0u, id);
  ASSERT_TRUE(worker->Start());
  worker->release = true;
  EXPECT_EQ(1, worker->Join());
  EXPECT_EQ(1, worker->runs.load());
  EXPECT_EQ(id, worker->seenId.load());
  EXPECT_NE(platform::ThreadId(), id);
  EXPECT_EQ(0u, worker->ThreadId());
}

// A join of a thread never started succeeds; a finite join that may not
// terminate leaves the thread joinable; two joiners clean up once; and the
// object starts again afterwards.
TEST(ThreadTest, JoinsOfEveryKind) {
  SmartPtr<Worker> worker(new Worker);
  EXPECT_EQ(1, worker->Join());
  ASSERT_TRUE(worker->Start());
  EXPECT_EQ(0, worker->Join(20, false));
  std::atomic<int> sum{0};
  std::thread a([&] { sum += worker->Join(); });
  std::thread b([&] { sum += worker->Join(INFINITE_WAIT, true); });
  std::this_thread::sleep_for(10ms);
  worker->release = true;
  a.join();
  b.join();
  EXPECT_EQ(2, sum.load());
  EXPECT_EQ(1, worker->Join());  // already cleaned up
  ASSERT_TRUE(worker->Start());
  EXPECT_EQ(1, worker->Join());
  EXPECT_EQ(2, worker->runs.load());
}

}  // namespace
}  // namespace TAVIX
