//===- olThread.cpp - Threads with a cooperative stop flag ----------------===//
#include <olutil/olThread.h>

#include <pthread.h>
#include <unistd.h>

#include <cxxabi.h>

#include <condition_variable>
#include <mutex>
#include <unordered_map>

#include <olutil/olThreadedObject.h>

namespace
{

// The threads made by DtThreadCreate that nobody has joined yet. pthread_join and
// pthread_cancel on an identifier that is not a live, joinable thread are undefined
// behaviour (glibc dereferences it), so the wrappers refuse identifiers not found
// here. A thread is joined once: whoever comes first joins it, and whoever asks
// while that join is under way waits for it, so no caller returns before the thread
// has ended. Each entry remembers what the thread was started with, so that a
// DtThread joins only its own thread and never one that the system has given the
// same identifier after the first was joined.
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
   void add(unsigned long id, void* (*function)(void*), void* argument)
   {
      threads_[id] = Entry{function, argument, ++generations_, false};
   }
   // Cancels under the lock, so the thread cannot be joined and its identifier
   // released in between.
   bool cancel(unsigned long id)
   {
      std::lock_guard<std::mutex> guard(mutex_);
      return threads_.count(id) != 0 && pthread_cancel(static_cast<pthread_t>(id)) == 0;
   }
   // Joins thread `id`, or waits for the join already under way. With a function
   // given, only a thread started with that function and argument is joined.
   // 0 once the thread has ended, 2 if it is not known here or cannot be joined.
   int join(unsigned long id, void* (*function)(void*) = nullptr, void const* argument = nullptr);

private:
   struct Entry
   {
      void* (*function)(void*);
      void const* argument;
      unsigned long long generation;  // tells a reused identifier from the one awaited
      bool joining;
   };

   // Marks the end of a join however pthread_join is left, a cancellation of the
   // joining thread included, and wakes whoever waits for it.
   class JoinEnd
   {
   public:
      JoinEnd(JoinableThreads& registry, unsigned long id) : registry_(registry), id_(id) {}
      ~JoinEnd()
      {
         std::lock_guard<std::mutex> guard(registry_.mutex_);
         auto const entry = registry_.threads_.find(id_);
         if (entry == registry_.threads_.end())
         {
            return;  // cannot happen: an entry being joined is not removed by others
         }
         if (joined)
         {
            registry_.threads_.erase(entry);
         }
         else
         {
            entry->second.joining = false;  // still joinable (a thread joining itself)
         }
         registry_.joinEnded_.notify_all();
      }
      bool joined = false;

   private:
      JoinableThreads& registry_;
      unsigned long id_;
   };

   std::mutex mutex_;
   std::condition_variable joinEnded_;
   std::unordered_map<unsigned long, Entry> threads_;
   unsigned long long generations_ = 0;
};

int JoinableThreads::join(unsigned long id, void* (*function)(void*), void const* argument)
{
   // A thread that joins itself would wait for ever below, on its own join.
   if (id == 0 || id == static_cast<unsigned long>(pthread_self()))
   {
      return 2;
   }
   std::unique_lock<std::mutex> lock(mutex_);
   for (;;)
   {
      auto const entry = threads_.find(id);
      if (entry == threads_.end() ||
          (function && (entry->second.function != function || entry->second.argument != argument)))
      {
         return 2;
      }
      if (!entry->second.joining)
      {
         entry->second.joining = true;
         break;
      }
      unsigned long long const generation = entry->second.generation;
      auto const sameJoinUnderWay = [&]
      {
         auto const now = threads_.find(id);
         return now != threads_.end() && now->second.generation == generation &&
                now->second.joining;
      };
      joinEnded_.wait(lock, [&] { return !sameJoinUnderWay(); });
      auto const now = threads_.find(id);
      if (now == threads_.end() || now->second.generation != generation)
      {
         return 0;  // the other join succeeded: the thread has ended
      }
      // The other join failed and the thread is still joinable: try it here.
   }
   lock.unlock();
   JoinEnd end(*this, id);
   end.joined = pthread_join(static_cast<pthread_t>(id), nullptr) == 0;
   return end.joined ? 0 : 2;
}

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
   DtSetStopFlag(&stopRequested_, false);
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
   DtSetStopFlag(&stopRequested_, false);
   run();
   return 0;
}

void DtThread::stop(bool wait)
{
   if (!hasStarted())
   {
      return;
   }
   {
      // Tested and set under one lock, so the runnable hears of the request once
      // however many threads ask at the same time.
      DtScopedLock lock(mutex_, true);
      if (!DtStopRequested(&stopRequested_))
      {
         DtSetStopFlag(&stopRequested_, true);
         if (threadStart_)
         {
            threadStart_->stop();
         }
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
   return DtStopRequested(&stopRequested_);
}

bool DtThread::isRunning() const
{
   DtScopedLock lock(mutex_, true);
   return running_;
}

int DtThread::join() const
{
   return JoinableThreads::instance().join(handle_, threadRunHelper, this);
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
   registry.add(result, function, argument);
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
   return JoinableThreads::instance().join(id);
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
