// Tests of the socket base: records, callback lists and the chain pipelines, driven
// through a socket whose transmit and read steps are scripted by the test.
#include <olutil/olInetSocket.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <olutil/olInetSocketUtils.h>

namespace
{

// A socket with no system socket behind it: the chain operations run the base's
// pipelines with a transmit and a read step that the test scripts.
class ScriptedSocket : public DtInetSocket
{
public:
   explicit ScriptedSocket(DtInetProtocol rules = DtInetProtocolUdp) : myRules(rules) {}

   // Scripted steps.
   int transmitResult = 0;
   int transmitCalls = 0;
   int readResult = 0;
   int readCalls = 0;
   std::vector<char> readData;
   unsigned short readPort = 0;

   using DtInetSocket::callbackList;
   using DtInetSocket::recordFailure;
   using DtInetSocket::setFlags;
   using DtInetSocket::setState;

   bool setDestination(DtInetEndpoint const& endpoint) override
   {
      myDestination = endpoint;
      return true;
   }
   bool bindToDevice(DtInetDevice const*) override { return true; }
   bool openSocket() override { return true; }
   bool closeSocket() override { return true; }
   bool connectToDestination() override { return true; }
   int send(char*, unsigned long, unsigned int) override { return 0; }
   int sendTo(char*, unsigned long, DtInetEndpoint&, unsigned int) override { return 0; }
   int sendChain(DtInetSockChain& chain, unsigned int flags) override
   {
      return sendChainTo(chain, myDestination, flags);
   }
   int sendChainTo(DtInetSockChain& chain, DtInetEndpoint& endpoint, unsigned int flags) override
   {
      return runSendPipeline(
          myRules, chain, endpoint, flags,
          [this](DtInetSockChain&, DtInetEndpoint&)
          {
             ++transmitCalls;
             return transmitResult;
          },
          "Scripted: pre-send failed", "Scripted: post-send failed");
   }
   int recv(char*, unsigned long, unsigned int) override { return 0; }
   int recvToChain(DtInetSockChain& chain, unsigned int flags) override
   {
      DtInetEndpoint scratch;
      return recvToChainFrom(chain, scratch, flags);
   }
   int recvFrom(char*, unsigned long, DtInetEndpoint&, unsigned int) override { return 0; }
   int recvToChainFrom(DtInetSockChain& chain, DtInetEndpoint& endpoint,
                       unsigned int flags) override
   {
      return runReceivePipeline(chain, endpoint, flags,
                                [this](DtInetSockChain& packet, DtInetEndpoint& from)
                                {
                                   ++readCalls;
                                   if (readResult > 0)
                                   {
                                      DtInetSockCopyToChain(readData.data(), readData.size(),
                                                            packet);
                                      from.setPort(readPort);
                                   }
                                   return readResult;
                                });
   }
   int descriptor() const override { return -1; }
   bool setSocket(DtInetEndpoint const&, unsigned short, DtInetDevice*, unsigned int) override
   {
      return true;
   }
   bool setNonBlockingOption(bool) override { return true; }
   bool setReuseAddressOption(bool) override { return true; }
   bool setSendBufferSize(unsigned int) override { return true; }
   bool setReceiveBufferSize(unsigned int) override { return true; }
   bool setDoNotRouteOption(bool) override { return true; }
   bool setSendLowWatermark(unsigned int) override { return true; }
   bool setReceiveLowWatermark(unsigned int) override { return true; }
   bool getReuseAddressOption() override { return false; }
   bool getDoNotRouteOption() override { return false; }
   int getSendBufferSize() override { return 0; }
   int getReceiveBufferSize() override { return 0; }
   int getBytesAvailable() override { return 0; }
   int getSendLowWatermark() override { return 0; }
   int getReceiveLowWatermark() override { return 0; }

