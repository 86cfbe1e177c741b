//===- olInetUdpSocket.cpp - The datagram socket ---------------------------===//
//
// Family: Sockets.
//
// Opening (local address and second-socket decisions), multicast membership, socket
// options, and the plain and chain send and receive operations of DtInetUdpSocket.
// The background queues live in DtInetUdpSockPimpl.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetUdpSocket.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <string>
#include <type_traits>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/multicast.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olExceptions.h>
#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetDevice.h>
#include <olutil/olInetSocketUtils.h>

#include "olInetUdpSockPimpl.h"

// Older C libraries lack the name; kernels before 4.20 refuse the option.
#ifndef IPV6_MULTICAST_ALL
#define IPV6_MULTICAST_ALL 29
#endif

namespace
{

typedef boost::asio::ip::udp::endpoint BoostEndpoint;
typedef boost::system::error_code ErrorCode;

constexpr int theWouldBlockError = 11;
constexpr int theConnectionResetError = 104;
constexpr int theNoBufferSpaceError = 105;
constexpr unsigned int theAllBits = 0xFFFFFFFFu;

char const* const theSendNotEnabled =
    "DtInetUdpSocket::send()/sendTo(): Socket not initialized for sending.";
char const* const theChainSendNotEnabled =
    "DtInetUdpSocket::sendChain()/sendChainTo(): Socket not initialized for sending.";
char const* const theTcpEndpoint = "DtInetUdpSocket::sendTo(): endpoint is a TCP endpoint";
char const* const theNoDestination = "Error - no default destination set.";
char const* const theOpenPrefix = "DtInetUdpSocket::openSocket(): ";
char const* const theBadDevice = "DtInetUdpSocket::openSocket(): Bad device: ";
char const* const theOpenFailure = "Error opening Boost socket\n";
char const* const theClosePrefix = "DtInetUdpSocket::closeSocket(): ";
char const* const theCloseFailure = "Error closing Boost socket\n";
char const* const theNoMcastDevice = " cannot find a multicast capable device";

std::string text(DtString const& value)
{
   return std::string(value.c_str());
}

std::string text(DtInetEndpoint const& endpoint)
{
   return text(endpoint.toDtString());
}

std::string text(DtInetAddr const& address)
{
   return text(address.toDtString());
}

std::string enabling(bool enable)
{
   return enable ? "enabling" : "disabling";
}

// The Boost endpoint for sending to or binding at `endpoint`, whatever its protocol.
BoostEndpoint boostEndpoint(DtInetEndpoint const& endpoint)
{
   if (DtInetEndpoint::UdpEndpoint const* ready = endpoint.udpEndpoint())
      return *ready;
   return BoostEndpoint(endpoint.address().boostAddress(), endpoint.port());
}

// Stores a datagram's sender in the caller's endpoint. A sender that is already there,
// the usual case of a steady peer, costs nothing.
void storeSender(BoostEndpoint const& sender, DtInetEndpoint& endpoint)
{
   // Comparing the raw socket addresses avoids building two address objects per
   // datagram; two equal endpoints that differ in padding only take the long way.
   // The usual IPv4 sender is compared at a fixed size, which needs no library call.
   DtInetEndpoint::UdpEndpoint const* current = endpoint.udpEndpoint();
   if (current && current->size() == sender.size() &&
       (sender.size() == sizeof(sockaddr_in)
            ? std::memcmp(current->data(), sender.data(), sizeof(sockaddr_in)) == 0
            : std::memcmp(current->data(), sender.data(), sender.size()) == 0) &&
       endpoint.protocol() == DtInetProtocolUdp)
      return;
   // Whatever the caller's endpoint held before, a datagram's sender is a UDP peer;
   // self-reflect suppression compares UDP endpoints and relies on this.
   if (endpoint.protocol() != DtInetProtocolUdp)
      endpoint.setProtocol(DtInetProtocolUdp);
   // A Boost address keeps an IPv6 scope id, and the DtInetAddr made from it too.
   boost::asio::ip::address address = sender.address();
   endpoint.setAddress(DtInetAddr(static_cast<void*>(&address)));
   endpoint.setPort(sender.port());
}

bool isBroadcastOrMulticast(DtInetEndpoint const& endpoint)
{
   DtInetAddr const& address = endpoint.address();
   return address.isBroadcast() || address.isMulticast();
}

}  // namespace

// ------------------------------------------------------------------ construction

DtInetUdpSocket::DtInetUdpSocket()
    : DtInetSocket(),
      myPimpl(nullptr),
      myIoContext(new boost::asio::io_context),
      myUdpSocket(new DtInetBoostUdpSocket(*myIoContext)),
      mySecondUdpSocket(myUdpSocket),
      myJoinedGroups(),
      myClock()
{
   myPimpl = new DtInetUdpSockPimpl(myIoContext, this);
   setState(DtInetSockStateInitialized);
}

DtInetUdpSocket::DtInetUdpSocket(DtInetEndpoint const& destination, unsigned short localPort,
                                 DtInetDevice* device, unsigned int flags, bool open)
    : DtInetUdpSocket()
{
   setState(DtInetSockStateNone);
   setLocalPort(localPort);
   // Whole, so that a destination whose lookup failed is refused by the sends.
   myDestination.assignWhole(destination);
   bindToDevice(device);
   setFlags(flags);
   myOpenOnConstruction = open;
   setState(DtInetSockStateInitialized);
   if (open)
      openSocket();
}

