//===- olShmWriter.cpp - Writing a shared-memory message queue ------------===//
//
// Family: Messaging.
//
// The byte semaphore of a blocking queue holds the area's size less the bytes of
// the unread elements (messages and wrap marks); the end element's header is never
// counted. The reader gives back each element's bytes when it has read it, so the
// writer takes exactly the bytes of the elements it adds: a message's element, and
// a wrap mark's when it wraps. It waits for 8 bytes more than that (the new end
// element), and takes both in one call so that nothing is left to give back.
//
//===----------------------------------------------------------------------===//
#include <olutil/olShmWriter.h>

#include <cstring>

#include "olShmAccess.h"

namespace
{
constexpr int theElementHeader = 8;
}  // namespace

// The outcome of a search for room: `found` bytes of whole elements from the start;
// `status` 0 found without overwriting, 3 found by overwriting, 2 ran to the limit,
// 1 stopped by an element in use (blocking mode) or a damaged one.
struct DtShmMsgQueueWriter::Space
{
   int found = 0;
   int status = 0;
   bool sawInUse = false;
};

DtClientServerWriter::~DtClientServerWriter() = default;

DtShmMsgQueueWriter::DtShmMsgQueueWriter(Dt_Shm_Msg_Queue* queue, int queueSize,
                                         int semaphoreSetId, int semaphoreIndex,
                                         bool waitForLock_, bool initialise, bool dropOldest)
    : queueManager(queue, queueSize, semaphoreSetId, semaphoreIndex, initialise, dropOldest),
      waitForLock(waitForLock_)
{
}

DtShmMsgQueueWriter::~DtShmMsgQueueWriter() = default;

int DtShmMsgQueueWriter::Write(char* data, unsigned long size)
{
   return Writev(&data, &size, 1);
}

int DtShmMsgQueueWriter::Writev(char** pieces, unsigned long* sizes, int count)
{
   DtShmMsgQueueManager& m = queueManager;
   // The message's header and the end element's that follows it.
   long long total = 2 * theElementHeader;
   bool acceptable = m.isUsable() && count >= 0 && (count == 0 || (pieces && sizes));
   for (int i = 0; acceptable && i < count; ++i)
   {
      if (sizes[i] > 0 && !pieces[i])
         acceptable = false;
      else if (sizes[i] > static_cast<unsigned long>(m.getPhysEnd()))
         acceptable = false;
      else
         total += static_cast<long long>(sizes[i]);
      if (total > m.getPhysEnd() + 2LL * theElementHeader)
         acceptable = false;
   }
   int const needed = olshm::roundUp8(total);
   int result = -1;
   if (acceptable && needed <= m.getPhysEnd())
      result = m.isDropOldest() ? enqueueDropOldest(pieces, sizes, count, needed)
                                : enqueueBlocking(pieces, sizes, count, needed);
   if (result > 0)
   {
      ++messagesWritten;
      return static_cast<int>(result - (needed - total) - theElementHeader);
   }
   ++droppedNew;
   return -1;
}

DtShmMsgQueueWriter::Space DtShmMsgQueueWriter::findSpace(int start, int needed, int limit)
{
   DtShmMsgQueueManager& m = queueManager;
   bool const dropOldest = m.isDropOldest();
   Space space;
   int offset = start;
   while (offset < limit)
   {
      Dt_Shm_Msg_Queue_Element* element = m.getQueueElement(offset);
      if (!element)
         break;
      unsigned const free = olshm::load(element->free);
      if (!dropOldest && free != 1)
         break;
      long long const next = olshm::nextOffset(element, offset, m.getPhysEnd());
      if (next < 0)
         break;
      if (next > limit)
      {
         // Room that runs past the limit is not there: the limit is a wrap mark to be.
         offset = limit;
         break;
      }
      space.found += static_cast<int>(next - offset);
      if (free == 0)
      {
         space.sawInUse = true;
         // Counted for each in-use element seen, also when the search is repeated.
         ++droppedOld;
      }
      if (space.found >= needed)
         break;
      offset = static_cast<int>(next);
   }
   if (space.found >= needed)
      space.status = space.sawInUse ? 3 : 0;
   else
      space.status = offset >= limit ? 2 : 1;
   return space;
}

