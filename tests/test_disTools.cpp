// Tests of the DIS tools' own code, in process: the PDU decoder and its output
// forms, the walk over a bundle, the packet reader from link layer to UDP
// payload, the IPv4 and UDP headers the recorder writes, and the capture reader
// over files written byte by byte.
#include "disDecode.h"
#include "pcapPackets.h"
#include "pcapReplay.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_pcap.h"

namespace
{
using olt::PcapBytes;

double const theDegree = 3.14159265358979323846 / 180.0;

// The test's own WGS84 forward conversion, from latitude, longitude and height.
void toGeocentric(double latitude, double longitude, double height, double& x, double& y, double& z)
{
   double const a = 6378137.0, f = 1 / 298.257223563, e2 = f * (2 - f);
   double const s = std::sin(latitude * theDegree), c = std::cos(latitude * theDegree);
   double const n = a / std::sqrt(1 - e2 * s * s);
   x = (n + height) * c * std::cos(longitude * theDegree);
   y = (n + height) * c * std::sin(longitude * theDegree);
   z = (n * (1 - e2) + height) * s;
}

class PduBuilder
{
public:
   explicit PduBuilder(std::size_t size) : myBytes(size, 0) {}

   PduBuilder& u8(std::size_t at, unsigned int v)
   {
      myBytes.at(at) = static_cast<unsigned char>(v);
      return *this;
   }
   PduBuilder& u16(std::size_t at, unsigned int v) { return u8(at, v >> 8).u8(at + 1, v & 0xFF); }
   PduBuilder& u32(std::size_t at, std::uint32_t v)
   {
      return u16(at, v >> 16).u16(at + 2, v & 0xFFFF);
   }
   PduBuilder& f64(std::size_t at, double v)
   {
      std::uint64_t bits = 0;
      std::memcpy(&bits, &v, sizeof bits);
      return u32(at, static_cast<std::uint32_t>(bits >> 32))
          .u32(at + 4, static_cast<std::uint32_t>(bits));
   }
   PduBuilder& id(std::size_t at, unsigned int site, unsigned int app, unsigned int number)
   {
      return u16(at, site).u16(at + 2, app).u16(at + 4, number);
   }
   PduBuilder& text(std::size_t at, std::string const& t)
   {
      for (std::size_t i = 0; i < t.size(); ++i)
         u8(at + i, static_cast<unsigned char>(t[i]));
      return *this;
   }
   PduBuilder& header(unsigned int version, unsigned int exercise, unsigned int kind,
                      unsigned int length)
   {
      return u8(0, version).u8(1, exercise).u8(2, kind).u8(3, 1).u16(8, length);
   }
   PcapBytes const& bytes() const { return myBytes; }

private:
   PcapBytes myBytes;
};

// An Entity State PDU of entity 17:4001:42, an opposing fighter aircraft at
// (lat, lon, height), marked "EAGLE 1".
PcapBytes entityState(double lat, double lon, double height, std::size_t size = 144)
{
   double x, y, z;
   toGeocentric(lat, lon, height, x, y, z);
   PduBuilder b(size);
   b.header(7, 3, 1, 144)
       .u32(4, (1800u << 1) | 1)  // placeholder stamp, replaced below
       .id(12, 17, 4001, 42)
       .u8(18, 2)
       .u8(20, 1)
       .u8(21, 2)
       .u16(22, 225)
       .u8(24, 1)
       .u8(25, 3)
       .u8(26, 9)
       .u8(27, 4)
       .f64(48, x)
       .f64(56, y)
       .f64(64, z)
       .u8(128, 1)
       .text(129, "EAGLE 1");
   // A quarter of the hour, absolute: 2^31 / 4 steps.
   b.u32(4, (static_cast<std::uint32_t>(1u << 29) << 1) | 1);
   return b.bytes();
}

oltool::DisField const* field(std::vector<oltool::DisField> const& fields, char const* name)
{
   for (oltool::DisField const& f : fields)
      if (f.name == name)
         return &f;
   return nullptr;
}

// ------------------------------------------------------------------ geodetic

TEST(DisDecodeGeodetic, KnownPointsComeBackToTheirLatitudeLongitudeAndAltitude)
{
   struct Case
   {
      double lat, lon, height;
   };
   Case const cases[] = {
       {0, 0, 0},           {36.6, -121.9, 0}, {36.6, -121.9, 3000}, {-33.86, 151.21, 58},
       {89.9999, 10, 100},  {-90, 0, 0},       {0, 180, -50},        {51.5, -0.12, 400000},
       {-45, -179.999, 12}, {60, 25, -10000},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.lat) + " " + std::to_string(c.lon) + " " +
                   std::to_string(c.height));
      double x, y, z;
      toGeocentric(c.lat, c.lon, c.height, x, y, z);
      oltool::Geodetic const g = oltool::geodeticFromGeocentric(x, y, z);
      EXPECT_NEAR(g.latitude, c.lat, 1e-8);
      if (std::fabs(c.lat) < 89.99)  // the longitude of a pole is any
      {
         EXPECT_NEAR(std::remainder(g.longitude - c.lon, 360.0), 0.0, 1e-8);
      }
      EXPECT_NEAR(g.altitude, c.height, 1e-3);
   }
}