DtInetUdpSocket::~DtInetUdpSocket()
{
   closeSocket();
   delete myPimpl;
   myPimpl = nullptr;
   if (mySecondUdpSocket != myUdpSocket)
      delete mySecondUdpSocket;
   delete myUdpSocket;
   mySecondUdpSocket = nullptr;
   myUdpSocket = nullptr;
   delete myIoContext;
   myIoContext = nullptr;
}

bool DtInetUdpSocket::setDestination(DtInetEndpoint const& destination)
{
   static char const* const prefix = "DtInetUdpSocket::setDestination(): ";
   if (myState == DtInetSockStateOpen && isBroadcastOrMulticast(myDestination))
   {
      // The socket was bound and joined for this group; a new peer would need both
      // redone.
      recordError(106, std::string(prefix) +
                           "Cannot change destination endpoint of open broadcast/multicast socket");
      return false;
   }
   if (destination.protocol() == DtInetProtocolUnspecified)
   {
      myDestination.assignWhole(destination);
      myDestination.setProtocol(DtInetProtocolUdp);
      return true;
   }
   if (destination.protocol() != DtInetProtocolUdp)
   {
      recordError(22, std::string(prefix) + "Specified destination endpoint is not UDP");
      return false;
   }
   myDestination.assignWhole(destination);
   return true;
}

bool DtInetUdpSocket::bindToDevice(DtInetDevice const* device)
{
   if (!device || myState > DtInetSockStateInitialized)
      return true;
   delete myHostIf;
   myHostIf = new DtInetDevice(*device);
   return true;
}

bool DtInetUdpSocket::setSocket(DtInetEndpoint const& destination, unsigned short localPort,
                                DtInetDevice* device, unsigned int flags)
{
   if (myState != DtInetSockStateNone && myState != DtInetSockStateInitialized)
      return false;
   setLocalPort(localPort);
   setFlags(flags);
   myOpenOnConstruction = false;
   if (!setDestination(destination) || !bindToDevice(device))
      return false;
   setState(DtInetSockStateInitialized);
   return true;
}

bool DtInetUdpSocket::isOk()
{
   return myState == DtInetSockStateOpen || myState == DtInetSockStateConnected;
}

int DtInetUdpSocket::descriptor() const
{
   return myUdpSocket->native_handle();
}

DtInetBoostUdpSocket* DtInetUdpSocket::udpSocket()
{
   return myUdpSocket;
}

DtInetBoostUdpSocket* DtInetUdpSocket::secondUdpSocket()
{
   return mySecondUdpSocket;
}

// ------------------------------------------------------------------ open and close

