// oldis-replay: reads a pcap or pcapng capture of DIS traffic (one that
// oldis-record wrote, or one of tcpdump, dumpcap or Wireshark) and sends the DIS
// payloads of its UDP datagrams again through a DtDisSocket, with their original
// spacing or faster, once or in a loop.
//
//   oldis-replay [--dest ADDR[/PREFIX]] [--port N] [--speed X] [--loop N]
//                [--exercise N] [--bundle MAX] [--align N] [--udp-port N] [--help]
//                FILE.pcap
//
// What is not an IPv4 UDP datagram with a DIS header is skipped and counted by
// reason; a damaged file is read up to the damage. Nothing in a file can make
// the tool read past a packet record.
#include <pcap/pcap.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>

#include "disDecode.h"
#include "pcapPackets.h"
#include "pcapReplay.h"
#include "toolArgs.h"
#include "toolSockets.h"

namespace
{
using oltool::parseLong;
char const* const theTool = "oldis-replay";
using oltool::theDefaultPort;

struct Options
{
   std::string dest = "127.0.0.1";
   unsigned short port = theDefaultPort;
   double speed = 1.0;
   long loops = 1;
   int exercise = -1;  // -1: as recorded
   int bundle = 0;
   long align = -1;   // -1: by the version of the first PDU
   long udpPort = 0;  // 0: every port
   std::string file;
};

void usage(FILE* out)
{
   std::fprintf(
       out,
       "usage: oldis-replay [options] FILE.pcap\n"
       "Sends the DIS payloads of the UDP datagrams in a capture (pcap or pcapng: Ethernet,\n"
       "Linux cooked, raw IP or loopback) to a destination, with their original spacing.\n"
       "  --dest ADDR       destination: an address, ADDR/PREFIX or ADDR/NETMASK, an\n"
       "                    interface name or a host name (default 127.0.0.1)\n"
       "  --port N          destination port (default %u)\n"
       "  --speed X         X times the original pace; 0 for as fast as possible\n"
       "                    (default 1)\n"
       "  --loop N          play the capture N times; 0 until interrupted (default 1)\n"
       "  --exercise N      rewrite the exercise id of every PDU to N (default: as captured)\n"
       "  --bundle MAX      send the PDUs bundled into datagrams of at most MAX bytes\n"
       "                    (default 0: each datagram as captured)\n"
       "  --align N         byte alignment of PDUs in a bundle (default 1 for a version 6\n"
       "                    capture, 8 for version 7, by its first PDU)\n"
       "  --udp-port N      replay only datagrams sent to this UDP port (default: all)\n"
       "  --help            this text\n"
       "Skipped, each counted: packets of other protocols, IPv6, IPv4 fragments, malformed\n"
       "or truncated packets, UDP payloads with no DIS header, and other ports. Exit status\n"
       "1 when packets were damaged or lost, the file ended early or a send failed; 2 when\n"
       "the file cannot be read at all or its link type is not one of those above.\n",
       theDefaultPort);
}

bool parse(int argc, char** argv, Options& options)
{
   auto const take = [&](std::string const& arg, char const* value)
   {
      long number = 0;
      bool ok = true;
      if (arg == "--dest")
         options.dest = value;
      else if (arg == "--port" && (ok = parseLong(value, 1, 65535, number)))
         options.port = static_cast<unsigned short>(number);
      else if (arg == "--speed")
         ok = oltool::parseNonNegative(value, options.speed);
      else if (arg == "--loop")
         ok = parseLong(value, 0, 1000000000, options.loops);
      else if (arg == "--exercise" && (ok = parseLong(value, 0, 255, number)))
         options.exercise = static_cast<int>(number);
      else if (arg == "--bundle" && (ok = parseLong(value, 0, 65507, number)))
         options.bundle = static_cast<int>(number);
      else if (arg == "--align" && (ok = parseLong(value, 1, 1024, number)))
      {
         options.align = number;
         ok = (number & (number - 1)) == 0;
      }
      else if (arg == "--udp-port")
         ok = parseLong(value, 1, 65535, options.udpPort);
      else if (ok)
         return oltool::OptionReader::Unknown;
      return oltool::OptionReader::verdict(ok);
   };
   std::vector<std::string> files;
   oltool::OptionReader in(theTool, argc, argv);
   in.acceptArguments(files);
   if (!in.readAll(usage, {}, take) || in.failed())
      return false;
   if (files.size() != 1)
   {
      std::fprintf(stderr, "%s: %s\n", theTool,
                   files.empty() ? "a capture file is needed" : "one capture file only");
      return false;
   }
   options.file = files.front();
   if (options.file == "-" && options.loops != 1)
   {
      std::fprintf(stderr, "%s: standard input can be read once only: --loop 1\n", theTool);
      return false;
   }
   return true;
}

// Sends one captured datagram: whole, or PDU by PDU into the socket's bundles.
class Sender
{
public:
   Sender(oltool::CountingDisSocket& socket, Options const& options)
       : mySocket(socket), myOptions(options)
   {
   }

