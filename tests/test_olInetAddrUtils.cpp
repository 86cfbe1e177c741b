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

using U = DtInetUtils;

TEST(DtInetUtilsTextTest, ParseNetResLoc)
{
   struct
   {
      char const* text;
      U::DtInetAddrFamily family;
      char const *host, *portOrMask;  // portOrMask checked only when kind is not 0
      int kind;
   } const cases[] = {
       {"10.0.0.1", U::DtInetFamilyIPv4, "10.0.0.1", "", 0},
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
       {"", U::DtInetFamilyNone, "", "", 0}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      DtString host("stale"), portOrMask("stale");
      int kind = -1;
      EXPECT_EQ(U::parseNetResLoc(c.text, host, portOrMask, kind), c.family);
      EXPECT_STREQ(host.c_str(), c.host);
      EXPECT_EQ(kind, c.kind);
      if (c.kind != 0)
      {
         EXPECT_STREQ(portOrMask.c_str(), c.portOrMask);
      }
   }
   // The single-family parsers refuse the other family.
   DtString host, portOrMask;
   int kind = 0;
   EXPECT_FALSE(U::parseIpv4NetResLoc("::ffff:1.2.3.4", host, portOrMask, kind));
   EXPECT_FALSE(U::parseIpv4NetResLoc("a:1.2.3.4", host, portOrMask, kind));
   EXPECT_FALSE(U::parseIpv6NetResLoc("10.0.0.1", host, portOrMask, kind));
   EXPECT_TRUE(U::parseIpv6NetResLoc("::ffff:1.2.3.4", host, portOrMask, kind));
   EXPECT_STREQ(host.c_str(), "::ffff:1.2.3.4");
}

TEST(DtInetUtilsTextTest, FamilyAndPredicates)
{
   // "text family flags", flags from "lmk": loopback, multicast, link-local. A
   // well-formed port or numeric prefix gives no family, on purpose; the zone
   // removal cuts "[::1]:3000" at ']'. Only exactly 127.0.0.1 is loopback.
   for (std::string const c : {"10.0.0.1 4",
                               "10.0.0.1/255.0.0.0 4",
                               "10.0.0.1/255.255.255.999 4",
                               "10.0.0.1:3000 0",
                               "10.0.0.1:abc 0",
                               "10.0.0.1/24 0",
                               "10.0.0.1/abc 4",
                               "1.2.3 0",
                               "::1 6l",
                               "fe80::1%eth0 6k",
                               "[::1]:3000 6l",
                               "::1/64 0l",
                               "::1/abc 6l",
                               "localhost 0",
                               " 0",
                               "127.0.0.1 4l",
                               "127.0.0.1:80 0l",
                               "127.0.0.2 4",
                               "[::1]:80 6l",
                               "::2 6",
                               "224.0.0.1 4m",
                               "239.1.2.3:3000 0m",
                               "ff02::1 6m",
                               "[ff05::2]:9 6m",
                               "169.254.1.1 4k",
                               "169.253.1.1 4",
                               "fe80::1 6k",
                               "fe80::1%lo 6k",
                               "2001:db8::1 6",
                               "junk 0"})
   {
      std::string const text = c.substr(0, c.rfind(' '));
      int const family = c[text.size() + 1] - '0';
      SCOPED_TRACE(text);
      EXPECT_EQ(U::addrStringFamily(text.c_str()), family);
      EXPECT_EQ(U::isIpv4AddrString(text.c_str()), family == 4);
      EXPECT_EQ(U::isIpv6AddrString(text.c_str()), family == 6);
      EXPECT_EQ(std::string(U::isLoopbackAddrString(text.c_str()) ? "l" : "") +
                    (U::isMulticastAddrString(text.c_str()) ? "m" : "") +
                    (U::isLinkLocalAddrString(text.c_str()) ? "k" : ""),
                c.substr(text.size() + 2));
      EXPECT_FALSE(U::isLocalhostAddrString(text.c_str()));
   }
}

