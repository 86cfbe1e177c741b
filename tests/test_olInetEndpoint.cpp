// Tests of DtInetEndpoint: text forms, the lookup order (interface name, numeric
// form, resolver), the error state, assignment, comparison, and hostile text.
#include <olutil/olInetEndpoint.h>

#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include <olutil/olInetAddr.h>
#include <olutil/olInetAddrUtils.h>

#include "support_netns.h"

namespace
{

DtInetUtils::DtInetAddrFamily family(int n)
{
   return static_cast<DtInetUtils::DtInetAddrFamily>(n);
}

std::string text(DtString const& s)
{
   return s.c_str() ? std::string(s.c_str()) : std::string();
}

std::string addressText(DtInetEndpoint const& endpoint)
{
   return text(endpoint.address().toDtString(false));
}

// Runs `body` on the main thread inside a fresh network namespace that has only
// its loopback, so a name query fails at once and nothing leaves this machine.
// False, with `body` not run, when no namespace can be made.
bool runIsolated(std::function<void()> const& body)
{
   if (!olt::TestNetns::isAvailable())
   {
      return false;
   }
   olt::TestNetns ns;
   if (!ns.ok())
   {
      return false;
   }
   olt::NetnsGuard inside(ns);
   if (!inside.ok())
   {
      return false;
   }
   body();
   return true;
}

// For bodies that resolve only names under ".invalid": isolated where possible,
// and otherwise here, where such names fail at the resolver as they must anywhere.
void withoutNetwork(std::function<void()> const& body)
{
   if (!runIsolated(body))
   {
      body();
   }
}

void lookUpHostileText(char const* t)
{
   SCOPED_TRACE(std::string("text \"") + t + "\"");
   for (int f : {0, 4, 6})
   {
      for (DtInetProtocol protocol :
           {DtInetProtocolUdp, DtInetProtocolTcp, DtInetProtocolUnspecified})
      {
         try
         {
            DtInetEndpoint endpoint(DtString(t), 9, protocol, family(f));
            // Whatever came of it, the value is usable.
            (void)endpoint.toDtString(true);
            (void)endpoint.getLastErrorString();
            EXPECT_TRUE(endpoint.isOk());
            EXPECT_TRUE(endpoint.isIPv4() || endpoint.isIPv6());
            EXPECT_EQ(endpoint.udpEndpoint() != nullptr, protocol == DtInetProtocolUdp);
            EXPECT_EQ(endpoint.tcpEndpoint() != nullptr, protocol == DtInetProtocolTcp);
         }
         catch (...)
         {
            ADD_FAILURE() << "lookup threw for family " << f;
         }
      }
   }
}

}  // namespace

// ---------------------------------------------------------------- text forms

TEST(InetEndpointText, ShortAndLongForms)
{
   struct Case
   {
      char const* address;
      unsigned short port;
      DtInetProtocol protocol;
      char const* shortText;
      char const* longText;
   };
   Case const cases[] = {
       {"10.0.0.1", 0, DtInetProtocolUdp, "10.0.0.1:any", "10.0.0.1:any(UDP)"},
       {"10.0.0.1", 4000, DtInetProtocolTcp, "10.0.0.1:4000", "10.0.0.1:4000(TCP)"},
       {"::1", 3000, DtInetProtocolTcp, "[::1]:3000", "[::1]:3000(TCP)"},
       {"::1", 3000, DtInetProtocolUdp, "[::1]:3000", "[::1]:3000(UDP)"},
       {"::", 0, DtInetProtocolUdp, "[::]:any", "[::]:any(UDP)"},
       {"0.0.0.0", 0, DtInetProtocolTcp, "0.0.0.0:any", "0.0.0.0:any(TCP)"},
       {"127.0.0.1", 65535, DtInetProtocolUnspecified, "127.0.0.1:65535", "127.0.0.1:65535"},
       {"239.1.2.3", 1, DtInetProtocolUdp, "239.1.2.3:1", "239.1.2.3:1(UDP)"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::string(c.address) + " port " + std::to_string(c.port));
      DtInetEndpoint endpoint(DtInetAddr(c.address, ""), c.port, c.protocol);
      EXPECT_EQ(text(endpoint.toDtString(false)), c.shortText);
      EXPECT_EQ(text(endpoint.toDtString(true)), c.longText);
      // Asked again, the cached texts are the same.
      EXPECT_EQ(text(endpoint.toDtString(false)), c.shortText);
   }
}

