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

void* token(std::uintptr_t n)
{
   // Element values are small numbers dressed as pointers; nothing is dereferenced.
   return reinterpret_cast<void*>(n);
}

std::uintptr_t number(void* p)
{
   return reinterpret_cast<std::uintptr_t>(p);
}

// A bound for the spinning loops below, so a lost element fails a test instead of
// hanging it.
constexpr auto kPatience = std::chrono::seconds(60);

}  // namespace

// ---------------------------------------------------------------- many to many

TEST(LockfreeMpmcQueue, PopOnEmptyLeavesArgument)
{
   DtLockfreeMpmcQueueImpl queue(4);
   EXPECT_TRUE(queue._empty());
   void* out = token(77);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(77));
}

TEST(LockfreeMpmcQueue, FifoOrderForOneThread)
{
   DtLockfreeMpmcQueueImpl queue(2);
   // More elements than initial nodes: the queue grows.
   for (std::uintptr_t i = 1; i <= 100; ++i)
   {
      ASSERT_TRUE(queue._push(token(i)));
   }
   EXPECT_FALSE(queue._empty());
   for (std::uintptr_t i = 1; i <= 100; ++i)
   {
      void* out = nullptr;
      ASSERT_TRUE(queue._pop(out));
      EXPECT_EQ(number(out), i);
   }
   EXPECT_TRUE(queue._empty());
   void* out = token(5);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(5));
}

TEST(LockfreeMpmcQueue, NullPointerIsAnElement)
{
   DtLockfreeMpmcQueueImpl queue(0);
   ASSERT_TRUE(queue._push(nullptr));
   void* out = token(1);
   ASSERT_TRUE(queue._pop(out));
   EXPECT_EQ(out, nullptr);
}

TEST(LockfreeMpmcQueue, ConcurrentProducersAndConsumersSeeEachElementOnce)
{
   constexpr unsigned kProducers = 3;
   constexpr unsigned kConsumers = 3;
   constexpr std::uintptr_t kPerProducer = 20000;
   constexpr std::uintptr_t kTotal = kProducers * kPerProducer;

   DtLockfreeMpmcQueueImpl queue(64);
   std::vector<std::atomic<int>> seen(kTotal);
   for (auto& s : seen)
   {
      s.store(0);
   }
   std::atomic<std::uintptr_t> taken{0};
   std::atomic<bool> failed{false};
   auto deadline = std::chrono::steady_clock::now() + kPatience;

   std::vector<std::thread> threads;
   for (unsigned p = 0; p < kProducers; ++p)
   {
      threads.emplace_back(
          [&, p]
          {
             for (std::uintptr_t i = 0; i < kPerProducer; ++i)
             {
                // Elements are 1-based so that none is the null pointer.
                if (!queue._push(token(p * kPerProducer + i + 1)))
                {
                   failed = true;
                }
             }
          });
   }
   for (unsigned c = 0; c < kConsumers; ++c)
   {
      threads.emplace_back(
          [&]
          {
             while (taken.load() < kTotal && std::chrono::steady_clock::now() < deadline)
             {
                void* out = nullptr;
                if (queue._pop(out))
                {
                   std::uintptr_t n = number(out);
                   if (n == 0 || n > kTotal)
                   {
                      failed = true;
                   }
                   else
                   {
                      seen[n - 1].fetch_add(1);
                   }
                   taken.fetch_add(1);
                }
                else
                {
                   std::this_thread::yield();
                }
             }
          });
   }
   for (auto& t : threads)
   {
      t.join();
   }

   EXPECT_FALSE(failed.load());
   ASSERT_EQ(taken.load(), kTotal) << "consumers gave up before taking every element";
   for (std::uintptr_t i = 0; i < kTotal; ++i)
   {
      ASSERT_EQ(seen[i].load(), 1) << "element " << i + 1;
   }
   EXPECT_TRUE(queue._empty());
}

// ---------------------------------------------------------------- one to one

