// Tests of DtInetEndpoint.
#include <olutil/olInetEndpoint.h>

#include <string>
#include <tuple>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>
#include <gtest/gtest.h>

#include "support_netns.h"

namespace
{

using F = DtInetUtils::DtInetAddrFamily;

TEST(InetEndpointText, FormsSettersNumericLookupsAndOrder)
{
   std::tuple<char const*, unsigned short, DtInetProtocol, char const*> const cases[] = {
       {"10.0.0.1", 0, DtInetProtocolUdp, "10.0.0.1:any 10.0.0.1:any(UDP)"},
       {"::1", 3000, DtInetProtocolTcp, "[::1]:3000 [::1]:3000(TCP)"},
       {"::", 65535, DtInetProtocolUdp, "[::]:65535 [::]:65535(UDP)"}};
   for (auto const& [address, port, protocol, forms] : cases)
   {
      SCOPED_TRACE(forms);
      DtInetEndpoint endpoint(DtInetAddr(address, ""), port, protocol);
      EXPECT_EQ(
          endpoint.toDtString(false).stdString() + " " + endpoint.toDtString(true).stdString(),
          forms);
      // The any address keeps its family in the Boost endpoint.
      EXPECT_EQ(endpoint.udpEndpoint() ? endpoint.udpEndpoint()->address().to_string() : "-",
                protocol == DtInetProtocolUdp ? address : "-");
   }
   DtInetEndpoint endpoint(DtInetAddr("10.0.0.1", ""), 100, DtInetProtocolUnspecified);
   EXPECT_EQ(endpoint.toDtString(false).stdString(), "10.0.0.1:100");
   endpoint.setPort(200);
   endpoint.setAddress(DtInetAddr("10.0.0.2", ""));
   // Kept on purpose: without a protocol the setters leave the cache alone.
   EXPECT_EQ(endpoint.toDtString(false).stdString(), "10.0.0.1:100");
   endpoint.setProtocol(DtInetProtocolUdp);
   EXPECT_EQ(endpoint.toDtString(true).stdString(), "10.0.0.2:200(UDP)");

   // The port argument 3000 always rules: a port in the text is never applied. A
   // dotted netmask is applied; a numeric prefix is not, so the class mask stays.
   std::tuple<char const*, int, char const*, unsigned int> const lookups[] = {
       {"10.0.0.1:4000", 4, "10.0.0.1", 0xFF000000u},
       {"10.1.2.3/255.255.0.0", 4, "10.1.2.3", 0xFFFF0000u},
       {"10.1.2.3/24", 4, "10.1.2.3", 0xFF000000u},
       {"[::1]:4000", 6, "::1", 0},
       {"", 4, "127.0.0.1", 0xFF000000u}};  // no host: the loopback
   for (auto const& [input, wanted, address, netmask] : lookups)
   {
      SCOPED_TRACE(input);
      DtInetEndpoint found(DtString(input), 3000, DtInetProtocolUdp, F(wanted));
      EXPECT_TRUE(netmask == 0 || found.address().netmask() == netmask);
      ASSERT_NE(found.udpEndpoint(), nullptr);
      EXPECT_EQ(found.port() + found.udpEndpoint()->port(), 2 * 3000);
      EXPECT_EQ(found.udpEndpoint()->address().to_string() + " " +
                    found.address().toDtString(false).stdString() +
                    found.getLastErrorString().stdString(),
                std::string(address) + " " + address);
   }
   DtInetEndpoint set(DtInetAddr("10.0.0.1", ""), 7, DtInetProtocolUnspecified);
   set.hostLookup(DtString("10.0.0.8"), 80, F(4));  // a port already set wins over 80
   EXPECT_EQ(set.toDtString(true).stdString(), "10.0.0.8:7");

   // Order by address before port; an unspecified endpoint equals nothing; TCP and UDP
   // are unrelated; > is "neither < nor ==", so it holds both ways round.
   DtInetEndpoint unset, low(DtInetAddr("10.0.0.1", ""), 6, DtInetProtocolTcp);
   DtInetEndpoint tcp(DtInetAddr("10.0.0.2", ""), 5, DtInetProtocolTcp);
   DtInetEndpoint udp(DtInetAddr("10.0.0.2", ""), 5, DtInetProtocolUdp);
   EXPECT_TRUE(low < tcp && !(tcp < low) && tcp > low && unset > unset && tcp > udp && udp > tcp);
   EXPECT_FALSE(unset == unset || unset < unset || tcp == udp || tcp < udp || udp < tcp);
   low.toDtString(true);
   low = tcp;  // the text made before is not kept
   EXPECT_EQ(low.toDtString(true).stdString(), "10.0.0.2:5(TCP)");
}

// Interface names and failed host lookups, in a namespace of their own (loopback and one
// unconnected veth), so no query leaves this machine.
TEST(InetEndpointLookup, FailuresAndErrorState)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << "lookups are tested in a network namespace: " << reason;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   ASSERT_TRUE(ns.addVethPair("oltq0", "oltq1") && ns.disableLinkLocal("oltq0") &&
               ns.addAddress("oltq0", "2001:db8::5/64") && ns.setLinkUp("oltq0"))
       << ns.error();
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();
   // An interface named as destination gives its address of the family asked for.
   DtInetEndpoint v6only(DtString("oltq0"), 5, DtInetProtocolUdp, F(6));
   EXPECT_EQ(v6only.toDtString(true).stdString(), "[2001:db8::5]:5(UDP)");
   v6only.hostLookup(DtString("oltq0"), 5, F(0));
   EXPECT_EQ(v6only.getLastErrorString().stdString(), "Local interface device oltq0 is inactive");