TEST(InetEndpointText, DefaultEndpoint)
{
   DtInetEndpoint endpoint;
   EXPECT_EQ(endpoint.protocol(), DtInetProtocolUnspecified);
   EXPECT_EQ(endpoint.port(), 0);
   EXPECT_TRUE(endpoint.isIPv4());
   EXPECT_TRUE(endpoint.address().isAnyAddr());
   EXPECT_EQ(endpoint.tcpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.udpEndpoint(), nullptr);
   EXPECT_TRUE(endpoint.isOk());
   EXPECT_EQ(text(endpoint.toDtString(true)), "0.0.0.0:any");
}

TEST(InetEndpointText, UnspecifiedProtocolKeepsOldTextAfterSetters)
{
   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 100, DtInetProtocolUnspecified);
   EXPECT_EQ(text(endpoint.toDtString(false)), "10.0.0.1:100");
   endpoint.setPort(200);
   endpoint.setAddress(DtInetAddr("10.0.0.2", ""));
   // Kept on purpose: without a protocol the setters leave the cache alone.
   EXPECT_EQ(text(endpoint.toDtString(false)), "10.0.0.1:100");
   EXPECT_EQ(endpoint.port(), 200);
   // A protocol rebuilds everything.
   endpoint.setProtocol(DtInetProtocolUdp);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.2:200(UDP)");
}

TEST(InetEndpointText, SettersRefreshTextWithAProtocol)
{
   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 100, DtInetProtocolTcp);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.1:100(TCP)");
   endpoint.setPort(0);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.1:any(TCP)");
   endpoint.setAddress(DtInetAddr("::1", ""));
   EXPECT_EQ(text(endpoint.toDtString(true)), "[::1]:any(TCP)");
   endpoint.setEndpoint(DtInetProtocolUdp, DtInetAddr("192.0.2.7", ""), 9);
   EXPECT_EQ(text(endpoint.toDtString(true)), "192.0.2.7:9(UDP)");
}

TEST(InetEndpointText, StreamsTheLongForm)
{
   std::ostringstream out;
   out << DtInetEndpoint(DtInetAddr("10.0.0.1", ""), 7, DtInetProtocolUdp);
   EXPECT_EQ(out.str(), "10.0.0.1:7(UDP)");
}

// ---------------------------------------------------------------- Boost endpoints

TEST(InetEndpointBoost, EndpointFollowsProtocol)
{
   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 4000, DtInetProtocolUdp);
   ASSERT_NE(endpoint.udpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.tcpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.udpEndpoint()->port(), 4000);
   EXPECT_EQ(endpoint.udpEndpoint()->address().to_string(), "10.0.0.1");
   EXPECT_TRUE(endpoint.isUdp());
   EXPECT_FALSE(endpoint.isTcp());

   endpoint.setProtocol(DtInetProtocolTcp);
   EXPECT_EQ(endpoint.udpEndpoint(), nullptr);
   ASSERT_NE(endpoint.tcpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.tcpEndpoint()->port(), 4000);
   EXPECT_TRUE(endpoint.isTcp());

   endpoint.setProtocol(DtInetProtocolUnspecified);
   EXPECT_EQ(endpoint.udpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.tcpEndpoint(), nullptr);
}

TEST(InetEndpointBoost, AnyAddressKeepsItsFamily)
{
   DtInetEndpoint v6(DtInetAddr(family(6)), 5, DtInetProtocolUdp);
   ASSERT_NE(v6.udpEndpoint(), nullptr);
   EXPECT_TRUE(v6.udpEndpoint()->address().is_v6());
   EXPECT_TRUE(v6.udpEndpoint()->address().is_unspecified());
   EXPECT_TRUE(v6.isIPv6());
   EXPECT_EQ(static_cast<int>(v6.family()), 6);

   DtInetEndpoint v4(DtInetAddr(family(4)), 5, DtInetProtocolTcp);
   ASSERT_NE(v4.tcpEndpoint(), nullptr);
   EXPECT_TRUE(v4.tcpEndpoint()->address().is_v4());
   EXPECT_TRUE(v4.tcpEndpoint()->address().is_unspecified());
}