TEST(DisDecodeGeodetic, AxesAndTheCentreGiveExactAnswersWithoutFailing)
{
   oltool::Geodetic const equator = oltool::geodeticFromGeocentric(6378137.0, 0, 0);
   EXPECT_DOUBLE_EQ(equator.latitude, 0);
   EXPECT_DOUBLE_EQ(equator.longitude, 0);
   EXPECT_NEAR(equator.altitude, 0, 1e-6);
   oltool::Geodetic const east = oltool::geodeticFromGeocentric(0, 6378237.0, 0);
   EXPECT_DOUBLE_EQ(east.longitude, 90);
   EXPECT_NEAR(east.altitude, 100, 1e-6);
   oltool::Geodetic const pole = oltool::geodeticFromGeocentric(0, 0, 6356752.314245);
   EXPECT_DOUBLE_EQ(pole.latitude, 90);
   EXPECT_NEAR(pole.altitude, 0, 1e-3);
   // The centre of the earth has no latitude worth the name, but a finite answer.
   oltool::Geodetic const centre = oltool::geodeticFromGeocentric(0, 0, 0);
   EXPECT_TRUE(std::isfinite(centre.latitude) && std::isfinite(centre.altitude));
}

// ------------------------------------------------------------------ decoding

TEST(DisDecode, EntityStateBuiltFieldByField)
{
   PcapBytes const bytes = entityState(36.6, -121.9, 3000);
   oltool::DisPdu pdu;
   ASSERT_TRUE(oltool::decodeDisPdu(bytes.data(), bytes.size(), pdu));
   EXPECT_EQ(pdu.version, 7u);
   EXPECT_EQ(pdu.exercise, 3u);
   EXPECT_EQ(pdu.kind, 1u);
   EXPECT_EQ(pdu.lengthField, 144u);
   EXPECT_NEAR(pdu.timestamp, 900.0, 1e-3);
   EXPECT_TRUE(pdu.absoluteTime);
   ASSERT_EQ(pdu.body, oltool::DisPdu::BodyEntityState);
   EXPECT_EQ(pdu.entity.text(), "17:4001:42");
   EXPECT_EQ(pdu.force, 2u);
   EXPECT_EQ(pdu.entityType.text(), "1.2.225.1.3.9.4");
   EXPECT_EQ(pdu.marking, "EAGLE 1");
   EXPECT_NEAR(pdu.location.latitude, 36.6, 1e-8);
   EXPECT_NEAR(pdu.location.longitude, -121.9, 1e-8);
   EXPECT_NEAR(pdu.location.altitude, 3000, 1e-3);

   std::vector<oltool::DisField> const fields = oltool::disFields(pdu);
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
   // The CSV line has one value per column, in the header's order.
   std::string const csv = oltool::disCsvLine(fields);
   std::string const header = oltool::disCsvHeader();
   EXPECT_EQ(std::count(csv.begin(), csv.end(), ','),
             std::count(header.begin(), header.end(), ','));
   EXPECT_EQ(csv,
             ",,7,3,1,144,EntityState,900.000,absolute,,17:4001:42,Opposing,"
             "1.2.225.1.3.9.4,EAGLE 1,36.600000,-121.900000,3000.0,,,,,");
}

