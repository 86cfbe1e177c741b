// Tests of the shared-memory message queue: its layout, the semaphore operations, the
// reader and the writer in both disciplines, within one process and across two.
#include <olutil/olShmQueue.h>

#include <signal.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olPrint.h>
#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

#include "support_capture.h"
#include "support_shm.h"

namespace
{

using olt::isMessage;
using olt::payloadFor;
using olt::sizeFor;

// A queue in shared memory with its writer and reader, as the two ends of one pair.
struct Pair
{
   Pair(int queueSize, bool dropOldest, bool waitForLock = true)
       : size(queueSize),
         block(queueSize),
         writer(block.queue(), queueSize, semaphores.id(), 0, waitForLock, true, dropOldest),
         reader(block.queue(), queueSize, semaphores.id(), 0, waitForLock, false, dropOldest)
   {
   }
   int write(std::uint32_t sequence, int bytes)
   {
      std::vector<char> payload = payloadFor(sequence, bytes);
      return writer.Write(payload.data(), payload.size());
   }
   // Reads one message; `got` holds it and the result is what Read returned.
   int read(std::vector<char>& got, char& status)
   {
      got.assign(static_cast<std::size_t>(size), 0);
      int const n = reader.Read(got.data(), got.size(), &status);
      got.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
      return n;
   }
   Dt_Shm_Msg_Queue_Element* element(int offset) { return block.element(offset); }

   int size;
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block;
   DtShmMsgQueueWriter writer;
   DtShmMsgQueueReader reader;
};

TEST(DtShmMsgQueueManagerTest, CreatesAnEmptyQueueInEachMode)
{
   for (bool dropOldest : {false, true})
   {
      SCOPED_TRACE(dropOldest ? "drop-oldest" : "blocking");
      olt::SemaphoreSet semaphores;
      olt::SharedBlock block(1024);
      std::memset(block.queue(), 0xa5, DtShmMsgQueueBytes(1024));
      semaphores.set(1, 77);
      DtShmMsgQueueManager manager(block.queue(), 1024, semaphores.id(), 0, true, dropOldest);
      Dt_Shm_Msg_Queue const& q = *block.queue();
      EXPECT_EQ(0, q.front);
      EXPECT_EQ(0u, q.notifyReader);
      EXPECT_EQ(0, q.goAway);
      EXPECT_EQ(0, q.reserved);
      EXPECT_EQ(1, q.blockingRead);
      EXPECT_EQ(dropOldest ? 0 : 1, q.blockingWrite);
      EXPECT_EQ(dropOldest ? 1 : 0, q.dropOldest);
      Dt_Shm_Msg_Queue_Element const* end = block.element(0);
      EXPECT_EQ(1, end->free);
      EXPECT_EQ(DtShmElementEnd, end->type);
      EXPECT_EQ(1016u, end->length);
      EXPECT_EQ(dropOldest ? 1 : 1024, semaphores.value(0));
      EXPECT_EQ(0, semaphores.value(1));
      EXPECT_EQ(1024, manager.getPhysEnd());
      EXPECT_EQ(dropOldest, manager.isDropOldest());
      EXPECT_EQ(!dropOldest, manager.isBlockingWrite());
      EXPECT_TRUE(manager.isBlockingRead());

      // A second view without initialise changes nothing and sees the same queue.
      block.queue()->notifyReader = 9;
      block.queue()->goAway = 5;
      DtShmMsgQueueManager view(block.queue(), 1024, semaphores.id(), 0, false, !dropOldest);
      EXPECT_EQ(9u, view.notifyReader());
      EXPECT_EQ(5, view.getGoAway());
      EXPECT_EQ(dropOldest, view.isDropOldest());
   }
}

TEST(DtShmMsgQueueManagerTest, UsesTheTwoSemaphoresFromItsIndex)
{
   olt::SharedBlock block(256);
   int const set = semget(IPC_PRIVATE, 4, IPC_CREAT | 0600);
   ASSERT_GE(set, 0);
   DtShmMsgQueueManager manager(block.queue(), 256, set, 2, true, false);
   EXPECT_EQ(0, semctl(set, 0, GETVAL));
   EXPECT_EQ(256, semctl(set, 2, GETVAL));
   manager.incrPacketCount(3);
   manager.decrByteCount(40);
   EXPECT_EQ(3, semctl(set, 3, GETVAL));
   EXPECT_EQ(216, semctl(set, 2, GETVAL));
   EXPECT_EQ(0, semctl(set, 1, GETVAL));
   semctl(set, 0, IPC_RMID);
}

TEST(DtShmMsgQueueManagerTest, LockIsTakenOnceAndTryingAgainFailsWithoutWaiting)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(256);
   DtShmMsgQueueManager manager(block.queue(), 256, semaphores.id(), 0, true, true);
   EXPECT_EQ(0, manager.lockFront(1));
   EXPECT_EQ(0, semaphores.value(0));
   EXPECT_EQ(-1, manager.lockFront(0));
   EXPECT_EQ(0, manager.unlockFront());
   EXPECT_EQ(0, manager.lockFront(0));
   EXPECT_EQ(0, manager.unlockFront());
   EXPECT_EQ(1, semaphores.value(0));
}

