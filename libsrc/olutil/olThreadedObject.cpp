//===- olThreadedObject.cpp - Runnables and their threads -----------------===//
#include <olutil/olThreadedObject.h>

#include <cxxabi.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>

namespace
{
char const* const theAlreadyRunningText = "Thread already running.";

// Thrown inside start() when the system refuses a thread, so that it takes the same
// path as any other failure to start.
struct ThreadNotCreated
{
};

// The join() calls that wait for a body without holding their object's lock. The
// DtThread such a call waits on must outlive the wait, so whoever would delete it or
// join it again (stop, start, setRunnableObject and the destructor, each under the
// object's lock) first takes it over: it waits until those calls are done with the
// DtThread, and marks them so that they leave the running flag alone, since by the
// time they get the object's lock back it may be on a new run.
class PendingJoins
{
   struct Join
   {
      DtThread const* thread;
      bool done;
      bool takenOver;
   };

public:
   static PendingJoins& instance()
   {
      // Never destroyed: threaded objects may still be stopped while static objects go.
      static PendingJoins* const thePending = new PendingJoins;
      return *thePending;
   }

   // One join() waiting on one DtThread, from the object's lock to its release.
   class Ticket
   {
   public:
      // Made under the object's lock.
      explicit Ticket(DtThread const* thread) : pending_(instance())
      {
         std::lock_guard<std::mutex> guard(pending_.mutex_);
         join_ = pending_.joins_.insert(pending_.joins_.end(), Join{thread, false, false});
      }
      ~Ticket()
      {
         std::lock_guard<std::mutex> guard(pending_.mutex_);
         pending_.finish(join_);
         pending_.joins_.erase(join_);
      }
      Ticket(Ticket const&) = delete;
      Ticket& operator=(Ticket const&) = delete;

      // The join is done with its DtThread: whoever takes it over may go on.
      void finish()
      {
         std::lock_guard<std::mutex> guard(pending_.mutex_);
         pending_.finish(join_);
      }
      // Asked under the object's lock.
      bool takenOver() const
      {
         std::lock_guard<std::mutex> guard(pending_.mutex_);
         return join_->takenOver;
      }

   private:
      PendingJoins& pending_;
      std::list<Join>::iterator join_;
   };

   // Called under the object's lock, after the thread was told to stop: returns once
   // no join() uses the thread any more.
   void takeOver(DtThread const* thread)
   {
      std::unique_lock<std::mutex> lock(mutex_);
      for (Join& join : joins_)
      {
         join.takenOver = join.takenOver || join.thread == thread;
      }
      finished_.wait(lock,
                     [&]
                     {
                        for (Join const& join : joins_)
                        {
                           if (join.thread == thread && !join.done)
                           {
                              return false;
                           }
                        }
                        return true;
                     });
   }

private:
   // Called with mutex_ held.
   void finish(std::list<Join>::iterator join)
   {
      join->done = true;
      finished_.notify_all();
   }

   std::mutex mutex_;
   std::condition_variable finished_;
   std::list<Join> joins_;
};

// Tells the body of `thread` to stop and waits until it has ended, whoever else is
// joining it: the join() calls under way end with the body, and the thread is
// joined here unless one of them has done it. Called with the object's lock held;
// `thread` stays, with its handle cleared.
void endThread(DtThread* thread)
{
   thread->stop(false);
   PendingJoins::instance().takeOver(thread);
   thread->stop(true);
}
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
   // A thread left behind by stop(false) or join() is ended and joined here.
   DtScopedLock lock(mutex_, true);
   if (thread_)
   {
      endThread(thread_);
      delete thread_;
      thread_ = nullptr;
   }
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
      endThread(thread_);
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
   // One lock from the test of the thread to its last use: a stop on another thread
   // cannot delete it in between.
   DtScopedLock lock(mutex_, true);
   if (!thread_)
   {
      DtThrowException(DtThreadNotStartedCode, "Thread must be started to be stopped.");
   }
   if (wait && thread_->handle() == DtGetThreadId())
   {
      // The body stopping its own object cannot wait for its own end, and must not
      // delete the DtThread it runs in: the request is passed on as stop(false), and
      // the thread is joined at the next start or at destruction.
      wait = false;
   }
   if (wait)
   {
      // Waits for the body also after stop(false), and while another thread waits in
      // join(): when stop(true) returns, the body has ended.
      endThread(thread_);
      if (running())
      {
         delete thread_;
         thread_ = nullptr;
      }
   }
   else if (running())
   {
      thread_->stop(false);
   }
   setRunning(false);
}

void DtThreadedObject::join()
{
   std::optional<PendingJoins::Ticket> ticket;
   DtThread* thread = nullptr;
   {
      DtScopedLock lock(mutex_, true);
      if (!thread_ || !running())
      {
         return;
      }
      thread = thread_;
      ticket.emplace(thread);
   }
   // No lock while waiting, so a body that asks running() does not hold up its end.
   // The ticket keeps the DtThread alive until the wait is over.
   thread->join();
   ticket->finish();
   DtScopedLock lock(mutex_, true);
   if (!ticket->takenOver())
   {
      setRunning(false);
   }
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
      endThread(thread_);
   }
   runnable_ = std::move(runnable);
}

std::shared_ptr<DtRunnable> DtThreadedObject::runnableObject() const
{
   DtScopedLock lock(mutex_, true);
   return runnable_;
}