TEST(DisDecode, FireAndDetonationIdsAndTheirLocations)
{
   struct Case
   {
      unsigned int kind;
      std::size_t size, location, munitionType;
      char const* type;
   };
   Case const cases[] = {{2, 96, 40, 64, "Fire"}, {3, 104, 48, 72, "Detonation"}};
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.type);
      double x, y, z;
      toGeocentric(-12.5, 130.8, 20, x, y, z);
      PduBuilder b(c.size);
      b.header(6, 1, c.kind, static_cast<unsigned int>(c.size))
          .u32(4, 100u << 1)  // relative
          .id(12, 1, 2, 3)
          .id(18, 4, 5, 6)
          .id(24, 7, 8, 9)
          .id(30, 10, 11, 12)
          .f64(c.location, x)
          .f64(c.location + 8, y)
          .f64(c.location + 16, z)
          .u8(c.munitionType, 2)
          .u8(c.munitionType + 1, 9)
          .u16(c.munitionType + 2, 225);
      oltool::DisPdu pdu;
      ASSERT_TRUE(oltool::decodeDisPdu(b.bytes().data(), b.bytes().size(), pdu));
      ASSERT_EQ(pdu.body, oltool::DisPdu::BodyWeapon);
      EXPECT_FALSE(pdu.absoluteTime);
      std::vector<oltool::DisField> const fields = oltool::disFields(pdu);
      EXPECT_EQ(field(fields, "type")->value, c.type);
      EXPECT_EQ(field(fields, "timestamp_type")->value, "relative");
      EXPECT_EQ(field(fields, "firing")->value, "1:2:3");
      EXPECT_EQ(field(fields, "target")->value, "4:5:6");
      EXPECT_EQ(field(fields, "munition")->value, "7:8:9");
      EXPECT_EQ(field(fields, "event")->value, "10:11:12");
      EXPECT_EQ(field(fields, "munition_type")->value, "2.9.225.0.0.0.0");
      EXPECT_EQ(field(fields, "latitude")->value, "-12.500000");
      EXPECT_EQ(field(fields, "longitude")->value, "130.800000");
      EXPECT_EQ(field(fields, "altitude")->value, "20.0");
      EXPECT_EQ(field(fields, "entity"), nullptr);
   }
}

// The body is read within the PDU: not past the bytes given, and not past the
// PDU's own length field when more bytes follow (a coupled Attribute PDU).
TEST(DisDecode, BodiesShorterThanTheirKindAreMarkedAndNotRead)
{
   struct Case
   {
      char const* what;
      unsigned int kind;
      std::size_t size;
      unsigned int lengthField;
      oltool::DisPdu::Body body;
   };
   Case const cases[] = {
       {"entity state one byte short", 1, 143, 143, oltool::DisPdu::BodyShort},
       {"entity state whose length field is short", 1, 200, 100, oltool::DisPdu::BodyShort},
       {"entity state with an attribute behind", 1, 200, 144, oltool::DisPdu::BodyEntityState},
       {"fire cut", 2, 95, 96, oltool::DisPdu::BodyShort},
       {"detonation whose length field is past the end", 3, 103, 400, oltool::DisPdu::BodyShort},
       {"a kind with no body read", 20, 12, 12, oltool::DisPdu::BodyHeaderOnly},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      PduBuilder b(c.size);
      b.header(7, 1, c.kind, c.lengthField);
      // Exactly sized, so that a read past it is a read past the allocation.
      std::vector<unsigned char> const exact(b.bytes());
      oltool::DisPdu pdu;
      ASSERT_TRUE(oltool::decodeDisPdu(exact.data(), exact.size(), pdu));
      EXPECT_EQ(pdu.body, c.body);
      std::vector<oltool::DisField> const fields = oltool::disFields(pdu);
      EXPECT_EQ(field(fields, "truncated") != nullptr, c.body == oltool::DisPdu::BodyShort);
      EXPECT_EQ(field(fields, "length")->value, std::to_string(c.size));
   }
   for (std::size_t size : {0u, 1u, 11u})
   {
      std::vector<unsigned char> const tiny(size, 7);
      oltool::DisPdu pdu;
      EXPECT_FALSE(oltool::decodeDisPdu(tiny.data(), tiny.size(), pdu)) << size;
   }
}