TEST(DtShmMsgQueueManagerTest, FailedSemaphoreCallsWarnWithTheirWordAndZeroBytesCallNothing)
{
   olt::SharedBlock block(256);
   // No such semaphore set: every call that reaches the system fails.
   DtShmMsgQueueManager manager(block.queue(), 256, -1, 0, false, false);
   struct Row
   {
      char const* word;  // null: nothing printed
      std::function<int()> call;
   };
   std::vector<Row> const rows = {
       {"clearLock: ", [&] { return manager.unlockFront(); }},
       {"incrBytes: ", [&] { return manager.incrByteCount(8); }},
       {"decrBytes: ", [&] { return manager.decrByteCount(8); }},
       {"incrPackets: ", [&] { return manager.incrPacketCount(1); }},
       {"decrPackets: ", [&] { return manager.decrPacketCount(1); }},
       {"decrPackets: ", [&] { return manager.decrPacketCount(0); }},
       {nullptr, [&] { return manager.lockFront(0); }},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.word ? row.word : "lockFront");
      olt::CapturePrinter warn(DtWarn);
      EXPECT_EQ(-1, row.call());
      EXPECT_EQ(row.word ? 0u : std::string::npos, warn.text().find(row.word ? row.word : ":"))
          << warn.text();
   }
   olt::CapturePrinter warn(DtWarn);
   EXPECT_EQ(0, manager.decrByteCount(0));
   EXPECT_EQ("", warn.text());
}

TEST(DtShmMsgQueueManagerTest, CountsBeyondOneSemaphoreOperationAreRefused)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(256);
   DtShmMsgQueueManager manager(block.queue(), 256, semaphores.id(), 0, true, false);
   olt::CapturePrinter warn(DtWarn);
   EXPECT_EQ(-1, manager.incrByteCount(40000));
   EXPECT_EQ(-1, manager.decrByteCount(-5));
   EXPECT_EQ(256, semaphores.value(0));
   EXPECT_NE(std::string::npos, warn.text().find("incrBytes 40000"));
}

TEST(DtShmMsgQueueManagerTest, ElementsAreFoundOnlyWhollyInsideTheArea)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(256);
   DtShmMsgQueueManager manager(block.queue(), 256, semaphores.id(), 0, true, false);
   EXPECT_EQ(block.element(0), manager.getQueueElement(0));
   EXPECT_EQ(block.element(248), manager.getQueueElement(248));
   for (int offset : {-8, 4, 252, 256, 1 << 30})
   {
      SCOPED_TRACE(offset);
      EXPECT_EQ(nullptr, manager.getQueueElement(offset));
   }
   DtShmMsgQueueManager unusable(nullptr, 256, semaphores.id(), 0, true, false);
   EXPECT_FALSE(unusable.isUsable());
   EXPECT_EQ(nullptr, unusable.getQueueElement(0));
}

