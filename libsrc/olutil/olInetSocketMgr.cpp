//===- olInetSocketMgr.cpp - Many connections behind one object ------------===//
//
// Family: Sockets.
//
// Accepting connections into sockets made by the creation callback, the map of peer
// endpoints to sockets, sending to many peers, reading in turn, and dropping peers
// found dead on the way, each reported once to the removal callbacks.
//
//===----------------------------------------------------------------------===//
#include <olutil/olInetSocketMgr.h>

#include <algorithm>
#include <string>

#include <olutil/olInetSocketUtils.h>
#include <olutil/olInetTcpSocket.h>
#include <olutil/olInetUdpSocket.h>

namespace
{

char const* protocolName(bool tcp)
{
   return tcp ? "TCP" : "UDP";
}

// A socket that ended its connection, as opposed to one that failed: its state says
// so, or it failed without recording an error.
bool peerEnded(DtInetSocket& socket, int result)
{
   return socket.state() == DtInetSockStateTerminated ||
          (result == DtInetSockResultFailed && socket.getLastError() == 0);
}

}  // namespace

// ------------------------------------------------------------------ construction

DtInetSocketMgr::DtInetSocketMgr(unsigned int connectionFlags)
    : myServerSocket(nullptr),
      myTcpServer(nullptr),
      myUdpServer(nullptr),
      myConnections(),
      myReadCursor(DtInetEndpoint(), nullptr),
      myCreationCallback(nullptr),
      myCreationUserData(nullptr),
      myServerFlags(theDefaultServerFlags),
      myConnectionFlags(connectionFlags),
      myLastError(0),
      myLastErrorString(),
      myPendingSocket(nullptr)
{
}

DtInetSocketMgr::DtInetSocketMgr(DtInetEndpoint& serverEndpoint, DtInetDevice* device,
                                 unsigned int serverFlags, unsigned int connectionFlags,
                                 DtInetUtils::DtInetAddrFamily family)
    : DtInetSocketMgr(connectionFlags)
{
   myServerFlags = serverFlags;
   if (serverEndpoint.protocol() == DtInetProtocolTcp)
   {
      myTcpServer = new DtInetTcpSocket(serverEndpoint.port(), device, family, serverFlags, true);
      myServerSocket = myTcpServer;
   }
   else
   {
      myUdpServer = new DtInetUdpSocket(serverEndpoint, serverEndpoint.port(), device, serverFlags,
                                        true);
      myServerSocket = myUdpServer;
   }
}

DtInetSocketMgr::~DtInetSocketMgr()
{
   while (!myConnections.empty())
   {
      DtInetSocket* const socket = myConnections.begin()->second;
      // The UDP server is the manager's own and is deleted below, not handed on.
      if (socket != myUdpServer && removeConnection(socket))
         continue;
      myConnections.erase(myConnections.begin());
   }
   delete myTcpServer;
   delete myUdpServer;
   delete myPendingSocket;
   myTcpServer = nullptr;
   myUdpServer = nullptr;
   myServerSocket = nullptr;
   myPendingSocket = nullptr;
   freeCallbacks(myAdditionCallbacks);
   freeCallbacks(myRemovalCallbacks);
}

// ------------------------------------------------------------------ accessors

DtInetSocket* DtInetSocketMgr::serverSocket() const
{
   return myServerSocket;
}

DtInetSocketMap const& DtInetSocketMgr::socketList() const
{
   return myConnections;
}

DtInetSocket* DtInetSocketMgr::peerSocket(DtInetEndpoint const& endpoint) const
{
   auto const found = myConnections.find(endpoint);
   return found == myConnections.end() ? nullptr : found->second;
}

unsigned int DtInetSocketMgr::getServerFlags() const
{
   return myServerFlags;
}

unsigned int DtInetSocketMgr::getConnectionFlags() const
{
   return myConnectionFlags;
}

int DtInetSocketMgr::getLastError()
{
   return myLastError;
}

DtString DtInetSocketMgr::getLastErrorString()
{
   return myLastErrorString;
}

void DtInetSocketMgr::clearError()
{
   myLastError = 0;
   myLastErrorString = "";
}

// ------------------------------------------------------------------ callbacks

