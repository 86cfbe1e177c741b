// Tests of the datagram socket with real traffic: loopback (127.0.0.1 and ::1) for the
// send and receive paths, and private network namespaces for multicast and broadcast.
#include <olutil/olInetUdpSocket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
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

using Clock = std::chrono::steady_clock;

// Every wait in these tests ends after this long.
constexpr std::chrono::seconds theWaitLimit(5);

constexpr unsigned int theSyncFlags = DtInetSockFlagsDefault | DtInetSockFlagNonBlocking;
constexpr unsigned int theAsyncRecvFlags = theSyncFlags | DtInetSockFlagAsyncRecv;
constexpr unsigned int theAsyncSendFlags = theSyncFlags | DtInetSockFlagAsyncSend;

DtInetEndpoint udpEndpoint(char const* address, unsigned short port)
{
   return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolUdp);
}

std::string textOf(std::vector<char> const& buffer, int length)
{
   return std::string(buffer.data(), static_cast<std::size_t>(length > 0 ? length : 0));
}

// The last error text of `socket` begins with `prefix`.
::testing::AssertionResult errorStartsWith(DtInetSocket& socket, std::string const& prefix)
{
   std::string const text = socket.getLastErrorString().c_str();
   if (text.rfind(prefix, 0) == 0)
      return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure() << "error text: " << text;
}

// Repeats `read` until it gives something other than 0, or the wait limit passes.
template <class Read>
int waitFor(Read read)
{
   auto const deadline = Clock::now() + theWaitLimit;
   int result = read();
   while (result == 0 && Clock::now() < deadline)
   {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      result = read();
   }
   return result;
}

struct LoopbackFamily
{
   char const* name;
   char const* address;
   DtInetUtils::DtInetAddrFamily family;
};

std::string familyName(::testing::TestParamInfo<LoopbackFamily> const& info)
{
   return info.param.name;
}

// Sockets bound to the loopback address of one family on a system-chosen port, through
// the loopback device as host interface.
class UdpLoopbackTest : public ::testing::TestWithParam<LoopbackFamily>
{
protected:
   void SetUp() override
   {
      myDevice.reset(new DtInetDevice(DtString("lo"), GetParam().family));
      DtInetAddr const* address = GetParam().family == DtInetUtils::DtInetFamilyIPv6
                                      ? myDevice->ipv6Addr()
                                      : myDevice->ipv4Addr();
      if (!myDevice->isOk() || !address)
         GTEST_SKIP() << "no usable " << GetParam().address << " on the loopback device";
   }

   // A socket bound to the loopback address, sending by default to `peerPort`.
   std::unique_ptr<DtInetUdpSocket> open(unsigned int flags, unsigned short peerPort = 9)
   {
      std::unique_ptr<DtInetUdpSocket> socket(new DtInetUdpSocket(
          udpEndpoint(GetParam().address, peerPort), 0, myDevice.get(), flags, true));
      EXPECT_EQ(socket->state(), DtInetSockStateOpen) << socket->getLastErrorString();
      return socket;
   }

   // A receiver and a sender aimed at it.
   void openPair(unsigned int receiverFlags, unsigned int senderFlags)
   {
      receiver = open(receiverFlags);
      sender = open(senderFlags, receiver->localPort());
   }

   int receive(std::vector<char>& buffer, DtInetEndpoint& from)
   {
      return waitFor([&] { return receiver->recvFrom(buffer.data(), buffer.size(), from, 0); });
   }

   int sendText(std::string text) { return sender->send(&text[0], text.size(), 0); }

   std::unique_ptr<DtInetDevice> myDevice;
   std::unique_ptr<DtInetUdpSocket> receiver;
   std::unique_ptr<DtInetUdpSocket> sender;
};

INSTANTIATE_TEST_SUITE_P(
    Loopback, UdpLoopbackTest,
    ::testing::Values(LoopbackFamily{"IPv4", "127.0.0.1", DtInetUtils::DtInetFamilyIPv4},
                      LoopbackFamily{"IPv6", "::1", DtInetUtils::DtInetFamilyIPv6}),
    familyName);

// ------------------------------------------------------------------ opening

