// Benchmarks of DtDisSocket on loopback, each case against its baseline in the
// same run, with the ratios printed at the end:
//   1. single-PDU datagrams through recvToChainFrom vs a plain Boost.Asio
//      receive_from loop (target: within 10%);
//   2. the same PDUs arriving in bundles of 10 (target: at least 4x the PDU rate
//      of case 1);
//   3. sending with bundling on (maximum 1400) vs off (target: at least 5x);
//   4. heap allocations per read of a single-PDU datagram (target: none), counted
//      by the replaced global operator new below;
//   5. (information) sending with bundles of 65 PDUs (maximum 9360), past the 64
//      buffers Boost.Asio takes in one call, vs off.
//
// Cases 1 and 2 are held against their targets with both sides read in
// alternating rounds of one benchmark; each side also runs as a case of its own,
// for the absolute rates. Every case runs three times and its median counts. Every
// case is bounded in time (MinTime) and sends only to 127.0.0.1. Times are the
// benchmark thread's CPU time, which includes the system calls: on a shared
// machine wall-clock time mostly measures the neighbours.
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include <benchmark/benchmark.h>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>

// ---------------------------------------------------------------- allocation counter

// The replaced operators pair malloc with free themselves; GCC cannot see that
// through inlining and warns about a mismatch.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace
{
std::atomic<long> theAllocations(0);
}

void* operator new(std::size_t size)
{
   theAllocations.fetch_add(1, std::memory_order_relaxed);
   if (void* p = std::malloc(size ? size : 1))
      return p;
   throw std::bad_alloc();
}

void* operator new[](std::size_t size)
{
   theAllocations.fetch_add(1, std::memory_order_relaxed);
   if (void* p = std::malloc(size ? size : 1))
      return p;
   throw std::bad_alloc();
}

void operator delete(void* p) noexcept
{
   std::free(p);
}

void operator delete[](void* p) noexcept
{
   std::free(p);
}

