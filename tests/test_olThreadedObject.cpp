// Tests of DtThreadedObject and DtIoServiceRunnable.
#include <olutil/olThreadedObject.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <gtest/gtest.h>

#include <olutil/olIoServiceRunnable.h>

namespace
{

bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return condition();
}

// Runs until told to stop, or for `rounds` rounds; then lingers `lingerMs` before it ends.
class CountingRunnable : public DtRunnable
{
public:
   ~CountingRunnable() override { destroyedInRun = destroyedInRun || runs != ends; }
   void run() override
   {
      ++runs;
      long round = 0;
      waitFor([&] { return timeToStop() || (++iterations, ++round == rounds); });
      std::this_thread::sleep_for(std::chrono::milliseconds(lingerMs));
      ++ends;
   }
   void stop() override { ++stopCalls; }
   std::atomic<int> runs{0}, ends{0}, stopCalls{0};
   std::atomic<long> iterations{0};
   long rounds = -1;
   int lingerMs = 0;
   static inline std::atomic<bool> destroyedInRun{false};
};

// Whether `action` throws a DtException whose "message @ where" starts with `text`.
bool throws(std::function<void()> const& action, std::string const& text)
{
   try
   {
      action();
   }
   catch (DtException const& e)
   {
      return (std::string(e.message()) + " @ " + e.where().c_str()).rfind(text, 0) == 0;
   }
   return false;
}

TEST(DtThreadedObjectTest, MisuseThrowsItsOwnTypeAndText)
{
   DtThreadedObject empty;
   EXPECT_TRUE(throws([&] { empty.start(); },
                      "DtInvalidInput: Runnable pointer may not be null. @ void "
                      "DtThreadedObject::start() [olThreadedObject.cpp:"));
   EXPECT_TRUE(throws([&] { empty.setRunnableObject(nullptr); },
                      "DtInvalidInput: Input may not be null. @ "));
   EXPECT_TRUE(throws([&] { empty.stop(false); },
                      "DtThreadNotStarted: Thread must be started to be stopped. @ "));
   empty.join();  // before any start: returns at once

   auto runnable = std::make_shared<CountingRunnable>();
   {
      DtThreadedObject object(runnable);
      object.start();
      ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 1; }));
      EXPECT_TRUE(
          throws([&] { object.start(); }, "DtThreadAlreadyRunning: Thread already running. @ "));
      EXPECT_THROW(object.setRunnableObject(std::make_shared<CountingRunnable>()),
                   DtThreadAlreadyRunning);
      EXPECT_EQ(runnable, object.runnableObject());
      long const before = runnable->iterations;
      EXPECT_TRUE(waitFor([&] { return runnable->iterations.load() > before; }));
   }  // destroying a running object stops and joins it
   EXPECT_TRUE(runnable->ends == 1 && runnable->stopCalls == 1);
}

TEST(DtThreadedObjectTest, StopsWithAndWithoutWaitJoinsAndStartsAgain)
{
   auto runnable = std::make_shared<CountingRunnable>();
   runnable->lingerMs = 100;  // slow to wind down
   DtThreadedObject object(runnable);
   object.start();
   object.stop(true);
   EXPECT_TRUE(!object.running() && runnable->ends == 1);
   EXPECT_THROW(object.stop(true), DtThreadNotStarted) << "the thread is gone after stop(true)";
   object.start();
   ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 2; }));
   object.stop(false);
   EXPECT_FALSE(object.running()) << "at once, while the body may still run";
   object.start();  // replaces (and joins) the old thread
   EXPECT_TRUE(waitFor([&] { return runnable->runs.load() == 3; }) && runnable->ends == 2);
   object.stop(false);
   runnable.reset();  // the object now holds the only reference
   object.setRunnableObject(std::make_shared<CountingRunnable>());
   EXPECT_FALSE(CountingRunnable::destroyedInRun) << "the runnable was released while it ran";

   auto finite = std::make_shared<CountingRunnable>();
   finite->rounds = 5;
   DtThreadedObject joined(finite);
   joined.start();
   joined.join();  // waits for the body's own end
   EXPECT_TRUE(finite->ends == 1 && !joined.running());
}

TEST(DtIoServiceRunnableTest, RunsPostedWorkUntilTheThreadStopsAgainAndAgain)
{
   boost::asio::io_context io;
   auto runnable = std::make_shared<DtIoServiceRunnable>(&io, nullptr);
   auto runsOnIoThread = [&io]
   {
      auto where = std::make_shared<std::atomic<unsigned long>>(0);
      boost::asio::post(io, [where] { *where = DtGetThreadId(); });
      return waitFor([&] { return *where != 0; }) && *where != DtGetThreadId();
   };
   auto work = boost::asio::make_work_guard(io);  // the owner's work, for the first round
   auto owner = std::make_unique<DtThreadedObject>(runnable);
   for (int round = 0; round < 3; ++round)
   {
      owner->start();
      EXPECT_TRUE(runsOnIoThread());
      EXPECT_FALSE(runnable->finished());
      // With nothing pending the context would return; the loop keeps it running.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      EXPECT_TRUE(runsOnIoThread());
      if (round == 1)
      {
         runnable->stop(true);  // the sockets' order: stop the context, then the thread
         EXPECT_TRUE(io.stopped() && !runnable->finished()) << "stop(bool) stops only the context";
      }
      round < 2 ? owner->stop(true) : owner.reset();  // the last round destroys the owner
      EXPECT_TRUE(runnable->finished() && (round > 0 || !io.stopped())) << round;  // context kept
      work.reset();
   }
   auto unused = std::make_unique<DtIoServiceRunnable>(&io, nullptr);
   unused.reset();  // never run: goes at once
}

}  // namespace
