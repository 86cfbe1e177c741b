// DtInetDevice: one local interface, filled once from ioctl and /proc/net.
#include <olutil/olInetDevice.h>

#include <arpa/inet.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <boost/asio/ip/address.hpp>

#include <olutil/olInetPlatformUtils.h>

namespace
{

struct DtHardwareType
{
   int family;
   int type;
   unsigned int macLength;
};

// Hardware address family reported by SIOCGIFHWADDR -> type() and MAC length.
DtHardwareType const theHardwareTypes[] = {
    {ARPHRD_ETHER, DtInetDevice::DtInetDeviceEthernet, 6},
    {ARPHRD_FDDI, DtInetDevice::DtInetDeviceFddi, 6},
    {ARPHRD_IEEE1394, DtInetDevice::DtInetDeviceIeee1394, 8},
    {ARPHRD_IEEE80211, DtInetDevice::DtInetDeviceIeee80211, 6},
    {ARPHRD_LOOPBACK, DtInetDevice::DtInetDeviceLoopback, 0},
};

DtString recordName(char const* name)
{
   return DtString(name, static_cast<int>(strnlen(name, IFNAMSIZ)));
}

DtInetAddr* copyOf(DtInetAddr const* address)
{
   return address ? new DtInetAddr(*address) : nullptr;
}

sockaddr_in const& inetOf(sockaddr const& address)
{
   return reinterpret_cast<sockaddr_in const&>(address);
}

// The link state that an interface's flags give.
int linkStateOf(int flags)
{
   return (flags & IFF_RUNNING) ? DtInetDevice::DtInetLinkRunning
          : (flags & IFF_UP)    ? DtInetDevice::DtInetLinkUp
                                : DtInetDevice::DtInetLinkDown;
}

// The scope level of an interface address, for linkScope().
int scopeLevelOf(DtInetAddr const& address)
{
   boost::asio::ip::address_v6 v6 = address.boostAddress().to_v6();
   if (v6.is_loopback())
      return DtInetIpv6ScopeInterfaceLocal;
   if (v6.is_link_local())
      return DtInetIpv6ScopeLinkLocal;
   if (v6.is_site_local())
      return DtInetIpv6ScopeSiteLocal;
   return DtInetIpv6ScopeGlobal;
}

}  // namespace

// ------------------------------------------------------------------ construction

DtInetDevice::DtInetDevice(DtInetAddr const& address) : myFamily(address.family())
{
   scanDeviceByName(address.toDtString());
}

DtInetDevice::DtInetDevice(DtString const& text, DtInetUtils::DtInetAddrFamily family)
    : myFamily(family)
{
   scanDeviceByName(text);
}

DtInetDevice::DtInetDevice(int socket, ifreq* ipv4Record, ifreq_in6* ipv6Record,
                           DtInetUtils::DtInetAddrFamily family)
    : myFamily(family)
{
   init(socket, ipv4Record, ipv6Record);
}

DtInetDevice::DtInetDevice(DtInetDevice const& other) : myFamily(other.myFamily)
{
   copyFrom(other);
}

DtInetDevice& DtInetDevice::operator=(DtInetDevice const& other)
{
   if (this != &other)
   {
      release();
      copyFrom(other);
   }
   return *this;
}

DtInetDevice::~DtInetDevice()
{
   release();
}

void DtInetDevice::copyFrom(DtInetDevice const& other)
{
   myDeviceName = other.myDeviceName;
   memcpy(myMacAddr, other.myMacAddr, sizeof myMacAddr);
   myMacLength = other.myMacLength;
   myMacAddrString = other.myMacAddrString;
   myIpv4Addr = copyOf(other.myIpv4Addr);
   myIpv4Netmask = copyOf(other.myIpv4Netmask);
   myIpv4BroadcastAddr = copyOf(other.myIpv4BroadcastAddr);
   myLinkScope = other.myLinkScope;
   myBroadcastCapable = other.myBroadcastCapable;
   myIpv6Addr = copyOf(other.myIpv6Addr);
   myIpv6BroadcastAddr = copyOf(other.myIpv6BroadcastAddr);
   myFamily = other.myFamily;
   myMulticastCapable = other.myMulticastCapable;
   for (DtInetAddr const* group : other.myIpv4Groups)
      myIpv4Groups.push_back(copyOf(group));
   for (DtInetAddr const* group : other.myIpv6Groups)
      myIpv6Groups.push_back(copyOf(group));
   myMtu = other.myMtu;
   myLinkState = other.myLinkState;
   myType = other.myType;
   myInterfaceIndex = other.myInterfaceIndex;
   myError = other.myError;
   myLastError = other.myLastError;
   myRecordSize = other.myRecordSize;
   mySizeMultiplier = other.mySizeMultiplier;
}

