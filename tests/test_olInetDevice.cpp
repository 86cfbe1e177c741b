// DtInetDevice and the interface scans, inside a private network namespace so
// that results depend only on the interfaces made here.
#include <olutil/olInetDevice.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <set>

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
          // A veth end reports its carrier a moment after both ends are up; the
          // expected link states need it (at most 5 s).
          "for i in $(seq 100); do\n"
          "  n=0; for d in olta0 oltb0 oltd0; do\n"
          "    ip -o link show dev $d | grep -q 'state UP' && n=$((n+1)); done\n"
          "  [ $n -eq 3 ] && break; sleep 0.05\n"
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
            {DtInetAddr("ff15::1234"), "olta0"}})     // first with its scope; never lo
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

// Interfaces whose indexes take more than one digit: /proc/net/igmp6 writes them
// in decimal, /proc/net/if_inet6 in as many hexadecimal digits as they need
// (300 is "12c"). d10 and d16 have IPv4 and IPv6; d100 and d300 only IPv6, so
// their indexes come from /proc/net/if_inet6; d300's address is link-local and
// carries its index as scope. Each device joins a group of its own. The veth
// peers (index 4000 + N, up, no addresses) add more lines to /proc/net/igmp6.
class InetDeviceIndexTest : public ::testing::Test
{
protected:
   struct Interface
   {
      int index;
      char const* ipv4;  // or null
      char const* ipv6;
      char const* group;
      char const* solicited;  // the group every IPv6 address joins
   };
   static constexpr Interface theInterfaces[] = {
       {10, "192.0.2.10/28", "2001:db8:10::1/64", "ff15::10", "ff02::1:ff00:1"},
       {16, "192.0.2.20/28", "2001:db8:16::2/64", "ff15::16", "ff02::1:ff00:2"},
       {100, nullptr, "2001:db8:100::3/64", "ff15::100", "ff02::1:ff00:3"},
       {300, nullptr, "fe80::300/64", "ff15::300", "ff02::1:ff00:300"}};

   static std::string nameOf(Interface const& i) { return "d" + std::to_string(i.index); }

   void SetUp() override
   {
      std::string why;
      if (!olt::TestNetns::isAvailable(&why))
         GTEST_SKIP() << "interface tests run in a private network namespace: " << why;
      myNs.reset(new olt::TestNetns);
      ASSERT_TRUE(myNs->ok()) << myNs->error();
      for (Interface const& i : theInterfaces)
      {
         std::string const name = nameOf(i), peer = "p" + std::to_string(i.index);
         ASSERT_TRUE(
             myNs->ip({"link", "add", "name", name, "index", std::to_string(i.index), "type",
                       "veth", "peer", "name", peer, "index", std::to_string(4000 + i.index)}))
             << myNs->error();
         ASSERT_TRUE(myNs->disableLinkLocal(name) && myNs->disableLinkLocal(peer) &&
                     (!i.ipv4 || myNs->addAddress(name, i.ipv4)) &&
                     myNs->addAddress(name, i.ipv6) && myNs->setLinkUp(peer) &&
                     myNs->setLinkUp(name))
             << myNs->error();
      }
      myGuard.reset(new olt::NetnsGuard(*myNs));
      ASSERT_TRUE(myGuard->ok()) << myGuard->error();
      for (Interface const& i : theInterfaces)
      {
         std::string error;
         myGroups.push_back(olt::joinGroupSocket(i.group, nameOf(i), &error));
         ASSERT_GE(myGroups.back(), 0) << error;
      }
   }

   ~InetDeviceIndexTest() override
   {
      for (int group : myGroups)
         close(group);
   }

