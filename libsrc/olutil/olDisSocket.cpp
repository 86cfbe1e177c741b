// DtDisSocket: set-up, send paths, receive pipeline and bundling of DIS traffic.
#include <olutil/olDisSocket.h>

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/multicast.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/asio/socket_base.hpp>

#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>
#include <olutil/olInetSocketUtils.h>
#include <olutil/olPrint.h>

#include "olDisSockPimpl.h"

namespace
{
char const* const theCoupledReadWarning = "Failed to read expected Coupled Attribute PDU\n";
char const* const theSendSockNotInitialized =
    "DtDisSocket::send()/sendTo(): Send socket not initialized for sending.";
char const* const theChainSendSockNotInitialized =
    "DtDisSocket::sendChain()/sendChainTo(): Send socket not initialized for sending.";

unsigned int const theSendFlags = DtInetSockFlagSend | DtInetSockFlagAsyncSend;

std::size_t bufferSize(std::vector<char> const* buffer)
{
   return buffer ? buffer->size() : 0;
}

// Copies up to 12 header bytes starting `offset` bytes into *it, across the
// following buffers. False when the chain ends first.
bool gatherHeader(DtInetSockChain::iterator it, std::size_t offset, DtInetSockChain::iterator end,
                  DtDisSocketPduHeader& header)
{
   unsigned char* out = reinterpret_cast<unsigned char*>(&header);
   std::size_t need = sizeof header;
   while (it != end && need > 0)
   {
      std::size_t const size = bufferSize(*it);
      if (offset >= size)
      {
         offset -= size;
         ++it;
         continue;
      }
      std::size_t const piece = std::min(need, size - offset);
      std::memcpy(out, (*it)->data() + offset, piece);
      out += piece;
      need -= piece;
      offset += piece;
   }
   return need == 0;
}

// The first byte at the position, or 0 when the chain has none there.
unsigned char byteAt(DtInetSockChain::iterator it, std::size_t offset,
                     DtInetSockChain::iterator end)
{
   while (it != end)
   {
      std::size_t const size = bufferSize(*it);
      if (offset < size)
         return static_cast<unsigned char>((*it)->data()[offset]);
      offset -= size;
      ++it;
   }
   return 0;
}

// Moves a position that sits at the end of its buffer to the start of the next
// non-empty one, so that a PDU starting on a buffer boundary is read whole.
void normalisePosition(DtInetSockChain::iterator& it, unsigned int& offset,
                       DtInetSockChain::iterator end)
{
   while (it != end && offset >= bufferSize(*it))
   {
      DtInetSockChain::iterator next = it + 1;
      if (next == end)
         return;
      offset -= static_cast<unsigned int>(bufferSize(*it));
      it = next;
   }
}

char const* positionOf(DtInetSockChain::iterator it, unsigned int offset,
                       DtInetSockChain::iterator end)
{
   if (it == end || !*it || offset >= (*it)->size())
      return nullptr;
   return (*it)->data() + offset;
}

// The static receive forms are registered by DtDisSocket's constructor on itself,
// so the socket they are called with is always one; a static cast keeps the
// per-read cost of four callbacks down to four calls.
DtDisSocket* disSocketOf(DtInetSocket* socket)
{
   return static_cast<DtDisSocket*>(socket);
}

int* statusOf(void* status, int& scratch)
{
   return status ? static_cast<int*>(status) : &scratch;
}

// One receive callback's member form, reached from the static form that the
// callback lists hold; the status word may be absent.
typedef int (DtDisSocket::*DtDisPduStep)(int, DtInetSockChain&, DtInetEndpoint&, int*);

int forwardToDisSocket(DtInetSocket* socket, int count, DtInetSockChain& chain,
                       DtInetEndpoint& endpoint, void* status, DtDisPduStep step)
{
   int scratch = 0;
   DtDisSocket* dis = disSocketOf(socket);
   return dis ? (dis->*step)(count, chain, endpoint, statusOf(status, scratch)) : count;
}

DtString enablingWord(bool enable)
{
   return enable ? "enabling" : "disabling";
}
}  // namespace

// ---------------------------------------------------------------- construction

DtDisSocket::DtDisSocket(DtInetEndpoint const& destination, unsigned short localPort,
                         DtInetDevice* device, unsigned int flags, bool openNow,
                         bool suppressSelfReflect)
    : DtInetUdpSocket(destination, localPort != 0 ? localPort : destination.port(), device, flags,
                      false),
      myDisPimpl(nullptr),
      myDisIoContext(nullptr),
      mySendSocket(nullptr),
      myLocalSenderEndpoint(),
      myAdditionalDestinations(),
      mySuppressSelfReflect(suppressSelfReflect),
      myPendingBundles(),
      myUnbundledQueue(),
      myMaxBundleSize(0),
      myBundleByteAlignment(8),
      myMinPacketSize(12),
      myLockNeeded(&myAsynchronous),
      myAttributePduStrategy(DtAttributePduHonour),
      myReceivePath(ReceivePathUnknown)
{
   // Registered on the base lists directly: these are the lists the direct read path
   // stands for.
   if (mySuppressSelfReflect)
   {
      myDisIoContext = new boost::asio::io_context();
      mySendSocket = new DtInetBoostUdpSocket(*myDisIoContext);
      myDisPimpl = new DtDisSockPimpl(myDisIoContext, this);
      myLocalSenderEndpoint.setPort(localPort);
      DtInetUdpSocket::addProcessingCallback(
          DtInetSockPostReceive,
          static_cast<DtInetSockProcessingCb>(&DtDisSocket::suppressSelfReflect), this, 2);
   }
   DtInetUdpSocket::addProcessingCallback(
       DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(&DtDisSocket::unbundle), this, 5);
   DtInetUdpSocket::addProcessingCallback(
       DtInetSockPreReceive, static_cast<DtInetSockProcessingCb>(&DtDisSocket::getNextBundle), this,
       1);
   DtInetUdpSocket::addProcessingCallback(
       DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(&DtDisSocket::minSizeFilter),
       this, 1);
   DtInetUdpSocket::addProcessingCallback(
       DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(&DtDisSocket::filterExercisePdus),
       this, 7);
   myOpenOnConstruction = openNow;
   if (openNow)
      openSocket();
}

