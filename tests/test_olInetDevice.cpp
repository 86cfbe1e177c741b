// DtInetDevice and the interface scans, inside a private network namespace so
// that results depend only on the interfaces made here.
#include <olutil/olInetDevice.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include <olutil/olInetPlatformUtils.h>

#include "support_netns.h"

namespace
{

using U = DtInetUtils;
using P = DtInetPlatformUtils;
using Names = std::vector<std::string>;

auto const text = [](DtInetAddr const* a) { return a ? a->toDtString().stdString() : "-"; };

// "name family linkState [up] [active] | v4/len mask brd | v6/len brd", or the error
std::string summary(DtInetDevice const& d)
{
   if (!d.isOk())
      return d.getLastErrorString().stdString();
   auto withPrefix = [](DtInetAddr const* a)
   { return text(a) + "/" + std::to_string(a ? a->prefix() : 0); };
   return d.deviceName().stdString() + " " + std::to_string(d.family()) + " " +
          std::to_string(d.linkState()) + (d.isUp() ? " up" : "") +
          (d.isActive() ? " active" : "") + " | " + withPrefix(d.ipv4Addr()) + " " +
          text(d.ipv4Netmask()) + " " + text(d.ipv4BroadcastAddr()) + " | " +
          withPrefix(d.ipv6Addr()) + " " + text(d.ipv6BroadcastAddr());
}

Names names(DtInetDeviceList const& devices, bool full = false)
{
   Names result;
   for (auto const& device : devices)
      result.push_back(full ? summary(*device) : device->deviceName().stdString());
   return result;
}

int fetch(int query, ifconf* table, unsigned int& size, unsigned int& multiplier,
          DtString* error = nullptr)
{
   memset(table, 0, sizeof *table);
   DtString ignored;
   return U::fetchDeviceInfo(U::DtInetFamilyIPv4, query, table, size, multiplier,
                             error ? *error : ignored);
}

// lo; olta0 (IPv4 + IPv6, in groups 239.1.2.3 and ff15::1234), peer oltb0; oltc0 (no
// carrier); oltdn0 (down, no broadcast address); oltd0 (IPv6 only). No link-locals.
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
      ASSERT_TRUE(myNs->sh(
          "set -e\n"
          "for p in 'olta0 oltb0' 'oltc0 oltc1' 'oltdn0 oltdn1' 'oltd0 oltd1'; do\n"
          "  set -- $p; ip link add $2 type veth peer name $1\n"
          "  ip link set $1 addrgenmode none; ip link set $2 addrgenmode none\n"
          "done\n"
          "ip link set olta0 address 02:00:00:00:00:0a\n"
          "ip addr add 192.0.2.1/25 brd + dev olta0; ip addr add 2001:db8::1/64 dev olta0 nodad\n"
          "ip addr add 198.51.100.1/24 brd + dev oltb0\n"
          "ip addr add 203.0.113.1/25 brd + dev oltc0\n"
          "ip addr add 203.0.113.129/25 dev oltdn0; ip addr add 2001:db8:1::1/64 dev oltd0 nodad\n"
          "for d in olta0 oltb0 oltc0 oltd0 oltd1; do ip link set $d up; done\n"
          // The kernel marks a link with carrier running a moment after it goes up.
          "for d in olta0 oltb0 oltd0 oltd1; do n=0\n"
          "  until ip -o link show dev $d | grep -q 'state UP'; do\n"
          "    n=$((n + 1)); [ $n -le 500 ] || exit 1; sleep 0.01\n"
          "  done\n"
          "done\n"))
          << myNs->error();
      myGuard.reset(new olt::NetnsGuard(*myNs));
      ASSERT_TRUE(myGuard->ok()) << myGuard->error();
      myGroup4 = olt::joinGroupSocket("239.1.2.3", "olta0");
      myGroup6 = olt::joinGroupSocket("ff15::1234", "olta0");
      ASSERT_TRUE(myGroup4 >= 0 && myGroup6 >= 0);
   }

   ~InetDeviceNetnsTest() override { close(myGroup4), close(myGroup6); }

   std::unique_ptr<olt::TestNetns> myNs;
   std::unique_ptr<olt::NetnsGuard> myGuard;
   int myGroup4 = -1, myGroup6 = -1;
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
   auto a6 = U::scanInetDevices(false, true).at(1);
   EXPECT_EQ(text(a6->addr()) + " " + text(a6->broadcastAddr()), "2001:db8::1 ff02::1");

   EXPECT_EQ(names(U::scanBroadcastDevices(true, false)),
             (Names{"olta0", "oltb0", "oltc0", "oltd0"}));
   EXPECT_EQ(names(U::scanMulticastDevices(false, false)),
             (Names{"olta0", "oltb0", "oltc0", "oltdn0", "oltd0"}));
   EXPECT_EQ(names(U::scanIpv6Devices(false)), (Names{"lo", "olta0", "oltd0"}));
   EXPECT_EQ(names({U::defaultMulticastDevice(), U::defaultBroadcastDevice(false)}),
             (Names{"olta0", "olta0"}));
}

