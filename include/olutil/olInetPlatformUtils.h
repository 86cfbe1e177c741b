//===-- olutil/olInetPlatformUtils.h - Linux interface queries ----*- C++ -*-===//
//
// Family: Addressing.
//
// The Linux machinery behind DtInetDevice and the interface scans of
// DtInetUtils: SIOCGIF* queries of ioctl by interface name, and readers of
// /proc/net/if_inet6, /proc/net/igmp and /proc/net/igmp6. The readers take the
// path as an argument so that the parsing can be exercised on prepared text.
// Meant for the addressing layer itself; applications use DtInetDevice.
//
// Threads: no shared state; any thread. Note that /proc/net follows the
// network namespace of the process's main thread, ioctl that of the caller.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETPLATFORMUTILS_H
#define OLUTIL_OLINETPLATFORMUTILS_H

#include <vector>

#include <net/if.h>
#include <netinet/in.h>

#include <olutil/olInetAddrUtils.h>

class DtInetPlatformUtils
{
public:
   static char const* const theIfInet6Path;  ///< "/proc/net/if_inet6"
   static char const* const theIgmpPath;     ///< "/proc/net/igmp"
   static char const* const theIgmp6Path;    ///< "/proc/net/igmp6"

   /// Result of the /proc readers.
   enum DtProcReadStatus
   {
      DtProcReadOk = 0,
      DtProcReadCannotOpen = 1,
      DtProcReadParseError = 2  ///< a line did not give every field
   };

   /// One entry of /proc/net/igmp6: a group joined on an interface.
   struct DtIgmp6Entry
   {
      int ifIndex;
      char name[IFNAMSIZ];  ///< NUL-terminated
      in6_addr group;
      unsigned int users;
      unsigned int flags;
      long timer;
   };

   /// Reads one line of /proc/net/if_inet6 as the kernel writes it: the address
   /// in 32 hexadecimal digits, then the interface index (hexadecimal, two digits
   /// or more), the prefix length, the scope and the flags, all hexadecimal, then
   /// the name. The record is zeroed and filled; a name beyond the 15 characters
   /// a record holds is cut. False, with the record untouched, when a field is
   /// missing, not of its form (every digit of its kind, no sign), out of range
   /// (index 1 to INT_MAX, prefix at most 128), the address has not 32 digits,
   /// or more fields follow the name.
   static bool parseIfInet6Line(char const* line, ifreq_in6& record);

   /// Reads one line of /proc/net/igmp6 as the kernel writes it: the interface
   /// index in decimal, the name, the group in 32 hexadecimal digits, the users
   /// in decimal, the flags in hexadecimal and the timer in decimal (it may be
   /// negative). The same rules as parseIfInet6Line; `entry` untouched on false.
   static bool parseIgmp6Line(char const* line, DtIgmp6Entry& entry);

   /// Runs one SIOCGIF* request for interface `name` on `socket`, `out`
   /// receiving the answer. False when the request fails.
   static bool queryInterface(int socket, unsigned long request, char const* name, ifreq& out);

   /// Number of lines of a file, counted in reads of at most 1024 bytes; -1 if
   /// it cannot be opened.
   static int countLines(char const* path);

   /// Reads /proc/net/if_inet6-style lines (parseIfInet6Line) into at most
   /// `capacity` records. `count` receives the number filled. A blank line ends
   /// the reading; a line that does not parse ends it with DtProcReadParseError.
   static DtProcReadStatus readIfInet6(char const* path, ifreq_in6* records, unsigned int capacity,
                                       unsigned int& count);

   /// Group values (network order) listed under interface `ifIndex` in a
   /// /proc/net/igmp-style file, all-hosts left out. The group column is read
   /// with "\t%04X", so only its first four hex digits count.
   static DtProcReadStatus readIgmpGroups(char const* path, int ifIndex,
                                          std::vector<unsigned int>& groups);

   /// Groups listed for interface `ifIndex` in a /proc/net/igmp6-style file
   /// (parseIgmp6Line), in file order. A blank line ends the reading; a line
   /// that does not parse ends it with DtProcReadParseError.
   static DtProcReadStatus readIgmp6Groups(char const* path, int ifIndex,
                                           std::vector<in6_addr>& groups);

private:
   DtInetPlatformUtils() = delete;
};

/// The two query sockets (IPv4, IPv6) and both interface tables of one lookup or
/// scan, fetched on construction and released together. A socket that could not
/// be made is -1; hasIpv4/hasIpv6 say whether a table was fetched.
class DtInetInterfaceTables
{
public:
   /// `recordSize` and `multiplier` start the IPv4 table's trial growth; the IPv6
   /// table starts at one record with the same multiplier.
   explicit DtInetInterfaceTables(unsigned int recordSize = sizeof(ifreq),
                                  unsigned int multiplier = 3);
   ~DtInetInterfaceTables();
   DtInetInterfaceTables(DtInetInterfaceTables const&) = delete;
   DtInetInterfaceTables& operator=(DtInetInterfaceTables const&) = delete;

   int ipv4Socket;
   int ipv6Socket;
   ifconf ipv4Table;
   ifconf ipv6Table;
   bool hasIpv4;
   bool hasIpv6;
};

#endif  // OLUTIL_OLINETPLATFORMUTILS_H
