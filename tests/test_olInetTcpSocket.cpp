// Stream socket tests with real connections on 127.0.0.1 and ::1.
#include <olutil/olInetTcpSocket.h>

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include <olutil/olInetDevice.h>
#include <olutil/olInetSocketUtils.h>

#include "support_tcp.h"

namespace
{

using olt::tcpEndpoint;
using olt::waitFor;

constexpr unsigned int theBlocking = DtInetSockFlagsDefault;
constexpr unsigned int theNonBlocking = DtInetSockFlagsDefault | DtInetSockFlagNonBlocking;
constexpr unsigned int theBackground =
    theNonBlocking | DtInetSockFlagAsyncRecv | DtInetSockFlagAsyncSend;

// The error record holds `error` and a text that starts with `text`, and the socket is
// in `state`.
::testing::AssertionResult recorded(DtInetSocket& socket, int error, std::string const& text,
                                    int state)
{
   std::string const got = socket.getLastErrorString().c_str();
   if (socket.getLastError() == error && got.rfind(text, 0) == 0 && socket.state() == state)
      return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure()
          << "error " << socket.getLastError() << " \"" << got << "\", state " << socket.state();
}

int sendText(DtInetSocket& socket, std::string text)
{
   return socket.send(&text[0], text.size(), 0);
}

// Reads until `size` bytes came or a read gave less than 0 (bounded); what came, or
// the failing result as text.
std::string readBytes(DtInetSocket& socket, std::size_t size, std::size_t piece = 64)
{
   std::string got;
   std::vector<char> buffer(piece);
   while (got.size() < size)
   {
      int const n = waitFor([&] { return socket.recv(buffer.data(), buffer.size(), 0); });
      if (n <= 0)
         return got + "<" + std::to_string(n) + ">";
      got.append(buffer.data(), static_cast<std::size_t>(n));
   }
   return got;
}

// Ends the connection with a reset instead of an orderly close.
void resetOnClose(DtInetSocket& socket)
{
   linger hard{1, 0};
   ASSERT_EQ(::setsockopt(socket.descriptor(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard), 0);
}

class TcpLoopbackTest : public ::testing::TestWithParam<char const*>
{
protected:
   char const* address() const { return GetParam(); }

   void connect(unsigned int clientFlags, unsigned int acceptedFlags)
   {
      std::string why;
      if (!pair.open(address(), clientFlags, acceptedFlags, why))
      {
         if (olt::isIpv6(address()))
            GTEST_SKIP() << "no usable ::1: " << why;
         FAIL() << why;
      }
   }

   olt::TcpPair pair;
};

INSTANTIATE_TEST_SUITE_P(Loopback, TcpLoopbackTest, ::testing::Values("127.0.0.1", "::1"),
                         [](::testing::TestParamInfo<char const*> const& info)
                         { return std::string(olt::isIpv6(info.param) ? "IPv6" : "IPv4"); });

TEST_P(TcpLoopbackTest, ConnectAcceptAndMoveBytesUntouched)
{
   connect(theBlocking, theBlocking);
   EXPECT_FALSE(pair.listener->flags() & 0x0303u);  // a server neither sends nor receives
   EXPECT_TRUE(pair.listener->isOk());
   EXPECT_TRUE(pair.listener->listenForConnections());  // a second time: still fine
   EXPECT_EQ(pair.client->state(), DtInetSockStateConnected);
   EXPECT_EQ(pair.accepted->state(), DtInetSockStateConnected);
   EXPECT_EQ(pair.accepted->destination().port(), pair.client->localPort());
   EXPECT_TRUE(pair.accepted->isTcp());

   // No framing: two sends can come as one read, and a small buffer takes a stream
   // in pieces.
   ASSERT_EQ(sendText(*pair.client, "0123456789"), 10);
   ASSERT_EQ(sendText(*pair.client, "abcdef"), 6);
   EXPECT_EQ(readBytes(*pair.accepted, 16, 4), "0123456789abcdef");

   DtInetEndpoint from;
   std::vector<char> a(3), b(5);
   DtInetSockChain chain{&a, &b};
   ASSERT_EQ(sendText(*pair.accepted, "scattered"), 9);
   int const n = waitFor([&] { return pair.client->recvToChainFrom(chain, from, 0); });
   ASSERT_GT(n, 0);
   EXPECT_EQ(std::string(a.begin(), a.end()) + std::string(b.begin(), b.begin() + (n - 3)),
             std::string("scattered").substr(0, static_cast<std::size_t>(n)));
   EXPECT_EQ(from, pair.client->destination());

   std::vector<char> x{'g', 'a'}, y{'t', 'h', 'e', 'r'};
   DtInetSockChain gathered{&x, &y};
   EXPECT_EQ(pair.client->sendChain(gathered, 0), 6);
   EXPECT_EQ(readBytes(*pair.accepted, 6), "gather");
   EXPECT_EQ(pair.client->totalBytesSent(), 22u);
   EXPECT_EQ(pair.client->totalPacketsSent(), 3u);
   EXPECT_EQ(pair.accepted->totalBytesReceived(), 22u);
}

TEST_P(TcpLoopbackTest, PeerCloseIsATerminationNotAnError)
{
   for (bool reset : {false, true})
   {
      SCOPED_TRACE(reset ? "reset" : "orderly close");
      connect(theNonBlocking, theNonBlocking);
      ASSERT_EQ(sendText(*pair.client, "last words"), 10);
      if (reset)
      {
         // closeSocket() ends a connection in order; a reset needs the bare descriptor,
         // closed with a zero linger time.
         resetOnClose(*pair.client);
         int const descriptor = pair.client->tcpSocket()->release();
         ::close(descriptor);
      }
      else
      {
         ASSERT_TRUE(pair.client->closeSocket());
         EXPECT_EQ(pair.client->state(), DtInetSockStateClosed);
      }

      // What was sent before an orderly close is still read; then the end.
      if (!reset)
      {
         EXPECT_EQ(readBytes(*pair.accepted, 10), "last words");
      }
      // After a reset, data that was still on its way may come before the end.
      std::vector<char> buffer(64);
      int n = 0;
      for (int i = 0; i < 100 && n >= 0; ++i)
         n = waitFor([&] { return pair.accepted->recv(buffer.data(), buffer.size(), 0); });
      EXPECT_EQ(n, -1);
      EXPECT_EQ(pair.accepted->state(), DtInetSockStateTerminated);
      EXPECT_EQ(pair.accepted->getTerminationCode(), reset ? ECONNRESET : 2);
      if (!reset)
      {
         EXPECT_STREQ(pair.accepted->getTerminationString().c_str(),
                      "Connection terminated by peer");
      }
      EXPECT_EQ(pair.accepted->getLastError(), 0);  // not an error

      // Sending on the ended connection is refused and invalidates the socket.
      EXPECT_EQ(sendText(*pair.accepted, "anyone?"), -1);
      EXPECT_TRUE(recorded(*pair.accepted, 107, "DtInetTcpSocket::send(): Error - not connected.",
                           DtInetSockStateError));
   }
}

TEST_P(TcpLoopbackTest, WritingToAGonePeerEndsTheConnectionNotTheProcess)
{
   connect(theNonBlocking, theNonBlocking);
   resetOnClose(*pair.client);
   ASSERT_TRUE(pair.client->closeSocket());
   std::string block(4096, 'w');
   int result = 0;
   for (int i = 0; i < 1000 && result >= 0; ++i)
      result = sendText(*pair.accepted, block);
   EXPECT_EQ(result, -1);
   EXPECT_EQ(pair.accepted->state(), DtInetSockStateTerminated);
   EXPECT_TRUE(pair.accepted->getTerminationCode() == EPIPE ||
               pair.accepted->getTerminationCode() == ECONNRESET)
       << pair.accepted->getTerminationCode();
   EXPECT_EQ(pair.accepted->getLastError(), 0);
}

TEST_P(TcpLoopbackTest, WouldBlockSendIsAFailureWithErrorElevenAndReadsGiveNothing)
{
   connect(theNonBlocking, theNonBlocking);
   char byte = 0;
   pair.accepted->clearError();
   EXPECT_EQ(pair.accepted->recv(&byte, 1, 0), 0);  // nothing waiting, nothing recorded
   std::vector<char> empty;
   DtInetSockChain chain{&empty};
   EXPECT_EQ(pair.accepted->recvToChain(chain, 0), 0);
   EXPECT_EQ(pair.accepted->getLastError(), 0);

   std::string block(65536, 'b');
   int result = 0;
   for (int i = 0; i < 10000 && result >= 0; ++i)
      result = sendText(*pair.client, block);
   EXPECT_EQ(result, -1);
   EXPECT_TRUE(pair.client->isErrorWouldBlockOrTryAgain());
   EXPECT_EQ(pair.client->state(), DtInetSockStateConnected);

   std::vector<char> x(100, 'x');
   DtInetSockChain out{&x};
   EXPECT_EQ(pair.client->sendChain(out, 0), -1);
   EXPECT_TRUE(recorded(*pair.client, 11, "DtInetTcpSocket::sendChain() failed from ",
                        DtInetSockStateConnected));
}

TEST_P(TcpLoopbackTest, CallbackRulesOfAStream)
{
   connect(theBlocking, theBlocking);
   static std::vector<int> seen;
   seen.clear();
   auto absorb = [](DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void*)
   { return seen.push_back(length), 0; };
   auto note = [](DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void*)
   { return seen.push_back(100 + length), 0; };
   pair.client->addProcessingCallback(DtInetSockPreSend, absorb, nullptr, 1);
   pair.client->addProcessingCallback(DtInetSockPreSend, absorb, nullptr, 2);
   pair.client->addProcessingCallback(DtInetSockPostSend, note, nullptr, 1);

   // A stream's pre-send callbacks always get length 0 and all run; absorbing the
   // bytes sends nothing and counts nothing.
   std::vector<char> data{'s', 'e', 'e', 'n'};
   DtInetSockChain chain{&data};
   EXPECT_EQ(pair.client->sendChain(chain, 0), 4);
   EXPECT_EQ(seen, (std::vector<int>{0, 0, 104}));
   EXPECT_EQ(pair.client->totalPacketsSent(), 1u);  // absorbed bytes count as handled
   EXPECT_EQ(pair.client->totalBytesSent(), 4u);

   seen.clear();
   EXPECT_EQ(pair.client->sendChain(chain, DtInetSockCallNoPreCallbacks), 4);
   EXPECT_EQ(seen, (std::vector<int>{104}));
   EXPECT_EQ(pair.client->totalPacketsSent(), 2u);

   auto failing = [](DtInetSocket*, int, DtInetSockChain&, DtInetEndpoint&, void*) { return -1; };
   pair.client->addProcessingCallback(DtInetSockPostSend, failing, nullptr, 5);
   EXPECT_EQ(pair.client->sendChain(chain, DtInetSockCallNoPreCallbacks), -1);
   EXPECT_TRUE(recorded(*pair.client, -1,
                        "DtInetTcpSocket::sendChain()/sendChainTo(): Post-send callback failed.",
                        DtInetSockStateError));

   // Receive side: a post-receive filter that returns 0 drops what was read.
   auto drop = [](DtInetSocket*, int, DtInetSockChain&, DtInetEndpoint&, void*) { return 0; };
   pair.accepted->addProcessingCallback(DtInetSockPostReceive, drop, nullptr, 1);
   std::vector<char> in(4);
   DtInetSockChain inChain{&in};
   EXPECT_EQ(pair.accepted->recvToChain(inChain, 0), 0);
   EXPECT_EQ(std::string(in.begin(), in.end()), "seen");
   EXPECT_EQ(pair.accepted->recvToChain(inChain, DtInetSockCallNoPostCallbacks), 4);
   DtInetSockChain none;
   EXPECT_EQ(pair.accepted->recvToChain(none, 0), -4);
}

TEST_P(TcpLoopbackTest, BackgroundQueuesKeepTheOrderAndCloseDeliversFirst)
{
   connect(theBackground, theBackground);
   std::string expected;
   for (int i = 0; i < 200; ++i)
   {
      std::string const message = std::to_string(i) + ";";
      expected += message;
      if (i % 2)
         ASSERT_EQ(sendText(*pair.client, message), static_cast<int>(message.size()));
      else
      {
         std::vector<char> head(message.begin(), message.begin() + 1),
             tail(message.begin() + 1, message.end());
         DtInetSockChain chain{&head, &tail};
         ASSERT_EQ(pair.client->sendChain(chain, 0), static_cast<int>(message.size()));
      }
   }
   // Closing writes what is still queued before the socket goes.
   ASSERT_TRUE(pair.client->closeSocket());
   EXPECT_EQ(readBytes(*pair.accepted, expected.size(), 65536), expected);
   char byte;
   EXPECT_EQ(waitFor([&] { return pair.accepted->recv(&byte, 1, 0); }), -1);
   EXPECT_EQ(pair.accepted->state(), DtInetSockStateTerminated);
   EXPECT_EQ(pair.accepted->getTerminationCode(), 2);

   // After closing there is no I/O thread: a send fails instead of vanishing.
   EXPECT_EQ(sendText(*pair.client, "late"), -1);
}

TEST_P(TcpLoopbackTest, AResetBeforeOrDuringBackgroundSendsIsTheEndOfTheConnection)
{
   // Connected at once (blocking connect): the queued writes meet the reset on the I/O
   // thread. Connecting in the background: the reset comes before the connect has been
   // looked at, and is still the peer's end, not a failed connect.
   for (unsigned int flags : {theBlocking | DtInetSockFlagsAsync, theBackground})
   {
      SCOPED_TRACE(flags);
      connect(flags, theNonBlocking);
      resetOnClose(*pair.accepted);
      ::close(pair.accepted->tcpSocket()->release());
      std::string block(4096, 'q');
      int result = 0;
      for (int i = 0; i < 5000 && result >= 0; ++i)
      {
         result = sendText(*pair.client, block);
         if (result >= 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      EXPECT_EQ(result, -1);
      EXPECT_EQ(pair.client->state(), DtInetSockStateTerminated);
      // Which of the background read and write meets the end first decides how it is
      // told: the end of stream, a broken pipe or a reset.
      int const code = pair.client->getTerminationCode();
      EXPECT_TRUE(code == 2 || code == EPIPE || code == ECONNRESET) << code;
      EXPECT_EQ(pair.client->getLastError(), 0);
      EXPECT_TRUE(pair.client->closeSocket());  // no drain waits on a dead connection
   }
}

TEST_P(TcpLoopbackTest, BackgroundChunkTooBigIsLost)
{
   connect(theBlocking, theNonBlocking | DtInetSockFlagAsyncRecv);
   ASSERT_EQ(sendText(*pair.client, std::string(100, 'c')), 100);
   char small[10];
   EXPECT_EQ(waitFor([&] { return pair.accepted->recv(small, sizeof small, 0); }), -4);
   ASSERT_EQ(sendText(*pair.client, "next"), 4);
   EXPECT_EQ(readBytes(*pair.accepted, 4), "next");
}

TEST_P(TcpLoopbackTest, ConnectRefusedAndAcceptRules)
{
   // A port that nothing listens on: the listener's, once it has gone.
   unsigned short port;
   {
      DtInetTcpSocket gone(0, nullptr, olt::familyOf(address()), theBlocking, true);
      if (!gone.isOk())
         GTEST_SKIP() << gone.getLastErrorString().c_str();
      port = gone.localPort();
   }
   DtInetTcpSocket blocking(tcpEndpoint(address(), port), 0, nullptr, theBlocking, true);
   EXPECT_FALSE(blocking.isOk());
   EXPECT_TRUE(recorded(blocking, ECONNREFUSED,
                        "DtInetTcpSocket::connectToDestination(): Error connecting Boost socket\n",
                        DtInetSockStateError));

   // Non-blocking, the refusal may come at once or when the connect is looked at.
   DtInetTcpSocket later(tcpEndpoint(address(), port), 0, nullptr, theNonBlocking, true);
   char byte;
   waitFor(
       [&]
       {
          // In progress, a read is -1 with nothing recorded, and looks at the connect.
          if (later.state() != DtInetSockStateConnecting)
             return 1;
          EXPECT_EQ(later.recv(&byte, 1, 0), -1);
          return 0;
       });
   EXPECT_TRUE(recorded(later, ECONNREFUSED,
                        "DtInetTcpSocket::connectToDestination(): Error connecting Boost socket\n",
                        DtInetSockStateError));

   connect(theBlocking, theBlocking);
   pair.listener->setNonBlockingOption(true);
   pair.listener->clearError();
   DtInetTcpSocket fresh;
   EXPECT_FALSE(pair.listener->acceptConnection(&fresh, theBlocking));  // nothing pending
   EXPECT_EQ(pair.listener->getLastError(), 0);
   EXPECT_EQ(pair.listener->state(), DtInetSockStateListening);
   EXPECT_FALSE(pair.listener->acceptConnection(pair.client.get(), theBlocking));
   EXPECT_EQ(pair.listener->getLastError(), 114);
   EXPECT_FALSE(pair.client->acceptConnection(&fresh, theBlocking));  // not a listener
   EXPECT_EQ(pair.client->getLastError(), 22);

   // A non-blocking listener accepts with the system call and the peer shows up.
   DtInetTcpSocket second(tcpEndpoint(address(), pair.listener->localPort()), 0, nullptr,
                          theBlocking, true);
   ASSERT_TRUE(second.isOk());
   ASSERT_EQ(waitFor([&] { return pair.listener->acceptConnection(&fresh, theNonBlocking) ? 1 : 0; }), 1);
   EXPECT_EQ(fresh.state(), DtInetSockStateConnected);
   EXPECT_EQ(fresh.destination().port(), second.localPort());
   ASSERT_EQ(sendText(second, "hi"), 2);
   EXPECT_EQ(readBytes(fresh, 2), "hi");
}

TEST(TcpSocketConnect, NonBlockingConnectInProgressDoesNotWait)
{
   // A listener whose queue is full drops new connection requests, so a connect to it
   // stays in progress for a long time: a connect that waited would hang here.
   int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
   ASSERT_GE(listener, 0);
   sockaddr_in address{};
   address.sin_family = AF_INET;
   address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
   socklen_t size = sizeof address;
   ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
   ASSERT_EQ(::listen(listener, 0), 0);
   ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
   unsigned short const port = ntohs(address.sin_port);

   DtInetTcpSocket filler(tcpEndpoint("127.0.0.1", port), 0, nullptr, theBlocking, true);
   ASSERT_TRUE(filler.isOk());
   // The queue may take one or two more before it is full; the first connect that is
   // still in progress a little later is the one.
   std::vector<std::unique_ptr<DtInetTcpSocket>> waiting;
   bool inProgress = false;
   for (int i = 0; i < 8 && !inProgress; ++i)
   {
      waiting.push_back(std::make_unique<DtInetTcpSocket>(tcpEndpoint("127.0.0.1", port), 0,
                                                          nullptr, theNonBlocking, true));
      ASSERT_EQ(waiting.back()->state(), DtInetSockStateConnecting);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ASSERT_TRUE(waiting.back()->connectToDestination());
      inProgress = waiting.back()->state() == DtInetSockStateConnecting;
   }
   DtInetTcpSocket& connecting = *waiting.back();
   ASSERT_TRUE(inProgress) << connecting.state();
   EXPECT_TRUE(connecting.isOk());
   EXPECT_TRUE(connecting.connectToDestination());  // still in progress: true

   // Reading before the connection is up gives nothing (Linux says would-block, other
   // systems not-connected), records nothing, and the state stays 4.
   connecting.clearError();
   char byte;
   EXPECT_LE(connecting.recv(&byte, 1, 0), 0);
   EXPECT_EQ(connecting.state(), DtInetSockStateConnecting);
   EXPECT_EQ(connecting.getLastError(), 0);
   EXPECT_TRUE(connecting.closeSocket());
   ::close(listener);
}

TEST(TcpSocketSetup, RefusalsAndTheirTexts)
{
   char data[4] = {};
   DtInetTcpSocket unconnected(tcpEndpoint("127.0.0.1", 9), 0, nullptr, theBlocking, false);
   EXPECT_EQ(unconnected.state(), DtInetSockStateInitialized);
   EXPECT_EQ(unconnected.recv(data, 4, 0), -1);
   EXPECT_TRUE(recorded(unconnected, 107,
                        "DtInetTcpSocket::recv() called on unconnected socket on ",
                        DtInetSockStateInitialized));
   EXPECT_EQ(unconnected.send(data, 4, 0), -1);
   EXPECT_TRUE(recorded(unconnected, 107, "DtInetTcpSocket::send(): Error - not connected.",
                        DtInetSockStateError));

   // Options of a closed socket: false, nothing recorded.
   DtInetTcpSocket closed(tcpEndpoint("127.0.0.1", 9), 0, nullptr, theBlocking, false);
   EXPECT_FALSE(closed.setTcpKeepAliveOption(true));
   EXPECT_FALSE(closed.setNonBlockingOption(true));
   EXPECT_EQ(closed.getSendBufferSize(), -1);
   EXPECT_EQ(closed.getLastError(), 0);
   EXPECT_EQ(closed.state(), DtInetSockStateInitialized);

   struct Case
   {
      char const* name;
      DtInetEndpoint destination;
      int error;
      char const* text;
   };
   DtInetEndpoint const udp(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp);
   for (Case const& c :
        {Case{"UDP destination", udp, 93,
              "DtInetTcpSocket::openSocket(): Cannot open TCP socket to a remote UDP endpoint"}})
   {
      SCOPED_TRACE(c.name);
      DtInetTcpSocket socket(c.destination, 0, nullptr, theBlocking, true);
      EXPECT_TRUE(recorded(socket, c.error, c.text, DtInetSockStateError));
   }

   DtInetTcpSocket setup;
   EXPECT_EQ(setup.descriptor(), -1);
   EXPECT_FALSE(setup.setDestination(udp));
   EXPECT_TRUE(recorded(setup, 22,
                        "DtInetTcpSocket::setDestination(): Specified destination endpoint is not TCP",
                        DtInetSockStateNone));
   DtInetEndpoint unspecified(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUnspecified);
   EXPECT_TRUE(setup.setDestination(unspecified));
   EXPECT_TRUE(setup.destination().isTcp());

   // Not enabled for sending: refused, even before anything is connected.
   olt::TcpPair pair;
   std::string why;
   ASSERT_TRUE(pair.open("127.0.0.1", DtInetSockFlagRecv, theBlocking, why)) << why;
   EXPECT_EQ(pair.client->send(data, 4, 0), -1);
   EXPECT_TRUE(recorded(*pair.client, 95,
                        "DtInetTcpSocket::send(): Socket not initialized for sending.",
                        DtInetSockStateError));
   EXPECT_FALSE(pair.accepted->setDestination(unspecified));
   EXPECT_EQ(pair.accepted->getLastError(), 106);

   // Listening on a device needs a port.
   DtInetDevice loopback(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   if (loopback.isOk() && loopback.ipv4Addr())
   {
      DtInetTcpSocket onDevice(0, &loopback, DtInetUtils::DtInetFamilyIPv4, theBlocking, true);
      EXPECT_TRUE(recorded(onDevice, 95,
                           "DtInetTcpSocket::listenForConnections(): Cannot open socket to "
                           "listen on port 0",
                           DtInetSockStateError));
   }
}

TEST(TcpSocketSetup, ConstructorsWithArgumentsIgnoreBrokenPipes)
{
   struct sigaction restore;
   struct sigaction dflt;
   std::memset(&dflt, 0, sizeof dflt);
   dflt.sa_handler = SIG_DFL;
   ASSERT_EQ(::sigaction(SIGPIPE, &dflt, &restore), 0);
   for (bool server : {false, true})
   {
      SCOPED_TRACE(server ? "server" : "connection");
      ASSERT_EQ(::sigaction(SIGPIPE, &dflt, nullptr), 0);
      std::unique_ptr<DtInetTcpSocket> const socket =
          server ? std::make_unique<DtInetTcpSocket>(0, nullptr, DtInetUtils::DtInetFamilyIPv4,
                                                     theBlocking, false)
                 : std::make_unique<DtInetTcpSocket>(tcpEndpoint("127.0.0.1", 9), 0, nullptr,
                                                     theBlocking, false);
      struct sigaction now;
      ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &now), 0);
      EXPECT_EQ(now.sa_handler, SIG_IGN);
   }
   ::sigaction(SIGPIPE, &restore, nullptr);
}

TEST(TcpSocketOptions, SetAndReadBack)
{
   olt::TcpPair pair;
   std::string why;
   ASSERT_TRUE(pair.open("127.0.0.1", theBlocking, theBlocking, why)) << why;
   DtInetTcpSocket& socket = *pair.client;
   for (bool on : {true, false})
   {
      SCOPED_TRACE(on);
      EXPECT_TRUE(socket.setTcpKeepAliveOption(on));
      EXPECT_EQ(socket.getTcpKeepAliveOption(), on);
      EXPECT_TRUE(socket.setReuseAddressOption(on));
      EXPECT_EQ(socket.getReuseAddressOption(), on);
      EXPECT_TRUE(socket.setTcpNoDelayOption(on));
      EXPECT_EQ(socket.isNoDelay(), on);
      EXPECT_TRUE(socket.setConnAbortedOption(on));
      EXPECT_EQ(socket.getConnAbortedOption(), on);
      EXPECT_TRUE(socket.setNonBlockingOption(on));
      EXPECT_EQ(socket.isNonBlocking(), on);
   }
   unsigned short seconds = 99;
   EXPECT_TRUE(socket.setTcpLingerOption(7));
   EXPECT_TRUE(socket.getTcpLingerOption(seconds));
   EXPECT_EQ(seconds, 7);
   EXPECT_TRUE(socket.setTcpLingerOption(0));
   EXPECT_TRUE(socket.getTcpLingerOption(seconds));
   EXPECT_EQ(seconds, 0);
   EXPECT_GT(socket.getSendBufferSize(), 0);
   EXPECT_EQ(socket.getBytesAvailable(), 0);
   ASSERT_EQ(sendText(*pair.accepted, "abc"), 3);
   EXPECT_EQ(waitFor([&] { return socket.getBytesAvailable(); }), 3);

   // The listener's options act on its acceptor.
   EXPECT_TRUE(pair.listener->setReuseAddressOption(true));
   EXPECT_TRUE(pair.listener->getReuseAddressOption());
   EXPECT_EQ(socket.getLastError(), 0);

   // A value the system refuses invalidates the socket and says why.
   EXPECT_FALSE(socket.setSendLowWatermark(1));
   EXPECT_TRUE(recorded(socket, ENOPROTOOPT,
                        "DtInetTcpSocket::setSendLowWatermark(): Error setting send low watermark "
                        "to 1\n",
                        DtInetSockStateError));
}

}  // namespace
