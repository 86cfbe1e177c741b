// Stream socket tests with real connections on 127.0.0.1 and ::1.
#include <olutil/olInetTcpSocket.h>

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/ip/tcp.hpp>
#include <gtest/gtest.h>

#include <olutil/olInetSocketUtils.h>

#include "support_tcp.h"

namespace
{

using namespace olt;  // connections, reads and resets on loopback

constexpr unsigned int theBlocking = DtInetSockFlagsDefault;
constexpr unsigned int theNonBlocking = DtInetSockFlagsDefault | DtInetSockFlagNonBlocking;
constexpr unsigned int theBackground =
    theNonBlocking | DtInetSockFlagAsyncRecv | DtInetSockFlagAsyncSend;

// The error record holds `error` and a text starting with `text`; the socket is in `state`.
::testing::AssertionResult recorded(DtInetSocket& socket, int error, std::string const& text,
                                    int state)
{
   std::string const got = socket.getLastErrorString().c_str();
   if (socket.getLastError() == error && got.rfind(text, 0) == 0 && socket.state() == state)
      return ::testing::AssertionSuccess();
   return ::testing::AssertionFailure()
          << "error " << socket.getLastError() << " \"" << got << "\", state " << socket.state();
}

class TcpLoopbackTest : public ::testing::TestWithParam<char const*>
{
protected:
   char const* address() const { return GetParam(); }

   void connect(unsigned int clientFlags, unsigned int acceptedFlags)
   {
      std::string why;
      if (!pair.open(address(), clientFlags, acceptedFlags, why))
         unusable(address(), why);
   }

   olt::TcpPair pair;
};

INSTANTIATE_TEST_SUITE_P(Loopback, TcpLoopbackTest, ::testing::Values("127.0.0.1", "::1"),
                         olt::familyName);

TEST_P(TcpLoopbackTest, ConnectAcceptAndMoveBytesUntouched)
{
   connect(theBlocking, theBlocking);
   EXPECT_FALSE(pair.listener->flags() & 0x0303u);  // a server neither sends nor receives
   EXPECT_EQ(pair.accepted->destination().port(), pair.client->localPort());

   // No framing: two sends can come as one read; a small buffer takes them in pieces.
   ASSERT_EQ(sendText(*pair.client, "0123456789"), 10);
   ASSERT_EQ(sendText(*pair.client, "abcdef"), 6);
   EXPECT_EQ(readBytes(*pair.accepted, 16, 4), "0123456789abcdef");

   std::vector<char> x{'g', 'a'}, y{'t', 'h', 'e', 'r'};
   DtInetSockChain gathered{&x, &y};
   EXPECT_EQ(pair.client->sendChain(gathered, 0), 6);
   EXPECT_EQ(readBytes(*pair.accepted, 6, 64), "gather");
   EXPECT_EQ(pair.client->totalBytesSent(), 22u);
   EXPECT_EQ(pair.client->totalPacketsSent(), 3u);
   EXPECT_EQ(pair.accepted->totalBytesReceived(), 22u);
   ASSERT_EQ(sendText(*pair.client, "!"), 1);  // a read of one byte counts too
   EXPECT_EQ(readBytes(*pair.accepted, 1), "!");
   EXPECT_EQ(pair.accepted->totalBytesReceived(), 23u);
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
         // closeSocket() ends in order; a reset needs the bare descriptor.
         resetOnClose(*pair.client);
         ::close(pair.client->tcpSocket()->release());
      }
      else
      {
         ASSERT_TRUE(pair.client->closeSocket());
         EXPECT_EQ(pair.client->state(), DtInetSockStateClosed);
         // What was sent before an orderly close is still read; then the end.
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
      EXPECT_TRUE(reset ||
                  pair.accepted->getTerminationString() == "Connection terminated by peer");
      EXPECT_EQ(pair.accepted->getLastError(), 0);  // not an error

      // Sending on the ended connection is refused and invalidates the socket.
      EXPECT_EQ(sendText(*pair.accepted, "anyone?"), -1);
      EXPECT_TRUE(recorded(*pair.accepted, 107, "DtInetTcpSocket::send(): Error - not connected.",
                           DtInetSockStateError));
   }
}

