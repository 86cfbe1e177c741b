//===- olInetTcpSocket.cpp - The stream socket -----------------------------===//
//
// Family: Sockets.
//
// Opening, listening, accepting and connecting, the classification of failed sends
// and reads, socket options, and the plain and chain operations of DtInetTcpSocket.
// The background queues live in DtInetTcpSockPimpl.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetTcpSocket.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <type_traits>

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/system/error_code.hpp>

#include <olutil/olExceptions.h>
#include <olutil/olInetDevice.h>
#include <olutil/olInetSocketUtils.h>

#include "olInetTcpSockPimpl.h"

namespace
{

typedef boost::asio::ip::tcp::endpoint BoostEndpoint;
typedef boost::system::error_code ErrorCode;

constexpr int theWouldBlockError = 11;
constexpr int theNoBufferSpaceError = 105;
constexpr int theNotConnectedError = 107;
constexpr unsigned int theAllBits = 0xFFFFFFFFu;
// A server socket neither sends, nor receives, nor runs background queues.
constexpr unsigned int theServerRemovedFlags = 0x0303u;
constexpr int theListenBacklog = 1024;

char const* const theOpenPrefix = "DtInetTcpSocket::openSocket(): ";
char const* const theListenPrefix = "DtInetTcpSocket::listenForConnections(): ";
char const* const theAcceptPrefix = "DtInetTcpSocket::acceptConnection(): ";
char const* const theConnectFailure =
    "DtInetTcpSocket::connectToDestination(): Error connecting Boost socket\n";
char const* const theNotConnected = "Error - not connected.";
char const* const theReadFailure = "DtInetTcpSocket::recv() failed on socket at ";

std::string text(DtInetEndpoint const& endpoint)
{
   return endpoint.toDtString().c_str();
}

std::string enabling(bool enable)
{
   return enable ? "enabling" : "disabling";
}

BoostEndpoint boostEndpoint(DtInetEndpoint const& endpoint)
{
   if (DtInetEndpoint::TcpEndpoint const* ready = endpoint.tcpEndpoint())
      return *ready;
   return BoostEndpoint(endpoint.address().boostAddress(), endpoint.port());
}

DtInetEndpoint tcpEndpoint(BoostEndpoint const& endpoint)
{
   boost::asio::ip::address address = endpoint.address();
   return DtInetEndpoint(DtInetAddr(static_cast<void*>(&address)), endpoint.port(),
                         DtInetProtocolTcp);
}

// Writing to a connection the peer has closed must come back as an error, not end the
// process. The setting is process-wide.
void ignoreBrokenPipes()
{
   struct sigaction ignore;
   std::memset(&ignore, 0, sizeof ignore);
   ignore.sa_handler = SIG_IGN;
   sigemptyset(&ignore.sa_mask);
   ::sigaction(SIGPIPE, &ignore, nullptr);
}

// Failures of accept() that belong to the one connection being accepted, not to the
// listener: the listener stays usable.
bool concernsNewConnection(int error)
{
   switch (error)
   {
      case 1:    // EPERM: refused by a firewall rule
      case 4:    // EINTR
      case 12:   // ENOMEM
      case 24:   // EMFILE
      case 71:   // EPROTO
      case 103:  // ECONNABORTED
      case 105:  // ENOBUFS
         return true;
      default:
         return false;
   }
}

// Errors by which a connection ended. A write to a peer that has closed gives EPIPE
// (32) as often as ECONNRESET: both are the peer's end, not a fault of this socket.
bool endsConnection(int error)
{
   return error == 32 || error == 103 || error == 104 || error == 110;
}

}  // namespace

// ------------------------------------------------------------------ construction

DtInetTcpSocket::DtInetTcpSocket()
    : DtInetSocket(),
      myPimpl(nullptr),
      myIoContext(new boost::asio::io_context),
      myTcpSocket(nullptr),
      myAcceptor(nullptr),
      myFamily(DtInetUtils::DtInetFamilyNone)
{
   myPimpl = new DtInetTcpSockPimpl(myIoContext, this);
}

DtInetTcpSocket::DtInetTcpSocket(unsigned short port, DtInetDevice* device,
                                 DtInetUtils::DtInetAddrFamily family, unsigned int flags,
                                 bool listen)
    : DtInetTcpSocket()
{
   ignoreBrokenPipes();
   myAcceptor = new DtInetBoostTcpAcceptor(*myIoContext);
   myFamily = family;
   setFlags(flags & ~theServerRemovedFlags);
   setLocalPort(port);
   bindToDevice(device);
   myOpenOnConstruction = listen;
   setState(DtInetSockStateInitialized);
   if (listen)
      listenForConnections();
}

