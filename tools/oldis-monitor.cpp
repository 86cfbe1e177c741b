// oldis-monitor: receives DIS traffic with DtDisSocket and reports each PDU, or
// one summary line per second, and a totals line at the end.
//
//   oldis-monitor [--port N] [--group ADDR[/PREFIX]] [--listen ADDR]
//                 [--interface NAME] [--exercise N] [--version N] [--kind N]
//                 [--summary] [--duration S] [--count N] [--rcvbuf BYTES]
//                 [--suppress] [--help]
//
// Runs until interrupted (SIGINT, SIGTERM), or for --duration seconds, or until
// --count PDUs arrived. Datagrams and PDUs are counted apart: a datagram may
// carry several PDUs (a bundle) and is dropped whole (empty, too short, own
// traffic, malformed) or lost before it is read (by the kernel, when the socket's
// receive buffer is full); a PDU is dropped by the filters.
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>

#include "toolArgs.h"

namespace
{
using oltool::parseLong;
char const* const theTool = "oldis-monitor";
unsigned short const theDefaultPort = 3000;

struct Options
{
   unsigned short port = theDefaultPort;
   std::string group;
   std::string listen;
   std::string interfaceName;
   std::vector<unsigned int> exercises;
   std::vector<unsigned int> versions;
   std::vector<unsigned int> kinds;
   bool summary = false;
   double duration = 0.0;
   long count = 0;
   long receiveBuffer = 0;
   bool suppress = false;
};

void usage(FILE* out)
{
   std::fprintf(out,
                "usage: oldis-monitor [options]\n"
                "Receives DIS PDUs on a UDP port, one line per PDU (or per second), until\n"
                "interrupted, then prints the totals.\n"
                "  --port N          UDP port (default %u)\n"
                "  --group ADDR      join this multicast group, or receive this broadcast address\n"
                "                    (with its mask or prefix: 10.77.0.255/24)\n"
                "  --listen ADDR     receive on this local address only; 0.0.0.0 (the default)\n"
                "                    for every IPv4 address, :: for IPv6 (e.g. --listen ::1)\n"
                "  --interface NAME  interface for the group, or to receive on (its address)\n"
                "  --exercise N      accept only this exercise id (repeatable)\n"
                "  --version N       accept only this protocol version (repeatable)\n"
                "  --kind N          accept only this PDU kind (repeatable)\n"
                "  --summary         one line per second instead of one per PDU\n"
                "  --duration S      stop after S seconds (default 0: until interrupted)\n"
                "  --count N         stop after N PDUs (default 0: no limit)\n"
                "  --rcvbuf BYTES    socket receive buffer (default: the system's largest)\n"
                "  --suppress        self-reflect suppression: drop what this socket's own send\n"
                "                    socket sent, counted as own traffic\n"
                "  --help            this text\n"
                "Without --group the port is not shared: a port that another socket holds is\n"
                "refused. With --group other receivers on this host may share it.\n",
                theDefaultPort);
}

bool parse(int argc, char** argv, Options& options)
{
   oltool::OptionReader in(theTool, argc, argv);
   while (in.next())
   {
      std::string const& arg = in.name();
      if (arg == "--help" || arg == "-h")
      {
         usage(stdout);
         std::exit(0);
      }
      if (arg == "--summary" || arg == "--suppress")
      {
         if (!in.noValue())
            return false;
         (arg == "--summary" ? options.summary : options.suppress) = true;
         continue;
      }
      char const* value = in.value();
      if (!value)
         return false;
      long number = 0;
      bool ok = true;
      if (arg == "--port" && (ok = parseLong(value, 1, 65535, number)))
         options.port = static_cast<unsigned short>(number);
      else if (arg == "--group")
         options.group = value;
      else if (arg == "--listen")
         options.listen = value;
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
      else if (arg == "--rcvbuf")
         ok = parseLong(value, 1, 0x7FFFFFFF, options.receiveBuffer);
      else if (ok)
         return oltool::refuseOption(theTool, arg.c_str(), value, false);
      if (!ok)
         return oltool::refuseOption(theTool, arg.c_str(), value, true);
   }
   if (in.failed())
      return false;
   if (!options.listen.empty() && (!options.group.empty() || !options.interfaceName.empty()))
   {
      std::fprintf(stderr, "%s: --listen goes with neither --group nor --interface\n", theTool);
      return false;
   }
   return true;
}

// Every count of the monitor, from its start. A per-second line is the
// difference of two of these.
struct Totals
{
   long pdus = 0;
   long datagrams = 0;
   unsigned long long bytes = 0;
   // Datagrams that gave no PDU, by reason.
   long empty = 0;
   long tooShort = 0;
   long ownTraffic = 0;
   long malformed = 0;
   unsigned long long kernelDrops = 0;  // lost before they were read
   // PDUs refused by the filter tests.
   long filtered = 0;
   long warnings = 0;

