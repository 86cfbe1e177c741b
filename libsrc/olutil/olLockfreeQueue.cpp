//===- olLockfreeQueue.cpp - Lock-free queues of pointers ------------------===//
//
// The Boost.Lockfree containers stay in this file: the public header names them
// only through the opaque Queue companions below.
//
//===----------------------------------------------------------------------===//
#include <olutil/olLockfreeQueue.h>

#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>

struct DtLockfreeMpmcQueueImpl::Queue
{
   explicit Queue(unsigned int size) : queue(size) {}
   boost::lockfree::queue<void*> queue;
};

struct DtLockfreeQueueImpl::Queue
{
   explicit Queue(unsigned long size) : queue(size) {}
   boost::lockfree::spsc_queue<void*> queue;
};

// ---------------------------------------------------------------- many to many

DtLockfreeMpmcQueueImpl::DtLockfreeMpmcQueueImpl(unsigned int size) : myQueue(new Queue(size)) {}

DtLockfreeMpmcQueueImpl::~DtLockfreeMpmcQueueImpl()
{
   delete myQueue;
   myQueue = nullptr;
}

bool DtLockfreeMpmcQueueImpl::_push(void* const& element)
{
   return myQueue->queue.push(element);
}

bool DtLockfreeMpmcQueueImpl::_pop(void*& element)
{
   // Boost writes the out-argument only when it takes an element.
   return myQueue->queue.pop(element);
}

bool DtLockfreeMpmcQueueImpl::_empty()
{
   return myQueue->queue.empty();
}

// ---------------------------------------------------------------- one to one

DtLockfreeQueueImpl::DtLockfreeQueueImpl(unsigned long size)
    : myQueue(new Queue(size)), mySize(size)
{
}

DtLockfreeQueueImpl::~DtLockfreeQueueImpl()
{
   delete myQueue;
   myQueue = nullptr;
}

bool DtLockfreeQueueImpl::_push(void* const& element)
{
   return myQueue->queue.push(element);
}

bool DtLockfreeQueueImpl::_pop(void*& element)
{
   return myQueue->queue.pop(element);
}

bool DtLockfreeQueueImpl::_empty()
{
   return myQueue->queue.empty();
}

unsigned long DtLockfreeQueueImpl::_write_available() const
{
   return myQueue->queue.write_available();
}

unsigned long DtLockfreeQueueImpl::_read_available() const
{
   return myQueue->queue.read_available();
}
