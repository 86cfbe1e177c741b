// Socket manager tests with real TCP peers on 127.0.0.1 and ::1.
#include <olutil/olInetSocketMgr.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include <olutil/olInetTcpSocket.h>
#include <olutil/olInetUdpSocket.h>

#include "support_tcp.h"

namespace
{

using olt::tcpEndpoint;
using olt::waitFor;

// What the callbacks saw. The removal callback owns what it is given and deletes it,
// as an application's would; a socket reported twice would be freed twice.
struct Record
{
   std::vector<std::string> calls;
   std::multiset<DtInetSocket*> removed;
   int created = 0;
};

bool refuse(DtInetSocket*, void* data)
{
   static_cast<Record*>(data)->calls.push_back("refuse");
   return false;
}

bool deleteOnRemoval(DtInetSocket* socket, void* data)
{
   auto* record = static_cast<Record*>(data);
   EXPECT_EQ(record->removed.count(socket), 0u) << "reported twice";
   record->removed.insert(socket);
   delete socket;
   return true;
}

DtInetSocket* countedTcp(void* data, DtInetSocketMgr*)
{
   ++static_cast<Record*>(data)->created;
   return new DtInetTcpSocket();
}

int sendText(DtInetSocket& socket, std::string text)
{
   return socket.send(&text[0], text.size(), 0);
}

std::string readAll(DtInetSocket& socket, std::size_t size)
{
   std::string got;
   std::vector<char> buffer(4096);
   while (got.size() < size)
   {
      int const n = waitFor([&] { return socket.recv(buffer.data(), buffer.size(), 0); });
      if (n <= 0)
         return got + "<" + std::to_string(n) + ">";
      got.append(buffer.data(), static_cast<std::size_t>(n));
   }
   return got;
}

class ManagerTest : public ::testing::TestWithParam<char const*>
{
protected:
   void SetUp() override
   {
      DtInetEndpoint server = tcpEndpoint(address(), 0);
      manager = std::make_unique<DtInetSocketMgr>(server, nullptr,
                                                  DtInetSocketMgr::theDefaultServerFlags,
                                                  DtInetSockFlagsDefault, olt::familyOf(address()));
      if (!manager->serverSocket()->isOk())
      {
         std::string const why = manager->serverSocket()->getLastErrorString().c_str();
         manager.reset();
         if (olt::isIpv6(address()))
            GTEST_SKIP() << "no usable ::1: " << why;
         FAIL() << why;
      }
      manager->addSocketRemovalCallback(deleteOnRemoval, &record, 1);
      manager->addSocketCreationCallback(countedTcp, &record);
   }

   void TearDown() override { manager.reset(); }

   char const* address() const { return GetParam(); }

   // `count` peers connected and accepted by the manager.
   void join(std::size_t count)
   {
      std::size_t const before = peers.size();
      for (std::size_t i = 0; i < count; ++i)
      {
         peers.push_back(std::make_unique<DtInetTcpSocket>(
             tcpEndpoint(address(), manager->serverSocket()->localPort()), 0, nullptr,
             DtInetSockFlagsDefault, true));
         ASSERT_TRUE(peers.back()->isOk()) << peers.back()->getLastErrorString().c_str();
      }
      std::size_t added = 0;
      waitFor([&] { return (added += manager->processConnections()) >= count ? 1 : 0; });
      ASSERT_EQ(added, count);
      ASSERT_EQ(manager->socketList().size(), before + count);
   }

   // The peers in the order of the manager's map.
   std::vector<DtInetTcpSocket*> inMapOrder()
   {
      std::vector<DtInetTcpSocket*> order;
      for (auto const& entry : manager->socketList())
         for (auto const& peer : peers)
            if (peer->localPort() == entry.first.port())
               order.push_back(peer.get());
      return order;
   }

