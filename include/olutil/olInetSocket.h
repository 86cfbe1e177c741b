//===- olutil/olInetSocket.h - Socket base and processing callbacks -*- C++ -*-===//
//
// Family: Sockets.
//
// DtInetSocket is the abstract base of the library's network sockets. It keeps what a
// datagram and a stream socket share: endpoints, bound device, state, behaviour flags,
// the last-error and termination records, traffic totals, and four ordered lists of
// processing callbacks that run around the chain send and receive operations. A chain
// is a vector of pointers to caller-owned byte vectors: one logical packet, gathered on
// send and scattered on receive.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETSOCKET_H
#define OLUTIL_OLINETSOCKET_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetEndpoint.h>
#include <olutil/olString.h>

class DtInetDevice;
class DtInetSocket;

// One packet as a list of buffers. The caller owns the vector and every buffer in it;
// reads fill each buffer up to its current size() and never resize or allocate.
typedef std::vector<std::vector<char>*> DtInetSockChain;

// Where in a chain operation a processing callback runs.
enum DtInetSockProcessingType
{
   DtInetSockPreReceive = 0,
   DtInetSockPostReceive = 1,
   DtInetSockPreSend = 2,
   DtInetSockPostSend = 3
};

// Behaviour flags: the flags argument of the socket constructors and setSocket.
enum DtInetSockFlag : unsigned int
{
   DtInetSockFlagRecv = 0x0001,
   DtInetSockFlagSend = 0x0002,          // synchronous sending allowed
   DtInetSockFlagMcastAnyBind = 0x0020,  // consulted while a UDP socket opens
   DtInetSockFlagNonBlocking = 0x0040,   // open the socket non-blocking
   DtInetSockFlagNoDelay = 0x0080,       // TCP: TCP_NODELAY on open
   DtInetSockFlagAsyncRecv = 0x0100,     // reads come from a background queue
   DtInetSockFlagAsyncSend = 0x0200,     // sends go through a background queue
   DtInetSockFlagReuseAddress = 0x0400,  // address reuse on open
   DtInetSockFlagDefault800 = 0x0800,    // part of the default; tested by nothing here
   DtInetSockFlagsDefault = 0x0C83,
   DtInetSockFlagsAsync = DtInetSockFlagAsyncRecv | DtInetSockFlagAsyncSend
};

// Per-call flags: the last argument of the send and receive operations. Only the chain
// operations look at them; all other bits are ignored.
enum DtInetSockCallFlag : unsigned int
{
   DtInetSockCallNoPreCallbacks = 0x1000,
   DtInetSockCallNoPostCallbacks = 0x2000
};

// The socket options that both concrete sockets set and read the same way; defined,
// with the operations on them, in olInetSocketUtils.h.
enum DtInetSockOption : int;

// Socket states as returned by DtInetSocket::state(). 5 and 7 are not used.
enum DtInetSockState
{
   DtInetSockStateError = -1,
   DtInetSockStateNone = 0,
   DtInetSockStateInitialized = 1,
   DtInetSockStateOpen = 2,
   DtInetSockStateListening = 3,
   DtInetSockStateConnecting = 4,
   DtInetSockStateConnected = 6,
   DtInetSockStateTerminated = 8,
   DtInetSockStateClosed = 9
};

// Results of the send and receive operations besides a byte count (> 0) and 0
// (nothing happened: would block, nothing waiting, or a callback consumed the packet).
enum DtInetSockResult
{
   DtInetSockResultFailed = -1,    // see getLastError(), or the termination record
   DtInetSockResultNoFit = -4,     // buffer or chain cannot hold the packet, or empty chain
   DtInetSockResultFromQueue = -5  // skip marker: a pre-receive callback supplied the packet
};

// A processing callback. On the send side the last argument is the user data given at
// registration; on the receive side it is a pointer to the pipeline's int skip marker
// (pre-receive) or carry value (post-receive), and the callback reaches its own state
// through the socket pointer.
typedef int (*DtInetSockProcessingCb)(DtInetSocket* socket, int length, DtInetSockChain& chain,
                                      DtInetEndpoint& endpoint, void* data);

// One registered processing callback; owned by the list entry that holds it.
struct DtInetSocketProcessingCbInfo
{
   DtInetSockProcessingCb callback;
   void* userData;
   int priority;
};

