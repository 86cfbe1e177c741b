// olshm-demo: one process writes, another reads, through a named shared-memory queue.
//
// The reader owns everything the run creates: the key file "/tmp/NAME.shared", the
// segment (a DtSharedMemoryPoolManager), and the semaphore set keyed on the same
// file; it removes them when it ends, also on SIGINT or SIGTERM. The writer joins by
// name (DtSharedMemoryPoolClient), writes for --seconds, then sends a last message
// that ends the reader. Each side prints a line per second on standard error:
// messages, bytes and drops; the summary goes to standard output.
//
//   olshm-demo                      both roles: the reader forks the writer
//   olshm-demo --role reader        the reader alone; start a writer elsewhere
//   olshm-demo --role writer        the writer, joining a reader's queue by name
//
// Options: --name NAME (default olshm-demo-PID for both roles, olshm-demo otherwise),
// --seconds S (5), --size BYTES per message (256), --rate messages/s (0: as fast as
// the queue takes them), --queue-size BYTES (32760), --drop-oldest.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <olutil/olExceptions.h>
#include <olutil/olShmPool.h>
#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

#include "toolArgs.h"

namespace
{

char const* const theTool = "olshm-demo";
// The semaphore set's key: the key file's, with another project number than the
// segment's.
constexpr int theSemaphoreProject = 's';
constexpr std::uint32_t theLastFlag = 1;

struct Options
{
   std::string role = "both";
   std::string name;
   double seconds = 5;
   long size = 256;
   double rate = 0;
   long queueSize = 32760;
   bool dropOldest = false;
};

// What every message starts with.
struct Head
{
   std::uint32_t sequence;
   std::uint32_t flags;
};

std::string keyFile(std::string const& name)
{
   return "/tmp/" + name + ".shared";
}

double now()
{
   return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The reader's semaphore set, and the key file, removed on every way out.
int theSemaphores = -1;
char theKeyFile[256] = "";

void removeOwned()
{
   if (theSemaphores >= 0)
      semctl(theSemaphores, 0, IPC_RMID);
   theSemaphores = -1;
   if (theKeyFile[0])
      unlink(theKeyFile);
   theKeyFile[0] = 0;
}

// One line a second.
class Ticker
{
public:
   explicit Ticker(char const* what) : myWhat(what), myStart(now()), myLast(myStart) {}
   void tick(std::int64_t messages, std::int64_t bytes, std::int64_t drops, char const* dropWord)
   {
      double const t = now();
      if (t - myLast < 1.0)
         return;
      std::fprintf(stderr, "%s: %s %4.0f s: %" PRId64 " messages/s, %.1f MB/s, %" PRId64 " %s\n", theTool,
                   myWhat, t - myStart, messages - myMessages, (bytes - myBytes) / (t - myLast) / 1e6,
                   drops - myDrops, dropWord);
      myLast = t;
      myMessages = messages;
      myBytes = bytes;
      myDrops = drops;
   }
   double elapsed() const { return now() - myStart; }

private:
   char const* myWhat;
   double myStart;
   double myLast;
   std::int64_t myMessages = 0;
   std::int64_t myBytes = 0;
   std::int64_t myDrops = 0;
};

int writeFor(Options const& o, Dt_Shm_Msg_Queue* queue, int semaphores)
{
   DtShmMsgQueueWriter writer(queue, static_cast<int>(o.queueSize), semaphores, 0, true, false, o.dropOldest);
   std::vector<char> message(static_cast<std::size_t>(o.size), 'm');
   Head head{0, 0};
   Ticker ticker("writer");
   std::int64_t bytes = 0;
   double const interval = o.rate > 0 ? 1.0 / o.rate : 0;
   double next = now();
   while (ticker.elapsed() < o.seconds && !oltool::theInterrupted)
   {
      if (interval > 0)
      {
         double const wait = next - now();
         if (wait > 0)
            std::this_thread::sleep_for(std::chrono::duration<double>(wait));
         next += interval;
      }
      std::memcpy(message.data(), &head, sizeof head);
      if (writer.Write(message.data(), message.size()) > 0)
      {
         ++head.sequence;
         bytes += static_cast<std::int64_t>(message.size());
      }
      ticker.tick(writer.getMessagesWritten(), bytes, writer.getDroppedNew() + writer.getDroppedOld(),
                  "dropped (new + old)");
   }
   head.flags = theLastFlag;
   std::memcpy(message.data(), &head, sizeof head);
   writer.Write(message.data(), sizeof head);
   std::printf("writer: %d messages, %" PRId64 " bytes in %.1f s; dropped %d new, %d old\n",
               writer.getMessagesWritten() - 1, bytes, ticker.elapsed(), writer.getDroppedNew(),
               writer.getDroppedOld());
   return 0;
}

// The writer's side of a run: joins the queue by name, waiting up to 10 s for it.
int runWriter(Options const& o)
{
   std::unique_ptr<DtSharedMemoryPoolClient> pool;
   int semaphores = -1;
   for (int tries = 0; tries < 100 && !oltool::theInterrupted; ++tries)
   {
      // Only the reader makes the key file: looking up a name would make one.
      if (access(keyFile(o.name).c_str(), F_OK) != 0)
      {
         std::this_thread::sleep_for(std::chrono::milliseconds(100));
         continue;
      }
      try
      {
         pool = std::make_unique<DtSharedMemoryPoolClient>(o.name.c_str());
         semaphores = semget(ftok(keyFile(o.name).c_str(), theSemaphoreProject), 2, 0);
         if (semaphores >= 0)
            break;
      }
      catch (DtException const&)
      {
      }
      pool.reset();
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
   }
   if (!pool || semaphores < 0)
   {
      std::fprintf(stderr, "%s: no reader's queue named %s\n", theTool, o.name.c_str());
      return oltool::theExitProblem;
   }
   return writeFor(o, static_cast<Dt_Shm_Msg_Queue*>(pool->address()), semaphores);
}

int runReader(Options const& o)
{
   std::snprintf(theKeyFile, sizeof theKeyFile, "%s", keyFile(o.name).c_str());
   std::unique_ptr<DtSharedMemoryPoolManager> pool;
   try
   {
      pool = std::make_unique<DtSharedMemoryPoolManager>(o.name.c_str(), DtShmMsgQueueBytes(static_cast<int>(o.queueSize)));
   }
   catch (DtException const& e)
   {
      std::fprintf(stderr, "%s: %s\n", theTool, e.message());
      removeOwned();
      return oltool::theExitProblem;
   }
   theSemaphores = semget(ftok(theKeyFile, theSemaphoreProject), 2, IPC_CREAT | 0600);
   if (theSemaphores < 0)
   {
      std::perror("olshm-demo: semaphores");
      removeOwned();
      return oltool::theExitProblem;
   }
   auto* queue = static_cast<Dt_Shm_Msg_Queue*>(pool->address());
   DtShmMsgQueueReader reader(queue, static_cast<int>(o.queueSize), theSemaphores, 0, true, true, o.dropOldest);

   pid_t child = -1;
   if (o.role == "both")
   {
      pid_t const parent = getpid();
      child = fork();
      if (child == 0)
      {
         prctl(PR_SET_PDEATHSIG, SIGTERM);
         if (getppid() != parent)
            _exit(1);
         // The child neither owns nor removes anything.
         int const set = theSemaphores;
         theSemaphores = -1;
         theKeyFile[0] = 0;
         std::fflush(stdout);
         _exit(writeFor(o, queue, set));
      }
   }
   else
      std::fprintf(stderr, "%s: reading queue %s; start: %s --role writer --name %s\n", theTool,
                   o.name.c_str(), theTool, o.name.c_str());

   std::vector<char> buffer(static_cast<std::size_t>(o.queueSize));
   Ticker ticker("reader");
   std::int64_t messages = 0;
   std::int64_t bytes = 0;
   std::int64_t lost = 0;
   std::uint32_t expected = 0;
   while (!oltool::theInterrupted)
   {
      char status = 0;
      int const n = reader.Read(buffer.data(), buffer.size(), &status);
      if (n >= static_cast<int>(sizeof(Head)))
      {
         Head head;
         std::memcpy(&head, buffer.data(), sizeof head);
         if (head.flags & theLastFlag)
            break;
         lost += head.sequence - expected;
         expected = head.sequence + 1;
         ++messages;
         bytes += n;
      }
      ticker.tick(messages, bytes, lost, "lost");
   }
   std::printf("reader: %" PRId64 " messages, %" PRId64 " bytes in %.1f s; %" PRId64 " lost\n", messages, bytes,
               ticker.elapsed(), lost);
   int result = 0;
   if (child > 0)
   {
      if (oltool::theInterrupted)
         kill(child, SIGTERM);
      int status = 0;
      waitpid(child, &status, 0);
      result = WIFEXITED(status) ? WEXITSTATUS(status) : oltool::theExitProblem;
   }
   removeOwned();
   return result;
}

void usage(std::FILE* out)
{
   std::fprintf(out,
                "usage: %s [options]\n"
                "  --role R          both, reader or writer (default both)\n"
                "  --name NAME       the queue's name (default olshm-demo-PID for both, else olshm-demo)\n"
                "  --seconds S       how long the writer writes (default 5)\n"
                "  --size BYTES      bytes per message, 8 or more (default 256)\n"
                "  --rate N          messages per second, 0 for as fast as possible (default 0)\n"
                "  --queue-size B    the queue's area in bytes (default 32760)\n"
                "  --drop-oldest     overwrite the oldest messages instead of waiting\n",
                theTool);
}

}  // namespace

int main(int argc, char** argv)
{
   Options o;
   auto const take = [&](std::string const& name, char const* value)
   {
      bool good = false;
      if (name == "--role")
      {
         o.role = value;
         good = o.role == "both" || o.role == "reader" || o.role == "writer";
      }
      else if (name == "--name")
      {
         o.name = value;
         good = !o.name.empty() && o.name.find('/') == std::string::npos && o.name.size() < 200;
      }
      else if (name == "--seconds")
         good = oltool::parseNonNegative(value, o.seconds);
      else if (name == "--rate")
         good = oltool::parseNonNegative(value, o.rate);
      else if (name == "--size")
         good = oltool::parseLong(value, sizeof(Head), 1 << 24, o.size);
      else if (name == "--queue-size")
         good = oltool::parseLong(value, 64, 1 << 28, o.queueSize);
      else
         return oltool::OptionReader::Unknown;
      return oltool::OptionReader::verdict(good);
   };
   oltool::OptionReader in(theTool, argc, argv);
   if (!in.readAll(usage, {{"--drop-oldest", &o.dropOldest}}, take) || in.failed())
      return oltool::theExitUsage;
   if (!o.dropOldest && o.queueSize > DtShmMaxBlockingQueueSize)
   {
      std::fprintf(stderr, "%s: a blocking queue holds at most %d bytes\n", theTool, DtShmMaxBlockingQueueSize);
      return oltool::theExitUsage;
   }
   if (o.size + 16 > o.queueSize)
   {
      std::fprintf(stderr, "%s: a message of %ld bytes does not fit a queue of %ld\n", theTool, o.size, o.queueSize);
      return oltool::theExitUsage;
   }
   if (o.name.empty())
      o.name = o.role == "both" ? "olshm-demo-" + std::to_string(getpid()) : "olshm-demo";
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   oltool::NotificationToStderr notes(theTool, false);
   oltool::catchInterrupts();
   return o.role == "writer" ? runWriter(o) : runReader(o);
}
