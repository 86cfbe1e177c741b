// Test support: capture files and packets written byte by byte, without libpcap,
// so that the tools' readers and writers are checked against the file format
// itself: the classic pcap header and records, Ethernet, Linux cooked and
// loopback link headers, IPv4 and IPv6 headers and UDP.
#ifndef OLUTIL_TESTS_SUPPORT_PCAP_H
#define OLUTIL_TESTS_SUPPORT_PCAP_H

#include <cstdint>
#include <vector>

namespace olt
{
typedef std::vector<unsigned char> PcapBytes;

// Link-type numbers as a file stores them.
std::uint32_t const theLinkEthernet = 1;
std::uint32_t const theLinkRaw = 101;

inline void putLe32(PcapBytes& b, std::uint32_t v)
{
   for (int i = 0; i < 4; ++i)
      b.push_back(static_cast<unsigned char>(v >> (8 * i)));
}

inline void putBe16(PcapBytes& b, unsigned int v)
{
   b.push_back(static_cast<unsigned char>(v >> 8));
   b.push_back(static_cast<unsigned char>(v));
}

inline void putBe32(PcapBytes& b, std::uint32_t v)
{
   putBe16(b, v >> 16);
   putBe16(b, v & 0xFFFF);
}

// A classic pcap file: little-endian, microseconds, version 2.4.
class PcapFile
{
public:
   explicit PcapFile(std::uint32_t linkType)
   {
      for (std::uint32_t v : {0xA1B2C3D4u, 0x00040002u, 0u, 0u, 65535u, linkType})
         putLe32(myBytes, v);  // magic, version 2.4, time zone, accuracy, snapshot length
   }

   // A record of `packet`; `wireLength` 0 means the packet was captured whole.
   PcapFile& add(PcapBytes const& packet, std::uint32_t seconds = 1000, std::uint32_t micros = 0,
                 std::uint32_t wireLength = 0)
   {
      putLe32(myBytes, seconds);
      putLe32(myBytes, micros);
      putLe32(myBytes, static_cast<std::uint32_t>(packet.size()));
      putLe32(myBytes, wireLength ? wireLength : static_cast<std::uint32_t>(packet.size()));
      myBytes.insert(myBytes.end(), packet.begin(), packet.end());
      return *this;
   }

   PcapBytes const& bytes() const { return myBytes; }

private:
   PcapBytes myBytes;
};

// One's complement sum over 16-bit words, for the test's own checksums.
inline std::uint32_t sum16(unsigned char const* p, std::size_t n, std::uint32_t sum = 0)
{
   for (std::size_t i = 0; i + 1 < n; i += 2)
      sum += static_cast<std::uint32_t>(p[i]) << 8 | p[i + 1];
   if (n & 1)
      sum += static_cast<std::uint32_t>(p[n - 1]) << 8;
   while (sum >> 16)
      sum = (sum & 0xFFFF) + (sum >> 16);
   return sum;
}

// What an IPv4 UDP packet from 127.0.0.1:40000 to 127.0.0.1 differs in.
struct Ipv4Udp
{
   unsigned int destinationPort = 3000;
   unsigned int fragment = 0;  // flags and offset
   int udpLengthDelta = 0;     // added to the UDP length field
};

// An IPv4 packet with a UDP header around `payload`, time to live 64.
inline PcapBytes ipv4(PcapBytes const& payload, Ipv4Udp const& h = Ipv4Udp())
{
   PcapBytes p{0x45, 0};
   putBe16(p, static_cast<unsigned int>(28 + payload.size()));
   putBe16(p, 1);
   putBe16(p, h.fragment);
   p.push_back(64);
   p.push_back(17);
   putBe16(p, 0);
   putBe32(p, 0x7F000001);
   putBe32(p, 0x7F000001);
   std::uint32_t const ipSum = ~sum16(p.data(), 20) & 0xFFFF;
   p[10] = static_cast<unsigned char>(ipSum >> 8);
   p[11] = static_cast<unsigned char>(ipSum);
   putBe16(p, 40000);
   putBe16(p, h.destinationPort);
   putBe16(p, static_cast<unsigned int>(static_cast<int>(8 + payload.size()) + h.udpLengthDelta));
   putBe16(p, 0);  // no checksum
   p.insert(p.end(), payload.begin(), payload.end());
   return p;
}

// An IPv6 packet from ::1 to ::1 with a UDP header around `payload`.
inline PcapBytes ipv6(PcapBytes const& payload)
{
   PcapBytes p{0x60, 0, 0, 0};
   putBe16(p, static_cast<unsigned int>(8 + payload.size()));
   p.push_back(17);
   p.push_back(64);
   for (int i = 0; i < 2; ++i)
   {
      p.insert(p.end(), 15, 0);
      p.push_back(1);
   }
   for (unsigned int v : {40000u, 3000u, static_cast<unsigned int>(8 + payload.size()), 0u})
      putBe16(p, v);
   p.insert(p.end(), payload.begin(), payload.end());
   return p;
}

// An Ethernet frame of `etherType`, with the VLAN tags given (802.1Q ids).
inline PcapBytes ethernet(PcapBytes const& network, unsigned int etherType = 0x0800,
                          std::vector<unsigned int> const& vlans = {})
{
   PcapBytes f{0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
   for (unsigned int vlan : vlans)
   {
      putBe16(f, 0x8100);
      putBe16(f, vlan);
   }
   putBe16(f, etherType);
   f.insert(f.end(), network.begin(), network.end());
   return f;
}

// A Linux cooked header (version 1 or 2) of an incoming loopback packet.
inline PcapBytes cooked(int version, PcapBytes const& network, unsigned int protocol = 0x0800)
{
   PcapBytes f;
   if (version == 1)
   {
      for (unsigned int v : {0u, 772u, 6u, 0u, 0u, 0u, 0u, protocol})  // address length 6
         putBe16(f, v);
   }
   else
   {
      for (unsigned int v : {protocol, 0u, 0u, 1u, 772u, 6u, 0u, 0u, 0u, 0u})  // interface 1
         putBe16(f, v);
   }
   f.insert(f.end(), network.begin(), network.end());
   return f;
}

// A BSD loopback header: the address family in network order (LOOP) or
// little-endian (NULL, as a little-endian machine writes it).
inline PcapBytes loopback(std::uint32_t family, bool networkOrder, PcapBytes const& network)
{
   PcapBytes f;
   if (networkOrder)
      putBe32(f, family);
   else
      putLe32(f, family);
   f.insert(f.end(), network.begin(), network.end());
   return f;
}

// A DIS PDU header of `length` bytes in all, version 7, the rest 0x55.
inline PcapBytes disPdu(unsigned int kind, unsigned int length, unsigned int exercise = 1,
                        unsigned int version = 7)
{
   PcapBytes p(length, 0x55);
   p[0] = static_cast<unsigned char>(version);
   p[1] = static_cast<unsigned char>(exercise);
   p[2] = static_cast<unsigned char>(kind);
   p[3] = 1;
   p[8] = static_cast<unsigned char>(length >> 8);
   p[9] = static_cast<unsigned char>(length);
   p[10] = 0;
   return p;
}

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_PCAP_H