DtDisSocket::~DtDisSocket()
{
   closeSocket();
   removeProcessingCallback(DtInetSockPostReceive,
                            static_cast<DtInetSockProcessingCb>(&DtDisSocket::unbundle));
   removeProcessingCallback(DtInetSockPreReceive,
                            static_cast<DtInetSockProcessingCb>(&DtDisSocket::getNextBundle));
   removeProcessingCallback(DtInetSockPostReceive,
                            static_cast<DtInetSockProcessingCb>(&DtDisSocket::filterExercisePdus));
   if (mySuppressSelfReflect)
   {
      removeProcessingCallback(DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(
                                                          &DtDisSocket::suppressSelfReflect));
   }
   delete myDisPimpl;
   myDisPimpl = nullptr;
   delete mySendSocket;
   mySendSocket = nullptr;
   delete myDisIoContext;
   myDisIoContext = nullptr;

   // Whatever a failed flush left behind, and PDUs nobody read, die with the socket.
   for (auto& entry : myPendingBundles)
      freeChain(entry.second.second);
   myPendingBundles.clear();
   clearUnbundledQueue();
   for (std::vector<char>* buffer : myPduPool)
      delete buffer;
   myPduPool.clear();
}

void DtDisSocket::freeChain(DtInetSockChain& chain)
{
   for (std::vector<char>* buffer : chain)
      delete buffer;
   chain.clear();
}

std::vector<char>* DtDisSocket::takePduBuffer(std::size_t size)
{
   if (myPduPool.empty())
      return new std::vector<char>(size);
   std::vector<char>* buffer = myPduPool.back();
   myPduPool.pop_back();
   buffer->resize(size);
   return buffer;
}

void DtDisSocket::releaseBundle(DtInetSockChain& chain)
{
   for (std::vector<char>* buffer : chain)
   {
      if (buffer)
         returnPduBuffer(buffer);
   }
   chain.clear();
}

void DtDisSocket::returnPduBuffer(std::vector<char>* buffer)
{
   // Enough for a few full bundles; beyond that a burst gives its memory back.
   if (myPduPool.size() < 64 && buffer->capacity() <= 65536)
      myPduPool.push_back(buffer);
   else
      delete buffer;
}

void DtDisSocket::clearUnbundledQueue()
{
   for (auto& entry : myUnbundledQueue)
      delete entry.second;
   myUnbundledQueue.clear();
}

void DtDisSocket::recordLockedFailure(int number, DtString const& text)
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   recordFailure(number, text);
}

// ---------------------------------------------------------------- open and close

bool DtDisSocket::openSocket()
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   static char const* const prefix = "DtDisSocket::openSocket(): ";

   bool const opened = DtInetUdpSocket::openSocket();
   if (!opened || !mySuppressSelfReflect)
      return opened;
   // Opening an open socket changes nothing.
   if (mySendSocket->is_open())
      return true;

   if (!myHostIf)
      myHostIf = DtInetDevice::findInterface(myDestination.address());
   DtInetAddr const* senderAddress = nullptr;
   if (myHostIf)
      senderAddress = myDestination.isIPv6() ? myHostIf->ipv6Addr() : myHostIf->ipv4Addr();
   if (!senderAddress)
   {
      recordFailure(14, DtString(prefix) +
                            "Could not identify localhost interface for self-reflect suppression");
      return false;
   }
   // Linux drops IPv6 datagrams from the loopback address on every other interface: a
   // sender bound there would send each PDU into nothing, without an error.
   DtInetAddr const& group = myDestination.address();
   if (senderAddress->isLoopback() && group.isIPv6() && group.isMulticast() &&
       !group.boostAddress().to_v6().is_multicast_node_local())
   {
      recordFailure(14, DtString(prefix) + "Could not identify a non-loopback interface for " +
                            "self-reflect suppression: IPv6 multicast to " + group.toDtString() +
                            " sent from " + senderAddress->toDtString() +
                            " reaches no host; give the device to send from");
      return false;
   }

   try
   {
      myLocalSenderEndpoint.setAddress(*senderAddress);
      if (myLocalSenderEndpoint.protocol() != DtInetProtocolUdp)
         myLocalSenderEndpoint.setProtocol(DtInetProtocolUdp);
      // The sending port must differ from the receiving one, or the send socket
      // would take datagrams meant for the receiving socket.
      if (myLocalSenderEndpoint.port() == myDestination.port() ||
          myLocalSenderEndpoint.port() == localPort())
         myLocalSenderEndpoint.setPort(0);

      boost::system::error_code error;
      mySendSocket->open(
          myLocalSenderEndpoint.isIPv6() ? boost::asio::ip::udp::v6() : boost::asio::ip::udp::v4(),
          error);
      if (error)
         throw boost::system::system_error(error);

      setReuseAddressOption((myFlags & DtInetSockFlagReuseAddress) != 0);
      if (!(myFlags & DtInetSockFlagAsyncSend))
         setNonBlockingOption((myFlags & DtInetSockFlagNonBlocking) != 0);
      setBroadcastOption(true);
      setSendBufferSize(4294967295u);

      mySendSocket->bind(*myLocalSenderEndpoint.udpEndpoint(), error);
      if (error)
         throw boost::system::system_error(error);
      // The bound address picks the outgoing interface of IPv4 multicast, not of IPv6,
      // which needs the interface named.
      if (group.isIPv6() && group.isMulticast() && myHostIf->interfaceIndex() > 0)
      {
         mySendSocket->set_option(boost::asio::ip::multicast::outbound_interface(
                                      static_cast<unsigned int>(myHostIf->interfaceIndex())),
                                  error);
         if (error)
            throw boost::system::system_error(error);
      }
      if (myLocalSenderEndpoint.port() == 0)
      {
         boost::asio::ip::udp::endpoint bound = mySendSocket->local_endpoint(error);
         if (error)
            throw boost::system::system_error(error);
         myLocalSenderEndpoint.setPort(bound.port());
      }
      if (myFlags & DtInetSockFlagAsyncSend)
         myDisPimpl->start(myFlags);
   }
   catch (boost::system::system_error const& e)
   {
      recordFailure(e.code().value(),
                    DtString(prefix) +
                        "Error opening Boost send socket for self-reflect suppression" +
                        DtString(e.code().message()));
      boost::system::error_code ignored;
      mySendSocket->close(ignored);
      return false;
   }
   catch (std::exception const& e)
   {
      recordFailure(
          22, DtString("DtDisSocket::openSocket(): self-reflect suppression sending socket - ") +
                  e.what());
      boost::system::error_code ignored;
      mySendSocket->close(ignored);
      return false;
   }
   return true;
}

bool DtDisSocket::closeSocket()
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   flush();
   if ((myFlags & DtInetSockFlagAsyncSend) && mySuppressSelfReflect && myDisPimpl)
      myDisPimpl->stop();

   bool const result = DtInetUdpSocket::closeSocket();
   if (mySendSocket && mySendSocket->is_open())
   {
      boost::system::error_code error;
      // An unconnected datagram socket answers shutdown with "not connected";
      // only the close itself can fail the operation.
      mySendSocket->shutdown(boost::asio::socket_base::shutdown_both, error);
      error.clear();
      mySendSocket->close(error);
      if (error)
      {
         recordFailure(error.value(),
                       DtString("DtDisSocket::closeSocket(): ") +
                           "Error closing Boost send socket used for self-reflect suppression" +
                           DtString(error.message()));
         return false;
      }
   }
   if (result)
      setState(DtInetSockStateClosed);
   return result;
}

