// Tests of the lock-free pointer queues: one thread's edges, then several threads.
#include <olutil/olLockfreeQueue.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{
// Elements are small numbers dressed as pointers; nothing is dereferenced.
auto const token = [](std::uintptr_t n) { return reinterpret_cast<void*>(n); };

// Moves 1..producers*perProducer across threads; each must come out once, and in order
// with one producer and one consumer. Loops give up after a minute instead of hanging.
template <class Queue>
void transfer(Queue& queue, unsigned producers, unsigned consumers, std::uintptr_t perProducer)
{
   std::uintptr_t const total = producers * perProducer;
   auto const patient = [end = std::chrono::steady_clock::now() + std::chrono::seconds(60)]
   { return std::chrono::steady_clock::now() < end; };
   std::vector<std::atomic<int>> seen(total + 1);  // slot 0: out of range or out of order
   std::atomic<std::uintptr_t> taken{0};
   std::vector<std::thread> threads;
   for (unsigned p = 0; p < producers; ++p)
      threads.emplace_back(
          [&, p]
          {
             for (std::uintptr_t i = 1; i <= perProducer; ++i)
                while (!queue._push(token(p * perProducer + i)) && patient())
                   std::this_thread::yield();
          });
   for (unsigned c = 0; c < consumers; ++c)
      threads.emplace_back(
          [&]
          {
             void* out = nullptr;
             for (std::uintptr_t last = 0; taken < total && patient(); std::this_thread::yield())
                while (queue._pop(out))
                {
                   auto const n = reinterpret_cast<std::uintptr_t>(out);
                   seen[n <= total && (producers > 1 || consumers > 1 || n == last + 1) ? n : 0]++;
                   taken++;
                   last = n;
                }
          });
   for (auto& t : threads)
      t.join();
   for (std::uintptr_t i = 0; i <= total; ++i)
      ASSERT_EQ(seen[i].load(), i == 0 ? 0 : 1) << "element " << i;
}
}  // namespace

TEST(LockfreeMpmcQueue, PopOnEmptyLeavesArgument)
{
   DtLockfreeMpmcQueueImpl queue(1);
   void* out = token(77);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(77));
}

TEST(LockfreeQueue, FullRefusesPushAndSizeStaysTheCapacity)
{
   DtLockfreeQueueImpl queue(3);
   void* out = token(9);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(9));
   for (std::uintptr_t k = 1; k <= 3; ++k)
      ASSERT_TRUE(queue._push(token(k)));
   EXPECT_FALSE(queue._push(token(99)));
   EXPECT_TRUE(queue._write_available() == 0 && queue._read_available() == 3);
   for (std::uintptr_t k = 1; k <= 3; ++k)
      EXPECT_TRUE(queue._pop(out) && out == token(k)) << "99 was not taken in";
   EXPECT_TRUE(queue._empty());
   EXPECT_EQ(queue._size(), 3u);
}

TEST(LockfreeQueues, ElementsCrossThreadsOnceEach)
{
   DtLockfreeMpmcQueueImpl many(64);
   transfer(many, 3, 3, 20000);
   DtLockfreeQueueImpl one(16);
   transfer(one, 1, 1, 100000);
}
