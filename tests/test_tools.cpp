// Tests of the DIS tools, oldis-send and oldis-monitor, run as built: their
// options and errors, what the sender puts on the wire, what the monitor counts,
// and (with root) broadcast, multicast and host lookups inside network namespaces.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_netns.h"

namespace
{
typedef std::vector<std::string> Argv;
typedef std::vector<unsigned char> Bytes;

char const* const theSend = OLDIS_SEND_PATH;
char const* const theMonitor = OLDIS_MONITOR_PATH;

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
       {theMonitor, {"--listen", "--rcvbuf", "--suppress", "--duration", "until interrupted"}},
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
   for (char const* length : {"length 16\n", "length 30\n", "length 40\n", "length 50\n"})
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
   EXPECT_TRUE(monitor.waitForOutput("exercise 9 kind 1 length 144\n")) << monitor.out();
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
}  // namespace
