// The address text utilities of DtInetUtils: locator parsers, family
// detection, predicates, mask arithmetic with its asymmetries, hostile text.
#include <olutil/olInetAddrUtils.h>

#include <arpa/inet.h>

#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetAddr.h>

namespace
{

using U = DtInetUtils;

TEST(DtInetUtilsTextTest, ParseNetResLoc)
{
   // text, family, host, port or mask (meaningful when kind is not 0), kind
   using Row = std::tuple<char const*, int, char const*, char const*, int>;
   for (auto const& [text, family, bare, portOrMaskWanted, kindWanted] :
        std::vector<Row>{{"10.0.0.1:3000 \t", 4, "10.0.0.1", "3000", 1},
                         {"10.0.0.1/24", 4, "10.0.0.1", "24", 3},
                         {"10.0.0.1/255.255.255.0", 4, "10.0.0.1", "255.255.255.0", 2},
                         {"10.0.0.1/255.255.255.999", 4, "10.0.0.1", "", 0},
                         {"10.0.0.1/24:80", 0, "10.0.0.1/24", "80", 1},  // port and mask: refused
                         {"10.0.0.1 junk", 0, "10.0.0.1 junk", "", 0},
                         {"[::1]:", 6, "::1", "", 0},
                         {"[fe80::1%eth0]:9", 6, "fe80::1%eth0", "9", 1},
                         {"2001:db8::/32", 6, "2001:db8::", "32", 3},
                         {"[2001:db8::1]:80/64", 0, "[2001:db8::1]", "db8::1]:80/64", 1},
                         {"myhost:3000", 0, "myhost", "3000", 1},
                         {":3000", 0, ":3000", "", 0}})
   {
      DtString host("stale"), portOrMask("stale");
      int kind = -1;
      EXPECT_EQ(U::parseNetResLoc(text, host, portOrMask, kind), family) << text;
      EXPECT_EQ(host.stdString() + " " + std::to_string(kind),
                bare + (" " + std::to_string(kindWanted)))
          << text;
      EXPECT_TRUE(kind == 0 || portOrMask.stdString() == portOrMaskWanted) << text;
   }
   // A ':' before the first '.' is not IPv4.
   DtString host, portOrMask;
   int kind = 0;
   EXPECT_FALSE(U::parseIpv4NetResLoc("::ffff:1.2.3.4", host, portOrMask, kind));
   EXPECT_FALSE(U::parseIpv6NetResLoc("10.0.0.1", host, portOrMask, kind));
}

TEST(DtInetUtilsTextTest, FamilyAndPredicates)
{
   // "text family flags", flags from "lmk": loopback, multicast, link-local. A
   // well-formed port or numeric prefix gives no family, on purpose; a prefix
   // that is no number passes. Only exactly 127.0.0.1 is loopback.
   for (std::string const c :
        {"10.0.0.1/255.0.0.0 4", "10.0.0.1:3000 0", "10.0.0.1:abc 0", "10.0.0.1/24 0",
         "10.0.0.1/abc 4", "1.2.3 0", "::1 6l", "fe80::1%eth0 6k", "[::1]:3000 6l", "::1/64 0l",
         "localhost 0", " 0", "127.0.0.1:80 0l", "127.0.0.2 4", "239.1.2.3:3000 0m",
         "[ff05::2]:9 6m", "169.254.1.1 4k", "169.253.1.1 4", "2001:db8::1 6"})
   {
      std::string const text = c.substr(0, c.rfind(' '));
      int const family = c[text.size() + 1] - '0';
      SCOPED_TRACE(text);
      EXPECT_EQ(U::addrStringFamily(text.c_str()), family);
      EXPECT_EQ(std::string(U::isLoopbackAddrString(text.c_str()) ? "l" : "") +
                    (U::isMulticastAddrString(text.c_str()) ? "m" : "") +
                    (U::isLinkLocalAddrString(text.c_str()) ? "k" : ""),
                c.substr(text.size() + 2));
   }
   EXPECT_FALSE(U::isLocalhostAddrString("localhost"));
}

TEST(DtInetUtilsTextTest, PrefixAndNetmaskConversions)
{
   EXPECT_EQ(U::prefixLenToIpv4Netmask(1), 0x80000000u);
   EXPECT_EQ(U::prefixLenToIpv4Netmask(33), 0u);
   EXPECT_EQ(U::prefixLenToIpv4Netmask(~0u), 0u);
   for (unsigned int n = 0; n <= 32; ++n)
      EXPECT_EQ(U::netmaskToPrefixLen(U::prefixLenToIpv4Netmask(n)), n);
   // Only leading ones count.
   EXPECT_EQ(U::netmaskToPrefixLen(0xFF00FF00u), 8u);
   EXPECT_EQ(U::netmaskToPrefixLen(0x7FFFFFFFu), 0u);

   // A number is a length for the mask, and refused as a prefix.
   // "text netmask prefix", hexadecimal netmask
   for (std::string const c : {"/24 ffffff00 0", "32 ffffffff 0", "33 0 0", "-1 0 0", "abc 0 0",
                               "/255.255.255.0 ffffff00 24", "255.0.255.0 ff00ff00 8",
                               "255.255.0 0 0", "1.2.3.4/255.255.255.128 ffffff80 25"})
   {
      std::istringstream row(c);
      std::string text;
      unsigned int netmask = 0, prefix = 0;
      row >> text >> std::hex >> netmask >> std::dec >> prefix;
      EXPECT_EQ(U::convertStringToNetmask(text.c_str()), netmask) << c;
      EXPECT_EQ(U::convertStringToPrefixLen(text.c_str()), prefix) << c;
   }
}

TEST(DtInetUtilsTextTest, RemoveZoneIndex)
{
   for (std::string const c : {"[fe80::1%eth0]:3000 fe80::1", "[::1] ::1", "]x[ ", "% "})
   {
      std::string text = c.substr(0, c.find(' '));
      EXPECT_EQ(std::string(U::removeZoneIndex(&text[0])), c.substr(c.find(' ') + 1)) << c;
   }
}

TEST(DtInetUtilsTextTest, MaxPacketBufferSize)
{
   EXPECT_EQ(U::getMaxPacketBufferSize(), 65504);
   // Receive buffers are made with this size: nothing below one byte is taken.
   for (int size : {1500, 0, -1})
      U::setMaxPacketBufferSize(size);
   EXPECT_EQ(U::getMaxPacketBufferSize(), 1500);
   U::setMaxPacketBufferSize(65504);
}

// Random text from the characters the parsers care about: every result is in
// its range, and what is accepted really parses.
TEST(DtInetUtilsTextTest, HostileTextGivesResultsNotCrashes)
{
   static char const alphabet[] = "0123456789abcdefABCDEF:.[]%/ \t\n-+x\xff";
   std::mt19937 random(12345);
   std::uniform_int_distribution<int> length(0, 48), pick(0, sizeof alphabet - 2);
   for (int round = 0; round < 20000; ++round)
   {
      std::string text;
      for (int n = length(random); n > 0; --n)
         text += alphabet[pick(random)];
      SCOPED_TRACE(text);
      DtString host, portOrMask;
      int kind = -1;
      int family = U::parseNetResLoc(text.c_str(), host, portOrMask, kind);
      ASSERT_TRUE(kind >= 0 && kind <= 3);
      std::string address = host.stdString().substr(0, host.stdString().find('%'));
      unsigned char value[16];
      int af = family == U::DtInetFamilyIPv4 ? AF_INET : AF_INET6;
      ASSERT_TRUE(family == U::DtInetFamilyNone || inet_pton(af, address.c_str(), value) == 1);
      int detected = U::addrStringFamily(text.c_str());
      ASSERT_TRUE(detected == 0 || detected == 4 || detected == 6);
      (void)(U::isLoopbackAddrString(text.c_str()) + U::isMulticastAddrString(text.c_str()) +
             U::isLinkLocalAddrString(text.c_str()) + U::convertStringToNetmask(text.c_str()));
      ASSERT_LE(U::convertStringToPrefixLen(text.c_str()), 32u);
      char* bare = U::removeZoneIndex(&text[0]);
      ASSERT_TRUE(bare >= text.c_str() && bare <= text.c_str() + text.size());
   }
}

}  // namespace
