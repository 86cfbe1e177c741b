// oldis-monitor: receives DIS traffic with DtDisSocket and reports each PDU, or
// one summary line per second.
//
//   oldis-monitor [--port N] [--group ADDR] [--interface NAME] [--exercise N]
//                 [--version N] [--kind N] [--summary] [--duration S] [--count N]
//                 [--help]
//
// Ends after --duration seconds (default 10; 0 for no limit) or --count PDUs,
// or on SIGINT, with a totals line.
#include <poll.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>

#include "toolArgs.h"

namespace
{
using oltool::parseLong;
unsigned short const theDefaultPort = 3000;
std::atomic<bool> theStop(false);

struct Options
{
   unsigned short port = theDefaultPort;
   std::string group;
   std::string interfaceName;
   std::vector<unsigned int> exercises;
   std::vector<unsigned int> versions;
   std::vector<unsigned int> kinds;
   bool summary = false;
   double duration = 10.0;
   long count = 0;
};

void usage(FILE* out)
{
   std::fprintf(out,
                "usage: oldis-monitor [options]\n"
                "Receives DIS PDUs on a UDP port, one line per PDU (or per second).\n"
                "  --port N          UDP port (default %u)\n"
                "  --group ADDR      also join this multicast group\n"
                "  --interface NAME  interface for the group (default: the system's choice)\n"
                "  --exercise N      accept only this exercise id (repeatable)\n"
                "  --version N       accept only this protocol version (repeatable)\n"
                "  --kind N          accept only this PDU kind (repeatable)\n"
                "  --summary         one line per second instead of one per PDU\n"
                "  --duration S      stop after S seconds (default 10; 0 for no limit)\n"
                "  --count N         stop after N PDUs (default 0: no limit)\n"
                "  --help            this text\n",
                theDefaultPort);
}

bool parse(int argc, char** argv, Options& options)
{
   for (int i = 1; i < argc; ++i)
   {
      std::string const arg = argv[i];
      if (arg == "--help" || arg == "-h")
      {
         usage(stdout);
         std::exit(0);
      }
      if (arg == "--summary")
      {
         options.summary = true;
         continue;
      }
      if (i + 1 >= argc)
      {
         std::fprintf(stderr, "oldis-monitor: %s needs a value\n", arg.c_str());
         return false;
      }
      char const* value = argv[++i];
      long number = 0;
      bool ok = true;
      if (arg == "--port" && (ok = parseLong(value, 1, 65535, number)))
         options.port = static_cast<unsigned short>(number);
      else if (arg == "--group")
         options.group = value;
      else if (arg == "--interface")
         options.interfaceName = value;
      else if (arg == "--exercise" && (ok = parseLong(value, 0, 255, number)))
         options.exercises.push_back(static_cast<unsigned int>(number));
      else if (arg == "--version" && (ok = parseLong(value, 0, 255, number)))
         options.versions.push_back(static_cast<unsigned int>(number));
      else if (arg == "--kind" && (ok = parseLong(value, 0, 255, number)))
         options.kinds.push_back(static_cast<unsigned int>(number));
      else if (arg == "--duration")
         ok = oltool::parseNonNegative(value, options.duration);
      else if (arg == "--count" && (ok = parseLong(value, 0, 1000000000, number)))
         options.count = number;
      else if (ok)
         return oltool::refuseOption("oldis-monitor", arg.c_str(), value, false);
      if (!ok)
         return oltool::refuseOption("oldis-monitor", arg.c_str(), value, true);
   }
   return true;
}

struct Totals
{
   long pdus = 0;
   long datagrams = 0;
   unsigned long long bytes = 0;
   long tooShort = 0;
   long ownTraffic = 0;
   long filtered = 0;
   long malformed = 0;

   void print(char const* label) const
   {
      std::printf(
          "%s: %ld PDUs in %ld datagrams, %llu bytes; dropped: %ld too short, %ld own "
          "traffic, %ld filtered, %ld malformed\n",
          label, pdus, datagrams, bytes, tooShort, ownTraffic, filtered, malformed);
      std::fflush(stdout);
   }
};

// What the post-receive list saw of the datagram now being read.
struct ReadProbe
{
   bool fromNetwork = false;
   int datagramLength = 0;
   Totals* totals = nullptr;
   Totals* interval = nullptr;
};

ReadProbe theProbe;

// Post-receive at priority 0, ahead of the size filter: sees every datagram as it
// came off the network (the carry value is -5 for PDUs served from a bundle).
int probeDatagram(DtInetSocket*, int count, DtInetSockChain&, DtInetEndpoint&, void* status)
{
   int const carry = status ? *static_cast<int*>(status) : 0;
   theProbe.fromNetwork = count > 0 && carry != DtDisStatusFromQueue;
   theProbe.datagramLength = count;
   if (theProbe.fromNetwork)
   {
      for (Totals* t : {theProbe.totals, theProbe.interval})
      {
         ++t->datagrams;
         t->bytes += static_cast<unsigned long long>(count);
      }
   }
   return count;
}

void setAcceptList(DtPduFilterTest& test, std::vector<unsigned int>& values)
{
   if (!values.empty())
      test.setTest(DtPduTestAcceptListed, static_cast<int>(values.size()), values.data());
}

std::string clockText()
{
   using namespace std::chrono;
   system_clock::time_point const now = system_clock::now();
   std::time_t const seconds = system_clock::to_time_t(now);
   long const millis =
       static_cast<long>(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
   std::tm local{};
   localtime_r(&seconds, &local);
   char text[32];
   std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min,
                 local.tm_sec, millis);
   return text;
}

void onSignal(int)
{
   theStop = true;
}
}  // namespace

