// oldis-record: receives UDP datagrams on a port (and a multicast group or
// broadcast address) and writes every one, as it arrived, to a pcap file with an
// IPv4 and a UDP header in front, so that Wireshark and tshark dissect it.
//
//   oldis-record [--port N] [--group ADDR[/PREFIX] [--interface NAME]]
//                --output FILE.pcap [--duration S] [--count N] [--rcvbuf BYTES] [--help]
//
// The records are raw IP (link type RAW). Each header carries the datagram's real
// source and destination addresses and ports and its time to live, and each
// record the time the kernel received it. Stops on SIGINT or SIGTERM, after
// --duration seconds or after --count datagrams, and closes the file whole.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <pcap/pcap.h>

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

#include "pcapPackets.h"
#include "toolArgs.h"
#include "toolSockets.h"

namespace
{
using oltool::parseLong;
char const* const theTool = "oldis-record";
using oltool::theDefaultPort;

struct Options : oltool::ReceiveOptions
{
   std::string output;
};

void usage(FILE* out)
{
   std::fprintf(out,
                "usage: oldis-record [options] --output FILE.pcap\n"
                "Writes every UDP datagram that reaches a port, as it arrived, to a pcap file\n"
                "(raw IPv4 with its UDP header, receive times), until interrupted.\n"
                "  --port N          UDP port (default %u)\n"
                "  --group ADDR      join this IPv4 multicast group, or receive this broadcast\n"
                "                    address (with its mask or prefix: 10.77.0.255/24)\n"
                "  --interface NAME  interface for the group, or to receive on (its address)\n"
                "  --output FILE     the pcap file to write (\"-\" for standard output)\n"
                "  --duration S      stop after S seconds (default 0: until interrupted)\n"
                "  --count N         stop after N datagrams (default 0: no limit)\n"
                "  --rcvbuf BYTES    socket receive buffer (default: the system's largest)\n"
                "  --help            this text\n"
                "A line each second on standard error tells what was written; the closing line\n"
                "gives the totals and what the kernel dropped. Wireshark dissects DIS on port\n"
                "3000 by itself; for another port: tshark -d udp.port==N,dis -r FILE.\n",
                theDefaultPort);
}

bool parse(int argc, char** argv, Options& options)
{
   auto const take = [&](std::string const& arg, char const* value)
   {
      if (arg == "--output")
         return oltool::OptionReader::verdict((options.output = value) != "");
      return options.take(arg, value);
   };
   oltool::OptionReader in(theTool, argc, argv);
   if (!in.readAll(usage, {}, take) || in.failed())
      return false;
   if (options.output.empty())
   {
      std::fprintf(stderr, "%s: --output FILE is needed\n", theTool);
      return false;
   }
   return true;
}

struct Counts
{
   long datagrams = 0;
   unsigned long long bytes = 0;
};

// Reads datagrams from the socket with their addresses, time to live and receive
// time, and writes each as one record.
class Recorder
{
public:
   Recorder(int descriptor, pcap_dumper_t* dumper, oltool::KernelDrops& drops)
       : myDescriptor(descriptor), myDumper(dumper), myDrops(drops), myBuffer(65536)
   {
      int const on = 1;
      setsockopt(myDescriptor, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
      setsockopt(myDescriptor, IPPROTO_IP, IP_RECVTTL, &on, sizeof on);
      setsockopt(myDescriptor, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
   }

   // Takes and writes one datagram; false when none was waiting (or the read
   // failed: failed()).
   bool recordOne()
   {
      sockaddr_in from{};
      iovec io{myBuffer.data(), myBuffer.size()};
      alignas(cmsghdr) char control[512];
      msghdr message{};
      message.msg_name = &from;
      message.msg_namelen = sizeof from;
      message.msg_iov = &io;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      ssize_t const length = recvmsg(myDescriptor, &message, MSG_DONTWAIT);
      if (length < 0)
      {
         if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
         {
            std::fprintf(stderr, "%s: read failed: %s\n", theTool, std::strerror(errno));
            myFailed = true;
         }
         return false;
      }
      std::uint32_t destination = 0;
      unsigned int ttl = 64;  // should the kernel not tell
      timespec received{};
      bool stamped = false;
      for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c))
      {
         myDrops.note(*c);
         if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO)
         {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            destination = ntohl(info.ipi_addr.s_addr);
         }
         else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL)
         {
            int value = 0;
            std::memcpy(&value, CMSG_DATA(c), sizeof value);
            ttl = static_cast<unsigned int>(value);
         }
         else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS)
         {
            std::memcpy(&received, CMSG_DATA(c), sizeof received);
            stamped = true;
         }
      }
      if (!stamped)
         clock_gettime(CLOCK_REALTIME, &received);
      std::size_t const size = static_cast<std::size_t>(length);
      if (from.sin_family != AF_INET || size > oltool::theMaxIpv4UdpPayload ||
          (message.msg_flags & MSG_TRUNC))
      {
         ++mySkipped;  // cannot come over IPv4; counted, never written cut
         return true;
      }
      std::vector<unsigned char> const packet = oltool::ipv4UdpPacket(
          ntohl(from.sin_addr.s_addr), ntohs(from.sin_port), destination, myLocalPort, ttl,
          static_cast<std::uint16_t>(myCounts.datagrams & 0xFFFF),
          reinterpret_cast<unsigned char const*>(myBuffer.data()), size);
      pcap_pkthdr header{};
      header.ts.tv_sec = received.tv_sec;
      header.ts.tv_usec = static_cast<suseconds_t>(received.tv_nsec / 1000);
      header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
      pcap_dump(reinterpret_cast<u_char*>(myDumper), &header, packet.data());
      ++myCounts.datagrams;
      myCounts.bytes += size;
      return true;
   }

   void setLocalPort(unsigned short port) { myLocalPort = port; }
   Counts const& counts() const { return myCounts; }
   long skipped() const { return mySkipped; }
   bool failed() const { return myFailed; }

