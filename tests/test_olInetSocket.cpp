// Tests of the socket base: callback lists and the chain pipelines.
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
   using DtInetSocket::callbackList;

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
         std::string const data(std::max(readResult, 0), 'y');
         DtInetSockCopyToChain(data.data(), data.size(), packet);
         return ++readCalls, from.setPort(3000), readResult;
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

   void add(DtInetSockProcessingType type, Script& script, int priority, ScriptedSocket& s)
   {
      ASSERT_TRUE(s.addProcessingCallback(type, scripted, &script, priority));
   }

   std::vector<char> first = std::vector<char>(4, 'a'), second = std::vector<char>(6, 'b');
   DtInetSockChain chain{&first, &second};  // 10 bytes
   DtInetSockChain empty;
   DtInetEndpoint target;
};

TEST_F(InetSocketTest, CallbacksRunInKeyOrderAndRemovalTakesTheLowestKey)
{
   ScriptedSocket s;
   Script a{"a", 1}, b{"b", 1}, c{"c", 1}, d{"d", 1}, e{"e", 1};
   // Equal keys move up to the next free one; -1 is the greatest key plus 1.
   for (auto [script, key] : {std::pair{&c, 5}, {&a, 1}, {&d, 5}, {&e, -1}, {&b, 1}})
      add(DtInetSockPostSend, *script, key, s);
   s.sendChainTo(chain, target, 0);
   EXPECT_EQ(log, "a:10 b:11 c:12 d:13 e:14 ");
   DtInetSockCallbackList const& list = *s.callbackList(DtInetSockPostSend);
   EXPECT_EQ(list.rbegin()->first, 6);
   EXPECT_EQ(list.rbegin()->second->priority, 6);
   // Removal takes the function's entry with the lowest key, not the first added.
   EXPECT_FALSE(s.removeProcessingCallback(DtInetSockPostSend, receiveReturnsLength));
   EXPECT_TRUE(s.removeProcessingCallback(DtInetSockPostSend, scripted));
   ASSERT_EQ(list.size(), 4u);
   EXPECT_EQ(list.begin()->second->userData, &b);
   EXPECT_FALSE(s.addProcessingCallback(static_cast<DtInetSockProcessingType>(7), scripted, &a, 1));
}

TEST_F(InetSocketTest, SendPipelineResultsAndCounts)
{
   // Rules, chain, pre-send result (-1 none), transmit result; result, transmitted,
   // packets counted, log. Without pre-send callbacks a datagram call counts even when
   // nothing went out, a stream only when bytes went, a failed transmit never. A
   // pre-send callback returning 0 absorbs a datagram (its bytes count as sent, later
   // callbacks do not run) but not a stream; a failing callback invalidates the socket.
   using Case =
       std::tuple<DtInetProtocol, DtInetSockChain*, int, int, int, int, unsigned, char const*>;
   for (auto [rules, packet, pre, transmitResult, result, transmitted, packets, expected] :
        {Case{DtInetProtocolUdp, &empty, -1, 10, 0, 0, 1, "post:0 "},
         Case{DtInetProtocolTcp, &chain, -1, 10, 10, 1, 1, "post:10 "},
         Case{DtInetProtocolTcp, &empty, -1, 10, 0, 0, 0, "post:0 "},
         Case{DtInetProtocolUdp, &chain, -1, -1, -1, 1, 0, ""},
         Case{DtInetProtocolUdp, &chain, 0, 10, 10, 0, 1, "pre:10 post:10 "},
         Case{DtInetProtocolTcp, &empty, 0, 10, 0, 0, 0, "pre:0 after:0 post:0 "},
         Case{DtInetProtocolUdp, &chain, -2, 10, -1, 0, 0, "pre:10 "},
         Case{DtInetProtocolUdp, &chain, 7, 10, -1, 1, 1, "post:10 "}})
   {
      SCOPED_TRACE(::testing::Message() << rules << ' ' << pre << ' ' << expected);
      log.clear();
      ScriptedSocket s(rules);
      Script before{"pre", pre}, after{"after", 0}, post{"post", pre == 7 ? -2 : 0};
      for (Script* script : {&before, &after})
         if (pre != -1 && pre != 7)
            add(DtInetSockPreSend, *script, script == &before ? 1 : 2, s);
      add(DtInetSockPostSend, post, 1, s);
      s.transmitResult = transmitResult;
      EXPECT_EQ(s.sendChainTo(*packet, target, 0), result);
      EXPECT_EQ(s.transmitCalls, transmitted);
      EXPECT_EQ(s.totalPacketsSent(), packets);
      EXPECT_EQ(s.totalBytesSent(), static_cast<unsigned>(pre == 7 ? 10 : std::max(result, 0)));
      EXPECT_EQ(log, expected);
      if (result == -1 && transmitResult != -1)
      {
         EXPECT_EQ(s.getLastError(), -1);
         EXPECT_STREQ(s.getLastErrorString().c_str(),
                      pre == 7 ? "Scripted: post-send failed" : "Scripted: pre-send failed");
         EXPECT_EQ(s.state(), -1);
      }
   }
}