   void setReceiveTime(double time) { myReceiveTime = time; }

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

// Callback behaviour is chosen through the user data on the send side; the receive
// side gets the marker pointer instead, so receive callbacks read their script here.
struct Script
{
   char const* name;
   int result;
   int marker;  // written through the void* on the receive side unless 0
};

int scripted(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* data)
{
   Script const* script = static_cast<Script const*>(data);
   calls().push_back({script->name, length, data});
   return script->result;
}

// Receive callbacks, one per behaviour, since their void* is the pipeline's marker.
int receiveReturnsLength(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* marker)
{
   calls().push_back({"pass", length, marker});
   return length;
}

int receiveDrops(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* marker)
{
   calls().push_back({"drop", length, marker});
   return 0;
}

int receiveServesFromQueue(DtInetSocket*, int length, DtInetSockChain& chain, DtInetEndpoint&,
                           void* marker)
{
   calls().push_back({"queue", length, marker});
   char const packet[] = "queued";
   DtInetSockCopyToChain(packet, 6, chain);
   *static_cast<int*>(marker) = DtInetSockResultFromQueue;
   return 6;
}

int receiveDropsWithStatus(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&,
                           void* marker)
{
   calls().push_back({"status", length, marker});
   *static_cast<int*>(marker) = -2;
   return 0;
}

int receiveNegative(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void* marker)
{
   calls().push_back({"negative", length, marker});
   return -3;
}

std::vector<std::string> names()
{
   std::vector<std::string> result;
   for (CallRecord const& call : calls())
      result.push_back(call.name);
   return result;
}

class InetSocketTest : public ::testing::Test
{
protected:
   void SetUp() override { calls().clear(); }

   // A chain of two buffers holding 4 and 6 bytes.
   std::vector<char> first = std::vector<char>(4, 'a');
   std::vector<char> second = std::vector<char>(6, 'b');
   DtInetSockChain chain{&first, &second};
   DtInetEndpoint target;
};

// ------------------------------------------------------------------ records

TEST_F(InetSocketTest, NewSocketHasItsDefaults)
{
   ScriptedSocket socket;
   EXPECT_EQ(socket.flags(), 0x0C83u);
   EXPECT_EQ(socket.state(), 0);
   EXPECT_FALSE(socket.isOk());
   EXPECT_EQ(socket.getLastError(), 0);
   EXPECT_TRUE(socket.getLastErrorString().isEmpty());
   EXPECT_EQ(socket.getTerminationCode(), 0);
   EXPECT_EQ(socket.hostIf(), nullptr);
   EXPECT_FALSE(socket.isNonBlocking());
   EXPECT_FALSE(socket.isNoDelay());
   EXPECT_EQ(socket.totalBytesSent(), 0u);
   EXPECT_EQ(socket.totalPacketsReceived(), 0u);
   EXPECT_EQ(socket.receiveTime(), 0.0);
   EXPECT_EQ(socket.protocol(), DtInetProtocolUnspecified);
}

TEST_F(InetSocketTest, BaseIsOkFollowsTheStateSign)
{
   struct Case
   {
      int state;
      bool ok;
   } const cases[] = {{-1, false}, {0, false}, {1, true}, {2, true},
                      {6, true},   {8, true},  {9, true}};
   ScriptedSocket socket;
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.state);
      socket.setState(c.state);
      EXPECT_EQ(socket.isOk(), c.ok);
   }
}

TEST_F(InetSocketTest, FlagsDeriveTheirBooleans)
{
   ScriptedSocket socket;
   socket.setFlags(DtInetSockFlagNonBlocking | DtInetSockFlagNoDelay | DtInetSockFlagSend);
   EXPECT_TRUE(socket.isNonBlocking());
   EXPECT_TRUE(socket.isNoDelay());
   // The default value carries bit 7, so a socket given it explicitly reports no-delay,
   // while a new socket, whose booleans were never derived, does not.
   socket.setFlags(DtInetSockFlagsDefault);
   EXPECT_FALSE(socket.isNonBlocking());
   EXPECT_TRUE(socket.isNoDelay());
   socket.setFlags(DtInetSockFlagAsyncSend);
   EXPECT_FALSE(socket.isNoDelay());
}

TEST_F(InetSocketTest, ClearErrorKeepsTheErrorState)
{
   ScriptedSocket socket;
   socket.recordFailure(22, "Scripted: failure");
   ASSERT_EQ(socket.state(), -1);
   socket.clearError();
   EXPECT_EQ(socket.getLastError(), 0);
   EXPECT_TRUE(socket.getLastErrorString().isEmpty());
   EXPECT_EQ(socket.state(), -1);
}