TEST(LockfreeQueue, PopOnEmptyLeavesArgument)
{
   DtLockfreeQueueImpl queue(8);
   EXPECT_TRUE(queue._empty());
   EXPECT_EQ(queue._read_available(), 0u);
   EXPECT_EQ(queue._write_available(), 8u);
   void* out = token(9);
   EXPECT_FALSE(queue._pop(out));
   EXPECT_EQ(out, token(9));
}

TEST(LockfreeQueue, FullQueueRefusesPush)
{
   DtLockfreeQueueImpl queue(4);
   for (std::uintptr_t i = 1; i <= 4; ++i)
   {
      ASSERT_TRUE(queue._push(token(i))) << i;
   }
   EXPECT_EQ(queue._write_available(), 0u);
   EXPECT_EQ(queue._read_available(), 4u);
   EXPECT_FALSE(queue._push(token(5)));

   // The refused element is not in the queue: the four come out in order, no more.
   for (std::uintptr_t i = 1; i <= 4; ++i)
   {
      void* out = nullptr;
      ASSERT_TRUE(queue._pop(out));
      EXPECT_EQ(number(out), i);
   }
   void* out = nullptr;
   EXPECT_FALSE(queue._pop(out));
}

TEST(LockfreeQueue, SizeIsTheCapacityWhileElementsComeAndGo)
{
   DtLockfreeQueueImpl queue(3);
   EXPECT_EQ(queue._size(), 3u);
   ASSERT_TRUE(queue._push(token(1)));
   ASSERT_TRUE(queue._push(token(2)));
   EXPECT_EQ(queue._size(), 3u);
   EXPECT_EQ(queue._read_available(), 2u);
   EXPECT_EQ(queue._write_available(), 1u);
   void* out = nullptr;
   ASSERT_TRUE(queue._pop(out));
   EXPECT_EQ(queue._size(), 3u);
   EXPECT_FALSE(queue._empty());
   ASSERT_TRUE(queue._pop(out));
   EXPECT_TRUE(queue._empty());
   EXPECT_EQ(queue._size(), 3u);
}

TEST(LockfreeQueue, WrapsAroundItsRing)
{
   DtLockfreeQueueImpl queue(3);
   std::uintptr_t next = 1;
   std::uintptr_t expected = 1;
   for (int round = 0; round < 50; ++round)
   {
      ASSERT_TRUE(queue._push(token(next++)));
      ASSERT_TRUE(queue._push(token(next++)));
      for (int k = 0; k < 2; ++k)
      {
         void* out = nullptr;
         ASSERT_TRUE(queue._pop(out));
         ASSERT_EQ(number(out), expected++);
      }
   }
   EXPECT_TRUE(queue._empty());
}

TEST(LockfreeQueue, ZeroCapacityHoldsNothing)
{
   DtLockfreeQueueImpl queue(0);
   EXPECT_EQ(queue._size(), 0u);
   EXPECT_FALSE(queue._push(token(1)));
   EXPECT_TRUE(queue._empty());
}

TEST(LockfreeQueue, OneProducerOneConsumerInOrder)
{
   constexpr std::uintptr_t kCount = 100000;
   DtLockfreeQueueImpl queue(16);
   std::atomic<bool> stop{false};
   auto deadline = std::chrono::steady_clock::now() + kPatience;

   std::thread producer(
       [&]
       {
          for (std::uintptr_t i = 1; i <= kCount && !stop.load();)
          {
             if (queue._push(token(i)))
             {
                ++i;
             }
             else if (std::chrono::steady_clock::now() > deadline)
             {
                return;
             }
             else
             {
                std::this_thread::yield();
             }
          }
       });

   std::uintptr_t expected = 1;
   bool inOrder = true;
   while (expected <= kCount && std::chrono::steady_clock::now() < deadline)
   {
      void* out = nullptr;
      if (queue._pop(out))
      {
         if (number(out) != expected)
         {
            inOrder = false;
            break;
         }
         ++expected;
      }
      else
      {
         std::this_thread::yield();
      }
   }
   stop = true;
   producer.join();

   EXPECT_TRUE(inOrder) << "element " << expected << " out of order";
   EXPECT_EQ(expected, kCount + 1);
   EXPECT_EQ(queue._size(), 16u);
}
