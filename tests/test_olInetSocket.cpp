// Tests of the socket base: records, callback lists and the chain pipelines.
#include <olutil/olInetSocket.h>
#include <olutil/olInetUdpSocket.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetSocketUtils.h>

namespace
{

// Runs the base's pipelines with a scripted transmit and read step; the rest, never
// opened, comes from the datagram socket. A positive read result fills the chain with
// that many 'y' from port 3000.
class ScriptedSocket : public DtInetUdpSocket
{
public:
   explicit ScriptedSocket(DtInetProtocol rules = DtInetProtocolUdp) : myRules(rules) {}

   DtInetProtocol const myRules;
   int transmitResult = 10, transmitCalls = 0, readResult = 0, readCalls = 0;
   using DtInetSocket::callbackList, DtInetSocket::myReceiveTime, DtInetSocket::recordFailure,
       DtInetSocket::setState;

   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override
   {
      auto transmit = [this](DtInetSockChain&, DtInetEndpoint&)
      { return ++transmitCalls, transmitResult; };
      return runSendPipeline(myRules, chain, endpoint, flags, transmit, "Scripted: pre-send failed",
                             "Scripted: post-send failed");
   }
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                       unsigned int flags) override
   {
      auto read = [this](DtInetSockChain& packet, DtInetEndpoint& from)
      {
         ++readCalls;
         std::string const data(std::max(readResult, 0), 'y');
         DtInetSockCopyToChain(data.data(), data.size(), packet);
         return from.setPort(3000), readResult;
      };
      return runReceivePipeline(chain, endpoint, flags, read);
   }
};

// "name:length " of every callback run, in order.
std::string log;

// Send callbacks take their name and result from the user data.
using Script = std::pair<char const*, int>;

int scripted(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* data)
{
   Script const* script = static_cast<Script const*>(data);
   log += script->first + (":" + std::to_string(length)) + " ";
   return script->second;
}

// Receive callbacks, named by Result (-1: return the length got); a non-zero Marker is
// stored through the pipeline's pointer, and -5 first puts "queued" in the chain.
template <int Result, int Marker>
int receiveCallback(DtInetSocket*, int length, DtInetSockChain& chain, DtInetEndpoint&,
                    void* marker)
{
   log += std::to_string(Result) + ":" + std::to_string(length) + " ";
   if (Marker == DtInetSockResultFromQueue)
      DtInetSockCopyToChain("queued", 6, chain);
   if (Marker != 0)
      *static_cast<int*>(marker) = Marker;
   return Result == -1 ? length : Result;
}

DtInetSockProcessingCb const receiveReturnsLength = receiveCallback<-1, 0>;
DtInetSockProcessingCb const receiveDrops = receiveCallback<0, 0>;
DtInetSockProcessingCb const receiveServesFromQueue = receiveCallback<6, DtInetSockResultFromQueue>;

class InetSocketTest : public ::testing::Test
{
protected:
   void SetUp() override { log.clear(); }

   void add(DtInetSockProcessingType type, Script& script, int priority,
            ScriptedSocket* s = nullptr)
   {
      ASSERT_TRUE((s ? s : &socket)->addProcessingCallback(type, scripted, &script, priority));
   }

   ScriptedSocket socket;
   std::vector<char> first = std::vector<char>(4, 'a'), second = std::vector<char>(6, 'b');
   DtInetSockChain chain{&first, &second};  // 10 bytes
   DtInetSockChain empty;
   DtInetEndpoint target;
};

