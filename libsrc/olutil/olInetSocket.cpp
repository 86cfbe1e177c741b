//===- olInetSocket.cpp - Socket base and processing callbacks -------------===//
//
// Family: Sockets.
//
// The state, error and statistics records every socket shares, the four processing-
// callback lists, and the chain send and receive pipelines that the concrete sockets
// drive with their own transmit and read steps.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetSocket.h>

#include <olutil/olInetDevice.h>
#include <olutil/olInetSocketUtils.h>

namespace
{

constexpr int theWouldBlockError = 11;

bool runsCallbacks(DtInetSockCallbackList const& list, unsigned int callFlags, unsigned int skipBit)
{
   return !list.empty() && (callFlags & skipBit) == 0;
}

void freeRecords(DtInetSockCallbackList& list)
{
   for (auto& entry : list)
      delete entry.second;
   list.clear();
}

}  // namespace

DtInetSocket::DtInetSocket()
    : myLocalEndpoint(),
      myDestination(),
      myHostIf(nullptr),
      myState(DtInetSockStateNone),
      myFlags(DtInetSockFlagsDefault),
      myAsynchronous(false),
      myNonBlocking(false),
      myNoDelay(false),
      myOpenOnConstruction(false),
      myLastError(0),
      myLastErrorString(),
      myTerminationCode(0),
      myTerminationString(),
      myTotalBytesSent(0),
      myTotalPacketsSent(0),
      myTotalBytesReceived(0),
      myTotalPacketsReceived(0),
      myReceiveTime(0.0)
{
}

DtInetSocket::~DtInetSocket()
{
   freeRecords(myPreReceiveCallbacks);
   freeRecords(myPostReceiveCallbacks);
   freeRecords(myPreSendCallbacks);
   freeRecords(myPostSendCallbacks);
   delete myHostIf;
   myHostIf = nullptr;
}

DtInetEndpoint const& DtInetSocket::destination() const
{
   return myDestination;
}

DtInetEndpoint const& DtInetSocket::localEndpoint() const
{
   return myLocalEndpoint;
}

bool DtInetSocket::setLocalPort(unsigned short port)
{
   myLocalEndpoint.setPort(port);
   return true;
}

unsigned short DtInetSocket::localPort() const
{
   return myLocalEndpoint.port();
}

DtInetDevice* DtInetSocket::hostIf() const
{
   return myHostIf;
}

int DtInetSocket::state()
{
   return myState;
}

bool DtInetSocket::isOk()
{
   return myState > 0;
}

DtInetProtocol DtInetSocket::protocol() const
{
   return myLocalEndpoint.protocol();
}

DtInetUtils::DtInetAddrFamily DtInetSocket::family() const
{
   return myLocalEndpoint.family();
}

unsigned int DtInetSocket::flags()
{
   return myFlags;
}

bool DtInetSocket::isNonBlocking() const
{
   return myNonBlocking;
}

bool DtInetSocket::isNoDelay() const
{
   return myNoDelay;
}

bool DtInetSocket::isIPv4() const
{
   return myLocalEndpoint.isIPv4();
}

bool DtInetSocket::isIPv6() const
{
   return myLocalEndpoint.isIPv6();
}

bool DtInetSocket::isTcp() const
{
   return myLocalEndpoint.isTcp();
}

bool DtInetSocket::isUdp() const
{
   return myLocalEndpoint.isUdp();
}

int DtInetSocket::getLastError()
{
   return myLastError;
}

DtString DtInetSocket::getLastErrorString()
{
   return myLastErrorString;
}

bool DtInetSocket::isErrorWouldBlockOrTryAgain()
{
   return myLastError == theWouldBlockError;
}

void DtInetSocket::clearError()
{
   myLastError = 0;
   myLastErrorString = "";
}

int DtInetSocket::getTerminationCode()
{
   return myTerminationCode;
}

DtString DtInetSocket::getTerminationString()
{
   return myTerminationString;
}

std::uint64_t DtInetSocket::totalBytesSent() const
{
   return myTotalBytesSent;
}

std::uint64_t DtInetSocket::totalPacketsSent() const
{
   return myTotalPacketsSent;
}

std::uint64_t DtInetSocket::totalBytesReceived() const
{
   return myTotalBytesReceived;
}

std::uint64_t DtInetSocket::totalPacketsReceived() const
{
   return myTotalPacketsReceived;
}

void DtInetSocket::clearStats()
{
   myTotalBytesSent = 0;
   myTotalPacketsSent = 0;
   myTotalBytesReceived = 0;
   myTotalPacketsReceived = 0;
}

double DtInetSocket::receiveTime()
{
   return myReceiveTime;
}

DtInetSockCallbackList* DtInetSocket::callbackList(DtInetSockProcessingType type)
{
   switch (type)
   {
      case DtInetSockPreReceive:
         return &myPreReceiveCallbacks;
      case DtInetSockPostReceive:
         return &myPostReceiveCallbacks;
      case DtInetSockPreSend:
         return &myPreSendCallbacks;
      case DtInetSockPostSend:
         return &myPostSendCallbacks;
   }
   return nullptr;
}

bool DtInetSocket::addProcessingCallback(DtInetSockProcessingType type, DtInetSockProcessingCb fn,
                                         void* userData, int priority)
{
   DtInetSockCallbackList* list = callbackList(type);
   if (!list)
      return false;
   if (priority < 0)
   {
      // "Last": one past the greatest key. An empty list has no greatest key; 0 keeps
      // the meaning (after everything present) without reading past the end.
      priority = list->empty() ? 0 : list->rbegin()->first + 1;
   }
   // A multimap inserts an equal key after those already present, which keeps equal
   // priorities in the order they were added.
   list->emplace(priority, new DtInetSocketProcessingCbInfo{fn, userData, priority});
   return true;
}

