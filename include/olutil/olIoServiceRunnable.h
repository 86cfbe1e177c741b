//===- olutil/olIoServiceRunnable.h - A thread body for Boost.Asio -*- C++ -*-===//
//
// Family: Concurrency.
//
// DtIoServiceRunnable is the DtRunnable that runs an asynchronous socket's
// boost::asio::io_context on its own thread. A DtThreadedObject owns that thread;
// completion handlers and posted work then run on it.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLIOSERVICERUNNABLE_H
#define OLUTIL_OLIOSERVICERUNNABLE_H

#include <atomic>

#include <olutil/olThreadedObject.h>

class DtInetSocket;

// Runs a boost::asio::io_context (given as void* so that this header needs no Boost
// header; it is not owned) until its thread is told to stop.
//
// Starting, posting work and stopping:
//
//   boost::asio::io_context io;
//   auto runnable = std::make_shared<DtIoServiceRunnable>(&io, socket);
//   DtThreadedObject ioThread(runnable);
//   ioThread.start();                          // the I/O thread now runs io
//   boost::asio::post(io, [] { ... });         // runs on the I/O thread
//   socket.async_receive_from(..., handler);   // completions run there too
//   ...
//   runnable->stop(true);                      // stops io: a blocked run returns
//   ioThread.stop(true);                       // sets the flag and joins
//
// The thread's stop request only sets the flag; the context itself is stopped by
// stop(bool) alone, so it stays usable (for a last poll, say) after the thread has
// gone. run() looks at the flag at least once per poll period (0.1 s), so
// ioThread.stop(true) also ends a loop whose context was not stopped. While it runs,
// run() holds an executor_work_guard, so the context does not run out of work when
// no operation is pending; nobody needs to keep a guard of their own just to keep
// the thread alive.
//
// stop(bool) only makes a blocked io_context::run return; it does not end the
// thread. Until the thread's stop flag is set, run() then idles and polls the flag,
// and handlers posted meanwhile wait. run() restarts a stopped context when it is
// entered, so the same runnable and context can be started again on a new thread.
//
// An exception that escapes a handler is reported on DtWarn and the loop goes on.
//
// Thread safety: run() executes on the I/O thread; stop(), stop(bool) and finished()
// may be called from any thread. The io_context must outlive the thread, and the
// destructor waits until run() has returned, so the object outlives its loop.
class DtIoServiceRunnable : public DtRunnable
{
public:
   DtIoServiceRunnable(void* ioService, DtInetSocket* socket);
   ~DtIoServiceRunnable() override;

   DtIoServiceRunnable(DtIoServiceRunnable const&) = delete;
   DtIoServiceRunnable& operator=(DtIoServiceRunnable const&) = delete;

   // Runs the context while timeToStop() is false; sets finished() on leaving.
   void run() override;
   // The thread's stop request: nothing beyond the flag, as for any runnable.
   using DtRunnable::stop;
   // Stops the io_context so that a blocked run returns; the argument is unused.
   virtual void stop(bool wait);

   // True before run() is entered and after it has returned.
   bool finished() const { return finished_; }
   void* ioService() const { return ioService_; }
   DtInetSocket* socket() const { return socket_; }

private:
   std::atomic<bool> finished_;
   void* ioService_;
   DtInetSocket* socket_;
};

#endif  // OLUTIL_OLIOSERVICERUNNABLE_H
