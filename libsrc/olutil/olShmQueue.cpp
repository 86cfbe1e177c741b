//===- olShmQueue.cpp - Shared-memory message queue layout ----------------===//
//
// Family: Messaging.
//
//===----------------------------------------------------------------------===//
#include <olutil/olShmQueue.h>

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include <olutil/olPrint.h>

#include "olShmAccess.h"

namespace
{

// The smallest area that holds an end element and one 8-byte message.
constexpr int theMinimumArea = 16;

sembuf operation(int semaphore, short flags)
{
   sembuf op;
   op.sem_num = static_cast<unsigned short>(semaphore);
   op.sem_op = 0;
   op.sem_flg = flags;
   return op;
}

// semop on `count` operations. A failure warns with `word`, except a wait that a
// signal interrupted: that is how a program stops a reader or writer that waits, and
// the caller sees the failure in its result.
int semaphoreCall(int setId, sembuf* ops, std::size_t count, char const* word)
{
   if (semop(setId, ops, count) == 0)
      return 0;
   if (word && errno != EINTR)
      DtWarnPerror("%s", word);
   return -1;
}

// A count the byte or packet semaphore can move in one operation.
bool countFits(int count, char const* word)
{
   if (count >= 0 && count <= DtShmMaxBlockingQueueSize)
      return true;
   errno = ERANGE;
   DtWarnPerror("%s %d", word, count);
   return false;
}

void setSemaphore(int setId, int semaphore, int value)
{
   if (semctl(setId, semaphore, SETVAL, value) != 0)
      DtWarnPerror("DtShmMsgQueueManager: cannot set semaphore %d to %d", semaphore, value);
}

}  // namespace

DtShmMsgQueueManager::DtShmMsgQueueManager(Dt_Shm_Msg_Queue* queue_, int queueSize_,
                                           int semaphoreSetId_, int semaphoreIndex,
                                           bool initialise, bool dropOldest)
    : queue(queue_),
      queueSize(queueSize_),
      semaphoreSetId(semaphoreSetId_),
      lockOperation(operation(semaphoreIndex, SEM_UNDO)),
      unlockOperation(operation(semaphoreIndex, SEM_UNDO)),
      incrBytesOperation(operation(semaphoreIndex, 0)),
      decrBytesOperation(operation(semaphoreIndex, 0)),
      incrPacketsOperation(operation(semaphoreIndex + 1, 0)),
      decrPacketsOperation(operation(semaphoreIndex + 1, 0))
{
   lockOperation.sem_op = -1;
   unlockOperation.sem_op = 1;
   if (!initialise || !isUsable())
      return;
   setSemaphore(semaphoreSetId, semaphoreIndex + 1, 0);
   olshm::store(queue->dropOldest, dropOldest ? 1 : 0);
   if (dropOldest)
   {
      setSemaphore(semaphoreSetId, semaphoreIndex, 1);
      olshm::store(queue->blockingWrite, 0);
   }
   else
   {
      if (queueSize > DtShmMaxBlockingQueueSize)
         DtWarn("DtShmMsgQueueManager: a blocking queue holds at most %d bytes, not %d; "
                "nothing can be written to it\n",
                DtShmMaxBlockingQueueSize, queueSize);
      else
         setSemaphore(semaphoreSetId, semaphoreIndex, queueSize);
      olshm::store(queue->blockingWrite, 1);
   }
   olshm::store(queue->blockingRead, 1);
   olshm::store(queue->front, 0);
   olshm::store(queue->goAway, 0);
   olshm::store(queue->reserved, 0);
   olshm::store(queue->notifyReader, 0u);
   auto* end = getQueueElement(0);
   olshm::store(end->length, static_cast<std::uint32_t>(queueSize - 8));
   olshm::store(end->free, 1);
   olshm::store(end->type, DtShmElementEnd);
}

DtShmMsgQueueManager::~DtShmMsgQueueManager() = default;

int DtShmMsgQueueManager::lockFront(int wait)
{
   lockOperation.sem_flg = static_cast<short>(wait ? SEM_UNDO : (SEM_UNDO | IPC_NOWAIT));
   return semaphoreCall(semaphoreSetId, &lockOperation, 1, nullptr);
}

