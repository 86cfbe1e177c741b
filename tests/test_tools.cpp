// Tests of the command-line tools run as built (oldis-send, -monitor, -record,
// -replay, olfile-send, -recv): options, what goes on the wire, counts, files, and
// with root broadcast, multicast and host lookups inside network namespaces.
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "support_netns.h"
#include "support_pcap.h"

namespace
{
typedef std::vector<std::string> Argv;
typedef olt::PcapBytes Bytes;

char const* const theSend = OLDIS_SEND_PATH;
char const* const theMonitor = OLDIS_MONITOR_PATH;
char const* const theRecord = OLDIS_RECORD_PATH;
char const* const theReplay = OLDIS_REPLAY_PATH;

// A guard against a hanging tool, not a measure of speed: reaching it fails the test.
std::chrono::seconds const theHangGuard(60);

// A tool run as a child process (after `prefix`, e.g. "ip netns exec NAME"), its
// standard output and error kept apart in memory files.
class Tool
{
public:
   explicit Tool(Argv argv, Argv const& prefix = {})
   {
      argv.insert(argv.begin(), prefix.begin(), prefix.end());
      std::vector<char*> args;
      for (std::string& a : argv)
         args.push_back(&a[0]);
      args.push_back(nullptr);
      myPid = fork();
      if (myPid == 0)
      {
         dup2(myFd[0], 1);
         dup2(myFd[1], 2);
         execvp(args[0], args.data());
         _exit(127);
      }
      if (myPid < 0)
         throw std::system_error(errno, std::generic_category(), "fork");
   }
   ~Tool()
   {
      if (myStatus == theRunning)
         kill(myPid, SIGKILL);
      finish();
      close(myFd[0]);
      close(myFd[1]);
   }

   // Until `wanted` is on standard error (1) or output (0), or with -1 the tool ends.
   bool waitFor(std::string const& wanted, int stream = 1)
   {
      auto const until = std::chrono::steady_clock::now() + theHangGuard;
      for (int status = 0; std::chrono::steady_clock::now() < until; usleep(2000))
      {
         if (stream >= 0 && text(stream).find(wanted) != std::string::npos)
            return true;
         if (myStatus == theRunning && waitpid(myPid, &status, WNOHANG) == myPid)
            myStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
         if (myStatus != theRunning)
            return stream < 0 || text(stream).find(wanted) != std::string::npos;
      }
      return false;
   }
   void signal(int number) { kill(myPid, number); }

   // The exit status, 128 + a signal, or -1 when the guard was reached and the tool killed.
   int finish()
   {
      if (!waitFor("", -1))
      {
         kill(myPid, SIGKILL);
         waitpid(myPid, nullptr, 0);
         myStatus = -1;
      }
      return myStatus;
   }
   std::string out() const { return text(0); }
   std::string err() const { return text(1); }

private:
   static int const theRunning = -1000;
   static int scratch() { return memfd_create("tool-output", MFD_CLOEXEC); }

