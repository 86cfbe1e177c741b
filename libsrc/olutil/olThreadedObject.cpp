//===- olThreadedObject.cpp - Runnables and their threads -----------------===//
#include <olutil/olThreadedObject.h>

#include <cxxabi.h>

namespace
{
char const* const theAlreadyRunningText = "Thread already running.";

// Thrown inside start() when the system refuses a thread, so that it takes the same
// path as any other failure to start.
struct ThreadNotCreated
{
};
}  // namespace

DtThreadedObject::DtThreadedObject() : isRunning_(false), runnable_(), thread_(nullptr) {}

DtThreadedObject::DtThreadedObject(std::shared_ptr<DtRunnable> runnable)
    : isRunning_(false), runnable_(std::move(runnable)), thread_(nullptr)
{
}

DtThreadedObject::~DtThreadedObject()
{
   if (running() && thread_)
   {
      try
      {
         stop(true);
      }
      catch (...)
      {
         try
         {
            join();
         }
         catch (...)
         {
         }
      }
   }
   // A thread left behind by stop(false) is joined here: DtThread's destructor
   // waits for its body.
   delete thread_;
   thread_ = nullptr;
}

void DtThreadedObject::start()
{
   DtScopedLock lock(mutex_, true);
   if (!runnable_)
   {
      DtThrowException(DtInvalidInputCode, "Runnable pointer may not be null.");
   }
   // The mutex is recursive: running() and setRunning() take it again.
   if (running())
   {
      DtThrowException(DtThreadAlreadyRunningCode, theAlreadyRunningText);
   }
   setRunning(true);
   if (thread_)
   {
      delete thread_;
      thread_ = nullptr;
   }
   try
   {
      thread_ = new DtThread(std::make_shared<DtThreadStart>(runnable_.get()));
      if (thread_->start() != 0)
      {
         throw ThreadNotCreated();
      }
   }
   catch (abi::__forced_unwind&)
   {
      throw;  // a cancellation of the calling thread unwinds on
   }
   catch (...)
   {
      setRunning(false);
      delete thread_;
      thread_ = nullptr;
      DtThrowException(DtThreadCreationErrorCode, "Failed to start.");
   }
}

void DtThreadedObject::stop(bool wait)
{
   {
      DtScopedLock lock(mutex_, true);
      if (!thread_)
      {
         DtThrowException(DtThreadNotStartedCode, "Thread must be started to be stopped.");
      }
   }
   if (running())
   {
      DtScopedLock lock(mutex_, true);
      if (wait)
      {
         // The destructor sets the stop flag and blocks until the body returns.
         delete thread_;
         thread_ = nullptr;
      }
      else
      {
         thread_->stop(false);
      }
   }
   setRunning(false);
}

void DtThreadedObject::join()
{
   DtThread* thread = nullptr;
   {
      DtScopedLock lock(mutex_, true);
      thread = thread_;
   }
   if (!thread)
   {
      return;
   }
   // No lock while waiting, so a body that asks running() does not hold up its end.
   if (running())
   {
      thread->join();
   }
   setRunning(false);
}

bool DtThreadedObject::running() const
{
   DtScopedLock lock(mutex_, true);
   return isRunning_;
}

void DtThreadedObject::setRunning(bool running)
{
   DtScopedLock lock(mutex_, true);
   isRunning_ = running;
}

void DtThreadedObject::setRunnableObject(std::shared_ptr<DtRunnable> runnable)
{
   DtScopedLock lock(mutex_, true);
   if (running())
   {
      DtThrowException(DtThreadAlreadyRunningCode, theAlreadyRunningText);
   }
   if (!runnable)
   {
      DtThrowException(DtInvalidInputCode, "Input may not be null.");
   }
   // After stop(false) the old body may still run on the runnable about to be
   // released: wait for it, keeping the DtThread for the next start.
   if (thread_)
   {
      thread_->stop(true);
   }
   runnable_ = std::move(runnable);
}

std::shared_ptr<DtRunnable> DtThreadedObject::runnableObject() const
{
   DtScopedLock lock(mutex_, true);
   return runnable_;
}
