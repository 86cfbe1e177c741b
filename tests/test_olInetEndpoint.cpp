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

// Runs `body` inside a fresh network namespace that has only its loopback, so
// nothing a lookup asks leaves this machine. Where no namespace can be made the
// body runs here: it resolves only "localhost" and names under ".invalid".
template <class Body>
void withoutNetwork(Body body)
{
   if (olt::TestNetns::isAvailable())
   {
      olt::TestNetns ns;
      olt::NetnsGuard inside(ns);
      if (ns.ok() && inside.ok())
         return body();
   }
   body();
}

// Counts the lookups that reach it through the virtual table.
class CountingEndpoint : public DtInetEndpoint
{
public:
   void hostLookup(DtString& text, unsigned short port,
                   DtInetUtils::DtInetAddrFamily family) override
   {
      ++calls;
      DtInetEndpoint::hostLookup(text, port, family);
   }
   int calls = 0;
};

}  // namespace

TEST(InetEndpointText, FormsAndBoostEndpointFollowProtocol)
{
   std::tuple<char const*, unsigned short, DtInetProtocol, char const*, char const*> const cases[] =
       {{"10.0.0.1", 0, DtInetProtocolUdp, "10.0.0.1:any", "10.0.0.1:any(UDP)"},
        {"10.0.0.1", 4000, DtInetProtocolTcp, "10.0.0.1:4000", "10.0.0.1:4000(TCP)"},
        {"::1", 3000, DtInetProtocolTcp, "[::1]:3000", "[::1]:3000(TCP)"},
        {"::", 0, DtInetProtocolUdp, "[::]:any", "[::]:any(UDP)"},
        {"127.0.0.1", 65535, DtInetProtocolUnspecified, "127.0.0.1:65535", "127.0.0.1:65535"}};
   for (auto const& [address, port, protocol, shortText, longText] : cases)
   {
      SCOPED_TRACE(longText);
      DtInetEndpoint endpoint(DtInetAddr(address, ""), port, protocol);
      EXPECT_EQ(text(endpoint.toDtString(false)) + " " + text(endpoint.toDtString(true)),
                std::string(shortText) + " " + longText);
      EXPECT_EQ(endpoint.tcpEndpoint() != nullptr, protocol == DtInetProtocolTcp);
      // The any address keeps its family in the Boost endpoint.
      EXPECT_EQ(endpoint.udpEndpoint() ? endpoint.udpEndpoint()->address().to_string() : "-",
                protocol == DtInetProtocolUdp ? address : "-");
   }
   DtInetEndpoint unset;
   EXPECT_EQ(unset.protocol(), DtInetProtocolUnspecified);
   EXPECT_TRUE(unset.address().isAnyAddr() && unset.isIPv4());
   EXPECT_EQ(text(unset.toDtString(true)), "0.0.0.0:any");
}

TEST(InetEndpointText, SettersRefreshTextOnlyWithAProtocolAndToSockaddr)
{
   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 100, DtInetProtocolUnspecified);
   EXPECT_EQ(text(endpoint.toDtString(false)), "10.0.0.1:100");
   endpoint.setPort(200);
   endpoint.setAddress(DtInetAddr("10.0.0.2", ""));
   // Kept on purpose: without a protocol the setters leave the cache alone.
   EXPECT_EQ(text(endpoint.toDtString(false)), "10.0.0.1:100");
   EXPECT_EQ(endpoint.port(), 200);
   endpoint.setProtocol(DtInetProtocolUdp);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.2:200(UDP)");
   endpoint.setAddress(DtInetAddr("::1", ""));
   endpoint.setPort(0);
   EXPECT_EQ(text(endpoint.toDtString(true)), "[::1]:any(UDP)");
   endpoint.setEndpoint(DtInetProtocolTcp, DtInetAddr("192.0.2.7", ""), 9);
   EXPECT_EQ(text(endpoint.toDtString(true)), "192.0.2.7:9(TCP)");
   EXPECT_TRUE(endpoint.udpEndpoint() == nullptr && endpoint.tcpEndpoint() != nullptr);
   endpoint.setProtocol(DtInetProtocolUnspecified);
   EXPECT_EQ(endpoint.tcpEndpoint(), nullptr);

   // toSockaddr sets the port only on success.
   DtInetEndpoint v4(DtInetAddr("10.1.2.3", ""), 3000, DtInetProtocolUdp);
   DtInetEndpoint v6(DtInetAddr("::1", ""), 443, DtInetProtocolTcp);
   sockaddr_in in4;
   sockaddr_in6 in6;
   std::memset(&in6, 0xAB, sizeof in6);
   EXPECT_NE(v4.toSockaddr(&in6), 0);
   EXPECT_EQ(in6.sin6_port, 0xABAB) << "a failed conversion leaves the port alone";
   ASSERT_TRUE(v4.toSockaddr(&in4) == 0 && v6.toSockaddr(&in6) == 0);
   EXPECT_EQ(ntohs(in4.sin_port) + ntohs(in6.sin6_port), 3000 + 443);
   EXPECT_EQ(ntohl(in4.sin_addr.s_addr), 0x0A010203u);
}

