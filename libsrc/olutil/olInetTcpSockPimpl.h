//===- olInetTcpSockPimpl.h - Background queues of the TCP socket -*- C++ -*-===//
//
// Family: Sockets.
//
// The private Boost.Asio companion of DtInetTcpSocket. With DtInetSockFlagAsyncRecv it
// keeps a read running in the background and queues each chunk the stream yields;
// with DtInetSockFlagAsyncSend it queues outgoing bytes and writes them whole, in
// order, one write in flight at a time. The first background failure (the peer's end
// of stream included) is kept and answers every later send, and every read once the
// chunks received before it have been taken.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETTCPSOCKPIMPL_H
#define OLUTIL_OLINETTCPSOCKPIMPL_H

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olInetTcpSocket.h>
#include <olutil/olThreadSafe.h>

#include "olInetSockPimplBase.h"

// Threads: start(), stop(), the send operations and the receive queue readers belong
// to the socket's application thread. The I/O thread runs the completions and
// addToSendQueue. The two meet at the two DtThreadSafe queues, each locked for one
// queue step, at the stored error, which the I/O thread writes once and publishes
// through an atomic flag before the application thread reads it, and at the two
// atomics that let stop() wait for the queued sends.
class DtInetTcpSockPimpl : public DtInetSockPimplBase
{
public:
   // A queued chunk (Entry) has a null first member on a stream.

   DtInetTcpSockPimpl(boost::asio::io_context* ioContext, DtInetTcpSocket* owner);
   ~DtInetTcpSockPimpl();

   DtInetTcpSockPimpl(DtInetTcpSockPimpl const&) = delete;
   DtInetTcpSockPimpl& operator=(DtInetTcpSockPimpl const&) = delete;

   // Starts the I/O thread, and the background read with DtInetSockFlagAsyncRecv.
   void start(unsigned int flags);
   // Writes what is queued (for a bounded time), stops the I/O thread and empties
   // the queues.
   void stop();

   // Queue bytes for writing; ownership of the buffer passes here in every case. The
   // byte count, or -1 with `error` set.
   int asyncSend(std::vector<char>* buffer, boost::system::error_code& error);
   // The same for a chain, gathered into one new buffer.
   int asyncSendChain(DtInetSockChain const& chain, boost::system::error_code& error);

   // Takes the oldest received chunk: its size; 0 when nothing waits; -4 when it does
   // not fit (it is dropped); -1 with `error` set after a background failure, once
   // every chunk received before it has been taken.
   int getFromReceiveQueue(char* buffer, unsigned long length, boost::system::error_code& error);
   // The same, scattered across the chain's buffers; on -4 the leading part stays.
   int getFromReceiveQueue(DtInetSockChain& chain, boost::system::error_code& error);

private:
   void startReceive();
   void handleReceiveFrom(boost::system::error_code const& error, std::size_t bytes);
   void addToSendQueue(std::vector<char>* buffer);
   void startSend(Entry const& entry);
   void handleSendComplete(boost::system::error_code const& error);
   bool hasStoredError() const { return myHasStoredError.load(std::memory_order_acquire); }
   template <class Copy>
   int takeReceived(boost::system::error_code& error, Copy const& copy);
   static void freeEntry(Entry const& entry);

   DtInetTcpSocket* myOwner;
   DtInetBoostTcpSocket* mySocket;
   boost::asio::mutable_buffer* myReceiveBuffer;
   boost::system::error_code myStoredError;
   DtThreadSafe<Queue> mySendQueue;
   DtThreadSafe<Queue> myReceiveQueue;
   // The bytes myReceiveBuffer describes.
   std::vector<char> myReceiveStorage;
   std::atomic<bool> myHasStoredError;
   // Buffers accepted by asyncSend and not yet written or given up.
   std::atomic<long> myOutstandingSends;
   // Set when the send queue stopped after a failure: nothing more will drain.
   std::atomic<bool> mySendHalted;
};

#endif  // OLUTIL_OLINETTCPSOCKPIMPL_H