DtInetTcpSocket::DtInetTcpSocket(DtInetEndpoint const& destination, unsigned short localPort,
                                 DtInetDevice* device, unsigned int flags, bool open)
    : DtInetTcpSocket()
{
   ignoreBrokenPipes();
   createStreamSocket();
   setLocalPort(localPort);
   myDestination = destination;
   bindToDevice(device);
   setFlags(flags);
   myOpenOnConstruction = open;
   setState(DtInetSockStateInitialized);
   if (open)
   {
      // The caller looks at isOk(); both steps record their own failures.
      openSocket();
      connectToDestination();
   }
}

DtInetTcpSocket::~DtInetTcpSocket()
{
   if (myTcpSocket || myAcceptor)
      closeSocket();
   delete myPimpl;
   myPimpl = nullptr;
   delete myTcpSocket;
   myTcpSocket = nullptr;
   delete myAcceptor;
   myAcceptor = nullptr;
   delete myIoContext;
   myIoContext = nullptr;
   setState(DtInetSockStateClosed);
}

void DtInetTcpSocket::createStreamSocket()
{
   if (!myIoContext)
      myIoContext = new boost::asio::io_context;
   if (!myTcpSocket)
      myTcpSocket = new DtInetBoostTcpSocket(*myIoContext);
}

bool DtInetTcpSocket::setDestination(DtInetEndpoint const& destination)
{
   static char const* const prefix = "DtInetTcpSocket::setDestination(): ";
   if (myState != DtInetSockStateNone && myState != DtInetSockStateInitialized)
   {
      recordError(106, std::string(prefix) + "Cannot change destination endpoint of open socket");
      return false;
   }
   if (destination.protocol() == DtInetProtocolUnspecified)
   {
      myDestination = destination;
      myDestination.setProtocol(DtInetProtocolTcp);
      return true;
   }
   if (destination.protocol() != DtInetProtocolTcp)
   {
      recordError(22, std::string(prefix) + "Specified destination endpoint is not TCP");
      return false;
   }
   myDestination = destination;
   return true;
}

bool DtInetTcpSocket::bindToDevice(DtInetDevice const* device)
{
   if (!device || (myState != DtInetSockStateNone && myState != DtInetSockStateInitialized))
      return true;
   delete myHostIf;
   myHostIf = new DtInetDevice(*device);
   return true;
}

