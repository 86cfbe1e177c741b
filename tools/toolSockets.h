// Sockets of the DIS tools: where a receiving tool listens (a group, a broadcast
// address with its mask, a local address, an interface), the kernel's count of
// datagrams it dropped for a socket; where a sending tool sends and the socket it
// opens, and a DtDisSocket that counts the datagrams that actually leave when it
// bundles.
#ifndef OLUTIL_TOOLS_TOOLSOCKETS_H
#define OLUTIL_TOOLS_TOOLSOCKETS_H

#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>

#include "toolArgs.h"

namespace oltool
{

// The UDP port of DIS traffic where no option names another.
unsigned short const theDefaultPort = 3000;

// The options of a receiving tool: where it listens, for how long and for how
// many, and its receive buffer. Values the tool's own options do not take go to
// take(), which returns its verdict.
struct ReceiveOptions
{
   unsigned short port = theDefaultPort;
   std::string group;
   std::string interfaceName;
   double duration = 0.0;
   long count = 0;
   long receiveBuffer = 0;

   OptionReader::Verdict take(std::string const& arg, char const* value)
   {
      long number = 0;
      bool ok = true;
      if (arg == "--port" && (ok = parseLong(value, 1, 65535, number)))
         port = static_cast<unsigned short>(number);
      else if (arg == "--group")
         group = value;
      else if (arg == "--interface")
         interfaceName = value;
      else if (arg == "--duration")
         ok = parseNonNegative(value, duration);
      else if (arg == "--count" && (ok = parseLong(value, 0, 1000000000, number)))
         count = number;
      else if (arg == "--rcvbuf")
         ok = parseLong(value, 1, 0x7FFFFFFF, receiveBuffer);
      else if (ok)
         return OptionReader::Unknown;
      return OptionReader::verdict(ok);
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
         note(*c);
      return static_cast<long>(length);
   }

   // Notes the drop count of a datagram's control message, if it is one.
   void note(cmsghdr const& c)
   {
      if (c.cmsg_level != SOL_SOCKET || c.cmsg_type != SO_RXQ_OVFL)
         return;
      std::uint32_t dropped = 0;
      std::memcpy(&dropped, CMSG_DATA(&c), sizeof dropped);
      if (dropped > myCarried)
         myCarried = dropped;
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

// What a receiving tool listens on: the socket's destination (a group, a
// broadcast address, or the address to listen on) and the interface, if one was
// named.
struct Binding
{
   std::unique_ptr<DtInetEndpoint> destination;
   std::unique_ptr<DtInetDevice> device;
};

// The binding for --group, --listen and --interface (at most one of the first
// two); false, with a message, when a text is unusable.
inline bool makeBinding(char const* tool, std::string const& group, std::string const& listen,
                        std::string const& interfaceName, unsigned short port, Binding& binding)
{
   std::string error;
   std::string const& text = !group.empty()    ? group
                             : !listen.empty() ? listen
                                               : std::string("0.0.0.0");
   binding.destination = makeEndpoint(text, port, error);
   if (!binding.destination)
   {
      std::fprintf(stderr, "%s: bad %s %s: %s\n", tool, group.empty() ? "listen address" : "group",
                   text.c_str(), error.c_str());
      return false;
   }
   DtInetAddr const& address = binding.destination->address();
   if (!group.empty() && !address.isMulticast() && !address.isBroadcast())
   {
      std::fprintf(stderr, "%s: %s is neither a multicast group nor a broadcast address\n", tool,
                   text.c_str());
      hintAtMissingMask(tool, text, *binding.destination);
      return false;
   }
   // A local address to listen on binds that address: the socket is given the
   // interface that bears it.
   DtString deviceText;
   if (!interfaceName.empty())
      deviceText = interfaceName.c_str();
   else if (!listen.empty() && !address.isAnyAddr())
      deviceText = address.toDtString();
   if (!deviceText.isEmpty())
   {
      binding.device.reset(new DtInetDevice(deviceText, binding.destination->family()));
      if (!binding.device->isOk())
      {
         std::fprintf(stderr, "%s: no interface for %s: %s\n", tool, deviceText.c_str(),
                      oneLine(binding.device->getLastErrorString().c_str()).c_str());
         return false;
      }
   }
   return true;
}

// Opens a receiving DtDisSocket on a binding. A unicast destination with no
// device binds the any-address: the tool hears whatever reaches the port. A group
// destination joins the group. Address reuse only with a group: a plain port held
// by another socket must be refused, not silently shared. Null, with a message
// naming the port, when the socket does not open.
inline std::unique_ptr<DtDisSocket> openReceiver(char const* tool, Binding& binding,
                                                 unsigned short port, bool shared, bool suppress)
{
   unsigned int flags = (DtInetSockFlagsDefault | DtInetSockFlagNonBlocking);
   if (!shared)
      flags &= ~static_cast<unsigned int>(DtInetSockFlagReuseAddress);
   std::unique_ptr<DtDisSocket> socket(
       new DtDisSocket(*binding.destination, port, binding.device.get(), flags, false, suppress));
   if (!socket->openSocket())
   {
      std::fprintf(stderr, "%s: cannot listen on port %u: %s\n", tool,
                   static_cast<unsigned int>(port),
                   oneLine(socket->getLastErrorString().c_str()).c_str());
      socket.reset();
   }
   return socket;
}

// The destination of a sending tool, from its --dest and --port, with the hint at
// a missing mask; null, with the message, when it is unusable.
inline std::unique_ptr<DtInetEndpoint> sendDestination(char const* tool, std::string const& text,
                                                       unsigned short port)
{
   std::string error;
   std::unique_ptr<DtInetEndpoint> destination = makeEndpoint(text, port, error);
   if (destination)
      hintAtMissingMask(tool, text, *destination);
   else
      std::fprintf(stderr, "%s: bad destination %s: %s\n", tool, text.c_str(), error.c_str());
   return destination;
}

// Opens a sending socket on a port of its own: local port 0 would mean the
// destination's port, and a unicast sender would share (and compete for) the
// receiver's. False, with the message, when it cannot be opened.
inline bool openSender(char const* tool, DtDisSocket& socket, DtInetEndpoint const& destination)
{
   socket.setLocalPort(0);
   if (socket.openSocket())
      return true;
   std::fprintf(stderr, "%s: cannot open a socket to %s: %s\n", tool,
                destination.toDtString().c_str(),
                oneLine(socket.getLastErrorString().c_str()).c_str());
   return false;
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

}  // namespace oltool

#endif  // OLUTIL_TOOLS_TOOLSOCKETS_H
