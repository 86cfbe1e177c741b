// DtInetAddr: an IPv4 or IPv6 address with netmask, prefix, scope and flags.
#include <olutil/olInetAddr.h>

#include <arpa/inet.h>
#include <endian.h>

#include <cstring>
#include <mutex>
#include <vector>

#include <boost/asio/ip/address.hpp>

namespace ip = boost::asio::ip;

namespace
{

// The class-based netmask of an IPv4 address (A, B, C, or all ones beyond),
// as the classification falls back to when no mask was given.
unsigned int classNetmask(unsigned int address)
{
   if ((address & 0x80000000u) == 0)
      return 0xFF000000u;
   if ((address & 0xC0000000u) == 0x80000000u)
      return 0xFFFF0000u;
   if ((address & 0xE0000000u) == 0xC0000000u)
      return 0xFFFFFF00u;
   return 0xFFFFFFFFu;
}

ip::address_v6 v6FromWords(unsigned long high, unsigned long low, unsigned long scopeId)
{
   ip::address_v6::bytes_type bytes;
   uint64_t words[2] = {htobe64(high), htobe64(low)};
   memcpy(bytes.data(), words, bytes.size());
   return ip::address_v6(bytes, scopeId);
}

// Loopback copies handed out by getLoopbackAddr. They outlive the objects that
// made them on purpose (callers keep the pointer), so they are kept here,
// reachable, for the life of the process.
void keepLoopbackCopy(DtInetAddr* copy)
{
   static std::mutex* lock = new std::mutex;
   static std::vector<DtInetAddr*>* copies = new std::vector<DtInetAddr*>;
   std::lock_guard<std::mutex> hold(*lock);
   copies->push_back(copy);
}

}  // namespace

// ------------------------------------------------------------------ construction

DtInetAddr::DtInetAddr(DtInetUtils::DtInetAddrFamily family)
    : myAddress(nullptr),
      myNetmask(0),
      myPrefixLen(0),
      myBroadcastAddr(nullptr),
      myLoopbackAddr(nullptr),
      myIsBroadcast(false),
      myIsMulticast(false),
      myIsLoopback(false),
      myIsAnyAddr(true),
      myScope(DtInetIpv6ScopeNone)
{
   if (family == DtInetUtils::DtInetFamilyIPv6)
   {
      myAddress = new ip::address(ip::address_v6::any());
   }
   else
   {
      myAddress = new ip::address(ip::address_v4::any());
      myNetmask = classNetmask(0);
   }
}

DtInetAddr::DtInetAddr(DtString const& addr, DtString const& mask)
{
   initFromStrings(addr.c_str(), mask.c_str());
}

DtInetAddr::DtInetAddr(char const* addr, char const* mask)
{
   initFromStrings(addr, mask);
}

DtInetAddr::DtInetAddr(DtString const& addr, char const* mask)
{
   initFromStrings(addr.c_str(), mask);
}

DtInetAddr::DtInetAddr(char const* addr, DtString const& mask)
{
   initFromStrings(addr, mask.c_str());
}

DtInetAddr::DtInetAddr(DtString const& addr)
{
   initFromStrings(addr.c_str(), nullptr);
}

DtInetAddr::DtInetAddr(char const* addr)
{
   initFromStrings(addr, nullptr);
}

DtInetAddr::DtInetAddr(void* boostAddress)
{
   myAddress = new ip::address(*static_cast<ip::address*>(boostAddress));
   init();
}

DtInetAddr::DtInetAddr(sockaddr_in const& address, unsigned int netmask)
{
   myAddress = new ip::address(ip::address_v4(ntohl(address.sin_addr.s_addr)));
   myNetmask = netmask;
   init();
}

DtInetAddr::DtInetAddr(unsigned int address, unsigned int netmask)
{
   myAddress = new ip::address(ip::address_v4(address));
   myNetmask = netmask;
   init();
}

DtInetAddr::DtInetAddr(sockaddr_in6 const& address, unsigned int prefixLen)
{
   ip::address_v6::bytes_type bytes;
   memcpy(bytes.data(), &address.sin6_addr, bytes.size());
   myAddress = new ip::address(ip::address_v6(bytes, address.sin6_scope_id));
   myScope = static_cast<DtInetIpv6Scope>(address.sin6_scope_id);
   myPrefixLen = prefixLen;
   init();
}