TEST_F(InetSocketTest, CallFlagsSkipTheirLists)
{
   ScriptedSocket s;
   Script absorb{"absorb", 0}, post{"post", 3};
   add(DtInetSockPreSend, absorb, 1, s);
   add(DtInetSockPostSend, post, 1, s);
   unsigned int const none = DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks;
   EXPECT_EQ(s.sendChainTo(chain, target, none), 10);
   EXPECT_EQ(s.sendChainTo(chain, target, 0x4000 | DtInetSockCallNoPreCallbacks), 13);
   s.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
   s.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   s.readResult = 5;
   EXPECT_EQ(s.recvToChainFrom(chain, target, none), 5);
   EXPECT_EQ(log, "post:10 ");
}

TEST_F(InetSocketTest, ReceiveResultsOfDropsAndReads)
{
   // Pre-receive, two post-receive callbacks, read result; result, log. A drop gives 0
   // or the carried marker, and every post-receive callback runs on the last length.
   // Without the skip marker the network is read, whatever the pre-receive callback
   // returns.
   using Cb = DtInetSockProcessingCb;
   std::tuple<Cb, Cb, Cb, int, int, char const*> const cases[] = {
       {nullptr, receiveDrops, receiveReturnsLength, 5, 0, "0:5 -1:0 "},
       {receiveServesFromQueue, receiveDrops, nullptr, 5, -5, "6:0 0:6 "},
       {receiveServesFromQueue, receiveCallback<0, -2>, nullptr, 5, -2, "6:0 0:6 "},
       {receiveCallback<-3, 0>, receiveReturnsLength, nullptr, 8, 8, "-3:0 -1:8 "},
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
      target.setPort(1);
      first.assign(4, 'a');
      EXPECT_EQ(s.recvToChainFrom(chain, target, 0), result);
      EXPECT_EQ(log, expected);
      bool const queued = pre == receiveServesFromQueue;
      EXPECT_EQ(s.readCalls, queued ? 0 : 1);
      EXPECT_EQ(s.totalPacketsReceived(), read > 0 || pre ? 1u : 0u);
      // A read fills the chain and stores its sender; a queued PDU is the callback's.
      EXPECT_EQ(std::string(first.begin(), first.end()), queued     ? "queu"
                                                         : read > 0 ? "yyyy"
                                                                    : "aaaa");
      EXPECT_EQ(target.port(), queued ? 1 : 3000);
   }
   // An empty chain gives -4 before any callback or read.
   log.clear();
   ScriptedSocket s;
   s.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
   EXPECT_EQ(s.recvToChainFrom(empty, target, 0), -4);
   EXPECT_EQ(log + std::to_string(s.readCalls), "0");
}

}  // namespace
