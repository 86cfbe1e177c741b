// Datagram socket tests with real traffic: loopback for send and receive, private
// network namespaces for multicast and broadcast.
#include <olutil/olInetUdpSocket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
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
// Stands for any error number but 0 in recorded().
constexpr int theAnyError = -99;

DtInetEndpoint endpoint(char const* address, unsigned short port,
                        DtInetProtocol protocol = DtInetProtocolUdp)
{
   return DtInetEndpoint(DtInetAddr(address), port, protocol);
}

// The error record holds `error` and `text` (with `prefix`: a text that starts with it),
// and the socket is in `state`.
::testing::AssertionResult recorded(DtInetSocket& socket, int error, std::string const& text,
                                    int state = -1, bool prefix = false)
{
   std::string const got = socket.getLastErrorString().c_str();
   int const number = socket.getLastError();
   if ((error == theAnyError ? number != 0 : number == error) &&
       (prefix ? got.rfind(text, 0) == 0 : got == text) && socket.state() == state)
      return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure()
          << "error " << number << " \"" << got << "\", state " << socket.state();
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

int sendText(DtInetUdpSocket& socket, std::string text)
{
   return socket.send(&text[0], text.size(), 0);
}

// The next datagram on `socket`, waited for, as text; a result of 0 or less as its number.
std::string next(DtInetUdpSocket& socket, DtInetEndpoint& from, std::size_t capacity = 64)
{
   std::vector<char> buffer(capacity);
   int const n = waitFor([&] { return socket.recvFrom(buffer.data(), buffer.size(), from, 0); });
   return n > 0 ? std::string(buffer.data(), n) : std::to_string(n);
}

// The same through a chain of two buffers: "<length>:<bytes>", or the result alone.
std::string nextChain(DtInetUdpSocket& socket, DtInetEndpoint& from, std::size_t first,
                      std::size_t second)
{
   std::vector<char> a(first), b(second);
   DtInetSockChain chain{&a, &b};
   int const n = waitFor([&] { return socket.recvToChainFrom(chain, from, 0); });
   std::string const all = std::string(a.begin(), a.end()) + std::string(b.begin(), b.end());
   return n > 0 ? std::to_string(n) + ":" + all.substr(0, n) : std::to_string(n);
}

// Both send forms fail with `error`.
void expectSendsRefused(DtInetUdpSocket& socket, int error)
{
   std::vector<char> piece(4, 'p');
   DtInetSockChain chain{&piece};
   EXPECT_EQ(socket.send(piece.data(), piece.size(), 0), -1);
   EXPECT_EQ(socket.getLastError(), error);
   EXPECT_EQ(socket.sendChain(chain, 0), -1);
   EXPECT_EQ(socket.getLastError(), error);
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

   // A socket bound to the loopback address, sending by default to `peerPort`.
   std::unique_ptr<DtInetUdpSocket> open(unsigned int flags, unsigned short peerPort = 9)
   {
      std::unique_ptr<DtInetUdpSocket> socket(
          new DtInetUdpSocket(endpoint(address(), peerPort), 0, myDevice.get(), flags, true));
      EXPECT_EQ(socket->state(), DtInetSockStateOpen) << socket->getLastErrorString();
      return socket;
   }

   // A receiver and a sender aimed at it.
   void openPair(unsigned int receiverFlags, unsigned int senderFlags)
   {
      receiver = open(receiverFlags);
      sender = open(senderFlags, receiver->localPort());
   }

   std::unique_ptr<DtInetDevice> myDevice;
   std::unique_ptr<DtInetUdpSocket> receiver;
   std::unique_ptr<DtInetUdpSocket> sender;
   DtInetEndpoint from;
};

INSTANTIATE_TEST_SUITE_P(Loopback, UdpLoopbackTest, ::testing::Values("127.0.0.1", "::1"),
                         [](::testing::TestParamInfo<char const*> const& info)
                         { return std::string(info.param[0] == ':' ? "IPv6" : "IPv4"); });

// ------------------------------------------------------------------ one socket

TEST_P(UdpLoopbackTest, OpenBindsTheDeviceAddressAndCloseIsFinal)
{
   auto socket = open(theSyncFlags);
   EXPECT_TRUE(socket->isUdp());
   EXPECT_STREQ(socket->localEndpoint().address().toDtString().c_str(), address());
   EXPECT_EQ(socket->udpSocket(), socket->secondUdpSocket());

   // Opening again changes nothing.
   unsigned short const port = socket->localPort();
   EXPECT_TRUE(socket->openSocket());
   EXPECT_EQ(socket->localPort(), port);

   // A refused destination keeps the state; reading nothing keeps the error record.
   ASSERT_FALSE(socket->setDestination(endpoint(address(), 1, DtInetProtocolTcp)));
   char const* const refusal =
       "DtInetUdpSocket::setDestination(): Specified destination endpoint is not UDP";
   EXPECT_TRUE(recorded(*socket, 22, refusal, DtInetSockStateOpen));
   std::vector<char> buffer(16);
   EXPECT_EQ(socket->recv(buffer.data(), buffer.size(), 0), 0);
   DtInetSockChain chain{&buffer};
   EXPECT_EQ(socket->recvToChain(chain, 0), 0);
   EXPECT_TRUE(recorded(*socket, 22, refusal, DtInetSockStateOpen));

   EXPECT_TRUE(socket->closeSocket());
   EXPECT_FALSE(socket->isOk());
   EXPECT_FALSE(socket->openSocket());
   EXPECT_TRUE(recorded(*socket, 131, "DtInetUdpSocket::openSocket(): Invalid state 9"));
}

TEST_P(UdpLoopbackTest, OptionsReadBackWhatWasSet)
{
   auto socket = open(theSyncFlags);
   EXPECT_TRUE(socket->getReuseAddressOption());  // DtInetSockFlagReuseAddress is default
   EXPECT_TRUE(socket->getBroadcastOption());     // set on every open
   EXPECT_EQ(socket->getBytesAvailable(), 0);
   EXPECT_TRUE(socket->setNonBlockingOption(false));
   EXPECT_FALSE(socket->isNonBlocking());
   EXPECT_TRUE(recorded(*socket, 0, "", DtInetSockStateOpen));

   EXPECT_FALSE(socket->setSendLowWatermark(100));
   EXPECT_TRUE(
       recorded(*socket, theAnyError,
                "DtInetUdpSocket::setSendLowWatermark(): Error setting send low watermark to 100\n",
                -1, true));

   // A hop limit beyond one byte is a refused option, never an exception.
   EXPECT_FALSE(socket->setMcastTtlOption(300));
   EXPECT_TRUE(recorded(*socket, EINVAL,
                        "DtInetUdpSocket::setMcastTtl(): Error setting multicast TTL to  300\n", -1,
                        true));
}

// ------------------------------------------------------------------ traffic

TEST_P(UdpLoopbackTest, DatagramsArriveWithTheirSender)
{
   openPair(theSyncFlags, theSyncFlags);
   EXPECT_EQ(sendText(*sender, "hello"), 5);
   EXPECT_EQ(waitFor([&] { return receiver->getBytesAvailable(); }), 5);
   EXPECT_EQ(next(*receiver, from), "hello");
   EXPECT_EQ(from.port(), sender->localPort());
   EXPECT_STREQ(from.address().toDtString().c_str(), address());

   // A chain is gathered on send and scattered on receive.
   std::vector<char> a{'a', 'b', 'c'}, b{'d'}, c{'e', 'f'};
   DtInetSockChain out{&a, &b, &c};
   EXPECT_EQ(sender->sendChain(out, 0), 6);
   from.setPort(1);
   EXPECT_EQ(nextChain(*receiver, from, 4, 4), "6:abcdef");
   EXPECT_EQ(from.port(), sender->localPort());
   EXPECT_GT(receiver->receiveTime(), 0.0);
   EXPECT_EQ(sender->totalBytesSent() + receiver->totalBytesReceived(), 22u);
   EXPECT_EQ(sender->totalPacketsSent() + receiver->totalPacketsReceived(), 4u);
}

TEST_P(UdpLoopbackTest, TooBigDatagramIsLostAndTheNextOneReadable)
{
   for (unsigned int flags : {theSyncFlags, theAsyncRecvFlags})
   {
      SCOPED_TRACE(flags);
      openPair(flags, theSyncFlags);
      for (char const* text : {"much too long", "abc", "also too long", "xyz"})
         ASSERT_EQ(sendText(*sender, text), static_cast<int>(std::strlen(text)));
      EXPECT_EQ(next(*receiver, from, 4), "-4");
      EXPECT_EQ(next(*receiver, from, 4), "abc");
      EXPECT_EQ(nextChain(*receiver, from, 2, 2), "-4");
      EXPECT_EQ(nextChain(*receiver, from, 2, 2), "3:xyz");
      // "Too big" is not an error of the socket.
      EXPECT_TRUE(recorded(*receiver, 0, "", DtInetSockStateOpen));
   }
}

TEST_P(UdpLoopbackTest, ProcessingCallbacksRunOnTheChainPathsOnly)
{
   openPair(theSyncFlags, theSyncFlags);
   static int seen;
   seen = 0;
   auto dropAll = [](DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void*)
   {
      seen = length;
      return 0;
   };
   receiver->addProcessingCallback(DtInetSockPostReceive, dropAll, nullptr, 1);
   sender->addProcessingCallback(DtInetSockPreSend, dropAll, nullptr, 1);
   ASSERT_EQ(sendText(*sender, "plain"), 5);
   EXPECT_EQ(next(*receiver, from), "plain");
   EXPECT_EQ(seen, 0);

   // The absorbed chain counts as sent but never leaves: the first to arrive, dropped
   // after the read counted it, is the one that skipped the pre-send list.
   std::vector<char> absorbed(8, 'a'), sent(5, 's'), buffer(16);
   DtInetSockChain first{&absorbed}, second{&sent}, in{&buffer};
   EXPECT_EQ(sender->sendChain(first, 0), 8);
   EXPECT_EQ(sender->totalPacketsSent(), 2u);
   EXPECT_EQ(sender->sendChain(second, DtInetSockCallNoPreCallbacks), 5);
   seen = 0;
   EXPECT_EQ(waitFor([&] { return receiver->recvToChainFrom(in, from, 0) + seen; }), 5);
   EXPECT_EQ(receiver->totalPacketsReceived(), 2u);
}

TEST_P(UdpLoopbackTest, ConnectedSocketSendsToItsDestinationOnly)
{
   openPair(theSyncFlags, theSyncFlags);
   auto other = open(theSyncFlags);
   ASSERT_TRUE(sender->connectToDestination());
   EXPECT_EQ(sender->state(), DtInetSockStateConnected);

   std::string text = "connected";
   DtInetEndpoint elsewhere = other->localEndpoint();
   char buffer[32];
   for (bool disconnected : {false, true})
   {
      // Disconnected, the socket still reports state 6 and still ignores the endpoint.
      SCOPED_TRACE(disconnected);
      EXPECT_TRUE(!disconnected || sender->disconnect());
      EXPECT_EQ(sender->state(), DtInetSockStateConnected);
      EXPECT_EQ(sender->sendTo(&text[0], text.size(), elsewhere, 0), 9);
      EXPECT_EQ(next(*receiver, from), text);
      EXPECT_EQ(other->recv(buffer, sizeof buffer, 0), 0);
   }

   // Connecting an initialized socket opens it; the system chose address and port.
   DtInetUdpSocket socket(endpoint(address(), receiver->localPort()), 0, nullptr, theSyncFlags,
                          false);
   ASSERT_TRUE(socket.connectToDestination());
   EXPECT_EQ(socket.state(), DtInetSockStateConnected);
   EXPECT_NE(socket.localPort(), 0);
   EXPECT_FALSE(socket.localEndpoint().address().isAnyAddr());
}

// ------------------------------------------------------------------ background paths

TEST_P(UdpLoopbackTest, BackgroundQueuesKeepTheOrderAndStampTimes)
{
   openPair(theAsyncRecvFlags, theAsyncSendFlags);
   for (int i = 0; i < 10; ++i)
      ASSERT_EQ(sendText(*sender, "packet " + std::to_string(i)), 8);
   std::vector<char> part(3, '-'), rest(3, '-');
   DtInetSockChain out{&part, &rest};
   ASSERT_EQ(sender->sendChain(out, 0), 6);

   double lastTime = 0.0;
   for (int i = 0; i < 10; ++i)
   {
      ASSERT_EQ(next(*receiver, from), "packet " + std::to_string(i));
      EXPECT_GE(receiver->receiveTime(), lastTime);
      lastTime = receiver->receiveTime();
   }
   EXPECT_GT(lastTime, 0.0);
   EXPECT_EQ(from.port(), sender->localPort());
   EXPECT_EQ(nextChain(*receiver, from, 4, 4), "6:------");
   EXPECT_EQ(receiver->recv(&part[0], part.size(), 0), 0);
   EXPECT_EQ(receiver->totalPacketsReceived(), 11u);
   EXPECT_EQ(sender->totalPacketsSent(), 11u);

   // Packets nobody reads are freed by closing (the sanitizer build checks).
   for (int i = 0; i < 5; ++i)
      ASSERT_EQ(sendText(*sender, "unread"), 6);
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_TRUE(sender->closeSocket());
   EXPECT_TRUE(receiver->closeSocket());
}

TEST_P(UdpLoopbackTest, ClosingDeliversQueuedSendsFirst)
{
   openPair(theSyncFlags, theAsyncSendFlags);
   ASSERT_TRUE(receiver->setReceiveBufferSize(1u << 20));
   auto const payload = [](int i) { return (std::to_string(i) + ":").append(144, 'p'); };
   for (int i = 0; i < 300; ++i)
      ASSERT_EQ(sendText(*sender, payload(i)), static_cast<int>(payload(i).size()));
   EXPECT_TRUE(sender->closeSocket());
   for (int i = 0; i < 300; ++i)
      ASSERT_EQ(next(*receiver, from, 256), payload(i));
   // Closed, the socket refuses what no I/O thread would send.
   expectSendsRefused(*sender, 9);
}

TEST_P(UdpLoopbackTest, BackgroundSendFailureIsSticky)
{
   openPair(theSyncFlags, theAsyncSendFlags);
   std::vector<char> huge(70000, 'h');
   // Queued: the failure is known only once the I/O thread tried it.
   EXPECT_EQ(sender->send(huge.data(), huge.size(), 0), 70000);
   ASSERT_EQ(waitFor([&] { return std::min(sendText(*sender, "small"), 0); }), -1);
   EXPECT_EQ(sender->getLastError(), 90);
   sender->clearError();
   expectSendsRefused(*sender, 90);
   EXPECT_EQ(sender->state(), DtInetSockStateOpen);
}

// ------------------------------------------------------------------ refusals and failures

TEST(UdpSocketErrors, SendRefusalsInvalidateTheSocket)
{
   char data[4] = {1, 2, 3, 4};
   std::vector<char> buffer(data, data + 4);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint target = endpoint("127.0.0.1", 9);
   DtInetEndpoint tcp = endpoint("127.0.0.1", 9, DtInetProtocolTcp);
   // Flags, the call, error number and text.
   using Call = std::function<int(DtInetUdpSocket&)>;
   std::tuple<unsigned int, Call, int, char const*> const cases[] = {
       {theSyncFlags, [&](DtInetUdpSocket& s) { return s.send(data, 4, 0); }, 89,
        "DtInetUdpSocket::send(): Error - no default destination set."},
       {theSyncFlags, [&](DtInetUdpSocket& s) { return s.sendChain(chain, 0); }, 89,
        "DtInetUdpSocket::sendChain(): Error - no default destination set."},
       {DtInetSockFlagRecv, [&](DtInetUdpSocket& s) { return s.sendTo(data, 4, target, 0); }, 95,
        "DtInetUdpSocket::send()/sendTo(): Socket not initialized for sending."},
       {DtInetSockFlagRecv, [&](DtInetUdpSocket& s) { return s.sendChainTo(chain, target, 0); }, 95,
        "DtInetUdpSocket::sendChain()/sendChainTo(): Socket not initialized for sending."},
       {theSyncFlags, [&](DtInetUdpSocket& s) { return s.sendTo(data, 4, tcp, 0); }, 95,
        "DtInetUdpSocket::sendTo(): endpoint is a TCP endpoint"},
   };
   for (auto const& [flags, send, error, text] : cases)
   {
      SCOPED_TRACE(text);
      DtInetUdpSocket socket;
      ASSERT_TRUE(socket.setSocket(error == 89 ? DtInetEndpoint() : target, 0, nullptr, flags));
      ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
      EXPECT_EQ(send(socket), -1);
      EXPECT_TRUE(recorded(socket, error, text));
   }
}

TEST(UdpSocketErrors, TransmitFailureKeepsTheState)
{
   DtInetUdpSocket socket(endpoint("127.0.0.1", 9), 0, nullptr, theSyncFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen);
   // An endpoint of no protocol is taken as UDP, and the caller's endpoint says so.
   char data[3] = {'a', 'b', 'c'};
   DtInetEndpoint target = endpoint("127.0.0.1", 9, DtInetProtocolUnspecified);
   EXPECT_EQ(socket.sendTo(data, sizeof data, target, 0), 3);
   EXPECT_EQ(target.protocol(), DtInetProtocolUdp);

   // Larger than any datagram can be.
   std::vector<char> huge(70000, 'h');
   EXPECT_EQ(socket.sendTo(huge.data(), huge.size(), target, 0), -1);
   EXPECT_TRUE(recorded(socket, 90, "DtInetUdpSocket::send()/sendTo() failed from ",
                        DtInetSockStateOpen, true));
   EXPECT_NE(std::string(socket.getLastErrorString().c_str()).find(" to 127.0.0.1:9\n"),
             std::string::npos);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);

   DtInetSockChain chain{&huge};
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), -1);
   EXPECT_TRUE(recorded(socket, 90, "DtInetUdpSocket::sendChain()/sendChainTo() failed from ",
                        DtInetSockStateOpen, true));
}

