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

int fetch(int query, ifconf* table, unsigned int& size, unsigned int& multiplier, DtString& error)
{
   memset(table, 0, sizeof *table);
   return U::fetchDeviceInfo(U::DtInetFamilyIPv4, query, table, size, multiplier, error);
}

// lo; olta0 (IPv4 + IPv6, in 239.1.2.3 and ff15::1234), peer oltb0; oltc0 (no carrier);
// oltdn0 (down, no broadcast address); oltd0 (IPv6 only, in ff15::300); no link-locals.
// Indexes up to four digits: /proc/net/igmp6 writes them in decimal, if_inet6 (where
// IPv6-only oltd0's comes from) in hexadecimal; the peers add more igmp6 lines.
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
          "set -e; for p in 'olta0 oltb0 10 16' 'oltc0 oltc1 100 4100' 'oltdn0 oltdn1 200 4200' "
          "'oltd0 oltd1 300 4300'; do set -- $p\n"
          "  ip link add $2 index $4 type veth peer name $1 index $3\n"
          "  ip link set $1 addrgenmode none; ip link set $2 addrgenmode none; done\n"
          "ip addr add 192.0.2.1/25 brd + dev olta0; ip addr add 2001:db8::1/64 dev olta0 nodad\n"
          "ip addr add 198.51.100.1/24 brd + dev oltb0; ip addr add 203.0.113.1/25 brd + dev "
          "oltc0\n"
          "ip addr add 203.0.113.129/25 dev oltdn0; ip addr add 2001:db8:1::1/64 dev oltd0 nodad\n"
          "for d in olta0 oltb0 oltc0 oltd0 oltd1; do ip link set $d up; done\n"
          // The kernel marks a link with carrier running a moment after it goes up.
          "for d in olta0 oltb0 oltd0 oltd1; do n=0\n"
          "  until ip -o link show dev $d | grep -q 'state UP'; do\n"
          "    n=$((n + 1)); [ $n -le 500 ] || exit 1; sleep 0.01; done\n"
          "done\n"))
          << myNs->error();
      myGuard.reset(new olt::NetnsGuard(*myNs));
      ASSERT_TRUE(myGuard->ok()) << myGuard->error();
      myGroups = {olt::joinGroupSocket("239.1.2.3", "olta0"),
                  olt::joinGroupSocket("ff15::1234", "olta0"),
                  olt::joinGroupSocket("ff15::300", "oltd0")};
      ASSERT_TRUE(std::all_of(myGroups.begin(), myGroups.end(), [](int g) { return g >= 0; }));
   }

   ~InetDeviceNetnsTest() override
   {
      for (int group : myGroups)
         close(group);
   }

   std::unique_ptr<olt::TestNetns> myNs;
   std::unique_ptr<olt::NetnsGuard> myGuard;
   std::vector<int> myGroups;
};

