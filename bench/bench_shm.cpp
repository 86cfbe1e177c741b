// Message rates and bandwidth between two processes: the shared-memory queue in
// blocking mode against the system's and Boost's message queues, against the floor
// of its own design, and against a plain copy through shared memory.
//
// Every case forks a reading process and writes from this one; the time is the
// writer's wall time for its messages, which the bounded queues tie to the reader's
// pace. Cases:
//   ShmQueue        DtShmMsgQueueWriter/Reader, blocking mode, a 32760-byte area
//   SemopFloor      the four semop calls the queue's protocol makes per message
//                   (take bytes, count a message; take the count, give the bytes
//                   back), with no data: the floor of the design
//   SysVMsg         msgsnd/msgrcv
//   BoostMq         boost::interprocess::message_queue, room for as many bytes
//   MemcpyRing      a ring of 64 KiB slots in shared memory, each side copying a
//                   whole slot and passing it on by an atomic counter: the copy
//                   bandwidth between two processes with nothing else in the way
// A blocking queue's area is at most 32767 bytes (a semaphore's largest value) and
// msgsnd takes at most msgmax (8192 here) bytes a message, so "64 KiB" is moved as
// eight 8 KiB messages, and again as 32 of 2 KiB, by those two, and as one message by
// Boost and the ring.
// A summary at exit prints the ratios.
//
// Nothing leaves the machine. Each case's System V objects and Boost queue are
// removed by this process when the case ends; the readers die with it.
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/interprocess/ipc/message_queue.hpp>

#include <olutil/olShmReader.h>
#include <olutil/olShmWriter.h>

namespace
{

namespace bip = boost::interprocess;
using Clock = std::chrono::steady_clock;

constexpr int theQueueSize = 32760;
constexpr std::size_t theBlock = 64 * 1024;
constexpr std::size_t theChunk = 8 * 1024;
constexpr std::size_t theSmallChunk = 2 * 1024;
constexpr int theRingSlots = 8;
constexpr char theData = 'D';
constexpr char theStop = 'S';

struct Tally
{
   double messages = 0;
   double bytes = 0;
   double seconds = 0;
   double rate() const { return seconds > 0 ? messages / seconds : 0; }
   double bandwidth() const { return seconds > 0 ? bytes / seconds : 0; }
};

// Never destroyed, so that the summary at exit can read it.
std::map<std::string, Tally>& tallies()
{
   static auto* theTallies = new std::map<std::string, Tally>;
   return *theTallies;
}

// Shared memory for one case, marked for removal as soon as it is attached.
class Shared
{
public:
   explicit Shared(std::size_t bytes)
   {
      int const id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
      if (id < 0)
         return;
      void* a = shmat(id, nullptr, 0);
      shmctl(id, IPC_RMID, nullptr);
      if (a != reinterpret_cast<void*>(-1))
         myAddress = a;
   }
   ~Shared()
   {
      if (myAddress)
         shmdt(myAddress);
   }
   Shared(Shared const&) = delete;
   Shared& operator=(Shared const&) = delete;
   char* bytes() const { return static_cast<char*>(myAddress); }

private:
   void* myAddress = nullptr;
};

class Semaphores
{
public:
   Semaphores() : myId(semget(IPC_PRIVATE, 2, IPC_CREAT | 0600)) {}
   ~Semaphores()
   {
      if (myId >= 0)
         semctl(myId, 0, IPC_RMID);
   }
   Semaphores(Semaphores const&) = delete;
   Semaphores& operator=(Semaphores const&) = delete;
   int id() const { return myId; }

private:
   int myId;
};

// Starts the reading process; it ends by itself on the stop message or with this one.
pid_t startReader(std::function<void()> const& body)
{
   pid_t const parent = getpid();
   pid_t const child = fork();
   if (child == 0)
   {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent)
         _exit(1);
      body();
      _exit(0);
   }
   return child;
}

