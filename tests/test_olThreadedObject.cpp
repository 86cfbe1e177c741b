// Tests of DtThreadedObject and DtIoServiceRunnable.
#include <olutil/olThreadedObject.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

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
      waitFor([&] { return timeToStop() || ++round == rounds; });
      std::this_thread::sleep_for(std::chrono::milliseconds(lingerMs));
      ++ends;
   }
   void stop() override { ++stopCalls; }
   std::atomic<int> runs{0}, ends{0}, stopCalls{0};
   long rounds = -1;
   int lingerMs = 0;
   static inline std::atomic<bool> destroyedInRun{false};
};

// Misuse throws; stop(true) returns after the body, also after a stop(false);
// start() replaces the thread.
TEST(DtThreadedObjectTest, StopsWithAndWithoutWaitJoinsAndStartsAgain)
{
   DtThreadedObject empty;
   EXPECT_THROW(empty.start(), DtInvalidInput);
   EXPECT_THROW(empty.stop(false), DtThreadNotStarted);
   empty.join();  // before any start: returns at once

   auto runnable = std::make_shared<CountingRunnable>();
   runnable->lingerMs = 50;  // slow to wind down, so an early return shows
   DtThreadedObject object(runnable);
   object.start();
   try
   {
      object.start();
      ADD_FAILURE() << "a second start while running";
   }
   catch (DtThreadAlreadyRunning const& e)
   {
      EXPECT_STREQ("DtThreadAlreadyRunning: Thread already running.", e.message());
   }
   object.stop(true);
   EXPECT_TRUE(!object.running() && runnable->ends == 1);
   EXPECT_THROW(object.stop(true), DtThreadNotStarted) << "the thread is gone after stop(true)";
   object.start();
   object.stop(false);
   EXPECT_FALSE(object.running()) << "at once, while the body may still run";
   object.stop(true);
   EXPECT_EQ(2, runnable->ends.load()) << "stop(true) returned while the body still ran";
   EXPECT_NO_THROW(object.stop(true)) << "the thread stays after stop(false)";
   object.start();
   object.stop(false);
   object.start();  // replaces (and joins) the old thread
   EXPECT_TRUE(waitFor([&] { return runnable->runs.load() == 4; }) && runnable->ends == 3);
   object.stop(false);
   runnable.reset();  // the object now holds the only reference
   object.setRunnableObject(std::make_shared<CountingRunnable>());
   EXPECT_FALSE(CountingRunnable::destroyedInRun) << "the runnable was released while it ran";

   auto endless = std::make_shared<CountingRunnable>();
   {
      DtThreadedObject destroyed(endless);
      destroyed.start();
      ASSERT_TRUE(waitFor([&] { return endless->runs.load() == 1; }));
   }  // destroying a running object stops and joins it
   EXPECT_TRUE(endless->ends == 1 && endless->stopCalls == 1);
}

// stop(false) and stop(true) from two threads at once, in both roles: the thread
// pointer is tested and used under one lock, and stop(true) returns after the body.
// Then while one or two threads wait in join(), stop(true) from another still waits
// for the body, and does not free what the body and the joiners use.
TEST(DtThreadedObjectTest, StopsAndJoinsFromSeveralThreadsAtOnce)
{
   auto runnable = std::make_shared<CountingRunnable>();
   DtThreadedObject object(runnable);
   auto stop = [&object](bool wait)
   {
      try
      {
         object.stop(wait);
      }
      catch (DtThreadNotStarted const&)
      {
         EXPECT_FALSE(wait) << "stop(false) never removes the thread";
      }
   };
   for (int round = 0; round < 300; ++round)
   {
      SCOPED_TRACE(round);
      bool const otherWaits = round % 2 == 1;
      object.start();
      std::thread other(stop, otherWaits);
      stop(!otherWaits);
      other.join();
      ASSERT_EQ(round + 1, runnable->ends.load()) << "a stop(true) returned before the body ended";
      ASSERT_FALSE(object.running());
   }
   runnable->lingerMs = 20;
   for (int round = 300; round < 320; ++round)
   {
      SCOPED_TRACE(round);
      object.start();
      std::atomic<int> joining{0};
      std::vector<std::thread> joiners;
      for (int i = 0; i <= round % 2; ++i)
         joiners.emplace_back([&] { ++joining, object.join(); });
      waitFor([&] { return joining.load() == round % 2 + 1; });
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // most often joining by now
      object.stop(true);
      EXPECT_EQ(round + 1, runnable->ends.load()) << "stop(true) returned before the body ended";
      for (std::thread& joiner : joiners)
         joiner.join();
      EXPECT_FALSE(object.running());
   }
   // A body that ends by itself while one thread joins and another stops.
   auto finite = std::make_shared<CountingRunnable>();
   finite->rounds = 20;
   object.setRunnableObject(finite);
   object.start();
   std::thread joiner([&] { object.join(); });
   object.stop(true);
   joiner.join();
   EXPECT_TRUE(finite->ends == 1 && !object.running());
}

// A body may stop its own object: it cannot wait for its own end, so the request
// only signals, and the thread is joined later.
TEST(DtThreadedObjectTest, BodyStopsItsOwnObject)
{
   struct SelfStopping : DtRunnable
   {
      void run() override
      {
         owner->stop(true);
         sawStop = timeToStop();
      }
      DtThreadedObject* owner = nullptr;
      std::atomic<int> sawStop{-1};
   };
   auto runnable = std::make_shared<SelfStopping>();
   DtThreadedObject object(runnable);
   runnable->owner = &object;
   object.start();
   EXPECT_TRUE(waitFor([&] { return runnable->sawStop.load() == 1; }) && !object.running());
}  // the object joins the thread the body left behind

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
      EXPECT_TRUE(runsOnIoThread() && !runnable->finished());
      // With nothing pending the context would return; the loop keeps it running.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      EXPECT_TRUE(runsOnIoThread());
      if (round == 1)  // the sockets' order: stop the context, then the thread
         runnable->stop(true);
      EXPECT_TRUE(round != 1 || (io.stopped() && !runnable->finished())) << "only the context";
      round < 2 ? owner->stop(true) : owner.reset();  // the last round destroys the owner
      EXPECT_TRUE(runnable->finished() && (round > 0 || !io.stopped())) << round;  // context kept
      work.reset();
   }
}

}  // namespace