void operator delete(void* p, std::size_t) noexcept
{
   std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept
{
   std::free(p);
}

// ---------------------------------------------------------------- helpers

namespace
{
namespace asio = boost::asio;
using Udp = asio::ip::udp;

int const theBatch = 100;       // datagrams sent, outside the timing, per iteration
int const theBundle = 10;       // PDUs per bundled datagram in case 2
int const thePduSize = 144;     // an Entity State PDU, a multiple of 8: no padding
double const theMinTime = 0.5;  // seconds per repetition of a case
// Each case runs this often and its median counts: a neighbour's burst on a
// shared machine then moves one repetition, not the ratio.
int const theRepetitions = 3;

std::vector<char> makePdu(unsigned char kind = 1)
{
   std::vector<char> pdu(thePduSize, 0);
   pdu[0] = 7;
   pdu[1] = 1;
   pdu[2] = static_cast<char>(kind);
   pdu[3] = 1;
   pdu[8] = static_cast<char>(thePduSize >> 8);
   pdu[9] = static_cast<char>(thePduSize & 0xFF);
   return pdu;
}

Udp::endpoint loopback(unsigned short port)
{
   return Udp::endpoint(asio::ip::make_address_v4("127.0.0.1"), port);
}

// A DtDisSocket on 127.0.0.1 with a port of the system's choosing.
struct DisReceiver
{
   DtDisSocket socket;

   DisReceiver()
       : socket(DtInetEndpoint(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp), 0, nullptr,
                DtInetSockFlagsDefault | DtInetSockFlagNonBlocking, false, false)
   {
      socket.setLocalPort(0);
      if (!socket.openSocket())
      {
         std::fprintf(stderr, "bench_dis: %s\n", socket.getLastErrorString().c_str());
         std::exit(1);
      }
   }
};

// Sends `count` datagrams of `payload` to the port.
void sendBatch(Udp::socket& sender, unsigned short port, std::vector<char> const& payload,
               int count)
{
   boost::system::error_code error;
   for (int i = 0; i < count; ++i)
      sender.send_to(asio::buffer(payload), loopback(port), 0, error);
}

Udp::socket openSender(asio::io_context& context)
{
   Udp::socket sender(context, loopback(0));
   return sender;
}

// ---------------------------------------------------------------- case 1

// Rounds that send with the timer paused and then time theBatch reads, each done
// by `readOne`, which answers whether a PDU came.
template <class Send, class ReadOne>
void timedReads(benchmark::State& state, Send send, ReadOne readOne)
{
   long pdus = 0, misses = 0;
   for (auto _ : state)
   {
      state.PauseTiming();
      send();
      state.ResumeTiming();
      for (int i = 0; i < theBatch; ++i)
      {
         if (!readOne())
         {
            ++misses;
            break;
         }
         ++pdus;
      }
   }
   state.SetItemsProcessed(pdus);
   state.counters["misses"] = static_cast<double>(misses);
}

void BM_PlainAsioReceive(benchmark::State& state)
{
   asio::io_context context;
   Udp::socket receiver(context, loopback(0));
   receiver.set_option(asio::socket_base::receive_buffer_size(8 << 20));
   receiver.non_blocking(true);
   Udp::socket sender = openSender(context);
   std::vector<char> const pdu = makePdu();
   std::vector<char> buffer(65536);
   Udp::endpoint from;
   timedReads(
       state, [&] { sendBatch(sender, receiver.local_endpoint().port(), pdu, theBatch); },
       [&]
       {
          boost::system::error_code error;
          benchmark::DoNotOptimize(receiver.receive_from(asio::buffer(buffer), from, 0, error));
          return !error;
       });
}

void BM_DisReceiveSinglePdu(benchmark::State& state)
{
   DisReceiver rx;
   asio::io_context context;
   Udp::socket sender = openSender(context);
   std::vector<char> const pdu = makePdu();
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   timedReads(
       state, [&] { sendBatch(sender, rx.socket.localPort(), pdu, theBatch); },
       [&] { return rx.socket.recvToChainFrom(chain, from, 0) > 0; });
}

// CPU time of the calling thread, system calls included.
double threadSeconds()
{
   timespec now{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
   return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// Runs rounds that each send with `prepare`, then time `first` and `second` (each
// reads theBatch PDUs) in the thread's CPU time, in an order that alternates, so
// that a change in the machine's load falls on both alike. The counter "ratio" is
// the second's time over the first's: the first's rate relative to the second's.
template <class Prepare, class First, class Second>
void alternateRounds(benchmark::State& state, Prepare prepare, First first, Second second)
{
   double firstSeconds = 0, secondSeconds = 0;
   long rounds = 0, misses = 0;
   auto timed = [&](auto& read, double& seconds)
   {
      double const start = threadSeconds();
      misses += read();
      seconds += threadSeconds() - start;
   };
   for (auto _ : state)
   {
      prepare();
      if (rounds++ % 2)
      {
         timed(first, firstSeconds);
         timed(second, secondSeconds);
      }
      else
      {
         timed(second, secondSeconds);
         timed(first, firstSeconds);
      }
   }
   state.SetItemsProcessed(rounds * theBatch * 2);
   state.counters["misses"] = static_cast<double>(misses);
   state.counters["ratio"] = firstSeconds > 0 ? secondSeconds / firstSeconds : 0.0;
}

// theBatch reads through a DtDisSocket; the result is the number that found nothing.
long readDis(DtDisSocket& socket, DtInetSockChain& chain, DtInetEndpoint& from)
{
   long misses = 0;
   for (int i = 0; i < theBatch; ++i)
   {
      if (socket.recvToChainFrom(chain, from, 0) <= 0)
         ++misses;
   }
   return misses;
}

// Case 1, the figure held against the target: the plain loop and DtDisSocket in
// alternating rounds.
void BM_DisVsPlainInterleaved(benchmark::State& state)
{
   asio::io_context context;
   Udp::socket plain(context, loopback(0));
   plain.set_option(asio::socket_base::receive_buffer_size(8 << 20));
   plain.non_blocking(true);
   DisReceiver rx;
   Udp::socket sender = openSender(context);
   std::vector<char> const pdu = makePdu();
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   Udp::endpoint plainFrom;
   alternateRounds(
       state,
       [&]
       {
          sendBatch(sender, plain.local_endpoint().port(), pdu, theBatch);
          sendBatch(sender, rx.socket.localPort(), pdu, theBatch);
       },
       [&] { return readDis(rx.socket, chain, from); },
       [&]
       {
          long misses = 0;
          for (int i = 0; i < theBatch; ++i)
          {
             boost::system::error_code error;
             plain.receive_from(asio::buffer(buffer), plainFrom, 0, error);
             misses += error ? 1 : 0;
          }
          return misses;
       });
}

// Case 2, the figure held against the target: the same number of PDUs in bundles of
// 10 and in single-PDU datagrams, in alternating rounds.
void BM_BundlesVsSingleInterleaved(benchmark::State& state)
{
   DisReceiver single, bundled;
   asio::io_context context;
   Udp::socket sender = openSender(context);
   std::vector<char> const pdu = makePdu();
   std::vector<char> bundle;
   for (int i = 0; i < theBundle; ++i)
      bundle.insert(bundle.end(), pdu.begin(), pdu.end());
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   alternateRounds(
       state,
       [&]
       {
          sendBatch(sender, single.socket.localPort(), pdu, theBatch);
          sendBatch(sender, bundled.socket.localPort(), bundle, theBatch / theBundle);
       },
       [&] { return readDis(bundled.socket, chain, from); },
       [&] { return readDis(single.socket, chain, from); });
}

// The same read on the UDP socket underneath, with no callbacks: shows how the
// gap of case 1 divides between the socket layer and the DIS callbacks.
void BM_UdpReceiveSinglePdu(benchmark::State& state)
{
   DtInetUdpSocket rx(DtInetEndpoint(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp), 0, nullptr,
                      DtInetSockFlagsDefault | DtInetSockFlagNonBlocking, false);
   rx.setLocalPort(0);
   if (!rx.openSocket())
   {
      state.SkipWithError("open failed");
      return;
   }
   asio::io_context context;
   Udp::socket sender = openSender(context);
   std::vector<char> const pdu = makePdu();
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   timedReads(
       state, [&] { sendBatch(sender, rx.localPort(), pdu, theBatch); },
       [&] { return rx.recvToChainFrom(chain, from, 0) > 0; });
}

// ---------------------------------------------------------------- case 2

void BM_DisReceiveBundlesOf10(benchmark::State& state)
{
   DisReceiver rx;
   asio::io_context context;
   Udp::socket sender = openSender(context);
   std::vector<char> bundle;
   for (int i = 0; i < theBundle; ++i)
   {
      std::vector<char> const pdu = makePdu(static_cast<unsigned char>(1 + i));
      bundle.insert(bundle.end(), pdu.begin(), pdu.end());
   }
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   timedReads(
       state, [&] { sendBatch(sender, rx.socket.localPort(), bundle, theBatch / theBundle); },
       [&] { return rx.socket.recvToChainFrom(chain, from, 0) > 0; });
}

// ---------------------------------------------------------------- case 3

void sendPdus(benchmark::State& state, int maxBundle)
{
   // A sink that is drained outside the timing, so that both cases pay for a
   // delivered datagram rather than for a drop at a full queue.
   asio::io_context context;
   Udp::socket sink(context, loopback(0));
   sink.set_option(asio::socket_base::receive_buffer_size(8 << 20));
   sink.non_blocking(true);
   unsigned short const port = sink.local_endpoint().port();

   DtDisSocket tx(DtInetEndpoint(DtInetAddr("127.0.0.1"), port, DtInetProtocolUdp), 0, nullptr,
                  DtInetSockFlagsDefault, false, false);
   tx.setLocalPort(0);
   if (!tx.openSocket())
   {
      state.SkipWithError("open failed");
      return;
   }
   tx.setBundling(maxBundle);
   std::vector<char> pdu = makePdu();
   std::vector<char> drain(65536);
   long pdus = 0, failures = 0;
   for (auto _ : state)
   {
      if (tx.send(pdu.data(), pdu.size(), 0) > 0)
         ++pdus;
      else
         ++failures;
      if ((pdus & 255) == 0)
      {
         state.PauseTiming();
         boost::system::error_code error;
         while (!error)
            sink.receive(asio::buffer(drain), 0, error);
         state.ResumeTiming();
      }
   }
   tx.flush();
   state.SetItemsProcessed(pdus);
   state.counters["failures"] = static_cast<double>(failures);
}

void BM_DisSendUnbundled(benchmark::State& state)
{
   sendPdus(state, 0);
}

void BM_DisSendBundled1400(benchmark::State& state)
{
   sendPdus(state, 1400);
}

void BM_DisSendBundled9360(benchmark::State& state)
{
   sendPdus(state, 65 * thePduSize);
}

// ---------------------------------------------------------------- case 4

void BM_DisReceiveAllocations(benchmark::State& state)
{
   DisReceiver rx;
   asio::io_context context;
   Udp::socket sender = openSender(context);
   unsigned short const port = rx.socket.localPort();
   std::vector<char> const pdu = makePdu();
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   // One read first, so that the sender endpoint is already known.
   sendBatch(sender, port, pdu, 1);
   while (rx.socket.recvToChainFrom(chain, from, 0) <= 0)
   {
   }
   long reads = 0, allocations = 0;
   for (auto _ : state)
   {
      state.PauseTiming();
      sendBatch(sender, port, pdu, theBatch);
      long const before = theAllocations.load(std::memory_order_relaxed);
      state.ResumeTiming();
      for (int i = 0; i < theBatch; ++i)
      {
         if (rx.socket.recvToChainFrom(chain, from, 0) <= 0)
            break;
         ++reads;
      }
      state.PauseTiming();
      allocations += theAllocations.load(std::memory_order_relaxed) - before;
      state.ResumeTiming();
   }
   state.SetItemsProcessed(reads);
   state.counters["allocs_per_read"] =
       reads ? static_cast<double>(allocations) / static_cast<double>(reads) : -1.0;
}

BENCHMARK(BM_PlainAsioReceive)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisVsPlainInterleaved)
    ->MinTime(2 * theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_BundlesVsSingleInterleaved)
    ->MinTime(2 * theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_UdpReceiveSinglePdu)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisReceiveSinglePdu)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisReceiveBundlesOf10)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisSendUnbundled)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisSendBundled1400)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisSendBundled9360)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_DisReceiveAllocations)
    ->MinTime(theMinTime)
    ->Repetitions(theRepetitions)
    ->ReportAggregatesOnly(true);