TEST(InetEndpointBoost, ToSockaddrSetsPortOnlyOnSuccess)
{
   DtInetEndpoint endpoint(DtInetAddr("10.1.2.3", ""), 3000, DtInetProtocolUdp);
   sockaddr_in in4;
   std::memset(&in4, 0, sizeof in4);
   ASSERT_EQ(endpoint.toSockaddr(&in4), 0);
   EXPECT_EQ(in4.sin_family, AF_INET);
   EXPECT_EQ(ntohs(in4.sin_port), 3000);
   EXPECT_EQ(ntohl(in4.sin_addr.s_addr), 0x0A010203u);

   sockaddr_in6 in6;
   std::memset(&in6, 0xAB, sizeof in6);
   EXPECT_NE(endpoint.toSockaddr(&in6), 0);
   EXPECT_EQ(in6.sin6_port, 0xABAB) << "a failed conversion leaves the port alone";

   DtInetEndpoint v6(DtInetAddr("::1", ""), 443, DtInetProtocolTcp);
   std::memset(&in6, 0, sizeof in6);
   ASSERT_EQ(v6.toSockaddr(&in6), 0);
   EXPECT_EQ(in6.sin6_family, AF_INET6);
   EXPECT_EQ(ntohs(in6.sin6_port), 443);
   std::memset(&in4, 0xCD, sizeof in4);
   EXPECT_NE(v6.toSockaddr(&in4), 0);
   EXPECT_EQ(in4.sin_port, 0xCDCD);
}

// ---------------------------------------------------------------- numeric lookups

TEST(InetEndpointLookup, NumericForms)
{
   struct Case
   {
      char const* text;
      unsigned short portArgument;
      int family;
      char const* address;
      unsigned short port;
      unsigned int netmask;  // 0: not checked (IPv6)
   };
   Case const cases[] = {
       // A port in the text is never applied: the port argument rules.
       {"10.0.0.1:4000", 3000, 4, "10.0.0.1", 3000, 0xFF000000u},
       {"10.0.0.1", 3000, 4, "10.0.0.1", 3000, 0xFF000000u},
       {"10.0.0.1", 0, 0, "10.0.0.1", 0, 0xFF000000u},
       {"192.0.2.9:1", 7, 0, "192.0.2.9", 7, 0xFFFFFF00u},
       // Port texts the conversion rejects are not applied either.
       {"10.0.0.1:http", 3000, 4, "10.0.0.1", 3000, 0xFF000000u},
       {"10.0.0.1:99999999999999999999", 3000, 4, "10.0.0.1", 3000, 0xFF000000u},
       // A dotted netmask is applied; a numeric prefix is not, so the class mask stays.
       {"10.1.2.3/255.255.0.0", 1, 4, "10.1.2.3", 1, 0xFFFF0000u},
       {"10.1.2.3/24", 1, 4, "10.1.2.3", 1, 0xFF000000u},
       {"10.1.2.3/abc", 1, 4, "10.1.2.3", 1, 0xFF000000u},
       {"172.16.0.1", 2, 4, "172.16.0.1", 2, 0xFFFF0000u},
       {"[::1]:3000", 5, 6, "::1", 5, 0},
       {"::1", 5, 6, "::1", 5, 0},
       {"2001:db8::7/64", 5, 6, "2001:db8::7", 5, 0},
       {"[2001:db8::7]", 5, 0, "2001:db8::7", 5, 0},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.text);
      DtInetEndpoint endpoint(DtString(c.text), c.portArgument, DtInetProtocolUdp,
                              family(c.family));
      EXPECT_TRUE(endpoint.isOk()) << text(endpoint.getLastErrorString());
      EXPECT_EQ(addressText(endpoint), c.address);
      EXPECT_EQ(endpoint.port(), c.port);
      if (c.netmask != 0)
      {
         EXPECT_EQ(endpoint.address().netmask(), c.netmask);
      }
      ASSERT_NE(endpoint.udpEndpoint(), nullptr);
      EXPECT_EQ(endpoint.udpEndpoint()->port(), c.port);
      EXPECT_EQ(endpoint.udpEndpoint()->address().to_string(), c.address);
   }
}

