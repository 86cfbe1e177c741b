//===-- olutil/olInetDevice.h - One local network interface -------*- C++ -*-===//
//
// Family: Addressing.
//
// DtInetDevice describes one local network interface: name, hardware address,
// IPv4 and IPv6 addresses, link state, capabilities and the multicast groups
// the kernel lists for it. It is a snapshot, filled once from the SIOCGIF*
// requests of ioctl and from /proc/net/if_inet6, /proc/net/igmp and
// /proc/net/igmp6, and never refreshed. DtInetUtils::scanInetDevices
// (olInetAddrUtils.h) lists them; sockets use them to pick interfaces.
//
// Failures never throw: a device that could not be filled has isOk() false and
// its text in getLastErrorString(). Callers test isOk() before use.
//
// Threads: no lock. A device belongs to one thread at a time; copy it rather
// than share it while another thread copies or assigns it.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETDEVICE_H
#define OLUTIL_OLINETDEVICE_H

#include <vector>

#include <net/if.h>

#include <olutil/olInetAddr.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olString.h>

class DtInetDevice
{
public:
   /// `type()` values, from the hardware family reported by SIOCGIFHWADDR.
   enum DtInetDeviceType
   {
      DtInetDeviceEthernet = 0,
      DtInetDeviceFddi = 1,
      DtInetDeviceIeee1394 = 2,
      DtInetDeviceIeee80211 = 3,
      DtInetDeviceLoopback = 4,
      DtInetDeviceOther = 5
   };

   /// `linkState()` values.
   enum DtInetLinkState
   {
      DtInetLinkDown = 0,
      DtInetLinkUp = 1,       ///< IFF_UP but not running
      DtInetLinkRunning = 64  ///< IFF_RUNNING
   };

   /// The device that bears this address (looked up by its text); the family
   /// is the address's.
   explicit DtInetDevice(DtInetAddr const& address);
   /// `text` is an IPv4 address, an IPv6 address or an interface name.
   explicit DtInetDevice(DtString const& text,
                         DtInetUtils::DtInetAddrFamily family = DtInetUtils::DtInetFamilyIPv4);
   /// Fills the device from the kernel's IPv4 record and/or the IPv6 record;
   /// either may be null. `socket` is a datagram socket for the queries.
   DtInetDevice(int socket, ifreq* ipv4Record, ifreq_in6* ipv6Record,
                DtInetUtils::DtInetAddrFamily family);
   /// Copies every address into a new DtInetAddr: no two devices share one.
   DtInetDevice(DtInetDevice const& other);
   DtInetDevice& operator=(DtInetDevice const& other);
   virtual ~DtInetDevice();

   virtual DtString const& deviceName() const;
   /// ipv6Addr() for family 6, otherwise ipv4Addr(); may be null.
   virtual DtInetAddr* addr() const;
   /// ipv6BroadcastAddr() for family 6, otherwise ipv4BroadcastAddr(); may be null.
   virtual DtInetAddr* broadcastAddr() const;
   virtual DtInetAddr* ipv4Addr() const;
   virtual DtInetAddr* ipv4Netmask() const;
   virtual DtInetAddr* ipv4BroadcastAddr() const;
   virtual DtInetAddr* ipv6Addr() const;
   /// The interface's group in /proc/net/igmp6 that counts as broadcast (FF02::1).
   virtual DtInetAddr* ipv6BroadcastAddr() const;
   /// Copies the hardware address (zero-padded) and returns its length in bytes.
   virtual unsigned int macAddr(unsigned char (&mac)[8]) const;
   /// "AA:BB:..." in upper case; empty for a loopback or unknown hardware type.
   virtual DtString const& macAddrString() const;
   virtual int type() const;
   virtual int mtu() const;
   virtual int linkState() const;
   virtual int linkScope() const;
   /// linkState 1 or 64.
   virtual bool isUp() const;
   /// linkState 64 only.
   virtual bool isActive() const;
   virtual bool isBroadcastCapable() const;
   virtual bool isMulticastCapable() const;
   virtual bool hasIpv4Addr() const;
   virtual bool hasIpv6Addr() const;
   virtual int interfaceIndex() const;
   virtual bool isOk() const;
   virtual DtString const& getLastErrorString() const;

   /// IPv4 groups listed for the interface in /proc/net/igmp (all-hosts left out).
   std::vector<DtInetAddr*> const& ipv4Groups() const { return myIpv4Groups; }
   /// IPv6 groups listed in /proc/net/igmp6, less the one that counts as broadcast.
   std::vector<DtInetAddr*> const& ipv6Groups() const { return myIpv6Groups; }
   DtInetUtils::DtInetAddrFamily family() const { return myFamily; }

   /// The interface to send to a broadcast or multicast destination from, as a
   /// new device owned by the caller; null for any other address or when no
   /// interface fits.
   static DtInetDevice* findInterface(DtInetAddr const& address);

protected:
   void init(int socket, ifreq* ipv4Record, ifreq_in6* ipv6Record);
   void scanDeviceByName(DtString const& text);

private:
   void initIpv4(int socket, ifreq* record);
   void initIpv6(ifreq_in6* record);
   void initLink(int socket);
   void setHardware(int family, char const* bytes);
   void readIpv4Groups();
   void readIpv6Groups();
   void setError(char const* text, DtString const& subject);
   void copyFrom(DtInetDevice const& other);
   void release();

   DtString myDeviceName;
   unsigned char myMacAddr[8] = {};
   unsigned int myMacLength = 0;
   DtString myMacAddrString;
   DtInetAddr* myIpv4Addr = nullptr;
   DtInetAddr* myIpv4Netmask = nullptr;
   DtInetAddr* myIpv4BroadcastAddr = nullptr;
   int myLinkScope = DtInetIpv6ScopeLinkLocal;
   bool myBroadcastCapable = false;
   DtInetAddr* myIpv6Addr = nullptr;
   DtInetAddr* myIpv6BroadcastAddr = nullptr;
   DtInetUtils::DtInetAddrFamily myFamily;
   bool myMulticastCapable = false;
   std::vector<DtInetAddr*> myIpv4Groups;
   std::vector<DtInetAddr*> myIpv6Groups;
   int myMtu = 1500;
   int myLinkState = DtInetLinkDown;
   int myType = DtInetDeviceEthernet;
   int myInterfaceIndex = 0;
   bool myError = false;
   DtString myLastError;
   unsigned int myRecordSize = 40;  // an ifreq record; the IPv4 table grows from it
   unsigned int mySizeMultiplier = 3;
};

/// Devices are equal when their names are; nothing else is compared.
bool operator==(DtInetDevice const& left, DtInetDevice const& right);
bool operator!=(DtInetDevice const& left, DtInetDevice const& right);

#endif  // OLUTIL_OLINETDEVICE_H