TEST_P(UdpLoopbackTest, OpenBindsTheDeviceAddressAndCloseIsFinal)
{
   auto socket = open(theSyncFlags);
   EXPECT_TRUE(socket->isOk());
   EXPECT_NE(socket->localPort(), 0);
   EXPECT_TRUE(socket->isUdp());
   EXPECT_STREQ(socket->localEndpoint().address().toDtString().c_str(), GetParam().address);
   EXPECT_EQ(socket->udpSocket(), socket->secondUdpSocket());
   EXPECT_TRUE(socket->isNonBlocking());

   // Opening again changes nothing.
   unsigned short const port = socket->localPort();
   EXPECT_TRUE(socket->openSocket());
   EXPECT_EQ(socket->localPort(), port);

   EXPECT_TRUE(socket->closeSocket());
   EXPECT_EQ(socket->state(), DtInetSockStateClosed);
   EXPECT_FALSE(socket->isOk());
   EXPECT_FALSE(socket->openSocket());
   EXPECT_EQ(socket->getLastError(), 131);
   EXPECT_STREQ(socket->getLastErrorString().c_str(),
                "DtInetUdpSocket::openSocket(): Invalid state 9");
   EXPECT_EQ(socket->state(), -1);
}

// ------------------------------------------------------------------ traffic

TEST_P(UdpLoopbackTest, DatagramsArriveWithTheirSender)
{
   openPair(theSyncFlags, theSyncFlags);
   EXPECT_EQ(sendText("hello"), 5);
   std::vector<char> buffer(64);
   DtInetEndpoint from;
   ASSERT_EQ(receive(buffer, from), 5);
   EXPECT_EQ(textOf(buffer, 5), "hello");
   EXPECT_EQ(from.port(), sender->localPort());
   EXPECT_STREQ(from.address().toDtString().c_str(), GetParam().address);
   EXPECT_EQ(receiver->receiveTime(), 0.0);  // a plain read takes no time stamp

   // A chain is gathered on send and scattered on receive.
   std::vector<char> a{'a', 'b', 'c'}, b{'d'}, c{'e', 'f'};
   DtInetSockChain out{&a, &b, &c};
   EXPECT_EQ(sender->sendChain(out, 0), 6);
   std::vector<char> x(4, '.'), y(4, '.');
   DtInetSockChain in{&x, &y};
   DtInetEndpoint chainFrom(DtInetAddr(GetParam().address), 1, DtInetProtocolUdp);
   ASSERT_EQ(waitFor([&] { return receiver->recvToChainFrom(in, chainFrom, 0); }), 6);
   EXPECT_EQ(textOf(x, 4) + textOf(y, 4), "abcdef..");
   EXPECT_EQ(chainFrom.port(), sender->localPort());
   EXPECT_GT(receiver->receiveTime(), 0.0);

   EXPECT_EQ(sender->totalPacketsSent(), 2u);
   EXPECT_EQ(sender->totalBytesSent(), 11u);
   EXPECT_EQ(receiver->totalPacketsReceived(), 2u);
   EXPECT_EQ(receiver->totalBytesReceived(), 11u);
}

TEST_P(UdpLoopbackTest, TooBigDatagramIsLostAndTheNextOneReadable)
{
   for (unsigned int flags : {theSyncFlags, theAsyncRecvFlags})
   {
      SCOPED_TRACE(flags);
      openPair(flags, theSyncFlags);
      for (char const* text : {"much too long", "abc", "also too long", "xyz"})
         ASSERT_EQ(sendText(text), static_cast<int>(std::strlen(text)));

      std::vector<char> small(4);
      DtInetEndpoint from;
      EXPECT_EQ(receive(small, from), -4);
      EXPECT_EQ(receive(small, from), 3);
      EXPECT_EQ(textOf(small, 3), "abc");

      std::vector<char> a(2, '.'), b(2, '.');
      DtInetSockChain chain{&a, &b};
      EXPECT_EQ(waitFor([&] { return receiver->recvToChainFrom(chain, from, 0); }), -4);
      EXPECT_EQ(waitFor([&] { return receiver->recvToChainFrom(chain, from, 0); }), 3);
      EXPECT_EQ(textOf(a, 2) + textOf(b, 1), "xyz");
      // "Too big" is not an error of the socket.
      EXPECT_EQ(receiver->getLastError(), 0);
      EXPECT_EQ(receiver->state(), DtInetSockStateOpen);
   }
}

