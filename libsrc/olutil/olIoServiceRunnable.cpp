//===- olIoServiceRunnable.cpp - A thread body for Boost.Asio -------------===//
#include <olutil/olIoServiceRunnable.h>

#include <cxxabi.h>

#include <chrono>
#include <exception>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include <olutil/olPrint.h>
#include <olutil/olProcessControl.h>

namespace
{
// How long one io_context::run_for may block before the stop flag is looked at
// again. The thread's stop request only sets the flag (the owner stops the context
// through stop(bool)), so this bound is how a loop with work pending sees it.
constexpr std::chrono::milliseconds thePollPeriod(100);
// How long to idle between looks at the flag while the context stays stopped.
constexpr double theStoppedIdleSeconds = 0.01;

// Marks the loop finished however run() is left, a cancellation included.
class FinishedOnExit
{
public:
   explicit FinishedOnExit(std::atomic<bool>& finished) : finished_(finished) {}
   ~FinishedOnExit() { finished_ = true; }

private:
   std::atomic<bool>& finished_;
};
}  // namespace

DtIoServiceRunnable::DtIoServiceRunnable(void* ioService, DtInetSocket* socket)
    : finished_(true), ioService_(ioService), socket_(socket)
{
}

DtIoServiceRunnable::~DtIoServiceRunnable()
{
   // The flag belongs to the thread, which may be gone once the loop has finished;
   // only a loop still running is told to stop.
   if (!finished_ && stopFlag_)
   {
      DtSetStopFlag(stopFlag_, true);
   }
   while (!finished_)
   {
      DtSleep(0.1);
   }
}

void DtIoServiceRunnable::run()
{
   finished_ = false;
   FinishedOnExit markFinished(finished_);
   auto* const io = static_cast<boost::asio::io_context*>(ioService_);
   if (!io)
   {
      return;
   }
   // A context stopped at an earlier stop would make every run return at once.
   if (io->stopped())
   {
      io->restart();
   }
   auto const work = boost::asio::make_work_guard(*io);
   while (!timeToStop())
   {
      try
      {
         io->run_for(thePollPeriod);
      }
      catch (DtException const& exception)
      {
         DtWarn << "DtIoServiceRunnable::run(): handler failed: " << exception;
      }
      catch (std::exception const& exception)
      {
         DtWarn << "DtIoServiceRunnable::run(): handler failed: " << exception.what() << std::endl;
      }
      catch (abi::__forced_unwind&)
      {
         throw;  // a cancellation of this thread unwinds on
      }
      catch (...)
      {
         DtWarn << "DtIoServiceRunnable::run(): handler failed with an unknown exception"
                << std::endl;
      }
      // Stopped by stop(bool) without a stop request: idle until the flag is set
      // rather than spin on a run that returns at once.
      if (io->stopped() && !timeToStop())
      {
         DtSleep(theStoppedIdleSeconds);
      }
   }
}

void DtIoServiceRunnable::stop(bool)
{
   if (ioService_)
   {
      static_cast<boost::asio::io_context*>(ioService_)->stop();
   }
}
