// Tests of the lock-free pointer queues: the edges of one thread's use, then
// producers and consumers on several threads with every element seen once.
#include <olutil/olLockfreeQueue.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{

// Element values are small numbers dressed as pointers; nothing is dereferenced.
void* token(std::uintptr_t n)
{
   return reinterpret_cast<void*>(n);
}

std::uintptr_t number(void* p)
{
   return reinterpret_cast<std::uintptr_t>(p);
}

// Moves 1..producers*perProducer through the queue on separate threads and
// expects each element once; with one producer and one consumer, in order too.
// Every loop gives up after a minute, so a lost element fails instead of hanging.
template <class Queue>
void transfer(Queue& queue, unsigned producers, unsigned consumers, std::uintptr_t perProducer)
{
   std::uintptr_t const total = producers * perProducer;
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
   auto const patient = [deadline] { return std::chrono::steady_clock::now() < deadline; };
   std::vector<std::atomic<int>> seen(total + 1);
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
             for (std::uintptr_t last = 0; taken.load() < total && patient();)
             {
                void* out = nullptr;
                if (!queue._pop(out))
                {
                   std::this_thread::yield();
                   continue;
                }
                std::uintptr_t const n = number(out);
                bool const ordered = consumers > 1 || producers > 1 || n == last + 1;
                seen[n <= total && ordered ? n : 0].fetch_add(1);
                taken.fetch_add(1);
                last = n;
             }
          });
   for (auto& t : threads)
      t.join();
   ASSERT_EQ(taken.load(), total) << "consumers gave up before taking every element";
   // Slot 0 counts what came out of range or out of order.
   for (std::uintptr_t i = 0; i <= total; ++i)
      ASSERT_EQ(seen[i].load(), i == 0 ? 0 : 1) << "element " << i;
   EXPECT_TRUE(queue._empty());
}

}  // namespace

TEST(LockfreeMpmcQueue, GrowsBeyondItsNodesAndPopOnEmptyLeavesArgument)
{
   DtLockfreeMpmcQueueImpl queue(1);
   void* out = token(77);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(77));
   // A null pointer is an element like any other.
   for (void* element : {token(1), static_cast<void*>(nullptr), token(3)})
      ASSERT_TRUE(queue._push(element));
   for (void* element : {token(1), static_cast<void*>(nullptr), token(3)})
   {
      ASSERT_TRUE(queue._pop(out));
      EXPECT_EQ(out, element);
   }
   EXPECT_TRUE(queue._empty());
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(3));
}

TEST(LockfreeQueue, FullRefusesPushAndSizeStaysTheCapacity)
{
   DtLockfreeQueueImpl queue(3);
   void* out = token(9);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(9));
   // Several rounds, so the ring wraps around.
   for (std::uintptr_t next = 1; next < 16;)
   {
      EXPECT_EQ(queue._write_available(), 3u);
      for (std::uintptr_t k = 0; k < 3; ++k)
         ASSERT_TRUE(queue._push(token(next + k)));
      EXPECT_FALSE(queue._push(token(99)));
      EXPECT_EQ(queue._write_available(), 0u);
      EXPECT_EQ(queue._read_available(), 3u);
      EXPECT_EQ(queue._size(), 3u);
      for (int k = 0; k < 3; ++k)
      {
         ASSERT_TRUE(queue._pop(out));
         EXPECT_EQ(number(out), next++) << "the refused element is not in the queue";
      }
      EXPECT_TRUE(queue._empty());
      EXPECT_EQ(queue._size(), 3u);
   }
   DtLockfreeQueueImpl none(0);
   EXPECT_EQ(none._size(), 0u);
   EXPECT_FALSE(none._push(token(1)));
   EXPECT_TRUE(none._empty());
}

TEST(LockfreeQueues, ElementsCrossThreadsOnceEach)
{
   DtLockfreeMpmcQueueImpl many(64);
   transfer(many, 3, 3, 20000);
   DtLockfreeQueueImpl one(16);
   transfer(one, 1, 1, 100000);
   EXPECT_EQ(one._size(), 16u);
}
