// Tests of DtRunnable, DtThreadedObject and DtIoServiceRunnable.
#include <olutil/olThreadedObject.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
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
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return condition();
}

// Runs `action` on a helper thread and reports whether it finished within the bound.
// On a hang the helper is left behind (and the test fails) rather than blocking the
// whole program.
bool completesInTime(std::function<void()> action)
{
   std::packaged_task<void()> task(std::move(action));
   std::future<void> done = task.get_future();
   std::thread(std::move(task)).detach();
   return done.wait_for(theWaitBound) == std::future_status::ready;
}

// Runs until told to stop (bounded); `rounds` bounds a body that ends by itself.
class CountingRunnable : public DtRunnable
{
public:
   explicit CountingRunnable(long rounds = -1) : rounds_(rounds) {}
   void run() override
   {
      ++runs;
      threadId = DtGetThreadId();
      long round = 0;
      waitFor([&] { return timeToStop() || (++iterations, ++round == rounds_); });
      ++ends;
   }
   void stop() override { ++stopCalls; }

   std::atomic<int> runs{0}, ends{0}, stopCalls{0};
   std::atomic<long> iterations{0};
   std::atomic<unsigned long> threadId{0};

private:
   long const rounds_;
};

// The text of the exception of type E that `action` throws, or "" if it throws none.
template <typename E>
std::string thrownText(std::function<void()> const& action)
{
   try
   {
      action();
   }
   catch (E const& exception)
   {
      return std::string(exception.message()) + " @ " + exception.where().c_str();
   }
   return "";
}

TEST(DtThreadedObjectTest, MisuseThrowsItsOwnTypeAndText)
{
   CountingRunnable unattached;  // run without a stop flag is told to stop at once
   unattached.run();
   EXPECT_EQ(0, unattached.iterations.load());
   DtThreadedObject empty;
   EXPECT_EQ(0U, thrownText<DtInvalidInput>([&] { empty.start(); })
                     .find("DtInvalidInput: Runnable pointer may not be null. @ void "
                           "DtThreadedObject::start() [olThreadedObject.cpp:"));
   EXPECT_EQ(0U, thrownText<DtInvalidInput>([&] { empty.setRunnableObject(nullptr); })
                     .find("DtInvalidInput: Input may not be null. @ "));
   for (bool wait : {true, false})
      EXPECT_EQ(0U, thrownText<DtThreadNotStarted>([&] { empty.stop(wait); })
                        .find("DtThreadNotStarted: Thread must be started to be stopped. @ "));
   empty.join();  // before any start: returns at once
   EXPECT_FALSE(empty.running());

   auto runnable = std::make_shared<CountingRunnable>();
   auto other = std::make_shared<CountingRunnable>();
   {
      DtThreadedObject object(runnable);
      object.start();
      ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 1; }));
      for (auto misuse : {std::function<void()>([&] { object.start(); }),
                          std::function<void()>([&] { object.setRunnableObject(other); })})
         EXPECT_EQ(0U, thrownText<DtThreadAlreadyRunning>(misuse).find(
                           "DtThreadAlreadyRunning: Thread already running. @ "));
      EXPECT_EQ(runnable, object.runnableObject());
      long const before = runnable->iterations;
      EXPECT_TRUE(waitFor([&] { return runnable->iterations.load() > before; }))
          << "the body kept running";
      EXPECT_EQ(0, runnable->stopCalls.load());
   }  // destroying a running object stops and joins it
   EXPECT_TRUE(runnable->ends == 1 && runnable->stopCalls == 1 && other->runs == 0);
}

TEST(DtThreadedObjectTest, StopsWithAndWithoutWaitJoinsAndStartsAgain)
{
   auto runnable = std::make_shared<CountingRunnable>();
   {
      DtThreadedObject object(runnable);
      object.start();
      object.stop(true);
      EXPECT_TRUE(!object.running() && runnable->ends == 1);
      EXPECT_THROW(object.stop(true), DtThreadNotStarted) << "the thread is gone after stop(true)";
      object.start();
      ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 2; }));
      object.stop(false);
      EXPECT_FALSE(object.running()) << "at once, while the body may still run";
      ASSERT_TRUE(waitFor([&] { return runnable->ends.load() == 2; }));
      object.stop(true);  // not running any more: does not throw or wait
      object.start();     // replaces (and joins) the old thread
      ASSERT_TRUE(waitFor([&] { return runnable->runs.load() == 3; }));
      object.stop(false);
   }  // the destructor joins the thread left by stop(false)
   EXPECT_EQ(3, runnable->ends.load());

   auto finite = std::make_shared<CountingRunnable>(5);
   DtThreadedObject object(finite);
   object.start();
   ASSERT_TRUE(completesInTime([&] { object.join(); })) << "join waits for the body's own end";
   EXPECT_TRUE(finite->ends == 1 && !object.running());
}