DtInetAddr::DtInetAddr(sockaddr_storage const& address, unsigned int prefixLen)
{
   if (address.ss_family == AF_INET)
   {
      auto const& in = reinterpret_cast<sockaddr_in const&>(address);
      myAddress = new ip::address(ip::address_v4(ntohl(in.sin_addr.s_addr)));
      myNetmask = DtInetUtils::prefixLenToIpv4Netmask(prefixLen);
   }
   else
   {
      // The storage's scope id is ignored: callers pass wildcard-scope addresses here.
      auto const& in6 = reinterpret_cast<sockaddr_in6 const&>(address);
      ip::address_v6::bytes_type bytes;
      memcpy(bytes.data(), &in6.sin6_addr, bytes.size());
      myAddress = new ip::address(ip::address_v6(bytes, 0));
   }
   myPrefixLen = prefixLen;
   init();
}

DtInetAddr::DtInetAddr(DtU128 const& value, DtInetUtils::DtInetAddrFamily family,
                       unsigned int prefixLen)
{
   if (family == DtInetUtils::DtInetFamilyIPv4)
   {
      myAddress = new ip::address(ip::address_v4(static_cast<unsigned int>(value.low)));
      myNetmask = DtInetUtils::prefixLenToIpv4Netmask(prefixLen);
   }
   else
   {
      myAddress = new ip::address(v6FromWords(value.high, value.low, 0));
   }
   myPrefixLen = prefixLen;
   init();
}

DtInetAddr::DtInetAddr(DtInetAddr const& other)
    : myAddress(new ip::address(*other.myAddress)),
      myNetmask(other.myNetmask),
      myPrefixLen(other.myPrefixLen),
      myBroadcastAddr(nullptr),
      myLoopbackAddr(nullptr),
      myIsBroadcast(other.myIsBroadcast),
      myIsMulticast(other.myIsMulticast),
      myIsLoopback(other.myIsLoopback),
      myIsAnyAddr(other.myIsAnyAddr),
      myScope(other.myScope)
{
}

DtInetAddr& DtInetAddr::operator=(DtInetAddr const& other)
{
   if (this == &other)
      return *this;
   *myAddress = *other.myAddress;
   myNetmask = other.myNetmask;
   myPrefixLen = other.myPrefixLen;
   myIsBroadcast = other.myIsBroadcast;
   myIsMulticast = other.myIsMulticast;
   myIsLoopback = other.myIsLoopback;
   myIsAnyAddr = other.myIsAnyAddr;
   myScope = other.myScope;
   return *this;
}

DtInetAddr::~DtInetAddr()
{
   delete myAddress;
   delete myBroadcastAddr;
   // myLoopbackAddr is not released: see keepLoopbackCopy.
}

void DtInetAddr::initFromStrings(char const* addr, char const* mask)
{
   myAddress = DtInetUtils::newBoostAddrFromString(addr);
   if (mask && *mask)
   {
      myPrefixLen = DtInetUtils::convertStringToPrefixLen(mask);
      if (myAddress->is_v4())
         myNetmask = DtInetUtils::prefixLenToIpv4Netmask(static_cast<unsigned int>(myPrefixLen));
   }
   init();
}

void DtInetAddr::init()
{
   if (myAddress->is_v4())
   {
      unsigned int value = myAddress->to_v4().to_uint();
      if (myNetmask == 0)
         myNetmask = classNetmask(value);
      if (myPrefixLen == 0)
         myPrefixLen = DtInetUtils::netmaskToPrefixLen(myNetmask);
      myIsMulticast = myAddress->is_multicast();
      // A /31 or /32 has no broadcast address.
      if (myPrefixLen < 31)
         myIsBroadcast = value == (value | ~myNetmask);
      // Only 127.0.0.1 itself: the rest of 127/8 is treated as ordinary addresses.
      myIsLoopback = value == 0x7F000001u;
      myIsAnyAddr = value == 0;
      return;
   }
   ip::address_v6 v6 = myAddress->to_v6();
   myIsMulticast = v6.is_multicast();
   myIsLoopback = v6.is_loopback();
   myIsAnyAddr = v6.is_unspecified();
   ip::address_v6::bytes_type bytes = v6.to_bytes();
   // IPv6 has no broadcast; the link-local all-nodes group FF02::1 stands in for it.
   bool allNodesTail = bytes[15] == 1;
   for (int i = 2; i < 15 && allNodesTail; ++i)
      allNodesTail = bytes[i] == 0;
   myIsBroadcast = v6.is_multicast_link_local() && allNodesTail;
   if (myScope == DtInetIpv6ScopeNone && v6.scope_id() != 0)
      myScope = static_cast<DtInetIpv6Scope>(v6.scope_id());
}