TEST(DisDecode, NamesOfTypesAndForces)
{
   EXPECT_STREQ(oltool::disTypeName(1), "EntityState");
   EXPECT_STREQ(oltool::disTypeName(4), "Collision");
   EXPECT_STREQ(oltool::disTypeName(26), "Signal");
   EXPECT_STREQ(oltool::disTypeName(72), "Attribute");
   EXPECT_STREQ(oltool::disTypeName(73), "Unknown");
   EXPECT_STREQ(oltool::disTypeName(255), "Unknown");
   EXPECT_EQ(oltool::disForceName(0), "Other");
   EXPECT_EQ(oltool::disForceName(3), "Neutral");
   EXPECT_EQ(oltool::disForceName(4), "4");
}

// Whatever bytes a marking or a sender text holds, each output form stays one
// well-formed line.
TEST(DisDecodeOutput, OddTextsStayOneWellFormedLine)
{
   PcapBytes bytes = entityState(0, 0, 0);
   std::string const raw = "A\"B\\C\x01\xE9";
   std::memcpy(&bytes[129], raw.data(), raw.size());
   oltool::DisPdu pdu;
   ASSERT_TRUE(oltool::decodeDisPdu(bytes.data(), bytes.size(), pdu));
   EXPECT_EQ(pdu.marking, "A\"B\\C??");

   std::vector<oltool::DisField> fields{
       oltool::disText("sender", "a,b\"c\nd\xE9"), oltool::disNumber("latitude", std::nan(""), 6),
       oltool::disText("marking", pdu.marking), oltool::disText("event", "")};
   EXPECT_EQ(oltool::disJsonLine(fields),
             "{\"sender\":\"a,b\\\"c\\u000ad\\u00e9\",\"latitude\":null,"
             "\"marking\":\"A\\\"B\\\\C??\",\"event\":\"\"}");
   EXPECT_EQ(oltool::disTextLine(fields),
             "sender \"a,b\\\"c\\x0ad\\xe9\" latitude null marking \"A\\\"B\\\\C??\" event \"\"");
   std::string const csv = oltool::disCsvLine(fields);
   EXPECT_EQ(csv.substr(0, 1), ",");  // no time
   EXPECT_NE(csv.find(",\"a,b\"\"c?d?\","), std::string::npos) << csv;
   EXPECT_NE(csv.find(",\"A\"\"B\\C??\","), std::string::npos) << csv;
}

// ------------------------------------------------------------------ bundles

TEST(DisBundles, WalkFollowsLengthsAlignmentAndCoupling)
{
   struct Case
   {
      char const* what;
      std::vector<PcapBytes> pdus;  // laid one after another, with `gaps` after each
      std::vector<std::size_t> gaps;
      std::vector<std::size_t> offsets;  // of the PDUs visited
      std::vector<std::size_t> unitPdus;
   };
   PcapBytes coupled = olt::disPdu(1, 144);
   coupled[10] = 0x08;
   Case const cases[] = {
       {"version 6 packed",
        {olt::disPdu(4, 60, 1, 6), olt::disPdu(4, 60, 1, 6)},
        {0, 0},
        {0, 60},
        {1, 1}},
       {"version 7 on multiples of 8",
        {olt::disPdu(4, 60), olt::disPdu(4, 60)},
        {4, 0},
        {0, 64},
        {1, 1}},
       {"coupled pair is one unit",
        {coupled, olt::disPdu(72, 56), olt::disPdu(2, 96)},
        {0, 0, 0},
        {0, 144, 200},
        {2, 1}},
       {"coupled bit with no attribute behind",
        {coupled, olt::disPdu(2, 96)},
        {0, 0},
        {0, 144},
        {1, 1}},
       {"length field of 0 ends the walk",
        {olt::disPdu(1, 16), PcapBytes(16, 0)},
        {0, 0},
        {0},
        {1}},
       {"trailing bytes shorter than a header",
        {olt::disPdu(1, 16), PcapBytes(11, 7)},
        {0, 0},
        {0},
        {1}},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      PcapBytes datagram;
      for (std::size_t i = 0; i < c.pdus.size(); ++i)
      {
         datagram.insert(datagram.end(), c.pdus[i].begin(), c.pdus[i].end());
         datagram.insert(datagram.end(), c.gaps[i], 0);
      }
      std::vector<std::size_t> offsets;
      oltool::forEachDisPdu(datagram.data(), datagram.size(),
                            [&](std::size_t offset, std::size_t) { offsets.push_back(offset); });
      EXPECT_EQ(offsets, c.offsets);
      std::vector<std::size_t> unitPdus;
      for (oltool::DisUnit const& u : oltool::disUnits(datagram.data(), datagram.size()))
         unitPdus.push_back(u.pdus);
      EXPECT_EQ(unitPdus, c.unitPdus);
   }
   // A length field past the datagram's end visits nothing.
   PcapBytes cut = olt::disPdu(1, 144);
   cut.resize(100);
   EXPECT_EQ(oltool::forEachDisPdu(cut.data(), cut.size(), [](std::size_t, std::size_t) {}), 0u);
   EXPECT_FALSE(oltool::looksLikeDis(cut.data(), cut.size()));
}