   Record record;
   std::unique_ptr<DtInetSocketMgr> manager;
   std::vector<std::unique_ptr<DtInetTcpSocket>> peers;
};

INSTANTIATE_TEST_SUITE_P(Loopback, ManagerTest, ::testing::Values("127.0.0.1", "::1"),
                         [](::testing::TestParamInfo<char const*> const& info)
                         { return std::string(olt::isIpv6(info.param) ? "IPv6" : "IPv4"); });

TEST_P(ManagerTest, PeersJoinAreServedInMapOrderAndLeave)
{
   // Polling with nothing to accept keeps the one waiting socket.
   for (int i = 0; i < 5; ++i)
      EXPECT_EQ(manager->processConnections(), 0);
   EXPECT_EQ(record.created, 1);

   manager->addSocketAdditionCallback(refuse, &record, 1);  // ignored on accepted sockets
   join(3);
   EXPECT_EQ(record.calls, std::vector<std::string>(3, "refuse"));
   EXPECT_EQ(record.created, 4);
   for (auto const& entry : manager->socketList())
   {
      EXPECT_TRUE(entry.second->isNonBlocking());  // accepted connections never block
      EXPECT_EQ(manager->peerSocket(entry.first), entry.second);
   }

   std::string message(100, 'm');
   std::vector<DtInetEndpoint*> everyone;
   EXPECT_EQ(manager->sendTo(&message[0], 100, everyone, 0), 100);
   for (auto const& peer : peers)
      EXPECT_EQ(readAll(*peer, 100), message);

   // Reads go round in map order, starting after the peer that last gave data.
   std::vector<DtInetTcpSocket*> const order = inMapOrder();
   ASSERT_EQ(order.size(), 3u);
   for (DtInetTcpSocket* peer : order)
      ASSERT_EQ(sendText(*peer, std::to_string(peer->localPort())), static_cast<int>(std::to_string(peer->localPort()).size()));
   for (DtInetTcpSocket* peer : order)
   {
      char buffer[16];
      DtInetEndpoint from;
      int const n = waitFor([&] { return manager->recvFrom(buffer, sizeof buffer, from, 0); });
      ASSERT_GT(n, 0);
      EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(n)), std::to_string(peer->localPort()));
      EXPECT_EQ(from.port(), peer->localPort());
   }

   // The first peer in the map speaks again while the ones after it stay quiet: a
   // read that finds nothing up to the end of the map starts the next at the beginning.
   for (char const* text : {"again", "and again"})
   {
      SCOPED_TRACE(text);
      ASSERT_EQ(sendText(*order[0], text), static_cast<int>(std::strlen(text)));
      char buffer[16];
      DtInetEndpoint from;
      int const n = waitFor([&] { return manager->recvFrom(buffer, sizeof buffer, from, 0); });
      ASSERT_GT(n, 0);
      EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(n)), text);
      EXPECT_EQ(from.port(), order[0]->localPort());
   }

   // A peer that leaves is dropped by the next read that meets it, and reported once.
   ASSERT_TRUE(order[1]->closeSocket());
   char buffer[16];
   DtInetEndpoint from;
   waitFor(
       [&]
       {
          EXPECT_EQ(manager->recvFrom(buffer, sizeof buffer, from, 0), 0);
          return manager->socketList().size() == 2 ? 1 : 0;
       });
   EXPECT_EQ(manager->socketList().size(), 2u);
   EXPECT_EQ(record.removed.size(), 1u);
   EXPECT_EQ(manager->getLastError(), 0);

   // The destructor hands every remaining connection to the removal callbacks.
   manager.reset();
   EXPECT_EQ(record.removed.size(), 3u);
}