TEST(DtShmMsgQueueTest, OneByteTakesSixteenBytesAndReadsBackPadded)
{
   for (bool dropOldest : {false, true})
   {
      SCOPED_TRACE(dropOldest ? "drop-oldest" : "blocking");
      Pair pair(256, dropOldest);
      char byte = 'x';
      EXPECT_EQ(1, pair.writer.Write(&byte, 1));
      EXPECT_EQ(16, pair.writer.getTail());
      EXPECT_EQ(DtShmElementMessage, pair.element(0)->type);
      EXPECT_EQ(0, pair.element(0)->free);
      EXPECT_EQ(8u, pair.element(0)->length);
      EXPECT_EQ(DtShmElementEnd, pair.element(16)->type);
      EXPECT_EQ(232u, pair.element(16)->length);
      EXPECT_EQ(dropOldest ? 1 : 256 - 16, pair.semaphores.value(0));
      EXPECT_EQ(1, pair.semaphores.value(1));

      char buffer[16];
      std::memset(buffer, 0x7f, sizeof buffer);
      char status = 9;
      EXPECT_EQ(8, pair.reader.Read(buffer, sizeof buffer, &status));
      EXPECT_EQ(DtShmReadTaken, status);
      EXPECT_EQ('x', buffer[0]);
      EXPECT_EQ(std::string(7, '\0'), std::string(buffer + 1, 7));
      EXPECT_EQ(16, pair.reader.manager().getFront());
      EXPECT_EQ(1, pair.element(0)->free);
      EXPECT_EQ(dropOldest ? 1 : 256, pair.semaphores.value(0));
      EXPECT_EQ(1, pair.writer.getMessagesWritten());
      EXPECT_EQ(1, pair.reader.getMessagesRead());
   }
}

TEST(DtShmMsgQueueTest, PiecesArriveAsOneMessage)
{
   Pair pair(256, false);
   char a[] = "head-";
   char b[] = "";
   char c[] = "tail";
   char* pieces[] = {a, b, nullptr, c};
   unsigned long sizes[] = {5, 0, 0, 4};
   EXPECT_EQ(9, pair.writer.Writev(pieces, sizes, 4));
   std::vector<char> got;
   char status;
   EXPECT_EQ(16, pair.read(got, status));
   EXPECT_EQ("head-tail", std::string(got.data()));
}

TEST(DtShmMsgQueueTest, ShortBuffersAndNullBuffersTakeTheWholeMessage)
{
   Pair pair(256, false);
   for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_EQ(20, pair.write(i, 20));
   char buffer[6];
   char status;
   EXPECT_EQ(6, pair.reader.Read(buffer, sizeof buffer, &status));
   EXPECT_EQ(0, std::memcmp(buffer, payloadFor(0, 20).data(), 6));
   EXPECT_EQ(0, pair.reader.Read(nullptr, 100, &status));
   EXPECT_EQ(DtShmReadTaken, status);
   std::vector<char> got;
   EXPECT_EQ(24, pair.read(got, status));
   EXPECT_TRUE(isMessage(got.data(), 24, 2, 20));
   EXPECT_EQ(256, pair.semaphores.value(0));
}

TEST(DtShmMsgQueueTest, ReadRefusesWithoutStatusAndStopsAtGoAwayWithoutWaiting)
{
   Pair pair(256, false);
   EXPECT_EQ(-1, pair.reader.Read(nullptr, 0, nullptr));
   // Nothing written: a blocking read that waited would never return.
   struct Row
   {
      std::uint8_t goAway;
      char status;
   };
   for (Row row : {Row{1, DtShmReadGoAway}, Row{2, DtShmReadGoAwayTwo}, Row{255, DtShmReadGoAway}})
   {
      SCOPED_TRACE(row.goAway);
      pair.block.queue()->goAway = row.goAway;
      char status = 0;
      char buffer[8];
      EXPECT_EQ(-1, pair.reader.Read(buffer, sizeof buffer, &status));
      EXPECT_EQ(row.status, status);
   }
}

TEST(DtShmMsgQueueTest, EmptyQueueReadsAsEmpty)
{
   for (bool dropOldest : {false, true})
   {
      SCOPED_TRACE(dropOldest ? "drop-oldest" : "blocking");
      Pair pair(256, dropOldest);
      // As a reader woken for a message that was overwritten meanwhile.
      pair.semaphores.set(1, 1);
      char status = 0;
      char buffer[8];
      EXPECT_EQ(-1, pair.reader.Read(buffer, sizeof buffer, &status));
      EXPECT_EQ(DtShmReadEmpty, status);
      EXPECT_EQ(0, pair.reader.manager().getFront());
      EXPECT_EQ(dropOldest ? 1 : 256, pair.semaphores.value(0));
   }
}