TEST_F(InetSocketTest, OnlyErrorElevenIsWouldBlock)
{
   ScriptedSocket socket;
   for (int number : {0, 4, 11, 35, 115})
   {
      SCOPED_TRACE(number);
      socket.recordFailure(number, "x");
      EXPECT_EQ(socket.isErrorWouldBlockOrTryAgain(), number == 11);
   }
}

TEST_F(InetSocketTest, ClearStatsKeepsTheReceiveTime)
{
   ScriptedSocket socket;
   socket.transmitResult = 10;
   socket.sendChainTo(chain, target, 0);
   socket.setReceiveTime(12.5);
   ASSERT_EQ(socket.totalPacketsSent(), 1u);
   socket.clearStats();
   EXPECT_EQ(socket.totalPacketsSent(), 0u);
   EXPECT_EQ(socket.totalBytesSent(), 0u);
   EXPECT_EQ(socket.receiveTime(), 12.5);
}

TEST_F(InetSocketTest, LocalPortIsSetOnTheLocalEndpoint)
{
   ScriptedSocket socket;
   EXPECT_TRUE(socket.setLocalPort(4711));
   EXPECT_EQ(socket.localPort(), 4711);
   EXPECT_EQ(socket.localEndpoint().port(), 4711);
}

// ------------------------------------------------------------------ callback lists

TEST_F(InetSocketTest, UnknownTypeIsRefused)
{
   ScriptedSocket socket;
   Script a{"a", 0, 0};
   auto const unknown = static_cast<DtInetSockProcessingType>(7);
   EXPECT_FALSE(socket.addProcessingCallback(unknown, scripted, &a, 1));
   EXPECT_FALSE(socket.removeProcessingCallback(unknown, scripted));
   for (int type = 0; type < 4; ++type)
      EXPECT_TRUE(socket.callbackList(static_cast<DtInetSockProcessingType>(type))->empty());
}

TEST_F(InetSocketTest, CallbacksRunInKeyOrderAndEqualKeysInOrderOfAddition)
{
   ScriptedSocket socket;
   Script a{"a", 10, 0}, b{"b", 10, 0}, c{"c", 10, 0}, d{"d", 10, 0};
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &c, 5);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &a, 1);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &d, 5);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &b, 1);
   socket.transmitResult = 10;
   socket.sendChainTo(chain, target, 0);
   EXPECT_EQ(names(), (std::vector<std::string>{"a", "b", "c", "d"}));
}

TEST_F(InetSocketTest, NegativePriorityGoesAfterTheGreatestKey)
{
   ScriptedSocket socket;
   Script a{"a", 0, 0}, b{"b", 0, 0};
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &a, 7);
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &b, -1);
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPreSend);
   ASSERT_EQ(list.size(), 2u);
   EXPECT_EQ(list.rbegin()->first, 8);
   EXPECT_EQ(list.rbegin()->second->priority, 8);
   EXPECT_EQ(list.rbegin()->second->userData, &b);
}

TEST_F(InetSocketTest, NegativePriorityOnAnEmptyListUsesKeyZero)
{
   ScriptedSocket socket;
   Script a{"a", 0, 0};
   EXPECT_TRUE(socket.addProcessingCallback(DtInetSockPreSend, scripted, &a, -5));
   EXPECT_EQ(socket.callbackList(DtInetSockPreSend)->begin()->first, 0);
}

TEST_F(InetSocketTest, RemoveTakesTheFirstEntryOfTheFunctionOnly)
{
   ScriptedSocket socket;
   Script low{"low", 10, 0}, high{"high", 10, 0};
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &high, 9);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &low, 2);
   EXPECT_TRUE(socket.removeProcessingCallback(DtInetSockPostSend, scripted));
   DtInetSockCallbackList const& list = *socket.callbackList(DtInetSockPostSend);
   ASSERT_EQ(list.size(), 1u);
   EXPECT_EQ(list.begin()->second->userData, &high);
   EXPECT_TRUE(socket.removeProcessingCallback(DtInetSockPostSend, scripted));
   EXPECT_TRUE(list.empty());
}