// Keeps what the console shows, and the rates for the ratios.
class RatioReporter : public benchmark::ConsoleReporter
{
public:
   void ReportRuns(std::vector<Run> const& runs) override
   {
      for (Run const& run : runs)
      {
         if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median")
            continue;
         std::string const name = run.run_name.function_name;
         auto items = run.counters.find("items_per_second");
         if (items != run.counters.end())
            rates[name] = items->second.value;
         auto ratio = run.counters.find("ratio");
         if (ratio != run.counters.end())
            interleaved[name] = ratio->second.value;
         auto allocs = run.counters.find("allocs_per_read");
         if (allocs != run.counters.end())
            allocationsPerRead = allocs->second.value;
      }
      ConsoleReporter::ReportRuns(runs);
   }

   double rate(std::string const& prefix) const
   {
      for (auto const& entry : rates)
      {
         if (entry.first.compare(0, prefix.size(), prefix) == 0)
            return entry.second;
      }
      return 0.0;
   }

   std::map<std::string, double> rates;
   double allocationsPerRead = -1.0;
   std::map<std::string, double> interleaved;  // "ratio" counters by benchmark

   double interleavedRatio(std::string const& name) const
   {
      auto found = interleaved.find(name);
      return found == interleaved.end() ? 0.0 : found->second;
   }
};