TEST(DtShmMsgQueueTest, MessageThatDoesNotFitBeforeTheEndGoesToTheStartBehindAWrapMark)
{
   Pair pair(256, false);
   std::vector<char> got;
   char status;
   // Three messages of 56 + 8 bytes: the end element is at 192, leaving 64 bytes.
   for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_EQ(56, pair.write(i, 56));
   ASSERT_EQ(192, pair.writer.getTail());
   ASSERT_EQ(56, pair.read(got, status));
   ASSERT_EQ(56, pair.read(got, status));
   // 60 bytes need 64 + 8: not before the end, but in the 128 bytes freed at the start.
   ASSERT_EQ(60, pair.write(3, 60));
   EXPECT_EQ(DtShmElementWrap, pair.element(192)->type);
   EXPECT_EQ(56u, pair.element(192)->length);
   EXPECT_EQ(0, pair.element(192)->free);
   EXPECT_EQ(DtShmElementMessage, pair.element(0)->type);
   EXPECT_EQ(72, pair.writer.getTail());
   EXPECT_EQ(DtShmElementEnd, pair.element(72)->type);
   // The end element reaches the unread message at 128.
   EXPECT_EQ(48u, pair.element(72)->length);

   EXPECT_EQ(56, pair.read(got, status));
   EXPECT_TRUE(isMessage(got.data(), 56, 2, 56));
   EXPECT_EQ(64, pair.read(got, status));
   EXPECT_TRUE(isMessage(got.data(), 64, 3, 60));
   EXPECT_EQ(72, pair.reader.manager().getFront());
   EXPECT_EQ(1, pair.element(192)->free);
   // Every byte is given back across the wrap.
   EXPECT_EQ(256, pair.semaphores.value(0));
   EXPECT_EQ(0, pair.semaphores.value(1));
}

TEST(DtShmMsgQueueTest, BlockingQueueKeepsItsByteCountExactOverManyWrapsOfMixedSizes)
{
   // Written and read in turns, one message ahead, so that the writer never waits.
   Pair pair(512, false);
   std::vector<char> got;
   char status;
   std::uint32_t next = 0;
   int wraps = 0;
   for (std::uint32_t i = 0; i < 5000; ++i)
   {
      int const size = sizeFor(i, 1, 128);
      int const before = pair.writer.getTail();
      ASSERT_EQ(size, pair.write(i, size)) << i;
      wraps += pair.writer.getTail() < before;
      if (i == 0)
         continue;
      ASSERT_EQ((sizeFor(next, 1, 128) + 7) & ~7, pair.read(got, status)) << next;
      ASSERT_TRUE(isMessage(got.data(), static_cast<int>(got.size()), next, sizeFor(next, 1, 128)));
      ++next;
   }
   ASSERT_EQ((sizeFor(next, 1, 128) + 7) & ~7, pair.read(got, status));
   EXPECT_GT(wraps, 100);
   EXPECT_EQ(512, pair.semaphores.value(0));
   EXPECT_EQ(0, pair.semaphores.value(1));
   EXPECT_EQ(0, pair.writer.getDroppedNew());
}

TEST(DtShmMsgQueueTest, BlockingMessageLargerThanBothFreeStretchesStartsTheAreaAfresh)
{
   Pair pair(256, false);
   std::vector<char> got;
   char status;
   ASSERT_EQ(100, pair.write(0, 100));
   ASSERT_EQ(112, pair.writer.getTail());
   ASSERT_EQ(104, pair.read(got, status));
   // 168 bytes: more than the 144 before the end and the 112 before the writer.
   ASSERT_EQ(150, pair.write(1, 150));
   EXPECT_EQ(0, pair.reader.manager().getFront());
   EXPECT_EQ(160, pair.writer.getTail());
   ASSERT_EQ(152, pair.read(got, status));
   EXPECT_TRUE(isMessage(got.data(), 152, 1, 150));
   EXPECT_EQ(256, pair.semaphores.value(0));
   // The largest message: the area less the two headers.
   ASSERT_EQ(240, pair.write(2, 240));
   ASSERT_EQ(240, pair.read(got, status));
   EXPECT_TRUE(isMessage(got.data(), 240, 2, 240));
}