   // What the device says of the interface it was made for, or where it differs.
   static void expectDevice(DtInetDevice const& d, Interface const& i)
   {
      SCOPED_TRACE(nameOf(i));
      EXPECT_TRUE(d.isOk()) << d.getLastErrorString();
      EXPECT_EQ(d.deviceName().stdString(), nameOf(i));
      EXPECT_EQ(d.interfaceIndex(), i.index);
      EXPECT_EQ(text(d.ipv4Addr()),
                i.ipv4 ? std::string(i.ipv4).substr(0, std::string(i.ipv4).find('/')) : "-");
      std::string const v6(i.ipv6);
      ASSERT_NE(d.ipv6Addr(), nullptr);
      EXPECT_EQ(text(d.ipv6Addr()).substr(0, text(d.ipv6Addr()).find('%')),
                v6.substr(0, v6.find('/')));
      EXPECT_EQ(d.ipv6Addr()->prefix(), 64u);
      if (v6.compare(0, 4, "fe80") == 0)
      {
         EXPECT_EQ(static_cast<int>(d.ipv6Addr()->scope()), i.index);
      }
      EXPECT_EQ(text(d.ipv6BroadcastAddr()), "ff02::1");

      // Its own group and its address's solicited-node group; no other's group.
      std::set<std::string> groups;
      for (DtInetAddr const* group : d.ipv6Groups())
         groups.insert(text(group));
      for (Interface const& other : theInterfaces)
         EXPECT_EQ(groups.count(other.group), &other == &i ? 1u : 0u) << other.group;
      EXPECT_EQ(groups.count(i.solicited), 1u);
   }

   std::unique_ptr<olt::TestNetns> myNs;
   std::unique_ptr<olt::NetnsGuard> myGuard;
   std::vector<int> myGroups;
};

constexpr InetDeviceIndexTest::Interface InetDeviceIndexTest::theInterfaces[];

TEST_F(InetDeviceIndexTest, ScanReadsIndexesAsTheKernelWritesThem)
{
   DtInetDeviceList all = U::scanInetDevices(false, false);
   Names found = names(all);
   std::sort(found.begin(), found.end());
   EXPECT_EQ(found, (Names{"d10", "d100", "d16", "d300", "lo"}));  // no device made of a cut field
   for (Interface const& i : theInterfaces)
   {
      EXPECT_EQ(myNs->ifIndex(nameOf(i)), i.index);
      auto d = std::find_if(all.begin(), all.end(),
                            [&](std::shared_ptr<DtInetDevice> const& x)
                            { return x->deviceName().stdString() == nameOf(i); });
      ASSERT_NE(d, all.end()) << nameOf(i);
      expectDevice(**d, i);
   }
   ASSERT_FALSE(all.empty());
   EXPECT_TRUE(all.front()->isOk()) << all.front()->getLastErrorString();  // lo, index 1
   EXPECT_EQ(all.front()->interfaceIndex(), 1);
}

TEST_F(InetDeviceIndexTest, LookupByNameAndAddressReadsTheSameIndexes)
{
   for (Interface const& i : theInterfaces)
   {
      expectDevice(DtInetDevice(DtString(nameOf(i))), i);
      std::string const v6(i.ipv6);
      if (v6.compare(0, 4, "fe80") != 0)
         expectDevice(DtInetDevice(DtInetAddr(v6.substr(0, v6.find('/')).c_str())), i);
   }
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
   // Indexes of four digits and more are read whole, not cut to three.
   std::string wide = write(
       "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
       "430\tp430      :     1      V3\n"
       "\t\t\t\t060201EF     1 0:00000000\t\t0\n"
       "4300\tp4300     :     1      V3\n"
       "\t\t\t\t070201EF     1 0:00000000\t\t0\n");
   EXPECT_EQ(P::readIgmpGroups(wide.c_str(), 4300, groups = {}), P::DtProcReadOk);
   EXPECT_EQ(groups, (std::vector<unsigned int>{htonl(0x0702u)}));
   EXPECT_EQ(P::readIgmpGroups(wide.c_str(), 430, groups = {}), P::DtProcReadOk);
   EXPECT_EQ(groups, (std::vector<unsigned int>{htonl(0x0602u)}));
   // A bad group line ends the reading; so does a line too long for the buffer.
   for (std::string bad : {std::string("3\tolta0 : 1\n\t\t\tzz\n\t\t\t030201EF\n"),
                           std::string(3000, 'x') + "\n\t\t\t\t0\n"})
      EXPECT_TRUE(P::readIgmpGroups(write(bad).c_str(), 3, groups = {}) == P::DtProcReadOk &&
                  groups.empty());

   std::vector<in6_addr> groups6;
   EXPECT_EQ(P::readIgmp6Groups(write("3    olta0           ff15\n").c_str(), 3, groups6),
             P::DtProcReadParseError);
}