void DtInetDevice::release()
{
   for (DtInetAddr** address :
        {&myIpv4Addr, &myIpv4Netmask, &myIpv4BroadcastAddr, &myIpv6Addr, &myIpv6BroadcastAddr})
   {
      delete *address;
      *address = nullptr;
   }
   for (DtInetAddr* group : myIpv4Groups)
      delete group;
   myIpv4Groups.clear();
   for (DtInetAddr* group : myIpv6Groups)
      delete group;
   myIpv6Groups.clear();
}

void DtInetDevice::setError(char const* text, DtString const& subject)
{
   myError = true;
   myLastError = DtString(text) + subject;
}

// ------------------------------------------------------------------ filling

void DtInetDevice::init(int socket, ifreq* ipv4Record, ifreq_in6* ipv6Record)
{
   if (ipv4Record)
      initIpv4(socket, ipv4Record);
   if (ipv6Record)
   {
      if (!ipv4Record)
      {
         // An interface known only from /proc/net/if_inet6: its link facts come
         // from the same queries, by name.
         myDeviceName = recordName(ipv6Record->ifr6_name);
         myInterfaceIndex = ipv6Record->ifr6_ifindex;
         initLink(socket);
      }
      initIpv6(ipv6Record);
   }
}

void DtInetDevice::initIpv4(int socket, ifreq* record)
{
   myDeviceName = recordName(record->ifr_name);
   char const* name = myDeviceName.c_str();
   ifreq answer;
   if (DtInetPlatformUtils::queryInterface(socket, SIOCGIFINDEX, name, answer))
      myInterfaceIndex = answer.ifr_ifindex;

   if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFFLAGS, name, answer))
      return setError("Could not query IPv4 flags on interface ", myDeviceName);
   int flags = answer.ifr_flags;
   myLinkState = linkStateOf(flags);
   if (DtInetPlatformUtils::queryInterface(socket, SIOCGIFMTU, name, answer))
      myMtu = answer.ifr_mtu;

   if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFHWADDR, name, answer))
      return setError("Could not initialize MAC address on interface ", myDeviceName);
   setHardware(answer.ifr_hwaddr.sa_family, answer.ifr_hwaddr.sa_data);

   if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFADDR, name, answer))
      return setError("Could not initialize IPv4 address on interface ", myDeviceName);
   sockaddr_in address = inetOf(answer.ifr_addr);

   if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFNETMASK, name, answer))
   {
      myIpv4Addr = new DtInetAddr(address, 0u);
      return setError("Could not initialize IPv4 netmask on interface ", myDeviceName);
   }
   unsigned int netmask = ntohl(inetOf(answer.ifr_netmask).sin_addr.s_addr);
   myIpv4Addr = new DtInetAddr(address, netmask);
   myIpv4Netmask = new DtInetAddr(inetOf(answer.ifr_netmask), 0u);

   // A loopback interface has no broadcast address, whatever its flags say.
   if (!(flags & IFF_LOOPBACK) && (flags & IFF_BROADCAST))
   {
      myBroadcastCapable = true;
      if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFBRDADDR, name, answer))
         return setError("Could not initialize IPv4 broadcast address on interface ", myDeviceName);
      myIpv4BroadcastAddr = new DtInetAddr(inetOf(answer.ifr_broadaddr), netmask);
   }

   if (flags & IFF_MULTICAST)
   {
      myMulticastCapable = true;
      readIpv4Groups();
   }
}

