//===- olutil/olInetTcpSocket.h - The stream socket -------------*- C++ -*-===//
//
// Family: Sockets.
//
// DtInetTcpSocket is the library's stream socket. One class serves both roles: a
// server socket owns an acceptor that listens and accepts into other
// DtInetTcpSocket objects; a connection socket connects, or is accepted, and moves
// bytes. It adds no framing: bytes go out untouched and a read returns what one read
// yields. Reads and writes run directly or through the background queues of its
// private companion DtInetTcpSockPimpl (DtInetSockFlagAsyncRecv, DtInetSockFlagAsyncSend).
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETTCPSOCKET_H
#define OLUTIL_OLINETTCPSOCKET_H

#include <cstdint>
#include <string>

#include <boost/asio/ts/netfwd.hpp>

#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetSocket.h>

class DtInetTcpSockPimpl;

// The Boost.Asio types that tcpSocket() and tcpServerSocket() give.
typedef boost::asio::basic_stream_socket<boost::asio::ip::tcp> DtInetBoostTcpSocket;
typedef boost::asio::basic_socket_acceptor<boost::asio::ip::tcp> DtInetBoostTcpAcceptor;

// A TCP socket, server or connection.
//
// States: 1 initialized, 2 open and bound, 3 listening, 4 connect in progress (non-
// blocking connect), 6 connected, 8 ended by the peer or the network, 9 closed, -1
// failed. A connection ended by the peer is not an error: the operation returns -1,
// the state becomes 8 and getTerminationCode()/getTerminationString() say why, while
// the last error stays as it was.
//
// A non-blocking connect returns at once with state 4. The connect finishes later: the
// next send, receive or connectToDestination() looks whether it has, and then moves the
// socket to 6 (starting the background thread of an asynchronous socket), or to -1
// with the connect's error recorded when it failed.
//
// Constructing a socket with arguments ignores SIGPIPE process-wide; writes to a peer
// that has gone also never raise it, and report the end of the connection instead.
//
// Thread safety: one application thread uses the socket. An asynchronous connection
// socket starts one background I/O thread when its connect completes and stops it on
// closing; the two threads meet only at locked queues, one queue step per lock. A
// background send returns once the bytes were queued; queued bytes leave in order,
// and closeSocket() sends what is still queued (for a bounded time) before closing.
//
// Errors: nothing throws; see DtInetSocket and the error numbers there.
class DtInetTcpSocket : public DtInetSocket
{
public:
   // Only the I/O context and the companion exist; state 0, default flags. Used as
   // the socket that acceptConnection() fills.
   DtInetTcpSocket();
   // A server socket listening on `port` (0: a system-chosen port) of `family`, or of
   // the device's address. Flags 0x0303 (send, receive, background) are removed.
   DtInetTcpSocket(unsigned short port, DtInetDevice* device = nullptr,
                   DtInetUtils::DtInetAddrFamily family = DtInetUtils::DtInetFamilyIPv4,
                   unsigned int flags = DtInetSockFlagsDefault, bool listen = true);
   // A connection socket to `destination`; with `open` it opens and connects, and the
   // caller checks isOk().
   DtInetTcpSocket(DtInetEndpoint const& destination, unsigned short localPort = 0,
                   DtInetDevice* device = nullptr, unsigned int flags = DtInetSockFlagsDefault,
                   bool open = true);
   ~DtInetTcpSocket() override;

   // Refused (error 106) once the socket is past state 1.
   bool setDestination(DtInetEndpoint const& destination) override;
   bool bindToDevice(DtInetDevice const* device) override;

   bool openSocket() override;
   bool closeSocket() override;
   bool connectToDestination() override;