std::string ntop(in6_addr const& address)
{
   char buffer[INET6_ADDRSTRLEN];
   return inet_ntop(AF_INET6, &address, buffer, sizeof buffer) ? buffer : "?";
}

// Lines as the kernel writes them, for indexes of one digit up to four hexadecimal
// ones. The index is the only field whose width varies with the interface.
TEST(ProcLineTest, IfInet6LinesGiveEveryFieldWhateverTheIndex)
{
   struct Row
   {
      char const* line;
      int index;
      char const* address;
      unsigned int prefix, scope, flags;
      char const* name;
   } const rows[] = {
       {"00000000000000000000000000000001 01 80 10 80       lo\n", 1, "::1", 128, 0x10, 0x80, "lo"},
       {"fe80000000000000020000fffe00000a 09 40 20 80     eth9\n", 9, "fe80::200:ff:fe00:a", 64,
        0x20, 0x80, "eth9"},
       {"20010db8001000000000000000000001 0a 40 00 82      d10\n", 10, "2001:db8:10::1", 64, 0,
        0x82, "d10"},
       {"20010db8001600000000000000000002 10 30 00 80      d16\n", 16, "2001:db8:16::2", 48, 0,
        0x80, "d16"},
       {"20010db8010000000000000000000003 64 7f 00 80     d100\n", 100, "2001:db8:100::3", 127, 0,
        0x80, "d100"},
       {"fd000000000000000000000000000255 ff 08 40 c0     d255\n", 255, "fd00::255", 8, 0x40, 0xc0,
        "d255"},
       {"fe800000000000000000000000000300 12c 40 20 82     d300\n", 300, "fe80::300", 64, 0x20,
        0x82, "d300"},
       {"ff000000000000000000000000000000 1000 00 0e 00    d4096", 4096, "ff00::", 0, 0x0e, 0,
        "d4096"},
       {"20010DB8000000000000000000000001\t7fffffff\t80\t00\t80\tveth.0123456789a\r\n", INT_MAX,
        "2001:db8::1", 128, 0, 0x80, "veth.0123456789a"},  // cut to 15
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.line);
      ifreq_in6 record;
      memset(&record, 'x', sizeof record);
      ASSERT_TRUE(P::parseIfInet6Line(row.line, record));
      EXPECT_EQ(record.ifr6_ifindex, row.index);
      EXPECT_EQ(ntop(record.ifr6_addr), row.address);
      EXPECT_EQ(record.ifr6_prefixlen, row.prefix);
      EXPECT_EQ(record.ifr6_scope, row.scope);
      EXPECT_EQ(record.ifr6_flags, row.flags);
      EXPECT_EQ(std::string(record.ifr6_name, IFNAMSIZ),
                std::string(row.name).substr(0, IFNAMSIZ - 1) +
                    std::string(IFNAMSIZ - std::min<size_t>(strlen(row.name), IFNAMSIZ - 1), '\0'));
      EXPECT_EQ(std::string(record.ifr6_reserved, sizeof record.ifr6_reserved),
                std::string(sizeof record.ifr6_reserved, '\0'));
   }
}