TEST_F(InetDeviceNetnsTest, DeviceFactsAndCopies)
{
   DtInetDeviceList all = U::scanInetDevices(false, false);
   ASSERT_EQ(all.size(), 6u);
   auto lo = all[0], a = all[1];
   EXPECT_EQ(a->interfaceIndex(), myNs->ifIndex("olta0"));
   auto hardware = [](DtInetDevice const& d)
   {
      unsigned char bytes[8];
      return std::to_string(d.type()) + " " + std::to_string(d.macAddr(bytes)) + " " +
             d.macAddrString().stdString() + " " + std::to_string(d.linkScope());
   };
   EXPECT_EQ(hardware(*a), "0 6 02:00:00:00:00:0A " + std::to_string(DtInetIpv6ScopeGlobal));
   EXPECT_EQ(hardware(*lo), "4 0  " + std::to_string(DtInetIpv6ScopeInterfaceLocal));

   // IPv4 groups keep the first four of eight hex digits (239.1.2.3 -> 2.3.0.0);
   // ff02::1 is the broadcast address, not a group.
   auto has = [](std::vector<DtInetAddr*> const& list, char const* wanted)
   {
      return std::any_of(list.begin(), list.end(),
                         [&](DtInetAddr const* x) { return text(x) == wanted; });
   };
   EXPECT_TRUE(has(a->ipv6Groups(), "ff15::1234") && has(a->ipv4Groups(), "2.3.0.0"));
   EXPECT_FALSE(has(a->ipv6Groups(), "ff02::1"));

   // Copies own their addresses; equality is by name only.
   DtInetDevice copy(*a), other("oltb0");
   EXPECT_TRUE(other != *a);
   other = *a;
   for (DtInetDevice const* d : {&copy, &other})
      EXPECT_TRUE(*d == *a && d->ipv4Addr() != a->ipv4Addr() && d->ipv6Addr() != a->ipv6Addr() &&
                  summary(*d) + hardware(*d) == summary(*a) + hardware(*a));
}

TEST_F(InetDeviceNetnsTest, BroadcastAndMulticastDestinations)
{
   for (auto const& [destination, device] : std::vector<std::pair<DtInetAddr, char const*>>{
            {DtInetAddr("192.0.2.1"), "-"},           // neither broadcast nor multicast
            {DtInetAddr("224.0.0.5"), "olta0"},       // first multicast interface with IPv4
            {DtInetAddr("198.51.100.255"), "oltb0"},  // an interface's broadcast address
            {DtInetAddr("192.0.2.127"), "-"},         // the class mask does not flag it...
            {DtInetAddr("192.0.2.127", "255.255.255.128"), "olta0"},  // ... the right one does
            {DtInetAddr("203.0.113.255"), "oltdn0"},  // down, matched by its address's broadcast
            {DtInetAddr("ff15::1234"), "lo"}})        // lo's ::1 has the destination's scope 0
   {
      std::unique_ptr<DtInetDevice> found(DtInetDevice::findInterface(destination));
      EXPECT_EQ(found ? found->deviceName().stdString() : "-", device) << text(&destination);
   }

   // "/P" clears the low P bits: "/24" reads as 255.0.0.0, "/7" as /25.
   for (char const* yes :
        {"192.0.2.127", "203.0.113.255", "ff01::1", "[ff02::1%olta0]:3000", "192.0.2.127/7"})
      EXPECT_TRUE(U::isBroadcastAddrString(yes, "")) << yes;
   for (char const* no : {"192.0.2.1", "ff02::2", "192.0.2.255/24", "192.0.2.127/30"})
      EXPECT_FALSE(U::isBroadcastAddrString(no, "")) << no;
}

