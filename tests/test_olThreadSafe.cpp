// Tests of DtThreadSafe: one lock period per expression, and copies share no lock.
#include <olutil/olThreadSafe.h>

#include <cstdint>
#include <deque>
#include <future>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

// The mutex is recursive, so only another thread can tell whether it is held.
static bool freeForAnotherThread(DtMutex& mutex)
{
   auto const probe = [&mutex] { return mutex.tryLock() && (mutex.unlock(), true); };
   return std::async(std::launch::async, probe).get();
}

struct Probe
{
   DtMutex* guardMutex = nullptr;
   bool heldDuringCall() { return !freeForAnotherThread(*guardMutex); }
};

TEST(ThreadSafe, LockIsHeldForTheExpressionOnly)
{
   DtThreadSafe<Probe> probe;
   probe->guardMutex = &probe.mutex();
   EXPECT_TRUE(probe->heldDuringCall());
   EXPECT_TRUE(freeForAnotherThread(probe.mutex()));
   // A second operator-> in one expression re-enters the recursive mutex.
   DtThreadSafe<std::deque<double>> guarded(std::deque<double>{1.5});
   guarded->push_back(guarded->front() + guarded->size());
   EXPECT_DOUBLE_EQ(guarded->back(), 2.5);
}

TEST(ThreadSafe, TwoThreadsLoseNothing)
{
   constexpr std::uintptr_t kPerThread = 20000;
   DtThreadSafe<std::deque<std::pair<void*, std::vector<char>*>>> packets;
   auto const push = [&](std::uintptr_t first)
   {
      for (std::uintptr_t i = first; i < first + kPerThread; ++i)
         packets->push_back({reinterpret_cast<void*>(i), nullptr});
   };
   std::thread other(push, kPerThread);
   push(0);
   other.join();
   std::vector<int> seen(2 * kPerThread);
   for (; !packets->empty(); packets->pop_front())
      ++seen.at(reinterpret_cast<std::uintptr_t>(packets->front().first));
   EXPECT_TRUE(seen == std::vector<int>(2 * kPerThread, 1)) << "each element exactly once";
}

TEST(ThreadSafe, CopiesHaveTheirOwnValueAndLock)
{
   DtThreadSafe<std::deque<double>> original(std::deque<double>{1.0, 2.0});
   DtThreadSafe<std::deque<double>> copy(original);
   EXPECT_EQ(copy->size(), 2u);
   DtScopedLock lock(original.mutex(), true);
   EXPECT_TRUE(freeForAnotherThread(copy.mutex()));
}
