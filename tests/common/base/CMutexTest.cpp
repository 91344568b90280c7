#include "common/base/CMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "common/base/CScopedLock.h"

namespace zelph {
namespace {

// True when another thread can take `mutex` right now.
bool IsFreeForOtherThreads(CMutex& mutex) {
  bool acquired = false;
  std::thread([&] {
    acquired = pthread_mutex_trylock(mutex.GetNative()) == 0;
    if (acquired) mutex.Unlock();
  }).join();
  return acquired;
}

TEST(CMutexRecursion, SameThreadRelocksAndReleasesFully) {
  CMutex mutex;
  EXPECT_EQ(mutex.Lock(), 0);
  EXPECT_EQ(mutex.Lock(), 0) << "the owner must be able to lock again";
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_FALSE(IsFreeForOtherThreads(mutex)) << "one unlock of two must keep the mutex held";
  EXPECT_EQ(mutex.Unlock(), 0);
  EXPECT_TRUE(IsFreeForOtherThreads(mutex)) << "after two unlocks the mutex must be free";
}

TEST(CMutexRecursion, NestedScopedLocks) {
  CMutex mutex;
  {
    const CScopedLock outer(mutex);
    {
      const CScopedLock inner(mutex);
      EXPECT_FALSE(IsFreeForOtherThreads(mutex));
    }
    EXPECT_FALSE(IsFreeForOtherThreads(mutex)) << "inner scope must not release the outer lock";
  }
  EXPECT_TRUE(IsFreeForOtherThreads(mutex));
}

TEST(CMutexExclusion, ScopedLockSerialisesThreads) {
  CMutex mutex;
  long counter = 0;
  std::atomic<int> inside{0};
  std::atomic<bool> overlap{false};
  auto work = [&] {
    for (int i = 0; i < 20000; ++i) {
      const CScopedLock lock(mutex);
      if (inside.fetch_add(1) != 0) overlap = true;
      ++counter;
      inside.fetch_sub(1);
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_FALSE(overlap.load()) << "two threads were inside the lock at once";
  EXPECT_EQ(counter, 40000);
}

}  // namespace
}  // namespace zelph
