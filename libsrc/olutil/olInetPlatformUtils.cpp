// SIOCGIF* queries and the /proc/net readers behind the interface scans.
#include <olutil/olInetPlatformUtils.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
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

void wordsToAddress(unsigned int const (&words)[4], in6_addr& address)
{
   for (int i = 0; i < 4; ++i)
   {
      uint32_t word = htonl(words[i]);
      memcpy(address.s6_addr + 4 * i, &word, sizeof word);
   }
}

// A line with nothing but white space, which only the end of a file may hold.
bool isBlank(char const* line)
{
   while (*line && isspace(static_cast<unsigned char>(*line)))
      ++line;
   return *line == '\0';
}

}  // namespace

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

   // One line per address: words of the address, index, prefix, scope, flags, name.
   char line[theProcLineSize];
   unsigned int words[4];
   unsigned int index, scope, flags;
   char prefix[3];
   char name[16];
   while (count < capacity && fgets(line, sizeof line, raw))
   {
      if (isBlank(line))
         break;
      if (sscanf(line, "%8x%8x%8x%8x %2x %2s %2x %2x %15s", &words[0], &words[1], &words[2],
                 &words[3], &index, prefix, &scope, &flags, name) != 9)
         return DtProcReadParseError;
      ifreq_in6& record = records[count++];
      memset(&record, 0, sizeof record);
      wordsToAddress(words, record.ifr6_addr);
      record.ifr6_ifindex = static_cast<int>(index);
      record.ifr6_prefixlen = static_cast<unsigned int>(strtoul(prefix, nullptr, 16));
      record.ifr6_scope = scope;
      record.ifr6_flags = flags;
      // Only the name: the field is NUL-filled behind it, as a kernel record is.
      memcpy(record.ifr6_name, name, strnlen(name, sizeof record.ifr6_name - 1));
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
         // A device line: "<index>\t<name> : ...".
         int index = 0;
         char name[9];
         if (sscanf(line, "%03d\t%8s", &index, name) < 2)
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

   // index, name, four words of the group, users, flags, timer
   char line[theProcLineSize];
   unsigned int index;
   char name[16];
   unsigned int words[4];
   unsigned int users, timerRunning;
   char flags[9];
   while (fgets(line, sizeof line, raw))
   {
      if (isBlank(line))
         break;
      if (sscanf(line, "%2x %15s %8x%8x%8x%8x %2x %8s %2x", &index, name, &words[0], &words[1],
                 &words[2], &words[3], &users, flags, &timerRunning) != 9)
         return DtProcReadParseError;
      if (static_cast<int>(index) != ifIndex)
         continue;
      in6_addr group;
      wordsToAddress(words, group);
      groups.push_back(group);
   }
   return DtProcReadOk;
}
