// Tests of DtInetAddr.
#include <olutil/olInetAddr.h>

#include <arpa/inet.h>
#include <net/if.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include <boost/asio/ip/address.hpp>
#include <gtest/gtest.h>

#include <olutil/olExceptions.h>

#include "support_netns.h"

namespace
{

using U = DtInetUtils;

sockaddr_in6 raw6(char const* text, unsigned int scopeId)
{
   sockaddr_in6 raw;
   memset(&raw, 0, sizeof raw);
   raw.sin6_family = AF_INET6;
   inet_pton(AF_INET6, text, &raw.sin6_addr);
   raw.sin6_scope_id = scopeId;
   return raw;
}

DtInetAddr scoped(char const* text, unsigned int scopeId)
{
   return DtInetAddr(raw6(text, scopeId), 64u);
}

std::string str(DtInetAddr const& address)
{
   return address.toDtString().stdString();
}

// "text/prefix netmask flags" with flags from "bmla" (broadcast, multicast,
// loopback, any); IPv6 adds " %<Boost scope id> s<scope field>", and its text
// loses the zone, which Boost may print as an interface name.
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
   struct
   {
      char const *text, *mask, *facts;
   } const cases[] = {{"", nullptr, "0.0.0.0/8 ff000000 a"},
                      {"LocalHost", nullptr, "127.0.0.1/8 ff000000 l"},
                      {"loopback", "", "127.0.0.1/8 ff000000 l"},
                      {"INADDR_ANY", nullptr, "0.0.0.0/8 ff000000 a"},
                      {"IN6ADDR_ANY", nullptr, "::/0 00000000 a %0 s0"},
                      {"10.1.255.255", "255.255.0.0", "10.1.255.255/16 ffff0000 b"},
                      {"10.0.0.255", "/255.255.255.0", "10.0.0.255/24 ffffff00 b"},
                      // A numeric mask is not read as a length: the class mask applies.
                      {"10.0.0.1", "24", "10.0.0.1/8 ff000000 "},
                      {"10.255.255.255", "garbage", "10.255.255.255/8 ff000000 b"},
                      {"172.16.255.255", nullptr, "172.16.255.255/16 ffff0000 b"},
                      {"192.168.1.255", nullptr, "192.168.1.255/24 ffffff00 b"},
                      {"224.0.0.5", nullptr, "224.0.0.5/32 ffffffff m"},
                      {"::1", nullptr, "::1/0 00000000 l %0 s0"},
                      {"ff02::1", nullptr, "ff02::1/0 00000000 bm %0 s0"},
                      {"ff02::2", nullptr, "ff02::2/0 00000000 m %0 s0"},
                      {"[2001:db8::5]:3000", nullptr, "2001:db8::5/0 00000000  %0 s0"},
                      // A numeric zone names no interface: scope id 0.
                      {"fe80::1%3", nullptr, "fe80::1/0 00000000  %0 s0"},
                      // A zone on IPv4 text is cut off and ignored.
                      {"10.0.0.1%lo", nullptr, "10.0.0.1/8 ff000000 "}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(facts(DtInetAddr(c.text, c.mask)), c.facts);
   }
   unsigned int lo = if_nametoindex("lo");
   ASSERT_NE(lo, 0u);
   std::string const loScope = std::to_string(lo);
   EXPECT_EQ(facts(DtInetAddr("fe80::1%lo")), "fe80::1/0 00000000  %" + loScope + " s" + loScope);

   EXPECT_EQ(facts(DtInetAddr(static_cast<char const*>(nullptr), nullptr)), "0.0.0.0/8 ff000000 a");
   // The family constructor does not classify: class mask but prefix 0.
   EXPECT_EQ(facts(DtInetAddr(U::DtInetFamilyIPv4)), "0.0.0.0/0 ff000000 a");
   EXPECT_EQ(facts(DtInetAddr(static_cast<U::DtInetAddrFamily>(0))), "0.0.0.0/0 ff000000 a");
   EXPECT_EQ(facts(DtInetAddr(U::DtInetFamilyIPv6)), "::/0 00000000 a %0 s0");
}

