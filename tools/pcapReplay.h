// DIS tools: reading a capture for replay. libpcap opens the file (pcap or
// pcapng, from a path or from memory) and hands out packet records; each record
// goes from its link layer to its UDP payload (pcapPackets.h), and a payload
// with a DIS header is a datagram to replay. Everything else is counted by
// reason. A file that ends inside a record is read up to there and reported.
#ifndef OLUTIL_TOOLS_PCAPREPLAY_H
#define OLUTIL_TOOLS_PCAPREPLAY_H

#include <pcap/pcap.h>

#include <cstdio>
#include <memory>
#include <string>

#include "disDecode.h"
#include "pcapPackets.h"

namespace oltool
{

// What a capture held, packet by packet.
struct CaptureCounts
{
   long packets = 0;
   long datagrams = 0;  // DIS datagrams handed out
   long otherProtocol = 0;
   long ipv6 = 0;
   long fragments = 0;
   long malformed = 0;
   long truncated = 0;
   long notDis = 0;     // UDP payloads with no DIS header
   long otherPort = 0;  // UDP to a port other than the one asked for

   long skipped() const
   {
      return otherProtocol + ipv6 + fragments + malformed + truncated + notDis + otherPort;
   }
   // Packets whose datagram is lost: damaged, cut, or in pieces.
   long damaged() const { return fragments + malformed + truncated; }

   std::string skippedText() const
   {
      char text[320];
      std::snprintf(text, sizeof text,
                    "skipped packets: %ld other protocols, %ld IPv6, %ld IPv4 fragments, %ld "
                    "malformed, %ld truncated, %ld not DIS, %ld other ports",
                    otherProtocol, ipv6, fragments, malformed, truncated, notDis, otherPort);
      return text;
   }
};

// One DIS datagram of a capture: its capture time and its payload, which lies in
// the reader's record and stays valid until the next call.
struct CapturedDatagram
{
   double time = 0;
   UdpPacket udp;
   unsigned char const* payload = nullptr;
   std::size_t size = 0;
};

enum class CaptureVerdict
{
   Datagram,  // `datagram` is set
   Skipped    // counted in `counts` under its reason
};

// The step from one packet record to a DIS datagram: `captured` bytes at `data`
// of a `wireLength`-byte packet, of link type `linkType` (as pcap_datalink()
// gives it). `udpPort` non-zero takes only datagrams sent to that port.
inline CaptureVerdict datagramFromRecord(int linkType, unsigned char const* data,
                                         std::size_t captured, std::size_t wireLength,
                                         unsigned int udpPort, CaptureCounts& counts,
                                         CapturedDatagram& datagram)
{
   ++counts.packets;
   UdpPacket const udp = udpFromPacket(linkType, data, captured, wireLength);
   switch (udp.kind)
   {
      case PacketKind::Udp:
         break;
      case PacketKind::OtherProtocol:
         ++counts.otherProtocol;
         return CaptureVerdict::Skipped;
      case PacketKind::Ipv6:
         ++counts.ipv6;
         return CaptureVerdict::Skipped;
      case PacketKind::Fragment:
         ++counts.fragments;
         return CaptureVerdict::Skipped;
      case PacketKind::Malformed:
         ++counts.malformed;
         return CaptureVerdict::Skipped;
      case PacketKind::Truncated:
         ++counts.truncated;
         return CaptureVerdict::Skipped;
   }
   if (udpPort && udp.destinationPort != udpPort)
   {
      ++counts.otherPort;
      return CaptureVerdict::Skipped;
   }
   if (!looksLikeDis(udp.payload, udp.size))
   {
      ++counts.notDis;
      return CaptureVerdict::Skipped;
   }
   ++counts.datagrams;
   datagram.udp = udp;
   datagram.payload = udp.payload;
   datagram.size = udp.size;
   return CaptureVerdict::Datagram;
}

// A capture file open for reading, record by record.
class CaptureReader
{
public:
   enum Next
   {
      Datagram,  // a DIS datagram
      Skipped,   // a record that is not one, counted
      End,       // the end of the file
      Failed     // the file ended inside a record, or could not be read: error()
   };