bool DtInetTcpSocket::setSocket(DtInetEndpoint const& destination, unsigned short localPort,
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

bool DtInetTcpSocket::isOk()
{
   if (isServerSock() &&
       (myState == DtInetSockStateListening || myState == DtInetSockStateConnecting))
      return true;
   return myState == DtInetSockStateOpen || myState == DtInetSockStateConnecting ||
          myState == DtInetSockStateConnected;
}

int DtInetTcpSocket::descriptor() const
{
   return myTcpSocket ? myTcpSocket->native_handle() : -1;
}

DtInetBoostTcpSocket* DtInetTcpSocket::tcpSocket()
{
   return myTcpSocket;
}

DtInetBoostTcpAcceptor* DtInetTcpSocket::tcpServerSocket()
{
   return myAcceptor;
}

// ------------------------------------------------------------------ open, listen, close

bool DtInetTcpSocket::openSocket()
{
   if (myState == DtInetSockStateOpen || myState == DtInetSockStateListening ||
       myState == DtInetSockStateConnecting || myState == DtInetSockStateConnected)
      return true;
   if (myState != DtInetSockStateInitialized)
   {
      recordFailure(131, std::string(theOpenPrefix) + "Invalid state " + std::to_string(myState));
      return false;
   }
   if (isServerSock())
      return true;
   if (myLocalEndpoint.protocol() != DtInetProtocolUnspecified &&
       myLocalEndpoint.protocol() != DtInetProtocolTcp)
   {
      recordFailure(93,
                    std::string(theOpenPrefix) + "Cannot open TCP socket from local UDP endpoint");
      return false;
   }
   if (myDestination.protocol() != DtInetProtocolTcp &&
       myDestination.protocol() != DtInetProtocolUnspecified)
   {
      recordFailure(93,
                    std::string(theOpenPrefix) + "Cannot open TCP socket to a remote UDP endpoint");
      return false;
   }
   if (myDestination.protocol() == DtInetProtocolUnspecified)
      myDestination.setProtocol(DtInetProtocolTcp);

   bool const destinationIpv6 = myDestination.isIPv6();
   if (myHostIf && destinationIpv6 && myHostIf->ipv6Addr())
      myLocalEndpoint.setAddress(*myHostIf->ipv6Addr());
   else if (myHostIf && myHostIf->ipv4Addr())
      myLocalEndpoint.setAddress(*myHostIf->ipv4Addr());
   else
      myLocalEndpoint.setAddress(DtInetAddr::inaddrAny(
          destinationIpv6 ? DtInetUtils::DtInetFamilyIPv6 : DtInetUtils::DtInetFamilyIPv4));

   return bindLocal(
       [this]() -> DtInetBoostTcpSocket&
       {
          myLocalEndpoint.setProtocol(DtInetProtocolTcp);
          createStreamSocket();
          return *myTcpSocket;
       },
       theOpenPrefix, "Error opening Boost socket\n");
}

template <class Prepare>
bool DtInetTcpSocket::bindLocal(Prepare const& prepare, char const* prefix, char const* failureText)
{
   auto fail = [this, prefix, failureText](ErrorCode const& failure)
   {
      recordFailure(failure.value(), std::string(prefix) + failureText + failure.message());
      return false;
   };
   try
   {
      auto& handle = prepare();
      bool constexpr listener =
          std::is_same<std::decay_t<decltype(handle)>, DtInetBoostTcpAcceptor>::value;
      ErrorCode error;
      if (!handle.is_open())
      {
         handle.open(
             myLocalEndpoint.isIPv6() ? boost::asio::ip::tcp::v6() : boost::asio::ip::tcp::v4(),
             error);
         if (error)
            return fail(error);
      }
      setNonBlockingOption(myNonBlocking);
      setTcpNoDelayOption(myNoDelay);
      setReuseAddressOption((myFlags & DtInetSockFlagReuseAddress) != 0);
      if constexpr (!listener)
      {
         setSendBufferSize(theAllBits);
         setReceiveBufferSize(theAllBits);
      }
      // A refused option has been recorded and has invalidated the socket.
      if (myState == DtInetSockStateError)
         return false;

      handle.bind(boostEndpoint(myLocalEndpoint), error);
      if (error)
         return fail(error);
      if constexpr (listener)
      {
         handle.listen(theListenBacklog, error);
         if (error)
            return fail(error);
      }
      setState(listener ? DtInetSockStateListening : DtInetSockStateOpen);
      if (myLocalEndpoint.port() == 0)
      {
         BoostEndpoint const bound = handle.local_endpoint(error);
         if (error)
            return fail(error);
         myLocalEndpoint.setPort(bound.port());
      }
      return true;
   }
   catch (boost::system::system_error const& failure)
   {
      return fail(failure.code());
   }
   catch (std::exception const& failure)
   {
      recordFailure(22, std::string(prefix) + failure.what());
   }
   return false;
}

bool DtInetTcpSocket::listenForConnections()
{
   if (myState == DtInetSockStateListening || myState == DtInetSockStateConnecting)
      return true;
   if (myState != DtInetSockStateNone && myState != DtInetSockStateInitialized)
   {
      recordFailure(131, std::string(theListenPrefix) + "Invalid state " + std::to_string(myState));
      return false;
   }
   bool const ipv6 = myFamily == DtInetUtils::DtInetFamilyIPv6;
   if (myHostIf)
   {
      // An IPv6 listener falls back on the device's IPv4 address; an IPv4 one takes
      // only that.
      DtInetAddr const* address =
          ipv6 && myHostIf->ipv6Addr() ? myHostIf->ipv6Addr() : myHostIf->ipv4Addr();
      if (!address)
      {
         recordFailure(95, "DtInetTcpSocket():: Specified interface does not have an IPv" +
                               std::to_string(ipv6 ? 6 : 4) + " address assigned. ");
         return false;
      }
      myLocalEndpoint.setAddress(*address);
      setState(DtInetSockStateInitialized);
      if (myLocalEndpoint.port() == 0)
      {
         recordFailure(95, std::string(theListenPrefix) + "Cannot open socket to listen on port 0");
         return false;
      }
   }
   else
   {
      myLocalEndpoint.setAddress(DtInetAddr::inaddrAny(ipv6 ? DtInetUtils::DtInetFamilyIPv6
                                                            : DtInetUtils::DtInetFamilyIPv4));
   }
   myLocalEndpoint.setProtocol(DtInetProtocolTcp);
   if (!myAcceptor)
   {
      recordError(9, "DtInetTcpSocket()::listenForConnections() called on uninitialized socket");
      return false;
   }
   return bindLocal([this]() -> DtInetBoostTcpAcceptor& { return *myAcceptor; }, theListenPrefix,
                    "Error opening Boost acceptor socket\n");
}

bool DtInetTcpSocket::closeSocket()
{
   if (!myTcpSocket && !myAcceptor)
   {
      recordError(9, "DtInetTcpSocket::closeSocket() called on uninitialized socket");
      return false;
   }
   // The I/O thread writes queued bytes and starts background reads on the stream
   // socket: it is stopped before the descriptor goes, so nothing is started on a
   // closed (or reused) descriptor.
   if (myTcpSocket && (myFlags & DtInetSockFlagsAsync))
      myPimpl->stop();

   ErrorCode error;
   if (myTcpSocket && myTcpSocket->is_open())
   {
      if (myState == DtInetSockStateConnected)
      {
         // A peer that has already gone makes the shutdown fail; closing still works.
         ErrorCode ignored;
         myTcpSocket->shutdown(boost::asio::socket_base::shutdown_both, ignored);
      }
      myTcpSocket->close(error);
   }
   else if (myAcceptor && myAcceptor->is_open())
   {
      myAcceptor->close(error);
   }
   if (error)
   {
      recordFailure(error.value(), "DtInetTcpSocket::closeSocket(): Error closing Boost socket\n" +
                                       error.message());
      return false;
   }
   setState(DtInetSockStateClosed);
   return true;
}

// ------------------------------------------------------------------ connect and accept

bool DtInetTcpSocket::connectToDestination()
{
   if (myState == DtInetSockStateInitialized && !openSocket())
      return false;
   if (myState == DtInetSockStateConnecting)
   {
      finishConnect();
      return myState == DtInetSockStateConnecting || myState == DtInetSockStateConnected;
   }
   if (myState == DtInetSockStateConnected)
      return true;
   if (isServerSock() || myState != DtInetSockStateOpen)
      return false;
   if (!myTcpSocket)
   {
      recordError(9, "DtInetTcpSocket::connectToDestination() called on uninitialized socket");
      return false;
   }

   ErrorCode error;
   if (myNonBlocking)
   {
      // The error-code form of Boost's connect waits for the connection even on a non-
      // blocking socket. The system call returns at once; the connect finishes later
      // and finishConnect() sees the outcome.
      BoostEndpoint const target = boostEndpoint(myDestination);
      if (::connect(myTcpSocket->native_handle(), target.data(),
                    static_cast<socklen_t>(target.size())) != 0)
         error = ErrorCode(errno, boost::system::system_category());
   }
   else
   {
      myTcpSocket->connect(boostEndpoint(myDestination), error);
   }

   if (error)
   {
      if (!(myNonBlocking && (error.value() == theWouldBlockError || error.value() == 115)))
      {
         recordFailure(error.value(), theConnectFailure + error.message());
         return false;
      }
      setState(DtInetSockStateConnecting);
   }
   else
   {
      becomeConnected();
   }

   if (myLocalEndpoint.address().isAnyAddr() || myLocalEndpoint.port() == 0)
   {
      BoostEndpoint const bound = myTcpSocket->local_endpoint(error);
      if (!error)
      {
         DtInetEndpoint const local = tcpEndpoint(bound);
         myLocalEndpoint.setAddress(local.address());
         myLocalEndpoint.setPort(local.port());
      }
   }
   return myState != DtInetSockStateError;
}

void DtInetTcpSocket::finishConnect()
{
   if (myState != DtInetSockStateConnecting || !myTcpSocket || !myTcpSocket->is_open())
      return;
   pollfd ready{};
   ready.fd = myTcpSocket->native_handle();
   ready.events = POLLOUT;
   if (::poll(&ready, 1, 0) <= 0)
      return;
   int failure = 0;
   socklen_t size = sizeof failure;
   if (::getsockopt(ready.fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0)
      failure = errno;
   if (failure != 0)
   {
      ErrorCode const error(failure, boost::system::system_category());
      // A connection that came up and was then reset or aborted before anyone looked
      // ended like any other: that is the peer's end, not a failed connect.
      if (failure != 110 && endsConnection(failure))
         recordTermination(failure, error.message().c_str());
      else
         recordFailure(failure, theConnectFailure + error.message());
      return;
   }
   becomeConnected();
}

void DtInetTcpSocket::becomeConnected()
{
   setState(DtInetSockStateConnected);
   if (myFlags & DtInetSockFlagsAsync)
   {
      try
      {
         myPimpl->start(myFlags);
      }
      catch (DtException const& failure)
      {
         recordFailure(22, std::string("DtInetTcpSocket: ") + failure.message());
      }
   }
}

bool DtInetTcpSocket::initAcceptedConnection(DtInetAddr const& address, unsigned short port,
                                             unsigned int flags)
{
   myLocalEndpoint.setAddress(address);
   myLocalEndpoint.setPort(port);
   myLocalEndpoint.setProtocol(DtInetProtocolTcp);
   setFlags(flags);
   myOpenOnConstruction = false;
   setState(DtInetSockStateInitialized);
   createStreamSocket();
   return true;
}

bool DtInetTcpSocket::openAcceptedConnection(DtInetEndpoint peer)
{
   myDestination = peer;
   setNonBlockingOption(myNonBlocking);
   setTcpNoDelayOption(myNoDelay);
   setReuseAddressOption((myFlags & DtInetSockFlagReuseAddress) != 0);
   // An accepted socket with background flags gets its I/O thread here, as a
   // connected one does: without it its reads would stay empty for ever.
   becomeConnected();
   return myState == DtInetSockStateConnected;
}

bool DtInetTcpSocket::acceptConnection(DtInetTcpSocket* accepted, unsigned int flags)
{
   if (myState != DtInetSockStateListening)
   {
      recordError(22, std::string(theAcceptPrefix) + "Socket is not listening");
      return false;
   }
   if (!myAcceptor)
   {
      recordError(9, "DtInetTcpSocket()::acceptConnection() called on uninitialized socket");
      return false;
   }
   if (!accepted || accepted == this || accepted->isServerSock())
   {
      recordError(22, std::string(theAcceptPrefix) + "No connection socket to accept into");
      return false;
   }
   if (accepted->myState == DtInetSockStateNone)
      accepted->initAcceptedConnection(myLocalEndpoint.address(), myLocalEndpoint.port(), flags);
   else if (accepted->myState != DtInetSockStateInitialized ||
            (accepted->myTcpSocket && accepted->myTcpSocket->is_open()))
   {
      recordError(114, std::string(theAcceptPrefix) + "Connection socket already in use");
      return false;
   }
   accepted->createStreamSocket();

   auto connectionFailed = [accepted](int number, std::string const& what)
   {
      accepted->recordFailure(number, std::string(theAcceptPrefix) + what);
      return false;
   };

   BoostEndpoint peer;
   if (!myNonBlocking)
   {
      ErrorCode error;
      myAcceptor->accept(*accepted->myTcpSocket, peer, error);
      if (error)
      {
         if (error.value() == theWouldBlockError)
            return false;
         if (concernsNewConnection(error.value()))
            return connectionFailed(error.value(),
                                    "Error creating new connection on socket\n" + error.message());
         recordFailure(error.value(), std::string(theAcceptPrefix) +
                                          "Error on Boost acceptor socket\n" + error.message());
         return false;
      }
   }
   else
   {
      sockaddr_storage address{};
      socklen_t size = sizeof address;
      int const descriptor = ::accept4(myAcceptor->native_handle(),
                                       reinterpret_cast<sockaddr*>(&address), &size, SOCK_CLOEXEC);
      if (descriptor < 0)
      {
         int const number = errno;
         // Nothing pending: no record, so a polling loop builds up no error text.
         if (number == theWouldBlockError)
            return false;
         ErrorCode const error(number, boost::system::system_category());
         if (concernsNewConnection(number))
            return connectionFailed(number,
                                    "Error creating new connection on socket\n" + error.message());
         recordFailure(number, std::string(theAcceptPrefix) + "Error on non-blocking accept()\n" +
                                   std::strerror(number));
         return false;
      }
      ErrorCode error;
      accepted->myTcpSocket->assign(
          address.ss_family == AF_INET6 ? boost::asio::ip::tcp::v6() : boost::asio::ip::tcp::v4(),
          descriptor, error);
      if (error)
      {
         // The descriptor was never taken over: closed here, or it would leak.
         ::close(descriptor);
         return connectionFailed(error.value(),
                                 "Error assigning descriptor to socket\n" + error.message());
      }
      if (size <= sizeof address)
      {
         peer.resize(size);
         std::memcpy(peer.data(), &address, size);
      }
   }
   return accepted->openAcceptedConnection(tcpEndpoint(peer));
}

// ------------------------------------------------------------------ failures

int DtInetTcpSocket::classifyFailure(int error, bool endOfStream, std::string const& message,
                                     bool sending, char const* sendFailure)
{
   if (endOfStream)
   {
      recordTermination(2, "Connection terminated by peer");
      return DtInetSockResultFailed;
   }
   if (endsConnection(error) ||
       (error == theNotConnectedError && myState != DtInetSockStateConnecting))
   {
      recordTermination(error, message.c_str());
      return DtInetSockResultFailed;
   }
   if (error == theNotConnectedError)
      return DtInetSockResultFailed;  // the connect has not finished yet
   if (sending)
   {
      // A would-block send is -1 with last error 11, never 0 as on a datagram socket:
      // part of a stream cannot silently go missing.
      recordError(error, sendFailure + text(myLocalEndpoint) + " to " + text(myDestination) + "\n" +
                             message);
      return DtInetSockResultFailed;
   }
   if (error == theNoBufferSpaceError)
      return DtInetSockResultNoFit;
   // A blocking read reports nothing else; a non-blocking one reports all but
   // would-block. Either way "nothing" goes on as length 0.
   if (!myNonBlocking || error == theWouldBlockError)
      return 0;
   recordError(error, theReadFailure + text(myLocalEndpoint) + "\n" + message);
   return DtInetSockResultFailed;
}

bool DtInetTcpSocket::connectFailedNow()
{
   int const before = myState;
   finishConnect();
   // The connect failed, or the connection ended, just now, and said so.
   return before != myState && myState != DtInetSockStateConnected;
}

struct DtInetTcpSocket::SendTexts
{
   char const* prefix;
   char const* notForSending;
   char const* uninitialized;
};

bool DtInetTcpSocket::checkSendable(SendTexts const& texts)
{
   if (connectFailedNow())
      return false;
   if (myState != DtInetSockStateConnecting && myState != DtInetSockStateConnected)
   {
      recordFailure(theNotConnectedError, std::string(texts.prefix) + theNotConnected);
      return false;
   }
   if ((myFlags & (DtInetSockFlagSend | DtInetSockFlagAsyncSend)) == 0)
   {
      recordFailure(95, texts.notForSending);
      return false;
   }
   if (!myTcpSocket)
   {
      recordError(9, texts.uninitialized);
      return false;
   }
   return true;
}

bool DtInetTcpSocket::checkReadable(char const* unconnectedText, char const* uninitializedText)
{
   if (connectFailedNow())
      return false;
   if (myState != DtInetSockStateConnecting && myState != DtInetSockStateConnected)
   {
      recordError(theNotConnectedError, unconnectedText + text(myLocalEndpoint));
      return false;
   }
   if (!myTcpSocket)
   {
      recordError(9, uninitializedText);
      return false;
   }
   return true;
}

template <class Queued, class Direct>
int DtInetTcpSocket::transfer(bool background, Queued const& queued, Direct const& direct,
                              char const* sendFailure)
{
   ErrorCode error;
   int const result = background ? queued(error) : static_cast<int>(direct(error));
   // A packet that did not fit the caller's buffers comes from the queue as -4 with
   // no error.
   if (error)
      return classifyFailure(error.value(), error == boost::asio::error::eof, error.message(),
                             sendFailure != nullptr, sendFailure);
   return result;
}

// ------------------------------------------------------------------ send

int DtInetTcpSocket::send(char* buffer, unsigned long length, unsigned int)
{
   static SendTexts const theSendTexts = {
       "DtInetTcpSocket::send(): ", "DtInetTcpSocket::send(): Socket not initialized for sending.",
       "DtInetTcpSocket()::send() called on uninitialized socket"};
   if (!checkSendable(theSendTexts))
      return DtInetSockResultFailed;
   int const result = transfer(
       (myFlags & DtInetSockFlagAsyncSend) != 0,
       [this, buffer, length](ErrorCode& error)
       { return myPimpl->asyncSend(new std::vector<char>(buffer, buffer + length), error); },
       [this, buffer, length](ErrorCode& error)
       { return myTcpSocket->send(boost::asio::buffer(buffer, length), 0, error); },
       "DtInetTcpSocket::send() failed from ");
   if (result < 0)
      return result;
   if (myState == DtInetSockStateConnecting)
      setState(DtInetSockStateConnected);
   ++myTotalPacketsSent;
   myTotalBytesSent += static_cast<std::uint64_t>(result);
   return result;
}

int DtInetTcpSocket::sendTo(char* buffer, unsigned long length, DtInetEndpoint&, unsigned int flags)
{
   return send(buffer, length, flags);
}

int DtInetTcpSocket::sendChain(DtInetSockChain& chain, unsigned int flags)
{
   static SendTexts const theSendChainTexts = {
       "DtInetTcpSocket::sendChain(): ",
       "DtInetTcpSocket::sendChain(): Socket not initialized for sending.",
       "DtInetTcpSocket()::sendChain() called on uninitialized socket"};
   if (!checkSendable(theSendChainTexts))
      return DtInetSockResultFailed;
   int const sent = runSendPipeline(
       DtInetProtocolTcp, chain, myDestination, flags,
       [this](DtInetSockChain& bytes, DtInetEndpoint&) { return transmitChain(bytes); },
       "DtInetTcpSocket::sendChain()/sendChainTo(): Pre-send callback failed.",
       "DtInetTcpSocket::sendChain()/sendChainTo(): Post-send callback failed.");
   if (sent > 0 && myState == DtInetSockStateConnecting)
      setState(DtInetSockStateConnected);
   return sent;
}

int DtInetTcpSocket::sendChainTo(DtInetSockChain& chain, DtInetEndpoint&, unsigned int flags)
{
   return sendChain(chain, flags);
}

int DtInetTcpSocket::transmitChain(DtInetSockChain& chain)
{
   return transfer(
       (myFlags & DtInetSockFlagAsyncSend) != 0,
       [this, &chain](ErrorCode& error) { return myPimpl->asyncSendChain(chain, error); },
       [this, &chain](ErrorCode& error)
       {
          return chain.size() == 1 && chain[0]
                     ? myTcpSocket->send(boost::asio::buffer(*chain[0]), 0, error)
                     : myTcpSocket->send(DtInetSockChainBuffers<boost::asio::const_buffer>(chain),
                                         0, error);
       },
       "DtInetTcpSocket::sendChain() failed from ");
}

// ------------------------------------------------------------------ receive

int DtInetTcpSocket::recv(char* buffer, unsigned long length, unsigned int)
{
   if (!checkReadable("DtInetTcpSocket::recv() called on unconnected socket on ",
                      "DtInetTcpSocket::recv() called on uninitialized socket"))
      return DtInetSockResultFailed;
   int const result =
       transfer((myFlags & DtInetSockFlagAsyncRecv) != 0,
                [this, buffer, length](ErrorCode& error)
                { return myPimpl->getFromReceiveQueue(buffer, length, error); },
                [this, buffer, length](ErrorCode& error)
                { return myTcpSocket->receive(boost::asio::buffer(buffer, length), 0, error); },
                nullptr);
   if (result > 0)
      countReceived(result);
   return result;
}

int DtInetTcpSocket::recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                              unsigned int flags)
{
   endpoint = myDestination;
   return recv(buffer, length, flags);
}

int DtInetTcpSocket::readChain(DtInetSockChain& chain)
{
   return transfer(
       (myFlags & DtInetSockFlagAsyncRecv) != 0,
       [this, &chain](ErrorCode& error) { return myPimpl->getFromReceiveQueue(chain, error); },
       [this, &chain](ErrorCode& error)
       {
          return chain.size() == 1 && chain[0]
                     ? myTcpSocket->receive(boost::asio::buffer(*chain[0]), 0, error)
                     : myTcpSocket->receive(
                           DtInetSockChainBuffers<boost::asio::mutable_buffer>(chain), 0, error);
       },
       nullptr);
}

int DtInetTcpSocket::recvToChain(DtInetSockChain& chain, unsigned int flags)
{
   DtInetEndpoint peer(myDestination);
   return recvToChainFrom(chain, peer, flags);
}

int DtInetTcpSocket::recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                     unsigned int flags)
{
   if (!checkReadable("DtInetTcpSocket::recvToChain() called on unconnected socket on ",
                      "DtInetTcpSocket()::recvToChain() called on uninitialized socket"))
      return DtInetSockResultFailed;
   if (&endpoint != &myDestination)
      endpoint = myDestination;
   if (myPreReceiveCallbacks.empty() && myPostReceiveCallbacks.empty())
   {
      // The pipeline with both lists empty: the read and the counters.
      if (chain.empty())
         return DtInetSockResultNoFit;
      int const length = readChain(chain);
      if (length > 0)
         countReceived(length);
      return length;
   }
   return runReceivePipeline(chain, endpoint, flags,
                             [this](DtInetSockChain& bytes, DtInetEndpoint&)
                             { return readChain(bytes); });
}

