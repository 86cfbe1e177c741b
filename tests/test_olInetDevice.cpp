// Tests of DtInetDevice and the interface scans. Everything that reads
// interfaces runs inside a private network namespace built by the test, so the
// results do not depend on this machine's interfaces and nothing is sent.
#include <olutil/olInetDevice.h>

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetPlatformUtils.h>

#include "support_netns.h"

namespace
{

using Family = DtInetUtils::DtInetAddrFamily;

std::string text(DtInetAddr const* address)
{
   return address ? address->toDtString().stdString() : std::string("(none)");
}

std::vector<std::string> names(DtInetDeviceList const& devices)
{
   std::vector<std::string> result;
   for (auto const& device : devices)
      result.push_back(device->deviceName().stdString());
   return result;
}

std::shared_ptr<DtInetDevice> byName(DtInetDeviceList const& devices, char const* name)
{
   for (auto const& device : devices)
      if (device->deviceName() == name)
         return device;
   return nullptr;
}

// One "host": lo; olta0 (IPv4 + IPv6, running, in groups 239.1.2.3 and
// ff15::1234) with its peer oltb0 (IPv4 only); oltc0 (IPv4, up but no carrier);
// oltdn0 (IPv4 without broadcast address, down); oltd0 (IPv6 only, running). No interface has a
// link-local address, so each carries exactly the addresses given here.
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
      // The kernel lists interfaces by index; the tests below rely on this order.
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

TEST_F(InetDeviceNetnsTest, ScanListsIpv4InterfacesFirstThenIpv6Only)
{
   DtInetDeviceList all = DtInetUtils::scanInetDevices(false, false);
   EXPECT_EQ(names(all),
             (std::vector<std::string>{"lo", "olta0", "oltb0", "oltc0", "oltdn0", "oltd0"}));
   for (auto const& device : all)
   {
      SCOPED_TRACE(device->deviceName().c_str());
      EXPECT_TRUE(device->isOk()) << device->getLastErrorString().c_str();
      EXPECT_EQ(device->family(), DtInetUtils::DtInetFamilyIPv4);
   }
   auto ipv6Only = all.back();
   EXPECT_EQ(ipv6Only->ipv4Addr(), nullptr);
   EXPECT_EQ(text(ipv6Only->ipv6Addr()), "2001:db8:1::1");
   EXPECT_TRUE(ipv6Only->isActive());
   EXPECT_EQ(ipv6Only->addr(), nullptr);  // family 4 answers with the IPv4 address

   // activeOnly tests isUp: the interface without carrier (linkState 1) stays.
   DtInetDeviceList up = DtInetUtils::scanInetDevices(true, false);
   EXPECT_EQ(names(up), (std::vector<std::string>{"lo", "olta0", "oltb0", "oltc0", "oltd0"}));
   EXPECT_EQ(byName(up, "oltc0")->linkState(), DtInetDevice::DtInetLinkUp);
   EXPECT_TRUE(byName(up, "oltc0")->isUp());
   EXPECT_FALSE(byName(up, "oltc0")->isActive());
   EXPECT_EQ(byName(all, "oltdn0")->linkState(), DtInetDevice::DtInetLinkDown);

   DtInetDeviceList v6 = DtInetUtils::scanInetDevices(false, true);
   auto a6 = byName(v6, "olta0");
   ASSERT_TRUE(a6);
   EXPECT_EQ(a6->family(), DtInetUtils::DtInetFamilyIPv6);
   EXPECT_EQ(text(a6->addr()), "2001:db8::1");
   EXPECT_EQ(text(a6->broadcastAddr()), "ff02::1");
}

TEST_F(InetDeviceNetnsTest, DeviceFacts)
{
   DtInetDeviceList all = DtInetUtils::scanInetDevices(false, false);
   auto a = byName(all, "olta0");
   ASSERT_TRUE(a);
   EXPECT_EQ(a->interfaceIndex(), myNs->ifIndex("olta0"));
   EXPECT_EQ(a->type(), DtInetDevice::DtInetDeviceEthernet);
   EXPECT_EQ(a->linkState(), DtInetDevice::DtInetLinkRunning);
   EXPECT_EQ(a->mtu(), 1500);
   EXPECT_TRUE(a->isBroadcastCapable());
   EXPECT_TRUE(a->isMulticastCapable());
   EXPECT_EQ(text(a->ipv4Addr()), "192.0.2.1");
   EXPECT_EQ(a->ipv4Addr()->prefix(), 25u);
   EXPECT_EQ(text(a->ipv4Netmask()), "255.255.255.128");
   EXPECT_EQ(text(a->ipv4BroadcastAddr()), "192.0.2.127");
   EXPECT_EQ(text(a->ipv6Addr()), "2001:db8::1");
   EXPECT_EQ(a->ipv6Addr()->prefix(), 64u);
   EXPECT_EQ(a->linkScope(), DtInetIpv6ScopeGlobal);
   EXPECT_EQ(text(a->ipv6BroadcastAddr()), "ff02::1");

   std::string mac;
   ASSERT_TRUE(myNs->exec({"cat", "/sys/class/net/olta0/address"}, &mac));
   mac = mac.substr(0, mac.find('\n'));
   for (char& c : mac)
      c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
   EXPECT_EQ(a->macAddrString().stdString(), mac);
   unsigned char bytes[8];
   EXPECT_EQ(a->macAddr(bytes), 6u);
   EXPECT_EQ(bytes[6], 0);

   // Groups: the IPv6 join is listed whole; the IPv4 list keeps the first four
   // hex digits of each entry as the kernel prints them (239.1.2.3 -> 2.3.0.0).
   std::vector<std::string> groups6;
   for (DtInetAddr const* group : a->ipv6Groups())
      groups6.push_back(text(group));
   EXPECT_NE(std::find(groups6.begin(), groups6.end(), "ff15::1234"), groups6.end());
   EXPECT_EQ(std::find(groups6.begin(), groups6.end(), "ff02::1"), groups6.end());
   std::vector<std::string> groups4;
   for (DtInetAddr const* group : a->ipv4Groups())
      groups4.push_back(text(group));
   EXPECT_NE(std::find(groups4.begin(), groups4.end(), "2.3.0.0"), groups4.end());

   auto lo = byName(all, "lo");
   ASSERT_TRUE(lo);
   EXPECT_EQ(lo->type(), DtInetDevice::DtInetDeviceLoopback);
   EXPECT_EQ(lo->macAddr(bytes), 0u);
   EXPECT_TRUE(lo->macAddrString().isEmpty());
   EXPECT_FALSE(lo->isBroadcastCapable());
   EXPECT_EQ(lo->ipv4BroadcastAddr(), nullptr);
   EXPECT_EQ(text(lo->ipv6Addr()), "::1");
   EXPECT_EQ(lo->linkScope(), DtInetIpv6ScopeInterfaceLocal);
}

TEST_F(InetDeviceNetnsTest, CopiesOwnTheirAddresses)
{
   auto a = byName(DtInetUtils::scanInetDevices(false, false), "olta0");
   ASSERT_TRUE(a);
   DtInetDevice copy(*a);
   EXPECT_NE(copy.ipv4Addr(), a->ipv4Addr());
   EXPECT_TRUE(*copy.ipv4Addr() == *a->ipv4Addr());
   EXPECT_EQ(copy.ipv6Groups().size(), a->ipv6Groups().size());
   EXPECT_TRUE(copy == *a);

   DtInetDevice other("oltb0");
   EXPECT_TRUE(other != *a);
   other = *a;
   EXPECT_TRUE(other == *a);
   EXPECT_NE(other.ipv6Addr(), a->ipv6Addr());
   EXPECT_EQ(text(other.ipv6Addr()), "2001:db8::1");
}

TEST_F(InetDeviceNetnsTest, CapabilityFiltersAndDefaults)
{
   EXPECT_EQ(names(DtInetUtils::scanBroadcastDevices(true, false)),
             (std::vector<std::string>{"olta0", "oltb0", "oltc0", "oltd0"}));
   EXPECT_EQ(names(DtInetUtils::scanMulticastDevices(false, false)),
             (std::vector<std::string>{"olta0", "oltb0", "oltc0", "oltdn0", "oltd0"}));
   EXPECT_EQ(names(DtInetUtils::scanIpv6Devices(false)),
             (std::vector<std::string>{"lo", "olta0", "oltd0"}));

   std::shared_ptr<DtInetDevice> multicast = DtInetUtils::defaultMulticastDevice();
   ASSERT_TRUE(multicast);
   EXPECT_STREQ(multicast->deviceName().c_str(), "olta0");
   std::shared_ptr<DtInetDevice> broadcast = DtInetUtils::defaultBroadcastDevice(false);
   ASSERT_TRUE(broadcast);
   EXPECT_STREQ(broadcast->deviceName().c_str(), "olta0");

   std::unique_ptr<DtInetAddr> primary(DtInetUtils::getPrimaryBroadcastAddress(false));
   ASSERT_TRUE(primary);
   EXPECT_EQ(text(primary.get()), "192.0.2.127");
   std::unique_ptr<DtInetAddr> primary6(DtInetUtils::getPrimaryBroadcastAddress(true));
   ASSERT_TRUE(primary6);
   EXPECT_EQ(text(primary6.get()), "ff02::1");
}

TEST_F(InetDeviceNetnsTest, FindInterfaceForDestinations)
{
   struct
   {
      char const* destination;
      char const* device;  // null: no device
   } const cases[] = {
       {"192.0.2.1", nullptr},       // neither broadcast nor multicast
       {"224.0.0.5", "olta0"},       // first multicast interface with IPv4
       {"198.51.100.255", "oltb0"},  // an interface's broadcast address
       {"192.0.2.127", nullptr},     // a /25 broadcast that the class mask does not flag
       {"203.0.113.255", "oltdn0"},  // down, but its address's own broadcast matches
       {"ff02::1", "lo"},            // lo is first and lists the all-nodes group
       {"ff15::1234", "lo"},         // lo's ::1 has the destination's scope 0
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.destination);
      std::unique_ptr<DtInetDevice> found(DtInetDevice::findInterface(DtInetAddr(c.destination)));
      if (!c.device)
      {
         EXPECT_EQ(found, nullptr);
         continue;
      }
      ASSERT_TRUE(found);
      EXPECT_STREQ(found->deviceName().c_str(), c.device);
   }
   // A broadcast address made with the right mask finds its interface.
   std::unique_ptr<DtInetDevice> found(
       DtInetDevice::findInterface(DtInetAddr("192.0.2.127", "255.255.255.128")));
   ASSERT_TRUE(found);
   EXPECT_STREQ(found->deviceName().c_str(), "olta0");
}

