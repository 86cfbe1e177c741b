// DtInetUtils, interfaces: listing the local interfaces and picking defaults.
#include <olutil/olInetAddrUtils.h>

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include <boost/asio/ip/host_name.hpp>

#include <olutil/olInetDevice.h>
#include <olutil/olInetPlatformUtils.h>

int DtInetUtils::theMaxPacketBufferSize = 65504;

namespace
{

unsigned int const theIfreqSize = sizeof(ifreq);
unsigned int const theIfreqIn6Size = sizeof(ifreq_in6);
unsigned int const theSizeMultiplier = 3;
// Far beyond any real interface table: stops the trial growth from overflowing.
unsigned int const theLargestTable = 64u * 1024u * 1024u;

static_assert(sizeof(ifreq) == 40, "the kernel's interface record is 40 bytes");

unsigned int recordCount(ifconf const* table, unsigned int recordSize)
{
   return table->ifc_len > 0 ? static_cast<unsigned int>(table->ifc_len) / recordSize : 0;
}

template <typename Keep>
DtInetDeviceList filterDevices(DtInetDeviceList devices, Keep keep)
{
   DtInetDeviceList kept;
   for (auto& device : devices)
      if (keep(*device))
         kept.push_back(device);
   return kept;
}

}  // namespace

// ------------------------------------------------------------------ scans

DtInetDeviceList DtInetUtils::scanInetDevices(bool activeOnly, bool ipv6)
{
   DtInetAddrFamily family = ipv6 ? DtInetFamilyIPv6 : DtInetFamilyIPv4;
   DtInetInterfaceTables tables;
   DtInetDeviceList devices;
   auto keep = [&](std::shared_ptr<DtInetDevice> const& device)
   {
      if (!activeOnly || device->isUp())
         devices.push_back(device);
   };

   if (tables.hasIpv4)
   {
      ifreq* records = reinterpret_cast<ifreq*>(tables.ipv4Table.ifc_buf);
      for (unsigned int i = 0; i < recordCount(&tables.ipv4Table, theIfreqSize); ++i)
      {
         ifreq_in6* ipv6Record = tables.hasIpv6
                                     ? findIpv6InterfaceByName(records[i].ifr_name,
                                                               tables.ipv6Socket, &tables.ipv6Table)
                                     : nullptr;
         keep(std::make_shared<DtInetDevice>(tables.ipv4Socket, &records[i], ipv6Record, family));
         if (ipv6Record)
            memset(ipv6Record->ifr6_name, 0, sizeof ipv6Record->ifr6_name);  // taken
      }
   }
   if (tables.hasIpv6)
   {
      ifreq_in6* records = reinterpret_cast<ifreq_in6*>(tables.ipv6Table.ifc_buf);
      for (unsigned int i = 0; i < recordCount(&tables.ipv6Table, theIfreqIn6Size); ++i)
      {
         if (records[i].ifr6_name[0] == '\0')
            continue;
         int querySocket = tables.ipv4Socket >= 0 ? tables.ipv4Socket : tables.ipv6Socket;
         keep(std::make_shared<DtInetDevice>(querySocket, nullptr, &records[i], family));
      }
   }
   return devices;
}

DtInetDeviceList DtInetUtils::scanBroadcastDevices(bool activeOnly, bool ipv6)
{
   return filterDevices(scanInetDevices(activeOnly, ipv6),
                        [](DtInetDevice const& device) { return device.isBroadcastCapable(); });
}

DtInetDeviceList DtInetUtils::scanMulticastDevices(bool activeOnly, bool ipv6)
{
   return filterDevices(scanInetDevices(activeOnly, ipv6),
                        [](DtInetDevice const& device) { return device.isMulticastCapable(); });
}

DtInetDeviceList DtInetUtils::scanIpv6Devices(bool activeOnly)
{
   return filterDevices(scanInetDevices(activeOnly, false),
                        [](DtInetDevice const& device) { return device.hasIpv6Addr(); });
}

std::shared_ptr<DtInetDevice> DtInetUtils::defaultMulticastDevice()
{
   DtInetDeviceList devices = scanMulticastDevices(false, false);
   if (devices.empty())
      return std::shared_ptr<DtInetDevice>();
   return std::make_shared<DtInetDevice>(*devices.front());
}

std::shared_ptr<DtInetDevice> DtInetUtils::defaultBroadcastDevice(bool ipv6)
{
   DtInetDeviceList devices = scanBroadcastDevices(true, ipv6);
   if (devices.empty())
      devices = scanBroadcastDevices(false, ipv6);
   if (devices.empty())
      return std::shared_ptr<DtInetDevice>();
   return std::make_shared<DtInetDevice>(*devices.front());
}

// ------------------------------------------------------------------ tables