   std::string text(int stream) const
   {
      std::ifstream in("/proc/self/fd/" + std::to_string(myFd[stream]), std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
   }

   int myFd[2] = {scratch(), scratch()};
   pid_t myPid = -1;
   int myStatus = theRunning;
};

struct Result
{
   int status;
   std::string out, err;
};

Result run(Argv const& argv, Argv const& prefix = {})
{
   Tool tool(argv, prefix);
   int const status = tool.finish();
   return {status, tool.out(), tool.err()};
}

// The count before `label` (" PDUs in", " by the kernel", ...) on the monitor's
// closing "total:" line; -1 without one.
long total(std::string const& out, std::string const& label)
{
   std::string::size_type const at = out.rfind("total: ");
   std::string const line = at == std::string::npos ? "" : out.substr(at, out.find('\n', at) - at);
   std::string::size_type end = line.find(label), start = end;
   while (end != std::string::npos && start > 0 && std::isdigit(line[start - 1] & 0xFF))
      --start;
   return start == end ? -1 : std::stol(line.substr(start, end - start));
}

// A UDP socket of the test, bound to a numeric address on a port the system chose
// (a port free a moment ago, once the socket is gone).
class Socket
{
public:
   explicit Socket(char const* address)
   {
      addrinfo hints{};
      hints.ai_flags = AI_NUMERICHOST;
      hints.ai_socktype = SOCK_DGRAM;
      addrinfo* ai = nullptr;
      if (getaddrinfo(address, "0", &hints, &ai) != 0)
         return;
      myFd = socket(ai->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_in6 name{};  // the port is at the same place for both families
      socklen_t length = sizeof name;
      if (bind(myFd, ai->ai_addr, ai->ai_addrlen) == 0 &&
          getsockname(myFd, reinterpret_cast<sockaddr*>(&name), &length) == 0)
         myPort = std::to_string(ntohs(name.sin6_port));
      freeaddrinfo(ai);
   }
   ~Socket() { close(myFd); }

   std::string const& port() const { return myPort; }  // "0" when not bound

   void sendTo(Bytes const& data, std::string const& port)
   {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(static_cast<unsigned short>(std::stoi(port)));
      to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      sendto(myFd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
   }
   // The next datagram within the guard.
   bool receive(Bytes& data)
   {
      pollfd fd{myFd, POLLIN, 0};
      data.assign(65536, 0);
      ssize_t const n = poll(&fd, 1, int(theHangGuard.count() * 1000)) == 1
                            ? recv(myFd, data.data(), data.size(), 0)
                            : -1;
      data.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
      return n >= 0;
   }

private:
   int myFd = -1;
   std::string myPort = "0";
};

// The big-endian number of `size` bytes at `at`.
unsigned long be(Bytes const& b, std::size_t at, int size = 2)
{
   unsigned long value = 0;
   for (int i = 0; i < size; ++i)
      value = value << 8 | b.at(at + i);
   return value;
}

// ------------------------------------------------------------------ options

// No case reaches a name server: every address is numeric or refused first.
TEST(ToolOptions, BadOptionsAreRefusedWithUsageStatus)
{
   std::pair<Argv, char const*> const cases[] = {
       {{theSend, "--port", "0"}, "bad value for --port: 0"},
       {{theSend, "--count"}, "--count needs a value"},
       {{theSend, "--suppress=yes"}, "--suppress takes no value"},
       {{theMonitor, "--bogus", "1"}, "unknown option --bogus"},
       {{theRecord, "--output=x.pcap", "stray"}, "unexpected argument stray"},
       {{theSend, "--dest", "10.77.0.255/33"}, "bad prefix length 33"},
       {{theSend, "--dest", "10.77.0.255/0"}, "bad prefix length 0"},
       {{theSend, "--dest", "10.77.0.255/255.0.255.0"}, "bad netmask 255.0.255.0"},
       {{theRecord, "--output=x.pcap", "--group", "127.0.0.1/0.0.0.0"}, "bad netmask 0.0.0.0"},
       {{theSend, "--version", "5"}, "bad value for --version: 5"},
       {{theSend, "--align", "3"}, "bad value for --align: 3"},
       {{theReplay, "x.pcap", "--align", "3"}, "bad value for --align: 3"},
       {{theReplay, "x.pcap", "--speed", "nan"}, "bad value for --speed: nan"},
       {{theSend, "--dest", "somehost/24"}, "a netmask or prefix needs a numeric address"},
       {{theSend, "--dest", "127.0.0.1:4000"}, "give the port with --port"},
       {{theSend, "--dest", "10.0.0.300"}, "bad destination 10.0.0.300: not an IPv4 address"},
       {{theSend, "--interface", "nosuchif0"}, "bad interface nosuchif0"},
       {{theMonitor, "--group", "127.0.0.1"}, "neither a multicast group nor a broadcast address"},
       {{theMonitor, "--group", "10.77.0.255"}, "e.g. 10.77.0.255/24"},
       {{theMonitor, "--listen", "::1", "--group", "239.1.2.3"}, "--listen goes with neither"},
       {{theRecord}, "--output FILE is needed"},
       {{theRecord, "--output=x.pcap", "--group", "ff15::7"}, "records IPv4 traffic only"},
       {{theReplay, "-", "--loop", "2"}, "standard input can be read once only"},
       {{theReplay, "/nonexistent/a.pcap"}, "cannot read /nonexistent/a.pcap: "},
       {{OLFILE_SEND_PATH, "127.0.0.1:99999", "x"}, "bad target"},
       {{OLFILE_SEND_PATH, ":4000", "x"}, "bad target :4000"},
       {{OLFILE_RECV_PATH, "--range", "9-3"}, "bad value for --range"},
       {{OLSHM_DEMO_PATH, "stray"}, "unexpected argument stray"},
       {{OLSHM_SOAK_PATH, "stray"}, "unexpected argument stray"},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.first.back());
      Result const r = run(c.first);
      EXPECT_EQ(r.status, 2);
      EXPECT_NE(r.err.find(c.second), std::string::npos) << r.err;
      EXPECT_EQ(r.out, "");
   }
}

// ------------------------------------------------------------------ the monitor on loopback

// Every datagram is counted once, under one reason; PDUs apart from datagrams,
// and by type, exercise and sender after the filter.
TEST(ToolMonitor, DatagramsAndPdusAreCountedApart)
{
   std::string const port = Socket("127.0.0.1").port();
   Tool monitor({theMonitor, "--port=" + port, "--exercise=1", "--count=4", "--stats"});
   ASSERT_TRUE(monitor.waitFor("listening on")) << monitor.err();
   Bytes lengthBeyond = olt::disPdu(1, 16);
   lengthBeyond[9] = 200;
   Bytes bundle = olt::disPdu(1, 16);  // its second PDU is filtered
   Bytes const second = olt::disPdu(1, 16, 2);
   bundle.insert(bundle.end(), second.begin(), second.end());
   Socket sender("127.0.0.1");
   for (Bytes const& d :
        {Bytes(), Bytes(), Bytes(5, 1), Bytes(12, 0), lengthBeyond, olt::disPdu(1, 20, 2),
         olt::disPdu(1, 12, 2), bundle, olt::disPdu(1, 30), olt::disPdu(1, 40), olt::disPdu(1, 50)})
      sender.sendTo(d, port);
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   std::string const out = monitor.out();
   EXPECT_EQ(total(out, " datagrams,"), 11) << out;
   EXPECT_EQ(total(out, " bytes;"), 0 + 5 + 12 + 16 + 20 + 12 + 32 + 30 + 40 + 50);
   EXPECT_EQ(total(out, " empty"), 2);
   EXPECT_EQ(total(out, " too short"), 1);  // a whole header of another exercise is filtered
   EXPECT_EQ(total(out, " malformed"), 2);
   EXPECT_EQ(total(out, " filtered"), 3);
   EXPECT_EQ(total(out, " PDUs in"), 4);
   EXPECT_NE(out.find("PDUs by type:\n           4  EntityState (1)\nPDUs by exercise:\n"
                      "           4  1\nPDUs by sender:\n           4  127.0.0.1:" +
                      sender.port() + "\n"),
             std::string::npos);
}

// A stopped monitor: what the kernel dropped, with what was read, accounts for
// every datagram; an interrupt ends it with the totals, after reading what came.
TEST(ToolMonitor, KernelDropsAreShownAndInterruptEndsWithTotals)
{
   std::string const port = Socket("127.0.0.1").port();
   Tool monitor({theMonitor, "--port", port, "--summary", "--rcvbuf", "4096"});
   ASSERT_TRUE(monitor.waitFor("listening on")) << monitor.err();
   monitor.signal(SIGSTOP);
   Result const send = run({theSend, "--port", port, "--count", "300", "--rate", "0"});
   monitor.signal(SIGCONT);
   monitor.signal(SIGINT);
   ASSERT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   long const kernel = total(monitor.out(), " by the kernel");
   EXPECT_GT(kernel, 0) << monitor.out();
   EXPECT_EQ(total(monitor.out(), " datagrams,") + kernel, 300);
   EXPECT_EQ(total(monitor.out(), " PDUs in"), total(monitor.out(), " datagrams,"));
}

// Listening on IPv6 loopback, each per-PDU line is written out while the monitor runs.
TEST(ToolMonitor, PerPduLinesAreNotHeldBackOnIpv6)
{
   std::string const port = Socket("::1").port();
   if (port == "0")
      GTEST_SKIP() << "no IPv6 loopback here";
   Tool monitor({theMonitor, "--listen=::1", "--port=" + port});
   ASSERT_TRUE(monitor.waitFor("listening on [::1]:" + port)) << monitor.err();
   ASSERT_EQ(run({theSend, "--dest=::1", "--port=" + port, "--exercise=9", "--count=1"}).status, 0);
   EXPECT_TRUE(monitor.waitFor("exercise 9 kind 1 length 144 type EntityState ", 0))
       << monitor.out();
   EXPECT_EQ(monitor.out().find("total:"), std::string::npos);
   monitor.signal(SIGINT);
   EXPECT_EQ(monitor.finish(), 0);
   EXPECT_EQ(total(monitor.out(), " PDUs in"), 1) << monitor.out();
}

// CSV comes under its header, JSON as one object a line, each with the time and sender first.
TEST(ToolMonitor, CsvAndJsonFormsOfAPdu)
{
   for (char const* form : {"csv", "json"})
   {
      SCOPED_TRACE(form);
      bool const csv = form[0] == 'c';
      std::string const port = Socket("127.0.0.1").port();
      Tool monitor({theMonitor, "--port", port, "--count=1", "--format", form});
      ASSERT_TRUE(monitor.waitFor("listening on")) << monitor.err();
      Socket sender("127.0.0.1");
      sender.sendTo(olt::disPdu(20, 12, 1, 6), port);
      ASSERT_EQ(monitor.finish(), 0) << monitor.err();
      std::string const out = monitor.out(), from = "127.0.0.1:" + sender.port();
      char const* const head =
          csv ? "time,sender,version,exercise,kind,length,type," : "{\"time\":";
      EXPECT_EQ(out.rfind(head, 0), 0u) << out;
      EXPECT_NE(out.find(csv ? "," + from + ",6,1,20,12,Data,"
                             : "\",\"sender\":\"" + from + "\",\"version\":6,\"exercise\":1,"),
                std::string::npos)
          << out;
   }
}

// The library's warning about a coupled Attribute PDU it could not join stays off
// the data: once on standard error, then counted.
TEST(ToolMonitor, LibraryWarningsGoToStandardErrorAndAreCounted)
{
   std::string const port = Socket("127.0.0.1").port();
   Tool monitor({theMonitor, "--port", port, "--summary"});
   ASSERT_TRUE(monitor.waitFor("listening on")) << monitor.err();
   // Seven pairs of 200 bytes fill a bundle of 1400; the six after the first are not joined.
   Result const send = run({theSend, "--port", port, "--count", "14", "--rate", "0", "--kind",
                            "attr", "--bundle", "1400"});
   EXPECT_NE(send.out.find("sent 14 PDUs in 2 datagrams"), std::string::npos) << send.out;
   monitor.signal(SIGINT);
   ASSERT_EQ(monitor.finish(), 0);
   EXPECT_EQ(total(monitor.out(), " datagrams,"), 2) << monitor.out();
   EXPECT_GE(total(monitor.out(), " warnings"), 12);
   EXPECT_EQ(monitor.out().find("Coupled Attribute"), std::string::npos);
   char const* const warning = "warning: Failed to read expected Coupled Attribute PDU";
   EXPECT_NE(monitor.err().find(warning), std::string::npos) << monitor.err();
   EXPECT_EQ(monitor.err().find(warning), monitor.err().rfind(warning)) << monitor.err();
}

// ------------------------------------------------------------------ the sender's PDUs

// All datagrams the sender sends to a socket of the test.
std::vector<Bytes> sentBy(Argv argv)
{
   Socket receiver("127.0.0.1");
   argv.insert(argv.begin(), {theSend, "--port", receiver.port(), "--rate", "0"});
   Result const r = run(argv);
   EXPECT_EQ(r.status, 0) << r.err;
   long sent = 0, count = 0;
   std::sscanf(r.out.c_str(), "sent %ld PDUs in %ld datagrams", &sent, &count);
   std::vector<Bytes> datagrams;
   Bytes d;
   for (long i = 0; i < count && receiver.receive(d); ++i)
      datagrams.push_back(d);
   return datagrams;
}

TEST(ToolSend, EveryKindIsWellFormedWithAnAbsoluteTimeStamp)
{
   std::vector<Bytes> const pdus = sentBy({"--kind", "mix", "--count", "16", "--entities", "3"});
   ASSERT_EQ(pdus.size(), 16u);
   std::map<unsigned int, std::size_t> sizes{{1, 144}, {2, 96}, {3, 104}, {4, 60}};
   std::set<unsigned long> entities, kinds;
   double const now = std::fmod(static_cast<double>(std::time(nullptr)), 3600.0);
   for (Bytes const& p : pdus)
   {
      unsigned int const kind = p[2];
      SCOPED_TRACE("kind " + std::to_string(kind));
      kinds.insert(kind);
      entities.insert(be(p, 16));
      ASSERT_EQ(p[0], 7);
      bool const coupled = (p[10] & 0x08) != 0;
      ASSERT_EQ(be(p, 8), sizes[kind]);
      ASSERT_EQ(p.size(), sizes[kind] + (coupled ? 56 : 0));
      EXPECT_TRUE(!coupled || (kind == 1 && p[144 + 2] == 72 && be(p, 144 + 8) == 56u))
          << "an Attribute PDU of 56 bytes behind an Entity State PDU";
      // An absolute time stamp within the current UTC hour.
      EXPECT_EQ(be(p, 4, 4) & 1, 1u);
      double const apart = std::fabs((be(p, 4, 4) >> 1) * 3600.0 / 2147483648.0 - now);
      EXPECT_LT(std::min(apart, 3600.0 - apart), 120.0);
   }
   EXPECT_EQ(kinds, (std::set<unsigned long>{1, 2, 3, 4}));
   EXPECT_EQ(entities, (std::set<unsigned long>{1, 2, 3}));
}

// Version 6 bundles are packed, as version 6 receivers read them; version 7 ones
// start each PDU on a multiple of 8. Collision PDUs are 60 bytes long.
TEST(ToolSend, BundleAlignmentFollowsTheVersion)
{
   std::pair<Argv, std::vector<std::size_t>> const cases[] = {
       {{"--version", "6", "--count", "30"}, {23 * 60, 7 * 60}},
       {{"--version", "7", "--count", "30"}, {20 * 64 + 60, 8 * 64 + 60}},
       {{"--version=6", "--align=8", "--count=2"}, {64 + 60}},
   };
   for (auto const& c : cases)
   {
      Argv args{"--kind", "collision", "--bundle", "1400"};
      args.insert(args.end(), c.first.begin(), c.first.end());
      std::vector<std::size_t> sizes;
      for (Bytes const& d : sentBy(args))
         sizes.push_back(d.size());
      EXPECT_EQ(sizes, c.second) << c.first[0] << c.first[1];
   }
}

// ------------------------------------------------------------------ record and replay

// A folder of the test's own, removed with what it holds.
struct TempDir
{
   std::string path;
   TempDir()
   {
      char name[] = "/tmp/oltools-XXXXXX";
      path = mkdtemp(name) ? name : "/nonexistent";
   }
   ~TempDir() { std::system(("rm -rf '" + path + "'").c_str()); }
   std::string file(std::string const& name) const { return path + "/" + name; }
};

void writeFile(std::string const& path, Bytes const& bytes)
{
   std::ofstream(path, std::ios::binary)
       .write(reinterpret_cast<char const*>(bytes.data()), std::streamsize(bytes.size()));
}

Bytes readFile(std::string const& path)
{
   std::ifstream in(path, std::ios::binary);
   return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The records of a file the recorder wrote, read by the file format alone:
// classic little-endian pcap in microseconds, link type RAW, whole packets.
struct Recorded
{
   double time;
   Bytes packet;
};

std::vector<Recorded> recordsOf(Bytes const& file)
{
   auto le32 = [&](std::size_t at) {
      return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | std::uint32_t(file[at + 3]) << 24;
   };
   std::vector<Recorded> records;
   bool const classic = file.size() >= 24 && le32(0) == 0xA1B2C3D4u && le32(20) == 101u;
   EXPECT_TRUE(classic) << "a classic pcap file of link type RAW";
   std::size_t at = 24;
   for (; classic && at + 16 <= file.size() && at + 16 + le32(at + 8) <= file.size();
        at += 16 + le32(at + 8))
   {
      EXPECT_EQ(le32(at + 8), le32(at + 12)) << "whole packets";
      auto const begin = file.begin() + static_cast<long>(at) + 16;
      records.push_back({le32(at) + le32(at + 4) * 1e-6, Bytes(begin, begin + le32(at + 8))});
   }
   EXPECT_EQ(at, std::max<std::size_t>(file.size(), 24)) << "a record cut, or bytes after the last";
   return records;
}

// Every datagram is written as it came, empty ones too, inside the IPv4 and UDP
// headers it came with, stamped when it arrived; SIGINT ends it with the file whole.
TEST(ToolRecord, EveryDatagramIsWrittenWithRealHeadersAndStopsOnInterrupt)
{
   TempDir dir;
   std::string const file = dir.file("sent.pcap"), port = Socket("127.0.0.1").port();
   double const before = static_cast<double>(std::time(nullptr));
   Tool record({theRecord, "--port", port, "--output", file});
   ASSERT_TRUE(record.waitFor("recording 0.0.0.0:" + port)) << record.err();
   Socket sender("127.0.0.1");
   Bytes const datagrams[] = {{}, Bytes(5, 0xAB), olt::disPdu(1, 144, 3)};
   for (Bytes const& d : datagrams)
      sender.sendTo(d, port);
   ASSERT_TRUE(record.waitFor("3 in all")) << record.err();
   record.signal(SIGINT);
   ASSERT_EQ(record.finish(), 0) << record.err();
   double const after = static_cast<double>(std::time(nullptr)) + 1;
   EXPECT_EQ(record.out().rfind("recorded 3 datagrams, 149 bytes in ", 0), 0u) << record.out();
   EXPECT_NE(record.out().find(" to " + file + "; 0 dropped by the kernel\n"), std::string::npos);

   std::vector<Recorded> const records = recordsOf(readFile(file));
   ASSERT_EQ(records.size(), 3u);
   for (std::size_t i = 0; i < records.size(); ++i)
   {
      SCOPED_TRACE(i);
      Bytes const& p = records[i].packet;
      ASSERT_EQ(p.size(), 28 + datagrams[i].size());
      EXPECT_EQ(be(p, 12, 8), 0x7F0000017F000001u) << "from and to 127.0.0.1";
      EXPECT_EQ(std::to_string(be(p, 20)), sender.port());
      EXPECT_EQ(std::to_string(be(p, 22)), port);
      EXPECT_EQ(be(p, 24), 8 + datagrams[i].size());
      EXPECT_EQ(Bytes(p.begin() + 28, p.end()), datagrams[i]);
      EXPECT_GE(records[i].time, i ? records[i - 1].time : before);  // in order, while sent
      EXPECT_LE(records[i].time, after);
   }
}

// Real sender traffic, recorded and replayed with its exercise rewritten, arrives with
// every PDU accounted for, in the statistics and the entity table too.
TEST(ToolRecord, RecordedTrafficReplaysIntoTheMonitorWithEveryPdu)
{
   TempDir dir;
   std::string const file = dir.file("mix.pcap"), recordPort = Socket("127.0.0.1").port();
   Tool record({theRecord, "--port", recordPort, "--output", file, "--count", "16"});
   ASSERT_TRUE(record.waitFor("recording")) << record.err();
   Result const send = run({theSend, "--port", recordPort, "--count", "16", "--kind", "mix",
                            "--entities", "4", "--rate", "2000"});
   ASSERT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(record.finish(), 0) << record.err();
   // 8 Entity State PDUs of 144 bytes, 2 Fire of 96, 2 Detonation of 104, 2 Collision
   // of 60, 2 Entity State with an Attribute PDU, 200 bytes together.
   EXPECT_EQ(record.out().rfind("recorded 16 datagrams, 2072 bytes in ", 0), 0u) << record.out();

   std::string const monitorPort = Socket("127.0.0.1").port();
   Tool monitor({theMonitor, "--port", monitorPort, "--count", "16", "--exercise", "4", "--stats",
                 "--entities", "--summary"});
   ASSERT_TRUE(monitor.waitFor("listening on")) << monitor.err();
   Result const replayed =
       run({theReplay, "--port", monitorPort, "--exercise", "4", "--speed", "20", file});
   EXPECT_EQ(replayed.status, 0) << replayed.err;
   EXPECT_EQ(replayed.out.rfind("replayed 16 datagrams (16 PDUs, 2072 bytes) as 16 datagrams to "
                                "127.0.0.1:" + monitorPort + " in ", 0),
             0u)
       << replayed.out;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   std::string const out = monitor.out();
   EXPECT_NE(out.find("total: 16 PDUs in 16 datagrams, 2072 bytes; dropped datagrams: 0 empty, 0 "
                      "too short, 0 malformed, 0 by the kernel; dropped PDUs: 0 filtered; 0 "
                      "warnings"),
             std::string::npos)
       << out;
   EXPECT_NE(out.find("PDUs by type:\n"
                      "          10  EntityState (1)\n"
                      "           2  Fire (2)\n"
                      "           2  Detonation (3)\n"
                      "           2  Collision (4)\n"
                      "PDUs by exercise:\n"
                      "          16  4\n"),
             std::string::npos)
       << out;
   // Within these 16 PDUs three of the four entities send Entity State PDUs.
   EXPECT_NE(out.find("entities: 3\n"), std::string::npos) << out;
}

// Replays a capture of `bytes` to a socket of the test, with `args`.
Result replay(TempDir const& dir, Socket const& to, Bytes const& bytes, Argv args = {})
{
   writeFile(dir.file("in.pcap"), bytes);
   args.insert(args.begin(), {theReplay, "--port", to.port(), "--speed", "0"});
   args.push_back(dir.file("in.pcap"));
   return run(args);
}

// A capture written by hand: each DIS datagram over IPv4 and UDP to the port asked
// for is sent as it was (its exercise rewritten), the rest counted by reason.
TEST(ToolReplay, HandWrittenCaptureIsSentAndEachSkipCounted)
{
   TempDir dir;
   Bytes const es = olt::disPdu(1, 144);
   Bytes bundle = olt::disPdu(4, 60), second = olt::disPdu(2, 96, 2);
   bundle.resize(64, 0);
   bundle.insert(bundle.end(), second.begin(), second.end());
   olt::Ipv4Udp longUdp, fragment, otherPort;
   longUdp.udpLengthDelta = 40;
   fragment.fragment = 0x2000;
   otherPort.destinationPort = 3001;
   Bytes const whole = olt::ethernet(olt::ipv4(es));  // cut by the capture, last
   olt::PcapFile capture(olt::theLinkEthernet);
   capture.add(olt::ethernet(olt::ipv4(es)))
       .add(olt::ethernet(olt::ipv4(es, longUdp)))
       .add(olt::ethernet(Bytes(28, 0), 0x0806))
       .add(olt::ethernet(olt::ipv4(Bytes{1, 2, 3})))
       .add(olt::ethernet(olt::ipv6(es), 0x86DD))
       .add(olt::ethernet(olt::ipv4(es, fragment)))
       .add(olt::ethernet(olt::ipv4(es, otherPort)))
       .add(olt::ethernet(olt::ipv4(bundle), 0x0800, {5}))
       .add(Bytes(whole.begin(), whole.begin() + 60), 1000, 0, std::uint32_t(whole.size()));
   Socket receiver("127.0.0.1");
   Result const r =
       replay(dir, receiver, capture.bytes(), {"--exercise", "0", "--udp-port", "3000"});
   EXPECT_EQ(r.status, 1) << "damaged packets: " << r.err;
   EXPECT_EQ(r.out.rfind("replayed 2 datagrams (3 PDUs, 304 bytes) as 2 datagrams", 0), 0u)
       << r.out;
   EXPECT_NE(r.out.find("skipped packets: 1 other protocols, 1 IPv6, 1 IPv4 fragments, 1 "
                        "malformed, 1 truncated, 1 not DIS, 1 other ports\n"),
             std::string::npos)
       << r.out;
   EXPECT_NE(r.err.find("IPv6 packets are not replayed"), std::string::npos) << r.err;
   Bytes d, expected = es;
   expected[1] = 0;
   ASSERT_TRUE(receiver.receive(d));
   EXPECT_EQ(d, expected);
   expected = bundle;
   expected[1] = expected[64 + 1] = 0;
   ASSERT_TRUE(receiver.receive(d));
   EXPECT_EQ(d, expected);
}

// A cut file sends what it holds, then names the damage; a loop over a file with
// nothing to send ends by itself. In bundles, version 6 PDUs are packed as a
// version 6 receiver reads them: 23 of 60 bytes fill 1380 of 1400.
TEST(ToolReplay, CutFilesEmptyLoopsAndVersion6Bundles)
{
   TempDir dir;
   Socket receiver("127.0.0.1");
   Bytes const es = olt::disPdu(1, 144);
   olt::PcapFile good(olt::theLinkRaw);
   good.add(olt::ipv4(es)).add(olt::ipv4(es)).add(olt::ipv4(es));
   Result r = replay(dir, receiver, Bytes(good.bytes().begin(), good.bytes().end() - 50));
   EXPECT_EQ(r.status, 1);
   EXPECT_NE(r.err.find(": read error after 2 packets: "), std::string::npos) << r.err;
   Bytes d;
   for (int i = 0; i < 2; ++i)
      EXPECT_TRUE(receiver.receive(d) && d == es);
   // A record the capture cut short is damage too, though the rest was sent.
   Bytes const ip = olt::ipv4(es);
   good.add(Bytes(ip.begin(), ip.begin() + 40), 1000, 0, std::uint32_t(ip.size()));
   r = replay(dir, receiver, good.bytes());
   EXPECT_EQ(r.status, 1);
   EXPECT_NE(r.out.find("replayed 3 datagrams (3 PDUs, 432 bytes)"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find(", 1 truncated,"), std::string::npos) << r.out;
   for (int i = 0; i < 3; ++i)
      EXPECT_TRUE(receiver.receive(d) && d == es);

   olt::PcapFile empty(olt::theLinkEthernet);
   EXPECT_EQ(replay(dir, receiver, empty.bytes(), {"--loop", "0"}).status, 0);
   r = replay(dir, receiver, empty.add(olt::ethernet(Bytes(28, 0), 0x0806)).bytes(),
              {"--loop", "0"});
   EXPECT_EQ(r.status, 1);
   EXPECT_NE(r.out.find("replayed 0 datagrams"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("1 other protocols"), std::string::npos) << r.out;

   olt::PcapFile v6(olt::theLinkRaw);
   for (int i = 0; i < 30; ++i)
      v6.add(olt::ipv4(olt::disPdu(4, 60, 1, 6)));
   r = replay(dir, receiver, v6.bytes(), {"--loop", "2", "--bundle", "1400"});
   EXPECT_EQ(r.status, 0) << r.err;
   EXPECT_EQ(r.out.rfind("replayed 60 datagrams (60 PDUs, 3600 bytes) as 3 datagrams", 0), 0u)
       << r.out;
   for (std::size_t size : {23 * 60, 23 * 60, 14 * 60})
      EXPECT_TRUE(receiver.receive(d) && d.size() == size) << d.size();
}

// ------------------------------------------------------------------ in network namespaces

class ToolNetns : public ::testing::Test
{
protected:
   void SetUp() override
   {
      std::string reason;
      if (!olt::TestNetns::isAvailable(&reason))
         GTEST_SKIP() << reason;
   }
   static Argv in(olt::TestNetns const& ns) { return {"ip", "netns", "exec", ns.name()}; }
};

// With loopback alone no name server can be reached: the lookup fails at once.
TEST_F(ToolNetns, FailedHostLookupIsReportedAndNothingIsSent)
{
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   Result const send = run({theSend, "--dest", "nosuch.invalid", "--count", "3"}, in(ns));
   EXPECT_EQ(send.status, 2);
   EXPECT_NE(send.err.find("bad destination nosuch.invalid: Host lookup failed for nosuch.invalid"),
             std::string::npos)
       << send.err;
   EXPECT_EQ(send.out.find("sent"), std::string::npos) << send.out;
   Result const monitor = run({theMonitor, "--group", "nosuch.invalid", "--count", "1"}, in(ns));
   EXPECT_EQ(monitor.status, 2);
   EXPECT_NE(monitor.err.find("Host lookup failed for nosuch.invalid"), std::string::npos)
       << monitor.err;
}

// A broadcast address reaches its network only with its mask; without it, it is
// a host under the class's mask and suppression finds no interface for it.
TEST_F(ToolNetns, BroadcastWithItsPrefix)
{
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok() && ns.addVethPair("bc0", "bc1") && ns.addAddress("bc0", "10.77.0.1/24") &&
               ns.setLinkUp("bc0") && ns.setLinkUp("bc1"))
       << ns.error();
   for (char const* dest : {"10.77.0.255", "10.77.0.255/24", "10.77.0.255/255.255.255.0"})
   {
      bool const masked = std::strchr(dest, '/') != nullptr;
      Tool monitor({theMonitor, "--group", "10.77.0.255/24", "--port", "3000"}, in(ns));
      ASSERT_TRUE(monitor.waitFor("listening on")) << monitor.err();
      Result const send =
          run({theSend, "--dest", dest, "--port", "3000", "--count", "5", "--suppress"}, in(ns));
      monitor.signal(SIGINT);
      ASSERT_EQ(monitor.finish(), 0) << monitor.err();
      EXPECT_EQ(send.status, masked ? 0 : 1) << dest;
      EXPECT_EQ(total(monitor.out(), " PDUs in"), masked ? 5 : 0) << dest;
      EXPECT_EQ(send.out.find("sent 5 PDUs in 5 datagrams to 10.77.0.255:3000") == 0, masked);
      EXPECT_EQ(send.err.find("Could not identify localhost interface") != std::string::npos &&
                    send.err.find("10.77.0.255/24") != std::string::npos,
                !masked)
          << send.err;
   }
}

// A recorder joined to a group on a second host writes what the first sends by
// the interface named: the group as destination, the sender as source, and the
// time to live chosen.
TEST_F(ToolNetns, RecordsAGroupWithItsAddressesAndTimeToLive)
{
   olt::TestNetns a, b;
   ASSERT_TRUE(a.ok() && b.ok() && a.addVethPair("mca", "mcb") &&
               a.ip({"link", "set", "mcb", "netns", b.name()}) &&
               a.addAddress("mca", "10.78.0.1/24") && a.setLinkUp("mca"))
       << a.error() << b.error();
   ASSERT_TRUE(b.addAddress("mcb", "10.78.0.2/24") && b.setLinkUp("mcb")) << b.error();
   TempDir dir;
   Tool record({theRecord, "--group", "239.1.2.3", "--interface", "mcb", "--port", "3001",
                "--output", dir.file("group.pcap"), "--count", "3"},
               in(b));
   ASSERT_TRUE(record.waitFor("group 239.1.2.3")) << record.err();
   Result const send = run({theSend, "--dest", "239.1.2.3", "--port", "3001", "--count", "3",
                            "--interface", "mca", "--ttl", "7"},
                           in(a));
   EXPECT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(record.finish(), 0) << record.err();
   std::vector<Recorded> const records = recordsOf(readFile(dir.file("group.pcap")));
   ASSERT_EQ(records.size(), 3u);
   for (Recorded const& r : records)
   {
      EXPECT_EQ(be(r.packet, 12, 8), 0x0A4E0001EF010203u) << "from 10.78.0.1 to 239.1.2.3";
      EXPECT_EQ(r.packet[8], 7) << "time to live";
      EXPECT_EQ(be(r.packet, 22), 3001u);
      EXPECT_EQ(r.packet.size(), 28u + 144u);
   }
}

// olfile-recv on a port the system chooses writes the file under the name sent.
TEST(FileTools, SendAndReceiveAFileOnAChosenPort)
{
   TempDir dir, in;
   Bytes bytes(6u << 20);
   for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<unsigned char>(i * 7 + i / 4096);
   writeFile(dir.file("payload.bin"), bytes);
   Tool receiver({OLFILE_RECV_PATH, "--port", "0", "--dir", in.path, "--once", "--timeout", "60"});
   ASSERT_TRUE(receiver.waitFor("writing into"));
   int port = 0;
   ASSERT_EQ(std::sscanf(receiver.err().c_str(), "olfile-recv: listening on port %d", &port), 1);
   Result const sent =
       run({OLFILE_SEND_PATH, "127.0.0.1:" + std::to_string(port), dir.file("payload.bin")});
   EXPECT_EQ(sent.status, 0) << sent.err;
   EXPECT_NE(sent.err.find("of 6291456 bytes"), std::string::npos) << sent.err;
   EXPECT_EQ(receiver.finish(), 0) << receiver.err();
   EXPECT_EQ(receiver.out(), in.file("payload.bin") + "\n");
   EXPECT_TRUE(readFile(in.file("payload.bin")) == bytes);
}

// A short soak in both modes: blocking loses nothing; with a slow reader every
// message written is either read or counted lost.
TEST(ShmTools, SoakAccountsForEveryMessage)
{
   Result const r = run({OLSHM_SOAK_PATH, "--messages", "20000", "--queue-size", "1024"});
   EXPECT_EQ(r.status, 0) << r.err;
   EXPECT_NE(r.out.find("blocking: written 20000, read 20000, lost 0 (droppedOld 0, droppedNew 0)"),
             std::string::npos)
       << r.out;
   long written = 0, read = 0, lost = 0, droppedOld = 0;
   std::string::size_type const at = r.out.find("drop-oldest: written");
   ASSERT_NE(at, std::string::npos) << r.out;
   ASSERT_EQ(std::sscanf(r.out.c_str() + at,
                         "drop-oldest: written %ld, read %ld, lost %ld (droppedOld %ld", &written,
                         &read, &lost, &droppedOld),
             4);
   EXPECT_EQ(written, 20000);
   EXPECT_EQ(read + lost, written);
   EXPECT_GE(droppedOld, lost);
   EXPECT_EQ(r.out.find("CHECK FAILED"), std::string::npos) << r.out;
}

}  // namespace
