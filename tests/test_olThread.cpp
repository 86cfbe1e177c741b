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

// Every wait in these tests gives up after this long.
constexpr std::chrono::seconds theWaitBound(20);

bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + theWaitBound;
   while (!condition())
   {
      if (std::chrono::steady_clock::now() > deadline)
      {
         return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   return true;
}

// A body that runs until its flag is set, bounded so a lost stop cannot hang the test.
class PollingRunnable : public DtRunnable
{
public:
   void run() override
   {
      threadId = DtGetThreadId();
      entered = true;
      auto const deadline = std::chrono::steady_clock::now() + theWaitBound;
      while (!timeToStop() && std::chrono::steady_clock::now() < deadline)
      {
         std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      sawStop = timeToStop();
      ended = true;
   }
   void stop() override { ++stopCalls; }

   std::atomic<bool> entered{false};
   std::atomic<bool> ended{false};
   std::atomic<bool> sawStop{false};
   std::atomic<int> stopCalls{0};
   std::atomic<unsigned long> threadId{0};
};

struct FunctionState
{
   std::atomic<bool> entered{false};
   std::atomic<bool> sawStop{false};
};

void pollingFunction(void* argument, bool volatile* stopFlag)
{
   auto* state = static_cast<FunctionState*>(argument);
   state->entered = true;
   auto const deadline = std::chrono::steady_clock::now() + theWaitBound;
   while (!*stopFlag && std::chrono::steady_clock::now() < deadline)
   {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
   state->sawStop = *stopFlag;
}

// ---------------------------------------------------------------- DtThreadStart

TEST(DtThreadStartTest, RunnableFormExecutesAndForwardsStop)
{
   PollingRunnable runnable;
   DtThreadStart start(&runnable);
   EXPECT_EQ(&runnable, start.runnable());
   start.stop();
   EXPECT_EQ(1, runnable.stopCalls.load());
   bool volatile flag = true;
   start.execute(&flag);
   EXPECT_TRUE(runnable.entered.load());
   EXPECT_TRUE(runnable.sawStop.load());
}

TEST(DtThreadStartTest, PlainFunctionIgnoresStopAndSeesOnlyTheFlag)
{
   FunctionState state;
   DtThreadStart start(pollingFunction, &state);
   EXPECT_EQ(nullptr, start.runnable());
   start.stop();  // nothing to forward to
   bool volatile flag = true;
   start.execute(&flag);
   EXPECT_TRUE(state.entered.load());
   EXPECT_TRUE(state.sawStop.load());
}

TEST(DtThreadStartTest, NullRunnableDoesNothing)
{
   DtThreadStart start(static_cast<DtRunnable*>(nullptr));
   bool volatile flag = false;
   start.execute(&flag);
   start.stop();
   SUCCEED();
}

// ---------------------------------------------------------------- DtThread states

TEST(DtThreadTest, CreatedState)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   EXPECT_EQ(0UL, thread.handle());
   EXPECT_FALSE(thread.hasStarted());
   EXPECT_TRUE(thread.stopped());
   EXPECT_FALSE(thread.isRunning());
}

TEST(DtThreadTest, WalksThroughTheStateTable)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   ASSERT_EQ(0, thread.start());

   // Running
   ASSERT_TRUE(waitFor([&] { return thread.isRunning(); }));
   EXPECT_TRUE(thread.hasStarted());
   EXPECT_NE(0UL, thread.handle());
   EXPECT_FALSE(thread.stopped());
   EXPECT_EQ(thread.handle(), runnable.threadId.load());
   EXPECT_NE(DtThread::GetCurrentThreadHandle(), runnable.threadId.load());

   // Stop requested, then body ended but not joined
   thread.stop(false);
   EXPECT_TRUE(thread.stopped());
   EXPECT_TRUE(thread.hasStarted()) << "stop(false) leaves the handle set";
   ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }));
   EXPECT_TRUE(runnable.sawStop.load());
   EXPECT_TRUE(thread.hasStarted());

   // Joined
   thread.stop(true);
   EXPECT_EQ(0UL, thread.handle());
   EXPECT_FALSE(thread.hasStarted());
   EXPECT_TRUE(thread.stopped());
   EXPECT_FALSE(thread.isRunning());
}

TEST(DtThreadTest, SecondStartBeforeJoinIsRefused)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   ASSERT_EQ(0, thread.start());
   unsigned long const handle = thread.handle();
   EXPECT_EQ(1, thread.start());
   EXPECT_EQ(handle, thread.handle());
   thread.stop(true);
   EXPECT_EQ(0, thread.start());
}