   Totals operator-(Totals const& o) const
   {
      Totals d;
      d.pdus = pdus - o.pdus;
      d.datagrams = datagrams - o.datagrams;
      d.bytes = bytes - o.bytes;
      d.empty = empty - o.empty;
      d.tooShort = tooShort - o.tooShort;
      d.ownTraffic = ownTraffic - o.ownTraffic;
      d.malformed = malformed - o.malformed;
      d.kernelDrops = kernelDrops - o.kernelDrops;
      d.filtered = filtered - o.filtered;
      d.warnings = warnings - o.warnings;
      return d;
   }

   // Own traffic can only occur with suppression, so it is shown only then.
   void print(char const* label, bool suppression) const
   {
      char own[48] = "";
      if (suppression)
         std::snprintf(own, sizeof own, "%ld own traffic, ", ownTraffic);
      std::printf(
          "%s: %ld PDUs in %ld datagrams, %llu bytes; dropped datagrams: %ld empty, %ld too "
          "short, %s%ld malformed, %llu by the kernel; dropped PDUs: %ld filtered; %ld "
          "warnings\n",
          label, pdus, datagrams, bytes, empty, tooShort, own, malformed, kernelDrops, filtered,
          warnings);
      std::fflush(stdout);
   }
};

// The kernel's count of datagrams it dropped for this socket (a full receive
// buffer, mostly). Each datagram carries the count as it stood when the datagram
// was queued (SO_RXQ_OVFL); the socket's memory figures give it now (SO_MEMINFO),
// which also covers drops after the last datagram read.
class KernelDrops
{
public:
   explicit KernelDrops(int descriptor) : myDescriptor(descriptor)
   {
      int const on = 1;
      setsockopt(myDescriptor, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
   }

   // The length of the next datagram without taking it (0 for an empty one), or
   // -1 when none is waiting. Notes the drop count it carries.
   long peekNextDatagram()
   {
      char control[CMSG_SPACE(sizeof(std::uint32_t))];
      msghdr message{};
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      ssize_t const length = recvmsg(myDescriptor, &message, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
      if (length < 0)
         return -1;
      for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c))
      {
         if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL)
         {
            std::uint32_t dropped = 0;
            std::memcpy(&dropped, CMSG_DATA(c), sizeof dropped);
            if (dropped > myCarried)
               myCarried = dropped;
         }
      }
      return static_cast<long>(length);
   }

   unsigned long long count() const
   {
      std::uint32_t memory[SK_MEMINFO_VARS] = {};
      socklen_t size = sizeof memory;
      unsigned long long now = myCarried;
      if (getsockopt(myDescriptor, SOL_SOCKET, SO_MEMINFO, memory, &size) == 0 &&
          size > SK_MEMINFO_DROPS * sizeof(std::uint32_t) && memory[SK_MEMINFO_DROPS] > now)
         now = memory[SK_MEMINFO_DROPS];
      return now;
   }

private:
   int myDescriptor;
   std::uint32_t myCarried = 0;
};

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

// What the monitor receives on: the socket's destination (a group, a broadcast
// address, or the address to listen on) and the interface, if one was named.
struct Binding
{
   std::unique_ptr<DtInetEndpoint> destination;
   std::unique_ptr<DtInetDevice> device;
};