TEST_F(InetSocketTest, RemovingAnAbsentFunctionChangesNothing)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPreReceive, receiveReturnsLength, nullptr, 1);
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPreReceive, scripted));
   EXPECT_FALSE(socket.removeProcessingCallback(DtInetSockPostReceive, receiveReturnsLength));
   EXPECT_EQ(socket.callbackList(DtInetSockPreReceive)->size(), 1u);
}

// ------------------------------------------------------------------ send pipeline

TEST_F(InetSocketTest, SendWithoutCallbacksTransmitsOnce)
{
   ScriptedSocket socket;
   socket.transmitResult = 10;
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 10);
   EXPECT_EQ(socket.transmitCalls, 1);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 10u);
}

TEST_F(InetSocketTest, EmptyChainWithoutCallbacksTransmitsNothing)
{
   ScriptedSocket socket;
   DtInetSockChain empty;
   socket.transmitResult = 99;
   EXPECT_EQ(socket.sendChainTo(empty, target, 0), 0);
   EXPECT_EQ(socket.transmitCalls, 0);
   // A datagram call that reaches the statistics counts as a packet.
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 0u);
}

TEST_F(InetSocketTest, DatagramPreSendAbsorbingThePacketStopsTheSend)
{
   ScriptedSocket socket;
   Script absorb{"absorb", 0, 0}, later{"later", 5, 0}, post{"post", 0, 0};
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &absorb, 1);
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &later, 2);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &post, 1);
   socket.transmitResult = 10;

   int const sent = socket.sendChainTo(chain, target, 0);

   EXPECT_EQ(names(), (std::vector<std::string>{"absorb", "post"}));
   EXPECT_EQ(calls()[0].length, 10);  // the chain's byte count
   EXPECT_EQ(calls()[1].length, 10);  // handled bytes count as sent
   EXPECT_EQ(socket.transmitCalls, 0);
   EXPECT_EQ(sent, 10);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 10u);
}

TEST_F(InetSocketTest, DatagramPreSendReturningTheLengthLetsItThrough)
{
   ScriptedSocket socket;
   Script keep{"keep", 10, 0}, next{"next", 10, 0};
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &keep, 1);
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &next, 2);
   socket.transmitResult = 10;
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 10);
   EXPECT_EQ(names(), (std::vector<std::string>{"keep", "next"}));
   EXPECT_EQ(socket.transmitCalls, 1);
}

TEST_F(InetSocketTest, StreamPreSendCallbacksAllRunWithLengthZero)
{
   ScriptedSocket socket(DtInetProtocolTcp);
   Script absorb{"absorb", 0, 0}, later{"later", 0, 0};
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &absorb, 1);
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &later, 2);
   DtInetSockChain empty;
   EXPECT_EQ(socket.sendChainTo(empty, target, 0), 0);
   EXPECT_EQ(names(), (std::vector<std::string>{"absorb", "later"}));
   EXPECT_EQ(calls()[0].length, 0);
   EXPECT_EQ(calls()[1].length, 0);
   EXPECT_EQ(socket.transmitCalls, 0);
   // A stream counts only what was sent.
   EXPECT_EQ(socket.totalPacketsSent(), 0u);
   EXPECT_EQ(socket.totalBytesSent(), 0u);
}

TEST_F(InetSocketTest, StreamCountsOnlyNonZeroSends)
{
   ScriptedSocket socket(DtInetProtocolTcp);
   socket.transmitResult = 0;
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 0);
   EXPECT_EQ(socket.totalPacketsSent(), 0u);
   socket.transmitResult = 10;
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 10);
   EXPECT_EQ(socket.totalPacketsSent(), 1u);
   EXPECT_EQ(socket.totalBytesSent(), 10u);
}