TEST_F(InetDeviceNetnsTest, BroadcastAddrStringUsesInterfacesAndText)
{
   struct
   {
      char const* addr;
      bool broadcast;
   } const cases[] = {
       {"192.0.2.127", true},  // olta0's broadcast address
       {"192.0.2.1", false},
       {"198.51.100.255", true},  // an interface's, and all-ones in its class
       {"203.0.113.255", true},   // all-ones host of a class C network
       {"ff02::1", true},
       {"ff01::1", true},
       {"[ff02::1%olta0]:3000", true},
       {"ff02::2", false},
       // "/P" clears the low P bits: "/24" reads as 255.0.0.0, "/7" as /25.
       {"192.0.2.255/24", false},
       {"192.0.2.127/7", true},
       {"192.0.2.127/30", false},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.addr);
      EXPECT_EQ(DtInetUtils::isBroadcastAddrString(c.addr, ""), c.broadcast);
   }
}

TEST_F(InetDeviceNetnsTest, LookupByNameAndAddress)
{
   DtInetDevice byInterface("olta0");
   ASSERT_TRUE(byInterface.isOk()) << byInterface.getLastErrorString().c_str();
   EXPECT_EQ(text(byInterface.ipv4Addr()), "192.0.2.1");
   EXPECT_EQ(text(byInterface.ipv6Addr()), "2001:db8::1");

   DtInetDevice byIpv4(DtInetAddr("198.51.100.1"));
   ASSERT_TRUE(byIpv4.isOk()) << byIpv4.getLastErrorString().c_str();
   EXPECT_STREQ(byIpv4.deviceName().c_str(), "oltb0");
   EXPECT_EQ(byIpv4.family(), DtInetUtils::DtInetFamilyIPv4);

   DtInetDevice byIpv6(DtString("[2001:db8::1]:3000"));
   ASSERT_TRUE(byIpv6.isOk()) << byIpv6.getLastErrorString().c_str();
   EXPECT_STREQ(byIpv6.deviceName().c_str(), "olta0");
   EXPECT_EQ(byIpv6.family(), DtInetUtils::DtInetFamilyIPv6);
   EXPECT_TRUE(byIpv6.hasIpv4Addr());

   DtInetDevice ipv6Only(DtInetAddr("2001:db8:1::1"));
   ASSERT_TRUE(ipv6Only.isOk()) << ipv6Only.getLastErrorString().c_str();
   EXPECT_STREQ(ipv6Only.deviceName().c_str(), "oltd0");
   EXPECT_FALSE(ipv6Only.hasIpv4Addr());

   struct
   {
      char const* text;
      char const* error;
   } const failures[] = {
       {"nosuch0", "Could not locate interface nosuch0"},
       {"192.0.2.99:80",
        "Could not locate interface device with IPv4 address 192.0.2.99 (original: 192.0.2.99:80"},
       {"2001:db8::99",
        "Could not locate interface device with IPv6 address 2001:db8::99 (original: "
        "2001:db8::99"},
       {"", "Could not locate interface "},
   };
   for (auto const& f : failures)
   {
      SCOPED_TRACE(f.text);
      DtInetDevice device{DtString(f.text)};
      EXPECT_FALSE(device.isOk());
      EXPECT_STREQ(device.getLastErrorString().c_str(), f.error);
   }
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
   memset(&table, 0, sizeof table);
   unsigned int size = 40, multiplier = 3;
   DtString error;
   ASSERT_EQ(DtInetUtils::fetchDeviceInfo(DtInetUtils::DtInetFamilyIPv4, query, &table, size,
                                          multiplier, error),
             0);
   ifreq* record = DtInetUtils::findInterfaceByName("oltv0", query, &table);
   ASSERT_NE(record, nullptr);
   ASSERT_TRUE(myNs->ip({"link", "delete", "oltv0"}));

   DtInetDevice gone(query, record, nullptr, DtInetUtils::DtInetFamilyIPv4);
   EXPECT_FALSE(gone.isOk());
   EXPECT_STREQ(gone.getLastErrorString().c_str(), "Could not query IPv4 flags on interface oltv0");
   EXPECT_EQ(gone.ipv4Addr(), nullptr);
   // The stale record no longer answers an address query either.
   in_addr address;
   inet_pton(AF_INET, "192.0.2.200", &address);
   EXPECT_EQ(DtInetUtils::findInterfaceByAddress(&address, query, &table), nullptr);
   DtInetUtils::freeDeviceInfo(&table);
   close(query);
}

