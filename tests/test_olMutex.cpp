// Tests of the recursive mutex and its two scope guards.
#include <olutil/olMutex.h>

#include <atomic>
#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace
{

// True when another thread can take the mutex at this moment (it releases it again,
// past CountingMutex's count).
bool freeForAnotherThread(DtMutex& mutex)
{
   auto const probe = [&mutex] { return mutex.tryLock() && (mutex.DtMutex::unlock(), true); };
   return std::async(std::launch::async, probe).get();
}

// Counts the calls that reach the mutex through its virtual operations.
class CountingMutex : public DtMutex
{
public:
   void lock() override { ++locks, DtMutex::lock(); }
   void unlock() override { ++unlocks, DtMutex::unlock(); }
   int locks = 0;
   int unlocks = 0;
};

TEST(DtMutexTest, RecursiveLockIsFreedOnlyByTheLastUnlockAndCopiesCarryNoLockState)
{
   DtMutex mutex;
   mutex.lock();
   EXPECT_TRUE(mutex.tryLock()) << "the holder may take it again";
   DtMutex copy(mutex);
   DtMutex assigned;
   assigned = mutex;
   EXPECT_TRUE(freeForAnotherThread(copy) && freeForAnotherThread(assigned));
   std::atomic<bool> acquired(false);
   std::thread waiter([&] { mutex.lock(), acquired = true, mutex.unlock(); });
   mutex.unlock();
   EXPECT_FALSE(freeForAnotherThread(mutex)) << "one level is still held";
   EXPECT_FALSE(acquired.load()) << "the waiter got in while a level was still held";
   mutex.unlock();
   waiter.join();
   EXPECT_TRUE(acquired.load());
   EXPECT_TRUE(freeForAnotherThread(mutex));
}

TEST(DtScopedLockTest, LocksOnlyOnConditionAndActsOnceHoweverOftenCalled)
{
   for (bool condition : {true, false})
   {
      SCOPED_TRACE(condition);
      CountingMutex mutex;
      {
         DtScopedLock lock(mutex, condition);
         EXPECT_EQ(condition, lock.locked());
         EXPECT_EQ(condition ? static_cast<void const*>(&lock) : nullptr,
                   static_cast<void const*>(lock));
         EXPECT_EQ(!condition, freeForAnotherThread(mutex));
         lock.lock();
         lock.lock();
         EXPECT_EQ(1, mutex.locks);
         EXPECT_FALSE(freeForAnotherThread(mutex));
         if (condition)
         {
            lock.unlock();
            lock.unlock();
            EXPECT_EQ(1, mutex.unlocks);
            EXPECT_TRUE(freeForAnotherThread(mutex));
         }
      }
      // The destructor releases only what the guard still holds.
      EXPECT_EQ(1, mutex.unlocks);
      EXPECT_TRUE(freeForAnotherThread(mutex));
   }
}

struct Counts
{
   int acquires = 0;
   int releases = 0;
};

TEST(DtScopedSequenceLockTest, EachCopyAcquiresAndEveryGuardReleases)
{
   void (*const countAcquire)(void*) = [](void* o) { ++static_cast<Counts*>(o)->acquires; };
   void (*const countRelease)(void*) = [](void* o) { ++static_cast<Counts*>(o)->releases; };
   for (auto lockFunction : {countAcquire, static_cast<void (*)(void*)>(nullptr)})
   {
      int const expectedAcquires = lockFunction ? 2 : 0;
      SCOPED_TRACE(expectedAcquires);
      Counts counts;
      {
         DtScopedSequenceLock first(&counts, lockFunction, countRelease);
         EXPECT_EQ(0, counts.acquires) << "the first guard does not acquire";
         DtScopedSequenceLock second(first);
         DtScopedSequenceLock third(second);
         EXPECT_EQ(expectedAcquires, counts.acquires);
         EXPECT_EQ(0, counts.releases);
      }
      EXPECT_EQ(expectedAcquires, counts.acquires);
      EXPECT_EQ(3, counts.releases);
   }
}

}  // namespace
