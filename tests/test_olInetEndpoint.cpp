// Tests of DtInetEndpoint.
#include <olutil/olInetEndpoint.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "support_netns.h"

using F = DtInetUtils::DtInetAddrFamily;

static std::string text(DtString const& s)
{
   return s.c_str() ? std::string(s.c_str()) : std::string();
}

static std::string addressText(DtInetEndpoint const& endpoint)
{
   return text(endpoint.address().toDtString(false));
}

TEST(InetEndpointText, FormsBoostEndpointsSettersAndSockaddr)
{
   std::tuple<char const*, unsigned short, DtInetProtocol, char const*> const cases[] = {
       {"10.0.0.1", 0, DtInetProtocolUdp, "10.0.0.1:any 10.0.0.1:any(UDP)"},
       {"::1", 3000, DtInetProtocolTcp, "[::1]:3000 [::1]:3000(TCP)"},
       {"::", 0, DtInetProtocolUdp, "[::]:any [::]:any(UDP)"},
       {"127.0.0.1", 65535, DtInetProtocolUnspecified, "127.0.0.1:65535 127.0.0.1:65535"}};
   for (auto const& [address, port, protocol, forms] : cases)
   {
      SCOPED_TRACE(forms);
      DtInetEndpoint endpoint(DtInetAddr(address, ""), port, protocol);
      EXPECT_EQ(text(endpoint.toDtString(false)) + " " + text(endpoint.toDtString(true)), forms);
      EXPECT_EQ(endpoint.tcpEndpoint() != nullptr, protocol == DtInetProtocolTcp);
      // The any address keeps its family in the Boost endpoint.
      EXPECT_EQ(endpoint.udpEndpoint() ? endpoint.udpEndpoint()->address().to_string() : "-",
                protocol == DtInetProtocolUdp ? address : "-");
   }
   EXPECT_EQ(text(DtInetEndpoint().toDtString(true)), "0.0.0.0:any");

   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 100, DtInetProtocolUnspecified);
   EXPECT_EQ(text(endpoint.toDtString(false)), "10.0.0.1:100");
   endpoint.setPort(200);
   endpoint.setAddress(DtInetAddr("10.0.0.2", ""));
   // Kept on purpose: without a protocol the setters leave the cache alone.
   EXPECT_EQ(text(endpoint.toDtString(false)), "10.0.0.1:100");
   endpoint.setProtocol(DtInetProtocolUdp);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.2:200(UDP)");
   endpoint.setPort(0);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.2:any(UDP)");
   endpoint.setEndpoint(DtInetProtocolTcp, DtInetAddr("192.0.2.7", ""), 9);
   EXPECT_EQ(text(endpoint.toDtString(true)), "192.0.2.7:9(TCP)");
   EXPECT_TRUE(endpoint.udpEndpoint() == nullptr && endpoint.tcpEndpoint() != nullptr);
   // toSockaddr sets the port only on success.
   DtInetEndpoint v4(DtInetAddr("10.1.2.3", ""), 3000, DtInetProtocolUdp);
   DtInetEndpoint v6(DtInetAddr("::1", ""), 443, DtInetProtocolTcp);
   sockaddr_in in4;
   sockaddr_in6 in6;
   std::memset(&in6, 0xAB, sizeof in6);
   EXPECT_TRUE(v4.toSockaddr(&in6) != 0 && in6.sin6_port == 0xABAB);
   ASSERT_TRUE(v4.toSockaddr(&in4) == 0 && v6.toSockaddr(&in6) == 0);
   EXPECT_EQ(ntohs(in4.sin_port) + ntohs(in6.sin6_port), 3000 + 443);
}

