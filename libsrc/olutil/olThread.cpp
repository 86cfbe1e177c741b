//===- olThread.cpp - Threads with a cooperative stop flag ----------------===//
#include <olutil/olThread.h>

#include <pthread.h>
#include <unistd.h>

#include <cxxabi.h>

#include <mutex>
#include <unordered_set>

#include <olutil/olThreadedObject.h>

namespace
{

// The threads made by DtThreadCreate that nobody has joined yet. pthread_join and
// pthread_cancel on an identifier that is not a live, joinable thread are undefined
// behaviour (glibc dereferences it), so the wrappers refuse identifiers not found
// here. Joining removes the entry first, so a thread is joined at most once.
class JoinableThreads
{
public:
   static JoinableThreads& instance()
   {
      // Never destroyed: threads may still be joined while static objects go away.
      static JoinableThreads* const theRegistry = new JoinableThreads;
      return *theRegistry;
   }

   std::mutex& mutex() { return mutex_; }
   // Called with mutex() held.
   void add(unsigned long id) { ids_.insert(id); }
   // Cancels under the lock, so the thread cannot be joined and its identifier
   // released in between.
   bool cancel(unsigned long id)
   {
      std::lock_guard<std::mutex> guard(mutex_);
      return ids_.count(id) != 0 && pthread_cancel(static_cast<pthread_t>(id)) == 0;
   }
   bool claim(unsigned long id)
   {
      std::lock_guard<std::mutex> guard(mutex_);
      return ids_.erase(id) != 0;
   }
   void restore(unsigned long id)
   {
      std::lock_guard<std::mutex> guard(mutex_);
      ids_.insert(id);
   }

private:
   std::mutex mutex_;
   std::unordered_set<unsigned long> ids_;
};

// Clears `running` however the body ends: by returning, by an exception or by the
// forced unwinding of a cancellation or of DtThreadExit.
class RunningFlagReset
{
public:
   RunningFlagReset(DtMutex& mutex, bool& running) : mutex_(mutex), running_(running) {}
   ~RunningFlagReset()
   {
      DtScopedLock lock(mutex_, true);
      running_ = false;
   }

private:
   DtMutex& mutex_;
   bool& running_;
};

void* threadRunHelper(void* argument)
{
   try
   {
      static_cast<DtThread*>(argument)->run();
   }
   catch (abi::__forced_unwind&)
   {
      // Cancellation and pthread_exit unwind the stack; that must go on.
      throw;
   }
   catch (...)
   {
      // Any other exception must not leave a thread's start routine, where it would
      // end the process; the body is over either way.
   }
   DtThreadExit(nullptr);
}

}  // namespace

// ---------------------------------------------------------------- DtThreadStart

DtThreadStart::DtThreadStart(DtRunnable* runnable)
    : runnable_(runnable), function_(nullptr), argument_(nullptr)
{
}

DtThreadStart::DtThreadStart(void (*function)(void*, bool volatile*), void* argument)
    : runnable_(nullptr), function_(function), argument_(argument)
{
}

void DtThreadStart::execute(bool volatile* stopFlag)
{
   if (function_)
   {
      function_(argument_, stopFlag);
   }
   else if (runnable_)
   {
      runnable_->execute(stopFlag);
   }
}

void DtThreadStart::stop()
{
   if (!function_ && runnable_)
   {
      runnable_->stop();
   }
}

// ---------------------------------------------------------------- DtThread

DtThread::DtThread(std::shared_ptr<DtThreadStart> threadStart)
    : handle_(0), stopRequested_(true), running_(false), threadStart_(std::move(threadStart))
{
}

DtThread::~DtThread()
{
   if (handle_ != 0)
   {
      stop(true);
   }
}

unsigned long DtThread::GetCurrentThreadHandle()
{
   return DtGetThreadId();
}

int DtThread::start()
{
   // A second start would lose the first thread, which could then never be joined.
   if (handle_ != 0)
   {
      return 1;
   }
   stopRequested_ = false;
   unsigned long id = 0;
   unsigned long const result = DtThreadCreate(threadRunHelper, this, &id);
   if (result == 0)
   {
      return 1;
   }
   handle_ = result;
   return 0;
}

int DtThread::startInCurrentThread()
{
   stopRequested_ = false;
   run();
   return 0;
}

void DtThread::stop(bool wait)
{
   if (!hasStarted())
   {
      return;
   }
   if (!stopped())
   {
      DtScopedLock lock(mutex_, true);
      stopRequested_ = true;
      if (threadStart_)
      {
         threadStart_->stop();
      }
   }
   if (!wait)
   {
      return;
   }
   join();
   // Kept on purpose as the counterpart of the handle release that other platforms
   // need here; on this one it is harmless and its result does not matter.
   (void)::close(static_cast<int>(handle_ & 0xffffffffUL));
   handle_ = 0;
}

bool DtThread::stopped()
{
   DtScopedLock lock(mutex_, true);
   return stopRequested_;
}

bool DtThread::isRunning() const
{
   DtScopedLock lock(mutex_, true);
   return running_;
}

int DtThread::join() const
{
   return DtThreadJoin(handle_);
}

void DtThread::run()
{
   {
      DtScopedLock lock(mutex_, true);
      running_ = true;
   }
   RunningFlagReset reset(mutex_, running_);
   if (threadStart_)
   {
      threadStart_->execute(&stopRequested_);
   }
}

// ---------------------------------------------------------------- free functions

unsigned long DtThreadCreate(void* (*function)(void*), void* argument, unsigned long* id)
{
   JoinableThreads& registry = JoinableThreads::instance();
   // Held across the creation so the new thread cannot be joined or cancelled by
   // its own identifier before it is registered.
   std::lock_guard<std::mutex> guard(registry.mutex());
   pthread_t thread;
   if (pthread_create(&thread, nullptr, function, argument) != 0)
   {
      return 0;
   }
   unsigned long const result = static_cast<unsigned long>(thread);
   registry.add(result);
   if (id)
   {
      *id = result;
   }
   return result;
}

void DtThreadExit(void* value)
{
   pthread_exit(value);
}

unsigned long DtGetThreadId()
{
   return static_cast<unsigned long>(pthread_self());
}

int DtThreadJoin(unsigned long id)
{
   JoinableThreads& registry = JoinableThreads::instance();
   if (id == 0 || !registry.claim(id))
   {
      return 2;
   }
   if (pthread_join(static_cast<pthread_t>(id), nullptr) != 0)
   {
      // Still joinable (a thread that tried to join itself, for one).
      registry.restore(id);
      return 2;
   }
   return 0;
}

int DtThreadStop(unsigned long id)
{
   if (id == 0 || !JoinableThreads::instance().cancel(id))
   {
      return 1;
   }
   return 0;
}

void DtThreadCleanUp(unsigned long) {}