TEST_P(UdpLoopbackTest, NothingWaitingReadsZeroAndKeepsTheErrorRecord)
{
   auto socket = open(theSyncFlags);
   DtInetEndpoint tcp(DtInetAddr(GetParam().address), 1, DtInetProtocolTcp);
   ASSERT_FALSE(socket->setDestination(tcp));
   ASSERT_EQ(socket->getLastError(), 22);

   std::vector<char> buffer(16);
   EXPECT_EQ(socket->recv(buffer.data(), buffer.size(), 0), 0);
   DtInetSockChain chain{&buffer}, empty;
   EXPECT_EQ(socket->recvToChain(chain, 0), 0);
   EXPECT_EQ(socket->recvToChain(empty, 0), -4);
   EXPECT_EQ(socket->getLastError(), 22);
   EXPECT_STREQ(socket->getLastErrorString().c_str(),
                "DtInetUdpSocket::setDestination(): Specified destination endpoint is not UDP");
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
   auto absorb = [](DtInetSocket*, int, DtInetSockChain&, DtInetEndpoint&, void*) { return 0; };
   receiver->addProcessingCallback(DtInetSockPostReceive, dropAll, nullptr, 1);
   sender->addProcessingCallback(DtInetSockPreSend, absorb, nullptr, 1);

   std::vector<char> buffer(16);
   DtInetEndpoint from;
   ASSERT_EQ(sendText("plain"), 5);
   EXPECT_EQ(receive(buffer, from), 5);
   EXPECT_EQ(seen, 0);

   // The pre-send callback absorbs the chain: it counts as sent, and nothing leaves.
   std::vector<char> data(8, 'q');
   DtInetSockChain chain{&data};
   EXPECT_EQ(sender->sendChain(chain, 0), 8);
   EXPECT_EQ(sender->totalPacketsSent(), 2u);
   std::this_thread::sleep_for(std::chrono::milliseconds(20));
   EXPECT_EQ(receiver->recv(buffer.data(), buffer.size(), 0), 0);

   // Skipping the pre-send list sends it; the post-receive filter drops it after the
   // read counted it.
   EXPECT_EQ(sender->sendChain(chain, DtInetSockCallNoPreCallbacks), 8);
   DtInetSockChain in{&buffer};
   EXPECT_EQ(waitFor(
                 [&]
                 {
                    EXPECT_EQ(receiver->recvToChainFrom(in, from, 0), 0);
                    return seen;
                 }),
             8);
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
   std::vector<char> buffer(32);
   DtInetEndpoint from;
   for (bool disconnected : {false, true})
   {
      // Disconnected, the socket still reports state 6 and still ignores the endpoint.
      SCOPED_TRACE(disconnected);
      if (disconnected)
      {
         EXPECT_TRUE(sender->disconnect());
      }
      EXPECT_EQ(sender->state(), DtInetSockStateConnected);
      EXPECT_EQ(sender->sendTo(&text[0], text.size(), elsewhere, 0), 9);
      EXPECT_EQ(receive(buffer, from), 9);
      EXPECT_EQ(other->recv(buffer.data(), buffer.size(), 0), 0);
   }
   EXPECT_TRUE(sender->closeSocket());
   EXPECT_EQ(sender->state(), DtInetSockStateClosed);

   // Connecting an initialized socket opens it; the system chose address and port.
   DtInetUdpSocket socket(udpEndpoint(GetParam().address, receiver->localPort()), 0, nullptr,
                          theSyncFlags, false);
   ASSERT_TRUE(socket.connectToDestination());
   EXPECT_EQ(socket.state(), DtInetSockStateConnected);
   EXPECT_NE(socket.localPort(), 0);
   EXPECT_FALSE(socket.localEndpoint().address().isAnyAddr());
}

// ------------------------------------------------------------------ options

