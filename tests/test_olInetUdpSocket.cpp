// Datagram socket tests with real traffic: loopback, and private hosts for groups.
#include <olutil/olInetUdpSocket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetAddrUtils.h>
#include <olutil/olInetDevice.h>
#include <olutil/olInetSocketUtils.h>

#include "support_netns.h"

namespace
{

constexpr unsigned int theSyncFlags = DtInetSockFlagsDefault | DtInetSockFlagNonBlocking;
constexpr unsigned int theAsyncRecvFlags = theSyncFlags | DtInetSockFlagAsyncRecv;
constexpr unsigned int theAsyncSendFlags = theSyncFlags | DtInetSockFlagAsyncSend;

auto const endpoint = [](char const* address, unsigned short port)
{ return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolUdp); };
auto const sendText = [](DtInetUdpSocket& socket, std::string text)
{ return socket.send(&text[0], text.size(), 0); };

// The record holds `error` and `text` (or, with `prefix`, starts so); state is `state`.
::testing::AssertionResult recorded(DtInetSocket& socket, int error, std::string const& text,
                                    int state = -1, bool prefix = false)
{
   std::string const got = socket.getLastErrorString().c_str();
   if (socket.getLastError() == error && (prefix ? got.rfind(text, 0) == 0 : got == text) &&
       socket.state() == state)
      return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure()
          << "error " << socket.getLastError() << " \"" << got << "\", state " << socket.state();
}

// Repeats `read` until it gives something other than 0, for at most five seconds.
template <class Read>
int waitFor(Read read)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
   int result;
   while ((result = read()) == 0 && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return result;
}

// The next datagram on `socket`, waited for; a result of 0 or less as its number.
std::string next(DtInetUdpSocket& socket, DtInetEndpoint& from, std::size_t size = 64)
{
   std::vector<char> a(size);
   int const n = waitFor([&] { return socket.recvFrom(a.data(), a.size(), from, 0); });
   return n > 0 ? std::string(a.data(), n) : std::to_string(n);
}

// Sockets on the loopback address of one family and device, on system-chosen ports.
class UdpLoopbackTest : public ::testing::TestWithParam<char const*>
{
protected:
   void SetUp() override
   {
      bool const v6 = std::strchr(address(), ':') != nullptr;
      myDevice.reset(new DtInetDevice(
          DtString("lo"), v6 ? DtInetUtils::DtInetFamilyIPv6 : DtInetUtils::DtInetFamilyIPv4));
      if (!myDevice->isOk() || !(v6 ? myDevice->ipv6Addr() : myDevice->ipv4Addr()))
         GTEST_SKIP() << "no usable " << address() << " on the loopback device";
   }

   char const* address() const { return GetParam(); }

   std::unique_ptr<DtInetUdpSocket> open(unsigned int flags, unsigned short peerPort = 9)
   {
      auto socket = std::make_unique<DtInetUdpSocket>(endpoint(address(), peerPort), 0,
                                                      myDevice.get(), flags, true);
      EXPECT_EQ(socket->state(), DtInetSockStateOpen) << socket->getLastErrorString();
      return socket;
   }

   void openPair(unsigned int receiverFlags, unsigned int senderFlags)
   {
      receiver = open(receiverFlags);
      sender = open(senderFlags, receiver->localPort());
   }

   std::unique_ptr<DtInetDevice> myDevice;
   std::unique_ptr<DtInetUdpSocket> receiver, sender;
   DtInetEndpoint from;
};

INSTANTIATE_TEST_SUITE_P(Loopback, UdpLoopbackTest, ::testing::Values("127.0.0.1", "::1"),
                         [](::testing::TestParamInfo<char const*> const& info)
                         { return std::string(info.param[0] == ':' ? "IPv6" : "IPv4"); });