   // False when a send failed.
   bool send(unsigned char const* payload, std::size_t size)
   {
      myBuffer.assign(payload, payload + size);
      unsigned char* data = myBuffer.data();
      std::vector<oltool::DisUnit> const units = oltool::disUnits(data, size);
      if (myOptions.exercise >= 0)
         oltool::forEachDisPdu(data, size,
                               [&](std::size_t offset, std::size_t) {
                                  data[offset + 1] = static_cast<unsigned char>(myOptions.exercise);
                               });
      myPdus += static_cast<long>(units.size());
      myBytes += size;
      ++myDatagrams;
      if (!myOptions.bundle)
         return sendBytes(data, size);
      if (!myAlignmentSet)
      {
         long const align = myOptions.align > 0 ? myOptions.align : data[0] <= 6 ? 1 : 8;
         mySocket.setBundleByteAlignment(static_cast<unsigned int>(align));
         mySocket.setBundling(myOptions.bundle);
         myAlignmentSet = true;
      }
      // A PDU with a coupled Attribute PDU goes with it, as one unit, so that the
      // receiver can join the two.
      bool ok = true;
      for (oltool::DisUnit const& unit : units)
         ok = sendBytes(data + unit.offset, unit.length) && ok;
      return ok;
   }

   // Sends the bundles waiting; false when one failed.
   bool flush()
   {
      if (!myOptions.bundle || mySocket.flush() == 1)
         return true;
      ++myFailures;
      return false;
   }

   long datagrams() const { return myDatagrams; }
   long pdus() const { return myPdus; }
   unsigned long long bytes() const { return myBytes; }
   long failures() const { return myFailures; }

private:
   bool sendBytes(unsigned char* data, std::size_t size)
   {
      if (mySocket.send(reinterpret_cast<char*>(data), size, 0) > 0)
         return true;
      ++myFailures;
      return false;
   }

   oltool::CountingDisSocket& mySocket;
   Options const& myOptions;
   std::vector<unsigned char> myBuffer;
   bool myAlignmentSet = false;
   long myDatagrams = 0;
   long myPdus = 0;
   unsigned long long myBytes = 0;
   long myFailures = 0;
};

}  // namespace

