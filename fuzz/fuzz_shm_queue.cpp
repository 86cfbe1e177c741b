// libFuzzer target: a queue whose header and element area hold arbitrary bytes, as a
// damaged or hostile process could leave them, read and written in either mode.
//
// Input: two bytes give the area's size (16 to 4096), one byte the buffer sizes and
// message sizes used, and the rest is the block (header, then area; zeros after the
// input). Reads and writes must stay inside the block (AddressSanitizer sees the
// block's exact size), and end: the semaphores are set so that nothing waits.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <olutil/olPrint.h>
#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

namespace
{

int theSemaphores = -1;

void removeSemaphores()
{
   if (theSemaphores >= 0)
      semctl(theSemaphores, 0, IPC_RMID);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
   if (theSemaphores < 0)
   {
      theSemaphores = semget(IPC_PRIVATE, 2, IPC_CREAT | 0600);
      std::atexit(removeSemaphores);
      DtSetOstrelPrinter(nullptr);
   }
   if (size < 3 || theSemaphores < 0)
      return 0;
   int const queueSize = 16 + (data[0] | data[1] << 8) % 4081;
   std::uint8_t const shape = data[2];
   data += 3;
   size -= 3;
   std::size_t const blockBytes = DtShmMsgQueueBytes(queueSize);
   // Exactly the block, 8-aligned, so that any access past it is caught.
   auto* block = static_cast<char*>(std::aligned_alloc(8, (blockBytes + 7) & ~std::size_t(7)));
   std::memset(block, 0, blockBytes);
   std::memcpy(block, data, size < blockBytes ? size : blockBytes);
   auto* queue = reinterpret_cast<Dt_Shm_Msg_Queue*>(block);

   // Nothing waits: a free lock, bytes to spare, and more messages counted than
   // overwriting can take away (at most one per 16 bytes of area a write).
   semctl(theSemaphores, 0, SETVAL, 32767 - 4096);
   semctl(theSemaphores, 1, SETVAL, 16384);
   bool const dropOldest = queue->dropOldest != 0;
   if (dropOldest)
      semctl(theSemaphores, 0, SETVAL, 1);
   {
      DtShmMsgQueueReader reader(queue, queueSize, theSemaphores, 0, false, false, dropOldest);
      DtShmMsgQueueWriter writer(queue, queueSize, theSemaphores, 0, false, false, dropOldest);
      std::vector<char> buffer(static_cast<std::size_t>(queueSize) + 64);
      std::size_t const readSize = (shape & 0x0f) * 37;
      std::vector<char> message(static_cast<std::size_t>(queueSize), 'w');
      for (int round = 0; round < 4; ++round)
      {
         char status = 0;
         reader.Read(round == 3 ? nullptr : buffer.data(), readSize, &status);
         std::size_t const writeSize = ((shape >> 4) * 97 + static_cast<std::size_t>(round) * 331) % message.size();
         // A blocking writer never waits here: the byte count stays above any need.
         if (dropOldest || queueSize <= DtShmMaxBlockingQueueSize)
            writer.Write(message.data(), writeSize);
      }
   }
   std::free(block);
   return 0;
}