TEST_F(InetSocketTest, RecordsStatesAndClearing)
{
   EXPECT_EQ(socket.flags(), 0x0C83u);
   for (int state : {-1, 0, 1, 9})
      EXPECT_EQ((socket.setState(state), socket.DtInetSocket::isOk()), state > 0) << state;
   socket.recordFailure(4, "x");
   EXPECT_FALSE(socket.isErrorWouldBlockOrTryAgain());
   socket.recordFailure(11, "x");
   EXPECT_TRUE(socket.isErrorWouldBlockOrTryAgain());
   socket.clearError();
   EXPECT_TRUE(socket.getLastErrorString().isEmpty());
   EXPECT_EQ(socket.state(), -1);

   socket.sendChainTo(chain, target, 0);
   socket.myReceiveTime = 12.5;
   socket.clearStats();
   EXPECT_EQ(socket.totalPacketsSent() + socket.totalBytesSent(), 0u);
   EXPECT_EQ(socket.receiveTime(), 12.5);
}

TEST_F(InetSocketTest, CallbacksRunInKeyOrderAndRemovalTakesTheLowestKey)
{
   Script a{"a", 1}, b{"b", 1}, c{"c", 1}, d{"d", 1}, e{"e", 1};
   add(DtInetSockPostSend, c, 5);
   add(DtInetSockPostSend, a, 1);
   add(DtInetSockPostSend, d, 5);
   add(DtInetSockPostSend, e, -1);  // greatest key plus 1
   add(DtInetSockPostSend, b, 1);
   socket.sendChainTo(chain, target, 0);
   EXPECT_EQ(log, "a:10 b:11 c:12 d:13 e:14 ");
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPostSend);
   EXPECT_EQ(list.rbegin()->first, 6);
   EXPECT_EQ(list.rbegin()->second->priority, 6);

   // Removal takes the function's entry with the lowest key, not the first added.
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPostSend, receiveReturnsLength));
   EXPECT_TRUE(socket.removeProcessingCallback(DtInetSockPostSend, scripted));
   ASSERT_EQ(list.size(), 4u);
   EXPECT_EQ(list.begin()->second->userData, &b);
   EXPECT_FALSE(
       socket.addProcessingCallback(static_cast<DtInetSockProcessingType>(7), scripted, &a, 1));
}

TEST_F(InetSocketTest, WithoutPreSendCallbacksOnlyANonEmptyChainIsTransmitted)
{
   // Rules, chain, transmit result, result, packets counted: a datagram call counts even
   // when nothing went out, a stream only when bytes went, a failed transmit never.
   std::tuple<DtInetProtocol, DtInetSockChain*, int, int, unsigned> const cases[] = {
       {DtInetProtocolUdp, &empty, 10, 0, 1},
       {DtInetProtocolTcp, &chain, 10, 10, 1},
       {DtInetProtocolTcp, &empty, 10, 0, 0},
       {DtInetProtocolUdp, &chain, -1, -1, 0}};
   for (auto const& [rules, packet, transmitResult, result, packets] : cases)
   {
      log.clear();
      ScriptedSocket s(rules);
      Script post{"post", 0};
      add(DtInetSockPostSend, post, 1, &s);
      s.transmitResult = transmitResult;
      EXPECT_EQ(s.sendChainTo(*packet, target, 0), result);
      EXPECT_EQ(s.transmitCalls, packet == &chain ? 1 : 0);
      EXPECT_EQ(s.totalPacketsSent(), packets);
      EXPECT_EQ(s.totalBytesSent(), static_cast<unsigned>(result > 0 ? result : 0));
      EXPECT_EQ(log.empty(), result < 0);
   }
}

TEST_F(InetSocketTest, PreSendAbsorbingStopsADatagramButNotAStream)
{
   Script keep{"keep", 10}, absorb{"absorb", 0}, later{"later", 5}, post{"post", 0};
   add(DtInetSockPreSend, keep, 1);
   add(DtInetSockPreSend, absorb, 2);
   add(DtInetSockPreSend, later, 3);
   add(DtInetSockPostSend, post, 1);
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 10);  // handled bytes count as sent
   EXPECT_EQ(log, "keep:10 absorb:10 post:10 ");
   EXPECT_EQ(socket.transmitCalls, 0);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 10u);

   log.clear();
   ScriptedSocket stream(DtInetProtocolTcp);
   add(DtInetSockPreSend, absorb, 1, &stream);
   add(DtInetSockPreSend, post, 2, &stream);
   EXPECT_EQ(stream.sendChainTo(empty, target, 0), 0);
   EXPECT_EQ(log, "absorb:0 post:0 ");
   EXPECT_EQ(stream.transmitCalls, 0);
   EXPECT_EQ(stream.totalPacketsSent() + stream.totalBytesSent(), 0u);
}