int DtInetUtils::fetchDeviceInfo(DtInetAddrFamily, int socket, ifconf* table, unsigned int& size,
                                 unsigned int& multiplier, DtString& error)
{
   for (;;)
   {
      char* buffer = nullptr;
      if (size <= theLargestTable / (multiplier ? multiplier : 1))
      {
         size *= multiplier;
         // Whole records, at least one: a zero size would never grow, and a
         // partial record at the end would look like a table that fitted.
         size = size < theIfreqSize ? theIfreqSize
                                    : (size + theIfreqSize - 1) / theIfreqSize * theIfreqSize;
         buffer = new (std::nothrow) char[size];
      }
      if (buffer)
      {
         memset(buffer, 0, size);
         table->ifc_len = static_cast<int>(size);
         table->ifc_buf = buffer;
         if (ioctl(socket, SIOCGIFCONF, table) >= 0)
         {
            if (static_cast<unsigned int>(table->ifc_len) != size)
            {
               multiplier = 1;
               return 0;
            }
            // The answer filled the buffer: the table may have been cut short.
            multiplier = theSizeMultiplier;
            delete[] buffer;
            table->ifc_buf = nullptr;
            continue;
         }
         delete[] buffer;
      }
      table->ifc_len = 0;
      table->ifc_buf = nullptr;
      error = "Could not retrieve device configurations.";
      size = theIfreqSize;
      multiplier = theSizeMultiplier;
      return -1;
   }
}

int DtInetUtils::fetchIpv6DeviceInfo(int, ifconf* table, unsigned int& size, unsigned int&,
                                     DtString& error)
{
   table->ifc_len = 0;
   table->ifc_buf = nullptr;
   int lines = DtInetPlatformUtils::countLines(DtInetPlatformUtils::theIfInet6Path);
   if (lines < 0)
   {
      error = "Could not retrieve IPv6 device configuration file";
      return -1;
   }
   if (size < static_cast<unsigned int>(lines) * theIfreqIn6Size)
      size = static_cast<unsigned int>(lines) * theIfreqIn6Size;
   unsigned int capacity = size / theIfreqIn6Size;
   char* buffer = new (std::nothrow) char[(capacity ? capacity : 1) * theIfreqIn6Size];
   if (!buffer)
   {
      error = "Could not allocate memory for IPv6 device information.";
      return -1;
   }
   memset(buffer, 0, (capacity ? capacity : 1) * theIfreqIn6Size);
   unsigned int count = 0;
   DtInetPlatformUtils::DtProcReadStatus status = DtInetPlatformUtils::readIfInet6(
       DtInetPlatformUtils::theIfInet6Path, reinterpret_cast<ifreq_in6*>(buffer), capacity, count);
   table->ifc_buf = buffer;
   table->ifc_len = static_cast<int>(count * theIfreqIn6Size);
   if (status == DtInetPlatformUtils::DtProcReadOk)
      return 0;
   freeDeviceInfo(table);
   if (status == DtInetPlatformUtils::DtProcReadCannotOpen)
      error = "Could not retrieve IPv6 device configuration file";
   else
      error = DtString("Error parsing IPv6 address for devices from ") +
              DtInetPlatformUtils::theIfInet6Path;
   return -1;
}

void DtInetUtils::freeDeviceInfo(ifconf* table)
{
   delete[] table->ifc_buf;
   table->ifc_buf = nullptr;
   table->ifc_len = 0;
}

ifreq* DtInetUtils::findInterfaceByName(char const* name, int, ifconf* table)
{
   ifreq* records = reinterpret_cast<ifreq*>(table->ifc_buf);
   for (unsigned int i = 0; i < recordCount(table, theIfreqSize); ++i)
      if (strncmp(records[i].ifr_name, name, IFNAMSIZ) == 0)
         return &records[i];
   return nullptr;
}

ifreq* DtInetUtils::findInterfaceByAddress(in_addr* address, int socket, ifconf* table)
{
   ifreq* records = reinterpret_cast<ifreq*>(table->ifc_buf);
   for (unsigned int i = 0; i < recordCount(table, theIfreqSize); ++i)
   {
      ifreq answer;
      if (!DtInetPlatformUtils::queryInterface(socket, SIOCGIFADDR, records[i].ifr_name, answer))
         return nullptr;
      sockaddr_in const* found = reinterpret_cast<sockaddr_in const*>(&answer.ifr_addr);
      if (found->sin_addr.s_addr == address->s_addr)
         return &records[i];
   }
   return nullptr;
}

ifreq_in6* DtInetUtils::findIpv6InterfaceByName(char const* name, int, ifconf* table)
{
   ifreq_in6* records = reinterpret_cast<ifreq_in6*>(table->ifc_buf);
   for (unsigned int i = 0; i < recordCount(table, theIfreqIn6Size); ++i)
      if (strncmp(records[i].ifr6_name, name, IFNAMSIZ) == 0)
         return &records[i];
   return nullptr;
}

ifreq_in6* DtInetUtils::findIpv6InterfaceByAddress(in6_addr* address, int, ifconf* table)
{
   ifreq_in6* records = reinterpret_cast<ifreq_in6*>(table->ifc_buf);
   for (unsigned int i = 0; i < recordCount(table, theIfreqIn6Size); ++i)
      if (memcmp(&records[i].ifr6_addr, address, sizeof *address) == 0)
         return &records[i];
   return nullptr;
}

// ------------------------------------------------------------------ host

DtString DtInetUtils::getLocalHostname()
{
   boost::system::error_code error;
   std::string name = boost::asio::ip::host_name(error);
   return DtString(error ? std::string() : name);
}

void DtInetUtils::setMaxPacketBufferSize(int size)
{
   // Sockets size their receive buffers by it: a size below one byte is refused.
   if (size > 0)
      theMaxPacketBufferSize = size;
}

int DtInetUtils::getMaxPacketBufferSize()
{
   return theMaxPacketBufferSize;
}

void DtInetUtils::initHostNetworkLayer() {}
