// oldis-send: sends synthetic but well-formed DIS PDUs through DtDisSocket.
//
//   oldis-send [--dest ADDR] [--port N] [--count N] [--rate N] [--version 6|7]
//              [--exercise N] [--kind es|fire|detonation|mix] [--bundle MAX]
//              [--align N] [--help]
//
// Ends with one line: "sent N PDUs in M datagrams".
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>

#include "toolArgs.h"

namespace
{
using oltool::parseLong;
unsigned short const theDefaultPort = 3000;

struct Options
{
   std::string dest = "127.0.0.1";
   unsigned short port = theDefaultPort;
   long count = 100;
   double rate = 1000.0;
   int version = 7;
   int exercise = 1;
   std::string kind = "es";
   int bundle = 0;
   unsigned int align = 8;
};

void usage(FILE* out)
{
   std::fprintf(
       out,
       "usage: oldis-send [options]\n"
       "Sends synthetic DIS PDUs to a UDP destination.\n"
       "  --dest ADDR       destination address (default 127.0.0.1)\n"
       "  --port N          destination port (default %u)\n"
       "  --count N         PDUs to send (default 100)\n"
       "  --rate N          PDUs per second, 0 for as fast as possible (default 1000)\n"
       "  --version 6|7     DIS protocol version (default 7)\n"
       "  --exercise N      exercise id (default 1)\n"
       "  --kind K          es (Entity State), fire, detonation, or mix (default es)\n"
       "  --bundle MAX      bundle PDUs into datagrams of at most MAX bytes (default 0: off)\n"
       "  --align N         byte alignment of PDUs in a bundle (default 8)\n"
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
      if (i + 1 >= argc)
      {
         std::fprintf(stderr, "oldis-send: %s needs a value\n", arg.c_str());
         return false;
      }
      char const* value = argv[++i];
      long number = 0;
      bool ok = true;
      if (arg == "--dest")
         options.dest = value;
      else if (arg == "--port" && (ok = parseLong(value, 1, 65535, number)))
         options.port = static_cast<unsigned short>(number);
      else if (arg == "--count" && (ok = parseLong(value, 0, 100000000, number)))
         options.count = number;
      else if (arg == "--rate")
         ok = oltool::parseNonNegative(value, options.rate);
      else if (arg == "--version" && (ok = parseLong(value, 6, 7, number)))
         options.version = static_cast<int>(number);
      else if (arg == "--exercise" && (ok = parseLong(value, 0, 255, number)))
         options.exercise = static_cast<int>(number);
      else if (arg == "--kind")
      {
         options.kind = value;
         ok = options.kind == "es" || options.kind == "fire" || options.kind == "detonation" ||
              options.kind == "mix";
      }
      else if (arg == "--bundle" && (ok = parseLong(value, 0, 65507, number)))
         options.bundle = static_cast<int>(number);
      else if (arg == "--align" && (ok = parseLong(value, 0, 1024, number)))
      {
         options.align = static_cast<unsigned int>(number);
         ok = (number & (number - 1)) == 0;
      }
      else if (ok)
         return oltool::refuseOption("oldis-send", arg.c_str(), value, false);
      if (!ok)
         return oltool::refuseOption("oldis-send", arg.c_str(), value, true);
   }
   return true;
}

void put16(std::vector<char>& pdu, std::size_t at, unsigned int value)
{
   pdu[at] = static_cast<char>((value >> 8) & 0xFF);
   pdu[at + 1] = static_cast<char>(value & 0xFF);
}

void put32(std::vector<char>& pdu, std::size_t at, unsigned long value)
{
   put16(pdu, at, static_cast<unsigned int>(value >> 16));
   put16(pdu, at + 2, static_cast<unsigned int>(value & 0xFFFF));
}

void putDouble(std::vector<char>& pdu, std::size_t at, double value)
{
   unsigned long long bits = 0;
   std::memcpy(&bits, &value, sizeof bits);
   put32(pdu, at, static_cast<unsigned long>(bits >> 32));
   put32(pdu, at + 4, static_cast<unsigned long>(bits & 0xFFFFFFFFu));
}

// A PDU of the given kind with a correct 12-byte header; the length field holds
// the PDU's size. Entity State (1) is 144 bytes with no articulation parameters,
// Fire (2) 96 bytes, Detonation (3) 104 bytes.
std::vector<char> makePdu(int version, int exercise, int kind, long index)
{
   std::size_t const size = kind == 1 ? 144 : kind == 2 ? 96 : 104;
   std::vector<char> pdu(size, 0);
   pdu[0] = static_cast<char>(version);
   pdu[1] = static_cast<char>(exercise);
   pdu[2] = static_cast<char>(kind);
   pdu[3] = static_cast<char>(kind == 1 ? 1 : 2);  // entity information / warfare family
   put32(pdu, 4, static_cast<unsigned long>(index) & 0x7FFFFFFFu);
   put16(pdu, 8, static_cast<unsigned int>(size));
   // The first identifier of every kind is an entity id: site, application, entity.
   put16(pdu, 12, 1);
   put16(pdu, 14, 1);
   put16(pdu, 16, static_cast<unsigned int>(1 + index % 1000));
   if (kind == 1)
   {
      pdu[18] = 1;  // force
      putDouble(pdu, 48, 4000000.0 + static_cast<double>(index));
      putDouble(pdu, 56, 100.0);
      putDouble(pdu, 64, 4900000.0);
      std::memcpy(pdu.data() + 129, "OLDIS", 5);  // marking text
   }
   return pdu;
}

int kindFor(std::string const& kind, long index)
{
   if (kind == "fire")
      return 2;
   if (kind == "detonation")
      return 3;
   if (kind == "mix")
      return index % 4 == 1 ? 2 : index % 4 == 3 ? 3 : 1;
   return 1;
}

// Counts the datagrams that actually leave: sends past the pre-send callbacks are
// the bundles (and PDUs too big to bundle); plain sends count when not bundling.
class CountingDisSocket : public DtDisSocket
{
public:
   using DtDisSocket::DtDisSocket;

