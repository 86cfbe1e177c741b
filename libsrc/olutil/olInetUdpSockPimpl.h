//===- olInetUdpSockPimpl.h - Background queues of the UDP socket -*- C++ -*-===//
//
// Family: Sockets.
//
// The private Boost.Asio companion of DtInetUdpSocket. With DtInetSockFlagAsyncRecv it
// keeps a receive running in the background and queues each datagram with its sender
// and time of arrival; with DtInetSockFlagAsyncSend it queues outgoing datagrams and
// sends them in order, one in flight at a time. The first background failure is kept
// and answers every later queue operation.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETUDPSOCKPIMPL_H
#define OLUTIL_OLINETUDPSOCKPIMPL_H

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olInetUdpSocket.h>
#include <olutil/olThreadSafe.h>
#include <olutil/olTime.h>

#include "olInetSockPimplBase.h"

class DtInetUdpSocket;

// Threads: start(), stop(), updateSecondSocket(), the send operations and the receive
// queue readers belong to the socket's application thread. The I/O thread runs the
// completions and addToSendQueue. The two meet at the three DtThreadSafe queues, each
// locked for one queue step, at the stored error, which the I/O thread writes once
// and publishes through an atomic flag before the application thread reads it, and at
// the two atomics that let stop() wait for the queued sends.
class DtInetUdpSockPimpl : public DtInetSockPimplBase
{
public:
   typedef boost::asio::ip::udp::endpoint Endpoint;
   // A queued datagram (Entry) holds its heap endpoint and its heap buffer. A received
   // datagram that was cut has a null buffer.

   DtInetUdpSockPimpl(boost::asio::io_context* ioContext, DtInetUdpSocket* owner);
   ~DtInetUdpSockPimpl();

   DtInetUdpSockPimpl(DtInetUdpSockPimpl const&) = delete;
   DtInetUdpSockPimpl& operator=(DtInetUdpSockPimpl const&) = delete;

   // Starts the I/O thread, and the background receive with DtInetSockFlagAsyncRecv.
   void start(unsigned int flags);
   // Sends what is queued, stops the I/O thread and empties the queues.
   void stop();
   // Picks up the owner's receiving socket after it was replaced.
   void updateSecondSocket();

   // Queue one datagram for sending; ownership of buffer and endpoint passes here in
   // every case. The byte count, or -1 with `error` set from the stored error.
   int asyncSendTo(std::vector<char>* buffer, Endpoint* endpoint, boost::system::error_code& error);
   // The same for a chain, gathered into one new datagram.
   int asyncSendChainTo(DtInetSockChain const& chain, Endpoint* endpoint,
                        boost::system::error_code& error);

   // Takes the oldest received datagram. The size, 0 when nothing waits, -1 with
   // `error` set after a background failure, -4 when it does not fit or was cut
   // (it is dropped).
   int getFromReceiveQueue(char* buffer, unsigned long length, Endpoint& sender,
                           boost::system::error_code& error, double& time);
   // The same, scattered across the chain's buffers; on -4 the leading part stays.
   int getFromReceiveQueue(DtInetSockChain& chain, Endpoint& sender,
                           boost::system::error_code& error, double& time);

   bool hasStoredError() const { return myHasStoredError.load(std::memory_order_acquire); }

private:
   typedef boost::asio::executor_work_guard<boost::asio::io_context::executor_type> WorkGuard;

   void startReceive();
   void handleReceiveFrom(boost::system::error_code const& error, std::size_t bytes);
   int queueSend(std::vector<char>* buffer, Endpoint* endpoint, boost::system::error_code& error);
   void addToSendQueue(Endpoint* endpoint, std::vector<char>* buffer);
   void startSend(Entry const& entry);
   void handleSendComplete(boost::system::error_code const& error);
   // Pops the oldest received entry and its time in one step; false when none waits.
   bool popReceived(Entry& entry, double& time);
   // The two receive-queue reads: the stored error, else the oldest entry handed to
   // copy(data), which answers whether it fitted.
   template <class Copy>
   int takeReceived(Endpoint& sender, boost::system::error_code& error, double& time,
                    Copy const& copy);
   static void freeEntry(Entry const& entry);

   DtInetUdpSocket* myOwner;
   DtInetBoostUdpSocket* mySendSocket;
   DtInetBoostUdpSocket* myReceiveSocket;
   boost::asio::mutable_buffer* myReceiveBuffer;
   Endpoint mySender;
   boost::system::error_code myStoredError;
   bool myAsyncSend;
   WorkGuard* myWorkGuard;
   DtThreadSafe<Queue> mySendQueue;
   DtThreadSafe<Queue> myReceiveQueue;
   DtThreadSafe<std::deque<double>> myReceiveTimes;
   DtClock myClock;
   // The bytes myReceiveBuffer describes.
   std::vector<char> myReceiveStorage;
   // Published by the I/O thread after myStoredError is written.
   std::atomic<bool> myHasStoredError;
   // Datagrams accepted by asyncSendTo and not yet sent or given up; stop() waits for
   // it to reach 0 so that closing delivers what was queued.
   std::atomic<long> myOutstandingSends;
   // Set when the send queue stopped after a failure: nothing more will drain.
   std::atomic<bool> mySendHalted;
};

#endif  // OLUTIL_OLINETUDPSOCKPIMPL_H