// ---------------------------------------------------------------- destinations

bool DtDisSocket::addDestination(DtInetEndpoint const& endpoint)
{
   // A datagram socket of one family cannot send to the other.
   if (myDestination.isIPv4() != endpoint.isIPv4() || myDestination.isIPv6() != endpoint.isIPv6())
      return false;
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   myAdditionalDestinations.push_back(endpoint);
   return true;
}

bool DtDisSocket::removeDestination(DtInetEndpoint const& endpoint)
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   auto found =
       std::find(myAdditionalDestinations.begin(), myAdditionalDestinations.end(), endpoint);
   if (found == myAdditionalDestinations.end())
      return false;
   // Erasing would shift the later destinations down by plain assignment, which leaves
   // the target's failed-lookup mark where it was: a good destination would turn bad
   // and a bad one good. They are shifted whole instead.
   for (auto next = found + 1; next != myAdditionalDestinations.end(); ++found, ++next)
      found->assignWhole(*next);
   myAdditionalDestinations.pop_back();
   return true;
}

template <class SendOne>
int DtDisSocket::sendToAll(char const* operation, SendOne const& sendOne)
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   if (!myDestination.isOk())
   {
      // Reading an endpoint's message clears its error; read it from a copy so the
      // destination stays marked bad.
      DtInetEndpoint copy(myDestination);
      recordFailure(89, DtString(operation) +
                            "Error - no default destination set: " + copy.getLastErrorString());
      return -1;
   }
   int result = sendOne(myDestination);
   DtString invalid;
   bool anyInvalid = false;
   for (DtInetEndpoint& destination : myAdditionalDestinations)
   {
      if (destination.isOk())
      {
         result = sendOne(destination);
         continue;
      }
      DtInetEndpoint copy(destination);
      if (anyInvalid)
         invalid += ", ";
      else
         invalid = DtString(operation) + "Error - additional destination is invalid: ";
      invalid += copy.getLastErrorString();
      anyInvalid = true;
      recordFailure(89, invalid);
      result = -1;
   }
   return result;
}

int DtDisSocket::send(char* buffer, unsigned long length, unsigned int flags)
{
   return sendToAll("DtDisSocket::send(): ", [&](DtInetEndpoint& destination)
                    { return sendTo(buffer, length, destination, flags); });
}

int DtDisSocket::sendChain(DtInetSockChain& chain, unsigned int flags)
{
   return sendToAll("DtDisSocket::sendChain(): ", [&](DtInetEndpoint& destination)
                    { return sendChainTo(chain, destination, flags); });
}

// ---------------------------------------------------------------- send paths

template <class SendNow, class SendLater>
int DtDisSocket::sendOnSendSocket(DtInetEndpoint& endpoint, char const* failurePrefix,
                                  SendNow const& sendNow, SendLater const& sendLater)
{
   DtInetEndpoint& target = (myState == DtInetSockStateConnected) ? myDestination : endpoint;
   if (target.protocol() == DtInetProtocolUnspecified)
      target.setProtocol(DtInetProtocolUdp);
   boost::asio::ip::udp::endpoint const* udp = target.udpEndpoint();
   boost::system::error_code error;
   int result = -1;
   if (!udp)
      error = boost::asio::error::invalid_argument;
   else if (!(myFlags & DtInetSockFlagAsyncSend))
      result = static_cast<int>(sendNow(*udp, error));
   else if (myDisPimpl && myDisPimpl->running())
      result = sendLater(new boost::asio::ip::udp::endpoint(*udp), error);
   else
      error = boost::asio::error::not_connected;
   if (error)
   {
      DtScopedLock lock(mySocketMutex, *myLockNeeded);
      recordError(error.value(), DtString(failurePrefix) + myLocalSenderEndpoint.toDtString() +
                                     " to " + target.toDtString() + "\n" +
                                     DtString(error.message()));
      return (myNonBlocking && error.value() == 11) ? 0 : -1;
   }
   return result;
}

int DtDisSocket::sendTo(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                        unsigned int flags)
{
   if (isBundling())
   {
      // A plain send joins a bundle like any other: through a one-buffer chain,
      // kept between calls so that this path does not allocate.
      mySendScratch.assign(buffer, buffer + length);
      if (mySendScratchChain.size() != 1 || mySendScratchChain.front() != &mySendScratch)
         mySendScratchChain.assign(1, &mySendScratch);
      return sendChainTo(mySendScratchChain, endpoint, flags);
   }
   if (!mySuppressSelfReflect)
   {
      DtScopedLock lock(mySocketMutex, *myLockNeeded);
      return DtInetUdpSocket::sendTo(buffer, length, endpoint, flags);
   }
   if (!(myFlags & theSendFlags) || !mySendSocket || !mySendSocket->is_open())
   {
      recordLockedFailure(95, theSendSockNotInitialized);
      return -1;
   }
   int const sent = sendOnSendSocket(
       endpoint, "DtDisSocket::send()/sendTo() failed from ",
       [&](boost::asio::ip::udp::endpoint const& udp, boost::system::error_code& error)
       { return mySendSocket->send_to(boost::asio::buffer(buffer, length), udp, 0, error); },
       [&](boost::asio::ip::udp::endpoint* udp, boost::system::error_code& error) {
          return myDisPimpl->asyncSendTo(new std::vector<char>(buffer, buffer + length), udp,
                                         error);
       });
   if (sent > 0)
   {
      ++myTotalPacketsSent;
      myTotalBytesSent += static_cast<std::uint64_t>(sent);
   }
   return sent;
}

int DtDisSocket::transmitOnSendSocket(DtInetSockChain& chain, DtInetEndpoint& endpoint)
{
   return sendOnSendSocket(
       endpoint, "DtDisSocket::sendChain()/sendChainTo() failed from ",
       [&](boost::asio::ip::udp::endpoint const& udp, boost::system::error_code& error)
       { return DtInetSockSendChainTo(*mySendSocket, chain, udp, error); },
       [&](boost::asio::ip::udp::endpoint* udp, boost::system::error_code& error)
       { return myDisPimpl->asyncSendChainTo(chain, udp, error); });
}