// ------------------------------------------------------------------ accessors

DtString DtInetAddr::toDtString(bool) const
{
   return DtString(myAddress->to_string());
}

DtInetUtils::DtInetAddrFamily DtInetAddr::family() const
{
   return myAddress->is_v6() ? DtInetUtils::DtInetFamilyIPv6 : DtInetUtils::DtInetFamilyIPv4;
}

bool DtInetAddr::isIPv4() const
{
   return myAddress->is_v4();
}

bool DtInetAddr::isIPv6() const
{
   return myAddress->is_v6();
}

void DtInetAddr::setNetmask(unsigned int netmask)
{
   if (!myAddress->is_v4())
      return;
   myNetmask = netmask;
   myPrefixLen = DtInetUtils::netmaskToPrefixLen(netmask);
}

unsigned int DtInetAddr::netmask() const
{
   return myNetmask;
}

void DtInetAddr::setPrefixLen(unsigned long prefixLen)
{
   myPrefixLen = prefixLen;
   if (myAddress->is_v4())
      myNetmask = DtInetUtils::prefixLenToIpv4Netmask(
          prefixLen > 0xFFFFFFFFul ? 0xFFFFFFFFu : static_cast<unsigned int>(prefixLen));
}

unsigned long DtInetAddr::prefix() const
{
   return myPrefixLen;
}

bool DtInetAddr::isMulticast() const
{
   return myIsMulticast;
}

bool DtInetAddr::isBroadcast() const
{
   return myIsBroadcast;
}

bool DtInetAddr::isLoopback() const
{
   return myIsLoopback;
}

bool DtInetAddr::isAnyAddr() const
{
   return myIsAnyAddr;
}

DtInetAddr* DtInetAddr::getBroadcastAddr()
{
   if (myAddress->is_v4())
   {
      if (!myBroadcastAddr)
         myBroadcastAddr = new DtInetAddr(DtInetUtils::DtInetFamilyIPv4);
      unsigned int value = myAddress->to_v4().to_uint();
      *myBroadcastAddr = DtInetAddr(value | ~myNetmask, myNetmask);
   }
   else if (!myBroadcastAddr)
   {
      myBroadcastAddr = new DtInetAddr("FF02::1", nullptr);
   }
   else if (!myBroadcastAddr->isIPv6())
   {
      // An IPv4 leftover from before an assignment is overwritten in place:
      // callers may still hold the pointer handed out earlier.
      *myBroadcastAddr = DtInetAddr("FF02::1", nullptr);
   }
   return myBroadcastAddr;
}

DtInetAddr* DtInetAddr::getLoopbackAddr()
{
   if (!myLoopbackAddr)
   {
      myLoopbackAddr = new DtInetAddr(loopbackAddress(family()));
      keepLoopbackCopy(myLoopbackAddr);
   }
   return myLoopbackAddr;
}

int DtInetAddr::toSockaddr(sockaddr_in* out) const
{
   if (!myAddress->is_v4())
      return -1;
   out->sin_family = AF_INET;
   out->sin_addr.s_addr = htonl(myAddress->to_v4().to_uint());
   return 0;
}

int DtInetAddr::toSockaddr(sockaddr_in6* out) const
{
   if (!myAddress->is_v6())
      return -1;
   ip::address_v6 v6 = myAddress->to_v6();
   ip::address_v6::bytes_type bytes = v6.to_bytes();
   out->sin6_family = AF_INET6;
   memcpy(&out->sin6_addr, bytes.data(), bytes.size());
   out->sin6_scope_id = static_cast<uint32_t>(v6.scope_id());
   return 0;
}

