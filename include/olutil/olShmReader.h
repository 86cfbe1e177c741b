//===- olutil/olShmReader.h - Reading a shared-memory message queue -*- C++ -*-===//
//
// Family: Messaging.
//
// DtClientServerReader is the abstract reader of client/server traffic;
// DtShmMsgQueueReader reads messages from a shared-memory queue (olShmQueue.h), in
// the order they were written, with a single copy out of the ring.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLSHMREADER_H
#define OLUTIL_OLSHMREADER_H

#include <olutil/olShmQueue.h>

// Where the status of a read reports on (the `status` byte of Read).
enum DtShmReadStatus
{
   DtShmReadTaken = 0,       // a message was taken
   DtShmReadNoLock = 1,      // the front lock could not be taken
   DtShmReadEmpty = 2,       // nothing to read (or nothing readable: see Read)
   DtShmReadGoAway = 3,      // goAway is set, to a value other than 2
   DtShmReadGoAwayTwo = 4    // goAway is 2
};

// A source of messages.
class DtClientServerReader
{
public:
   virtual ~DtClientServerReader();
   // Copies the next message into `buffer` (at most `size` bytes); returns the bytes
   // copied or -1, and sets *status.
   virtual int Read(char* buffer, unsigned long size, char* status) = 0;
};

// The reading end of a queue. Exactly one reader per queue, used by one thread.
//
// Blocking read (the mode every queue is created with): Read first waits on the
// waiting-message semaphore, so it returns only once a message was written or
// goAway was seen before waiting. In drop-oldest mode Read holds the front lock for
// the whole read, so a writer that overwrites waits for it (or, when the writer
// does not wait for the lock, drops its message). In blocking mode no lock is taken:
// an element is the reader's until it gives its bytes back.
class DtShmMsgQueueReader : public DtClientServerReader
{
public:
   // The first four and the last two arguments as for DtShmMsgQueueManager;
   // `waitForLock` decides whether Read waits for the front lock (drop-oldest mode).
   DtShmMsgQueueReader(Dt_Shm_Msg_Queue* queue, int queueSize, int semaphoreSetId,
                       int semaphoreIndex, bool waitForLock, bool initialise, bool dropOldest);
   ~DtShmMsgQueueReader() override;

   // Takes the message at the front. `status` null: -1 at once. goAway set: -1 at
   // once, status 3, or 4 for the value 2. Otherwise, after the waits above, copies
   // min(size, padded length) bytes into `buffer` and returns that count with status
   // 0; a null `buffer` takes and discards the message and returns 0. The padded
   // length is the written size rounded up to a multiple of 8. Bytes of the message
   // beyond `size` are lost. An empty queue gives -1 and status 2, as does an element
   // at the front that is not a well-formed message inside the area (which also
   // warns): nothing is read outside the area or past a message's length.
   int Read(char* buffer, unsigned long size, char* status) override;

   DtShmMsgQueueManager& manager();
   int getMessagesRead() const;

private:
   DtShmMsgQueueManager queueManager;
   bool waitForLock;
   int messagesRead = 0;
};

#endif  // OLUTIL_OLSHMREADER_H