// Runs in a death-test child: exits 0 when the table comes back with `records`
// records, 1 otherwise; the alarm ends a child whose table never grows.
void fetchInChild(int query, unsigned int size, unsigned int multiplier, int records)
{
   alarm(10);
   ifconf table;
   memset(&table, 0, sizeof table);
   DtString error;
   int result = DtInetUtils::fetchDeviceInfo(DtInetUtils::DtInetFamilyIPv4, query, &table, size,
                                             multiplier, error);
   _exit(result == 0 && table.ifc_len == records * 40 ? 0 : 1);
}

// Plain namespaces for the table growth: lo plus one or two IPv4 interfaces.
TEST(InetDeviceTableTest, IfconfTableGrowsByTrial)
{
   std::string why;
   if (!olt::TestNetns::isAvailable(&why))
      GTEST_SKIP() << "interface tests run in a private network namespace: " << why;
   olt::TestNetns ns;
   ASSERT_TRUE(ns.ok()) << ns.error();
   ASSERT_TRUE(
       ns.sh("ip link add olta0 type veth peer name oltb0 && "
             "ip addr add 192.0.2.1/24 dev olta0"))
       << ns.error();
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();
   int query = socket(AF_INET, SOCK_DGRAM, 0);
   ASSERT_GE(query, 0);

   struct
   {
      char const* addWhat;  // interface to give an address before fetching
      unsigned int size;
      int records;
   } const steps[] = {
       {nullptr, 120, 2},  // 2 records fit into 3 at once
       {"oltb0", 360, 3},  // 3 records fill 120 bytes: a second try with 360
   };
   for (auto const& step : steps)
   {
      SCOPED_TRACE(step.size);
      if (step.addWhat)
      {
         ASSERT_TRUE(ns.addAddress(step.addWhat, "198.51.100.1/24")) << ns.error();
      }
      ifconf table;
      memset(&table, 0, sizeof table);
      unsigned int size = 40, multiplier = 3;
      DtString error;
      ASSERT_EQ(DtInetUtils::fetchDeviceInfo(DtInetUtils::DtInetFamilyIPv4, query, &table, size,
                                             multiplier, error),
                0);
      EXPECT_EQ(size, step.size);
      EXPECT_EQ(multiplier, 1u);
      EXPECT_EQ(table.ifc_len, step.records * 40);
      EXPECT_NE(DtInetUtils::findInterfaceByName("lo", query, &table), nullptr);
      DtInetUtils::freeDeviceInfo(&table);
   }

   // A starting size or multiplier of 0 still grows to the whole table (lo,
   // olta0, oltb0) instead of asking for nothing forever. Run in a child with
   // an alarm, so that a table that never grows ends the child, not the test.
   struct
   {
      unsigned int size, multiplier;
   } const degenerate[] = {{0, 3}, {40, 0}, {0, 0}};
   for (auto const& start : degenerate)
   {
      SCOPED_TRACE(start.size * 10 + start.multiplier);
      EXPECT_EXIT(fetchInChild(query, start.size, start.multiplier, 3),
                  ::testing::ExitedWithCode(0), "");
   }

   // A query on something that is not a socket fails with the documented reset.
   ifconf table;
   memset(&table, 0, sizeof table);
   unsigned int size = 120, multiplier = 1;
   DtString error;
   EXPECT_NE(DtInetUtils::fetchDeviceInfo(DtInetUtils::DtInetFamilyIPv4, -1, &table, size,
                                          multiplier, error),
             0);
   EXPECT_STREQ(error.c_str(), "Could not retrieve device configurations.");
   EXPECT_EQ(size, 40u);
   EXPECT_EQ(multiplier, 3u);
   EXPECT_EQ(table.ifc_buf, nullptr);

   // The IPv6 table has one 144-byte record per line of /proc/net/if_inet6.
   size = 144;
   multiplier = 3;
   ASSERT_EQ(DtInetUtils::fetchIpv6DeviceInfo(query, &table, size, multiplier, error), 0);
   int lines = DtInetPlatformUtils::countLines(DtInetPlatformUtils::theIfInet6Path);
   EXPECT_EQ(table.ifc_len, lines * 144);
   EXPECT_GE(size, static_cast<unsigned int>(lines) * 144u);
   in6_addr loopback = IN6ADDR_LOOPBACK_INIT;
   ifreq_in6* lo = DtInetUtils::findIpv6InterfaceByAddress(&loopback, query, &table);
   ASSERT_NE(lo, nullptr);
   EXPECT_STREQ(lo->ifr6_name, "lo");
   EXPECT_EQ(DtInetUtils::findIpv6InterfaceByName("lo", query, &table), lo);
   DtInetUtils::freeDeviceInfo(&table);
   close(query);
}

