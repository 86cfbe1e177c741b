// Socket manager tests with real TCP peers on 127.0.0.1 and ::1.
#include <olutil/olInetSocketMgr.h>

#include <sys/socket.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetTcpSocket.h>
#include <olutil/olInetUdpSocket.h>

#include "support_tcp.h"

namespace
{

using namespace olt;  // connections and reads on loopback

auto const refuse = [](DtInetSocket*, void*) { return false; };

// Notes what is removed and deletes it, as an application would: a socket reported
// twice would be freed twice.
bool deleteOnRemoval(DtInetSocket* socket, void* data)
{
   auto& removed = *static_cast<std::multiset<DtInetSocket*>*>(data);
   EXPECT_EQ(removed.count(socket), 0u) << "reported twice";
   removed.insert(socket);
   delete socket;
   return true;
}

class ManagerTest : public ::testing::TestWithParam<char const*>
{
protected:
   void SetUp() override
   {
      DtInetEndpoint server = tcpEndpoint(GetParam(), 0);
      manager =
          std::make_unique<DtInetSocketMgr>(server, nullptr, DtInetSocketMgr::theDefaultServerFlags,
                                            DtInetSockFlagsDefault, familyOf(GetParam()));
      if (!manager->serverSocket()->isOk())
         return unusable(GetParam(), manager->serverSocket()->getLastErrorString().c_str());
      manager->addSocketRemovalCallback(deleteOnRemoval, &removed, 1);
      manager->addSocketCreationCallback(
          [](void* data, DtInetSocketMgr*) -> DtInetSocket*
          { return ++*static_cast<int*>(data), new DtInetTcpSocket(); },
          &created);
   }

   // `count` peers connected and accepted by the manager, in the order of its map.
   std::vector<DtInetTcpSocket*> join(std::size_t count)
   {
      for (std::size_t i = 0; i < count; ++i)
         peers.push_back(std::make_unique<DtInetTcpSocket>(
             tcpEndpoint(GetParam(), manager->serverSocket()->localPort()), 0, nullptr,
             DtInetSockFlagsDefault, true));
      std::size_t added = 0;
      waitFor([&] { return (added += manager->processConnections()) >= count ? 1 : 0; });
      EXPECT_EQ(added, count);
      std::vector<DtInetTcpSocket*> order;
      for (auto const& entry : manager->socketList())
         for (auto const& peer : peers)
            if (peer->localPort() == entry.first.port())
               order.push_back(peer.get());
      return order;
   }

   // What the manager reads next, and the port it came from.
   std::string readNext()
   {
      char buffer[16];
      DtInetEndpoint from;
      int const n = waitFor([&] { return manager->recvFrom(buffer, sizeof buffer, from, 0); });
      return n > 0 ? std::string(buffer, n) + "@" + std::to_string(from.port()) : "-";
   }