int DtDisSocket::sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags)
{
   if (!mySuppressSelfReflect)
      return DtInetUdpSocket::sendChainTo(chain, endpoint, flags);
   if (!(myFlags & theSendFlags) || !mySendSocket || !mySendSocket->is_open())
   {
      recordLockedFailure(95, theChainSendSockNotInitialized);
      return -1;
   }
   if (myState != DtInetSockStateConnected && endpoint.protocol() == DtInetProtocolUnspecified)
      endpoint.setProtocol(DtInetProtocolUdp);
   return runSendPipeline(
       DtInetProtocolUdp, chain, endpoint, flags,
       [this](DtInetSockChain& c, DtInetEndpoint& e) { return transmitOnSendSocket(c, e); },
       "DtDisSocket::sendChain()/sendChainTo(): Pre-send callback failed.",
       "DtDisSocket::sendChain()/sendChainTo(): Post-send callback failed.");
}

// ---------------------------------------------------------------- receive

int DtDisSocket::recvFrom(char* buffer, unsigned long length, DtInetEndpoint& endpoint,
                          unsigned int flags)
{
   std::vector<char> temporary(length);
   DtInetSockChain chain(1, &temporary);
   int const result = recvToChainFrom(chain, endpoint, flags);
   if (result > 0 && buffer)
      std::memcpy(buffer, temporary.data(),
                  std::min<std::size_t>(static_cast<std::size_t>(result), length));
   return result;
}

bool DtDisSocket::addProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn,
                                        void* userData, int priority)
{
   if (type == DtInetSockPreReceive || type == DtInetSockPostReceive)
      myReceivePath = ReceivePathGeneral;
   return DtInetUdpSocket::addProcessingCallback(type, fn, userData, priority);
}

bool DtDisSocket::removeProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn)
{
   if (type == DtInetSockPreReceive || type == DtInetSockPostReceive)
      myReceivePath = ReceivePathGeneral;
   return DtInetUdpSocket::removeProcessingCallback(type, fn);
}

bool DtDisSocket::hasOwnReceivePipeline(unsigned int flags)
{
   if (myReceivePath == ReceivePathUnknown)
   {
      // A derived class may override any callback or reach the lists itself; it
      // gets the general pipeline, which calls whatever is registered.
      myReceivePath = typeid(*this) == typeid(DtDisSocket) ? ReceivePathDirect : ReceivePathGeneral;
   }
   return myReceivePath == ReceivePathDirect &&
          (flags & (DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks)) == 0;
}

bool DtDisSocket::isPlainPdu(DtInetSockChain const& chain, int count) const
{
   if (count < myMinPacketSize || count < DtDisPduHeaderSize)
      return false;
   std::vector<char> const* first = chain.front();
   if (!first || first->size() < static_cast<std::size_t>(count))
      return false;
   unsigned char const* p = reinterpret_cast<unsigned char const*>(first->data());
   int const length = (p[8] << 8) | p[9];
   bool const coupled = (p[10] & DtDisCoupledPduBit) && p[2] != DtDisAttributePduKind;
   return length == count && !coupled && myProtocolVersionTest.passesEverything() &&
          myExerciseIdTest.passesEverything() && myPduKindTest.passesEverything() &&
          myIpAddrTest.passesEverything();
}

bool DtDisSocket::isPlainSinglePdu(DtInetSockChain const& chain, int count) const
{
   return !*myLockNeeded && myUnbundledQueue.empty() && isPlainPdu(chain, count);
}

int DtDisSocket::recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                 unsigned int flags)
{
   if (chain.empty() || !hasOwnReceivePipeline(flags))
      return DtInetUdpSocket::recvToChainFrom(chain, endpoint, flags);

   // The receive pipeline with the constructor's callbacks in their priority
   // order: the pre-receive queue, the read, then size, own traffic, unbundling and
   // the filter tests, each handing on a count or, for 0, the carried status.
   // Qualified calls: the class is known exactly, so they reach the same code as
   // the lists would, without the indirection.
   int skipMarker = 0;
   int length = 0;
   // Most reads find the queue empty, and without locking there is nothing to take.
   if (*myLockNeeded || !myUnbundledQueue.empty())
      length = DtDisSocket::getNextBundle(0, chain, endpoint, &skipMarker);
   if (skipMarker == DtInetSockResultNoFit)
      return DtInetSockResultNoFit;  // the queued PDU was too long: see runReceivePipeline
   if (skipMarker != DtInetSockResultFromQueue)
   {
      length =
          readChain(chain, endpoint, "DtInetUdpSocket::recvToChainFrom() failed on socket at ");
      if (length < 0)
         return length;
   }
   countReceived(length);

   // The common cases: a datagram of one PDU, or a queued PDU, that every callback
   // would hand on unchanged.
   bool const plain = skipMarker == 0
                          ? isPlainSinglePdu(chain, length)
                          : skipMarker == DtInetSockResultFromQueue && isPlainPdu(chain, length);
   if (length > 0 && plain && !(mySuppressSelfReflect && endpoint == myLocalSenderEndpoint))
      return length;

   int carry = skipMarker;
   auto handOn = [&](int result) { length = result != 0 ? result : carry; };
   handOn(DtDisSocket::minSizeFilter(length, chain, endpoint, &carry));
   if (mySuppressSelfReflect)
      handOn(DtDisSocket::suppressSelfReflect(length, chain, endpoint, &carry));
   handOn(DtDisSocket::unbundle(length, chain, endpoint, &carry));
   handOn(DtDisSocket::filterExercisePdus(length, chain, endpoint, &carry));
   return length;
}

// ---------------------------------------------------------------- send-socket options

template <class Apply>
bool DtDisSocket::applySendSockOption(bool baseResult, Apply const& apply, DtString const& text)
{
   if (!mySuppressSelfReflect)
      return baseResult;
   if (!mySendSocket || !mySendSocket->is_open())
      return false;
   boost::system::error_code error;
   apply(*mySendSocket, error);
   if (error)
   {
      recordLockedFailure(error.value(), text + DtString(error.message()));
      return false;
   }
   return baseResult;
}

bool DtDisSocket::setNonBlockingOption(bool enable)
{
   bool const base = DtInetUdpSocket::setNonBlockingOption(enable);
   return applySendSockOption(
       base,
       [enable](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.non_blocking(enable, e); },
       DtString("DtDisSocket::setSendSockNonBlockingOption(): Error ") + enablingWord(enable) +
           " non-blocking IO on send socket\n");
}

bool DtDisSocket::setReuseAddressOption(bool enable)
{
   bool const base = DtInetUdpSocket::setReuseAddressOption(enable);
   return applySendSockOption(
       base,
       [enable](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.set_option(boost::asio::socket_base::reuse_address(enable), e); },
       DtString("DtDisSocket::setSendSockReuseAddrOption(): Error ") + enablingWord(enable) +
           " address reuse on send socket");
}

bool DtDisSocket::setBroadcastOption(bool enable)
{
   bool const base = DtInetUdpSocket::setBroadcastOption(enable);
   return applySendSockOption(
       base,
       [enable](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.set_option(boost::asio::socket_base::broadcast(enable), e); },
       DtString("DtDisSocket::setSendSockBroadcastOption(): Error ") + enablingWord(enable) +
           " broadcast on send socket");
}