// A chain of `count` buffers of 1 to 23 bytes, every `emptyEvery`-th one empty (at odd
// places null); each byte tells its buffer and place apart (zero: all bytes 0).
struct Pieces
{
   Pieces(std::size_t count, std::size_t emptyEvery, bool zero = false) : buffers(count)
   {
      for (std::size_t i = 0; i < count; ++i)
      {
         bool const empty = emptyEvery != 0 && i % emptyEvery == emptyEvery - 1;
         buffers[i].resize(empty ? 0 : 1 + i % 23);
         for (std::size_t j = 0; j < buffers[i].size(); ++j)
            buffers[i][j] = zero ? '\0' : static_cast<char>('!' + (i * 31 + j) % 90);
         chain.push_back(empty && i % 2 ? nullptr : &buffers[i]);
      }
   }

   std::string bytes() const
   {
      std::string all;
      for (std::vector<char> const* buffer : chain)
         all.append(buffer ? buffer->data() : "", buffer ? buffer->size() : 0);
      return all;
   }

   std::vector<std::vector<char>> buffers;
   DtInetSockChain chain;
};

TEST_P(UdpLoopbackTest, ChainsOfAnyLengthTravelAsOneDatagramBothWays)
{
   // Boost.Asio hands at most 64 buffers to one system call, the system at most 1,024:
   // lengths on either side of both, synchronous and queued. Empty and null buffers do
   // not count: 82 with every fifth empty are 66 to carry.
   std::pair<std::size_t, std::size_t> const cases[] = {{1, 0},    {64, 0},   {65, 0},
                                                        {1024, 0}, {1100, 0}, {82, 5}};
   for (unsigned int flags : {theSyncFlags, theAsyncRecvFlags | theAsyncSendFlags})
      for (auto [count, emptyEvery] : cases)
      {
         SCOPED_TRACE(::testing::Message()
                      << count << " buffers, every " << emptyEvery << "th empty, flags " << flags);
         openPair(flags, flags);
         Pieces out(count, emptyEvery), in(count, emptyEvery, true);
         std::string const expected = out.bytes();
         int const total = static_cast<int>(expected.size());
         ASSERT_EQ(sender->sendChain(out.chain, 0), total) << sender->getLastErrorString();
         EXPECT_EQ(next(*receiver, from, 65536), expected);
         EXPECT_EQ(from.port(), sender->localPort());

         // A datagram fills every buffer of the same layout; one byte more does not fit.
         for (std::string const& text : {expected, expected + "+"})
            ASSERT_EQ(sendText(*sender, text), static_cast<int>(text.size()));
         EXPECT_EQ(sender->totalPacketsSent(), 3u);
         EXPECT_EQ(sender->totalBytesSent(), 3u * total + 1);
         from.setPort(1);
         EXPECT_EQ(waitFor([&] { return receiver->recvToChainFrom(in.chain, from, 0); }), total);
         EXPECT_EQ(in.bytes(), expected);
         EXPECT_EQ(from.port(), sender->localPort());
         EXPECT_GT(receiver->receiveTime(), 0.0);  // the time of this datagram's arrival
         EXPECT_EQ(waitFor([&] { return receiver->recvToChain(in.chain, 0); }),
                   DtInetSockResultNoFit);
      }
}

