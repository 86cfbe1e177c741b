// Tests of DtInetDevice and the interface scans. Everything that reads
// interfaces runs inside a private network namespace built by the test, so the
// results do not depend on this machine's interfaces and nothing is sent.
#include <olutil/olInetDevice.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetPlatformUtils.h>

#include "support_netns.h"

namespace
{

using U = DtInetUtils;
using P = DtInetPlatformUtils;
using Names = std::vector<std::string>;

std::string text(DtInetAddr const* address)
{
   return address ? address->toDtString().stdString() : std::string("-");
}

std::string withPrefix(DtInetAddr const* a)
{
   return text(a) + "/" + std::to_string(a ? a->prefix() : 0);
}

// "name family linkState [up] [active] | v4/len netmask broadcast | v6/len
// broadcast", or the error of a failed device.
std::string summary(DtInetDevice const& d)
{
   if (!d.isOk())
      return d.getLastErrorString().stdString();
   return d.deviceName().stdString() + " " + std::to_string(d.family()) + " " +
          std::to_string(d.linkState()) + (d.isUp() ? " up" : "") +
          (d.isActive() ? " active" : "") + " | " + withPrefix(d.ipv4Addr()) + " " +
          text(d.ipv4Netmask()) + " " + text(d.ipv4BroadcastAddr()) + " | " +
          withPrefix(d.ipv6Addr()) + " " + text(d.ipv6BroadcastAddr());
}

// "type mtu linkScope [broadcast] [multicast] macLength mac"
std::string hardware(DtInetDevice const& d)
{
   unsigned char bytes[8];
   return std::to_string(d.type()) + " " + std::to_string(d.mtu()) + " " +
          std::to_string(d.linkScope()) + (d.isBroadcastCapable() ? " broadcast" : "") +
          (d.isMulticastCapable() ? " multicast" : "") + " " + std::to_string(d.macAddr(bytes)) +
          " " + d.macAddrString().stdString();
}

Names names(DtInetDeviceList const& devices, bool full = false)
{
   Names result;
   for (auto const& device : devices)
      result.push_back(full ? summary(*device) : device->deviceName().stdString());
   return result;
}

bool contains(std::vector<DtInetAddr*> const& addresses, char const* wanted)
{
   return std::any_of(addresses.begin(), addresses.end(),
                      [&](DtInetAddr const* a) { return text(a) == wanted; });
}

std::shared_ptr<DtInetDevice> byName(DtInetDeviceList const& devices, char const* name)
{
   for (auto const& device : devices)
      if (device->deviceName() == name)
         return device;
   return nullptr;
}

// Fetches the IPv4 ifconf table into a zeroed `table`; returns the result.
int fetch(int query, ifconf* table, unsigned int& size, unsigned int& multiplier,
          DtString* error = nullptr)
{
   memset(table, 0, sizeof *table);
   DtString ignored;
   return U::fetchDeviceInfo(U::DtInetFamilyIPv4, query, table, size, multiplier,
                             error ? *error : ignored);
}

// One "host": lo; olta0 (IPv4 + IPv6, running, in groups 239.1.2.3 and
// ff15::1234) with its peer oltb0 (IPv4 only); oltc0 (IPv4, up but no carrier);
// oltdn0 (IPv4 without broadcast address, down); oltd0 (IPv6 only, running).
// No link-local addresses, so each interface carries exactly the ones given here.
class InetDeviceNetnsTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      std::string why;
      if (!olt::TestNetns::isAvailable(&why))
         GTEST_SKIP() << "interface tests run in a private network namespace: " << why;
      myNs.reset(new olt::TestNetns);
      ASSERT_TRUE(myNs->ok()) << myNs->error();
      ASSERT_TRUE(
          myNs->sh("set -e\n"
                   "for p in 'olta0 oltb0' 'oltc0 oltc1' 'oltdn0 oltdn1' 'oltd0 oltd1'; do\n"
                   "  set -- $p; ip link add $2 type veth peer name $1\n"
                   "  ip link set $1 addrgenmode none; ip link set $2 addrgenmode none\n"
                   "done\n"
                   "ip addr add 192.0.2.1/25 brd + dev olta0\n"
                   "ip -6 addr add 2001:db8::1/64 dev olta0 nodad\n"
                   "ip addr add 198.51.100.1/24 brd + dev oltb0\n"
                   "ip addr add 203.0.113.1/25 brd + dev oltc0\n"
                   "ip addr add 203.0.113.129/25 dev oltdn0\n"
                   "ip -6 addr add 2001:db8:1::1/64 dev oltd0 nodad\n"
                   "for d in olta0 oltb0 oltc0 oltd0 oltd1; do ip link set $d up; done\n"))
          << myNs->error();
      ASSERT_LT(myNs->ifIndex("olta0"), myNs->ifIndex("oltb0"));
      myGuard.reset(new olt::NetnsGuard(*myNs));
      ASSERT_TRUE(myGuard->ok()) << myGuard->error();
      std::string error;
      myGroup4 = olt::joinGroupSocket("239.1.2.3", "olta0", &error);
      ASSERT_GE(myGroup4, 0) << error;
      myGroup6 = olt::joinGroupSocket("ff15::1234", "olta0", &error);
      ASSERT_GE(myGroup6, 0) << error;
   }

   void TearDown() override
   {
      for (int fd : {myGroup4, myGroup6})
         if (fd >= 0)
            close(fd);
      myGuard.reset();
      myNs.reset();
   }

   std::unique_ptr<olt::TestNetns> myNs;
   std::unique_ptr<olt::NetnsGuard> myGuard;
   int myGroup4 = -1;
   int myGroup6 = -1;
};