bool DtInetSocket::removeProcessingCallback(DtInetSockProcessingType type,
                                            DtInetSockProcessingCb fn)
{
   DtInetSockCallbackList* list = callbackList(type);
   return list ? findAndRemoveCallback(*list, fn) : false;
}

bool DtInetSocket::findAndRemoveCallback(DtInetSockCallbackList& list, DtInetSockProcessingCb fn)
{
   for (auto it = list.begin(); it != list.end(); ++it)
   {
      if (it->second->callback == fn)
      {
         delete it->second;
         list.erase(it);
         return true;
      }
   }
   return false;
}

void DtInetSocket::setFlags(unsigned int flags)
{
   myFlags = flags;
   myAsynchronous = (flags & DtInetSockFlagsAsync) != 0;
   myNonBlocking = (flags & DtInetSockFlagNonBlocking) != 0;
   myNoDelay = (flags & DtInetSockFlagNoDelay) != 0;
}

void DtInetSocket::recordError(int number, DtString const& text)
{
   myLastError = number;
   myLastErrorString = text;
}

void DtInetSocket::recordFailure(int number, DtString const& text)
{
   recordError(number, text);
   myState = DtInetSockStateError;
}

bool DtInetSocket::settleOption(int outcome, std::string const& message,
                                std::string const& failureText)
{
   if (outcome == 0)
      return true;
   if (outcome > 0)
      recordFailure(outcome, (failureText + "\n" + message).c_str());
   return false;
}

void DtInetSocket::recordTermination(int code, DtString const& text)
{
   myTerminationCode = code;
   myTerminationString = text;
   myState = DtInetSockStateTerminated;
}

int DtInetSocket::runSendPipeline(DtInetProtocol rules, DtInetSockChain& chain,
                                  DtInetEndpoint& target, unsigned int callFlags,
                                  DtInetSockChainStep const& transmit, char const* preSendFailure,
                                  char const* postSendFailure)
{
   bool const datagram = rules != DtInetProtocolTcp;
   int sent = 0;
   int remaining = 0;

   if (runsCallbacks(myPreSendCallbacks, callFlags, DtInetSockCallNoPreCallbacks))
   {
      remaining = static_cast<int>(DtInetSockChainSize(chain));
      for (auto const& entry : myPreSendCallbacks)
      {
         // A datagram goes out whole or not at all: once a callback has taken the
         // packet, the later ones have nothing to see. A stream passes every callback.
         if (datagram && remaining <= 0)
            continue;
         DtInetSocketProcessingCbInfo const& info = *entry.second;
         int const result =
             info.callback(this, datagram ? remaining : 0, chain, target, info.userData);
         if (result < 0)
         {
            recordFailure(-1, preSendFailure);
            return DtInetSockResultFailed;
         }
         sent += remaining - result;
         remaining = result;
      }
   }
   else if (!chain.empty())
   {
      remaining = 1;
   }

   if (remaining != 0)
   {
      sent = transmit(chain, target);
      if (sent < 0)
         return sent;
   }

   // Every datagram call that gets here counts as one packet, also when a callback
   // absorbed it and nothing went out: bundling statistics depend on it. A stream
   // counts only what moved.
   if (datagram || sent != 0)
   {
      ++myTotalPacketsSent;
      if (sent > 0)
         myTotalBytesSent += static_cast<std::uint64_t>(sent);
   }

   if (runsCallbacks(myPostSendCallbacks, callFlags, DtInetSockCallNoPostCallbacks))
   {
      for (auto const& entry : myPostSendCallbacks)
      {
         DtInetSocketProcessingCbInfo const& info = *entry.second;
         int const result = info.callback(this, sent, chain, target, info.userData);
         if (result < 0)
         {
            recordFailure(-1, postSendFailure);
            return DtInetSockResultFailed;
         }
         sent += result;
      }
   }
   return sent;
}

int DtInetSocket::runReceivePipeline(DtInetSockChain& chain, DtInetEndpoint& sender,
                                     unsigned int callFlags, DtInetSockChainStep const& read)
{
   if (chain.empty())
      return DtInetSockResultNoFit;

   int skipMarker = 0;
   int length = 0;

   if (runsCallbacks(myPreReceiveCallbacks, callFlags, DtInetSockCallNoPreCallbacks))
   {
      // No early exit and no error here: a pre-receive callback either hands out a
      // packet (and says so through the skip marker) or leaves the read to the network.
      for (auto const& entry : myPreReceiveCallbacks)
         length = entry.second->callback(this, 0, chain, sender, &skipMarker);
   }

   // A pre-receive stage whose packet does not fit the chain has used up this
   // read: the caller learns it as of a datagram too big, and the network waits.
   if (skipMarker == DtInetSockResultNoFit)
      return DtInetSockResultNoFit;
   if (skipMarker != DtInetSockResultFromQueue)
   {
      length = read(chain, sender);
      if (length < 0)
         return length;
   }

   countReceived(length);

   if (runsCallbacks(myPostReceiveCallbacks, callFlags, DtInetSockCallNoPostCallbacks))
   {
      // The carry value tells the caller why a packet vanished: a filter returning 0
      // yields 0 for a packet from the network and -5 for one from the pre-receive
      // stage, unless the filter wrote its own status through the pointer.
      int carry = skipMarker;
      for (auto const& entry : myPostReceiveCallbacks)
      {
         length = entry.second->callback(this, length, chain, sender, &carry);
         if (length == 0)
            length = carry;
      }
   }
   return length;
}