// Waits for the reader for at most 30 s.
void joinReader(pid_t child)
{
   auto const deadline = Clock::now() + std::chrono::seconds(30);
   int status = 0;
   while (waitpid(child, &status, WNOHANG) == 0)
   {
      if (Clock::now() > deadline)
      {
         kill(child, SIGKILL);
         waitpid(child, &status, 0);
         return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   }
}

// Runs `send` (one message of `size` bytes, tagged `tag`) for the benchmark's
// iterations, `perIteration` messages each, and records the case.
void measure(benchmark::State& state, char const* name, std::size_t size, int perIteration,
             std::function<void(char tag)> const& send, pid_t reader)
{
   double messages = 0;
   auto const start = Clock::now();
   for (auto _ : state)
   {
      for (int i = 0; i < perIteration; ++i)
         send(theData);
      messages += perIteration;
   }
   double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
   send(theStop);
   joinReader(reader);
   Tally& t = tallies()[name];
   t.messages += messages;
   t.bytes += messages * static_cast<double>(size);
   t.seconds += seconds;
   state.SetItemsProcessed(static_cast<std::int64_t>(messages));
   state.SetBytesProcessed(static_cast<std::int64_t>(messages * static_cast<double>(size)));
}

// ---------------------------------------------------------------- cases

void ShmQueue(benchmark::State& state, char const* name, std::size_t size, std::size_t message)
{
   Shared shared(DtShmMsgQueueBytes(theQueueSize));
   Semaphores semaphores;
   auto* queue = reinterpret_cast<Dt_Shm_Msg_Queue*>(shared.bytes());
   DtShmMsgQueueWriter writer(queue, theQueueSize, semaphores.id(), 0, true, true, false);
   pid_t const reader = startReader([&] {
      DtShmMsgQueueReader r(queue, theQueueSize, semaphores.id(), 0, true, false, false);
      std::vector<char> buffer(message + 8);
      char status;
      while (r.Read(buffer.data(), buffer.size(), &status) >= 0 && buffer[0] != theStop)
      {
      }
   });
   std::vector<char> data(message, 'x');
   std::size_t const pieces = size / message;
   measure(state, name, size, size > 1024 ? 20 : 1000, [&](char tag) {
      for (std::size_t i = 0; i < pieces; ++i)
      {
         data[0] = tag;
         writer.Write(data.data(), data.size());
         if (tag == theStop)
            break;
      }
   }, reader);
}

void SemopFloor(benchmark::State& state, char const* name, std::size_t size)
{
   Semaphores semaphores;
   Shared stop(8);
   int const id = semaphores.id();
   semctl(id, 0, SETVAL, theQueueSize);
   semctl(id, 1, SETVAL, 0);
   short const needed = static_cast<short>((size + 16 + 7) & ~7UL);
   pid_t const reader = startReader([&] {
      sembuf take{1, -1, 0};
      sembuf give{0, static_cast<short>(needed - 8), 0};
      while (semop(id, &take, 1) == 0 && stop.bytes()[0] != theStop)
         semop(id, &give, 1);
   });
   measure(state, name, size, 1000, [&](char tag) {
      if (tag == theStop)
         __atomic_store_n(stop.bytes(), theStop, __ATOMIC_RELEASE);
      sembuf reserve[2] = {{0, static_cast<short>(-needed), 0}, {0, 8, 0}};
      sembuf count{1, 1, 0};
      semop(id, reserve, 2);
      semop(id, &count, 1);
   }, reader);
}

void SysVMsg(benchmark::State& state, char const* name, std::size_t size, std::size_t message)
{
   int const id = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
   struct Buffer
   {
      long type;
      char text[theChunk];
   };
   pid_t const reader = startReader([&] {
      auto buffer = std::make_unique<Buffer>();
      while (msgrcv(id, buffer.get(), sizeof buffer->text, 0, 0) >= 0 && buffer->text[0] != theStop)
      {
      }
   });
   auto buffer = std::make_unique<Buffer>();
   buffer->type = 1;
   std::memset(buffer->text, 'x', sizeof buffer->text);
   std::size_t const pieces = size / message;
   measure(state, name, size, size > 1024 ? 20 : 1000, [&](char tag) {
      for (std::size_t i = 0; i < pieces; ++i)
      {
         buffer->text[0] = tag;
         msgsnd(id, buffer.get(), message, 0);
         if (tag == theStop)
            break;
      }
   }, reader);
   msgctl(id, IPC_RMID, nullptr);
}

void BoostMq(benchmark::State& state, char const* name, std::size_t size)
{
   std::string const queueName = "olshm-bench-" + std::to_string(getpid()) + "-" + std::to_string(size);
   bip::message_queue::remove(queueName.c_str());
   std::size_t const count = std::max<std::size_t>(2, theQueueSize / size);
   struct Remove
   {
      std::string name;
      ~Remove() { bip::message_queue::remove(name.c_str()); }
   } remove{queueName};
   bip::message_queue queue(bip::create_only, queueName.c_str(), count, size);
   pid_t const reader = startReader([&] {
      bip::message_queue in(bip::open_only, queueName.c_str());
      std::vector<char> buffer(size);
      bip::message_queue::size_type got;
      unsigned int priority;
      do
         in.receive(buffer.data(), buffer.size(), got, priority);
      while (buffer[0] != theStop);
   });
   std::vector<char> data(size, 'x');
   measure(state, name, size, size > 1024 ? 20 : 1000, [&](char tag) {
      data[0] = tag;
      queue.send(data.data(), data.size(), 0);
   }, reader);
}

void MemcpyRing(benchmark::State& state, char const* name, std::size_t size)
{
   struct Counters
   {
      alignas(64) std::uint64_t written;
      alignas(64) std::uint64_t read;
   };
   Shared shared(sizeof(Counters) + theRingSlots * size);
   auto* counters = reinterpret_cast<Counters*>(shared.bytes());
   std::memset(counters, 0, sizeof *counters);
   char* slots = shared.bytes() + sizeof(Counters);
   pid_t const reader = startReader([&] {
      std::vector<char> buffer(size);
      for (std::uint64_t n = 0;; ++n)
      {
         while (__atomic_load_n(&counters->written, __ATOMIC_ACQUIRE) == n)
            sched_yield();
         std::memcpy(buffer.data(), slots + (n % theRingSlots) * size, size);
         __atomic_store_n(&counters->read, n + 1, __ATOMIC_RELEASE);
         if (buffer[0] == theStop)
            return;
      }
   });
   std::vector<char> data(size, 'x');
   std::uint64_t n = 0;
   measure(state, name, size, 20, [&](char tag) {
      while (n - __atomic_load_n(&counters->read, __ATOMIC_ACQUIRE) >= theRingSlots)
         sched_yield();
      data[0] = tag;
      std::memcpy(slots + (n % theRingSlots) * size, data.data(), size);
      __atomic_store_n(&counters->written, ++n, __ATOMIC_RELEASE);
   }, reader);
}

BENCHMARK_CAPTURE(ShmQueue, 100B, "queue 100", 100, 100)->UseRealTime();
BENCHMARK_CAPTURE(SemopFloor, 100B, "semop 100", 100)->UseRealTime();
BENCHMARK_CAPTURE(SysVMsg, 100B, "msgsnd 100", 100, 100)->UseRealTime();
BENCHMARK_CAPTURE(BoostMq, 100B, "boost 100", 100)->UseRealTime();
BENCHMARK_CAPTURE(ShmQueue, 64KiB_as_8KiB, "queue 64K", theBlock, theChunk)->UseRealTime();
BENCHMARK_CAPTURE(SysVMsg, 64KiB_as_8KiB, "msgsnd 64K", theBlock, theChunk)->UseRealTime();
// Smaller pieces keep more messages in flight: see the summary.
BENCHMARK_CAPTURE(ShmQueue, 64KiB_as_2KiB, "queue 64K/2K", theBlock, theSmallChunk)->UseRealTime();
BENCHMARK_CAPTURE(SysVMsg, 64KiB_as_2KiB, "msgsnd 64K/2K", theBlock, theSmallChunk)->UseRealTime();
BENCHMARK_CAPTURE(BoostMq, 64KiB, "boost 64K", theBlock)->UseRealTime();
BENCHMARK_CAPTURE(MemcpyRing, 64KiB, "memcpy 64K", theBlock)->UseRealTime();

void printSummary()
{
   auto& t = tallies();
   auto ratio = [&](char const* a, char const* b) {
      return t[b].rate() > 0 ? t[a].rate() / t[b].rate() : 0.0;
   };
   std::printf("\n100-byte messages: queue %.0f/s, four-semop floor %.0f/s, msgsnd/msgrcv %.0f/s, "
               "Boost.Interprocess %.0f/s\n",
               t["queue 100"].rate(), t["semop 100"].rate(), t["msgsnd 100"].rate(), t["boost 100"].rate());
   std::printf("  queue / four-semop floor: %.3f (target >= 0.67)\n", ratio("queue 100", "semop 100"));
   std::printf("  queue / msgsnd+msgrcv:    %.3f (target >= 1)\n", ratio("queue 100", "msgsnd 100"));
   std::printf("  queue / Boost.Interprocess: %.3f (for information)\n", ratio("queue 100", "boost 100"));
   std::printf("64 KiB blocks: queue %.0f MB/s, msgsnd %.0f MB/s, Boost %.0f MB/s, memcpy ring %.0f MB/s\n",
               t["queue 64K"].bandwidth() / 1e6, t["msgsnd 64K"].bandwidth() / 1e6,
               t["boost 64K"].bandwidth() / 1e6, t["memcpy 64K"].bandwidth() / 1e6);
   std::printf("  queue / memcpy bandwidth: %.3f (target >= 0.5)\n", ratio("queue 64K", "memcpy 64K"));
   std::printf("  queue / msgsnd: %.3f, queue / Boost: %.3f\n", ratio("queue 64K", "msgsnd 64K"),
               ratio("queue 64K", "boost 64K"));
   // Three 8 KiB messages fill the area, and one that wraps to the start waits for the
   // two oldest to be read (its bytes and the end element's), so both sides sleep and
   // wake every few messages; about fifteen 2 KiB messages are in flight.
   std::printf("  as 2 KiB messages: queue %.0f MB/s, msgsnd %.0f MB/s; queue / memcpy %.3f, "
               "queue / msgsnd %.3f\n",
               t["queue 64K/2K"].bandwidth() / 1e6, t["msgsnd 64K/2K"].bandwidth() / 1e6,
               ratio("queue 64K/2K", "memcpy 64K"), ratio("queue 64K/2K", "msgsnd 64K/2K"));
}

}  // namespace

int main(int argc, char** argv)
{
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv))
      return 1;
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   printSummary();
   return 0;
}