bool DtDisSocket::setDoNotRouteOption(bool enable)
{
   bool const base = DtInetUdpSocket::setDoNotRouteOption(enable);
   return applySendSockOption(
       base,
       [enable](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.set_option(boost::asio::socket_base::do_not_route(enable), e); },
       DtString("DtDisSocket::setSendSockDoNotRouteOption(): Error ") + enablingWord(enable) +
           " do-not-route on send socket");
}

bool DtDisSocket::setSendBufferSize(unsigned int size)
{
   bool const base = DtInetUdpSocket::setSendBufferSize(size);
   return applySendSockOption(
       base,
       [size](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.set_option(boost::asio::socket_base::send_buffer_size(static_cast<int>(size)), e); },
       DtString("DtDisSocket::setSendSockSendBuffSize(): Error setting send buffer size to ") +
           DtString(size) + " on send socket");
}

bool DtDisSocket::setReceiveBufferSize(unsigned int size)
{
   bool const base = DtInetUdpSocket::setReceiveBufferSize(size);
   return applySendSockOption(
       base,
       [size](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.set_option(boost::asio::socket_base::receive_buffer_size(static_cast<int>(size)), e); },
       DtString("DtDisSocket::setSendSockRcvBuffSize(): Error setting receive buffer size to ") +
           DtString(size) + " on send socket");
}