int main(int argc, char** argv)
{
   Options options = oltool::optionsOrExit(argc, argv, parse, usage);
   oltool::NotificationToStderr notes(theTool, true);
   oltool::catchInterrupts();

   // The file first: a bad file is reported before anything is opened to send.
   std::string error;
   std::unique_ptr<oltool::CaptureReader> capture =
       oltool::CaptureReader::open(options.file, error);
   if (!capture)
   {
      std::fprintf(stderr, "%s: %s\n", theTool, error.c_str());
      return oltool::theExitUsage;
   }

   std::unique_ptr<DtInetEndpoint> destination =
       oltool::sendDestination(theTool, options.dest, options.port);
   if (!destination)
      return oltool::theExitUsage;
   oltool::CountingDisSocket socket(*destination, 0, nullptr, DtInetSockFlagsDefault, false, false);
   if (!oltool::openSender(theTool, socket, *destination))
      return oltool::theExitProblem;
   Sender sender(socket, options);
   std::fprintf(stderr, "%s: replaying %s (%s) to %s\n", theTool, options.file.c_str(),
                capture->linkTypeName().c_str(), destination->toDtString().c_str());

   typedef std::chrono::steady_clock Clock;
   Clock::time_point const start = Clock::now();
   Clock::time_point nextReport = start + std::chrono::seconds(1);
   oltool::CaptureCounts counts;
   long reportedDatagrams = 0;
   bool readFailed = false;
   long pass = 1;
   for (; !oltool::theInterrupted && !readFailed && (options.loops == 0 || pass <= options.loops);
        ++pass)
   {
      if (pass > 1)
      {
         capture = oltool::CaptureReader::open(options.file, error);
         if (!capture)
         {
            std::fprintf(stderr, "%s: %s\n", theTool, error.c_str());
            readFailed = true;
            break;
         }
      }
      Clock::time_point const passStart = Clock::now();
      long const sentBefore = sender.datagrams();
      bool first = true;
      double firstTime = 0;
      oltool::CapturedDatagram datagram;
      auto const progress = [&]
      {
         Clock::time_point const now = Clock::now();
         if (now < nextReport)
            return;
         std::fprintf(stderr,
                      "%s: %s pass %ld: %ld datagrams sent, %ld in all, %ld packets skipped\n",
                      theTool, oltool::clockText().c_str(), pass,
                      sender.datagrams() - reportedDatagrams, sender.datagrams(), counts.skipped());
         reportedDatagrams = sender.datagrams();
         nextReport = now + std::chrono::seconds(1);
      };
      while (!oltool::theInterrupted)
      {
         progress();
         oltool::CaptureReader::Next const next =
             capture->next(datagram, counts, static_cast<unsigned int>(options.udpPort));
         if (next == oltool::CaptureReader::End)
            break;
         if (next == oltool::CaptureReader::Failed)
         {
            std::fprintf(stderr, "%s: %s\n", theTool, capture->error().c_str());
            readFailed = true;
            break;
         }
         if (first)
            firstTime = datagram.time;
         first = false;
         if (next != oltool::CaptureReader::Datagram)
            continue;
         if (options.speed > 0)
         {
            double const offset = std::max(0.0, datagram.time - firstTime) / options.speed;
            Clock::time_point const due = passStart + std::chrono::duration_cast<Clock::duration>(
                                                          std::chrono::duration<double>(offset));
            if (due > Clock::now())
            {
               // What is bundled leaves before a pause, never after it.
               sender.flush();
               if (!oltool::waitUntil(due, progress))
                  break;
            }
         }
         sender.send(datagram.payload, datagram.size);
      }
      // A pass that sent nothing would send nothing again: no loop spins on it.
      if (sender.datagrams() == sentBefore)
         break;
   }
   sender.flush();
   double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
   if (oltool::theInterrupted)
      std::fprintf(stderr, "%s: interrupted\n", theTool);
   if (counts.ipv6)
      std::fprintf(stderr, "%s: note: IPv6 packets are not replayed\n", theTool);
   if (counts.packets > 0 && sender.datagrams() == 0)
      std::fprintf(stderr, "%s: no DIS datagram in %s\n", theTool, options.file.c_str());
   if (sender.failures())
      std::fprintf(stderr, "%s: %ld sends failed: %s\n", theTool, sender.failures(),
                   oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
   std::printf(
       "replayed %ld datagrams (%ld PDUs, %llu bytes) as %ld datagrams to %s in %.2f s; "
       "%s\n",
       sender.datagrams(), sender.pdus(), sender.bytes(), socket.datagrams,
       destination->toDtString().c_str(), seconds, counts.skippedText().c_str());
   std::fflush(stdout);
   socket.closeSocket();
   bool const problem = readFailed || counts.damaged() > 0 || sender.failures() > 0 ||
                        (counts.packets > 0 && sender.datagrams() == 0);
   return problem ? oltool::theExitProblem : 0;
}
