//===- olutil/olThread.h - Threads with a cooperative stop flag -*- C++ -*-===//
//
// Family: Concurrency.
//
// A small thread class on POSIX threads and the free functions that wrap the
// system's thread calls. DtThreadStart says what a thread runs (a DtRunnable or a
// plain function); DtThread starts it, hands it a stop flag to poll, and stops and
// joins it. Nothing above this layer calls pthread_* directly.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLTHREAD_H
#define OLUTIL_OLTHREAD_H

#include <memory>

#include <olutil/olMutex.h>

class DtRunnable;

// The stop flag a thread's body is handed is written by the owner's thread and read
// by the body's, so every access to it is atomic: these two are how it is read and
// written. A body given as a plain function polls DtStopRequested(stopFlag); a
// DtRunnable calls timeToStop(), which does the same. Setting the flag happens
// before any read that sees it set (release and acquire), so what the owner wrote
// before asking for the stop is visible to the body once it sees the request.
inline bool DtStopRequested(bool volatile const* stopFlag)
{
   return __atomic_load_n(stopFlag, __ATOMIC_ACQUIRE);
}
inline void DtSetStopFlag(bool volatile* stopFlag, bool value)
{
   __atomic_store_n(stopFlag, value, __ATOMIC_RELEASE);
}

// What a thread runs: either a DtRunnable (not owned) or a plain function given its
// argument and the thread's stop flag. A plain function can only watch the flag, so
// stop() reaches runnables only.
class DtThreadStart
{
public:
   explicit DtThreadStart(DtRunnable* runnable);
   DtThreadStart(void (*function)(void*, bool volatile*), void* argument);

   // Runs the body on the calling thread until it returns.
   void execute(bool volatile* stopFlag);
   // Passes a stop request on to the runnable; nothing for a plain function.
   void stop();

   DtRunnable* runnable() const { return runnable_; }

private:
   DtRunnable* runnable_;
   void (*function_)(void*, bool volatile*);
   void* argument_;
};

// One thread running one DtThreadStart.
//
//   State                          handle   stopRequested   running
//   Created                        0        true            false
//   Started, body not yet entered  set      false           false
//   Running                        set      false           true
//   Stop requested                 set      true            true
//   Body ended, not joined         set      either          false
//   Joined                         0        true            false
//
// Thread safety: start, stop(true) and destruction belong to the thread that owns
// the object; handle and hasStarted() are not guarded. stop(false), stopped(),
// isRunning() and join() may be called from any thread. The body reads the stop
// flag atomically (DtStopRequested) through the pointer it was given and must poll
// it: stop() only sets the flag and forwards the request to the runnable, it never
// interrupts the body. Setting the flag happens before the runnable's stop() is
// called, and it is forwarded once however many threads ask. The body's end happens
// before stop(true) and join() return, whichever thread joins the thread first: a
// join that finds another one under way waits for it. join() acts only on the
// thread this object started, so a join after the thread was joined cannot reach
// another thread that the system has since given the same identifier.
//
// stop() calls the runnable's stop() while holding this object's mutex, so a
// runnable's stop() must not wait for anything that needs that mutex.
//
// The destructor stops and joins a started thread: a body that never looks at its
// stop flag blocks the destructor for ever.
class DtThread
{
public:
   explicit DtThread(std::shared_ptr<DtThreadStart> threadStart);
   virtual ~DtThread();

   DtThread(DtThread const&) = delete;
   DtThread& operator=(DtThread const&) = delete;

   static unsigned long GetCurrentThreadHandle();

   // Starts the body on a new thread: 0 on success, 1 if no thread could be created
   // (the handle is then left as it was) or if a thread was started and not yet
   // joined by stop(true).
   virtual int start();
   // Runs the body on the calling thread until it returns; always 0. The handle
   // stays 0, so stop() has no effect on a body run this way.
   int startInCurrentThread();

   // Requests a stop (once) and, when wait is true, joins the thread and clears the
   // handle. Does nothing for a thread that was never started.
   void stop(bool wait);

   bool hasStarted() const { return handle_ != 0; }
   bool stopped();
   bool isRunning() const;
   // Joins the thread this object started: 0 once it has ended, 2 on failure (also
   // when never started, or when its thread was joined already).
   int join() const;

   unsigned long handle() const { return handle_; }

   // The body the new thread enters; public only for the start routine.
   void run();

private:
   unsigned long handle_;
   bool volatile stopRequested_;
   bool running_;
   std::shared_ptr<DtThreadStart> threadStart_;
   mutable DtMutex mutex_;
};

// Thin wrappers of the system's thread calls. A thread identifier is the value of
// pthread_t held in an unsigned long.
//
// DtThreadJoin and DtThreadStop act only on threads made by DtThreadCreate and not
// yet joined; any other identifier (0, a stale or made-up value) is refused with
// their failure result instead of being handed to the system, where it would be
// undefined behaviour. Each thread is joined once: a DtThreadJoin that finds another
// join of the same thread under way waits for that one and then returns 0 too, so
// every caller returns after the thread has ended. A thread cannot join itself (2).

// Creates a thread with default attributes running function(argument); writes the
// identifier to *id when id is not null. Returns the identifier, or 0 on failure.
unsigned long DtThreadCreate(void* (*function)(void*), void* argument, unsigned long* id);
// Ends the calling thread with the given value; does not return.
[[noreturn]] void DtThreadExit(void* value);
// The calling thread's identifier.
unsigned long DtGetThreadId();
// Waits for the thread to end; its exit value is dropped. 0 on success, 2 on failure.
int DtThreadJoin(unsigned long id);
// Sends a cancellation request to the thread. 0 on success, 1 on failure.
int DtThreadStop(unsigned long id);
// Releases per-thread resources; nothing is needed on this platform.
void DtThreadCleanUp(unsigned long id);

#endif  // OLUTIL_OLTHREAD_H