   int send(char* buffer, unsigned long length, unsigned int flags) override;
   // The endpoint is ignored: a stream goes to its peer.
   int sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
              unsigned int flags) override;
   int sendChain(DtInetSockChain& chain, unsigned int flags) override;
   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override;
   int recv(char* buffer, unsigned long length, unsigned int flags) override;
   int recvToChain(DtInetSockChain& chain, unsigned int flags) override;
   // Store the peer in the endpoint, then read.
   int recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                unsigned int flags) override;
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                       unsigned int flags) override;

   // A server socket is fine in states 3 and 4; every socket in 2, 4 and 6.
   bool isOk() override;
   // The stream socket's descriptor; -1 on a server socket.
   int descriptor() const override;
   bool setSocket(DtInetEndpoint const& destination, unsigned short localPort, DtInetDevice* device,
                  unsigned int flags) override;

   // Options act on the acceptor of a server socket and on the stream socket
   // otherwise. On a closed socket a setter answers false and records nothing; a
   // refused option records the error and sets state -1.
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

   virtual bool listenForConnections();
   // Accepts one pending connection into `accepted` (a socket in state 0 or 1), which
   // ends connected (state 6). False when nothing is pending on a non-blocking
   // listener, or on failure (recorded on the listener or on `accepted`).
   virtual bool acceptConnection(DtInetTcpSocket* accepted, unsigned int flags);
   virtual bool setTcpNoDelayOption(bool enable);
   // SO_LINGER: on with `seconds` when it is not 0, off otherwise.
   virtual bool setTcpLingerOption(unsigned short seconds);
   virtual bool setConnAbortedOption(bool enable);
   virtual bool setTcpKeepAliveOption(bool enable);
   // Reads the linger time (0 when off) into `seconds`.
   virtual bool getTcpLingerOption(unsigned short& seconds);
   virtual bool getConnAbortedOption();
   virtual bool getTcpKeepAliveOption();
   virtual bool initAcceptedConnection(DtInetAddr const& address, unsigned short port,
                                       unsigned int flags);
   virtual bool openAcceptedConnection(DtInetEndpoint peer);
   virtual DtInetBoostTcpSocket* tcpSocket();
   virtual DtInetBoostTcpAcceptor* tcpServerSocket();

   bool isServerSock() const { return myAcceptor != nullptr; }

protected:
   friend class DtInetTcpSockPimpl;

   // What a failed send or read means; see the classification in the source.
   // `endOfStream` marks the asynchronous I/O layer's end-of-stream code (2).
   // `sendFailure` starts a send failure's text ("...::send() failed from ").
   int classifyFailure(int error, bool endOfStream, std::string const& message, bool sending,
                       char const* sendFailure);
   // The failure texts of send or sendChain.
   struct SendTexts;
   // The checks that open send and sendChain; true when the send may go ahead.
   bool checkSendable(SendTexts const& texts);
   // The checks that open recv and recvToChain; true when the read may go ahead.
   bool checkReadable(char const* unconnectedText, char const* uninitializedText);
   // Runs finishConnect(): true when the connect failed, or the connection ended,
   // just now (and that was recorded).
   bool connectFailedNow();
   // One send or read: queued(error) through the background queue when `background`,
   // direct(error) otherwise. A failure is classified; `sendFailure` starts a send's
   // failure text and is null for a read.
   template <class Queued, class Direct>
   int transfer(bool background, Queued const& queued, Direct const& direct,
                char const* sendFailure);
   // Looks whether a connect in progress has finished (state 4 to 6, or -1).
   void finishConnect();
   // The state and the background thread of a connection that has just come up.
   void becomeConnected();
   int transmitChain(DtInetSockChain& chain);
   int readChain(DtInetSockChain& chain);
   // Runs one option operation, apply(handle, error_code&), on the acceptor of a
   // server socket or on the stream socket; see DtInetSocket::settleOption.
   template <class Apply>
   bool applyOption(Apply const& apply, std::string const& failureText);
   template <class Option, class Value>
   Value readOption(char const* failureText, Value failed);
   // The options both sockets share, set and read through applyOption.
   bool setCommonOption(DtInetSockOption option, unsigned int value);
   int getCommonOption(DtInetSockOption option);
   void createStreamSocket();
   // The common end of openSocket and listenForConnections on the handle prepare()
   // gives (stream socket or acceptor): open, options, bind, listen for an acceptor,
   // the new state and the bound port. A failure records `prefix` and `failureText`.
   template <class Prepare>
   bool bindLocal(Prepare const& prepare, char const* prefix, char const* failureText);

   DtInetTcpSockPimpl* myPimpl;
   boost::asio::io_context* myIoContext;
   DtInetBoostTcpSocket* myTcpSocket;
   DtInetBoostTcpAcceptor* myAcceptor;
   std::int32_t myFamily;
};

#endif  // OLUTIL_OLINETTCPSOCKET_H