TEST(DtShmMsgQueueTest, MessagesThatCanNeverFitAreRefusedAtOnce)
{
   for (bool dropOldest : {false, true})
   {
      SCOPED_TRACE(dropOldest ? "drop-oldest" : "blocking");
      Pair pair(256, dropOldest);
      std::vector<char> big(241);
      EXPECT_EQ(-1, pair.writer.Write(big.data(), big.size()));
      EXPECT_EQ(-1, pair.writer.Write(nullptr, 4));
      EXPECT_EQ(-1, pair.writer.Writev(nullptr, nullptr, -1));
      char* pieces[] = {big.data(), big.data()};
      unsigned long huge[] = {~0UL, 2};
      EXPECT_EQ(-1, pair.writer.Writev(pieces, huge, 2));
      EXPECT_EQ(4, pair.writer.getDroppedNew());
      EXPECT_EQ(0, pair.writer.getMessagesWritten());
      EXPECT_EQ(dropOldest ? 1 : 256, pair.semaphores.value(0));
      EXPECT_EQ(0, pair.semaphores.value(1));
   }
}

TEST(DtShmMsgQueueTest, BlockingQueueLargerThanASemaphoreTakesNoMessages)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(40000);
   olt::CapturePrinter warn(DtWarn);
   DtShmMsgQueueWriter writer(block.queue(), 40000, semaphores.id(), 0, true, true, false);
   EXPECT_NE(std::string::npos, warn.text().find("at most 32767 bytes"));
   char byte = 1;
   EXPECT_EQ(-1, writer.Write(&byte, 1));
   EXPECT_EQ(1, writer.getDroppedNew());
}

TEST(DtShmMsgQueueTest, DropOldestOverwritesAndMovesTheFrontToTheOldestSurvivor)
{
   struct Row
   {
      char const* name;
      int queueSize;
      int smallest;
      int largest;
   };
   // The large rows write messages above half the area, which must not get a wrap
   // mark inside their own bodies.
   for (Row row : {Row{"small", 512, 4, 24}, Row{"mixed", 512, 4, 128}, Row{"large", 512, 200, 300},
                   Row{"largest", 256, 150, 240}})
   {
      SCOPED_TRACE(row.name);
      Pair pair(row.queueSize, true);
      std::vector<char> got;
      char status;
      std::uint32_t sequence = 0;
      std::uint32_t expected = 0;
      std::uint32_t lost = 0;
      for (int round = 0; round < 200; ++round)
      {
         // Several writes with the reader stalled, then a few reads.
         int const writes = 1 + round % 7;
         for (int i = 0; i < writes; ++i, ++sequence)
            ASSERT_EQ(sizeFor(sequence, row.smallest, row.largest),
                      pair.write(sequence, sizeFor(sequence, row.smallest, row.largest)));
         for (int i = 0; i < 1 + round % 3; ++i)
         {
            pair.semaphores.set(1, 1);
            int const n = pair.read(got, status);
            if (n < 0)
            {
               ASSERT_EQ(DtShmReadEmpty, status);
               ASSERT_EQ(expected, sequence);
               break;
            }
            ASSERT_GE(n, 8);
            std::uint32_t const seen = olt::sequenceOf(got.data());
            ASSERT_GE(seen, expected);
            ASSERT_LT(seen, sequence);
            ASSERT_TRUE(isMessage(got.data(), n, seen, sizeFor(seen, row.smallest, row.largest)))
                << seen;
            lost += seen - expected;
            expected = seen + 1;
         }
      }
      // After the last write the newest message is always there to read.
      pair.semaphores.set(1, 1);
      while (pair.read(got, status) > 0)
      {
         std::uint32_t const seen = olt::sequenceOf(got.data());
         ASSERT_GE(seen, expected);
         lost += seen - expected;
         expected = seen + 1;
         pair.semaphores.set(1, 1);
      }
      EXPECT_EQ(sequence, expected);
      EXPECT_GT(lost, 0u);
      EXPECT_GE(static_cast<std::uint32_t>(pair.writer.getDroppedOld()), lost);
      EXPECT_EQ(0, pair.writer.getDroppedNew());
      EXPECT_EQ(static_cast<int>(sequence), pair.writer.getMessagesWritten());
   }
}

