#include "tavix/core/locks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

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
  for (int i = 0; i < 400; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(5ms);
  }
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

}  // namespace
}  // namespace TAVIX
