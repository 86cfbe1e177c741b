// Tests of the socket base: records, callback lists and the chain pipelines.
#include <olutil/olInetSocket.h>
#include <olutil/olInetUdpSocket.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetSocketUtils.h>

namespace
{

// Runs the base's pipelines with a scripted transmit and read step; the rest, never
// opened, comes from the datagram socket.
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

   void add(DtInetSockProcessingType type, Script& script, int priority)
   {
      ASSERT_TRUE(socket.addProcessingCallback(type, scripted, &script, priority));
   }

   // Every read gives `length` bytes of 'y', or that result if it is not above 0.
   static void readGives(ScriptedSocket& s, int length)
   {
      s.readData.assign(length > 0 ? length : 0, 'y');
      s.readResult = length;
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
   EXPECT_FALSE(socket.isNoDelay());
   EXPECT_EQ(socket.totalBytesSent() + socket.totalPacketsReceived(), 0u);
   EXPECT_EQ(socket.protocol(), DtInetProtocolUnspecified);
   socket.setFlags(DtInetSockFlagsDefault);
   EXPECT_TRUE(socket.isNoDelay());

   for (int state : {-1, 0, 1, 9})
   {
      socket.setState(state);
      EXPECT_EQ(socket.DtInetSocket::isOk(), state > 0) << state;
   }
   for (int number : {4, 11, 115})
   {
      socket.recordFailure(number, "x");
      EXPECT_EQ(socket.isErrorWouldBlockOrTryAgain(), number == 11) << number;
   }
   // Clearing the error leaves the error state.
   socket.clearError();
   EXPECT_EQ(socket.getLastError(), 0);
   EXPECT_TRUE(socket.getLastErrorString().isEmpty());
   EXPECT_EQ(socket.state(), -1);

   // Clearing the statistics leaves the receive time.
   socket.sendChainTo(chain, target, 0);
   socket.myReceiveTime = 12.5;
   socket.clearStats();
   EXPECT_EQ(socket.totalPacketsSent() + socket.totalBytesSent(), 0u);
   EXPECT_EQ(socket.receiveTime(), 12.5);
}

// ------------------------------------------------------------------ callback lists

TEST_F(InetSocketTest, CallbacksRunInKeyOrderAndNegativePriorityGoesLast)
{
   Script a{"a", 10}, b{"b", 10}, c{"c", 10}, d{"d", 10}, e{"e", 10};
   // On an empty list there is no greatest key; the entry takes key 0.
   add(DtInetSockPreReceive, a, -5);
   EXPECT_EQ(socket.callbackList(DtInetSockPreReceive)->begin()->first, 0);

   // Equal keys run in order of addition; -1 means the greatest key plus 1.
   add(DtInetSockPostSend, c, 5);
   add(DtInetSockPostSend, a, 1);
   add(DtInetSockPostSend, d, 5);
   add(DtInetSockPostSend, e, -1);
   add(DtInetSockPostSend, b, 1);
   socket.sendChainTo(chain, target, 0);
   EXPECT_EQ(names(), (std::vector<std::string>{"a", "b", "c", "d", "e"}));
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPostSend);
   EXPECT_EQ(list.rbegin()->first, 6);
   EXPECT_EQ(list.rbegin()->second->priority, 6);
}

TEST_F(InetSocketTest, RemoveTakesTheFirstEntryOfTheFunctionOnly)
{
   Script low{"low", 10}, high{"high", 10};
   auto const unknown = static_cast<DtInetSockProcessingType>(7);
   EXPECT_FALSE(socket.addProcessingCallback(unknown, scripted, &low, 1));
   EXPECT_FALSE(socket.removeProcessingCallback(unknown, scripted));

   add(DtInetSockPostSend, high, 9);
   add(DtInetSockPostSend, low, 2);
   // Absent functions, or the right one on another list, change nothing.
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPostSend, receiveReturnsLength));
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPreSend, scripted));
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPostSend);
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