   // Opens a file by name ("-" for standard input). Null, with a one-line
   // reason, when it is no capture libpcap reads or its link type is not one
   // this reader knows.
   static std::unique_ptr<CaptureReader> open(std::string const& name, std::string& error)
   {
      char text[PCAP_ERRBUF_SIZE] = "";
      pcap_t* const pcap = pcap_open_offline(name.c_str(), text);
      if (!pcap)
      {
         error = "cannot read " + name + ": " + text;
         return nullptr;
      }
      return checked(pcap, name, error);
   }

   // Opens a capture held in memory (which must outlive the reader).
   static std::unique_ptr<CaptureReader> openMemory(void const* data, std::size_t size,
                                                    std::string const& name, std::string& error)
   {
      if (size == 0)
      {
         error = "cannot read " + name + ": empty";
         return nullptr;
      }
      FILE* const file = fmemopen(const_cast<void*>(data), size, "rb");
      if (!file)
      {
         error = "cannot read " + name;
         return nullptr;
      }
      char text[PCAP_ERRBUF_SIZE] = "";
      pcap_t* const pcap = pcap_fopen_offline(file, text);
      if (!pcap)
      {
         std::fclose(file);  // pcap_close would have closed it; a failed open does not
         error = "cannot read " + name + ": " + text;
         return nullptr;
      }
      return checked(pcap, name, error);
   }

   ~CaptureReader() { pcap_close(myPcap); }
   CaptureReader(CaptureReader const&) = delete;
   CaptureReader& operator=(CaptureReader const&) = delete;

   // The next record. `udpPort` as for datagramFromRecord().
   Next next(CapturedDatagram& datagram, CaptureCounts& counts, unsigned int udpPort)
   {
      pcap_pkthdr* header = nullptr;
      u_char const* data = nullptr;
      int const result = pcap_next_ex(myPcap, &header, &data);
      if (result == PCAP_ERROR_BREAK)
         return End;
      if (result != 1)
      {
         myError = myName + ": read error after " + std::to_string(myRecords) +
                   " packets: " + pcap_geterr(myPcap);
         return Failed;
      }
      ++myRecords;
      datagram.time =
          static_cast<double>(header->ts.tv_sec) + static_cast<double>(header->ts.tv_usec) * 1e-6;
      return datagramFromRecord(myLinkType, data, header->caplen, header->len, udpPort, counts,
                                datagram) == CaptureVerdict::Datagram
                 ? Datagram
                 : Skipped;
   }

   int linkType() const { return myLinkType; }
   // "EN10MB (Ethernet)".
   std::string linkTypeName() const { return describe(myLinkType); }
   std::string const& error() const { return myError; }

private:
   CaptureReader(pcap_t* pcap, std::string const& name)
       : myPcap(pcap), myName(name), myLinkType(pcap_datalink(pcap))
   {
   }

   static std::string describe(int linkType)
   {
      char const* name = pcap_datalink_val_to_name(linkType);
      char const* description = pcap_datalink_val_to_description(linkType);
      std::string text = name ? name : std::to_string(linkType);
      if (description)
         text += std::string(" (") + description + ")";
      return text;
   }

   static std::unique_ptr<CaptureReader> checked(pcap_t* pcap, std::string const& name,
                                                 std::string& error)
   {
      std::unique_ptr<CaptureReader> reader(new CaptureReader(pcap, name));
      if (!isSupportedLinkType(reader->myLinkType))
      {
         error = name + ": link type " + describe(reader->myLinkType) +
                 " is not supported; replayed are Ethernet, Linux cooked (SLL, SLL2), raw IP "
                 "and BSD loopback (NULL, LOOP) captures";
         reader.reset();
      }
      return reader;
   }

   pcap_t* myPcap;
   std::string myName;
   int myLinkType;
   long myRecords = 0;
   std::string myError;
};

}  // namespace oltool

#endif  // OLUTIL_TOOLS_PCAPREPLAY_H
