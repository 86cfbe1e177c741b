//===-- olutil/olInetAddrUtils.h - Address and interface utilities -*- C++ -*-===//
//
// Family: Addressing.
//
// DtInetUtils gathers the static helpers of the addressing layer: recognising
// address text (family, host/port/mask splitting, predicates), netmask and
// prefix arithmetic, turning text into a Boost address, and listing the local
// network interfaces as DtInetDevice objects. It also owns the process-wide
// largest packet size that sockets size their receive buffers by.
//
// Threads: every function works on locals and may run on any thread, except
// setMaxPacketBufferSize, a plain write meant for start-up before sockets open.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETADDRUTILS_H
#define OLUTIL_OLINETADDRUTILS_H

#include <memory>
#include <vector>

#include <net/if.h>
#include <netinet/in.h>

#include <olutil/olString.h>

class DtInetAddr;
class DtInetDevice;

namespace boost
{
namespace asio
{
namespace ip
{
class address;
}  // namespace ip
}  // namespace asio
}  // namespace boost

/// One IPv6 interface record, filled from one line of /proc/net/if_inet6. It
/// begins, like the kernel's ifreq, with the interface name in a 16-byte field;
/// a record whose first byte is NUL counts as taken or empty.
struct ifreq_in6
{
   char ifr6_name[IFNAMSIZ];
   struct in6_addr ifr6_addr;
   int ifr6_ifindex;
   unsigned int ifr6_prefixlen;
   unsigned int ifr6_scope;  ///< the kernel's scope bits (0x00 global, 0x10 host, 0x20 link...)
   unsigned int ifr6_flags;
   char ifr6_reserved[96];
};
static_assert(sizeof(ifreq_in6) == 144, "an IPv6 interface record is 144 bytes");

/// A list of local interfaces as the scans return it.
typedef std::vector<std::shared_ptr<DtInetDevice>> DtInetDeviceList;

class DtInetUtils
{
public:
   /// The IP version of an address; 0 where no family was recognised.
   enum DtInetAddrFamily
   {
      DtInetFamilyNone = 0,
      DtInetFamilyIPv4 = 4,
      DtInetFamilyIPv6 = 6
   };

   /// What the second output string of the network resource locator parsers
   /// holds (their last, integer argument).
   enum DtNetResLocKind
   {
      DtNetResLocNone = 0,     ///< nothing usable
      DtNetResLocPort = 1,     ///< a port
      DtNetResLocNetmask = 2,  ///< a dotted IPv4 netmask that inet_pton accepted
      DtNetResLocPrefix = 3    ///< a prefix length
   };

   // ------------------------------------------------------------ address text

   /// 4 or 6 for a bare address or one with a dotted netmask, 0 otherwise. An
   /// address with a well-formed port or numeric prefix gives 0 on purpose.
   static DtInetAddrFamily addrStringFamily(DtString const& text);
   static bool isIpv4AddrString(DtString const& text);
   static bool isIpv6AddrString(DtString const& text);
   /// True for exactly 127.0.0.1 or the IPv6 loopback (with port or mask allowed).
   static bool isLoopbackAddrString(DtString const& text);
   /// Always false: a fixed stub kept for callers.
   static bool isLocalhostAddrString(DtString const& text);
   /// 169.254.0.0/16 (after getaddrinfo) or fe80::/10.
   static bool isLinkLocalAddrString(DtString const& text);
   static bool isMulticastAddrString(DtString const& text);
   /// True when `addr` is the broadcast address of a local interface, FF02::1 or
   /// FF01::1, or the all-ones host of its network (see docs/addressing.md for
   /// the reversed reading of a "/P" prefix here).
   static bool isBroadcastAddrString(DtString const& addr, DtString const& mask);

   /// Splits text into host and port-or-mask. Returns 4 or 6 when the IPv4 or
   /// IPv6 parser accepts it, otherwise 0 with a best-effort "host:port" split.
   /// `kind` receives a DtNetResLocKind; portOrMask is meaningful only when it is
   /// not 0. Never throws.
   static DtInetAddrFamily parseNetResLoc(DtString const& text, DtString& host,
                                          DtString& portOrMask, int& kind);
   static bool parseIpv4NetResLoc(DtString const& text, DtString& host, DtString& portOrMask,
                                  int& kind);
   static bool parseIpv6NetResLoc(DtString const& text, DtString& host, DtString& portOrMask,
                                  int& kind);