TEST_F(InetSocketTest, SendCallbackFailuresInvalidateTheSocket)
{
   struct Case
   {
      DtInetSockProcessingType type;
      char const* text;
   } const cases[] = {{DtInetSockPreSend, "Scripted: pre-send failed"},
                      {DtInetSockPostSend, "Scripted: post-send failed"}};
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.text);
      ScriptedSocket socket;
      socket.setState(2);
      Script fail{"fail", -2, 0};
      socket.addProcessingCallback(c.type, scripted, &fail, 1);
      socket.transmitResult = 10;
      EXPECT_EQ(socket.sendChainTo(chain, target, 0), -1);
      EXPECT_EQ(socket.getLastError(), -1);
      EXPECT_STREQ(socket.getLastErrorString().c_str(), c.text);
      EXPECT_EQ(socket.state(), -1);
   }
}

TEST_F(InetSocketTest, PostSendResultsAddToTheResult)
{
   ScriptedSocket socket;
   Script one{"one", 3, 0}, two{"two", 4, 0};
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &one, 1);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &two, 2);
   socket.transmitResult = 10;
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), 17);
   EXPECT_EQ(calls()[1].length, 13);
   EXPECT_EQ(calls()[0].data, &one);  // the send side passes the user data
}

TEST_F(InetSocketTest, CallFlagsSkipTheirLists)
{
   ScriptedSocket socket;
   Script absorb{"absorb", 0, 0}, post{"post", 0, 0};
   socket.addProcessingCallback(DtInetSockPreSend, scripted, &absorb, 1);
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &post, 1);
   socket.transmitResult = 10;
   EXPECT_EQ(socket.sendChainTo(chain, target,
                                DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks),
             10);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.transmitCalls, 1);
   // Other bits of the argument are ignored.
   EXPECT_EQ(socket.sendChainTo(chain, target, 0x4000 | DtInetSockCallNoPreCallbacks), 10);
   EXPECT_EQ(names(), (std::vector<std::string>{"post"}));
}

TEST_F(InetSocketTest, TransmitFailureEndsTheSendUncounted)
{
   ScriptedSocket socket;
   Script post{"post", 0, 0};
   socket.addProcessingCallback(DtInetSockPostSend, scripted, &post, 1);
   socket.transmitResult = -1;
   EXPECT_EQ(socket.sendChainTo(chain, target, 0), -1);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.totalPacketsSent(), 0u);
}

// ------------------------------------------------------------------ receive pipeline

TEST_F(InetSocketTest, EmptyChainReadRunsNothing)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPreReceive, receiveReturnsLength, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 1);
   DtInetSockChain empty;
   EXPECT_EQ(socket.recvToChainFrom(empty, target, 0), -4);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.readCalls, 0);
}

TEST_F(InetSocketTest, ReadFillsTheChainAndCounts)
{
   ScriptedSocket socket;
   socket.readData.assign(8, 'x');
   socket.readResult = 8;
   socket.readPort = 3000;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 8);
   EXPECT_EQ(target.port(), 3000);
   EXPECT_EQ(std::string(first.begin(), first.end()), "xxxx");
   EXPECT_EQ(std::string(second.begin(), second.end()), "xxxxbb");
   EXPECT_EQ(socket.totalPacketsReceived(), 1u);
   EXPECT_EQ(socket.totalBytesReceived(), 8u);
}

TEST_F(InetSocketTest, PreReceiveSkipMarkerPreventsTheRead)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
   socket.readResult = 8;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 6);
   EXPECT_EQ(socket.readCalls, 0);
   EXPECT_EQ(calls()[0].length, 0);
   EXPECT_EQ(std::string(first.begin(), first.end()), "queu");
   EXPECT_EQ(socket.totalPacketsReceived(), 1u);
   EXPECT_EQ(socket.totalBytesReceived(), 6u);
}

TEST_F(InetSocketTest, PreReceiveWithoutMarkerLeavesTheReadToTheNetwork)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPreReceive, receiveNegative, nullptr, 1);
   socket.readData.assign(5, 'y');
   socket.readResult = 5;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 5);
   EXPECT_EQ(socket.readCalls, 1);
}