// ------------------------------------------------------------------ options

template <class Apply>
bool DtInetTcpSocket::applyOption(Apply const& apply, std::string const& failureText)
{
   std::string message;
   int const outcome = myAcceptor ? DtInetSockRunOption(myAcceptor, apply, message)
                                  : DtInetSockRunOption(myTcpSocket, apply, message);
   return settleOption(outcome, message, failureText);
}

namespace
{

// Sets a Boost option through the error-code form, on a socket or an acceptor.
template <class Option>
auto setter(Option const& option)
{
   return [option](auto& handle, ErrorCode& error) { handle.set_option(option, error); };
}

}  // namespace

template <class Option, class Value>
Value DtInetTcpSocket::readOption(char const* failureText, Value failed)
{
   Option option;
   return applyOption([&option](auto& handle, ErrorCode& error)
                      { handle.get_option(option, error); },
                      failureText)
              ? static_cast<Value>(option.value())
              : failed;
}

bool DtInetTcpSocket::setCommonOption(DtInetSockOption option, unsigned int value)
{
   return DtInetSockSetOption([this](auto const& apply, std::string const& text)
                              { return applyOption(apply, text); },
                              DtInetProtocolTcp, option, value);
}

int DtInetTcpSocket::getCommonOption(DtInetSockOption option)
{
   return DtInetSockGetOption(
       [this](auto const& boostOption, std::string const& text)
       { return readOption<std::decay_t<decltype(boostOption)>>(text.c_str(), -1); },
       DtInetProtocolTcp, option);
}