// A body that takes a while to wind down after it sees the flag, and reports being
// destroyed before it has.
class SlowToEnd : public DtRunnable
{
public:
   explicit SlowToEnd(std::atomic<bool>& destroyedEarly) : destroyedEarly_(destroyedEarly) {}
   ~SlowToEnd() override { destroyedEarly_ = destroyedEarly_ || inRun; }
   void run() override
   {
      inRun = true;
      waitFor([this] { return timeToStop(); });
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      inRun = false;
   }
   std::atomic<bool> inRun{false};

private:
   std::atomic<bool>& destroyedEarly_;
};

TEST(DtThreadedObjectTest, ReplacingTheRunnableAfterStopWithoutWaitWaitsForTheOldBody)
{
   std::atomic<bool> destroyedEarly(false);
   auto slow = std::make_shared<SlowToEnd>(destroyedEarly);
   DtThreadedObject object(slow);
   object.start();
   ASSERT_TRUE(waitFor([&] { return slow->inRun.load(); }));
   object.stop(false);
   slow.reset();  // the object now holds the only reference
   object.setRunnableObject(std::make_shared<CountingRunnable>());
   EXPECT_FALSE(destroyedEarly.load()) << "the runnable was released while its body ran";
}

class IoServiceRunnableTest : public ::testing::Test
{
protected:
   // Posts work and waits (bounded) for it to have run on another thread.
   bool runsOnIoThread()
   {
      auto where = std::make_shared<std::atomic<unsigned long>>(0);
      boost::asio::post(io, [where] { *where = DtGetThreadId(); });
      return waitFor([&] { return *where != 0; }) && *where != DtGetThreadId();
   }

   boost::asio::io_context io;
   std::shared_ptr<DtIoServiceRunnable> runnable =
       std::make_shared<DtIoServiceRunnable>(&io, nullptr);
};

TEST_F(IoServiceRunnableTest, RunsPostedWorkUntilTheThreadStopsAgainAndAgain)
{
   EXPECT_TRUE(runnable->finished());
   auto owner = std::make_unique<DtThreadedObject>(runnable);
   for (int round = 0; round < 3; ++round)
   {
      SCOPED_TRACE(round);
      owner->start();
      EXPECT_TRUE(runsOnIoThread());
      EXPECT_FALSE(runnable->finished());
      // With nothing pending the context would return; the loop keeps it running.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      boost::asio::post(io, [] { throw std::runtime_error("handler failed on purpose"); });
      EXPECT_TRUE(runsOnIoThread()) << "a failed handler does not end the loop";
      if (round == 1)
      {
         runnable->stop(true);  // the sockets' order: stop the context, then the thread
         ASSERT_TRUE(waitFor([&] { return io.stopped(); }));
         EXPECT_FALSE(runnable->finished()) << "stop(bool) alone does not end the loop";
      }
      // The last round ends by destroying the threaded object.
      ASSERT_TRUE(completesInTime([&] { round < 2 ? owner->stop(true) : owner.reset(); }));
      EXPECT_TRUE(runnable->finished());
   }
}

TEST_F(IoServiceRunnableTest, StoppingTheThreadLeavesTheContextToItsOwnerAndANullOneEnds)
{
   auto const work = boost::asio::make_work_guard(io);  // the owner's outstanding work
   DtThreadedObject thread(runnable);
   thread.start();
   ASSERT_TRUE(runsOnIoThread());
   ASSERT_TRUE(completesInTime([&] { thread.stop(true); }));
   EXPECT_FALSE(io.stopped()) << "only stop(bool) stops the context";
   bool ran = false;
   boost::asio::post(io, [&] { ran = true; });
   io.poll();
   EXPECT_TRUE(ran);

   // A null context ends at once, and an unused runnable goes at once.
   auto lost = std::make_shared<DtIoServiceRunnable>(nullptr, nullptr);
   DtThreadedObject nothing(lost);
   nothing.start();
   EXPECT_TRUE(waitFor([&] { return lost->finished(); }));
   nothing.stop(true);
   auto unused = std::make_unique<DtIoServiceRunnable>(&io, nullptr);
   EXPECT_TRUE(completesInTime([&] { unused.reset(); }));
}

}  // namespace
