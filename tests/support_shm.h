// Test support: System V objects for queue tests, each removed by its owner, and
// the payloads that let a reader check every message it gets.
#ifndef OLUTIL_TESTS_SUPPORT_SHM_H
#define OLUTIL_TESTS_SUPPORT_SHM_H

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include <olutil/olShmQueue.h>

namespace olt
{

// A private set of two semaphores, removed when the owner goes.
class SemaphoreSet
{
public:
   SemaphoreSet() : myId(semget(IPC_PRIVATE, 2, IPC_CREAT | 0600)) {}
   ~SemaphoreSet()
   {
      if (myId >= 0 && myOwner == getpid())
         semctl(myId, 0, IPC_RMID);
   }
   SemaphoreSet(SemaphoreSet const&) = delete;
   SemaphoreSet& operator=(SemaphoreSet const&) = delete;
   int id() const { return myId; }
   int value(int index) const { return semctl(myId, index, GETVAL); }
   void set(int index, int value) const { semctl(myId, index, SETVAL, value); }
   // Processes waiting for the semaphore to grow.
   int waiting(int index) const { return semctl(myId, index, GETNCNT); }

private:
   int myId;
   pid_t myOwner = getpid();
};

// A private segment for one queue. It is marked for removal as soon as it is
// attached, so the system frees it when the last process that uses it ends, however
// that process ends; forked children share it.
class SharedBlock
{
public:
   explicit SharedBlock(int queueSize)
   {
      int const id = shmget(IPC_PRIVATE, DtShmMsgQueueBytes(queueSize), IPC_CREAT | 0600);
      if (id >= 0)
      {
         void* address = shmat(id, nullptr, 0);
         shmctl(id, IPC_RMID, nullptr);
         if (address != reinterpret_cast<void*>(-1))
            myAddress = address;
      }
   }
   ~SharedBlock()
   {
      if (myAddress)
         shmdt(myAddress);
   }
   SharedBlock(SharedBlock const&) = delete;
   SharedBlock& operator=(SharedBlock const&) = delete;
   Dt_Shm_Msg_Queue* queue() const { return static_cast<Dt_Shm_Msg_Queue*>(myAddress); }
   char* area() const { return static_cast<char*>(myAddress) + DtShmMsgQueueHeaderSize; }
   Dt_Shm_Msg_Queue_Element* element(int offset) const
   {
      return reinterpret_cast<Dt_Shm_Msg_Queue_Element*>(area() + offset);
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

// Message `sequence` of `size` bytes: the sequence number in its first four bytes (as
// many as there are), then bytes that depend on the sequence number and the place.
inline std::vector<char> payloadFor(std::uint32_t sequence, int size)
{
   std::vector<char> bytes(static_cast<std::size_t>(size));
   std::uint64_t const seed = mix(sequence);
   for (int i = 0; i < size; ++i)
      bytes[i] = static_cast<char>(i < 4 ? sequence >> (8 * i) : (seed >> (8 * (i % 8))) + i);
   return bytes;
}

// The sequence number at the head of a message of at least four bytes.
inline std::uint32_t sequenceOf(char const* bytes)
{
   std::uint32_t sequence;
   std::memcpy(&sequence, bytes, sizeof sequence);
   return sequence;
}

// True when `got` (as Read returned it: padded to 8 with zeros) is message `sequence`
// of `size` bytes.
inline bool isMessage(char const* got, int gotLength, std::uint32_t sequence, int size)
{
   if (gotLength != ((size + 7) & ~7))
      return false;
   std::vector<char> const expected = payloadFor(sequence, size);
   if (std::memcmp(got, expected.data(), size) != 0)
      return false;
   for (int i = size; i < gotLength; ++i)
      if (got[i] != 0)
         return false;
   return true;
}

// Runs `body` in a child process and returns its exit status (the body's result), or
// -1 if it ended otherwise. The child leaves with _exit, past the test framework.
inline pid_t startChild(std::function<int()> const& body)
{
   pid_t const child = fork();
   if (child == 0)
      _exit(body());
   return child;
}

// The child's exit status, or -1 if it ended otherwise or had to be killed after
// 60 s.
inline int waitChild(pid_t child)
{
   if (child < 0)
      return -1;
   int status = 0;
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
   while (waitpid(child, &status, WNOHANG) == 0)
   {
      if (std::chrono::steady_clock::now() > deadline)
      {
         kill(child, SIGKILL);
         waitpid(child, &status, 0);
         return -1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
   }
   return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Polls `condition` for at most 20 s.
inline bool eventually(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition())
   {
      if (std::chrono::steady_clock::now() > deadline)
         return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
   }
   return true;
}

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_SHM_H