TEST_P(UdpLoopbackTest, OptionsReadBackWhatWasSet)
{
   openPair(theSyncFlags, theSyncFlags);
   auto& socket = receiver;
   EXPECT_TRUE(socket->getReuseAddressOption());  // DtInetSockFlagReuseAddress is default
   EXPECT_TRUE(socket->getBroadcastOption());     // set on every open
   EXPECT_TRUE(socket->setReuseAddressOption(false));
   EXPECT_FALSE(socket->getReuseAddressOption());
   EXPECT_TRUE(socket->setReceiveLowWatermark(1));
   EXPECT_EQ(socket->getReceiveLowWatermark(), 1);
   EXPECT_EQ(socket->getBytesAvailable(), 0);
   ASSERT_EQ(sendText("twelve bytes"), 12);
   EXPECT_EQ(waitFor([&] { return socket->getBytesAvailable(); }), 12);
   EXPECT_TRUE(socket->setNonBlockingOption(false));
   EXPECT_FALSE(socket->isNonBlocking());
   EXPECT_EQ(socket->state(), DtInetSockStateOpen);
   EXPECT_EQ(socket->getLastError(), 0);

   // The system does not let the send low watermark change.
   EXPECT_FALSE(socket->setSendLowWatermark(100));
   EXPECT_EQ(socket->state(), -1);
   EXPECT_NE(socket->getLastError(), 0);
   EXPECT_TRUE(errorStartsWith(
       *socket,
       "DtInetUdpSocket::setSendLowWatermark(): Error setting send low watermark to 100\n"));

   // A hop limit beyond one byte is a refused option, never an exception.
   bool ttlSet = true;
   EXPECT_NO_THROW(ttlSet = socket->setMcastTtlOption(300));
   EXPECT_FALSE(ttlSet);
   EXPECT_EQ(socket->getLastError(), EINVAL);
   EXPECT_TRUE(errorStartsWith(
       *socket, "DtInetUdpSocket::setMcastTtl(): Error setting multicast TTL to  300\n"));
}

// ------------------------------------------------------------------ refusals and failures

TEST(UdpSocketErrors, SendRefusalsInvalidateTheSocket)
{
   char data[4] = {1, 2, 3, 4};
   std::vector<char> buffer(data, data + 4);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint target = udpEndpoint("127.0.0.1", 9);
   DtInetEndpoint tcp(DtInetAddr("127.0.0.1"), 9, DtInetProtocolTcp);
   struct Case
   {
      unsigned int flags;
      std::function<int(DtInetUdpSocket&)> send;
      int error;
      char const* text;
   } const cases[] = {
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
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.text);
      DtInetUdpSocket socket;
      ASSERT_TRUE(socket.setSocket(DtInetEndpoint(), 0, nullptr, c.flags));
      if (c.error != 89)
      {
         ASSERT_TRUE(socket.setDestination(target));
      }
      ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
      EXPECT_EQ(c.send(socket), -1);
      EXPECT_EQ(socket.getLastError(), c.error);
      EXPECT_STREQ(socket.getLastErrorString().c_str(), c.text);
      EXPECT_EQ(socket.state(), -1);
   }
}

