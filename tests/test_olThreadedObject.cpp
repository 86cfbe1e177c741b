// Tests of DtRunnable, DtThreadedObject and DtIoServiceRunnable.
#include <olutil/olThreadedObject.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <gtest/gtest.h>

#include <olutil/olIoServiceRunnable.h>

namespace
{

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

// Runs `action` on a helper thread and reports whether it finished within the bound.
// On a hang the helper is left behind (and the test fails) rather than blocking the
// whole program.
bool completesInTime(std::function<void()> action)
{
   struct State
   {
      std::mutex mutex;
      std::condition_variable done;
      bool finished = false;
   };
   auto state = std::make_shared<State>();
   std::thread(
       [state, action]
       {
          action();
          std::lock_guard<std::mutex> lock(state->mutex);
          state->finished = true;
          state->done.notify_all();
       })
       .detach();
   std::unique_lock<std::mutex> lock(state->mutex);
   return state->done.wait_for(lock, theWaitBound, [&] { return state->finished; });
}

class CountingRunnable : public DtRunnable
{
public:
   void run() override
   {
      ++runs;
      threadId = DtGetThreadId();
      auto const deadline = std::chrono::steady_clock::now() + theWaitBound;
      while (!timeToStop() && std::chrono::steady_clock::now() < deadline)
      {
         ++iterations;
         std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      ++ends;
   }
   void stop() override { ++stopCalls; }

   std::atomic<int> runs{0};
   std::atomic<int> ends{0};
   std::atomic<int> stopCalls{0};
   std::atomic<long> iterations{0};
   std::atomic<unsigned long> threadId{0};
};

// A body that ends by itself after a few rounds.
class ShortRunnable : public DtRunnable
{
public:
   void run() override
   {
      for (int i = 0; i < 5 && !timeToStop(); ++i)
      {
         std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      ended = true;
   }
   std::atomic<bool> ended{false};
};

// ---------------------------------------------------------------- DtRunnable

TEST(DtRunnableTest, ExecuteInstallsTheFlagAndRunsOnTheCaller)
{
   CountingRunnable runnable;
   bool volatile flag = true;
   runnable.execute(&flag);
   EXPECT_EQ(1, runnable.runs.load());
   EXPECT_EQ(DtGetThreadId(), runnable.threadId.load());
   EXPECT_EQ(0, runnable.iterations.load());
}

TEST(DtRunnableTest, RunCalledWithoutAFlagIsToldToStop)
{
   CountingRunnable runnable;
   runnable.run();
   EXPECT_EQ(0, runnable.iterations.load());
}

// ---------------------------------------------------------------- DtThreadedObject

TEST(DtThreadedObjectTest, StartWithoutARunnableThrowsInvalidInput)
{
   DtThreadedObject object;
   try
   {
      object.start();
      FAIL() << "no exception";
   }
   catch (DtInvalidInput const& exception)
   {
      EXPECT_STREQ("DtInvalidInput: Runnable pointer may not be null.", exception.message());
      std::string const where = exception.where().c_str();
      EXPECT_NE(std::string::npos, where.find("void DtThreadedObject::start()")) << where;
      EXPECT_NE(std::string::npos, where.find("[olThreadedObject.cpp:")) << where;
   }
   EXPECT_FALSE(object.running());
   EXPECT_EQ(nullptr, object.runnableObject());
}

TEST(DtThreadedObjectTest, SecondStartThrowsAndLeavesTheThreadAlone)
{
   auto runnable = std::make_shared<CountingRunnable>();
   DtThreadedObject object(runnable);
   object.start();
   ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 1; }));
   unsigned long const firstThread = runnable->threadId;
   try
   {
      object.start();
      FAIL() << "no exception";
   }
   catch (DtThreadAlreadyRunning const& exception)
   {
      EXPECT_STREQ("DtThreadAlreadyRunning: Thread already running.", exception.message());
   }
   EXPECT_TRUE(object.running());
   long const before = runnable->iterations;
   EXPECT_TRUE(waitFor([&] { return runnable->iterations.load() > before; }))
       << "the body kept running";
   EXPECT_EQ(1, runnable->runs.load());
   EXPECT_EQ(firstThread, runnable->threadId.load());
   EXPECT_EQ(0, runnable->stopCalls.load());
   object.stop(true);
   EXPECT_EQ(1, runnable->ends.load());
}

TEST(DtThreadedObjectTest, StopBeforeStartThrowsNotStarted)
{
   DtThreadedObject object(std::make_shared<CountingRunnable>());
   for (bool wait : {true, false})
   {
      SCOPED_TRACE(wait);
      try
      {
         object.stop(wait);
         FAIL() << "no exception";
      }
      catch (DtThreadNotStarted const& exception)
      {
         EXPECT_STREQ("DtThreadNotStarted: Thread must be started to be stopped.",
                      exception.message());
         std::string const where = exception.where().c_str();
         EXPECT_EQ(0U, where.find("void DtThreadedObject::stop(bool) [olThreadedObject.cpp:"))
             << where;
      }
   }
}