int DtShmMsgQueueManager::unlockFront()
{
   return semaphoreCall(semaphoreSetId, &unlockOperation, 1, "clearLock");
}

int DtShmMsgQueueManager::incrByteCount(int count)
{
   if (!countFits(count, "incrBytes"))
      return -1;
   incrBytesOperation.sem_op = static_cast<short>(count);
   return semaphoreCall(semaphoreSetId, &incrBytesOperation, 1, "incrBytes");
}

int DtShmMsgQueueManager::decrByteCount(int count)
{
   if (count == 0)
      return 0;
   if (!countFits(count, "decrBytes"))
      return -1;
   decrBytesOperation.sem_op = static_cast<short>(-count);
   return semaphoreCall(semaphoreSetId, &decrBytesOperation, 1, "decrBytes");
}

int DtShmMsgQueueManager::incrPacketCount(int count)
{
   if (!countFits(count, "incrPackets"))
      return -1;
   incrPacketsOperation.sem_op = static_cast<short>(count);
   return semaphoreCall(semaphoreSetId, &incrPacketsOperation, 1, "incrPackets");
}

int DtShmMsgQueueManager::decrPacketCount(int count)
{
   if (!countFits(count, "decrPackets"))
      return -1;
   decrPacketsOperation.sem_op = static_cast<short>(-count);
   return semaphoreCall(semaphoreSetId, &decrPacketsOperation, 1, "decrPackets");
}

int DtShmMsgQueueManager::reserveBytes(int count, int giveBack)
{
   if (!countFits(count, "decrBytes") || !countFits(giveBack, "decrBytes"))
      return -1;
   sembuf ops[2] = {decrBytesOperation, incrBytesOperation};
   ops[0].sem_op = static_cast<short>(-count);
   ops[1].sem_op = static_cast<short>(giveBack);
   return semaphoreCall(semaphoreSetId, ops, giveBack > 0 ? 2 : 1, "decrBytes");
}

int DtShmMsgQueueManager::tryDecrPacketCount(int count)
{
   if (count <= 0 || count > DtShmMaxBlockingQueueSize)
      return 0;
   sembuf op = decrPacketsOperation;
   op.sem_op = static_cast<short>(-count);
   op.sem_flg = IPC_NOWAIT;
   return semaphoreCall(semaphoreSetId, &op, 1, nullptr);
}

int DtShmMsgQueueManager::getFront() const
{
   return isUsable() ? olshm::load(queue->front) : 0;
}

void DtShmMsgQueueManager::setFront(int offset)
{
   if (isUsable())
      olshm::store(queue->front, offset);
}

Dt_Shm_Msg_Queue_Element* DtShmMsgQueueManager::getQueueElement(int offset) const
{
   if (!isUsable() || offset < 0 || offset % 8 != 0 || offset > queueSize - 8)
      return nullptr;
   return reinterpret_cast<Dt_Shm_Msg_Queue_Element*>(elementArea() + offset);
}

int DtShmMsgQueueManager::getPhysEnd() const
{
   return queueSize;
}

int DtShmMsgQueueManager::getGoAway() const
{
   return isUsable() ? olshm::load(queue->goAway) : 0;
}

bool DtShmMsgQueueManager::isBlockingRead() const
{
   return isUsable() && olshm::load(queue->blockingRead) != 0;
}

bool DtShmMsgQueueManager::isBlockingWrite() const
{
   return isUsable() && olshm::load(queue->blockingWrite) != 0;
}

bool DtShmMsgQueueManager::isDropOldest() const
{
   return isUsable() && olshm::load(queue->dropOldest) != 0;
}

unsigned int DtShmMsgQueueManager::notifyReader() const
{
   return isUsable() ? olshm::load(queue->notifyReader) : 0;
}

bool DtShmMsgQueueManager::isUsable() const
{
   return queue != nullptr && queueSize >= theMinimumArea;
}

char* DtShmMsgQueueManager::elementArea() const
{
   return reinterpret_cast<char*>(queue) + DtShmMsgQueueHeaderSize;
}