TEST(InetEndpointLookup, PortAlreadySetWins)
{
   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 1234, DtInetProtocolTcp);
   endpoint.hostLookup(DtString("10.0.0.2:80"), 80, family(4));
   EXPECT_EQ(endpoint.port(), 1234);
   EXPECT_EQ(addressText(endpoint), "10.0.0.2");
   ASSERT_NE(endpoint.tcpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.tcpEndpoint()->address().to_string(), "10.0.0.2");
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.2:1234(TCP)");
}

TEST(InetEndpointLookup, UnspecifiedProtocolBuildsNoBoostEndpoint)
{
   DtInetEndpoint endpoint(DtString("10.0.0.3"), 9, DtInetProtocolUnspecified, family(0));
   EXPECT_TRUE(endpoint.isOk());
   EXPECT_EQ(addressText(endpoint), "10.0.0.3");
   EXPECT_EQ(endpoint.tcpEndpoint(), nullptr);
   EXPECT_EQ(endpoint.udpEndpoint(), nullptr);
}

TEST(InetEndpointLookup, LocalhostResolves)
{
   struct Case
   {
      DtInetProtocol protocol;
      int family;
   };
   Case const cases[] = {
       {DtInetProtocolTcp, 4},
       {DtInetProtocolUdp, 4},
       {DtInetProtocolUnspecified, 4},
       {DtInetProtocolUdp, 0},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.protocol) + " family " + std::to_string(c.family));
      DtInetEndpoint endpoint(DtString("localhost"), 3000, c.protocol, family(c.family));
      ASSERT_TRUE(endpoint.isOk()) << text(endpoint.getLastErrorString());
      EXPECT_TRUE(endpoint.address().isLoopback()) << addressText(endpoint);
      EXPECT_EQ(endpoint.port(), 3000);
   }
   DtInetEndpoint v4(DtString("localhost"), 1, DtInetProtocolUdp, family(4));
   EXPECT_EQ(addressText(v4), "127.0.0.1");
}

TEST(InetEndpointLookup, FailedLookupKeepsAddressAndClearsWhenRead)
{
   withoutNetwork(
       []
       {
          DtInetEndpoint endpoint(DtInetAddr("10.9.8.7", ""), 0, DtInetProtocolUdp);
          endpoint.hostLookup(DtString("no-such-host.invalid"), 2000, family(4));
          EXPECT_FALSE(endpoint.isOk());
          EXPECT_EQ(addressText(endpoint), "10.9.8.7");
          EXPECT_EQ(endpoint.port(), 2000);
          EXPECT_EQ(text(endpoint.getLastErrorString()),
                    "Host lookup failed for no-such-host.invalid");
          EXPECT_TRUE(endpoint.isOk());
          EXPECT_EQ(text(endpoint.getLastErrorString()), "");

          // The constructor's form starts from the IPv4 any address.
          DtInetEndpoint made(DtString("x.invalid:3000"), 5, DtInetProtocolTcp, family(0));
          EXPECT_FALSE(made.isOk());
          EXPECT_TRUE(made.address().isAnyAddr());
          EXPECT_EQ(made.port(), 5);
          ASSERT_NE(made.tcpEndpoint(), nullptr);
          EXPECT_EQ(text(made.getLastErrorString()), "Host lookup failed for x.invalid:3000");

          // A later good lookup does not clear an unread error: only reading does.
          DtInetEndpoint again(DtString("a.invalid"), 5, DtInetProtocolUdp, family(6));
          again.hostLookup(DtString("10.0.0.1"), 5, family(4));
          EXPECT_FALSE(again.isOk());
          EXPECT_EQ(addressText(again), "10.0.0.1");
       });
}

TEST(InetEndpointLookup, EmptyTextIsAFailedLookup)
{
   DtInetEndpoint endpoint(DtString(""), 80, DtInetProtocolUdp, family(0));
   EXPECT_FALSE(endpoint.isOk());
   EXPECT_TRUE(endpoint.address().isAnyAddr());
   EXPECT_EQ(text(endpoint.getLastErrorString()), "Host lookup failed for ");
}

// ---------------------------------------------------------------- interface names

