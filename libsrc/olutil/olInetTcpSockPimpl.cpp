//===- olInetTcpSockPimpl.cpp - Background queues of the TCP socket --------===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include "olInetTcpSockPimpl.h"

#include <boost/asio/write.hpp>

#include <olutil/olInetSocketUtils.h>

namespace
{

// The background read buffer is never smaller than this.
constexpr std::size_t theSmallestReadBuffer = 4096;

}  // namespace

DtInetTcpSockPimpl::DtInetTcpSockPimpl(boost::asio::io_context* ioContext, DtInetTcpSocket* owner)
    : DtInetSockPimplBase(ioContext),
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

void DtInetTcpSockPimpl::start(unsigned int flags)
{
   if (myThread)
      return;
   mySocket = myOwner->tcpSocket();
   if (!mySocket)
      return;
   createThread(myOwner);
   if (flags & DtInetSockFlagAsyncRecv)
   {
      sizeReceiveBuffer(myReceiveStorage, myReceiveBuffer, theSmallestReadBuffer);
      // Started before the thread runs, so the socket object is not touched by two
      // threads at once while the read is set up.
      startReceive();
   }
   startThread();
}

void DtInetTcpSockPimpl::stop()
{
   if (running())
      drainSends(myOutstandingSends, mySendHalted);
   stopThread();
   clearQueue(mySendQueue, freeEntry);
   clearQueue(myReceiveQueue, freeEntry);
   myOutstandingSends = 0;
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
   if (receiveEnded(error, bytes, myStoredError, myHasStoredError))
      return;
   if (!myReceiveBuffer || bytes > myReceiveStorage.size())
      return;
   auto* chunk = new std::vector<char>(myReceiveStorage.begin(),
                                       myReceiveStorage.begin() + static_cast<long>(bytes));
   myReceiveQueue->push_back(Entry(nullptr, chunk));
   startReceive();
}

int DtInetTcpSockPimpl::asyncSend(std::vector<char>* buffer, boost::system::error_code& error)
{
   // Owned by the posted handler, so that a post that never runs (context stopped and
   // destroyed) frees it.
   std::unique_ptr<std::vector<char>> owned(buffer);
   return postSend(static_cast<int>(buffer->size()), myStoredError, hasStoredError(),
                   myOutstandingSends, error,
                   [this, owned = std::move(owned)]() mutable { addToSendQueue(owned.release()); });
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

void DtInetTcpSockPimpl::addToSendQueue(std::vector<char>* buffer)
{
   Entry const entry(nullptr, buffer);
   // After a failure nothing more leaves; what is queued waits for stop().
   if (pushSend(mySendQueue, entry) && !mySendHalted.load())
      startSend(entry);
}

void DtInetTcpSockPimpl::startSend(Entry const& entry)
{
   // A stream write may be short; async_write goes on until every byte is out.
   boost::asio::async_write(*mySocket, boost::asio::buffer(*entry.second),
                            [this](boost::system::error_code const& error, std::size_t)
                            { handleSendComplete(error); });
}

void DtInetTcpSockPimpl::handleSendComplete(boost::system::error_code const& error)
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

template <class Copy>
int DtInetTcpSockPimpl::takeReceived(boost::system::error_code& error, Copy const& copy)
{
   Entry entry(nullptr, nullptr);
   {
      auto queue = myReceiveQueue.operator->();
      if (!queue->empty())
      {
         entry = queue->front();
         queue->pop_front();
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
   return takeReceived(error, [buffer, length](std::vector<char> const& data)
                       { return copyToBuffer(data, buffer, length); });
}

int DtInetTcpSockPimpl::getFromReceiveQueue(DtInetSockChain& chain,
                                            boost::system::error_code& error)
{
   return takeReceived(error, [&chain](std::vector<char> const& data)
                       { return DtInetSockCopyToChain(data.data(), data.size(), chain); });
}

void DtInetTcpSockPimpl::freeEntry(Entry const& entry)
{
   delete entry.second;
}