TEST(DtInetUtilsTextTest, PrefixAndNetmaskConversions)
{
   struct
   {
      unsigned int length, mask;
   } const lengths[] = {{0, 0u},           {1, 0x80000000u}, {24, 0xFFFFFF00u},
                        {32, 0xFFFFFFFFu}, {33, 0u},         {UINT_MAX, 0u}};
   for (auto const& c : lengths)
      EXPECT_EQ(U::prefixLenToIpv4Netmask(c.length), c.mask) << c.length;
   for (unsigned int n = 0; n <= 32; ++n)
      EXPECT_EQ(U::netmaskToPrefixLen(U::prefixLenToIpv4Netmask(n)), n);
   // Only leading ones count.
   EXPECT_EQ(U::netmaskToPrefixLen(0xFF00FF00u), 8u);
   EXPECT_EQ(U::netmaskToPrefixLen(0x7FFFFFFFu), 0u);
   EXPECT_EQ(U::netmaskToPrefixLen(0xFFFFFFFEu), 31u);

   // A number is a length for the mask, and refused as a prefix.
   struct
   {
      char const* text;
      unsigned int netmask, prefix;
   } const texts[] = {{"24", 0xFFFFFF00u, 0},
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
                      {"1.2.3.4/255.255.255.128", 0xFFFFFF80u, 25}};
   for (auto const& c : texts)
   {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(U::convertStringToNetmask(c.text), c.netmask);
      EXPECT_EQ(U::convertStringToPrefixLen(c.text), c.prefix);
   }
}

TEST(DtInetUtilsTextTest, RemoveZoneIndex)
{
   // "text bare"
   for (std::string const c : {"[fe80::1%eth0]:3000 fe80::1", "fe80::1%eth0 fe80::1",
                               "10.0.0.1 10.0.0.1", "[::1] ::1", "]x[ ", "% ", " ", "[ "})
   {
      std::string text = c.substr(0, c.find(' '));
      SCOPED_TRACE(text);
      EXPECT_EQ(std::string(U::removeZoneIndex(&text[0])), c.substr(c.find(' ') + 1));
   }
}

TEST(DtInetUtilsTextTest, HostAndPacketSize)
{
   char name[256] = {};
   ASSERT_EQ(gethostname(name, sizeof name - 1), 0);
   EXPECT_STREQ(U::getLocalHostname().c_str(), name);

   EXPECT_EQ(U::getMaxPacketBufferSize(), 65504);
   U::setMaxPacketBufferSize(1500);
   EXPECT_EQ(U::getMaxPacketBufferSize(), 1500);
   // Receive buffers are made with this size: nothing below one byte is taken.
   U::setMaxPacketBufferSize(0);
   U::setMaxPacketBufferSize(-1);
   EXPECT_EQ(U::getMaxPacketBufferSize(), 1500);
   U::setMaxPacketBufferSize(65504);
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
      char const* s = text.c_str();

      DtString host, portOrMask;
      int kind = -1;
      U::DtInetAddrFamily family = U::parseNetResLoc(s, host, portOrMask, kind);
      ASSERT_TRUE(kind >= 0 && kind <= 3);
      ASSERT_TRUE(family == U::DtInetFamilyNone || family == U::DtInetFamilyIPv4 ||
                  family == U::DtInetFamilyIPv6);
      std::string address = host.stdString();
      if (family == U::DtInetFamilyIPv6)
         address = address.substr(0, address.find('%'));
      unsigned char value[16];
      if (family != U::DtInetFamilyNone)
      {
         int af = family == U::DtInetFamilyIPv4 ? AF_INET : AF_INET6;
         ASSERT_EQ(inet_pton(af, address.c_str(), value), 1);
      }
      int detected = U::addrStringFamily(s);
      ASSERT_TRUE(detected == 0 || detected == 4 || detected == 6);
      (void)(U::isLoopbackAddrString(s) + U::isMulticastAddrString(s) +
             U::isLinkLocalAddrString(s) + U::convertStringToNetmask(s));
      ASSERT_LE(U::convertStringToPrefixLen(s), 32u);
      std::string copy = text;
      char* bare = U::removeZoneIndex(&copy[0]);
      ASSERT_TRUE(bare >= copy.c_str() && bare <= copy.c_str() + copy.size());
   }
}

}  // namespace
