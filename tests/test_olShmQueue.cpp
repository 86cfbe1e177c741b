// Tests of the shared-memory message queue: its layout, the semaphore operations, the
// reader and the writer in both disciplines, within one process and across two.
#include <olutil/olShmQueue.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olPrint.h>

#include "support_capture.h"
#include "support_shm.h"

namespace
{

using namespace olt;
using Pair = QueuePair;

// An element's free flag, type and length.
std::tuple<int, int, unsigned> fields(Dt_Shm_Msg_Queue_Element const* e)
{
   return {e->free, e->type, e->length};
}

TEST(DtShmMsgQueueManagerTest, CreatesAnEmptyQueueInEachModeThatAViewLeavesAlone)
{
   for (bool dropOldest : {false, true})
   {
      SCOPED_TRACE(dropOldest ? "drop-oldest" : "blocking");
      SemaphoreSet semaphores;
      SharedBlock block(1024);
      std::memset(block.queue(), 0xa5, DtShmMsgQueueBytes(1024));
      semaphores.set(1, 77);
      DtShmMsgQueueManager manager(block.queue(), 1024, semaphores.id(), 0, true, dropOldest);
      Dt_Shm_Msg_Queue const& q = *block.queue();
      EXPECT_EQ(std::make_tuple(0, 0u, 0, 1, int{!dropOldest}, int{dropOldest}),
                std::make_tuple(q.front, q.notifyReader, int{q.goAway}, int{q.blockingRead},
                                int{q.blockingWrite}, int{q.dropOldest}));
      EXPECT_EQ(std::make_tuple(1, DtShmElementEnd, 1016u), fields(block.element(0)));
      EXPECT_EQ(dropOldest ? 1 : 1024, semaphores.value(0));
      EXPECT_EQ(0, semaphores.value(1));
      block.queue()->goAway = 5;
      DtShmMsgQueueManager view(block.queue(), 1024, semaphores.id(), 0, false, !dropOldest);
      EXPECT_EQ(5, view.getGoAway());
      EXPECT_EQ(dropOldest, view.isDropOldest());
   }
}

TEST(DtShmMsgQueueManagerTest, CountsASemaphoreCannotMoveAtOnceAreRefused)
{
   SemaphoreSet semaphores;
   SharedBlock block(40000);
   CapturePrinter warn(DtWarn);
   DtShmMsgQueueWriter writer(block.queue(), 40000, semaphores.id(), 0, true, true, false);
   EXPECT_NE(std::string::npos, warn.text().find("at most 32767 bytes"));
   EXPECT_EQ(-1, writer.Write(payloadFor(0, 1).data(), 1));
   EXPECT_EQ(1, writer.getDroppedNew());
   semaphores.set(0, 256);
   EXPECT_EQ(-1, writer.manager().incrByteCount(40000));
   EXPECT_EQ(-1, writer.manager().decrByteCount(-5));
   EXPECT_EQ(256, semaphores.value(0));
   EXPECT_NE(std::string::npos, warn.text().find("incrBytes 40000"));
   // The largest count moves in one operation.
   semaphores.set(0, 0);
   EXPECT_EQ(0, writer.manager().incrByteCount(DtShmMaxBlockingQueueSize));
   EXPECT_EQ(DtShmMaxBlockingQueueSize, semaphores.value(0));
}

TEST(DtShmMsgQueueTest, PiecesArriveAsOneMessageAndShortReadsTakeItWhole)
{
   Pair pair(256, false);
   char a[] = "head-tail";
   char* pieces[] = {a, a, nullptr, a + 5};
   unsigned long sizes[] = {5, 0, 0, 4};
   EXPECT_EQ(9, pair.writer.Writev(pieces, sizes, 4));
   for (std::uint32_t i = 1; i <= 3; ++i)
      ASSERT_EQ(20, pair.write(i, 20));
   EXPECT_EQ(16, pair.read());
   EXPECT_EQ("head-tail", std::string(pair.got.data()));
   char buffer[6];
   EXPECT_EQ(6, pair.reader.Read(buffer, sizeof buffer, &pair.status));
   EXPECT_EQ(0, std::memcmp(buffer, payloadFor(1, 20).data(), 6));
   EXPECT_EQ(0, pair.reader.Read(nullptr, 100, &pair.status));
   EXPECT_EQ(DtShmReadTaken, pair.status);
   EXPECT_TRUE(pair.reads(3, 20));
   EXPECT_EQ(4, pair.reader.getMessagesRead());
   EXPECT_EQ(256, pair.semaphores.value(0)) << "every byte is given back";
   EXPECT_EQ(-1, pair.reader.Read(nullptr, 0, nullptr));
}

TEST(DtShmMsgQueueTest, ReadThatFindsNoMessageReturnsAtOnceWithTheReason)
{
   // {drop-oldest, goAway, status}
   for (auto [dropOldest, goAway, status] :
        {std::make_tuple(false, 1, DtShmReadGoAway), std::make_tuple(false, 2, DtShmReadGoAwayTwo),
         std::make_tuple(false, 255, DtShmReadGoAway), std::make_tuple(false, 0, DtShmReadEmpty),
         std::make_tuple(true, 0, DtShmReadEmpty)})
   {
      SCOPED_TRACE(std::to_string(dropOldest) + " " + std::to_string(goAway));
      Pair pair(256, dropOldest);
      pair.block.queue()->goAway = static_cast<std::uint8_t>(goAway);
      // With goAway it must not wait; without, it was woken for a message since overwritten.
      pair.semaphores.set(1, goAway == 0);
      EXPECT_EQ(-1, pair.read());
      EXPECT_EQ(status, pair.status);
      EXPECT_EQ(0, pair.reader.manager().getFront());
      EXPECT_EQ(dropOldest ? 1 : 256, pair.semaphores.value(0));
   }
}

TEST(DtShmMsgQueueTest, MessageThatDoesNotFitBeforeTheEndGoesToTheStartBehindAWrapMark)
{
   Pair pair(256, false);
   // Three messages of 56 + 8 bytes: the end element is at 192, leaving 64 bytes.
   for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_EQ(56, pair.write(i, 56));
   ASSERT_EQ(192, pair.writer.getTail());
   ASSERT_TRUE(pair.reads(0, 56) && pair.reads(1, 56));
   // 60 bytes need 64 + 8: not before the end, but in the 128 bytes freed at the start.
   ASSERT_EQ(60, pair.write(3, 60));
   EXPECT_EQ(std::make_tuple(0, DtShmElementWrap, 56u), fields(pair.block.element(192)));
   EXPECT_EQ(DtShmElementMessage, pair.block.element(0)->type);
   EXPECT_EQ(72, pair.writer.getTail());
   // The end element reaches the unread message at 128.
   EXPECT_EQ(std::make_tuple(1, DtShmElementEnd, 48u), fields(pair.block.element(72)));
   EXPECT_TRUE(pair.reads(2, 56));
   EXPECT_TRUE(pair.reads(3, 60));
   EXPECT_EQ(72, pair.reader.manager().getFront());
   EXPECT_EQ(1, pair.block.element(192)->free);
   EXPECT_EQ(std::make_pair(256, 0), pair.counts());
}

TEST(DtShmMsgQueueTest, BlockingQueueKeepsItsByteCountExactOverManyWrapsOfMixedSizes)
{
   // Written and read in turns, one message ahead, so that the writer never waits.
   Pair pair(512, false);
   int wraps = 0;
   for (std::uint32_t i = 0; i <= 5000; ++i)
   {
      int const before = pair.writer.getTail();
      if (i < 5000)
      {
         ASSERT_EQ(sizeFor(i, 1, 128), pair.write(i, sizeFor(i, 1, 128))) << i;
      }
      wraps += pair.writer.getTail() < before;
      ASSERT_TRUE(i == 0 || pair.reads(i - 1, sizeFor(i - 1, 1, 128))) << i - 1;
   }
   EXPECT_GT(wraps, 100);
   EXPECT_EQ(std::make_pair(512, 0), pair.counts());
}

TEST(DtShmMsgQueueTest, BlockingMessageLargerThanBothFreeStretchesStartsTheAreaAfresh)
{
   Pair pair(256, false);
   ASSERT_EQ(100, pair.write(0, 100));
   ASSERT_TRUE(pair.reads(0, 100));
   // 168 bytes: more than the 144 before the end and the 112 before the writer.
   ASSERT_EQ(150, pair.write(1, 150));
   EXPECT_EQ(0, pair.reader.manager().getFront());
   EXPECT_EQ(160, pair.writer.getTail());
   EXPECT_TRUE(pair.reads(1, 150));
   EXPECT_EQ(256, pair.semaphores.value(0));
}

TEST(DtShmMsgQueueTest, LargestMessageFitsAndWhatCanNeverFitIsRefusedAtOnce)
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
      // The area less the two headers.
      ASSERT_EQ(240, pair.write(0, 240));
      EXPECT_TRUE(pair.reads(0, 240));
      EXPECT_EQ(std::make_pair(dropOldest ? 1 : 256, 0), pair.counts());
   }
}