TEST_P(ManagerTest, APeerDyingDuringSendToAllIsDroppedOnceWithoutFailingTheCall)
{
   join(4);
   std::vector<DtInetTcpSocket*> const order = inMapOrder();
   ASSERT_EQ(order.size(), 4u);
   DtInetTcpSocket* const dying = order[2];
   ASSERT_TRUE(dying->closeSocket());

   std::string message(100, 'd');
   std::vector<DtInetEndpoint*> everyone;
   int rounds = 0;
   while (manager->socketList().size() == 4 && rounds < 1000)
   {
      ASSERT_EQ(manager->sendTo(&message[0], 100, everyone, 0), 100);
      ++rounds;
   }
   EXPECT_EQ(manager->socketList().size(), 3u);
   EXPECT_EQ(record.removed.size(), 1u);
   for (DtInetTcpSocket* peer : order)
   {
      if (peer != dying)
      {
         EXPECT_EQ(readAll(*peer, 100u * rounds), std::string(100u * rounds, 'd'));
      }
   }

   // The chain form to a list: only the listed peer hears it.
   std::vector<char> head{'c', 'h'}, tail{'a', 'i', 'n'};
   DtInetEndpoint target(manager->socketList().begin()->first);
   std::vector<DtInetEndpoint*> listed{&target};
   EXPECT_EQ(manager->sendTo(DtInetSockChain{&head, &tail}, listed, 0), 5);
   EXPECT_EQ(readAll(*order[0], 5), "chain");
   ASSERT_TRUE(order[1]->setNonBlockingOption(true));
   char byte;
   EXPECT_EQ(order[1]->recv(&byte, 1, 0), 0);
}

TEST_P(ManagerTest, CreationCallbacksOfTheWrongKindAreReplaced)
{
   struct Case
   {
      char const* name;
      DtInetSocketCreationCb make;
   };
   for (Case const& c :
        {Case{"a UDP socket", [](void*, DtInetSocketMgr*) -> DtInetSocket*
              { return new DtInetUdpSocket(); }},
         Case{"nothing", [](void*, DtInetSocketMgr*) -> DtInetSocket* { return nullptr; }},
         Case{"a listener", [](void*, DtInetSocketMgr*) -> DtInetSocket*
              { return new DtInetTcpSocket(0, nullptr, DtInetUtils::DtInetFamilyIPv4, 0, false); }}})
   {
      SCOPED_TRACE(c.name);
      manager->addSocketCreationCallback(c.make, nullptr);
      join(1);
   }
}

