//===- olutil/olDisSocket.h - UDP socket for DIS traffic --------*- C++ -*-===//
//
// Family: DIS.
//
// DtDisSocket is a DtInetUdpSocket that carries DIS PDUs. On the way in it takes
// datagrams that may hold several PDUs (a bundle, or a PDU with a coupled
// Attribute PDU behind it) and delivers one PDU per chain read, after dropping
// what is too short, what came from this socket's own send socket and what the
// four filter tests refuse. On the way out it can gather small PDUs for one
// destination into bundles, sends to a list of additional destinations, and can
// send from a second socket of its own so that its own multicast or broadcast
// traffic is recognised and dropped when it comes back.
//
// The receive filters and the bundling run as processing callbacks of
// DtInetSocket, so they act on the chain operations (recvToChainFrom,
// sendChain, ...); recvFrom and sendTo reach them through a one-buffer chain.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLDISSOCKET_H
#define OLUTIL_OLDISSOCKET_H

#include <deque>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <olutil/olInetEndpoint.h>
#include <olutil/olInetUdpSocket.h>
#include <olutil/olMutex.h>
#include <olutil/olPduFilterTest.h>

class DtDisSockPimpl;
class DtInetAddr;
class DtInetDevice;

// The first 12 bytes of a PDU, in wire order, as the socket reads them.
struct DtDisSocketPduHeader
{
   unsigned char protocolVersion;
   unsigned char exerciseId;
   unsigned char pduKind;
   unsigned char protocolFamily;
   unsigned char timestamp[4];
   unsigned char length[2];  // network order; may sit at an odd address
   unsigned char pduStatus;  // bit 0x08 announces a coupled Attribute PDU
   unsigned char padding;
};

// How the coupled-Attribute-PDU bit of the PDU status is honoured.
enum DtAttributePduStrategy : int
{
   // Coupling is ignored on PDUs of protocol version 6 or lower.
   DtAttributePduIgnoreOnVersion6 = 1,
   // Coupling is honoured on every version (the default).
   DtAttributePduHonour = 2
};

// Status codes that the receive callbacks write through their int* argument.
// They also come back from a chain read whose packet was dropped.
enum DtDisSocketStatus : int
{
   DtDisStatusNone = 0,
   DtDisStatusNotAttributePdu = -1,  // a PDU that had to be an Attribute PDU was not
   DtDisStatusFiltered = -2,         // dropped by the size test or a filter test
   DtDisStatusOwnTraffic = -3,       // dropped as this socket's own traffic
   DtDisStatusChainTooShort = -4,    // the chain or datagram ended too early
   DtDisStatusFromQueue = -5         // the PDU came from the unbundled queue
};

// Protocol version constants used in alignment and coupling rules.
enum
{
   DtDisAttributePduKind = 72,  // the character 'H'
   DtDisCoupledPduBit = 0x08,
   DtDisPduHeaderSize = 12
};

// A UDP socket for DIS PDUs.
//
// Thread safety: a socket belongs to one application thread. With an
// asynchronous flag (DtInetSockFlagAsyncRecv, DtInetSockFlagAsyncSend) the
// socket's mutex guards open, close, the destination list, the error record on
// failure, and the bundle and unbundled-PDU state; without one no lock is
// taken. With self-reflect suppression and DtInetSockFlagAsyncSend, sends are
// handed to one background thread that owns only the send socket: a send
// returns after one copy and one post, datagrams leave in the order they were
// posted, and closeSocket() returns only after every datagram posted before it
// has been handed to the system.
//
// Errors: nothing throws. Failures are recorded as in DtInetSocket. The receive
// callbacks report through their status argument (DtDisSocketStatus).
class DtDisSocket : public DtInetUdpSocket
{
public:
   typedef std::map<DtInetEndpoint, std::pair<unsigned int, DtInetSockChain>> BundleMap;
   // Later PDUs of received bundles: the sender (one copy shared by the PDUs of a
   // datagram) and an owned copy of the PDU.
   typedef std::deque<std::pair<std::shared_ptr<DtInetEndpoint const>, std::vector<char>*>>
       PduQueue;
   typedef DtInetSockChain::iterator ChainIterator;

   // Builds the UDP socket with the destination and localPort (the destination's
   // port when localPort is 0), registers the receive callbacks, and opens when
   // openNow is true. With suppressSelfReflect a second, sending socket is made;
   // every datagram from its source endpoint is dropped on receipt.
   DtDisSocket(DtInetEndpoint const& destination, unsigned short localPort = 0,
               DtInetDevice* device = nullptr, unsigned int flags = DtInetSockFlagsDefault,
               bool openNow = true, bool suppressSelfReflect = false);
   // Closes (flushing pending bundles), then removes the callbacks.
   ~DtDisSocket() override;

