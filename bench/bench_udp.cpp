// Datagram throughput on loopback: DtInetUdpSocket's chain read and its background
// queue, each against a plain Boost.Asio receive_from loop in the same run; chains of
// 9 to 1,024 buffers, sent and read by the socket against plain Boost.Asio doing the
// same; and the two ways of moving a chain as one datagram (one entry per buffer, or
// one gathered copy) against each other.
//
// Each benchmark sends bursts of 144-byte datagrams from a plain Boost.Asio socket to
// 127.0.0.1 and reads them back, alternating bursts between the DtInetUdpSocket and a
// plain receiver so that both see the same machine load. The chain-read comparison
// times the reads alone, in the reading thread's CPU time; the queue comparison times
// burst and reads together in wall time, because the background thread reads while
// the burst is sent. The counters and a closing
// summary line give the DtInetUdpSocket rate as a fraction of the plain one.
//
// The chain comparisons time rounds of up to 16 datagrams in the benchmark thread's
// CPU time, both sides of a comparison in alternating order within each iteration; the
// receiving socket is emptied, or the datagrams to read are sent, outside the timing.
// A closing summary line gives each ratio (above 1: the first named is faster).
//
// Only loopback is used, and every wait is bounded.
#include <sys/socket.h>
#include <sys/uio.h>
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
#include <olutil/olInetSocketUtils.h>
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

// CPU seconds of the two sides of each chain comparison, by the line that reports it.
std::map<std::string, std::pair<double, double>>& chainSeconds()
{
   static auto* theSeconds = new std::map<std::string, std::pair<double, double>>;
   return *theSeconds;
}

