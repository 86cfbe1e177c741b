// Tests of the socket base: records, callback lists and the chain pipelines, driven
// through a socket whose transmit and read steps are scripted by the test.
#include <olutil/olInetSocket.h>
#include <olutil/olInetUdpSocket.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetSocketUtils.h>

namespace
{

// A socket whose chain operations run the base's pipelines with a transmit and a read
// step that the test scripts. It borrows the rest, never opened, from the datagram socket.
class ScriptedSocket : public DtInetUdpSocket
{
public:
   explicit ScriptedSocket(DtInetProtocol rules = DtInetProtocolUdp) : myRules(rules) {}

   int transmitResult = 10;
   int transmitCalls = 0;
   int readResult = 0;
   int readCalls = 0;
   std::vector<char> readData;
   unsigned short readPort = 0;

   using DtInetSocket::callbackList;
   using DtInetSocket::myReceiveTime;
   using DtInetSocket::recordFailure;
   using DtInetSocket::setFlags;
   using DtInetSocket::setState;

   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override
   {
      auto transmit = [this](DtInetSockChain&, DtInetEndpoint&)
      {
         ++transmitCalls;
         return transmitResult;
      };
      return runSendPipeline(myRules, chain, endpoint, flags, transmit, "Scripted: pre-send failed",
                             "Scripted: post-send failed");
   }
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                       unsigned int flags) override
   {
      auto read = [this](DtInetSockChain& packet, DtInetEndpoint& from)
      {
         ++readCalls;
         if (readResult > 0)
         {
            DtInetSockCopyToChain(readData.data(), readData.size(), packet);
            from.setPort(readPort);
         }
         return readResult;
      };
      return runReceivePipeline(chain, endpoint, flags, read);
   }
   int recvToChain(DtInetSockChain& chain, unsigned int flags) override
   {
      DtInetEndpoint scratch;
      return recvToChainFrom(chain, scratch, flags);
   }

private:
   DtInetProtocol myRules;
};

// What the recording callbacks saw, in the order they ran.
struct CallRecord
{
   std::string name;
   int length;
   void* data;
};

std::vector<CallRecord>& calls()
{
   static std::vector<CallRecord> theCalls;
   return theCalls;
}

std::vector<std::string> names()
{
   std::vector<std::string> result;
   for (CallRecord const& call : calls())
      result.push_back(call.name);
   return result;
}

// Send callbacks take their name and result from the user data.
struct Script
{
   char const* name;
   int result;
};

int scripted(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* data)
{
   Script const* script = static_cast<Script const*>(data);
   calls().push_back({script->name, length, data});
   return script->result;
}

// Receive callbacks, one instance per behaviour, since their void* is the pipeline's
// marker: each returns Result (theLength: the length it got) and, unless Marker is 0,
// stores Marker through the pointer; with -5 it first puts "queued" into the chain.
constexpr int theLength = 1000;

template <int Result, int Marker>
int receiveCallback(DtInetSocket*, int length, DtInetSockChain& chain, DtInetEndpoint&,
                    void* marker)
{
   calls().push_back({Result == 0 ? "drop" : "keep", length, marker});
   if (Marker == DtInetSockResultFromQueue)
      DtInetSockCopyToChain("queued", 6, chain);
   if (Marker != 0)
      *static_cast<int*>(marker) = Marker;
   return Result == theLength ? length : Result;
}

DtInetSockProcessingCb const receiveReturnsLength = receiveCallback<theLength, 0>;
DtInetSockProcessingCb const receiveDrops = receiveCallback<0, 0>;
DtInetSockProcessingCb const receiveServesFromQueue = receiveCallback<6, DtInetSockResultFromQueue>;
DtInetSockProcessingCb const receiveDropsWithStatus = receiveCallback<0, -2>;
DtInetSockProcessingCb const receiveNegative = receiveCallback<-3, 0>;

