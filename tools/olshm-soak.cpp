// olshm-soak: a long run of the shared-memory queue between two processes.
//
// A writer process and a reader process (this one) pass --messages messages of
// random sizes, from 1 byte (4 in drop-oldest mode, which needs the sequence number)
// to a quarter of the queue, through a queue of --queue-size bytes. The reader checks
// every message byte for byte against what the writer must have sent, by sequence
// number, and both sides keep a checksum of everything passed; the writer reports its
// counters through the shared segment when it is done.
//
//   blocking:    nothing may be lost: message i arrives as the i-th read.
//   drop-oldest: the reader is slow; every message read must be whole and newer than
//                the one before, and written = read + lost.
//
// The segment and the semaphore set are private to the run: the segment is marked
// for removal as soon as both processes have it, and the semaphore set is removed by
// the reader on every way out (the writer dies with the reader).
//
//   olshm-soak [--messages N] [--queue-size BYTES] [--mode blocking|drop-oldest|both]
//              [--seed N] [--slow-every N]
#include <signal.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

#include "toolArgs.h"

namespace
{

char const* const theTool = "olshm-soak";
constexpr std::uint32_t theLastMark = 0xffffffffu;
constexpr std::size_t thePoolSize = 1 << 20;

std::uint64_t mix(std::uint64_t x)
{
   x += 0x9e3779b97f4a7c15ULL;
   x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
   x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
   return x ^ (x >> 31);
}

struct Options
{
   long messages = 10000000;
   long queueSize = 32760;
   std::string mode = "both";
   long seed = 1;
   long slowEvery = 8;
};

// What the writer leaves for the reader, after the queue in the segment.
struct WriterReport
{
   std::uint64_t checksum;
   std::int64_t written;
   std::int64_t droppedNew;
   std::int64_t droppedOld;
   std::int32_t done;
};

// Message `sequence`: its size, and its bytes taken from a shared pool of random
// bytes at a place that depends on the sequence number, with the sequence number in
// its first four bytes (as many as there are).
class Messages
{
public:
   Messages(long seed, int smallest, int largest) : mySeed(seed), mySmallest(smallest), myLargest(largest)
   {
      myPool.resize(thePoolSize + static_cast<std::size_t>(largest));
      for (std::size_t i = 0; i < myPool.size(); ++i)
         myPool[i] = static_cast<char>(mix(static_cast<std::uint64_t>(seed) * 1000003 + i));
   }
   int size(std::uint32_t sequence) const
   {
      return mySmallest + static_cast<int>(mix(sequence ^ static_cast<std::uint64_t>(mySeed) << 32) %
                                           static_cast<std::uint64_t>(myLargest - mySmallest + 1));
   }
   char const* body(std::uint32_t sequence) const { return myPool.data() + mix(sequence) % thePoolSize; }
   // The message's head: the sequence number's bytes.
   static void head(std::uint32_t sequence, char* out, int size)
   {
      std::memcpy(out, &sequence, size < 4 ? size : 4);
   }
   bool matches(std::uint32_t sequence, char const* got, int gotLength) const
   {
      int const n = size(sequence);
      if (gotLength != ((n + 7) & ~7))
         return false;
      char h[4];
      head(sequence, h, n);
      int const headBytes = n < 4 ? n : 4;
      if (std::memcmp(got, h, headBytes) != 0)
         return false;
      if (n > 4 && std::memcmp(got + 4, body(sequence) + 4, n - 4) != 0)
         return false;
      for (int i = n; i < gotLength; ++i)
         if (got[i] != 0)
            return false;
      return true;
   }
   static std::uint64_t fold(std::uint64_t sum, std::uint32_t sequence, int size)
   {
      return mix(sum ^ (static_cast<std::uint64_t>(sequence) << 20) ^ static_cast<std::uint64_t>(size));
   }

private:
   long mySeed;
   int mySmallest;
   int myLargest;
   std::vector<char> myPool;
};

// The run's System V objects. The reader's object removes the semaphore set on every
// way out, including SIGINT and SIGTERM.
int theSemaphoreSet = -1;

void removeSemaphores()
{
   if (theSemaphoreSet >= 0)
      semctl(theSemaphoreSet, 0, IPC_RMID);
   theSemaphoreSet = -1;
}

void onSignal(int number)
{
   removeSemaphores();
   signal(number, SIG_DFL);
   raise(number);
}

class Segment
{
public:
   explicit Segment(std::size_t bytes)
   {
      int const id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
      if (id < 0)
         return;
      void* a = shmat(id, nullptr, 0);
      // Marked at once: the system frees it when the last process detaches or dies.
      shmctl(id, IPC_RMID, nullptr);
      if (a != reinterpret_cast<void*>(-1))
         myAddress = a;
   }
   ~Segment()
   {
      if (myAddress)
         shmdt(myAddress);
   }
   Segment(Segment const&) = delete;
   Segment& operator=(Segment const&) = delete;
   void* address() const { return myAddress; }

private:
   void* myAddress = nullptr;
};

double now()
{
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int writerBody(Options const& o, bool dropOldest, Messages const& messages, Dt_Shm_Msg_Queue* queue,
               WriterReport* report)
{
   DtShmMsgQueueWriter writer(queue, static_cast<int>(o.queueSize), theSemaphoreSet, 0, true, false,
                              dropOldest);
   std::vector<char> head(4);
   std::uint64_t sum = 0;
   for (long i = 0; i < o.messages; ++i)
   {
      auto const sequence = static_cast<std::uint32_t>(i);
      int const n = messages.size(sequence);
      Messages::head(sequence, head.data(), n);
      char* pieces[2] = {head.data(), const_cast<char*>(messages.body(sequence)) + 4};
      unsigned long sizes[2] = {static_cast<unsigned long>(n < 4 ? n : 4),
                                static_cast<unsigned long>(n > 4 ? n - 4 : 0)};
      if (writer.Writev(pieces, sizes, 2) != n)
      {
         std::fprintf(stderr, "%s: writer: message %ld of %d bytes was refused\n", theTool, i, n);
         return 1;
      }
      sum = Messages::fold(sum, sequence, n);
   }
   std::uint32_t mark = theLastMark;
   if (writer.Write(reinterpret_cast<char*>(&mark), sizeof mark) != 4)
      return 1;
   report->checksum = sum;
   report->written = writer.getMessagesWritten() - 1;
   report->droppedNew = writer.getDroppedNew();
   report->droppedOld = writer.getDroppedOld();
   __atomic_store_n(&report->done, 1, __ATOMIC_RELEASE);
   return 0;
}

// One run; 0 when every check held.
int run(Options const& o, bool dropOldest)
{
   int const smallest = dropOldest ? 4 : 1;
   int const largest = static_cast<int>(o.queueSize / 4);
   Messages const messages(o.seed, smallest, largest);
   Segment segment(DtShmMsgQueueBytes(static_cast<int>(o.queueSize)) + sizeof(WriterReport) + 8);
   if (!segment.address())
   {
      std::perror("olshm-soak: shared memory");
      return oltool::theExitProblem;
   }
   auto* queue = static_cast<Dt_Shm_Msg_Queue*>(segment.address());
   auto* report = reinterpret_cast<WriterReport*>(static_cast<char*>(segment.address()) +
                                                  ((DtShmMsgQueueBytes(static_cast<int>(o.queueSize)) + 7) & ~7UL));
   std::memset(report, 0, sizeof *report);
   theSemaphoreSet = semget(IPC_PRIVATE, 2, IPC_CREAT | 0600);
   if (theSemaphoreSet < 0)
   {
      std::perror("olshm-soak: semaphores");
      return oltool::theExitProblem;
   }
   DtShmMsgQueueReader reader(queue, static_cast<int>(o.queueSize), theSemaphoreSet, 0, true, true, dropOldest);

   pid_t const parent = getpid();
   pid_t const child = fork();
   if (child == 0)
   {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent)
         _exit(1);
      _exit(writerBody(o, dropOldest, messages, queue, report));
   }
   if (child < 0)
   {
      std::perror("olshm-soak: fork");
      removeSemaphores();
      return oltool::theExitProblem;
   }

   std::printf("%s: %s, %ld messages of %d to %d bytes through a queue of %ld bytes\n", theTool,
               dropOldest ? "drop-oldest" : "blocking", o.messages, smallest, largest, o.queueSize);
   std::vector<char> buffer(static_cast<std::size_t>(o.queueSize));
   double const start = now();
   double lastLine = start;
   std::uint64_t sum = 0;
   std::int64_t read = 0;
   std::int64_t lost = 0;
   std::int64_t bytes = 0;
   std::int64_t empty = 0;
   std::uint32_t expected = 0;
   bool ok = true;
   while (ok && !oltool::theInterrupted)
   {
      char status = 0;
      int const n = reader.Read(buffer.data(), buffer.size(), &status);
      if (n < 0)
      {
         if (oltool::theInterrupted)
            break;
         if (status != DtShmReadEmpty || !dropOldest)
         {
            std::fprintf(stderr, "%s: read failed with status %d after %" PRId64 " messages\n", theTool,
                         status, read);
            ok = false;
         }
         ++empty;
         continue;
      }
      // The writer's last message is the mark alone; in blocking mode it can only come
      // after every message.
      std::uint32_t head = 0;
      if (n >= 4)
         std::memcpy(&head, buffer.data(), 4);
      bool const last = n == 8 && head == theLastMark &&
                        (dropOldest || expected == static_cast<std::uint32_t>(o.messages));
      if (last)
         break;
      std::uint32_t const sequence = dropOldest ? head : expected;
      if (sequence < expected || sequence >= static_cast<std::uint32_t>(o.messages) ||
          !messages.matches(sequence, buffer.data(), n))
      {
         std::fprintf(stderr, "%s: message %" PRId64 " read is not message %u whole (got %d bytes)\n",
                      theTool, read, expected, n);
         ok = false;
         break;
      }
      lost += sequence - expected;
      expected = sequence + 1;
      ++read;
      bytes += messages.size(sequence);
      sum = Messages::fold(sum, sequence, messages.size(sequence));
      if (dropOldest && o.slowEvery > 0 && read % o.slowEvery == 0)
      {
         // The slow reader: a pause that lets the writer lap it.
         timespec pause{0, 20000};
         nanosleep(&pause, nullptr);
      }
      if ((read & 0xfff) == 0 && now() - lastLine >= 1.0)
      {
         lastLine = now();
         std::fprintf(stderr, "%s: %.0f s: %" PRId64 " read, %" PRId64 " lost\n", theTool, lastLine - start,
                      read, lost);
      }
   }
   double const seconds = now() - start;
   if (!ok || oltool::theInterrupted)
      kill(child, SIGKILL);
   int status = 0;
   waitpid(child, &status, 0);
   removeSemaphores();
   if (!ok || oltool::theInterrupted)
      return oltool::theExitProblem;
   bool const writerDone = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                           __atomic_load_n(&report->done, __ATOMIC_ACQUIRE) == 1;
   lost += static_cast<std::uint32_t>(o.messages) - expected;
   std::printf("%s: %s: written %" PRId64 ", read %" PRId64 ", lost %" PRId64 " (droppedOld %" PRId64
               ", droppedNew %" PRId64 "), %" PRId64 " empty reads, %.1f MB in %.1f s, %.0f messages/s\n",
               theTool, dropOldest ? "drop-oldest" : "blocking", report->written, read, lost, report->droppedOld,
               report->droppedNew, empty, bytes / 1e6, seconds, read / seconds);
   bool good = writerDone && report->written == o.messages && report->droppedNew == 0 &&
               read + lost == report->written;
   if (!dropOldest)
      good = good && lost == 0 && sum == report->checksum;
   else
      good = good && report->droppedOld >= lost;
   std::printf("%s: %s: %s\n", theTool, dropOldest ? "drop-oldest" : "blocking",
               good ? "every check held" : "CHECK FAILED");
   return good ? 0 : oltool::theExitProblem;
}

void usage(std::FILE* out)
{
   std::fprintf(out,
                "usage: %s [options]\n"
                "  --messages N        messages per run (default 10000000)\n"
                "  --queue-size BYTES  the queue's element area, 64 to 32767 (default 32760)\n"
                "  --mode M            blocking, drop-oldest or both (default both)\n"
                "  --seed N            seed of sizes and contents (default 1)\n"
                "  --slow-every N      drop-oldest reader pauses after every N messages (default 8)\n",
                theTool);
}

}  // namespace