int DtInetAddr::toAddrStorage(sockaddr_storage* out) const
{
   if (myAddress->is_v4())
      return toSockaddr(reinterpret_cast<sockaddr_in*>(out));
   return toSockaddr(reinterpret_cast<sockaddr_in6*>(out));
}

DtU128 DtInetAddr::toU128() const
{
   if (myAddress->is_v4())
      return DtU128(0ul, static_cast<unsigned long>(myAddress->to_v4().to_uint()));
   ip::address_v6::bytes_type bytes = myAddress->to_v6().to_bytes();
   uint64_t words[2];
   memcpy(words, bytes.data(), sizeof words);
   return DtU128(be64toh(words[0]), be64toh(words[1]));
}

unsigned long DtInetAddr::toULong() const
{
   return myAddress->is_v4() ? myAddress->to_v4().to_uint() : 0ul;
}

void DtInetAddr::setScope(DtInetIpv6Scope scope)
{
   // An address that carries its own scope id keeps it.
   if (myAddress->is_v6() && myAddress->to_v6().scope_id() != 0)
      return;
   myScope = scope;
}

DtInetIpv6Scope DtInetAddr::scope() const
{
   return myScope;
}

boost::asio::ip::address& DtInetAddr::boostAddress()
{
   return *myAddress;
}

boost::asio::ip::address const& DtInetAddr::boostAddress() const
{
   return *myAddress;
}

DtInetAddr const& DtInetAddr::inaddrAny(DtInetUtils::DtInetAddrFamily family)
{
   if (family == DtInetUtils::DtInetFamilyIPv4)
   {
      static DtInetAddr const any4(DtInetUtils::DtInetFamilyIPv4);
      return any4;
   }
   static DtInetAddr const any6(DtInetUtils::DtInetFamilyIPv6);
   return any6;
}

DtInetAddr const& DtInetAddr::loopbackAddress(DtInetUtils::DtInetAddrFamily family)
{
   if (family == DtInetUtils::DtInetFamilyIPv6)
   {
      static DtInetAddr const loopback6("::1", nullptr);
      return loopback6;
   }
   static DtInetAddr const loopback4("127.0.0.1", nullptr);
   return loopback4;
}

// ------------------------------------------------------------------ comparison

namespace
{

// Copies of two IPv6 values in which a zero scope id adopts the other's, so
// that an address without scope matches the same address on any interface.
void adoptWildcardScope(ip::address_v6& left, ip::address_v6& right)
{
   if (left.scope_id() == 0)
      left.scope_id(right.scope_id());
   else if (right.scope_id() == 0)
      right.scope_id(left.scope_id());
}

}  // namespace

bool operator==(DtInetAddr const& left, DtInetAddr const& right)
{
   ip::address const& a = left.boostAddress();
   ip::address const& b = right.boostAddress();
   if (a.is_v6() && b.is_v6())
   {
      ip::address_v6 l = a.to_v6(), r = b.to_v6();
      adoptWildcardScope(l, r);
      return l == r;
   }
   return a == b;
}

bool operator!=(DtInetAddr const& left, DtInetAddr const& right)
{
   return !(left == right);
}

bool operator<(DtInetAddr const& left, DtInetAddr const& right)
{
   ip::address const& a = left.boostAddress();
   ip::address const& b = right.boostAddress();
   if (a.is_v6() && b.is_v6())
   {
      ip::address_v6 l = a.to_v6(), r = b.to_v6();
      adoptWildcardScope(l, r);
      return l < r;
   }
   return a < b;
}

bool operator>(DtInetAddr const& left, DtInetAddr const& right)
{
   ip::address const& a = left.boostAddress();
   ip::address const& b = right.boostAddress();
   if (a.is_v6() && b.is_v6())
   {
      ip::address_v6 l = a.to_v6(), r = b.to_v6();
      adoptWildcardScope(l, r);
      return l > r;
   }
   return !(a < b) && !(a == b);
}
