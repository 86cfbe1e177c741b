// Datagram receive throughput on loopback: DtInetUdpSocket's chain read and its
// background queue, each against a plain Boost.Asio receive_from loop in the same run.
//
// Each benchmark sends bursts of 144-byte datagrams from a plain Boost.Asio socket to
// 127.0.0.1 and reads them back, alternating bursts between the DtInetUdpSocket and a
// plain receiver so that both see the same machine load. The chain-read comparison
// times the reads alone, in the reading thread's CPU time; the queue comparison times
// burst and reads together in wall time, because the background thread reads while
// the burst is sent. The counters and a closing
// summary line give the DtInetUdpSocket rate as a fraction of the plain one.
//
// Only loopback is used, and every wait is bounded.
#include <time.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include <olutil/olInetDevice.h>
#include <olutil/olInetUdpSocket.h>

namespace
{

using Clock = std::chrono::steady_clock;
using Udp = boost::asio::ip::udp;

constexpr std::size_t theDatagramSize = 144;
constexpr int theBurst = 32;
constexpr std::chrono::seconds theWaitLimit(2);

// Datagrams and seconds measured per path over the whole run, for the closing summary.
struct Tally
{
   double datagrams = 0;
   double seconds = 0;
   double rate() const { return seconds > 0 ? datagrams / seconds : 0; }
};

// Never destroyed, so that the summary printed at exit can still read it.
std::map<std::string, Tally>& tallies()
{
   static auto* theTallies = new std::map<std::string, Tally>;
   return *theTallies;
}

void printRatio(char const* what, char const* measured, char const* baseline)
{
   Tally const& m = tallies()[measured];
   Tally const& b = tallies()[baseline];
   if (m.rate() > 0 && b.rate() > 0)
      std::printf("%s: %.0f datagrams/s vs %.0f datagrams/s plain Boost.Asio, ratio %.3f\n", what,
                  m.rate(), b.rate(), m.rate() / b.rate());
}

// Prints the summary when the program ends, after Google Benchmark's own report.
struct Summary
{
   ~Summary()
   {
      printRatio("recvToChainFrom (synchronous chain read)", "DtRecvToChainFrom", "PlainReceive");
      printRatio("background receive queue (burst + reads)", "DtBackgroundQueue",
                 "PlainSendReceive");
   }
} theSummary;

// The sending side shared by every benchmark.
class Sender
{
public:
   Sender() : mySocket(myContext, Udp::endpoint(Udp::v4(), 0)), myPayload(theDatagramSize, 'd') {}

   bool burst(unsigned short port)
   {
      Udp::endpoint const target(boost::asio::ip::address_v4::loopback(), port);
      for (int i = 0; i < theBurst; ++i)
      {
         boost::system::error_code error;
         mySocket.send_to(boost::asio::buffer(myPayload), target, 0, error);
         if (error)
            return false;
      }
      return true;
   }

private:
   boost::asio::io_context myContext;
   Udp::socket mySocket;
   std::vector<char> myPayload;
};

// A plain non-blocking Boost.Asio receiver on 127.0.0.1.
class PlainReceiver
{
public:
   PlainReceiver()
       : mySocket(myContext, Udp::endpoint(boost::asio::ip::address_v4::loopback(), 0)),
         myBuffer(1500)
   {
      mySocket.non_blocking(true);
      mySocket.set_option(boost::asio::socket_base::receive_buffer_size(1 << 20));
   }

   unsigned short port() const { return mySocket.local_endpoint().port(); }

   // Reads `count` datagrams; false if they do not all come within the wait limit.
   bool read(int count)
   {
      auto const deadline = Clock::now() + theWaitLimit;
      Udp::endpoint from;
      while (count > 0)
      {
         boost::system::error_code error;
         std::size_t const bytes =
             mySocket.receive_from(boost::asio::buffer(myBuffer), from, 0, error);
         if (!error && bytes == theDatagramSize)
            --count;
         else if (Clock::now() > deadline)
            return false;
         else
            std::this_thread::yield();
      }
      return true;
   }

private:
   boost::asio::io_context myContext;
   Udp::socket mySocket;
   std::vector<char> myBuffer;
};

// A DtInetUdpSocket receiver bound, like the plain one, to 127.0.0.1 (through the
// loopback device as its host interface), read through recvToChainFrom.
class DtReceiver
{
public:
   explicit DtReceiver(unsigned int flags)
       : myDevice(DtString("lo"), DtInetUtils::DtInetFamilyIPv4),
         mySocket(DtInetEndpoint(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp), 0, &myDevice,
                  flags | DtInetSockFlagNonBlocking, true),
         myBuffer(1500),
         myChain{&myBuffer},
         myFrom(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp)
   {
      mySocket.setReceiveBufferSize(1u << 20);
   }