bool DtInetUdpSocket::openSocket()
{
   if (myState == DtInetSockStateOpen || myState == DtInetSockStateConnected)
      return true;
   if (myState != DtInetSockStateInitialized)
   {
      recordFailure(131, std::string(theOpenPrefix) + "Invalid state " + std::to_string(myState));
      return false;
   }
   if (myLocalEndpoint.protocol() == DtInetProtocolTcp)
   {
      recordFailure(93,
                    std::string(theOpenPrefix) + "Cannot open UDP socket from local TCP endpoint");
      return false;
   }
   if (myDestination.protocol() == DtInetProtocolTcp)
   {
      recordFailure(93,
                    std::string(theOpenPrefix) + "Cannot open UDP socket to a remote TCP endpoint");
      return false;
   }
   if (myDestination.protocol() == DtInetProtocolUnspecified)
      myDestination.setProtocol(DtInetProtocolUdp);

   DtInetAddr const& destinationAddress = myDestination.address();
   bool const destinationIpv6 = destinationAddress.isIPv6();
   bool const destinationMulticast = destinationAddress.isMulticast();
   bool const destinationBroadcast = destinationAddress.isBroadcast();

   // A group or broadcast is heard on its own port.
   if ((destinationBroadcast || destinationMulticast) && myLocalEndpoint.port() == 0)
      myLocalEndpoint.setPort(myDestination.port());

   // Broadcast and multicast traffic is only delivered to a socket bound to the any-
   // address. A multicast destination already takes that path, so the any-bind flag
   // cannot change the outcome; it is kept for the applications that set it.
   bool const anyAddressPath = (!destinationIpv6 && destinationBroadcast) || destinationMulticast ||
                               !myHostIf ||
                               ((myFlags & DtInetSockFlagMcastAnyBind) && destinationMulticast);
   bool secondSocketNeeded = false;
   if (anyAddressPath)
   {
      if (destinationIpv6)
      {
         myLocalEndpoint.setAddress(DtInetAddr::inaddrAny(DtInetUtils::DtInetFamilyIPv6));
      }
      else
      {
         myLocalEndpoint.setAddress(DtInetAddr::inaddrAny(DtInetUtils::DtInetFamilyIPv4));
         if (myHostIf)
         {
            // Sending from a device other than the primary one needs its own socket
            // bound to that device; receiving stays on a second, any-bound socket.
            DtInetDeviceList const devices = DtInetUtils::scanInetDevices(true, false);
            DtInetDevice const* primary = devices.empty() ? nullptr : devices[0].get();
            if (primary && primary->ipv4Addr() && primary->ipv4Addr()->isLoopback() &&
                devices.size() > 1)
               primary = devices[1].get();
            std::string const primaryText =
                primary && primary->ipv4Addr() ? text(*primary->ipv4Addr()) : std::string();
            std::string const hostText = myHostIf->addr() ? text(*myHostIf->addr()) : std::string();
            if (primaryText != hostText)
            {
               secondSocketNeeded = true;
               if (myHostIf->isOk() && myHostIf->ipv4Addr())
                  myLocalEndpoint.setAddress(*myHostIf->ipv4Addr());
            }
         }
      }
   }
   else
   {
      if (!myHostIf->isOk())
      {
         recordFailure(22, theBadDevice + text(myHostIf->getLastErrorString()));
         return false;
      }
      DtInetAddr const* deviceAddress =
          destinationIpv6 ? myHostIf->ipv6Addr() : myHostIf->ipv4Addr();
      if (!deviceAddress)
      {
         recordFailure(22, theBadDevice + text(myHostIf->deviceName()) +
                               " has no address of the destination's family");
         return false;
      }
      myLocalEndpoint.setAddress(*deviceAddress);
      if (destinationBroadcast && myHostIf->broadcastAddr())
         myDestination.setAddress(*myHostIf->broadcastAddr());
   }

   try
   {
      if (myLocalEndpoint.protocol() != DtInetProtocolUdp)
         myLocalEndpoint.setProtocol(DtInetProtocolUdp);

      ErrorCode error;
      auto fail = [this](ErrorCode const& failure)
      {
         recordFailure(failure.value(),
                       std::string(theOpenPrefix) + theOpenFailure + failure.message());
         return false;
      };

      if (mySecondUdpSocket != myUdpSocket)
         delete mySecondUdpSocket;
      mySecondUdpSocket = myUdpSocket;
      if (!myUdpSocket->is_open())
      {
         myUdpSocket->open(
             myLocalEndpoint.isIPv6() ? boost::asio::ip::udp::v6() : boost::asio::ip::udp::v4(),
             error);
         if (error)
            return fail(error);
      }

      DtInetBoostUdpSocket* second = nullptr;
      if (secondSocketNeeded)
      {
         second = new DtInetBoostUdpSocket(*myIoContext);
         mySecondUdpSocket = second;
         second->open(boost::asio::ip::udp::v4(), error);
         if (error)
            return fail(error);
         // Best effort: a receiving socket that lacks one of these still works.
         ErrorCode ignored;
         second->set_option(boost::asio::socket_base::reuse_address(true), ignored);
         second->non_blocking(true, ignored);
         second->set_option(boost::asio::socket_base::broadcast(true), ignored);
         second->set_option(boost::asio::socket_base::receive_buffer_size(-1), ignored);
      }

      setReuseAddressOption((myFlags & DtInetSockFlagReuseAddress) != 0);
      setNonBlockingOption((myFlags & DtInetSockFlagNonBlocking) != 0);
      setBroadcastOption(true);
      setSendBufferSize(theAllBits);
      setReceiveBufferSize(theAllBits);

      myUdpSocket->bind(boostEndpoint(myLocalEndpoint), error);
      if (error)
         return fail(error);
      if (second)
      {
         // Both sockets share the port; a system-chosen one is known only now.
         unsigned short port = myLocalEndpoint.port();
         if (port == 0)
         {
            BoostEndpoint const bound = myUdpSocket->local_endpoint(error);
            if (error)
               return fail(error);
            port = bound.port();
         }
         DtInetAddr const* deviceAddress = myHostIf->ipv4Addr();
         DtInetAddr const* broadcast = myHostIf->ipv4BroadcastAddr();
         DtInetAddr receiveAddress = DtInetAddr::inaddrAny(DtInetUtils::DtInetFamilyIPv4);
         if (deviceAddress && deviceAddress->isLoopback() && broadcast)
         {
            receiveAddress = DtInetAddr(broadcast->toDtString(), DtString());
            receiveAddress.setNetmask(myLocalEndpoint.address().netmask());
         }
         second->bind(BoostEndpoint(receiveAddress.boostAddress(), port), error);
         if (error)
            return fail(error);
         myPimpl->updateSecondSocket();
      }

      setState(DtInetSockStateOpen);

      if (destinationMulticast)
         joinMulticastGroup(myDestination.address(), myHostIf);

      if (myLocalEndpoint.port() == 0)
      {
         BoostEndpoint const bound = myUdpSocket->local_endpoint(error);
         if (error)
            return fail(error);
         myLocalEndpoint.setPort(bound.port());
      }

      if (myFlags & DtInetSockFlagsAsync)
         myPimpl->start(myFlags);
      return true;
   }
   catch (boost::system::system_error const& failure)
   {
      recordFailure(failure.code().value(),
                    std::string(theOpenPrefix) + theOpenFailure + failure.code().message());
   }
   catch (std::exception const& failure)
   {
      recordFailure(22, std::string(theOpenPrefix) + failure.what());
   }
   catch (DtException const& failure)
   {
      // The background thread could not be started.
      recordFailure(22, std::string(theOpenPrefix) + failure.message());
   }
   return false;
}

