// Locks and threads: recursive, spin and reader-writer locks under contention, and thread start and join.
#include "tavix/core/locks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "tavix/core/thread.h"
#include "tavix/platform/process.h"

namespace TAVIX {
namespace {

using namespace std::chrono_literals;

bool TryLockFromOtherThread(RecLock& lock) {
  return std::async(std::launch::async, [&] {
           const bool taken = lock.tryLock();
           if (taken) lock.unlock();
           return taken;
         }).get();
}

// Waits until `condition` holds, for at most two seconds.
template <class Condition>
bool Eventually(Condition condition) {
  for (int i = 0; i < 400 && !condition(); ++i) std::this_thread::sleep_for(5ms);
  return condition();
}

TEST(RecLockTest, DepthCountsAndStateSaveReleasesCompletely) {
  RecLock lock;
  lock.lock();
  lock.lock();
  EXPECT_TRUE(lock.tryLock());
  lock.unlock();
  EXPECT_FALSE(TryLockFromOtherThread(lock));
  RecLock::LockState state;
  lock.unlock(state);
  EXPECT_EQ(2, state.depth);
  EXPECT_TRUE(TryLockFromOtherThread(lock));
  lock.lock(state);
  lock.unlock();
  EXPECT_TRUE(lock.willUnlock());
  EXPECT_FALSE(TryLockFromOtherThread(lock));
  lock.unlock();
  EXPECT_TRUE(TryLockFromOtherThread(lock));
}

TEST(SpinLockTest, ExcludesAndUnlockOfFreeLockKeepsItFree) {
  SpinLock lock;
  lock.unlock();
  EXPECT_TRUE(lock.tryLock());
  EXPECT_FALSE(lock.tryLock());
  lock.unlock();

  int64_t counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        ScopedLock guard(lock);
        ++counter;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(80000, counter);
}

TEST(RWRecLockTest, WaitingWriterBlocksNewReadersAndWakesReadersTogether) {
  RWRecLock lock;
  lock.readLock();
  lock.readLock();  // two readers hold it

  std::atomic<int> stage{0};
  std::thread writer([&] {
    lock.writeLock();
    stage = 1;
    std::this_thread::sleep_for(20ms);
    stage = 2;
    lock.unlock();
  });
  std::this_thread::sleep_for(20ms);  // let the writer queue up
  std::atomic<int> readersIn{0};
  std::atomic<int> stageSeenByReader{-1};
  std::vector<std::thread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      lock.readLock();
      stageSeenByReader = stage.load();
      readersIn.fetch_add(1);
    });
  }
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(0, readersIn.load()) << "a reader passed a waiting writer";
  EXPECT_EQ(0, stage.load());
  lock.unlock();
  EXPECT_EQ(0, stage.load()) << "writer got in while a reader still held the lock";
  lock.unlock();
  writer.join();
  EXPECT_TRUE(Eventually([&] { return readersIn.load() == 3; }));
  EXPECT_EQ(2, stageSeenByReader.load());
  for (auto& r : readers) r.join();
  for (int i = 0; i < 3; ++i) lock.unlock();
  lock.writeLock();  // free again
  lock.unlock();
}

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

// A join of a thread never started succeeds; a finite join that may not terminate leaves the thread joinable; two
// joiners clean up once; and the object starts again afterwards.
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