TEST(SocketManager, ConnectionsWithoutAServer)
{
   Record record;
   DtInetSocketMgr manager(DtInetSockFlagsDefault);
   EXPECT_EQ(manager.processConnections(), 0);
   EXPECT_EQ(manager.serverSocket(), nullptr);
   EXPECT_EQ(manager.getServerFlags(), 0x0CC3u);

   DtInetTcpSocket listener(0, nullptr, DtInetUtils::DtInetFamilyIPv4, DtInetSockFlagsDefault,
                            true);
   ASSERT_TRUE(listener.isOk());
   DtInetEndpoint const server = tcpEndpoint("127.0.0.1", listener.localPort());

   // Addition callbacks in ascending priority; a taken priority, or a negative one on
   // a non-empty list, adds nothing.
   manager.addSocketAdditionCallback(
       [](DtInetSocket*, void* data) { return static_cast<Record*>(data)->calls.push_back("b"), true; },
       &record, 2);
   manager.addSocketAdditionCallback(
       [](DtInetSocket*, void* data) { return static_cast<Record*>(data)->calls.push_back("a"), true; },
       &record, 1);
   manager.addSocketAdditionCallback(refuse, &record, 1);
   manager.addSocketAdditionCallback(refuse, &record, -1);
   manager.addSocketRemovalCallback(deleteOnRemoval, &record, -1);  // empty list: key 0
   DtInetSocket* const first = manager.addConnection(server, 0, nullptr, true, true);
   ASSERT_NE(first, nullptr) << manager.getLastErrorString().c_str();
   EXPECT_EQ(record.calls, (std::vector<std::string>{"a", "b"}));

   // A refusing callback: no connection, and the socket is gone (the sanitizer checks).
   manager.addSocketAdditionCallback(refuse, &record, 3);
   EXPECT_EQ(manager.addConnection(server, 0, nullptr, true, true), nullptr);
   EXPECT_TRUE(manager.removeSocketAdditionCallback(refuse, nullptr));
   EXPECT_FALSE(manager.removeSocketAdditionCallback(refuse, nullptr));

   // Two sockets under one key: removing the key removes one.
   DtInetSocket* const second = manager.addConnection(server, 0, nullptr, true, true);
   ASSERT_NE(second, nullptr);
   EXPECT_EQ(manager.socketList().count(server), 2u);
   EXPECT_EQ(manager.addConnection(second), nullptr);  // already there
   EXPECT_TRUE(manager.removeConnection(server));
   EXPECT_EQ(manager.socketList().count(server), 1u);
   EXPECT_EQ(record.removed.size(), 1u);
   EXPECT_FALSE(manager.removeConnection(tcpEndpoint("127.0.0.1", 1)));

   // Refusals, each with its record.
   DtInetTcpSocket unopened;
   EXPECT_EQ(manager.addConnection(&unopened), nullptr);
   EXPECT_EQ(manager.getLastError(), 22);
   EXPECT_STREQ(manager.getLastErrorString().c_str(),
                "Socket not in proper state to add to the managed list");
   EXPECT_EQ(manager.addConnection(tcpEndpoint("127.0.0.1", 1), 0, nullptr, true, true), nullptr);
   EXPECT_STREQ(manager.getLastErrorString().c_str(), "Failed to create TCP Socket");
   EXPECT_EQ(manager.getLastError(), ECONNREFUSED);
   manager.clearError();
   EXPECT_EQ(manager.getLastError(), 0);

   DtInetEndpoint udpServer(DtInetAddr("127.0.0.1"), 0, DtInetProtocolUdp);
   DtInetSocketMgr udpManager(udpServer, nullptr, DtInetSocketMgr::theDefaultServerFlags,
                              DtInetSockFlagsDefault, DtInetUtils::DtInetFamilyIPv4);
   EXPECT_EQ(udpManager.addConnection(server, 0, nullptr, true, true), nullptr);
   EXPECT_EQ(udpManager.getLastError(), -7);
   EXPECT_STREQ(udpManager.getLastErrorString().c_str(),
                "Illegal attempt to add a connection from a UDP socket manager to a TCP endpoint.");
   EXPECT_EQ(udpManager.processConnections(), 0);

   // A UDP peer that needs no connected socket is served by the server socket itself.
   DtInetEndpoint udpPeer(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp);
   udpManager.addSocketAdditionCallback(refuse, &record, 0);
   record.calls.clear();
   EXPECT_EQ(udpManager.addConnection(udpPeer, 0, nullptr, true, false), udpManager.serverSocket());
   EXPECT_TRUE(record.calls.empty());
   EXPECT_EQ(udpManager.peerSocket(udpPeer), udpManager.serverSocket());
}

TEST(SocketManager, APeerFailingForAnotherReasonFailsTheCallAndIsDropped)
{
   olt::TcpPair pair;
   std::string why;
   // The accepted end may not send: every send to it fails without the peer ending.
   ASSERT_TRUE(pair.open("127.0.0.1", DtInetSockFlagsDefault, DtInetSockFlagRecv, why)) << why;
   Record record;
   DtInetSocketMgr manager(DtInetSockFlagsDefault);
   manager.addSocketRemovalCallback(
       [](DtInetSocket* socket, void* data)
       { return static_cast<Record*>(data)->removed.insert(socket), true; },
       &record, 0);
   ASSERT_EQ(manager.addConnection(pair.accepted.get()), pair.accepted.get());
   ASSERT_EQ(manager.addConnection(pair.client.get()), pair.client.get());
   char text[] = "xyz";
   std::vector<DtInetEndpoint*> everyone;
   EXPECT_EQ(manager.sendTo(text, 3, everyone, 0), -1);
   EXPECT_EQ(record.removed, std::multiset<DtInetSocket*>{pair.accepted.get()});
   EXPECT_EQ(manager.socketList().size(), 1u);
   // The healthy peer still sent it (the failed socket reads no more; the system does).
   char got[3];
   EXPECT_EQ(::recv(pair.accepted->descriptor(), got, 3, MSG_WAITALL), 3);
   EXPECT_EQ(std::string(got, 3), "xyz");
   EXPECT_EQ(manager.sendTo(text, -1, everyone, 0), -1);
   EXPECT_EQ(manager.getLastError(), 22);
}

}  // namespace