TEST(DisBundles, WhatLooksLikeDis)
{
   struct Case
   {
      PcapBytes bytes;
      bool dis;
   };
   PcapBytes version0 = olt::disPdu(1, 12);
   version0[0] = 0;
   PcapBytes version8 = olt::disPdu(1, 12);
   version8[0] = 8;
   PcapBytes lengthSmall = olt::disPdu(1, 12);
   lengthSmall[9] = 11;
   Case const cases[] = {{olt::disPdu(1, 12), true}, {olt::disPdu(1, 12, 1, 1), true},
                         {version0, false},          {version8, false},
                         {lengthSmall, false},       {PcapBytes(11, 7), false},
                         {PcapBytes(), false}};
   for (std::size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
   {
      SCOPED_TRACE(i);
      EXPECT_EQ(oltool::looksLikeDis(cases[i].bytes.data(), cases[i].bytes.size()), cases[i].dis);
   }
}

// ------------------------------------------------------------------ packets

TEST(CapturePackets, EveryLinkTypeLeadsToTheUdpPayload)
{
   PcapBytes const payload = olt::disPdu(1, 20);
   PcapBytes const ip = olt::ipv4(payload);
   PcapBytes padded = olt::ethernet(ip);
   padded.insert(padded.end(), 6, 0xEE);  // trailing frame padding is not payload
   struct Case
   {
      char const* what;
      int linkType;
      PcapBytes record;
   };
   Case const cases[] = {
       {"Ethernet", DLT_EN10MB, olt::ethernet(ip)},
       {"Ethernet with padding", DLT_EN10MB, padded},
       {"one VLAN tag", DLT_EN10MB, olt::ethernet(ip, 0x0800, {12})},
       {"two VLAN tags", DLT_EN10MB, olt::ethernet(ip, 0x0800, {12, 34})},
       {"Linux cooked", DLT_LINUX_SLL, olt::cooked(1, ip)},
       {"Linux cooked v2", DLT_LINUX_SLL2, olt::cooked(2, ip)},
       {"raw", DLT_RAW, ip},
       {"IPv4", DLT_IPV4, ip},
       {"null, little-endian", DLT_NULL, olt::loopback(2, false, ip)},
       {"null, big-endian", DLT_NULL, olt::loopback(2, true, ip)},
       {"loop", DLT_LOOP, olt::loopback(2, true, ip)},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      EXPECT_TRUE(oltool::isSupportedLinkType(c.linkType));
      oltool::UdpPacket const p =
          oltool::udpFromPacket(c.linkType, c.record.data(), c.record.size(), c.record.size());
      ASSERT_EQ(p.kind, oltool::PacketKind::Udp);
      EXPECT_EQ(p.source, 0x7F000001u);
      EXPECT_EQ(p.sourcePort, 40000u);
      EXPECT_EQ(p.destinationPort, 3000u);
      EXPECT_EQ(p.ttl, 64u);
      ASSERT_EQ(p.size, payload.size());
      EXPECT_EQ(PcapBytes(p.payload, p.payload + p.size), payload);
   }
   EXPECT_FALSE(oltool::isSupportedLinkType(DLT_IEEE802_11));
}

TEST(CapturePackets, WhatIsNoWholeIpv4UdpDatagramIsNamed)
{
   using K = oltool::PacketKind;
   PcapBytes const payload = olt::disPdu(1, 20);
   PcapBytes const ip = olt::ipv4(payload);
   olt::Ipv4Udp tcp;
   tcp.protocol = 6;
   olt::Ipv4Udp moreFragments;
   moreFragments.fragment = 0x2000;
   olt::Ipv4Udp lastFragment;
   lastFragment.fragment = 0x0010;
   olt::Ipv4Udp longUdp;
   longUdp.udpLengthDelta = 1;
   olt::Ipv4Udp shortUdp;
   shortUdp.udpLengthDelta = -21;  // a UDP length of 7
   PcapBytes badVersion = ip;
   badVersion[0] = 0x55;
   PcapBytes smallHeader = ip;
   smallHeader[0] = 0x44;
   PcapBytes totalBelowHeader = ip;
   totalBelowHeader[2] = 0;
   totalBelowHeader[3] = 19;
   PcapBytes totalPastRecord = ip;
   totalPastRecord[3] = static_cast<unsigned char>(totalPastRecord[3] + 4);
   struct Case
   {
      char const* what;
      int linkType;
      PcapBytes record;
      std::size_t cutOff;  // bytes of the packet the capture did not keep
      K kind;
   };
   Case const cases[] = {
       {"ARP", DLT_EN10MB, olt::ethernet(PcapBytes(28, 1), 0x0806), 0, K::OtherProtocol},
       {"802.3 length field", DLT_EN10MB, olt::ethernet(ip, 0x0040), 0, K::OtherProtocol},
       {"TCP", DLT_EN10MB, olt::ethernet(olt::ipv4(payload, tcp)), 0, K::OtherProtocol},
       {"IPv6 on Ethernet", DLT_EN10MB, olt::ethernet(olt::ipv6(payload), 0x86DD), 0, K::Ipv6},
       {"IPv6 cooked", DLT_LINUX_SLL2, olt::cooked(2, olt::ipv6(payload), 0x86DD), 0, K::Ipv6},
       {"IPv6 raw", DLT_RAW, olt::ipv6(payload), 0, K::Ipv6},
       {"IPv6 on null", DLT_NULL, olt::loopback(30, false, olt::ipv6(payload)), 0, K::Ipv6},
       {"IPv6 on loop", DLT_LOOP, olt::loopback(24, true, olt::ipv6(payload)), 0, K::Ipv6},
       {"another family on loop", DLT_LOOP, olt::loopback(7, true, ip), 0, K::OtherProtocol},
       {"first fragment", DLT_RAW, olt::ipv4(payload, moreFragments), 0, K::Fragment},
       {"later fragment", DLT_RAW, olt::ipv4(payload, lastFragment), 0, K::Fragment},
       {"UDP length past the IP packet", DLT_RAW, olt::ipv4(payload, longUdp), 0, K::Malformed},
       {"UDP length under its header", DLT_RAW, olt::ipv4(payload, shortUdp), 0, K::Malformed},
       {"IP version 5", DLT_EN10MB, olt::ethernet(badVersion), 0, K::Malformed},
       {"IP header length 16", DLT_RAW, smallHeader, 0, K::Malformed},
       {"IP length under its header", DLT_RAW, totalBelowHeader, 0, K::Malformed},
       {"IP length past the record", DLT_RAW, totalPastRecord, 0, K::Malformed},
       {"no IP version", DLT_IPV4, PcapBytes{0x00, 1, 2}, 0, K::Malformed},
       {"snapshot cut the payload", DLT_RAW, PcapBytes(ip.begin(), ip.end() - 5), 5, K::Truncated},
       {"snapshot cut the IP header", DLT_RAW, PcapBytes(ip.begin(), ip.begin() + 10),
        ip.size() - 10, K::Truncated},
       {"snapshot cut the link header", DLT_LINUX_SLL, PcapBytes(10, 0), 40, K::Truncated},
       {"frame shorter than its link header", DLT_LINUX_SLL2, PcapBytes(19, 0), 0, K::Malformed},
       {"VLAN tag cut", DLT_EN10MB, PcapBytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x81, 0, 0}, 0,
        K::Malformed},
       {"empty record", DLT_EN10MB, PcapBytes(), 0, K::Malformed},
       {"unknown link type", DLT_IEEE802_11, ip, 0, K::Malformed},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      // Exactly sized, so that a read past the record is a read past the allocation.
      std::unique_ptr<unsigned char[]> exact(new unsigned char[c.record.size() + 1]);
      std::copy(c.record.begin(), c.record.end(), exact.get());
      oltool::UdpPacket const p = oltool::udpFromPacket(c.linkType, exact.get(), c.record.size(),
                                                        c.record.size() + c.cutOff);
      EXPECT_EQ(p.kind, c.kind) << oltool::packetKindName(p.kind);
   }
}

