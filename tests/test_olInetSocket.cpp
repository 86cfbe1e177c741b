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

// The base's pipelines, never opened, with a scripted transmit and read (n > 0 fills the
// chain with 'y' from port 3000); each resets the log, chain ('a', 'b') and target.
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
      return runSendPipeline(rules, chain, to, flags, transmit, "pre failed", "post failed");
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
   // Result, log|transmits, packets, bytes sent, reads, packets in, chain, port, state, error.
   std::string summary(int result)
   {
      return (::testing::Message()
              << result << ' ' << log << '|' << transmitCalls << ' ' << totalPacketsSent() << ' '
              << totalBytesSent() << ' ' << readCalls << ' ' << totalPacketsReceived() << ' '
              << std::string(first.begin(), first.end()) << ' ' << target.port() << ' ' << state()
              << ' ' << getLastError() << getLastErrorString().c_str())
          .GetString();
   }
};

// Callbacks named by Result (-1: the length); a Marker fills the chain and is stored.
template <int Result, int Marker>
int received(DtInetSocket*, int length, DtInetSockChain& chain, DtInetEndpoint&, void* marker)
{
   log += std::to_string(Result) + ":" + std::to_string(length) + " ";
   if (Marker != 0 && DtInetSockCopyToChain("queued", 6, chain))
      *static_cast<int*>(marker) = Marker;
   return Result == -1 ? length : Result;
}

using Cb = DtInetSockProcessingCb;
unsigned int const theNone = DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks;
}  // namespace

TEST(InetSocket, CallbacksRunInKeyOrderAndRemovalTakesTheLowestKey)
{
   // Equal keys move up, -1 is the greatest plus 1 (a later 5 runs before it), results
   // add; removal takes the lowest.
   ScriptedSocket s;
   Cb const one = received<1, 0>;
   Cb const six = received<6, 0>;
   std::pair<Cb, int> const keys[] = {
       {one, 1}, {received<2, 0>, 1}, {one, 5}, {received<4, 0>, 5}, {received<5, 0>, -1},
       {six, 5}};
   for (auto [callback, key] : keys)
      ASSERT_TRUE(s.addProcessingCallback(DtInetSockPostSend, callback, nullptr, key));
   s.sendChainTo(chain, target, 0);
   EXPECT_TRUE(s.removeProcessingCallback(DtInetSockPostSend, one));
   s.sendChainTo(chain, target, 0);
   EXPECT_FALSE(s.addProcessingCallback(static_cast<DtInetSockProcessingType>(7), one, nullptr, 1));
   // An empty chain gives -4 before any receive callback or read.
   s.addProcessingCallback(DtInetSockPreReceive, received<6, -5>, nullptr, 1);
   EXPECT_EQ(s.summary(s.recvToChainFrom(empty, target, 0)),
             "-4 1:10 2:11 1:13 4:14 6:18 5:24 2:10 1:12 4:13 6:17 5:23 |2 2 20 0 0 aaaa 1 1 0");
}

// A datagram counts even when nothing went out, a stream only when bytes went, a failed
// transmit never. A pre-send 0 absorbs a datagram (bytes count as sent), not a stream.
// Failing callbacks invalidate the socket; call flags skip their lists.
TEST(InetSocket, SendPipelineResultsAndCounts)
{
   // Rules, chain, pre-send and post-send callback, transmit result, flags; summary.
   DtInetProtocol const udp = DtInetProtocolUdp, tcp = DtInetProtocolTcp;
   Cb const no = nullptr, absorb = received<0, 0>, fail = received<-2, 0>;
   std::tuple<DtInetProtocol, DtInetSockChain*, Cb, Cb, int, unsigned, char const*> const cases[] =
       {{udp, &empty, no, absorb, 10, 0, "0 0:0 |0 1 0 0 0 aaaa 1 1 0"},
        {tcp, &chain, no, absorb, 10, 0, "10 0:10 |1 1 10 0 0 aaaa 1 1 0"},
        {tcp, &empty, no, absorb, 10, 0, "0 0:0 |0 0 0 0 0 aaaa 1 1 0"},
        {udp, &chain, no, absorb, -1, 0, "-1 |1 0 0 0 0 aaaa 1 1 0"},
        {udp, &chain, absorb, absorb, 10, 0, "10 0:10 0:10 |0 1 10 0 0 aaaa 1 1 0"},
        {tcp, &empty, absorb, absorb, 10, 0, "0 0:0 0:0 |0 0 0 0 0 aaaa 1 1 0"},
        {udp, &chain, absorb, absorb, 10, theNone, "10 |1 1 10 0 0 aaaa 1 1 0"},
        {udp, &chain, fail, absorb, 10, 0, "-1 -2:10 |0 0 0 0 0 aaaa 1 -1 -1pre failed"},
        {udp, &chain, no, fail, 10, 0, "-1 -2:10 |1 1 10 0 0 aaaa 1 -1 -1post failed"}};
   for (auto [rules, packet, pre, post, transmitResult, flags, expected] : cases)
   {
      ScriptedSocket s(rules, transmitResult);
      if (pre)
         s.addProcessingCallback(DtInetSockPreSend, pre, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostSend, post, nullptr, 1);
      EXPECT_EQ(s.summary(s.sendChainTo(*packet, target, flags)), expected);
   }
   // Once a pre-send callback has taken a datagram the later ones do not see it.
   for (auto [rules, expected] : {std::pair{udp, "10 0:10 |0 1 10 0 0 aaaa 1 1 0"},
                                  {tcp, "10 0:0 -1:0 |0 1 10 0 0 aaaa 1 1 0"}})
   {
      ScriptedSocket s(rules);
      s.addProcessingCallback(DtInetSockPreSend, absorb, nullptr, 1);
      s.addProcessingCallback(DtInetSockPreSend, received<-1, 0>, nullptr, 2);
      EXPECT_EQ(s.summary(s.sendChainTo(chain, target, 0)), expected);
   }
}