// ---------------------------------------------------------------- /proc readers

class ProcReaderTest : public ::testing::Test
{
protected:
   std::string write(std::string const& content)
   {
      char path[] = "/tmp/olt_procXXXXXX";
      int fd = mkstemp(path);
      EXPECT_GE(fd, 0);
      EXPECT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
      close(fd);
      myFiles.push_back(path);
      return path;
   }
   void TearDown() override
   {
      for (auto const& path : myFiles)
         unlink(path.c_str());
   }
   std::vector<std::string> myFiles;
};

TEST_F(ProcReaderTest, IfInet6Lines)
{
   std::string good = write(
       "20010db8000000000000000000000001 03 40 00 80    olta0\n"
       "fe800000000000000000000000000002 03 40 20 80    olta0\n");
   ifreq_in6 records[4];
   unsigned int count = 0;
   EXPECT_EQ(DtInetPlatformUtils::readIfInet6(good.c_str(), records, 4, count),
             DtInetPlatformUtils::DtProcReadOk);
   ASSERT_EQ(count, 2u);
   EXPECT_STREQ(records[0].ifr6_name, "olta0");
   EXPECT_EQ(records[0].ifr6_addr.s6_addr[0], 0x20);
   EXPECT_EQ(records[0].ifr6_addr.s6_addr[15], 0x01);
   EXPECT_EQ(records[0].ifr6_prefixlen, 64u);
   EXPECT_EQ(records[1].ifr6_scope, 0x20u);
   // The name field holds the name and zeros behind it, even after a longer
   // name on an earlier line.
   std::string shorter = write(
       "20010db8000000000000000000000001 03 40 00 80    averyverylongnam\n"
       "20010db8000000000000000000000002 04 40 00 80    ab\n");
   ASSERT_EQ(DtInetPlatformUtils::readIfInet6(shorter.c_str(), records, 4, count),
             DtInetPlatformUtils::DtProcReadOk);
   ASSERT_EQ(count, 2u);
   EXPECT_EQ(std::string(records[1].ifr6_name, IFNAMSIZ),
             std::string("ab") + std::string(IFNAMSIZ - 2, '\0'));

   // Capacity bounds the reading.
   EXPECT_EQ(DtInetPlatformUtils::readIfInet6(good.c_str(), records, 1, count),
             DtInetPlatformUtils::DtProcReadOk);
   EXPECT_EQ(count, 1u);

   struct
   {
      char const* content;
      DtInetPlatformUtils::DtProcReadStatus status;
   } const hostile[] = {
       {"", DtInetPlatformUtils::DtProcReadOk},
       {"zz\n", DtInetPlatformUtils::DtProcReadParseError},
       {"20010db8 03 40\n", DtInetPlatformUtils::DtProcReadParseError},
       // An overlong name is cut to the 15 characters the record holds.
       {"20010db8000000000000000000000001 03 40 00 80    averyveryverylongname_beyond16\n",
        DtInetPlatformUtils::DtProcReadOk},
   };
   for (auto const& h : hostile)
   {
      SCOPED_TRACE(h.content);
      EXPECT_EQ(DtInetPlatformUtils::readIfInet6(write(h.content).c_str(), records, 4, count),
                h.status);
      EXPECT_EQ(records[0].ifr6_name[IFNAMSIZ - 1], '\0');
   }
   EXPECT_STREQ(records[0].ifr6_name, "averyveryverylo");
   EXPECT_EQ(DtInetPlatformUtils::readIfInet6("/nonexistent/if_inet6", records, 4, count),
             DtInetPlatformUtils::DtProcReadCannotOpen);
   EXPECT_EQ(DtInetPlatformUtils::countLines("/nonexistent/if_inet6"), -1);
}