int main(int argc, char** argv)
{
   Options o;
   auto const take = [&](std::string const& name, char const* value)
   {
      bool good = false;
      if (name == "--messages")
         good = oltool::parseLong(value, 1, 4000000000L, o.messages);  // below the mark
      else if (name == "--queue-size")
         good = oltool::parseLong(value, 64, DtShmMaxBlockingQueueSize, o.queueSize);
      else if (name == "--seed")
         good = oltool::parseLong(value, 0, 1L << 40, o.seed);
      else if (name == "--slow-every")
         good = oltool::parseLong(value, 0, 1L << 30, o.slowEvery);
      else if (name == "--mode")
      {
         o.mode = value;
         good = o.mode == "blocking" || o.mode == "drop-oldest" || o.mode == "both";
      }
      else
         return oltool::OptionReader::Unknown;
      return oltool::OptionReader::verdict(good);
   };
   oltool::OptionReader in(theTool, argc, argv);
   if (!in.readAll(usage, {}, take) || in.failed())
      return oltool::theExitUsage;
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   oltool::catchInterrupts();
   signal(SIGTERM, onSignal);
   int result = 0;
   if (o.mode != "drop-oldest")
      result = run(o, false);
   if (result == 0 && o.mode != "blocking")
      result = run(o, true);
   return result;
}