void DtShmMsgQueueWriter::copyv(char** pieces, unsigned long* sizes, int count, int remaining)
{
   DtShmMsgQueueManager& m = queueManager;
   Dt_Shm_Msg_Queue_Element* element = m.getQueueElement(tail);
   char* body = reinterpret_cast<char*>(element + 1);
   std::size_t written = 0;
   for (int i = 0; i < count; ++i)
   {
      if (sizes[i] > 0)
         std::memcpy(body + written, pieces[i], sizes[i]);
      written += sizes[i];
   }
   int const length = olshm::roundUp8(static_cast<long long>(written));
   // The padding carries no stale bytes of older messages.
   std::memset(body + written, 0, length - written);
   olshm::store(element->length, static_cast<std::uint32_t>(length));
   olshm::store(element->free, 0);
   int const messageAt = tail;
   tail += length + theElementHeader;
   Dt_Shm_Msg_Queue_Element* end = m.getQueueElement(tail);
   olshm::store(end->length, static_cast<std::uint32_t>(remaining));
   olshm::store(end->free, 1);
   olshm::store(end->type, DtShmElementEnd);
   // Last: the message becomes visible to the reader with all of the above.
   olshm::store(m.getQueueElement(messageAt)->type, DtShmElementMessage);
}

int DtShmMsgQueueWriter::enqueueBlocking(char** pieces, unsigned long* sizes, int count,
                                         int needed)
{
   DtShmMsgQueueManager& m = queueManager;
   int const physEnd = m.getPhysEnd();
   int const messageBytes = needed - theElementHeader;
   if (physEnd > DtShmMaxBlockingQueueSize || !m.getQueueElement(tail))
      return -1;
   if (tail + needed <= physEnd)
   {
      // Once the bytes are there, the room before the end of the area is free: either
      // the reader is behind the writer in the area, and all from the writer to the
      // end is free, or it is ahead, and the free bytes are the ones up to it.
      if (m.reserveBytes(needed, theElementHeader) != 0)
         return -1;
   }
   else if (needed <= tail)
   {
      // The rest of the area becomes a wrap mark and the message goes to offset 0.
      // Free bytes for both mean the reader has passed the wrap point and is at least
      // `needed` bytes into the area.
      int const wrapAt = tail;
      int const wrapBytes = physEnd - wrapAt;
      if (m.reserveBytes(wrapBytes + needed, theElementHeader) != 0)
         return -1;
      Dt_Shm_Msg_Queue_Element* wrap = m.getQueueElement(wrapAt);
      olshm::store(wrap->free, 0);
      Space const space = findSpace(0, needed, wrapAt);
      if (space.found < needed)
      {
         olshm::store(wrap->free, 1);
         m.incrByteCount(wrapBytes + messageBytes);
         return -1;
      }
      tail = 0;
      copyv(pieces, sizes, count, space.found - needed);
      olshm::store(wrap->length, static_cast<std::uint32_t>(wrapBytes - theElementHeader));
      // Marked only now, so the reader never follows it into unwritten space.
      olshm::store(wrap->type, DtShmElementWrap);
      if (m.isBlockingRead())
         m.incrPacketCount(1);
      return messageBytes;
   }
   else
   {
      // The message fits neither before the end of the area nor before the writer's
      // position. All bytes free means the reader has read everything and waits on
      // the message count before it looks at the front again, so the area can start
      // afresh at 0.
      if (m.reserveBytes(physEnd, physEnd - messageBytes) != 0)
         return -1;
      tail = 0;
      Dt_Shm_Msg_Queue_Element* end = m.getQueueElement(0);
      olshm::store(end->length, static_cast<std::uint32_t>(physEnd - theElementHeader));
      olshm::store(end->free, 1);
      olshm::store(end->type, DtShmElementEnd);
      m.setFront(0);
   }
   Space const space = findSpace(tail, needed, physEnd);
   if (space.found < needed)
   {
      m.incrByteCount(messageBytes);
      return -1;
   }
   copyv(pieces, sizes, count, space.found - needed);
   if (m.isBlockingRead())
      m.incrPacketCount(1);
   return messageBytes;
}