TEST(InetEndpointLookup, NumericFormsThroughTheVirtualTable)
{
   // text, family, address, netmask (0 for IPv6); the port argument 3000 always
   // rules, as a port in the text is never applied, not even one out of range.
   // A dotted netmask is applied; a numeric prefix is not, so the class mask stays.
   std::tuple<char const*, int, char const*, unsigned int> const cases[] = {
       {"10.0.0.1:http", 4, "10.0.0.1", 0xFF000000u},
       {"10.0.0.1:99999999999999999999", 4, "10.0.0.1", 0xFF000000u},
       {"10.1.2.3/255.255.0.0", 4, "10.1.2.3", 0xFFFF0000u},
       {"10.1.2.3/24", 4, "10.1.2.3", 0xFF000000u},
       {"[::1]:4000", 6, "::1", 0}};
   for (auto const& [input, wanted, address, netmask] : cases)
   {
      SCOPED_TRACE(input);
      DtInetEndpoint endpoint(DtString(input), 3000, DtInetProtocolUdp, family(wanted));
      EXPECT_TRUE(endpoint.isOk()) << text(endpoint.getLastErrorString());
      EXPECT_TRUE(netmask == 0 || endpoint.address().netmask() == netmask);
      ASSERT_NE(endpoint.udpEndpoint(), nullptr);
      EXPECT_EQ(endpoint.port() + endpoint.udpEndpoint()->port(), 2 * 3000);
      EXPECT_EQ(endpoint.udpEndpoint()->address().to_string() + " " + addressText(endpoint),
                std::string(address) + " " + address);
   }

   // The text is taken by reference, through the virtual table.
   CountingEndpoint endpoint;
   DtInetEndpoint& base = endpoint;
   DtString destination("10.0.0.9");
   base.hostLookup(destination, 7, family(4));
   // A port already set wins over the argument; no protocol, no Boost endpoint.
   base.hostLookup(DtString("10.0.0.8"), 80, family(4));
   EXPECT_EQ(endpoint.calls, 2);
   EXPECT_EQ(text(endpoint.toDtString(true)), "10.0.0.8:7");
   EXPECT_EQ(endpoint.udpEndpoint(), nullptr);
   DtInetEndpoint made(destination, 7, DtInetProtocolTcp, family(4));
   EXPECT_EQ(text(made.toDtString(true)), "10.0.0.9:7(TCP)");
}

TEST(InetEndpointLookup, HostNamesGoWholeToTheResolverAndErrorsFollowCopies)
{
   for (DtInetProtocol protocol : {DtInetProtocolTcp, DtInetProtocolUdp, DtInetProtocolUnspecified})
   {
      SCOPED_TRACE(protocol);
      DtInetEndpoint endpoint(DtString("localhost"), 3000, protocol, family(4));
      ASSERT_TRUE(endpoint.isOk()) << text(endpoint.getLastErrorString());
      EXPECT_EQ(addressText(endpoint), "127.0.0.1");
   }
   // An empty text asks the resolver for no host, which gives the loopback.
   DtInetEndpoint empty(DtString(""), 80, DtInetProtocolUdp, family(4));
   EXPECT_TRUE(empty.isOk()) << text(empty.getLastErrorString());
   EXPECT_EQ(addressText(empty), "127.0.0.1");

   withoutNetwork(
       []
       {
          // Nothing is cut off a name: "localhost:x.invalid" is a name under ".invalid".
          std::string const longName = std::string(300, 'a') + ".invalid";
          for (std::string name :
               {std::string("localhost:x.invalid"), std::string("%.invalid"), longName})
          {
             DtInetEndpoint named(DtString(name.c_str()), 5, DtInetProtocolUdp, family(0));
             EXPECT_TRUE(named.address().isAnyAddr());
             EXPECT_EQ(text(named.getLastErrorString()), "Host lookup failed for " + name);
          }
          // A failed lookup keeps the address; reading the error clears it.
          DtInetEndpoint endpoint(DtInetAddr("10.9.8.7", ""), 0, DtInetProtocolTcp);
          endpoint.hostLookup(DtString("no-such-host.invalid"), 2000, family(6));
          EXPECT_FALSE(endpoint.isOk());
          EXPECT_EQ(text(endpoint.toDtString(true)), "10.9.8.7:2000(TCP)");
          EXPECT_EQ(text(endpoint.getLastErrorString()),
                    "Host lookup failed for no-such-host.invalid");
          EXPECT_TRUE(endpoint.isOk());
          // A later good lookup does not clear an unread error: only reading does.
          DtInetEndpoint again(DtString("a.invalid"), 5, DtInetProtocolUdp, family(0));
          again.hostLookup(DtString("10.0.0.1"), 5, family(4));
          EXPECT_FALSE(again.isOk());
          EXPECT_EQ(addressText(again), "10.0.0.1");

          // A copy takes everything, error included; assignment keeps the
          // target's error state and the Boost endpoint the source lacks.
          DtInetEndpoint source(DtString("copy.invalid"), 9, DtInetProtocolTcp, family(4));
          EXPECT_EQ(text(source.toDtString(true)), "0.0.0.0:9(TCP)");
          DtInetEndpoint copy(source);
          EXPECT_EQ(text(copy.getLastErrorString()), "Host lookup failed for copy.invalid");
          EXPECT_FALSE(source.isOk()) << "reading the copy's error leaves the source's";
          ASSERT_NE(copy.tcpEndpoint(), nullptr);
          EXPECT_NE(copy.tcpEndpoint(), source.tcpEndpoint());
          EXPECT_EQ(text(copy.toDtString(true)), "0.0.0.0:9(TCP)");

          DtInetEndpoint udp(DtInetAddr("10.0.0.1", ""), 53, DtInetProtocolUdp);
          source = udp;
          EXPECT_EQ(text(source.toDtString(true)), "10.0.0.1:53(UDP)");
          ASSERT_NE(source.tcpEndpoint(), nullptr);
          EXPECT_EQ(source.tcpEndpoint()->port(), 9);
          EXPECT_FALSE(source.isOk()) << "assignment leaves the target's error state";
          EXPECT_TRUE(source == udp);
          auto& same = source;
          source = same;
          EXPECT_EQ(source.port(), 53);
          source = DtInetEndpoint();
          EXPECT_NE(source.udpEndpoint(), nullptr);
          EXPECT_FALSE(source == source);
       });
}