TEST_F(InetDeviceNetnsTest, ScansListIpv4InterfacesFirstThenIpv6OnlyAndFilter)
{
   Names all = {
       "lo 4 64 up active | 127.0.0.1/8 255.0.0.0 - | ::1/128 ff02::1",
       "olta0 4 64 up active | 192.0.2.1/25 255.255.255.128 192.0.2.127 | 2001:db8::1/64 ff02::1",
       "oltb0 4 64 up active | 198.51.100.1/24 255.255.255.0 198.51.100.255 | -/0 -",
       "oltc0 4 1 up | 203.0.113.1/25 255.255.255.128 203.0.113.127 | -/0 -",
       "oltdn0 4 0 | 203.0.113.129/25 255.255.255.128 0.0.0.0 | -/0 -",
       "oltd0 4 64 up active | -/0 - - | 2001:db8:1::1/64 ff02::1"};
   EXPECT_EQ(names(U::scanInetDevices(false, false), true), all);
   // activeOnly tests isUp: the interface without carrier (linkState 1) stays.
   all.erase(all.begin() + 4);
   EXPECT_EQ(names(U::scanInetDevices(true, false), true), all);
   // Family 4 answers addr() with the IPv4 address, family 6 with the IPv6 one.
   EXPECT_EQ(U::scanInetDevices(false, false).back()->addr(), nullptr);
   auto a6 = byName(U::scanInetDevices(false, true), "olta0");
   ASSERT_TRUE(a6);
   EXPECT_EQ(a6->family(), U::DtInetFamilyIPv6);
   EXPECT_EQ(text(a6->addr()) + " " + text(a6->broadcastAddr()), "2001:db8::1 ff02::1");

   // Capability filters and the defaults they give.
   EXPECT_EQ(names(U::scanBroadcastDevices(true, false)),
             (Names{"olta0", "oltb0", "oltc0", "oltd0"}));
   EXPECT_EQ(names(U::scanMulticastDevices(false, false)),
             (Names{"olta0", "oltb0", "oltc0", "oltdn0", "oltd0"}));
   EXPECT_EQ(names(U::scanIpv6Devices(false)), (Names{"lo", "olta0", "oltd0"}));
   EXPECT_EQ(names({U::defaultMulticastDevice(), U::defaultBroadcastDevice(false)}),
             (Names{"olta0", "olta0"}));
   std::unique_ptr<DtInetAddr> primary(U::getPrimaryBroadcastAddress(false));
   std::unique_ptr<DtInetAddr> primary6(U::getPrimaryBroadcastAddress(true));
   EXPECT_EQ(text(primary.get()) + " " + text(primary6.get()), "192.0.2.127 ff02::1");
}