// A failed send keeps the state; queued, it is known once the I/O thread tried it, and
// then stays. Closing delivers the queued sends first, and refuses later ones. A hop
// limit beyond one byte is refused without an exception.
TEST_P(UdpLoopbackTest, BackgroundSendFailuresStickAndClosingDeliversFirst)
{
   openPair(theSyncFlags, theAsyncSendFlags);
   std::vector<char> huge(70000, 'h');  // larger than any datagram can be
   DtInetEndpoint target = receiver->localEndpoint();
   EXPECT_EQ(receiver->sendTo(huge.data(), huge.size(), target, 0), -1);
   EXPECT_TRUE(recorded(*receiver, 90, "DtInetUdpSocket::send()/sendTo() failed from ",
                        DtInetSockStateOpen, true));
   EXPECT_EQ(sender->send(huge.data(), huge.size(), 0), 70000);
   ASSERT_EQ(waitFor([&] { return std::min(sendText(*sender, "small"), 0); }), -1);
   sender->clearError();
   DtInetSockChain chain{&huge};
   EXPECT_EQ(sender->sendChain(chain, 0), -1);
   EXPECT_TRUE(recorded(*sender, 90, "", DtInetSockStateOpen, true));
   EXPECT_FALSE(sender->setMcastTtlOption(300));
   EXPECT_TRUE(recorded(*sender, EINVAL,
                        "DtInetUdpSocket::setMcastTtl(): Error setting multicast TTL to  300\n", -1,
                        true));

   sender = open(theAsyncSendFlags, receiver->localPort());
   ASSERT_TRUE(receiver->setReceiveBufferSize(1u << 20));
   auto const payload = [](int i) { return (std::to_string(i) + ":").append(144, 'p'); };
   for (int i = 0; i < 300; ++i)
      ASSERT_EQ(sendText(*sender, payload(i)), static_cast<int>(payload(i).size()));
   EXPECT_TRUE(sender->closeSocket());
   for (int i = 0; i < 300; ++i)
      ASSERT_EQ(next(*receiver, from, 256), payload(i));
   EXPECT_EQ(sendText(*sender, "late"), -1);  // no I/O thread would send it
   EXPECT_EQ(sender->getLastError(), 9);
   EXPECT_FALSE(sender->openSocket());  // a closed socket is not opened again
   EXPECT_TRUE(recorded(*sender, 131, "DtInetUdpSocket::openSocket(): Invalid state 9"));
}

// Through the constructor or setDestination (after a good one, which is used again). A
// failed lookup keeps the earlier address, the receiver's: a socket that lost the
// failure would send there.
TEST_P(UdpLoopbackTest, DestinationWhoseLookupFailedIsNeverUsed)
{
   receiver = open(theSyncFlags);
   DtInetEndpoint const good = endpoint(address(), receiver->localPort());
   DtInetEndpoint bad = good;
   auto const family =
       std::strchr(address(), ':') ? DtInetUtils::DtInetFamilyIPv6 : DtInetUtils::DtInetFamilyIPv4;
   std::string reason;
   if (!olt::runIsolated([&] { bad.hostLookup(DtString("nohost.invalid"), 0, family); }, &reason))
      GTEST_SKIP() << "the failing lookup runs where no query can leave the machine: " << reason;
   ASSERT_FALSE(bad.isOk());
   std::unique_ptr<DtInetUdpSocket> sockets[] = {
       std::make_unique<DtInetUdpSocket>(bad, 0, myDevice.get(), theSyncFlags, true),
       open(theSyncFlags, 9)};
   ASSERT_TRUE(sockets[1]->setDestination(bad) && sockets[1]->setDestination(good));
   ASSERT_EQ(sendText(*sockets[1], "good"), 4);
   EXPECT_EQ(next(*receiver, from), "good");
   ASSERT_TRUE(sockets[1]->setDestination(bad));
   std::vector<char> piece{'x', 'y'};
   DtInetSockChain chain{&piece, &piece};
   for (auto& socket : sockets)
   {
      EXPECT_FALSE(socket->destination().isOk());
      // Every attempt fails alike: the failure is not used up by reporting it.
      for (int attempt = 0; attempt < 2; ++attempt)
      {
         EXPECT_EQ(sendText(*socket, "lost"), -1);
         EXPECT_TRUE(
             recorded(*socket, 89, "DtInetUdpSocket::send(): Error - no default destination set."));
         EXPECT_EQ(socket->sendChain(chain, 0), -1);
         EXPECT_TRUE(recorded(*socket, 89,
                              "DtInetUdpSocket::sendChain(): Error - no default destination set."));
      }
   }
   // Nor is a destination without a port.
   auto portless = open(theSyncFlags, 0);
   EXPECT_EQ(sendText(*portless, "lost"), -1);
   EXPECT_TRUE(
       recorded(*portless, 89, "DtInetUdpSocket::send(): Error - no default destination set."));
   // Loopback delivers during the send: anything sent would be waiting now.
   char byte;
   EXPECT_EQ(receiver->recv(&byte, 1, 0), 0);
}

