//===- olutil/olShmQueue.h - Shared-memory message queue layout --*- C++ -*-===//
//
// Family: Messaging.
//
// A variable-length message queue laid out in a block of System V shared memory,
// joining one writer and one reader in two processes. Dt_Shm_Msg_Queue is the block's
// fixed header, followed by an element area of queueSize bytes that holds a chain of
// elements (message, wrap, end). DtShmMsgQueueManager is one process's view of a
// queue: it creates the layout, and wraps the two semaphores that carry flow control
// (blocking mode) or the front lock (drop-oldest mode). The reader and the writer
// (olShmReader.h, olShmWriter.h) build on it.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLSHMQUEUE_H
#define OLUTIL_OLSHMQUEUE_H

#include <sys/sem.h>

#include <cstddef>
#include <cstdint>

// The fixed header of a queue in shared memory, in the host's byte order. The element
// area follows at offset 16 (DtShmMsgQueueHeaderSize); all offsets into the queue,
// `front` among them, count from the start of the element area.
struct Dt_Shm_Msg_Queue
{
   std::int32_t front;          // the reader's offset into the element area
   std::uint32_t notifyReader;  // set by the packet server; created as 0
   std::uint8_t goAway;         // 0 carry on; any other value ends reading
   std::uint8_t reserved;       // created as 0
   std::uint8_t padding1[2];
   std::uint8_t blockingRead;   // created as 1
   std::uint8_t blockingWrite;  // 1 in blocking mode, 0 in drop-oldest mode
   std::uint8_t dropOldest;     // 0 in blocking mode, 1 in drop-oldest mode
   std::uint8_t padding2;
};

// The header of one element: `length` bytes of body follow it, and the next element
// begins `length` + 8 bytes further on.
struct Dt_Shm_Msg_Queue_Element
{
   std::uint16_t free;    // 1: the space may be reused; 0: a message or marker in use
   std::uint16_t type;    // DtShmElementMessage, DtShmElementWrap or DtShmElementEnd
   std::uint32_t length;  // body bytes; a multiple of 8 for a message
};

static_assert(offsetof(Dt_Shm_Msg_Queue, front) == 0, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue, notifyReader) == 4, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue, goAway) == 8, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue, reserved) == 9, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue, blockingRead) == 12, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue, blockingWrite) == 13, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue, dropOldest) == 14, "queue layout");
static_assert(sizeof(Dt_Shm_Msg_Queue) == 16, "queue layout");
static_assert(offsetof(Dt_Shm_Msg_Queue_Element, free) == 0, "element layout");
static_assert(offsetof(Dt_Shm_Msg_Queue_Element, type) == 2, "element layout");
static_assert(offsetof(Dt_Shm_Msg_Queue_Element, length) == 4, "element layout");
static_assert(sizeof(Dt_Shm_Msg_Queue_Element) == 8, "element layout");

// Element types.
enum DtShmElementType
{
   DtShmElementMessage = 0,  // a complete message
   DtShmElementWrap = 1,     // the rest of the area is skipped; reading goes on at 0
   DtShmElementEnd = 2       // the writer's position; `length` is the room after it
};

// Bytes before the element area.
constexpr int DtShmMsgQueueHeaderSize = 16;
// A semaphore holds at most this value and one operation moves at most this much,
// so the free-byte count of a blocking queue, and with it the element area, stays
// within it.
constexpr int DtShmMaxBlockingQueueSize = 32767;

// Bytes of shared memory a queue with an element area of `queueSize` bytes takes.
constexpr std::size_t DtShmMsgQueueBytes(int queueSize)
{
   return static_cast<std::size_t>(DtShmMsgQueueHeaderSize) +
          static_cast<std::size_t>(queueSize < 0 ? 0 : queueSize);
}

// One process's view of a queue. The semaphore set and the two consecutive
// semaphores from `semaphoreIndex` belong to the caller, who creates and removes
// them: in blocking mode the first counts free bytes of the area and the second the
// waiting messages; in drop-oldest mode the first is the front lock.
//
// A manager is used by one thread. Two managers in two processes (the writer's and
// the reader's) share the queue; see olShmReader.h and olShmWriter.h for who may
// touch what.
class DtShmMsgQueueManager
{
public:
   // With `initialise` the semaphores and the block are set up for a new, empty
   // queue in the chosen mode; without it only the local fields are filled. A queue
   // pointer that is null or an area under 16 bytes leaves the manager unusable:
   // nothing in shared memory is touched, reads find the queue empty and writes fail.
   DtShmMsgQueueManager(Dt_Shm_Msg_Queue* queue, int queueSize, int semaphoreSetId,
                        int semaphoreIndex, bool initialise, bool dropOldest);
   virtual ~DtShmMsgQueueManager();

   DtShmMsgQueueManager(DtShmMsgQueueManager const&) = delete;
   DtShmMsgQueueManager& operator=(DtShmMsgQueueManager const&) = delete;

   // The semaphore operations return 0 on success and -1 on failure. A wait that a
   // signal interrupts fails without a message.
   //
   // Takes the front lock, waiting for it when `wait` is non-zero. 0 on success, -1
   // on failure (busy without waiting, or a failed call), with no message. The lock
   // is released by the system if the holding process dies.
   int lockFront(int wait);
   // Releases the front lock; a failure warns "clearLock: ...".
   int unlockFront();
   // Adds `count` free bytes ("incrBytes" on failure).
   int incrByteCount(int count);
   // Takes `count` free bytes, waiting until they are there; 0 does nothing
   // ("decrBytes" on failure).
   int decrByteCount(int count);
   // Adds `count` waiting messages ("incrPackets" on failure).
   int incrPacketCount(int count);
   // Takes `count` waiting messages, waiting until they are there; 0 still calls
   // the system ("decrPackets" on failure).
   int decrPacketCount(int count);

   // Waits until `count` free bytes are there, then takes `count` - `giveBack` of
   // them, all in one system call ("decrBytes" on failure). The writer uses it to
   // wait for a message and the end element after it while keeping only the
   // message's room.
   int reserveBytes(int count, int giveBack);
   // Takes up to `count` waiting messages if that many are there, without waiting
   // and without a message when they are not.
   int tryDecrPacketCount(int count);

   int getFront() const;
   void setFront(int offset);
   // The element at `offset`, or null when its header would not lie wholly inside
   // the area or the offset is not a multiple of 8.
   Dt_Shm_Msg_Queue_Element* getQueueElement(int offset) const;
   // The size of the element area.
   int getPhysEnd() const;
   int getGoAway() const;
   bool isBlockingRead() const;
   bool isBlockingWrite() const;
   bool isDropOldest() const;
   unsigned int notifyReader() const;
   // False when the manager was given no queue or too small an area.
   bool isUsable() const;

protected:
   // The start of the element area.
   char* elementArea() const;

   Dt_Shm_Msg_Queue* queue;
   int queueSize;
   int semaphoreSetId;
   sembuf lockOperation;
   sembuf unlockOperation;
   sembuf incrBytesOperation;
   sembuf decrBytesOperation;
   sembuf incrPacketsOperation;
   sembuf decrPacketsOperation;
};

#endif  // OLUTIL_OLSHMQUEUE_H
