// libFuzzer target: address, locator and endpoint text through DtInetUtils'
// parsers and predicates, DtInetAddr and DtInetEndpoint.
//
// Input layout: byte 0 chooses the endpoint's protocol and family, bytes 1 and 2
// its port, and the rest is text; a first newline in it splits an address text
// from a mask text.
//
// Name lookups are held off: this program's own getaddrinfo, which takes the
// place of the C library's for the library too, forbids every lookup of a name
// (AI_NUMERICHOST), so a host name fails as an unknown one does and nothing
// leaves this host. The program checks at start that the library's lookups
// really come through it, and stops otherwise.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <boost/asio/ip/address.hpp>

#include <olutil/olExceptions.h>
#include <olutil/olInetAddr.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetEndpoint.h>
#include <olutil/olPrint.h>

namespace
{
std::atomic<unsigned long> theLookups{0};
}  // namespace

extern "C" int getaddrinfo(char const* node, char const* service, addrinfo const* hints,
                           addrinfo** result)
{
   typedef int (*Resolver)(char const*, char const*, addrinfo const*, addrinfo**);
   static Resolver const next = reinterpret_cast<Resolver>(dlsym(RTLD_NEXT, "getaddrinfo"));
   if (!next)
      std::abort();
   addrinfo numeric{};
   if (hints)
      numeric = *hints;
   numeric.ai_flags |= AI_NUMERICHOST;
   ++theLookups;
   return next(node, service, &numeric, result);
}

namespace
{

// Host parts the parsers accept are numeric in their family.
void checkLocator(DtString const& text)
{
   DtString host, portOrMask;
   int kind = -1;
   int const family = DtInetUtils::parseNetResLoc(text, host, portOrMask, kind);
   if (kind < 0 || kind > 3)
      __builtin_trap();
   std::string bare = host.stdString();
   bare = bare.substr(0, bare.find('%'));
   unsigned char bytes[sizeof(in6_addr)];
   if (family == 4 && inet_pton(AF_INET, bare.c_str(), bytes) != 1)
      __builtin_trap();
   if (family == 6 && inet_pton(AF_INET6, bare.c_str(), bytes) != 1)
      __builtin_trap();
   if (family != 0 && family != 4 && family != 6)
      __builtin_trap();

   if (family != 0)
   {
      // A numeric address survives its own text.
      DtInetAddr const address(host, "");
      DtInetAddr const again(address.toDtString(false), "");
      if (address != again || address.family() != family)
         __builtin_trap();
   }
}

void checkPredicates(DtString const& text, DtString const& mask)
{
   (void)DtInetUtils::addrStringFamily(text);
   (void)DtInetUtils::isLoopbackAddrString(text);
   (void)DtInetUtils::isLinkLocalAddrString(text);
   (void)DtInetUtils::isMulticastAddrString(text);
   (void)DtInetUtils::isBroadcastAddrString(text, mask);
   (void)DtInetUtils::convertStringToNetmask(text);
   (void)DtInetUtils::convertStringToPrefixLen(text);
   std::string copy = text.stdString();
   char const* bare = DtInetUtils::removeZoneIndex(&copy[0]);
   if (bare < copy.c_str() || bare > copy.c_str() + copy.size())
      __builtin_trap();
}

void checkAddress(DtString const& text, DtString const& mask)
{
   try
   {
      std::unique_ptr<boost::asio::ip::address> boost(
          DtInetUtils::newBoostAddrFromString(text.c_str()));
      DtInetAddr address(text, mask);
      (void)address.toDtString(false);
      (void)address.getBroadcastAddr();
      DtInetAddr copy(address);
      if (copy != address || copy < address || copy > address)
         __builtin_trap();
   }
   catch (DtException const&)
   {
      // A name with no entries; the numeric-only lookup never gives one, but
      // it is the documented answer.
   }
}

void checkEndpoint(DtString const& text, unsigned short port, DtInetProtocol protocol,
                   DtInetUtils::DtInetAddrFamily family)
{
   try
   {
      DtInetEndpoint endpoint(text, port, protocol, family);
      DtString const shortText = endpoint.toDtString(false);
      DtString const longText = endpoint.toDtString(true);
      if (std::strncmp(longText.c_str(), shortText.c_str(), shortText.size()) != 0)
         __builtin_trap();
      DtInetEndpoint const copy(endpoint);
      if (protocol != DtInetProtocolUnspecified && !(copy == endpoint))
         __builtin_trap();
      (void)endpoint.getLastErrorString();
   }
   catch (DtException const&)
   {
   }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
   // Warnings from odd texts would drown the fuzzer's output.
   DtNotifyLevel = -1;
   unsigned long const before = theLookups;
   DtInetEndpoint endpoint(DtString("olutil-fuzz.invalid"), 3000, DtInetProtocolUdp,
                           DtInetUtils::DtInetFamilyNone);
   if (theLookups == before || endpoint.isOk())
   {
      std::fprintf(stderr,
                   "fuzz_inet_text: the library's name lookups do not come through "
                   "this program's getaddrinfo; stopping so that none leaves the host\n");
      std::abort();
   }
   return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 3)
      return 0;
   static DtInetProtocol const protocols[] = {DtInetProtocolUdp, DtInetProtocolTcp,
                                              DtInetProtocolUnspecified, DtInetProtocolUdp};
   static DtInetUtils::DtInetAddrFamily const families[] = {
       DtInetUtils::DtInetFamilyNone, DtInetUtils::DtInetFamilyIPv4, DtInetUtils::DtInetFamilyIPv6,
       DtInetUtils::DtInetFamilyNone};
   DtInetProtocol const protocol = protocols[data[0] & 3];
   DtInetUtils::DtInetAddrFamily const family = families[(data[0] >> 2) & 3];
   unsigned short const port = static_cast<unsigned short>(data[1] << 8 | data[2]);

   std::string const text(reinterpret_cast<char const*>(data + 3), size - 3);
   std::string::size_type const newline = text.find('\n');
   DtString const address(text.substr(0, newline).c_str());
   DtString const mask(newline == std::string::npos ? "" : text.substr(newline + 1).c_str());

   checkLocator(address);
   checkPredicates(address, mask);
   checkAddress(address, mask);
   checkEndpoint(address, port, protocol, family);
   (void)DtInetUtils::prefixLenToIpv4Netmask(data[1]);
   unsigned int value = 0;
   std::memcpy(&value, data, 3);
   (void)DtInetUtils::netmaskToPrefixLen(value);
   return 0;
}