TEST(UdpSocketErrors, TransmitFailureKeepsTheState)
{
   DtInetUdpSocket receiver(udpEndpoint("127.0.0.1", 9), 0, nullptr, theSyncFlags, true);
   DtInetUdpSocket socket(udpEndpoint("127.0.0.1", 9), 0, nullptr, theSyncFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen);
   // An endpoint of no protocol is taken as UDP, and the caller's endpoint says so.
   char data[3] = {'a', 'b', 'c'};
   DtInetEndpoint target(DtInetAddr("127.0.0.1"), receiver.localPort(), DtInetProtocolUnspecified);
   EXPECT_EQ(socket.sendTo(data, sizeof data, target, 0), 3);
   EXPECT_EQ(target.protocol(), DtInetProtocolUdp);

   // Larger than any datagram can be.
   std::vector<char> huge(70000, 'h');
   EXPECT_EQ(socket.sendTo(huge.data(), huge.size(), target, 0), -1);
   EXPECT_EQ(socket.getLastError(), 90);
   EXPECT_TRUE(errorStartsWith(socket, "DtInetUdpSocket::send()/sendTo() failed from "));
   EXPECT_NE(std::string(socket.getLastErrorString().c_str())
                 .find(" to 127.0.0.1:" + std::to_string(receiver.localPort()) + "\n"),
             std::string::npos);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);

   DtInetSockChain chain{&huge};
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), -1);
   EXPECT_TRUE(errorStartsWith(socket, "DtInetUdpSocket::sendChain()/sendChainTo() failed from "));
   EXPECT_EQ(socket.state(), DtInetSockStateOpen);
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
   EXPECT_EQ(local.getLastError(), 93);
   EXPECT_STREQ(local.getLastErrorString().c_str(),
                "DtInetUdpSocket::openSocket(): Cannot open UDP socket from local TCP endpoint");
   EXPECT_EQ(local.state(), -1);

   DtInetUdpSocket remote(DtInetEndpoint(DtInetAddr("127.0.0.1"), 9, DtInetProtocolTcp), 0, nullptr,
                          theSyncFlags, true);
   EXPECT_EQ(remote.getLastError(), 93);
   EXPECT_STREQ(remote.getLastErrorString().c_str(),
                "DtInetUdpSocket::openSocket(): Cannot open UDP socket to a remote TCP endpoint");
   EXPECT_EQ(remote.state(), -1);

   DtInetDevice device(DtString("oltnosuchdev0"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_FALSE(device.isOk());
   DtInetUdpSocket socket(udpEndpoint("127.0.0.1", 9), 0, &device, theSyncFlags, true);
   EXPECT_EQ(socket.getLastError(), 22);
   EXPECT_EQ(std::string(socket.getLastErrorString().c_str()),
             std::string("DtInetUdpSocket::openSocket(): Bad device: ") +
                 device.getLastErrorString().c_str());
   EXPECT_EQ(socket.state(), -1);
}

TEST(UdpSocketSetup, UnopenedSocketRules)
{
   DtInetUdpSocket socket;
   EXPECT_EQ(socket.flags(), 0x0C83u);
   // Options on the closed system socket are refused without a record; the setters
   // share one path, so a few stand for all.
   EXPECT_FALSE(socket.setBroadcastOption(true));
   EXPECT_FALSE(socket.setNonBlockingOption(true));
   EXPECT_FALSE(socket.setMcastTtlOption(1));
   EXPECT_FALSE(socket.setMcastDevice(DtInetAddr("127.0.0.1")));
   EXPECT_EQ(socket.getSendBufferSize(), -1);
   EXPECT_EQ(socket.getLastError(), 0);
   EXPECT_FALSE(socket.isNonBlocking());

   DtInetEndpoint unspecified(DtInetAddr("127.0.0.1"), 4000, DtInetProtocolUnspecified);
   EXPECT_TRUE(socket.setDestination(unspecified));
   EXPECT_EQ(socket.destination().protocol(), DtInetProtocolUdp);
   EXPECT_EQ(unspecified.protocol(), DtInetProtocolUnspecified);

   EXPECT_FALSE(
       socket.setDestination(DtInetEndpoint(DtInetAddr("127.0.0.1"), 1, DtInetProtocolTcp)));
   EXPECT_EQ(socket.getLastError(), 22);
   EXPECT_EQ(socket.destination().port(), 4000);
   EXPECT_EQ(socket.state(), DtInetSockStateInitialized);

   EXPECT_TRUE(socket.setSocket(udpEndpoint("127.0.0.1", 9), 0, nullptr,
                                DtInetSockFlagsDefault | DtInetSockFlagNonBlocking));
   EXPECT_TRUE(socket.isNonBlocking());
   ASSERT_TRUE(socket.openSocket());
   EXPECT_FALSE(socket.setSocket(udpEndpoint("127.0.0.1", 10), 0, nullptr, 0));
   EXPECT_EQ(socket.destination().port(), 9);
}

// ------------------------------------------------------------------ background paths

TEST_P(UdpLoopbackTest, BackgroundQueuesKeepTheOrderAndStampTimes)
{
   openPair(theAsyncRecvFlags, theAsyncSendFlags);
   for (int i = 0; i < 30; ++i)
      ASSERT_EQ(sendText("packet " + std::to_string(i)), i < 10 ? 8 : 9);
   std::vector<char> part(3, '-'), rest(3, '-');
   DtInetSockChain out{&part, &rest};
   ASSERT_EQ(sender->sendChain(out, 0), 6);

   std::vector<char> buffer(64);
   DtInetEndpoint from;
   double lastTime = 0.0;
   for (int i = 0; i < 30; ++i)
   {
      SCOPED_TRACE(i);
      int const length = receive(buffer, from);
      ASSERT_GT(length, 0);
      EXPECT_EQ(textOf(buffer, length), "packet " + std::to_string(i));
      EXPECT_GE(receiver->receiveTime(), lastTime);
      lastTime = receiver->receiveTime();
   }
   EXPECT_GT(lastTime, 0.0);
   EXPECT_EQ(from.port(), sender->localPort());
   std::vector<char> x(4, '.'), y(4, '.');
   DtInetSockChain in{&x, &y};
   ASSERT_EQ(waitFor([&] { return receiver->recvToChainFrom(in, from, 0); }), 6);
   EXPECT_EQ(textOf(x, 4) + textOf(y, 2), "------");
   EXPECT_EQ(receiver->recv(buffer.data(), buffer.size(), 0), 0);
   EXPECT_EQ(receiver->totalPacketsReceived(), 31u);
   EXPECT_EQ(sender->totalPacketsSent(), 31u);

   // Packets nobody reads are freed by closing (the sanitizer build checks).
   for (int i = 0; i < 5; ++i)
      ASSERT_EQ(sendText("unread"), 6);
   std::this_thread::sleep_for(std::chrono::milliseconds(50));
   EXPECT_TRUE(sender->closeSocket());
   EXPECT_TRUE(receiver->closeSocket());
}

TEST_P(UdpLoopbackTest, ClosingDeliversQueuedSendsFirst)
{
   openPair(theSyncFlags, theAsyncSendFlags);
   ASSERT_TRUE(receiver->setReceiveBufferSize(1u << 20));
   constexpr int theCount = 300;
   std::string payload(144, 'p');
   for (int i = 0; i < theCount; ++i)
   {
      std::memcpy(&payload[0], &i, sizeof i);
      ASSERT_EQ(sender->send(&payload[0], payload.size(), 0), 144);
   }
   EXPECT_TRUE(sender->closeSocket());
   EXPECT_EQ(sender->state(), DtInetSockStateClosed);

   std::vector<char> buffer(256);
   DtInetEndpoint from;
   for (int i = 0; i < theCount; ++i)
   {
      SCOPED_TRACE(i);
      ASSERT_EQ(receive(buffer, from), 144);
      int number = -1;
      std::memcpy(&number, buffer.data(), sizeof number);
      EXPECT_EQ(number, i);
   }

   // Closed, the socket refuses what no I/O thread would send, for both send forms.
   EXPECT_EQ(sender->send(&payload[0], payload.size(), 0), -1);
   EXPECT_EQ(sender->getLastError(), 9);
   std::vector<char> piece(4, 'c');
   DtInetSockChain chain{&piece};
   EXPECT_EQ(sender->sendChain(chain, 0), -1);
   EXPECT_EQ(sender->getLastError(), 9);
}

TEST_P(UdpLoopbackTest, BackgroundSendFailureIsSticky)
{
   openPair(theSyncFlags, theAsyncSendFlags);
   std::vector<char> huge(70000, 'h');
   // Queued: the failure is known only once the I/O thread tried it.
   EXPECT_EQ(sender->send(huge.data(), huge.size(), 0), 70000);
   std::string small = "small";
   int const failed = waitFor(
       [&]
       {
          int const result = sender->send(&small[0], small.size(), 0);
          return result < 0 ? result : 0;
       });
   ASSERT_EQ(failed, -1);
   int const error = sender->getLastError();
   EXPECT_EQ(error, 90);
   sender->clearError();
   EXPECT_EQ(sender->send(&small[0], small.size(), 0), -1);
   EXPECT_EQ(sender->getLastError(), error);
   std::vector<char> piece(small.begin(), small.end());
   DtInetSockChain chain{&piece};
   EXPECT_EQ(sender->sendChain(chain, 0), -1);
   EXPECT_EQ(sender->getLastError(), error);
   // Transmit failures leave the socket open; closing still works.
   EXPECT_EQ(sender->state(), DtInetSockStateOpen);
   EXPECT_TRUE(sender->closeSocket());
}

// ------------------------------------------------------------------ namespaces

// One private namespace with a veth pair, so groups and broadcasts have a real interface
// and nothing leaves the machine. The guard moves the test's (main) thread inside, which
// also makes the interface scans read the namespace's /proc/net.
class UdpNamespaceTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      std::string reason;
      if (!olt::TestNetns::isAvailable(&reason))
         GTEST_SKIP() << reason;
      myNetns.reset(new olt::TestNetns);
      if (!myNetns->ok())
         GTEST_SKIP() << myNetns->error();
      ASSERT_TRUE(myNetns->addVethPair("oltu0", "oltu1")) << myNetns->error();
      ASSERT_TRUE(myNetns->addAddress("oltu0", "192.0.2.1/24")) << myNetns->error();
      ASSERT_TRUE(myNetns->addAddress("oltu1", "192.0.2.2/24")) << myNetns->error();
      ASSERT_TRUE(myNetns->addAddress("oltu0", "2001:db8::1/64")) << myNetns->error();
      ASSERT_TRUE(myNetns->setLinkUp("oltu0")) << myNetns->error();
      ASSERT_TRUE(myNetns->setLinkUp("oltu1")) << myNetns->error();
      // Multicast leaves through the first veth end.
      ASSERT_TRUE(myNetns->ip({"route", "add", "224.0.0.0/4", "dev", "oltu0"})) << myNetns->error();
      myGuard.reset(new olt::NetnsGuard(*myNetns));
      ASSERT_TRUE(myGuard->ok()) << myGuard->error();
   }

   void TearDown() override
   {
      myGuard.reset();
      myNetns.reset();
   }

   std::unique_ptr<olt::TestNetns> myNetns;
   std::unique_ptr<olt::NetnsGuard> myGuard;
};

