// Tests of DtInetAddr: construction from every source, classification,
// the caches, conversions and the comparison with its zero-scope wildcard.
#include <olutil/olInetAddr.h>

#include <arpa/inet.h>
#include <net/if.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include <boost/asio/ip/address.hpp>
#include <gtest/gtest.h>

#include <olutil/olExceptions.h>

#include "support_netns.h"

namespace
{

using U = DtInetUtils;

DtInetAddr scoped(char const* text, unsigned int scopeId)
{
   sockaddr_in6 raw;
   memset(&raw, 0, sizeof raw);
   raw.sin6_family = AF_INET6;
   inet_pton(AF_INET6, text, &raw.sin6_addr);
   raw.sin6_scope_id = scopeId;
   return DtInetAddr(raw, 64u);
}

std::string str(DtInetAddr const& address)
{
   return address.toDtString().stdString();
}

TEST(DtInetAddrTest, BuildsFromTextAndClassifies)
{
   struct
   {
      char const *text, *mask, *expected;
      unsigned int netmask;
      unsigned long prefix;
      bool broadcast, multicast, loopback, any;
   } const cases[] = {
       {"", nullptr, "0.0.0.0", 0xFF000000u, 8, false, false, false, true},
       {"LocalHost", nullptr, "127.0.0.1", 0xFF000000u, 8, false, false, true, false},
       {"loopback", "", "127.0.0.1", 0xFF000000u, 8, false, false, true, false},
       {"INADDR_ANY", nullptr, "0.0.0.0", 0xFF000000u, 8, false, false, false, true},
       {"IN6ADDR_ANY", nullptr, "::", 0, 0, false, false, false, true},
       {"127.0.0.2", nullptr, "127.0.0.2", 0xFF000000u, 8, false, false, false, false},
       {"10.1.255.255", "255.255.0.0", "10.1.255.255", 0xFFFF0000u, 16, true, false, false, false},
       {"10.0.0.1", "255.255.255.254", "10.0.0.1", 0xFFFFFFFEu, 31, false, false, false, false},
       {"10.0.0.255", "/255.255.255.0", "10.0.0.255", 0xFFFFFF00u, 24, true, false, false, false},
       // A numeric mask is not read as a length: the class mask applies.
       {"10.0.0.1", "24", "10.0.0.1", 0xFF000000u, 8, false, false, false, false},
       {"10.255.255.255", "garbage", "10.255.255.255", 0xFF000000u, 8, true, false, false, false},
       {"172.16.255.255", nullptr, "172.16.255.255", 0xFFFF0000u, 16, true, false, false, false},
       {"192.168.1.255", nullptr, "192.168.1.255", 0xFFFFFF00u, 24, true, false, false, false},
       {"224.0.0.5", nullptr, "224.0.0.5", 0xFFFFFFFFu, 32, false, true, false, false},
       {"::1", nullptr, "::1", 0, 0, false, false, true, false},
       {"ff02::1", nullptr, "ff02::1", 0, 0, true, true, false, false},
       {"ff01::1", nullptr, "ff01::1", 0, 0, false, true, false, false},
       {"ff02::2", nullptr, "ff02::2", 0, 0, false, true, false, false},
       {"[2001:db8::5]:3000", nullptr, "2001:db8::5", 0, 0, false, false, false, false},
       {"fe80::1%3", nullptr, "fe80::1", 0, 0, false, false, false, false},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.text);
      DtInetAddr address(c.text, c.mask);
      EXPECT_EQ(str(address), c.expected);
      EXPECT_EQ(address.netmask(), c.netmask);
      EXPECT_EQ(address.prefix(), c.prefix);
      EXPECT_EQ(address.isBroadcast(), c.broadcast);
      EXPECT_EQ(address.isMulticast(), c.multicast);
      EXPECT_EQ(address.isLoopback(), c.loopback);
      EXPECT_EQ(address.isAnyAddr(), c.any);
   }
}