bool DtInetTcpSocket::setNonBlockingOption(bool enable)
{
   bool const done = setCommonOption(DtInetSockOptionNonBlocking, enable);
   if (done)
      myNonBlocking = enable;
   return done;
}

bool DtInetTcpSocket::setReuseAddressOption(bool enable)
{
   return setCommonOption(DtInetSockOptionReuseAddress, enable);
}

bool DtInetTcpSocket::setDoNotRouteOption(bool enable)
{
   return setCommonOption(DtInetSockOptionDoNotRoute, enable);
}

bool DtInetTcpSocket::setTcpNoDelayOption(bool enable)
{
   bool const done = applyOption(setter(boost::asio::ip::tcp::no_delay(enable)),
                                 "DtInetTcpSocket::setTcpNoDelayOption(): Error " +
                                     enabling(enable) + " Nagle coalescing (no-delay)\n");
   if (done)
      myNoDelay = enable;
   return done;
}

bool DtInetTcpSocket::setTcpLingerOption(unsigned short seconds)
{
   return applyOption(setter(boost::asio::socket_base::linger(seconds != 0, seconds)),
                      "DtInetTcpSocket::setTcpLingerOption(): Error " + enabling(seconds != 0) +
                          " linger option\n");
}

bool DtInetTcpSocket::setConnAbortedOption(bool enable)
{
   return applyOption(setter(boost::asio::socket_base::enable_connection_aborted(enable)),
                      "DtInetTcpSocket::setConnAbortedOption(): Error " + enabling(enable) +
                          " connection aborted option\n");
}