bool DtInetUdpSocket::closeSocket()
{
   bool result = true;
   bool const connected = myState == DtInetSockStateConnected;
   auto closeOne = [&](DtInetBoostUdpSocket* socket)
   {
      ErrorCode error;
      if (connected)
      {
         // A datagram socket has no connection to end; shutting down only stops
         // further use, so its failure is of no interest.
         ErrorCode ignored;
         socket->shutdown(boost::asio::socket_base::shutdown_both, ignored);
      }
      socket->close(error);
      if (error)
      {
         recordFailure(error.value(),
                       std::string(theClosePrefix) + theCloseFailure + error.message());
         result = false;
      }
      return !error;
   };

   // The I/O thread starts the next background read on the receiving socket after
   // each datagram; it is stopped before any socket closes, so that no read is
   // started on a closed (or reused) descriptor.
   if (myFlags & DtInetSockFlagsAsync)
      myPimpl->stop();

   if (mySecondUdpSocket != myUdpSocket && mySecondUdpSocket->is_open())
      closeOne(mySecondUdpSocket);

   bool udpClosed = true;
   if (myUdpSocket->is_open())
      udpClosed = closeOne(myUdpSocket);
   if (udpClosed)
      setState(DtInetSockStateClosed);
   myJoinedGroups.clear();
   return result;
}

// ------------------------------------------------------------------ connect

bool DtInetUdpSocket::connectToDestination()
{
   static char const* const prefix = "DtInetUdpSocket::connectToDestination(): ";
   if (isBroadcastOrMulticast(myDestination))
   {
      // A refusal, not a failure: the error number stays 0 and the socket stays usable.
      recordError(0, std::string(prefix) + "cannot connect() to multicast / broadcast destination");
      return false;
   }
   if (myState == DtInetSockStateInitialized && !openSocket())
      return false;
   if (myState != DtInetSockStateOpen && myState != DtInetSockStateConnected)
      return false;

   ErrorCode error;
   myUdpSocket->connect(boostEndpoint(myDestination), error);
   if (error)
   {
      recordFailure(error.value(),
                    "DtInetUdpSocket::connectToDestination(): Error connecting Boost socket\n" +
                        error.message());
      return false;
   }
   setState(DtInetSockStateConnected);
   if (myLocalEndpoint.address().isAnyAddr() || myLocalEndpoint.port() == 0)
   {
      BoostEndpoint const bound = myUdpSocket->local_endpoint(error);
      if (!error)
      {
         boost::asio::ip::address address = bound.address();
         myLocalEndpoint.setAddress(DtInetAddr(static_cast<void*>(&address)));
         myLocalEndpoint.setPort(bound.port());
      }
   }
   return true;
}

bool DtInetUdpSocket::disconnect()
{
   if (myState != DtInetSockStateConnected)
      return false;
   // Connecting a datagram socket to an address of family AF_UNSPEC dissolves its
   // association; Boost endpoints cannot express that family.
   sockaddr unspecified{};
   unspecified.sa_family = AF_UNSPEC;
   if (::connect(myUdpSocket->native_handle(), &unspecified, sizeof unspecified) != 0)
   {
      ErrorCode const error(errno, boost::system::system_category());
      recordFailure(
          error.value(),
          std::string("DtInetUdpSocket::disconnect(): Error disconnecting Boost socket\n") +
              error.message());
      return false;
   }
   // The state stays connected on purpose: applications test for state 6 to know that
   // sends go to the stored destination, which they still do.
   return true;
}

// ------------------------------------------------------------------ send

int DtInetUdpSocket::send(char* buffer, unsigned long length, unsigned int flags)
{
   if (!myDestination.isOk() || myDestination.port() == 0)
   {
      recordFailure(89, std::string("DtInetUdpSocket::send(): ") + theNoDestination);
      return DtInetSockResultFailed;
   }
   return sendTo(buffer, length, myDestination, flags);
}

int DtInetUdpSocket::sendChain(DtInetSockChain& chain, unsigned int flags)
{
   if (!myDestination.isOk() || myDestination.port() == 0)
   {
      recordFailure(89, std::string("DtInetUdpSocket::sendChain(): ") + theNoDestination);
      return DtInetSockResultFailed;
   }
   return sendChainTo(chain, myDestination, flags);
}

DtInetEndpoint* DtInetUdpSocket::sendTarget(DtInetEndpoint& endpoint, char const* notEnabledText)
{
   if ((myFlags & (DtInetSockFlagSend | DtInetSockFlagAsyncSend)) == 0)
   {
      recordFailure(95, notEnabledText);
      return nullptr;
   }
   if (myState == DtInetSockStateConnected)
      return &myDestination;
   if (endpoint.protocol() == DtInetProtocolTcp)
   {
      recordFailure(95, theTcpEndpoint);
      return nullptr;
   }
   if (endpoint.protocol() == DtInetProtocolUnspecified)
      endpoint.setProtocol(DtInetProtocolUdp);
   return &endpoint;
}

int DtInetUdpSocket::sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                            unsigned int)
{
   DtInetEndpoint* const found = sendTarget(endpoint, theSendNotEnabled);
   if (!found)
      return DtInetSockResultFailed;
   DtInetEndpoint& target = *found;

   ErrorCode error;
   int result = 0;
   if (myFlags & DtInetSockFlagAsyncSend)
   {
      result = myPimpl->asyncSendTo(new std::vector<char>(buffer, buffer + length),
                                    new BoostEndpoint(boostEndpoint(target)), error);
   }
   else
   {
      result = static_cast<int>(myUdpSocket->send_to(boost::asio::buffer(buffer, length),
                                                     boostEndpoint(target), 0, error));
   }
   if (error)
   {
      recordError(error.value(), "DtInetUdpSocket::send()/sendTo() failed from " +
                                     text(myLocalEndpoint) + " to " + text(target) + "\n" +
                                     error.message());
      if (!(myNonBlocking && error.value() == theWouldBlockError))
         return DtInetSockResultFailed;
      result = 0;
   }
   ++myTotalPacketsSent;
   myTotalBytesSent += static_cast<std::uint64_t>(result);
   return result;
}