   // Nothing is cut off a name: "localhost:x.invalid" is a name under ".invalid".
   for (std::string name : {std::string("localhost:x.invalid"), std::string(300, 'a') + ".invalid"})
   {
      DtInetEndpoint named(DtString(name.c_str()), 5, DtInetProtocolUdp, F(0));
      EXPECT_EQ(named.getLastErrorString().stdString(), "Host lookup failed for " + name);
      EXPECT_TRUE(named.isOk()) << "reading the error clears it";
   }
   // A failed lookup keeps the address; a later good one does not clear the error.
   DtInetEndpoint failed(DtInetAddr("10.9.8.7", ""), 0, DtInetProtocolTcp);
   failed.hostLookup(DtString("no-such-host.invalid"), 2000, F(6));
   EXPECT_EQ(failed.toDtString(true).stdString(), "10.9.8.7:2000(TCP)");
   failed.hostLookup(DtString("10.0.0.1"), 5, F(4));
   EXPECT_FALSE(failed.isOk());

   // Assignment keeps the target's error state and the Boost endpoint the source
   // lacks; a whole assignment makes what the copy constructor makes, both ways round.
   DtInetEndpoint udp(DtInetAddr("10.0.0.1", ""), 53, DtInetProtocolUdp), copy(failed);
   failed = udp;
   EXPECT_TRUE(!failed.isOk() && failed == udp && failed.tcpEndpoint() &&
               failed.tcpEndpoint()->port() == 2000);
   DtInetEndpoint whole(DtInetAddr("10.0.0.2", ""), 9, DtInetProtocolTcp);
   whole.assignWhole(failed);
   EXPECT_TRUE(whole.tcpEndpoint() && whole.tcpEndpoint()->port() == 2000 && whole == udp);
   whole.assignWhole(whole);
   EXPECT_EQ(whole.getLastErrorString().stdString(), "Host lookup failed for no-such-host.invalid");
   EXPECT_FALSE(failed.isOk()) << "the source keeps its own error";
   EXPECT_EQ(copy.getLastErrorString().stdString(), "Host lookup failed for no-such-host.invalid");
   whole.assignWhole(udp);
   EXPECT_TRUE(whole.isOk() && whole == udp && !whole.tcpEndpoint());
   EXPECT_EQ(whole.toDtString(true).stdString(), "10.0.0.1:53(UDP)");
}

}  // namespace