bool DtInetTcpSocket::setTcpKeepAliveOption(bool enable)
{
   return applyOption(setter(boost::asio::socket_base::keep_alive(enable)),
                      "DtInetTcpSocket::setTcpKeepAliveOption(): Error " + enabling(enable) +
                          " TCP keep alives\n");
}

bool DtInetTcpSocket::setSendBufferSize(unsigned int size)
{
   return setCommonOption(DtInetSockOptionSendBuffer, size);
}

bool DtInetTcpSocket::setReceiveBufferSize(unsigned int size)
{
   return setCommonOption(DtInetSockOptionReceiveBuffer, size);
}

bool DtInetTcpSocket::setSendLowWatermark(unsigned int size)
{
   return setCommonOption(DtInetSockOptionSendLowWatermark, size);
}

bool DtInetTcpSocket::setReceiveLowWatermark(unsigned int size)
{
   return setCommonOption(DtInetSockOptionReceiveLowWatermark, size);
}

bool DtInetTcpSocket::getReuseAddressOption()
{
   return getCommonOption(DtInetSockOptionReuseAddress) > 0;
}

bool DtInetTcpSocket::getDoNotRouteOption()
{
   return getCommonOption(DtInetSockOptionDoNotRoute) > 0;
}

int DtInetTcpSocket::getSendBufferSize()
{
   return getCommonOption(DtInetSockOptionSendBuffer);
}