class InetSocketTest : public ::testing::Test
{
protected:
   void SetUp() override { calls().clear(); }

   // Registers a scripted send callback.
   void add(DtInetSockProcessingType type, Script& script, int priority)
   {
      ASSERT_TRUE(socket.addProcessingCallback(type, scripted, &script, priority));
   }

   ScriptedSocket socket;
   // A chain of two buffers holding 4 and 6 bytes.
   std::vector<char> first = std::vector<char>(4, 'a');
   std::vector<char> second = std::vector<char>(6, 'b');
   DtInetSockChain chain{&first, &second};
   DtInetSockChain empty;
   DtInetEndpoint target;
};

// ------------------------------------------------------------------ records

TEST_F(InetSocketTest, NewSocketRecordsAndTheirClearing)
{
   EXPECT_EQ(socket.flags(), 0x0C83u);
   EXPECT_EQ(socket.getLastError() + socket.getTerminationCode(), 0);
   EXPECT_EQ(socket.hostIf(), nullptr);
   // The booleans are derived only when flags are given, although the default has bit 7.
   EXPECT_FALSE(socket.isNonBlocking());
   EXPECT_FALSE(socket.isNoDelay());
   EXPECT_EQ(socket.totalBytesSent() + socket.totalPacketsReceived(), 0u);
   EXPECT_EQ(socket.receiveTime(), 0.0);
   EXPECT_EQ(socket.protocol(), DtInetProtocolUnspecified);
   socket.setFlags(DtInetSockFlagsDefault);
   EXPECT_TRUE(socket.isNoDelay());

   for (int state : {-1, 0, 1, 2, 6, 8, 9})
   {
      SCOPED_TRACE(state);
      socket.setState(state);
      EXPECT_EQ(socket.DtInetSocket::isOk(), state > 0);
   }

   for (int number : {0, 4, 11, 35, 115})
   {
      SCOPED_TRACE(number);
      socket.recordFailure(number, "x");
      EXPECT_EQ(socket.isErrorWouldBlockOrTryAgain(), number == 11);
   }
   // Clearing the error leaves the error state.
   socket.clearError();
   EXPECT_EQ(socket.getLastError(), 0);
   EXPECT_TRUE(socket.getLastErrorString().isEmpty());
   EXPECT_EQ(socket.state(), -1);

   // Clearing the statistics leaves the receive time.
   socket.sendChainTo(chain, target, 0);
   socket.myReceiveTime = 12.5;
   ASSERT_EQ(socket.totalPacketsSent(), 1u);
   socket.clearStats();
   EXPECT_EQ(socket.totalPacketsSent() + socket.totalBytesSent(), 0u);
   EXPECT_EQ(socket.receiveTime(), 12.5);
}

// ------------------------------------------------------------------ callback lists

