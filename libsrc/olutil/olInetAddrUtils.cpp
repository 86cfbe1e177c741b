// DtInetUtils, address text: family detection, locator parsing, mask arithmetic.
#include <olutil/olInetAddrUtils.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cstring>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <olutil/olExceptions.h>
#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>

namespace ip = boost::asio::ip;

namespace
{

bool hasChar(DtString const& text, char c)
{
   return strchr(text.c_str(), c) != nullptr;
}

bool isIpv4Text(char const* text, unsigned int* hostOrder = nullptr)
{
   in_addr value;
   if (inet_pton(AF_INET, text, &value) != 1)
      return false;
   if (hostOrder)
      *hostOrder = ntohl(value.s_addr);
   return true;
}

// The text of an IPv6 host part without its "%zone".
std::string withoutZone(DtString const& host)
{
   std::string text = host.stdString();
   std::string::size_type zone = text.find('%');
   if (zone != std::string::npos)
      text.erase(zone);
   return text;
}

bool parseV6(DtString const& host, ip::address_v6& out)
{
   boost::system::error_code error;
   out = ip::make_address_v6(withoutZone(host), error);
   return !error;
}

bool parseV4(DtString const& host, ip::address_v4& out)
{
   boost::system::error_code error;
   out = ip::make_address_v4(host.c_str(), error);
   return !error;
}

// True for FF0x::1 with x the link-local or node-local scope: the all-nodes
// groups, which stand in for broadcast on IPv6.
bool isAllNodesGroup(ip::address_v6 const& address)
{
   if (!address.is_multicast_link_local() && !address.is_multicast_node_local())
      return false;
   ip::address_v6::bytes_type bytes = address.to_bytes();
   for (int i = 2; i < 15; ++i)
      if (bytes[i] != 0)
         return false;
   return bytes[15] == 1;
}

// A port or prefix that addrStringFamily accepts. The success flag rejects on
// purpose: text with a well-formed port or numeric prefix has no family.
bool familyAcceptsSuffix(int kind, DtString const& portOrMask, int prefixBound)
{
   bool ok = false;
   switch (kind)
   {
      case DtInetUtils::DtNetResLocPort:
      {
         int port = portOrMask.toInt(&ok);
         return !(ok || port < 1 || port > 65535);
      }
      case DtInetUtils::DtNetResLocPrefix:
      {
         int prefix = portOrMask.toInt(&ok);
         return !(ok || prefix < 0 || prefix > prefixBound);
      }
      case DtInetUtils::DtNetResLocNetmask:
         return isIpv4Text(portOrMask.c_str());
      default:
         return true;
   }
}

}  // namespace

// ------------------------------------------------------------------ text to address

char* DtInetUtils::removeZoneIndex(char* text)
{
   if (char* zone = strchr(text, '%'))
      *zone = '\0';
   if (char* close = strchr(text, ']'))
      *close = '\0';
   if (char* open = strchr(text, '['))
      return open + 1;
   return text;
}

ip::address* DtInetUtils::newBoostAddrFromString(char const* text)
{
   if (!text)
      text = "";  // read as the empty text: the IPv4 any address
   unsigned int zoneIndex = 0;
   if (char const* zone = strchr(text, '%'))
      zoneIndex = if_nametoindex(zone + 1);

   ip::address result = ip::address_v4::any();
   boost::system::error_code error;
   if (*text)
   {
      std::string copy(text);
      result = ip::make_address(removeZoneIndex(&copy[0]), error);
   }
   if (!error && result.is_v6() && zoneIndex != 0)
   {
      ip::address_v6 scoped = result.to_v6();
      scoped.scope_id(zoneIndex);
      result = scoped;
   }
   if (!error)
      return new ip::address(result);

   DtString lower(text);
   lower.toLower();
   if (lower == "localhost" || lower == "loopback")
      return new ip::address(ip::address_v4::loopback());
   if (lower == "inaddr_any")
      return new ip::address(ip::address_v4::any());
   if (lower == "in6addr_any")
      return new ip::address(ip::address_v6::any());

   try
   {
      boost::asio::io_context context;
      ip::tcp::resolver resolver(context);
      ip::tcp::resolver::results_type entries =
          resolver.resolve(text, "", ip::tcp::resolver::address_configured);
      if (entries.empty())
      {
         DtString message("Invalid string format for IP address - ");
         message += text;
         throw DtException(message.c_str(), nullptr);
      }
      return new ip::address(entries.begin()->endpoint().address());
   }
   catch (boost::system::system_error const&)
   {
      // A name that does not resolve is not an error at this level.
      return new ip::address(ip::address_v4::any());
   }
}

// ------------------------------------------------------------------ locator parsers