int DtInetTcpSocket::getReceiveBufferSize()
{
   return getCommonOption(DtInetSockOptionReceiveBuffer);
}

int DtInetTcpSocket::getSendLowWatermark()
{
   return getCommonOption(DtInetSockOptionSendLowWatermark);
}

int DtInetTcpSocket::getReceiveLowWatermark()
{
   return getCommonOption(DtInetSockOptionReceiveLowWatermark);
}

bool DtInetTcpSocket::getConnAbortedOption()
{
   return readOption<boost::asio::socket_base::enable_connection_aborted>(
       "DtInetTcpSocket::getConnAbortedOption(): Error reading connection aborted option", false);
}

bool DtInetTcpSocket::getTcpKeepAliveOption()
{
   return readOption<boost::asio::socket_base::keep_alive>(
       "DtInetTcpSocket::getTcpKeepAliveOption(): Error reading TCP keep alives", false);
}

bool DtInetTcpSocket::getTcpLingerOption(unsigned short& seconds)
{
   boost::asio::socket_base::linger option;
   bool const done =
       applyOption([&option](auto& handle, ErrorCode& error) { handle.get_option(option, error); },
                   "DtInetTcpSocket::getTcpLingerOption(): Error reading linger option");
   if (done)
      seconds = option.enabled() ? static_cast<unsigned short>(option.timeout()) : 0;
   return done;
}

int DtInetTcpSocket::getBytesAvailable()
{
   boost::asio::socket_base::bytes_readable command(true);
   bool const done = applyOption(
       [&command](auto& handle, ErrorCode& error) { handle.io_control(command, error); },
       "DtInetTcpSocket::getBytesAvailable(): Error reading bytes available");
   return done ? static_cast<int>(command.get()) : -1;
}