// The largest datagram of each family (65,507 bytes over IPv4, 65,527 over IPv6)
// comes whole, or as -4 into a chain one byte short, read directly or in the background.
TEST_P(UdpLoopbackTest, LargestDatagramIsWholeOrDoesNotFitOnBothReceivePaths)
{
   std::size_t const largest = std::strchr(address(), ':') ? 65527 : 65507;
   for (unsigned int flags : {theSyncFlags, theAsyncRecvFlags})
   {
      SCOPED_TRACE(flags);
      openPair(flags, theSyncFlags);
      std::vector<char> datagram(largest), whole(largest), head(largest / 2),
          tail(largest - largest / 2 - 1);
      for (std::size_t i = 0; i < largest; ++i)
         datagram[i] = static_cast<char>(i * 7);
      DtInetSockChain chain{&head, &tail};
      for (int i = 0; i < 2; ++i)
         ASSERT_EQ(sender->send(datagram.data(), largest, 0), int(largest));
      EXPECT_EQ(waitFor([&] { return receiver->recv(whole.data(), whole.size(), 0); }),
                int(largest));
      EXPECT_TRUE(whole == datagram);
      EXPECT_EQ(waitFor([&] { return receiver->recvToChainFrom(chain, from, 0); }), -4);
      ASSERT_EQ(sendText(*sender, "after"), 5);
      EXPECT_EQ(next(*receiver, from), "after");
      EXPECT_TRUE(recorded(*receiver, 0, "", DtInetSockStateOpen));
   }
}

// Three hosts (see olt::TestHosts); sockets are made inside a host by on().
class UdpHostsTest : public olt::HostsTest
{
protected:
   // A socket opened inside `host` towards `destination`, on `device` ("" for none).
   std::unique_ptr<DtInetUdpSocket> on(int host, DtInetEndpoint const& destination,
                                       std::string const& device = "", unsigned short localPort = 0)
   {
      olt::NetnsGuard inside(myHosts->host(host));
      auto socket = std::make_unique<DtInetUdpSocket>(
          destination, localPort, olt::ipv4Device(device).get(), theSyncFlags, true);
      EXPECT_TRUE(inside.ok() && socket->state() == DtInetSockStateOpen)
          << inside.error() << socket->getLastErrorString();
      return socket;
   }

   static void sendMany(DtInetUdpSocket& socket, int count)  // of 9 bytes each
   {
      for (int i = 0; i < count; ++i)
         ASSERT_EQ(sendText(socket, "datagram" + std::to_string(i % 10)), 9);
   }

   // How many datagrams (of 9 bytes, or others) came until none came for a while.
   static std::map<int, int> drain(DtInetUdpSocket& socket)
   {
      std::vector<char> buffer(2048);
      return olt::drain([&] { return socket.recv(buffer.data(), buffer.size(), 0); });
   }
   using Counts = std::map<int, int>;
   static Counts nine(int count) { return count ? Counts{{9, count}} : Counts{}; }
};

// Host 0's interface other than its primary one sends from its address and hears
// broadcasts on a second, any-bound socket. Closed while its background reads run and
// datagrams arrive, it closes, and neither reads nor reports a failure of a read
// started after the close (ThreadSanitizer sees a read restarted as it closes).
TEST_F(UdpHostsTest, SecondaryDeviceHearsBroadcastsAndClosesDuringReads)
{
   olt::NetnsGuard inside(myHosts->host(0));
   ASSERT_TRUE(inside.ok()) << inside.error();
   auto device = olt::ipv4Device(olt::TestHosts::device(1));  // olteth0 comes first
   DtInetEndpoint const broadcast(DtInetAddr("10.78.0.255", "255.255.255.0"), 40020,
                                  DtInetProtocolUdp);
   auto peer = on(1, broadcast, "", 40021);
   char byte = 0;
   for (int round = 0; round < 20; ++round)
   {
      SCOPED_TRACE(round);
      DtInetUdpSocket socket(broadcast, 0, device.get(), theAsyncRecvFlags, true);
      ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
      ASSERT_NE(socket.udpSocket(), socket.secondUdpSocket());
      EXPECT_EQ(socket.localEndpoint().address().toDtString().stdString(),
                olt::TestHosts::address(0, 1));
      for (int i = 0; i < 300; ++i)
         ASSERT_EQ(sendText(*peer, "flood"), 5);
      ASSERT_EQ(waitFor([&] { return socket.recv(&byte, 1, 0); }), -4);  // reading has begun
      EXPECT_TRUE(socket.closeSocket()) << socket.getLastErrorString();
      EXPECT_EQ(socket.recv(&byte, 1, 0), 0);
      EXPECT_TRUE(recorded(socket, 0, "", DtInetSockStateClosed));
   }
}