TEST(DtInetAddrTest, ZoneNamesBecomeScopeIds)
{
   DtInetAddr numeric("fe80::1%3");
   EXPECT_EQ(numeric.boostAddress().to_v6().scope_id(), 0u);
   EXPECT_EQ(numeric.scope(), DtInetIpv6ScopeNone);
   unsigned int lo = if_nametoindex("lo");
   ASSERT_NE(lo, 0u);
   DtInetAddr named("fe80::1%lo");
   EXPECT_EQ(named.boostAddress().to_v6().scope_id(), lo);
   EXPECT_EQ(static_cast<unsigned int>(named.scope()), lo);
   // A zone on IPv4 text is cut off and ignored.
   EXPECT_EQ(str(DtInetAddr("10.0.0.1%lo")), "10.0.0.1");
}

TEST(DtInetAddrTest, NullTextAndFamilyConstructorsGiveTheAnyAddress)
{
   DtInetAddr null(static_cast<char const*>(nullptr), static_cast<char const*>(nullptr));
   EXPECT_TRUE(null.isAnyAddr());
   EXPECT_TRUE(null.isIPv4());
   // No classification: class mask but prefix 0, and no broadcast flag.
   DtInetAddr v4(U::DtInetFamilyIPv4);
   EXPECT_EQ(str(v4), "0.0.0.0");
   EXPECT_EQ(v4.netmask(), 0xFF000000u);
   EXPECT_EQ(v4.prefix(), 0u);
   EXPECT_TRUE(v4.isAnyAddr());
   EXPECT_FALSE(v4.isBroadcast());
   EXPECT_TRUE(DtInetAddr(static_cast<U::DtInetAddrFamily>(0)).isIPv4());
   DtInetAddr v6(U::DtInetFamilyIPv6);
   EXPECT_EQ(str(v6), "::");
   EXPECT_EQ(v6.family(), U::DtInetFamilyIPv6);
   EXPECT_TRUE(v6.isAnyAddr());
}

TEST(DtInetAddrTest, BinaryConstructors)
{
   sockaddr_in in;
   memset(&in, 0, sizeof in);
   in.sin_addr.s_addr = htonl(0xC0000201u);
   DtInetAddr fromSockaddr(in, 0xFFFFFF00u);
   EXPECT_EQ(str(fromSockaddr), "192.0.2.1");
   EXPECT_EQ(fromSockaddr.prefix(), 24u);
   EXPECT_EQ(fromSockaddr.toULong(), 0xC0000201ul);
   EXPECT_TRUE(DtInetAddr(0xC00002FFu, 0xFFFFFF00u).isBroadcast());

   DtInetAddr withScope = scoped("fe80::1", 7);
   EXPECT_EQ(withScope.boostAddress().to_v6().scope_id(), 7u);
   EXPECT_EQ(static_cast<unsigned int>(withScope.scope()), 7u);
   EXPECT_EQ(withScope.prefix(), 64u);

   // The storage form deliberately drops the scope id.
   sockaddr_storage storage;
   memset(&storage, 0, sizeof storage);
   auto* in6 = reinterpret_cast<sockaddr_in6*>(&storage);
   in6->sin6_family = AF_INET6;
   inet_pton(AF_INET6, "fe80::1", &in6->sin6_addr);
   in6->sin6_scope_id = 7;
   DtInetAddr fromStorage(storage, 64u);
   EXPECT_EQ(fromStorage.boostAddress().to_v6().scope_id(), 0u);
   EXPECT_EQ(fromStorage.scope(), DtInetIpv6ScopeNone);

   memset(&storage, 0, sizeof storage);
   auto* in4 = reinterpret_cast<sockaddr_in*>(&storage);
   in4->sin_family = AF_INET;
   in4->sin_addr.s_addr = htonl(0x0A0000FFu);
   DtInetAddr fromStorage4(storage, 24u);
   EXPECT_EQ(fromStorage4.netmask(), 0xFFFFFF00u);
   EXPECT_TRUE(fromStorage4.isBroadcast());

   boost::asio::ip::address boost = boost::asio::ip::make_address("ff02::1");
   EXPECT_TRUE(DtInetAddr(&boost).isBroadcast());
}