   bool ok() { return mySocket.isOk(); }
   unsigned short port() const { return mySocket.localPort(); }

   bool read(int count)
   {
      auto const deadline = Clock::now() + theWaitLimit;
      while (count > 0)
      {
         if (mySocket.recvToChainFrom(myChain, myFrom, 0) == static_cast<int>(theDatagramSize))
            --count;
         else if (Clock::now() > deadline)
            return false;
         else
            std::this_thread::yield();
      }
      return true;
   }

private:
   DtInetDevice myDevice;
   DtInetUdpSocket mySocket;
   std::vector<char> myBuffer;
   DtInetSockChain myChain;
   DtInetEndpoint myFrom;
};

// CPU time of the calling thread, kernel time included. On a busy machine it leaves
// out the time the thread waited for a processor, which wall time would charge to
// whichever receiver happened to be preempted.
double threadSeconds()
{
   timespec now{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
   return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double wallSeconds()
{
   return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

// One measured round: a burst, then reading it back. With `readsOnly` the reads alone
// are timed, in thread CPU time; otherwise burst and reads together, in wall time,
// since a background reader works on another thread. Returns the seconds taken, or a
// negative value if datagrams went missing.
template <class Receiver>
double round(Sender& sender, Receiver& receiver, bool readsOnly)
{
   double start = readsOnly ? 0 : wallSeconds();
   if (!sender.burst(receiver.port()))
      return -1;
   if (readsOnly)
      start = threadSeconds();
   if (!receiver.read(theBurst))
      return -1;
   return (readsOnly ? threadSeconds() : wallSeconds()) - start;
}

// Alternates rounds of the plain receiver and of a DtInetUdpSocket. The benchmark's
// time is the DtInetUdpSocket's; the counters give both rates and their ratio.
void compare(benchmark::State& state, DtReceiver& measured, char const* measuredName,
             char const* baselineName, bool readsOnly)
{
   Sender sender;
   PlainReceiver baseline;
   Tally run[2];
   bool dtFirst = false;
   for (auto _ : state)
   {
      // Which of the two goes first alternates, so that neither always finds the
      // caches and the socket memory as the other left them.
      double dt = dtFirst ? round(sender, measured, readsOnly) : 0;
      double const plain = round(sender, baseline, readsOnly);
      if (!dtFirst)
         dt = round(sender, measured, readsOnly);
      dtFirst = !dtFirst;
      if (plain < 0 || dt < 0)
      {
         state.SkipWithError("datagrams did not arrive within the wait limit");
         break;
      }
      state.SetIterationTime(dt);
      run[0].seconds += plain;
      run[1].seconds += dt;
      run[0].datagrams += theBurst;
      run[1].datagrams += theBurst;
   }
   Tally& b = tallies()[baselineName];
   Tally& m = tallies()[measuredName];
   b.seconds += run[0].seconds;
   b.datagrams += run[0].datagrams;
   m.seconds += run[1].seconds;
   m.datagrams += run[1].datagrams;
   state.SetItemsProcessed(state.iterations() * theBurst);
   state.counters["plain_dgram_per_s"] = run[0].rate();
   state.counters["dt_dgram_per_s"] = run[1].rate();
   state.counters["ratio"] = run[0].rate() > 0 ? run[1].rate() / run[0].rate() : 0;
}

// recvToChainFrom on a synchronous socket against receive_from; reads only.
void RecvToChainFromVsPlain(benchmark::State& state)
{
   DtReceiver receiver(DtInetSockFlagsDefault);
   if (!receiver.ok())
   {
      state.SkipWithError("socket did not open");
      return;
   }
   compare(state, receiver, "DtRecvToChainFrom", "PlainReceive", true);
}

// The background receive queue against receive_from; burst and reads together.
void BackgroundQueueVsPlain(benchmark::State& state)
{
   DtReceiver receiver(DtInetSockFlagsDefault | DtInetSockFlagAsyncRecv);
   if (!receiver.ok())
   {
      state.SkipWithError("socket did not open");
      return;
   }
   compare(state, receiver, "DtBackgroundQueue", "PlainSendReceive", false);
}

BENCHMARK(RecvToChainFromVsPlain)->MinTime(2.0)->UseManualTime();
BENCHMARK(BackgroundQueueVsPlain)->MinTime(2.0)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