TEST(DtThreadedObjectTest, ExceptionsAreDistinctTypes)
{
   DtThreadedObject object;
   bool caughtAsInvalidInput = false;
   try
   {
      try
      {
         object.stop(true);
      }
      catch (DtInvalidInput const&)
      {
         caughtAsInvalidInput = true;
      }
   }
   catch (DtException const& exception)
   {
      EXPECT_STREQ("DtThreadNotStarted: Thread must be started to be stopped.",
                   exception.message());
   }
   EXPECT_FALSE(caughtAsInvalidInput);
}

TEST(DtThreadedObjectTest, JoinBeforeStartReturnsAtOnce)
{
   DtThreadedObject object(std::make_shared<CountingRunnable>());
   object.join();
   EXPECT_FALSE(object.running());
}

TEST(DtThreadedObjectTest, StopWithWaitEndsTheBody)
{
   auto runnable = std::make_shared<CountingRunnable>();
   DtThreadedObject object(runnable);
   object.start();
   EXPECT_TRUE(object.running());
   ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 1; }));
   object.stop(true);
   EXPECT_FALSE(object.running());
   EXPECT_EQ(1, runnable->ends.load());
   EXPECT_EQ(1, runnable->stopCalls.load());
}

TEST(DtThreadedObjectTest, StopWithWaitThenStartRunsTheBodyAgain)
{
   auto runnable = std::make_shared<CountingRunnable>();
   DtThreadedObject object(runnable);
   object.start();
   object.stop(true);
   EXPECT_EQ(1, runnable->ends.load());
   object.start();
   ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 2; }));
   EXPECT_TRUE(object.running());
   object.stop(true);
   EXPECT_EQ(2, runnable->ends.load());
   EXPECT_THROW(object.stop(true), DtThreadNotStarted) << "the thread is gone after stop(true)";
}

TEST(DtThreadedObjectTest, StopWithoutWaitSignalsAndAllowsARestart)
{
   auto runnable = std::make_shared<CountingRunnable>();
   DtThreadedObject object(runnable);
   object.start();
   ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 1; }));
   object.stop(false);
   EXPECT_FALSE(object.running());
   ASSERT_TRUE(waitFor([&] { return runnable->ends.load() == 1; }));
   object.stop(true);  // not running any more: only clears the flag
   object.start();     // replaces (and joins) the old thread
   ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 2; }));
   object.stop(true);
   EXPECT_EQ(2, runnable->ends.load());
}

TEST(DtThreadedObjectTest, JoinWaitsForABodyThatEndsByItself)
{
   auto runnable = std::make_shared<ShortRunnable>();
   DtThreadedObject object(runnable);
   object.start();
   ASSERT_TRUE(completesInTime([&] { object.join(); }));
   EXPECT_TRUE(runnable->ended.load());
   EXPECT_FALSE(object.running());
   object.start();  // a joined object starts again
   object.join();
}

TEST(DtThreadedObjectTest, SetRunnableObjectChecksItsInput)
{
   auto first = std::make_shared<CountingRunnable>();
   auto second = std::make_shared<CountingRunnable>();
   DtThreadedObject object;
   try
   {
      object.setRunnableObject(nullptr);
      FAIL() << "no exception";
   }
   catch (DtInvalidInput const& exception)
   {
      EXPECT_STREQ("DtInvalidInput: Input may not be null.", exception.message());
   }
   object.setRunnableObject(first);
   EXPECT_EQ(first, object.runnableObject());

   object.start();
   EXPECT_THROW(object.setRunnableObject(second), DtThreadAlreadyRunning);
   EXPECT_EQ(first, object.runnableObject());
   object.stop(true);

   object.setRunnableObject(second);
   object.start();
   ASSERT_TRUE(waitFor([&] { return second->runs.load() == 1; }));
   object.stop(true);
   EXPECT_EQ(1, first->runs.load());
}

TEST(DtThreadedObjectTest, DestroyingARunningObjectStopsAndJoins)
{
   auto runnable = std::make_shared<CountingRunnable>();
   {
      DtThreadedObject object(runnable);
      object.start();
      ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 1; }));
   }
   EXPECT_EQ(1, runnable->ends.load());
}

TEST(DtThreadedObjectTest, DestroyingAfterStopWithoutWaitJoinsTheLeftThread)
{
   auto runnable = std::make_shared<CountingRunnable>();
   {
      DtThreadedObject object(runnable);
      object.start();
      object.stop(false);
   }
   EXPECT_EQ(runnable->runs.load(), runnable->ends.load());
}

// ---------------------------------------------------------------- DtIoServiceRunnable

