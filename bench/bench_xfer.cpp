// File transfer on loopback: a 256 MiB file through DtInetFileTransporter (a sending
// transporter in one thread, the receiving one ticked in another, the file written
// under its temporary name and renamed), against a plain Boost.Asio copy of the same
// file (read whole, written to a TCP socket in 64 KiB writes; the other end reads and
// writes to a file). Rounds of the two alternate in one run, each timed in wall time
// from the start of the send to the complete file on disk; the closing line gives the
// transporter's throughput as a fraction of the plain copy's.
//
// The files live in a directory made under /dev/shm (or /tmp), removed at exit. Only
// loopback is used, and every wait is bounded.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <olutil/olInetFileTransport.h>

namespace
{

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Tcp = boost::asio::ip::tcp;

constexpr std::size_t theFileSize = 256u << 20;
constexpr std::size_t theWriteSize = 64 * 1024;
constexpr std::chrono::seconds theWaitLimit(120);

struct Tally
{
   double bytes = 0;
   double seconds = 0;
   double rate() const { return seconds > 0 ? bytes / seconds : 0; }
};

Tally& transporterTally()
{
   static auto* tally = new Tally;
   return *tally;
}

Tally& plainTally()
{
   static auto* tally = new Tally;
   return *tally;
}

// The work directory with the source file, made once. Never destroyed, so that the
// removal at exit can still read it.
fs::path const& workDir()
{
   static fs::path const* const dir = new fs::path(
       []
       {
          std::string base =
              fs::exists("/dev/shm") ? "/dev/shm/olxfer-bench-XXXXXX" : "/tmp/olxfer-bench-XXXXXX";
          if (::mkdtemp(&base[0]) == nullptr)
             std::abort();
          fs::path const path(base);
          fs::create_directory(path / "in");
          std::vector<char> bytes(theFileSize);
          std::mt19937_64 generator(7);
          for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8)
          {
             std::uint64_t const value = generator();
             std::memcpy(&bytes[i], &value, 8);
          }
          std::ofstream(path / "source.bin", std::ios::binary).write(bytes.data(), bytes.size());
          std::atexit(
              []
              {
                 std::error_code ignored;
                 fs::remove_all(workDir(), ignored);
              });
          return path;
       }());
   return *dir;
}

void received(DtFilename const&, void* flag)
{
   static_cast<std::atomic<bool>*>(flag)->store(true);
}

void BM_Transporter(benchmark::State& state)
{
   fs::path const& dir = workDir();
   int port = -1;
   DtInetFileTransporter receiver(0, false, 1, DtFilename((dir / "in").c_str()), &port);
   std::atomic<bool> done{false};
   receiver.addFileTransferedCallback(received, &done);
   DtInetFileTransporter sender(0, false, 1, DtFilename(dir.c_str()));
   for (auto _ : state)
   {
      done = false;
      auto const start = Clock::now();
      std::thread out(
          [&] {
             sender.sendFile(DtFilename((dir / "source.bin").c_str()), DtInetAddr("127.0.0.1"),
                             port);
          });
      while (!done && Clock::now() - start < theWaitLimit)
      {
         receiver.tick();
         if (!done)
            receiver.waitForActivity(10);
      }
      out.join();
      double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
      state.SetIterationTime(seconds);
      if (!done)
      {
         state.SkipWithError("the file did not arrive");
         return;
      }
      transporterTally().bytes += theFileSize;
      transporterTally().seconds += seconds;
   }
   state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * theFileSize));
}

void BM_PlainAsioCopy(benchmark::State& state)
{
   fs::path const& dir = workDir();
   boost::asio::io_context context;
   Tcp::acceptor acceptor(context, Tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0));
   unsigned short const port = acceptor.local_endpoint().port();
   for (auto _ : state)
   {
      auto const start = Clock::now();
      std::thread out(
          [&]
          {
             std::ifstream in(dir / "source.bin", std::ios::binary);
             std::vector<char> bytes(theFileSize);
             in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
             boost::asio::io_context local;
             Tcp::socket socket(local);
             boost::system::error_code error;
             socket.connect(Tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), port), error);
             for (std::size_t at = 0; !error && at < bytes.size(); at += theWriteSize)
                boost::asio::write(socket,
                                   boost::asio::buffer(bytes.data() + at,
                                                       std::min(theWriteSize, bytes.size() - at)),
                                   error);
          });
      Tcp::socket peer(context);
      acceptor.accept(peer);
      std::ofstream file(dir / "in" / "plain.bin", std::ios::binary);
      std::vector<char> buffer(theWriteSize);
      std::size_t total = 0;
      boost::system::error_code error;
      while (total < theFileSize && !error)
      {
         std::size_t const got = peer.read_some(boost::asio::buffer(buffer), error);
         file.write(buffer.data(), static_cast<std::streamsize>(got));
         total += got;
      }
      file.close();
      out.join();
      double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
      state.SetIterationTime(seconds);
      plainTally().bytes += static_cast<double>(total);
      plainTally().seconds += seconds;
   }
   state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * theFileSize));
}

}  // namespace

int main(int argc, char** argv)
{
   // Alternating rounds: transporter, plain, transporter, plain ...
   for (int round = 0; round < 3; ++round)
   {
      benchmark::RegisterBenchmark("BM_Transporter", BM_Transporter)
          ->UseManualTime()
          ->Iterations(1)
          ->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark("BM_PlainAsioCopy", BM_PlainAsioCopy)
          ->UseManualTime()
          ->Iterations(1)
          ->Unit(benchmark::kMillisecond);
   }
   benchmark::Initialize(&argc, argv);
   if (benchmark::ReportUnrecognizedArguments(argc, argv))
      return 1;
   benchmark::RunSpecifiedBenchmarks();
   double const ours = transporterTally().rate() / (1 << 20);
   double const plain = plainTally().rate() / (1 << 20);
   std::printf(
       "file transfer, 256 MiB on loopback: DtInetFileTransporter %.1f MiB/s, plain "
       "Boost.Asio copy %.1f MiB/s, ratio %.3f (target >= 0.8)\n",
       ours, plain, plain > 0 ? ours / plain : 0.0);
   benchmark::Shutdown();
   return 0;
}