TEST(DtShmMsgQueueTest, DropOldestWriteThatCannotHaveTheLockIsDroppedAndLeavesTheQueueWhole)
{
   Pair pair(256, true, false);
   std::vector<char> got;
   char status;
   // 0..2 fill the area up to 192; reading 0 frees 0..64.
   for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_EQ(56, pair.write(i, 56));
   ASSERT_EQ(56, pair.read(got, status));
   ASSERT_EQ(192, pair.writer.getTail());
   // Message 3 must wrap and overwrite message 1: that needs the lock.
   ASSERT_EQ(0, pair.reader.manager().lockFront(1));
   EXPECT_EQ(-1, pair.write(3, 100));
   EXPECT_EQ(1, pair.writer.getDroppedNew());
   EXPECT_EQ(1, pair.element(192)->free) << "the end element stays free";
   EXPECT_EQ(DtShmElementEnd, pair.element(192)->type);
   EXPECT_EQ(192, pair.writer.getTail());
   pair.reader.manager().unlockFront();
   // A small message fits before the end without overwriting, and everything reads.
   ASSERT_EQ(16, pair.write(4, 16));
   for (std::uint32_t expected : {1u, 2u, 4u})
   {
      ASSERT_GT(pair.read(got, status), 0);
      EXPECT_EQ(expected, olt::sequenceOf(got.data()));
   }
   pair.semaphores.set(1, 1);
   EXPECT_EQ(-1, pair.read(got, status));
   EXPECT_EQ(DtShmReadEmpty, status);
}

TEST(DtShmMsgQueueTest, DropOldestReaderThatCannotHaveTheLockReportsIt)
{
   Pair pair(256, true, false);
   ASSERT_EQ(8, pair.write(0, 8));
   ASSERT_EQ(0, pair.writer.manager().lockFront(1));
   std::vector<char> got;
   char status = 0;
   EXPECT_EQ(-1, pair.read(got, status));
   EXPECT_EQ(DtShmReadNoLock, status);
   pair.writer.manager().unlockFront();
   pair.semaphores.set(1, 1);
   EXPECT_EQ(8, pair.read(got, status));
}

TEST(DtShmMsgQueueTest, ReaderRefusesDamagedElementsAtTheFront)
{
   struct Row
   {
      char const* name;
      std::function<void(Pair&)> damage;
   };
   std::vector<Row> const rows = {
       {"front beyond the area", [](Pair& p) { p.block.queue()->front = 1 << 20; }},
       {"front negative", [](Pair& p) { p.block.queue()->front = -8; }},
       {"front misaligned", [](Pair& p) { p.block.queue()->front = 4; }},
       {"front at the end", [](Pair& p) { p.block.queue()->front = 256; }},
       {"length past the end", [](Pair& p) { p.element(0)->length = 256; }},
       {"huge length", [](Pair& p) { p.element(0)->length = 0xfffffff8u; }},
       {"unknown type", [](Pair& p) { p.element(0)->type = 7; }},
       {"wrap past the end", [](Pair& p) { p.element(0)->type = DtShmElementWrap; p.element(0)->length = 400; }},
       {"wrap to a wrap", [](Pair& p) { p.element(0)->type = DtShmElementWrap; p.element(0)->length = 248; }},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.name);
      Pair pair(256, false);
      ASSERT_EQ(16, pair.write(0, 16));
      row.damage(pair);
      olt::CapturePrinter warn(DtWarn);
      std::vector<char> got;
      char status = 0;
      EXPECT_EQ(-1, pair.read(got, status));
      EXPECT_EQ(DtShmReadEmpty, status);
      EXPECT_NE(std::string::npos, warn.text().find("no readable element")) << warn.text();
      EXPECT_EQ(0, pair.reader.getMessagesRead());
   }
}

TEST(DtShmMsgQueueTest, WriterRefusesADamagedArea)
{
   Pair pair(256, false);
   // The end element claims more room than the area has.
   pair.element(0)->length = 4096;
   char byte = 1;
   EXPECT_EQ(-1, pair.writer.Write(&byte, 1));
   EXPECT_EQ(1, pair.writer.getDroppedNew());
   // What was reserved for it is given back.
   EXPECT_EQ(256, pair.semaphores.value(0));
   EXPECT_EQ(0, pair.semaphores.value(1));
}