TEST(DtThreadTest, StopWithWaitReturnsAfterTheBodyEnded)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   ASSERT_EQ(0, thread.start());
   ASSERT_TRUE(waitFor([&] { return runnable.entered.load(); }));
   thread.stop(true);
   EXPECT_TRUE(runnable.ended.load());
   EXPECT_TRUE(runnable.sawStop.load());
   EXPECT_EQ(1, runnable.stopCalls.load());
}

TEST(DtThreadTest, StopWithoutWaitThenWithWaitStopsAndJoinsOnce)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   ASSERT_EQ(0, thread.start());
   ASSERT_TRUE(waitFor([&] { return runnable.entered.load(); }));
   unsigned long const handle = thread.handle();
   thread.stop(false);
   thread.stop(true);
   EXPECT_EQ(1, runnable.stopCalls.load());
   EXPECT_EQ(0UL, thread.handle());
   EXPECT_EQ(2, DtThreadJoin(handle)) << "the thread was already joined";
   thread.stop(true);  // nothing left to do
   EXPECT_EQ(1, runnable.stopCalls.load());
}

TEST(DtThreadTest, StopOnANeverStartedThreadChangesNothing)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   thread.stop(true);
   thread.stop(false);
   EXPECT_TRUE(thread.stopped());
   EXPECT_EQ(0, runnable.stopCalls.load());
   EXPECT_EQ(2, thread.join());
}

TEST(DtThreadTest, StopBeforeTheBodyIsEnteredStillEndsIt)
{
   for (int round = 0; round < 20; ++round)
   {
      SCOPED_TRACE(round);
      PollingRunnable runnable;
      DtThread thread(std::make_shared<DtThreadStart>(&runnable));
      ASSERT_EQ(0, thread.start());
      thread.stop(true);
      EXPECT_FALSE(thread.isRunning());
      EXPECT_FALSE(thread.hasStarted());
   }
}

TEST(DtThreadTest, StartInCurrentThreadRunsOnTheCaller)
{
   struct Context
   {
      DtThread* thread = nullptr;
      unsigned long threadId = 0;
      bool runningInside = false;
   } context;
   auto body = [](void* argument, bool volatile* stopFlag)
   {
      auto* context = static_cast<Context*>(argument);
      context->threadId = DtGetThreadId();
      context->runningInside = context->thread->isRunning();
      // The body ends by its own decision: stop() cannot reach it.
      context->thread->stop(true);
      EXPECT_FALSE(*stopFlag);
   };
   DtThread thread(std::make_shared<DtThreadStart>(body, &context));
   context.thread = &thread;
   EXPECT_EQ(0, thread.startInCurrentThread());
   EXPECT_EQ(DtGetThreadId(), context.threadId);
   EXPECT_TRUE(context.runningInside);
   EXPECT_FALSE(thread.isRunning());
   EXPECT_EQ(0UL, thread.handle());
   EXPECT_FALSE(thread.stopped());
}

TEST(DtThreadTest, DestructorStopsAndJoins)
{
   PollingRunnable runnable;
   {
      DtThread thread(std::make_shared<DtThreadStart>(&runnable));
      ASSERT_EQ(0, thread.start());
      ASSERT_TRUE(waitFor([&] { return runnable.entered.load(); }));
   }
   EXPECT_TRUE(runnable.ended.load());
   EXPECT_TRUE(runnable.sawStop.load());
}

TEST(DtThreadTest, PlainFunctionBodyStopsByItsFlag)
{
   FunctionState state;
   DtThread thread(std::make_shared<DtThreadStart>(pollingFunction, &state));
   ASSERT_EQ(0, thread.start());
   ASSERT_TRUE(waitFor([&] { return state.entered.load(); }));
   thread.stop(true);
   EXPECT_TRUE(state.sawStop.load());
}

TEST(DtThreadTest, BodyThatThrowsEndsItsThreadOnly)
{
   class Throwing : public DtRunnable
   {
   public:
      void run() override { throw std::runtime_error("body failed"); }
   } runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   ASSERT_EQ(0, thread.start());
   thread.stop(true);
   EXPECT_FALSE(thread.isRunning());
}

TEST(DtThreadTest, BodyThatCallsThreadExitLeavesRunningCleared)
{
   auto body = [](void*, bool volatile*) { DtThreadExit(nullptr); };
   DtThread thread(std::make_shared<DtThreadStart>(body, nullptr));
   ASSERT_EQ(0, thread.start());
   ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }));
   thread.stop(true);
   EXPECT_FALSE(thread.hasStarted());
}

TEST(DtThreadTest, CancelledBodyLeavesRunningCleared)
{
   auto body = [](void*, bool volatile*)
   {
      for (int i = 0; i < 20000; ++i)
      {
         usleep(1000);  // a cancellation point
      }
   };
   DtThread thread(std::make_shared<DtThreadStart>(body, nullptr));
   ASSERT_EQ(0, thread.start());
   ASSERT_TRUE(waitFor([&] { return thread.isRunning(); }));
   EXPECT_EQ(0, DtThreadStop(thread.handle()));
   ASSERT_TRUE(waitFor([&] { return !thread.isRunning(); }));
   thread.stop(true);
   EXPECT_FALSE(thread.hasStarted());
}