// The recorder's headers: both checksums verify, and the reader takes the
// packet apart into what went in.
TEST(CapturePackets, RecordedHeadersCarryValidChecksumsAndReadBack)
{
   for (std::size_t size : {std::size_t(0), std::size_t(1), std::size_t(7), std::size_t(144),
                            std::size_t(1400), oltool::theMaxIpv4UdpPayload})
   {
      SCOPED_TRACE(size);
      PcapBytes payload(size);
      for (std::size_t i = 0; i < size; ++i)
         payload[i] = static_cast<unsigned char>(i * 7 + 3);
      PcapBytes const packet = oltool::ipv4UdpPacket(0x0A000001, 51000, 0xEF010203, 3000, 9, 0x1234,
                                                     payload.data(), payload.size());
      ASSERT_EQ(packet.size(), 28 + size);
      EXPECT_EQ(olt::sum16(packet.data(), 20), 0xFFFFu) << "IP header checksum";
      // The UDP checksum over the pseudo-header and the datagram.
      std::uint32_t pseudo = olt::sum16(packet.data() + 12, 8);
      pseudo += 17 + static_cast<std::uint32_t>(8 + size);
      EXPECT_EQ(olt::sum16(packet.data() + 20, 8 + size, pseudo), 0xFFFFu) << "UDP checksum";
      EXPECT_NE(packet[26] | packet[27], 0) << "0 would mean no checksum";
      oltool::UdpPacket const p =
          oltool::udpFromPacket(DLT_RAW, packet.data(), packet.size(), packet.size());
      ASSERT_EQ(p.kind, oltool::PacketKind::Udp);
      EXPECT_EQ(p.source, 0x0A000001u);
      EXPECT_EQ(p.destination, 0xEF010203u);
      EXPECT_EQ(p.sourcePort, 51000u);
      EXPECT_EQ(p.destinationPort, 3000u);
      EXPECT_EQ(p.ttl, 9u);
      EXPECT_EQ(PcapBytes(p.payload, p.payload + p.size), payload);
   }
}