TEST_P(TcpLoopbackTest, WritesMeetingAResetEndTheConnectionNotTheProcess)
{
   // Plain, the send meets it; with background writes, the I/O thread does; connecting in
   // the background, the reset comes before the connect was looked at and is still the
   // peer's end. Which background read or write meets it first decides the code.
   for (unsigned int flags : {theNonBlocking, theBlocking | DtInetSockFlagsAsync, theBackground})
   {
      SCOPED_TRACE(flags);
      connect(flags, theNonBlocking);
      resetOnClose(*pair.accepted);
      ::close(pair.accepted->tcpSocket()->release());
      int result = 0;
      for (int i = 0; i < 5000 && result >= 0; ++i)
         if ((result = sendText(*pair.client, std::string(4096, 'q'))) >= 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
      EXPECT_EQ(result, -1);
      EXPECT_EQ(pair.client->state(), DtInetSockStateTerminated);
      int const code = pair.client->getTerminationCode();
      EXPECT_TRUE(code == EPIPE || code == ECONNRESET || (code == 2 && flags != theNonBlocking))
          << code;
      EXPECT_EQ(pair.client->getLastError(), 0);
      EXPECT_TRUE(pair.client->closeSocket());  // no drain waits on a dead connection
   }
   // EPIPE, as after the sending side was shut down, is an end as well.
   connect(theNonBlocking, theNonBlocking);
   ASSERT_EQ(::shutdown(pair.client->descriptor(), SHUT_WR), 0);
   EXPECT_EQ(sendText(*pair.client, "gone"), -1);
   EXPECT_EQ(pair.client->state(), DtInetSockStateTerminated);
   EXPECT_EQ(pair.client->getTerminationCode(), EPIPE);
   EXPECT_EQ(pair.client->getLastError(), 0);
}

TEST_P(TcpLoopbackTest, WouldBlockIsAFailureWithErrorElevenAndEmptyReadsRecordNothing)
{
   connect(theNonBlocking, theNonBlocking);
   char byte = 0;
   pair.accepted->clearError();
   EXPECT_EQ(pair.accepted->recv(&byte, 1, 0), 0);  // nothing waiting, nothing recorded
   EXPECT_EQ(pair.accepted->getLastError(), 0);

   int result = 0;
   for (int i = 0; i < 10000 && result >= 0; ++i)
      result = sendText(*pair.client, std::string(65536, 'b'));
   EXPECT_EQ(result, -1);
   EXPECT_TRUE(pair.client->isErrorWouldBlockOrTryAgain());
   std::vector<char> x(100, 'x');
   DtInetSockChain out{&x};
   EXPECT_EQ(pair.client->sendChain(out, 0), -1);  // the connection stays
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
      std::vector<char> head(message.begin(), message.begin() + 1),
          tail(message.begin() + 1, message.end());
      DtInetSockChain chain{&head, &tail};
      ASSERT_EQ(i % 2 ? sendText(*pair.client, message) : pair.client->sendChain(chain, 0),
                static_cast<int>(message.size()));
   }
   // Closing writes what is still queued before the socket goes.
   ASSERT_TRUE(pair.client->closeSocket());
   EXPECT_EQ(readBytes(*pair.accepted, expected.size(), 65536), expected);
   char byte;
   EXPECT_EQ(waitFor([&] { return pair.accepted->recv(&byte, 1, 0); }), -1);
   EXPECT_EQ(pair.accepted->getTerminationCode(), 2);
   // After closing there is no I/O thread: a send fails instead of vanishing.
   EXPECT_EQ(sendText(*pair.client, "late"), -1);

   // A chunk too big for the reader's buffer is lost, not cut; the next one comes.
   connect(theBlocking, theNonBlocking | DtInetSockFlagAsyncRecv);
   ASSERT_EQ(sendText(*pair.client, std::string(100, 'c')), 100);
   char small[10];
   EXPECT_EQ(waitFor([&] { return pair.accepted->recv(small, sizeof small, 0); }), -4);
   ASSERT_EQ(sendText(*pair.client, "next"), 4);
   EXPECT_EQ(readBytes(*pair.accepted, 4), "next");
}

TEST_P(TcpLoopbackTest, AcceptRulesAndConnectRefused)
{
   connect(theBlocking, theBlocking);
   pair.listener->setNonBlockingOption(true);
   pair.listener->clearError();
   DtInetTcpSocket fresh;
   EXPECT_FALSE(pair.listener->acceptConnection(&fresh, theBlocking));  // nothing pending
   EXPECT_EQ(pair.listener->getLastError(), 0);
   EXPECT_FALSE(pair.client->acceptConnection(&fresh, theBlocking));  // not a listener
   EXPECT_EQ(pair.client->getLastError(), 22);
   EXPECT_FALSE(pair.listener->acceptConnection(pair.accepted.get(), theBlocking));
   EXPECT_EQ(pair.listener->getLastError(), 114);  // already in use
   // Connected: connecting again is done, the destination stays.
   EXPECT_TRUE(pair.client->connectToDestination());
   EXPECT_FALSE(pair.client->setDestination(tcpEndpoint(address(), 9)));
   EXPECT_TRUE(recorded(*pair.client, 106,
                        "DtInetTcpSocket::setDestination(): Cannot change destination endpoint",
                        DtInetSockStateConnected));

   // A port that nothing listens on: the listener's, once it has gone.
   unsigned short const port = pair.listener->localPort();
   pair.listener.reset();
   std::string const refused =
       "DtInetTcpSocket::connectToDestination(): Error connecting Boost socket\n";
   DtInetTcpSocket blocking(tcpEndpoint(address(), port), 0, nullptr, theBlocking, true);
   EXPECT_TRUE(recorded(blocking, ECONNREFUSED, refused, DtInetSockStateError));
   // Non-blocking, the refusal may come at once or when the connect is looked at; in
   // progress, a read is -1 with nothing recorded, and looks at the connect.
   DtInetTcpSocket later(tcpEndpoint(address(), port), 0, nullptr, theNonBlocking, true);
   char byte;
   waitFor([&]
           { return later.state() != DtInetSockStateConnecting || later.recv(&byte, 1, 0) != -1; });
   EXPECT_TRUE(recorded(later, ECONNREFUSED, refused, DtInetSockStateError));
}

