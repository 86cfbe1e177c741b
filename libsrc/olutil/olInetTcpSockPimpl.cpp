//===- olInetTcpSockPimpl.cpp - Background queues of the TCP socket --------===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include "olInetTcpSockPimpl.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <thread>

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include <olutil/olExceptions.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetSocketUtils.h>
#include <olutil/olIoServiceRunnable.h>
#include <olutil/olThreadedObject.h>

namespace
{

constexpr int theWouldBlockError = 11;
// Closing waits at most this long for queued bytes to be written: a peer that stopped
// reading could otherwise hold the close for ever.
constexpr std::chrono::seconds theDrainLimit(5);
constexpr std::chrono::microseconds theDrainPause(200);
// The background read buffer is never smaller than this.
constexpr std::size_t theSmallestReadBuffer = 4096;

}  // namespace

DtInetTcpSockPimpl::DtInetTcpSockPimpl(boost::asio::io_context* ioContext, DtInetTcpSocket* owner)
    : myIoContext(ioContext),
      myThread(nullptr),
      myRunnable(nullptr),
      myOwner(owner),
      mySocket(nullptr),
      myReceiveBuffer(nullptr),
      myHasStoredError(false),
      myOutstandingSends(0),
      mySendHalted(false)
{
}

DtInetTcpSockPimpl::~DtInetTcpSockPimpl()
{
   stop();
   delete myReceiveBuffer;
   myReceiveBuffer = nullptr;
}

bool DtInetTcpSockPimpl::running() const
{
   return myThread && myThread->running();
}

void DtInetTcpSockPimpl::start(unsigned int flags)
{
   if (myThread)
      return;
   mySocket = myOwner->tcpSocket();
   if (!mySocket)
      return;

   auto runnable = std::make_shared<DtIoServiceRunnable>(myIoContext, myOwner);
   myRunnable = runnable.get();
   myThread = new DtThreadedObject(runnable);

   if (flags & DtInetSockFlagAsyncRecv)
   {
      int const configured = DtInetUtils::getMaxPacketBufferSize();
      myReceiveStorage.assign(
          std::max(theSmallestReadBuffer, configured > 0 ? static_cast<std::size_t>(configured) : 0),
          0);
      delete myReceiveBuffer;
      myReceiveBuffer =
          new boost::asio::mutable_buffer(myReceiveStorage.data(), myReceiveStorage.size());
      // Started before the thread runs, so the socket object is not touched by two
      // threads at once while the read is set up.
      startReceive();
   }
   // A thread that cannot be created reaches the caller as DtThreadCreationError.
   myThread->start();
}

