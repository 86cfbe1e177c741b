//===- olInetSocketUtils.cpp - Chain helpers for sockets -------------------===//
//
// Family: Sockets.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetSocketUtils.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <boost/asio/ip/udp.hpp>

namespace
{
// Above any UDP payload: the most a read into one buffer needs.
constexpr std::size_t theLargestDatagram = 65536;
}  // namespace

namespace
{

struct OptionNames
{
   char const* name;  // after "set" or "get"
   char const* what;  // in the failure text
};

// In the order of DtInetSockOption.
constexpr OptionNames theOptionNames[] = {
    {"ReuseAddressOption", "address reuse"},   {"DoNotRouteOption", "do-not-route"},
    {"NonBlockingOption", "non-blocking IO"},  {"SendBufferSize", "send buffer size"},
    {"ReceiveBufferSize", "receive buffer size"}, {"SendLowWatermark", "send low watermark"},
    {"ReceiveLowWatermark", "receive low watermark"}};

bool isOnOff(DtInetSockOption option)
{
   return option == DtInetSockOptionReuseAddress || option == DtInetSockOptionDoNotRoute ||
          option == DtInetSockOptionNonBlocking;
}

}  // namespace

std::string DtInetSockOptionSetFailure(char const* owner, DtInetSockOption option,
                                       unsigned int value)
{
   OptionNames const& names = theOptionNames[option];
   std::string text = std::string(owner) + "::set" + names.name + "(): Error ";
   if (isOnOff(option))
      return text + (value != 0 ? "enabling " : "disabling ") + names.what + "\n";
   return text + "setting " + names.what + " to " + std::to_string(value);
}

std::string DtInetSockOptionReadFailure(char const* owner, DtInetSockOption option)
{
   OptionNames const& names = theOptionNames[option];
   return std::string(owner) + "::get" + names.name + "(): Error reading " + names.what;
}

std::size_t DtInetSockChainSize(DtInetSockChain const& chain)
{
   std::size_t total = 0;
   for (std::vector<char> const* buffer : chain)
   {
      if (buffer)
         total += buffer->size();
   }
   return total;
}

bool DtInetSockCopyToChain(char const* data, std::size_t length, DtInetSockChain& chain)
{
   for (std::vector<char>* buffer : chain)
   {
      if (length == 0)
         break;
      if (!buffer || buffer->empty())
         continue;
      std::size_t const piece = std::min(length, buffer->size());
      std::memcpy(buffer->data(), data, piece);
      data += piece;
      length -= piece;
   }
   return length == 0;
}

void DtInetSockGatherChain(DtInetSockChain const& chain, std::vector<char>& target)
{
   target.clear();
   target.reserve(DtInetSockChainSize(chain));
   for (std::vector<char> const* buffer : chain)
   {
      if (buffer)
         target.insert(target.end(), buffer->begin(), buffer->end());
   }
}

bool DtInetSockWithinGatherLimit(DtInetSockChain const& chain)
{
   std::size_t used = 0;
   for (std::vector<char> const* buffer : chain)
   {
      if (buffer && !buffer->empty() && ++used > DtInetSockGatherLimit)
         return false;
   }
   return true;
}

// Out of line on purpose: compiled where the sockets read, a second use of
// Boost.Asio's one-buffer read stopped the compiler inlining the UDP socket's own,
// the path of every single-PDU DIS read (1.5% slower in bench_dis, case 1).
std::size_t DtInetSockSendGathered(DtInetBoostUdpSocket& socket, DtInetSockChain const& chain,
                                   DtInetEndpoint::UdpEndpoint const& target,
                                   boost::system::error_code& error)
{
   std::vector<char> joined;
   DtInetSockGatherChain(chain, joined);
   return socket.send_to(boost::asio::buffer(joined), target, 0, error);
}

std::size_t DtInetSockReceiveScattered(DtInetBoostUdpSocket& socket, DtInetSockChain& chain,
                                       DtInetEndpoint::UdpEndpoint& sender, int flags,
                                       boost::system::error_code& error)
{
   // Left uninitialised: the read fills what is scattered.
   std::size_t const size = std::min(DtInetSockChainSize(chain), theLargestDatagram);
   std::unique_ptr<char[]> joined(new char[size]);
   std::size_t const bytes =
       socket.receive_from(boost::asio::buffer(joined.get(), size), sender, flags, error);
   if (!error)
      DtInetSockCopyToChain(joined.get(), std::min(bytes, size), chain);
   return bytes;
}