TEST_F(InetSocketTest, SendCallbackFailuresInvalidateTheSocket)
{
   for (auto type : {DtInetSockPreSend, DtInetSockPostSend})
   {
      ScriptedSocket s;
      Script fail{"fail", -2};
      add(type, fail, 1, &s);
      EXPECT_EQ(s.sendChainTo(chain, target, 0), -1);
      EXPECT_EQ(s.getLastError(), -1);
      EXPECT_STREQ(s.getLastErrorString().c_str(), type == DtInetSockPreSend
                                                       ? "Scripted: pre-send failed"
                                                       : "Scripted: post-send failed");
      EXPECT_EQ(s.state(), -1);
   }
}

TEST_F(InetSocketTest, CallFlagsSkipTheirLists)
{
   Script absorb{"absorb", 0}, post{"post", 3};
   add(DtInetSockPreSend, absorb, 1);
   add(DtInetSockPostSend, post, 1);
   unsigned int const none = DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks;
   EXPECT_EQ(socket.sendChainTo(chain, target, none), 10);
   EXPECT_EQ(socket.sendChainTo(chain, target, 0x4000 | DtInetSockCallNoPreCallbacks), 13);
   EXPECT_EQ(log, "post:10 ");

   socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   socket.readResult = 5;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, none), 5);
   EXPECT_EQ(log, "post:10 ");
}

TEST_F(InetSocketTest, ReadFillsTheChainUnlessTheSkipMarkerIsSet)
{
   // Without the marker the network is read, whatever the pre-receive callback returns.
   socket.addProcessingCallback(DtInetSockPreReceive, receiveCallback<-3, 0>, nullptr, 1);
   EXPECT_EQ(socket.recvToChainFrom(empty, target, 0), -4);  // before any callback or read
   EXPECT_EQ(log + std::to_string(socket.readCalls), "0");
   socket.readResult = 8;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 8);
   EXPECT_EQ(target.port(), 3000);
   EXPECT_EQ(std::string(second.begin(), second.end()), "yyyybb");

   // -5: the callback filled the chain, its return is the length, no sender is stored.
   socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 2);
   target.setPort(1);
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 6);
   EXPECT_EQ(socket.readCalls, 1);
   EXPECT_EQ(std::string(first.begin(), first.end()), "queu");
   EXPECT_EQ(target.port(), 1);
   EXPECT_EQ(socket.totalPacketsReceived(), 2u);
   EXPECT_EQ(socket.totalBytesReceived(), 14u);
}

TEST_F(InetSocketTest, ReceiveResultsOfDropsAndReads)
{
   // Pre-receive, two post-receive callbacks, read result, result, log: a drop gives 0
   // or the carried marker, and every post-receive callback runs on the last length.
   using Cb = DtInetSockProcessingCb;
   std::tuple<Cb, Cb, Cb, int, int, char const*> const cases[] = {
       {nullptr, receiveDrops, receiveReturnsLength, 5, 0, "0:5 -1:0 "},
       {receiveServesFromQueue, receiveDrops, nullptr, 5, -5, "6:0 0:6 "},
       {receiveServesFromQueue, receiveCallback<0, -2>, nullptr, 5, -2, "6:0 0:6 "},
       {nullptr, receiveReturnsLength, nullptr, -1, -1, ""},
       {nullptr, receiveReturnsLength, nullptr, 0, 0, "-1:0 "}};
   for (auto const& [pre, post, post2, read, result, expected] : cases)
   {
      SCOPED_TRACE(expected);
      log.clear();
      ScriptedSocket s;
      if (pre)
         s.addProcessingCallback(DtInetSockPreReceive, pre, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, post, nullptr, 1);
      if (post2)
         s.addProcessingCallback(DtInetSockPostReceive, post2, nullptr, 2);
      s.readResult = read;
      EXPECT_EQ(s.recvToChainFrom(chain, target, 0), result);
      EXPECT_EQ(log, expected);
      EXPECT_EQ(s.totalPacketsReceived(), read > 0 || pre ? 1u : 0u);
   }
}

}  // namespace

