//===- olutil/olThreadedObject.h - Runnables and their threads --*- C++ -*-===//
//
// Family: Concurrency.
//
// DtRunnable is a body of work that runs on a thread and polls a stop flag.
// DtThreadedObject owns the thread for one runnable and checks its use: starting a
// running object, stopping one never started, or starting without a runnable throws
// a DtTemplatedException whose code names the misuse.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLTHREADEDOBJECT_H
#define OLUTIL_OLTHREADEDOBJECT_H

#include <memory>

#include <olutil/olExceptions.h>
#include <olutil/olMutex.h>
#include <olutil/olThread.h>

// The misuses of a threaded object are the DtTemplatedException types of
// <olutil/olExceptions.h>, each its own type to be caught by type and thrown by
// value; what() is the name, ": " and the reason, where() the raising function,
// file and line:
//   DtInvalidInput (-1), DtThreadAlreadyRunning (1001), DtThreadNotStarted (1002),
//   DtThreadCreationError (1003); DtThreadWouldDeadlock (1004) is reserved and
//   nothing in the library throws it.

// A body of work for a thread. Derived classes implement run(), which must poll
// timeToStop() and return soon after it turns true; stop() may be overridden to
// wake a run() that is blocked elsewhere (the default does nothing).
//
// Thread safety: run() executes on the thread that called execute(). stop() is
// called from the owner's thread while the owner holds its thread's lock, after the
// stop flag was set; it must not block. The flag is written by the owner's thread
// and read by run()'s: timeToStop() reads it atomically, and a derived class that
// touches stopFlag_ itself goes through DtStopRequested and DtSetStopFlag.
class DtRunnable
{
public:
   DtRunnable() : stopFlag_(nullptr) {}
   virtual ~DtRunnable() = default;

   virtual void run() = 0;
   virtual void stop() {}

   // Stores the flag and runs the body on the calling thread.
   void execute(bool volatile* stopFlag)
   {
      stopFlag_ = stopFlag;
      run();
   }

   // True once a stop has been requested. Meant for run(): a runnable whose run() is
   // called directly, with no flag installed by execute(), is told to stop.
   bool timeToStop() const { return stopFlag_ == nullptr || DtStopRequested(stopFlag_); }

protected:
   bool volatile* stopFlag_;
};

// Owns the thread of one runnable: idle, then running, then idle again, and it can
// be started again after a stop (the old thread is replaced).
//
//   DtThreadedObject worker(std::make_shared<MyRunnable>());
//   worker.start();        // throws DtThreadAlreadyRunning if running
//   ...
//   worker.stop(true);     // sets the flag and waits for run() to return
//
// Thread safety: every operation but destruction may be called from any thread, also
// while another thread is inside one: each tests and uses the thread under the
// object's lock. The lock is recursive and is held while stop(true), start() and
// setRunnableObject() wait for a body, so a body that calls running() or
// runnableObject() on its owner at that time waits for ever; join() waits without
// it. The body's end happens before stop(true) returns, whoever else is joining the
// thread and also after an earlier stop(false); a join() under way on another thread
// returns when the body ends. A body that calls stop(true) on its own object cannot
// wait for itself: the request then acts as stop(false). After stop(false),
// running() is false at once although the body may still run until it sees the
// flag; the thread is joined at the next start(), stop(true) or destruction. The
// runnable's stop() is called once per run, when a stop is first requested.
class DtThreadedObject
{
public:
   DtThreadedObject();
   explicit DtThreadedObject(std::shared_ptr<DtRunnable> runnable);
   virtual ~DtThreadedObject();

   DtThreadedObject(DtThreadedObject const&) = delete;
   DtThreadedObject& operator=(DtThreadedObject const&) = delete;

   // Starts the runnable on a new thread. Throws DtInvalidInput without a runnable,
   // DtThreadAlreadyRunning while running, DtThreadCreationError when no thread
   // could be started.
   void start();
   // Requests a stop; with wait true also waits for the body to end. Throws
   // DtThreadNotStarted if no thread was ever started, or after stop(true) removed it.
   void stop(bool wait);
   // Waits for a running body to end by itself; returns at once if never started or
   // not running (after stop(false), say).
   void join();

   bool running() const;
   void setRunning(bool running);

   // Throws DtThreadAlreadyRunning while running and DtInvalidInput for an empty
   // pointer; the old runnable stays in either case. A body still ending after
   // stop(false) is waited for before its runnable is let go.
   void setRunnableObject(std::shared_ptr<DtRunnable> runnable);
   std::shared_ptr<DtRunnable> runnableObject() const;

private:
   bool isRunning_;
   std::shared_ptr<DtRunnable> runnable_;
   DtThread* thread_;
   mutable DtMutex mutex_;
};

#endif  // OLUTIL_OLTHREADEDOBJECT_H
