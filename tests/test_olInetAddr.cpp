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

namespace
{

DtInetAddr scoped(char const* text, unsigned int scopeId)
{
   sockaddr_in6 raw{};
   raw.sin6_family = AF_INET6;
   inet_pton(AF_INET6, text, &raw.sin6_addr);
   raw.sin6_scope_id = scopeId;
   return DtInetAddr(raw, 64u);
}

// "text/prefix netmask flags", flags "bmla": broadcast, multicast, loopback, any. IPv6 adds
// " %<Boost scope id> s<scope field>"; its text loses the zone Boost may print as a name.
std::string facts(DtInetAddr const& a)
{
   char mask[16];
   snprintf(mask, sizeof mask, "%08x ", a.netmask());
   std::string const text = a.toDtString().stdString();
   std::string result = text.substr(0, text.find('%')) + "/" + std::to_string(a.prefix()) + " " +
                        mask + (a.isBroadcast() ? "b" : "") + (a.isMulticast() ? "m" : "") +
                        (a.isLoopback() ? "l" : "") + (a.isAnyAddr() ? "a" : "");
   if (a.isIPv6())
      result += " %" + std::to_string(a.boostAddress().to_v6().scope_id()) + " s" +
                std::to_string(static_cast<unsigned int>(a.scope()));
   return result;
}

TEST(DtInetAddrTest, BuildsFromTextAndClassifies)
{
   std::string const lo = std::to_string(if_nametoindex("lo"));
   std::tuple<char const*, char const*, std::string> const cases[] = {
       {"", nullptr, "0.0.0.0/8 ff000000 a"},
       {"LocalHost", nullptr, "127.0.0.1/8 ff000000 l"},
       {"127.0.0.2", nullptr, "127.0.0.2/8 ff000000 "},  // only 127.0.0.1 is the loopback
       {"172.16.0.1", nullptr, "172.16.0.1/16 ffff0000 "},
       {"192.168.1.255", nullptr, "192.168.1.255/24 ffffff00 b"},
       {"10.0.0.1", "255.255.255.254", "10.0.0.1/31 fffffffe "},
       {"10.0.0.255", "/255.255.255.0", "10.0.0.255/24 ffffff00 b"},
       {"10.0.0.1", "24", "10.0.0.1/8 ff000000 "},  // not a length: the class mask applies
       {"224.0.0.5", nullptr, "224.0.0.5/32 ffffffff m"},
       {"ff02::1", nullptr, "ff02::1/0 00000000 bm %0 s0"},
       {"fe80::1%lo", nullptr, "fe80::1/0 00000000  %" + lo + " s" + lo},
       {"10.0.0.1%lo", nullptr, "10.0.0.1/8 ff000000 "}};  // zone cut off and ignored
   for (auto const& [text, mask, wanted] : cases)
      EXPECT_EQ(facts(DtInetAddr(text, mask)), wanted) << text;
}

TEST(DtInetAddrTest, BinaryFormsMasksBroadcastCacheAndScopeComparisons)
{
   // Conversions touch only their own family, and never the port.
   sockaddr_in in;
   memset(&in, 0xAB, sizeof in);
   EXPECT_TRUE(scoped("fe80::2", 5).toSockaddr(&in) == -1 && in.sin_family == 0xABAB &&
               DtInetAddr("192.0.2.1").toSockaddr(&in) == 0 && in.sin_port == 0xABAB);
   EXPECT_EQ(facts(DtInetAddr(in, 0xFFFFFF00u)), "192.0.2.1/24 ffffff00 ");
   // The storage form deliberately drops the scope id.
   sockaddr_storage storage;
   EXPECT_TRUE(scoped("fe80::1", 7).toAddrStorage(&storage) == 0 &&
               reinterpret_cast<sockaddr_in6*>(&storage)->sin6_scope_id == 7u);
   EXPECT_EQ(facts(DtInetAddr(storage, 64u)), "fe80::1/64 00000000  %0 s0");

   DtInetAddr v6("2001:db8::1");
   v6.setNetmask(0xFFFFFF00u);  // ignored on IPv6
   v6.setPrefixLen(48);
   EXPECT_EQ(facts(v6), "2001:db8::1/48 00000000  %0 s0");
   DtU128 const word = DtInetAddr("192.0.2.1").toU128();
   EXPECT_TRUE(word.high == 0 && word.low == 0xC0000201u);
   EXPECT_EQ(facts(DtInetAddr(v6.toU128(), DtInetUtils::DtInetFamilyIPv6, 48)), facts(v6));

   DtInetAddr address("192.0.2.1", "255.255.255.0");
   DtInetAddr* broadcast = address.getBroadcastAddr();
   EXPECT_EQ(facts(*broadcast), "192.0.2.255/24 ffffff00 b");
   address.setNetmask(0xFFFF0000u);
   EXPECT_TRUE(address.getBroadcastAddr() == broadcast);  // the same object, now for /16
   EXPECT_EQ(facts(*broadcast), "192.0.255.255/16 ffff0000 b");
   // Assignment keeps the target's cache, which now answers for IPv6.
   address = v6;
   EXPECT_TRUE(address.getBroadcastAddr() == broadcast &&
               broadcast->toDtString().stdString() == "ff02::1");

   // A zero scope id is a wildcard in comparisons, which are so not transitive.
   DtInetAddr none = scoped("fe80::1", 0), two = scoped("fe80::1", 2), three = scoped("fe80::1", 3);
   EXPECT_TRUE(none == three && three == none && two == none && two != three);
   EXPECT_TRUE(two < three && three > two && !(none < three) && !(none > three));
   two.setScope(DtInetIpv6ScopeSiteLocal);  // an address's own scope id stays
   EXPECT_EQ(two.scope(), DtInetIpv6ScopeLinkLocal);
   EXPECT_FALSE(DtInetAddr("10.0.0.1") > DtInetAddr("10.0.0.1"));
   EXPECT_TRUE(DtInetAddr("255.255.255.255") < DtInetAddr("::") &&
               DtInetAddr("::ffff:10.0.0.1") != DtInetAddr("10.0.0.1") &&
               DtInetAddr("10.0.0.1", "255.255.255.0") == DtInetAddr("10.0.0.1"));  // no mask
}

}  // namespace