TEST(InetEndpointLookup, NumericFormsAndLocalhost)
{
   // The port argument 3000 always rules: a port in the text is never applied. A
   // dotted netmask is applied; a numeric prefix is not, so the class mask stays.
   std::tuple<char const*, int, char const*, unsigned int> const cases[] = {
       {"10.0.0.1:4000", 4, "10.0.0.1", 0xFF000000u},
       {"10.1.2.3/255.255.0.0", 4, "10.1.2.3", 0xFFFF0000u},
       {"10.1.2.3/24", 4, "10.1.2.3", 0xFF000000u},
       {"[::1]:4000", 6, "::1", 0}};
   for (auto const& [input, wanted, address, netmask] : cases)
   {
      SCOPED_TRACE(input);
      DtInetEndpoint endpoint(DtString(input), 3000, DtInetProtocolUdp, F(wanted));
      EXPECT_TRUE(netmask == 0 || endpoint.address().netmask() == netmask);
      ASSERT_NE(endpoint.udpEndpoint(), nullptr);
      EXPECT_EQ(endpoint.port() + endpoint.udpEndpoint()->port(), 2 * 3000);
      EXPECT_EQ(endpoint.udpEndpoint()->address().to_string() + " " + addressText(endpoint) +
                    text(endpoint.getLastErrorString()),
                std::string(address) + " " + address);
   }
   // A port already set wins over the argument.
   DtInetEndpoint set(DtInetAddr("10.0.0.1", ""), 7, DtInetProtocolUnspecified);
   set.hostLookup(DtString("10.0.0.8"), 80, F(4));
   EXPECT_EQ(text(set.toDtString(true)), "10.0.0.8:7");

   // Each resolver answers; an empty text asks for no host, which is the loopback.
   for (DtInetProtocol protocol : {DtInetProtocolTcp, DtInetProtocolUdp, DtInetProtocolUnspecified})
   {
      DtInetEndpoint endpoint(DtString(protocol ? "localhost" : ""), 3000, protocol, F(4));
      EXPECT_EQ(addressText(endpoint) + text(endpoint.getLastErrorString()), "127.0.0.1")
          << protocol;
   }
}

