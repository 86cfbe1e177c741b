// Tests of DtInetAddr.
#include <olutil/olInetAddr.h>

#include <arpa/inet.h>
#include <net/if.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include <boost/asio/ip/address.hpp>
#include <gtest/gtest.h>

#include <olutil/olExceptions.h>

#include "support_netns.h"

namespace
{

using U = DtInetUtils;

DtInetAddr scoped(char const* text, unsigned int scopeId)
{
   sockaddr_in6 raw{};
   raw.sin6_family = AF_INET6;
   inet_pton(AF_INET6, text, &raw.sin6_addr);
   raw.sin6_scope_id = scopeId;
   return DtInetAddr(raw, 64u);
}

std::string str(DtInetAddr const& address)
{
   return address.toDtString().stdString();
}

// "text/prefix netmask flags", flags "bmla": broadcast, multicast, loopback, any. IPv6 adds
// " %<Boost scope id> s<scope field>"; its text loses the zone Boost may print as a name.
std::string facts(DtInetAddr const& a)
{
   char mask[16];
   snprintf(mask, sizeof mask, "%08x ", a.netmask());
   std::string result = str(a).substr(0, str(a).find('%')) + "/" + std::to_string(a.prefix()) +
                        " " + mask + (a.isBroadcast() ? "b" : "") + (a.isMulticast() ? "m" : "") +
                        (a.isLoopback() ? "l" : "") + (a.isAnyAddr() ? "a" : "");
   if (a.isIPv6())
      result += " %" + std::to_string(a.boostAddress().to_v6().scope_id()) + " s" +
                std::to_string(static_cast<unsigned int>(a.scope()));
   return result;
}

TEST(DtInetAddrTest, BuildsFromTextAndClassifies)
{
   std::tuple<char const*, char const*, char const*> const cases[] = {
       {"", nullptr, "0.0.0.0/8 ff000000 a"},
       {"LocalHost", nullptr, "127.0.0.1/8 ff000000 l"},
       {"127.0.0.2", nullptr, "127.0.0.2/8 ff000000 "},
       {"IN6ADDR_ANY", nullptr, "::/0 00000000 a %0 s0"},
       {"10.1.255.255", "255.255.0.0", "10.1.255.255/16 ffff0000 b"},
       {"10.0.0.1", "255.255.255.254", "10.0.0.1/31 fffffffe "},
       {"10.0.0.255", "/255.255.255.0", "10.0.0.255/24 ffffff00 b"},
       // A numeric mask is not read as a length: the class mask applies.
       {"10.0.0.1", "24", "10.0.0.1/8 ff000000 "},
       {"172.16.255.255", nullptr, "172.16.255.255/16 ffff0000 b"},
       {"192.168.1.255", nullptr, "192.168.1.255/24 ffffff00 b"},
       {"224.0.0.5", nullptr, "224.0.0.5/32 ffffffff m"},
       {"::1", nullptr, "::1/0 00000000 l %0 s0"},
       {"ff02::1", nullptr, "ff02::1/0 00000000 bm %0 s0"},
       {"ff02::2", nullptr, "ff02::2/0 00000000 m %0 s0"},
       {"[2001:db8::5]:3000", nullptr, "2001:db8::5/0 00000000  %0 s0"},
       {"fe80::1%3", nullptr, "fe80::1/0 00000000  %0 s0"},  // names no interface
       {"10.0.0.1%lo", nullptr, "10.0.0.1/8 ff000000 "}};    // zone cut off and ignored
   for (auto const& [text, mask, wanted] : cases)
      EXPECT_EQ(facts(DtInetAddr(text, mask)), wanted) << text;
   std::string const lo = std::to_string(if_nametoindex("lo"));
   EXPECT_EQ(facts(DtInetAddr("fe80::1%lo")), "fe80::1/0 00000000  %" + lo + " s" + lo);
   // The family constructor does not classify: class mask but prefix 0.
   EXPECT_EQ(facts(DtInetAddr(U::DtInetFamilyIPv4)), "0.0.0.0/0 ff000000 a");
}

TEST(DtInetAddrTest, BinaryFormsBothWays)
{
   // Conversions touch only their own family, and never the port.
   sockaddr_in in;
   memset(&in, 0xAB, sizeof in);
   EXPECT_TRUE(scoped("fe80::2", 5).toSockaddr(&in) == -1 && in.sin_family == 0xABAB);
   EXPECT_TRUE(DtInetAddr("192.0.2.1").toSockaddr(&in) == 0 && in.sin_family == AF_INET &&
               in.sin_port == 0xABAB && in.sin_addr.s_addr == htonl(0xC0000201u));
   EXPECT_EQ(facts(DtInetAddr(in, 0xFFFFFF00u)), "192.0.2.1/24 ffffff00 ");
   EXPECT_EQ(facts(DtInetAddr(0xC00002FFu, 0xFFFFFF00u)), "192.0.2.255/24 ffffff00 b");
   EXPECT_EQ(facts(scoped("fe80::1", 7)), "fe80::1/64 00000000  %7 s7");
   // The storage form deliberately drops the scope id.
   sockaddr_storage storage;
   EXPECT_TRUE(scoped("fe80::1", 7).toAddrStorage(&storage) == 0 &&
               reinterpret_cast<sockaddr_in6*>(&storage)->sin6_scope_id == 7u);
   EXPECT_EQ(facts(DtInetAddr(storage, 64u)), "fe80::1/64 00000000  %0 s0");
   DtU128 value = DtInetAddr("2001:db8::1:2").toU128();
   EXPECT_TRUE(value.high == 0x20010db800000000ul && value.low == 0x10002ul);
   EXPECT_EQ(facts(DtInetAddr(value, U::DtInetFamilyIPv6, 64u)),
             "2001:db8::1:2/64 00000000  %0 s0");
   value = DtInetAddr("192.0.2.9").toU128();
   EXPECT_TRUE(value.high == 0 && value.low == 0xC0000209ul);
}

TEST(DtInetAddrTest, MaskPrefixScopeAndCaches)
{
   DtInetAddr v4("192.0.2.1");
   v4.setPrefixLen(20);
   EXPECT_EQ(v4.netmask(), 0xFFFFF000u);
   v4.setPrefixLen(40);  // out of range: no mask
   EXPECT_EQ(facts(v4), "192.0.2.1/40 00000000 ");
   DtInetAddr v6("2001:db8::1");
   v6.setNetmask(0xFFFFFF00u);  // ignored on IPv6
   v6.setPrefixLen(48);
   EXPECT_EQ(facts(v6), "2001:db8::1/48 00000000  %0 s0");
   // The scope is set only on an address without scope id.
   DtInetAddr plain("fe80::1");
   plain.setScope(DtInetIpv6ScopeLinkLocal);
   EXPECT_EQ(facts(plain), "fe80::1/0 00000000  %0 s" + std::to_string(DtInetIpv6ScopeLinkLocal));
   DtInetAddr withId = scoped("fe80::1", 4);
   withId.setScope(DtInetIpv6ScopeGlobal);
   EXPECT_EQ(static_cast<unsigned int>(withId.scope()), 4u);

   // The IPv4 broadcast is recomputed in the same object; IPv6 answers FF02::1.
   DtInetAddr address("192.0.2.1", "255.255.255.0");
   DtInetAddr* broadcast = address.getBroadcastAddr();
   EXPECT_EQ(facts(*broadcast), "192.0.2.255/24 ffffff00 b");
   address.setNetmask(0xFFFF0000u);
   EXPECT_TRUE(address.getBroadcastAddr() == broadcast && str(*broadcast) == "192.0.255.255");
   // Assignment keeps the target's cache, which now answers for IPv6.
   address = v6;
   EXPECT_TRUE(address.getBroadcastAddr() == broadcast && str(*broadcast) == "ff02::1");
   EXPECT_EQ(str(*v6.getLoopbackAddr()), "::1");
   // Anything but 4 is IPv6 for the any address, anything but 6 IPv4 for the loopback.
   EXPECT_TRUE(DtInetAddr::inaddrAny(U::DtInetFamilyNone).isIPv6());
   EXPECT_TRUE(DtInetAddr::loopbackAddress(U::DtInetFamilyNone).isIPv4());
}

TEST(DtInetAddrTest, ZeroScopeIsAWildcardInComparisons)
{
   DtInetAddr none = scoped("fe80::1", 0), two = scoped("fe80::1", 2), three = scoped("fe80::1", 3);
   EXPECT_TRUE(none == three && three == none && two == none && two != three);  // not transitive
   EXPECT_TRUE(two < three && three > two && !(none < three) && !(none > three));
   EXPECT_TRUE(DtInetAddr("255.255.255.255") < DtInetAddr("::"));
   EXPECT_FALSE(DtInetAddr("::ffff:10.0.0.1") == DtInetAddr("10.0.0.1"));
   EXPECT_TRUE(DtInetAddr("10.0.0.1", "255.255.255.0") == DtInetAddr("10.0.0.1"));  // no mask
}

// Text that is not an address goes to the resolver: only inside a loopback-only namespace.
TEST(DtInetAddrNameTest, UnresolvableAndHostileTextInANamespace)
{
   std::string why;
   if (!olt::TestNetns::isAvailable(&why))
      GTEST_SKIP() << "name resolution is tested in a private network namespace: " << why;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();
   EXPECT_EQ(facts(DtInetAddr("no-such-host.invalid")), "0.0.0.0/8 ff000000 a");
   // Each either parses, falls back to the any address, or raises DtException.
   for (char const* text : {"%", "[", "[]", "[%]", "::::::::", "999.1.1.1", "[::1", "/32", ":",
                            "1.2.3.4:99999", "[fe80::1%]", "\xff\xfe\xfd.invalid"})
   {
      try
      {
         DtInetAddr address(text, text);
         EXPECT_TRUE(address.isIPv4() || address.isIPv6()) << text;
      }
      catch (DtException const& error)
      {
         EXPECT_NE(strstr(error.message(), "Invalid string format for IP address - "), nullptr);
      }
   }
}

}  // namespace
