//===- olInetEndpoint.cpp - Address, port and protocol ---------------------===//
//
// The endpoint keeps its Boost.Asio endpoint ready for the sockets and resolves
// destination texts: interface name, numeric form, then the resolver.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetEndpoint.h>

#include <cstring>

#include <ostream>
#include <string>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/udp.hpp>

#include <olutil/olInetDevice.h>

namespace
{

bool isFamily6(DtInetUtils::DtInetAddrFamily family)
{
   return family == DtInetUtils::DtInetFamilyIPv6;
}

// A Boost endpoint for the address and port. The any address is built from the
// family's protocol object, which gives the unspecified address of that family.
template <class Protocol>
typename Protocol::endpoint* newBoostEndpoint(DtInetAddr const& address, unsigned short port)
{
   if (address.isAnyAddr())
   {
      return new typename Protocol::endpoint(
          isFamily6(address.family()) ? Protocol::v6() : Protocol::v4(), port);
   }
   return new typename Protocol::endpoint(address.boostAddress(), port);
}

template <class Endpoint>
Endpoint* copyOf(Endpoint const* endpoint)
{
   return endpoint ? new Endpoint(*endpoint) : nullptr;
}

// The resolver step of a lookup: the first entry of the name's resolution, as
// text. False when the resolver gave an error or nothing.
template <class Protocol>
bool resolveFirst(std::string const& host, std::string const& service,
                  DtInetUtils::DtInetAddrFamily family, std::string& found)
{
   boost::asio::io_context context;
   typename Protocol::resolver resolver(context);
   // Only families configured on this host, and the service as a plain number.
   auto const flags = boost::asio::ip::resolver_base::address_configured |
                      boost::asio::ip::resolver_base::numeric_service;
   boost::system::error_code error;
   typename Protocol::resolver::results_type results;
   switch (family)
   {
      case DtInetUtils::DtInetFamilyIPv4:
         results = resolver.resolve(Protocol::v4(), host, service, flags, error);
         break;
      case DtInetUtils::DtInetFamilyIPv6:
         results = resolver.resolve(Protocol::v6(), host, service, flags, error);
         break;
      default:
         results = resolver.resolve(host, service, flags, error);
         break;
   }
   if (error || results.empty())
   {
      return false;
   }
   found = results.begin()->endpoint().address().to_string();
   return true;
}

// Reads a port or prefix as the lookup does: the value counts only when the
// conversion reported failure. A well-formed number is therefore never applied;
// callers depend on the port argument ruling over a port in the text.
bool readUnconfirmed(DtString const& text, int& value)
{
   bool ok = false;
   value = text.toInt(&ok);
   return !ok;
}

}  // namespace

// ---------------------------------------------------------------- construction

DtInetEndpoint::DtInetEndpoint() {}

DtInetEndpoint::DtInetEndpoint(DtInetAddr const& address, unsigned short port,
                               DtInetProtocol protocol)
    : myAddress(address), myPort(port), myProtocol(protocol)
{
   initEndpoint();
}

DtInetEndpoint::DtInetEndpoint(DtString& text, unsigned short port, DtInetProtocol protocol,
                               DtInetUtils::DtInetAddrFamily family)
    : myPort(port), myProtocol(protocol)
{
   hostLookup(text, port, family);
}

DtInetEndpoint::DtInetEndpoint(DtString const& text, unsigned short port, DtInetProtocol protocol,
                               DtInetUtils::DtInetAddrFamily family)
    : myPort(port), myProtocol(protocol)
{
   DtString copy(text);
   hostLookup(copy, port, family);
}

DtInetEndpoint::DtInetEndpoint(DtInetEndpoint const& other)
    : myTcpEndpoint(copyOf(other.myTcpEndpoint)),
      myUdpEndpoint(copyOf(other.myUdpEndpoint)),
      myAddress(other.myAddress),
      myPort(other.myPort),
      myProtocol(other.myProtocol),
      myError(other.myError),
      myLastError(other.myLastError),
      myTextValid(other.myTextValid),
      myShortText(other.myShortText),
      myLongText(other.myLongText)
{
}

DtInetEndpoint& DtInetEndpoint::operator=(DtInetEndpoint const& other)
{
   if (this == &other)
   {
      return *this;
   }
   // Only the Boost endpoints the source has are replaced; the other one stays,
   // and the protocol decides which of them counts from now on.
   if (other.myTcpEndpoint)
   {
      delete myTcpEndpoint;
      myTcpEndpoint = copyOf(other.myTcpEndpoint);
   }
   if (other.myUdpEndpoint)
   {
      delete myUdpEndpoint;
      myUdpEndpoint = copyOf(other.myUdpEndpoint);
   }
   myAddress = other.myAddress;
   myPort = other.myPort;
   myProtocol = other.myProtocol;
   myTextValid = false;
   return *this;
}