TEST(DtShmMsgQueueTest, DropOldestOverwritesAndMovesTheFrontToTheOldestSurvivor)
{
   // {queue size, smallest, largest}: messages above half the area must not get a wrap
   // mark inside their own bodies.
   for (auto [queueSize, smallest, largest] :
        {std::make_tuple(512, 4, 24), std::make_tuple(512, 4, 128), std::make_tuple(512, 200, 300),
         std::make_tuple(256, 150, 240)})
   {
      SCOPED_TRACE(std::to_string(smallest) + ".." + std::to_string(largest));
      Pair pair(queueSize, true);
      std::uint32_t written = 0, expected = 0, lost = 0;
      // Several writes with the reader stalled, then a few reads; at last all is read.
      for (int round = 0; round <= 200; ++round)
      {
         for (int i = 0; round < 200 && i < 1 + round % 7; ++i, ++written)
            ASSERT_EQ(sizeFor(written, smallest, largest),
                      pair.write(written, sizeFor(written, smallest, largest)));
         for (int i = 0; i < (round < 200 ? 1 + round % 3 : 1000); ++i)
         {
            pair.semaphores.set(1, 1);
            if (pair.read() < 0)
            {
               ASSERT_EQ(expected, written) << "the newest message is always there";
               break;
            }
            std::uint32_t const seen = sequenceOf(pair.got.data());
            ASSERT_TRUE(seen >= expected && seen < written) << seen;
            ASSERT_TRUE(pair.holds(seen, sizeFor(seen, smallest, largest))) << seen;
            lost += seen - expected;
            expected = seen + 1;
         }
      }
      EXPECT_EQ(written, expected);
      EXPECT_GT(lost, 0u);
      EXPECT_GE(static_cast<std::uint32_t>(pair.writer.getDroppedOld()), lost);
      EXPECT_EQ(0, pair.writer.getDroppedNew());
   }
}

