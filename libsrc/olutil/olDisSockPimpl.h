//===- olDisSockPimpl.h - Asynchronous sender of DtDisSocket ----*- C++ -*-===//
//
// Family: DIS.
//
// The private Boost.Asio companion of DtDisSocket with self-reflect suppression
// and DtInetSockFlagAsyncSend: one thread runs the socket's own I/O context and
// sends, in posting order through a strand, the datagrams that the application
// thread hands over. stop() drains what was posted before it with a two-party
// barrier.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLDISSOCKPIMPL_H
#define OLUTIL_OLDISSOCKPIMPL_H

#include <atomic>
#include <memory>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/io_context_strand.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/error_code.hpp>
#include <boost/thread/thread.hpp>

#include <olutil/olInetSocket.h>

class DtDisSocket;

// Threads: start, stop and the asyncSend operations belong to the socket's
// application thread. The worker thread runs addToSendQueue only, and touches
// nothing but the send socket. A send failure on the worker thread is dropped
// without a report; the stored error is kept for the interface and is never
// written by the worker.
class DtDisSockPimpl
{
public:
   typedef boost::asio::ip::udp::endpoint Endpoint;

   DtDisSockPimpl(boost::asio::io_context* ioContext, DtDisSocket* owner);
   ~DtDisSockPimpl();

   DtDisSockPimpl(DtDisSockPimpl const&) = delete;
   DtDisSockPimpl& operator=(DtDisSockPimpl const&) = delete;

   // Starts the one worker thread that runs the I/O context.
   void start(unsigned int flags);
   // Waits until everything posted before it was sent, then stops the context and
   // joins the worker.
   void stop();
   bool running() const { return myRunning.load(); }

   // Takes ownership of buffer and endpoint and posts their send; returns the byte
   // count at once, or -1 (with the stored error in `error`).
   int asyncSendTo(std::vector<char>* buffer, Endpoint* endpoint, boost::system::error_code& error);
   // Concatenates the chain into one new buffer, then as asyncSendTo.
   int asyncSendChainTo(DtInetSockChain const& chain, Endpoint* endpoint,
                        boost::system::error_code& error);

private:
   // Runs on the worker: one synchronous send; a failure is dropped.
   void addToSendQueue(std::shared_ptr<std::vector<char>> const& buffer,
                       std::shared_ptr<Endpoint> const& endpoint);

   boost::asio::io_context* myIoContext;
   boost::thread* myThread;
   boost::asio::io_context::strand myStrand;
   std::unique_ptr<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>>
       myWorkGuard;
   DtDisSocket* myOwner;
   boost::asio::ip::udp::socket* mySendSocket;
   boost::system::error_code myStoredError;
   std::atomic<bool> myRunning;
};

#endif  // OLUTIL_OLDISSOCKPIMPL_H
