// SIOCGIF* queries and the /proc/net readers behind the interface scans.
#include <olutil/olInetPlatformUtils.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

DtInetInterfaceTables::DtInetInterfaceTables(unsigned int recordSize, unsigned int multiplier)
    : ipv4Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      ipv6Socket(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
   memset(&ipv4Table, 0, sizeof ipv4Table);
   memset(&ipv6Table, 0, sizeof ipv6Table);
   unsigned int size = recordSize, growth = multiplier;
   DtString error;
   hasIpv4 =
       ipv4Socket >= 0 && DtInetUtils::fetchDeviceInfo(DtInetUtils::DtInetFamilyIPv4, ipv4Socket,
                                                       &ipv4Table, size, growth, error) == 0;
   size = sizeof(ifreq_in6);
   growth = multiplier;
   hasIpv6 = DtInetUtils::fetchIpv6DeviceInfo(ipv6Socket, &ipv6Table, size, growth, error) == 0;
}

DtInetInterfaceTables::~DtInetInterfaceTables()
{
   DtInetUtils::freeDeviceInfo(&ipv4Table);
   DtInetUtils::freeDeviceInfo(&ipv6Table);
   if (ipv4Socket >= 0)
      close(ipv4Socket);
   if (ipv6Socket >= 0)
      close(ipv6Socket);
}

char const* const DtInetPlatformUtils::theIfInet6Path = "/proc/net/if_inet6";
char const* const DtInetPlatformUtils::theIgmpPath = "/proc/net/igmp";
char const* const DtInetPlatformUtils::theIgmp6Path = "/proc/net/igmp6";

namespace
{

// The kernel prints at most this much per line in these files.
int const theProcLineSize = 1024;

// The all-hosts group 224.0.0.1, which every multicast interface is in.
unsigned int const theAllHostsGroup = 0xe0000001u;

struct FileCloser
{
   void operator()(FILE* file) const { fclose(file); }
};

// One blank-separated field of a /proc/net line.
struct ProcField
{
   char const* text;
   size_t length;
};

bool isSeparator(char c)
{
   return isspace(static_cast<unsigned char>(c)) != 0;
}

// The `count` fields of a line, whose columns the kernel separates by blanks.
// False if the line has fewer or more: a line of another layout is not half-read.
template <size_t count>
bool splitFields(char const* line, ProcField (&fields)[count])
{
   for (ProcField& field : fields)
   {
      while (*line && isSeparator(*line))
         ++line;
      if (!*line)
         return false;
      field.text = line;
      while (*line && !isSeparator(*line))
         ++line;
      field.length = static_cast<size_t>(line - field.text);
   }
   while (*line && isSeparator(*line))
      ++line;
   return *line == '\0';
}

// A whole field of digits in `base` (10 or 16), at most `largest`. No sign, no
// "0x" and no width: a field is read to its end, however many digits it has.
bool fieldNumber(ProcField const& field, int base, unsigned long largest, unsigned long& value)
{
   char digits[24];
   if (field.length == 0 || field.length >= sizeof digits)
      return false;
   for (size_t i = 0; i < field.length; ++i)
   {
      unsigned char c = static_cast<unsigned char>(field.text[i]);
      if (base == 16 ? !isxdigit(c) : !isdigit(c))
         return false;
   }
   memcpy(digits, field.text, field.length);
   digits[field.length] = '\0';
   errno = 0;
   value = strtoul(digits, nullptr, base);
   return errno == 0 && value <= largest;
}

// An interface index: the kernel's are positive ints.
bool fieldIndex(ProcField const& field, int base, int& index)
{
   unsigned long value = 0;
   if (!fieldNumber(field, base, INT_MAX, value) || value == 0)
      return false;
   index = static_cast<int>(value);
   return true;
}

// A decimal field that may carry a minus sign, within a long.
bool fieldSigned(ProcField const& field, long& value)
{
   bool negative = field.length > 1 && field.text[0] == '-';
   ProcField digits = {field.text + negative, field.length - negative};
   unsigned long magnitude = 0;
   unsigned long largest = negative ? static_cast<unsigned long>(LONG_MAX) + 1 : LONG_MAX;
   if (!fieldNumber(digits, 10, largest, magnitude))
      return false;
   if (!negative || magnitude == 0)
      value = static_cast<long>(magnitude);
   else  // from one short of the magnitude, so that LONG_MIN does not overflow
      value = -static_cast<long>(magnitude - 1) - 1;
   return true;
}

// An IPv6 address as the kernel's %pi6 writes it: 32 hexadecimal digits, no colons.
bool fieldAddress(ProcField const& field, in6_addr& address)
{
   if (field.length != 2 * sizeof address.s6_addr)
      return false;
   for (size_t i = 0; i < sizeof address.s6_addr; ++i)
   {
      ProcField byte = {field.text + 2 * i, 2};
      unsigned long value = 0;
      if (!fieldNumber(byte, 16, 0xff, value))
         return false;
      address.s6_addr[i] = static_cast<uint8_t>(value);
   }
   return true;
}

// An interface name, cut to what a name field holds and NUL-filled behind.
void fieldName(ProcField const& field, char (&name)[IFNAMSIZ])
{
   memset(name, 0, sizeof name);
   memcpy(name, field.text, field.length < sizeof name - 1 ? field.length : sizeof name - 1);
}

// A line with nothing but white space, which only the end of a file may hold.
bool isBlank(char const* line)
{
   while (*line && isspace(static_cast<unsigned char>(*line)))
      ++line;
   return *line == '\0';
}

}  // namespace