void DtInetDevice::initLink(int socket)
{
   char const* name = myDeviceName.c_str();
   ifreq answer;
   if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFFLAGS, name, answer))
      return setError("Could not query flags on interface ", myDeviceName);
   int flags = answer.ifr_flags;
   myLinkState = linkStateOf(flags);
   myBroadcastCapable = !(flags & IFF_LOOPBACK) && (flags & IFF_BROADCAST);
   myMulticastCapable = (flags & IFF_MULTICAST) != 0;
   if (DtInetPlatformUtils::queryInterface(socket, SIOCGIFMTU, name, answer))
      myMtu = answer.ifr_mtu;
   if (DtInetPlatformUtils::queryInterface(socket, SIOCGIFHWADDR, name, answer))
      setHardware(answer.ifr_hwaddr.sa_family, answer.ifr_hwaddr.sa_data);
}

void DtInetDevice::setHardware(int family, char const* bytes)
{
   myType = DtInetDeviceOther;
   myMacLength = 0;
   for (DtHardwareType const& known : theHardwareTypes)
   {
      if (known.family == family)
      {
         myType = known.type;
         myMacLength = known.macLength;
      }
   }
   memset(myMacAddr, 0, sizeof myMacAddr);
   if (myMacLength != 0)
      memcpy(myMacAddr, bytes, myMacLength);
   std::string text;
   for (unsigned int i = 0; i < myMacLength; ++i)
   {
      char digits[4];
      snprintf(digits, sizeof digits, "%02X", myMacAddr[i]);
      if (i > 0)
         text += ':';
      text += digits;
   }
   myMacAddrString = DtString(text);
}

void DtInetDevice::initIpv6(ifreq_in6* record)
{
   sockaddr_in6 address;
   memset(&address, 0, sizeof address);
   address.sin6_family = AF_INET6;
   address.sin6_addr = record->ifr6_addr;
   // A link-local address is only usable with its interface: carry the index as scope.
   if (IN6_IS_ADDR_LINKLOCAL(&record->ifr6_addr))
      address.sin6_scope_id = static_cast<uint32_t>(record->ifr6_ifindex);
   myIpv6Addr = new DtInetAddr(address, record->ifr6_prefixlen);
   myLinkScope = scopeLevelOf(*myIpv6Addr);
   readIpv6Groups();
}

void DtInetDevice::readIpv4Groups()
{
   std::vector<unsigned int> groups;
   DtInetPlatformUtils::readIgmpGroups(DtInetPlatformUtils::theIgmpPath, myInterfaceIndex, groups);
   for (unsigned int group : groups)
      myIpv4Groups.push_back(new DtInetAddr(group, 0u));
}

void DtInetDevice::readIpv6Groups()
{
   std::vector<in6_addr> groups;
   DtInetPlatformUtils::DtProcReadStatus status = DtInetPlatformUtils::readIgmp6Groups(
       DtInetPlatformUtils::theIgmp6Path, myInterfaceIndex, groups);
   for (in6_addr const& group : groups)
   {
      sockaddr_in6 address;
      memset(&address, 0, sizeof address);
      address.sin6_family = AF_INET6;
      address.sin6_addr = group;
      DtInetAddr* made = new DtInetAddr(address, 0u);
      if (made->isBroadcast())
      {
         delete myIpv6BroadcastAddr;
         myIpv6BroadcastAddr = made;
      }
      else
      {
         myIpv6Groups.push_back(made);
      }
   }
   if (status == DtInetPlatformUtils::DtProcReadParseError)
      setError("Error parsing IPv6 multicast info from ", DtInetPlatformUtils::theIgmp6Path);
}