void DtInetEndpoint::assignWhole(DtInetEndpoint const& other)
{
   if (this == &other)
   {
      return;
   }
   *this = other;
   // Assignment keeps a Boost endpoint that the source lacks; a copy has none.
   if (!other.myTcpEndpoint)
   {
      delete myTcpEndpoint;
      myTcpEndpoint = nullptr;
   }
   if (!other.myUdpEndpoint)
   {
      delete myUdpEndpoint;
      myUdpEndpoint = nullptr;
   }
   myError = other.myError;
   myLastError = other.myLastError;
   myTextValid = other.myTextValid;
   myShortText = other.myShortText;
   myLongText = other.myLongText;
}

DtInetEndpoint::~DtInetEndpoint()
{
   delete myTcpEndpoint;
   delete myUdpEndpoint;
}

// ---------------------------------------------------------------- lookup

void DtInetEndpoint::hostLookup(DtString const& text, unsigned short port,
                                DtInetUtils::DtInetAddrFamily family)
{
   DtString copy(text);
   hostLookup(copy, port, family);
}

void DtInetEndpoint::hostLookup(DtString& text, unsigned short port,
                                DtInetUtils::DtInetAddrFamily family)
{
   if (myPort == 0)
   {
      myPort = port;
   }

   DtString host;
   DtString portOrMask;
   int kind = 0;
   DtInetUtils::DtInetAddrFamily const parsed =
       DtInetUtils::parseNetResLoc(text, host, portOrMask, kind);

   if (kind == DtInetUtils::DtNetResLocPort)
   {
      int value = 0;
      // A failed read gives 0, or INT_MIN for a number out of range; the latter
      // would wrap to port 0 ("any"), so only a positive value counts.
      if (readUnconfirmed(portOrMask, value) && value > 0 && value < 65535)
      {
         myPort = static_cast<unsigned short>(value);
      }
   }

   // An interface name works as a destination: its address stands for it.
   DtInetDevice device(text, DtInetUtils::DtInetFamilyIPv4);
   if (device.isOk())
   {
      if (device.hasIpv6Addr() && (isFamily6(family) || DtInetUtils::isIpv6AddrString(text)))
      {
         myAddress = *device.ipv6Addr();
      }
      else if (device.hasIpv4Addr())
      {
         myAddress = *device.ipv4Addr();
      }
      else
      {
         setError("Local interface device " + text + " is inactive");
      }
   }
   else if (parsed == DtInetUtils::DtInetFamilyNone)
   {
      // A host name: the resolver gets the text as it was given, so a port or
      // mask written after a name makes the lookup fail. An empty text asks the
      // resolver for no host at all, which answers with a loopback address.
      std::string found;
      char const* const raw = text.c_str();
      std::string const name = raw ? raw : "";
      std::string const service = std::to_string(myPort);
      bool const resolved = myProtocol == DtInetProtocolTcp
                                ? resolveFirst<boost::asio::ip::tcp>(name, service, family, found)
                                : resolveFirst<boost::asio::ip::udp>(name, service, family, found);
      if (resolved)
      {
         myAddress = DtInetAddr(found.c_str(), "");
      }
      else
      {
         setError("Host lookup failed for " + text);
      }
   }

   if (parsed == DtInetUtils::DtInetFamilyIPv4 || parsed == DtInetUtils::DtInetFamilyIPv6)
   {
      if (kind == DtInetUtils::DtNetResLocNetmask)
      {
         myAddress = DtInetAddr(host, portOrMask);
      }
      else
      {
         myAddress = DtInetAddr(host, "");
         int prefix = 0;
         int const bound = parsed == DtInetUtils::DtInetFamilyIPv4 ? 32 : 128;
         if (kind == DtInetUtils::DtNetResLocPrefix && readUnconfirmed(portOrMask, prefix) &&
             prefix >= 1 && prefix < bound)
         {
            myAddress.setPrefixLen(static_cast<unsigned long>(prefix));
         }
      }
   }

   if (myProtocol != DtInetProtocolUnspecified)
   {
      initEndpoint();
   }
}

// ---------------------------------------------------------------- accessors

void DtInetEndpoint::setAddress(DtInetAddr const& address)
{
   myAddress = address;
   // Kept on purpose: an unspecified endpoint keeps its cached text.
   if (myProtocol != DtInetProtocolUnspecified)
   {
      initEndpoint();
   }
}

DtInetAddr const& DtInetEndpoint::address() const
{
   return myAddress;
}

void DtInetEndpoint::setPort(unsigned short port)
{
   myPort = port;
   if (myProtocol != DtInetProtocolUnspecified)
   {
      initEndpoint();
   }
}

unsigned short DtInetEndpoint::port() const
{
   return myPort;
}

void DtInetEndpoint::setProtocol(DtInetProtocol protocol)
{
   myProtocol = protocol;
   initEndpoint();
}

DtInetProtocol DtInetEndpoint::protocol() const
{
   return myProtocol;
}

DtInetUtils::DtInetAddrFamily DtInetEndpoint::family() const
{
   return myAddress.family();
}

