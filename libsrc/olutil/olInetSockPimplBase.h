//===- olInetSockPimplBase.h - What the sockets' background queues share -*- C++ -*-===//
//
// Family: Sockets.
//
// DtInetSockPimplBase holds what the private Boost.Asio companions of the UDP and TCP
// sockets do alike: the I/O thread that runs the socket's context (created, started,
// stopped), the bounded wait for queued sends when the socket closes, the background
// read buffer, the sticky first failure, the end of a background read, and the send
// queue that keeps one write in flight.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETSOCKPIMPLBASE_H
#define OLUTIL_OLINETSOCKPIMPLBASE_H

#include <atomic>
#include <cstddef>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olInetSocket.h>
#include <olutil/olThreadSafe.h>

class DtRunnable;
class DtThreadedObject;

// The base of the background companions. Its members are the first three of each
// companion: the socket's context (not owned), the I/O thread (null when stopped) and
// the runnable that thread runs. Everything here belongs to the application thread
// except where a step says it runs on the I/O thread.
class DtInetSockPimplBase
{
public:
   // A queue entry: a heap endpoint (as void*, null on a stream) and a heap buffer,
   // both owned by the entry.
   typedef std::pair<void*, std::vector<char>*> Entry;
   typedef std::deque<Entry> Queue;

   DtInetSockPimplBase(DtInetSockPimplBase const&) = delete;
   DtInetSockPimplBase& operator=(DtInetSockPimplBase const&) = delete;

   bool running() const;

protected:
   explicit DtInetSockPimplBase(boost::asio::io_context* ioContext);
   ~DtInetSockPimplBase();

   // Creates, without starting it, the thread that runs the context for `owner`.
   void createThread(DtInetSocket* owner);
   // Starts the created thread. A thread that cannot be created reaches the caller as
   // DtThreadCreationError.
   void startThread();
   // Stops a running thread (first telling the context to stop) and deletes it.
   void stopThread();

   // Sizes the background read buffer: the configured packet buffer size, or
   // `smallest` when that is larger, and points `buffer` at it.
   static void sizeReceiveBuffer(std::vector<char>& storage, boost::asio::mutable_buffer*& buffer,
                                 std::size_t smallest);
   // Waits, for a bounded time, while queued sends are outstanding and the queue has
   // not stopped after a failure.
   static void drainSends(std::atomic<long> const& outstanding, std::atomic<bool> const& halted);
   // Keeps the first failure: written once on the I/O thread, then published.
   static void storeError(boost::system::error_code& stored, std::atomic<bool>& hasStored,
                          boost::system::error_code const& error);
   // I/O thread: whether a completed background read has ended reading. A read
   // cancelled by closing, or a would-block completion, ends it without a record;
   // any other failure is kept.
   static bool receiveEnded(boost::system::error_code const& error, std::size_t bytes,
                            boost::system::error_code& stored, std::atomic<bool>& hasStored)
   {
      // Inline: it runs for every packet read in the background.
      if (!error && bytes != std::numeric_limits<std::size_t>::max())
         return false;
      keepReadFailure(error, stored, hasStored);
      return true;
   }

   // The first steps of a background send, once the companion owns the buffer: the
   // stored failure, or error 9 when no I/O thread would ever write it; otherwise
   // the send counts as outstanding, add() is posted to the I/O thread, and the
   // result is `bytes`.
   template <class Add>
   int postSend(int bytes, boost::system::error_code const& stored, bool hasStored,
                std::atomic<long>& outstanding, boost::system::error_code& error, Add add)
   {
      if (hasStored)
      {
         error = stored;
         return DtInetSockResultFailed;
      }
      if (!myThread)
      {
         error = boost::asio::error::bad_descriptor;
         return DtInetSockResultFailed;
      }
      ++outstanding;
      boost::asio::post(*myIoContext, std::move(add));
      return bytes;
   }

   // The ending half of receiveEnded().
   static void keepReadFailure(boost::system::error_code const& error,
                               boost::system::error_code& stored, std::atomic<bool>& hasStored);

   // I/O thread: queues an entry; true when the queue was empty, so that the caller
   // starts its write. One write in flight at a time keeps the order.
   static bool pushSend(DtThreadSafe<Queue>& queue, Entry const& entry);
   // I/O thread: takes the entry whose write has completed; `next` becomes the entry
   // to write now, if any.
   static Entry popSent(DtThreadSafe<Queue>& queue, Entry& next);
   // Empties the queue, freeing each entry with free().
   static void clearQueue(DtThreadSafe<Queue>& queue, void (*free)(Entry const& entry));
   // Copies a received packet into a caller's buffer: false when it does not fit.
   static bool copyToBuffer(std::vector<char> const& data, char* buffer, unsigned long length)
   {
      if (data.size() > length)
         return false;
      if (!data.empty())
         std::memcpy(buffer, data.data(), data.size());
      return true;
   }

   boost::asio::io_context* myIoContext;
   DtThreadedObject* myThread;
   DtRunnable* myRunnable;
};

#endif  // OLUTIL_OLINETSOCKPIMPLBASE_H