void DtInetSocketMgr::addCallback(DtInetSocketCbList& list, DtInetSocketCb fn, void* userData,
                                  int priority)
{
   if (priority < 0)
      priority = list.empty() ? 0 : list.rbegin()->first;
   // A priority already taken keeps its callback and the call has no effect; the
   // record is made only when it is stored, so nothing leaks.
   auto const placed = list.emplace(priority, nullptr);
   if (placed.second)
      placed.first->second = new DtInetSocketCbInfo{fn, userData, priority};
}

bool DtInetSocketMgr::removeCallback(DtInetSocketCbList& list, DtInetSocketCb fn)
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

void DtInetSocketMgr::freeCallbacks(DtInetSocketCbList& list)
{
   for (auto& entry : list)
      delete entry.second;
   list.clear();
}

void DtInetSocketMgr::addSocketAdditionCallback(DtInetSocketCb fn, void* userData, int priority)
{
   addCallback(myAdditionCallbacks, fn, userData, priority);
}

bool DtInetSocketMgr::removeSocketAdditionCallback(DtInetSocketCb fn, void*)
{
   return removeCallback(myAdditionCallbacks, fn);
}

void DtInetSocketMgr::addSocketRemovalCallback(DtInetSocketCb fn, void* userData, int priority)
{
   addCallback(myRemovalCallbacks, fn, userData, priority);
}

bool DtInetSocketMgr::removeSocketRemovalCallback(DtInetSocketCb fn, void*)
{
   return removeCallback(myRemovalCallbacks, fn);
}

void DtInetSocketMgr::addSocketCreationCallback(DtInetSocketCreationCb fn, void* userData)
{
   myCreationCallback = fn;
   myCreationUserData = userData;
   delete myPendingSocket;
   myPendingSocket = nullptr;
}

void DtInetSocketMgr::runCallbacks(DtInetSocketCbList const& list, DtInetSocket* socket)
{
   // A copy: a callback may add or remove callbacks while the list runs.
   std::vector<DtInetSocketCbInfo> const records = [&list]
   {
      std::vector<DtInetSocketCbInfo> copy;
      for (auto const& entry : list)
         copy.push_back(*entry.second);
      return copy;
   }();
   for (DtInetSocketCbInfo const& info : records)
      info.callback(socket, info.userData);
}

// ------------------------------------------------------------------ adding and removing

DtInetSocket* DtInetSocketMgr::addConnection(DtInetEndpoint const& endpoint,
                                             unsigned short localPort, DtInetDevice* device,
                                             bool open, bool connect)
{
   bool const tcp = endpoint.protocol() == DtInetProtocolTcp;
   if (myServerSocket && (myTcpServer != nullptr) != tcp)
   {
      myLastError = -7;
      myLastErrorString = (std::string("Illegal attempt to add a connection from a ") +
                           protocolName(myTcpServer != nullptr) + " socket manager to a " +
                           protocolName(tcp) + " endpoint.")
                              .c_str();
      return nullptr;
   }

   DtInetSocket* socket = nullptr;
   if (tcp)
   {
      socket = new DtInetTcpSocket(endpoint, localPort, device, myConnectionFlags, open);
   }
   else if (!connect && myUdpServer)
   {
      // The server socket itself serves a peer that needs no connected socket.
      myConnections.emplace(endpoint, myUdpServer);
      return myUdpServer;
   }
   else
   {
      socket = new DtInetUdpSocket(endpoint, localPort, device, myConnectionFlags, open);
      if (connect && socket->isOk())
         socket->connectToDestination();
   }
   if (!socket->isOk())
   {
      myLastError = socket->getLastError();
      myLastErrorString = tcp ? "Failed to create TCP Socket" : "Failed to create UDP Socket";
      delete socket;
      return nullptr;
   }

   for (auto const& entry : myAdditionCallbacks)
   {
      DtInetSocketCbInfo const& info = *entry.second;
      if (!info.callback(socket, info.userData))
      {
         // Refused: nobody else holds the socket, so it is closed and freed here.
         socket->closeSocket();
         delete socket;
         return nullptr;
      }
   }
   myConnections.emplace(endpoint, socket);
   return socket;
}