// Reaches the protected local endpoint, to give it a protocol no caller can set.
class TcpLocalSocket : public DtInetUdpSocket
{
public:
   TcpLocalSocket() { myLocalEndpoint.setProtocol(DtInetProtocolTcp); }
};

TEST(UdpSocketErrors, OpenRefusesTcpEndpointsAndBadDevices)
{
   TcpLocalSocket local;
   EXPECT_FALSE(local.openSocket());
   EXPECT_TRUE(recorded(
       local, 93, "DtInetUdpSocket::openSocket(): Cannot open UDP socket from local TCP endpoint"));

   DtInetUdpSocket remote(endpoint("127.0.0.1", 9, DtInetProtocolTcp), 0, nullptr, theSyncFlags,
                          true);
   EXPECT_TRUE(
       recorded(remote, 93,
                "DtInetUdpSocket::openSocket(): Cannot open UDP socket to a remote TCP endpoint"));

   DtInetDevice device(DtString("oltnosuchdev0"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_FALSE(device.isOk());
   DtInetUdpSocket socket(endpoint("127.0.0.1", 9), 0, &device, theSyncFlags, true);
   EXPECT_TRUE(recorded(socket, 22,
                        std::string("DtInetUdpSocket::openSocket(): Bad device: ") +
                            device.getLastErrorString().c_str()));
}

TEST(UdpSocketSetup, UnopenedSocketRules)
{
   DtInetUdpSocket socket;
   // Options on the closed system socket are refused without a record.
   EXPECT_FALSE(socket.setBroadcastOption(true));
   EXPECT_EQ(socket.getSendBufferSize(), -1);
   EXPECT_EQ(socket.getLastError(), 0);

   DtInetEndpoint unspecified = endpoint("127.0.0.1", 4000, DtInetProtocolUnspecified);
   EXPECT_TRUE(socket.setDestination(unspecified));
   EXPECT_EQ(socket.destination().protocol(), DtInetProtocolUdp);
   EXPECT_EQ(unspecified.protocol(), DtInetProtocolUnspecified);
   EXPECT_FALSE(socket.setDestination(endpoint("127.0.0.1", 1, DtInetProtocolTcp)));
   EXPECT_EQ(socket.destination().port(), 4000);
   EXPECT_EQ(socket.state(), DtInetSockStateInitialized);

   EXPECT_TRUE(socket.setSocket(endpoint("127.0.0.1", 9), 0, nullptr, theSyncFlags));
   ASSERT_TRUE(socket.openSocket());
   EXPECT_FALSE(socket.setSocket(endpoint("127.0.0.1", 10), 0, nullptr, 0));
   EXPECT_EQ(socket.destination().port(), 9);
}

// ------------------------------------------------------------------ namespaces

// A private namespace entered by the test's thread, by default with a veth pair (oltu0
// 192.0.2.1 and 2001:db8::1, oltu1 192.0.2.2) carrying the multicast route out of oltu0.
// The guard is declared last, so it ends first.
class UdpNamespaceTest : public ::testing::Test
{
protected:
   void SetUp() override { enter(true); }

   void enter(bool withVeth)
   {
      std::string reason;
      if (!olt::TestNetns::isAvailable(&reason))
         GTEST_SKIP() << reason;
      myNetns.reset(new olt::TestNetns);
      olt::TestNetns& n = *myNetns;
      if (!n.ok())
         GTEST_SKIP() << n.error();
      ASSERT_TRUE(!withVeth ||
                  (n.addVethPair("oltu0", "oltu1") && n.addAddress("oltu0", "192.0.2.1/24") &&
                   n.addAddress("oltu1", "192.0.2.2/24") &&
                   n.addAddress("oltu0", "2001:db8::1/64") && n.setLinkUp("oltu0") &&
                   n.setLinkUp("oltu1") && n.ip({"route", "add", "224.0.0.0/4", "dev", "oltu0"})))
          << n.error();
      myGuard.reset(new olt::NetnsGuard(n));
      ASSERT_TRUE(myGuard->ok()) << myGuard->error();
   }

   DtInetEndpoint from;
   std::unique_ptr<olt::TestNetns> myNetns;
   std::unique_ptr<olt::NetnsGuard> myGuard;
};

// Only the namespace's loopback, which is not multicast capable.
class UdpBareNamespaceTest : public UdpNamespaceTest
{
protected:
   void SetUp() override { enter(false); }
};

TEST_F(UdpNamespaceTest, MulticastDestinationBindsItsPortAndJoinsGroups)
{
   DtInetUdpSocket receiver(endpoint("239.1.2.3", 40001), 0, nullptr, theSyncFlags, true);
   ASSERT_EQ(receiver.state(), DtInetSockStateOpen) << receiver.getLastErrorString();
   EXPECT_EQ(receiver.localPort(), 40001);
   EXPECT_TRUE(receiver.localEndpoint().address().isAnyAddr());
   ASSERT_EQ(receiver.joinedGroups().size(), 1u);
   EXPECT_STREQ(receiver.joinedGroups()[0].first.toDtString().c_str(), "239.1.2.3");

   EXPECT_TRUE(receiver.joinMulticastGroup(DtInetAddr("239.1.2.3")));  // already there
   EXPECT_EQ(receiver.joinedGroups().size(), 1u);

   DtInetUdpSocket sender(endpoint("239.1.2.3", 40001), 40002, nullptr, theSyncFlags, true);
   ASSERT_EQ(sender.state(), DtInetSockStateOpen) << sender.getLastErrorString();
   ASSERT_EQ(sendText(sender, "to the group"), 12) << sender.getLastErrorString();
   EXPECT_EQ(next(receiver, from), "to the group");
   EXPECT_EQ(from.port(), 40002);

   // An open group socket keeps its destination, and will not connect (last error 0).
   EXPECT_FALSE(receiver.setDestination(endpoint("192.0.2.2", 40003)));
   EXPECT_TRUE(recorded(receiver, 106,
                        "DtInetUdpSocket::setDestination(): Cannot change destination endpoint "
                        "of open broadcast/multicast socket",
                        DtInetSockStateOpen));
   EXPECT_FALSE(receiver.connectToDestination());
   EXPECT_TRUE(recorded(receiver, 0,
                        "DtInetUdpSocket::connectToDestination(): cannot connect() to multicast "
                        "/ broadcast destination",
                        DtInetSockStateOpen));

   EXPECT_TRUE(receiver.dropMulticastGroup(endpoint("239.1.2.3", 40001)));
   EXPECT_TRUE(receiver.joinedGroups().empty());
   EXPECT_EQ(receiver.state(), DtInetSockStateOpen);

   // A group joined on a chosen device is carried by its address.
   DtInetDevice device(DtString("oltu1"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk()) << device.getLastErrorString();
   DtInetUdpSocket socket(endpoint("192.0.2.1", 40004), 40005, nullptr, theSyncFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
   EXPECT_TRUE(socket.joinMulticastGroup(DtInetAddr("239.1.2.5"), &device));
   ASSERT_EQ(socket.joinedGroups().size(), 1u);
   EXPECT_STREQ(socket.joinedGroups()[0].second.toDtString().c_str(), "192.0.2.2");
   EXPECT_TRUE(socket.setMcastDevice(&device));
   EXPECT_TRUE(socket.setMcastDevice(DtInetAddr("::1")));  // not IPv4: nothing to do
   EXPECT_TRUE(socket.dropMulticastGroup(DtInetAddr("239.1.2.5"), &device));
   // Leaving a group that was never joined fails at the option level.
   EXPECT_FALSE(socket.dropMulticastGroup(DtInetAddr("239.1.2.5"), &device));
   EXPECT_TRUE(recorded(socket, theAnyError,
                        "DtInetUdpSocket::dropMulticastGroup(): Error leaving group 239.1.2.5 on "
                        "interface 192.0.2.2\n",
                        -1, true));
}

TEST_F(UdpNamespaceTest, SecondaryDeviceSendsFromItsAddressAndReceivesOnASecondSocket)
{
   // A host interface other than the primary device (the first active non-loopback one)
   // sends from its address and listens on a second socket bound to the any-address.
   DtInetDeviceList const devices = DtInetUtils::scanInetDevices(true, false);
   ASSERT_GE(devices.size(), 3u);
   bool const useFirst =
       devices[devices[0]->ipv4Addr()->isLoopback() ? 1 : 0]->deviceName() != DtString("oltu0");
   DtInetDevice device(DtString(useFirst ? "oltu0" : "oltu1"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk()) << device.getLastErrorString();
   DtInetUdpSocket socket(endpoint("192.0.2.255", 40010), 0, &device, theAsyncRecvFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
   EXPECT_NE(socket.udpSocket(), socket.secondUdpSocket());
   EXPECT_STREQ(socket.localEndpoint().address().toDtString().c_str(),
                useFirst ? "192.0.2.1" : "192.0.2.2");
   EXPECT_EQ(socket.localPort(), 40010);

   // Without a device, a broadcast socket binds the any-address and joins nothing.
   DtInetUdpSocket peer(endpoint("192.0.2.255", 40010), 40011, nullptr, theSyncFlags, true);
   ASSERT_EQ(peer.state(), DtInetSockStateOpen) << peer.getLastErrorString();
   EXPECT_TRUE(peer.localEndpoint().address().isAnyAddr());
   EXPECT_TRUE(peer.joinedGroups().empty());
   ASSERT_EQ(sendText(peer, "to the device"), 13) << peer.getLastErrorString();
   EXPECT_EQ(next(socket, from), "to the device");
   EXPECT_EQ(from.port(), 40011);
   EXPECT_TRUE(socket.closeSocket());
}

TEST_F(UdpBareNamespaceTest, JoinWithoutMulticastDeviceKeepsTheState)
{
   DtInetUdpSocket socket(endpoint("127.0.0.1", 9), 0, nullptr, theSyncFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
   EXPECT_FALSE(socket.joinMulticastGroup(DtInetAddr("239.1.2.6")));
   EXPECT_TRUE(recorded(socket, 95,
                        "DtInetUdpSocket::joinMulticastGroup(): Error joining group 239.1.2.6 "
                        "cannot find a multicast capable device",
                        DtInetSockStateOpen));
   EXPECT_FALSE(socket.dropMulticastGroup(DtInetAddr("239.1.2.6")));
   EXPECT_STREQ(socket.getLastErrorString().c_str(),
                "DtInetUdpSocket::dropMulticastGroup(): Error dropping group 239.1.2.6 cannot "
                "find a multicast capable device");
   EXPECT_TRUE(socket.joinedGroups().empty());
}

}  // namespace