void printRatios(RatioReporter const& reporter)
{
   double const plain = reporter.rate("BM_PlainAsioReceive");
   double const single = reporter.rate("BM_DisReceiveSinglePdu");
   double const udp = reporter.rate("BM_UdpReceiveSinglePdu");
   double const bundled = reporter.rate("BM_DisReceiveBundlesOf10");
   double const sendOff = reporter.rate("BM_DisSendUnbundled");
   double const sendOn = reporter.rate("BM_DisSendBundled1400");
   auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
   std::printf("\nratios (same run):\n");
   std::printf(
       "  1. single-PDU receive, DtDisSocket / plain Boost.Asio, interleaved rounds: %.3f "
       "(target >= 0.90, i.e. within 10%%)\n",
       reporter.interleavedRatio("BM_DisVsPlainInterleaved"));
   std::printf(
       "     (the same from separate cases: %.3f; DtInetUdpSocket alone, no callbacks: %.3f)\n",
       ratio(single, plain), ratio(udp, plain));
   std::printf(
       "  2. PDU rate, bundles of %d / single-PDU datagrams, interleaved rounds: %.2fx "
       "(target >= 4x)\n",
       theBundle, reporter.interleavedRatio("BM_BundlesVsSingleInterleaved"));
   std::printf("     (the same from separate cases: %.2fx)\n", ratio(bundled, single));
   std::printf("  3. send PDU rate, bundling 1400 / no bundling: %.2fx (target >= 5x)\n",
               ratio(sendOn, sendOff));
   std::printf("  4. heap allocations per single-PDU read: %.3f (target 0)\n",
               reporter.allocationsPerRead);
   std::printf("  5. (information) send PDU rate, bundles of 65 PDUs / no bundling: %.2fx\n",
               ratio(reporter.rate("BM_DisSendBundled9360"), sendOff));
}
}  // namespace

int main(int argc, char** argv)
{
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv))
      return 1;
   RatioReporter reporter;
   benchmark::RunSpecifiedBenchmarks(&reporter);
   printRatios(reporter);
   benchmark::Shutdown();
   return 0;
}