TEST_F(ProcReaderTest, IgmpBlocksAndTheFourDigitQuirk)
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
   EXPECT_EQ(DtInetPlatformUtils::readIgmpGroups(igmp.c_str(), 3, groups),
             DtInetPlatformUtils::DtProcReadOk);
   ASSERT_EQ(groups.size(), 2u);
   EXPECT_EQ(groups[0], htonl(0x0302u));
   EXPECT_EQ(groups[1], htonl(0x0100u));

   groups.clear();
   std::string broken = write("3\tolta0 : 1\n\t\t\tzz\n\t\t\t030201EF\n");
   EXPECT_EQ(DtInetPlatformUtils::readIgmpGroups(broken.c_str(), 3, groups),
             DtInetPlatformUtils::DtProcReadOk);
   EXPECT_TRUE(groups.empty());  // a bad group line ends the reading
   std::string garbage = write(std::string(3000, 'x') + "\n\t\t\t\t0\n");
   EXPECT_EQ(DtInetPlatformUtils::readIgmpGroups(garbage.c_str(), 3, groups),
             DtInetPlatformUtils::DtProcReadOk);
   EXPECT_TRUE(groups.empty());
}

TEST_F(ProcReaderTest, Igmp6Lines)
{
   std::string igmp6 = write(
       "1    lo              ff020000000000000000000000000001     1 0000000C 0\n"
       "3    olta0           ff150000000000000000000000001234     1 00000004 0\n"
       "3    olta0           ff020000000000000000000000000001     1 0000000C 0\n");
   std::vector<in6_addr> groups;
   EXPECT_EQ(DtInetPlatformUtils::readIgmp6Groups(igmp6.c_str(), 3, groups),
             DtInetPlatformUtils::DtProcReadOk);
   ASSERT_EQ(groups.size(), 2u);
   EXPECT_EQ(groups[0].s6_addr[0], 0xff);
   EXPECT_EQ(groups[0].s6_addr[1], 0x15);
   EXPECT_EQ(groups[0].s6_addr[14], 0x12);

   groups.clear();
   std::string truncated = write("3    olta0           ff15\n");
   EXPECT_EQ(DtInetPlatformUtils::readIgmp6Groups(truncated.c_str(), 3, groups),
             DtInetPlatformUtils::DtProcReadParseError);
   EXPECT_EQ(DtInetPlatformUtils::readIgmp6Groups("/nonexistent/igmp6", 3, groups),
             DtInetPlatformUtils::DtProcReadCannotOpen);
}

}  // namespace