int DtInetUdpSocket::sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                 unsigned int flags)
{
   DtInetEndpoint* const found = sendTarget(endpoint, theChainSendNotEnabled);
   if (!found)
      return DtInetSockResultFailed;
   DtInetEndpoint& target = *found;
   return runSendPipeline(
       DtInetProtocolUdp, chain, target, flags,
       [this](DtInetSockChain& packet, DtInetEndpoint& to) { return transmitChain(packet, to); },
       "DtInetUdpSocket::sendChain()/sendChainTo(): Pre-send callback failed.",
       "DtInetUdpSocket::sendChain()/sendChainTo(): Post-send callback failed.");
}

int DtInetUdpSocket::transmitChain(DtInetSockChain& chain, DtInetEndpoint& target)
{
   ErrorCode error;
   int result = 0;
   if (myFlags & DtInetSockFlagAsyncSend)
   {
      result = myPimpl->asyncSendChainTo(chain, new BoostEndpoint(boostEndpoint(target)), error);
   }
   else if (chain.size() == 1 && chain[0])
   {
      result = static_cast<int>(
          myUdpSocket->send_to(boost::asio::buffer(*chain[0]), boostEndpoint(target), 0, error));
   }
   else
   {
      result = static_cast<int>(
          DtInetSockSendChainTo(*myUdpSocket, chain, boostEndpoint(target), error));
   }
   if (error)
   {
      recordError(error.value(), "DtInetUdpSocket::sendChain()/sendChainTo() failed from " +
                                     text(myLocalEndpoint) + " to " + text(target) + "\n" +
                                     error.message());
      return myNonBlocking && error.value() == theWouldBlockError ? 0 : DtInetSockResultFailed;
   }
   return result;
}

// ------------------------------------------------------------------ receive

int DtInetUdpSocket::recv(char* buffer, unsigned long length, unsigned int)
{
   return readBuffer(buffer, length, nullptr, "DtInetUdpSocket::recv() failed on socket at ");
}

int DtInetUdpSocket::recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                              unsigned int)
{
   return readBuffer(buffer, length, &endpoint, "DtInetUdpSocket::recvFrom() failed on socket at ");
}

int DtInetUdpSocket::readBuffer(char* buffer, unsigned long length, DtInetEndpoint* sender,
                                char const* failureText)
{
   ErrorCode error;
   BoostEndpoint from;
   int result = 0;
   if (myFlags & DtInetSockFlagAsyncRecv)
   {
      double time = myReceiveTime;
      result = myPimpl->getFromReceiveQueue(buffer, length, from, error, time);
      if (result > 0)
         myReceiveTime = time;
   }
   else
   {
      // MSG_TRUNC makes the system report the datagram's real length, so a datagram
      // cut short by a small buffer is seen (and reported as not fitting).
      std::size_t const bytes = mySecondUdpSocket->receive_from(boost::asio::buffer(buffer, length),
                                                                from, MSG_TRUNC, error);
      if (!error && bytes > length)
         error = ErrorCode(theNoBufferSpaceError, boost::system::system_category());
      result = error ? 0 : static_cast<int>(bytes);
   }

   if (error)
   {
      // Polling loops see "nothing" and "too big" without error text building up.
      if (error.value() == theWouldBlockError)
         return 0;
      if (error.value() == theNoBufferSpaceError)
         return DtInetSockResultNoFit;
      recordError(error.value(), failureText + text(myLocalEndpoint) + "\n" + error.message());
      return DtInetSockResultFailed;
   }
   if (result < 0)
      return result;
   if (result > 0 && sender)
      storeSender(from, *sender);
   countReceived(result);
   return result;
}

int DtInetUdpSocket::readChainWithoutCallbacks(DtInetSockChain& chain, DtInetEndpoint& sender,
                                               char const* failureText)
{
   // The receive pipeline with both callback lists empty: the read and the counters.
   if (chain.empty())
      return DtInetSockResultNoFit;
   int const length = readChain(chain, sender, failureText);
   if (length > 0)
      countReceived(length);
   return length;
}

int DtInetUdpSocket::recvToChain(DtInetSockChain& chain, unsigned int flags)
{
   DtInetEndpoint scratch;
   if (myPreReceiveCallbacks.empty() && myPostReceiveCallbacks.empty())
      return readChainWithoutCallbacks(chain, scratch,
                                       "DtInetUdpSocket::recvToChain() failed on socket at ");
   return runReceivePipeline(
       chain, scratch, flags,
       [this](DtInetSockChain& packet, DtInetEndpoint& from)
       { return readChain(packet, from, "DtInetUdpSocket::recvToChain() failed on socket at "); });
}

