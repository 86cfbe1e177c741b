// Tests of DtThreadSafe: one lock period per expression, shared use from several
// threads, and copies that do not share a lock.
#include <olutil/olThreadSafe.h>

#include <atomic>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

// Asks from another thread whether a mutex is free. tryLock from the owning thread
// would succeed on a recursive mutex, so the question must come from elsewhere.
bool freeForAnotherThread(DtMutex& mutex)
{
   bool taken = false;
   std::thread other(
       [&]
       {
          taken = mutex.tryLock();
          if (taken)
          {
             mutex.unlock();
          }
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
   DtThreadSafe<Probe> guarded;
   guarded->guardMutex = &guarded.mutex();
   EXPECT_TRUE(guarded->heldDuringCall());
   EXPECT_TRUE(freeForAnotherThread(guarded.mutex()));
}

TEST(ThreadSafe, TwoAccessesInOneExpressionDoNotDeadlock)
{
   // The mutex is recursive, so a second operator-> in one expression re-enters.
   DtThreadSafe<std::deque<double>> guarded;
   guarded->push_back(1.5);
   guarded->push_back(guarded->front() + guarded->size());
   EXPECT_EQ(guarded->size(), 2u);
   EXPECT_DOUBLE_EQ(guarded->back(), 2.5);
   EXPECT_TRUE(freeForAnotherThread(guarded.mutex()));
}

TEST(ThreadSafe, ScopedLockOnMutexJoinsSeveralSteps)
{
   DtThreadSafe<std::deque<double>> guarded;
   {
      DtScopedLock lock(guarded.mutex(), true);
      guarded->push_back(1.0);
      guarded->push_back(2.0);
      EXPECT_FALSE(freeForAnotherThread(guarded.mutex()));
   }
   EXPECT_TRUE(freeForAnotherThread(guarded.mutex()));
   EXPECT_EQ(guarded->size(), 2u);
}

TEST(ThreadSafe, ConcurrentProducersAndConsumersLoseNothing)
{
   constexpr int kProducers = 3;
   constexpr int kPerProducer = 5000;
   constexpr int kTotal = kProducers * kPerProducer;

   DtThreadSafe<PacketQueue> packets;
   std::vector<std::vector<char>> buffers(kTotal, std::vector<char>(4));
   std::vector<std::atomic<int>> seen(kTotal);
   for (auto& s : seen)
   {
      s.store(0);
   }
   std::atomic<int> taken{0};

   std::vector<std::thread> threads;
   for (int p = 0; p < kProducers; ++p)
   {
      threads.emplace_back(
          [&, p]
          {
             for (int i = 0; i < kPerProducer; ++i)
             {
                int n = p * kPerProducer + i;
                packets->push_back({nullptr, &buffers[n]});
             }
          });
   }
   // Two consumers take the front element under one lock each: the check and the
   // removal are joined by holding the mutex around both.
   for (int c = 0; c < 2; ++c)
   {
      threads.emplace_back(
          [&]
          {
             // Bounded: at most this many attempts, far more than needed.
             for (long attempt = 0; attempt < 100000000L && taken.load() < kTotal; ++attempt)
             {
                std::vector<char>* buffer = nullptr;
                {
                   DtScopedLock lock(packets.mutex(), true);
                   if (!packets->empty())
                   {
                      buffer = packets->front().second;
                      packets->pop_front();
                   }
                }
                if (buffer == nullptr)
                {
                   std::this_thread::yield();
                   continue;
                }
                seen[buffer - buffers.data()].fetch_add(1);
                taken.fetch_add(1);
             }
          });
   }
   for (auto& t : threads)
   {
      t.join();
   }

   ASSERT_EQ(taken.load(), kTotal);
   for (int i = 0; i < kTotal; ++i)
   {
      ASSERT_EQ(seen[i].load(), 1) << "buffer " << i;
   }
   EXPECT_TRUE(packets->empty());
}

TEST(ThreadSafe, CopyHasItsOwnValueAndLock)
{
   DtThreadSafe<std::deque<double>> original(std::deque<double>{1.0, 2.0});
   DtThreadSafe<std::deque<double>> copy(original);
   copy->push_back(3.0);
   EXPECT_EQ(original->size(), 2u);
   EXPECT_EQ(copy->size(), 3u);

   // Holding the original's lock does not hold the copy's.
   DtScopedLock lock(original.mutex(), true);
   EXPECT_TRUE(freeForAnotherThread(copy.mutex()));
   EXPECT_FALSE(freeForAnotherThread(original.mutex()));
}

TEST(ThreadSafe, AssignmentCopiesTheValue)
{
   DtThreadSafe<std::deque<double>> a(std::deque<double>{4.0});
   DtThreadSafe<std::deque<double>> b;
   b = a;
   EXPECT_EQ(b->size(), 1u);
   EXPECT_DOUBLE_EQ(b->front(), 4.0);
   auto& same = b;
   b = same;
   EXPECT_EQ(b->size(), 1u);
   EXPECT_TRUE(freeForAnotherThread(b.mutex()));
}