TEST_F(InetSocketTest, PreSendAbsorbingStopsADatagramButNotAStream)
{
   Script keep{"keep", 10}, absorb{"absorb", 0}, later{"later", 5}, post{"post", 0};
   add(DtInetSockPreSend, keep, 1);  // returning the length passes the packet on
   add(DtInetSockPreSend, absorb, 2);
   add(DtInetSockPreSend, later, 3);
   add(DtInetSockPostSend, post, 1);

   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 10);
   EXPECT_EQ(names(), (std::vector<std::string>{"keep", "absorb", "post"}));
   EXPECT_EQ(calls()[1].length, 10);  // the chain's byte count
   EXPECT_EQ(calls()[2].length, 10);  // handled bytes count as sent
   EXPECT_EQ(socket.transmitCalls, 0);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 10u);

   // On a stream every pre-send callback runs, with length 0, and nothing counts as sent.
   calls().clear();
   ScriptedSocket stream(DtInetProtocolTcp);
   stream.addProcessingCallback(DtInetSockPreSend, scripted, &absorb, 1);
   stream.addProcessingCallback(DtInetSockPreSend, scripted, &post, 2);
   EXPECT_EQ(stream.sendChainTo(empty, target, 0), 0);
   ASSERT_EQ(names(), (std::vector<std::string>{"absorb", "post"}));
   EXPECT_EQ(calls()[0].length + calls()[1].length, 0);
   EXPECT_EQ(stream.transmitCalls, 0);
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
   readGives(socket, 5);
   EXPECT_EQ(socket.recvToChainFrom(chain, target,
                                    DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks),
             5);
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

TEST_F(InetSocketTest, EveryPostReceiveCallbackRunsAndSeesTheLastLength)
{
   socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 2);
   readGives(socket, 5);
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 0);
   ASSERT_EQ(names(), (std::vector<std::string>{"drop", "keep"}));
   EXPECT_EQ(calls()[0].length, 5);
   EXPECT_EQ(calls()[1].length, 0);
   // Receive callbacks get the pipeline's marker, not the registered user data.
   EXPECT_NE(calls()[0].data, nullptr);
}

TEST_F(InetSocketTest, ReceiveResultsOfDropsAndReads)
{
   // Case, pre-receive and post-receive callbacks, read result, result, post-receive
   // calls: a dropped packet gives 0 or the carried marker; nothing read is no failure.
   using Cb = DtInetSockProcessingCb;
   std::tuple<char const*, Cb, Cb, int, int, std::size_t> const cases[] = {
       {"network packet dropped", nullptr, receiveDrops, 5, 0, 1},
       {"queued packet dropped", receiveServesFromQueue, receiveDrops, 5, -5, 1},
       {"filter writes its own status", receiveServesFromQueue, receiveDropsWithStatus, 5, -2, 1},
       {"failed read", nullptr, receiveReturnsLength, -1, -1, 0},
       {"nothing read", nullptr, receiveReturnsLength, 0, 0, 1}};
   for (auto const& [what, pre, post, read, result, postCalls] : cases)
   {
      SCOPED_TRACE(what);
      calls().clear();
      ScriptedSocket s;
      if (pre)
         s.addProcessingCallback(DtInetSockPreReceive, pre, nullptr, 1);
      s.addProcessingCallback(DtInetSockPostReceive, post, nullptr, 1);
      readGives(s, read);
      EXPECT_EQ(s.recvToChainFrom(chain, target, 0), result);
      EXPECT_EQ(calls().size() - (pre ? 1 : 0), postCalls);
      EXPECT_EQ(s.totalPacketsReceived(), read > 0 ? 1u : 0u);
   }

   // An empty chain is refused before any callback or read.
   socket.addProcessingCallback(DtInetSockPreReceive, receiveReturnsLength, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 1);
   calls().clear();
   EXPECT_EQ(socket.recvToChainFrom(empty, target, 0), -4);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.readCalls, 0);
}

// ------------------------------------------------------------------ chain helpers

TEST(InetSockChain, CopyScattersAndReportsWhatDidNotFit)
{
   // Data, whether it fitted, then the buffers' contents.
   std::tuple<std::string, bool, char const*> const cases[] = {
       {"ab", true, "ab.|.."}, {"abcde", true, "abc|de"}, {"abcdef", false, "abc|de"}};
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