int DtInetUdpSocket::recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                     unsigned int flags)
{
   // Most sockets have no receive callbacks; they skip the pipeline's step objects.
   if (myPreReceiveCallbacks.empty() && myPostReceiveCallbacks.empty())
      return readChainWithoutCallbacks(chain, endpoint,
                                       "DtInetUdpSocket::recvToChainFrom() failed on socket at ");
   return runReceivePipeline(
       chain, endpoint, flags,
       [this](DtInetSockChain& packet, DtInetEndpoint& from) {
          return readChain(packet, from, "DtInetUdpSocket::recvToChainFrom() failed on socket at ");
       });
}

int DtInetUdpSocket::readChain(DtInetSockChain& chain, DtInetEndpoint& sender,
                               char const* failureText)
{
   ErrorCode error;
   BoostEndpoint from;
   int result = 0;
   if (myFlags & DtInetSockFlagAsyncRecv)
   {
      double time = myReceiveTime;
      result = myPimpl->getFromReceiveQueue(chain, from, error, time);
      if (result > 0)
         myReceiveTime = time;
   }
   else
   {
      // MSG_TRUNC: see readBuffer. A chain of one buffer, the usual case, needs no
      // scatter list.
      std::size_t capacity = 0;
      std::size_t bytes = 0;
      if (chain.size() == 1 && chain[0])
      {
         capacity = chain[0]->size();
         bytes = mySecondUdpSocket->receive_from(boost::asio::buffer(*chain[0]), from, MSG_TRUNC,
                                                 error);
      }
      else
      {
         capacity = DtInetSockChainSize(chain);
         bytes = DtInetSockReceiveChainFrom(*mySecondUdpSocket, chain, from, MSG_TRUNC, error);
      }
      if (!error)
      {
         myReceiveTime = myClock.absRealTime();
         if (bytes > capacity)
            error = ErrorCode(theNoBufferSpaceError, boost::system::system_category());
      }
      result = error ? 0 : static_cast<int>(bytes);
   }

   if (error)
   {
      if (error.value() == theNoBufferSpaceError)
         return DtInetSockResultNoFit;
      // Unlike recv(), a chain read lets the post-receive callbacks run on "nothing":
      // always on a blocking socket, and for would-block or reset on a non-blocking one.
      bool const goOn = !myNonBlocking || error.value() == theWouldBlockError ||
                        error.value() == theConnectionResetError;
      if (goOn)
         return 0;
      recordError(error.value(), failureText + text(myLocalEndpoint) + "\n" + error.message());
      return DtInetSockResultFailed;
   }
   if (result > 0)
      storeSender(from, sender);
   return result;
}

// ------------------------------------------------------------------ options

template <class Apply>
bool DtInetUdpSocket::applyToSocket(DtInetBoostUdpSocket* socket, Apply const& apply,
                                    DtString const& failureText)
{
   std::string message;
   int const outcome = DtInetSockRunOption(
       socket, [&apply](DtInetBoostUdpSocket&, ErrorCode& error) { apply(error); }, message);
   return settleOption(outcome, message, text(failureText));
}

namespace
{

// Sets a Boost socket option through the error-code form.
template <class Option>
auto setter(DtInetBoostUdpSocket* socket, Option const& option)
{
   return [socket, option](ErrorCode& error) { socket->set_option(option, error); };
}

std::string sizeText(char const* what, unsigned int value)
{
   return std::string(what) + std::to_string(value);
}

}  // namespace

template <class Option, class Value>
Value DtInetUdpSocket::readOption(char const* failureText, Value failed)
{
   Option option;
   DtInetBoostUdpSocket* socket = myUdpSocket;
   return applyToSocket(
              socket, [socket, &option](ErrorCode& error) { socket->get_option(option, error); },
              failureText)
              ? static_cast<Value>(option.value())
              : failed;
}

bool DtInetUdpSocket::setCommonOption(DtInetSockOption option, unsigned int value)
{
   DtInetBoostUdpSocket* socket = myUdpSocket;
   return DtInetSockSetOption(
       [this, socket](auto const& apply, std::string const& text)
       {
          return applyToSocket(
              socket, [socket, &apply](ErrorCode& error) { apply(*socket, error); }, text);
       },
       DtInetProtocolUdp, option, value);
}

int DtInetUdpSocket::getCommonOption(DtInetSockOption option)
{
   return DtInetSockGetOption(
       [this](auto const& boostOption, std::string const& text)
       { return readOption<std::decay_t<decltype(boostOption)>>(text.c_str(), -1); },
       DtInetProtocolUdp, option);
}

bool DtInetUdpSocket::setBroadcastOption(bool enable)
{
   return applyToSocket(
       myUdpSocket, setter(myUdpSocket, boost::asio::socket_base::broadcast(enable)),
       "DtInetUdpSocket::setBroadcastOption(): Error " + enabling(enable) + " broadcast\n");
}

bool DtInetUdpSocket::setReuseAddressOption(bool enable)
{
   return setCommonOption(DtInetSockOptionReuseAddress, enable);
}

bool DtInetUdpSocket::setDoNotRouteOption(bool enable)
{
   return setCommonOption(DtInetSockOptionDoNotRoute, enable);
}

bool DtInetUdpSocket::setNonBlockingOption(bool enable)
{
   bool const done = setCommonOption(DtInetSockOptionNonBlocking, enable);
   if (done)
      myNonBlocking = enable;
   return done;
}

bool DtInetUdpSocket::setSendBufferSize(unsigned int size)
{
   return setCommonOption(DtInetSockOptionSendBuffer, size);
}