void DtInetDevice::scanDeviceByName(DtString const& text)
{
   DtInetInterfaceTables tables(myRecordSize, mySizeMultiplier);

   DtString host, portOrMask;
   int kind = 0;
   if (DtInetUtils::parseIpv4NetResLoc(text, host, portOrMask, kind))
   {
      myFamily = DtInetUtils::DtInetFamilyIPv4;
      in_addr address;
      ifreq* record = nullptr;
      if (inet_pton(AF_INET, host.c_str(), &address) != 1)
         setError("Invalid IPv4 address syntax - ", host + " in " + text);
      else if (tables.hasIpv4 && (record = DtInetUtils::findInterfaceByAddress(
                                      &address, tables.ipv4Socket, &tables.ipv4Table)))
         init(tables.ipv4Socket, record,
              tables.hasIpv6 ? DtInetUtils::findIpv6InterfaceByName(
                                   record->ifr_name, tables.ipv6Socket, &tables.ipv6Table)
                             : nullptr);
      else
         setError("Could not locate interface device with IPv4 address ",
                  host + " (original: " + text);
   }
   else if (DtInetUtils::parseIpv6NetResLoc(text, host, portOrMask, kind))
   {
      myFamily = DtInetUtils::DtInetFamilyIPv6;
      // The parser keeps a "%zone" on the host; the address itself is before it.
      DtString bare(host);
      bare.snipBack('%', true);
      in6_addr address;
      ifreq_in6* record = nullptr;
      if (inet_pton(AF_INET6, bare.c_str(), &address) != 1)
         setError("Invalid IPv6 address syntax - ", host + " in " + text);
      else if (tables.hasIpv6 && (record = DtInetUtils::findIpv6InterfaceByAddress(
                                      &address, tables.ipv6Socket, &tables.ipv6Table)))
         init(tables.ipv4Socket,
              tables.hasIpv4 ? DtInetUtils::findInterfaceByName(
                                   record->ifr6_name, tables.ipv4Socket, &tables.ipv4Table)
                             : nullptr,
              record);
      else
         setError("Could not locate interface device with IPv6 address ",
                  host + " (original: " + text);
   }
   else
   {
      ifreq* ipv4Record = tables.hasIpv4 ? DtInetUtils::findInterfaceByName(
                                               text.c_str(), tables.ipv4Socket, &tables.ipv4Table)
                                         : nullptr;
      ifreq_in6* ipv6Record = tables.hasIpv6
                                  ? DtInetUtils::findIpv6InterfaceByName(
                                        text.c_str(), tables.ipv6Socket, &tables.ipv6Table)
                                  : nullptr;
      if (ipv4Record || ipv6Record)
         init(tables.ipv4Socket, ipv4Record, ipv6Record);
      else
         setError("Could not locate interface ", text);
   }
}

// ------------------------------------------------------------------ accessors

DtString const& DtInetDevice::deviceName() const
{
   return myDeviceName;
}

DtInetAddr* DtInetDevice::addr() const
{
   return myFamily == DtInetUtils::DtInetFamilyIPv6 ? myIpv6Addr : myIpv4Addr;
}

DtInetAddr* DtInetDevice::broadcastAddr() const
{
   return myFamily == DtInetUtils::DtInetFamilyIPv6 ? myIpv6BroadcastAddr : myIpv4BroadcastAddr;
}

DtInetAddr* DtInetDevice::ipv4Addr() const
{
   return myIpv4Addr;
}

DtInetAddr* DtInetDevice::ipv4Netmask() const
{
   return myIpv4Netmask;
}

DtInetAddr* DtInetDevice::ipv4BroadcastAddr() const
{
   return myIpv4BroadcastAddr;
}

DtInetAddr* DtInetDevice::ipv6Addr() const
{
   return myIpv6Addr;
}

DtInetAddr* DtInetDevice::ipv6BroadcastAddr() const
{
   return myIpv6BroadcastAddr;
}

unsigned int DtInetDevice::macAddr(unsigned char (&mac)[8]) const
{
   memcpy(mac, myMacAddr, sizeof mac);
   return myMacLength;
}

DtString const& DtInetDevice::macAddrString() const
{
   return myMacAddrString;
}

int DtInetDevice::type() const
{
   return myType;
}

int DtInetDevice::mtu() const
{
   return myMtu;
}

int DtInetDevice::linkState() const
{
   return myLinkState;
}

int DtInetDevice::linkScope() const
{
   return myLinkScope;
}