// ---------------------------------------------------------------- two processes

// The writer in a child process, the reader here: every message arrives, in order.
void runBlockingAcrossProcesses(int queueSize, int smallest, int largest, std::uint32_t count)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(queueSize);
   DtShmMsgQueueReader reader(block.queue(), queueSize, semaphores.id(), 0, true, true, false);
   pid_t const child = olt::startChild([&] {
      DtShmMsgQueueWriter writer(block.queue(), queueSize, semaphores.id(), 0, true, false, false);
      for (std::uint32_t i = 0; i < count; ++i)
      {
         std::vector<char> payload = payloadFor(i, sizeFor(i, smallest, largest));
         if (writer.Write(payload.data(), payload.size()) != static_cast<int>(payload.size()))
            return 1;
      }
      return writer.getDroppedNew() == 0 ? 0 : 2;
   });
   ASSERT_GT(child, 0);
   std::vector<char> buffer(queueSize);
   char status;
   for (std::uint32_t i = 0; i < count; ++i)
   {
      int const n = reader.Read(buffer.data(), buffer.size(), &status);
      ASSERT_EQ(DtShmReadTaken, status) << i;
      ASSERT_TRUE(isMessage(buffer.data(), n, i, sizeFor(i, smallest, largest))) << i;
   }
   EXPECT_EQ(0, olt::waitChild(child));
   EXPECT_EQ(queueSize, semaphores.value(0));
   EXPECT_EQ(0, semaphores.value(1));
}

TEST(DtShmMsgQueueProcessTest, BlockingQueueLosesNothingUpToAQuarterOfTheArea)
{
   runBlockingAcrossProcesses(4096, 1, 1024, 20000);
}

TEST(DtShmMsgQueueProcessTest, BlockingQueueLosesNothingWithMessagesAboveHalfTheArea)
{
   runBlockingAcrossProcesses(1024, 1, 900, 5000);
}

TEST(DtShmMsgQueueProcessTest, StalledBlockingReaderMakesTheWriterWaitAndLosesNothing)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(512);
   DtShmMsgQueueReader reader(block.queue(), 512, semaphores.id(), 0, true, true, false);
   std::uint32_t const count = 40;
   pid_t const child = olt::startChild([&] {
      DtShmMsgQueueWriter writer(block.queue(), 512, semaphores.id(), 0, true, false, false);
      for (std::uint32_t i = 0; i < count; ++i)
         if (writer.Write(payloadFor(i, 40).data(), 40) != 40)
            return 1;
      return 0;
   });
   // The writer fills the area and then waits for bytes.
   ASSERT_TRUE(olt::eventually([&] { return semaphores.waiting(0) == 1; }));
   EXPECT_LT(semaphores.value(0), 56);
   std::vector<char> buffer(64);
   char status;
   for (std::uint32_t i = 0; i < count; ++i)
   {
      int const n = reader.Read(buffer.data(), buffer.size(), &status);
      ASSERT_TRUE(isMessage(buffer.data(), n, i, 40)) << i;
   }
   EXPECT_EQ(0, olt::waitChild(child));
}

TEST(DtShmMsgQueueProcessTest, DropOldestReaderGetsWholeMessagesInOrderFromAFastWriter)
{
   int const queueSize = 2048;
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(queueSize);
   DtShmMsgQueueReader reader(block.queue(), queueSize, semaphores.id(), 0, true, true, true);
   std::uint32_t const count = 20000;
   pid_t const child = olt::startChild([&] {
      DtShmMsgQueueWriter writer(block.queue(), queueSize, semaphores.id(), 0, true, false, true);
      for (std::uint32_t i = 0; i < count; ++i)
      {
         std::vector<char> payload = payloadFor(i, sizeFor(i, 4, queueSize / 4));
         if (writer.Write(payload.data(), payload.size()) != static_cast<int>(payload.size()))
            return 1;
      }
      // The last message tells the reader the count.
      std::uint32_t last = 0xffffffffu;
      return writer.Write(reinterpret_cast<char*>(&last), sizeof last) == 4 ? 0 : 2;
   });
   std::vector<char> buffer(queueSize);
   char status;
   std::uint32_t expected = 0;
   std::uint32_t read = 0;
   for (;;)
   {
      int const n = reader.Read(buffer.data(), buffer.size(), &status);
      if (n < 0)
      {
         ASSERT_EQ(DtShmReadEmpty, status);
         continue;
      }
      std::uint32_t const seen = olt::sequenceOf(buffer.data());
      if (seen == 0xffffffffu)
         break;
      ASSERT_GE(seen, expected);
      ASSERT_TRUE(isMessage(buffer.data(), n, seen, sizeFor(seen, 4, queueSize / 4))) << seen;
      expected = seen + 1;
      ++read;
   }
   EXPECT_EQ(0, olt::waitChild(child));
   EXPECT_GT(read, 0u);
   EXPECT_LE(read, count);
}

