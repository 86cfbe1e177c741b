// Tests of the recursive mutex and its two scope guards.
#include <olutil/olMutex.h>

#include <atomic>
#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace
{

// True when another thread can take the mutex at this moment (it releases it again).
bool freeForAnotherThread(DtMutex& mutex)
{
   return std::async(std::launch::async,
                     [&mutex]
                     {
                        if (!mutex.tryLock())
                        {
                           return false;
                        }
                        mutex.DtMutex::unlock();  // not counted by CountingMutex
                        return true;
                     })
       .get();
}

// Counts the calls that reach the mutex through its virtual operations.
class CountingMutex : public DtMutex
{
public:
   void lock() override
   {
      ++locks;
      DtMutex::lock();
   }
   void unlock() override
   {
      ++unlocks;
      DtMutex::unlock();
   }
   int locks = 0;
   int unlocks = 0;
};

TEST(DtMutexTest, SameThreadLocksTwiceAndNeedsTwoUnlocks)
{
   DtMutex mutex;
   mutex.lock();
   mutex.lock();
   EXPECT_FALSE(freeForAnotherThread(mutex));
   mutex.unlock();
   EXPECT_FALSE(freeForAnotherThread(mutex)) << "one level is still held";
   mutex.unlock();
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(DtMutexTest, TryLockByTheHolderSucceeds)
{
   DtMutex mutex;
   mutex.lock();
   EXPECT_TRUE(mutex.tryLock());
   mutex.unlock();
   EXPECT_FALSE(freeForAnotherThread(mutex));
   mutex.unlock();
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(DtMutexTest, TryLockFailsWhileAnotherThreadHolds)
{
   DtMutex mutex;
   std::promise<void> locked;
   std::promise<void> release;
   std::thread holder(
       [&]
       {
          mutex.lock();
          locked.set_value();
          release.get_future().wait();
          mutex.unlock();
       });
   locked.get_future().wait();
   EXPECT_FALSE(mutex.tryLock());
   release.set_value();
   holder.join();
   EXPECT_TRUE(mutex.tryLock());
   mutex.unlock();
}

TEST(DtMutexTest, BlockedLockProceedsAfterTheLastUnlock)
{
   DtMutex mutex;
   mutex.lock();
   mutex.lock();
   std::atomic<bool> acquired(false);
   std::thread waiter(
       [&]
       {
          mutex.lock();
          acquired = true;
          mutex.unlock();
       });
   mutex.unlock();
   EXPECT_FALSE(acquired.load()) << "the waiter got in while a level was still held";
   mutex.unlock();
   waiter.join();
   EXPECT_TRUE(acquired.load());
}

TEST(DtMutexTest, CopyIsAnIndependentLockAndAssignmentChangesNothing)
{
   DtMutex original;
   original.lock();
   DtMutex copy(original);
   // The copy does not share the original's lock state.
   EXPECT_TRUE(freeForAnotherThread(copy));
   EXPECT_FALSE(freeForAnotherThread(original));

   DtMutex target;
   target = original;
   EXPECT_TRUE(freeForAnotherThread(target));
   original.unlock();
   EXPECT_TRUE(freeForAnotherThread(original));
}

TEST(DtMutexTest, CopiesInsideClassesKeepDefaultCopying)
{
   struct Guarded
   {
      int value = 0;
      DtMutex mutex;
   };
   Guarded first;
   first.value = 7;
   first.mutex.lock();
   Guarded second = first;
   EXPECT_EQ(7, second.value);
   EXPECT_TRUE(freeForAnotherThread(second.mutex));
   first.mutex.unlock();
}

TEST(DtScopedLockTest, TrueConditionHoldsForTheScope)
{
   DtMutex mutex;
   {
      DtScopedLock lock(mutex, true);
      EXPECT_TRUE(lock.locked());
      EXPECT_EQ(static_cast<void const*>(&lock), static_cast<void const*>(lock));
      EXPECT_FALSE(freeForAnotherThread(mutex));
   }
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(DtScopedLockTest, FalseConditionHoldsNothing)
{
   CountingMutex mutex;
   {
      DtScopedLock lock(mutex, false);
      EXPECT_FALSE(lock.locked());
      EXPECT_EQ(nullptr, static_cast<void const*>(lock));
      EXPECT_TRUE(freeForAnotherThread(mutex));
   }
   EXPECT_EQ(0, mutex.locks);
   EXPECT_EQ(0, mutex.unlocks);
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(DtScopedLockTest, LaterLockOnAFalseConditionGuardIsReleasedAtTheEnd)
{
   CountingMutex mutex;
   {
      DtScopedLock lock(mutex, false);
      lock.lock();
      EXPECT_TRUE(lock.locked());
      EXPECT_FALSE(freeForAnotherThread(mutex));
   }
   EXPECT_EQ(1, mutex.locks);
   EXPECT_EQ(1, mutex.unlocks);
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(DtScopedLockTest, RepeatedLockAndUnlockActOnce)
{
   CountingMutex mutex;
   {
      DtScopedLock lock(mutex, true);
      lock.lock();
      lock.lock();
      EXPECT_EQ(1, mutex.locks);
      lock.unlock();
      lock.unlock();
      EXPECT_EQ(1, mutex.unlocks);
      EXPECT_FALSE(lock.locked());
      EXPECT_TRUE(freeForAnotherThread(mutex));
   }
   EXPECT_EQ(1, mutex.unlocks) << "an unlocked guard must not release at its end";
}

TEST(DtScopedLockTest, NestedGuardsOnTheSameThread)
{
   DtMutex mutex;
   {
      DtScopedLock outer(mutex, true);
      {
         DtScopedLock inner(mutex, true);
         EXPECT_TRUE(inner.locked());
      }
      EXPECT_FALSE(freeForAnotherThread(mutex));
   }
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

// ---------------------------------------------------------------- sequence lock

struct Counts
{
   int acquires = 0;
   int releases = 0;
};

void countAcquire(void* object)
{
   ++static_cast<Counts*>(object)->acquires;
}

void countRelease(void* object)
{
   ++static_cast<Counts*>(object)->releases;
}

void lockMutex(void* object)
{
   static_cast<DtMutex*>(object)->lock();
}

void unlockMutex(void* object)
{
   static_cast<DtMutex*>(object)->unlock();
}

DtScopedSequenceLock passAlong(DtScopedSequenceLock guard)
{
   return guard;
}

TEST(DtScopedSequenceLockTest, FirstGuardDoesNotAcquireButReleases)
{
   Counts counts;
   {
      DtScopedSequenceLock first(&counts, countAcquire, countRelease);
      EXPECT_EQ(0, counts.acquires);
      EXPECT_EQ(0, counts.releases);
   }
   EXPECT_EQ(0, counts.acquires);
   EXPECT_EQ(1, counts.releases);
}

TEST(DtScopedSequenceLockTest, FirstGuardAndTwoCopies)
{
   Counts counts;
   {
      DtScopedSequenceLock first(&counts, countAcquire, countRelease);
      DtScopedSequenceLock second(first);
      DtScopedSequenceLock third(second);
      EXPECT_EQ(2, counts.acquires);
      EXPECT_EQ(0, counts.releases);
   }
   EXPECT_EQ(2, counts.acquires);
   EXPECT_EQ(3, counts.releases);
}

TEST(DtScopedSequenceLockTest, NullAcquireStillReleasesPerGuard)
{
   Counts counts;
   {
      DtScopedSequenceLock first(&counts, nullptr, countRelease);
      DtScopedSequenceLock second(first);
      DtScopedSequenceLock third(first);
   }
   EXPECT_EQ(0, counts.acquires);
   EXPECT_EQ(3, counts.releases);
}

TEST(DtScopedSequenceLockTest, PassingByValueStaysBalanced)
{
   Counts counts;
   {
      DtScopedSequenceLock first(&counts, countAcquire, countRelease);
      DtScopedSequenceLock last = passAlong(passAlong(first));
      EXPECT_GE(counts.acquires, 1);
   }
   // Each guard releases once, the first one balancing the caller's own hold.
   EXPECT_EQ(counts.acquires + 1, counts.releases);
}

TEST(DtScopedSequenceLockTest, HoldsARecursiveMutexUntilTheLastGuardGoes)
{
   DtMutex mutex;
   mutex.lock();  // the caller holds the object before making the first guard
   {
      DtScopedSequenceLock first(&mutex, lockMutex, unlockMutex);
      {
         DtScopedSequenceLock copy(first);
         EXPECT_FALSE(freeForAnotherThread(mutex));
      }
      EXPECT_FALSE(freeForAnotherThread(mutex));
   }
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

}  // namespace