// A drop gives 0 or the carried marker; every post-receive callback runs on the last length.
// Without the skip marker the network is read; with it, the chain stands, no sender is stored.
TEST(InetSocket, ReceiveResultsOfDropsAndReads)
{
   // Pre-receive and post-receive callback, read result, flags; summary.
   std::tuple<Cb, Cb, int, unsigned, char const*> const cases[] = {
       {nullptr, received<0, 0>, 5, 0, "0 0:5 -1:0 |0 0 0 1 1 yyyy 3000 1 0"},
       {received<6, -5>, received<0, 0>, 5, 0, "-5 6:0 0:6 -1:-5 |0 0 0 0 1 queu 1 1 0"},
       {received<6, -5>, received<0, -2>, 5, 0, "-2 6:0 0:6 -1:-2 |0 0 0 0 1 queu 1 1 0"},
       {received<-3, 0>, received<-1, 0>, 8, 0, "8 -3:0 -1:8 -1:8 |0 0 0 1 1 yyyy 3000 1 0"},
       {received<6, -5>, received<0, 0>, 5, theNone, "5 |0 0 0 1 1 yyyy 3000 1 0"},
       {nullptr, received<-1, 0>, -1, 0, "-1 |0 0 0 1 0 aaaa 3000 1 0"},
       {nullptr, received<-3, 0>, 5, 0, "-3 -3:5 -1:-3 |0 0 0 1 1 yyyy 3000 1 0"},
       {nullptr, received<-1, 0>, 0, 0, "0 -1:0 -1:0 |0 0 0 1 0 aaaa 3000 1 0"}};
   for (auto const& [pre, post, read, flags, expected] : cases)
   {
      ScriptedSocket s(DtInetProtocolUdp, 10, read);
      if (pre)
         s.addProcessingCallback(DtInetSockPreReceive, pre, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, post, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, received<-1, 0>, nullptr, 2);
      EXPECT_EQ(s.summary(s.recvToChainFrom(chain, target, flags)), expected);
      s.clearStats();
      EXPECT_EQ(0u, s.totalBytesReceived() + s.totalPacketsReceived() + s.totalBytesSent() +
                        s.totalPacketsSent());
   }
}

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
       {DtInetSockOptionReuseAddress, 1,
        "::setReuseAddressOption(): Error enabling address reuse\n",
        "::getReuseAddressOption(): Error reading address reuse"},
       {DtInetSockOptionReuseAddress, 0,
        "::setReuseAddressOption(): Error disabling address reuse\n",
        "::getReuseAddressOption(): Error reading address reuse"},
       {DtInetSockOptionDoNotRoute, 1, "::setDoNotRouteOption(): Error enabling do-not-route\n",
        "::getDoNotRouteOption(): Error reading do-not-route"},
       {DtInetSockOptionNonBlocking, 0,
        "::setNonBlockingOption(): Error disabling non-blocking IO\n", nullptr},
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
   for (auto const& [protocol, owner] : {std::pair{DtInetProtocolTcp, "DtInetTcpSocket"},
                                         std::pair{DtInetProtocolUdp, "DtInetUdpSocket"}})
   {
      for (Case const& one : cases)
      {
         SCOPED_TRACE(std::string(owner) + one.set);
         EXPECT_EQ(DtInetSockOptionSetFailure(protocol, one.option, one.value),
                   std::string(owner) + one.set);
         if (one.read)
         {
            EXPECT_EQ(DtInetSockOptionReadFailure(protocol, one.option),
                      std::string(owner) + one.read);
         }
      }
   }
}