bool DtInetUtils::parseIpv4NetResLoc(DtString const& text, DtString& host, DtString& portOrMask,
                                     int& kind)
{
   DtString work(text);
   kind = DtNetResLocNone;
   portOrMask = text;

   char const* dot = strchr(text.c_str(), '.');
   char const* colon = strchr(text.c_str(), ':');
   if (!dot || (colon && colon < dot))
      return false;

   bool hasSlash = hasChar(portOrMask, '/');
   bool hasColon = portOrMask.snipFront(':', false);
   if (hasColon && hasSlash)
      return false;

   if (hasColon)
   {
      portOrMask.chompBack();
      kind = DtNetResLocPort;
      work.snipBack(':', false);
   }
   else if (hasSlash)
   {
      portOrMask.chompBack();
      portOrMask.snipFront('/', false);
      if (hasChar(portOrMask, '.'))
      {
         if (isIpv4Text(portOrMask.c_str()))
            kind = DtNetResLocNetmask;
      }
      else
      {
         kind = DtNetResLocPrefix;
      }
      work.snipBack('/', false);
   }
   else
   {
      portOrMask = "";
   }
   work.snipFront(' ', true);
   work.snipBack(' ', true);

   if (!isIpv4Text(work.c_str()))
      return false;
   host = work;
   return true;
}

bool DtInetUtils::parseIpv6NetResLoc(DtString const& text, DtString& host, DtString& portOrMask,
                                     int& kind)
{
   DtString work(text);
   kind = DtNetResLocNone;
   portOrMask = text;

   if (!hasChar(text, ':'))
      return false;

   bool hasSlash = hasChar(portOrMask, '/');
   bool hasPort = portOrMask.snipFront(']', false) && hasChar(portOrMask, ':');
   if (hasPort && hasSlash)
      return false;

   if (hasPort)
   {
      portOrMask.snipFront(':', false);
      portOrMask.chompBack();
      if (portOrMask.length() > 0)
         kind = DtNetResLocPort;
   }
   else if (hasSlash)
   {
      portOrMask.snipFront('/', false);
      kind = DtNetResLocPrefix;
   }
   else
   {
      portOrMask = "";
   }

   work.snipBack('/', false);
   work.snipFront('[', false);
   work.snipBack(']', false);
   work.snipFront(' ', true);
   work.snipBack(' ', true);

   in6_addr value;
   if (inet_pton(AF_INET6, withoutZone(work).c_str(), &value) != 1)
      return false;
   host = work;
   return true;
}

DtInetUtils::DtInetAddrFamily DtInetUtils::parseNetResLoc(DtString const& text, DtString& host,
                                                          DtString& portOrMask, int& kind)
{
   if (parseIpv4NetResLoc(text, host, portOrMask, kind))
      return DtInetFamilyIPv4;
   if (parseIpv6NetResLoc(text, host, portOrMask, kind))
      return DtInetFamilyIPv6;

   kind = DtNetResLocNone;
   DtString rest(text);
   char const* colon = strchr(text.c_str(), ':');
   if (colon && colon > text.c_str())
   {
      portOrMask = text;
      portOrMask.snipFront(':', false);
      portOrMask.chompBack();
      kind = DtNetResLocPort;
      rest.snipBack(':', false);
   }
   host = rest;
   return DtInetFamilyNone;
}

// ------------------------------------------------------------------ predicates

DtInetUtils::DtInetAddrFamily DtInetUtils::addrStringFamily(DtString const& text)
{
   std::string copy = text.stdString();
   DtString stripped(removeZoneIndex(&copy[0]));
   DtString host, portOrMask;
   int kind = DtNetResLocNone;

   if (parseIpv4NetResLoc(stripped, host, portOrMask, kind))
   {
      ip::address_v4 v4;
      if (!familyAcceptsSuffix(kind, portOrMask, 32))
         return DtInetFamilyNone;
      return parseV4(host, v4) ? DtInetFamilyIPv4 : DtInetFamilyNone;
   }
   if (parseIpv6NetResLoc(stripped, host, portOrMask, kind))
   {
      ip::address_v6 v6;
      if (!familyAcceptsSuffix(kind, portOrMask, 128))
         return DtInetFamilyNone;
      return parseV6(host, v6) ? DtInetFamilyIPv6 : DtInetFamilyNone;
   }
   return DtInetFamilyNone;
}

bool DtInetUtils::isIpv4AddrString(DtString const& text)
{
   return addrStringFamily(text) == DtInetFamilyIPv4;
}

bool DtInetUtils::isIpv6AddrString(DtString const& text)
{
   return addrStringFamily(text) == DtInetFamilyIPv6;
}

bool DtInetUtils::isLoopbackAddrString(DtString const& text)
{
   DtString host, portOrMask;
   int kind = DtNetResLocNone;
   if (parseIpv4NetResLoc(text, host, portOrMask, kind))
      return host == "127.0.0.1";
   ip::address_v6 v6;
   return parseIpv6NetResLoc(text, host, portOrMask, kind) && parseV6(host, v6) && v6.is_loopback();
}

bool DtInetUtils::isLocalhostAddrString(DtString const&)
{
   return false;
}