TEST(TcpSocketConnect, NonBlockingConnectInProgressDoesNotWait)
{
   // A listener whose queue is full drops new connection requests, so a connect to it
   // stays in progress for a long time: a connect that waited would hang here.
   boost::asio::io_context io;
   boost::asio::ip::tcp::acceptor listener(io, {boost::asio::ip::address_v4::loopback(), 0});
   listener.listen(0);
   DtInetEndpoint const full = tcpEndpoint("127.0.0.1", listener.local_endpoint().port());

   DtInetTcpSocket filler(full, 0, nullptr, theBlocking, true);
   ASSERT_TRUE(filler.isOk());
   // The queue may take one or two more: the first connect still in progress is the one.
   std::vector<std::unique_ptr<DtInetTcpSocket>> waiting;
   for (int i = 0;
        i < 8 && (waiting.empty() || waiting.back()->state() != DtInetSockStateConnecting); ++i)
   {
      waiting.push_back(std::make_unique<DtInetTcpSocket>(full, 0, nullptr, theNonBlocking, true));
      ASSERT_EQ(waiting.back()->state(), DtInetSockStateConnecting);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ASSERT_TRUE(waiting.back()->connectToDestination());
   }
   DtInetTcpSocket& connecting = *waiting.back();
   ASSERT_EQ(connecting.state(), DtInetSockStateConnecting);
   EXPECT_TRUE(connecting.isOk() && connecting.connectToDestination());  // still in progress

   // Reading before the connection is up gives nothing, records nothing, changes nothing.
   connecting.clearError();
   char byte;
   EXPECT_LE(connecting.recv(&byte, 1, 0), 0);
   EXPECT_EQ(connecting.state(), DtInetSockStateConnecting);
   EXPECT_EQ(connecting.getLastError(), 0);
   EXPECT_TRUE(connecting.closeSocket());
}

TEST(TcpSocketSetup, RefusalsAndTheirTexts)
{
   char data[4] = {};
   DtInetTcpSocket unconnected(tcpEndpoint("127.0.0.1", 9), 0, nullptr, theBlocking, false);
   EXPECT_EQ(unconnected.recv(data, 4, 0), -1);
   EXPECT_TRUE(recorded(unconnected, 107,
                        "DtInetTcpSocket::recv() called on unconnected socket on ",
                        DtInetSockStateInitialized));
   DtInetTcpSocket bare;
   EXPECT_TRUE(!bare.closeSocket() && bare.getLastError() == 9);

   DtInetEndpoint const udp(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp);
   EXPECT_FALSE(unconnected.setDestination(udp));
   EXPECT_EQ(unconnected.getLastError(), 22);
   // An endpoint without a protocol is taken as TCP.
   ASSERT_TRUE(
       unconnected.setDestination(DtInetEndpoint(udp.address(), 7, DtInetProtocolUnspecified)));
   EXPECT_EQ(unconnected.destination().protocol(), DtInetProtocolTcp);
   DtInetTcpSocket toUdp(udp, 0, nullptr, theBlocking, true);
   EXPECT_TRUE(recorded(
       toUdp, 93, "DtInetTcpSocket::openSocket(): Cannot open TCP socket to a remote UDP endpoint",
       DtInetSockStateError));
   // Not enabled for sending: refused, even before anything is connected.
   olt::TcpPair pair;
   std::string why;
   ASSERT_TRUE(pair.open("127.0.0.1", DtInetSockFlagRecv, theBlocking, why)) << why;
   EXPECT_EQ(pair.client->send(data, 4, 0), -1);
   EXPECT_TRUE(recorded(*pair.client, 95,
                        "DtInetTcpSocket::send(): Socket not initialized for sending.",
                        DtInetSockStateError));
   // A value the system refuses invalidates the socket and says why.
   EXPECT_FALSE(pair.accepted->setSendLowWatermark(1));
   EXPECT_TRUE(
       recorded(*pair.accepted, ENOPROTOOPT,
                "DtInetTcpSocket::setSendLowWatermark(): Error setting send low watermark to 1\n",
                DtInetSockStateError));
}

TEST(TcpSocketSetup, ConstructorsWithArgumentsIgnoreBrokenPipes)
{
   struct sigaction restore, dflt = {}, now;
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
      ASSERT_EQ(::sigaction(SIGPIPE, nullptr, &now), 0);
      EXPECT_EQ(now.sa_handler, SIG_IGN);
   }
   ::sigaction(SIGPIPE, &restore, nullptr);
}

}  // namespace