bool DtInetUdpSocket::setReceiveBufferSize(unsigned int size)
{
   return setCommonOption(DtInetSockOptionReceiveBuffer, size);
}

bool DtInetUdpSocket::setSendLowWatermark(unsigned int size)
{
   return setCommonOption(DtInetSockOptionSendLowWatermark, size);
}

bool DtInetUdpSocket::setReceiveLowWatermark(unsigned int size)
{
   return setCommonOption(DtInetSockOptionReceiveLowWatermark, size);
}

bool DtInetUdpSocket::setMcastTtlOption(unsigned int ttl)
{
   DtInetBoostUdpSocket* socket = myUdpSocket;
   return applyToSocket(
       socket,
       [socket, ttl](ErrorCode& error)
       {
          // The hop limit is one byte; a larger value fails like any refused option
          // instead of throwing out of a socket call.
          if (ttl > 255)
          {
             error = boost::system::errc::make_error_code(boost::system::errc::invalid_argument);
             return;
          }
          socket->set_option(boost::asio::ip::multicast::hops(static_cast<int>(ttl)), error);
       },
       sizeText("DtInetUdpSocket::setMcastTtl(): Error setting multicast TTL to  ", ttl));
}

bool DtInetUdpSocket::getBroadcastOption()
{
   return readOption<boost::asio::socket_base::broadcast>(
       "DtInetUdpSocket::getBroadcastOption(): Error reading broadcast", false);
}

bool DtInetUdpSocket::getReuseAddressOption()
{
   return getCommonOption(DtInetSockOptionReuseAddress) > 0;
}

bool DtInetUdpSocket::getDoNotRouteOption()
{
   return getCommonOption(DtInetSockOptionDoNotRoute) > 0;
}

int DtInetUdpSocket::getSendBufferSize()
{
   return getCommonOption(DtInetSockOptionSendBuffer);
}

int DtInetUdpSocket::getReceiveBufferSize()
{
   return getCommonOption(DtInetSockOptionReceiveBuffer);
}

int DtInetUdpSocket::getSendLowWatermark()
{
   return getCommonOption(DtInetSockOptionSendLowWatermark);
}

int DtInetUdpSocket::getReceiveLowWatermark()
{
   return getCommonOption(DtInetSockOptionReceiveLowWatermark);
}

int DtInetUdpSocket::getBytesAvailable()
{
   // Reads come from the receiving socket, so that is the one asked.
   DtInetBoostUdpSocket* socket = mySecondUdpSocket;
   boost::asio::socket_base::bytes_readable command(true);
   bool const done = applyToSocket(
       socket, [socket, &command](ErrorCode& error) { socket->io_control(command, error); },
       "DtInetUdpSocket::getBytesAvailable(): Error reading bytes available");
   return done ? static_cast<int>(command.get()) : -1;
}

// ------------------------------------------------------------------ multicast

bool DtInetUdpSocket::setMcastDevice(DtInetAddr const& address)
{
   if (!myUdpSocket->is_open())
      return false;
   if (address.isIPv6())
   {
      // IPv6 names the outbound interface by its index, and only an IPv6 socket has
      // the option.
      unsigned int const index = myLocalEndpoint.isIPv6() ? ipv6InterfaceIndex(address) : 0;
      return index == 0 || setIpv6McastInterface(index, address);
   }
   return applyToSocket(
       myUdpSocket,
       setter(myUdpSocket,
              boost::asio::ip::multicast::outbound_interface(address.boostAddress().to_v4())),
       "DtInetUdpSocket::setMcastDevice(): Error setting multicast device to " + text(address));
}

bool DtInetUdpSocket::setMcastDevice(DtInetDevice* device)
{
   std::shared_ptr<DtInetDevice> fallback;
   if (!device || !device->isMulticastCapable())
   {
      fallback = DtInetUtils::defaultMulticastDevice();
      device = fallback.get();
   }
   if (!device || !device->addr())
   {
      recordError(95, std::string("DtInetUdpSocket::setMcastDevice(): ") +
                          "Error setting multicast device:" + theNoMcastDevice);
      return false;
   }
   // Whatever family the device was made for, an IPv6 socket sends out of it by its
   // index.
   if (myUdpSocket->is_open() && myLocalEndpoint.isIPv6() && device->ipv6Addr() &&
       device->interfaceIndex() > 0)
      return setIpv6McastInterface(static_cast<unsigned int>(device->interfaceIndex()),
                                   *device->ipv6Addr());
   return setMcastDevice(*device->addr());
}

bool DtInetUdpSocket::setIpv6McastInterface(unsigned int index, DtInetAddr const& address)
{
   return applyToSocket(
       myUdpSocket, setter(myUdpSocket, boost::asio::ip::multicast::outbound_interface(index)),
       "DtInetUdpSocket::setMcastDevice(): Error setting multicast device to " + text(address));
}

unsigned int DtInetUdpSocket::ipv6InterfaceIndex(DtInetAddr const& address)
{
   if (!address.isIPv6() || address.isAnyAddr())
      return 0;
   unsigned long const scope = address.boostAddress().to_v6().scope_id();
   if (scope != 0)
      return static_cast<unsigned int>(scope);
   DtInetDevice const device(address);
   return device.isOk() && device.interfaceIndex() > 0
              ? static_cast<unsigned int>(device.interfaceIndex())
              : 0;
}

