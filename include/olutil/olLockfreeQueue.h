//===- olutil/olLockfreeQueue.h - Lock-free queues of pointers --*- C++ -*-===//
//
// Family: Containers.
//
// Two thin owners of Boost.Lockfree queues of void*, for handing pointers between
// threads without a lock: DtLockfreeMpmcQueueImpl for any number of producers and
// consumers, DtLockfreeQueueImpl for exactly one of each with a capacity fixed at
// construction. Memory ordering, ABA protection and node recycling are
// Boost.Lockfree's; the queues never own what the pointers point to.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLLOCKFREEQUEUE_H
#define OLUTIL_OLLOCKFREEQUEUE_H

// A queue of pointers for many producers and many consumers.
//
// Thread safety: _push, _pop and _empty may be called from any number of threads
// at once. A successful _push happens before the _pop that takes that element.
// _empty is a snapshot that may be stale when it returns.
class DtLockfreeMpmcQueueImpl
{
public:
   // size: the number of nodes made up front; the queue grows beyond it on demand.
   explicit DtLockfreeMpmcQueueImpl(unsigned int size);
   virtual ~DtLockfreeMpmcQueueImpl();

   DtLockfreeMpmcQueueImpl(DtLockfreeMpmcQueueImpl const&) = delete;
   DtLockfreeMpmcQueueImpl& operator=(DtLockfreeMpmcQueueImpl const&) = delete;

   // False only when no node could be had for the element.
   bool _push(void* const& element);
   // True when an element was taken; on false, element is left as it was.
   bool _pop(void*& element);
   bool _empty();

private:
   struct Queue;
   Queue* myQueue;
};

// A bounded ring of pointers for one producer and one consumer.
//
// Thread safety: correct only with one thread pushing and one thread popping at a
// time (they may be different threads). A successful _push happens before the
// _pop that takes that element. _empty, _read_available and _write_available are
// snapshots.
class DtLockfreeQueueImpl
{
public:
   // size: the capacity, the most elements the ring holds at once.
   explicit DtLockfreeQueueImpl(unsigned long size);
   virtual ~DtLockfreeQueueImpl();

   DtLockfreeQueueImpl(DtLockfreeQueueImpl const&) = delete;
   DtLockfreeQueueImpl& operator=(DtLockfreeQueueImpl const&) = delete;

   // The capacity given to the constructor, not the number of elements held.
   unsigned long _size() const { return mySize; }

   // False when the ring is full; the element is then not queued.
   bool _push(void* const& element);
   // True when an element was taken; on false, element is left as it was.
   bool _pop(void*& element);
   bool _empty();

   // Free places, for the producer; filled places, for the consumer.
   unsigned long _write_available() const;
   unsigned long _read_available() const;

private:
   struct Queue;
   Queue* myQueue;
   unsigned long mySize;
};

#endif  // OLUTIL_OLLOCKFREEQUEUE_H