bool makeBinding(Options const& options, Binding& binding)
{
   std::string error;
   std::string const& text = !options.group.empty()    ? options.group
                             : !options.listen.empty() ? options.listen
                                                       : std::string("0.0.0.0");
   binding.destination = oltool::makeEndpoint(text, options.port, error);
   if (!binding.destination)
   {
      std::fprintf(stderr, "%s: bad %s %s: %s\n", theTool,
                   options.group.empty() ? "listen address" : "group", text.c_str(), error.c_str());
      return false;
   }
   DtInetAddr const& address = binding.destination->address();
   if (!options.group.empty() && !address.isMulticast() && !address.isBroadcast())
   {
      std::fprintf(stderr, "%s: %s is neither a multicast group nor a broadcast address\n", theTool,
                   text.c_str());
      oltool::hintAtMissingMask(theTool, text, *binding.destination);
      return false;
   }
   // A local address to listen on binds that address: the socket is given the
   // interface that bears it.
   DtString deviceText;
   if (!options.interfaceName.empty())
      deviceText = options.interfaceName.c_str();
   else if (!options.listen.empty() && !address.isAnyAddr())
      deviceText = address.toDtString();
   if (!deviceText.isEmpty())
   {
      binding.device.reset(new DtInetDevice(deviceText, binding.destination->family()));
      if (!binding.device->isOk())
      {
         std::fprintf(stderr, "%s: no interface for %s: %s\n", theTool, deviceText.c_str(),
                      oltool::oneLine(binding.device->getLastErrorString().c_str()).c_str());
         return false;
      }
   }
   return true;
}

// One read and what became of it, counted in `totals`. False when the read failed.
class Reader
{
public:
   Reader(DtDisSocket& socket, Options const& options, KernelDrops& drops, Totals& totals)
       : mySocket(socket),
         myOptions(options),
         myDrops(drops),
         myTotals(totals),
         myBuffer(65536),
         myChain(1, &myBuffer),
         mySender(DtInetAddr("0.0.0.0"), 0, DtInetProtocolUdp)
   {
   }

   // Reads one PDU if one is queued or a datagram is waiting; false when nothing
   // was read. A read error ends the monitor (failed()).
   bool readOne()
   {
      bool const fromQueue = mySocket.queuedPduCount() > 0;
      long datagramLength = -1;
      if (!fromQueue)
      {
         // The library cannot tell an empty datagram from none, so the length is
         // taken before the read.
         datagramLength = myDrops.peekNextDatagram();
         if (datagramLength < 0 && errno == EAGAIN)
            return false;
         if (datagramLength >= 0)
         {
            ++myTotals.datagrams;
            myTotals.bytes += static_cast<unsigned long long>(datagramLength);
            if (datagramLength == 0)
               ++myTotals.empty;
         }
      }
      mySocket.clearError();
      int const length = mySocket.recvToChainFrom(myChain, mySender, 0);
      if (length > 0)
      {
         ++myTotals.pdus;
         if (!myOptions.summary)
         {
            unsigned char const* pdu = reinterpret_cast<unsigned char const*>(myBuffer.data());
            std::printf("%s %s version %u exercise %u kind %u length %d\n", clockText().c_str(),
                        mySender.toDtString().c_str(), pdu[0], pdu[1], pdu[2], length);
         }
      }
      else if (length == DtInetSockResultFailed && mySocket.getLastError() != 0)
      {
         std::fprintf(stderr, "%s: %s\n", theTool,
                      oltool::oneLine(mySocket.getLastErrorString().c_str()).c_str());
         myFailed = true;
      }
      else if (datagramLength == 0)
      {
         // Counted as empty above.
      }
      else if (length == DtDisStatusFiltered &&
               (fromQueue || datagramLength >= mySocket.minPacketSize()))
         ++myTotals.filtered;
      else if (length == DtDisStatusFiltered)
         ++myTotals.tooShort;
      else if (length == DtDisStatusOwnTraffic)
         ++myTotals.ownTraffic;
      else
         // A length field of 0 or past the datagram's end, or a chain too short.
         ++myTotals.malformed;
      return true;
   }