   std::multiset<DtInetSocket*> removed;
   int created = 0;
   std::unique_ptr<DtInetSocketMgr> manager;
   std::vector<std::unique_ptr<DtInetTcpSocket>> peers;
};

INSTANTIATE_TEST_SUITE_P(Loopback, ManagerTest, ::testing::Values("127.0.0.1", "::1"), familyName);

TEST_P(ManagerTest, PeersJoinAreReadInTurnWithoutStarvingAndLeave)
{
   EXPECT_EQ(manager->processConnections() + manager->processConnections(), 0);
   EXPECT_EQ(created, 1);  // polling with nothing to accept keeps the one waiting socket
   // Addition callbacks run for accepted peers, their refusal ignored; -1 on an empty list is 0.
   int announced = 0;
   auto count = [](DtInetSocket*, void* n) { return ++*static_cast<int*>(n), false; };
   manager->addSocketAdditionCallback(count, &announced, -1);
   manager->addSocketAdditionCallback(count, &announced, 0);  // taken: ignored
   std::vector<DtInetTcpSocket*> const order = join(3);
   ASSERT_EQ(order.size(), 3u);
   EXPECT_EQ(created, 4);
   EXPECT_EQ(announced, 3);

   // Reads go round in map order from after the last peer read; one that finds nothing up
   // to the map's end goes on at its beginning, so the first peer is not starved.
   for (DtInetTcpSocket* peer : order)
      ASSERT_EQ(sendText(*peer, "p"), 1);
   for (DtInetTcpSocket* peer : order)
      EXPECT_EQ(readNext(), "p@" + std::to_string(peer->localPort()));
   for (char const* text : {"again", "and again"})
   {
      ASSERT_EQ(sendText(*order[0], text), static_cast<int>(std::string(text).size()));
      EXPECT_EQ(readNext(), text + ("@" + std::to_string(order[0]->localPort())));
   }

   // A peer that leaves is dropped by the next read that meets it, and reported once.
   ASSERT_TRUE(order[1]->closeSocket());
   char buffer[16];
   DtInetEndpoint from;
   auto step = [&]  // a read gives nothing (not an error) until the peer is gone
   { return manager->recvFrom(buffer, 16, from, 0) ? -1 : manager->socketList().size() == 2; };
   EXPECT_EQ(waitFor(step), 1);
   EXPECT_EQ(removed.size(), 1u);
   EXPECT_EQ(manager->getLastError(), 0);
   // The destructor hands every remaining connection to the removal callbacks.
   manager.reset();
   EXPECT_EQ(removed.size(), 3u);
}

TEST_P(ManagerTest, APeerDyingDuringSendToAllIsDroppedOnceWithoutFailingTheCall)
{
   std::vector<DtInetTcpSocket*> const order = join(4);
   ASSERT_EQ(order.size(), 4u);
   ASSERT_TRUE(order[2]->closeSocket());
   std::string message(100, 'd');
   std::vector<DtInetEndpoint*> everyone;  // empty: all
   int rounds = 0;
   for (; manager->socketList().size() == 4 && rounds < 1000; ++rounds)
      ASSERT_EQ(manager->sendTo(&message[0], 100, everyone, 0), 100);
   EXPECT_EQ(manager->socketList().size(), 3u);
   EXPECT_EQ(removed.size(), 1u);
   for (DtInetTcpSocket* peer : {order[0], order[1], order[3]})
      EXPECT_EQ(readBytes(*peer, 100u * rounds), std::string(100u * rounds, 'd'));

   // The chain form to a list of one.
   std::vector<char> head{'c', 'h'}, tail{'a', 'i', 'n'};
   DtInetEndpoint target(manager->socketList().begin()->first);
   std::vector<DtInetEndpoint*> listed{&target};
   EXPECT_EQ(manager->sendTo(DtInetSockChain{&head, &tail}, listed, 0), 5);
   EXPECT_EQ(readBytes(*order[0], 5), "chain");
   ASSERT_TRUE(order[1]->setNonBlockingOption(true));
   char byte;
   EXPECT_EQ(order[1]->recv(&byte, 1, 0), 0);  // only the listed peer hears it
}

// A UDP peer needs no socket of its own: the server's serves it, without callbacks.
TEST_P(ManagerTest, CreationCallbacksOfTheWrongKindAreReplaced)
{
   struct Case
   {
      char const* name;
      DtInetSocketCreationCb make;
   };
   for (Case const& c :
        {Case{"a UDP socket",
              [](void*, DtInetSocketMgr*) -> DtInetSocket* { return new DtInetUdpSocket(); }},
         Case{"nothing", [](void*, DtInetSocketMgr*) -> DtInetSocket* { return nullptr; }},
         Case{"a listener", [](void*, DtInetSocketMgr*) -> DtInetSocket* {
                 return new DtInetTcpSocket(0, nullptr, DtInetUtils::DtInetFamilyIPv4, 0, false);
              }}})
   {
      SCOPED_TRACE(c.name);
      manager->addSocketCreationCallback(c.make, nullptr);
      join(1);
   }
}

TEST(SocketManager, UdpPeersAreServedByTheServerSocket)
{
   DtInetEndpoint udpServer(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   DtInetSocketMgr udp(udpServer, nullptr, DtInetSocketMgr::theDefaultServerFlags,
                       DtInetSockFlagsDefault, DtInetUtils::DtInetFamilyIPv4);
   udp.addSocketAdditionCallback(refuse, nullptr, 0);
   DtInetEndpoint udpPeer(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp);
   EXPECT_EQ(udp.addConnection(udpPeer, 0, nullptr, true, false), udp.serverSocket());
   EXPECT_EQ(udp.peerSocket(udpPeer), udp.serverSocket());
   // Removing one peer leaves the others the server serves, whichever way it is named.
   DtInetEndpoint other(DtInetAddr("127.0.0.1"), 10, DtInetProtocolUdp),
       third(DtInetAddr("127.0.0.1"), 11, DtInetProtocolUdp);
   udp.addConnection(other, 0, nullptr, true, false);
   udp.addConnection(third, 0, nullptr, true, false);
   EXPECT_TRUE(udp.removeConnection(other));
   EXPECT_TRUE(udp.removeConnection(udp.serverSocket()));
   EXPECT_EQ(1u, udp.socketList().size());
   EXPECT_EQ(udp.addConnection(tcpEndpoint("127.0.0.1", 9), 0, nullptr, true, true), nullptr);
   EXPECT_EQ(udp.getLastError(), -7);
   EXPECT_STREQ(udp.getLastErrorString().c_str(),
                "Illegal attempt to add a connection from a UDP socket manager to a TCP endpoint.");
}

TEST(SocketManager, RefusedOrFailingPeersAreDropped)
{
   TcpPair pair;
   std::string why;
   // The accepted end may not send: every send to it fails without the peer ending.
   ASSERT_TRUE(pair.open("127.0.0.1", DtInetSockFlagsDefault, DtInetSockFlagRecv, why)) << why;
   std::multiset<DtInetSocket*> removed;
   DtInetSocketMgr manager(DtInetSockFlagsDefault);
   // A connection an addition callback refuses is not kept (and not leaked).
   DtInetEndpoint server = tcpEndpoint("127.0.0.1", pair.listener->localPort());
   manager.addSocketAdditionCallback(refuse, nullptr, 3);
   EXPECT_EQ(manager.addConnection(server, 0, nullptr, true, true), nullptr);
   EXPECT_TRUE(manager.socketList().empty() &&
               manager.removeSocketAdditionCallback(refuse, nullptr));

   // A send that fails for another reason than the peer's end fails the call and drops it.
   manager.addSocketRemovalCallback(
       [](DtInetSocket* socket, void* data)
       { return static_cast<std::multiset<DtInetSocket*>*>(data)->insert(socket), true; },
       &removed, 0);
   // A negative priority on a list that is not empty registers nothing.
   static int late = 0;
   manager.addSocketRemovalCallback([](DtInetSocket*, void*) { return ++late, true; }, nullptr, -1);
   ASSERT_EQ(manager.addConnection(pair.accepted.get()), pair.accepted.get());
   ASSERT_EQ(manager.addConnection(pair.client.get()), pair.client.get());
   EXPECT_EQ(manager.addConnection(pair.client.get()), nullptr);  // already there
   char text[] = "xyz";
   std::vector<DtInetEndpoint*> everyone;
   EXPECT_EQ(manager.sendTo(text, 3, everyone, 0), -1);
   EXPECT_EQ(removed, std::multiset<DtInetSocket*>{pair.accepted.get()});
   EXPECT_EQ(manager.socketList().size(), 1u);
   EXPECT_EQ(late, 0);
   // The healthy peer still sent it (the failed socket reads no more; the system does).
   char got[3];
   EXPECT_EQ(::recv(pair.accepted->descriptor(), got, 3, MSG_WAITALL), 3);
   EXPECT_EQ(std::string(got, 3), "xyz");
}

}  // namespace
