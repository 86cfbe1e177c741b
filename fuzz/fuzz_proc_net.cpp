// libFuzzer target: arbitrary text through the line parsers of /proc/net/if_inet6
// and /proc/net/igmp6, whole and line by line.
//
// A line that parses must give what the kernel could have written: a positive
// index, a NUL-terminated name of at most 15 characters, a prefix of at most 128;
// and written back in the kernel's own layout it must parse to the same values.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <olutil/olInetPlatformUtils.h>

namespace
{
typedef DtInetPlatformUtils P;

// The 32 hexadecimal digits the kernel writes for an address.
std::string hexOf(in6_addr const& address)
{
   char digits[33];
   for (std::size_t i = 0; i < sizeof address.s6_addr; ++i)
      snprintf(digits + 2 * i, 3, "%02x", address.s6_addr[i]);
   return digits;
}

void checkName(char const (&name)[IFNAMSIZ])
{
   std::size_t const length = strnlen(name, sizeof name);
   if (length == 0 || length >= sizeof name)
      __builtin_trap();
   for (std::size_t i = length; i < sizeof name; ++i)
      if (name[i] != '\0')
         __builtin_trap();  // the rest of a name field is NUL-filled
}

void checkIfInet6(char const* line)
{
   ifreq_in6 record;
   if (!P::parseIfInet6Line(line, record))
      return;
   if (record.ifr6_ifindex <= 0 || record.ifr6_prefixlen > 128)
      __builtin_trap();
   checkName(record.ifr6_name);
   char again[256];
   snprintf(again, sizeof again, "%s %02x %02x %02x %02x %8s\n", hexOf(record.ifr6_addr).c_str(),
            static_cast<unsigned int>(record.ifr6_ifindex), record.ifr6_prefixlen,
            record.ifr6_scope, record.ifr6_flags, record.ifr6_name);
   ifreq_in6 reread;
   if (!P::parseIfInet6Line(again, reread) || memcmp(&record, &reread, sizeof record) != 0)
      __builtin_trap();
}

void checkIgmp6(char const* line)
{
   P::DtIgmp6Entry entry;
   if (!P::parseIgmp6Line(line, entry))
      return;
   if (entry.ifIndex <= 0)
      __builtin_trap();
   checkName(entry.name);
   char again[256];
   snprintf(again, sizeof again, "%-4d %-15s %s %5u %08X %ld\n", entry.ifIndex, entry.name,
            hexOf(entry.group).c_str(), entry.users, entry.flags, entry.timer);
   P::DtIgmp6Entry reread;
   // Field by field: the entry has padding, which a copy need not carry.
   if (!P::parseIgmp6Line(again, reread) || reread.ifIndex != entry.ifIndex ||
       strcmp(reread.name, entry.name) != 0 ||
       memcmp(&reread.group, &entry.group, sizeof entry.group) != 0 ||
       reread.users != entry.users || reread.flags != entry.flags || reread.timer != entry.timer)
      __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   // The readers hand the parsers NUL-terminated lines; a NUL inside ends one early.
   std::string const text(reinterpret_cast<char const*>(data), size);
   checkIfInet6(text.c_str());
   checkIgmp6(text.c_str());
   for (std::size_t start = 0; start <= text.size();)
   {
      std::size_t end = text.find('\n', start);
      end = end == std::string::npos ? text.size() : end + 1;
      std::string const line = text.substr(start, end - start);
      checkIfInet6(line.c_str());
      checkIgmp6(line.c_str());
      if (end == text.size())
         break;
      start = end;
   }
   return 0;
}
