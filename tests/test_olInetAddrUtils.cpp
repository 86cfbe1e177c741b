// Tests of the address text utilities of DtInetUtils: locator parsers, family
// detection, predicates, mask arithmetic with its asymmetries, and hostile text.
// (Interface-dependent utilities are tested in namespaces in test_olInetDevice.)
#include <olutil/olInetAddrUtils.h>

#include <arpa/inet.h>
#include <unistd.h>

#include <climits>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include <olutil/olInetAddr.h>

namespace
{

struct LocatorCase
{
   char const* text;
   DtInetUtils::DtInetAddrFamily family;
   char const* host;
   char const* portOrMask;  // checked only when kind is not 0
   int kind;
};

TEST(DtInetUtilsTextTest, ParseNetResLoc)
{
   using U = DtInetUtils;
   LocatorCase const cases[] = {
       {"10.0.0.1", U::DtInetFamilyIPv4, "10.0.0.1", "", 0},
       {"10.0.0.1:3000", U::DtInetFamilyIPv4, "10.0.0.1", "3000", 1},
       {"10.0.0.1:3000 \t", U::DtInetFamilyIPv4, "10.0.0.1", "3000", 1},
       {"10.0.0.1/24", U::DtInetFamilyIPv4, "10.0.0.1", "24", 3},
       {"10.0.0.1/255.255.255.0", U::DtInetFamilyIPv4, "10.0.0.1", "255.255.255.0", 2},
       {"10.0.0.1/255.255.255.999", U::DtInetFamilyIPv4, "10.0.0.1", "", 0},
       {" 10.0.0.1", U::DtInetFamilyIPv4, "10.0.0.1", "", 0},
       // A port and a mask together are refused by both parsers.
       {"10.0.0.1/24:80", U::DtInetFamilyNone, "10.0.0.1/24", "80", 1},
       {"1.2.3.4:5:6", U::DtInetFamilyNone, "1.2.3.4:5", "5:6", 1},
       {"10.0.0.1 junk", U::DtInetFamilyNone, "10.0.0.1 junk", "", 0},
       {"[::1]:3000", U::DtInetFamilyIPv6, "::1", "3000", 1},
       {"[::1]:", U::DtInetFamilyIPv6, "::1", "", 0},
       {"::1", U::DtInetFamilyIPv6, "::1", "", 0},
       {"fe80::1%eth0", U::DtInetFamilyIPv6, "fe80::1%eth0", "", 0},
       {"[fe80::1%eth0]:9", U::DtInetFamilyIPv6, "fe80::1%eth0", "9", 1},
       {"2001:db8::/32", U::DtInetFamilyIPv6, "2001:db8::", "32", 3},
       {"[2001:db8::1]/64", U::DtInetFamilyIPv6, "2001:db8::1", "64", 3},
       {"[2001:db8::1]:80/64", U::DtInetFamilyNone, "[2001:db8::1]", "db8::1]:80/64", 1},
       {"myhost:3000", U::DtInetFamilyNone, "myhost", "3000", 1},
       {"myhost", U::DtInetFamilyNone, "myhost", "", 0},
       {":3000", U::DtInetFamilyNone, ":3000", "", 0},
       {"", U::DtInetFamilyNone, "", "", 0},
   };
   for (LocatorCase const& c : cases)
   {
      SCOPED_TRACE(c.text);
      DtString host("stale"), portOrMask("stale");
      int kind = -1;
      EXPECT_EQ(DtInetUtils::parseNetResLoc(c.text, host, portOrMask, kind), c.family);
      EXPECT_STREQ(host.c_str(), c.host);
      EXPECT_EQ(kind, c.kind);
      if (c.kind != 0)
      {
         EXPECT_STREQ(portOrMask.c_str(), c.portOrMask);
      }
   }
}

TEST(DtInetUtilsTextTest, SingleFamilyParsersRefuseTheOther)
{
   DtString host, portOrMask;
   int kind = 0;
   EXPECT_FALSE(DtInetUtils::parseIpv4NetResLoc("::ffff:1.2.3.4", host, portOrMask, kind));
   EXPECT_FALSE(DtInetUtils::parseIpv4NetResLoc("a:1.2.3.4", host, portOrMask, kind));
   EXPECT_FALSE(DtInetUtils::parseIpv6NetResLoc("10.0.0.1", host, portOrMask, kind));
   EXPECT_TRUE(DtInetUtils::parseIpv6NetResLoc("::ffff:1.2.3.4", host, portOrMask, kind));
   EXPECT_STREQ(host.c_str(), "::ffff:1.2.3.4");
}

TEST(DtInetUtilsTextTest, AddrStringFamily)
{
   struct
   {
      char const* text;
      int family;
   } const cases[] = {
       {"10.0.0.1", 4},
       {"10.0.0.1/255.0.0.0", 4},
       {"10.0.0.1/255.255.255.999", 4},
       // A well-formed port or numeric prefix gives no family, on purpose.
       {"10.0.0.1:3000", 0},
       {"10.0.0.1:abc", 0},
       {"10.0.0.1/24", 0},
       {"10.0.0.1/abc", 4},
       {"1.2.3", 0},
       {"::1", 6},
       {"fe80::1%eth0", 6},
       {"[::1]:3000", 6},  // the zone removal cuts at ']'
       {"::1/64", 0},
       {"::1/abc", 6},
       {"localhost", 0},
       {"", 0},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(DtInetUtils::addrStringFamily(c.text), c.family);
      EXPECT_EQ(DtInetUtils::isIpv4AddrString(c.text), c.family == 4);
      EXPECT_EQ(DtInetUtils::isIpv6AddrString(c.text), c.family == 6);
   }
}

TEST(DtInetUtilsTextTest, Predicates)
{
   struct
   {
      char const* text;
      bool loopback, multicast, linkLocal;
   } const cases[] = {
       {"127.0.0.1", true, false, false},    {"127.0.0.1:80", true, false, false},
       {"127.0.0.2", false, false, false},   {"::1", true, false, false},
       {"[::1]:80", true, false, false},     {"::2", false, false, false},
       {"224.0.0.1", false, true, false},    {"239.1.2.3:3000", false, true, false},
       {"ff02::1", false, true, false},      {"[ff05::2]:9", false, true, false},
       {"169.254.1.1", false, false, true},  {"169.253.1.1", false, false, false},
       {"fe80::1", false, false, true},      {"fe80::1%lo", false, false, true},
       {"2001:db8::1", false, false, false}, {"localhost", false, false, false},
       {"junk", false, false, false},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(DtInetUtils::isLoopbackAddrString(c.text), c.loopback);
      EXPECT_EQ(DtInetUtils::isMulticastAddrString(c.text), c.multicast);
      EXPECT_EQ(DtInetUtils::isLinkLocalAddrString(c.text), c.linkLocal);
      EXPECT_FALSE(DtInetUtils::isLocalhostAddrString(c.text));
   }
}

TEST(DtInetUtilsTextTest, PrefixAndNetmaskConversions)
{
   EXPECT_EQ(DtInetUtils::prefixLenToIpv4Netmask(0), 0u);
   EXPECT_EQ(DtInetUtils::prefixLenToIpv4Netmask(1), 0x80000000u);
   EXPECT_EQ(DtInetUtils::prefixLenToIpv4Netmask(24), 0xFFFFFF00u);
   EXPECT_EQ(DtInetUtils::prefixLenToIpv4Netmask(32), 0xFFFFFFFFu);
   EXPECT_EQ(DtInetUtils::prefixLenToIpv4Netmask(33), 0u);
   EXPECT_EQ(DtInetUtils::prefixLenToIpv4Netmask(UINT_MAX), 0u);
   for (unsigned int n = 0; n <= 32; ++n)
      EXPECT_EQ(DtInetUtils::netmaskToPrefixLen(DtInetUtils::prefixLenToIpv4Netmask(n)), n);

   // Only leading ones count.
   EXPECT_EQ(DtInetUtils::netmaskToPrefixLen(0xFF00FF00u), 8u);
   EXPECT_EQ(DtInetUtils::netmaskToPrefixLen(0x7FFFFFFFu), 0u);
   EXPECT_EQ(DtInetUtils::netmaskToPrefixLen(0xFFFFFFFEu), 31u);
}

TEST(DtInetUtilsTextTest, StringToNetmaskAndPrefixAreAsymmetric)
{
   struct
   {
      char const* text;
      unsigned int netmask;
      unsigned int prefix;
   } const cases[] = {
       {"24", 0xFFFFFF00u, 0},  // a number is a length for the mask, and refused as a prefix
       {"/24", 0xFFFFFF00u, 0},
       {"0", 0u, 0},
       {"32", 0xFFFFFFFFu, 0},
       {"33", 0u, 0},
       {"-1", 0u, 0},
       {"abc", 0u, 0},
       {"", 0u, 0},
       {"255.255.0.0", 0xFFFF0000u, 16},
       {"/255.255.255.0", 0xFFFFFF00u, 24},
       {"255.0.255.0", 0xFF00FF00u, 8},
       {"255.255.0", 0u, 0},
       {"1.2.3.4/255.255.255.128", 0xFFFFFF80u, 25},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(DtInetUtils::convertStringToNetmask(c.text), c.netmask);
      EXPECT_EQ(DtInetUtils::convertStringToPrefixLen(c.text), c.prefix);
   }
}

TEST(DtInetUtilsTextTest, RemoveZoneIndex)
{
   struct
   {
      char const* text;
      char const* bare;
   } const cases[] = {
       {"[fe80::1%eth0]:3000", "fe80::1"},
       {"fe80::1%eth0", "fe80::1"},
       {"10.0.0.1", "10.0.0.1"},
       {"[::1]", "::1"},
       {"]x[", ""},
       {"%", ""},
       {"", ""},
       {"[", ""},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      std::string copy(c.text);
      EXPECT_STREQ(DtInetUtils::removeZoneIndex(&copy[0]), c.bare);
   }
}

TEST(DtInetUtilsTextTest, HostAndPacketSize)
{
   char name[256] = {};
   ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
   EXPECT_STREQ(DtInetUtils::getLocalHostname().c_str(), name);

   EXPECT_EQ(DtInetUtils::getMaxPacketBufferSize(), 65504);
   DtInetUtils::setMaxPacketBufferSize(1500);
   EXPECT_EQ(DtInetUtils::getMaxPacketBufferSize(), 1500);
   // Receive buffers are made with this size: nothing below one byte is taken.
   DtInetUtils::setMaxPacketBufferSize(0);
   DtInetUtils::setMaxPacketBufferSize(-1);
   EXPECT_EQ(DtInetUtils::getMaxPacketBufferSize(), 1500);
   DtInetUtils::setMaxPacketBufferSize(65504);
   DtInetUtils::initHostNetworkLayer();
}

// Random text from the characters the parsers care about: every call gives a
// result within its documented range, and what is accepted really parses.
TEST(DtInetUtilsTextTest, HostileTextGivesResultsNotCrashes)
{
   static char const alphabet[] = "0123456789abcdefABCDEF:.[]%/ \t\n-+x\xff";
   std::mt19937 random(12345);
   std::uniform_int_distribution<int> length(0, 48);
   std::uniform_int_distribution<int> pick(0, sizeof alphabet - 2);
   for (int round = 0; round < 20000; ++round)
   {
      std::string text;
      for (int n = length(random); n > 0; --n)
         text += alphabet[pick(random)];
      SCOPED_TRACE(text);

      DtString host, portOrMask;
      int kind = -1;
      DtInetUtils::DtInetAddrFamily family =
          DtInetUtils::parseNetResLoc(text.c_str(), host, portOrMask, kind);
      ASSERT_TRUE(kind >= 0 && kind <= 3);
      if (family == DtInetUtils::DtInetFamilyIPv4)
      {
         in_addr value;
         ASSERT_EQ(inet_pton(AF_INET, host.c_str(), &value), 1);
      }
      else if (family == DtInetUtils::DtInetFamilyIPv6)
      {
         std::string bare = host.stdString();
         bare = bare.substr(0, bare.find('%'));
         in6_addr value;
         ASSERT_EQ(inet_pton(AF_INET6, bare.c_str(), &value), 1);
      }
      else
      {
         ASSERT_EQ(family, DtInetUtils::DtInetFamilyNone);
      }
      int detected = DtInetUtils::addrStringFamily(text.c_str());
      ASSERT_TRUE(detected == 0 || detected == 4 || detected == 6);
      DtInetUtils::isLoopbackAddrString(text.c_str());
      DtInetUtils::isMulticastAddrString(text.c_str());
      DtInetUtils::isLinkLocalAddrString(text.c_str());
      ASSERT_LE(DtInetUtils::convertStringToPrefixLen(text.c_str()), 32u);
      DtInetUtils::convertStringToNetmask(text.c_str());
      std::string copy = text;
      char* bare = DtInetUtils::removeZoneIndex(&copy[0]);
      ASSERT_TRUE(bare >= copy.c_str() && bare <= copy.c_str() + copy.size());
   }
}

}  // namespace
