// Tests of DtThreadStart, DtThread and the free thread functions.
#include <olutil/olThread.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include <olutil/olThreadedObject.h>

namespace
{

// Every wait gives up after 20 seconds.
bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return condition();
}

class PollingRunnable : public DtRunnable
{
public:
   void run() override
   {
      threadId = DtGetThreadId();
      sawStop = waitFor([this] { return timeToStop(); });
   }
   void stop() override { ++stopCalls; }

   std::atomic<bool> sawStop{false};
   std::atomic<int> stopCalls{0};
   std::atomic<unsigned long> threadId{0};
};

// A plain function can only watch its flag: DtThreadStart::stop has nothing to call.
void pollingFunction(void* sawStop, bool volatile* stopFlag)
{
   *static_cast<std::atomic<bool>*>(sawStop) = waitFor([stopFlag] { return *stopFlag; });
}

TEST(DtThreadTest, WalksThroughTheStateTable)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   thread.stop(true);  // never started: nothing happens
   EXPECT_TRUE(!thread.hasStarted() && thread.stopped() && !thread.isRunning());
   EXPECT_EQ(0, runnable.stopCalls.load());
   EXPECT_EQ(2, thread.join());
   ASSERT_EQ(0, thread.start());
   unsigned long const handle = thread.handle();
   EXPECT_EQ(1, thread.start()) << "a second start before the join is refused";
   EXPECT_EQ(handle, thread.handle());

   ASSERT_TRUE(waitFor([&] { return thread.isRunning(); }));
   EXPECT_FALSE(thread.stopped()) << "a refused start leaves the running body alone";
   EXPECT_EQ(handle, runnable.threadId.load());
   EXPECT_NE(DtThread::GetCurrentThreadHandle(), handle);

   thread.stop(false);
   EXPECT_TRUE(thread.stopped() && thread.hasStarted()) << "stop(false) leaves the handle set";
   ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }));
   EXPECT_TRUE(runnable.sawStop.load());

   thread.stop(true);
   EXPECT_EQ(1, runnable.stopCalls.load()) << "the second stop only joins";
   EXPECT_TRUE(!thread.hasStarted() && thread.stopped());
   EXPECT_EQ(2, DtThreadJoin(handle)) << "joined once, by stop(true)";
   ASSERT_EQ(0, thread.start()) << "a joined thread starts again";
   thread.stop(true);  // right after start, before the body may have been entered
   EXPECT_TRUE(!thread.isRunning() && !thread.hasStarted());
}

TEST(DtThreadTest, DestructorStopsAndJoinsRunnablesAndFunctions)
{
   PollingRunnable runnable;
   std::atomic<bool> functionSawStop(false);
   {
      DtThread first(std::make_shared<DtThreadStart>(&runnable));
      DtThread second(std::make_shared<DtThreadStart>(pollingFunction, &functionSawStop));
      ASSERT_EQ(0, first.start());
      ASSERT_EQ(0, second.start());
      ASSERT_TRUE(waitFor([&] { return first.isRunning() && second.isRunning(); }));
   }
   EXPECT_TRUE(runnable.sawStop.load() && functionSawStop.load());
}

TEST(DtThreadTest, StartInCurrentThreadIsOutOfReachOfStop)
{
   auto body = [](void* argument, bool volatile* stopFlag)
   {
      auto* thread = static_cast<DtThread*>(argument);
      EXPECT_TRUE(thread->isRunning());
      thread->stop(true);
      EXPECT_FALSE(*stopFlag);
   };
   DtThread thread(std::make_shared<DtThreadStart>(body, &thread));
   EXPECT_EQ(0, thread.startInCurrentThread());
   EXPECT_TRUE(!thread.isRunning() && !thread.stopped());
   EXPECT_EQ(0UL, thread.handle());
}

void throwingBody(void*, bool volatile*)
{
   throw std::runtime_error("body failed");
}

void cancellableBody(void*, bool volatile*)
{
   for (int i = 0; i < 20000; ++i)
      usleep(1000);  // a cancellation point
}

TEST(DtThreadTest, BodiesEndingAbnormallyEndOnlyTheirThreadAndClearRunning)
{
   for (auto body : {throwingBody, cancellableBody})
   {
      DtThread thread(std::make_shared<DtThreadStart>(body, nullptr));
      ASSERT_EQ(0, thread.start());
      if (body == cancellableBody)
      {
         ASSERT_TRUE(waitFor([&] { return thread.isRunning(); }));
         EXPECT_EQ(0, DtThreadStop(thread.handle()));
      }
      ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }));
      thread.stop(true);
      EXPECT_FALSE(thread.hasStarted());
   }
}

TEST(DtThreadFunctionsTest, CreateJoinOnceAndRefuseInvalidIdentifiersAndASelfJoin)
{
   auto setFlag = [](void* argument) -> void*
   {
      *static_cast<std::atomic<bool>*>(argument) = true;
      return argument;
   };
   std::atomic<bool> ran(false);
   unsigned long id = 0;
   unsigned long const result = DtThreadCreate(setFlag, &ran, &id);
   ASSERT_NE(0UL, result);
   EXPECT_EQ(result, id);
   EXPECT_EQ(0, DtThreadJoin(result));
   EXPECT_TRUE(ran.load());
   EXPECT_EQ(2, DtThreadJoin(result)) << "a thread is joined once";
   DtThreadCleanUp(result);
   EXPECT_EQ(0, DtThreadJoin(DtThreadCreate(setFlag, &ran, nullptr))) << "no identifier pointer";
   EXPECT_EQ(static_cast<unsigned long>(pthread_self()), DtGetThreadId());
   EXPECT_EQ(DtGetThreadId(), DtThread::GetCurrentThreadHandle());

   for (unsigned long bad : {0UL, 1UL, 12345UL, ~0UL, DtGetThreadId()})
      EXPECT_TRUE(DtThreadJoin(bad) == 2 && DtThreadStop(bad) == 1) << bad;
   std::atomic<int> selfJoin(-1);
   auto body = [](void* argument) -> void*
   {
      *static_cast<std::atomic<int>*>(argument) = DtThreadJoin(DtGetThreadId());
      return nullptr;
   };
   unsigned long const joiner = DtThreadCreate(body, &selfJoin, nullptr);
   ASSERT_NE(0UL, joiner);
   ASSERT_TRUE(waitFor([&] { return selfJoin.load() != -1; }));
   EXPECT_EQ(2, selfJoin.load());
   EXPECT_EQ(0, DtThreadJoin(joiner)) << "still joinable after its own failed join";
}

}  // namespace