// Two groups on one port, and one group on two interfaces, on host 1: a socket gets
// the groups it joined and none that only another socket of its host joined. IPv4
// memberships also name the interface; the kernel matches IPv6 memberships by group
// alone, so there both sockets of the first group hear it from either interface.
TEST_F(UdpHostsTest, EachSocketReceivesOnlyTheGroupsItJoined)
{
   for (bool ipv6 : {false, true})
   {
      SCOPED_TRACE(ipv6 ? "IPv6" : "IPv4");
      DtInetEndpoint const first = endpoint(ipv6 ? "ff15::1:3" : "239.1.2.3", 40100);
      DtInetEndpoint const second = endpoint(ipv6 ? "ff15::1:4" : "239.1.2.4", 40100);
      auto joinedFirst = on(1, first);
      auto joinedSecond = on(1, second);
      auto firstOnSegment1 = on(1, first, olt::TestHosts::device(1));
      // Host 0 sends 20 to the first group and 30 to the second out of olteth0, and
      // 40 to the first out of olteth1.
      sendMany(*on(0, first, "", 40101), 20);
      sendMany(*on(0, second, "", 40102), 30);
      sendMany(*on(0, first, olt::TestHosts::device(1), 40103), 40);
      EXPECT_EQ(drain(*joinedFirst), nine(ipv6 ? 60 : 20));
      EXPECT_EQ(drain(*joinedSecond), nine(30));
      EXPECT_EQ(drain(*firstOnSegment1), nine(ipv6 ? 60 : 40));
   }
}

// The outbound interface of a group's traffic, chosen at open, by device, by address,
// or left to the default, for both families: host 1 hears the group on olteth1 only
// and host 2 on olteth0 only.
TEST_F(UdpHostsTest, MulticastLeavesByTheChosenInterface)
{
   std::string const device = olt::TestHosts::device(1);
   for (bool ipv6 : {false, true})
      for (int choice = 0; choice < 4; ++choice)
      {
         SCOPED_TRACE(std::string(ipv6 ? "IPv6 " : "IPv4 ") + std::to_string(choice));
         DtInetEndpoint const group = endpoint(ipv6 ? "ff15::2:1" : "239.2.0.1", 40200);
         auto onSegment1 = on(1, group, device);
         auto onSegment0 = on(2, group);
         EXPECT_TRUE(onSegment1->joinMulticastGroup(group, nullptr));  // again: no change
         EXPECT_EQ(onSegment1->joinedGroups().size(), 1u);
         auto sender = on(0, group, choice == 0 ? device : "", 40201);
         if (choice == 1 || choice == 2)
         {
            olt::NetnsGuard inside(myHosts->host(0));
            DtInetAddr const address(olt::TestHosts::address(0, 1, ipv6).c_str());
            EXPECT_TRUE(choice == 1 ? sender->setMcastDevice(olt::ipv4Device(device).get())
                                    : sender->setMcastDevice(address))
                << sender->getLastErrorString();
         }
         sendMany(*sender, 25);
         EXPECT_EQ(drain(*onSegment1), nine(choice != 3 ? 25 : 0));
         EXPECT_EQ(drain(*onSegment0), nine(choice != 3 ? 0 : 25));
         EXPECT_EQ(sender->state(), DtInetSockStateOpen);
      }
}

}  // namespace