bool DtInetPlatformUtils::parseIfInet6Line(char const* line, ifreq_in6& record)
{
   // "%pi6 %02x %02x %02x %02x %8s": the index has as many digits as it needs.
   ProcField fields[6];
   ifreq_in6 parsed;
   memset(&parsed, 0, sizeof parsed);
   unsigned long prefix = 0, scope = 0, flags = 0;
   if (!splitFields(line, fields) || !fieldAddress(fields[0], parsed.ifr6_addr) ||
       !fieldIndex(fields[1], 16, parsed.ifr6_ifindex) ||
       !fieldNumber(fields[2], 16, 128, prefix) || !fieldNumber(fields[3], 16, UINT_MAX, scope) ||
       !fieldNumber(fields[4], 16, UINT_MAX, flags))
      return false;
   parsed.ifr6_prefixlen = static_cast<unsigned int>(prefix);
   parsed.ifr6_scope = static_cast<unsigned int>(scope);
   parsed.ifr6_flags = static_cast<unsigned int>(flags);
   fieldName(fields[5], parsed.ifr6_name);
   record = parsed;
   return true;
}

bool DtInetPlatformUtils::parseIgmp6Line(char const* line, DtIgmp6Entry& entry)
{
   // "%-4d %-15s %pi6 %5d %08X %ld": the index is decimal here.
   ProcField fields[6];
   DtIgmp6Entry parsed;
   memset(&parsed, 0, sizeof parsed);
   unsigned long users = 0, flags = 0;
   if (!splitFields(line, fields) || !fieldIndex(fields[0], 10, parsed.ifIndex) ||
       !fieldAddress(fields[2], parsed.group) || !fieldNumber(fields[3], 10, UINT_MAX, users) ||
       !fieldNumber(fields[4], 16, UINT_MAX, flags) || !fieldSigned(fields[5], parsed.timer))
      return false;
   fieldName(fields[1], parsed.name);
   parsed.users = static_cast<unsigned int>(users);
   parsed.flags = static_cast<unsigned int>(flags);
   entry = parsed;
   return true;
}

bool DtInetPlatformUtils::queryInterface(int socket, unsigned long request, char const* name,
                                         ifreq& out)
{
   memset(&out, 0, sizeof out);
   strncpy(out.ifr_name, name, IFNAMSIZ - 1);
   return ioctl(socket, request, &out) >= 0;
}

int DtInetPlatformUtils::countLines(char const* path)
{
   int fd = open(path, O_RDONLY | O_CLOEXEC);
   if (fd < 0)
      return -1;
   int lines = 0;
   char buffer[theProcLineSize];
   for (;;)
   {
      ssize_t n = read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR)
         continue;
      if (n <= 0)
         break;
      for (ssize_t i = 0; i < n; ++i)
         lines += buffer[i] == '\n';
   }
   close(fd);
   return lines;
}

DtInetPlatformUtils::DtProcReadStatus DtInetPlatformUtils::readIfInet6(char const* path,
                                                                       ifreq_in6* records,
                                                                       unsigned int capacity,
                                                                       unsigned int& count)
{
   count = 0;
   FILE* raw = fopen(path, "re");
   if (!raw)
      return DtProcReadCannotOpen;
   std::unique_ptr<FILE, FileCloser> file(raw);

   char line[theProcLineSize];
   while (count < capacity && fgets(line, sizeof line, raw))
   {
      if (isBlank(line))
         break;
      if (!parseIfInet6Line(line, records[count]))
         return DtProcReadParseError;
      ++count;
   }
   // More lines than were counted a moment ago: the table is a snapshot, keep what fits.
   return DtProcReadOk;
}

DtInetPlatformUtils::DtProcReadStatus DtInetPlatformUtils::readIgmpGroups(
    char const* path, int ifIndex, std::vector<unsigned int>& groups)
{
   FILE* raw = fopen(path, "re");
   if (!raw)
      return DtProcReadCannotOpen;
   std::unique_ptr<FILE, FileCloser> file(raw);

   char line[theProcLineSize];
   bool inBlock = false;
   while (fgets(line, sizeof line, raw))
   {
      if (strstr(line, "Idx"))
         continue;
      if (line[0] != '\0' && line[0] != '\t')
      {
         // A device line: "<index>\t<name> : ...". The kernel prints the index in
         // decimal with as many digits as it needs: a three-digit field would read
         // index 4300 as 430 and hand one device another's groups.
         int index = 0;
         char name[9];
         if (sscanf(line, "%d\t%8s", &index, name) < 2)
            break;
         inBlock = index == ifIndex;
         continue;
      }
      if (line[0] != '\t' || !inBlock)
         continue;
      unsigned int value = 0;
      if (sscanf(line, "\t%04X", &value) != 1)
         break;
      value = htonl(value);
      if (value != theAllHostsGroup)
         groups.push_back(value);
   }
   return DtProcReadOk;
}

DtInetPlatformUtils::DtProcReadStatus DtInetPlatformUtils::readIgmp6Groups(
    char const* path, int ifIndex, std::vector<in6_addr>& groups)
{
   FILE* raw = fopen(path, "re");
   if (!raw)
      return DtProcReadCannotOpen;
   std::unique_ptr<FILE, FileCloser> file(raw);

   char line[theProcLineSize];
   DtIgmp6Entry entry;
   while (fgets(line, sizeof line, raw))
   {
      if (isBlank(line))
         break;
      if (!parseIgmp6Line(line, entry))
         return DtProcReadParseError;
      if (entry.ifIndex == ifIndex)
         groups.push_back(entry.group);
   }
   return DtProcReadOk;
}