TEST_F(UdpNamespaceTest, MulticastDestinationBindsItsPortAndJoins)
{
   DtInetUdpSocket receiver(udpEndpoint("239.1.2.3", 40001), 0, nullptr, theSyncFlags, true);
   ASSERT_EQ(receiver.state(), DtInetSockStateOpen) << receiver.getLastErrorString();
   EXPECT_EQ(receiver.localPort(), 40001);
   EXPECT_TRUE(receiver.localEndpoint().address().isAnyAddr());
   ASSERT_EQ(receiver.joinedGroups().size(), 1u);
   EXPECT_STREQ(receiver.joinedGroups()[0].first.toDtString().c_str(), "239.1.2.3");

   // The same pair again is already there.
   EXPECT_TRUE(receiver.joinMulticastGroup(DtInetAddr("239.1.2.3")));
   EXPECT_EQ(receiver.joinedGroups().size(), 1u);

   DtInetUdpSocket sender(udpEndpoint("239.1.2.3", 40001), 40002, nullptr, theSyncFlags, true);
   ASSERT_EQ(sender.state(), DtInetSockStateOpen) << sender.getLastErrorString();
   std::string text = "to the group";
   ASSERT_EQ(sender.send(&text[0], text.size(), 0), 12) << sender.getLastErrorString();

   std::vector<char> buffer(64);
   DtInetEndpoint from;
   int const length =
       waitFor([&] { return receiver.recvFrom(buffer.data(), buffer.size(), from, 0); });
   ASSERT_EQ(length, 12);
   EXPECT_EQ(textOf(buffer, length), text);
   EXPECT_EQ(from.port(), 40002);

   // An open group socket keeps its destination, and will not connect (last error 0).
   EXPECT_FALSE(receiver.setDestination(udpEndpoint("192.0.2.2", 40003)));
   EXPECT_EQ(receiver.getLastError(), 106);
   EXPECT_STREQ(receiver.getLastErrorString().c_str(),
                "DtInetUdpSocket::setDestination(): Cannot change destination endpoint of open "
                "broadcast/multicast socket");
   EXPECT_FALSE(receiver.connectToDestination());
   EXPECT_EQ(receiver.getLastError(), 0);
   EXPECT_STREQ(receiver.getLastErrorString().c_str(),
                "DtInetUdpSocket::connectToDestination(): cannot connect() to multicast / "
                "broadcast destination");

   // Dropping the group removes the pair.
   EXPECT_TRUE(receiver.dropMulticastGroup(udpEndpoint("239.1.2.3", 40001)));
   EXPECT_TRUE(receiver.joinedGroups().empty());
   EXPECT_EQ(receiver.state(), DtInetSockStateOpen);
}