TEST(ProcLineTest, Igmp6LinesReadTheIndexInDecimal)
{
   struct Row
   {
      char const* line;
      int index;
      char const* name;
      char const* group;
      unsigned int users, flags;
      long timer;
   } const rows[] = {
       {"1    lo              ff020000000000000000000000000001     1 0000000C 0\n", 1, "lo",
        "ff02::1", 1, 0xc, 0},
       {"9    eth9            ff0200000000000000000001ff00000a     2 00000004 0\n", 9, "eth9",
        "ff02::1:ff00:a", 2, 4, 0},
       {"10   d10             ff150000000000000000000000000010     1 00000004 0\n", 10, "d10",
        "ff15::10", 1, 4, 0},
       {"16   d16             ff150000000000000000000000000016     1 00000004 0\n", 16, "d16",
        "ff15::16", 1, 4, 0},
       {"100  d100            ff010000000000000000000000000001     1 00000008 0\n", 100, "d100",
        "ff01::1", 1, 8, 0},
       {"255  d255            ff020000000000000000000000000001 65535 0000000C 250\n", 255, "d255",
        "ff02::1", 65535, 0xc, 250},
       {"300  d300            ff0200000000000000000001ff000300     1 00000004 -3\n", 300, "d300",
        "ff02::1:ff00:300", 1, 4, -3},
       {"4096 d4096           ff15000000000000000000000000abcd 123456 FFFFFFFF "
        "-9223372036854775808",
        4096, "d4096", "ff15::abcd", 123456, 0xffffffffu, LONG_MIN},
       {"2147483647\tveth.0123456789a\tff020000000000000000000000000001\t1\t0000000c\t"
        "9223372036854775807\r\n",
        INT_MAX, "veth.0123456789", "ff02::1", 1, 0xc, LONG_MAX},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.line);
      P::DtIgmp6Entry entry;
      memset(&entry, 'x', sizeof entry);
      ASSERT_TRUE(P::parseIgmp6Line(row.line, entry));
      EXPECT_EQ(entry.ifIndex, row.index);
      EXPECT_STREQ(entry.name, row.name);
      EXPECT_EQ(ntop(entry.group), row.group);
      EXPECT_EQ(entry.users, row.users);
      EXPECT_EQ(entry.flags, row.flags);
      EXPECT_EQ(entry.timer, row.timer);
   }
}

TEST(ProcLineTest, MalformedLinesAreRefusedAndLeaveTheRecordAlone)
{
   std::string const address = "20010db8000000000000000000000001";
   auto inet6 = [&](std::string const& index, std::string const& tail = " 40 00 80 eth0")
   { return address + " " + index + tail; };
   auto igmp6 = [&](std::string const& index, std::string const& tail = " 1 00000004 0")
   { return index + " eth0 " + address + tail; };
   std::vector<std::string> const badInet6 = {
       "",
       " \n",
       inet6("01", " 40 00 80"),                 // no name
       inet6("01", " 40 00 80\n"),               // no name before the line's end
       address.substr(1) + " 01 40 00 80 eth0",  // 31 digits
       address + "0 01 40 00 80 eth0",           // 33 digits
       "2001:0db8:0000:0000:0000:0000:0000:0001 01 40 00 80 eth0",
       "20010db800000000000000000000000g 01 40 00 80 eth0",
       inet6("00"),  // no interface has index 0
       inet6("-1"),
       inet6("+1"),
       inet6("0x1f"),
       inet6("80000000"),                   // beyond an int
       inet6("123456789abcdef0123456789"),  // beyond any number
       inet6("1g"),
       inet6("01", " 81 00 80 eth0"),   // prefix 129
       inet6("01", " 4 0 00 80 eth0"),  // a split field, read as another layout
       inet6("01", " 40 00 80 eth0 more"),
       inet6("01", " 40 zz 80 eth0"),
       inet6("01", " 40 00 100000000 eth0"),  // flags beyond 32 bits
   };
   for (std::string const& line : badInet6)
   {
      SCOPED_TRACE(line);
      ifreq_in6 record, before;
      memset(&record, 'x', sizeof record);
      memcpy(&before, &record, sizeof record);
      EXPECT_FALSE(P::parseIfInet6Line(line.c_str(), record));
      EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
   }

   std::vector<std::string> const badIgmp6 = {
       "",
       "\t\n",
       igmp6("1", " 1 00000004"),  // no timer
       "1 eth0 ff15\n",
       igmp6("0"),
       igmp6("-1"),
       igmp6("1a"),  // hexadecimal where decimal is written
       igmp6("0x10"),
       igmp6("2147483648"),
       igmp6("1", " -1 00000004 0"),  // users are never negative
       igmp6("1", " 1 0000000G 0"),
       igmp6("1", " 1 00000004 --1"),
       igmp6("1", " 1 00000004 -"),
       igmp6("1", " 1 00000004 1x"),
       igmp6("1", " 1 00000004 9223372036854775808"),  // beyond a long
       igmp6("1", " 1 00000004 -9223372036854775809"),
       "1 eth0 " + address.substr(0, 30) + " 1 00000004 0",
       igmp6("1", " 1 00000004 0 0"),
   };
   for (std::string const& line : badIgmp6)
   {
      SCOPED_TRACE(line);
      P::DtIgmp6Entry entry, before;
      memset(&entry, 'x', sizeof entry);
      memcpy(&before, &entry, sizeof entry);  // padding too: the parser must not write it
      EXPECT_FALSE(P::parseIgmp6Line(line.c_str(), entry));
      EXPECT_EQ(memcmp(&entry, &before, sizeof entry), 0);
   }
}