TEST(DtShmMsgQueueTest, DropOldestEndThatCannotHaveTheLockDropsOrReportsAndLeavesTheQueueWhole)
{
   Pair pair(256, true, false);
   // 0..2 fill the area up to 192; reading 0 frees 0..64.
   for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_EQ(56, pair.write(i, 56));
   ASSERT_TRUE(pair.reads(0, 56));
   // Message 3 must wrap and overwrite message 1: that needs the lock.
   ASSERT_EQ(0, pair.reader.manager().lockFront(1));
   EXPECT_EQ(-1, pair.write(3, 100));
   EXPECT_EQ(1, pair.writer.getDroppedNew());
   EXPECT_EQ(std::make_tuple(1, DtShmElementEnd, 56u), fields(pair.block.element(192)));
   EXPECT_EQ(192, pair.writer.getTail());
   EXPECT_EQ(-1, pair.read());
   EXPECT_EQ(DtShmReadNoLock, pair.status);
   pair.reader.manager().unlockFront();
   // A small message fits before the end without overwriting, and everything reads.
   ASSERT_EQ(16, pair.write(4, 16));
   pair.semaphores.set(1, 4);
   EXPECT_TRUE(pair.reads(1, 56) && pair.reads(2, 56) && pair.reads(4, 16));
   EXPECT_EQ(-1, pair.read());
   EXPECT_EQ(DtShmReadEmpty, pair.status);
}

