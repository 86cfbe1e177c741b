// DIS tools: the packets of a capture file, from the link layer to the UDP
// payload, and the IPv4 and UDP headers that oldis-record puts in front of each
// datagram it writes. libpcap reads and writes the files; this header reads and
// builds what lies inside a packet record. It needs libpcap's link-type numbers
// only, not the library itself.
//
// Link types read: Ethernet (with up to two VLAN tags), Linux cooked captures
// (SLL and SLL2, what "tcpdump -i any" writes), raw IP, and the loopback
// headers of BSD (null and loop). Of the network layer, IPv4 only: an IPv6
// packet, an IPv4 fragment or a packet of another protocol is reported as such,
// and nothing is read past the bytes captured.
#ifndef OLUTIL_TOOLS_PCAPPACKETS_H
#define OLUTIL_TOOLS_PCAPPACKETS_H

#include <pcap/dlt.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace oltool
{

// What a packet record holds, as far as a UDP payload is concerned.
enum class PacketKind
{
   Udp,            // an IPv4 UDP datagram; the payload is whole
   OtherProtocol,  // not IP (ARP, ...), or IPv4 but not UDP
   Ipv6,           // IPv6 (not replayed)
   Fragment,       // an IPv4 fragment: the datagram cannot be had whole
   Malformed,      // headers that contradict each other or the record
   Truncated       // the capture cut the packet short (its snapshot length)
};

inline char const* packetKindName(PacketKind kind)
{
   switch (kind)
   {
      case PacketKind::Udp:
         return "UDP";
      case PacketKind::OtherProtocol:
         return "other protocol";
      case PacketKind::Ipv6:
         return "IPv6";
      case PacketKind::Fragment:
         return "IPv4 fragment";
      case PacketKind::Malformed:
         return "malformed";
      case PacketKind::Truncated:
         return "truncated";
   }
   return "?";
}

// A packet's UDP datagram: addresses and ports in host order, and the payload
// inside the record's bytes. Only `kind` is set unless it is PacketKind::Udp.
struct UdpPacket
{
   PacketKind kind = PacketKind::Malformed;
   std::uint32_t source = 0;
   std::uint32_t destination = 0;
   std::uint16_t sourcePort = 0;
   std::uint16_t destinationPort = 0;
   unsigned int ttl = 0;
   unsigned char const* payload = nullptr;
   std::size_t size = 0;
};

// Link types as libpcap's pcap_datalink() reports them.
inline bool isSupportedLinkType(int linkType)
{
   switch (linkType)
   {
      case DLT_EN10MB:
      case DLT_LINUX_SLL:
      case DLT_LINUX_SLL2:
      case DLT_RAW:
      case DLT_IPV4:
      case DLT_NULL:
      case DLT_LOOP:
         return true;
      default:
         return false;
   }
}

namespace detail
{
inline unsigned int get16(unsigned char const* p)
{
   return static_cast<unsigned int>(p[0]) << 8 | p[1];
}
inline std::uint32_t get32(unsigned char const* p)
{
   return static_cast<std::uint32_t>(get16(p)) << 16 | get16(p + 2);
}

unsigned int const theEtherIpv4 = 0x0800;
unsigned int const theEtherIpv6 = 0x86DD;
// The address families that mean IPv6 in BSD loopback headers (Linux, the BSDs,
// Darwin); 2 is IPv4 on all of them.
inline bool isBsdIpv6Family(std::uint32_t family)
{
   return family == 10 || family == 24 || family == 28 || family == 30;
}

// The IPv4 packet at data[0, size); `cut` is true when the capture kept less
// than the packet's length on the wire.
inline UdpPacket udpFromIpv4(unsigned char const* data, std::size_t size, bool cut)
{
   UdpPacket packet;
   if (size < 20)
   {
      packet.kind = cut ? PacketKind::Truncated : PacketKind::Malformed;
      return packet;
   }
   std::size_t const headerLength = static_cast<std::size_t>(data[0] & 0x0F) * 4;
   if ((data[0] >> 4) != 4 || headerLength < 20)
      return packet;  // malformed
   std::size_t const totalLength = get16(data + 2);
   if (totalLength < headerLength)
      return packet;  // malformed
   unsigned int const fragment = get16(data + 6);
   if ((fragment & 0x2000) || (fragment & 0x1FFF))
   {
      packet.kind = PacketKind::Fragment;
      return packet;
   }
   if (data[9] != 17)
   {
      packet.kind = PacketKind::OtherProtocol;
      return packet;
   }
   // Bytes past the IP length are link padding (Ethernet's minimum frame).
   if (totalLength > size || headerLength + 8 > totalLength)
   {
      packet.kind = totalLength > size && cut ? PacketKind::Truncated : PacketKind::Malformed;
      return packet;
   }
   unsigned char const* udp = data + headerLength;
   std::size_t const udpLength = get16(udp + 4);
   if (udpLength < 8 || udpLength > totalLength - headerLength)
      return packet;  // malformed
   packet.kind = PacketKind::Udp;
   packet.ttl = data[8];
   packet.source = get32(data + 12);
   packet.destination = get32(data + 16);
   packet.sourcePort = static_cast<std::uint16_t>(get16(udp));
   packet.destinationPort = static_cast<std::uint16_t>(get16(udp + 2));
   packet.payload = udp + 8;
   packet.size = udpLength - 8;
   return packet;
}

// The packet of network protocol `etherType` (an Ethernet type) at data[0, size).
inline UdpPacket udpFromNetwork(unsigned int etherType, unsigned char const* data, std::size_t size,
                                bool cut)
{
   UdpPacket packet;
   if (etherType == theEtherIpv4)
      return udpFromIpv4(data, size, cut);
   packet.kind = etherType == theEtherIpv6 ? PacketKind::Ipv6 : PacketKind::OtherProtocol;
   return packet;
}

// A link header shorter than its fixed size.
inline UdpPacket shortLinkHeader(bool cut)
{
   UdpPacket packet;
   packet.kind = cut ? PacketKind::Truncated : PacketKind::Malformed;
   return packet;
}
}  // namespace detail

// The UDP datagram in a packet record of link type `linkType`: `captured` bytes
// at `data`, of a packet `wireLength` bytes long when it was captured.
inline UdpPacket udpFromPacket(int linkType, unsigned char const* data, std::size_t captured,
                               std::size_t wireLength)
{
   using namespace detail;
   bool const cut = captured < wireLength;
   switch (linkType)
   {
      case DLT_EN10MB:
      {
         if (captured < 14)
            return shortLinkHeader(cut);
         std::size_t at = 12;
         unsigned int type = get16(data + at);
         // 802.1Q, 802.1ad and the older QinQ tag: up to two tags.
         for (int tags = 0; tags < 2 && (type == 0x8100 || type == 0x88A8 || type == 0x9100);
              ++tags)
         {
            at += 4;
            if (captured < at + 2)
               return shortLinkHeader(cut);
            type = get16(data + at);
         }
         at += 2;
         return udpFromNetwork(type, data + at, captured - at, cut);
      }
      case DLT_LINUX_SLL:
         if (captured < 16)
            return shortLinkHeader(cut);
         return udpFromNetwork(get16(data + 14), data + 16, captured - 16, cut);
      case DLT_LINUX_SLL2:
         if (captured < 20)
            return shortLinkHeader(cut);
         return udpFromNetwork(get16(data), data + 20, captured - 20, cut);
      case DLT_RAW:
      case DLT_IPV4:
      {
         if (captured < 1)
            return shortLinkHeader(cut);
         unsigned int const version = data[0] >> 4;
         UdpPacket packet;
         if (version == 6 && linkType == DLT_RAW)
            packet.kind = PacketKind::Ipv6;
         else if (version == 4)
            return udpFromIpv4(data, captured, cut);
         return packet;  // malformed: no IP version
      }
      case DLT_NULL:
      case DLT_LOOP:
      {
         if (captured < 4)
            return shortLinkHeader(cut);
         // DLT_LOOP has the family in network order; DLT_NULL in the order of the
         // machine that captured, which may not be this one: both are tried.
         std::uint32_t const big = get32(data);
         std::uint32_t const little = static_cast<std::uint32_t>(data[3]) << 24 |
                                      static_cast<std::uint32_t>(data[2]) << 16 |
                                      static_cast<std::uint32_t>(data[1]) << 8 | data[0];
         UdpPacket packet;
         packet.kind = PacketKind::OtherProtocol;
         if (big == 2 || (linkType == DLT_NULL && little == 2))
            return udpFromIpv4(data + 4, captured - 4, cut);
         if (isBsdIpv6Family(big) || (linkType == DLT_NULL && isBsdIpv6Family(little)))
            packet.kind = PacketKind::Ipv6;
         return packet;
      }
      default:
         return UdpPacket();
   }
}

// The one's complement sum of 16-bit words, as the IP and UDP checksums add.
inline std::uint32_t internetSum(unsigned char const* data, std::size_t size, std::uint32_t sum)
{
   for (std::size_t i = 0; i + 1 < size; i += 2)
      sum += static_cast<std::uint32_t>(data[i]) << 8 | data[i + 1];
   if (size & 1)
      sum += static_cast<std::uint32_t>(data[size - 1]) << 8;
   return sum;
}

inline std::uint16_t foldSum(std::uint32_t sum)
{
   while (sum >> 16)
      sum = (sum & 0xFFFF) + (sum >> 16);
   return static_cast<std::uint16_t>(~sum & 0xFFFF);
}

// Largest UDP payload that fits in one IPv4 packet.
std::size_t const theMaxIpv4UdpPayload = 65535 - 20 - 8;

// An IPv4 packet (header with its checksum, no options) holding a UDP datagram
// with its checksum, around `size` bytes of payload (at most
// theMaxIpv4UdpPayload). Addresses and ports in host order.
inline std::vector<unsigned char> ipv4UdpPacket(std::uint32_t source, std::uint16_t sourcePort,
                                                std::uint32_t destination,
                                                std::uint16_t destinationPort, unsigned int ttl,
                                                std::uint16_t identification,
                                                unsigned char const* payload, std::size_t size)
{
   std::vector<unsigned char> packet(28 + size, 0);
   auto put16 = [&](std::size_t at, unsigned int v)
   {
      packet[at] = static_cast<unsigned char>(v >> 8);
      packet[at + 1] = static_cast<unsigned char>(v);
   };
   auto put32 = [&](std::size_t at, std::uint32_t v)
   {
      put16(at, v >> 16);
      put16(at + 2, v & 0xFFFF);
   };
   packet[0] = 0x45;
   put16(2, static_cast<unsigned int>(28 + size));
   put16(4, identification);
   packet[8] = static_cast<unsigned char>(ttl);
   packet[9] = 17;
   put32(12, source);
   put32(16, destination);
   put16(10, foldSum(internetSum(packet.data(), 20, 0)));
   put16(20, sourcePort);
   put16(22, destinationPort);
   put16(24, static_cast<unsigned int>(8 + size));
   if (size)
      std::copy(payload, payload + size, packet.begin() + 28);
   // The pseudo-header: addresses, protocol and UDP length; then the datagram.
   std::uint32_t sum =
       internetSum(packet.data() + 12, 8, 0) + 17 + 8 + static_cast<std::uint32_t>(size);
   sum = internetSum(packet.data() + 20, 8 + size, sum);
   std::uint16_t checksum = foldSum(sum);
   put16(26, checksum == 0 ? 0xFFFF : checksum);  // 0 would mean "no checksum"
   return packet;
}

}  // namespace oltool

#endif  // OLUTIL_TOOLS_PCAPPACKETS_H