TEST_F(InetSocketTest, CallbacksRunInKeyOrderAndEqualKeysInOrderOfAddition)
{
   Script a{"a", 10}, b{"b", 10}, c{"c", 10}, d{"d", 10};
   add(DtInetSockPostSend, c, 5);
   add(DtInetSockPostSend, a, 1);
   add(DtInetSockPostSend, d, 5);
   add(DtInetSockPostSend, b, 1);
   socket.sendChainTo(chain, target, 0);
   EXPECT_EQ(names(), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST_F(InetSocketTest, NegativePriorityGoesAfterTheGreatestKey)
{
   Script a{"a", 0}, b{"b", 0};
   // On an empty list there is no greatest key; the entry takes key 0.
   add(DtInetSockPreReceive, a, -5);
   EXPECT_EQ(socket.callbackList(DtInetSockPreReceive)->begin()->first, 0);

   add(DtInetSockPreSend, a, 7);
   add(DtInetSockPreSend, b, -1);
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPreSend);
   ASSERT_EQ(list.size(), 2u);
   EXPECT_EQ(list.rbegin()->first, 8);
   EXPECT_EQ(list.rbegin()->second->priority, 8);
   EXPECT_EQ(list.rbegin()->second->userData, &b);
}

TEST_F(InetSocketTest, RemoveTakesTheFirstEntryOfTheFunctionOnly)
{
   Script low{"low", 10}, high{"high", 10};
   auto const unknown = static_cast<DtInetSockProcessingType>(7);
   EXPECT_FALSE(socket.addProcessingCallback(unknown, scripted, &low, 1));
   EXPECT_FALSE(socket.removeProcessingCallback(unknown, scripted));
   for (int type = 0; type < 4; ++type)
      EXPECT_TRUE(socket.callbackList(static_cast<DtInetSockProcessingType>(type))->empty());

   add(DtInetSockPostSend, high, 9);
   add(DtInetSockPostSend, low, 2);
   // Absent functions, or the right one on another list, change nothing.
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPostSend, receiveReturnsLength));
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPreSend, scripted));
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPostSend);
   ASSERT_EQ(list.size(), 2u);

   EXPECT_TRUE(socket.removeProcessingCallback(DtInetSockPostSend, scripted));
   ASSERT_EQ(list.size(), 1u);
   EXPECT_EQ(list.begin()->second->userData, &high);
   EXPECT_TRUE(socket.removeProcessingCallback(DtInetSockPostSend, scripted));
   EXPECT_TRUE(list.empty());
}

// ------------------------------------------------------------------ send pipeline

TEST_F(InetSocketTest, WithoutPreSendCallbacksOnlyANonEmptyChainIsTransmitted)
{
   // Rules, chain, transmit result, transmit calls, result, packets counted: a datagram
   // call counts even when nothing went out, a failed transmit ends the send uncounted.
   std::tuple<DtInetProtocol, DtInetSockChain*, int, int, int, unsigned> const cases[] = {
       {DtInetProtocolUdp, &chain, 10, 1, 10, 1},
       {DtInetProtocolUdp, &empty, 10, 0, 0, 1},
       {DtInetProtocolTcp, &chain, 10, 1, 10, 1},
       {DtInetProtocolTcp, &empty, 10, 0, 0, 0},
       {DtInetProtocolUdp, &chain, -1, 1, -1, 0}};
   for (auto const& [rules, packet, transmitResult, transmits, result, packets] : cases)
   {
      SCOPED_TRACE(rules * 100 + transmits * 10 + result);
      calls().clear();
      ScriptedSocket s(rules);
      Script post{"post", 0};
      s.addProcessingCallback(DtInetSockPostSend, scripted, &post, 1);
      s.transmitResult = transmitResult;
      EXPECT_EQ(s.sendChainTo(*packet, target, 0), result);
      EXPECT_EQ(s.transmitCalls, transmits);
      EXPECT_EQ(s.totalPacketsSent(), packets);
      EXPECT_EQ(s.totalBytesSent(), static_cast<unsigned>(result > 0 ? result : 0));
      EXPECT_EQ(calls().size(), result < 0 ? 0u : 1u);
   }
}

TEST_F(InetSocketTest, DatagramPreSendAbsorbingThePacketStopsTheSend)
{
   Script absorb{"absorb", 0}, later{"later", 5}, post{"post", 0};
   add(DtInetSockPreSend, absorb, 1);
   add(DtInetSockPreSend, later, 2);
   add(DtInetSockPostSend, post, 1);

   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 10);
   EXPECT_EQ(names(), (std::vector<std::string>{"absorb", "post"}));
   EXPECT_EQ(calls()[0].length, 10);  // the chain's byte count
   EXPECT_EQ(calls()[1].length, 10);  // handled bytes count as sent
   EXPECT_EQ(socket.transmitCalls, 0);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 10u);

   // A callback that returns the length lets the packet through to the next one.
   calls().clear();
   ScriptedSocket passing;
   Script keep{"keep", 10};
   passing.addProcessingCallback(DtInetSockPreSend, scripted, &keep, 1);
   passing.addProcessingCallback(DtInetSockPreSend, scripted, &keep, 2);
   EXPECT_EQ(passing.sendChainTo(chain, target, 0), 10);
   EXPECT_EQ(names(), (std::vector<std::string>{"keep", "keep"}));
   EXPECT_EQ(passing.transmitCalls, 1);
}

