// Tests of the socket base: callback lists and the chain pipelines.
#include <olutil/olInetSocket.h>
#include <olutil/olInetUdpSocket.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetSocketUtils.h>

namespace
{
std::string log;  // "name:length " of every callback run, in order
std::vector<char> first, second;
DtInetSockChain chain{&first, &second}, empty;
DtInetEndpoint target;

// The base's pipelines on a never-opened datagram socket with a scripted transmit and
// read; a read of n > 0 (up to 10) fills the chain with 'y' from port 3000. Each one
// starts a new log, a 10-byte chain of 'a' and 'b', and a target on port 1.
struct ScriptedSocket : DtInetUdpSocket
{
   DtInetProtocol rules;
   int transmitResult, readResult, transmitCalls = 0, readCalls = 0;

   ScriptedSocket(DtInetProtocol r = DtInetProtocolUdp, int transmit = 10, int read = 0)
       : rules(r), transmitResult(transmit), readResult(read)
   {
      log.clear(), first.assign(4, 'a'), second.assign(6, 'b'), target.setPort(1);
   }
   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& to, unsigned int flags) override
   {
      auto transmit = [this](auto&, auto&) { return ++transmitCalls, transmitResult; };
      return runSendPipeline(rules, chain, to, flags, transmit, "Scripted: pre-send failed",
                             "Scripted: post-send failed");
   }
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& from, unsigned int flags) override
   {
      auto read = [this](DtInetSockChain& packet, DtInetEndpoint& sender)
      {
         DtInetSockCopyToChain("yyyyyyyyyy", readResult > 0 ? readResult : 0, packet);
         return ++readCalls, sender.setPort(3000), readResult;
      };
      return runReceivePipeline(chain, from, flags, read);
   }
   // A call's result, the log, "|", transmits, packets and bytes sent, reads, packets
   // received, the chain's first buffer, the target's port, the error.
   std::string summary(int result)
   {
      return (::testing::Message()
              << result << ' ' << log << '|' << transmitCalls << ' ' << totalPacketsSent() << ' '
              << totalBytesSent() << ' ' << readCalls << ' ' << totalPacketsReceived() << ' '
              << std::string(first.begin(), first.end()) << ' ' << target.port() << ' '
              << getLastError() << getLastErrorString().c_str())
          .GetString();
   }
};

// Send callbacks take their name and result from the user data, a Script.
using Script = std::pair<char const*, int>;
int scripted(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* data)
{
   Script const* script = static_cast<Script const*>(data);
   log += script->first + (":" + std::to_string(length)) + " ";
   return script->second;
}

// Receive callbacks, named by Result (-1: the length got); a non-zero Marker puts
// "queued" in the chain and is stored through the pipeline's pointer.
template <int Result, int Marker>
int received(DtInetSocket*, int length, DtInetSockChain& chain, DtInetEndpoint&, void* marker)
{
   log += std::to_string(Result) + ":" + std::to_string(length) + " ";
   if (Marker != 0 && DtInetSockCopyToChain("queued", 6, chain))
      *static_cast<int*>(marker) = Marker;
   return Result == -1 ? length : Result;
}

unsigned int const theNone = DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks;
}  // namespace

TEST(InetSocket, CallbacksRunInKeyOrderAndRemovalTakesTheLowestKey)
{
   ScriptedSocket s;
   Script a{"a", 1}, b{"b", 1}, c{"c", 1}, d{"d", 1}, e{"e", 1};
   // Equal keys move up to the next free one; -1 is the greatest key plus 1.
   for (auto [script, key] : {std::pair{&c, 5}, {&a, 1}, {&d, 5}, {&e, -1}, {&b, 1}})
      ASSERT_TRUE(s.addProcessingCallback(DtInetSockPostSend, scripted, script, key));
   s.sendChainTo(chain, target, 0);
   // Removal takes the function's entry with the lowest key, not the first added.
   EXPECT_FALSE(s.removeProcessingCallback(DtInetSockPostSend, received<-1, 0>));
   EXPECT_TRUE(s.removeProcessingCallback(DtInetSockPostSend, scripted));
   s.sendChainTo(chain, target, 0);
   EXPECT_FALSE(s.addProcessingCallback(static_cast<DtInetSockProcessingType>(7), scripted, &a, 1));
   // An empty chain gives -4 before any receive callback or read.
   s.addProcessingCallback(DtInetSockPreReceive, received<6, -5>, nullptr, 1);
   EXPECT_EQ(s.summary(s.recvToChainFrom(empty, target, 0)),
             "-4 a:10 b:11 c:12 d:13 e:14 b:10 c:11 d:12 e:13 |2 2 20 0 0 aaaa 1 0");
}

