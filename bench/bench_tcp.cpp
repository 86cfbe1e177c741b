// TCP on loopback: bulk transfer through DtInetTcpSocket against a plain Boost.Asio
// socket pair, and 100-byte messages to 8 peers through DtInetSocketMgr against the
// same writes done by hand, each pair of sides in alternating rounds of one run.
//
// Bulk: each round writes 64 writes of 64 KiB from one end and a reader thread on the
// other end takes the bytes as they come; a round ends when the reader has them all,
// and its wall time is measured. DtInetTcpSocket runs on both ends of its pair (send
// and recv), plain Boost.Asio sockets on both ends of the other.
//
// Fan-out: one manager with 8 accepted connections; a round sends 64 messages of 100
// bytes to all 8 with DtInetSocketMgr::sendTo, or with a plain Boost.Asio send on each
// of the same 8 sockets, timed in the sending thread's CPU time (system calls
// included); the peers are drained between rounds, untimed.
//
// The counters and a closing summary line give each rate as a fraction of its
// baseline. Only loopback is used, and every wait is bounded.
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <olutil/olInetSocketMgr.h>
#include <olutil/olInetTcpSocket.h>

namespace
{

using Clock = std::chrono::steady_clock;
using Tcp = boost::asio::ip::tcp;

constexpr std::size_t theWriteSize = 64 * 1024;
constexpr int theWritesPerRound = 64;
constexpr std::size_t theRoundBytes = theWriteSize * theWritesPerRound;
constexpr int thePeers = 8;
constexpr int theMessagesPerRound = 64;
constexpr int theMessageSize = 100;
constexpr std::chrono::seconds theWaitLimit(10);

double threadSeconds()
{
   timespec now{};
   clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
   return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

double wallSeconds()
{
   return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

struct Tally
{
   double units = 0;
   double seconds = 0;
   double rate() const { return seconds > 0 ? units / seconds : 0; }
};

struct Tallies
{
   Tally measured, baseline;
   char const* what = nullptr;
   char const* unit = nullptr;
};

// Never destroyed, so that the summary printed at exit can still read them.
Tallies& bulkTallies()
{
   static auto* theTallies = new Tallies{{}, {}, "bulk transfer, 64 KiB writes", "MiB/s"};
   return *theTallies;
}

Tallies& fanOutTallies()
{
   static auto* theTallies =
       new Tallies{{}, {}, "100-byte messages to 8 peers, manager vs by hand", "messages/s"};
   return *theTallies;
}

void printRatio(Tallies const& t, char const* baseline)
{
   if (t.measured.rate() > 0 && t.baseline.rate() > 0)
      std::printf("%s: %.0f %s vs %.0f %s %s, ratio %.3f\n", t.what, t.measured.rate(), t.unit,
                  t.baseline.rate(), t.unit, baseline, t.measured.rate() / t.baseline.rate());
}

struct Summary
{
   ~Summary()
   {
      printRatio(bulkTallies(), "plain Boost.Asio");
      printRatio(fanOutTallies(), "by hand");
   }
} theSummary;

// A reader thread that takes bytes from one end as they come and counts them.
class Drain
{
public:
   template <class Read>
   explicit Drain(Read read)
       : myStop(false), myBytes(0), myThread([this, read]
                                             {
                                                std::vector<char> buffer(theWriteSize);
                                                while (!myStop.load())
                                                {
                                                   long const n = read(buffer);
                                                   if (n > 0)
                                                      myBytes += static_cast<std::size_t>(n);
                                                   else if (n < 0)
                                                      break;
                                                }
                                             })
   {
   }

   ~Drain() { myThread.join(); }

   // Waits (bounded) until `total` bytes have come.
   bool waitFor(std::size_t total) const
   {
      auto const deadline = Clock::now() + theWaitLimit;
      while (myBytes.load() < total)
      {
         if (Clock::now() > deadline)
            return false;
         std::this_thread::yield();
      }
      return true;
   }

   // Ends the thread once its read returns; the writer closes its end for that.
   void stop() { myStop = true; }

private:
   std::atomic<bool> myStop;
   std::atomic<std::size_t> myBytes;
   std::thread myThread;
};

void BulkTransferVsPlain(benchmark::State& state)
{
   Tallies& tallies = bulkTallies();
   std::vector<char> payload(theWriteSize, 'b');

   // Ours: a connected pair of DtInetTcpSocket, blocking on both ends.
   DtInetTcpSocket listener(0, nullptr, DtInetUtils::DtInetFamilyIPv4, DtInetSockFlagsDefault,
                            true);
   DtInetTcpSocket writer(DtInetEndpoint(DtInetAddr("127.0.0.1"), listener.localPort(),
                                         DtInetProtocolTcp),
                          0, nullptr, DtInetSockFlagsDefault, true);
   DtInetTcpSocket reader;
   if (!writer.isOk() || !listener.acceptConnection(&reader, DtInetSockFlagsDefault))
   {
      state.SkipWithError("could not connect the DtInetTcpSocket pair");
      return;
   }
   // The plain pair.
   boost::asio::io_context context;
   Tcp::acceptor acceptor(context, Tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
   Tcp::socket plainWriter(context), plainReader(context);
   plainWriter.connect(acceptor.local_endpoint());
   acceptor.accept(plainReader);
   plainWriter.set_option(Tcp::no_delay(true));

   long sent[2] = {0, 0};
   {
      Drain ourDrain([&reader](std::vector<char>& buffer)
                     { return static_cast<long>(reader.recv(buffer.data(), buffer.size(), 0)); });
      Drain plainDrain(
          [&plainReader](std::vector<char>& buffer)
          {
             boost::system::error_code error;
             std::size_t const n = plainReader.receive(boost::asio::buffer(buffer), 0, error);
             return error ? -1L : static_cast<long>(n);
          });

      // However the loop ends, closing the writers ends the readers' blocking reads
      // before the drains join their threads.
      struct CloseWriters
      {
         std::function<void()> close;
         ~CloseWriters() { close(); }
      } closeWriters{[&]
                     {
                        ourDrain.stop();
                        plainDrain.stop();
                        writer.closeSocket();
                        boost::system::error_code ignored;
                        plainWriter.shutdown(Tcp::socket::shutdown_both, ignored);
                        plainWriter.close(ignored);
                     }};

      Tally run[2];
      bool oursFirst = true;
      for (auto _ : state)
      {
         double total = 0;
         for (int side = 0; side < 2; ++side)
         {
            bool const ours = (side == 0) == oursFirst;
            Drain& drain = ours ? ourDrain : plainDrain;
            long& count = sent[ours ? 0 : 1];
            double const start = wallSeconds();
            for (int i = 0; i < theWritesPerRound; ++i)
            {
               if (ours)
               {
                  if (writer.send(payload.data(), payload.size(), 0) !=
                      static_cast<int>(payload.size()))
                     return state.SkipWithError("a DtInetTcpSocket write fell short");
               }
               else
               {
                  boost::asio::write(plainWriter, boost::asio::buffer(payload));
               }
            }
            count += static_cast<long>(theRoundBytes);
            if (!drain.waitFor(static_cast<std::size_t>(count)))
               return state.SkipWithError("the reader did not get every byte in time");
            double const seconds = wallSeconds() - start;
            run[ours ? 0 : 1].units += static_cast<double>(theRoundBytes) / (1024.0 * 1024.0);
            run[ours ? 0 : 1].seconds += seconds;
            if (ours)
               total = seconds;
         }
         oursFirst = !oursFirst;
         state.SetIterationTime(total);
      }
      tallies.measured.units += run[0].units;
      tallies.measured.seconds += run[0].seconds;
      tallies.baseline.units += run[1].units;
      tallies.baseline.seconds += run[1].seconds;
      state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * theRoundBytes));
      state.counters["ours_MiBps"] = run[0].rate();
      state.counters["plain_MiBps"] = run[1].rate();
      state.counters["ratio"] = run[1].rate() > 0 ? run[0].rate() / run[1].rate() : 0;
   }
}
BENCHMARK(BulkTransferVsPlain)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2.0);

void FanOutManagerVsByHand(benchmark::State& state)
{
   Tallies& tallies = fanOutTallies();
   DtInetEndpoint server(DtInetAddr("127.0.0.1"), 0, DtInetProtocolTcp);
   DtInetSocketMgr manager(server, nullptr, DtInetSocketMgr::theDefaultServerFlags,
                           DtInetSockFlagsDefault, DtInetUtils::DtInetFamilyIPv4);
   manager.addSocketRemovalCallback([](DtInetSocket* socket, void*) { return delete socket, true; },
                                    nullptr, 0);
   std::vector<std::unique_ptr<DtInetTcpSocket>> peers;
   for (int i = 0; i < thePeers; ++i)
      peers.push_back(std::make_unique<DtInetTcpSocket>(
          DtInetEndpoint(DtInetAddr("127.0.0.1"), manager.serverSocket()->localPort(),
                         DtInetProtocolTcp),
          0, nullptr, DtInetSockFlagsDefault | DtInetSockFlagNonBlocking, true));
   int added = 0;
   auto const deadline = Clock::now() + theWaitLimit;
   while (added < thePeers && Clock::now() < deadline)
      added += manager.processConnections();
   if (added != thePeers)
      return state.SkipWithError("the peers did not all connect");
   std::vector<Tcp::socket*> byHand;
   for (auto const& entry : manager.socketList())
      byHand.push_back(static_cast<DtInetTcpSocket*>(entry.second)->tcpSocket());

   std::vector<char> message(theMessageSize, 'm');
   std::vector<char> drainBuffer(1 << 16);
   std::vector<DtInetEndpoint*> everyone;
   auto drainPeers = [&]
   {
      std::size_t const expected =
          static_cast<std::size_t>(theMessagesPerRound) * theMessageSize;
      for (auto const& peer : peers)
      {
         std::size_t got = 0;
         auto const limit = Clock::now() + theWaitLimit;
         while (got < expected && Clock::now() < limit)
         {
            int const n = peer->recv(drainBuffer.data(), drainBuffer.size(), 0);
            if (n > 0)
               got += static_cast<std::size_t>(n);
            else
               std::this_thread::yield();
         }
         if (got != expected)
            return false;
      }
      return true;
   };

   Tally run[2];
   bool managerFirst = true;
   for (auto _ : state)
   {
      double total = 0;
      for (int side = 0; side < 2; ++side)
      {
         bool const viaManager = (side == 0) == managerFirst;
         double const start = threadSeconds();
         for (int i = 0; i < theMessagesPerRound; ++i)
         {
            if (viaManager)
            {
               if (manager.sendTo(message.data(), theMessageSize, everyone, 0) != theMessageSize)
                  return state.SkipWithError("a manager send failed");
            }
            else
            {
               for (Tcp::socket* socket : byHand)
               {
                  boost::system::error_code error;
                  if (socket->send(boost::asio::buffer(message), 0, error) != message.size())
                     return state.SkipWithError("a send by hand fell short");
               }
            }
         }
         double const seconds = threadSeconds() - start;
         run[viaManager ? 0 : 1].units += theMessagesPerRound * thePeers;
         run[viaManager ? 0 : 1].seconds += seconds;
         if (viaManager)
            total = seconds;
         if (!drainPeers())
            return state.SkipWithError("the peers did not get every message in time");
      }
      managerFirst = !managerFirst;
      state.SetIterationTime(total);
   }
   tallies.measured.units += run[0].units;
   tallies.measured.seconds += run[0].seconds;
   tallies.baseline.units += run[1].units;
   tallies.baseline.seconds += run[1].seconds;
   state.SetItemsProcessed(state.iterations() * theMessagesPerRound * thePeers);
   state.counters["manager_per_s"] = run[0].rate();
   state.counters["by_hand_per_s"] = run[1].rate();
   state.counters["ratio"] = run[1].rate() > 0 ? run[0].rate() / run[1].rate() : 0;
}
BENCHMARK(FanOutManagerVsByHand)->UseManualTime()->Unit(benchmark::kMicrosecond)->MinTime(1.0);

}  // namespace

BENCHMARK_MAIN();
