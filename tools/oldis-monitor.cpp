// oldis-monitor: receives DIS traffic with DtDisSocket and reports each PDU with
// its decoded fields (as text, CSV or JSON), or one summary line per second, and
// a totals line at the end; with --stats the PDUs by type, exercise and sender,
// with --entities a table of the entities seen.
//
//   oldis-monitor [--port N] [--group ADDR[/PREFIX]] [--listen ADDR]
//                 [--interface NAME] [--exercise N] [--version N] [--kind N]
//                 [--summary] [--format text|csv|json] [--stats] [--entities]
//                 [--duration S] [--count N] [--rcvbuf BYTES] [--suppress] [--help]
//
// Runs until interrupted (SIGINT, SIGTERM), or for --duration seconds, or until
// --count PDUs arrived. Datagrams and PDUs are counted apart: a datagram may
// carry several PDUs (a bundle) and is dropped whole (empty, too short, own
// traffic, malformed) or lost before it is read (by the kernel, when the socket's
// receive buffer is full); a PDU is dropped by the filters.
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>

#include "disDecode.h"
#include "toolArgs.h"
#include "toolSockets.h"

namespace
{
using oltool::DisField;
using oltool::DisId;
using oltool::DisPdu;
using oltool::parseLong;
char const* const theTool = "oldis-monitor";
using oltool::theDefaultPort;

enum class Format
{
   Text,
   Csv,
   Json
};

struct Options : oltool::ReceiveOptions
{
   std::string listen;
   std::vector<unsigned int> exercises;
   std::vector<unsigned int> versions;
   std::vector<unsigned int> kinds;
   bool summary = false;
   Format format = Format::Text;
   bool stats = false;
   bool entities = false;
   bool suppress = false;
};

void usage(FILE* out)
{
   std::fprintf(out,
                "usage: oldis-monitor [options]\n"
                "Receives DIS PDUs on a UDP port, one line per PDU with its decoded fields (or\n"
                "one per second), until interrupted, then prints the totals.\n"
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
                "  --format F        text, csv (a header line, then one line per PDU) or json\n"
                "                    (one object per line); with csv and json the summary,\n"
                "                    totals and tables go to standard error (default text)\n"
                "  --stats           PDUs by type, exercise and sender: a table at the end, and a\n"
                "                    line each second with --summary\n"
                "  --entities        a table of the entities seen, at the end: id, marking,\n"
                "                    type, last position, PDUs, last seen\n"
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
   auto const take = [&](std::string const& arg, char const* value)
   {
      long number = 0;
      bool ok = true;
      if (arg == "--listen")
         options.listen = value;
      else if (arg == "--exercise" && (ok = parseLong(value, 0, 255, number)))
         options.exercises.push_back(static_cast<unsigned int>(number));
      else if (arg == "--version" && (ok = parseLong(value, 0, 255, number)))
         options.versions.push_back(static_cast<unsigned int>(number));
      else if (arg == "--kind" && (ok = parseLong(value, 0, 255, number)))
         options.kinds.push_back(static_cast<unsigned int>(number));
      else if (arg == "--format")
      {
         std::string const f = value;
         ok = f == "text" || f == "csv" || f == "json";
         options.format = f == "csv" ? Format::Csv : f == "json" ? Format::Json : Format::Text;
      }
      else if (ok)
         return options.take(arg, value);
      return oltool::OptionReader::verdict(ok);
   };
   oltool::OptionReader in(theTool, argc, argv);
   if (!in.readAll(usage,
                   {{"--summary", &options.summary},
                    {"--suppress", &options.suppress},
                    {"--stats", &options.stats},
                    {"--entities", &options.entities}},
                   take) ||
       in.failed())
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
   void print(FILE* out, char const* label, bool suppression) const
   {
      char own[48] = "";
      if (suppression)
         std::snprintf(own, sizeof own, "%ld own traffic, ", ownTraffic);
      std::fprintf(
          out,
          "%s: %ld PDUs in %ld datagrams, %llu bytes; dropped datagrams: %ld empty, %ld too "
          "short, %s%ld malformed, %llu by the kernel; dropped PDUs: %ld filtered; %ld "
          "warnings\n",
          label, pdus, datagrams, bytes, empty, tooShort, own, malformed, kernelDrops, filtered,
          warnings);
      std::fflush(out);
   }
};

// PDUs by type, exercise and sender. Senders are bounded: past the bound, new
// ones are counted together, so that traffic from ever new ports cannot grow the
// table without end.
class PduStats
{
public:
   void add(DisPdu const& pdu, std::string const& sender)
   {
      ++myTypes[pdu.kind];
      ++myExercises[pdu.exercise];
      auto const known = mySenders.find(sender);
      if (known != mySenders.end())
         ++known->second;
      else if (mySenders.size() < theMaxSenders)
         mySenders[sender] = 1;
      else
         ++myOtherSenders;
   }

   void clear() { *this = PduStats(); }

   // One line: "by type: EntityState 90, Fire 10; by exercise: 1 100; by sender: ..."
   std::string line() const
   {
      std::string types, exercises, senders;
      for (auto const& t : myTypes)
         types += (types.empty() ? "" : ", ") + std::string(oltool::disTypeName(t.first)) + " " +
                  std::to_string(t.second);
      for (auto const& e : myExercises)
         exercises += (exercises.empty() ? "" : ", ") + std::to_string(e.first) + " " +
                      std::to_string(e.second);
      for (auto const& s : mySenders)
         senders += (senders.empty() ? "" : ", ") + s.first + " " + std::to_string(s.second);
      if (myOtherSenders)
         senders += (senders.empty() ? "" : ", ") + std::string("others ") +
                    std::to_string(myOtherSenders);
      return "by type: " + (types.empty() ? "none" : types) +
             "; by exercise: " + (exercises.empty() ? "none" : exercises) +
             "; by sender: " + (senders.empty() ? "none" : senders);
   }

   void printTables(FILE* out) const
   {
      std::fprintf(out, "PDUs by type:\n");
      for (auto const& t : myTypes)
         std::fprintf(out, "  %10ld  %s (%u)\n", t.second, oltool::disTypeName(t.first), t.first);
      std::fprintf(out, "PDUs by exercise:\n");
      for (auto const& e : myExercises)
         std::fprintf(out, "  %10ld  %u\n", e.second, e.first);
      std::fprintf(out, "PDUs by sender:\n");
      for (auto const& s : mySenders)
         std::fprintf(out, "  %10ld  %s\n", s.second, s.first.c_str());
      if (myOtherSenders)
         std::fprintf(out, "  %10ld  (senders past the first %zu)\n", myOtherSenders,
                      theMaxSenders);
      std::fflush(out);
   }

private:
   static std::size_t const theMaxSenders = 10000;
   std::map<unsigned int, long> myTypes;
   std::map<unsigned int, long> myExercises;
   std::map<std::string, long> mySenders;
   long myOtherSenders = 0;
};

// The entities seen in Entity State PDUs, by id, with what their last PDU said.
// Bounded like the senders: past the bound, PDUs of new entities are only counted.
class EntityTable
{
public:
   void add(DisPdu const& pdu, std::string const& when)
   {
      if (pdu.body != DisPdu::BodyEntityState)
         return;
      auto found = myRows.find(pdu.entity);
      if (found == myRows.end())
      {
         if (myRows.size() >= theMaxEntities)
         {
            ++myUntracked;
            return;
         }
         found = myRows.emplace(pdu.entity, Row()).first;
      }
      Row& row = found->second;
      row.marking = pdu.marking;
      row.type = pdu.entityType.text();
      row.location = pdu.location;
      ++row.pdus;
      row.lastSeen = when;
   }

   void print(FILE* out) const
   {
      std::fprintf(out, "entities: %zu\n", myRows.size());
      std::fprintf(out, "%-18s %-13s %-20s %11s %12s %9s %8s  %s\n", "entity", "marking", "type",
                   "latitude", "longitude", "altitude", "PDUs", "last seen");
      for (auto const& r : myRows)
         std::fprintf(out, "%-18s %-13s %-20s %11.6f %12.6f %9.1f %8ld  %s\n",
                      r.first.text().c_str(), oltool::disTextValue(r.second.marking).c_str(),
                      r.second.type.c_str(), r.second.location.latitude,
                      r.second.location.longitude, r.second.location.altitude, r.second.pdus,
                      r.second.lastSeen.c_str());
      if (myUntracked)
         std::fprintf(out, "(%ld Entity State PDUs of entities past the first %zu)\n", myUntracked,
                      theMaxEntities);
      std::fflush(out);
   }

private:
   struct Row
   {
      std::string marking;
      std::string type;
      oltool::Geodetic location;
      long pdus = 0;
      std::string lastSeen;
   };
   static std::size_t const theMaxEntities = 100000;
   std::map<DisId, Row> myRows;
   long myUntracked = 0;
};

void setAcceptList(DtPduFilterTest& test, std::vector<unsigned int>& values)
{
   if (!values.empty())
      test.setTest(DtPduTestAcceptListed, static_cast<int>(values.size()), values.data());
}

// The date and time, UTC, for machine readers: "2026-11-21T14:03:07.250Z".
std::string utcText()
{
   long millis = 0;
   std::tm const utc = oltool::timeNow(true, millis);
   char text[96];
   std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03ldZ", utc.tm_year + 1900,
                 utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
   return text;
}

// One read and what became of it, counted in `totals`. False when the read failed.
class Reader
{
public:
   Reader(DtDisSocket& socket, Options const& options, oltool::KernelDrops& drops, Totals& totals,
          PduStats& stats, PduStats& statsThisSecond, EntityTable& entities)
       : mySocket(socket),
         myOptions(options),
         myDrops(drops),
         myTotals(totals),
         myStats(stats),
         myStatsThisSecond(statsThisSecond),
         myEntities(entities),
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
         report(length);
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
   // The PDU's line, and its share of the statistics and the entity table.
   void report(int length)
   {
      bool const line = !myOptions.summary;
      if (!line && !myOptions.stats && !myOptions.entities)
         return;
      DisPdu pdu;
      oltool::decodeDisPdu(reinterpret_cast<unsigned char const*>(myBuffer.data()),
                           static_cast<std::size_t>(length), pdu);
      std::string const sender = mySender.toDtString().c_str();
      if (myOptions.stats)
      {
         myStats.add(pdu, sender);
         myStatsThisSecond.add(pdu, sender);
      }
      std::string const now = oltool::clockText();
      if (myOptions.entities)
         myEntities.add(pdu, now);
      if (!line)
         return;
      std::vector<DisField> const fields = oltool::disFields(pdu);
      if (myOptions.format == Format::Text)
      {
         std::printf("%s %s %s\n", now.c_str(), sender.c_str(),
                     oltool::disTextLine(fields).c_str());
         return;
      }
      std::vector<DisField> all{oltool::disText("time", utcText()),
                                oltool::disText("sender", sender)};
      all.insert(all.end(), fields.begin(), fields.end());
      std::string const text =
          myOptions.format == Format::Csv ? oltool::disCsvLine(all) : oltool::disJsonLine(all);
      std::printf("%s\n", text.c_str());
   }

   DtDisSocket& mySocket;
   Options const& myOptions;
   oltool::KernelDrops& myDrops;
   Totals& myTotals;
   PduStats& myStats;
   PduStats& myStatsThisSecond;
   EntityTable& myEntities;
   std::vector<char> myBuffer;
   DtInetSockChain myChain;
   DtInetEndpoint mySender;
   bool myFailed = false;
};
}  // namespace

int main(int argc, char** argv)
{
   Options options = oltool::optionsOrExit(argc, argv, parse, usage);
   // Per-PDU lines reach a pipe as they are made.
   std::setvbuf(stdout, nullptr, _IOLBF, 0);
   // Records in CSV or JSON stay alone on standard output, for other programs to
   // read; the reports for people go beside the diagnostics.
   FILE* const reports = options.format == Format::Text ? stdout : stderr;
   oltool::NotificationToStderr notes(theTool, !options.summary);
   oltool::catchInterrupts();

   oltool::Binding binding;
   if (!oltool::makeBinding(theTool, options.group, options.listen, options.interfaceName,
                            options.port, binding))
      return oltool::theExitUsage;
   std::unique_ptr<DtDisSocket> opened = oltool::openReceiver(
       theTool, binding, options.port, !options.group.empty(), options.suppress);
   if (!opened)
      return oltool::theExitProblem;
   DtDisSocket& socket = *opened;
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

   oltool::KernelDrops drops(socket.receiveDescriptor());
   Totals totals, printed;
   PduStats stats, statsThisSecond;
   EntityTable entities;
   Reader reader(socket, options, drops, totals, stats, statsThisSecond, entities);

   std::fprintf(stderr, "%s: listening on %s%s%s (receive buffer %d bytes)\n", theTool,
                socket.localEndpoint().toDtString().c_str(),
                options.group.empty() ? "" : ", group ", options.group.c_str(),
                socket.getReceiveBufferSize());
   if (options.format == Format::Csv && !options.summary)
      std::printf("%s\n", oltool::disCsvHeader().c_str());

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
   auto const printSecond = [&](Totals const& d)
   {
      std::string const now = oltool::clockText();
      d.print(reports, now.c_str(), options.suppress);
      if (options.stats)
      {
         std::fprintf(reports, "%s: %s\n", now.c_str(), statsThisSecond.line().c_str());
         std::fflush(reports);
         statsThisSecond.clear();
      }
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
         printSecond(interval());
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
      printSecond(last);
   if (options.stats)
      stats.printTables(reports);
   if (options.entities)
      entities.print(reports);
   totals.print(reports, "total", options.suppress);
   socket.closeSocket();
   return reader.failed() ? oltool::theExitProblem : 0;
}
