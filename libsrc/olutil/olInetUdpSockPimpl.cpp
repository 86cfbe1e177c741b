//===- olInetUdpSockPimpl.cpp - Background queues of the UDP socket --------===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include "olInetUdpSockPimpl.h"

#include <sys/socket.h>

#include <olutil/olInetSocketUtils.h>
#include <olutil/olInetUdpSocket.h>

namespace
{

// The largest UDP payload of either family: 65,535 less the UDP header (IPv6; IPv4
// allows 65,507). The background buffer holds at least this much, so that a
// datagram the synchronous path reads whole is never cut here.
constexpr std::size_t theLargestDatagram = 65527;

}  // namespace

DtInetUdpSockPimpl::DtInetUdpSockPimpl(boost::asio::io_context* ioContext, DtInetUdpSocket* owner)
    : DtInetSockPimplBase(ioContext),
      myOwner(owner),
      mySendSocket(owner ? owner->udpSocket() : nullptr),
      myReceiveSocket(owner ? owner->secondUdpSocket() : nullptr),
      myReceiveBuffer(nullptr),
      myAsyncSend(false),
      myWorkGuard(nullptr),
      myHasStoredError(false),
      myOutstandingSends(0),
      mySendHalted(false)
{
}

DtInetUdpSockPimpl::~DtInetUdpSockPimpl()
{
   stop();
   delete myReceiveBuffer;
   myReceiveBuffer = nullptr;
}

void DtInetUdpSockPimpl::updateSecondSocket()
{
   myReceiveSocket = myOwner->secondUdpSocket();
}

void DtInetUdpSockPimpl::start(unsigned int flags)
{
   if (myThread)
      return;
   mySendSocket = myOwner->udpSocket();
   myReceiveSocket = myOwner->secondUdpSocket();

   createThread(myOwner);
   if (flags & DtInetSockFlagAsyncRecv)
   {
      sizeReceiveBuffer(myReceiveStorage, myReceiveBuffer, theLargestDatagram);
      startReceive();
   }
   else if (flags & DtInetSockFlagAsyncSend)
   {
      myWorkGuard = new WorkGuard(boost::asio::make_work_guard(*myIoContext));
   }
   if (flags & DtInetSockFlagAsyncSend)
      myAsyncSend = true;
   startThread();
}

void DtInetUdpSockPimpl::stop()
{
   if (running())
   {
      // The work guard only kept a send-only context alive; the I/O thread keeps the
      // context running by itself until it is told to stop, which lets the queued
      // datagrams leave first.
      delete myWorkGuard;
      myWorkGuard = nullptr;
      if (myAsyncSend)
         drainSends(myOutstandingSends, mySendHalted);
   }
   stopThread();
   delete myWorkGuard;
   myWorkGuard = nullptr;

   clearQueue(mySendQueue, freeEntry);
   clearQueue(myReceiveQueue, freeEntry);
   myReceiveTimes->clear();
   myOutstandingSends = 0;
}

void DtInetUdpSockPimpl::startReceive()
{
   if (!myReceiveSocket || !myReceiveBuffer)
      return;
   // MSG_TRUNC makes the completion carry the datagram's real length, so one longer
   // than the buffer is known to be cut.
   myReceiveSocket->async_receive_from(
       *myReceiveBuffer, mySender, MSG_TRUNC,
       [this](boost::system::error_code const& error, std::size_t bytes)
       { handleReceiveFrom(error, bytes); });
}

void DtInetUdpSockPimpl::handleReceiveFrom(boost::system::error_code const& error,
                                           std::size_t bytes)
{
   if (receiveEnded(error, bytes, myStoredError, myHasStoredError))
      return;
   if (!myReceiveBuffer)
      return;

   // A cut datagram is queued without its bytes, and its reader is told it did not
   // fit, as a synchronous read into a buffer too small would be.
   auto* data = bytes > myReceiveStorage.size()
                    ? nullptr
                    : new std::vector<char>(myReceiveStorage.begin(),
                                            myReceiveStorage.begin() + static_cast<long>(bytes));
   auto* sender = new Endpoint(mySender);
   {
      // The time goes in while the entry's lock is held, so a reader never finds an
      // entry whose time is not there yet.
      DtScopedLock lock(myReceiveQueue.mutex(), true);
      myReceiveQueue->push_back(Entry(sender, data));
      myReceiveTimes->push_back(myClock.absRealTime());
   }
   startReceive();
}