// ------------------------------------------------------------------ capture files

struct ReadBack
{
   oltool::CaptureCounts counts;
   std::vector<PcapBytes> payloads;
   bool failed = false;
   std::string error;
};

ReadBack readCapture(PcapBytes const& file, unsigned int udpPort = 0)
{
   ReadBack r;
   std::unique_ptr<oltool::CaptureReader> reader =
       oltool::CaptureReader::openMemory(file.data(), file.size(), "test.pcap", r.error);
   if (!reader)
   {
      r.failed = true;
      return r;
   }
   oltool::CapturedDatagram d;
   for (int i = 0; i < 1000; ++i)
   {
      oltool::CaptureReader::Next const next = reader->next(d, r.counts, udpPort);
      if (next == oltool::CaptureReader::End)
         break;
      if (next == oltool::CaptureReader::Failed)
      {
         r.failed = true;
         r.error = reader->error();
         break;
      }
      if (next == oltool::CaptureReader::Datagram)
         r.payloads.emplace_back(d.payload, d.payload + d.size);
   }
   return r;
}

// A file of a few packets, one of them malformed, read back with the right counts.
TEST(CaptureFiles, HandWrittenFileIsReadBackWithEachPacketCounted)
{
   PcapBytes const es = olt::disPdu(1, 144);
   PcapBytes const fire = olt::disPdu(2, 96, 5);
   olt::Ipv4Udp longUdp;
   longUdp.udpLengthDelta = 40;
   olt::Ipv4Udp otherPort;
   otherPort.destinationPort = 3001;
   olt::PcapFile file(olt::theLinkEthernet);
   file.add(olt::ethernet(olt::ipv4(es)), 1000, 0)
       .add(olt::ethernet(olt::ipv4(fire)), 1000, 500000)
       .add(olt::ethernet(olt::ipv4(es, longUdp)), 1001, 0)         // malformed
       .add(olt::ethernet(PcapBytes(28, 0), 0x0806), 1001, 1)       // ARP
       .add(olt::ethernet(olt::ipv4(PcapBytes{1, 2, 3})), 1001, 2)  // not DIS
       .add(olt::ethernet(olt::ipv4(es, otherPort)), 1001, 3)
       .add(olt::ethernet(olt::ipv6(es), 0x86DD), 1001, 4);

   ReadBack const all = readCapture(file.bytes());
   ASSERT_FALSE(all.failed) << all.error;
   EXPECT_EQ(all.counts.packets, 7);
   EXPECT_EQ(all.counts.datagrams, 3);
   EXPECT_EQ(all.counts.malformed, 1);
   EXPECT_EQ(all.counts.otherProtocol, 1);
   EXPECT_EQ(all.counts.notDis, 1);
   EXPECT_EQ(all.counts.ipv6, 1);
   EXPECT_EQ(all.counts.otherPort, 0);
   EXPECT_EQ(all.counts.damaged(), 1);
   ASSERT_EQ(all.payloads.size(), 3u);
   EXPECT_EQ(all.payloads[0], es);
   EXPECT_EQ(all.payloads[1], fire);

   ReadBack const port3000 = readCapture(file.bytes(), 3000);
   EXPECT_EQ(port3000.counts.datagrams, 2);
   EXPECT_EQ(port3000.counts.otherPort, 1);
}