   /// 0 above 32, otherwise a mask with that many high bits set (host order).
   static unsigned int prefixLenToIpv4Netmask(unsigned int prefixLen);
   /// Number of leading one bits (host order); lower bits are not looked at.
   static unsigned int netmaskToPrefixLen(unsigned int netmask);
   /// "/24", "24" or "/255.255.255.0" to a host-order netmask; 0 when unusable.
   static unsigned int convertStringToNetmask(DtString const& text);
   /// Only the dotted form gives a length; a plain number gives 0 (kept so:
   /// addresses built with a numeric mask fall back to the class-based mask).
   static unsigned int convertStringToPrefixLen(DtString const& text);

   /// A new address, owned by the caller, copied from the broadcast address of
   /// the first usable broadcast-capable interface; null if there is none.
   static DtInetAddr* getPrimaryBroadcastAddress(bool ipv6);

   /// Edits `text` in place: cuts at the first '%', then at the first ']', and
   /// returns the position after a '[' if there is one. "[fe80::1%eth0]:3000"
   /// yields "fe80::1".
   static char* removeZoneIndex(char* text);

   /// Text to a new Boost address owned by the caller. Accepts numeric text with
   /// an optional "%zone", "localhost", "loopback", "inaddr_any", "in6addr_any"
   /// (any case), the empty text (IPv4 any), and host names. Throws
   /// DtException("Invalid string format for IP address - " + text) when a name
   /// resolves to no entry; a resolver failure gives the IPv4 any address.
   static boost::asio::ip::address* newBoostAddrFromString(char const* text);

   // -------------------------------------------------------------- interfaces

   /// Every local interface: those with IPv4 first in kernel order, then
   /// IPv6-only ones. `ipv6` chooses the family (6 or 4) given to each device.
   /// `activeOnly` drops devices that are not up (up but not running is kept).
   static DtInetDeviceList scanInetDevices(bool activeOnly, bool ipv6);
   static DtInetDeviceList scanBroadcastDevices(bool activeOnly, bool ipv6);
   static DtInetDeviceList scanMulticastDevices(bool activeOnly, bool ipv6);
   /// Family 4 devices that have an IPv6 address.
   static DtInetDeviceList scanIpv6Devices(bool activeOnly);
   /// A copy of the first of scanMulticastDevices(false, false), or empty.
   static std::shared_ptr<DtInetDevice> defaultMulticastDevice();
   /// A copy of the first active broadcast device, else of the first one, or empty.
   static std::shared_ptr<DtInetDevice> defaultBroadcastDevice(bool ipv6);

   /// Fills `table` with the kernel's 40-byte interface records (SIOCGIFCONF),
   /// growing the buffer by trial: size *= multiplier until the answer is
   /// shorter than the buffer, each size rounded up to whole records (at least
   /// one). Returns 0 on success; otherwise the table is
   /// empty, `error` holds the text, size is 40 and multiplier 3 again. Release
   /// the table with freeDeviceInfo.
   static int fetchDeviceInfo(DtInetAddrFamily family, int socket, ifconf* table,
                              unsigned int& size, unsigned int& multiplier, DtString& error);
   /// Fills `table` with 144-byte ifreq_in6 records from /proc/net/if_inet6.
   /// Returns 0 on success. Release the table with freeDeviceInfo.
   static int fetchIpv6DeviceInfo(int socket, ifconf* table, unsigned int& size,
                                  unsigned int& multiplier, DtString& error);
   /// Releases the buffer of a table filled by either fetch function.
   static void freeDeviceInfo(ifconf* table);

   static ifreq* findInterfaceByName(char const* name, int socket, ifconf* table);
   /// Asks the kernel (SIOCGIFADDR) for each record's address; null if none
   /// matches or a query fails.
   static ifreq* findInterfaceByAddress(in_addr* address, int socket, ifconf* table);
   static ifreq_in6* findIpv6InterfaceByName(char const* name, int socket, ifconf* table);
   static ifreq_in6* findIpv6InterfaceByAddress(in6_addr* address, int socket, ifconf* table);

   static DtString getLocalHostname();

   /// The process-wide largest packet size, initially 65504. Set it before
   /// opening sockets: each reads it when it makes a receive buffer. A size
   /// below 1 is refused and leaves the value as it was.
   static void setMaxPacketBufferSize(int size);
   static int getMaxPacketBufferSize();

   /// Nothing to do on this platform; kept for callers that call it at start-up.
   static void initHostNetworkLayer();

   static int theMaxPacketBufferSize;

private:
   DtInetUtils() = delete;
};

#endif  // OLUTIL_OLINETADDRUTILS_H