bool DtDisSocket::setSendLowWatermark(unsigned int size)
{
   bool const base = DtInetUdpSocket::setSendLowWatermark(size);
   return applySendSockOption(
       base,
       [size](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       { s.set_option(boost::asio::socket_base::send_low_watermark(static_cast<int>(size)), e); },
       DtString(
           "DtDisSocket::setSendSockSendLowWatermark(): Error setting send low watermark to ") +
           DtString(size) + " on send socket");
}

bool DtDisSocket::setReceiveLowWatermark(unsigned int size)
{
   bool const base = DtInetUdpSocket::setReceiveLowWatermark(size);
   return applySendSockOption(
       base,
       [size](DtInetBoostUdpSocket& s, boost::system::error_code& e) {
          s.set_option(boost::asio::socket_base::receive_low_watermark(static_cast<int>(size)), e);
       },
       DtString(
           "DtDisSocket::setSendSockRcvLowWatermark(): Error setting receive low watermark to ") +
           DtString(size) + " on send socket");
}

bool DtDisSocket::setMcastTtlOption(unsigned int ttl)
{
   bool const base = DtInetUdpSocket::setMcastTtlOption(ttl);
   return applySendSockOption(
       base,
       [ttl](DtInetBoostUdpSocket& s, boost::system::error_code& e)
       {
          // Boost throws for a hop count beyond 255; sockets report, they do not throw.
          if (ttl > 255)
             e = boost::asio::error::invalid_argument;
          else
             s.set_option(boost::asio::ip::multicast::hops(static_cast<int>(ttl)), e);
       },
       DtString("DtDisSocket::setSendSockMcastTtl(): ") +
           "Error setting multicast TTL for send socket to  " + DtString(ttl));
}

bool DtDisSocket::setSendMcastDevice(DtInetAddr const& interfaceAddress)
{
   static char const* const prefix = "DtDisSocket::setSendSockMcastDevice(): ";
   if (!mySendSocket || !mySendSocket->is_open())
      return false;
   boost::system::error_code error;
   if (interfaceAddress.isIPv6())
   {
      // IPv6 names the interface by its index, on an IPv6 send socket only.
      unsigned int const index =
          myLocalSenderEndpoint.isIPv6() ? ipv6InterfaceIndex(interfaceAddress) : 0;
      if (index == 0)
         return true;
      mySendSocket->set_option(boost::asio::ip::multicast::outbound_interface(index), error);
   }
   else
   {
      mySendSocket->set_option(
          boost::asio::ip::multicast::outbound_interface(interfaceAddress.boostAddress().to_v4()),
          error);
   }
   if (error)
   {
      recordLockedFailure(error.value(), DtString(prefix) + "Error setting multicast device to " +
                                             interfaceAddress.toDtString() + "\n" +
                                             DtString(error.message()));
      return false;
   }
   return true;
}

bool DtDisSocket::changeSendSockGroup(bool join, DtInetAddr const& group, DtInetDevice* device)
{
   char const* const prefix =
       join ? "DtDisSocket::joinMulticastGroup(): " : "DtDisSocket::dropMulticastGroup(): ";
   char const* const verb = join ? "Error joining group " : "Error leaving group ";
   if (!mySendSocket || !mySendSocket->is_open())
      return false;

   DtInetDevice const* chosen = device ? device : myHostIf;
   DtInetAddr const* interfaceAddress = nullptr;
   if (chosen)
      interfaceAddress = group.isIPv6() ? chosen->ipv6Addr() : chosen->ipv4Addr();
   if (!interfaceAddress)
   {
      recordLockedFailure(95, DtString(prefix) + verb + group.toDtString() +
                                  " cannot find a multicast capable device");
      return false;
   }

   boost::system::error_code error;
   if (join)
      receiveOwnGroupsOnly(*mySendSocket);
   if (group.isIPv6())
   {
      unsigned int const index = static_cast<unsigned int>(chosen->interfaceIndex());
      if (join)
         mySendSocket->set_option(
             boost::asio::ip::multicast::join_group(group.boostAddress().to_v6(), index), error);
      else
         mySendSocket->set_option(
             boost::asio::ip::multicast::leave_group(group.boostAddress().to_v6(), index), error);
   }
   else
   {
      if (join)
         mySendSocket->set_option(
             boost::asio::ip::multicast::join_group(group.boostAddress().to_v4(),
                                                    interfaceAddress->boostAddress().to_v4()),
             error);
      else
         mySendSocket->set_option(
             boost::asio::ip::multicast::leave_group(group.boostAddress().to_v4(),
                                                     interfaceAddress->boostAddress().to_v4()),
             error);
   }
   if (error)
   {
      recordLockedFailure(error.value(), DtString(prefix) + verb + group.toDtString() +
                                             " on send socket on interface " +
                                             interfaceAddress->toDtString() + "\n" +
                                             DtString(error.message()));
      return false;
   }
   return true;
}

bool DtDisSocket::sendSockJoinMulticastGroup(DtInetAddr const& group, DtInetDevice* device)
{
   return changeSendSockGroup(true, group, device);
}

bool DtDisSocket::sendSockJoinMulticastGroup(DtInetEndpoint const& group, DtInetDevice* device)
{
   return changeSendSockGroup(true, group.address(), device);
}

bool DtDisSocket::sendSockDropMulticastGroup(DtInetAddr const& group, DtInetDevice* device)
{
   return changeSendSockGroup(false, group, device);
}

bool DtDisSocket::sendSockDropMulticastGroup(DtInetEndpoint const& group, DtInetDevice* device)
{
   return changeSendSockGroup(false, group.address(), device);
}

// ---------------------------------------------------------------- settings

void DtDisSocket::setMaxBundleSize(int maxBundleSize)
{
   myMaxBundleSize = maxBundleSize;
}

int DtDisSocket::getMaxBundleSize()
{
   return myMaxBundleSize;
}

bool DtDisSocket::isBundling()
{
   return myMaxBundleSize > 0;
}

void DtDisSocket::setMinPacketSize(int size)
{
   myMinPacketSize = size;
}

int DtDisSocket::minPacketSize()
{
   return myMinPacketSize;
}

void DtDisSocket::setBundleByteAlignment(unsigned int alignment)
{
   myBundleByteAlignment = alignment;
}

unsigned int DtDisSocket::sendBundleByteAlignment()
{
   return myBundleByteAlignment;
}

unsigned int DtDisSocket::receiveBundleByteAlignment(unsigned char protocolVersion)
{
   return protocolVersion <= 6 ? 0 : 8;
}

DtPduFilterTest& DtDisSocket::exerciseId()
{
   return myExerciseIdTest;
}

DtPduFilterTest& DtDisSocket::protocolVersion()
{
   return myProtocolVersionTest;
}

DtPduFilterTest& DtDisSocket::pduKind()
{
   return myPduKindTest;
}

DtPduFilterTest& DtDisSocket::ipAddr()
{
   return myIpAddrTest;
}

DtInetEndpoint const& DtDisSocket::localSenderEndpoint()
{
   return myLocalSenderEndpoint;
}

void DtDisSocket::setAttributePduStrategy(DtAttributePduStrategy strategy)
{
   myAttributePduStrategy = strategy;
}

DtAttributePduStrategy DtDisSocket::attributePduStrategy()
{
   return myAttributePduStrategy;
}

DtInetBoostUdpSocket* DtDisSocket::disSendSocket()
{
   return mySendSocket;
}

int DtDisSocket::receiveDescriptor()
{
   DtInetBoostUdpSocket* receiving = secondUdpSocket();
   if (!receiving || !receiving->is_open())
      return -1;
   return receiving->native_handle();
}

unsigned int DtDisSocket::alignedPadding(unsigned int n, unsigned int a)
{
   if (a < 2)
      return 0;
   return (a - (n & (a - 1))) & (a - 1);
}

unsigned int DtDisSocket::alignValue(unsigned int n, unsigned int a)
{
   return n + alignedPadding(n, a);
}

// ---------------------------------------------------------------- PDU walking

DtDisSocket::ChainIterator DtDisSocket::advanceToOffset(unsigned int& offset, ChainIterator begin,
                                                        ChainIterator end)
{
   while (begin != end && offset > bufferSize(*begin))
   {
      offset -= static_cast<unsigned int>(bufferSize(*begin));
      ++begin;
   }
   while (begin != end && bufferSize(*begin) == 0)
      ++begin;
   return begin;
}

int DtDisSocket::getPduSize(char const* /*header*/, unsigned int offset, ChainIterator begin,
                            ChainIterator end, int* status, bool* coupled, bool mustBeAttribute)
{
   int scratch = 0;
   if (!status)
      status = &scratch;
   if (coupled)
      *coupled = false;
   if (begin == end)
   {
      *status = DtDisStatusChainTooShort;
      return 0;
   }

   unsigned char version = 0;
   unsigned char kind = 0;
   unsigned char pduStatus = 0;
   int length = 0;
   std::size_t const size = bufferSize(*begin);
   if (offset < size && size - offset > 10)
   {
      // Byte by byte: the length field may sit at an odd address.
      unsigned char const* p = reinterpret_cast<unsigned char const*>((*begin)->data()) + offset;
      length = (p[8] << 8) | p[9];
      version = p[0];
      kind = p[2];
      pduStatus = p[10];
   }
   else
   {
      DtDisSocketPduHeader header;
      if (!gatherHeader(begin, offset, end, header))
      {
         *status = DtDisStatusChainTooShort;
         return 0;
      }
      // A header split across buffers yields size 0, which ends any walk over it;
      // callers rely on that. Its other fields are still read.
      version = header.protocolVersion;
      kind = header.pduKind;
      pduStatus = header.pduStatus;
   }

   if (mustBeAttribute && kind != DtDisAttributePduKind)
      *status = DtDisStatusNotAttributePdu;
   if (coupled && kind != DtDisAttributePduKind && (pduStatus & DtDisCoupledPduBit))
      *coupled = version > 6 || myAttributePduStrategy != DtAttributePduIgnoreOnVersion6;
   return length;
}

int DtDisSocket::getCoupledAttributePduSize(char const* header, unsigned int offset,
                                            ChainIterator begin, ChainIterator end, int* status,
                                            unsigned int padding, int total)
{
   if (total < 0 || static_cast<unsigned int>(total) < padding + DtDisPduHeaderSize)
      return 0;
   unsigned int position = padding + offset;
   ChainIterator at = advanceToOffset(position, begin, end);
   if (at == end)
   {
      if (status)
         *status = DtDisStatusChainTooShort;
      return 0;
   }
   normalisePosition(at, position, end);
   (void)header;
   return getPduSize(positionOf(at, position, end), position, at, end, status, nullptr, true);
}

// ---------------------------------------------------------------- receive callbacks

int DtDisSocket::minSizeFilter(int count, DtInetSockChain&, DtInetEndpoint&, int* status)
{
   if (count > 0 && count < myMinPacketSize)
   {
      *status = DtDisStatusFiltered;
      return 0;
   }
   return count;
}

int DtDisSocket::suppressSelfReflect(int count, DtInetSockChain&, DtInetEndpoint& endpoint,
                                     int* status)
{
   if (count > 0 && endpoint == myLocalSenderEndpoint)
   {
      *status = DtDisStatusOwnTraffic;
      return 0;
   }
   return count;
}

int DtDisSocket::getNextBundle(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint,
                               int* status)
{
   if (*status != 0)
      return count;
   // Most reads find the queue empty; without locking there is nothing to take.
   if (!*myLockNeeded && myUnbundledQueue.empty())
      return 0;
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   if (myUnbundledQueue.empty())
      return 0;

   PduQueue::value_type& front = myUnbundledQueue.front();
   std::vector<char> const& pdu = *front.second;
   int result = 0;
   if (!DtInetSockCopyToChain(pdu.data(), pdu.size(), chain))
   {
      // Like a datagram too big for the caller's buffer, the PDU is lost; keeping
      // it would stall every later read on the same chain.
      *status = DtDisStatusChainTooShort;
   }
   else
   {
      *status = DtDisStatusFromQueue;
      result = static_cast<int>(pdu.size());
      // Most reads come from the same sender as the last; an assignment would
      // rebuild the endpoint's Boost endpoint each time.
      if (!(endpoint == *front.first))
         endpoint = *front.first;
   }
   returnPduBuffer(front.second);
   myUnbundledQueue.pop_front();
   return result;
}

int DtDisSocket::unbundle(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint, int* status)
{
   if (count <= 0)
      return count;
   if (*status == DtDisStatusFromQueue)
      return count;

   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   int result = count;
   ChainIterator it = chain.begin();
   ChainIterator const end = chain.end();
   unsigned int offset = 0;
   std::shared_ptr<DtInetEndpoint const> sender;

   if (count >= myMinPacketSize && myUnbundledQueue.empty())
   {
      bool coupled = false;
      int size = getPduSize(positionOf(it, offset, end), offset, it, end, status, &coupled, false);
      if (size == count)
         return result;  // a datagram of one PDU: nothing to split, nothing to copy
      if (size == 0)
      {
         result = count = 0;
      }
      else if (size > count)
      {
         // The length field claims more than the datagram holds.
         *status = DtDisStatusChainTooShort;
         result = count = 0;
      }
      else
      {
         unsigned int const alignment = receiveBundleByteAlignment(byteAt(it, offset, end));
         unsigned int padding = alignedPadding(static_cast<unsigned int>(size), alignment);
         if (coupled)
         {
            int attributeStatus = 1;
            int const attribute = getCoupledAttributePduSize(
                positionOf(it, offset, end), offset + static_cast<unsigned int>(size), it, end,
                &attributeStatus, padding, count - size);
            bool const fits = static_cast<long>(size) + padding + attribute <= count;
            if (attributeStatus < 1 || !fits)
            {
               DtWarn << theCoupledReadWarning;
            }
            else
            {
               size += static_cast<int>(padding) + attribute;
               padding = alignedPadding(static_cast<unsigned int>(size), alignment);
            }
         }
         count -= size + static_cast<int>(padding);
         if (count < 0)
            count = 0;  // the datagram ended inside the padding
         offset += static_cast<unsigned int>(size) + padding;
         it = advanceToOffset(offset, it, end);
         if (it == end)
         {
            result = size;
            count = 0;
         }
      }
   }

   while (count > 0 && count >= myMinPacketSize)
   {
      normalisePosition(it, offset, end);
      if (it == end)
         break;
      bool coupled = false;
      int const size =
          getPduSize(positionOf(it, offset, end), offset, it, end, status, &coupled, false);
      if (size == 0 || size > count)
      {
         count = 0;
         break;
      }
      unsigned int padding = 0;
      if (size != count)
         padding = alignedPadding(static_cast<unsigned int>(size),
                                  receiveBundleByteAlignment(byteAt(it, offset, end)));
      if (coupled)
      {
         // The word starts below 1 and nothing raises it, so the warning always goes
         // out here and the Attribute PDU is read as the next PDU in its own right.
         // The first-PDU path starts its word at 1; the difference is deliberate.
         int attributeStatus = -1;
         getCoupledAttributePduSize(positionOf(it, offset, end),
                                    offset + static_cast<unsigned int>(size), it, end,
                                    &attributeStatus, padding, count - size);
         if (attributeStatus < 1)
            DtWarn << theCoupledReadWarning;
      }

      std::vector<char>* pdu = takePduBuffer(static_cast<std::size_t>(size));
      std::size_t copied = 0;
      while (copied < pdu->size() && it != end)
      {
         std::size_t const available = bufferSize(*it);
         if (offset >= available)
         {
            offset -= static_cast<unsigned int>(available);
            ++it;
            continue;
         }
         std::size_t const piece = std::min(pdu->size() - copied, available - offset);
         std::memcpy(pdu->data() + copied, (*it)->data() + offset, piece);
         copied += piece;
         offset += static_cast<unsigned int>(piece);
      }
      if (copied < pdu->size())
      {
         returnPduBuffer(pdu);
         *status = DtDisStatusChainTooShort;
         count = 0;
         break;
      }
      count -= size + static_cast<int>(padding);
      if (count < 0)
         count = 0;
      if (count != 0)
      {
         offset += padding;
         it = advanceToOffset(offset, it, end);
      }
      if (!sender)
      {
         // Bundles mostly come from the same few senders: the last one's copy serves
         // again rather than a new one per datagram.
         if (!myLastBundleSender || !(*myLastBundleSender == endpoint))
            myLastBundleSender = std::make_shared<DtInetEndpoint const>(endpoint);
         sender = myLastBundleSender;
      }
      myUnbundledQueue.emplace_back(sender, pdu);
   }

   // Bytes left over, too short for a PDU, are not part of what was delivered.
   if (count > 0)
      result -= count;
   return result;
}

int DtDisSocket::filterExercisePdus(int count, DtInetSockChain& chain, DtInetEndpoint& endpoint,
                                    int* status)
{
   if (count <= 0)
      return count;

   // The tests read the header in place when the first buffer holds it, and a
   // copy of it otherwise, so a first buffer shorter than a header is read safely.
   DtDisSocketPduHeader header;
   void* pdu = nullptr;
   if (chain.empty())
   {
      *status = DtDisStatusChainTooShort;
      return 0;
   }
   if (bufferSize(chain.front()) >= sizeof header)
   {
      pdu = chain.front()->data();
      header.protocolVersion = static_cast<unsigned char>(chain.front()->front());
   }
   else if (gatherHeader(chain.begin(), 0, chain.end(), header))
   {
      pdu = &header;
   }
   else
   {
      *status = DtDisStatusChainTooShort;
      return 0;
   }
   // A test that passes everything is not called: the common case costs nothing.
   if ((!myProtocolVersionTest.passesEverything() &&
        !myProtocolVersionTest.evalTest(pdu, 0, DtPduFilterByte)) ||
       (!myExerciseIdTest.passesEverything() &&
        !myExerciseIdTest.evalTest(pdu, 1, DtPduFilterByte)) ||
       (!myPduKindTest.passesEverything() && !myPduKindTest.evalTest(pdu, 2, DtPduFilterByte)) ||
       (!myIpAddrTest.passesEverything() && !myIpAddrTest.evalTest(&endpoint, 0, DtPduFilterNone)))
   {
      *status = DtDisStatusFiltered;
      return 0;
   }

   bool coupled = false;
   ChainIterator const begin = chain.begin();
   int size = getPduSize(positionOf(begin, 0, chain.end()), 0, begin, chain.end(), status, &coupled,
                         false);
   unsigned int padding = 0;
   if (size != count)
      padding = alignedPadding(static_cast<unsigned int>(size),
                               receiveBundleByteAlignment(header.protocolVersion));
   if (coupled && size > 0)
   {
      int attributeStatus = 1;
      int const attribute = getCoupledAttributePduSize(
          positionOf(begin, 0, chain.end()), static_cast<unsigned int>(size), begin, chain.end(),
          &attributeStatus, padding, count - size);
      if (attribute > 0 && attributeStatus >= 1 &&
          static_cast<long>(size) + padding + attribute <= count)
         size += static_cast<int>(padding) + attribute;
      else
         DtWarn << theCoupledReadWarning;
   }
   if (size > count)
   {
      // A length beyond what arrived is never handed to the application.
      *status = DtDisStatusChainTooShort;
      return 0;
   }
   return size;
}

// ---------------------------------------------------------------- static callback forms

int DtDisSocket::unbundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                          DtInetEndpoint& endpoint, void* status)
{
   return forwardToDisSocket(socket, count, chain, endpoint, status,
                             static_cast<DtDisPduStep>(&DtDisSocket::unbundle));
}