int DtShmMsgQueueWriter::enqueueDropOldest(char** pieces, unsigned long* sizes, int count,
                                           int needed)
{
   DtShmMsgQueueManager& m = queueManager;
   int const physEnd = m.getPhysEnd();
   Space space = findSpace(tail, needed, physEnd);
   if (space.found >= needed)
   {
      bool const overwrite = space.status == 3;
      if (overwrite && m.lockFront(waitForLock) != 0)
         return -1;
      int const messageAt = tail;
      int const unread = overwrite ? unreadMessages(tail, tail + space.found) : 0;
      copyv(pieces, sizes, count, space.found - needed);
      if (overwrite)
      {
         moveFront(messageAt);
         dropOverwrittenCounts(unread);
         m.unlockFront();
      }
   }
   else
   {
      Dt_Shm_Msg_Queue_Element* wrap = m.getQueueElement(tail);
      if (space.status != 2 || !wrap)
         return -1;
      int const wrapAt = tail;
      bool const discardsInUse = space.sawInUse;
      // In use from here on: a later search counts it, and moveFront may stop at it.
      olshm::store(wrap->free, 0);
      space = findSpace(0, needed, wrapAt);
      bool const wrapMark = space.found >= needed;
      if (!wrapMark)
      {
         // Too large for the room before the old position as well: the message
         // covers it, and the old position is no longer an element.
         space = findSpace(0, needed, physEnd);
         if (space.found < needed)
         {
            olshm::store(wrap->free, 1);
            return -1;
         }
      }
      bool const overwrite = space.status == 3 || (wrapMark && discardsInUse);
      if (overwrite && m.lockFront(waitForLock) != 0)
      {
         olshm::store(wrap->free, 1);
         return -1;
      }
      int unread = 0;
      if (overwrite)
         unread = unreadMessages(0, space.found) + (wrapMark ? unreadMessages(wrapAt, physEnd) : 0);
      tail = 0;
      copyv(pieces, sizes, count, space.found - needed);
      if (wrapMark)
      {
         olshm::store(wrap->length, static_cast<std::uint32_t>(physEnd - wrapAt - theElementHeader));
         olshm::store(wrap->type, DtShmElementWrap);
      }
      if (overwrite)
      {
         moveFront(0);
         dropOverwrittenCounts(unread);
         m.unlockFront();
      }
   }
   if (m.isBlockingRead())
      m.incrPacketCount(1);
   return needed - theElementHeader;
}

void DtShmMsgQueueWriter::moveFront(int fallback)
{
   // The oldest message that survives is the first element in use after the writer's
   // position; the message just written is in use, so one is always found.
   DtShmMsgQueueManager& m = queueManager;
   int const physEnd = m.getPhysEnd();
   int offset = tail;
   for (int steps = physEnd / theElementHeader + 2; steps > 0; --steps)
   {
      Dt_Shm_Msg_Queue_Element* element = m.getQueueElement(offset);
      if (!element)
      {
         offset = 0;
         continue;
      }
      if (olshm::load(element->free) == 0)
      {
         m.setFront(offset);
         return;
      }
      long long const next = olshm::nextOffset(element, offset, physEnd);
      if (next < 0)
         break;
      offset = next >= physEnd ? 0 : static_cast<int>(next);
   }
   m.setFront(fallback);
}

int DtShmMsgQueueWriter::unreadMessages(int start, int end)
{
   // Counted under the front lock: a message that the reader was reading while the
   // room was searched is read by now, and its count went with it.
   DtShmMsgQueueManager& m = queueManager;
   int unread = 0;
   int offset = start;
   while (offset < end)
   {
      Dt_Shm_Msg_Queue_Element* element = m.getQueueElement(offset);
      if (!element)
         break;
      if (olshm::load(element->free) == 0 && olshm::load(element->type) == DtShmElementMessage)
         ++unread;
      long long const next = olshm::nextOffset(element, offset, m.getPhysEnd());
      if (next < 0)
         break;
      offset = static_cast<int>(next);
   }
   return unread;
}

void DtShmMsgQueueWriter::dropOverwrittenCounts(int messages)
{
   // Overwritten messages take their counts with them, so that a slow reader's count
   // stays near the messages there are rather than climbing to the semaphore's limit.
   if (queueManager.isBlockingRead())
      queueManager.tryDecrPacketCount(messages);
}

DtShmMsgQueueManager& DtShmMsgQueueWriter::manager()
{
   return queueManager;
}

int DtShmMsgQueueWriter::getTail() const
{
   return tail;
}

int DtShmMsgQueueWriter::getDroppedNew() const
{
   return droppedNew;
}

int DtShmMsgQueueWriter::getDroppedOld() const
{
   return droppedOld;
}

int DtShmMsgQueueWriter::getMessagesWritten() const
{
   return messagesWritten;
}