// Prints the summary when the program ends, after Google Benchmark's own report.
struct Summary
{
   ~Summary()
   {
      printRatio("recvToChainFrom (synchronous chain read)", "DtRecvToChainFrom", "PlainReceive");
      printRatio("background receive queue (burst + reads)", "DtBackgroundQueue",
                 "PlainSendReceive");
      for (auto const& entry : chainSeconds())
      {
         if (entry.second.first > 0 && entry.second.second > 0)
            std::printf("%s: ratio %.3f\n", entry.first.c_str(),
                        entry.second.second / entry.second.first);
      }
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

// ---------------------------------------------------------------- chains

constexpr int theChainRound = 16;
// Iterations of each chain comparison: a fixed count, so that a loaded machine makes a
// case last longer in wall time only, never in work.
constexpr int theChainIterations = 2000;

// One datagram as a chain of `count` buffers, each of the PDU size or less, so that
// the whole stays within one datagram (9,360 bytes for 65 buffers, the bundle that
// went wrong when Boost.Asio left out every buffer past 64).
struct LongChain
{
   explicit LongChain(std::size_t count)
       : buffers(count,
                 std::vector<char>(std::min<std::size_t>(theDatagramSize, 60000 / count), 'c'))
   {
      for (std::vector<char>& buffer : buffers)
      {
         chain.push_back(&buffer);
         entries.push_back(iovec{buffer.data(), buffer.size()});
         asio.emplace_back(buffer.data(), buffer.size());
      }
      total = count * buffers[0].size();
      // What a round leaves queued stays well inside a default receive buffer.
      perRound = static_cast<int>(
          std::max<std::size_t>(1, std::min<std::size_t>(theChainRound, 150000 / total)));
   }

   std::vector<std::vector<char>> buffers;
   DtInetSockChain chain;
   std::vector<iovec> entries;
   std::vector<boost::asio::mutable_buffer> asio;
   std::size_t total = 0;
   int perRound = theChainRound;
};

// A plain socket on 127.0.0.1 that sends, reads, or takes what is sent and is emptied
// between rounds.
struct PlainSocket
{
   PlainSocket() : socket(context, Udp::endpoint(boost::asio::ip::address_v4::loopback(), 0))
   {
      socket.non_blocking(true);
      socket.set_option(boost::asio::socket_base::receive_buffer_size(8 << 20));
   }

   Udp::endpoint local() const { return socket.local_endpoint(); }
   int handle() { return socket.native_handle(); }

   void drain()
   {
      boost::system::error_code error;
      while (!error)
         socket.receive(boost::asio::buffer(scratch), 0, error);
   }

   boost::asio::io_context context;
   Udp::socket socket;
   std::vector<char> scratch = std::vector<char>(65536);
};

// Runs `first` and `second` once per iteration, in an order that alternates, and
// adds up their thread CPU times under `line`. Each answers whether its round went
// through; `prepare` runs first, untimed.
template <class Prepare, class First, class Second>
void alternate(benchmark::State& state, std::string const& line, int perRound, Prepare prepare,
               First first, Second second)
{
   double seconds[2] = {0, 0};
   long rounds = 0;
   for (auto _ : state)
   {
      prepare();
      bool done = true;
      for (int side : {rounds % 2, 1 - rounds % 2})
      {
         double const start = threadSeconds();
         done = (side == 0 ? first() : second()) && done;
         seconds[side] += threadSeconds() - start;
      }
      ++rounds;
      if (!done)
      {
         state.SkipWithError("a chain did not travel whole");
         return;
      }
      state.SetIterationTime(seconds[0] / static_cast<double>(rounds));
   }
   std::pair<double, double>& total = chainSeconds()[line];
   total.first += seconds[0];
   total.second += seconds[1];
   state.SetItemsProcessed(rounds * perRound);
   state.counters["ratio"] = seconds[0] > 0 ? seconds[1] / seconds[0] : 0;
}

std::string chainLine(char const* what, std::size_t count)
{
   return std::string(what) + ", " + std::to_string(count) + " buffers";
}

// sendChainTo on a synchronous socket against the same datagram sent by plain
// Boost.Asio the way the socket does it: the buffers as one gathered send_to up to 64
// of them, beyond that one gathered copy (into a buffer kept between sends) sent from
// one buffer. The ratio is the socket's overhead above the bare send.
void ChainSendVsPlain(benchmark::State& state)
{
   std::size_t const count = static_cast<std::size_t>(state.range(0));
   LongChain data(count);
   PlainSocket sink, plain;
   DtInetEndpoint target(DtInetAddr("127.0.0.1"), sink.local().port(), DtInetProtocolUdp);
   DtInetUdpSocket socket(target, 0, nullptr, DtInetSockFlagsDefault, true);
   Udp::endpoint const to = sink.local();
   std::vector<char> joined;
   int const total = static_cast<int>(data.total);
   alternate(
       state, chainLine("sendChainTo / plain send", count), data.perRound, [&] { sink.drain(); },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
             if (socket.sendChainTo(data.chain, target, 0) != total)
                return false;
          return true;
       },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
          {
             boost::system::error_code error;
             if (count > 64)
                DtInetSockGatherChain(data.chain, joined);
             std::size_t const sent =
                 count <= 64 ? plain.socket.send_to(data.asio, to, 0, error)
                             : plain.socket.send_to(boost::asio::buffer(joined), to, 0, error);
             if (sent != data.total)
                return false;
          }
          return true;
       });
}

// recvToChainFrom on a synchronous socket against the same read by plain Boost.Asio
// the way the socket does it: a scattered receive_from up to 64 buffers, beyond that
// a read into one buffer, then scattered.
void ChainReadVsPlain(benchmark::State& state)
{
   std::size_t const count = static_cast<std::size_t>(state.range(0));
   LongChain data(count);
   PlainSocket sender, plain;
   DtInetDevice device(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   DtInetUdpSocket socket(DtInetEndpoint(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp), 0, &device,
                          DtInetSockFlagsDefault | DtInetSockFlagNonBlocking, true);
   socket.setReceiveBufferSize(8u << 20);
   DtInetEndpoint from(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   std::vector<char> const datagram(data.total, 'd');
   std::vector<char> whole(65536);
   Udp::endpoint plainFrom;
   int const total = static_cast<int>(data.total);
   alternate(
       state, chainLine("recvToChainFrom / plain read", count), data.perRound,
       [&]
       {
          boost::system::error_code error;
          for (Udp::endpoint to :
               {plain.local(), Udp::endpoint(plain.local().address(), socket.localPort())})
             for (int i = 0; i < data.perRound; ++i)
                sender.socket.send_to(boost::asio::buffer(datagram), to, 0, error);
       },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
             if (socket.recvToChainFrom(data.chain, from, 0) != total)
                return false;
          return true;
       },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
          {
             boost::system::error_code error;
             std::size_t const read =
                 count <= 64
                     ? plain.socket.receive_from(data.asio, plainFrom, 0, error)
                     : plain.socket.receive_from(boost::asio::buffer(whole), plainFrom, 0, error);
             if (read != data.total ||
                 (count > 64 && !DtInetSockCopyToChain(whole.data(), read, data.chain)))
                return false;
          }
          return true;
       });
}