   // ---------------------------------------------------- overrides of the UDP socket
   bool openSocket() override;
   // Flushes pending bundles, drains the asynchronous sender, closes both sockets.
   bool closeSocket() override;
   // Send to the default destination and then to every additional one; the result
   // is that of the last destination.
   int send(char* buffer, unsigned long length, unsigned int flags) override;
   int sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
              unsigned int flags) override;
   int sendChain(DtInetSockChain& chain, unsigned int flags) override;
   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override;
   // Reads through the chain pipeline into a temporary buffer of `length` bytes, so
   // that a plain read also gets one PDU at a time and the filters.
   int recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                unsigned int flags) override;
   // The inherited chain read through the receive callbacks. While the socket is
   // exactly a DtDisSocket and its receive lists hold only what the constructor
   // registered, the callbacks are called directly in their priority order, and a
   // datagram of one PDU, or a queued PDU, that every test passes skips the walk:
   // same results, at close to the cost of a bare UDP read.
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                       unsigned int flags) override;
   // As inherited; a change to a receive list sends later reads the general way.
   bool addProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn,
                              void* userData, int priority) override;
   bool removeProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn) override;
   // The option setters also apply the option to the send socket when suppression is
   // on; then an absent or closed send socket gives false.
   bool setNonBlockingOption(bool enable) override;
   bool setReuseAddressOption(bool enable) override;
   bool setSendBufferSize(unsigned int size) override;
   bool setReceiveBufferSize(unsigned int size) override;
   bool setDoNotRouteOption(bool enable) override;
   bool setSendLowWatermark(unsigned int size) override;
   bool setReceiveLowWatermark(unsigned int size) override;
   bool setBroadcastOption(bool enable) override;
   bool setMcastTtlOption(unsigned int ttl) override;

   // ---------------------------------------------------- destinations and send socket
   // False, adding nothing, when the endpoint's family differs from the destination's.
   virtual bool addDestination(DtInetEndpoint const& endpoint);
   virtual bool removeDestination(DtInetEndpoint const& endpoint);
   // Outbound multicast interface of the send socket: an IPv4 interface address, or
   // on an IPv6 send socket an IPv6 one, which names the interface that holds it.
   virtual bool setSendMcastDevice(DtInetAddr const& interfaceAddress);
   virtual bool sendSockJoinMulticastGroup(DtInetAddr const& group, DtInetDevice* device = nullptr);
   virtual bool sendSockJoinMulticastGroup(DtInetEndpoint const& group,
                                           DtInetDevice* device = nullptr);
   virtual bool sendSockDropMulticastGroup(DtInetAddr const& group, DtInetDevice* device = nullptr);
   virtual bool sendSockDropMulticastGroup(DtInetEndpoint const& group,
                                           DtInetDevice* device = nullptr);

   // ---------------------------------------------------- bundling
   // Only maxBundleSize has an effect; above 0 bundling is on. The other three
   // arguments are kept for compatibility and ignored. Turning bundling on registers
   // addToBundle as pre-send callback; turning it off removes it. Pending bundles
   // stay until flushed.
   virtual void setBundling(int maxBundleSize, int unused1 = 0, int unused2 = 0,
                            bool unused3 = false);
   // Sets the field only: the callback is not touched.
   virtual void setMaxBundleSize(int maxBundleSize);
   virtual int getMaxBundleSize();
   virtual bool isBundling();
   virtual void setMinPacketSize(int size);
   virtual int minPacketSize();
   // Where each PDU of an outgoing bundle starts (a power of two; below 2 packs).
   virtual void setBundleByteAlignment(unsigned int alignment);
   virtual unsigned int sendBundleByteAlignment();
   // Alignment of the PDUs in a received bundle: 0 for version 6 or lower, else 8.
   virtual unsigned int receiveBundleByteAlignment(unsigned char protocolVersion);

   // ---------------------------------------------------- filters
   virtual DtPduFilterTest& exerciseId();
   virtual DtPduFilterTest& protocolVersion();
   virtual DtPduFilterTest& pduKind();
   // Never refuses on a value: it is evaluated without a comparison.
   virtual DtPduFilterTest& ipAddr();
   // Source endpoint of everything the send socket sends.
   virtual DtInetEndpoint const& localSenderEndpoint();

   // Sends every pending bundle: 1 when all went (or none was pending), 0 when a
   // send returned 0, -1 on a short send. A failed bundle stays pending.
   virtual int flush();

   // ---------------------------------------------------- processing callbacks
   // Pre-send: absorbs the chain into the endpoint's pending bundle. Returns 0 (all
   // handled) or -1 when a send it had to make was short.
   virtual int addToBundle(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint);
   // Post-receive at 5: keeps the first PDU of a datagram in the chain, queues the
   // others.
   virtual int unbundle(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint, int* status);
   // Pre-receive at 1: hands out a queued PDU (status -5) instead of a read.
   virtual int getNextBundle(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint,
                             int* status);
   // Sends the pending bundle of one endpoint: its length, 0 when nothing was sent
   // (also when none was pending), -1 on a short send.
   virtual int flushBundle(DtInetEndpoint const& endpoint);
   // Post-receive at 2: drops datagrams from localSenderEndpoint() (status -3).
   virtual int suppressSelfReflect(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                   int* status);
   // Post-receive at 7: the four filter tests (status -2), then the length of this
   // PDU (with its coupled Attribute PDU) as the result.
   virtual int filterExercisePdus(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                  int* status);
   // Post-receive at 1: drops datagrams shorter than minPacketSize() (status -2).
   virtual int minSizeFilter(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint,
                             int* status);
   virtual void setAttributePduStrategy(DtAttributePduStrategy strategy);
   virtual DtAttributePduStrategy attributePduStrategy();
   // The second socket, or null without suppression.
   virtual DtInetBoostUdpSocket* disSendSocket();

   // ---------------------------------------------------- PDU walking
   // The length field of the PDU that starts `offset` bytes into *begin. `header` is
   // that position ((*begin)->data() + offset); the bytes are read through begin and
   // offset so that no read leaves the chain. A header split across buffers gives 0
   // (its version, kind and status are still read); a chain that ends inside the
   // header gives 0 and status -4. With mustBeAttribute a kind other than 72 sets
   // status -1. `coupled` tells whether a coupled Attribute PDU follows.
   virtual int getPduSize(char const* header, unsigned int offset, ChainIterator begin,
                          ChainIterator end, int* status, bool* coupled, bool mustBeAttribute);
   // The length of the Attribute PDU that follows, `padding` bytes after the PDU
   // that ends `offset` bytes into *begin; `total` is what remains of the datagram
   // after that PDU. 0 when fewer than padding + 12 bytes remain; status -4 when the
   // chain ends before it, -1 when the PDU there is no Attribute PDU.
   virtual int getCoupledAttributePduSize(char const* header, unsigned int offset,
                                          ChainIterator begin, ChainIterator end, int* status,
                                          unsigned int padding, int total);
   // Steps over whole buffers while offset exceeds the current buffer's size,
   // reducing offset, then over empty buffers. An offset equal to a buffer's size
   // stays in that buffer.
   virtual ChainIterator advanceToOffset(unsigned int& offset, ChainIterator begin,
                                         ChainIterator end);

   // Static forms registered on the callback lists. The receive forms find the
   // socket through their socket argument; the void* is the status word. The send
   // forms take the DtDisSocket as user data.
   static int addToBundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                          DtInetEndpoint& endpoint, void* userData);
   // As a post-send callback: -1 if the flush failed, otherwise the chain's size
   // when count is above 0, else count.
   static int flushBundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                          DtInetEndpoint& endpoint, void* userData);
   static int unbundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                       DtInetEndpoint& endpoint, void* status);
   static int getNextBundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                            DtInetEndpoint& endpoint, void* status);
   static int suppressSelfReflect(DtInetSocket* socket, int count, DtInetSockChain& chain,
                                  DtInetEndpoint& endpoint, void* status);
   static int filterExercisePdus(DtInetSocket* socket, int count, DtInetSockChain& chain,
                                 DtInetEndpoint& endpoint, void* status);
   static int minSizeFilter(DtInetSocket* socket, int count, DtInetSockChain& chain,
                            DtInetEndpoint& endpoint, void* status);

   // Bytes from n up to the next multiple of a (a power of two); 0 when a is below 2.
   static unsigned int alignedPadding(unsigned int n, unsigned int a);
   // n rounded up to a multiple of a (a power of two); n itself when a is below 2.
   static unsigned int alignValue(unsigned int n, unsigned int a);

   // ---------------------------------------------------- inspection
   bool isSuppressingSelfReflect() const { return mySuppressSelfReflect; }
   std::vector<DtInetEndpoint> const& additionalDestinations() const
   {
      return myAdditionalDestinations;
   }
   // Pending bundles by destination: length (padding included) and chain.
   BundleMap const& pendingBundles() const { return myPendingBundles; }
   // PDUs of received bundles still waiting to be read.
   std::size_t queuedPduCount() const { return myUnbundledQueue.size(); }
   // The native handle that reads wait on: the second UDP socket, which opening
   // makes separate for some multicast set-ups. -1 when not open. A caller that
   // polls should read while queuedPduCount() is above 0 before waiting again.
   int receiveDescriptor();