// Without pre-send callbacks a datagram counts even when nothing went out, a stream only
// when bytes went, a failed transmit never. A pre-send 0 absorbs a datagram (bytes count
// as sent, later callbacks do not run), not a stream. Failing callbacks invalidate the
// socket; call flags skip their lists; a post-send result adds.
TEST(InetSocket, SendPipelineResultsAndCounts)
{
   // Rules, chain, pre-send result (-1: none; 7: none, post-send fails), transmit result,
   // call flags; summary.
   DtInetProtocol const udp = DtInetProtocolUdp, tcp = DtInetProtocolTcp;
   using Case = std::tuple<DtInetProtocol, DtInetSockChain*, int, int, unsigned, char const*>;
   Case const cases[] = {
       {udp, &empty, -1, 10, 0, "0 post:0 |0 1 0 0 0 aaaa 1 0"},
       {tcp, &chain, -1, 10, 0, "10 post:10 |1 1 10 0 0 aaaa 1 0"},
       {tcp, &empty, -1, 10, 0, "0 post:0 |0 0 0 0 0 aaaa 1 0"},
       {udp, &chain, -1, -1, 0, "-1 |1 0 0 0 0 aaaa 1 0"},
       {udp, &chain, 0, 10, 0, "10 pre:10 post:10 |0 1 10 0 0 aaaa 1 0"},
       {tcp, &empty, 0, 10, 0, "0 pre:0 after:0 post:0 |0 0 0 0 0 aaaa 1 0"},
       {udp, &chain, 0, 10, theNone, "10 |1 1 10 0 0 aaaa 1 0"},
       {udp, &chain, 0, 10, 0x4000 | DtInetSockCallNoPreCallbacks,
        "13 post:10 |1 1 10 0 0 aaaa 1 0"},
       {udp, &chain, -2, 10, 0, "-1 pre:10 |0 0 0 0 0 aaaa 1 -1Scripted: pre-send failed"},
       {udp, &chain, 7, 10, 0, "-1 post:10 |1 1 10 0 0 aaaa 1 -1Scripted: post-send failed"}};
   for (auto [rules, packet, pre, transmitResult, flags, expected] : cases)
   {
      ScriptedSocket s(rules, transmitResult);
      Script before{"pre", pre}, after{"after", 0}, post{"post", pre == 7 ? -2 : flags ? 3 : 0};
      for (Script* script : {&before, &after})
         if (pre != -1 && pre != 7)
            s.addProcessingCallback(DtInetSockPreSend, scripted, script, script == &before ? 1 : 2);
      s.addProcessingCallback(DtInetSockPostSend, scripted, &post, 1);
      EXPECT_EQ(s.summary(s.sendChainTo(*packet, target, flags)), expected);
      EXPECT_TRUE(s.getLastError() == 0 || s.state() == -1) << expected;
   }
}

// A drop gives 0 or the carried marker, and every post-receive callback (here a second
// one keeps the length) runs on the last length. Without the skip marker the network is
// read, whatever the pre-receive callback returns; with it, the callback's chain stands
// and no sender is stored.
TEST(InetSocket, ReceiveResultsOfDropsAndReads)
{
   using Cb = DtInetSockProcessingCb;
   Cb const queue = received<6, -5>;
   // Pre-receive and post-receive callback, read result, call flags; summary.
   std::tuple<Cb, Cb, int, unsigned, char const*> const cases[] = {
       {nullptr, received<0, 0>, 5, 0, "0 0:5 -1:0 |0 0 0 1 1 yyyy 3000 0"},
       {queue, received<0, 0>, 5, 0, "-5 6:0 0:6 -1:-5 |0 0 0 0 1 queu 1 0"},
       {queue, received<0, -2>, 5, 0, "-2 6:0 0:6 -1:-2 |0 0 0 0 1 queu 1 0"},
       {received<-3, 0>, received<-1, 0>, 8, 0, "8 -3:0 -1:8 -1:8 |0 0 0 1 1 yyyy 3000 0"},
       {queue, received<0, 0>, 5, theNone, "5 |0 0 0 1 1 yyyy 3000 0"},
       {nullptr, received<-1, 0>, -1, 0, "-1 |0 0 0 1 0 aaaa 3000 0"},
       {nullptr, received<-1, 0>, 0, 0, "0 -1:0 -1:0 |0 0 0 1 0 aaaa 3000 0"}};
   for (auto const& [pre, post, read, flags, expected] : cases)
   {
      ScriptedSocket s(DtInetProtocolUdp, 10, read);
      if (pre)
         s.addProcessingCallback(DtInetSockPreReceive, pre, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, post, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, received<-1, 0>, nullptr, 2);
      EXPECT_EQ(s.summary(s.recvToChainFrom(chain, target, flags)), expected);
   }
}
