//===- olInetUdpSockPimpl.cpp - Background queues of the UDP socket --------===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include "olInetUdpSockPimpl.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <thread>

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include <olutil/olExceptions.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetSocketUtils.h>
#include <olutil/olInetUdpSocket.h>
#include <olutil/olIoServiceRunnable.h>
#include <olutil/olThreadedObject.h>

namespace
{

constexpr int theWouldBlockError = 11;
// Closing waits at most this long for queued datagrams to leave. A datagram send does
// not wait for a peer, so only a stalled I/O thread comes near it.
constexpr std::chrono::seconds theDrainLimit(5);
constexpr std::chrono::microseconds theDrainPause(200);
// The largest UDP payload of either family: 65,535 less the UDP header (IPv6; IPv4
// allows 65,507). The background buffer holds at least this much, so that a
// datagram the synchronous path reads whole is never cut here.
constexpr std::size_t theLargestDatagram = 65527;

}  // namespace

DtInetUdpSockPimpl::DtInetUdpSockPimpl(boost::asio::io_context* ioContext, DtInetUdpSocket* owner)
    : myIoContext(ioContext),
      myThread(nullptr),
      myRunnable(nullptr),
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

bool DtInetUdpSockPimpl::running() const
{
   return myThread && myThread->running();
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

   auto runnable = std::make_shared<DtIoServiceRunnable>(myIoContext, myOwner);
   myRunnable = runnable.get();
   myThread = new DtThreadedObject(runnable);

   if (flags & DtInetSockFlagAsyncRecv)
   {
      int const configured = DtInetUtils::getMaxPacketBufferSize();
      myReceiveStorage.assign(
          std::max(theLargestDatagram, configured > 0 ? static_cast<std::size_t>(configured) : 0),
          0);
      delete myReceiveBuffer;
      myReceiveBuffer =
          new boost::asio::mutable_buffer(myReceiveStorage.data(), myReceiveStorage.size());
      startReceive();
   }
   else if (flags & DtInetSockFlagAsyncSend)
   {
      myWorkGuard = new WorkGuard(boost::asio::make_work_guard(*myIoContext));
   }
   if (flags & DtInetSockFlagAsyncSend)
      myAsyncSend = true;

   // A thread that cannot be created reaches the caller as DtThreadCreationError.
   myThread->start();
}

void DtInetUdpSockPimpl::stop()
{
   if (myThread && myThread->running())
   {
      // The work guard only kept a send-only context alive; the I/O thread keeps the
      // context running by itself until it is told to stop, which lets the queued
      // datagrams leave first.
      delete myWorkGuard;
      myWorkGuard = nullptr;
      if (myAsyncSend)
         drainSends();
      if (myRunnable)
         static_cast<DtIoServiceRunnable*>(myRunnable)->stop(true);
      try
      {
         myThread->stop(true);
      }
      catch (DtException const&)
      {
         // Only a thread that was never started throws here, and running() excluded it.
      }
   }
   delete myThread;
   myThread = nullptr;
   myRunnable = nullptr;
   delete myWorkGuard;
   myWorkGuard = nullptr;

   clearQueue(mySendQueue);
   clearQueue(myReceiveQueue);
   myReceiveTimes->clear();
   myOutstandingSends = 0;
}

void DtInetUdpSockPimpl::drainSends()
{
   auto const deadline = std::chrono::steady_clock::now() + theDrainLimit;
   while (myOutstandingSends.load() > 0 && !mySendHalted.load() &&
          std::chrono::steady_clock::now() < deadline)
   {
      std::this_thread::sleep_for(theDrainPause);
   }
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
   if (error || bytes == std::numeric_limits<std::size_t>::max())
   {
      // A read cancelled by closing the receiving socket is the end of reading, not a
      // failure: it must not poison the send queue that closing still drains. A would-
      // block completion is not kept either. Reading ends in every case.
      if (error != boost::asio::error::operation_aborted && error.value() != theWouldBlockError)
         storeError(error);
      return;
   }
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

void DtInetUdpSockPimpl::storeError(boost::system::error_code const& error)
{
   if (!error || myHasStoredError.load(std::memory_order_relaxed))
      return;
   myStoredError = error;
   myHasStoredError.store(true, std::memory_order_release);
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
   auto pending = std::make_shared<PendingSend>();
   pending->buffer.reset(buffer);
   pending->endpoint.reset(endpoint);
   if (hasStoredError())
   {
      error = myStoredError;
      return DtInetSockResultFailed;
   }
   if (!myThread)
   {
      // Before opening or after closing no I/O thread would ever send it: say so
      // rather than report a datagram as sent that never leaves.
      error = boost::asio::error::bad_descriptor;
      return DtInetSockResultFailed;
   }
   int const bytes = static_cast<int>(buffer->size());
   ++myOutstandingSends;
   boost::asio::post(*myIoContext, [this, pending]() { addToSendQueue(pending); });
   return bytes;
}

void DtInetUdpSockPimpl::addToSendQueue(std::shared_ptr<PendingSend> const& pending)
{
   Entry const entry(pending->endpoint.release(), pending->buffer.release());
   bool wasEmpty = false;
   {
      DtScopedLock lock(mySendQueue.mutex(), true);
      wasEmpty = mySendQueue->empty();
      mySendQueue->push_back(entry);
   }
   // One send in flight at a time keeps datagrams in order. After a failure nothing
   // more leaves; what is queued waits for stop().
   if (wasEmpty && !mySendHalted.load())
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
   Entry done(nullptr, nullptr);
   {
      DtScopedLock lock(mySendQueue.mutex(), true);
      if (!mySendQueue->empty())
      {
         done = mySendQueue->front();
         mySendQueue->pop_front();
      }
   }
   freeEntry(done);
   --myOutstandingSends;

   if (error)
   {
      storeError(error);
      mySendHalted = true;
      return;
   }

   Entry next(nullptr, nullptr);
   {
      DtScopedLock lock(mySendQueue.mutex(), true);
      if (!mySendQueue->empty())
         next = mySendQueue->front();
   }
   if (next.second)
      startSend(next);
}

bool DtInetUdpSockPimpl::popReceived(Entry& entry, double& time)
{
   DtScopedLock lock(myReceiveQueue.mutex(), true);
   if (myReceiveQueue->empty())
      return false;
   entry = myReceiveQueue->front();
   myReceiveQueue->pop_front();
   if (!myReceiveTimes->empty())
   {
      time = myReceiveTimes->front();
      myReceiveTimes->pop_front();
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
                       {
                          if (data.size() > length)
                             return false;
                          if (!data.empty())
                             std::memcpy(buffer, data.data(), data.size());
                          return true;
                       });
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

void DtInetUdpSockPimpl::clearQueue(DtThreadSafe<Queue>& queue)
{
   Queue taken;
   queue->swap(taken);
   for (Entry const& entry : taken)
      freeEntry(entry);
}
