// The address text utilities of DtInetUtils: locator parsers, family detection,
// predicates and mask arithmetic with its asymmetries. Random text goes through
// them in fuzz/fuzz_inet_text.cpp.
#include <olutil/olInetAddrUtils.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using U = DtInetUtils;

TEST(DtInetUtilsTextTest, LocatorsFamiliesPredicatesAndMasks)
{
   // text, family, "host kind", port or mask (meaningful when kind is not 0)
   using Row = std::tuple<char const*, int, char const*, char const*>;
   for (auto const& [text, family, hostAndKind, portOrMaskWanted] :
        std::vector<Row>{{"10.0.0.1:3000 \t", 4, "10.0.0.1 1", "3000"},
                         {"10.0.0.1/24", 4, "10.0.0.1 3", "24"},
                         {"10.0.0.1/255.255.255.0", 4, "10.0.0.1 2", "255.255.255.0"},
                         {"10.0.0.1/255.255.255.999", 4, "10.0.0.1 0", ""},
                         {"10.0.0.1/24:80", 0, "10.0.0.1/24 1", "80"},  // port and mask: refused
                         {"[fe80::1%eth0]:9", 6, "fe80::1%eth0 1", "9"},
                         {"2001:db8::/32", 6, "2001:db8:: 3", "32"},
                         {":3000", 0, ":3000 0", ""}})
   {
      DtString host("stale"), portOrMask("stale");
      int kind = -1;
      EXPECT_EQ(U::parseNetResLoc(text, host, portOrMask, kind), family) << text;
      EXPECT_EQ(host.stdString() + " " + std::to_string(kind), hostAndKind) << text;
      EXPECT_TRUE(kind == 0 || portOrMask.stdString() == portOrMaskWanted) << text;
   }
   // A ':' before the first '.' is not IPv4.
   DtString host, portOrMask;
   int kind = 0;
   EXPECT_FALSE(U::parseIpv4NetResLoc("::ffff:1.2.3.4", host, portOrMask, kind));

   // "text family flags", flags from "lmk": loopback, multicast, link-local. A
   // well-formed port or numeric prefix gives no family, on purpose; a prefix
   // that is no number passes. Only exactly 127.0.0.1 is loopback.
   for (std::string const c :
        {"10.0.0.1/255.0.0.0 4", "10.0.0.1:3000 0", "10.0.0.1/24 0", "10.0.0.1/abc 4", "1.2.3 0",
         "fe80::1%eth0 6k", "[::1]:3000 6l", "::1/64 0l", "127.0.0.1:80 0l", "127.0.0.2 4",
         "239.1.2.3:3000 0m", "[ff05::2]:9 6m", "169.254.1.1 4k", "169.1.2.3 4"})
   {
      std::string const text = c.substr(0, c.rfind(' '));
      SCOPED_TRACE(text);
      EXPECT_EQ(U::addrStringFamily(text.c_str()), c[text.size() + 1] - '0');
      EXPECT_EQ(std::string(U::isLoopbackAddrString(text.c_str()) ? "l" : "") +
                    (U::isMulticastAddrString(text.c_str()) ? "m" : "") +
                    (U::isLinkLocalAddrString(text.c_str()) ? "k" : ""),
                c.substr(text.size() + 2));
   }
   EXPECT_FALSE(U::isLocalhostAddrString("localhost"));

   for (unsigned int n = 0; n <= 33; ++n)  // 33: no mask
      EXPECT_EQ(U::netmaskToPrefixLen(U::prefixLenToIpv4Netmask(n)), n % 33);
   EXPECT_EQ(U::prefixLenToIpv4Netmask(~0u), 0u);
   // Only leading ones count.
   EXPECT_EQ(U::netmaskToPrefixLen(0xFF00FF00u), 8u);
   EXPECT_EQ(U::netmaskToPrefixLen(0x7FFFFFFFu), 0u);
   // A number is a length for the mask and refused as a prefix; a dotted mask gives both.
   EXPECT_EQ(U::convertStringToNetmask("/24") + U::convertStringToPrefixLen("/24"), 0xFFFFFF00u);
   EXPECT_EQ(U::convertStringToPrefixLen("1.2.3.4/255.255.255.128"), 25u);
   EXPECT_EQ(U::convertStringToNetmask("255.255.0") + U::convertStringToNetmask("33"), 0u);
}

}  // namespace