TEST_F(InetSocketTest, StreamPreSendCallbacksAllRunWithLengthZero)
{
   ScriptedSocket stream(DtInetProtocolTcp);
   Script absorb{"absorb", 0}, later{"later", 0};
   stream.addProcessingCallback(DtInetSockPreSend, scripted, &absorb, 1);
   stream.addProcessingCallback(DtInetSockPreSend, scripted, &later, 2);
   EXPECT_EQ(stream.sendChainTo(empty, target, 0), 0);
   ASSERT_EQ(names(), (std::vector<std::string>{"absorb", "later"}));
   EXPECT_EQ(calls()[0].length, 0);
   EXPECT_EQ(calls()[1].length, 0);
   EXPECT_EQ(stream.transmitCalls, 0);
   // A stream counts only what was sent.
   EXPECT_EQ(stream.totalPacketsSent() + stream.totalBytesSent(), 0u);
}

TEST_F(InetSocketTest, SendCallbackFailuresInvalidateTheSocket)
{
   for (auto type : {DtInetSockPreSend, DtInetSockPostSend})
   {
      SCOPED_TRACE(type);
      ScriptedSocket s;
      s.setState(2);
      Script fail{"fail", -2};
      s.addProcessingCallback(type, scripted, &fail, 1);
      EXPECT_EQ(s.sendChainTo(chain, target, 0), -1);
      EXPECT_EQ(s.getLastError(), -1);
      EXPECT_STREQ(s.getLastErrorString().c_str(), type == DtInetSockPreSend
                                                       ? "Scripted: pre-send failed"
                                                       : "Scripted: post-send failed");
      EXPECT_EQ(s.state(), -1);
   }
}

TEST_F(InetSocketTest, PostSendResultsAddUpAndCallFlagsSkipTheirLists)
{
   Script absorb{"absorb", 0}, one{"one", 3}, two{"two", 4};
   add(DtInetSockPreSend, absorb, 1);
   add(DtInetSockPostSend, one, 1);
   add(DtInetSockPostSend, two, 2);
   EXPECT_EQ(socket.sendChainTo(chain, target,
                                DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks),
             10);
   EXPECT_TRUE(calls().empty());
   // Other bits of the argument are ignored.
   EXPECT_EQ(socket.sendChainTo(chain, target, 0x4000 | DtInetSockCallNoPreCallbacks), 17);
   ASSERT_EQ(names(), (std::vector<std::string>{"one", "two"}));
   EXPECT_EQ(calls()[1].length, 13);
   EXPECT_EQ(calls()[0].data, &one);  // the send side passes the user data
   EXPECT_EQ(socket.transmitCalls, 2);

   // The same flags on the receive side.
   calls().clear();
   socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   socket.readData.assign(5, 'y');
   socket.readResult = 5;
   EXPECT_EQ(
       socket.recvToChain(chain, DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks), 5);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.readCalls, 1);
}

// ------------------------------------------------------------------ receive pipeline

TEST_F(InetSocketTest, ReadFillsTheChainUnlessTheSkipMarkerIsSet)
{
   // A pre-receive callback that sets no skip marker leaves the read to the network,
   // whatever it returns.
   socket.addProcessingCallback(DtInetSockPreReceive, receiveNegative, nullptr, 1);
   socket.readData.assign(8, 'x');
   socket.readResult = 8;
   socket.readPort = 3000;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 8);
   EXPECT_EQ(socket.readCalls, 1);
   EXPECT_EQ(target.port(), 3000);
   EXPECT_EQ(std::string(first.begin(), first.end()) + std::string(second.begin(), second.end()),
             "xxxxxxxxbb");

   // One that stores -5 has put the packet in the chain itself: its return is the length.
   socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 2);
   calls().clear();
   target.setPort(1);
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 6);
   EXPECT_EQ(socket.readCalls, 1);
   EXPECT_EQ(calls()[1].length, 0);
   EXPECT_EQ(std::string(first.begin(), first.end()), "queu");
   EXPECT_EQ(target.port(), 1);  // no sender to store
   EXPECT_EQ(socket.totalPacketsReceived(), 2u);
   EXPECT_EQ(socket.totalBytesReceived(), 14u);
}

