//===- olutil/olInetSocketMgr.h - Many connections behind one object -*- C++ -*-===//
//
// Family: Sockets.
//
// DtInetSocketMgr keeps many connections behind one object: an optional server socket
// (TCP, which accepts new connections, or UDP, which serves its peers itself), a map
// from peer endpoint to socket, and callbacks that run when a socket joins or leaves.
// It sends one packet to many peers, reads from its connections in turn, and drops a
// peer found dead during a send or a read, telling the removal callbacks once.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLINETSOCKETMGR_H
#define OLUTIL_OLINETSOCKETMGR_H

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetEndpoint.h>
#include <olutil/olInetSocket.h>
#include <olutil/olString.h>

class DtInetDevice;
class DtInetSocketMgr;
class DtInetTcpSocket;
class DtInetUdpSocket;

// Makes the socket for the next accepted connection. It must return a DtInetTcpSocket
// in state 0 or 1; anything else is deleted and a default socket used instead.
typedef DtInetSocket* (*DtInetSocketCreationCb)(void* userData, DtInetSocketMgr* manager);

// The connections: peer endpoint to socket; one peer endpoint may have several.
typedef std::multimap<DtInetEndpoint, DtInetSocket*> DtInetSocketMap;
// Join or leave callbacks by priority; one callback to a priority.
typedef std::map<int, DtInetSocketCbInfo*> DtInetSocketCbList;

// The manager. Ownership: it owns its server socket and the socket waiting for the
// next accept; a connection's socket belongs to whoever created it, and once removed
// (removeConnection, a dead peer, the destructor) it is the removal callbacks' to
// delete. The manager never deletes a connection's socket itself.
//
// Thread safety: none; one thread calls processConnections(), the sends and the reads,
// and the callbacks run on that thread inside those calls.
//
// Errors: recorded in getLastError()/getLastErrorString() and answered with null or a
// negative result. Socket errors stay in the socket.
class DtInetSocketMgr
{
public:
   // No server socket.
   explicit DtInetSocketMgr(unsigned int connectionFlags = DtInetSockFlagsDefault);
   // A TCP server listening on the endpoint's port (family `family`, or the device's
   // address), or a UDP server socket for any other protocol. Whether it opened is
   // not checked here: see serverSocket()->isOk().
   DtInetSocketMgr(DtInetEndpoint& serverEndpoint, DtInetDevice* device = nullptr,
                   unsigned int serverFlags = theDefaultServerFlags,
                   unsigned int connectionFlags = DtInetSockFlagsDefault,
                   DtInetUtils::DtInetAddrFamily family = DtInetUtils::DtInetFamilyIPv4);
   // Removes every connection (running the removal callbacks once for each), then
   // deletes the server and the pending socket.
   virtual ~DtInetSocketMgr();

   DtInetSocketMgr(DtInetSocketMgr const&) = delete;
   DtInetSocketMgr& operator=(DtInetSocketMgr const&) = delete;