void DtInetTcpSockPimpl::stop()
{
   if (myThread && myThread->running())
   {
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
   clearQueue(mySendQueue);
   clearQueue(myReceiveQueue);
   myOutstandingSends = 0;
}

void DtInetTcpSockPimpl::drainSends()
{
   auto const deadline = std::chrono::steady_clock::now() + theDrainLimit;
   while (myOutstandingSends.load() > 0 && !mySendHalted.load() &&
          std::chrono::steady_clock::now() < deadline)
   {
      std::this_thread::sleep_for(theDrainPause);
   }
}

void DtInetTcpSockPimpl::startReceive()
{
   if (!mySocket || !myReceiveBuffer)
      return;
   mySocket->async_receive(*myReceiveBuffer,
                           [this](boost::system::error_code const& error, std::size_t bytes)
                           { handleReceiveFrom(error, bytes); });
}

void DtInetTcpSockPimpl::handleReceiveFrom(boost::system::error_code const& error,
                                           std::size_t bytes)
{
   if (error || bytes == std::numeric_limits<std::size_t>::max())
   {
      // A read cancelled by closing is the end of reading, not a failure, and a would-
      // block completion is not kept either. The peer's end of stream is kept: the
      // reader sees it after the chunks that came before it.
      if (error != boost::asio::error::operation_aborted && error.value() != theWouldBlockError)
         storeError(error);
      return;
   }
   if (!myReceiveBuffer || bytes > myReceiveStorage.size())
      return;
   auto* chunk = new std::vector<char>(myReceiveStorage.begin(),
                                       myReceiveStorage.begin() + static_cast<long>(bytes));
   myReceiveQueue->push_back(Entry(nullptr, chunk));
   startReceive();
}

void DtInetTcpSockPimpl::storeError(boost::system::error_code const& error)
{
   if (!error || myHasStoredError.load(std::memory_order_relaxed))
      return;
   myStoredError = error;
   myHasStoredError.store(true, std::memory_order_release);
}

int DtInetTcpSockPimpl::asyncSend(std::vector<char>* buffer, boost::system::error_code& error)
{
   auto pending = std::make_shared<PendingSend>();
   pending->buffer.reset(buffer);
   if (hasStoredError())
   {
      error = myStoredError;
      return DtInetSockResultFailed;
   }
   if (!myThread)
   {
      // No I/O thread would ever write it: say so rather than report bytes as sent
      // that never leave.
      error = boost::asio::error::bad_descriptor;
      return DtInetSockResultFailed;
   }
   int const bytes = static_cast<int>(buffer->size());
   ++myOutstandingSends;
   boost::asio::post(*myIoContext, [this, pending]() { addToSendQueue(pending); });
   return bytes;
}

int DtInetTcpSockPimpl::asyncSendChain(DtInetSockChain const& chain,
                                       boost::system::error_code& error)
{
   if (hasStoredError())
   {
      error = myStoredError;
      return DtInetSockResultFailed;
   }
   auto* bytes = new std::vector<char>;
   DtInetSockGatherChain(chain, *bytes);
   return asyncSend(bytes, error);
}

void DtInetTcpSockPimpl::addToSendQueue(std::shared_ptr<PendingSend> const& pending)
{
   Entry const entry(nullptr, pending->buffer.release());
   bool wasEmpty = false;
   {
      DtScopedLock lock(mySendQueue.mutex(), true);
      wasEmpty = mySendQueue->empty();
      mySendQueue->push_back(entry);
   }
   // One write in flight at a time keeps the bytes in order. After a failure nothing
   // more leaves; what is queued waits for stop().
   if (wasEmpty && !mySendHalted.load())
      startSend(entry);
}

void DtInetTcpSockPimpl::startSend(Entry const& entry)
{
   // A stream write may be short; async_write goes on until every byte is out.
   boost::asio::async_write(
       *mySocket, boost::asio::buffer(*entry.second),
       [this](boost::system::error_code const& error, std::size_t) { handleSendComplete(error); });
}

void DtInetTcpSockPimpl::handleSendComplete(boost::system::error_code const& error)
{
   Entry done(nullptr, nullptr);
   Entry next(nullptr, nullptr);
   {
      DtScopedLock lock(mySendQueue.mutex(), true);
      if (!mySendQueue->empty())
      {
         done = mySendQueue->front();
         mySendQueue->pop_front();
      }
      if (!mySendQueue->empty())
         next = mySendQueue->front();
   }
   delete done.second;
   --myOutstandingSends;
   if (error)
   {
      storeError(error);
      mySendHalted = true;
      return;
   }
   if (next.second)
      startSend(next);
}

template <class Copy>
int DtInetTcpSockPimpl::takeReceived(boost::system::error_code& error, Copy const& copy)
{
   Entry entry(nullptr, nullptr);
   {
      DtScopedLock lock(myReceiveQueue.mutex(), true);
      if (!myReceiveQueue->empty())
      {
         entry = myReceiveQueue->front();
         myReceiveQueue->pop_front();
      }
   }
   if (!entry.second)
   {
      // What arrived before a failure (the peer's end of stream, say) is read first.
      if (hasStoredError())
      {
         error = myStoredError;
         return DtInetSockResultFailed;
      }
      return 0;
   }
   int const result =
       copy(*entry.second) ? static_cast<int>(entry.second->size()) : DtInetSockResultNoFit;
   delete entry.second;
   return result;
}

int DtInetTcpSockPimpl::getFromReceiveQueue(char* buffer, unsigned long length,
                                            boost::system::error_code& error)
{
   return takeReceived(error,
                       [buffer, length](std::vector<char> const& data)
                       {
                          if (data.size() > length)
                             return false;
                          if (!data.empty())
                             std::memcpy(buffer, data.data(), data.size());
                          return true;
                       });
}

int DtInetTcpSockPimpl::getFromReceiveQueue(DtInetSockChain& chain,
                                            boost::system::error_code& error)
{
   return takeReceived(error, [&chain](std::vector<char> const& data)
                       { return DtInetSockCopyToChain(data.data(), data.size(), chain); });
}

void DtInetTcpSockPimpl::clearQueue(DtThreadSafe<Queue>& queue)
{
   Queue taken;
   queue->swap(taken);
   for (Entry const& entry : taken)
      delete entry.second;
}