void DtInetEndpoint::setEndpoint(DtInetProtocol protocol, DtInetAddr const& address,
                                 unsigned short port)
{
   myProtocol = protocol;
   myAddress = address;
   myPort = port;
   initEndpoint();
}

bool DtInetEndpoint::isIPv4() const
{
   return myAddress.isIPv4();
}

bool DtInetEndpoint::isIPv6() const
{
   return myAddress.isIPv6();
}

bool DtInetEndpoint::isTcp() const
{
   return myProtocol == DtInetProtocolTcp;
}

bool DtInetEndpoint::isUdp() const
{
   return myProtocol == DtInetProtocolUdp;
}

int DtInetEndpoint::toSockaddr(sockaddr_in* target) const
{
   int const result = myAddress.toSockaddr(target);
   if (result == 0)
   {
      target->sin_port = htons(myPort);
   }
   return result;
}

int DtInetEndpoint::toSockaddr(sockaddr_in6* target) const
{
   int const result = myAddress.toSockaddr(target);
   if (result == 0)
   {
      target->sin6_port = htons(myPort);
   }
   return result;
}

DtString const& DtInetEndpoint::toDtString(bool withProtocol) const
{
   if (!myTextValid)
   {
      DtString const portText =
          myPort == 0 ? DtString("any") : DtString(static_cast<unsigned int>(myPort));
      DtString const addressText = myAddress.toDtString(false);
      if (isFamily6(myAddress.family()))
      {
         myShortText = "[";
         myShortText += addressText;
         myShortText += "]:";
      }
      else
      {
         myShortText = addressText;
         myShortText += ":";
      }
      myShortText += portText;

      myLongText = myShortText;
      if (myProtocol == DtInetProtocolTcp)
      {
         myLongText += "(TCP)";
      }
      else if (myProtocol == DtInetProtocolUdp)
      {
         myLongText += "(UDP)";
      }
      myTextValid = true;
   }
   return withProtocol ? myLongText : myShortText;
}

bool DtInetEndpoint::isOk() const
{
   return !myError;
}

DtString DtInetEndpoint::getLastErrorString()
{
   DtString message(myLastError);
   myLastError = "";
   myError = false;
   return message;
}

DtInetEndpoint::TcpEndpoint* DtInetEndpoint::tcpEndpoint() const
{
   return myTcpEndpoint;
}

DtInetEndpoint::UdpEndpoint* DtInetEndpoint::udpEndpoint() const
{
   return myUdpEndpoint;
}

// ---------------------------------------------------------------- internals

void DtInetEndpoint::initEndpoint()
{
   delete myTcpEndpoint;
   myTcpEndpoint = nullptr;
   delete myUdpEndpoint;
   myUdpEndpoint = nullptr;
   if (myProtocol == DtInetProtocolTcp)
   {
      myTcpEndpoint = newBoostEndpoint<boost::asio::ip::tcp>(myAddress, myPort);
   }
   else if (myProtocol == DtInetProtocolUdp)
   {
      myUdpEndpoint = newBoostEndpoint<boost::asio::ip::udp>(myAddress, myPort);
   }
   myTextValid = false;
}

void DtInetEndpoint::setError(DtString const& message)
{
   myError = true;
   myLastError = message;
}

// ---------------------------------------------------------------- comparison

bool operator==(DtInetEndpoint const& left, DtInetEndpoint const& right)
{
   switch (left.protocol())
   {
      case DtInetProtocolTcp:
         return left.tcpEndpoint() && right.tcpEndpoint() &&
                *left.tcpEndpoint() == *right.tcpEndpoint();
      case DtInetProtocolUdp:
      {
         DtInetEndpoint::UdpEndpoint const* l = left.udpEndpoint();
         DtInetEndpoint::UdpEndpoint const* r = right.udpEndpoint();
         // Identical socket addresses settle the common case (the same sender again)
         // without building two address objects; others are compared field by field.
         return l && r &&
                ((l->size() == r->size() && std::memcmp(l->data(), r->data(), l->size()) == 0) ||
                 *l == *r);
      }
      default:
         // An unspecified endpoint equals nothing, itself included.
         return false;
   }
}

bool operator!=(DtInetEndpoint const& left, DtInetEndpoint const& right)
{
   return !(left == right);
}

bool operator<(DtInetEndpoint const& left, DtInetEndpoint const& right)
{
   switch (left.protocol())
   {
      case DtInetProtocolTcp:
         return left.tcpEndpoint() && right.tcpEndpoint() &&
                *left.tcpEndpoint() < *right.tcpEndpoint();
      case DtInetProtocolUdp:
         return left.udpEndpoint() && right.udpEndpoint() &&
                *left.udpEndpoint() < *right.udpEndpoint();
      default:
         return false;
   }
}

bool operator>(DtInetEndpoint const& left, DtInetEndpoint const& right)
{
   return !(left < right) && !(left == right);
}

std::ostream& operator<<(std::ostream& stream, DtInetEndpoint const& endpoint)
{
   return stream << endpoint.toDtString(true).c_str();
}
