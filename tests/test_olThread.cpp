// Tests of DtThreadStart, DtThread and the free thread functions.
#include <olutil/olThread.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include <olutil/olThreadedObject.h>

namespace
{

// Every wait gives up after about 20 seconds.
bool waitFor(std::function<bool()> const& condition)
{
   for (int i = 0; i < 20000 && !condition(); ++i)
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

TEST(DtThreadTest, WalksThroughTheStateTable)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   thread.stop(true);  // never started: nothing happens
   EXPECT_TRUE(!thread.hasStarted() && thread.stopped() && runnable.stopCalls == 0);
   ASSERT_EQ(0, thread.start());
   unsigned long const handle = thread.handle();
   EXPECT_EQ(1, thread.start()) << "a second start before the join is refused";

   ASSERT_TRUE(waitFor([&] { return thread.isRunning(); }));
   EXPECT_FALSE(thread.stopped());
   EXPECT_EQ(handle, runnable.threadId.load());

   thread.stop(false);
   EXPECT_TRUE(thread.stopped() && thread.hasStarted()) << "stop(false) leaves the handle set";
   ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }) && runnable.sawStop);

   thread.stop(true);
   EXPECT_EQ(1, runnable.stopCalls.load()) << "the second stop only joins";
   EXPECT_TRUE(!thread.hasStarted() && thread.stopped());
   EXPECT_EQ(2, DtThreadJoin(handle)) << "joined once, by stop(true)";
   ASSERT_EQ(0, thread.start()) << "a joined thread starts again";
   thread.stop(true);  // possibly before the body was entered
   EXPECT_TRUE(!thread.isRunning() && !thread.hasStarted());
}

TEST(DtThreadTest, DestructorStopsAndJoinsRunnablesAndFunctions)
{
   // A plain function can only watch its flag: DtThreadStart::stop has nothing to call.
   auto function = [](void* sawStop, bool volatile* flag)
   { *static_cast<std::atomic<bool>*>(sawStop) = waitFor([flag] { return *flag; }); };
   PollingRunnable runnable;
   std::atomic<bool> functionSawStop(false);
   {
      DtThread first(std::make_shared<DtThreadStart>(&runnable));
      DtThread second(std::make_shared<DtThreadStart>(function, &functionSawStop));
      ASSERT_EQ(0, first.start() + second.start());
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
   EXPECT_TRUE(!thread.isRunning() && !thread.stopped() && thread.handle() == 0UL);
}

TEST(DtThreadFunctionsTest, CreateJoinOnceAndRefuseInvalidIdentifiers)
{
   auto setFlag = [](void* flag) -> void* { return *static_cast<bool*>(flag) = true, nullptr; };
   bool ran = false;
   unsigned long id = 0;
   unsigned long const result = DtThreadCreate(setFlag, &ran, &id);
   ASSERT_NE(0UL, result);
   EXPECT_EQ(result, id);
   EXPECT_TRUE(DtThreadJoin(result) == 0 && ran);
   EXPECT_EQ(2, DtThreadJoin(result)) << "a thread is joined once";
   EXPECT_EQ(static_cast<unsigned long>(pthread_self()), DtThread::GetCurrentThreadHandle());
   EXPECT_EQ(2, DtThreadJoin(DtGetThreadId())) << "a self-join";
   for (unsigned long bad : {0UL, 12345UL})
      EXPECT_TRUE(DtThreadJoin(bad) == 2 && DtThreadStop(bad) == 1) << bad;
}

}  // namespace