private:
   int myDescriptor;
   pcap_dumper_t* myDumper;
   oltool::KernelDrops& myDrops;
   std::vector<char> myBuffer;
   unsigned short myLocalPort = 0;
   Counts myCounts;
   long mySkipped = 0;
   bool myFailed = false;
};

// Writes what the file's buffer holds; false, with a message, when the write
// failed (a full disk, a closed pipe).
bool flushFile(pcap_dumper_t* dumper, std::string const& name)
{
   if (pcap_dump_flush(dumper) == 0 && !std::ferror(pcap_dump_file(dumper)))
      return true;
   std::fprintf(stderr, "%s: cannot write %s: %s\n", theTool, name.c_str(), std::strerror(errno));
   return false;
}
}  // namespace

int main(int argc, char** argv)
{
   Options options = oltool::optionsOrExit(argc, argv, parse, usage);
   oltool::NotificationToStderr notes(theTool, true);
   oltool::catchInterrupts();
   std::signal(SIGPIPE, SIG_IGN);  // a closed output pipe is a write error, reported

   oltool::Binding binding;
   if (!oltool::makeBinding(theTool, options.group, std::string(), options.interfaceName,
                            options.port, binding))
      return oltool::theExitUsage;
   if (!binding.destination->isIPv4())
   {
      std::fprintf(stderr, "%s: records IPv4 traffic only, not %s\n", theTool,
                   options.group.c_str());
      return oltool::theExitUsage;
   }
   std::unique_ptr<DtDisSocket> socket =
       oltool::openReceiver(theTool, binding, options.port, !options.group.empty(), false);
   if (!socket)
      return oltool::theExitProblem;
   if (options.receiveBuffer > 0 &&
       !socket->setReceiveBufferSize(static_cast<unsigned int>(options.receiveBuffer)))
   {
      std::fprintf(stderr, "%s: %s\n", theTool,
                   oltool::oneLine(socket->getLastErrorString().c_str()).c_str());
      return oltool::theExitProblem;
   }

   // Raw IP records: no link header to invent, and every reader knows the type.
   std::unique_ptr<pcap_t, void (*)(pcap_t*)> dead(pcap_open_dead(DLT_RAW, 65535), pcap_close);
   pcap_dumper_t* dumper = dead ? pcap_dump_open(dead.get(), options.output.c_str()) : nullptr;
   if (!dumper)
   {
      std::fprintf(stderr, "%s: cannot write %s: %s\n", theTool, options.output.c_str(),
                   dead ? pcap_geterr(dead.get()) : "no memory");
      return oltool::theExitProblem;
   }
   bool const toStandardOutput = options.output == "-";
   FILE* const closing = toStandardOutput ? stderr : stdout;

   oltool::KernelDrops drops(socket->receiveDescriptor());
   Recorder recorder(socket->receiveDescriptor(), dumper, drops);
   recorder.setLocalPort(options.port);
   std::fprintf(stderr, "%s: recording %s%s%s to %s\n", theTool,
                socket->localEndpoint().toDtString().c_str(),
                options.group.empty() ? "" : ", group ", options.group.c_str(),
                options.output.c_str());

   typedef std::chrono::steady_clock Clock;
   Clock::time_point const start = Clock::now();
   Clock::time_point nextReport = start + std::chrono::seconds(1);
   Counts reported;
   bool writeFailed = false;
   unsigned long long reportedDrops = 0;
   // A line for each second in which something came or was dropped.
   auto const progress = [&]
   {
      Counts const& now = recorder.counts();
      unsigned long long const dropped = drops.count();
      if (now.datagrams != reported.datagrams || dropped != reportedDrops)
         std::fprintf(stderr,
                      "%s: %s %ld datagrams, %llu bytes; %ld in all, %llu dropped by the kernel\n",
                      theTool, oltool::clockText().c_str(), now.datagrams - reported.datagrams,
                      now.bytes - reported.bytes, now.datagrams, dropped);
      reported = now;
      reportedDrops = dropped;
      writeFailed = writeFailed || !flushFile(dumper, options.output);
   };
   auto const countReached = [&]
   { return options.count > 0 && recorder.counts().datagrams >= options.count; };
   while (!oltool::theInterrupted && !recorder.failed() && !writeFailed && !countReached())
   {
      Clock::time_point const now = Clock::now();
      if (options.duration > 0 && now - start >= std::chrono::duration<double>(options.duration))
         break;
      if (now >= nextReport)
      {
         progress();
         nextReport += std::chrono::seconds(1);
      }
      pollfd fd{socket->receiveDescriptor(), POLLIN, 0};
      if (::poll(&fd, 1, 100) > 0)
         recorder.recordOne();
   }
   // What had arrived when the recorder was told to stop goes into the file too,
   // within a bound.
   for (long n = 0; n < 1000000 && !countReached() && !recorder.failed() && recorder.recordOne();
        ++n)
   {
   }
   writeFailed = writeFailed || !flushFile(dumper, options.output);
   pcap_dump_close(dumper);
   double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
   Counts const& total = recorder.counts();
   std::fprintf(closing,
                "recorded %ld datagrams, %llu bytes in %.2f s to %s; %llu dropped by the kernel",
                total.datagrams, total.bytes, seconds, options.output.c_str(), drops.count());
   if (recorder.skipped())
      std::fprintf(closing, "; %ld not recorded (not IPv4, or too big)", recorder.skipped());
   std::fprintf(closing, "\n");
   std::fflush(closing);
   socket->closeSocket();
   return recorder.failed() || writeFailed ? oltool::theExitProblem : 0;
}