   // Accepts every pending connection: the number added.
   virtual int processConnections();
   // Creates, opens (with `open`) and adds a socket to `endpoint`; null on failure.
   virtual DtInetSocket* addConnection(DtInetEndpoint const& endpoint, unsigned short localPort = 0,
                                       DtInetDevice* device = nullptr, bool open = true,
                                       bool connect = true);
   // Adds a working socket under its destination; null when it is not working or is
   // already there. No addition callback runs.
   virtual DtInetSocket* addConnection(DtInetSocket const* socket);
   virtual bool removeConnection(DtInetEndpoint const& endpoint);
   virtual bool removeConnection(DtInetSocket const* socket);
   virtual DtInetSocket* serverSocket() const;
   virtual DtInetSocketMap const& socketList() const;
   virtual DtInetSocket* peerSocket(DtInetEndpoint const& endpoint) const;
   // Sends to every peer (empty `destinations`) or to the peers listed. `length` when
   // every send was whole or its peer had gone, -1 when a peer failed otherwise; every
   // peer whose send fell short is removed.
   virtual int sendTo(char* buffer, int length, std::vector<DtInetEndpoint*>& destinations,
                      unsigned int flags);
   virtual int sendTo(DtInetSockChain chain, std::vector<DtInetEndpoint*>& destinations,
                      unsigned int flags);
   // Reads from the connections in map order, starting after the one that last gave
   // data, up to the end of the map: the first result that is not 0. Peers that ended
   // their connection on the way are removed.
   virtual int recvFrom(char* buffer, unsigned long length, DtInetEndpoint& sender,
                        unsigned int flags);
   virtual int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& sender, unsigned int flags);
   // A negative priority means the greatest key in use (0 on an empty list); a
   // priority already taken leaves the call without effect.
   virtual void addSocketAdditionCallback(DtInetSocketCb fn, void* userData, int priority);
   virtual bool removeSocketAdditionCallback(DtInetSocketCb fn, void* userData);
   virtual void addSocketRemovalCallback(DtInetSocketCb fn, void* userData, int priority);
   virtual bool removeSocketRemovalCallback(DtInetSocketCb fn, void* userData);
   virtual unsigned int getServerFlags() const;
   virtual unsigned int getConnectionFlags() const;
   virtual int getLastError();
   virtual DtString getLastErrorString();
   virtual void clearError();
   // Replaces the creation callback; the socket waiting for the next accept is
   // deleted, so the next accept uses the new callback.
   virtual void addSocketCreationCallback(DtInetSocketCreationCb fn, void* userData);
   // Accepts one connection: 1 when one was added, 0 when none was pending, -2 when
   // the accepted socket could not be added.
   virtual int processNewTcpConnections();
   virtual int processNewUdpConnections();

   static constexpr unsigned int theDefaultServerFlags = 0x0CC3;

protected:
   virtual DtInetSocket* removeByKey(DtInetEndpoint const& endpoint, DtInetSocketMap& map);
   virtual bool removeByItem(DtInetSocket const* socket, DtInetSocketMap& map);

   // Runs every callback of the list in ascending priority; their results are ignored.
   void runCallbacks(DtInetSocketCbList const& list, DtInetSocket* socket);
   // Removes the sockets found dead during one walk, each once, with its removal
   // callbacks.
   void dropDead(std::vector<DtInetSocket*> const& dead);
   // After one entry of `socket` was removed: takes it out of the other entries (the
   // UDP server excepted) and the read cursor, and runs the removal callbacks.
   bool report(DtInetSocket* socket);
   template <class Send>
   int sendToAll(std::vector<DtInetEndpoint*>& destinations, int expected, Send const& send);
   template <class Read>
   int readInTurn(Read const& read);
   // The socket that waits for the next accept, made when missing.
   DtInetTcpSocket* pendingSocket();
   static void addCallback(DtInetSocketCbList& list, DtInetSocketCb fn, void* userData,
                           int priority);
   static bool removeCallback(DtInetSocketCbList& list, DtInetSocketCb fn);
   static void freeCallbacks(DtInetSocketCbList& list);

   DtInetSocket* myServerSocket;
   DtInetTcpSocket* myTcpServer;
   DtInetUdpSocket* myUdpServer;
   DtInetSocketMap myConnections;
   std::pair<DtInetEndpoint, DtInetSocket*> myReadCursor;
   DtInetSocketCbList myAdditionCallbacks;
   DtInetSocketCbList myRemovalCallbacks;
   DtInetSocketCreationCb myCreationCallback;
   void* myCreationUserData;
   std::uint32_t myServerFlags;
   std::uint32_t myConnectionFlags;
   std::int32_t myLastError;
   DtString myLastErrorString;
   DtInetTcpSocket* myPendingSocket;
};

#endif  // OLUTIL_OLINETSOCKETMGR_H