TEST_F(InetSocketTest, DroppedPacketGivesZeroOrTheCarriedMarker)
{
   // What was dropped, pre-receive and post-receive callbacks, result.
   std::tuple<char const*, DtInetSockProcessingCb, DtInetSockProcessingCb, int> const cases[] = {
       {"packet from the network", nullptr, receiveDrops, 0},
       {"packet from the pre-receive stage", receiveServesFromQueue, receiveDrops, -5},
       {"filter writes its own status", receiveServesFromQueue, receiveDropsWithStatus, -2}};
   for (auto const& [what, pre, post, result] : cases)
   {
      SCOPED_TRACE(what);
      ScriptedSocket s;
      if (pre)
         s.addProcessingCallback(DtInetSockPreReceive, pre, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, post, nullptr, 1);
      s.readData.assign(5, 'y');
      s.readResult = 5;
      EXPECT_EQ(s.recvToChainFrom(chain, target, 0), result);
   }
}

TEST_F(InetSocketTest, EveryPostReceiveCallbackRunsAndSeesTheLastLength)
{
   socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 2);
   socket.readData.assign(5, 'y');
   socket.readResult = 5;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 0);
   ASSERT_EQ(names(), (std::vector<std::string>{"drop", "keep"}));
   EXPECT_EQ(calls()[0].length, 5);
   EXPECT_EQ(calls()[1].length, 0);
   // Receive callbacks get the pipeline's marker, not the registered user data.
   EXPECT_NE(calls()[0].data, nullptr);
}

TEST_F(InetSocketTest, EmptyChainsAndFailedReadsSkipThePostReceiveCallbacks)
{
   socket.addProcessingCallback(DtInetSockPreReceive, receiveReturnsLength, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 1);
   EXPECT_EQ(socket.recvToChainFrom(empty, target, 0), -4);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.readCalls, 0);

   // Nothing read is no failure: the post-receive callbacks still run.
   for (int read : {-1, -4, 0})
   {
      SCOPED_TRACE(read);
      calls().clear();
      ScriptedSocket s;
      s.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 1);
      s.readResult = read;
      EXPECT_EQ(s.recvToChainFrom(chain, target, 0), read);
      EXPECT_EQ(calls().size(), read == 0 ? 1u : 0u);
      EXPECT_EQ(s.totalPacketsReceived(), 0u);
   }
}

// ------------------------------------------------------------------ chain helpers

TEST(InetSockChain, CopyScattersAndReportsWhatDidNotFit)
{
   // Data, whether it fitted, then the buffers' contents.
   std::tuple<std::string, bool, char const*> const cases[] = {{"", true, "...|.."},
                                                               {"ab", true, "ab.|.."},
                                                               {"abcde", true, "abc|de"},
                                                               {"abcdef", false, "abc|de"}};
   for (auto const& [data, fits, contents] : cases)
   {
      SCOPED_TRACE(data);
      std::vector<char> a(3, '.'), b(2, '.'), none;
      DtInetSockChain chain{&a, &none, nullptr, &b};
      EXPECT_EQ(DtInetSockCopyToChain(data.data(), data.size(), chain), fits);
      EXPECT_EQ(std::string(a.begin(), a.end()) + "|" + std::string(b.begin(), b.end()), contents);
   }
}

}  // namespace
