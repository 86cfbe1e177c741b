//===- olutil/olShmWriter.h - Writing a shared-memory message queue -*- C++ -*-===//
//
// Family: Messaging.
//
// DtClientServerWriter is the abstract writer of client/server traffic;
// DtShmMsgQueueWriter writes messages into a shared-memory queue (olShmQueue.h),
// straight from the caller's pieces into the ring, under one of two disciplines:
// blocking (wait for room, lose nothing) or drop-oldest (never wait for room,
// overwrite the oldest messages).
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLSHMWRITER_H
#define OLUTIL_OLSHMWRITER_H

#include <olutil/olShmQueue.h>

// A sink for messages.
class DtClientServerWriter
{
public:
   virtual ~DtClientServerWriter();
   // Writes one message; returns the payload bytes written, or 0 or below.
   virtual int Write(char* data, unsigned long size) = 0;
   // Writes the `count` pieces as one message.
   virtual int Writev(char** pieces, unsigned long* sizes, int count) = 0;
};

// The writing end of a queue. Exactly one writer per queue, used by one thread.
//
// A message of n payload bytes takes an element of 8 + n rounded up to 8 bytes; a
// write needs that plus 8 for the end element that follows it.
//
// Blocking mode: Writev waits until the reader has given back enough bytes and never
// drops a message that can fit in the area. It waits only on the reader: while the
// reader reads, every write completes. A message that fits neither before the end of
// the area nor before the writer's position waits until the reader has emptied the
// queue and then starts the area afresh at offset 0. The largest message is the
// area less 16 bytes, and the area at most DtShmMaxBlockingQueueSize bytes.
//
// Drop-oldest mode: Writev never waits for room. When it must overwrite unread
// messages it takes the front lock (waiting for it if `waitForLock`), moves the
// reader's front to the oldest message that survives, and releases the lock; a write
// that cannot have the lock is dropped. Any message up to the area less 16 bytes
// fits.
//
// Counters: messagesWritten counts messages written; droppedNew counts writes that
// failed; droppedOld counts each in-use element a search for room passed over,
// again whenever a search is repeated, so it is at least the number of messages
// lost to overwriting and usually above it.
class DtShmMsgQueueWriter : public DtClientServerWriter
{
public:
   DtShmMsgQueueWriter(Dt_Shm_Msg_Queue* queue, int queueSize, int semaphoreSetId,
                       int semaphoreIndex, bool waitForLock, bool initialise, bool dropOldest);
   ~DtShmMsgQueueWriter() override;

   // Writev with one piece.
   int Write(char* data, unsigned long size) override;
   // Returns the payload size (the sum of `sizes`) on success. -1 when the message
   // can never fit, when a piece is null but its size is not 0, when the count is
   // negative, when the lock could not be had, or when the area is found damaged;
   // each failure adds 1 to droppedNew.
   int Writev(char** pieces, unsigned long* sizes, int count) override;

   DtShmMsgQueueManager& manager();
   int getTail() const;
   int getDroppedNew() const;
   int getDroppedOld() const;
   int getMessagesWritten() const;

private:
   struct Space;
   Space findSpace(int start, int needed, int limit);
   int enqueueBlocking(char** pieces, unsigned long* sizes, int count, int needed);
   int enqueueDropOldest(char** pieces, unsigned long* sizes, int count, int needed);
   void copyv(char** pieces, unsigned long* sizes, int count, int remaining);
   void moveFront(int fallback);
   int unreadMessages(int start, int end);
   void dropOverwrittenCounts(int messages);

   DtShmMsgQueueManager queueManager;
   bool waitForLock;
   int tail = 0;
   int droppedNew = 0;
   int droppedOld = 0;
   int messagesWritten = 0;
};

#endif  // OLUTIL_OLSHMWRITER_H