   int sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
              unsigned int flags) override
   {
      bool const direct = !isBundling();
      int const result = DtDisSocket::sendTo(buffer, length, endpoint, flags);
      if (direct && result > 0)
         ++datagrams;
      return result;
   }

   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override
   {
      int const result = DtDisSocket::sendChainTo(chain, endpoint, flags);
      if ((flags & DtInetSockCallNoPreCallbacks) && result > 0)
         ++datagrams;
      return result;
   }

   long datagrams = 0;
};
}  // namespace

int main(int argc, char** argv)
{
   Options options;
   if (!parse(argc, argv, options))
   {
      usage(stderr);
      return 2;
   }

   DtInetAddr address;
   try
   {
      address = DtInetAddr(options.dest.c_str());
   }
   catch (...)
   {
      std::fprintf(stderr, "oldis-send: bad destination address %s\n", options.dest.c_str());
      return 2;
   }
   DtInetEndpoint destination(address, options.port, DtInetProtocolUdp);
   CountingDisSocket socket(destination, 0, nullptr, DtInetSockFlagsDefault, false, false);
   // Local port 0 would mean the destination's port; a sender needs a port of its
   // own, or it would share (and compete for) the receiver's.
   socket.setLocalPort(0);
   if (!socket.openSocket())
   {
      std::fprintf(stderr, "oldis-send: %s\n", socket.getLastErrorString().c_str());
      return 1;
   }
   if (options.bundle > 0)
   {
      socket.setBundleByteAlignment(options.align);
      socket.setBundling(options.bundle);
   }

   typedef std::chrono::steady_clock Clock;
   Clock::time_point const start = Clock::now();
   long sent = 0;
   long failed = 0;
   for (long i = 0; i < options.count; ++i)
   {
      if (options.rate > 0)
      {
         std::this_thread::sleep_until(
             start + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(static_cast<double>(i) / options.rate)));
      }
      std::vector<char> pdu =
          makePdu(options.version, options.exercise, kindFor(options.kind, i), i);
      if (socket.send(pdu.data(), pdu.size(), 0) > 0)
         ++sent;
      else
         ++failed;
   }
   if (socket.flush() != 1)
      std::fprintf(stderr, "oldis-send: flush failed: %s\n", socket.getLastErrorString().c_str());
   double const seconds = std::chrono::duration<double>(Clock::now() - start).count();

   if (failed)
      std::fprintf(stderr, "oldis-send: %ld sends failed: %s\n", failed,
                   socket.getLastErrorString().c_str());
   std::printf("sent %ld PDUs in %ld datagrams to %s:%u in %.2f s\n", sent, socket.datagrams,
               options.dest.c_str(), static_cast<unsigned int>(options.port), seconds);
   socket.closeSocket();
   return failed ? 1 : 0;
}