int main(int argc, char** argv)
{
   Options options;
   if (!parse(argc, argv, options))
   {
      usage(stderr);
      return 2;
   }
   std::signal(SIGINT, onSignal);
   std::signal(SIGTERM, onSignal);

   DtInetAddr address;
   try
   {
      address = DtInetAddr(options.group.empty() ? "127.0.0.1" : options.group.c_str());
   }
   catch (...)
   {
      std::fprintf(stderr, "oldis-monitor: bad group address %s\n", options.group.c_str());
      return 2;
   }
   if (!options.group.empty() && !address.isMulticast())
   {
      std::fprintf(stderr, "oldis-monitor: %s is not a multicast address\n", options.group.c_str());
      return 2;
   }
   DtInetDevice* device = nullptr;
   if (!options.interfaceName.empty())
   {
      device =
          new DtInetDevice(DtString(options.interfaceName.c_str()), DtInetUtils::DtInetFamilyIPv4);
      if (!device->isOk())
      {
         std::fprintf(stderr, "oldis-monitor: %s\n", device->getLastErrorString().c_str());
         delete device;
         return 2;
      }
   }

   // A unicast destination with no device binds the any-address: the monitor hears
   // whatever reaches the port. A group destination joins the group.
   DtInetEndpoint destination(address, options.port, DtInetProtocolUdp);
   DtDisSocket socket(destination, options.port, device,
                      DtInetSockFlagsDefault | DtInetSockFlagNonBlocking, false, false);
   delete device;
   if (!socket.openSocket())
   {
      std::fprintf(stderr, "oldis-monitor: %s\n", socket.getLastErrorString().c_str());
      return 1;
   }
   setAcceptList(socket.exerciseId(), options.exercises);
   setAcceptList(socket.protocolVersion(), options.versions);
   setAcceptList(socket.pduKind(), options.kinds);

   Totals totals, interval;
   theProbe.totals = &totals;
   theProbe.interval = &interval;
   socket.addProcessingCallback(DtInetSockPostReceive, probeDatagram, nullptr, 0);

   std::fprintf(stderr, "oldis-monitor: listening on port %u%s%s\n",
                static_cast<unsigned int>(socket.localPort()),
                options.group.empty() ? "" : " and group ", options.group.c_str());

   typedef std::chrono::steady_clock Clock;
   Clock::time_point const start = Clock::now();
   Clock::time_point nextSummary = start + std::chrono::seconds(1);
   std::vector<char> buffer(65536);
   DtInetSockChain chain(1, &buffer);
   DtInetEndpoint sender(DtInetAddr("0.0.0.0"), 0, DtInetProtocolUdp);

   while (!theStop)
   {
      Clock::time_point const now = Clock::now();
      if (options.duration > 0 && now - start >= std::chrono::duration<double>(options.duration))
         break;
      if (options.count > 0 && totals.pdus >= options.count)
         break;
      if (options.summary && now >= nextSummary)
      {
         interval.print(clockText().c_str());
         interval = Totals();
         nextSummary += std::chrono::seconds(1);
      }

      if (socket.queuedPduCount() == 0)
      {
         pollfd fd{socket.receiveDescriptor(), POLLIN, 0};
         if (::poll(&fd, 1, 100) <= 0)
            continue;
      }
      theProbe.fromNetwork = false;
      int const length = socket.recvToChainFrom(chain, sender, 0);
      if (length > 0)
      {
         ++totals.pdus;
         ++interval.pdus;
         if (!options.summary)
         {
            unsigned char const* pdu = reinterpret_cast<unsigned char const*>(buffer.data());
            std::printf("%s %s version %u exercise %u kind %u length %d\n", clockText().c_str(),
                        sender.toDtString().c_str(), pdu[0], pdu[1], pdu[2], length);
         }
         continue;
      }
      Totals* counters[] = {&totals, &interval};
      for (Totals* t : counters)
      {
         if (length == DtDisStatusFiltered && theProbe.fromNetwork &&
             theProbe.datagramLength < socket.minPacketSize())
            ++t->tooShort;
         else if (length == DtDisStatusFiltered)
            ++t->filtered;
         else if (length == DtDisStatusOwnTraffic)
            ++t->ownTraffic;
         else if (length < 0 && length != DtDisStatusFromQueue)
            ++t->malformed;
      }
   }
   if (options.summary && interval.datagrams + interval.pdus > 0)
      interval.print(clockText().c_str());
   totals.print("total");
   socket.closeSocket();
   return 0;
}