// A socket manager's join and leave callbacks.
typedef bool (*DtInetSocketCb)(DtInetSocket* socket, void* userData);

struct DtInetSocketCbInfo
{
   DtInetSocketCb callback;
   void* userData;
   int priority;
};

// A processing-callback list: ascending keys, equal keys in the order they were added.
typedef std::multimap<int, DtInetSocketProcessingCbInfo*> DtInetSockCallbackList;

// The transmit or read step of a chain pipeline, supplied by the concrete socket. It
// records its own errors. A negative result ends the operation with that result; 0
// and positive results are the bytes moved. A read step that moved bytes also stores
// the sender in its endpoint argument.
typedef std::function<int(DtInetSockChain& chain, DtInetEndpoint& endpoint)> DtInetSockChainStep;

// The base of every network socket.
//
// Thread safety: a socket is used by one application thread at a time. Its fields,
// callback lists and counters take no lock; callbacks must not be added or removed
// while a chain operation runs on another thread. An asynchronous socket
// (DtInetSockFlagAsyncRecv, DtInetSockFlagAsyncSend) owns one background I/O thread,
// which meets the application thread only at locked packet queues inside the concrete
// socket; the error record and counters are still touched only by the caller's thread.
//
// Errors: no operation throws. Failures are recorded as an errno-style number and a
// text (getLastError, getLastErrorString) and answered with false or a negative result.
class DtInetSocket
{
public:
   virtual ~DtInetSocket();

   DtInetSocket(DtInetSocket const&) = delete;
   DtInetSocket& operator=(DtInetSocket const&) = delete;

   virtual bool setDestination(DtInetEndpoint const& destination) = 0;
   virtual DtInetEndpoint const& destination() const;
   virtual DtInetEndpoint const& localEndpoint() const;
   // Sets the port of the local endpoint; always true.
   virtual bool setLocalPort(unsigned short port);
   virtual unsigned short localPort() const;
   virtual bool bindToDevice(DtInetDevice const* device) = 0;
   virtual DtInetDevice* hostIf() const;

   virtual bool openSocket() = 0;
   virtual bool closeSocket() = 0;
   virtual bool connectToDestination() = 0;

   // The plain operations ignore their flags and never run processing callbacks.
   virtual int send(char* buffer, unsigned long length, unsigned int flags) = 0;
   virtual int sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                      unsigned int flags) = 0;
   virtual int sendChain(DtInetSockChain& chain, unsigned int flags) = 0;
   virtual int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                           unsigned int flags) = 0;
   virtual int recv(char* buffer, unsigned long length, unsigned int flags) = 0;
   virtual int recvToChain(DtInetSockChain& chain, unsigned int flags) = 0;
   virtual int recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                        unsigned int flags) = 0;
   virtual int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                               unsigned int flags) = 0;

   virtual int state();
   // True when the state is above 0; the concrete sockets narrow it.
   virtual bool isOk();
   virtual DtInetProtocol protocol() const;
   virtual DtInetUtils::DtInetAddrFamily family() const;
   virtual int descriptor() const = 0;
   virtual unsigned int flags();
   virtual bool setSocket(DtInetEndpoint const& destination, unsigned short localPort,
                          DtInetDevice* device, unsigned int flags) = 0;

   virtual bool setNonBlockingOption(bool enable) = 0;
   virtual bool setReuseAddressOption(bool enable) = 0;
   virtual bool setSendBufferSize(unsigned int size) = 0;
   virtual bool setReceiveBufferSize(unsigned int size) = 0;
   virtual bool setDoNotRouteOption(bool enable) = 0;
   virtual bool setSendLowWatermark(unsigned int size) = 0;
   virtual bool setReceiveLowWatermark(unsigned int size) = 0;
   virtual bool isNonBlocking() const;
   virtual bool isNoDelay() const;
   virtual bool getReuseAddressOption() = 0;
   virtual bool getDoNotRouteOption() = 0;
   // The numeric getters answer -1 when the option cannot be read.
   virtual int getSendBufferSize() = 0;
   virtual int getReceiveBufferSize() = 0;
   virtual int getBytesAvailable() = 0;
   virtual int getSendLowWatermark() = 0;
   virtual int getReceiveLowWatermark() = 0;

   virtual bool isIPv4() const;
   virtual bool isIPv6() const;
   virtual bool isTcp() const;
   virtual bool isUdp() const;

   virtual int getLastError();
   virtual DtString getLastErrorString();
   // True when the last error is 11 (would block, try again).
   virtual bool isErrorWouldBlockOrTryAgain();
   // Empties the error record; the state stays as it is.
   virtual void clearError();
   virtual int getTerminationCode();
   virtual DtString getTerminationString();

   virtual std::uint64_t totalBytesSent() const;
   virtual std::uint64_t totalPacketsSent() const;
   virtual std::uint64_t totalBytesReceived() const;
   virtual std::uint64_t totalPacketsReceived() const;
   // Zeroes the four totals; the receive time stays.
   virtual void clearStats();

   // Registers fn on the list of the given type. A priority of 0 or more is the key; a
   // negative one means "last": the key becomes the list's greatest key plus 1. That
   // form needs a non-empty list; on an empty list this implementation uses key 0. An
   // unknown type answers false and stores nothing.
   virtual bool addProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn,
                                      void* userData, int priority);
   // Removes the first entry, in key order, whose function is fn (the user data is not
   // compared). A function registered twice needs two calls.
   virtual bool removeProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn);
   // Time of the last packet read on a datagram socket, in absolute real-time seconds.
   virtual double receiveTime();