TEST(CaptureFiles, DamagedAndForeignFilesAreReportedNotRead)
{
   PcapBytes const es = olt::disPdu(1, 144);
   olt::PcapFile good(olt::theLinkRaw);
   good.add(olt::ipv4(es)).add(olt::ipv4(es)).add(olt::ipv4(es));

   // Cut inside the third record: the first two are read, then the damage named.
   PcapBytes cut(good.bytes().begin(), good.bytes().end() - 50);
   ReadBack const truncated = readCapture(cut);
   EXPECT_TRUE(truncated.failed);
   EXPECT_EQ(truncated.payloads.size(), 2u);
   EXPECT_NE(truncated.error.find("test.pcap: read error after 2 packets: "), std::string::npos)
       << truncated.error;

   struct Case
   {
      char const* what;
      PcapBytes bytes;
      char const* message;
   };
   PcapBytes text(40, 'x');
   Case const cases[] = {
       {"not a capture", text, "cannot read test.pcap: "},
       {"header cut", PcapBytes(good.bytes().begin(), good.bytes().begin() + 10),
        "cannot read test.pcap: "},
       {"empty", PcapBytes(), "cannot read test.pcap: empty"},
       {"wireless link type", olt::PcapFile(olt::theLinkIeee80211).add(es).bytes(),
        "test.pcap: link type IEEE802_11 (802.11) is not supported"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      ReadBack const r = readCapture(c.bytes);
      EXPECT_TRUE(r.failed);
      EXPECT_EQ(r.error.find(c.message), 0u) << r.error;
   }

   // A file with its header and no packets is a capture of nothing.
   ReadBack const none = readCapture(olt::PcapFile(olt::theLinkEthernet).bytes());
   EXPECT_FALSE(none.failed) << none.error;
   EXPECT_EQ(none.counts.packets, 0);
}

// Each link type a file can declare leads to the same payloads.
TEST(CaptureFiles, FilesOfEachLinkType)
{
   PcapBytes const es = olt::disPdu(1, 144);
   PcapBytes const ip = olt::ipv4(es);
   struct Case
   {
      char const* what;
      std::uint32_t linkType;
      PcapBytes record;
   };
   Case const cases[] = {
       {"Ethernet", olt::theLinkEthernet, olt::ethernet(ip)},
       {"Linux cooked", olt::theLinkSll, olt::cooked(1, ip)},
       {"Linux cooked v2", olt::theLinkSll2, olt::cooked(2, ip)},
       {"raw", olt::theLinkRaw, ip},
       {"null", olt::theLinkNull, olt::loopback(2, false, ip)},
       {"loop", olt::theLinkLoop, olt::loopback(2, true, ip)},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      ReadBack const r = readCapture(olt::PcapFile(c.linkType).add(c.record).bytes());
      ASSERT_FALSE(r.failed) << r.error;
      ASSERT_EQ(r.payloads.size(), 1u);
      EXPECT_EQ(r.payloads[0], es);
   }
}
}  // namespace