TEST(DtInetAddrTest, U128AndSockaddrConversions)
{
   DtInetAddr wide("2001:db8::1:2");
   DtU128 value = wide.toU128();
   EXPECT_EQ(value.high, 0x20010db800000000ul);
   EXPECT_EQ(value.low, 0x0000000000010002ul);
   DtInetAddr back(value, U::DtInetFamilyIPv6, 64u);
   EXPECT_TRUE(back == wide);
   EXPECT_EQ(back.prefix(), 64u);

   DtU128 small = DtInetAddr("192.0.2.9").toU128();
   EXPECT_EQ(small.high, 0ul);
   EXPECT_EQ(small.low, 0xC0000209ul);
   DtInetAddr back4(small, U::DtInetFamilyIPv4, 24u);
   EXPECT_EQ(str(back4), "192.0.2.9");
   EXPECT_EQ(back4.netmask(), 0xFFFFFF00u);

   // Sockaddr conversions touch only their own family.
   DtInetAddr v4("192.0.2.1");
   DtInetAddr v6 = scoped("fe80::2", 5);

   sockaddr_in in;
   memset(&in, 0xAB, sizeof in);
   EXPECT_EQ(v6.toSockaddr(&in), -1);
   EXPECT_EQ(in.sin_family, 0xABABu);
   EXPECT_EQ(v4.toSockaddr(&in), 0);
   EXPECT_EQ(in.sin_family, AF_INET);
   EXPECT_EQ(in.sin_addr.s_addr, htonl(0xC0000201u));
   EXPECT_EQ(in.sin_port, 0xABABu);  // the port is the caller's

   sockaddr_in6 in6;
   memset(&in6, 0, sizeof in6);
   EXPECT_EQ(v4.toSockaddr(&in6), -1);
   EXPECT_EQ(in6.sin6_family, 0u);
   EXPECT_EQ(v6.toSockaddr(&in6), 0);
   EXPECT_EQ(in6.sin6_family, AF_INET6);
   EXPECT_EQ(in6.sin6_scope_id, 5u);

   sockaddr_storage storage;
   memset(&storage, 0, sizeof storage);
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
   EXPECT_EQ(v4.prefix(), 40u);
   EXPECT_EQ(v4.netmask(), 0u);

   DtInetAddr v6("2001:db8::1");
   v6.setNetmask(0xFFFFFF00u);  // ignored on IPv6
   EXPECT_EQ(v6.netmask(), 0u);
   EXPECT_EQ(v6.prefix(), 0u);
   v6.setPrefixLen(48);
   EXPECT_EQ(v6.prefix(), 48u);
   EXPECT_EQ(v6.netmask(), 0u);

   // The scope is set only on an address without scope id.
   DtInetAddr plain("fe80::1");
   plain.setScope(DtInetIpv6ScopeLinkLocal);
   EXPECT_EQ(plain.scope(), DtInetIpv6ScopeLinkLocal);
   EXPECT_EQ(plain.boostAddress().to_v6().scope_id(), 0u);
   DtInetAddr withId = scoped("fe80::1", 4);
   withId.setScope(DtInetIpv6ScopeGlobal);
   EXPECT_EQ(static_cast<unsigned int>(withId.scope()), 4u);
}

TEST(DtInetAddrTest, BroadcastCacheIsOwnedAndRecomputed)
{
   DtInetAddr address("192.0.2.1", "255.255.255.0");
   DtInetAddr* broadcast = address.getBroadcastAddr();
   ASSERT_NE(broadcast, nullptr);
   EXPECT_EQ(str(*broadcast), "192.0.2.255");
   EXPECT_EQ(broadcast->netmask(), 0xFFFFFF00u);
   EXPECT_TRUE(broadcast->isBroadcast());

   address.setNetmask(0xFFFF0000u);
   EXPECT_EQ(address.getBroadcastAddr(), broadcast);  // same object, new value
   EXPECT_EQ(str(*broadcast), "192.0.255.255");

   DtInetAddr v6("2001:db8::1");
   DtInetAddr* allNodes = v6.getBroadcastAddr();
   EXPECT_EQ(str(*allNodes), "ff02::1");
   EXPECT_EQ(v6.getBroadcastAddr(), allNodes);

   // Assignment keeps the target's cache; a copy starts without one. The
   // pointer handed out before the assignment stays valid and now answers FF02::1.
   address = v6;
   EXPECT_EQ(address.getBroadcastAddr(), broadcast);
   EXPECT_EQ(str(*broadcast), "ff02::1");
   DtInetAddr copy(v6);
   EXPECT_NE(copy.getBroadcastAddr(), allNodes);
}