TEST(DtShmMsgQueueTest, OverwrittenMessagesTakeTheirCountsWithThem)
{
   // Ten messages of 64 bytes with the reader stalled: the last two are left, and the
   // reader's count is theirs, so that it never climbs towards the semaphore's limit.
   Pair pair(256, true);
   for (std::uint32_t i = 0; i < 10; ++i)
      ASSERT_EQ(56, pair.write(i, 56));
   EXPECT_EQ(std::make_pair(1, 2), pair.counts());
   EXPECT_TRUE(pair.reads(8, 56) && pair.reads(9, 56));
   EXPECT_EQ(std::make_pair(1, 0), pair.counts());
}

TEST(DtShmMsgQueueTest, DamagedAreaIsRefusedByBothEnds)
{
   std::vector<std::pair<char const*, std::function<void(Pair&)>>> const rows = {
       {"front beyond the area", [](Pair& p) { p.block.queue()->front = 1 << 20; }},
       {"front misaligned", [](Pair& p) { p.block.queue()->front = 4; }},
       {"front at the end", [](Pair& p) { p.block.queue()->front = 256; }},
       {"length past the end", [](Pair& p) { p.block.element(0)->length = 256; }},
       {"huge length", [](Pair& p) { p.block.element(0)->length = 0xfffffff8u; }},
       {"unknown type", [](Pair& p) { p.block.element(0)->type = 7; }},
       {"wrap past the end", [](Pair& p) { *p.block.element(0) = {0, DtShmElementWrap, 400}; }},
       {"wrap to a wrap", [](Pair& p) { *p.block.element(0) = {0, DtShmElementWrap, 248}; }},
   };
   for (auto const& [name, damage] : rows)
   {
      SCOPED_TRACE(name);
      Pair pair(256, false);
      ASSERT_EQ(16, pair.write(0, 16));
      damage(pair);
      CapturePrinter warn(DtWarn);
      EXPECT_EQ(-1, pair.read());
      EXPECT_EQ(DtShmReadEmpty, pair.status);
      EXPECT_NE(std::string::npos, warn.text().find("no readable element")) << warn.text();
      EXPECT_EQ(0, pair.reader.getMessagesRead());
   }
   // An end element that claims more room than the area has, and a start of the area still
   // in use when a message must wrap to it: what was reserved goes back.
   Pair pair(256, false);
   pair.block.element(0)->length = 4096;
   EXPECT_EQ(-1, pair.write(0, 1));
   EXPECT_EQ(1, pair.writer.getDroppedNew());
   EXPECT_EQ(std::make_pair(256, 0), pair.counts());
   Pair wrapping(256, false);
   for (std::uint32_t i = 0; i < 3; ++i)
      ASSERT_TRUE(wrapping.write(i, 56) == 56 && wrapping.reads(i, 56));
   wrapping.block.element(0)->free = 0;
   EXPECT_EQ(-1, wrapping.write(3, 60));
   EXPECT_EQ(std::make_pair(256, 0), wrapping.counts());
}

// ---------------------------------------------------------------- two processes