TEST_F(InetDeviceNetnsTest, LookupByNameAndAddress)
{
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
}

// lo, olta0, oltb0, oltc0, oltdn0 and oltv0 have IPv4 records: 240 bytes.
TEST_F(InetDeviceNetnsTest, IfconfTableGrowsByTrialAndAVanishedInterfaceFails)
{
   ASSERT_TRUE(
       myNs->sh("ip link add oltv0 type veth peer name oltv1 && "
                "ip addr add 192.0.2.200/30 dev oltv0"))
       << myNs->error();
   int query = socket(AF_INET, SOCK_DGRAM, 0);
   ASSERT_GE(query, 0);
   ifconf table;
   unsigned int size = 40, multiplier = 3;
   // 120 bytes come back full: a second try with 360.
   ASSERT_EQ(fetch(query, &table, size, multiplier), 0);
   EXPECT_EQ(std::make_pair(size, multiplier), std::make_pair(360u, 1u));
   EXPECT_EQ(table.ifc_len, 6 * 40);

   ifreq* record = U::findInterfaceByName("oltv0", query, &table);
   ASSERT_NE(record, nullptr);
   ASSERT_TRUE(myNs->ip({"link", "delete", "oltv0"}));
   DtInetDevice gone(query, record, nullptr, U::DtInetFamilyIPv4);
   EXPECT_EQ(summary(gone), "Could not query IPv4 flags on interface oltv0");
   in_addr address{htonl(0xC00002C8)};  // 192.0.2.200
   EXPECT_EQ(U::findInterfaceByAddress(&address, query, &table), nullptr);
   U::freeDeviceInfo(&table);

   // A start of size 0 or multiplier 0 still grows; in a child with an alarm, so
   // that a table that never grows ends only the child.
   for (auto start : {std::make_pair(0u, 3u), std::make_pair(40u, 0u)})
      EXPECT_EXIT(
          {
             alarm(10);
             int result = fetch(query, &table, start.first, start.second);
             _exit(result == 0 && table.ifc_len == 5 * 40 ? 0 : 1);
          },
          ::testing::ExitedWithCode(0), "")
          << start.first << " " << start.second;

   DtString error;
   EXPECT_NE(fetch(-1, &table, size, multiplier, &error), 0);
   EXPECT_STREQ(error.c_str(), "Could not retrieve device configurations.");
   EXPECT_EQ(std::make_pair(size, multiplier), std::make_pair(40u, 3u));
   close(query);
}

std::string write(std::string const& content)
{
   FILE* file = tmpfile();
   EXPECT_NE(file, nullptr);
   EXPECT_EQ(fwrite(content.data(), 1, content.size(), file), content.size());
   fflush(file);
   return "/proc/self/fd/" + std::to_string(fileno(file));
}

TEST(ProcReaderTest, OddAndHostileLines)
{
   // A name is zero-filled behind a longer earlier one and cut to the 15
   // characters a record holds.
   std::string inet6 = write(
       "20010db8000000000000000000000001 03 40 20 80    averyveryverylongname_beyond16\n"
       "20010db8000000000000000000000002 04 40 00 80    ab\n");
   ifreq_in6 r[4];
   memset(r, 'x', sizeof r);
   unsigned int count = 0;
   EXPECT_EQ(P::readIfInet6(inet6.c_str(), r, 4, count), P::DtProcReadOk);
   ASSERT_EQ(count, 2u);
   EXPECT_STREQ(r[0].ifr6_name, "averyveryverylo");
   EXPECT_EQ(std::string(r[1].ifr6_name, IFNAMSIZ), "ab" + std::string(IFNAMSIZ - 2, '\0'));
   EXPECT_EQ(P::readIfInet6(write("20010db8 03 40\n").c_str(), r, 4, count),
             P::DtProcReadParseError);

   // Only the device's block counts.
   std::string igmp = write(
       "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
       "1\tlo        :     1      V3\n"
       "\t\t\t\t030201E0     1 0:00000000\t\t0\n"
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
      EXPECT_TRUE(P::readIgmpGroups(write(bad).c_str(), 3, groups = {}) == P::DtProcReadOk &&
                  groups.empty());

   std::vector<in6_addr> groups6;
   EXPECT_EQ(P::readIgmp6Groups(write("3    olta0           ff15\n").c_str(), 3, groups6),
             P::DtProcReadParseError);
}

}  // namespace