// Files with indexes of every width: each interface gets its own lines only, and
// none of them is an error.
TEST(ProcReaderTest, IndexesOfMoreThanOneDigit)
{
   std::string igmp6 = write(
       "1    lo              ff020000000000000000000000000001     1 0000000C 0\n"
       "10   d10             ff150000000000000000000000000010     1 00000004 0\n"
       "10   d10             ff020000000000000000000000000001     1 0000000C 0\n"
       "16   d16             ff150000000000000000000000000016     1 00000004 0\n"
       "100  d100            ff150000000000000000000000000100     1 00000004 0\n"
       "300  d300            ff150000000000000000000000000300     1 00000004 0\n"
       "4300 p300            ff020000000000000000000000000001     1 0000000C 0\n");
   for (auto const& [index, wanted] :
        std::vector<std::pair<int, Names>>{{1, {"ff02::1"}},
                                           {10, {"ff15::10", "ff02::1"}},
                                           {16, {"ff15::16"}},
                                           {100, {"ff15::100"}},
                                           {300, {"ff15::300"}},
                                           {4300, {"ff02::1"}},
                                           {43, {}}})
   {
      SCOPED_TRACE(index);
      std::vector<in6_addr> groups;
      EXPECT_EQ(P::readIgmp6Groups(igmp6.c_str(), index, groups), P::DtProcReadOk);
      Names got;
      for (in6_addr const& group : groups)
         got.push_back(ntop(group));
      EXPECT_EQ(got, wanted);
   }

   std::string inet6 = write(
       "20010db8001000000000000000000001 0a 40 00 82      d10\n"
       "fe800000000000000000000000000300 12c 40 20 82     d300\n"
       "20010db8000000000000000000001000 1000 40 00 80    d4096\n");
   ifreq_in6 r[4];
   unsigned int count = 0;
   EXPECT_EQ(P::readIfInet6(inet6.c_str(), r, 4, count), P::DtProcReadOk);
   ASSERT_EQ(count, 3u);
   Names got;
   for (unsigned int i = 0; i < count; ++i)
      got.push_back(std::string(r[i].ifr6_name) + " " + std::to_string(r[i].ifr6_ifindex));
   EXPECT_EQ(got, (Names{"d10 10", "d300 300", "d4096 4096"}));
}

}  // namespace
