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

// The failure texts of one option, whole, as each socket class records them.
struct OptionTexts
{
   char const* set;     // an on/off option adds "enabling" or "disabling" and `ending`
   char const* ending;  // null for a size, which ends with the number
   char const* read;
};

// In the order of DtInetSockOption.
constexpr OptionTexts theUdpOptionTexts[] = {
    {"DtInetUdpSocket::setReuseAddressOption(): Error ", " address reuse\n",
     "DtInetUdpSocket::getReuseAddressOption(): Error reading address reuse"},
    {"DtInetUdpSocket::setDoNotRouteOption(): Error ", " do-not-route\n",
     "DtInetUdpSocket::getDoNotRouteOption(): Error reading do-not-route"},
    {"DtInetUdpSocket::setNonBlockingOption(): Error ", " non-blocking IO\n",
     "DtInetUdpSocket::getNonBlockingOption(): Error reading non-blocking IO"},
    {"DtInetUdpSocket::setSendBufferSize(): Error setting send buffer size to ", nullptr,
     "DtInetUdpSocket::getSendBufferSize(): Error reading send buffer size"},
    {"DtInetUdpSocket::setReceiveBufferSize(): Error setting receive buffer size to ", nullptr,
     "DtInetUdpSocket::getReceiveBufferSize(): Error reading receive buffer size"},
    {"DtInetUdpSocket::setSendLowWatermark(): Error setting send low watermark to ", nullptr,
     "DtInetUdpSocket::getSendLowWatermark(): Error reading send low watermark"},
    {"DtInetUdpSocket::setReceiveLowWatermark(): Error setting receive low watermark to ", nullptr,
     "DtInetUdpSocket::getReceiveLowWatermark(): Error reading receive low watermark"},
};
constexpr OptionTexts theTcpOptionTexts[] = {
    {"DtInetTcpSocket::setReuseAddressOption(): Error ", " address reuse\n",
     "DtInetTcpSocket::getReuseAddressOption(): Error reading address reuse"},
    {"DtInetTcpSocket::setDoNotRouteOption(): Error ", " do-not-route\n",
     "DtInetTcpSocket::getDoNotRouteOption(): Error reading do-not-route"},
    {"DtInetTcpSocket::setNonBlockingOption(): Error ", " non-blocking IO\n",
     "DtInetTcpSocket::getNonBlockingOption(): Error reading non-blocking IO"},
    {"DtInetTcpSocket::setSendBufferSize(): Error setting send buffer size to ", nullptr,
     "DtInetTcpSocket::getSendBufferSize(): Error reading send buffer size"},
    {"DtInetTcpSocket::setReceiveBufferSize(): Error setting receive buffer size to ", nullptr,
     "DtInetTcpSocket::getReceiveBufferSize(): Error reading receive buffer size"},
    {"DtInetTcpSocket::setSendLowWatermark(): Error setting send low watermark to ", nullptr,
     "DtInetTcpSocket::getSendLowWatermark(): Error reading send low watermark"},
    {"DtInetTcpSocket::setReceiveLowWatermark(): Error setting receive low watermark to ", nullptr,
     "DtInetTcpSocket::getReceiveLowWatermark(): Error reading receive low watermark"},
};

OptionTexts const& textsOf(DtInetProtocol protocol, DtInetSockOption option)
{
   return protocol == DtInetProtocolTcp ? theTcpOptionTexts[option] : theUdpOptionTexts[option];
}

}  // namespace

std::string DtInetSockOptionSetFailure(DtInetProtocol protocol, DtInetSockOption option,
                                       unsigned int value)
{
   OptionTexts const& texts = textsOf(protocol, option);
   if (texts.ending)
      return std::string(texts.set) + (value != 0 ? "enabling" : "disabling") + texts.ending;
   return texts.set + std::to_string(value);
}

std::string DtInetSockOptionReadFailure(DtInetProtocol protocol, DtInetSockOption option)
{
   return textsOf(protocol, option).read;
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