class InetEndpointInterface : public ::testing::Test
{
protected:
   void SetUp() override
   {
      std::string reason;
      if (!olt::TestNetns::isAvailable(&reason))
      {
         GTEST_SKIP() << "interface-name lookups need a network namespace: " << reason;
      }
      ns_.reset(new olt::TestNetns);
      if (!ns_->ok())
      {
         GTEST_SKIP() << "could not make a network namespace: " << ns_->error();
      }
      // A veth pair with both families, and one whose end oltc0 has IPv6 only.
      ASSERT_TRUE(ns_->addVethPair("olta0", "oltb0")) << ns_->error();
      ASSERT_TRUE(ns_->addAddress("olta0", "192.0.2.1/24")) << ns_->error();
      ASSERT_TRUE(ns_->addAddress("olta0", "2001:db8::1/64")) << ns_->error();
      ASSERT_TRUE(ns_->setLinkUp("olta0")) << ns_->error();
      ASSERT_TRUE(ns_->setLinkUp("oltb0")) << ns_->error();
      ASSERT_TRUE(ns_->addVethPair("oltc0", "oltd0")) << ns_->error();
      ASSERT_TRUE(ns_->addAddress("oltc0", "2001:db8:1::5/64")) << ns_->error();
      ASSERT_TRUE(ns_->setLinkUp("oltc0")) << ns_->error();
      ASSERT_TRUE(ns_->setLinkUp("oltd0")) << ns_->error();
   }

   std::unique_ptr<olt::TestNetns> ns_;
};

TEST_F(InetEndpointInterface, NameGivesTheInterfaceAddress)
{
   // Interface scans read /proc/net, which follows the main thread: stay on it.
   olt::NetnsGuard inside(*ns_);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetEndpoint v4(DtString("olta0"), 3000, DtInetProtocolUdp, family(4));
   EXPECT_TRUE(v4.isOk()) << text(v4.getLastErrorString());
   EXPECT_EQ(addressText(v4), "192.0.2.1");
   EXPECT_EQ(text(v4.toDtString(true)), "192.0.2.1:3000(UDP)");

   DtInetEndpoint v6(DtString("olta0"), 3000, DtInetProtocolTcp, family(6));
   EXPECT_TRUE(v6.isOk()) << text(v6.getLastErrorString());
   // The interface's first IPv6 address in the kernel's list: the global one or
   // the link-local one the kernel gave it when it came up.
   std::string const chosen = addressText(v6);
   EXPECT_TRUE(v6.isIPv6()) << chosen;
   EXPECT_TRUE(chosen == "2001:db8::1" || chosen.rfind("fe80:", 0) == 0) << chosen;
   EXPECT_EQ(text(v6.toDtString(false)), "[" + chosen + "]:3000");

   DtInetEndpoint loopback(DtString("lo"), 1, DtInetProtocolUdp, family(4));
   EXPECT_TRUE(loopback.isOk()) << text(loopback.getLastErrorString());
   EXPECT_EQ(addressText(loopback), "127.0.0.1");
}

TEST_F(InetEndpointInterface, InterfaceWithoutAddressOfTheFamilyIsInactive)
{
   olt::NetnsGuard inside(*ns_);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetEndpoint endpoint(DtInetAddr("10.5.5.5", ""), 0, DtInetProtocolUdp);
   endpoint.hostLookup(DtString("oltc0"), 7, family(4));
   EXPECT_FALSE(endpoint.isOk());
   EXPECT_EQ(addressText(endpoint), "10.5.5.5");
   EXPECT_EQ(text(endpoint.getLastErrorString()), "Local interface device oltc0 is inactive");

   endpoint.hostLookup(DtString("oltc0"), 7, family(6));
   EXPECT_TRUE(endpoint.isOk()) << text(endpoint.getLastErrorString());
   EXPECT_TRUE(endpoint.isIPv6());
   EXPECT_TRUE(addressText(endpoint) == "2001:db8:1::5" ||
               addressText(endpoint).rfind("fe80:", 0) == 0)
       << addressText(endpoint);
}

TEST_F(InetEndpointInterface, UnknownNameGoesToTheResolver)
{
   olt::NetnsGuard inside(*ns_);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetEndpoint endpoint(DtString("oltzz.invalid"), 7, DtInetProtocolUdp, family(4));
   EXPECT_FALSE(endpoint.isOk());
   EXPECT_EQ(text(endpoint.getLastErrorString()), "Host lookup failed for oltzz.invalid");
}

