// Tests of DtThreadStart, DtThread and the free thread functions.
#include <olutil/olThread.h>

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
   ASSERT_EQ(0, thread.start());
   unsigned long const handle = thread.handle();
   EXPECT_EQ(1, thread.start()) << "a second start before the join is refused";

   // `running` is set before the body is entered: wait for the body itself too.
   ASSERT_TRUE(waitFor([&] { return thread.isRunning() && runnable.threadId != 0; }));
   EXPECT_TRUE(!thread.stopped() && handle == runnable.threadId);

   thread.stop(false);
   EXPECT_TRUE(thread.stopped() && thread.hasStarted()) << "stop(false) leaves the handle set";
   ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }) && runnable.sawStop);

   thread.stop(true);
   EXPECT_TRUE(runnable.stopCalls == 1 && !thread.hasStarted()) << "the second stop only joins";
   EXPECT_EQ(2, DtThreadJoin(handle)) << "joined once, by stop(true)";
   ASSERT_EQ(0, thread.start()) << "a joined thread starts again";
   thread.stop(true);  // possibly before the body was entered
   EXPECT_TRUE(!thread.isRunning() && !thread.hasStarted());
}

// Stops from many threads at once reach the runnable once; the destructor stops
// and joins. A plain function can only watch its flag: there is no stop to call.
TEST(DtThreadTest, ManyStopsReachTheRunnableOnceAndTheDestructorJoins)
{
   auto function = [](void* sawStop, bool volatile* flag) {
      *static_cast<std::atomic<bool>*>(sawStop) = waitFor([flag] { return DtStopRequested(flag); });
   };
   PollingRunnable runnable;
   std::atomic<bool> functionSawStop(false);
   {
      DtThread first(std::make_shared<DtThreadStart>(&runnable));
      DtThread second(std::make_shared<DtThreadStart>(function, &functionSawStop));
      ASSERT_EQ(0, first.start() + second.start());
      std::thread stoppers[4];
      for (std::thread& stopper : stoppers)
         stopper = std::thread([&] { first.stop(false); });
      for (std::thread& stopper : stoppers)
         stopper.join();
      ASSERT_TRUE(waitFor([&] { return second.isRunning(); }));
   }
   EXPECT_TRUE(runnable.sawStop && functionSawStop && runnable.stopCalls == 1)
       << runnable.stopCalls;
}

TEST(DtThreadTest, JoinedThreadIsNotJoinedAgainUnderAReusedIdentifier)
{
   // The system hands a joined thread's identifier to the next thread it makes: a
   // DtThread whose thread was joined must leave that newcomer alone when it stops.
   auto quick = [](void*, bool volatile*) {};
   auto newcomer = [](void*) -> void* { return nullptr; };
   for (int attempt = 0; attempt < 50; ++attempt)
   {
      auto first = std::make_unique<DtThread>(std::make_shared<DtThreadStart>(quick, nullptr));
      ASSERT_EQ(0, first->start());
      ASSERT_EQ(0, first->join());
      unsigned long const other = DtThreadCreate(newcomer, nullptr, nullptr);
      ASSERT_NE(0UL, other);
      if (other != first->handle())
      {
         EXPECT_EQ(0, DtThreadJoin(other));
         continue;
      }
      EXPECT_EQ(2, first->join()) << "joined once";
      first.reset();  // stop(true) joins nothing now
      EXPECT_EQ(0, DtThreadJoin(other))
          << "the newcomer was joined by a DtThread that did not start it";
      return;
   }
   GTEST_SKIP() << "the system gave no thread identifier twice in 50 attempts";
}

TEST(DtThreadTest, StartInCurrentThreadIsOutOfReachOfStop)
{
   auto body = [](void* argument, bool volatile* stopFlag)
   {
      auto* thread = static_cast<DtThread*>(argument);
      EXPECT_TRUE(thread->isRunning());
      thread->stop(true);
      EXPECT_FALSE(DtStopRequested(stopFlag));
   };
   DtThread thread(std::make_shared<DtThreadStart>(body, &thread));
   EXPECT_EQ(0, thread.startInCurrentThread());
   EXPECT_TRUE(!thread.isRunning() && !thread.stopped() && thread.handle() == 0UL);
}

TEST(DtThreadFunctionsTest, JoinsFromSeveralThreadsReturnAfterTheEndAndOnlyOneJoins)
{
   static std::atomic<bool> release{false}, ended{false};
   auto run = [](void*) -> void*
   {
      waitFor([] { return release.load(); });
      ended = true;
      return nullptr;
   };
   unsigned long out = 0;
   unsigned long const id = DtThreadCreate(run, nullptr, &out);
   ASSERT_TRUE(id != 0UL && id == out);
   std::atomic<int> started{0}, joined{0}, returnedEarly{0};
   std::thread joiners[3];
   for (std::thread& joiner : joiners)
      joiner =
          std::thread([&] { ++started, joined += DtThreadJoin(id) == 0, returnedEarly += !ended; });
   waitFor([&] { return started.load() == 3; });
   std::this_thread::sleep_for(std::chrono::milliseconds(20));  // most often all joining by now
   release = true;
   for (std::thread& joiner : joiners)
      joiner.join();
   EXPECT_EQ(0, returnedEarly.load()) << "a join returned while the thread still ran";
   EXPECT_GE(joined.load(), 1);
   EXPECT_EQ(2, DtThreadJoin(id)) << "joined once";
   EXPECT_EQ(2, DtThreadJoin(DtGetThreadId())) << "a self-join";
   for (unsigned long bad : {0UL, 12345UL})
      EXPECT_TRUE(DtThreadJoin(bad) == 2 && DtThreadStop(bad) == 1) << bad;
}

}  // namespace