// The two ways of sending a chain as one datagram, on the same plain socket: sendmsg
// with one entry per buffer against a gathered copy (into a buffer kept between sends,
// the copy's best case) sent from one buffer. The socket copies past 64 buffers,
// where Boost.Asio stops taking entries; 9 and 64 show the shorter chains it hands on.
void LongChainSendWays(benchmark::State& state)
{
   std::size_t const count = static_cast<std::size_t>(state.range(0));
   LongChain data(count);
   PlainSocket sink, plain;
   Udp::endpoint const to = sink.local();
   msghdr message{};
   message.msg_name = const_cast<sockaddr*>(to.data());
   message.msg_namelen = static_cast<socklen_t>(to.size());
   message.msg_iov = data.entries.data();
   message.msg_iovlen = data.entries.size();
   std::vector<char> joined;
   alternate(
       state, chainLine("long chain send, entries / gathered copy", count), data.perRound,
       [&] { sink.drain(); },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
             if (::sendmsg(plain.handle(), &message, 0) != static_cast<ssize_t>(data.total))
                return false;
          return true;
       },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
          {
             DtInetSockGatherChain(data.chain, joined);
             boost::system::error_code error;
             if (plain.socket.send_to(boost::asio::buffer(joined), to, 0, error) != data.total)
                return false;
          }
          return true;
       });
}

// The two ways of reading one datagram into a chain: recvmsg with one entry per buffer
// against a read into one buffer scattered afterwards.
void LongChainReadWays(benchmark::State& state)
{
   std::size_t const count = static_cast<std::size_t>(state.range(0));
   LongChain data(count);
   PlainSocket sender, plain;
   std::vector<char> const datagram(data.total, 'd');
   std::vector<char> whole(65536);
   Udp::endpoint from;
   msghdr message{};
   message.msg_name = from.data();
   message.msg_iov = data.entries.data();
   message.msg_iovlen = data.entries.size();
   alternate(
       state, chainLine("long chain read, entries / one buffer scattered", count), data.perRound,
       [&]
       {
          boost::system::error_code error;
          for (int i = 0; i < 2 * data.perRound; ++i)
             sender.socket.send_to(boost::asio::buffer(datagram), plain.local(), 0, error);
       },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
          {
             message.msg_namelen = static_cast<socklen_t>(from.capacity());
             if (::recvmsg(plain.handle(), &message, 0) != static_cast<ssize_t>(data.total))
                return false;
          }
          return true;
       },
       [&]
       {
          for (int i = 0; i < data.perRound; ++i)
          {
             boost::system::error_code error;
             std::size_t const read =
                 plain.socket.receive_from(boost::asio::buffer(whole), from, 0, error);
             if (read != data.total || !DtInetSockCopyToChain(whole.data(), read, data.chain))
                return false;
          }
          return true;
       });
}

BENCHMARK(RecvToChainFromVsPlain)->MinTime(2.0)->UseManualTime();
BENCHMARK(BackgroundQueueVsPlain)->MinTime(2.0)->UseManualTime();
BENCHMARK(ChainSendVsPlain)
    ->Arg(9)
    ->Arg(64)
    ->Arg(65)
    ->Arg(1024)
    ->Iterations(theChainIterations)
    ->UseManualTime();
BENCHMARK(ChainReadVsPlain)
    ->Arg(9)
    ->Arg(64)
    ->Arg(65)
    ->Arg(1024)
    ->Iterations(theChainIterations)
    ->UseManualTime();
BENCHMARK(LongChainSendWays)
    ->Arg(9)
    ->Arg(64)
    ->Arg(65)
    ->Arg(256)
    ->Arg(1024)
    ->Iterations(theChainIterations)
    ->UseManualTime();
BENCHMARK(LongChainReadWays)
    ->Arg(9)
    ->Arg(64)
    ->Arg(65)
    ->Arg(256)
    ->Arg(1024)
    ->Iterations(theChainIterations)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