int DtDisSocket::getNextBundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                               DtInetEndpoint& endpoint, void* status)
{
   return forwardToDisSocket(socket, count, chain, endpoint, status,
                             static_cast<DtDisPduStep>(&DtDisSocket::getNextBundle));
}

int DtDisSocket::suppressSelfReflect(DtInetSocket* socket, int count, DtInetSockChain& chain,
                                     DtInetEndpoint& endpoint, void* status)
{
   return forwardToDisSocket(socket, count, chain, endpoint, status,
                             static_cast<DtDisPduStep>(&DtDisSocket::suppressSelfReflect));
}

int DtDisSocket::filterExercisePdus(DtInetSocket* socket, int count, DtInetSockChain& chain,
                                    DtInetEndpoint& endpoint, void* status)
{
   return forwardToDisSocket(socket, count, chain, endpoint, status,
                             static_cast<DtDisPduStep>(&DtDisSocket::filterExercisePdus));
}

int DtDisSocket::minSizeFilter(DtInetSocket* socket, int count, DtInetSockChain& chain,
                               DtInetEndpoint& endpoint, void* status)
{
   return forwardToDisSocket(socket, count, chain, endpoint, status,
                             static_cast<DtDisPduStep>(&DtDisSocket::minSizeFilter));
}

int DtDisSocket::addToBundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                             DtInetEndpoint& endpoint, void* userData)
{
   DtDisSocket* dis = userData ? static_cast<DtDisSocket*>(userData) : disSocketOf(socket);
   return dis ? dis->addToBundle(count, chain, endpoint) : count;
}