protected:
   virtual bool findAndRemoveCallback(DtInetSockCallbackList& list, DtInetSockProcessingCb fn);

   DtInetSocket();

   // Stores flags and derives the asynchronous, non-blocking and no-delay booleans.
   void setFlags(unsigned int flags);
   void setState(int state) { myState = state; }
   // Records an error number and text; the state is left alone.
   void recordError(int number, DtString const& text);
   // Records an error number and text and invalidates the socket (state -1).
   void recordFailure(int number, DtString const& text);
   void recordTermination(int code, DtString const& text);
   // The end of an option operation run by DtInetSockRunOption: true when it worked;
   // false when the socket was closed (nothing recorded) or when the system refused,
   // which records the number and `failureText`, a newline and the system's message,
   // and sets state -1.
   bool settleOption(int outcome, std::string const& message, std::string const& failureText);
   // The list of a processing type, or null for an unknown type.
   DtInetSockCallbackList* callbackList(DtInetSockProcessingType type);

   // The chain send pipeline shared by the concrete sockets: pre-send callbacks,
   // transmit, statistics, post-send callbacks. `rules` selects the datagram (UDP) or
   // stream (TCP) length and statistics rules. The failure texts are recorded, with
   // last error -1 and state -1, when a callback returns a negative value.
   int runSendPipeline(DtInetProtocol rules, DtInetSockChain& chain, DtInetEndpoint& target,
                       unsigned int callFlags, DtInetSockChainStep const& transmit,
                       char const* preSendFailure, char const* postSendFailure);
   // The chain receive pipeline: empty-chain test, pre-receive callbacks with the skip
   // marker, read, statistics, post-receive callbacks with the carry value.
   int runReceivePipeline(DtInetSockChain& chain, DtInetEndpoint& sender, unsigned int callFlags,
                          DtInetSockChainStep const& read);
   // The receive statistics for what a read or a pre-receive callback handed in: a
   // packet for any result but 0, its bytes for a positive one.
   void countReceived(int length)
   {
      if (length != 0)
      {
         ++myTotalPacketsReceived;
         if (length > 0)
            myTotalBytesReceived += static_cast<std::uint64_t>(length);
      }
   }

   DtInetEndpoint myLocalEndpoint;
   DtInetEndpoint myDestination;
   DtInetDevice* myHostIf;
   std::int32_t myState;
   std::uint32_t myFlags;
   bool myAsynchronous;
   bool myNonBlocking;
   bool myNoDelay;
   bool myOpenOnConstruction;
   std::int32_t myLastError;
   DtString myLastErrorString;
   std::int32_t myTerminationCode;
   DtString myTerminationString;
   DtInetSockCallbackList myPreReceiveCallbacks;
   DtInetSockCallbackList myPostReceiveCallbacks;
   DtInetSockCallbackList myPreSendCallbacks;
   DtInetSockCallbackList myPostSendCallbacks;
   std::uint64_t myTotalBytesSent;
   std::uint64_t myTotalPacketsSent;
   std::uint64_t myTotalBytesReceived;
   std::uint64_t myTotalPacketsReceived;
   double myReceiveTime;
};

#endif  // OLUTIL_OLINETSOCKET_H
