//===-- olutil/olInetAddr.h - IPv4 and IPv6 address value ---------*- C++ -*-===//
//
// Family: Addressing.
//
// DtInetAddr is the library's one value type for an IPv4 or IPv6 address. It
// wraps a Boost.Asio ip::address and adds a netmask (IPv4), a prefix length, an
// IPv6 scope and four classification flags (broadcast, multicast, loopback,
// any) worked out once at construction. Endpoints, devices and sockets are
// built on it; DtInetUtils (olInetAddrUtils.h) holds the text utilities.
//
// Threads: no lock. getBroadcastAddr and getLoopbackAddr fill caches without
// protection, so an object is used by one thread at a time. inaddrAny and
// loopbackAddress return process-wide objects made once, safely, on first use.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETADDR_H
#define OLUTIL_OLINETADDR_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <olutil/olInetAddrUtils.h>
#include <olutil/olString.h>
#include <olutil/olUtil.h>

namespace boost
{
namespace asio
{
namespace ip
{
class address;
}  // namespace ip
}  // namespace asio
}  // namespace boost

/// IPv6 scope of an address. The field holds the scope id of the address (an
/// interface index for link-local addresses), so any 32-bit value may occur;
/// the named values are the usual scope levels.
enum DtInetIpv6Scope : unsigned int
{
   DtInetIpv6ScopeNone = 0,
   DtInetIpv6ScopeInterfaceLocal = 1,
   DtInetIpv6ScopeLinkLocal = 2,
   DtInetIpv6ScopeAdminLocal = 4,
   DtInetIpv6ScopeSiteLocal = 5,
   DtInetIpv6ScopeOrganizationLocal = 8,
   DtInetIpv6ScopeGlobal = 14
};

class DtInetAddr
{
public:
   /// Family 6 gives "::"; anything else 0.0.0.0 with the class netmask
   /// 255.0.0.0. Prefix 0, isAnyAddr set.
   explicit DtInetAddr(DtInetUtils::DtInetAddrFamily family = DtInetUtils::DtInetFamilyIPv4);
   /// Address text (see DtInetUtils::newBoostAddrFromString) and mask text: a
   /// dotted netmask sets the mask; an unusable or numeric one leaves the
   /// class-based mask. May throw DtException for a host name without entries.
   DtInetAddr(DtString const& addr, DtString const& mask);
   DtInetAddr(char const* addr, char const* mask);
   DtInetAddr(DtString const& addr, char const* mask);
   DtInetAddr(char const* addr, DtString const& mask);
   explicit DtInetAddr(DtString const& addr);
   explicit DtInetAddr(char const* addr);
   /// Copies the boost::asio::ip::address pointed to.
   explicit DtInetAddr(void* boostAddress);
   /// Netmask in host order.
   DtInetAddr(sockaddr_in const& address, unsigned int netmask);
   /// Address and netmask in host order.
   DtInetAddr(unsigned int address, unsigned int netmask);
   /// sin6_scope_id becomes the scope of both the object and its Boost address.
   DtInetAddr(sockaddr_in6 const& address, unsigned int prefixLen);
   /// AF_INET: netmask from the prefix. Otherwise IPv6 with scope 0: the
   /// storage's sin6_scope_id is deliberately ignored.
   DtInetAddr(sockaddr_storage const& address, unsigned int prefixLen);
   /// Family 4: the low word is the address. Otherwise both words in network
   /// order, high word first, scope 0.
   DtInetAddr(DtU128 const& value, DtInetUtils::DtInetAddrFamily family, unsigned int prefixLen);
   /// Copies the value, mask, prefix, flags and scope; the caches start empty.
   DtInetAddr(DtInetAddr const& other);
   /// Replaces the same fields and keeps this object's caches.
   DtInetAddr& operator=(DtInetAddr const& other);
   virtual ~DtInetAddr();

   /// The Boost text form of the address; the argument is ignored.
   virtual DtString toDtString(bool withScope = false) const;
   virtual DtInetUtils::DtInetAddrFamily family() const;
   virtual bool isIPv4() const;
   virtual bool isIPv6() const;
   /// IPv4 only: stores the mask (host order) and the prefix it implies.
   virtual void setNetmask(unsigned int netmask);
   virtual unsigned int netmask() const;
   /// Stores the prefix; on IPv4 also the mask it implies.
   virtual void setPrefixLen(unsigned long prefixLen);
   virtual unsigned long prefix() const;
   virtual bool isMulticast() const;
   virtual bool isBroadcast() const;
   virtual bool isLoopback() const;
   virtual bool isAnyAddr() const;
   /// Owned by this object. IPv4: recomputed on each call as address | ~netmask.
   /// IPv6: FF02::1, made once.
   virtual DtInetAddr* getBroadcastAddr();
   /// A copy of loopbackAddress(family()), made once. It is never released, so
   /// the pointer stays valid after this object is gone.
   virtual DtInetAddr* getLoopbackAddr();
   /// 0, or -1 (target untouched) when the family differs. Only sin_family and
   /// sin_addr are written.
   virtual int toSockaddr(sockaddr_in* out) const;
   /// 0, or -1 (target untouched) when the family differs. Writes sin6_family,
   /// sin6_addr and sin6_scope_id.
   virtual int toSockaddr(sockaddr_in6* out) const;
   virtual int toAddrStorage(sockaddr_storage* out) const;
   virtual DtU128 toU128() const;
   /// IPv4 value in host order; 0 for IPv6.
   virtual unsigned long toULong() const;
   /// Stored only while the Boost address has scope id 0.
   virtual void setScope(DtInetIpv6Scope scope);
   virtual DtInetIpv6Scope scope() const;
   virtual boost::asio::ip::address& boostAddress();
   virtual boost::asio::ip::address const& boostAddress() const;

   /// Process-wide "0.0.0.0" for family 4, "::" for any other family.
   static DtInetAddr const& inaddrAny(DtInetUtils::DtInetAddrFamily family);
   /// Process-wide "::1" for family 6, "127.0.0.1" for any other family.
   static DtInetAddr const& loopbackAddress(DtInetUtils::DtInetAddrFamily family);

protected:
   void initFromStrings(char const* addr, char const* mask);
   /// Works out mask, prefix, flags and scope from the address.
   void init();

private:
   boost::asio::ip::address* myAddress = nullptr;
   unsigned int myNetmask = 0;
   unsigned long myPrefixLen = 0;
   DtInetAddr* myBroadcastAddr = nullptr;
   DtInetAddr* myLoopbackAddr = nullptr;
   bool myIsBroadcast = false;
   bool myIsMulticast = false;
   bool myIsLoopback = false;
   bool myIsAnyAddr = false;
   DtInetIpv6Scope myScope = DtInetIpv6ScopeNone;
};

/// Comparison of the addresses only. Between two IPv6 addresses a scope id of 0
/// matches any scope id (so equality is not transitive across scopes). IPv4
/// sorts before IPv6 and never equals it.
bool operator==(DtInetAddr const& left, DtInetAddr const& right);
bool operator!=(DtInetAddr const& left, DtInetAddr const& right);
bool operator<(DtInetAddr const& left, DtInetAddr const& right);
bool operator>(DtInetAddr const& left, DtInetAddr const& right);

#endif  // OLUTIL_OLINETADDR_H