namespace
{

// The failure texts of the options both sockets share, byte for byte as each socket
// records them before the newline and system message that follow.
TEST(InetSockOptionTexts, SetAndReadFailureTextsOfBothSockets)
{
   struct Case
   {
      DtInetSockOption option;
      unsigned int value;
      char const* set;   // after the class name
      char const* read;  // after the class name; null for a set-only option
   };
   Case const cases[] = {
       {DtInetSockOptionReuseAddress, 1, "::setReuseAddressOption(): Error enabling address reuse\n",
        "::getReuseAddressOption(): Error reading address reuse"},
       {DtInetSockOptionReuseAddress, 0, "::setReuseAddressOption(): Error disabling address reuse\n",
        "::getReuseAddressOption(): Error reading address reuse"},
       {DtInetSockOptionDoNotRoute, 1, "::setDoNotRouteOption(): Error enabling do-not-route\n",
        "::getDoNotRouteOption(): Error reading do-not-route"},
       {DtInetSockOptionNonBlocking, 0, "::setNonBlockingOption(): Error disabling non-blocking IO\n",
        nullptr},
       {DtInetSockOptionSendBuffer, 4294967295u,
        "::setSendBufferSize(): Error setting send buffer size to 4294967295",
        "::getSendBufferSize(): Error reading send buffer size"},
       {DtInetSockOptionReceiveBuffer, 0,
        "::setReceiveBufferSize(): Error setting receive buffer size to 0",
        "::getReceiveBufferSize(): Error reading receive buffer size"},
       {DtInetSockOptionSendLowWatermark, 1,
        "::setSendLowWatermark(): Error setting send low watermark to 1",
        "::getSendLowWatermark(): Error reading send low watermark"},
       {DtInetSockOptionReceiveLowWatermark, 42,
        "::setReceiveLowWatermark(): Error setting receive low watermark to 42",
        "::getReceiveLowWatermark(): Error reading receive low watermark"},
   };
   for (char const* owner : {"DtInetTcpSocket", "DtInetUdpSocket"})
   {
      for (Case const& one : cases)
      {
         SCOPED_TRACE(std::string(owner) + one.set);
         EXPECT_EQ(DtInetSockOptionSetFailure(owner, one.option, one.value),
                   std::string(owner) + one.set);
         if (one.read)
         {
            EXPECT_EQ(DtInetSockOptionReadFailure(owner, one.option),
                      std::string(owner) + one.read);
         }
      }
   }
}

// A refused option records the shared text on the datagram socket as on the stream
// socket: Linux refuses to set the send low watermark.
TEST(InetSockOptionTexts, RefusedOptionOnTheDatagramSocket)
{
   DtInetUdpSocket socket(DtInetEndpoint(DtInetAddr("127.0.0.1"), 9, DtInetProtocolUdp));
   ASSERT_TRUE(socket.isOk()) << socket.getLastErrorString().c_str();
   EXPECT_FALSE(socket.setSendLowWatermark(1));
   std::string const text = socket.getLastErrorString().c_str();
   EXPECT_EQ(text.rfind("DtInetUdpSocket::setSendLowWatermark(): Error setting send low watermark "
                        "to 1\n",
                        0),
             0u)
       << text;
   EXPECT_EQ(socket.state(), DtInetSockStateError);
}

}  // namespace