TEST_F(InetSocketTest, DroppedPacketGivesZeroOrTheCarriedMarker)
{
   {
      SCOPED_TRACE("packet from the network");
      ScriptedSocket socket;
      socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
      socket.readData.assign(5, 'y');
      socket.readResult = 5;
      EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 0);
   }
   {
      SCOPED_TRACE("packet from the pre-receive stage");
      calls().clear();
      ScriptedSocket socket;
      socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
      socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
      EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), -5);
   }
   {
      SCOPED_TRACE("filter writes its own status");
      calls().clear();
      ScriptedSocket socket;
      socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
      socket.addProcessingCallback(DtInetSockPostReceive, receiveDropsWithStatus, nullptr, 1);
      EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), -2);
   }
}

TEST_F(InetSocketTest, EveryPostReceiveCallbackRunsAndSeesTheLastLength)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 2);
   socket.readData.assign(5, 'y');
   socket.readResult = 5;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 0);
   ASSERT_EQ(names(), (std::vector<std::string>{"drop", "pass"}));
   EXPECT_EQ(calls()[0].length, 5);
   EXPECT_EQ(calls()[1].length, 0);
   // Receive callbacks get the pipeline's marker, not the registered user data.
   EXPECT_NE(calls()[0].data, nullptr);
}

TEST_F(InetSocketTest, ReadFailureSkipsThePostReceiveCallbacks)
{
   for (int failure : {-1, -4})
   {
      SCOPED_TRACE(failure);
      calls().clear();
      ScriptedSocket socket;
      socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 1);
      socket.readResult = failure;
      EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), failure);
      EXPECT_TRUE(calls().empty());
      EXPECT_EQ(socket.totalPacketsReceived(), 0u);
   }
}

TEST_F(InetSocketTest, NothingReadStillRunsThePostReceiveCallbacks)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPostReceive, receiveReturnsLength, nullptr, 1);
   socket.readResult = 0;
   EXPECT_EQ(socket.recvToChainFrom(chain, target, 0), 0);
   EXPECT_EQ(names(), (std::vector<std::string>{"pass"}));
   EXPECT_EQ(socket.totalPacketsReceived(), 0u);
}

TEST_F(InetSocketTest, ReceiveCallFlagsSkipTheirLists)
{
   ScriptedSocket socket;
   socket.addProcessingCallback(DtInetSockPreReceive, receiveServesFromQueue, nullptr, 1);
   socket.addProcessingCallback(DtInetSockPostReceive, receiveDrops, nullptr, 1);
   socket.readData.assign(5, 'y');
   socket.readResult = 5;
   EXPECT_EQ(
       socket.recvToChain(chain, DtInetSockCallNoPreCallbacks | DtInetSockCallNoPostCallbacks), 5);
   EXPECT_TRUE(calls().empty());
   EXPECT_EQ(socket.readCalls, 1);
}

// ------------------------------------------------------------------ chain helpers

TEST(InetSockChain, SizeCountsEveryBuffer)
{
   std::vector<char> a(3), b(0), c(7);
   DtInetSockChain chain{&a, nullptr, &b, &c};
   EXPECT_EQ(DtInetSockChainSize(chain), 10u);
   EXPECT_EQ(DtInetSockChainSize(DtInetSockChain()), 0u);
}

TEST(InetSockChain, CopyScattersAndReportsWhatDidNotFit)
{
   struct Case
   {
      char const* data;
      bool fits;
      char const* first;
      char const* second;
   } const cases[] = {{"", true, "...", ".."},
                      {"ab", true, "ab.", ".."},
                      {"abcde", true, "abc", "de"},
                      {"abcdef", false, "abc", "de"}};
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.data);
      std::vector<char> a(3, '.'), b(2, '.');
      std::vector<char> empty;
      DtInetSockChain chain{&a, &empty, nullptr, &b};
      EXPECT_EQ(DtInetSockCopyToChain(c.data, std::string(c.data).size(), chain), c.fits);
      EXPECT_EQ(std::string(a.begin(), a.end()), c.first);
      EXPECT_EQ(std::string(b.begin(), b.end()), c.second);
   }
}

TEST(InetSockChain, GatherConcatenatesInOrder)
{
   std::vector<char> a{'a', 'b'}, b{'c'};
   DtInetSockChain chain{&a, nullptr, &b};
   std::vector<char> out{'z'};
   DtInetSockGatherChain(chain, out);
   EXPECT_EQ(std::string(out.begin(), out.end()), "abc");
}

}  // namespace
