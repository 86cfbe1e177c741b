//===- olutil/olInetUdpSocket.h - The datagram socket -----------*- C++ -*-===//
//
// Family: Sockets.
//
// DtInetUdpSocket is the library's datagram socket, the base of DtDisSocket. It opens
// over a Boost.Asio datagram socket, decides from the destination and the bound device
// whether a second, receiving socket is needed, joins multicast groups, and sends and
// receives either directly or through the background queues of its private companion
// DtInetUdpSockPimpl (flags DtInetSockFlagAsyncRecv and DtInetSockFlagAsyncSend).
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETUDPSOCKET_H
#define OLUTIL_OLINETUDPSOCKET_H

#include <utility>
#include <vector>

#include <boost/asio/ts/netfwd.hpp>

#include <olutil/olInetAddr.h>
#include <olutil/olInetSocket.h>
#include <olutil/olTime.h>

class DtInetUdpSockPimpl;

// The Boost.Asio datagram socket type that udpSocket() and secondUdpSocket() give.
typedef boost::asio::basic_datagram_socket<boost::asio::ip::udp> DtInetBoostUdpSocket;

// A UDP socket. All sends use udpSocket(); all reads use secondUdpSocket(), which is
// the same object unless opening needed a separate receiving socket.
//
// Thread safety: one application thread uses the socket. With an asynchronous flag
// set, openSocket() starts one background I/O thread and closeSocket() stops it. That
// thread runs only the receive and send completions of DtInetUdpSockPimpl; it meets the
// application thread at locked queues, one queue step per lock (a received packet and
// its time go in and come out together). A send returns after the datagram was
// queued; queued datagrams leave in order, one in flight at a time, and closeSocket()
// sends whatever is still queued before the socket closes; before opening and after
// closing a background send fails with error 9. A packet received in the background
// is visible to recv() once its completion has run.
//
// Errors: nothing throws; see DtInetSocket. The state becomes -1 on a failed open,
// connect, disconnect, close, option setter or getter, or group join/drop at the option
// level, on a missing destination, a socket not enabled for sending, a TCP endpoint
// given to sendTo, and a failed pre- or post-send callback. Transmit and read errors
// leave the state alone.
class DtInetUdpSocket : public DtInetSocket
{
public:
   // An unopened socket in state 1 with the default flags.
   DtInetUdpSocket();
   // Sets the local port, destination, device and flags, then opens when `open` is true.
   DtInetUdpSocket(DtInetEndpoint const& destination, unsigned short localPort = 0,
                   DtInetDevice* device = nullptr, unsigned int flags = DtInetSockFlagsDefault,
                   bool open = true);
   // Closes the socket, which first sends any datagrams still queued.
   ~DtInetUdpSocket() override;

   bool setDestination(DtInetEndpoint const& destination) override;
   // Keeps a copy of the device; a null device, or a socket past state 1, is left alone.
   bool bindToDevice(DtInetDevice const* device) override;

   bool openSocket() override;
   bool closeSocket() override;
   // Fixes the destination as the default peer (state 6). Refused, with last error 0,
   // for a multicast or broadcast destination.
   bool connectToDestination() override;

   int send(char* buffer, unsigned long length, unsigned int flags) override;
   int sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
              unsigned int flags) override;
   int sendChain(DtInetSockChain& chain, unsigned int flags) override;
   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override;
   int recv(char* buffer, unsigned long length, unsigned int flags) override;
   int recvToChain(DtInetSockChain& chain, unsigned int flags) override;
   int recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                unsigned int flags) override;
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                       unsigned int flags) override;

   // True in states 2 and 6 only.
   bool isOk() override;
   int descriptor() const override;
   // Only in states 0 and 1.
   bool setSocket(DtInetEndpoint const& destination, unsigned short localPort, DtInetDevice* device,
                  unsigned int flags) override;

   // Option setters and getters act on udpSocket(). On a closed system socket a setter
   // answers false and records nothing.
   bool setNonBlockingOption(bool enable) override;
   bool setReuseAddressOption(bool enable) override;
   bool setSendBufferSize(unsigned int size) override;
   bool setReceiveBufferSize(unsigned int size) override;
   bool setDoNotRouteOption(bool enable) override;
   bool setSendLowWatermark(unsigned int size) override;
   bool setReceiveLowWatermark(unsigned int size) override;
   bool getReuseAddressOption() override;
   bool getDoNotRouteOption() override;
   int getSendBufferSize() override;
   int getReceiveBufferSize() override;
   int getBytesAvailable() override;
   int getSendLowWatermark() override;
   int getReceiveLowWatermark() override;

   // Undoes connectToDestination(). The state stays 6.
   virtual bool disconnect();
   virtual bool setBroadcastOption(bool enable);
   // Sets the outbound multicast interface: an IPv4 address names it on an IPv4
   // socket; on an IPv6 socket an IPv6 address names it through the index of the
   // interface that holds the address. Any other address, or one no interface holds,
   // is accepted and changes nothing.
   virtual bool setMcastDevice(DtInetAddr const& address);
   // A null or not multicast-capable device is replaced by the default multicast
   // device. An IPv6 socket takes the device's interface index.
   virtual bool setMcastDevice(DtInetDevice* device);
   virtual bool getBroadcastOption();
   virtual bool joinMulticastGroup(DtInetAddr const& group, DtInetDevice* device = nullptr);
   virtual bool joinMulticastGroup(DtInetEndpoint const& group, DtInetDevice* device = nullptr);
   virtual bool dropMulticastGroup(DtInetAddr const& group, DtInetDevice* device = nullptr);
   virtual bool dropMulticastGroup(DtInetEndpoint const& group, DtInetDevice* device = nullptr);
   virtual bool setMcastTtlOption(unsigned int ttl);
   virtual DtInetBoostUdpSocket* udpSocket();
   virtual DtInetBoostUdpSocket* secondUdpSocket();

   // The joined groups, as pairs of group and interface address.
   std::vector<std::pair<DtInetAddr, DtInetAddr>> const& joinedGroups() const
   {
      return myJoinedGroups;
   }