TEST(InetEndpointLookup, InterfaceNameGivesItsAddress)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << "interface-name lookups need a network namespace: " << reason;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   // olta0 has both families, oltc0 IPv6 only; neither gets a link-local address.
   ASSERT_TRUE(ns.addVethPair("olta0", "oltb0") && ns.addVethPair("oltc0", "oltd0")) << ns.error();
   for (char const* device : {"olta0", "oltb0", "oltc0", "oltd0"})
      ASSERT_TRUE(ns.disableLinkLocal(device) && ns.setLinkUp(device)) << ns.error();
   ASSERT_TRUE(ns.addAddress("olta0", "192.0.2.1/24") && ns.addAddress("olta0", "2001:db8::1/64") &&
               ns.addAddress("oltc0", "2001:db8:1::5/64"))
       << ns.error();
   // Interface scans read /proc/net, which follows the main thread: stay on it.
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetEndpoint v4(DtString("olta0"), 3000, DtInetProtocolUdp, family(4));
   EXPECT_EQ(text(v4.toDtString(true)), "192.0.2.1:3000(UDP)");
   DtInetEndpoint v6(DtString("olta0"), 3000, DtInetProtocolTcp, family(6));
   EXPECT_EQ(text(v6.toDtString(false)), "[2001:db8::1]:3000");
   EXPECT_TRUE(v4.isOk() && v6.isOk());

   DtInetEndpoint endpoint(DtInetAddr("10.5.5.5", ""), 0, DtInetProtocolUdp);
   endpoint.hostLookup(DtString("oltc0"), 7, family(4));
   EXPECT_EQ(addressText(endpoint), "10.5.5.5");
   EXPECT_EQ(text(endpoint.getLastErrorString()), "Local interface device oltc0 is inactive");
   endpoint.hostLookup(DtString("oltc0"), 7, family(6));
   EXPECT_TRUE(endpoint.isOk()) << text(endpoint.getLastErrorString());
   EXPECT_EQ(addressText(endpoint), "2001:db8:1::5");
}

TEST(InetEndpointCompare, ByBoostEndpointOfTheLeftProtocol)
{
   // Ascending by address, then port; IPv4 before IPv6.
   std::pair<char const*, unsigned short> const ordered[] = {
       {"10.0.0.1", 5}, {"10.0.0.1", 6}, {"10.0.0.2", 1}, {"::1", 9}, {"::2", 1}};
   for (DtInetProtocol protocol : {DtInetProtocolUdp, DtInetProtocolTcp})
      for (std::size_t i = 0; i < 5; ++i)
         for (std::size_t j = 0; j < 5; ++j)
         {
            SCOPED_TRACE(std::to_string(protocol) + ": " + std::to_string(i) + " vs " +
                         std::to_string(j));
            DtInetEndpoint left(DtInetAddr(ordered[i].first, ""), ordered[i].second, protocol);
            DtInetEndpoint right(DtInetAddr(ordered[j].first, ""), ordered[j].second, protocol);
            EXPECT_EQ(left == right, i == j);
            EXPECT_EQ(left != right, i != j);
            EXPECT_EQ(left < right, i < j);
            EXPECT_EQ(left > right, i > j);
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