TEST(DtShmMsgQueueProcessTest, SlowDropOldestReaderIsNeverLeftWaitingWithAMessageThere)
{
   // The reader pauses inside its reads, so the writer often counts a message as
   // unread that the reader is just taking. The reader is the child: it must come to
   // the last message, which is never overwritten.
   int const queueSize = 1024;
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(queueSize);
   DtShmMsgQueueWriter writer(block.queue(), queueSize, semaphores.id(), 0, true, true, true);
   std::uint32_t const count = 20000;
   pid_t const child = olt::startChild([&] {
      DtShmMsgQueueReader reader(block.queue(), queueSize, semaphores.id(), 0, true, false, true);
      std::vector<char> buffer(queueSize);
      std::uint32_t expected = 0;
      for (int reads = 0; reads < 1000000; ++reads)
      {
         char status;
         int const n = reader.Read(buffer.data(), buffer.size(), &status);
         if (n < 0)
            continue;
         std::uint32_t const seen = olt::sequenceOf(buffer.data());
         if (seen == count)
            return 0;
         if (seen < expected || !isMessage(buffer.data(), n, seen, sizeFor(seen, 4, 200)))
            return 1;
         expected = seen + 1;
         if (reads % 4 == 0)
            usleep(50);
      }
      return 2;
   });
   for (std::uint32_t i = 0; i <= count; ++i)
   {
      int const size = i == count ? 4 : sizeFor(i, 4, 200);
      ASSERT_EQ(size, writer.Write(payloadFor(i, size).data(), size));
   }
   EXPECT_EQ(0, olt::waitChild(child));
}

TEST(DtShmMsgQueueProcessTest, WriterKilledHoldingTheLockLeavesAWorkingReader)
{
   olt::SemaphoreSet semaphores;
   olt::SharedBlock block(512);
   DtShmMsgQueueReader reader(block.queue(), 512, semaphores.id(), 0, false, true, true);
   int ready[2];
   ASSERT_EQ(0, pipe(ready));
   pid_t const child = olt::startChild([&] {
      DtShmMsgQueueWriter writer(block.queue(), 512, semaphores.id(), 0, true, false, true);
      writer.Write(payloadFor(0, 24).data(), 24);
      if (writer.manager().lockFront(1) != 0)
         return 1;
      char const signal = 'L';
      if (write(ready[1], &signal, 1) != 1)
         return 2;
      for (int i = 0; i < 6000; ++i)
         usleep(10000);
      return 3;
   });
   ASSERT_GT(child, 0);
   char signal = 0;
   ASSERT_EQ(1, read(ready[0], &signal, 1));
   close(ready[0]);
   close(ready[1]);
   std::vector<char> buffer(64);
   char status = 0;
   EXPECT_EQ(-1, reader.Read(buffer.data(), buffer.size(), &status));
   EXPECT_EQ(DtShmReadNoLock, status);

   kill(child, SIGKILL);
   EXPECT_EQ(-1, olt::waitChild(child));
   EXPECT_EQ(1, semaphores.value(0)) << "the system released the lock";
   semaphores.set(1, 1);
   EXPECT_EQ(24, reader.Read(buffer.data(), buffer.size(), &status));
   EXPECT_EQ(DtShmReadTaken, status);
   EXPECT_TRUE(isMessage(buffer.data(), 24, 0, 24));
   // And a new writer carries on with the reader.
   DtShmMsgQueueWriter writer(block.queue(), 512, semaphores.id(), 0, false, false, true);
   EXPECT_EQ(16, writer.Write(payloadFor(1, 16).data(), 16));
}

}  // namespace