protected:
   friend class DtInetUdpSockPimpl;

   // The checks that open sendTo and sendChainTo: the endpoint to send to (the
   // destination once connected), or null after a recorded failure; `notEnabledText`
   // is the text for a socket not enabled for sending.
   DtInetEndpoint* sendTarget(DtInetEndpoint& endpoint, char const* notEnabledText);
   // The transmit step of sendChainTo: gathered synchronous send or background queue.
   int transmitChain(DtInetSockChain& chain, DtInetEndpoint& target);
   // The read step of recvToChain and recvToChainFrom; `operation` names the caller in
   // the error text.
   int readChain(DtInetSockChain& chain, DtInetEndpoint& sender, char const* operation);
   // recvToChain and recvToChainFrom when no receive callback is registered.
   int readChainWithoutCallbacks(DtInetSockChain& chain, DtInetEndpoint& sender,
                                 char const* operation);
   // The common body of recv and recvFrom.
   int readBuffer(char* buffer, unsigned long length, DtInetEndpoint* sender,
                  char const* operation);
   // Runs one option operation, apply(error_code&), on an open system socket and
   // records a failure as `text`, a newline and the system message, with state -1.
   // False, with nothing recorded, when the socket is closed.
   template <class Apply>
   bool applyToSocket(DtInetBoostUdpSocket* socket, Apply const& apply, DtString const& text);
   // Reads one option of the main socket: its value, or `failed` after a recorded
   // failure or on a closed socket.
   template <class Option, class Value>
   Value readOption(char const* failureText, Value failed);
   // The options both sockets share, set and read through applyToSocket on udpSocket().
   bool setCommonOption(DtInetSockOption option, unsigned int value);
   int getCommonOption(DtInetSockOption option);
   // The interface for joining or dropping `group`, as the group operations choose it.
   bool findGroupInterface(DtInetAddr const& group, DtInetDevice* device,
                           DtInetAddr& interfaceAddress, unsigned int& interfaceIndex);
   bool changeGroup(bool join, DtInetAddr const& group, DtInetDevice* device);
   // Sends IPv6 multicast out of the interface of that index; `address` names it in
   // the failure text.
   bool setIpv6McastInterface(unsigned int index, DtInetAddr const& address);
   // The index of the interface an IPv6 address belongs to: its scope id, or the
   // index of the local interface that holds it; 0 when there is none.
   static unsigned int ipv6InterfaceIndex(DtInetAddr const& address);
   // Turns off IP_MULTICAST_ALL (and IPV6_MULTICAST_ALL where the system has it),
   // with which Linux gives a socket bound to the any-address every group that any
   // socket of the host joined. Best effort.
   static void receiveOwnGroupsOnly(DtInetBoostUdpSocket& socket);

   DtInetUdpSockPimpl* myPimpl;
   boost::asio::io_context* myIoContext;
   DtInetBoostUdpSocket* myUdpSocket;
   DtInetBoostUdpSocket* mySecondUdpSocket;
   std::vector<std::pair<DtInetAddr, DtInetAddr>> myJoinedGroups;
   DtClock myClock;
};

#endif  // OLUTIL_OLINETUDPSOCKET_H