   bool failed() const { return myFailed; }

private:
   DtDisSocket& mySocket;
   Options const& myOptions;
   KernelDrops& myDrops;
   Totals& myTotals;
   std::vector<char> myBuffer;
   DtInetSockChain myChain;
   DtInetEndpoint mySender;
   bool myFailed = false;
};
}  // namespace

int main(int argc, char** argv)
{
   Options options;
   if (!parse(argc, argv, options))
   {
      usage(stderr);
      return oltool::theExitUsage;
   }
   // Per-PDU lines reach a pipe as they are made.
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   oltool::NotificationToStderr notes(theTool, !options.summary);
   oltool::catchInterrupts();

   Binding binding;
   if (!makeBinding(options, binding))
      return oltool::theExitUsage;

   // A unicast destination with no device binds the any-address: the monitor hears
   // whatever reaches the port. A group destination joins the group. Address reuse
   // only with a group: a plain port held by another socket must be refused, not
   // silently shared.
   unsigned int flags = (DtInetSockFlagsDefault | DtInetSockFlagNonBlocking);
   if (options.group.empty())
      flags &= ~static_cast<unsigned int>(DtInetSockFlagReuseAddress);
   DtDisSocket socket(*binding.destination, options.port, binding.device.get(), flags, false,
                      options.suppress);
   if (!socket.openSocket())
   {
      std::fprintf(stderr, "%s: cannot listen on port %u: %s\n", theTool,
                   static_cast<unsigned int>(options.port),
                   oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
      return oltool::theExitProblem;
   }
   if (options.receiveBuffer > 0 &&
       !socket.setReceiveBufferSize(static_cast<unsigned int>(options.receiveBuffer)))
   {
      std::fprintf(stderr, "%s: %s\n", theTool,
                   oltool::oneLine(socket.getLastErrorString().c_str()).c_str());
      return oltool::theExitProblem;
   }
   setAcceptList(socket.exerciseId(), options.exercises);
   setAcceptList(socket.protocolVersion(), options.versions);
   setAcceptList(socket.pduKind(), options.kinds);

   KernelDrops drops(socket.receiveDescriptor());
   Totals totals, printed;
   Reader reader(socket, options, drops, totals);

   std::fprintf(stderr, "%s: listening on %s%s%s (receive buffer %d bytes)\n", theTool,
                socket.localEndpoint().toDtString().c_str(),
                options.group.empty() ? "" : ", group ", options.group.c_str(),
                socket.getReceiveBufferSize());

   typedef std::chrono::steady_clock Clock;
   Clock::time_point const start = Clock::now();
   Clock::time_point nextSummary = start + std::chrono::seconds(1);
   auto const interval = [&]
   {
      totals.kernelDrops = drops.count();
      totals.warnings = notes.warnings();
      Totals const d = totals - printed;
      printed = totals;
      return d;
   };
   bool countReached = false;
   while (!oltool::theInterrupted && !reader.failed())
   {
      Clock::time_point const now = Clock::now();
      if (options.duration > 0 && now - start >= std::chrono::duration<double>(options.duration))
         break;
      if (options.count > 0 && totals.pdus >= options.count)
      {
         countReached = true;
         break;
      }
      if (options.summary && now >= nextSummary)
      {
         interval().print(clockText().c_str(), options.suppress);
         nextSummary += std::chrono::seconds(1);
      }
      if (socket.queuedPduCount() == 0)
      {
         pollfd fd{socket.receiveDescriptor(), POLLIN, 0};
         if (::poll(&fd, 1, 100) <= 0)
            continue;
      }
      reader.readOne();
   }
   // What had arrived when the monitor was told to stop is read and counted, within
   // a bound, so that the totals account for it.
   if (!countReached)
      for (long n = 0; n < 1000000 && !reader.failed() && reader.readOne(); ++n)
      {
      }

   Totals const last = interval();
   if (options.summary && (last.datagrams || last.pdus || last.kernelDrops || last.warnings))
      last.print(clockText().c_str(), options.suppress);
   totals.print("total", options.suppress);
   socket.closeSocket();
   return reader.failed() ? oltool::theExitProblem : 0;
}