DtInetSocket* DtInetSocketMgr::addConnection(DtInetSocket const* socket)
{
   DtInetSocket* const usable = const_cast<DtInetSocket*>(socket);
   if (!usable || !usable->isOk())
   {
      myLastError = 22;
      myLastErrorString = "Socket not in proper state to add to the managed list";
      return nullptr;
   }
   DtInetEndpoint const& key = usable->destination();
   auto const range = myConnections.equal_range(key);
   for (auto it = range.first; it != range.second; ++it)
   {
      if (it->second == usable)
         return nullptr;
   }
   myConnections.emplace(key, usable);
   return usable;
}

DtInetSocket* DtInetSocketMgr::removeByKey(DtInetEndpoint const& endpoint, DtInetSocketMap& map)
{
   auto const found = map.find(endpoint);
   if (found == map.end())
      return nullptr;
   DtInetSocket* const socket = found->second;
   map.erase(found);
   return socket;
}

bool DtInetSocketMgr::removeByItem(DtInetSocket const* socket, DtInetSocketMap& map)
{
   for (auto it = map.begin(); it != map.end(); ++it)
   {
      if (it->second == socket)
      {
         map.erase(it);
         return true;
      }
   }
   return false;
}

bool DtInetSocketMgr::report(DtInetSocket* socket)
{
   // The removal callbacks may delete the socket: no entry may still point at it. The
   // UDP server is the manager's own and serves every peer filed under it, so only
   // the one entry goes.
   if (socket != myUdpServer)
   {
      while (removeByItem(socket, myConnections))
      {
      }
   }
   if (myReadCursor.second == socket)
      myReadCursor.second = nullptr;
   runCallbacks(myRemovalCallbacks, socket);
   return true;
}

bool DtInetSocketMgr::removeConnection(DtInetEndpoint const& endpoint)
{
   DtInetSocket* const socket = removeByKey(endpoint, myConnections);
   return socket && report(socket);
}

bool DtInetSocketMgr::removeConnection(DtInetSocket const* socket)
{
   return removeByItem(socket, myConnections) && report(const_cast<DtInetSocket*>(socket));
}

void DtInetSocketMgr::dropDead(std::vector<DtInetSocket*> const& dead)
{
   for (std::size_t i = 0; i < dead.size(); ++i)
   {
      // The same socket may have fallen short under two keys: it is reported once.
      if (std::find(dead.begin(), dead.begin() + static_cast<long>(i), dead[i]) ==
          dead.begin() + static_cast<long>(i))
         DtInetSocketMgr::removeConnection(dead[i]);
   }
}

// ------------------------------------------------------------------ accepting

DtInetTcpSocket* DtInetSocketMgr::pendingSocket()
{
   if (myPendingSocket)
      return myPendingSocket;
   DtInetTcpSocket* made = nullptr;
   if (myCreationCallback)
   {
      DtInetSocket* const given = myCreationCallback(myCreationUserData, this);
      made = dynamic_cast<DtInetTcpSocket*>(given);
      if (made && (made->isServerSock() || (made->state() != DtInetSockStateNone &&
                                             made->state() != DtInetSockStateInitialized)))
         made = nullptr;
      // A socket that cannot take a connection is the manager's to free, like every
      // pending socket; a default one takes its place.
      if (!made)
         delete given;
   }
   myPendingSocket = made ? made : new DtInetTcpSocket();
   return myPendingSocket;
}

int DtInetSocketMgr::processConnections()
{
   if (!myServerSocket)
      return 0;
   int added = 0;
   if (myTcpServer)
   {
      for (int result = processNewTcpConnections(); result >= 1; result = processNewTcpConnections())
         added += result;
   }
   else
   {
      for (int result = processNewUdpConnections(); result >= 1; result = processNewUdpConnections())
         added += result;
   }
   return added;
}

int DtInetSocketMgr::processNewTcpConnections()
{
   if (!myTcpServer)
      return 0;
   DtInetTcpSocket* const pending = pendingSocket();
   // Accepted connections are always non-blocking: one peer must not hold the others.
   if (!myTcpServer->acceptConnection(pending, myConnectionFlags | DtInetSockFlagNonBlocking))
   {
      // Kept for the next call, unless the failed accept has used it up.
      int const state = pending->state();
      if (state != DtInetSockStateNone && state != DtInetSockStateInitialized)
      {
         delete myPendingSocket;
         myPendingSocket = nullptr;
      }
      return 0;
   }
   myPendingSocket = nullptr;
   if (addConnection(pending))
   {
      runCallbacks(myAdditionCallbacks, pending);
      return 1;
   }
   delete pending;
   return -2;
}