int DtDisSocket::flushBundle(DtInetSocket* socket, int count, DtInetSockChain& chain,
                             DtInetEndpoint& endpoint, void* userData)
{
   DtDisSocket* dis = userData ? static_cast<DtDisSocket*>(userData) : disSocketOf(socket);
   if (!dis)
      return count;
   if (dis->flushBundle(endpoint) == -1)
      return -1;
   return count > 0 ? static_cast<int>(DtInetSockChainSize(chain)) : count;
}

// ---------------------------------------------------------------- bundling

void DtDisSocket::setBundling(int maxBundleSize, int, int, bool)
{
   bool const wasBundling = isBundling();
   setMaxBundleSize(maxBundleSize);
   bool const nowBundling = isBundling();
   if (!wasBundling && nowBundling)
      addProcessingCallback(DtInetSockPreSend,
                            static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle), this,
                            1);
   else if (wasBundling && !nowBundling)
      removeProcessingCallback(DtInetSockPreSend,
                               static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle));
}

int DtDisSocket::sendBundle(DtInetEndpoint const& endpoint, DtInetSockChain& bundle)
{
   // The bundle goes out past the pre-send callbacks, so it does not re-enter
   // addToBundle.
   DtInetEndpoint target(endpoint);
   return sendChainTo(bundle, target, myFlags | DtInetSockCallNoPreCallbacks);
}

int DtDisSocket::addToBundle(int, DtInetSockChain& chain, DtInetEndpoint& endpoint)
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   std::size_t const total = DtInetSockChainSize(chain);
   long const maximum = myMaxBundleSize;

   BundleMap::iterator found = myPendingBundles.find(endpoint);
   unsigned int length = found != myPendingBundles.end() ? found->second.first : 0;
   unsigned int aligned = alignValue(length, myBundleByteAlignment);

   if (aligned != 0 && static_cast<long>(aligned + total) > maximum)
   {
      int const sent = sendBundle(found->first, found->second.second);
      if (sent != static_cast<int>(length))
         return -1;
      releaseBundle(found->second.second);
      myPendingBundles.erase(found);
      found = myPendingBundles.end();
      length = aligned = 0;
   }

   if (static_cast<long>(total) > maximum)
   {
      int const sent = sendChainTo(chain, endpoint, myFlags | DtInetSockCallNoPreCallbacks);
      if (sent != static_cast<int>(total))
         return -1;
      return 0;
   }

   std::vector<char>* copy = takePduBuffer(0);
   DtInetSockGatherChain(chain, *copy);

   if (found != myPendingBundles.end())
   {
      if (aligned > length)
      {
         std::vector<char>* padding = takePduBuffer(aligned - length);
         std::fill(padding->begin(), padding->end(), 0);
         found->second.second.push_back(padding);
      }
      found->second.second.push_back(copy);
      found->second.first = aligned + static_cast<unsigned int>(total);
   }
   else
   {
      myPendingBundles.emplace(
          endpoint, std::make_pair(static_cast<unsigned int>(total), DtInetSockChain(1, copy)));
   }
   // Everything was handled: the send pipeline has nothing left to transmit.
   return 0;
}

int DtDisSocket::flushBundle(DtInetEndpoint const& endpoint)
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   BundleMap::iterator found = myPendingBundles.find(endpoint);
   if (found == myPendingBundles.end() || found->second.first == 0)
      return 0;
   int const sent = sendBundle(found->first, found->second.second);
   if (sent == 0)
      return 0;
   if (sent != static_cast<int>(found->second.first))
      return -1;
   releaseBundle(found->second.second);
   myPendingBundles.erase(found);
   return sent;
}

int DtDisSocket::flush()
{
   DtScopedLock lock(mySocketMutex, *myLockNeeded);
   BundleMap::iterator it = myPendingBundles.begin();
   while (it != myPendingBundles.end())
   {
      if (it->second.first != 0)
      {
         int const sent = sendBundle(it->first, it->second.second);
         if (sent == 0)
            return 0;
         if (sent != static_cast<int>(it->second.first))
            return -1;
      }
      releaseBundle(it->second.second);
      it = myPendingBundles.erase(it);
   }
   return 1;
}