TEST(DtThreadTest, RestartAfterJoin)
{
   PollingRunnable runnable;
   DtThread thread(std::make_shared<DtThreadStart>(&runnable));
   for (int round = 0; round < 3; ++round)
   {
      SCOPED_TRACE(round);
      runnable.entered = false;
      ASSERT_EQ(0, thread.start());
      ASSERT_TRUE(waitFor([&] { return runnable.entered.load(); }));
      thread.stop(true);
      EXPECT_FALSE(thread.hasStarted());
   }
   EXPECT_EQ(3, runnable.stopCalls.load());
}

// ---------------------------------------------------------------- free functions

void* setFlag(void* argument)
{
   *static_cast<std::atomic<bool>*>(argument) = true;
   return argument;
}

void* exitEarly(void* argument)
{
   DtThreadExit(nullptr);
   *static_cast<std::atomic<bool>*>(argument) = true;  // never reached
   return nullptr;
}

TEST(DtThreadFunctionsTest, CreateAndJoin)
{
   std::atomic<bool> ran(false);
   unsigned long id = 0;
   unsigned long const result = DtThreadCreate(setFlag, &ran, &id);
   ASSERT_NE(0UL, result);
   EXPECT_EQ(result, id);
   EXPECT_EQ(0, DtThreadJoin(id));
   EXPECT_TRUE(ran.load());
   EXPECT_EQ(2, DtThreadJoin(id)) << "a thread is joined once";
   DtThreadCleanUp(id);
}

TEST(DtThreadFunctionsTest, CreateWithoutAnIdentifierPointer)
{
   std::atomic<bool> ran(false);
   unsigned long const id = DtThreadCreate(setFlag, &ran, nullptr);
   ASSERT_NE(0UL, id);
   EXPECT_EQ(0, DtThreadJoin(id));
   EXPECT_TRUE(ran.load());
}

TEST(DtThreadFunctionsTest, ThreadExitEndsTheThread)
{
   std::atomic<bool> passed(false);
   unsigned long const id = DtThreadCreate(exitEarly, &passed, nullptr);
   ASSERT_NE(0UL, id);
   EXPECT_EQ(0, DtThreadJoin(id));
   EXPECT_FALSE(passed.load());
}

TEST(DtThreadFunctionsTest, InvalidIdentifiersAreRefused)
{
   for (unsigned long id : {0UL, 1UL, 12345UL, ~0UL, DtGetThreadId()})
   {
      SCOPED_TRACE(id);
      EXPECT_EQ(2, DtThreadJoin(id));
      EXPECT_EQ(1, DtThreadStop(id));
   }
}

TEST(DtThreadFunctionsTest, ThreadJoiningItselfFailsAndStaysJoinable)
{
   struct Context
   {
      std::atomic<unsigned long> self{0};
      std::atomic<int> result{-1};
   } context;
   auto body = [](void* argument) -> void*
   {
      auto* context = static_cast<Context*>(argument);
      context->result = DtThreadJoin(DtGetThreadId());
      return nullptr;
   };
   unsigned long const id = DtThreadCreate(body, &context, nullptr);
   ASSERT_NE(0UL, id);
   ASSERT_TRUE(waitFor([&] { return context.result.load() != -1; }));
   EXPECT_EQ(2, context.result.load());
   EXPECT_EQ(0, DtThreadJoin(id));
}

TEST(DtThreadFunctionsTest, StopCancelsAThreadAtACancellationPoint)
{
   std::atomic<bool> finished(false);
   auto body = [](void* argument) -> void*
   {
      // usleep is a cancellation point; the bound keeps a lost cancel from hanging.
      for (int i = 0; i < 20000; ++i)
      {
         usleep(1000);
      }
      *static_cast<std::atomic<bool>*>(argument) = true;
      return nullptr;
   };
   unsigned long const id = DtThreadCreate(body, &finished, nullptr);
   ASSERT_NE(0UL, id);
   EXPECT_EQ(0, DtThreadStop(id));
   EXPECT_EQ(0, DtThreadJoin(id));
   EXPECT_FALSE(finished.load());
}

TEST(DtThreadFunctionsTest, CurrentIdentifierIsPthreadSelf)
{
   EXPECT_EQ(static_cast<unsigned long>(pthread_self()), DtGetThreadId());
   EXPECT_EQ(DtGetThreadId(), DtThread::GetCurrentThreadHandle());
}

}  // namespace
