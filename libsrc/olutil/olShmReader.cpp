//===- olShmReader.cpp - Reading a shared-memory message queue ------------===//
//
// Family: Messaging.
//
//===----------------------------------------------------------------------===//
#include <olutil/olShmReader.h>

#include <algorithm>
#include <cstring>

#include <olutil/olPrint.h>

#include "olShmAccess.h"

namespace
{

void warnDamaged(int offset)
{
   DtWarn("DtShmMsgQueueReader::Read: no readable element at offset %d\n", offset);
}

}  // namespace

DtClientServerReader::~DtClientServerReader() = default;

DtShmMsgQueueReader::DtShmMsgQueueReader(Dt_Shm_Msg_Queue* queue, int queueSize,
                                         int semaphoreSetId, int semaphoreIndex,
                                         bool waitForLock_, bool initialise, bool dropOldest)
    : queueManager(queue, queueSize, semaphoreSetId, semaphoreIndex, initialise, dropOldest),
      waitForLock(waitForLock_)
{
}

DtShmMsgQueueReader::~DtShmMsgQueueReader() = default;

int DtShmMsgQueueReader::Read(char* buffer, unsigned long size, char* status)
{
   if (!status)
      return -1;
   DtShmMsgQueueManager& m = queueManager;
   if (int const goAway = m.getGoAway())
   {
      *status = goAway == 2 ? DtShmReadGoAwayTwo : DtShmReadGoAway;
      return -1;
   }
   if (m.isBlockingRead())
      m.decrPacketCount(1);
   bool const locked = m.isDropOldest();
   if (locked && m.lockFront(waitForLock) != 0)
   {
      *status = DtShmReadNoLock;
      return -1;
   }
   *status = DtShmReadEmpty;
   int result = -1;
   int const physEnd = m.getPhysEnd();
   int offset = m.getFront();
   Dt_Shm_Msg_Queue_Element* element = m.getQueueElement(offset);
   unsigned type = element ? olshm::load(element->type) : 0xffff;
   if (type == DtShmElementWrap)
   {
      long long const next = olshm::nextOffset(element, offset, physEnd);
      if (next >= 0)
      {
         // The writer marks the wrap only after the message at 0 is complete.
         int const skipped = static_cast<int>(next - offset);
         m.setFront(0);
         olshm::store(element->free, 1);
         if (m.isBlockingWrite())
            m.incrByteCount(skipped);
         offset = 0;
         element = m.getQueueElement(0);
         type = element ? olshm::load(element->type) : 0xffff;
      }
      else
         type = 0xffff;
   }
   if (type == DtShmElementMessage)
   {
      long long const next = olshm::nextOffset(element, offset, physEnd);
      if (next >= 0)
      {
         unsigned long const length = static_cast<unsigned long>(next - offset - 8);
         result = 0;
         if (buffer)
         {
            result = static_cast<int>(std::min(length, size));
            std::memcpy(buffer, reinterpret_cast<char const*>(element + 1), result);
         }
         *status = DtShmReadTaken;
         ++messagesRead;
         m.setFront(static_cast<int>(next));
         olshm::store(element->free, 1);
         if (m.isBlockingWrite())
            m.incrByteCount(static_cast<int>(next - offset));
      }
      else
         type = 0xffff;
   }
   if (type != DtShmElementMessage && type != DtShmElementEnd)
      warnDamaged(offset);
   if (locked)
      m.unlockFront();
   return result;
}

DtShmMsgQueueManager& DtShmMsgQueueReader::manager()
{
   return queueManager;
}

int DtShmMsgQueueReader::getMessagesRead() const
{
   return messagesRead;
}