bool DtInetDevice::isUp() const
{
   return myLinkState == DtInetLinkUp || myLinkState == DtInetLinkRunning;
}

bool DtInetDevice::isActive() const
{
   return myLinkState == DtInetLinkRunning;
}

bool DtInetDevice::isBroadcastCapable() const
{
   return myBroadcastCapable;
}

bool DtInetDevice::isMulticastCapable() const
{
   return myMulticastCapable;
}

bool DtInetDevice::hasIpv4Addr() const
{
   return myIpv4Addr != nullptr;
}

bool DtInetDevice::hasIpv6Addr() const
{
   return myIpv6Addr != nullptr;
}

int DtInetDevice::interfaceIndex() const
{
   return myInterfaceIndex;
}

bool DtInetDevice::isOk() const
{
   return !myError;
}

DtString const& DtInetDevice::getLastErrorString() const
{
   return myLastError;
}

// ------------------------------------------------------------------ choosing

DtInetDevice* DtInetDevice::findInterface(DtInetAddr const& address)
{
   if (!address.isBroadcast() && !address.isMulticast())
      return nullptr;

   DtInetDevice const* winner = nullptr;
   DtInetDeviceList devices;
   if (address.isMulticast() && address.isIPv6())
   {
      // IPv6 traffic from the loopback interface never reaches another host, so it
      // wins neither the search (its ::1 would match every group's scope) nor the
      // fallback, unless it is all there is.
      devices = DtInetUtils::scanIpv6Devices(false);
      auto firstWhere = [&devices](auto const& wanted) -> DtInetDevice const*
      {
         for (auto const& device : devices)
         {
            if (wanted(*device))
               return device.get();
         }
         return nullptr;
      };
      auto isLoopback = [](DtInetDevice const& device)
      {
         return device.type() == DtInetDeviceLoopback ||
                (device.ipv6Addr() && device.ipv6Addr()->isLoopback());
      };
      winner = firstWhere(
          [&](DtInetDevice const& device)
          {
             DtInetAddr const* group = device.ipv6BroadcastAddr();
             DtInetAddr const* own = device.ipv6Addr();
             return !isLoopback(device) &&
                    ((group && *group == address) || (own && own->scope() == address.scope()));
          });
      if (!winner)
         winner = firstWhere(
             [&](DtInetDevice const& device)
             { return device.isUp() && device.isMulticastCapable() && !isLoopback(device); });
      if (!winner)
         winner = firstWhere(isLoopback);
      if (!winner && !devices.empty())
         winner = devices.front().get();
   }
   else if (address.isMulticast())
   {
      devices = DtInetUtils::scanMulticastDevices(false, false);
      for (auto const& device : devices)
      {
         if (device->hasIpv4Addr())
         {
            winner = device.get();
            break;
         }
      }
   }
   else if (address.isIPv6())
   {
      devices = DtInetUtils::scanIpv6Devices(false);
      DtInetDevice const* firstUsable = nullptr;
      for (auto const& device : devices)
      {
         DtInetAddr const* own = device->ipv6Addr();
         if (!own || own->isLoopback())
            continue;
         if (!firstUsable)
            firstUsable = device.get();
         if (device->ipv6BroadcastAddr() && *device->ipv6BroadcastAddr() == address)
         {
            winner = device.get();
            break;
         }
      }
      if (!winner)
         winner = firstUsable;
   }
   else
   {
      devices = DtInetUtils::scanBroadcastDevices(false, false);
      for (auto const& device : devices)
      {
         DtInetAddr* broadcast = device->ipv4BroadcastAddr();
         DtInetAddr* own = device->ipv4Addr();
         if ((broadcast && *broadcast == address) || (own && *own->getBroadcastAddr() == address))
         {
            winner = device.get();
            break;
         }
      }
   }
   return winner ? new DtInetDevice(*winner) : nullptr;
}

bool operator==(DtInetDevice const& left, DtInetDevice const& right)
{
   return left.deviceName() == right.deviceName();
}

bool operator!=(DtInetDevice const& left, DtInetDevice const& right)
{
   return !(left == right);
}
