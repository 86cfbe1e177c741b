// Tests of the DIS tools, oldis-send, oldis-monitor, oldis-record and
// oldis-replay, run as built: their options and errors, what the sender puts on
// the wire, what the monitor counts and decodes, what the recorder writes and the
// replayer reads and sends, and (with root) broadcast, multicast and host lookups
// inside network namespaces.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_netns.h"
#include "support_pcap.h"

namespace
{
typedef std::vector<std::string> Argv;
typedef std::vector<unsigned char> Bytes;

char const* const theSend = OLDIS_SEND_PATH;
char const* const theMonitor = OLDIS_MONITOR_PATH;
char const* const theRecord = OLDIS_RECORD_PATH;
char const* const theReplay = OLDIS_REPLAY_PATH;

// A guard against a tool that hangs, not a measure of speed: a wait that reaches
// it fails the test instead of blocking the run.
std::chrono::seconds const theHangGuard(60);

// A tool run as a child process, its standard output and error read apart.
class Tool
{
public:
   // `prefix` goes before the program (for example "ip netns exec NAME").
   explicit Tool(Argv const& argv, Argv const& prefix = {})
   {
      Argv all = prefix;
      all.insert(all.end(), argv.begin(), argv.end());
      int out[2], err[2];
      if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
         return;
      myPid = fork();
      if (myPid == 0)
      {
         dup2(out[1], 1);
         dup2(err[1], 2);
         std::vector<char*> args;
         for (std::string& a : all)
            args.push_back(&a[0]);
         args.push_back(nullptr);
         execvp(args[0], args.data());
         _exit(127);
      }
      close(out[1]);
      close(err[1]);
      myOut = out[0];
      myErr = err[0];
   }

   ~Tool()
   {
      if (myPid > 0 && myStatus == theRunning)
      {
         kill(myPid, SIGKILL);
         finish();
      }
      for (int fd : {myOut, myErr})
         if (fd >= 0)
            close(fd);
   }

   Tool(Tool const&) = delete;
   Tool& operator=(Tool const&) = delete;

   // Reads output until `text` appears on standard error (or output), the
   // streams end, or the guard is reached.
   bool waitForError(std::string const& text) { return waitFor(myErrText, text); }
   bool waitForOutput(std::string const& text) { return waitFor(myOutText, text); }

   void signal(int number) { kill(myPid, number); }

   // Reads until both streams end and returns the exit status (128 + signal for
   // a signal, -1 when the guard was reached and the tool was killed).
   int finish()
   {
      if (myStatus != theRunning)
         return myStatus;
      auto const until = std::chrono::steady_clock::now() + theHangGuard;
      while ((myOut >= 0 || myErr >= 0) && std::chrono::steady_clock::now() < until)
         readSome(200);
      bool const hung = myOut >= 0 || myErr >= 0;
      if (hung)
         kill(myPid, SIGKILL);
      int status = 0;
      waitpid(myPid, &status, 0);
      myStatus = hung ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return myStatus;
   }

   std::string const& out() const { return myOutText; }
   std::string const& err() const { return myErrText; }

private:
   static int const theRunning = -1000;

   bool waitFor(std::string const& stream, std::string const& text)
   {
      auto const until = std::chrono::steady_clock::now() + theHangGuard;
      while (stream.find(text) == std::string::npos && (myOut >= 0 || myErr >= 0) &&
             std::chrono::steady_clock::now() < until)
         readSome(200);
      return stream.find(text) != std::string::npos;
   }

   void readSome(int milliseconds)
   {
      pollfd fds[2] = {{myOut, POLLIN, 0}, {myErr, POLLIN, 0}};
      if (poll(fds, 2, milliseconds) <= 0)
         return;
      int* descriptors[] = {&myOut, &myErr};
      std::string* texts[] = {&myOutText, &myErrText};
      for (int i = 0; i < 2; ++i)
      {
         if (*descriptors[i] < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR)))
            continue;
         char buffer[4096];
         ssize_t const n = read(*descriptors[i], buffer, sizeof buffer);
         if (n > 0)
            texts[i]->append(buffer, static_cast<std::size_t>(n));
         else
         {
            close(*descriptors[i]);
            *descriptors[i] = -1;
         }
      }
   }

   pid_t myPid = -1;
   int myOut = -1;
   int myErr = -1;
   int myStatus = theRunning;
   std::string myOutText;
   std::string myErrText;
};

struct Result
{
   int status;
   std::string out;
   std::string err;
};

Result run(Argv const& argv, Argv const& prefix = {})
{
   Tool tool(argv, prefix);
   int const status = tool.finish();
   return {status, tool.out(), tool.err()};
}

// The counts of the monitor's closing "total:" line; `found` false without one.
struct Totals
{
   bool found = false;
   long pdus = -1, datagrams = -1, empty = -1, tooShort = -1, ownTraffic = -1, malformed = -1,
        filtered = -1, warnings = -1;
   unsigned long long bytes = 0, kernel = 0;
};

Totals totalsOf(std::string const& out)
{
   Totals t;
   std::string::size_type const at = out.rfind("total: ");
   if (at == std::string::npos)
      return t;
   std::string const line = out.substr(at, out.find('\n', at) - at);
   int const withOwn = std::sscanf(
       line.c_str(),
       "total: %ld PDUs in %ld datagrams, %llu bytes; dropped datagrams: %ld empty, %ld too "
       "short, %ld own traffic, %ld malformed, %llu by the kernel; dropped PDUs: %ld filtered; "
       "%ld warnings",
       &t.pdus, &t.datagrams, &t.bytes, &t.empty, &t.tooShort, &t.ownTraffic, &t.malformed,
       &t.kernel, &t.filtered, &t.warnings);
   if (withOwn == 10)
      t.found = true;
   else
      t.found = std::sscanf(line.c_str(),
                            "total: %ld PDUs in %ld datagrams, %llu bytes; dropped datagrams: %ld "
                            "empty, %ld too short, %ld malformed, %llu by the kernel; dropped "
                            "PDUs: %ld filtered; %ld warnings",
                            &t.pdus, &t.datagrams, &t.bytes, &t.empty, &t.tooShort, &t.malformed,
                            &t.kernel, &t.filtered, &t.warnings) == 9;
   return t;
}