TEST(DtInetAddrTest, BinaryConstructors)
{
   sockaddr_in in;
   memset(&in, 0, sizeof in);
   in.sin_addr.s_addr = htonl(0xC0000201u);
   DtInetAddr fromSockaddr(in, 0xFFFFFF00u);
   EXPECT_EQ(facts(fromSockaddr), "192.0.2.1/24 ffffff00 ");
   EXPECT_EQ(fromSockaddr.toULong(), 0xC0000201ul);
   EXPECT_EQ(facts(DtInetAddr(0xC00002FFu, 0xFFFFFF00u)), "192.0.2.255/24 ffffff00 b");
   EXPECT_EQ(facts(scoped("fe80::1", 7)), "fe80::1/64 00000000  %7 s7");

   // The storage form deliberately drops the scope id.
   sockaddr_storage storage;
   memset(&storage, 0, sizeof storage);
   sockaddr_in6 const in6 = raw6("fe80::1", 7);
   memcpy(&storage, &in6, sizeof in6);
   EXPECT_EQ(facts(DtInetAddr(storage, 64u)), "fe80::1/64 00000000  %0 s0");
   memset(&storage, 0, sizeof storage);
   auto* in4 = reinterpret_cast<sockaddr_in*>(&storage);
   in4->sin_family = AF_INET;
   in4->sin_addr.s_addr = htonl(0x0A0000FFu);
   EXPECT_EQ(facts(DtInetAddr(storage, 24u)), "10.0.0.255/24 ffffff00 b");

   boost::asio::ip::address boost = boost::asio::ip::make_address("ff02::1");
   EXPECT_EQ(facts(DtInetAddr(&boost)), "ff02::1/0 00000000 bm %0 s0");
}

TEST(DtInetAddrTest, U128AndSockaddrConversions)
{
   DtInetAddr wide("2001:db8::1:2");
   DtU128 value = wide.toU128();
   EXPECT_EQ(std::make_pair(value.high, value.low),
             std::make_pair(0x20010db800000000ul, 0x0000000000010002ul));
   EXPECT_EQ(facts(DtInetAddr(value, U::DtInetFamilyIPv6, 64u)),
             "2001:db8::1:2/64 00000000  %0 s0");
   DtU128 small = DtInetAddr("192.0.2.9").toU128();
   EXPECT_EQ(std::make_pair(small.high, small.low), std::make_pair(0ul, 0xC0000209ul));
   EXPECT_EQ(facts(DtInetAddr(small, U::DtInetFamilyIPv4, 24u)), "192.0.2.9/24 ffffff00 ");

   // Sockaddr conversions touch only their own family, and never the port.
   DtInetAddr v4("192.0.2.1");
   DtInetAddr v6 = scoped("fe80::2", 5);
   sockaddr_in in;
   memset(&in, 0xAB, sizeof in);
   EXPECT_EQ(v6.toSockaddr(&in), -1);
   EXPECT_EQ(in.sin_family, 0xABABu);
   EXPECT_EQ(v4.toSockaddr(&in), 0);
   EXPECT_EQ(in.sin_family + in.sin_port, AF_INET + 0xABABu);
   EXPECT_EQ(in.sin_addr.s_addr, htonl(0xC0000201u));
   sockaddr_in6 in6;
   memset(&in6, 0, sizeof in6);
   EXPECT_EQ(v4.toSockaddr(&in6), -1);
   EXPECT_EQ(in6.sin6_family, 0u);
   EXPECT_EQ(v6.toSockaddr(&in6), 0);
   EXPECT_EQ(in6.sin6_scope_id, 5u);

   sockaddr_storage storage;
   EXPECT_EQ(v4.toAddrStorage(&storage), 0);
   EXPECT_EQ(storage.ss_family, AF_INET);
   EXPECT_EQ(v6.toAddrStorage(&storage), 0);
   EXPECT_EQ(storage.ss_family, AF_INET6);
   EXPECT_EQ(v6.toULong(), 0ul);
}

TEST(DtInetAddrTest, MaskPrefixAndScopeSetters)
{
   DtInetAddr v4("192.0.2.1");
   v4.setNetmask(0xFFFF0000u);
   EXPECT_EQ(v4.prefix(), 16u);
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
}

