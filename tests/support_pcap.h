// Test support: capture files and packets written byte by byte, without libpcap,
// so that the tools' readers and writers are checked against the file format
// itself: the classic pcap header and records, Ethernet, Linux cooked and
// loopback link headers, IPv4 and IPv6 headers and UDP.
#ifndef OLUTIL_TESTS_SUPPORT_PCAP_H
#define OLUTIL_TESTS_SUPPORT_PCAP_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace olt
{
typedef std::vector<unsigned char> PcapBytes;

// Link-type numbers as a file stores them.
std::uint32_t const theLinkNull = 0;
std::uint32_t const theLinkEthernet = 1;
std::uint32_t const theLinkRaw = 101;
std::uint32_t const theLinkLoop = 108;
std::uint32_t const theLinkSll = 113;
std::uint32_t const theLinkIeee80211 = 105;
std::uint32_t const theLinkSll2 = 276;

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
      putLe32(myBytes, 0xA1B2C3D4);
      myBytes.push_back(2);
      myBytes.push_back(0);
      myBytes.push_back(4);
      myBytes.push_back(0);
      putLe32(myBytes, 0);  // time zone
      putLe32(myBytes, 0);  // accuracy
      putLe32(myBytes, 65535);
      putLe32(myBytes, linkType);
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

struct Ipv4Udp
{
   std::uint32_t source = 0x7F000001;
   std::uint32_t destination = 0x7F000001;
   unsigned int sourcePort = 40000;
   unsigned int destinationPort = 3000;
   unsigned int protocol = 17;
   unsigned int fragment = 0;  // flags and offset
   int udpLengthDelta = 0;     // added to the UDP length field
};

// An IPv4 packet with a UDP header (or another protocol's bytes) around `payload`.
inline PcapBytes ipv4(PcapBytes const& payload, Ipv4Udp const& h = Ipv4Udp())
{
   PcapBytes p;
   p.push_back(0x45);
   p.push_back(0);
   putBe16(p, static_cast<unsigned int>(28 + payload.size()));
   putBe16(p, 1);
   putBe16(p, h.fragment);
   p.push_back(64);
   p.push_back(static_cast<unsigned char>(h.protocol));
   putBe16(p, 0);
   putBe32(p, h.source);
   putBe32(p, h.destination);
   std::uint32_t const ipSum = ~sum16(p.data(), 20) & 0xFFFF;
   p[10] = static_cast<unsigned char>(ipSum >> 8);
   p[11] = static_cast<unsigned char>(ipSum);
   putBe16(p, h.sourcePort);
   putBe16(p, h.destinationPort);
   putBe16(p, static_cast<unsigned int>(static_cast<int>(8 + payload.size()) + h.udpLengthDelta));
   putBe16(p, 0);  // no checksum
   p.insert(p.end(), payload.begin(), payload.end());
   return p;
}

// An IPv6 packet with a UDP header around `payload`.
inline PcapBytes ipv6(PcapBytes const& payload)
{
   PcapBytes p{0x60, 0, 0, 0};
   putBe16(p, static_cast<unsigned int>(8 + payload.size()));
   p.push_back(17);
   p.push_back(64);
   for (int i = 0; i < 2; ++i)
   {
      p.insert(p.end(), 15, 0);
      p.push_back(1);  // ::1
   }
   putBe16(p, 40000);
   putBe16(p, 3000);
   putBe16(p, static_cast<unsigned int>(8 + payload.size()));
   putBe16(p, 0);
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

// A Linux cooked header (version 1 or 2) in front of `network`.
inline PcapBytes cooked(int version, PcapBytes const& network, unsigned int protocol = 0x0800)
{
   PcapBytes f;
   if (version == 1)
   {
      putBe16(f, 0);    // to us
      putBe16(f, 772);  // loopback
      putBe16(f, 6);    // address length
      f.insert(f.end(), 8, 0);
      putBe16(f, protocol);
   }
   else
   {
      putBe16(f, protocol);
      putBe16(f, 0);
      putBe32(f, 1);  // interface index
      putBe16(f, 772);
      f.push_back(0);  // to us
      f.push_back(6);
      f.insert(f.end(), 8, 0);
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