TEST(DtInetAddrTest, LoopbackAndProcessWideAddresses)
{
   DtInetAddr* loopback = nullptr;
   {
      DtInetAddr v6("2001:db8::1");
      loopback = v6.getLoopbackAddr();
      EXPECT_EQ(v6.getLoopbackAddr(), loopback);
   }
   EXPECT_EQ(str(*loopback), "::1");  // the copy outlives its address
   EXPECT_EQ(str(*DtInetAddr("192.0.2.1").getLoopbackAddr()), "127.0.0.1");

   EXPECT_EQ(str(DtInetAddr::inaddrAny(U::DtInetFamilyIPv4)), "0.0.0.0");
   EXPECT_EQ(str(DtInetAddr::inaddrAny(U::DtInetFamilyIPv6)), "::");
   // Anything but 4 is IPv6 here, and anything but 6 is IPv4 for the loopback.
   EXPECT_TRUE(DtInetAddr::inaddrAny(U::DtInetFamilyNone).isIPv6());
   EXPECT_TRUE(DtInetAddr::loopbackAddress(U::DtInetFamilyNone).isIPv4());
   EXPECT_EQ(str(DtInetAddr::loopbackAddress(U::DtInetFamilyIPv6)), "::1");
}

TEST(DtInetAddrTest, ZeroScopeIsAWildcardInComparisons)
{
   DtInetAddr none = scoped("fe80::1", 0);
   DtInetAddr two = scoped("fe80::1", 2);
   DtInetAddr three = scoped("fe80::1", 3);
   EXPECT_TRUE(none == three);
   EXPECT_TRUE(three == none);
   EXPECT_FALSE(two == three);
   EXPECT_TRUE(two != three);
   EXPECT_TRUE(two == none);  // not transitive across scopes
   EXPECT_FALSE(none < three);
   EXPECT_FALSE(none > three);
   EXPECT_TRUE(two < three);
   EXPECT_TRUE(three > two);

   DtInetAddr v4("255.255.255.255");
   DtInetAddr v6("::");
   EXPECT_TRUE(v4 < v6);
   EXPECT_FALSE(v4 > v6);
   EXPECT_TRUE(v6 > v4);
   EXPECT_FALSE(DtInetAddr("::ffff:10.0.0.1") == DtInetAddr("10.0.0.1"));
   // Netmask, prefix and flags take no part.
   EXPECT_TRUE(DtInetAddr("10.0.0.1", "255.255.255.0") == DtInetAddr("10.0.0.1"));

   std::multimap<DtInetAddr, int> byAddress;
   byAddress.insert({DtInetAddr("2001:db8::1"), 6});
   byAddress.insert({DtInetAddr("192.0.2.1"), 4});
   EXPECT_EQ(byAddress.begin()->second, 4);
   EXPECT_EQ(byAddress.count(DtInetAddr("192.0.2.1")), 1u);
}

// Text that is not an address goes to the resolver. This test takes a private
// network namespace with nothing but loopback, so that no query leaves the
// machine: the configured name server is unreachable from inside.
TEST(DtInetAddrNameTest, UnresolvableAndHostileTextInANamespace)
{
   std::string why;
   if (!olt::TestNetns::isAvailable(&why))
      GTEST_SKIP() << "name resolution is tested in a private network namespace: " << why;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetAddr unresolved("no-such-host.invalid");
   EXPECT_TRUE(unresolved.isIPv4());
   EXPECT_TRUE(unresolved.isAnyAddr());

   // Each either parses, falls back to the any address, or raises DtException.
   for (char const* text :
        {"%", "%%%%", "[", "]", "[]", "[%]", "::::::::", "1.2.3.4.5", "999.1.1.1", "[::1", "/",
         "/32", ":", "1.2.3.4:99999", "[fe80::1%]", "x.invalid%lo", "\xff\xfe\xfd.invalid",
         "a b c.invalid", "1:2:3:4:5:6:7:8:9"})
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