int DtInetUdpSockPimpl::asyncSendTo(std::vector<char>* buffer, Endpoint* endpoint,
                                    boost::system::error_code& error)
{
   return queueSend(buffer, endpoint, error);
}

int DtInetUdpSockPimpl::asyncSendChainTo(DtInetSockChain const& chain, Endpoint* endpoint,
                                         boost::system::error_code& error)
{
   if (hasStoredError())
   {
      delete endpoint;
      error = myStoredError;
      return DtInetSockResultFailed;
   }
   auto* datagram = new std::vector<char>;
   DtInetSockGatherChain(chain, *datagram);
   return queueSend(datagram, endpoint, error);
}

int DtInetUdpSockPimpl::queueSend(std::vector<char>* buffer, Endpoint* endpoint,
                                  boost::system::error_code& error)
{
   // Owned by the posted handler, so that a post that never runs (context stopped and
   // destroyed) frees them. Before opening or after closing no I/O thread would ever
   // send the datagram: that fails rather than report one as sent that never leaves.
   std::unique_ptr<std::vector<char>> ownedBuffer(buffer);
   std::unique_ptr<Endpoint> ownedEndpoint(endpoint);
   return postSend(static_cast<int>(buffer->size()), myStoredError, hasStoredError(),
                   myOutstandingSends, error,
                   [this, b = std::move(ownedBuffer), e = std::move(ownedEndpoint)]() mutable
                   { addToSendQueue(e.release(), b.release()); });
}

void DtInetUdpSockPimpl::addToSendQueue(Endpoint* endpoint, std::vector<char>* buffer)
{
   Entry const entry(endpoint, buffer);
   // After a failure nothing more leaves; what is queued waits for stop().
   if (pushSend(mySendQueue, entry) && !mySendHalted.load())
      startSend(entry);
}

void DtInetUdpSockPimpl::startSend(Entry const& entry)
{
   mySendSocket->async_send_to(
       boost::asio::buffer(*entry.second), *static_cast<Endpoint*>(entry.first),
       [this](boost::system::error_code const& error, std::size_t) { handleSendComplete(error); });
}

void DtInetUdpSockPimpl::handleSendComplete(boost::system::error_code const& error)
{
   Entry next;
   freeEntry(popSent(mySendQueue, next));
   --myOutstandingSends;
   if (error)
   {
      storeError(myStoredError, myHasStoredError, error);
      mySendHalted = true;
      return;
   }
   if (next.second)
      startSend(next);
}

bool DtInetUdpSockPimpl::popReceived(Entry& entry, double& time)
{
   // The queue's lock is held across the times as well: see handleReceiveFrom.
   auto queue = myReceiveQueue.operator->();
   if (queue->empty())
      return false;
   entry = queue->front();
   queue->pop_front();
   auto times = myReceiveTimes.operator->();
   if (!times->empty())
   {
      time = times->front();
      times->pop_front();
   }
   return true;
}

template <class Copy>
int DtInetUdpSockPimpl::takeReceived(Endpoint& sender, boost::system::error_code& error,
                                     double& time, Copy const& copy)
{
   if (hasStoredError())
   {
      error = myStoredError;
      return DtInetSockResultFailed;
   }
   Entry entry;
   if (!popReceived(entry, time))
      return 0;

   // The entry is gone either way: a datagram too big for the caller's buffers is
   // lost, and the next call gets the next one.
   int result = DtInetSockResultNoFit;
   if (entry.second && copy(*entry.second))
   {
      sender = *static_cast<Endpoint*>(entry.first);
      result = static_cast<int>(entry.second->size());
   }
   freeEntry(entry);
   return result;
}

int DtInetUdpSockPimpl::getFromReceiveQueue(char* buffer, unsigned long length, Endpoint& sender,
                                            boost::system::error_code& error, double& time)
{
   return takeReceived(sender, error, time,
                       [buffer, length](std::vector<char> const& data)
                       { return copyToBuffer(data, buffer, length); });
}

int DtInetUdpSockPimpl::getFromReceiveQueue(DtInetSockChain& chain, Endpoint& sender,
                                            boost::system::error_code& error, double& time)
{
   return takeReceived(sender, error, time,
                       [&chain](std::vector<char> const& data)
                       { return DtInetSockCopyToChain(data.data(), data.size(), chain); });
}

void DtInetUdpSockPimpl::freeEntry(Entry const& entry)
{
   delete static_cast<Endpoint*>(entry.first);
   delete entry.second;
}