TEST_F(InetDeviceNetnsTest, ScansListsFactsCopiesAndLookups)
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
   EXPECT_EQ(names(U::scanBroadcastDevices(true, false)),
             (Names{"olta0", "oltb0", "oltc0", "oltd0"}));
   EXPECT_EQ(names(U::scanMulticastDevices(false, false)),
             (Names{"olta0", "oltb0", "oltc0", "oltdn0", "oltd0"}));
   EXPECT_EQ(names(U::scanIpv6Devices(false)), (Names{"lo", "olta0", "oltd0"}));
   EXPECT_EQ(names({U::defaultMulticastDevice(), U::defaultBroadcastDevice(false)}),
             (Names{"olta0", "olta0"}));

   // Indexes of every width, each device with its own IPv6 groups only.
   auto has = [](std::vector<DtInetAddr*> const& list, char const* wanted)
   { return std::any_of(list.begin(), list.end(), [&](auto x) { return text(x) == wanted; }); };
   std::string indexes;
   for (auto const& d : U::scanInetDevices(false, false))
      indexes += d->deviceName().stdString() + ":" + std::to_string(d->interfaceIndex()) +
                 (has(d->ipv6Groups(), "ff15::1234") ? "a" : "") +
                 (has(d->ipv6Groups(), "ff15::300") ? "d" : "") + " ";
   EXPECT_EQ(indexes, "lo:1 olta0:10a oltb0:16 oltc0:100 oltdn0:200 oltd0:300d ");

   auto a = U::scanInetDevices(false, false).at(1);
   // IPv4 groups keep 4 of 8 hex digits (239.1.2.3 -> 2.3.0.0); ff02::1 is no group.
   EXPECT_TRUE(has(a->ipv4Groups(), "2.3.0.0") && !has(a->ipv6Groups(), "ff02::1"));
   // The broadcast address carries the interface's mask, so it knows itself as one.
   EXPECT_TRUE(a->ipv4BroadcastAddr()->netmask() == 0xFFFFFF80u &&
               a->ipv4BroadcastAddr()->isBroadcast());

   // Copies own their addresses; equality is by name only.
   DtInetDevice copy(*a), other("oltb0");
   EXPECT_TRUE(other != *a && (other = *a) == *a && copy == *a &&
               copy.ipv4Addr() != a->ipv4Addr() && other.ipv6Addr() != a->ipv6Addr());
   EXPECT_EQ(summary(copy) + summary(other), summary(*a) + summary(*a));

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
   // Made from a name, an address or text: "name family [v4]", or the error.
   std::string got;
   for (DtInetDevice const& d :
        {DtInetDevice(DtString("[2001:db8::1]:3000")), DtInetDevice(DtInetAddr("2001:db8:1::1")),
         DtInetDevice(DtString("nosuch0")), DtInetDevice(DtString("192.0.2.99:80"))})
      got += (d.isOk() ? d.deviceName().stdString() + " " + std::to_string(d.family()) +
                             (d.hasIpv4Addr() ? " v4" : "")
                       : d.getLastErrorString().stdString()) +
             "|";
   EXPECT_EQ(got,
             "olta0 6 v4|oltd0 6|Could not locate interface nosuch0|Could not locate "
             "interface device with IPv4 address 192.0.2.99 (original: 192.0.2.99:80|");
}

// An interface's broadcast address, the all-nodes groups, or the all-ones host by the
// class mask or by a "/P" that clears the low P bits (the reversed reading is kept).
TEST_F(InetDeviceNetnsTest, BroadcastTextsByInterfaceAndByRule)
{
   std::string got;
   for (char const* address :
        {"192.0.2.127", "203.0.113.255", "10.255.255.255", "10.0.0.255/8", "ff02::1", "ff01::1",
         "10.0.0.255", "10.0.0.1/1", "10.0.255.255/24", "ff02::1:1", "ff05::1"})
      got += U::isBroadcastAddrString(address, "") ? "y" : "n";
   EXPECT_EQ(got, "yyyyyynnnnn");
   std::unique_ptr<DtInetAddr> const primary(U::getPrimaryBroadcastAddress(false));
   EXPECT_EQ(text(primary.get()), "192.0.2.127");  // of olta0, the first with one
}