TEST_F(InetDeviceNetnsTest, DeviceFactsAndCopies)
{
   DtInetDeviceList all = U::scanInetDevices(false, false);
   auto a = byName(all, "olta0");
   auto lo = byName(all, "lo");
   ASSERT_TRUE(a && lo);
   EXPECT_EQ(a->interfaceIndex(), myNs->ifIndex("olta0"));
   std::string mac;
   ASSERT_TRUE(myNs->exec({"cat", "/sys/class/net/olta0/address"}, &mac));
   mac = mac.substr(0, mac.find('\n'));
   std::transform(mac.begin(), mac.end(), mac.begin(), ::toupper);
   EXPECT_EQ(hardware(*a),
             "0 1500 " + std::to_string(DtInetIpv6ScopeGlobal) + " broadcast multicast 6 " + mac);
   EXPECT_EQ(hardware(*lo), "4 65536 " + std::to_string(DtInetIpv6ScopeInterfaceLocal) + " 0 ");

   // Groups: the IPv6 join is listed whole; the IPv4 list keeps the first four
   // hex digits of each entry as the kernel prints them (239.1.2.3 -> 2.3.0.0).
   EXPECT_TRUE(contains(a->ipv6Groups(), "ff15::1234") && contains(a->ipv4Groups(), "2.3.0.0"));
   EXPECT_FALSE(contains(a->ipv6Groups(), "ff02::1"));

   // Copies and assignments own their addresses; equality is by name only.
   DtInetDevice copy(*a);
   DtInetDevice other("oltb0");
   EXPECT_TRUE(other != *a);
   other = *a;
   for (DtInetDevice const* d : {&copy, &other})
   {
      EXPECT_TRUE(*d == *a && d->ipv4Addr() != a->ipv4Addr() && d->ipv6Addr() != a->ipv6Addr());
      EXPECT_EQ(summary(*d) + hardware(*d), summary(*a) + hardware(*a));
   }
}

TEST_F(InetDeviceNetnsTest, BroadcastAndMulticastDestinations)
{
   struct
   {
      DtInetAddr destination;
      char const* device;
   } const cases[] = {
       {DtInetAddr("192.0.2.1"), "-"},           // neither broadcast nor multicast
       {DtInetAddr("224.0.0.5"), "olta0"},       // first multicast interface with IPv4
       {DtInetAddr("198.51.100.255"), "oltb0"},  // an interface's broadcast address
       {DtInetAddr("192.0.2.127"), "-"},  // a /25 broadcast that the class mask does not flag
       {DtInetAddr("192.0.2.127", "255.255.255.128"), "olta0"},  // ... the right mask does
       {DtInetAddr("203.0.113.255"), "oltdn0"},  // down, but its address's own broadcast matches
       {DtInetAddr("ff02::1"), "lo"},            // lo is first and lists the all-nodes group
       {DtInetAddr("ff15::1234"), "lo"},         // lo's ::1 has the destination's scope 0
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.destination.toDtString().c_str());
      std::unique_ptr<DtInetDevice> found(DtInetDevice::findInterface(c.destination));
      EXPECT_EQ(found ? found->deviceName().stdString() : "-", c.device);
   }

   // olta0's broadcast address; an interface's that is also all-ones in its
   // class; the all-ones host of a class C network. "/P" clears the low P bits:
   // "/24" reads as 255.0.0.0, "/7" as /25.
   for (char const* yes : {"192.0.2.127", "198.51.100.255", "203.0.113.255", "ff02::1", "ff01::1",
                           "[ff02::1%olta0]:3000", "192.0.2.127/7"})
      EXPECT_TRUE(U::isBroadcastAddrString(yes, "")) << yes;
   for (char const* no : {"192.0.2.1", "ff02::2", "192.0.2.255/24", "192.0.2.127/30"})
      EXPECT_FALSE(U::isBroadcastAddrString(no, "")) << no;
}

TEST_F(InetDeviceNetnsTest, LookupByNameAndAddress)
{
   EXPECT_EQ(summary(DtInetDevice("olta0")),
             "olta0 4 64 up active | 192.0.2.1/25 255.255.255.128 192.0.2.127 | 2001:db8::1/64 "
             "ff02::1");
   // "name family [v4]", or the error of a failed lookup.
   auto id = [](DtInetDevice const& d)
   {
      return d.isOk() ? d.deviceName().stdString() + " " + std::to_string(d.family()) +
                            (d.hasIpv4Addr() ? " v4" : "")
                      : d.getLastErrorString().stdString();
   };
   EXPECT_EQ(id(DtInetDevice(DtInetAddr("198.51.100.1"))), "oltb0 4 v4");
   EXPECT_EQ(id(DtInetDevice(DtString("[2001:db8::1]:3000"))), "olta0 6 v4");
   EXPECT_EQ(id(DtInetDevice(DtInetAddr("2001:db8:1::1"))), "oltd0 6");
   EXPECT_EQ(id(DtInetDevice(DtString("nosuch0"))), "Could not locate interface nosuch0");
   EXPECT_EQ(id(DtInetDevice(DtString("192.0.2.99:80"))),
             "Could not locate interface device with IPv4 address 192.0.2.99 (original: "
             "192.0.2.99:80");
   EXPECT_EQ(id(DtInetDevice(DtString("2001:db8::99"))),
             "Could not locate interface device with IPv6 address 2001:db8::99 (original: "
             "2001:db8::99");
}

