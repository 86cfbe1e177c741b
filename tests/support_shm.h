// Test support: System V objects for queue tests, each removed by its owner, a queue
// with its two ends, and payloads that let a reader check every message it gets.
#ifndef OLUTIL_TESTS_SUPPORT_SHM_H
#define OLUTIL_TESTS_SUPPORT_SHM_H

#include <sys/sem.h>
#include <sys/shm.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

#include <olutil/olShmQueue.h>
#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

namespace olt
{

// A private semaphore set, removed when the process that made it lets it go.
class SemaphoreSet
{
public:
   explicit SemaphoreSet(int count = 2) : myId(semget(IPC_PRIVATE, count, IPC_CREAT | 0600)) {}
   ~SemaphoreSet()
   {
      if (myId >= 0 && myOwner == getpid())
         semctl(myId, 0, IPC_RMID);
   }
   int id() const { return myId; }
   int value(int index) const { return semctl(myId, index, GETVAL); }
   void set(int index, int value) const { semctl(myId, index, SETVAL, value); }
   int waiting(int index) const { return semctl(myId, index, GETNCNT); }

private:
   int myId;
   pid_t myOwner = getpid();
};

// A private segment for one queue, marked for removal as soon as it is attached: the
// system frees it when the last process using it ends, however it ends.
class SharedBlock
{
public:
   explicit SharedBlock(int queueSize)
   {
      int const id = shmget(IPC_PRIVATE, DtShmMsgQueueBytes(queueSize), IPC_CREAT | 0600);
      myAddress = id < 0 ? nullptr : shmat(id, nullptr, 0);
      shmctl(id, IPC_RMID, nullptr);
      if (myAddress == reinterpret_cast<void*>(-1))
         myAddress = nullptr;
   }
   ~SharedBlock()
   {
      if (myAddress)
         shmdt(myAddress);
   }
   Dt_Shm_Msg_Queue* queue() const { return static_cast<Dt_Shm_Msg_Queue*>(myAddress); }
   Dt_Shm_Msg_Queue_Element* element(int offset) const
   {
      return reinterpret_cast<Dt_Shm_Msg_Queue_Element*>(static_cast<char*>(myAddress) +
                                                         DtShmMsgQueueHeaderSize + offset);
   }

private:
   void* myAddress = nullptr;
};

inline std::uint64_t mix(std::uint64_t x)
{
   x += 0x9e3779b97f4a7c15ULL;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
   return x ^ (x >> 31);
}

// The size of message `sequence`, from `smallest` to `largest` bytes.
inline int sizeFor(std::uint32_t sequence, int smallest, int largest)
{
   return smallest + static_cast<int>(mix(sequence ^ 0x5a5a5a5aU) %
                                      static_cast<std::uint64_t>(largest - smallest + 1));
}

// Message `sequence` of `size` bytes: the sequence number first, then bytes of it and the place.
inline std::vector<char> payloadFor(std::uint32_t sequence, int size)
{
   std::vector<char> bytes(static_cast<std::size_t>(size));
   std::uint64_t const seed = mix(sequence);
   for (int i = 0; i < size; ++i)
      bytes[i] = static_cast<char>(i < 4 ? sequence >> (8 * i) : (seed >> (8 * (i % 8))) + i);
   return bytes;
}

inline std::uint32_t sequenceOf(char const* bytes)
{
   std::uint32_t sequence;
   std::memcpy(&sequence, bytes, sizeof sequence);
   return sequence;
}

// A queue with its writer (which made it) and its reader, on semaphores `index` and `index` + 1.
struct QueuePair
{
   QueuePair(int queueSize, bool dropOldest, bool waitForLock = true, int index = 0)
       : size(queueSize),
         semaphores(index + 2),
         block(queueSize),
         writer(block.queue(), queueSize, semaphores.id(), index, waitForLock, true, dropOldest),
         reader(block.queue(), queueSize, semaphores.id(), index, waitForLock, false, dropOldest),
         index(index)
   {
   }
   // The byte (or lock) semaphore and the packet semaphore.
   std::pair<int, int> counts() const { return {semaphores.value(index), semaphores.value(index + 1)}; }
   int write(std::uint32_t sequence, int bytes)
   {
      return writer.Write(payloadFor(sequence, bytes).data(), static_cast<unsigned long>(bytes));
   }
   // Reads one message into `got`; returns what Read returned, its status in `status`.
   int read()
   {
      got.assign(static_cast<std::size_t>(size), 0);
      int const n = reader.Read(got.data(), got.size(), &status);
      got.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
      return n;
   }
   // Whether the last message read is message `sequence` of `bytes` bytes (padded to 8 by Read).
   bool holds(std::uint32_t sequence, int bytes) const
   {
      std::vector<char> expected = payloadFor(sequence, bytes);
      expected.resize(static_cast<std::size_t>((bytes + 7) & ~7), 0);
      return got == expected;
   }
   bool reads(std::uint32_t sequence, int bytes) { return read() > 0 && holds(sequence, bytes); }

   int size;
   char status = -1;
   std::vector<char> got;
   SemaphoreSet semaphores;
   SharedBlock block;
   DtShmMsgQueueWriter writer;
   DtShmMsgQueueReader reader;
   int index;
};

// Runs `body` in a child process, which leaves with _exit past the test framework.
inline pid_t startChild(std::function<int()> const& body)
{
   pid_t const child = fork();
   if (child == 0)
      _exit(body());
   return child;
}

// The child's exit status, or -1 if it ended otherwise or had to be killed after 60 s.
inline int waitChild(pid_t child)
{
   int status = 0;
   pid_t ended = 0;
   for (int i = 0; child > 0 && ended == 0 && i < 30000; ++i)
      if ((ended = waitpid(child, &status, WNOHANG)) == 0)
         usleep(2000);
   if (child > 0 && ended == 0 && kill(child, SIGKILL) == 0)
      ended = waitpid(child, &status, 0);  // killed, unless it had just exited
   return ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_SHM_H
