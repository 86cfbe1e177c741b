// The DIS tools' own code in process: the PDU decoder and its output forms, the walk
// over a bundle, the packet reader to the UDP payload, the recorder's headers.
#include "disDecode.h"
#include "pcapPackets.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_pcap.h"

namespace
{
using olt::PcapBytes;

// Writes `value` big-endian in `size` bytes at `at`.
void put(PcapBytes& b, std::size_t at, std::uint64_t value, int size)
{
   for (int i = size - 1; i >= 0; --i, value >>= 8)
      b.at(at + i) = static_cast<unsigned char>(value);
}

// The test's own WGS84 forward conversion.
std::array<double, 3> geocentric(double latitude, double longitude, double height)
{
   double const a = 6378137.0, f = 1 / 298.257223563, e2 = f * (2 - f), d = M_PI / 180;
   double const s = std::sin(latitude * d), c = std::cos(latitude * d);
   double const n = a / std::sqrt(1 - e2 * s * s);
   return {(n + height) * c * std::cos(longitude * d), (n + height) * c * std::sin(longitude * d),
           (n * (1 - e2) + height) * s};
}

// Writes the point as three big-endian doubles at `at`.
void putLocation(PcapBytes& b, std::size_t at, double latitude, double longitude, double height)
{
   std::uint64_t bits[3];
   std::memcpy(bits, geocentric(latitude, longitude, height).data(), sizeof bits);
   for (int i = 0; i < 3; ++i)
      put(b, at + 8 * i, bits[i], 8);
}

// `size` zero bytes under a PDU header with `length` in its length field.
PcapBytes pdu(unsigned int version, unsigned int kind, std::size_t size, unsigned int length)
{
   PcapBytes b(size, 0);
   put(b, 0, version << 24 | 1u << 16 | kind << 8 | 1, 4);  // exercise 1, family 1
   put(b, 8, length, 2);
   return b;
}

// An Entity State PDU of entity 17:4001:42 in exercise 3, an opposing fighter
// aircraft at (latitude, longitude, height) marked "EAGLE 1", a quarter into the hour.
PcapBytes entityState(double latitude, double longitude, double height)
{
   PcapBytes b = pdu(7, 1, 144, 144);
   b[1] = 3;
   put(b, 4, 1u << 30 | 1, 4);
   put(b, 12, 0x00110FA1002A02, 7);
   put(b, 20, 0x010200E101030904, 8);
   putLocation(b, 48, latitude, longitude, height);
   b[128] = 1;
   std::memcpy(&b[129], "EAGLE 1", 7);
   return b;
}

// ------------------------------------------------------------------ decoding

TEST(DisDecode, GeocentricPointsComeBackToTheirLatitudeLongitudeAndAltitude)
{
   double const cases[][3] = {{36.6, -121.9, 3000}, {89.9999, 10, 100}, {-90, 0, 0},
                              {0, 180, -50},        {51.5, -0.12, 4e5}, {-45, -179.999, -1e4}};
   for (auto const& c : cases)
   {
      std::array<double, 3> const p = geocentric(c[0], c[1], c[2]);
      oltool::Geodetic const g = oltool::geodeticFromGeocentric(p[0], p[1], p[2]);
      EXPECT_NEAR(g.latitude, c[0], 1e-8) << c[0];
      // The longitude of a pole is any.
      EXPECT_NEAR(std::fabs(c[0]) < 89.99 ? std::remainder(g.longitude - c[1], 360.0) : 0, 0, 1e-8);
      EXPECT_NEAR(g.altitude, c[2], 1e-3) << c[0];
   }
   oltool::Geodetic const centre = oltool::geodeticFromGeocentric(0, 0, 0);
   EXPECT_TRUE(std::isfinite(centre.latitude) && std::isfinite(centre.altitude));
}

// An Entity State PDU in each output form; whatever bytes a marking or a sender
// text holds, and whatever a kind or force number is, each form stays one line.
TEST(DisDecode, EachOutputFormIsOneWellFormedLine)
{
   PcapBytes const bytes = entityState(36.6, -121.9, 3000);
   oltool::DisPdu pdu;
   ASSERT_TRUE(oltool::decodeDisPdu(bytes.data(), bytes.size(), pdu));
   auto const fields = oltool::disFields(pdu);
   EXPECT_EQ(oltool::disTextLine(fields),
             "version 7 exercise 3 kind 1 length 144 type EntityState timestamp 900.000 "
             "timestamp_type absolute entity 17:4001:42 force Opposing entity_type "
             "1.2.225.1.3.9.4 marking \"EAGLE 1\" latitude 36.600000 longitude -121.900000 "
             "altitude 3000.0");
   EXPECT_EQ(oltool::disJsonLine(fields),
             "{\"version\":7,\"exercise\":3,\"kind\":1,\"length\":144,\"type\":\"EntityState\","
             "\"timestamp\":900.000,\"timestamp_type\":\"absolute\",\"entity\":\"17:4001:42\","
             "\"force\":\"Opposing\",\"entity_type\":\"1.2.225.1.3.9.4\",\"marking\":\"EAGLE "
             "1\",\"latitude\":36.600000,\"longitude\":-121.900000,\"altitude\":3000.0}");
   // One CSV value per column of the header, in its order.
   std::string const csv = oltool::disCsvLine(fields), header = oltool::disCsvHeader();
   EXPECT_EQ(std::count(csv.begin(), csv.end(), ','),
             std::count(header.begin(), header.end(), ','));
   EXPECT_EQ(csv,
             ",,7,3,1,144,EntityState,900.000,absolute,,17:4001:42,Opposing,"
             "1.2.225.1.3.9.4,EAGLE 1,36.600000,-121.900000,3000.0,,,,,");

   PcapBytes odd = bytes;
   std::memcpy(&odd[129], "A\"B\\C\x01\xE9", 7);
   ASSERT_TRUE(oltool::decodeDisPdu(odd.data(), odd.size(), pdu));
   EXPECT_EQ(pdu.marking, "A\"B\\C??");
   std::vector<oltool::DisField> const odds{
       oltool::disText("sender", "a,b\"c\nd\xE9"), oltool::disNumber("latitude", std::nan(""), 6),
       oltool::disText("marking", pdu.marking), oltool::disText("event", "")};
   EXPECT_EQ(oltool::disJsonLine(odds),
             "{\"sender\":\"a,b\\\"c\\u000ad\\u00e9\",\"latitude\":null,"
             "\"marking\":\"A\\\"B\\\\C??\",\"event\":\"\"}");
   EXPECT_EQ(oltool::disTextLine(odds),
             "sender \"a,b\\\"c\\x0ad\\xe9\" latitude null marking \"A\\\"B\\\\C??\" event \"\"");
   std::string const oddCsv = oltool::disCsvLine(odds);
   EXPECT_EQ(oddCsv.find(",\"a,b\"\"c?d?\","), 0u) << oddCsv;  // after the empty time
   EXPECT_NE(oddCsv.find(",\"A\"\"B\\C??\","), std::string::npos) << oddCsv;
   EXPECT_STREQ(oltool::disTypeName(73), "Unknown");
   EXPECT_EQ(oltool::disForceName(3) + oltool::disForceName(4), "Neutral4");
   std::memcpy(&odd[129], "ABCDEFGHIJKL", 12);  // all 11 characters, not the byte after
   ASSERT_TRUE(oltool::decodeDisPdu(odd.data(), odd.size(), pdu));
   EXPECT_EQ(pdu.marking, "ABCDEFGHIJK");
}

// Fire and Detonation hold four ids, a location and a munition type, each its own way.
TEST(DisDecode, FireAndDetonationIdsAndTheirLocations)
{
   for (unsigned int kind : {2u, 3u})
   {
      bool const fire = kind == 2;
      std::size_t const size = fire ? 96 : 104, location = fire ? 40 : 48;
      PcapBytes b = pdu(6, kind, size, static_cast<unsigned int>(size));
      put(b, 4, 100u << 1, 4);               // relative
      for (std::uint64_t i = 0; i < 4; ++i)  // 1:2:3, 4:5:6, 7:8:9 and 10:11:12
         put(b, 12 + 6 * i, (3 * i + 1) << 32 | (3 * i + 2) << 16 | (3 * i + 3), 6);
      putLocation(b, location, -12.5, 130.8, 20);
      put(b, location + 24, 0x020900E1, 4);  // the munition type
      oltool::DisPdu pdu;
      ASSERT_TRUE(oltool::decodeDisPdu(b.data(), b.size(), pdu));
      EXPECT_EQ(pdu.body, oltool::DisPdu::BodyWeapon);
      EXPECT_EQ(oltool::disTextLine(oltool::disFields(pdu)),
                "version 6 exercise 1 kind " + std::to_string(kind) + " length " +
                    std::to_string(size) + " type " + (fire ? "Fire" : "Detonation") +
                    " timestamp 0.000 timestamp_type relative latitude -12.500000 longitude "
                    "130.800000 altitude 20.0 firing 1:2:3 target 4:5:6 munition 7:8:9 event "
                    "10:11:12 munition_type 2.9.225.0.0.0.0");
   }
}

// The body is read within the PDU: not past the bytes given, and not past the
// PDU's own length field when more bytes follow (a coupled Attribute PDU).
TEST(DisDecode, BodiesShorterThanTheirKindAreMarkedAndNotRead)
{
   using B = oltool::DisPdu;
   struct Case
   {
      char const* what;
      unsigned int kind;
      std::size_t size;
      unsigned int lengthField;
      B::Body body;
   } const cases[] = {
       {"entity state one byte short", 1, 143, 143, B::BodyShort},
       {"entity state whose length field is short", 1, 200, 100, B::BodyShort},
       {"entity state with an attribute behind", 1, 200, 144, B::BodyEntityState},
       {"fire cut", 2, 95, 96, B::BodyShort},
       {"detonation whose length field is past the end", 3, 103, 400, B::BodyShort},
       {"a kind with no body read", 20, 12, 12, B::BodyHeaderOnly},
       {"fewer bytes than a header", 1, 11, 11, B::BodyShort},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      // Exactly sized, so that a read past it is a read past the allocation.
      PcapBytes const exact = pdu(7, c.kind, c.size, c.lengthField);
      oltool::DisPdu pdu;
      ASSERT_EQ(oltool::decodeDisPdu(exact.data(), exact.size(), pdu), c.size >= 12);
      if (c.size < 12)
         continue;
      EXPECT_EQ(pdu.body, c.body);
      std::string const text = oltool::disTextLine(oltool::disFields(pdu));
      EXPECT_EQ(text.find(" truncated ") != std::string::npos, c.body == B::BodyShort) << text;
      EXPECT_NE(text.find(" length " + std::to_string(c.size) + " "), std::string::npos) << text;
   }
}

// ------------------------------------------------------------------ bundles

// The walk follows lengths and the version's alignment, joins a coupled pair, and
// stops at a length that cannot be; DIS starts with a version and a length that fits.
TEST(DisBundles, WalkFollowsLengthsAlignmentAndCoupling)
{
   PcapBytes coupled = olt::disPdu(1, 144), lengthSmall = olt::disPdu(1, 12);
   coupled[10] = 0x08;
   lengthSmall[9] = 11;
   PcapBytes const v6 = olt::disPdu(4, 60, 1, 6), v7 = olt::disPdu(4, 60), pad(4, 0);
   PcapBytes const attribute = olt::disPdu(72, 56), fire = olt::disPdu(2, 96);
   struct Case
   {
      char const* what;
      std::vector<PcapBytes> parts;                // laid one after another
      std::vector<std::size_t> offsets, unitPdus;  // offsets of the PDUs visited
      bool dis;
   } const cases[] = {
       {"version 6 packed", {v6, v6}, {0, 60}, {1, 1}, true},
       {"version 7 on multiples of 8", {v7, pad, v7}, {0, 64}, {1, 1}, true},
       {"coupled pair, one unit", {coupled, attribute, fire}, {0, 144, 200}, {2, 1}, true},
       {"coupled bit, no attribute", {coupled, fire}, {0, 144}, {1, 1}, true},
       {"length 0 ends the walk", {olt::disPdu(1, 16), PcapBytes(16, 0)}, {0}, {1}, true},
       {"fewer bytes than a header after", {olt::disPdu(1, 16), PcapBytes(11, 7)}, {0}, {1}, true},
       {"length past the end", {PcapBytes(coupled.begin(), coupled.begin() + 100)}, {}, {}, false},
       {"length under a header", {lengthSmall}, {}, {}, false},
       {"version 0", {olt::disPdu(1, 12, 1, 0)}, {0}, {1}, false},
       {"version 8", {olt::disPdu(1, 12, 1, 8)}, {0}, {1}, false},
       {"empty", {}, {}, {}, false},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      PcapBytes datagram;
      for (PcapBytes const& part : c.parts)
         datagram.insert(datagram.end(), part.begin(), part.end());
      std::vector<std::size_t> offsets, unitPdus;
      oltool::forEachDisPdu(datagram.data(), datagram.size(),
                            [&](std::size_t offset, std::size_t) { offsets.push_back(offset); });
      EXPECT_EQ(offsets, c.offsets);
      for (oltool::DisUnit const& u : oltool::disUnits(datagram.data(), datagram.size()))
         unitPdus.push_back(u.pdus);
      EXPECT_EQ(unitPdus, c.unitPdus);
      EXPECT_EQ(oltool::looksLikeDis(datagram.data(), datagram.size()), c.dis);
   }
}

// ------------------------------------------------------------------ packets and files

// From each link type to the UDP payload of a whole IPv4 datagram; anything else
// is named for what it is, without a read past the record.
TEST(CapturePackets, EveryLinkTypeLeadsToTheUdpPayloadOrNamesWhatItIs)
{
   using K = oltool::PacketKind;
   PcapBytes const payload = olt::disPdu(1, 20);
   PcapBytes const ip = olt::ipv4(payload), ip6 = olt::ipv6(payload);
   auto with = [&](std::size_t at, int value) {  // the IPv4 packet with one byte set
      PcapBytes p = ip;
      p.resize(std::max(p.size(), at + 1));  // bytes after the packet are frame padding
      p[at] = static_cast<unsigned char>(value);
      return p;
   };
   struct Case
   {
      char const* what;
      int linkType;
      PcapBytes record;
      K kind;
      std::size_t cutOff = 0;  // bytes of the packet the capture did not keep
   } const cases[] = {
       {"Ethernet with padding", DLT_EN10MB, olt::ethernet(with(ip.size() + 5, 0xEE)), K::Udp},
       {"two VLAN tags", DLT_EN10MB, olt::ethernet(ip, 0x0800, {12, 34}), K::Udp},
       {"Linux cooked", DLT_LINUX_SLL, olt::cooked(1, ip), K::Udp},
       {"Linux cooked v2", DLT_LINUX_SLL2, olt::cooked(2, ip), K::Udp},
       {"raw", DLT_RAW, ip, K::Udp},
       {"null, little-endian", DLT_NULL, olt::loopback(2, false, ip), K::Udp},
       {"loop", DLT_LOOP, olt::loopback(2, true, ip), K::Udp},
       {"loop in the other byte order", DLT_LOOP, olt::loopback(2, false, ip), K::OtherProtocol},
       {"ARP", DLT_EN10MB, olt::ethernet(PcapBytes(28, 1), 0x0806), K::OtherProtocol},
       {"TCP", DLT_EN10MB, olt::ethernet(with(9, 6)), K::OtherProtocol},
       {"another family on loop", DLT_LOOP, olt::loopback(7, true, ip), K::OtherProtocol},
       {"IPv6 on Ethernet", DLT_EN10MB, olt::ethernet(ip6, 0x86DD), K::Ipv6},
       {"IPv6 raw", DLT_RAW, ip6, K::Ipv6},
       {"IPv6 on null", DLT_NULL, olt::loopback(30, false, ip6), K::Ipv6},
       {"first fragment", DLT_RAW, with(6, 0x20), K::Fragment},
       {"later fragment", DLT_RAW, with(7, 0x10), K::Fragment},
       {"UDP length past the IP packet", DLT_RAW, with(25, ip[25] + 1), K::Malformed},
       {"UDP length 7", DLT_RAW, with(25, 7), K::Malformed},
       {"IP version 5", DLT_EN10MB, olt::ethernet(with(0, 0x55)), K::Malformed},
       {"IP header length 16", DLT_RAW, with(0, 0x44), K::Malformed},
       {"IP length under its header", DLT_RAW, with(3, 19), K::Malformed},
       {"IP length past the record", DLT_RAW, with(3, ip[3] + 4), K::Malformed},
       {"frame shorter than its link header", DLT_LINUX_SLL2, PcapBytes(19, 0), K::Malformed},
       {"VLAN tag cut", DLT_EN10MB, PcapBytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x81, 0, 0},
        K::Malformed},
       {"empty record", DLT_EN10MB, PcapBytes(), K::Malformed},
       {"unknown link type", DLT_IEEE802_11, ip, K::Malformed},
       {"snapshot cut the payload", DLT_RAW, PcapBytes(ip.begin(), ip.end() - 5), K::Truncated, 5},
       {"snapshot cut the link header", DLT_LINUX_SLL, PcapBytes(10, 0), K::Truncated, 40},
       {"snapshot cut the IP header", DLT_RAW, PcapBytes(ip.begin(), ip.begin() + 19), K::Truncated,
        ip.size() - 19},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      EXPECT_EQ(oltool::isSupportedLinkType(c.linkType), c.linkType != DLT_IEEE802_11);
      // Exactly sized, so that a read past the record is a read past the allocation.
      std::unique_ptr<unsigned char[]> exact(new unsigned char[c.record.size() + 1]);
      std::copy(c.record.begin(), c.record.end(), exact.get());
      oltool::UdpPacket const p = oltool::udpFromPacket(c.linkType, exact.get(), c.record.size(),
                                                        c.record.size() + c.cutOff);
      ASSERT_EQ(p.kind, c.kind) << oltool::packetKindName(p.kind);
      if (c.kind != K::Udp)
         continue;
      EXPECT_EQ(p.source, 0x7F000001u);
      EXPECT_EQ(p.sourcePort << 16 | p.destinationPort, 40000u << 16 | 3000u);
      EXPECT_EQ(p.ttl, 64u);
      EXPECT_EQ(PcapBytes(p.payload, p.payload + p.size), payload);
   }
}