TEST_F(InetDeviceNetnsTest, IfconfTableGrowsByTrialAndAVanishedInterfaceFails)
{
   ASSERT_TRUE(myNs->sh(
       "ip link add oltv0 type veth peer name oltv1 && ip addr add 192.0.2.200/30 dev oltv0"))
       << myNs->error();
   int query = socket(AF_INET, SOCK_DGRAM, 0);
   ASSERT_GE(query, 0);
   ifconf table;
   unsigned int size = 40, multiplier = 3;
   DtString error;
   // lo, olta0, oltb0, oltc0, oltdn0 and oltv0: six 40-byte records fill 120, then 360 do.
   ASSERT_EQ(fetch(query, &table, size, multiplier, error), 0);
   EXPECT_EQ(std::make_pair(size, multiplier), std::make_pair(360u, 1u));
   EXPECT_EQ(table.ifc_len, 6 * 40);

   ifreq* record = U::findInterfaceByName("oltv0", query, &table);
   ASSERT_NE(record, nullptr);
   ASSERT_TRUE(myNs->ip({"link", "delete", "oltv0"}));
   DtInetDevice gone(query, record, nullptr, U::DtInetFamilyIPv4);
   EXPECT_EQ(summary(gone), "Could not query IPv4 flags on interface oltv0");
   U::freeDeviceInfo(&table);

   // A start of size 0 or multiplier 0 still grows; in a child with an alarm, so
   // that a table that never grows ends only the child.
   for (auto start : {std::make_pair(0u, 3u), std::make_pair(40u, 0u)})
      EXPECT_EXIT(
          {
             alarm(10);
             int result = fetch(query, &table, start.first, start.second, error);
             _exit(result == 0 && table.ifc_len == 5 * 40 ? 0 : 1);
          },
          ::testing::ExitedWithCode(0), "")
          << start.first << " " << start.second;

   EXPECT_NE(fetch(-1, &table, size, multiplier, error), 0);
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

std::string ntop(in6_addr const& address)
{
   char buffer[INET6_ADDRSTRLEN];
   return inet_ntop(AF_INET6, &address, buffer, sizeof buffer) ? buffer : "?";
}

// Lines as the kernel writes them: the index is the only field whose width varies
// with the interface, hexadecimal in if_inet6 and decimal in igmp6.
TEST(ProcReaderTest, FilesGiveEveryFieldAndEachIndexItsOwnLines)
{
   ifreq_in6 r[8];
   memset(r, 'x', sizeof r);
   unsigned int count = 0;
   EXPECT_EQ(P::readIfInet6(
                 write("00000000000000000000000000000001 01 80 10 80       lo\n"
                       "fe800000000000000000000000000300 12c 40 20 82     averyveryverylongname\n"
                       "ff000000000000000000000000000000 1000 00 0e 00    ab\n"
                       "20010DB8000000000000000000000001\t7fffffff\t80\t00\t80\tveth.0\r\n")
                     .c_str(),
                 r, 8, count),
             P::DtProcReadOk);
   std::string got;
   for (unsigned int i = 0; i < count; ++i)
   {
      char line[128];
      snprintf(line, sizeof line, "%d %s %u %x %x %.16s|", r[i].ifr6_ifindex,
               ntop(r[i].ifr6_addr).c_str(), r[i].ifr6_prefixlen, r[i].ifr6_scope, r[i].ifr6_flags,
               r[i].ifr6_name);
      got += line;
      // Zero-filled behind the name, also after a longer one; nothing reserved left. The
      // long name is cut to the 15 characters a record holds.
      std::string const tail(r[i].ifr6_name + strlen(r[i].ifr6_name), r[i].ifr6_name + IFNAMSIZ);
      EXPECT_EQ(tail + std::string(r[i].ifr6_reserved, sizeof r[i].ifr6_reserved),
                std::string(tail.size() + sizeof r[i].ifr6_reserved, '\0'))
          << i;
   }
   EXPECT_EQ(got,
             "1 ::1 128 10 80 lo|300 fe80::300 64 20 82 "
             "averyveryverylo|4096 ff00:: 0 e 0 ab|2147483647 2001:db8::1 128 0 80 veth.0|");
   EXPECT_EQ(P::readIfInet6(write("20010db8 03 40\n").c_str(), r, 4, count),
             P::DtProcReadParseError);

   // Group files: each index gets its own lines only, read whole (4300 is not 430),
   // and the extremes of every igmp6 field are taken.
   std::string igmp6 = write(
       "10   d10             ff150000000000000000000000000010     1 00000004 0\n"
       "10   d10             ff020000000000000000000000000001     1 0000000C 0\n"
       "16   d16             ff150000000000000000000000000016     1 00000004 -3\n"
       "4096 d4096           ff15000000000000000000000000abcd 123456 FFFFFFFF "
       "-9223372036854775808\n"
       "4300 p300            ff020000000000000000000000000001     1 0000000C 0\n"
       "2147483647\tveth.0123456789a\tff020000000000000000000000000002\t1\t0000000c\t"
       "9223372036854775807\r\n");
   std::string igmp = write(
       "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
       "3\tolta0     :     2      V3\n"
       "\t\t\t\t030201EF     1 0:00000000\t\t0\n"
       "\t\t\t\t0100E0E0     1 0:00000000\t\t0\n"
       "430\tp430      :     1      V3\n"
       "\t\t\t\t060201EF     1 0:00000000\t\t0\n"
       "4300\tp4300     :     1      V3\n"
       "\t\t\t\t070201EF     1 0:00000000\t\t0\n");
   // "index:IPv6 groups/IPv4 groups" for each index asked for
   got.clear();
   for (int index : {3, 10, 16, 430, 4096, 4300, INT_MAX, 43})
   {
      std::vector<in6_addr> groups6;
      std::vector<unsigned int> groups4;
      EXPECT_EQ(P::readIgmp6Groups(igmp6.c_str(), index, groups6), P::DtProcReadOk);
      EXPECT_EQ(P::readIgmpGroups(igmp.c_str(), index, groups4), P::DtProcReadOk);
      got += " " + std::to_string(index) + ":";
      for (in6_addr const& group : groups6)
         got += ntop(group) + ",";
      got += "/";
      for (unsigned int group : groups4)
         got += std::string(inet_ntoa(in_addr{group})) + ",";
   }
   EXPECT_EQ(got,
             " 3:/0.0.3.2,0.0.1.0, 10:ff15::10,ff02::1,/ 16:ff15::16,/"
             " 430:/0.0.6.2, 4096:ff15::abcd,/ 4300:ff02::1,/0.0.7.2, 2147483647:ff02::2,/ 43:/");
   std::vector<in6_addr> groups6;
   EXPECT_EQ(P::readIgmp6Groups(write("3    olta0           ff15\n").c_str(), 3, groups6),
             P::DtProcReadParseError);
   // A bad group line ends the reading; so does a line too long for the buffer.
   std::vector<unsigned int> groups;
   EXPECT_EQ(
       P::readIgmpGroups(write("3\tolta0 : 1\n\t\t\tzz\n\t\t\t030201EF\n").c_str(), 3, groups),
       P::DtProcReadOk);
   EXPECT_EQ(P::readIgmpGroups(write(std::string(3000, 'x') + "\n\t\t\t\t0\n").c_str(), 3, groups),
             P::DtProcReadOk);
   EXPECT_TRUE(groups.empty());
}

// A line of another layout is refused whole: nothing lands in the record, padding included.
template <class Record>
void expectRefused(bool (*parse)(char const*, Record&), std::vector<std::string> const& lines)
{
   for (std::string const& line : lines)
   {
      SCOPED_TRACE(line);
      Record record, before;
      memset(&record, 'x', sizeof record);
      memcpy(&before, &record, sizeof record);
      EXPECT_FALSE(parse(line.c_str(), record));
      EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
   }
}

TEST(ProcReaderTest, MalformedLinesAreRefusedAndLeaveTheRecordAlone)
{
   std::string const address = "20010db8000000000000000000000001";
   auto inet6 = [&](std::string const& index, std::string const& tail = " 40 00 80 eth0")
   { return address + " " + index + tail; };
   auto igmp6 = [&](std::string const& index, std::string const& tail = " 1 00000004 0")
   { return index + " eth0 " + address + tail; };
   expectRefused(P::parseIfInet6Line,
                 {inet6("01", " 40 00 80\n"), address.substr(1) + " 01 40 00 80 eth0", inet6("00"),
                  inet6("-1"), inet6("0x1f"), inet6("80000000"), inet6("01", " 81 00 80 eth0"),
                  inet6("01", " 4 0 00 80 eth0"), inet6("01", " 40 00 80 eth0 more"),
                  inet6("01", " 40 00 100000000 eth0")});
   expectRefused(
       P::parseIgmp6Line,
       {igmp6("1", " 1 00000004"), igmp6("0"), igmp6("1a"), igmp6("2147483648"),
        igmp6("1", " -1 00000004 0"), igmp6("1", " 1 0000000G 0"), igmp6("1", " 1 00000004 --1"),
        igmp6("1", " 1 00000004 9223372036854775808"),
        "1 eth0 " + address.substr(0, 30) + " 1 00000004 0", igmp6("1", " 1 00000004 0 0")});
}

}  // namespace