void DtInetUdpSocket::receiveOwnGroupsOnly(DtInetBoostUdpSocket& socket)
{
   // An IPv6 socket takes the IPv4 option too, for the IPv4 groups it may receive;
   // an IPv4 socket refuses the IPv6 one. Refusals change nothing that worked before.
   int const off = 0;
   ::setsockopt(socket.native_handle(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
   ::setsockopt(socket.native_handle(), IPPROTO_IPV6, IPV6_MULTICAST_ALL, &off, sizeof off);
}

bool DtInetUdpSocket::findGroupInterface(DtInetAddr const& group, DtInetDevice* device,
                                         DtInetAddr& interfaceAddress, unsigned int& interfaceIndex)
{
   bool const ipv6 = group.isIPv6();
   auto take = [&](DtInetDevice const& candidate)
   {
      DtInetAddr const* address = ipv6 ? candidate.ipv6Addr() : candidate.ipv4Addr();
      if (!address)
         return false;
      interfaceAddress = *address;
      interfaceIndex = ipv6 ? static_cast<unsigned int>(candidate.interfaceIndex()) : 0;
      return true;
   };

   if (device && device->isMulticastCapable())
      return take(*device);
   if (!myHostIf)
   {
      for (auto const& candidate : DtInetUtils::scanMulticastDevices(true, false))
      {
         if (candidate && (ipv6 ? candidate->hasIpv6Addr() : candidate->hasIpv4Addr()))
            return take(*candidate);
      }
      return false;
   }
   return take(*myHostIf);
}

bool DtInetUdpSocket::joinMulticastGroup(DtInetAddr const& group, DtInetDevice* device)
{
   return changeGroup(true, group, device);
}

bool DtInetUdpSocket::joinMulticastGroup(DtInetEndpoint const& group, DtInetDevice* device)
{
   return joinMulticastGroup(group.address(), device);
}

bool DtInetUdpSocket::dropMulticastGroup(DtInetAddr const& group, DtInetDevice* device)
{
   return changeGroup(false, group, device);
}

bool DtInetUdpSocket::dropMulticastGroup(DtInetEndpoint const& group, DtInetDevice* device)
{
   return dropMulticastGroup(group.address(), device);
}

bool DtInetUdpSocket::changeGroup(bool join, DtInetAddr const& group, DtInetDevice* device)
{
   std::string const prefix =
       join ? "DtInetUdpSocket::joinMulticastGroup(): " : "DtInetUdpSocket::dropMulticastGroup(): ";
   DtInetAddr interfaceAddress(group.isIPv6() ? DtInetUtils::DtInetFamilyIPv6
                                              : DtInetUtils::DtInetFamilyIPv4);
   unsigned int interfaceIndex = 0;
   if (!findGroupInterface(group, device, interfaceAddress, interfaceIndex))
   {
      recordError(95, prefix + (join ? "Error joining group " : "Error dropping group ") +
                          text(group) + theNoMcastDevice);
      return false;
   }

   auto const member =
       std::find_if(myJoinedGroups.begin(), myJoinedGroups.end(),
                    [&](std::pair<DtInetAddr, DtInetAddr> const& entry)
                    { return entry.first == group && entry.second == interfaceAddress; });
   if (join && member != myJoinedGroups.end())
      return true;
   if (join && !(group.isIPv6() && interfaceIndex != 0 && myLocalEndpoint.isIPv6()
                     ? setIpv6McastInterface(interfaceIndex, interfaceAddress)
                     : setMcastDevice(interfaceAddress)))
      return false;

   boost::asio::ip::address const& groupAddress = group.boostAddress();
   boost::asio::ip::address const& localAddress = interfaceAddress.boostAddress();
   auto change = [&](DtInetBoostUdpSocket* socket, ErrorCode& error)
   {
      if (groupAddress.is_v6())
      {
         if (join)
            socket->set_option(
                boost::asio::ip::multicast::join_group(groupAddress.to_v6(), interfaceIndex),
                error);
         else
            socket->set_option(
                boost::asio::ip::multicast::leave_group(groupAddress.to_v6(), interfaceIndex),
                error);
      }
      else if (localAddress.is_v4())
      {
         if (join)
            socket->set_option(
                boost::asio::ip::multicast::join_group(groupAddress.to_v4(), localAddress.to_v4()),
                error);
         else
            socket->set_option(
                boost::asio::ip::multicast::leave_group(groupAddress.to_v4(), localAddress.to_v4()),
                error);
      }
      else
      {
         error = boost::asio::error::address_family_not_supported;
      }
   };
   std::string const failure = prefix + (join ? "Error joining group " : "Error leaving group ") +
                               text(group) + " on interface " + text(interfaceAddress);
   // A separate receiving socket holds the membership too: it is the one that reads
   // the group, and, like every member, it hears only the groups it joined itself.
   for (DtInetBoostUdpSocket* socket :
        {myUdpSocket, mySecondUdpSocket != myUdpSocket ? mySecondUdpSocket : nullptr})
   {
      if (!socket)
         continue;
      if (join && socket->is_open())
         receiveOwnGroupsOnly(*socket);
      if (!applyToSocket(
              socket, [&change, socket](ErrorCode& error) { change(socket, error); }, failure))
         return false;
   }

   if (join)
      myJoinedGroups.emplace_back(group, interfaceAddress);
   else if (member != myJoinedGroups.end())
      myJoinedGroups.erase(member);
   return true;
}