// A UDP socket of the test: bound to an address of its family, port 0 unless given.
class Socket
{
public:
   explicit Socket(char const* address, unsigned short port = 0, bool reuse = false)
   {
      bool const v6 = std::strchr(address, ':') != nullptr;
      myFd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      int const on = 1;
      if (reuse)
         setsockopt(myFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      sockaddr_storage storage{};
      socklen_t length = 0;
      if (v6)
      {
         auto* a = reinterpret_cast<sockaddr_in6*>(&storage);
         a->sin6_family = AF_INET6;
         a->sin6_port = htons(port);
         inet_pton(AF_INET6, address, &a->sin6_addr);
         length = sizeof *a;
      }
      else
      {
         auto* a = reinterpret_cast<sockaddr_in*>(&storage);
         a->sin_family = AF_INET;
         a->sin_port = htons(port);
         inet_pton(AF_INET, address, &a->sin_addr);
         length = sizeof *a;
      }
      myBound = myFd >= 0 && bind(myFd, reinterpret_cast<sockaddr*>(&storage), length) == 0;
      if (myBound && getsockname(myFd, reinterpret_cast<sockaddr*>(&storage), &length) == 0)
         myPort = ntohs(v6 ? reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port
                           : reinterpret_cast<sockaddr_in*>(&storage)->sin_port);
   }
   ~Socket()
   {
      if (myFd >= 0)
         close(myFd);
   }
   Socket(Socket const&) = delete;
   Socket& operator=(Socket const&) = delete;

   bool ok() const { return myBound; }
   int fd() const { return myFd; }
   unsigned short port() const { return myPort; }

   void sendTo(Bytes const& data, unsigned short port)
   {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(port);
      to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      sendto(myFd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
   }

   // The next datagram, waiting up to the hang guard; false when none came. With
   // `ttl`, the IP time to live it arrived with (IP_RECVTTL must be on).
   bool receive(Bytes& data, int* ttl = nullptr)
   {
      pollfd fd{myFd, POLLIN, 0};
      if (poll(&fd, 1, static_cast<int>(theHangGuard.count() * 1000)) <= 0)
         return false;
      data.assign(65536, 0);
      iovec io{data.data(), data.size()};
      char control[64];
      msghdr message{};
      message.msg_iov = &io;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      ssize_t const n = recvmsg(myFd, &message, 0);
      if (n < 0)
         return false;
      data.resize(static_cast<std::size_t>(n));
      for (cmsghdr* c = CMSG_FIRSTHDR(&message); ttl && c; c = CMSG_NXTHDR(&message, c))
         if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL)
            std::memcpy(ttl, CMSG_DATA(c), sizeof *ttl);
      return true;
   }

private:
   int myFd = -1;
   bool myBound = false;
   unsigned short myPort = 0;
};

// A port that was free a moment ago on loopback.
std::string freePort()
{
   Socket probe("127.0.0.1");
   return std::to_string(probe.port());
}

// A PDU with a valid header and `length` bytes in all.
Bytes pdu(unsigned char exercise, unsigned short length)
{
   Bytes p(length, 0x55);
   unsigned char const header[] = {7,
                                   exercise,
                                   1,
                                   1,
                                   0,
                                   0,
                                   0,
                                   0,
                                   static_cast<unsigned char>(length >> 8),
                                   static_cast<unsigned char>(length & 0xFF),
                                   0,
                                   0};
   std::copy(header, header + 12, p.begin());
   return p;
}

unsigned int get16(Bytes const& b, std::size_t at)
{
   return static_cast<unsigned int>(b[at]) << 8 | b[at + 1];
}

unsigned long get32(Bytes const& b, std::size_t at)
{
   return static_cast<unsigned long>(get16(b, at)) << 16 | get16(b, at + 2);
}

double getDouble(Bytes const& b, std::size_t at)
{
   std::uint64_t bits = static_cast<std::uint64_t>(get32(b, at)) << 32 | get32(b, at + 4);
   double value = 0;
   std::memcpy(&value, &bits, sizeof value);
   return value;
}

// ------------------------------------------------------------------ options

// No case here reaches a name server: every address is numeric or refused first.
TEST(ToolOptions, BadOptionsAreRefusedWithUsageStatus)
{
   struct Case
   {
      char const* tool;
      Argv args;
      char const* message;
   };
   Case const cases[] = {
       {theSend, {"--port", "0"}, "bad value for --port: 0"},
       {theSend, {"--port=70000"}, "bad value for --port: 70000"},
       {theSend, {"--count"}, "--count needs a value"},
       {theSend, {"--bogus", "1"}, "unknown option --bogus"},
       {theSend, {"stray"}, "unexpected argument stray"},
       {theSend, {"--kind=tank"}, "bad value for --kind: tank"},
       {theSend, {"--align", "3"}, "bad value for --align: 3"},
       {theSend, {"--timestamp", "sometimes"}, "bad value for --timestamp: sometimes"},
       {theSend, {"--loopback=maybe"}, "bad value for --loopback: maybe"},
       {theSend, {"--ttl", "256"}, "bad value for --ttl: 256"},
       {theSend, {"--entities", "0"}, "bad value for --entities: 0"},
       {theSend, {"--suppress=yes"}, "--suppress takes no value"},
       {theSend, {"--dest", "10.77.0.255/33"}, "bad prefix length 33"},
       {theSend, {"--dest", "10.77.0.255/0"}, "bad prefix length 0"},
       {theSend, {"--dest", "10.77.0.255/255.0.255.0"}, "bad netmask 255.0.255.0"},
       {theSend, {"--dest", "somehost/24"}, "a netmask or prefix needs a numeric address"},
       {theSend, {"--dest", "127.0.0.1:4000"}, "give the port with --port"},
       {theSend, {"--dest", "10.0.0.300"}, "bad destination 10.0.0.300: not an IPv4 address"},
       {theSend, {"--interface", "nosuchif0"}, "bad interface nosuchif0"},
       {theMonitor, {"--rcvbuf", "-5"}, "bad value for --rcvbuf: -5"},
       {theMonitor, {"--summary=1"}, "--summary takes no value"},
       {theMonitor, {"--duration=soon"}, "bad value for --duration: soon"},
       {theMonitor, {"--group", "127.0.0.1"}, "neither a multicast group nor a broadcast address"},
       {theMonitor, {"--group", "10.77.0.255"}, "e.g. 10.77.0.255/24"},
       {theMonitor, {"--listen", "::1", "--group", "239.1.2.3"}, "--listen goes with neither"},
       {theMonitor, {"--interface", "nosuchif0"}, "no interface for nosuchif0"},
       {theMonitor, {"--format", "xml"}, "bad value for --format: xml"},
       {theMonitor, {"--stats=1"}, "--stats takes no value"},
       {theMonitor, {"--entities=yes"}, "--entities takes no value"},
       {theRecord, {}, "--output FILE is needed"},
       {theRecord, {"--output"}, "--output needs a value"},
       {theRecord, {"--output="}, "bad value for --output: "},
       {theRecord, {"--output=x.pcap", "--port=0"}, "bad value for --port: 0"},
       {theRecord, {"--output=x.pcap", "--count", "-1"}, "bad value for --count: -1"},
       {theRecord, {"--output=x.pcap", "--duration", "1s"}, "bad value for --duration: 1s"},
       {theRecord, {"--output=x.pcap", "stray"}, "unexpected argument stray"},
       {theRecord, {"--output=x.pcap", "--group", "ff15::7"}, "records IPv4 traffic only"},
       {theRecord, {"--output=x.pcap", "--group", "127.0.0.1"}, "neither a multicast group"},
       {theReplay, {}, "a capture file is needed"},
       {theReplay, {"a.pcap", "b.pcap"}, "one capture file only"},
       {theReplay, {"--speed", "-1", "a.pcap"}, "bad value for --speed: -1"},
       {theReplay, {"--loop=twice", "a.pcap"}, "bad value for --loop: twice"},
       {theReplay, {"--exercise", "256", "a.pcap"}, "bad value for --exercise: 256"},
       {theReplay, {"--bundle", "70000", "a.pcap"}, "bad value for --bundle: 70000"},
       {theReplay, {"--align", "3", "a.pcap"}, "bad value for --align: 3"},
       {theReplay, {"--udp-port", "0", "a.pcap"}, "bad value for --udp-port: 0"},
       {theReplay, {"-", "--loop", "2"}, "standard input can be read once only"},
       {theReplay, {"/nonexistent/a.pcap"}, "cannot read /nonexistent/a.pcap: "},
   };
   for (Case const& c : cases)
   {
      std::string trace = c.tool;
      for (std::string const& a : c.args)
         trace += " " + a;
      SCOPED_TRACE(trace);
      Argv argv{c.tool};
      argv.insert(argv.end(), c.args.begin(), c.args.end());
      Result const r = run(argv);
      EXPECT_EQ(r.status, 2);
      EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
      EXPECT_EQ(r.out, "");
   }
}

TEST(ToolOptions, HelpNamesEveryOptionOnStandardOutput)
{
   struct Case
   {
      char const* tool;
      std::vector<char const*> words;
   };
   Case const cases[] = {
       {theSend,
        {"--dest", "ADDR/PREFIX", "--ttl", "--interface", "--loopback", "--suppress", "--entities",
         "--timestamp", "collision", "attr", "binds the destination port and joins the group"}},
       {theMonitor,
        {"--listen", "--rcvbuf", "--suppress", "--duration", "until interrupted", "--format",
         "json", "--stats", "--entities"}},
       {theRecord,
        {"--port", "--group", "--interface", "--output", "--duration", "--count", "--rcvbuf",
         "udp.port==N,dis"}},
       {theReplay,
        {"--dest", "--port", "--speed", "--loop", "--exercise", "--bundle", "--align", "--udp-port",
         "pcapng", "Linux cooked"}},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.tool);
      Result const r = run({c.tool, "--help"});
      EXPECT_EQ(r.status, 0);
      EXPECT_EQ(r.err, "");
      for (char const* word : c.words)
         EXPECT_NE(r.out.find(word), std::string::npos) << word;
   }
}

// ------------------------------------------------------------------ on loopback