bool DtInetUtils::isLinkLocalAddrString(DtString const& text)
{
   DtString host, portOrMask;
   int kind = DtNetResLocNone;
   if (parseIpv4NetResLoc(text, host, portOrMask, kind))
   {
      addrinfo hints;
      memset(&hints, 0, sizeof hints);
      hints.ai_family = AF_INET;
      addrinfo* found = nullptr;
      if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found)
         return false;
      unsigned int value =
          ntohl(reinterpret_cast<sockaddr_in const*>(found->ai_addr)->sin_addr.s_addr);
      freeaddrinfo(found);
      return (value & 0xFFFF0000u) == 0xA9FE0000u;
   }
   ip::address_v6 v6;
   return parseIpv6NetResLoc(text, host, portOrMask, kind) && parseV6(host, v6) &&
          v6.is_link_local();
}

bool DtInetUtils::isMulticastAddrString(DtString const& text)
{
   DtString host, portOrMask;
   int kind = DtNetResLocNone;
   ip::address_v4 v4;
   ip::address_v6 v6;
   if (parseIpv4NetResLoc(text, host, portOrMask, kind))
      return parseV4(host, v4) && v4.is_multicast();
   return parseIpv6NetResLoc(text, host, portOrMask, kind) && parseV6(host, v6) &&
          v6.is_multicast();
}

bool DtInetUtils::isBroadcastAddrString(DtString const& addr, DtString const& mask)
{
   std::string copy = addr.stdString();
   DtString stripped(removeZoneIndex(&copy[0]));

   try
   {
      DtInetAddr address(stripped, mask);
      for (auto const& device : scanBroadcastDevices(true, address.isIPv6()))
      {
         if (device->isOk() && device->addr() && !device->addr()->isLoopback() &&
             device->broadcastAddr() && *device->broadcastAddr() == address)
            return true;
      }
   }
   catch (DtException const&)
   {
      // A host name without entries: not a broadcast address of ours; the text
      // rules below still apply.
   }

   DtString host, portOrMask;
   int kind = DtNetResLocNone;
   if (!parseIpv4NetResLoc(stripped, host, portOrMask, kind))
   {
      ip::address_v6 v6;
      return parseIpv6NetResLoc(stripped, host, portOrMask, kind) && parseV6(host, v6) &&
             isAllNodesGroup(v6);
   }

   ip::address_v4 v4;
   if (!parseV4(host, v4))
      return false;
   unsigned int value = v4.to_uint();
   unsigned int netmask;
   if (kind == DtNetResLocPrefix)
   {
      // Reversed on purpose: "/P" clears the low P bits, so "/24" means 255.0.0.0.
      int prefix = portOrMask.toInt();
      unsigned int lowBits = prefix <= 0 ? 0u : prefix >= 32 ? 0xFFFFFFFFu : (1u << prefix) - 1u;
      netmask = ~lowBits;
   }
   else
   {
      DtInetAddr classful(value, 0u);
      netmask = classful.netmask();
   }
   if (netmaskToPrefixLen(netmask) >= 31)
      return false;
   return value == (value | ~netmask);
}

// ------------------------------------------------------------------ masks

unsigned int DtInetUtils::prefixLenToIpv4Netmask(unsigned int prefixLen)
{
   if (prefixLen > 32 || prefixLen == 0)
      return 0;
   return 0xFFFFFFFFu << (32 - prefixLen);
}

unsigned int DtInetUtils::netmaskToPrefixLen(unsigned int netmask)
{
   unsigned int length = 0;
   while (length < 32 && (netmask & (0x80000000u >> length)))
      ++length;
   return length;
}

unsigned int DtInetUtils::convertStringToNetmask(DtString const& text)
{
   DtString value(text);
   value.snipFront('/', false);
   unsigned int netmask = 0;
   if (hasChar(value, '.'))
      return isIpv4Text(value.c_str(), &netmask) ? netmask : 0;
   bool ok = false;
   int prefix = value.toInt(&ok);
   if (!ok || prefix > 32)
      return 0;
   return prefixLenToIpv4Netmask(static_cast<unsigned int>(prefix));
}

unsigned int DtInetUtils::convertStringToPrefixLen(DtString const& text)
{
   DtString value(text);
   value.snipFront('/', false);
   unsigned int netmask = 0;
   if (hasChar(value, '.'))
      return isIpv4Text(value.c_str(), &netmask) ? netmaskToPrefixLen(netmask) : 0;
   // A plain number is read as a mask, and a well-formed one is refused: only the
   // dotted form sets a mask through this path.
   bool ok = false;
   int number = value.toInt(&ok);
   if (ok || number > 128)
      return 0;
   return netmaskToPrefixLen(static_cast<unsigned int>(number));
}

DtInetAddr* DtInetUtils::getPrimaryBroadcastAddress(bool ipv6)
{
   for (auto const& device : scanBroadcastDevices(true, ipv6))
   {
      if (device->isOk() && device->addr() && !device->addr()->isLoopback() &&
          device->broadcastAddr())
         return new DtInetAddr(*device->broadcastAddr());
   }
   return nullptr;
}