protected:
   friend class DtDisSockPimpl;

   // Records a failure (number, text, state -1) under the socket mutex.
   void recordLockedFailure(int number, DtString const& text);
   // Applies one option to the send socket after the base setter; see the setters.
   template <class Apply>
   bool applySendSockOption(bool baseResult, Apply const& apply, DtString const& text);
   // Sends to the connected destination or `endpoint`: sendNow(udp, error) on the
   // send socket, or sendLater(heap endpoint, error) through the background sender
   // with DtInetSockFlagAsyncSend; failures are recorded with `failurePrefix`.
   template <class SendNow, class SendLater>
   int sendOnSendSocket(DtInetEndpoint& endpoint, char const* failurePrefix, SendNow const& sendNow,
                        SendLater const& sendLater);
   // The transmit step of the send pipeline on the send socket.
   int transmitOnSendSocket(DtInetSockChain& chain, DtInetEndpoint& endpoint);
   bool changeSendSockGroup(bool join, DtInetAddr const& group, DtInetDevice* device);
   // Sends one pending bundle without touching the map.
   int sendBundle(DtInetEndpoint const& endpoint, DtInetSockChain& bundle);
   static void freeChain(DtInetSockChain& chain);
   // Gives the buffers of a sent bundle back to the pool and empties the chain.
   void releaseBundle(DtInetSockChain& chain);
   void clearUnbundledQueue();
   std::vector<char>* takePduBuffer(std::size_t size);
   void returnPduBuffer(std::vector<char>* buffer);
   // The destination walk of send and sendChain.
   template <class SendOne>
   int sendToAll(char const* operation, SendOne const& sendOne);
   // Whether a chain read may take the direct path (see recvToChainFrom).
   bool hasOwnReceivePipeline(unsigned int flags);
   // True when the first buffer holds `count` bytes that are one whole uncoupled PDU
   // of at least the minimum size, and every filter test passes everything: the
   // filter tests would hand it on unchanged.
   bool isPlainPdu(DtInetSockChain const& chain, int count) const;
   // The same for a datagram just read, with no earlier PDU waiting and no lock in
   // use: the walk would not split it either.
   bool isPlainSinglePdu(DtInetSockChain const& chain, int count) const;

   DtDisSockPimpl* myDisPimpl;
   boost::asio::io_context* myDisIoContext;
   DtInetBoostUdpSocket* mySendSocket;
   DtInetEndpoint myLocalSenderEndpoint;
   std::vector<DtInetEndpoint> myAdditionalDestinations;
   bool mySuppressSelfReflect;
   BundleMap myPendingBundles;
   PduQueue myUnbundledQueue;
   int myMaxBundleSize;
   unsigned int myBundleByteAlignment;
   int myMinPacketSize;
   DtPduFilterTest myProtocolVersionTest;
   DtPduFilterTest myExerciseIdTest;
   DtPduFilterTest myPduKindTest;
   DtPduFilterTest myIpAddrTest;
   DtMutex mySocketMutex;
   bool* myLockNeeded;
   DtAttributePduStrategy myAttributePduStrategy;
   // Buffers of PDUs already handed out, kept for the next bundle so that a
   // steady stream of bundles does not go to the heap for every PDU.
   std::vector<std::vector<char>*> myPduPool;
   // The one-buffer chain through which a plain send joins a bundle.
   std::vector<char> mySendScratch;
   DtInetSockChain mySendScratchChain;
   // Whether chain reads may call the receive callbacks directly: not known until
   // the first read (the most derived class is known only then), and never again
   // once a receive list has changed.
   enum ReceivePath : unsigned char
   {
      ReceivePathUnknown,
      ReceivePathDirect,
      ReceivePathGeneral
   };
   ReceivePath myReceivePath;
   // The sender copy shared by the queued PDUs of the last bundle, kept for the next.
   std::shared_ptr<DtInetEndpoint const> myLastBundleSender;
};

#endif  // OLUTIL_OLDISSOCKET_H