TEST(DtShmMsgQueueProcessTest, BlockingQueueLosesNothingWithMixedSizesOrAStalledReader)
{
   struct Row
   {
      int queueSize;
      int smallest;
      int largest;
      std::uint32_t count;
      bool stall;  // the reader waits until the writer has filled the area and waits
   };
   // Up to a quarter of the area, above half of it, and a stall. The semaphores are the
   // second pair of a set.
   for (Row row : {Row{4096, 1, 1024, 20000, false}, Row{1024, 1, 900, 5000, false},
                   Row{512, 40, 40, 40, true}})
   {
      SCOPED_TRACE(row.largest);
      Pair pair(row.queueSize, false, true, 2);
      pid_t const child = startChild([&] {
         for (std::uint32_t i = 0; i < row.count; ++i)
            if (int const size = sizeFor(i, row.smallest, row.largest); pair.write(i, size) != size)
               return 1;
         return 0;
      });
      for (int i = 0; row.stall && i < 10000 && pair.semaphores.waiting(2) != 1; ++i)
         usleep(2000);
      EXPECT_TRUE(!row.stall || (pair.semaphores.waiting(2) == 1 && pair.semaphores.value(2) < 56));
      for (std::uint32_t i = 0; i < row.count; ++i)
         ASSERT_TRUE(pair.reads(i, sizeFor(i, row.smallest, row.largest))) << i;
      EXPECT_EQ(0, waitChild(child));
      EXPECT_EQ(std::make_pair(row.queueSize, 0), pair.counts());
      EXPECT_EQ(0, pair.semaphores.value(0) + pair.semaphores.value(1));
   }
}

TEST(DtShmMsgQueueProcessTest, SlowDropOldestReaderIsNeverLeftWaitingWithAMessageThere)
{
   // The reader pauses inside its reads, so the writer often counts as unread a message the
   // reader is just taking. It must come to the last message, which is never overwritten.
   Pair pair(1024, true);
   std::uint32_t const count = 20000;
   pid_t const child = startChild([&] {
      std::uint32_t expected = 0;
      for (int reads = 0; reads < 1000000; ++reads)
      {
         if (pair.read() < 0)
            continue;
         std::uint32_t const seen = sequenceOf(pair.got.data());
         if (seen == count)
            return 0;
         if (seen < expected || !pair.holds(seen, sizeFor(seen, 4, 200)))
            return 1;
         expected = seen + 1;
         if (reads % 4 == 0)
            usleep(50);
      }
      return 2;
   });
   for (std::uint32_t i = 0; i <= count; ++i)
      ASSERT_EQ(sizeFor(i, 4, 200), pair.write(i, sizeFor(i, 4, 200)));
   EXPECT_EQ(0, waitChild(child));
}

TEST(DtShmMsgQueueProcessTest, WriterKilledHoldingTheLockLeavesAWorkingReader)
{
   Pair pair(512, true, false);
   int ready[2];
   ASSERT_EQ(0, pipe(ready));
   pid_t const child = startChild([&] {
      pair.write(0, 24);
      char const signal = 'L';
      if (pair.writer.manager().lockFront(1) != 0 || write(ready[1], &signal, 1) != 1)
         return 1;
      for (int i = 0; i < 6000; ++i)
         usleep(10000);
      return 2;
   });
   ASSERT_GT(child, 0);
   char signal = 0;
   ASSERT_EQ(1, read(ready[0], &signal, 1));
   close(ready[0]);
   close(ready[1]);
   EXPECT_EQ(-1, pair.read());
   EXPECT_EQ(DtShmReadNoLock, pair.status);

   kill(child, SIGKILL);
   EXPECT_EQ(-1, waitChild(child));
   EXPECT_EQ(1, pair.semaphores.value(0)) << "the system released the lock";
   pair.semaphores.set(1, 1);
   EXPECT_TRUE(pair.reads(0, 24));
   EXPECT_EQ(16, pair.write(1, 16)) << "and the writer carries on";
}

}  // namespace
