// Tests of DtThreadSafe: one lock period per expression, shared use from several
// threads, and copies that do not share a lock.
#include <olutil/olThreadSafe.h>

#include <cstdint>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

// Asks from another thread whether a mutex is free: the mutex is recursive, so
// the owning thread would always get it.
bool freeForAnotherThread(DtMutex& mutex)
{
   bool taken = false;
   std::thread other(
       [&]
       {
          taken = mutex.tryLock();
          if (taken)
             mutex.unlock();
       });
   other.join();
   return taken;
}

// A value whose member reports whether its guard's mutex is held while it runs.
struct Probe
{
   DtMutex* guardMutex = nullptr;
   bool heldDuringCall() { return !freeForAnotherThread(*guardMutex); }
};

using PacketQueue = std::deque<std::pair<void*, std::vector<char>*>>;

}  // namespace

TEST(ThreadSafe, LockIsHeldForTheExpressionOnly)
{
   DtThreadSafe<Probe> probe;
   probe->guardMutex = &probe.mutex();
   EXPECT_TRUE(probe->heldDuringCall());
   EXPECT_TRUE(freeForAnotherThread(probe.mutex()));

   // A second operator-> in one expression re-enters the recursive mutex.
   DtThreadSafe<std::deque<double>> guarded;
   guarded->push_back(1.5);
   guarded->push_back(guarded->front() + guarded->size());
   EXPECT_DOUBLE_EQ(guarded->back(), 2.5);
   EXPECT_TRUE(freeForAnotherThread(guarded.mutex()));
}

TEST(ThreadSafe, ConcurrentAccessesLoseNothing)
{
   constexpr std::uintptr_t kPerThread = 20000;
   DtThreadSafe<PacketQueue> packets;
   std::vector<char> buffer;
   std::vector<std::thread> threads;
   for (std::uintptr_t t = 0; t < 3; ++t)
      threads.emplace_back(
          [&, t]
          {
             for (std::uintptr_t i = 0; i < kPerThread; ++i)
                packets->push_back({reinterpret_cast<void*>(t * kPerThread + i), &buffer});
          });
   for (auto& t : threads)
      t.join();
   std::vector<int> seen(3 * kPerThread);
   for (; !packets->empty(); packets->pop_front())
      ++seen.at(reinterpret_cast<std::uintptr_t>(packets->front().first));
   for (std::size_t i = 0; i < seen.size(); ++i)
      ASSERT_EQ(seen[i], 1) << "element " << i;
}

TEST(ThreadSafe, CopiesHaveTheirOwnValueAndLock)
{
   DtThreadSafe<std::deque<double>> original(std::deque<double>{1.0, 2.0});
   DtThreadSafe<std::deque<double>> copy(original);
   copy->push_back(3.0);
   EXPECT_EQ(original->size(), 2u);
   EXPECT_EQ(copy->size(), 3u);
   copy = original;
   EXPECT_EQ(copy->size(), 2u);

   DtScopedLock lock(original.mutex(), true);
   EXPECT_TRUE(freeForAnotherThread(copy.mutex()));
   EXPECT_FALSE(freeForAnotherThread(original.mutex()));
}