// The README's main job, with the output the README shows.
TEST(ToolLoopback, MainJobUnbundlesEveryPdu)
{
   std::string const port = freePort();
   Tool monitor({theMonitor, "--port", port, "--summary", "--duration", "4", "--count", "1000"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const send =
       run({theSend, "--dest", "127.0.0.1", "--port", port, "--count", "1000", "--bundle", "1400"});
   EXPECT_EQ(send.status, 0) << send.err;
   EXPECT_EQ(send.out.rfind("sent 1000 PDUs in 112 datagrams to 127.0.0.1:" + port + " in ", 0), 0u)
       << send.out;
   EXPECT_EQ(monitor.finish(), 0) << monitor.err();
   EXPECT_NE(monitor.out().find("total: 1000 PDUs in 112 datagrams, 144000 bytes; dropped "
                                "datagrams: 0 empty, 0 too short, 0 malformed, 0 by the kernel; "
                                "dropped PDUs: 0 filtered; 0 warnings\n"),
             std::string::npos)
       << monitor.out();
}

// Every datagram is counted once, under one reason; PDUs apart from datagrams.
TEST(ToolLoopback, DatagramsAndPdusAreCountedApart)
{
   std::string const port = freePort();
   Tool monitor({theMonitor, "--port=" + port, "--exercise=1", "--count=4"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Socket sender("127.0.0.1");
   unsigned short const to = static_cast<unsigned short>(std::stoi(port));
   Bytes lengthBeyond = pdu(1, 16);
   lengthBeyond[9] = 200;
   Bytes bundle = pdu(1, 16);  // the second PDU of the bundle is filtered
   Bytes const second = pdu(2, 16);
   bundle.insert(bundle.end(), second.begin(), second.end());
   Bytes const datagrams[] = {{},         {},     Bytes(5, 1), Bytes(12, 0), lengthBeyond,
                              pdu(2, 20), bundle, pdu(1, 30),  pdu(1, 40),   pdu(1, 50)};
   for (Bytes const& d : datagrams)
      sender.sendTo(d, to);
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   Totals const t = totalsOf(monitor.out());
   ASSERT_TRUE(t.found) << monitor.out();
   EXPECT_EQ(t.datagrams, 10);
   EXPECT_EQ(t.bytes, 0u + 5 + 12 + 16 + 20 + 32 + 30 + 40 + 50);
   EXPECT_EQ(t.empty, 2);
   EXPECT_EQ(t.tooShort, 1);
   EXPECT_EQ(t.malformed, 2);
   EXPECT_EQ(t.filtered, 2);
   EXPECT_EQ(t.pdus, 4);
   EXPECT_EQ(t.kernel, 0u);
   // One line per PDU, with its length.
   for (char const* length : {"length 16 ", "length 30 ", "length 40 ", "length 50 "})
      EXPECT_NE(monitor.out().find(length), std::string::npos) << length;
}

// A monitor that cannot keep up: what the kernel dropped is shown, and with what
// was read it accounts for every datagram sent. Interrupting ends it with the
// totals, after reading what had arrived.
TEST(ToolLoopback, KernelDropsAreShownAndInterruptEndsWithTotals)
{
   std::string const port = freePort();
   Tool monitor({theMonitor, "--port", port, "--summary", "--rcvbuf", "4096"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   monitor.signal(SIGSTOP);
   Result const send = run({theSend, "--port", port, "--count", "300", "--rate", "0"});
   monitor.signal(SIGCONT);
   monitor.signal(SIGINT);
   ASSERT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   Totals const t = totalsOf(monitor.out());
   ASSERT_TRUE(t.found) << monitor.out();
   EXPECT_GT(t.kernel, 0u);
   EXPECT_EQ(static_cast<unsigned long long>(t.datagrams) + t.kernel, 300u);
   EXPECT_EQ(t.pdus, t.datagrams);
}

TEST(ToolLoopback, PortInUseIsNamed)
{
   Socket holder("0.0.0.0");
   ASSERT_TRUE(holder.ok());
   std::string const port = std::to_string(holder.port());
   Result const r = run({theMonitor, "--port", port, "--duration", "1"});
   EXPECT_EQ(r.status, 1);
   EXPECT_NE(r.err.find("cannot listen on port " + port + ": "), std::string::npos) << r.err;
   EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "one line: " << r.err;
}

TEST(ToolLoopback, ListensOnIpv6Loopback)
{
   std::string port;
   {
      Socket probe("::1");
      if (!probe.ok())
         GTEST_SKIP() << "no IPv6 loopback here";
      port = std::to_string(probe.port());
   }
   Tool monitor({theMonitor, "--listen=::1", "--port=" + port, "--count=3"});
   ASSERT_TRUE(monitor.waitForError("listening on [::1]:" + port)) << monitor.err();
   Result const send = run({theSend, "--dest=::1", "--port=" + port, "--count=3", "--rate=0"});
   EXPECT_EQ(send.status, 0) << send.err;
   EXPECT_NE(send.out.find("to [::1]:" + port), std::string::npos) << send.out;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   EXPECT_EQ(totalsOf(monitor.out()).pdus, 3) << monitor.out();
}

// Each per-PDU line reaches a pipe while the monitor runs.
TEST(ToolLoopback, PerPduLinesAreNotHeldBack)
{
   std::string const port = freePort();
   Tool monitor({theMonitor, "--port", port});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const send = run({theSend, "--port", port, "--count", "1", "--exercise", "9"});
   ASSERT_EQ(send.status, 0) << send.err;
   EXPECT_TRUE(monitor.waitForOutput("exercise 9 kind 1 length 144 type EntityState "))
       << monitor.out();
   EXPECT_EQ(monitor.out().find("total:"), std::string::npos) << "seen only at the end";
   monitor.signal(SIGINT);
   EXPECT_EQ(monitor.finish(), 0);
   EXPECT_EQ(totalsOf(monitor.out()).pdus, 1) << monitor.out();
}

// The library's warning about a coupled Attribute PDU it could not join stays off
// the data: once on standard error, then counted.
TEST(ToolLoopback, LibraryWarningsGoToStandardErrorAndAreCounted)
{
   std::string const port = freePort();
   Tool monitor({theMonitor, "--port", port, "--summary"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   // Seven pairs of 200 bytes fill a bundle of 1400: the six after the first are
   // not joined by the receiver.
   Result const send = run({theSend, "--port", port, "--count", "14", "--rate", "0", "--kind",
                            "attr", "--bundle", "1400"});
   ASSERT_EQ(send.status, 0) << send.err;
   EXPECT_NE(send.out.find("sent 14 PDUs in 2 datagrams"), std::string::npos) << send.out;
   monitor.signal(SIGINT);
   ASSERT_EQ(monitor.finish(), 0);
   Totals const t = totalsOf(monitor.out());
   ASSERT_TRUE(t.found) << monitor.out();
   EXPECT_EQ(t.datagrams, 2);
   EXPECT_GE(t.warnings, 12);
   EXPECT_EQ(monitor.out().find("Coupled Attribute"), std::string::npos);
   std::string const warning = "warning: Failed to read expected Coupled Attribute PDU";
   std::string::size_type const first = monitor.err().find(warning);
   EXPECT_NE(first, std::string::npos) << monitor.err();
   EXPECT_EQ(monitor.err().find(warning, first + 1), std::string::npos) << monitor.err();
}

// ------------------------------------------------------------------ the sender's PDUs

// All datagrams that the sender sends to a socket of the test.
std::vector<Bytes> sentBy(Argv args)
{
   Socket receiver("127.0.0.1");
   int const big = 1 << 22;
   setsockopt(receiver.fd(), SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
   Argv argv{theSend, "--port", std::to_string(receiver.port()), "--rate", "0"};
   argv.insert(argv.end(), args.begin(), args.end());
   Result const r = run(argv);
   EXPECT_EQ(r.status, 0) << r.err;
   std::vector<Bytes> datagrams;
   long sent = 0, count = 0;
   std::sscanf(r.out.c_str(), "sent %ld PDUs in %ld datagrams", &sent, &count);
   for (long i = 0; i < count; ++i)
   {
      Bytes d;
      if (!receiver.receive(d))
         break;
      datagrams.push_back(d);
   }
   return datagrams;
}

double secondsInHourNow()
{
   return std::fmod(static_cast<double>(std::time(nullptr)), 3600.0);
}

TEST(ToolPdus, EveryKindIsWellFormedWithPlausibleFields)
{
   std::vector<Bytes> const pdus = sentBy({"--kind", "mix", "--count", "16", "--entities", "3"});
   ASSERT_EQ(pdus.size(), 16u);
   std::map<unsigned int, std::size_t> sizes{{1, 144}, {2, 96}, {3, 104}, {4, 60}};
   std::set<unsigned int> entities, events, kinds;
   double const now = secondsInHourNow();
   for (Bytes const& p : pdus)
   {
      unsigned int const kind = p[2];
      SCOPED_TRACE("kind " + std::to_string(kind));
      kinds.insert(kind);
      ASSERT_EQ(p[0], 7);
      EXPECT_EQ(p[1], 1);
      bool const coupled = (p[10] & 0x08) != 0;
      ASSERT_EQ(get16(p, 8), sizes[kind]);
      ASSERT_EQ(p.size(), sizes[kind] + (coupled ? 56 : 0));
      // An absolute time stamp within the current UTC hour.
      unsigned long const stamp = get32(p, 4);
      EXPECT_EQ(stamp & 1, 1u);
      double const seconds = static_cast<double>(stamp >> 1) * 3600.0 / 2147483648.0;
      double const apart = std::fabs(seconds - now);
      EXPECT_LT(std::min(apart, 3600.0 - apart), 120.0) << seconds << " vs " << now;
      // Site and application set; entity numbers 1 to --entities.
      EXPECT_NE(get16(p, 12), 0u);
      EXPECT_NE(get16(p, 14), 0u);
      unsigned int const entity = get16(p, 16);
      EXPECT_GE(entity, 1u);
      EXPECT_LE(entity, 3u);
      entities.insert(entity);
      if (kind == 1)
      {
         EXPECT_EQ(p[20], 1);            // a platform
         EXPECT_EQ(get16(p, 22), 225u);  // country
         EXPECT_EQ(p[128], 1);           // ASCII marking
         std::string const marking(reinterpret_cast<char const*>(&p[129]), 11);
         EXPECT_EQ(marking.substr(0, 6 + std::to_string(entity).size()),
                   "OLDIS " + std::to_string(entity));
         double const x = getDouble(p, 48), y = getDouble(p, 56), z = getDouble(p, 64);
         double const fromCentre = std::sqrt(x * x + y * y + z * z);
         EXPECT_GT(fromCentre, 6.3e6);  // on the earth's surface, or above it
         EXPECT_LT(fromCentre, 6.4e6);
      }
      if (kind == 2 || kind == 3)
      {
         EXPECT_NE(get16(p, 22), get16(p, 16)) << "target differs from shooter";
         EXPECT_TRUE(events.insert(get16(p, 34)).second) << "event ids differ";
         EXPECT_EQ(p[kind == 2 ? 64 : 72], 2);  // munition type: kind munition
      }
      if (coupled)
      {
         EXPECT_EQ(kind, 1u);
         EXPECT_EQ(p[144 + 2], 72);  // the Attribute PDU behind it
         EXPECT_EQ(get16(p, 144 + 8), 56u);
         EXPECT_EQ(get16(p, 144 + 30), 1u);  // one record set
      }
   }
   EXPECT_EQ(kinds, (std::set<unsigned int>{1, 2, 3, 4}));
   EXPECT_EQ(entities, (std::set<unsigned int>{1, 2, 3}));
}

TEST(ToolPdus, RelativeTimeStampsCountFromTheStart)
{
   std::vector<Bytes> const pdus = sentBy({"--timestamp=relative", "--count", "5"});
   ASSERT_EQ(pdus.size(), 5u);
   unsigned long last = 0;
   for (Bytes const& p : pdus)
   {
      unsigned long const stamp = get32(p, 4);
      EXPECT_EQ(stamp & 1, 0u);
      EXPECT_GE(stamp, last);
      last = stamp;
   }
   // Well under a minute into the run, where an absolute stamp would be anywhere
   // in the hour.
   EXPECT_LT(static_cast<double>(get32(pdus.front(), 4) >> 1) * 3600.0 / 2147483648.0, 60.0);
}

// Version 6 bundles are packed, as version 6 receivers read them; version 7
// bundles start each PDU on a multiple of 8. Collision PDUs are 60 bytes long.
TEST(ToolPdus, BundleAlignmentFollowsTheVersion)
{
   struct Case
   {
      char const* version;
      std::size_t firstDatagram;
   };
   Case const cases[] = {{"6", 23 * 60}, {"7", 20 * 64 + 60}};
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::string("version ") + c.version);
      std::vector<Bytes> const datagrams = sentBy(
          {"--version", c.version, "--kind", "collision", "--count", "30", "--bundle", "1400"});
      ASSERT_EQ(datagrams.size(), 2u);
      EXPECT_EQ(datagrams[0].size(), c.firstDatagram);
   }
   std::vector<Bytes> const explicitAlign =
       sentBy({"--version=6", "--align=8", "--kind=collision", "--count=2", "--bundle=1400"});
   ASSERT_EQ(explicitAlign.size(), 1u);
   EXPECT_EQ(explicitAlign[0].size(), 64u + 60u);
}

// Version 6 collision bundles, sent with the default alignment, arrive whole.
TEST(ToolLoopback, Version6BundlesArriveAsEveryPdu)
{
   std::string const port = freePort();
   Tool monitor({theMonitor, "--port", port, "--summary", "--count", "100"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const send = run({theSend, "--port", port, "--count", "100", "--rate", "0", "--version",
                            "6", "--kind", "collision", "--bundle", "1400"});
   ASSERT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   Totals const t = totalsOf(monitor.out());
   EXPECT_EQ(t.pdus, 100) << monitor.out();
   EXPECT_EQ(t.datagrams, 5);
   EXPECT_EQ(t.malformed, 0);
}

// ------------------------------------------------------------------ decoding and statistics

// The lines of `text`, without their line ends.
std::vector<std::string> linesOf(std::string const& text)
{
   std::vector<std::string> lines;
   std::string::size_type at = 0;
   while (at < text.size())
   {
      std::string::size_type const end = text.find('\n', at);
      lines.push_back(text.substr(at, end - at));
      if (end == std::string::npos)
         break;
      at = end + 1;
   }
   return lines;
}

// The text of a JSON field of a flat object line: a string without its quotes,
// or a number; "" when absent.
std::string jsonField(std::string const& line, std::string const& name)
{
   std::string const key = "\"" + name + "\":";
   std::string::size_type at = line.find(key);
   if (at == std::string::npos)
      return "";
   at += key.size();
   if (line[at] == '"')
      return line.substr(at + 1, line.find('"', at + 1) - at - 1);
   return line.substr(at, line.find_first_of(",}", at) - at);
}

// A monitor that reads the 8 PDUs of one cycle of the sender's mix (Entity State,
// Fire, Entity State, Detonation, Entity State, Collision, Entity State, and one
// with a coupled Attribute PDU) about 3 entities.
Result monitorTheMix(Argv const& monitorArgs)
{
   std::string const port = freePort();
   Argv argv{theMonitor, "--port", port, "--count", "8"};
   argv.insert(argv.end(), monitorArgs.begin(), monitorArgs.end());
   Tool monitor(argv);
   EXPECT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const send =
       run({theSend, "--port", port, "--count", "8", "--kind", "mix", "--entities", "3"});
   EXPECT_EQ(send.status, 0) << send.err;
   int const status = monitor.finish();
   return {status, monitor.out(), monitor.err()};
}

TEST(ToolDecode, JsonLinesCarryTheDecodedFields)
{
   Result const r = monitorTheMix({"--format", "json"});
   ASSERT_EQ(r.status, 0) << r.err;
   std::vector<std::string> const lines = linesOf(r.out);
   ASSERT_EQ(lines.size(), 8u) << r.out;
   std::map<std::string, int> types;
   std::set<std::string> markings;
   for (std::string const& line : lines)
   {
      SCOPED_TRACE(line);
      ASSERT_EQ(line.front(), '{');
      ASSERT_EQ(line.back(), '}');
      EXPECT_EQ(jsonField(line, "time").size(), 24u) << "2026-11-21T14:03:07.250Z";
      EXPECT_EQ(jsonField(line, "sender").rfind("127.0.0.1:", 0), 0u);
      EXPECT_EQ(jsonField(line, "version"), "7");
      EXPECT_EQ(jsonField(line, "timestamp_type"), "absolute");
      std::string const type = jsonField(line, "type");
      ++types[type];
      if (type == "Collision")
         continue;
      // Every entity circles within a few kilometres of 36.6 N, 121.9 W.
      EXPECT_NEAR(std::stod(jsonField(line, "latitude")), 36.6, 0.05);
      EXPECT_NEAR(std::stod(jsonField(line, "longitude")), -121.9, 0.05);
      double const altitude = std::stod(jsonField(line, "altitude"));
      EXPECT_TRUE(std::fabs(altitude) < 0.01 || std::fabs(altitude - 3000) < 0.01) << altitude;
      if (type == "EntityState")
      {
         std::string const entity = jsonField(line, "entity");
         std::string const number = entity.substr(entity.rfind(':') + 1);
         EXPECT_EQ(jsonField(line, "marking"), "OLDIS " + number);
         markings.insert(jsonField(line, "marking"));
         EXPECT_EQ(jsonField(line, "entity_type").rfind("1.", 0), 0u) << "a platform";
         EXPECT_EQ(jsonField(line, "force"), number == "2" ? "Opposing" : "Friendly");
         // With --entities 3 the third is the aircraft, at 3000 m.
         EXPECT_EQ(std::fabs(altitude - 3000) < 0.01, number == "3");
      }
      else
      {
         EXPECT_NE(jsonField(line, "firing"), jsonField(line, "target"));
         EXPECT_NE(jsonField(line, "event"), "");
         EXPECT_EQ(jsonField(line, "munition_type").rfind("2.", 0), 0u) << "a munition";
      }
   }
   EXPECT_EQ(types, (std::map<std::string, int>{
                        {"EntityState", 5}, {"Fire", 1}, {"Detonation", 1}, {"Collision", 1}}));
   EXPECT_EQ(markings, (std::set<std::string>{"OLDIS 1", "OLDIS 2", "OLDIS 3"}));
   // The Entity State PDU with its coupled Attribute PDU is read as one.
   EXPECT_NE(r.out.find("\"length\":200,\"type\":\"EntityState\""), std::string::npos);
   // The totals stay off the records.
   EXPECT_NE(r.err.find("total: 8 PDUs in 8 datagrams"), std::string::npos) << r.err;
}

TEST(ToolDecode, CsvHasAHeaderAndOneRowOfEveryColumnPerPdu)
{
   Result const r = monitorTheMix({"--format=csv"});
   ASSERT_EQ(r.status, 0) << r.err;
   std::vector<std::string> const lines = linesOf(r.out);
   ASSERT_EQ(lines.size(), 9u) << r.out;
   EXPECT_EQ(lines[0],
             "time,sender,version,exercise,kind,length,type,timestamp,timestamp_type,truncated,"
             "entity,force,entity_type,marking,latitude,longitude,altitude,firing,target,"
             "munition,event,munition_type");
   for (std::size_t i = 1; i < lines.size(); ++i)
   {
      SCOPED_TRACE(lines[i]);
      EXPECT_EQ(std::count(lines[i].begin(), lines[i].end(), ','), 21);
      EXPECT_NE(lines[i].find(",7,1,"), std::string::npos) << "version 7, exercise 1";
   }
   EXPECT_NE(r.out.find(",EntityState,"), std::string::npos);
   EXPECT_NE(r.out.find(",OLDIS 2,"), std::string::npos);
   EXPECT_NE(r.err.find("total: 8 PDUs"), std::string::npos) << r.err;
}

TEST(ToolDecode, TextLinesStatisticsAndTheEntityTable)
{
   Result const r = monitorTheMix({"--stats", "--entities"});
   ASSERT_EQ(r.status, 0) << r.err;
   EXPECT_NE(r.out.find(" type Fire timestamp "), std::string::npos) << r.out;
   EXPECT_NE(r.out.find(" marking \"OLDIS 3\" latitude 36.6"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("PDUs by type:\n"
                        "           5  EntityState (1)\n"
                        "           1  Fire (2)\n"
                        "           1  Detonation (3)\n"
                        "           1  Collision (4)\n"
                        "PDUs by exercise:\n"
                        "           8  1\n"
                        "PDUs by sender:\n"
                        "           8  127.0.0.1:"),
             std::string::npos)
       << r.out;
   // One row per entity, with its Entity State PDUs: entities 1 and 2 twice each
   // (the second time of entity 2 with its Attribute PDU), entity 3 once.
   std::string::size_type const table = r.out.find("entities: 3\n");
   ASSERT_NE(table, std::string::npos) << r.out;
   std::vector<std::string> const rows = linesOf(r.out.substr(table));
   ASSERT_GE(rows.size(), 5u);
   EXPECT_EQ(rows[1].rfind("entity ", 0), 0u) << "the column names";
   std::map<std::string, std::string> pdus;
   for (std::size_t i = 2; i < 5; ++i)
   {
      std::vector<std::string> words;
      char word[64];
      int used = 0;
      for (char const* p = rows[i].c_str(); std::sscanf(p, "%63s%n", word, &used) == 1; p += used)
         words.push_back(word);
      ASSERT_EQ(words.size(), 9u) << rows[i];  // the marking is two words
      pdus[words[2].substr(0, 1)] = words[7];
      EXPECT_NEAR(std::stod(words[4]), 36.6, 0.05);
   }
   EXPECT_EQ(pdus, (std::map<std::string, std::string>{{"1", "2"}, {"2", "2"}, {"3", "1"}}));
   EXPECT_EQ(totalsOf(r.out).pdus, 8);
}

// With --summary the statistics come each second too, the records not at all.
TEST(ToolDecode, SummaryStatisticsLineAndNoRecords)
{
   Result const r = monitorTheMix({"--summary", "--stats", "--format", "json"});
   ASSERT_EQ(r.status, 0) << r.err;
   EXPECT_EQ(r.out, "");
   EXPECT_NE(r.err.find(": by type: EntityState 5, Fire 1, Detonation 1, Collision 1; by "
                        "exercise: 1 8; by sender: 127.0.0.1:"),
             std::string::npos)
       << r.err;
}

// ------------------------------------------------------------------ record and replay

// A folder of the test's own, removed with what it holds.
class TempDir
{
public:
   TempDir()
   {
      char name[] = "/tmp/oldis-tools-XXXXXX";
      if (mkdtemp(name))
         myPath = name;
   }
   ~TempDir()
   {
      if (!myPath.empty())
         std::system(("rm -rf '" + myPath + "'").c_str());
   }
   TempDir(TempDir const&) = delete;
   TempDir& operator=(TempDir const&) = delete;

   std::string file(std::string const& name) const { return myPath + "/" + name; }

private:
   std::string myPath;
};

void writeFile(std::string const& path, Bytes const& bytes)
{
   FILE* f = std::fopen(path.c_str(), "wb");
   ASSERT_TRUE(f) << path;
   if (!bytes.empty())
      std::fwrite(bytes.data(), 1, bytes.size(), f);
   std::fclose(f);
}

Bytes readFile(std::string const& path)
{
   Bytes bytes;
   FILE* f = std::fopen(path.c_str(), "rb");
   if (!f)
      return bytes;
   unsigned char buffer[65536];
   std::size_t n = 0;
   while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
      bytes.insert(bytes.end(), buffer, buffer + n);
   std::fclose(f);
   return bytes;
}

std::uint32_t le32(Bytes const& b, std::size_t at)
{
   return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
          static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

// One record of a pcap file the recorder wrote, read here by the file format
// alone: raw IPv4, a UDP header, the datagram.
struct Recorded
{
   double time;
   Bytes packet;
};

std::vector<Recorded> recordsOf(Bytes const& file)
{
   std::vector<Recorded> records;
   EXPECT_GE(file.size(), 24u);
   if (file.size() < 24)
      return records;
   EXPECT_EQ(le32(file, 0), 0xA1B2C3D4u) << "classic pcap, microseconds";
   EXPECT_EQ(le32(file, 20), 101u) << "link type RAW";
   std::size_t at = 24;
   while (at + 16 <= file.size())
   {
      std::uint32_t const captured = le32(file, at + 8);
      EXPECT_EQ(captured, le32(file, at + 12)) << "whole packets";
      EXPECT_LE(at + 16 + captured, file.size());
      if (at + 16 + captured > file.size())
         break;
      records.push_back({le32(file, at) + le32(file, at + 4) * 1e-6,
                         Bytes(file.begin() + static_cast<long>(at) + 16,
                               file.begin() + static_cast<long>(at + 16 + captured))});
      at += 16 + captured;
   }
   EXPECT_EQ(at, file.size()) << "no bytes after the last record";
   return records;
}

// The recorder writes every datagram as it came, empty ones too, with the
// addresses, ports and checksums of a real IPv4 UDP packet, stamped with the
// time it arrived; SIGINT ends it with the file whole.
TEST(ToolRecord, EveryDatagramIsWrittenWithRealHeadersAndStopsOnInterrupt)
{
   TempDir dir;
   std::string const file = dir.file("sent.pcap");
   std::string const port = freePort();
   double const before = static_cast<double>(std::time(nullptr));
   Tool record({theRecord, "--port", port, "--output", file});
   ASSERT_TRUE(record.waitForError("recording 0.0.0.0:" + port)) << record.err();
   Socket sender("127.0.0.1");
   unsigned short const to = static_cast<unsigned short>(std::stoi(port));
   Bytes const datagrams[] = {{}, Bytes(5, 0xAB), pdu(3, 144)};
   for (Bytes const& d : datagrams)
      sender.sendTo(d, to);
   ASSERT_TRUE(record.waitForError("3 in all")) << record.err();
   record.signal(SIGINT);
   ASSERT_EQ(record.finish(), 0) << record.err();
   double const after = static_cast<double>(std::time(nullptr)) + 1;
   EXPECT_EQ(record.out().rfind("recorded 3 datagrams, 149 bytes in ", 0), 0u) << record.out();
   EXPECT_NE(record.out().find(" to " + file + "; 0 dropped by the kernel\n"), std::string::npos);

   std::vector<Recorded> const records = recordsOf(readFile(file));
   ASSERT_EQ(records.size(), 3u);
   double last = 0;
   for (std::size_t i = 0; i < records.size(); ++i)
   {
      SCOPED_TRACE(i);
      Bytes const& p = records[i].packet;
      ASSERT_EQ(p.size(), 28 + datagrams[i].size());
      EXPECT_EQ(p[0], 0x45);
      EXPECT_EQ(get16(p, 2), p.size());
      EXPECT_EQ(p[9], 17);
      EXPECT_EQ(olt::sum16(p.data(), 20), 0xFFFFu) << "IP header checksum";
      std::uint32_t pseudo =
          olt::sum16(p.data() + 12, 8) + 17 + static_cast<std::uint32_t>(p.size() - 20);
      EXPECT_EQ(olt::sum16(p.data() + 20, p.size() - 20, pseudo), 0xFFFFu) << "UDP checksum";
      EXPECT_EQ(get32(p, 12), 0x7F000001u);
      EXPECT_EQ(get32(p, 16), 0x7F000001u);
      EXPECT_EQ(get16(p, 20), sender.port());
      EXPECT_EQ(get16(p, 22), to);
      EXPECT_EQ(get16(p, 24), 8 + datagrams[i].size());
      EXPECT_EQ(Bytes(p.begin() + 28, p.end()), datagrams[i]);
      // Stamped when it came: during the test, in order.
      EXPECT_GE(records[i].time, before);
      EXPECT_LE(records[i].time, after);
      EXPECT_GE(records[i].time, last);
      last = records[i].time;
   }
}

// The sender's traffic, recorded and replayed into a monitor: every datagram and
// every PDU is accounted for, the exercise rewritten on the way.
TEST(ToolRecord, RecordedTrafficReplaysIntoTheMonitorWithEveryPdu)
{
   TempDir dir;
   std::string const file = dir.file("mix.pcap");
   std::string const recordPort = freePort();
   Tool record({theRecord, "--port", recordPort, "--output", file, "--count", "16"});
   ASSERT_TRUE(record.waitForError("recording")) << record.err();
   Result const send = run({theSend, "--port", recordPort, "--count", "16", "--kind", "mix",
                            "--entities", "4", "--rate", "2000"});
   ASSERT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(record.finish(), 0) << record.err();
   // 8 Entity State PDUs of 144 bytes, 2 Fire of 96, 2 Detonation of 104, 2
   // Collision of 60, 2 Entity State with an Attribute PDU, 200 bytes together.
   EXPECT_EQ(record.out().rfind("recorded 16 datagrams, 2072 bytes in ", 0), 0u) << record.out();

   std::string const monitorPort = freePort();
   Tool monitor({theMonitor, "--port", monitorPort, "--count", "16", "--exercise", "4", "--stats",
                 "--summary"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const replay =
       run({theReplay, "--port", monitorPort, "--exercise", "4", "--speed", "20", file});
   EXPECT_EQ(replay.status, 0) << replay.err;
   EXPECT_EQ(replay.out.rfind("replayed 16 datagrams (16 PDUs, 2072 bytes) as 16 datagrams to "
                              "127.0.0.1:" +
                                  monitorPort + " in ",
                              0),
             0u)
       << replay.out;
   EXPECT_NE(replay.out.find("; skipped packets: 0 other protocols, 0 IPv6, 0 IPv4 fragments, "
                             "0 malformed, 0 truncated, 0 not DIS, 0 other ports\n"),
             std::string::npos)
       << replay.out;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   EXPECT_NE(monitor.out().find("total: 16 PDUs in 16 datagrams, 2072 bytes; dropped datagrams: "
                                "0 empty, 0 too short, 0 malformed, 0 by the kernel; dropped "
                                "PDUs: 0 filtered; 0 warnings"),
             std::string::npos)
       << monitor.out();
   EXPECT_NE(monitor.out().find("PDUs by type:\n"
                                "          10  EntityState (1)\n"
                                "           2  Fire (2)\n"
                                "           2  Detonation (3)\n"
                                "           2  Collision (4)\n"
                                "PDUs by exercise:\n"
                                "          16  4\n"),
             std::string::npos)
       << monitor.out();
}

// Replayed in bundles, version 6 PDUs are packed as a version 6 receiver reads
// them, and a loop plays the file again.
TEST(ToolRecord, Version6ReplayedInBundlesAndLooped)
{
   TempDir dir;
   std::string const file = dir.file("v6.pcap");
   std::string const recordPort = freePort();
   Tool record({theRecord, "--port", recordPort, "--output", file, "--count", "30"});
   ASSERT_TRUE(record.waitForError("recording")) << record.err();
   Result const send = run({theSend, "--port", recordPort, "--count", "30", "--version", "6",
                            "--kind", "collision", "--rate", "0"});
   ASSERT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(record.finish(), 0) << record.err();

   std::string const monitorPort = freePort();
   Tool monitor({theMonitor, "--port", monitorPort, "--count", "60", "--summary"});
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const replay = run(
       {theReplay, "--port", monitorPort, "--speed", "0", "--loop", "2", "--bundle", "1400", file});
   EXPECT_EQ(replay.status, 0) << replay.err;
   // 23 PDUs of 60 bytes fill 1380 of a bundle's 1400: 23, 23 and 14.
   EXPECT_EQ(replay.out.rfind("replayed 60 datagrams (60 PDUs, 3600 bytes) as 3 datagrams", 0), 0u)
       << replay.out;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   Totals const t = totalsOf(monitor.out());
   EXPECT_EQ(t.pdus, 60) << monitor.out();
   EXPECT_EQ(t.datagrams, 3);
   EXPECT_EQ(t.malformed, 0);
}

// A capture written by hand: what is a DIS datagram over IPv4 and UDP is sent as
// it was (its exercise rewritten), the rest is counted by reason.
TEST(ToolReplay, HandWrittenCaptureIsSentAndEachSkipCounted)
{
   TempDir dir;
   std::string const file = dir.file("hand.pcap");
   Bytes const es = olt::disPdu(1, 144);
   Bytes bundle = olt::disPdu(4, 60);
   bundle.resize(64, 0);
   Bytes const second = olt::disPdu(2, 96, 2);
   bundle.insert(bundle.end(), second.begin(), second.end());
   olt::Ipv4Udp longUdp;
   longUdp.udpLengthDelta = 40;
   olt::Ipv4Udp fragment;
   fragment.fragment = 0x2000;
   Bytes const whole = olt::ethernet(olt::ipv4(es));  // cut by the capture, last
   olt::PcapFile capture(olt::theLinkEthernet);
   capture.add(olt::ethernet(olt::ipv4(es)), 1000, 0)
       .add(olt::ethernet(olt::ipv4(es, longUdp)), 1000, 10)
       .add(olt::ethernet(Bytes(28, 0), 0x0806), 1000, 20)
       .add(olt::ethernet(olt::ipv4(Bytes{1, 2, 3})), 1000, 30)
       .add(olt::ethernet(olt::ipv6(es), 0x86DD), 1000, 40)
       .add(olt::ethernet(olt::ipv4(es, fragment)), 1000, 50)
       .add(olt::ethernet(olt::ipv4(bundle), 0x0800, {5}), 1000, 60)
       .add(Bytes(whole.begin(), whole.begin() + 60), 1000, 70,
            static_cast<std::uint32_t>(whole.size()));
   writeFile(file, capture.bytes());

   Socket receiver("127.0.0.1");
   Result const r = run({theReplay, "--port", std::to_string(receiver.port()), "--exercise", "7",
                         "--speed", "0", file});
   EXPECT_EQ(r.status, 1) << "damaged packets: " << r.err;
   EXPECT_EQ(r.out.rfind("replayed 2 datagrams (3 PDUs, 304 bytes) as 2 datagrams", 0), 0u)
       << r.out;
   EXPECT_NE(r.out.find("skipped packets: 1 other protocols, 1 IPv6, 1 IPv4 fragments, 1 "
                        "malformed, 1 truncated, 1 not DIS, 0 other ports\n"),
             std::string::npos)
       << r.out;
   EXPECT_NE(r.err.find("IPv6 packets are not replayed"), std::string::npos) << r.err;
   Bytes d;
   ASSERT_TRUE(receiver.receive(d));
   Bytes expected = es;
   expected[1] = 7;
   EXPECT_EQ(d, expected);
   ASSERT_TRUE(receiver.receive(d));
   expected = bundle;
   expected[1] = 7;
   expected[64 + 1] = 7;
   EXPECT_EQ(d, expected);

   // Only port 3001: nothing is DIS to replay, which is a problem to report.
   Result const none = run({theReplay, "--port", std::to_string(receiver.port()), "--udp-port",
                            "3001", "--speed", "0", file});
   EXPECT_EQ(none.status, 1);
   EXPECT_NE(none.err.find("no DIS datagram in " + file), std::string::npos) << none.err;
   EXPECT_NE(none.out.find(" 3 other ports\n"), std::string::npos) << none.out;
}

TEST(ToolReplay, DamagedForeignAndEmptyFiles)
{
   TempDir dir;
   Bytes const es = olt::disPdu(1, 144);
   olt::PcapFile good(olt::theLinkRaw);
   good.add(olt::ipv4(es), 1000, 0).add(olt::ipv4(es), 1000, 1).add(olt::ipv4(es), 1000, 2);
   struct Case
   {
      char const* what;
      Bytes bytes;
      int status;
      char const* message;
      std::size_t received;
   };
   Case const cases[] = {
       {"cut inside the third record", Bytes(good.bytes().begin(), good.bytes().end() - 50), 1,
        ": read error after 2 packets: ", 2},
       {"not a capture", Bytes(100, 'x'), 2, "cannot read ", 0},
       {"header cut", Bytes(good.bytes().begin(), good.bytes().begin() + 12), 2, "cannot read ", 0},
       {"wireless", olt::PcapFile(olt::theLinkIeee80211).add(es).bytes(), 2,
        "link type IEEE802_11 (802.11) is not supported", 0},
       {"no packets", olt::PcapFile(olt::theLinkEthernet).bytes(), 0, "", 0},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      std::string const file = dir.file("case.pcap");
      writeFile(file, c.bytes);
      Socket receiver("127.0.0.1");
      Result const r =
          run({theReplay, "--port", std::to_string(receiver.port()), "--speed", "0", file});
      EXPECT_EQ(r.status, c.status) << r.err;
      EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
      for (std::size_t i = 0; i < c.received; ++i)
      {
         Bytes d;
         ASSERT_TRUE(receiver.receive(d));
         EXPECT_EQ(d, es);
      }
      if (c.status == 2)
      {
         EXPECT_EQ(r.out, "");
      }
   }

   // Looping until interrupted over a file with nothing to send ends by itself.
   std::string const empty = dir.file("empty.pcap");
   writeFile(empty, olt::PcapFile(olt::theLinkEthernet).bytes());
   std::string const arp = dir.file("arp.pcap");
   writeFile(arp,
             olt::PcapFile(olt::theLinkEthernet).add(olt::ethernet(Bytes(28, 0), 0x0806)).bytes());
   Socket receiver("127.0.0.1");
   std::string const port = std::to_string(receiver.port());
   EXPECT_EQ(run({theReplay, "--port", port, "--loop", "0", empty}).status, 0);
   Result const r = run({theReplay, "--port", port, "--loop", "0", "--speed", "0", arp});
   EXPECT_EQ(r.status, 1);
   EXPECT_NE(r.out.find("replayed 0 datagrams"), std::string::npos) << r.out;
   EXPECT_NE(r.out.find("1 other protocols"), std::string::npos) << r.out;
}

// Wireshark's dissector reads what the recorder wrote as DIS, with nothing
// malformed. Runs where tshark is installed.
TEST(ToolRecord, TsharkDissectsTheRecordingAsDis)
{
   if (access("/usr/bin/tshark", X_OK) != 0)
      GTEST_SKIP() << "tshark is not installed";
   TempDir dir;
   std::string const file = dir.file("dis.pcap");
   std::string const port = freePort();
   Tool record({theRecord, "--port", port, "--output", file, "--count", "12"});
   ASSERT_TRUE(record.waitForError("recording")) << record.err();
   Result const send = run({theSend, "--port", port, "--count", "40", "--kind", "mix", "--bundle",
                            "1400", "--rate", "0"});
   ASSERT_EQ(send.status, 0) << send.err;
   Result const sendMore =
       run({theSend, "--port", port, "--count", "8", "--kind", "mix", "--rate", "0"});
   ASSERT_EQ(sendMore.status, 0) << sendMore.err;
   ASSERT_EQ(record.finish(), 0) << record.err();
   std::string const decodeAs = "udp.port==" + port + ",dis";
   Result const all = run({"/usr/bin/tshark", "-n", "-r", file, "-d", decodeAs, "-Y", "dis"});
   ASSERT_EQ(all.status, 0) << all.err;
   EXPECT_EQ(linesOf(all.out).size(), 12u) << all.out;
   Result const bad = run({"/usr/bin/tshark", "-n", "-r", file, "-d", decodeAs, "-Y",
                           "_ws.malformed || _ws.expert.severity >= warning"});
   ASSERT_EQ(bad.status, 0) << bad.err;
   EXPECT_EQ(bad.out, "");
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

// In a namespace with loopback alone no name server can be reached, so the lookup
// fails at once and nothing leaves the machine.
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
   ASSERT_TRUE(ns.ok()) << ns.error();
   ASSERT_TRUE(ns.addVethPair("bc0", "bc1")) << ns.error();
   ASSERT_TRUE(ns.addAddress("bc0", "10.77.0.1/24") && ns.setLinkUp("bc0") && ns.setLinkUp("bc1"))
       << ns.error();

   Result const unmasked = run(
       {theSend, "--dest", "10.77.0.255", "--port", "3000", "--count", "2", "--suppress"}, in(ns));
   EXPECT_EQ(unmasked.status, 1);
   EXPECT_NE(unmasked.err.find("Could not identify localhost interface"), std::string::npos)
       << unmasked.err;
   EXPECT_NE(unmasked.err.find("10.77.0.255/24"), std::string::npos)
       << "the hint: " << unmasked.err;

   for (char const* dest : {"10.77.0.255/24", "10.77.0.255/255.255.255.0"})
   {
      SCOPED_TRACE(dest);
      Tool monitor(
          {theMonitor, "--group", "10.77.0.255/24", "--port", "3000", "--count", "5", "--summary"},
          in(ns));
      ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
      Result const send =
          run({theSend, "--dest", dest, "--port", "3000", "--count", "5", "--suppress"}, in(ns));
      EXPECT_EQ(send.status, 0) << send.err;
      EXPECT_NE(send.out.find("sent 5 PDUs in 5 datagrams to 10.77.0.255:3000"), std::string::npos)
          << send.out;
      ASSERT_EQ(monitor.finish(), 0) << monitor.err();
      EXPECT_EQ(totalsOf(monitor.out()).pdus, 5) << monitor.out();
   }
}

// Two hosts on one link. The sender on the first chooses its interface, time to
// live and multicast loopback; the second host sees the time to live; a monitor
// with suppression beside the sender hears only what loopback lets through.
TEST_F(ToolNetns, MulticastSenderOptions)
{
   olt::TestNetns a, b;
   ASSERT_TRUE(a.ok() && b.ok()) << a.error() << b.error();
   ASSERT_TRUE(a.addVethPair("mca", "mcb")) << a.error();
   ASSERT_TRUE(a.ip({"link", "set", "mcb", "netns", b.name()})) << a.error();
   ASSERT_TRUE(a.addAddress("mca", "10.78.0.1/24") && a.setLinkUp("mca")) << a.error();
   ASSERT_TRUE(b.addAddress("mcb", "10.78.0.2/24") && b.setLinkUp("mcb")) << b.error();

   // The second host's receiver, joined on its side of the link.
   std::unique_ptr<Socket> remote;
   {
      olt::NetnsGuard guard(b);
      ASSERT_TRUE(guard.ok()) << guard.error();
      remote.reset(new Socket("0.0.0.0", 3001, true));
      ip_mreq join{};
      inet_pton(AF_INET, "239.1.2.3", &join.imr_multiaddr);
      inet_pton(AF_INET, "10.78.0.2", &join.imr_interface);
      int const on = 1;
      ASSERT_EQ(setsockopt(remote->fd(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &join, sizeof join), 0);
      ASSERT_EQ(setsockopt(remote->fd(), IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
   }
   ASSERT_TRUE(remote->ok());

   Tool monitor({theMonitor, "--group", "239.1.2.3", "--interface", "mca", "--port", "3001",
                 "--count", "3", "--suppress"},
                in(a));
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   // Exercise 2 without loopback, then exercise 1 with it.
   for (char const* loopback : {"off", "on"})
   {
      SCOPED_TRACE(loopback);
      Result const send = run({theSend, "--dest", "239.1.2.3", "--port", "3001", "--count", "3",
                               "--interface", "mca", "--ttl", "7", "--suppress", "--loopback",
                               loopback, "--exercise", std::string(loopback) == "on" ? "1" : "2"},
                              in(a));
      EXPECT_EQ(send.status, 0) << send.err;
      for (int i = 0; i < 3; ++i)
      {
         Bytes d;
         int ttl = 0;
         ASSERT_TRUE(remote->receive(d, &ttl));
         EXPECT_EQ(d.size(), 144u);
         EXPECT_EQ(ttl, 7);
      }
   }
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   EXPECT_EQ(monitor.out().find("exercise 2"), std::string::npos) << monitor.out();
   Totals const t = totalsOf(monitor.out());
   ASSERT_TRUE(t.found) << monitor.out();
   EXPECT_EQ(t.pdus, 3);
   EXPECT_EQ(t.ownTraffic, 0);
}

// A recorder joined to a group on the second host writes what the first sends with
// the group as destination, the sender's address as source and the time to live
// the datagrams arrived with.
TEST_F(ToolNetns, RecordsAGroupWithItsAddressesAndTimeToLive)
{
   olt::TestNetns a, b;
   ASSERT_TRUE(a.ok() && b.ok()) << a.error() << b.error();
   ASSERT_TRUE(a.addVethPair("rca", "rcb")) << a.error();
   ASSERT_TRUE(a.ip({"link", "set", "rcb", "netns", b.name()})) << a.error();
   ASSERT_TRUE(a.addAddress("rca", "10.79.0.1/24") && a.setLinkUp("rca")) << a.error();
   ASSERT_TRUE(b.addAddress("rcb", "10.79.0.2/24") && b.setLinkUp("rcb")) << b.error();

   TempDir dir;
   std::string const file = dir.file("group.pcap");
   Tool record({theRecord, "--group", "239.1.2.4", "--interface", "rcb", "--port", "3003",
                "--output", file, "--count", "3"},
               in(b));
   ASSERT_TRUE(record.waitForError("group 239.1.2.4")) << record.err();
   Result const send = run({theSend, "--dest", "239.1.2.4", "--interface", "rca", "--port", "3003",
                            "--count", "3", "--ttl", "5"},
                           in(a));
   EXPECT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(record.finish(), 0) << record.err();
   std::vector<Recorded> const records = recordsOf(readFile(file));
   ASSERT_EQ(records.size(), 3u);
   for (Recorded const& r : records)
   {
      EXPECT_EQ(get32(r.packet, 12), 0x0A4F0001u) << "from 10.79.0.1";
      EXPECT_EQ(get32(r.packet, 16), 0xEF010204u) << "to 239.1.2.4";
      EXPECT_EQ(r.packet[8], 5) << "time to live";
      EXPECT_EQ(get16(r.packet, 22), 3003u);
      EXPECT_EQ(r.packet.size(), 28u + 144u);
   }
}

// IPv6 multicast leaves by the interface named, to a monitor on the other host.
TEST_F(ToolNetns, Ipv6MulticastByTheNamedInterface)
{
   olt::TestNetns a, b;
   ASSERT_TRUE(a.ok() && b.ok()) << a.error() << b.error();
   ASSERT_TRUE(a.addVethPair("m6a", "m6b")) << a.error();
   ASSERT_TRUE(a.ip({"link", "set", "m6b", "netns", b.name()})) << a.error();
   ASSERT_TRUE(a.addAddress("m6a", "fd78::1/64") && a.setLinkUp("m6a")) << a.error();
   ASSERT_TRUE(b.addAddress("m6b", "fd78::2/64") && b.setLinkUp("m6b")) << b.error();

   Tool monitor({theMonitor, "--group", "ff15::7:8", "--interface", "m6b", "--port", "3002",
                 "--count", "4", "--summary"},
                in(b));
   ASSERT_TRUE(monitor.waitForError("listening on")) << monitor.err();
   Result const send = run({theSend, "--dest", "ff15::7:8", "--interface", "m6a", "--port", "3002",
                            "--count", "4", "--ttl", "2"},
                           in(a));
   EXPECT_EQ(send.status, 0) << send.err;
   ASSERT_EQ(monitor.finish(), 0) << monitor.err();
   EXPECT_EQ(totalsOf(monitor.out()).pdus, 4) << monitor.out();
}
// ------------------------------------------------------------------ file tools

char const* const theFileSend = OLFILE_SEND_PATH;
char const* const theFileRecv = OLFILE_RECV_PATH;

std::string makeScratchDir()
{
   char pattern[] = "/tmp/olfile-tools-XXXXXX";
   return ::mkdtemp(pattern) ? pattern : "";
}

std::string slurp(std::string const& path)
{
   std::string text;
   if (FILE* file = std::fopen(path.c_str(), "rb"))
   {
      char buffer[65536];
      std::size_t n;
      while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
         text.append(buffer, n);
      std::fclose(file);
   }
   return text;
}

TEST(FileTools, SendAndReceiveAFileWithProgress)
{
   std::string const dir = makeScratchDir();
   ASSERT_FALSE(dir.empty());
   std::string bytes(6u << 20, '\0');
   for (std::size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<char>(i * 7 + i / 4096);
   std::string const source = dir + "/payload.bin";
   {
      FILE* file = std::fopen(source.c_str(), "wb");
      ASSERT_NE(file, nullptr);
      std::fwrite(bytes.data(), 1, bytes.size(), file);
      std::fclose(file);
   }
   ASSERT_EQ(::mkdir((dir + "/in").c_str(), 0700), 0);
   Tool receiver({theFileRecv, "--port", "0", "--dir", dir + "/in", "--once", "--timeout", "60"});
   ASSERT_TRUE(receiver.waitForError("writing into"));
   int port = 0;
   ASSERT_EQ(std::sscanf(receiver.err().c_str(), "olfile-recv: listening on port %d", &port), 1);
   Result const sent = run({theFileSend, "127.0.0.1:" + std::to_string(port), source});
   EXPECT_EQ(sent.status, 0) << sent.err;
   EXPECT_NE(sent.err.find("of 6291456 bytes"), std::string::npos) << sent.err;
   EXPECT_EQ(receiver.finish(), 0) << receiver.err();
   EXPECT_EQ(receiver.out(), dir + "/in/payload.bin\n");
   EXPECT_TRUE(slurp(dir + "/in/payload.bin") == bytes);
   std::system(("rm -rf " + dir).c_str());
}

TEST(FileTools, UsageAndFailures)
{
   struct Case
   {
      char const* what;
      Argv argv;
      int status;
      char const* text;  // on standard error, or on standard output for --help
   } const cases[] = {
       {"send help", {theFileSend, "--help"}, 0, "usage: olfile-send"},
       {"recv help", {theFileRecv, "--help"}, 0, "usage: olfile-recv"},
       {"send without files", {theFileSend, "127.0.0.1"}, 2, "needs HOST[:PORT]"},
       {"send unknown option",
        {theFileSend, "--fast", "127.0.0.1", "x"},
        2,
        "unknown option --fast"},
       {"send bad port", {theFileSend, "127.0.0.1:99999", "x"}, 2, "bad target"},
       {"send missing file",
        {theFileSend, "127.0.0.1:9", "/nonexistent/file"},
        1,
        "error opening file"},
       {"recv bad range", {theFileRecv, "--range", "9-3"}, 2, "bad value for --range"},
       {"recv nothing arrives",
        {theFileRecv, "--port", "0", "--once", "--timeout", "0.2"},
        1,
        "0 files received"},
   };
   for (auto const& test : cases)
   {
      SCOPED_TRACE(test.what);
      Result const result = run(test.argv);
      EXPECT_EQ(result.status, test.status);
      std::string const& text = test.status == 0 ? result.out : result.err;
      EXPECT_NE(text.find(test.text), std::string::npos) << result.out << result.err;
   }
}

}  // namespace
