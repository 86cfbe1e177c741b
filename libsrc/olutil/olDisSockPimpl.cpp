// The asynchronous sender of DtDisSocket.
#include "olDisSockPimpl.h"

#include <olutil/olInetSocketUtils.h>

#include <boost/asio/post.hpp>
#include <boost/thread/barrier.hpp>

#include <olutil/olDisSocket.h>

DtDisSockPimpl::DtDisSockPimpl(boost::asio::io_context* ioContext, DtDisSocket* owner)
    : myIoContext(ioContext),
      myThread(nullptr),
      myStrand(*ioContext),
      myOwner(owner),
      mySendSocket(owner->disSendSocket()),
      myRunning(false)
{
}

DtDisSockPimpl::~DtDisSockPimpl()
{
   stop();
}

void DtDisSockPimpl::start(unsigned int /*flags*/)
{
   if (myRunning.load())
      return;
   mySendSocket = myOwner->disSendSocket();
   // A context stopped by an earlier close must be made runnable again.
   myIoContext->restart();
   myWorkGuard.reset(new boost::asio::executor_work_guard<boost::asio::io_context::executor_type>(
       myIoContext->get_executor()));
   boost::asio::io_context* context = myIoContext;
   myThread = new boost::thread([context] { context->run(); });
   myRunning.store(true);
}

void DtDisSockPimpl::stop()
{
   if (!myRunning.load())
      return;
   // The worker reaches the barrier only after everything posted before it on the
   // strand has run, so every queued datagram has been sent when both have met.
   boost::barrier barrier(2);
   boost::asio::post(myStrand, [&barrier] { barrier.wait(); });
   barrier.wait();
   myWorkGuard.reset();
   myIoContext->stop();
   myThread->join();
   delete myThread;
   myThread = nullptr;
   myRunning.store(false);
}

int DtDisSockPimpl::asyncSendTo(std::vector<char>* buffer, Endpoint* endpoint,
                                boost::system::error_code& error)
{
   std::shared_ptr<std::vector<char>> ownedBuffer(buffer);
   std::shared_ptr<Endpoint> ownedEndpoint(endpoint);
   if (myStoredError)
   {
      error = myStoredError;
      return -1;
   }
   int const bytes = static_cast<int>(ownedBuffer->size());
   boost::asio::post(myStrand, [this, ownedBuffer, ownedEndpoint]
                     { addToSendQueue(ownedBuffer, ownedEndpoint); });
   return bytes;
}

int DtDisSockPimpl::asyncSendChainTo(DtInetSockChain const& chain, Endpoint* endpoint,
                                     boost::system::error_code& error)
{
   std::vector<char>* joined = new std::vector<char>();
   DtInetSockGatherChain(chain, *joined);
   return asyncSendTo(joined, endpoint, error);
}

void DtDisSockPimpl::addToSendQueue(std::shared_ptr<std::vector<char>> const& buffer,
                                    std::shared_ptr<Endpoint> const& endpoint)
{
   if (!mySendSocket || !mySendSocket->is_open())
      return;
   boost::system::error_code error;
   mySendSocket->send_to(boost::asio::buffer(*buffer), *endpoint, 0, error);
   // A failed background send is dropped without a report: the application has
   // already been told the datagram was accepted.
}