// ---------------------------------------------------------------- copy and assignment

TEST(InetEndpointAssign, CopyKeepsErrorStateAndText)
{
   withoutNetwork(
       []
       {
          DtInetEndpoint source(DtString("copy.invalid"), 9, DtInetProtocolUdp, family(4));
          ASSERT_FALSE(source.isOk());
          EXPECT_EQ(text(source.toDtString(true)), "0.0.0.0:9(UDP)");

          DtInetEndpoint copy(source);
          EXPECT_FALSE(copy.isOk());
          EXPECT_EQ(text(copy.getLastErrorString()), "Host lookup failed for copy.invalid");
          EXPECT_FALSE(source.isOk()) << "reading the copy's error leaves the source's";
          ASSERT_NE(copy.udpEndpoint(), nullptr);
          EXPECT_NE(copy.udpEndpoint(), source.udpEndpoint());
          EXPECT_EQ(*copy.udpEndpoint(), *source.udpEndpoint());
          EXPECT_EQ(text(copy.toDtString(true)), "0.0.0.0:9(UDP)");
       });
}

TEST(InetEndpointAssign, AssignmentKeepsTargetsOtherBoostEndpointAndErrorState)
{
   withoutNetwork(
       []
       {
          DtInetEndpoint target(DtString("target.invalid"), 80, DtInetProtocolTcp, family(4));
          ASSERT_FALSE(target.isOk());
          ASSERT_NE(target.tcpEndpoint(), nullptr);
          EXPECT_EQ(text(target.toDtString(true)), "0.0.0.0:80(TCP)");

          DtInetEndpoint source(DtInetAddr("10.0.0.1", ""), 53, DtInetProtocolUdp);
          target = source;
          EXPECT_EQ(target.protocol(), DtInetProtocolUdp);
          EXPECT_EQ(target.port(), 53);
          EXPECT_EQ(addressText(target), "10.0.0.1");
          // The TCP endpoint the source lacks stays as it was.
          ASSERT_NE(target.tcpEndpoint(), nullptr);
          EXPECT_EQ(target.tcpEndpoint()->port(), 80);
          ASSERT_NE(target.udpEndpoint(), nullptr);
          EXPECT_EQ(target.udpEndpoint()->port(), 53);
          EXPECT_FALSE(target.isOk()) << "assignment leaves the target's error state";
          EXPECT_EQ(text(target.toDtString(true)), "10.0.0.1:53(UDP)");
          EXPECT_TRUE(target == source);

          auto& same = target;
          target = same;
          EXPECT_EQ(target.port(), 53);
       });
}

TEST(InetEndpointAssign, AssigningAnUnspecifiedEndpointKeepsBothBoostEndpoints)
{
   DtInetEndpoint target(DtInetAddr("10.0.0.1", ""), 1, DtInetProtocolUdp);
   DtInetEndpoint source;
   target = source;
   EXPECT_EQ(target.protocol(), DtInetProtocolUnspecified);
   EXPECT_NE(target.udpEndpoint(), nullptr);
   EXPECT_EQ(text(target.toDtString(true)), "0.0.0.0:any");
   EXPECT_FALSE(target == target);
}

// ---------------------------------------------------------------- comparison

TEST(InetEndpointCompare, UnspecifiedEqualsNothing)
{
   DtInetEndpoint a;
   DtInetEndpoint const& b = a;
   EXPECT_FALSE(a == b);
   EXPECT_TRUE(a != b);
   EXPECT_FALSE(a < b);
   EXPECT_TRUE(a > b);
}

TEST(InetEndpointCompare, TcpAndUdpAreUnrelated)
{
   DtInetEndpoint tcp(DtInetAddr("10.0.0.1", ""), 5, DtInetProtocolTcp);
   DtInetEndpoint udp(DtInetAddr("10.0.0.1", ""), 5, DtInetProtocolUdp);
   EXPECT_FALSE(tcp == udp);
   EXPECT_FALSE(udp == tcp);
   EXPECT_FALSE(tcp < udp);
   EXPECT_FALSE(udp < tcp);
   EXPECT_TRUE(tcp > udp);
   EXPECT_TRUE(udp > tcp);
}

