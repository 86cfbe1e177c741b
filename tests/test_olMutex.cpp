// Tests of the recursive mutex and its two scope guards.
#include <olutil/olMutex.h>

#include <atomic>
#include <future>
#include <thread>

#include <gtest/gtest.h>

// True when another thread can take the mutex now.
static bool freeForAnotherThread(DtMutex& mutex)
{
   auto const probe = [&mutex] { return mutex.tryLock() && (mutex.unlock(), true); };
   return std::async(std::launch::async, probe).get();
}

TEST(DtMutexTest, RecursiveLockIsFreedOnlyByTheLastUnlockAndCopiesCarryNoLockState)
{
   DtMutex mutex;
   mutex.lock();
   EXPECT_TRUE(mutex.tryLock()) << "the holder may take it again";
   DtMutex copy(mutex), assigned;
   assigned = mutex;
   EXPECT_TRUE(freeForAnotherThread(copy) && freeForAnotherThread(assigned));
   std::atomic<bool> acquired(false);
   std::thread waiter([&] { mutex.lock(), acquired = true, mutex.unlock(); });
   mutex.unlock();
   EXPECT_FALSE(freeForAnotherThread(mutex) || acquired) << "one level is still held";
   mutex.unlock();
   waiter.join();
   EXPECT_TRUE(acquired && freeForAnotherThread(mutex));
}

TEST(DtScopedLockTest, LocksOnlyOnConditionAndActsOnceHoweverOftenCalled)
{
   DtMutex mutex;
   {
      DtScopedLock lock(mutex, false);
      EXPECT_TRUE(!lock.locked() && static_cast<void const*>(lock) == nullptr);
      lock.lock();
      lock.lock();
      EXPECT_TRUE(lock.locked() && static_cast<void const*>(lock) == &lock);
   }
   EXPECT_TRUE(freeForAnotherThread(mutex)) << "locked once, released once";
   mutex.lock();  // a level the guard must not release
   {
      DtScopedLock lock(mutex, true);
      EXPECT_TRUE(lock.locked());
      lock.unlock();
      lock.unlock();
   }
   EXPECT_FALSE(freeForAnotherThread(mutex)) << "the guard released more than its level";
   mutex.unlock();
}

TEST(DtScopedSequenceLockTest, EachCopyAcquiresAndEveryGuardReleases)
{
   void (*const acquire)(void*) = [](void* o) { ++static_cast<int*>(o)[0]; };
   void (*const release)(void*) = [](void* o) { ++static_cast<int*>(o)[1]; };
   int counts[2] = {}, noAcquire[2] = {};  // acquires, releases
   {
      DtScopedSequenceLock first(counts, acquire, release);
      EXPECT_EQ(0, counts[0]) << "the first guard does not acquire";
      DtScopedSequenceLock second(first), third(second);
      EXPECT_TRUE(counts[0] == 2 && counts[1] == 0);
      DtScopedSequenceLock other(noAcquire, nullptr, release), otherCopy(other);
   }
   EXPECT_TRUE(counts[0] == 2 && counts[1] == 3);
   EXPECT_TRUE(noAcquire[0] == 0 && noAcquire[1] == 2);
}
