//===- olutil/olInetEndpoint.h - Address, port and protocol -----*- C++ -*-===//
//
// Family: Addressing.
//
// DtInetEndpoint is an address, a port and a protocol as one value. It keeps a
// ready Boost.Asio TCP or UDP endpoint beside them, so sockets use it without a
// conversion per send, caches its text forms, and carries an error state of its
// own instead of throwing. hostLookup decides how a destination text resolves:
// to a local interface name first, then a numeric address, then the resolver.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETENDPOINT_H
#define OLUTIL_OLINETENDPOINT_H

#include <iosfwd>

#include <netinet/in.h>

#include <olutil/olInetAddr.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olString.h>

// Only pointers to the Boost endpoints appear here; the sources that use them
// include Boost.Asio themselves.
namespace boost
{
namespace asio
{
namespace ip
{
class tcp;
class udp;
template <typename InternetProtocol>
class basic_endpoint;
}  // namespace ip
}  // namespace asio
}  // namespace boost

// The transport of an endpoint. The numbers are part of the library's interface.
enum DtInetProtocol
{
   DtInetProtocolUdp = 0,
   DtInetProtocolTcp = 1,
   DtInetProtocolUnspecified = 99
};

// An IPv4 or IPv6 address, a port in host order (0 means any) and a protocol.
//
// The Boost endpoint that matches the protocol exists only while the protocol is
// TCP or UDP, and is rebuilt when the value changes, never at a send. Failed
// lookups do not throw: they set an error state that isOk() shows and that
// getLastErrorString() returns and clears.
//
// Thread safety: none. Even toDtString writes (it fills the text cache), so an
// endpoint shared between threads is guarded by its owner, for reads as well.
class DtInetEndpoint
{
public:
   using TcpEndpoint = boost::asio::ip::basic_endpoint<boost::asio::ip::tcp>;
   using UdpEndpoint = boost::asio::ip::basic_endpoint<boost::asio::ip::udp>;

   // The IPv4 any address, port 0, protocol unspecified, no Boost endpoint.
   DtInetEndpoint();
   DtInetEndpoint(DtInetAddr const& address, unsigned short port, DtInetProtocol protocol);
   // Starts from the IPv4 any address with this port and protocol, then runs
   // hostLookup(text, port, family); test isOk() afterwards.
   DtInetEndpoint(DtString& text, unsigned short port, DtInetProtocol protocol,
                  DtInetUtils::DtInetAddrFamily family);
   // The same for a constant or temporary text, which is copied first.
   DtInetEndpoint(DtString const& text, unsigned short port, DtInetProtocol protocol,
                  DtInetUtils::DtInetAddrFamily family);

   // Copies everything, the error state and the cached texts included.
   DtInetEndpoint(DtInetEndpoint const& other);
   // Replaces a Boost endpoint only where the source has one, copies address,
   // port and protocol, and leaves this endpoint's error state as it was.
   DtInetEndpoint& operator=(DtInetEndpoint const& other);
   // Makes this endpoint what the copy constructor would make of `other`: its Boost
   // endpoints, error state and cached texts too. Sockets take their destination this
   // way, so that a failed lookup stays visible and the stale address is never used.
   void assignWhole(DtInetEndpoint const& other);
   virtual ~DtInetEndpoint();

   // Resolves a destination text: a local interface name, a numeric address
   // (with a netmask or prefix), or a host name, which goes to the resolver as
   // the whole text. The port argument is used when this endpoint's port is 0.
   // A failure sets the error state and keeps the previous address. The text is
   // only read.
   virtual void hostLookup(DtString& text, unsigned short port,
                           DtInetUtils::DtInetAddrFamily family);
   // The same for a constant or temporary text, which is copied first.
   void hostLookup(DtString const& text, unsigned short port, DtInetUtils::DtInetAddrFamily family);

   // setAddress and setPort rebuild the Boost endpoint and the texts unless the
   // protocol is unspecified; then the cached texts stay as they were.
   virtual void setAddress(DtInetAddr const& address);
   virtual DtInetAddr const& address() const;
   virtual void setPort(unsigned short port);
   virtual unsigned short port() const;
   virtual void setProtocol(DtInetProtocol protocol);
   virtual DtInetProtocol protocol() const;
   virtual DtInetUtils::DtInetAddrFamily family() const;
   virtual void setEndpoint(DtInetProtocol protocol, DtInetAddr const& address,
                            unsigned short port);
   virtual bool isIPv4() const;
   virtual bool isIPv6() const;
   virtual bool isTcp() const;
   virtual bool isUdp() const;

   // Fill the address and the port (network order). 0 on success; a non-zero
   // result (the wrong family) leaves the port untouched.
   virtual int toSockaddr(sockaddr_in* target) const;
   virtual int toSockaddr(sockaddr_in6* target) const;

   // "10.0.0.1:any", "[::1]:3000"; with withProtocol, "(TCP)" or "(UDP)" follows
   // ("10.0.0.1:any(UDP)"). The reference is to the endpoint's own cache, rebuilt
   // by the first call after a change.
   virtual DtString const& toDtString(bool withProtocol = false) const;

   virtual bool isOk() const;
   // The message of the last failed lookup; reading it clears the error state.
   virtual DtString getLastErrorString();

   // The Boost endpoints, null where none was built.
   virtual TcpEndpoint* tcpEndpoint() const;
   virtual UdpEndpoint* udpEndpoint() const;

private:
   void initEndpoint();
   void setError(DtString const& message);

   TcpEndpoint* myTcpEndpoint = nullptr;
   UdpEndpoint* myUdpEndpoint = nullptr;
   DtInetAddr myAddress{DtInetUtils::DtInetFamilyIPv4};
   unsigned short myPort = 0;
   DtInetProtocol myProtocol = DtInetProtocolUnspecified;
   bool myError = false;
   DtString myLastError;
   mutable bool myTextValid = false;
   mutable DtString myShortText;
   mutable DtString myLongText;
};

// Endpoints compare by their Boost endpoint of the left operand's protocol
// (address, then port). An endpoint of unspecified protocol, or one that lacks
// the Boost endpoint, equals nothing, not even itself, and is not less than
// anything; > is "neither < nor ==", so it holds both ways round for those.
bool operator==(DtInetEndpoint const& left, DtInetEndpoint const& right);
bool operator!=(DtInetEndpoint const& left, DtInetEndpoint const& right);
bool operator<(DtInetEndpoint const& left, DtInetEndpoint const& right);
bool operator>(DtInetEndpoint const& left, DtInetEndpoint const& right);

// Writes the long text form.
std::ostream& operator<<(std::ostream& stream, DtInetEndpoint const& endpoint);

#endif  // OLUTIL_OLINETENDPOINT_H