class IoServiceRunnableTest : public ::testing::Test
{
protected:
   // Posts `work` and waits (bounded) for it to have run on the I/O thread.
   bool runsOnIoThread(std::function<void()> work = [] {})
   {
      std::atomic<bool> done(false);
      std::atomic<unsigned long> where(0);
      boost::asio::post(io,
                        [&]
                        {
                           work();
                           where = DtGetThreadId();
                           done = true;
                        });
      if (!waitFor([&] { return done.load(); }))
      {
         return false;
      }
      return where.load() != DtGetThreadId();
   }

   boost::asio::io_context io;
   std::shared_ptr<DtIoServiceRunnable> runnable =
       std::make_shared<DtIoServiceRunnable>(&io, nullptr);
};

TEST_F(IoServiceRunnableTest, RunsPostedWorkAndStops)
{
   EXPECT_TRUE(runnable->finished());
   DtThreadedObject thread(runnable);
   thread.start();
   EXPECT_TRUE(runsOnIoThread());
   EXPECT_FALSE(runnable->finished());
   EXPECT_TRUE(completesInTime([&] { thread.stop(true); }));
   EXPECT_TRUE(runnable->finished());
}

TEST_F(IoServiceRunnableTest, KeepsRunningWithoutPendingWork)
{
   DtThreadedObject thread(runnable);
   thread.start();
   EXPECT_TRUE(runsOnIoThread());
   // With nothing pending the context would normally return; the work guard keeps it.
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_TRUE(runsOnIoThread());
   EXPECT_TRUE(completesInTime([&] { thread.stop(true); }));
}

TEST_F(IoServiceRunnableTest, SocketStyleStopSequence)
{
   DtThreadedObject thread(runnable);
   thread.start();
   ASSERT_TRUE(runsOnIoThread());
   runnable->stop(true);
   EXPECT_TRUE(completesInTime([&] { thread.stop(true); }));
   EXPECT_TRUE(runnable->finished());
}

TEST_F(IoServiceRunnableTest, StoppedContextIdlesUntilTheThreadStops)
{
   DtThreadedObject thread(runnable);
   thread.start();
   ASSERT_TRUE(runsOnIoThread());
   runnable->stop(true);
   ASSERT_TRUE(waitFor([&] { return io.stopped(); }));
   EXPECT_FALSE(runnable->finished()) << "stop(bool) alone does not end the loop";
   EXPECT_TRUE(completesInTime([&] { thread.stop(true); }));
   EXPECT_TRUE(runnable->finished());
}

TEST_F(IoServiceRunnableTest, StopWithoutWaitEndsTheLoop)
{
   DtThreadedObject thread(runnable);
   thread.start();
   ASSERT_TRUE(runsOnIoThread());
   thread.stop(false);
   EXPECT_TRUE(waitFor([&] { return runnable->finished(); }));
}

TEST_F(IoServiceRunnableTest, RestartsOnANewThread)
{
   DtThreadedObject thread(runnable);
   for (int round = 0; round < 3; ++round)
   {
      SCOPED_TRACE(round);
      thread.start();
      EXPECT_TRUE(runsOnIoThread());
      ASSERT_TRUE(completesInTime([&] { thread.stop(true); }));
   }
}

TEST_F(IoServiceRunnableTest, ImmediateStopAfterStart)
{
   for (int round = 0; round < 20; ++round)
   {
      SCOPED_TRACE(round);
      DtThreadedObject thread(runnable);
      thread.start();
      ASSERT_TRUE(completesInTime([&] { thread.stop(true); }));
      EXPECT_TRUE(runnable->finished());
   }
}

TEST_F(IoServiceRunnableTest, HandlerExceptionDoesNotEndTheLoop)
{
   DtThreadedObject thread(runnable);
   thread.start();
   boost::asio::post(io, [] { throw std::runtime_error("handler failed on purpose"); });
   EXPECT_TRUE(runsOnIoThread());
   EXPECT_TRUE(completesInTime([&] { thread.stop(true); }));
}

TEST_F(IoServiceRunnableTest, DestroyingTheThreadedObjectStopsTheLoop)
{
   {
      DtThreadedObject thread(runnable);
      thread.start();
      ASSERT_TRUE(runsOnIoThread());
   }
   EXPECT_TRUE(runnable->finished());
}

TEST(DtIoServiceRunnableTest, NullContextEndsAtOnce)
{
   auto runnable = std::make_shared<DtIoServiceRunnable>(nullptr, nullptr);
   DtThreadedObject thread(runnable);
   thread.start();
   EXPECT_TRUE(waitFor([&] { return runnable->finished(); }));
   runnable->stop(true);
   thread.stop(true);
   EXPECT_EQ(nullptr, runnable->ioService());
   EXPECT_EQ(nullptr, runnable->socket());
}

TEST(DtIoServiceRunnableTest, UnusedRunnableIsDestroyedAtOnce)
{
   boost::asio::io_context io;
   auto runnable = std::make_unique<DtIoServiceRunnable>(&io, nullptr);
   EXPECT_EQ(&io, runnable->ioService());
   EXPECT_TRUE(completesInTime([&] { runnable.reset(); }));
}

}  // namespace