TEST(InetEndpointCompare, OrderByAddressThenPort)
{
   struct Case
   {
      char const* left;
      unsigned short leftPort;
      char const* right;
      unsigned short rightPort;
      int expected;  // -1 left < right, 0 equal, 1 left > right
   };
   Case const cases[] = {
       {"10.0.0.1", 5, "10.0.0.1", 5, 0}, {"10.0.0.1", 5, "10.0.0.1", 6, -1},
       {"10.0.0.2", 1, "10.0.0.1", 6, 1}, {"10.0.0.1", 9, "::1", 1, -1},
       {"::1", 1, "::1", 1, 0},           {"::2", 1, "::1", 9, 1},
   };
   for (DtInetProtocol protocol : {DtInetProtocolUdp, DtInetProtocolTcp})
   {
      for (Case const& c : cases)
      {
         SCOPED_TRACE(std::string(c.left) + " vs " + c.right + " protocol " +
                      std::to_string(protocol));
         DtInetEndpoint left(DtInetAddr(c.left, ""), c.leftPort, protocol);
         DtInetEndpoint right(DtInetAddr(c.right, ""), c.rightPort, protocol);
         EXPECT_EQ(left == right, c.expected == 0);
         EXPECT_EQ(left != right, c.expected != 0);
         EXPECT_EQ(left < right, c.expected < 0);
         EXPECT_EQ(left > right, c.expected > 0);
      }
   }
}

TEST(InetEndpointCompare, UsableAsMapKey)
{
   std::map<DtInetEndpoint, int> bundles;
   bundles[DtInetEndpoint(DtInetAddr("10.0.0.2", ""), 1, DtInetProtocolUdp)] = 1;
   bundles[DtInetEndpoint(DtInetAddr("10.0.0.1", ""), 2, DtInetProtocolUdp)] = 2;
   bundles[DtInetEndpoint(DtInetAddr("10.0.0.2", ""), 1, DtInetProtocolUdp)] = 3;
   ASSERT_EQ(bundles.size(), 2u);
   EXPECT_EQ(text(bundles.begin()->first.toDtString(false)), "10.0.0.1:2");
   EXPECT_EQ(bundles.rbegin()->second, 3);
}

// ---------------------------------------------------------------- hostile text

TEST(InetEndpointHostile, OddNumericAndInvalidNamesNeverCrash)
{
   // Every text here that reaches the resolver names a host under ".invalid"
   // (the empty one is refused before it).
   std::string const longName = std::string(300, 'a') + ".invalid";
   char const* const texts[] = {
       "",
       "1.2.3.4:",
       "1.2.3.4/",
       "1.2.3.4:/",
       "1.2.3.4:65535",
       "1.2.3.4:0",
       "1.2.3.4:-1",
       "1.2.3.4/0",
       "1.2.3.4/33",
       "1.2.3.4/-5",
       "1.2.3.4/255.255.255.256",
       "1.2.3.4 5.6.7.8",
       "[::1",
       "::1]",
       "[::1]:",
       "[::1]:99999999999999999999",
       "::1/129",
       "::1/-1",
       "[fe80::1%lo]:80",
       "fe80::1%",
       "fe80::1%%%",
       "fe80::1%nosuchif0",
       "x.invalid:",
       "x.invalid:99999999999999999999",
       "%.invalid",
       "\xff\xfe\x01.invalid",
       "bad host.invalid",
       longName.c_str(),
   };
   withoutNetwork(
       [&]
       {
          for (char const* t : texts)
          {
             lookUpHostileText(t);
          }
       });
}

TEST(InetEndpointHostile, OddNamesNeverCrash)
{
   // These reach the resolver with names outside ".invalid", so they run only
   // where no query can leave the machine.
   std::string const longNumber = "1." + std::string(400, '9') + ".2.3";
   char const* const texts[] = {
       " ", "1.2.3.4/:", "256.1.1.1", "[]", "[x.invalid]", "x.invalid:abc:def", longNumber.c_str(),
   };
   bool const ran = runIsolated(
       [&]
       {
          for (char const* t : texts)
          {
             lookUpHostileText(t);
          }
       });
   if (!ran)
   {
      GTEST_SKIP() << "odd host names are looked up only inside a network namespace, "
                      "and none could be made here";
   }
}
