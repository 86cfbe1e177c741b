//===- olInetSockPimplBase.cpp - What the sockets' background queues share -===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include "olInetSockPimplBase.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include <olutil/olExceptions.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olIoServiceRunnable.h>
#include <olutil/olThreadedObject.h>

namespace
{

constexpr int theWouldBlockError = 11;
// Closing waits at most this long for queued sends to leave: a stream peer that
// stopped reading, or a stalled I/O thread, could otherwise hold the close for ever.
constexpr std::chrono::seconds theDrainLimit(5);
constexpr std::chrono::microseconds theDrainPause(200);

}  // namespace

DtInetSockPimplBase::DtInetSockPimplBase(boost::asio::io_context* ioContext)
    : myIoContext(ioContext), myThread(nullptr), myRunnable(nullptr)
{
}

DtInetSockPimplBase::~DtInetSockPimplBase()
{
   delete myThread;
}

bool DtInetSockPimplBase::running() const
{
   return myThread && myThread->running();
}

void DtInetSockPimplBase::createThread(DtInetSocket* owner)
{
   auto runnable = std::make_shared<DtIoServiceRunnable>(myIoContext, owner);
   myRunnable = runnable.get();
   myThread = new DtThreadedObject(runnable);
}

void DtInetSockPimplBase::startThread()
{
   myThread->start();
}

void DtInetSockPimplBase::stopThread()
{
   if (myThread && myThread->running())
   {
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
}

void DtInetSockPimplBase::sizeReceiveBuffer(std::vector<char>& storage,
                                            boost::asio::mutable_buffer*& buffer,
                                            std::size_t smallest)
{
   int const configured = DtInetUtils::getMaxPacketBufferSize();
   storage.assign(std::max(smallest, configured > 0 ? static_cast<std::size_t>(configured) : 0), 0);
   delete buffer;
   buffer = new boost::asio::mutable_buffer(storage.data(), storage.size());
}

void DtInetSockPimplBase::drainSends(std::atomic<long> const& outstanding,
                                     std::atomic<bool> const& halted)
{
   auto const deadline = std::chrono::steady_clock::now() + theDrainLimit;
   while (outstanding.load() > 0 && !halted.load() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(theDrainPause);
}

void DtInetSockPimplBase::storeError(boost::system::error_code& stored,
                                     std::atomic<bool>& hasStored,
                                     boost::system::error_code const& error)
{
   if (!error || hasStored.load(std::memory_order_relaxed))
      return;
   stored = error;
   hasStored.store(true, std::memory_order_release);
}

void DtInetSockPimplBase::keepReadFailure(boost::system::error_code const& error,
                                          boost::system::error_code& stored,
                                          std::atomic<bool>& hasStored)
{
   // A read cancelled by closing is the end of reading, not a failure: it must not
   // poison the send queue that closing still drains. A would-block completion is not
   // kept either. The peer's end of a stream is kept: its reader sees it after the
   // chunks that came before it.
   if (error != boost::asio::error::operation_aborted && error.value() != theWouldBlockError)
      storeError(stored, hasStored, error);
}

bool DtInetSockPimplBase::pushSend(DtThreadSafe<Queue>& queue, Entry const& entry)
{
   // One lock period for the whole step.
   auto locked = queue.operator->();
   bool const wasEmpty = locked->empty();
   locked->push_back(entry);
   return wasEmpty;
}

DtInetSockPimplBase::Entry DtInetSockPimplBase::popSent(DtThreadSafe<Queue>& queue, Entry& next)
{
   Entry done(nullptr, nullptr);
   next = Entry(nullptr, nullptr);
   auto locked = queue.operator->();
   if (!locked->empty())
   {
      done = locked->front();
      locked->pop_front();
   }
   if (!locked->empty())
      next = locked->front();
   return done;
}

void DtInetSockPimplBase::clearQueue(DtThreadSafe<Queue>& queue, void (*free)(Entry const& entry))
{
   Queue taken;
   queue->swap(taken);
   for (Entry const& entry : taken)
      free(entry);
}