// The recorder's headers: both checksums verify, and the reader takes the
// packet apart into what went in.
TEST(CapturePackets, RecordedHeadersCarryValidChecksumsAndReadBack)
{
   for (std::size_t size : {std::size_t(0), std::size_t(7), oltool::theMaxIpv4UdpPayload})
   {
      SCOPED_TRACE(size);
      PcapBytes payload(size);
      std::iota(payload.begin(), payload.end(), 3);
      PcapBytes const packet = oltool::ipv4UdpPacket(0x0A000001, 51000, 0xEF010203, 3000, 9, 0x1234,
                                                     payload.data(), payload.size());
      ASSERT_EQ(packet.size(), 28 + size);
      EXPECT_EQ(olt::sum16(packet.data(), 20), 0xFFFFu) << "IP header checksum";
      std::uint32_t const pseudo =
          olt::sum16(packet.data() + 12, 8) + 17 + static_cast<std::uint32_t>(8 + size);
      EXPECT_EQ(olt::sum16(packet.data() + 20, 8 + size, pseudo), 0xFFFFu) << "UDP checksum";
      EXPECT_NE(packet[26] | packet[27], 0) << "0 would mean no checksum";
      oltool::UdpPacket const p =
          oltool::udpFromPacket(DLT_RAW, packet.data(), packet.size(), packet.size());
      ASSERT_EQ(p.kind, oltool::PacketKind::Udp);
      EXPECT_EQ(PcapBytes(p.payload, p.payload + p.size), payload);
   }
}

}  // namespace