int DtInetSocketMgr::processNewUdpConnections()
{
   return 0;
}

// ------------------------------------------------------------------ send and receive

template <class Send>
int DtInetSocketMgr::sendToAll(std::vector<DtInetEndpoint*>& destinations, int expected,
                               Send const& send)
{
   int result = expected;
   std::vector<DtInetSocket*> dead;
   auto visit = [&](DtInetSocketMap::value_type const& entry)
   {
      DtInetEndpoint target(entry.first);
      DtInetSocket* const socket = entry.second;
      if (send(*socket, target) != expected)
      {
         dead.push_back(socket);
         if (socket->state() != DtInetSockStateTerminated)
            result = DtInetSockResultFailed;
      }
   };
   if (destinations.empty())
   {
      for (auto const& entry : myConnections)
         visit(entry);
   }
   else
   {
      for (DtInetEndpoint* endpoint : destinations)
      {
         if (!endpoint)
            continue;
         auto const range = myConnections.equal_range(*endpoint);
         for (auto it = range.first; it != range.second; ++it)
            visit(*it);
      }
   }
   dropDead(dead);
   return result;
}

int DtInetSocketMgr::sendTo(char* buffer, int length, std::vector<DtInetEndpoint*>& destinations,
                            unsigned int flags)
{
   if (length < 0 || (!buffer && length > 0))
   {
      myLastError = 22;
      myLastErrorString = "DtInetSocketMgr::sendTo(): Invalid buffer or length";
      return DtInetSockResultFailed;
   }
   return sendToAll(destinations, length,
                    [&](DtInetSocket& socket, DtInetEndpoint& target)
                    { return socket.sendTo(buffer, static_cast<unsigned long>(length), target, flags); });
}

int DtInetSocketMgr::sendTo(DtInetSockChain chain, std::vector<DtInetEndpoint*>& destinations,
                            unsigned int flags)
{
   int const length = static_cast<int>(DtInetSockChainSize(chain));
   return sendToAll(destinations, length,
                    [&](DtInetSocket& socket, DtInetEndpoint& target)
                    { return socket.sendChainTo(chain, target, flags); });
}

template <class Read>
int DtInetSocketMgr::readInTurn(Read const& read)
{
   auto start = myConnections.end();
   if (myReadCursor.second)
   {
      auto const range = myConnections.equal_range(myReadCursor.first);
      for (auto it = range.first; it != range.second; ++it)
      {
         if (it->second == myReadCursor.second)
         {
            start = std::next(it);
            break;
         }
      }
   }
   if (start == myConnections.end())
      start = myConnections.begin();

   int result = 0;
   bool walkedToTheEnd = true;
   std::vector<DtInetSocket*> dead;
   for (auto it = start; it != myConnections.end(); ++it)
   {
      DtInetSocket& socket = *it->second;
      result = read(socket);
      if (result < 0)
      {
         if (peerEnded(socket, result))
         {
            dead.push_back(&socket);
            result = 0;
            continue;
         }
         walkedToTheEnd = false;
         break;
      }
      if (result > 0)
      {
         myReadCursor = *it;
         walkedToTheEnd = false;
         break;
      }
   }
   // A walk that found nothing up to the end of the map starts the next one at the
   // beginning: without this, the peers before the last one that gave data would
   // never be read again while the ones after it stay quiet.
   if (walkedToTheEnd)
      myReadCursor.second = nullptr;
   dropDead(dead);
   return result;
}

int DtInetSocketMgr::recvFrom(char* buffer, unsigned long length, DtInetEndpoint& sender,
                              unsigned int flags)
{
   return readInTurn([&](DtInetSocket& socket)
                     { return socket.recvFrom(buffer, length, sender, flags); });
}

int DtInetSocketMgr::recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& sender,
                                     unsigned int flags)
{
   return readInTurn([&](DtInetSocket& socket)
                     { return socket.recvToChainFrom(chain, sender, flags); });
}