TEST_F(InetDeviceNetnsTest, InterfaceThatVanishesGivesAFailedDevice)
{
   ASSERT_TRUE(
       myNs->sh("ip link add oltv0 type veth peer name oltv1 && "
                "ip addr add 192.0.2.200/30 dev oltv0"))
       << myNs->error();
   int query = socket(AF_INET, SOCK_DGRAM, 0);
   ASSERT_GE(query, 0);
   ifconf table;
   unsigned int size = 40, multiplier = 3;
   ASSERT_EQ(fetch(query, &table, size, multiplier), 0);
   ifreq* record = U::findInterfaceByName("oltv0", query, &table);
   ASSERT_NE(record, nullptr);
   ASSERT_TRUE(myNs->ip({"link", "delete", "oltv0"}));

   DtInetDevice gone(query, record, nullptr, U::DtInetFamilyIPv4);
   EXPECT_EQ(summary(gone), "Could not query IPv4 flags on interface oltv0");
   in_addr address;
   inet_pton(AF_INET, "192.0.2.200", &address);
   EXPECT_EQ(U::findInterfaceByAddress(&address, query, &table), nullptr);
   U::freeDeviceInfo(&table);
   close(query);
}

// Runs in a death-test child: exits 0 when the table comes back with `records`
// records, 1 otherwise; the alarm ends a child whose table never grows.
void fetchInChild(int query, unsigned int size, unsigned int multiplier, int records)
{
   alarm(10);
   ifconf table;
   int result = fetch(query, &table, size, multiplier);
   _exit(result == 0 && table.ifc_len == records * 40 ? 0 : 1);
}

// Plain namespace for the table growth: lo plus one or two IPv4 interfaces.
TEST(InetDeviceTableTest, IfconfTableGrowsByTrial)
{
   std::string why;
   if (!olt::TestNetns::isAvailable(&why))
      GTEST_SKIP() << "interface tests run in a private network namespace: " << why;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   ASSERT_TRUE(ns.addVethPair("olta0", "oltb0") && ns.addAddress("olta0", "192.0.2.1/24"))
       << ns.error();
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();
   int query = socket(AF_INET, SOCK_DGRAM, 0);
   ASSERT_GE(query, 0);
   ifconf table;
   unsigned int size, multiplier;

   // 3 records fill 3 * 40 bytes: a second try with 360.
   ASSERT_TRUE(ns.addAddress("oltb0", "198.51.100.1/24")) << ns.error();
   size = 40;
   multiplier = 3;
   ASSERT_EQ(fetch(query, &table, size, multiplier), 0);
   EXPECT_EQ(std::make_pair(size, multiplier), std::make_pair(360u, 1u));
   EXPECT_EQ(table.ifc_len, 3 * 40);
   EXPECT_NE(U::findInterfaceByName("lo", query, &table), nullptr);
   U::freeDeviceInfo(&table);

   // A starting size or multiplier of 0 still grows to the whole table; in a
   // child with an alarm, so that a table that never grows ends only the child.
   for (auto start : {std::make_pair(0u, 3u), std::make_pair(40u, 0u)})
   {
      SCOPED_TRACE(start.first * 10 + start.second);
      EXPECT_EXIT(fetchInChild(query, start.first, start.second, 3), ::testing::ExitedWithCode(0),
                  "");
   }

   // A query on something that is not a socket fails with the documented reset.
   size = 120;
   multiplier = 1;
   DtString error;
   EXPECT_NE(fetch(-1, &table, size, multiplier, &error), 0);
   EXPECT_STREQ(error.c_str(), "Could not retrieve device configurations.");
   EXPECT_EQ(std::make_pair(size, multiplier), std::make_pair(40u, 3u));
   EXPECT_EQ(table.ifc_buf, nullptr);

   // The IPv6 table has one 144-byte record per line of /proc/net/if_inet6.
   size = 144;
   ASSERT_EQ(U::fetchIpv6DeviceInfo(query, &table, size, multiplier, error), 0);
   EXPECT_EQ(table.ifc_len, P::countLines(P::theIfInet6Path) * 144);
   U::freeDeviceInfo(&table);
   close(query);
}

// ---------------------------------------------------------------- /proc readers

// A path to `content` in an unnamed file that lasts until the process ends.
std::string write(std::string const& content)
{
   FILE* file = tmpfile();
   EXPECT_NE(file, nullptr);
   EXPECT_EQ(fwrite(content.data(), 1, content.size(), file), content.size());
   fflush(file);
   return "/proc/self/fd/" + std::to_string(fileno(file));
}