TEST_F(UdpNamespaceTest, ChosenDeviceCarriesTheGroup)
{
   DtInetDevice device(DtString("oltu1"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk()) << device.getLastErrorString();
   DtInetUdpSocket socket(udpEndpoint("192.0.2.1", 40004), 40005, nullptr, theSyncFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
   EXPECT_TRUE(socket.joinMulticastGroup(DtInetAddr("239.1.2.5"), &device));
   ASSERT_EQ(socket.joinedGroups().size(), 1u);
   EXPECT_STREQ(socket.joinedGroups()[0].second.toDtString().c_str(), "192.0.2.2");
   EXPECT_TRUE(socket.setMcastDevice(&device));
   EXPECT_TRUE(socket.setMcastDevice(DtInetAddr("::1")));  // not IPv4: nothing to do
   EXPECT_TRUE(socket.dropMulticastGroup(DtInetAddr("239.1.2.5"), &device));
   // Leaving a group that was never joined fails at the option level.
   EXPECT_FALSE(socket.dropMulticastGroup(DtInetAddr("239.1.2.5"), &device));
   EXPECT_EQ(socket.state(), -1);
   EXPECT_TRUE(errorStartsWith(socket,
                               "DtInetUdpSocket::dropMulticastGroup(): Error leaving "
                               "group 239.1.2.5 on interface 192.0.2.2\n"));
}

TEST_F(UdpNamespaceTest, SecondaryDeviceSendsFromItsAddressAndReceivesOnASecondSocket)
{
   // The host interface is not the primary device, so the socket sends from the
   // device's address and listens on a second socket bound to the any-address.
   // The primary device is the first active one that is not the loopback.
   DtInetDeviceList const devices = DtInetUtils::scanInetDevices(true, false);
   ASSERT_GE(devices.size(), 3u);
   std::string const primary = devices[0]->ipv4Addr()->isLoopback()
                                   ? devices[1]->deviceName().c_str()
                                   : devices[0]->deviceName().c_str();
   std::string const name = primary == "oltu0" ? "oltu1" : "oltu0";
   std::string const address = name == "oltu0" ? "192.0.2.1" : "192.0.2.2";
   DtInetDevice device(DtString(name.c_str()), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk()) << device.getLastErrorString();
   DtInetUdpSocket socket(udpEndpoint("192.0.2.255", 40010), 0, &device,
                          theSyncFlags | DtInetSockFlagAsyncRecv, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
   EXPECT_NE(socket.udpSocket(), socket.secondUdpSocket());
   EXPECT_EQ(socket.localEndpoint().address().toDtString().c_str(), address);
   EXPECT_EQ(socket.localPort(), 40010);

   // Broadcasts reach the any-bound receiving socket. Without a device, a broadcast
   // socket is bound to the any-address and joins nothing.
   DtInetUdpSocket peer(udpEndpoint("192.0.2.255", 40010), 40011, nullptr, theSyncFlags, true);
   ASSERT_EQ(peer.state(), DtInetSockStateOpen) << peer.getLastErrorString();
   EXPECT_TRUE(peer.localEndpoint().address().isAnyAddr());
   EXPECT_TRUE(peer.joinedGroups().empty());
   std::string text = "to the device";
   ASSERT_EQ(peer.send(&text[0], text.size(), 0), 13) << peer.getLastErrorString();

   std::vector<char> buffer(64);
   DtInetEndpoint from;
   int const length =
       waitFor([&] { return socket.recvFrom(buffer.data(), buffer.size(), from, 0); });
   ASSERT_EQ(length, 13);
   EXPECT_EQ(textOf(buffer, length), text);
   EXPECT_EQ(from.port(), 40011);

   EXPECT_TRUE(socket.closeSocket());
   EXPECT_EQ(socket.state(), DtInetSockStateClosed);
}

TEST(UdpNamespaceAlone, JoinWithoutMulticastDeviceKeepsTheState)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << reason;
   olt::TestNetns netns;  // only its loopback, which is not multicast capable
   if (!netns.ok())
      GTEST_SKIP() << netns.error();
   olt::NetnsGuard inside(netns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetUdpSocket socket(udpEndpoint("127.0.0.1", 9), 0, nullptr, theSyncFlags, true);
   ASSERT_EQ(socket.state(), DtInetSockStateOpen) << socket.getLastErrorString();
   EXPECT_FALSE(socket.joinMulticastGroup(DtInetAddr("239.1.2.6")));
   EXPECT_EQ(socket.getLastError(), 95);
   EXPECT_STREQ(socket.getLastErrorString().c_str(),
                "DtInetUdpSocket::joinMulticastGroup(): Error joining group 239.1.2.6 cannot "
                "find a multicast capable device");
   EXPECT_EQ(socket.state(), DtInetSockStateOpen);
   EXPECT_FALSE(socket.dropMulticastGroup(DtInetAddr("239.1.2.6")));
   EXPECT_STREQ(socket.getLastErrorString().c_str(),
                "DtInetUdpSocket::dropMulticastGroup(): Error dropping group 239.1.2.6 cannot "
                "find a multicast capable device");
   EXPECT_TRUE(socket.joinedGroups().empty());
}

}  // namespace