TEST(DtInetAddrTest, CachesAndProcessWideAddresses)
{
   DtInetAddr address("192.0.2.1", "255.255.255.0");
   DtInetAddr* broadcast = address.getBroadcastAddr();
   ASSERT_NE(broadcast, nullptr);
   EXPECT_EQ(facts(*broadcast), "192.0.2.255/24 ffffff00 b");
   address.setNetmask(0xFFFF0000u);
   EXPECT_EQ(address.getBroadcastAddr(), broadcast);  // same object, new value
   EXPECT_EQ(str(*broadcast), "192.0.255.255");

   DtInetAddr v6("2001:db8::1");
   DtInetAddr* allNodes = v6.getBroadcastAddr();
   EXPECT_EQ(str(*allNodes), "ff02::1");

   // Assignment keeps the target's cache; a copy starts without one. The
   // pointer handed out before the assignment stays valid and now answers FF02::1.
   address = v6;
   EXPECT_EQ(address.getBroadcastAddr(), broadcast);
   EXPECT_EQ(str(*broadcast), "ff02::1");
   DtInetAddr copy(v6);
   EXPECT_NE(copy.getBroadcastAddr(), allNodes);

   DtInetAddr* loopback = nullptr;
   {
      DtInetAddr scopedV6("2001:db8::1");
      loopback = scopedV6.getLoopbackAddr();
   }
   EXPECT_EQ(str(*loopback), "::1");  // the copy outlives its address
   EXPECT_EQ(str(*DtInetAddr("192.0.2.1").getLoopbackAddr()), "127.0.0.1");

   // Anything but 4 is IPv6 for the any address, anything but 6 IPv4 for the loopback.
   EXPECT_EQ(str(DtInetAddr::inaddrAny(U::DtInetFamilyIPv4)), "0.0.0.0");
   EXPECT_TRUE(DtInetAddr::inaddrAny(U::DtInetFamilyNone).isIPv6());
   EXPECT_TRUE(DtInetAddr::loopbackAddress(U::DtInetFamilyNone).isIPv4());
   EXPECT_EQ(str(DtInetAddr::loopbackAddress(U::DtInetFamilyIPv6)), "::1");
}

TEST(DtInetAddrTest, ZeroScopeIsAWildcardInComparisons)
{
   DtInetAddr none = scoped("fe80::1", 0);
   DtInetAddr two = scoped("fe80::1", 2);
   DtInetAddr three = scoped("fe80::1", 3);
   EXPECT_TRUE(none == three && three == none && two == none);  // not transitive
   EXPECT_TRUE(two != three && !(two == three));
   EXPECT_FALSE(none < three || none > three);
   EXPECT_TRUE(two < three && three > two);

   DtInetAddr v4("255.255.255.255");
   DtInetAddr v6("::");
   EXPECT_TRUE(v4 < v6 && v6 > v4 && !(v4 > v6));
   EXPECT_FALSE(DtInetAddr("::ffff:10.0.0.1") == DtInetAddr("10.0.0.1"));
   // Netmask, prefix and flags take no part.
   EXPECT_TRUE(DtInetAddr("10.0.0.1", "255.255.255.0") == DtInetAddr("10.0.0.1"));

   std::multimap<DtInetAddr, int> byAddress;
   byAddress.insert({DtInetAddr("2001:db8::1"), 6});
   byAddress.insert({DtInetAddr("192.0.2.1"), 4});
   EXPECT_EQ(byAddress.begin()->second, 4);
   EXPECT_EQ(byAddress.count(DtInetAddr("192.0.2.1")), 1u);
}

// Text that is not an address goes to the resolver: in a private namespace
// with nothing but loopback, so that no query leaves the machine.
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
      SCOPED_TRACE(text);
      try
      {
         DtInetAddr address(text, text);
         EXPECT_TRUE(address.isIPv4() || address.isIPv6());
      }
      catch (DtException const& error)
      {
         EXPECT_NE(strstr(error.message(), "Invalid string format for IP address - "), nullptr);
      }
   }
}

}  // namespace