TEST(ProcReaderTest, IfInet6Lines)
{
   // The name field holds the name and zeros behind it, even after a longer
   // name on an earlier line.
   std::string good = write(
       "20010db8000000000000000000000001 03 40 00 80    olta0\n"
       "fe800000000000000000000000000002 03 40 20 80    averyverylongnam\n"
       "20010db8000000000000000000000002 04 40 00 80    ab\n");
   ifreq_in6 records[4];
   memset(records, 'x', sizeof records);  // stale bytes that must not show through
   unsigned int count = 0;
   EXPECT_EQ(P::readIfInet6(good.c_str(), records, 4, count), P::DtProcReadOk);
   ASSERT_EQ(count, 3u);
   EXPECT_STREQ(records[0].ifr6_name, "olta0");
   EXPECT_EQ(records[0].ifr6_addr.s6_addr[15], 0x01);
   EXPECT_EQ(records[0].ifr6_prefixlen, 64u);
   EXPECT_EQ(records[1].ifr6_scope, 0x20u);
   EXPECT_EQ(std::string(records[2].ifr6_name, IFNAMSIZ),
             std::string("ab") + std::string(IFNAMSIZ - 2, '\0'));
   // Capacity bounds the reading.
   EXPECT_EQ(P::readIfInet6(good.c_str(), records, 1, count), P::DtProcReadOk);
   EXPECT_EQ(count, 1u);

   std::pair<char const*, P::DtProcReadStatus> const hostile[] = {
       {"", P::DtProcReadOk},
       {"zz\n", P::DtProcReadParseError},
       {"20010db8 03 40\n", P::DtProcReadParseError},
       // An overlong name is cut to the 15 characters the record holds.
       {"20010db8000000000000000000000001 03 40 00 80    averyveryverylongname_beyond16\n",
        P::DtProcReadOk}};
   for (auto const& [content, status] : hostile)
   {
      SCOPED_TRACE(content);
      EXPECT_EQ(P::readIfInet6(write(content).c_str(), records, 4, count), status);
      EXPECT_EQ(records[0].ifr6_name[IFNAMSIZ - 1], '\0');
   }
   EXPECT_STREQ(records[0].ifr6_name, "averyveryverylo");
   EXPECT_EQ(P::readIfInet6("/nonexistent/if_inet6", records, 4, count), P::DtProcReadCannotOpen);
   EXPECT_EQ(P::countLines("/nonexistent/if_inet6"), -1);
}

TEST(ProcReaderTest, IgmpBlocksAndTheFourDigitQuirkAndIgmp6Lines)
{
   std::string igmp = write(
       "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
       "1\tlo        :     1      V3\n"
       "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
       "3\tolta0     :     2      V3\n"
       "\t\t\t\t030201EF     1 0:00000000\t\t0\n"
       "\t\t\t\t0100E0E0     1 0:00000000\t\t0\n"
       "4\toltb0     :     1      V3\n"
       "\t\t\t\t050201EF     1 0:00000000\t\t0\n");
   std::vector<unsigned int> groups;
   EXPECT_EQ(P::readIgmpGroups(igmp.c_str(), 3, groups), P::DtProcReadOk);
   EXPECT_EQ(groups, (std::vector<unsigned int>{htonl(0x0302u), htonl(0x0100u)}));
   // A bad group line ends the reading; so does a line too long for the buffer.
   for (std::string bad : {std::string("3\tolta0 : 1\n\t\t\tzz\n\t\t\t030201EF\n"),
                           std::string(3000, 'x') + "\n\t\t\t\t0\n"})
   {
      groups.clear();
      EXPECT_EQ(P::readIgmpGroups(write(bad).c_str(), 3, groups), P::DtProcReadOk);
      EXPECT_TRUE(groups.empty());
   }

   std::string igmp6 = write(
       "1    lo              ff020000000000000000000000000001     1 0000000C 0\n"
       "3    olta0           ff150000000000000000000000001234     1 00000004 0\n"
       "3    olta0           ff020000000000000000000000000001     1 0000000C 0\n");
   std::vector<in6_addr> groups6;
   EXPECT_EQ(P::readIgmp6Groups(igmp6.c_str(), 3, groups6), P::DtProcReadOk);
   ASSERT_EQ(groups6.size(), 2u);
   EXPECT_EQ(groups6[0].s6_addr[1], 0x15);
   groups6.clear();
   EXPECT_EQ(P::readIgmp6Groups(write("3    olta0           ff15\n").c_str(), 3, groups6),
             P::DtProcReadParseError);
   EXPECT_EQ(P::readIgmp6Groups("/nonexistent/igmp6", 3, groups6), P::DtProcReadCannotOpen);
}

}  // namespace