// Interface names and failed host lookups, in a namespace with nothing but loopback
// and veth pairs, so no query leaves this machine.
TEST(InetEndpointLookup, InterfacesFailuresAndErrorState)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << "lookups are tested in a network namespace: " << reason;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   ASSERT_TRUE(ns.addVethPair("olta0", "oltb0") && ns.addVethPair("oltc0", "oltd0")) << ns.error();
   for (char const* device : {"olta0", "oltb0", "oltc0", "oltd0"})
      ASSERT_TRUE(ns.disableLinkLocal(device) && ns.setLinkUp(device)) << ns.error();
   ASSERT_TRUE(ns.addAddress("olta0", "192.0.2.1/24") && ns.addAddress("olta0", "2001:db8::1/64") &&
               ns.addAddress("oltc0", "2001:db8:1::5/64"))
       << ns.error();
   // Interface scans read /proc/net, which follows the main thread: stay on it.
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetEndpoint v4(DtString("olta0"), 3000, DtInetProtocolUdp, F(4));
   EXPECT_EQ(text(v4.toDtString(true)) + text(v4.getLastErrorString()), "192.0.2.1:3000(UDP)");
   DtInetEndpoint v6(DtString("olta0"), 3000, DtInetProtocolTcp, F(6));
   EXPECT_EQ(text(v6.toDtString(false)) + text(v6.getLastErrorString()), "[2001:db8::1]:3000");
   DtInetEndpoint endpoint(DtInetAddr("10.5.5.5", ""), 0, DtInetProtocolUdp);
   endpoint.hostLookup(DtString("oltc0"), 7, F(4));
   EXPECT_EQ(addressText(endpoint) + " " + text(endpoint.getLastErrorString()),
             "10.5.5.5 Local interface device oltc0 is inactive");
   endpoint.hostLookup(DtString("oltc0"), 7, F(6));
   EXPECT_EQ(addressText(endpoint) + text(endpoint.getLastErrorString()), "2001:db8:1::5");

   // Nothing is cut off a name: "localhost:x.invalid" is a name under ".invalid".
   for (std::string name : {std::string("localhost:x.invalid"), std::string(300, 'a') + ".invalid"})
   {
      DtInetEndpoint named(DtString(name.c_str()), 5, DtInetProtocolUdp, F(0));
      EXPECT_EQ(text(named.getLastErrorString()), "Host lookup failed for " + name);
      EXPECT_TRUE(named.isOk()) << "reading the error clears it";
   }
   // A failed lookup keeps the address; a later good one does not clear the error.
   DtInetEndpoint failed(DtInetAddr("10.9.8.7", ""), 0, DtInetProtocolTcp);
   failed.hostLookup(DtString("no-such-host.invalid"), 2000, F(6));
   EXPECT_EQ(text(failed.toDtString(true)), "10.9.8.7:2000(TCP)");
   failed.hostLookup(DtString("10.0.0.1"), 5, F(4));
   EXPECT_TRUE(!failed.isOk() && addressText(failed) == "10.0.0.1");

   // A copy takes everything, error included; assignment keeps the target's
   // error state and the Boost endpoint the source lacks.
   DtInetEndpoint copy(failed);
   EXPECT_EQ(text(copy.getLastErrorString()), "Host lookup failed for no-such-host.invalid");
   EXPECT_FALSE(failed.isOk()) << "reading the copy's error leaves the source's";
   EXPECT_TRUE(copy == failed);
   DtInetEndpoint udp(DtInetAddr("10.0.0.1", ""), 53, DtInetProtocolUdp);
   failed = udp;
   EXPECT_EQ(text(failed.toDtString(true)), "10.0.0.1:53(UDP)");
   EXPECT_TRUE(failed.tcpEndpoint() && failed.tcpEndpoint()->port() == 2000);
   EXPECT_TRUE(!failed.isOk() && failed == udp);

   // A whole assignment makes what the copy constructor makes, both ways round.
   DtInetEndpoint whole(DtInetAddr("10.0.0.2", ""), 9, DtInetProtocolTcp);
   whole.assignWhole(failed);
   EXPECT_TRUE(whole.tcpEndpoint() && whole.tcpEndpoint()->port() == 2000 && whole == udp);
   whole.assignWhole(whole);
   EXPECT_EQ(text(whole.getLastErrorString()), "Host lookup failed for no-such-host.invalid");
   EXPECT_FALSE(failed.isOk()) << "the source keeps its own error";
   whole.assignWhole(failed);
   whole.assignWhole(udp);
   EXPECT_TRUE(whole.isOk() && whole == udp && !whole.tcpEndpoint());
   EXPECT_EQ(text(whole.toDtString(true)), "10.0.0.1:53(UDP)");
}

TEST(InetEndpointCompare, ByBoostEndpointOfTheLeftProtocol)
{
   // Ascending by address, then port; IPv4 before IPv6.
   std::pair<char const*, unsigned short> const at[] = {
       {"10.0.0.1", 5}, {"10.0.0.1", 6}, {"10.0.0.2", 1}, {"::1", 9}};
   for (DtInetProtocol protocol : {DtInetProtocolUdp, DtInetProtocolTcp})
      for (std::size_t i = 0; i + 1 < 4; ++i)
      {
         DtInetEndpoint left(DtInetAddr(at[i].first, ""), at[i].second, protocol);
         DtInetEndpoint right(DtInetAddr(at[i + 1].first, ""), at[i + 1].second, protocol);
         EXPECT_TRUE(left == left && !(left != left) && !(left < left) && !(left > left));
         EXPECT_TRUE(left != right && left < right && !(left > right));
         EXPECT_TRUE(right > left && !(right < left) && !(right == left));
      }
   // An unspecified endpoint equals nothing; TCP and UDP are unrelated; > is
   // "neither < nor ==", so it holds both ways round.
   DtInetEndpoint unset;
   EXPECT_FALSE(unset == unset || unset < unset);
   EXPECT_TRUE(unset > unset);
   DtInetEndpoint tcp(DtInetAddr("10.0.0.1", ""), 5, DtInetProtocolTcp);
   DtInetEndpoint udp(DtInetAddr("10.0.0.1", ""), 5, DtInetProtocolUdp);
   EXPECT_FALSE(tcp == udp || udp == tcp || tcp < udp || udp < tcp);
   EXPECT_TRUE(tcp > udp && udp > tcp);
}
