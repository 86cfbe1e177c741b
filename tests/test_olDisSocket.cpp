// Tests of DtDisSocket: the receive pipeline on chains, bundling, destinations,
// self-reflect suppression and the asynchronous send path.
#include <olutil/olDisSocket.h>

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include <gtest/gtest.h>

#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>
#include <olutil/olPrint.h>

#include "support_netns.h"

namespace
{
typedef std::vector<char> Bytes;

// A PDU with a valid header: version, exercise, kind, length field, status byte.
// The body is filled with a marker so that tests can tell PDUs apart.
Bytes makePdu(unsigned char version, unsigned char exercise, unsigned char kind,
              unsigned short length, unsigned char status = 0, char marker = 'x')
{
   Bytes pdu(std::max<std::size_t>(length, 12), marker);
   pdu[0] = static_cast<char>(version);
   pdu[1] = static_cast<char>(exercise);
   pdu[2] = static_cast<char>(kind);
   pdu[3] = 1;
   pdu[4] = pdu[5] = pdu[6] = pdu[7] = 0;
   pdu[8] = static_cast<char>(length >> 8);
   pdu[9] = static_cast<char>(length & 0xFF);
   pdu[10] = static_cast<char>(status);
   pdu[11] = 0;
   return pdu;
}

// Concatenates PDUs, padding each one but the last to `alignment`.
Bytes bundleOf(std::vector<Bytes> const& pdus, unsigned int alignment)
{
   Bytes out;
   for (std::size_t i = 0; i < pdus.size(); ++i)
   {
      out.insert(out.end(), pdus[i].begin(), pdus[i].end());
      if (i + 1 < pdus.size())
         out.resize(out.size() + DtDisSocket::alignedPadding(
                                     static_cast<unsigned int>(pdus[i].size()), alignment),
                    0);
   }
   return out;
}

DtInetEndpoint udpEndpoint(char const* address, unsigned short port)
{
   return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolUdp);
}

// A socket that is never opened: the callbacks are driven by hand.
struct OfflineSocket
{
   DtDisSocket socket{udpEndpoint("127.0.0.1", 3000), 0,     nullptr,
                      DtInetSockFlagsDefault,         false, false};
};

// One read through the same steps as the socket's receive pipeline, with the
// network replaced by a list of datagrams. Returns the read's result and leaves
// the PDU in `buffer`.
struct PipelineDriver
{
   DtDisSocket& socket;
   std::deque<std::pair<Bytes, DtInetEndpoint>> network;
   int lastStatus = 0;

   int read(DtInetSockChain& chain, DtInetEndpoint& sender)
   {
      int skip = 0;
      int length = socket.getNextBundle(0, chain, sender, &skip);
      if (skip != DtDisStatusFromQueue)
      {
         length = 0;
         if (!network.empty())
         {
            Bytes const& datagram = network.front().first;
            std::size_t copied = 0;
            for (std::vector<char>* buffer : chain)
            {
               std::size_t const piece = std::min(buffer->size(), datagram.size() - copied);
               if (piece > 0)
                  std::memcpy(buffer->data(), datagram.data() + copied, piece);
               copied += piece;
            }
            length = static_cast<int>(datagram.size());
            sender = network.front().second;
            network.pop_front();
         }
      }
      int carry = skip;
      length = step(socket.minSizeFilter(length, chain, sender, &carry), carry);
      length = step(socket.suppressSelfReflect(length, chain, sender, &carry), carry);
      length = step(socket.unbundle(length, chain, sender, &carry), carry);
      length = step(socket.filterExercisePdus(length, chain, sender, &carry), carry);
      lastStatus = carry;
      return length;
   }

   static int step(int length, int carry) { return length == 0 ? carry : length; }
};

// Reads whatever the driver delivers until it has nothing, at most `limit` times.
std::vector<Bytes> readAll(PipelineDriver& driver, std::size_t capacity = 1500,
                           std::size_t limit = 64)
{
   std::vector<Bytes> out;
   for (std::size_t i = 0; i < limit; ++i)
   {
      Bytes buffer(capacity);
      DtInetSockChain chain(1, &buffer);
      DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
      int const length = driver.read(chain, sender);
      if (length == 0 && driver.network.empty() && driver.socket.queuedPduCount() == 0)
         break;
      if (length > 0)
         out.emplace_back(buffer.begin(), buffer.begin() + length);
      else
         out.emplace_back();
   }
   return out;
}

// Silences the warning stream for the tests that provoke warnings on purpose.
struct QuietWarnings
{
   int saved = DtNotifyLevel;
   QuietWarnings() { DtNotifyLevel = -1; }
   ~QuietWarnings() { DtNotifyLevel = saved; }
};
}  // namespace

// ============================================================ pure helpers

TEST(DtDisSocketHelpers, AlignedPaddingAndAlignValue)
{
   struct
   {
      unsigned int n, a, padding;
   } const cases[] = {{0, 8, 0},   {1, 8, 7},  {7, 8, 1},      {8, 8, 0},  {100, 8, 4},
                      {144, 8, 0}, {13, 4, 3}, {13, 1, 0},     {13, 0, 0}, {200, 16, 8},
                      {5, 2, 1},   {6, 2, 0},  {1023, 1024, 1}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.n) + " to " + std::to_string(c.a));
      EXPECT_EQ(c.padding, DtDisSocket::alignedPadding(c.n, c.a));
      EXPECT_EQ(c.n + c.padding, DtDisSocket::alignValue(c.n, c.a));
   }
}

TEST(DtDisSocketHelpers, ReceiveAlignmentFollowsProtocolVersion)
{
   OfflineSocket s;
   EXPECT_EQ(0u, s.socket.receiveBundleByteAlignment(5));
   EXPECT_EQ(0u, s.socket.receiveBundleByteAlignment(6));
   EXPECT_EQ(8u, s.socket.receiveBundleByteAlignment(7));
   EXPECT_EQ(8u, s.socket.receiveBundleByteAlignment(255));
}

TEST(DtDisSocketHelpers, AdvanceToOffsetSkipsWholeAndEmptyBuffers)
{
   OfflineSocket s;
   Bytes b0(10), b1(0), b2(5), b3(20);
   DtInetSockChain chain{&b0, &b1, &b2, &b3};
   struct
   {
      unsigned int offset;
      int index;  // 4 is the end
      unsigned int remaining;
   } const cases[] = {{0, 0, 0},  {9, 0, 9},   {10, 0, 10}, {11, 2, 1},   {15, 2, 5},
                      {16, 3, 1}, {35, 3, 20}, {36, 4, 1},  {500, 4, 465}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.offset);
      unsigned int offset = c.offset;
      auto it = s.socket.advanceToOffset(offset, chain.begin(), chain.end());
      EXPECT_EQ(c.index, it - chain.begin());
      EXPECT_EQ(c.remaining, offset);
   }
   // Leading empty buffers are skipped even at offset 0.
   DtInetSockChain leading{&b1, &b1, &b2};
   unsigned int zero = 0;
   EXPECT_EQ(2, s.socket.advanceToOffset(zero, leading.begin(), leading.end()) - leading.begin());
}

TEST(DtDisSocketHelpers, GetPduSizeReadsLengthAtAnyAlignment)
{
   OfflineSocket s;
   for (unsigned int offset = 0; offset < 4; ++offset)
   {
      SCOPED_TRACE(offset);
      Bytes buffer(offset, 0);
      Bytes pdu = makePdu(7, 1, 1, 0x1234 & 0x3FF);
      buffer.insert(buffer.end(), pdu.begin(), pdu.end());
      DtInetSockChain chain{&buffer};
      int status = 0;
      bool coupled = true;
      EXPECT_EQ(0x1234 & 0x3FF, s.socket.getPduSize(buffer.data() + offset, offset, chain.begin(),
                                                    chain.end(), &status, &coupled, false));
      EXPECT_EQ(0, status);
      EXPECT_FALSE(coupled);
   }
}

TEST(DtDisSocketHelpers, GetPduSizeOfSplitHeaderIsZero)
{
   OfflineSocket s;
   Bytes pdu = makePdu(7, 1, 1, 144, DtDisCoupledPduBit);
   for (std::size_t cut = 1; cut < 11; ++cut)
   {
      SCOPED_TRACE(cut);
      Bytes first(pdu.begin(), pdu.begin() + cut), second(pdu.begin() + cut, pdu.end());
      DtInetSockChain chain{&first, &second};
      int status = 0;
      bool coupled = false;
      EXPECT_EQ(0, s.socket.getPduSize(first.data(), 0, chain.begin(), chain.end(), &status,
                                       &coupled, false));
      EXPECT_EQ(0, status);
      // The other fields are still read from the gathered header.
      EXPECT_TRUE(coupled);
   }
   // Eleven bytes in the first buffer are enough for the length.
   Bytes first(pdu.begin(), pdu.begin() + 11), second(pdu.begin() + 11, pdu.end());
   DtInetSockChain chain{&first, &second};
   int status = 0;
   bool coupled = false;
   EXPECT_EQ(144, s.socket.getPduSize(first.data(), 0, chain.begin(), chain.end(), &status,
                                      &coupled, false));
}

TEST(DtDisSocketHelpers, GetPduSizeWhenTheChainEndsInTheHeader)
{
   OfflineSocket s;
   Bytes pdu = makePdu(7, 1, 1, 144);
   Bytes a(pdu.begin(), pdu.begin() + 5), b(pdu.begin() + 5, pdu.begin() + 9);
   DtInetSockChain chain{&a, &b};
   int status = 0;
   bool coupled = true;
   EXPECT_EQ(
       0, s.socket.getPduSize(a.data(), 0, chain.begin(), chain.end(), &status, &coupled, false));
   EXPECT_EQ(DtDisStatusChainTooShort, status);
   EXPECT_FALSE(coupled);

   DtInetSockChain empty;
   status = 0;
   EXPECT_EQ(0,
             s.socket.getPduSize(nullptr, 0, empty.begin(), empty.end(), &status, &coupled, false));
   EXPECT_EQ(DtDisStatusChainTooShort, status);
}

TEST(DtDisSocketHelpers, GetPduSizeCouplingRules)
{
   struct
   {
      unsigned char version, kind, status;
      DtAttributePduStrategy strategy;
      bool mustBeAttribute;
      bool coupled;
      int statusAfter;
   } const cases[] = {
       {7, 1, 0x08, DtAttributePduHonour, false, true, 0},
       {6, 1, 0x08, DtAttributePduHonour, false, true, 0},
       {5, 1, 0x08, DtAttributePduHonour, false, true, 0},
       {6, 1, 0x08, DtAttributePduIgnoreOnVersion6, false, false, 0},
       {5, 1, 0x08, DtAttributePduIgnoreOnVersion6, false, false, 0},
       {7, 1, 0x08, DtAttributePduIgnoreOnVersion6, false, true, 0},
       {7, 1, 0xF7, DtAttributePduHonour, false, false, 0},
       {7, 72, 0x08, DtAttributePduHonour, false, false, 0},
       {7, 72, 0x08, DtAttributePduHonour, true, false, 0},
       {7, 1, 0x00, DtAttributePduHonour, true, false, DtDisStatusNotAttributePdu},
       {7, 1, 0x08, DtAttributePduHonour, true, true, DtDisStatusNotAttributePdu},
   };
   OfflineSocket s;
   int row = 0;
   for (auto const& c : cases)
   {
      SCOPED_TRACE(row++);
      s.socket.setAttributePduStrategy(c.strategy);
      Bytes pdu = makePdu(c.version, 1, c.kind, 40, c.status);
      DtInetSockChain chain{&pdu};
      int status = 0;
      bool coupled = !c.coupled;
      EXPECT_EQ(40, s.socket.getPduSize(pdu.data(), 0, chain.begin(), chain.end(), &status,
                                        &coupled, c.mustBeAttribute));
      EXPECT_EQ(c.coupled, coupled);
      EXPECT_EQ(c.statusAfter, status);
   }
}

TEST(DtDisSocketHelpers, CoupledAttributePduSize)
{
   OfflineSocket s;
   Bytes pdu = makePdu(7, 1, 1, 100, DtDisCoupledPduBit);
   Bytes attribute = makePdu(7, 1, DtDisAttributePduKind, 40);
   Bytes datagram = bundleOf({pdu, attribute}, 8);
   ASSERT_EQ(144u, datagram.size());
   DtInetSockChain chain{&datagram};
   int const rest = static_cast<int>(datagram.size()) - 100;

   int status = 1;
   EXPECT_EQ(40, s.socket.getCoupledAttributePduSize(datagram.data(), 100, chain.begin(),
                                                     chain.end(), &status, 4, rest));
   EXPECT_EQ(1, status);

   // Fewer than padding + 12 bytes left: no attribute, no status.
   status = 1;
   EXPECT_EQ(0, s.socket.getCoupledAttributePduSize(datagram.data(), 100, chain.begin(),
                                                    chain.end(), &status, 4, 15));
   EXPECT_EQ(1, status);

   // The chain ends before the attribute.
   Bytes shortBuffer(datagram.begin(), datagram.begin() + 100);
   DtInetSockChain shortChain{&shortBuffer};
   status = 1;
   EXPECT_EQ(0, s.socket.getCoupledAttributePduSize(shortBuffer.data(), 100, shortChain.begin(),
                                                    shortChain.end(), &status, 4, rest));
   EXPECT_EQ(DtDisStatusChainTooShort, status);

   // A PDU behind that is not an Attribute PDU.
   Bytes other = bundleOf({pdu, makePdu(7, 1, 1, 40)}, 8);
   DtInetSockChain otherChain{&other};
   status = 1;
   EXPECT_EQ(40, s.socket.getCoupledAttributePduSize(other.data(), 100, otherChain.begin(),
                                                     otherChain.end(), &status, 4, rest));
   EXPECT_EQ(DtDisStatusNotAttributePdu, status);
}

// ============================================================ receive callbacks

TEST(DtDisSocketFilters, MinSizeFilter)
{
   OfflineSocket s;
   Bytes buffer(64);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender = udpEndpoint("127.0.0.1", 1);
   EXPECT_EQ(12, s.socket.minPacketSize());
   struct
   {
      int count, result, status;
   } const cases[] = {{11, 0, -2}, {1, 0, -2}, {12, 12, 0}, {0, 0, 0}, {-5, -5, 0}, {64, 64, 0}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.count);
      int status = 0;
      EXPECT_EQ(c.result, s.socket.minSizeFilter(c.count, chain, sender, &status));
      EXPECT_EQ(c.status, status);
   }
   s.socket.setMinPacketSize(20);
   int status = 0;
   EXPECT_EQ(0, s.socket.minSizeFilter(19, chain, sender, &status));
   EXPECT_EQ(-2, status);
}

TEST(DtDisSocketFilters, ElevenByteDatagramIsDroppedAsTooShort)
{
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   Bytes tiny(11, 7);
   driver.network.emplace_back(tiny, udpEndpoint("127.0.0.1", 5000));
   Bytes buffer(1500);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender;
   EXPECT_EQ(DtDisStatusFiltered, driver.read(chain, sender));
}

TEST(DtDisSocketFilters, SelfReflectNeedsAUdpEndpoint)
{
   // Unopened, the local sender endpoint has no protocol and matches nothing.
   DtDisSocket socket(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false,
                      true);
   Bytes buffer(64);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender = socket.localSenderEndpoint();
   int status = 0;
   EXPECT_EQ(64, socket.suppressSelfReflect(64, chain, sender, &status));
   EXPECT_EQ(0, status);
}

TEST(DtDisSocketFilters, EachFilterTestDropsWithStatusMinusTwo)
{
   Bytes pdu = makePdu(7, 3, 1, 144);
   struct
   {
      char const* name;
      DtPduFilterTest& (DtDisSocket::*test)();
      DtPduTestOperator op;
      unsigned int value;
      bool passes;
   } const cases[] = {
       {"version rejected", &DtDisSocket::protocolVersion, DtPduTestRejectListed, 7, false},
       {"version other rejected", &DtDisSocket::protocolVersion, DtPduTestRejectListed, 6, true},
       {"version accepted", &DtDisSocket::protocolVersion, DtPduTestAcceptListed, 7, true},
       {"version not accepted", &DtDisSocket::protocolVersion, DtPduTestAcceptListed, 6, false},
       {"exercise rejected", &DtDisSocket::exerciseId, DtPduTestRejectListed, 3, false},
       {"exercise accepted", &DtDisSocket::exerciseId, DtPduTestAcceptListed, 3, true},
       {"exercise not accepted", &DtDisSocket::exerciseId, DtPduTestAcceptListed, 4, false},
       {"kind rejected", &DtDisSocket::pduKind, DtPduTestRejectListed, 1, false},
       {"kind accepted", &DtDisSocket::pduKind, DtPduTestAcceptListed, 1, true},
       // The address test never compares: reject lists pass all, accept lists fail all.
       {"address reject list", &DtDisSocket::ipAddr, DtPduTestRejectListed, 127, true},
       {"address accept list", &DtDisSocket::ipAddr, DtPduTestAcceptListed, 127, false},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.name);
      OfflineSocket s;
      unsigned int value = c.value;
      (s.socket.*c.test)().setTest(c.op, 1, &value);
      Bytes buffer = pdu;
      DtInetSockChain chain{&buffer};
      DtInetEndpoint sender = udpEndpoint("127.0.0.1", 4000);
      int status = 0;
      int const result = s.socket.filterExercisePdus(144, chain, sender, &status);
      EXPECT_EQ(c.passes ? 144 : 0, result);
      EXPECT_EQ(c.passes ? 0 : DtDisStatusFiltered, status);
   }
}

TEST(DtDisSocketFilters, FilterPassesNonPositiveCountsThrough)
{
   OfflineSocket s;
   unsigned int none = 0;
   s.socket.exerciseId().setTest(DtPduTestAcceptListed, 0, &none);
   Bytes buffer(8);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender;
   int status = -5;
   EXPECT_EQ(0, s.socket.filterExercisePdus(0, chain, sender, &status));
   EXPECT_EQ(-3, s.socket.filterExercisePdus(-3, chain, sender, &status));
   EXPECT_EQ(-5, status);
}

// ============================================================ unbundling

class DtDisSocketUnbundle : public ::testing::TestWithParam<int>
{
};

TEST_P(DtDisSocketUnbundle, BundlesOfOneToEightPdusOfBothVersions)
{
   int const n = GetParam();
   for (unsigned char version : {6, 7})
   {
      SCOPED_TRACE("version " + std::to_string(version));
      unsigned int const alignment = version > 6 ? 8 : 0;
      std::vector<Bytes> pdus;
      for (int i = 0; i < n; ++i)
         pdus.push_back(makePdu(version, 1, static_cast<unsigned char>(1 + i),
                                static_cast<unsigned short>(28 + 13 * i), 0,
                                static_cast<char>('a' + i)));
      Bytes datagram = bundleOf(pdus, alignment);

      OfflineSocket s;
      PipelineDriver driver{s.socket, {}};
      DtInetEndpoint const from = udpEndpoint("127.0.0.9", 4321);
      driver.network.emplace_back(datagram, from);

      for (int i = 0; i < n; ++i)
      {
         SCOPED_TRACE("read " + std::to_string(i));
         Bytes buffer(1500);
         DtInetSockChain chain{&buffer};
         DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
         int const length = driver.read(chain, sender);
         ASSERT_EQ(static_cast<int>(pdus[i].size()), length);
         EXPECT_TRUE(std::equal(pdus[i].begin(), pdus[i].end(), buffer.begin()));
         EXPECT_TRUE(sender == from) << sender.toDtString(true);
         EXPECT_EQ(i == 0 ? 0 : DtDisStatusFromQueue, driver.lastStatus);
         EXPECT_EQ(static_cast<std::size_t>(n - 1 - i), s.socket.queuedPduCount());
      }
   }
}

INSTANTIATE_TEST_SUITE_P(Sizes, DtDisSocketUnbundle, ::testing::Values(1, 2, 3, 5, 8));

TEST(DtDisSocketUnbundling, VersionSixIsPackedAndVersionSevenPadded)
{
   // Version 6: PDUs follow each other with no gap. Reading them with padding
   // would land in the middle of the second PDU.
   Bytes a6 = makePdu(6, 1, 1, 30, 0, 'a'), b6 = makePdu(6, 1, 2, 20, 0, 'b');
   Bytes packed = bundleOf({a6, b6}, 0);
   ASSERT_EQ(50u, packed.size());
   {
      OfflineSocket s;
      PipelineDriver driver{s.socket, {}};
      driver.network.emplace_back(packed, udpEndpoint("127.0.0.2", 1));
      auto read = readAll(driver);
      ASSERT_EQ(2u, read.size());
      EXPECT_EQ(a6, read[0]);
      EXPECT_EQ(b6, read[1]);
   }
   // Version 7: the second PDU starts at the next multiple of 8.
   Bytes a7 = makePdu(7, 1, 1, 30, 0, 'a'), b7 = makePdu(7, 1, 2, 20, 0, 'b');
   Bytes padded = bundleOf({a7, b7}, 8);
   ASSERT_EQ(52u, padded.size());
   {
      OfflineSocket s;
      PipelineDriver driver{s.socket, {}};
      driver.network.emplace_back(padded, udpEndpoint("127.0.0.2", 1));
      auto read = readAll(driver);
      ASSERT_EQ(2u, read.size());
      EXPECT_EQ(a7, read[0]);
      EXPECT_EQ(b7, read[1]);
   }
}

TEST(DtDisSocketUnbundling, EachQueuedPduKeepsTheSenderOfItsBundle)
{
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   DtInetEndpoint const first = udpEndpoint("127.0.0.3", 1111);
   DtInetEndpoint const second = udpEndpoint("127.0.0.4", 2222);
   driver.network.emplace_back(
       bundleOf({makePdu(7, 1, 1, 40), makePdu(7, 1, 2, 40), makePdu(7, 1, 3, 40)}, 8), first);
   driver.network.emplace_back(makePdu(7, 1, 4, 40), second);
   for (int i = 0; i < 4; ++i)
   {
      SCOPED_TRACE(i);
      Bytes buffer(1500);
      DtInetSockChain chain{&buffer};
      DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
      EXPECT_EQ(40, driver.read(chain, sender));
      EXPECT_EQ(i + 1, buffer[2]);
      EXPECT_TRUE(sender == (i < 3 ? first : second));
   }
}

TEST(DtDisSocketUnbundling, ReusedBuffersCarryOnlyTheirOwnPdu)
{
   // Buffers of PDUs already read serve later bundles: sizes that shrink and grow
   // between bundles must not leak bytes of an earlier PDU.
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   std::vector<std::vector<Bytes>> bundles = {
       {makePdu(7, 1, 1, 40, 0, 'a'), makePdu(7, 1, 2, 200, 0, 'b'), makePdu(7, 1, 3, 64, 0, 'c')},
       {makePdu(7, 1, 4, 40, 0, 'd'), makePdu(7, 1, 5, 24, 0, 'e'), makePdu(7, 1, 6, 300, 0, 'f')},
       {makePdu(6, 1, 7, 30, 0, 'g'), makePdu(6, 1, 8, 13, 0, 'h'), makePdu(6, 1, 9, 17, 0, 'i')}};
   for (auto const& pdus : bundles)
      driver.network.emplace_back(bundleOf(pdus, pdus[0][0] > 6 ? 8 : 0),
                                  udpEndpoint("127.0.0.5", 5));
   auto read = readAll(driver);
   ASSERT_EQ(9u, read.size());
   std::size_t i = 0;
   for (auto const& pdus : bundles)
   {
      for (Bytes const& pdu : pdus)
      {
         SCOPED_TRACE(i);
         EXPECT_EQ(pdu, read[i++]);
      }
   }
}

TEST(DtDisSocketUnbundling, TrailingBytesShorterThanAPduAreIgnored)
{
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   Bytes datagram = makePdu(7, 1, 1, 40);
   datagram.resize(40 + 8 + 11, 'z');
   driver.network.emplace_back(datagram, udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(1u, read.size());
   EXPECT_EQ(40u, read[0].size());
   EXPECT_EQ(0u, s.socket.queuedPduCount());
}

TEST(DtDisSocketUnbundling, CoupledAttributePduTravelsWithItsPdu)
{
   QuietWarnings quiet;
   Bytes pdu = makePdu(7, 1, 1, 100, DtDisCoupledPduBit, 'p');
   Bytes attribute = makePdu(7, 1, DtDisAttributePduKind, 40, 0, 'h');
   Bytes next = makePdu(7, 1, 2, 60, 0, 'n');
   Bytes datagram = bundleOf({pdu, attribute, next}, 8);

   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(datagram, udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(2u, read.size());
   // The PDU, its padding and the Attribute PDU come as one read.
   ASSERT_EQ(144u, read[0].size());
   EXPECT_TRUE(std::equal(read[0].begin(), read[0].end(), datagram.begin()));
   EXPECT_EQ(next, read[1]);
}

TEST(DtDisSocketUnbundling, CoupledPduAloneInItsDatagramWarnsAndIsDelivered)
{
   QuietWarnings quiet;
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   Bytes pdu = makePdu(7, 1, 1, 100, DtDisCoupledPduBit);
   driver.network.emplace_back(pdu, udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(1u, read.size());
   EXPECT_EQ(pdu, read[0]);
}

TEST(DtDisSocketUnbundling, CoupledLaterPduLeavesItsAttributePduAsTheNextPdu)
{
   // In the later PDUs of a bundle the coupled Attribute PDU is never joined to
   // its PDU: it comes as a read of its own.
   QuietWarnings quiet;
   Bytes first = makePdu(7, 1, 1, 40, 0, 'f');
   Bytes pdu = makePdu(7, 1, 2, 100, DtDisCoupledPduBit, 'p');
   Bytes attribute = makePdu(7, 1, DtDisAttributePduKind, 40, 0, 'h');
   Bytes datagram = bundleOf({first, pdu, attribute}, 8);

   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(datagram, udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(3u, read.size());
   EXPECT_EQ(first, read[0]);
   // The queued PDU still carries the coupled bit; with nothing behind it in its
   // own buffer, the filter delivers it alone.
   EXPECT_EQ(pdu, read[1]);
   EXPECT_EQ(attribute, read[2]);
}

TEST(DtDisSocketUnbundling, StrategyOneIgnoresCouplingOnVersionSixOnly)
{
   QuietWarnings quiet;
   for (unsigned char version : {6, 7})
   {
      SCOPED_TRACE(int(version));
      unsigned int const alignment = version > 6 ? 8 : 0;
      Bytes pdu = makePdu(version, 1, 1, 100, DtDisCoupledPduBit, 'p');
      Bytes attribute = makePdu(version, 1, DtDisAttributePduKind, 40, 0, 'h');
      OfflineSocket s;
      s.socket.setAttributePduStrategy(DtAttributePduIgnoreOnVersion6);
      PipelineDriver driver{s.socket, {}};
      driver.network.emplace_back(bundleOf({pdu, attribute}, alignment),
                                  udpEndpoint("127.0.0.2", 1));
      auto read = readAll(driver);
      if (version == 6)
      {
         ASSERT_EQ(2u, read.size());
         EXPECT_EQ(pdu, read[0]);
         EXPECT_EQ(attribute, read[1]);
      }
      else
      {
         ASSERT_EQ(1u, read.size());
         EXPECT_EQ(144u, read[0].size());
      }
   }
}

TEST(DtDisSocketUnbundling, CoupledBitWithoutAttributePduBehindIt)
{
   QuietWarnings quiet;
   Bytes pdu = makePdu(7, 1, 1, 100, DtDisCoupledPduBit, 'p');
   Bytes other = makePdu(7, 1, 2, 40, 0, 'o');
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(bundleOf({pdu, other}, 8), udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(2u, read.size());
   EXPECT_EQ(pdu, read[0]);
   EXPECT_EQ(other, read[1]);
}

TEST(DtDisSocketUnbundling, AttributePduIsNeverItselfCoupled)
{
   Bytes attribute = makePdu(7, 1, DtDisAttributePduKind, 40, DtDisCoupledPduBit, 'h');
   Bytes next = makePdu(7, 1, 1, 40, 0, 'n');
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(bundleOf({attribute, next}, 8), udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(2u, read.size());
   EXPECT_EQ(attribute, read[0]);
   EXPECT_EQ(next, read[1]);
}

TEST(DtDisSocketUnbundling, MalformedDatagramsEndInDocumentedStatuses)
{
   QuietWarnings quiet;
   struct
   {
      char const* name;
      Bytes datagram;
      int result;
      std::size_t queued;
   } cases[] = {
       {"length field 0", makePdu(7, 1, 1, 0), 0, 0},
       {"length 0 in a bundle", bundleOf({makePdu(7, 1, 1, 0), makePdu(7, 1, 1, 40)}, 8), 0, 0},
       {"length beyond the datagram",
        []
        {
           Bytes d = makePdu(7, 1, 1, 300);
           d.resize(100);
           return d;
        }(),
        DtDisStatusChainTooShort, 0},
       {"later length beyond the datagram",
        []
        {
           Bytes d = bundleOf({makePdu(7, 1, 1, 44), makePdu(7, 1, 1, 40)}, 8);
           d[48 + 8] = 1;  // second PDU claims 296 bytes
           return d;
        }(),
        44, 0},
       {"later length 0",
        []
        {
           Bytes d = bundleOf({makePdu(7, 1, 1, 44), makePdu(7, 1, 1, 40)}, 8);
           d[48 + 9] = 0;
           return d;
        }(),
        44, 0},
       {"cut padding",
        []
        {
           Bytes d = bundleOf({makePdu(7, 1, 1, 44), makePdu(7, 1, 1, 40)}, 8);
           d.resize(46);  // two of the four padding bytes
           return d;
        }(),
        44, 0},
       {"coupled with a short tail",
        []
        {
           Bytes d = makePdu(7, 1, 1, 100, DtDisCoupledPduBit);
           d.resize(100 + 4 + 10, 'q');
           return d;
        }(),
        100, 0},
       {"coupled attribute claiming too much",
        []
        {
           Bytes d = bundleOf({makePdu(7, 1, 1, 100, DtDisCoupledPduBit),
                               makePdu(7, 1, DtDisAttributePduKind, 40)},
                              8);
           d[104 + 8] = 2;  // the attribute claims 552 bytes
           return d;
        }(),
        100, 0},
   };
   for (auto& c : cases)
   {
      SCOPED_TRACE(c.name);
      OfflineSocket s;
      PipelineDriver driver{s.socket, {}};
      driver.network.emplace_back(c.datagram, udpEndpoint("127.0.0.2", 1));
      Bytes buffer(1500);
      DtInetSockChain chain{&buffer};
      DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
      EXPECT_EQ(c.result, driver.read(chain, sender));
      EXPECT_EQ(c.queued, s.socket.queuedPduCount());
   }
}

TEST(DtDisSocketUnbundling, ScatteredChainsGiveTheSamePdus)
{
   std::vector<Bytes> pdus = {makePdu(7, 1, 1, 44, 0, 'a'), makePdu(7, 1, 2, 60, 0, 'b'),
                              makePdu(7, 1, 3, 36, 0, 'c')};
   Bytes datagram = bundleOf(pdus, 8);
   // Buffer sizes that cut PDU bodies, but not headers, across buffers.
   std::vector<std::vector<std::size_t>> layouts = {
       {1500}, {48, 64, 1388}, {30, 100, 1370}, {20, 0, 80, 0, 1380}, {48, 64, 36}};
   for (auto const& layout : layouts)
   {
      SCOPED_TRACE(layout.size());
      OfflineSocket s;
      PipelineDriver driver{s.socket, {}};
      driver.network.emplace_back(datagram, udpEndpoint("127.0.0.2", 1));
      for (std::size_t i = 0; i < pdus.size(); ++i)
      {
         SCOPED_TRACE(i);
         std::vector<Bytes> buffers;
         for (std::size_t size : layout)
            buffers.emplace_back(size);
         DtInetSockChain chain;
         for (Bytes& b : buffers)
            chain.push_back(&b);
         DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
         ASSERT_EQ(static_cast<int>(pdus[i].size()), driver.read(chain, sender));
         Bytes joined;
         for (Bytes& b : buffers)
            joined.insert(joined.end(), b.begin(), b.end());
         EXPECT_TRUE(std::equal(pdus[i].begin(), pdus[i].end(), joined.begin()));
      }
   }
}

TEST(DtDisSocketUnbundling, HeaderSplitAcrossBuffersEndsTheWalk)
{
   Bytes datagram = bundleOf({makePdu(7, 1, 1, 44), makePdu(7, 1, 2, 40)}, 8);
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(datagram, udpEndpoint("127.0.0.2", 1));
   // The second header starts at 48 and is cut at 53.
   Bytes a(53), b(1000);
   DtInetSockChain chain{&a, &b};
   DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(44, driver.read(chain, sender));
   EXPECT_EQ(0u, s.socket.queuedPduCount());
}

TEST(DtDisSocketUnbundling, QueuedPduTooBigForTheChainIsDropped)
{
   OfflineSocket s;
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(bundleOf({makePdu(7, 1, 1, 40), makePdu(7, 1, 2, 200)}, 8),
                               udpEndpoint("127.0.0.2", 1));
   Bytes big(1500);
   DtInetSockChain chain{&big};
   DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
   ASSERT_EQ(40, driver.read(chain, sender));
   ASSERT_EQ(1u, s.socket.queuedPduCount());

   Bytes small(100);
   DtInetSockChain smallChain{&small};
   int status = 0;
   EXPECT_EQ(0, s.socket.getNextBundle(0, smallChain, sender, &status));
   EXPECT_EQ(DtDisStatusChainTooShort, status);
   EXPECT_EQ(0u, s.socket.queuedPduCount());
}

TEST(DtDisSocketUnbundling, GetNextBundleLeavesOtherMarkersAlone)
{
   OfflineSocket s;
   Bytes buffer(100);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender;
   int status = 0;
   EXPECT_EQ(0, s.socket.getNextBundle(0, chain, sender, &status));
   EXPECT_EQ(0, status);
   status = -3;
   EXPECT_EQ(17, s.socket.getNextBundle(17, chain, sender, &status));
   EXPECT_EQ(-3, status);
}

TEST(DtDisSocketUnbundling, FilteredQueuedPduReadsAsMinusTwo)
{
   OfflineSocket s;
   unsigned int kind = 2;
   s.socket.pduKind().setTest(DtPduTestRejectListed, 1, &kind);
   PipelineDriver driver{s.socket, {}};
   driver.network.emplace_back(
       bundleOf({makePdu(7, 1, 1, 40), makePdu(7, 1, 2, 40), makePdu(7, 1, 3, 40)}, 8),
       udpEndpoint("127.0.0.2", 1));
   auto read = readAll(driver);
   ASSERT_EQ(3u, read.size());
   EXPECT_EQ(40u, read[0].size());
   EXPECT_TRUE(read[1].empty());
   EXPECT_EQ(40u, read[2].size());
}

// ============================================================ set-up and settings

TEST(DtDisSocketSetup, DefaultsAndCallbacks)
{
   DtDisSocket socket(udpEndpoint("127.0.0.1", 3456), 0, nullptr, DtInetSockFlagsDefault, false,
                      false);
   EXPECT_EQ(3456, socket.localPort());
   EXPECT_FALSE(socket.isBundling());
   EXPECT_EQ(0, socket.getMaxBundleSize());
   EXPECT_EQ(8u, socket.sendBundleByteAlignment());
   EXPECT_EQ(12, socket.minPacketSize());
   EXPECT_EQ(DtAttributePduHonour, socket.attributePduStrategy());
   EXPECT_EQ(nullptr, socket.disSendSocket());
   EXPECT_FALSE(socket.isSuppressingSelfReflect());
   // The registered receive callbacks can each be removed once; addToBundle is absent.
   EXPECT_FALSE(socket.removeProcessingCallback(
       DtInetSockPreSend, static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle)));
   EXPECT_FALSE(socket.removeProcessingCallback(
       DtInetSockPostReceive,
       static_cast<DtInetSockProcessingCb>(&DtDisSocket::suppressSelfReflect)));
   EXPECT_TRUE(socket.removeProcessingCallback(
       DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(&DtDisSocket::minSizeFilter)));
   EXPECT_FALSE(socket.removeProcessingCallback(
       DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(&DtDisSocket::minSizeFilter)));
}

TEST(DtDisSocketSetup, SetBundlingRegistersAndRemovesTheCallback)
{
   DtDisSocket socket(udpEndpoint("127.0.0.1", 3456), 0, nullptr, DtInetSockFlagsDefault, false,
                      false);
   socket.setBundling(1400, 7, 9, true);
   EXPECT_TRUE(socket.isBundling());
   EXPECT_EQ(1400, socket.getMaxBundleSize());
   socket.setBundling(1000);
   EXPECT_EQ(1000, socket.getMaxBundleSize());
   socket.setBundling(0);
   EXPECT_FALSE(socket.isBundling());
   EXPECT_FALSE(socket.removeProcessingCallback(
       DtInetSockPreSend, static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle)));

   // setMaxBundleSize alone turns bundling on without the callback.
   socket.setMaxBundleSize(500);
   EXPECT_TRUE(socket.isBundling());
   EXPECT_FALSE(socket.removeProcessingCallback(
       DtInetSockPreSend, static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle)));

   socket.setMaxBundleSize(0);
   socket.setBundling(1400, 0, 0, false);
   EXPECT_TRUE(socket.removeProcessingCallback(
       DtInetSockPreSend, static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle)));
}

TEST(DtDisSocketSetup, AddDestinationRefusesTheOtherFamily)
{
   DtDisSocket v4(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false, false);
   EXPECT_FALSE(v4.addDestination(udpEndpoint("::1", 3000)));
   EXPECT_TRUE(v4.addDestination(udpEndpoint("127.0.0.2", 3000)));
   EXPECT_TRUE(v4.addDestination(udpEndpoint("127.0.0.3", 3000)));
   ASSERT_EQ(2u, v4.additionalDestinations().size());
   EXPECT_TRUE(v4.removeDestination(udpEndpoint("127.0.0.2", 3000)));
   EXPECT_FALSE(v4.removeDestination(udpEndpoint("127.0.0.2", 3000)));
   ASSERT_EQ(1u, v4.additionalDestinations().size());
   EXPECT_TRUE(v4.additionalDestinations()[0] == udpEndpoint("127.0.0.3", 3000));

   DtDisSocket v6(udpEndpoint("::1", 3000), 0, nullptr, DtInetSockFlagsDefault, false, false);
   EXPECT_FALSE(v6.addDestination(udpEndpoint("127.0.0.1", 3000)));
   EXPECT_TRUE(v6.addDestination(udpEndpoint("::1", 3001)));
}

TEST(DtDisSocketSetup, SendSocketOptionsNeedAnOpenSendSocket)
{
   DtDisSocket socket(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false,
                      true);
   ASSERT_NE(nullptr, socket.disSendSocket());
   EXPECT_FALSE(socket.setBroadcastOption(true));
   EXPECT_FALSE(socket.setReuseAddressOption(true));
   EXPECT_FALSE(socket.setSendBufferSize(65536));
   EXPECT_FALSE(socket.setMcastTtlOption(3));
}

// ============================================================ loopback fixture

namespace
{
// A plain receiver on 127.0.0.1 with bounded waits.
class Receiver
{
public:
   Receiver() : mySocket(myContext)
   {
      boost::system::error_code error;
      mySocket.open(boost::asio::ip::udp::v4(), error);
      mySocket.bind(boost::asio::ip::udp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0),
                    error);
      ok = !error;
   }

   unsigned short port() const
   {
      boost::system::error_code error;
      return mySocket.local_endpoint(error).port();
   }

   // The next datagram, or an empty one after `millis` without traffic.
   Bytes receive(int millis = 2000)
   {
      pollfd fd{mySocket.native_handle(), POLLIN, 0};
      if (::poll(&fd, 1, millis) <= 0)
         return Bytes();
      Bytes buffer(65536);
      boost::system::error_code error;
      std::size_t const n = mySocket.receive(boost::asio::buffer(buffer), 0, error);
      buffer.resize(error ? 0 : n);
      return buffer;
   }

   bool ok = false;

private:
   boost::asio::io_context myContext;
   boost::asio::ip::udp::socket mySocket;
};

// Self-reflect suppression on a unicast destination needs the interface named:
// only broadcast and multicast destinations find theirs by themselves.
DtInetDevice loopbackDevice()
{
   return DtInetDevice(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
}

// A socket whose default destination failed its lookup.
struct BadDestinationSocket : DtDisSocket
{
   BadDestinationSocket()
       : DtDisSocket(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false,
                     false)
   {
      myDestination.hostLookup(DtString("nohost.invalid"), 3000, DtInetUtils::DtInetFamilyIPv4);
   }
};

// Reads through a DtDisSocket with a bounded number of polls.
int readPdu(DtDisSocket& socket, Bytes& buffer, DtInetEndpoint& sender, int millis = 2000)
{
   DtInetSockChain chain{&buffer};
   if (socket.queuedPduCount() == 0)
   {
      pollfd fd{socket.receiveDescriptor(), POLLIN, 0};
      if (::poll(&fd, 1, millis) <= 0)
         return 0;
   }
   return socket.recvToChainFrom(chain, sender, 0);
}
}  // namespace

TEST(DtDisSocketLoopback, ReceivesBundleAsOnePduPerRead)
{
   DtDisSocket receiver(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false,
                        false);
   receiver.setLocalPort(0);
   ASSERT_TRUE(receiver.openSocket()) << receiver.getLastErrorString();
   unsigned short const port = receiver.localPort();
   ASSERT_NE(0, port);

   DtDisSocket sender(udpEndpoint("127.0.0.1", port), 0, nullptr, DtInetSockFlagsDefault, false,
                      false);
   sender.setLocalPort(0);
   ASSERT_TRUE(sender.openSocket()) << sender.getLastErrorString();
   sender.setBundling(1400);

   std::vector<Bytes> pdus;
   for (int i = 0; i < 10; ++i)
      pdus.push_back(makePdu(7, 1, 1, static_cast<unsigned short>(100 + i * 4), 0,
                             static_cast<char>('a' + i)));
   for (Bytes& pdu : pdus)
      ASSERT_EQ(static_cast<int>(pdu.size()), sender.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(1u, sender.pendingBundles().size());
   EXPECT_EQ(1, sender.flush());
   EXPECT_TRUE(sender.pendingBundles().empty());

   for (std::size_t i = 0; i < pdus.size(); ++i)
   {
      SCOPED_TRACE(i);
      Bytes buffer(1500);
      DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
      ASSERT_EQ(static_cast<int>(pdus[i].size()), readPdu(receiver, buffer, from));
      EXPECT_TRUE(std::equal(pdus[i].begin(), pdus[i].end(), buffer.begin()));
      EXPECT_EQ(sender.localPort(), from.port());
   }
}

TEST(DtDisSocketLoopback, RecvFromRunsThePipeline)
{
   DtDisSocket receiver(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false,
                        false);
   receiver.setLocalPort(0);
   ASSERT_TRUE(receiver.openSocket());
   DtDisSocket sender(udpEndpoint("127.0.0.1", receiver.localPort()), 0, nullptr,
                      DtInetSockFlagsDefault, false, false);
   sender.setLocalPort(0);
   ASSERT_TRUE(sender.openSocket());

   Bytes datagram = bundleOf({makePdu(6, 2, 1, 30, 0, 'a'), makePdu(6, 2, 2, 30, 0, 'b')}, 0);
   ASSERT_EQ(60, sender.DtInetUdpSocket::send(datagram.data(), datagram.size(), 0));

   pollfd fd{receiver.descriptor(), POLLIN, 0};
   ASSERT_EQ(1, ::poll(&fd, 1, 2000));
   char buffer[100];
   DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(30, receiver.recvFrom(buffer, sizeof buffer, from, 0));
   EXPECT_EQ(1, buffer[2]);
   EXPECT_EQ(30, receiver.recvFrom(buffer, sizeof buffer, from, 0));
   EXPECT_EQ(2, buffer[2]);
}

TEST(DtDisSocketLoopback, BundleSizesAndFlushRules)
{
   Receiver rx;
   ASSERT_TRUE(rx.ok);
   DtDisSocket socket(udpEndpoint("127.0.0.1", rx.port()), 0, nullptr, DtInetSockFlagsDefault,
                      false, false);
   socket.setLocalPort(0);
   ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
   socket.setBundling(1400);

   // 100 and 200 bytes with alignment 8: 100, 4 zero bytes, 200.
   Bytes a = makePdu(7, 1, 1, 100, 0, 'a'), b = makePdu(7, 1, 2, 200, 0, 'b');
   DtInetEndpoint target = udpEndpoint("127.0.0.1", rx.port());
   ASSERT_EQ(100, socket.sendTo(a.data(), a.size(), target, 0));
   ASSERT_EQ(200, socket.sendTo(b.data(), b.size(), target, 0));
   ASSERT_EQ(1u, socket.pendingBundles().size());
   auto const& bundle = socket.pendingBundles().begin()->second;
   EXPECT_EQ(304u, bundle.first);
   ASSERT_EQ(3u, bundle.second.size());
   EXPECT_EQ(Bytes(4, 0), *bundle.second[1]);
   EXPECT_TRUE(rx.receive(100).empty());

   EXPECT_EQ(304, socket.flushBundle(target));
   Bytes got = rx.receive();
   ASSERT_EQ(304u, got.size());
   EXPECT_TRUE(std::equal(a.begin(), a.end(), got.begin()));
   EXPECT_EQ(0, got[100]);
   EXPECT_EQ(0, got[103]);
   EXPECT_TRUE(std::equal(b.begin(), b.end(), got.begin() + 104));
   EXPECT_EQ(0, socket.flushBundle(target));
   EXPECT_EQ(1, socket.flush());

   // A PDU larger than the maximum flushes what is pending and goes out alone.
   socket.setBundling(300);
   Bytes big = makePdu(7, 1, 3, 400, 0, 'c');
   ASSERT_EQ(100, socket.sendTo(a.data(), a.size(), target, 0));
   ASSERT_EQ(400, socket.sendTo(big.data(), big.size(), target, 0));
   EXPECT_EQ(100u, rx.receive().size());
   EXPECT_EQ(400u, rx.receive().size());
   EXPECT_TRUE(socket.pendingBundles().empty());

   // A PDU exactly the maximum is bundled; the next one that would overflow sends it.
   Bytes exact = makePdu(7, 1, 4, 300, 0, 'd');
   ASSERT_EQ(300, socket.sendTo(exact.data(), exact.size(), target, 0));
   EXPECT_EQ(1u, socket.pendingBundles().size());
   EXPECT_TRUE(rx.receive(100).empty());
   Bytes small = makePdu(7, 1, 5, 20, 0, 'e');
   ASSERT_EQ(20, socket.sendTo(small.data(), small.size(), target, 0));
   EXPECT_EQ(300u, rx.receive().size());
   EXPECT_EQ(20u, socket.pendingBundles().begin()->second.first);

   // Turning bundling off keeps what is pending; the next send goes straight out.
   socket.setBundling(0);
   EXPECT_EQ(1u, socket.pendingBundles().size());
   ASSERT_EQ(100, socket.sendTo(a.data(), a.size(), target, 0));
   EXPECT_EQ(100u, rx.receive().size());
   EXPECT_EQ(1, socket.flush());
   EXPECT_EQ(20u, rx.receive().size());
   EXPECT_TRUE(socket.pendingBundles().empty());

   // Buffers of sent bundles are reused: the padding of a new bundle is still zeros.
   socket.setBundling(1400);
   ASSERT_EQ(100, socket.sendTo(a.data(), a.size(), target, 0));
   ASSERT_EQ(200, socket.sendTo(b.data(), b.size(), target, 0));
   EXPECT_EQ(1, socket.flush());
   got = rx.receive();
   ASSERT_EQ(304u, got.size());
   EXPECT_EQ(Bytes(4, 0), Bytes(got.begin() + 100, got.begin() + 104));
   EXPECT_TRUE(std::equal(b.begin(), b.end(), got.begin() + 104));
}

TEST(DtDisSocketLoopback, BundlesAreKeptPerDestinationAndCloseFlushesThem)
{
   Receiver rx1, rx2;
   ASSERT_TRUE(rx1.ok && rx2.ok);
   DtDisSocket socket(udpEndpoint("127.0.0.1", rx1.port()), 0, nullptr, DtInetSockFlagsDefault,
                      false, false);
   socket.setLocalPort(0);
   ASSERT_TRUE(socket.openSocket());
   socket.setBundling(1400);
   socket.setBundleByteAlignment(1);
   ASSERT_TRUE(socket.addDestination(udpEndpoint("127.0.0.1", rx2.port())));

   Bytes pdu = makePdu(6, 1, 1, 45);
   for (int i = 0; i < 3; ++i)
      ASSERT_EQ(45, socket.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(2u, socket.pendingBundles().size());
   for (auto const& entry : socket.pendingBundles())
      EXPECT_EQ(135u, entry.second.first);  // alignment 1 packs them

   EXPECT_TRUE(socket.closeSocket());
   EXPECT_EQ(DtInetSockStateClosed, socket.state());
   EXPECT_EQ(135u, rx1.receive().size());
   EXPECT_EQ(135u, rx2.receive().size());
   EXPECT_TRUE(socket.pendingBundles().empty());
}

TEST(DtDisSocketLoopback, SendWalksEveryDestinationAndReturnsTheLast)
{
   Receiver rx1, rx2, rx3;
   DtDisSocket socket(udpEndpoint("127.0.0.1", rx1.port()), 0, nullptr, DtInetSockFlagsDefault,
                      false, false);
   socket.setLocalPort(0);
   ASSERT_TRUE(socket.openSocket());

   Bytes pdu = makePdu(7, 1, 1, 64);
   ASSERT_TRUE(socket.addDestination(udpEndpoint("127.0.0.1", rx2.port())));
   ASSERT_TRUE(socket.addDestination(udpEndpoint("127.0.0.1", rx3.port())));
   EXPECT_EQ(64, socket.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx2.receive().size());
   EXPECT_EQ(64u, rx3.receive().size());

   DtInetSockChain chain{&pdu};
   EXPECT_EQ(64, socket.sendChain(chain, 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx2.receive().size());
   EXPECT_EQ(64u, rx3.receive().size());
}

TEST(DtDisSocketLoopback, BadAdditionalDestinationDoesNotStopTheWalk)
{
   Receiver rx1, rx2;
   DtDisSocket socket(udpEndpoint("127.0.0.1", rx1.port()), 0, nullptr, DtInetSockFlagsDefault,
                      false, false);
   socket.setLocalPort(0);
   ASSERT_TRUE(socket.openSocket());
   DtInetEndpoint bad(DtString("nohost.invalid"), 3000, DtInetProtocolUdp,
                      DtInetUtils::DtInetFamilyIPv4);
   ASSERT_FALSE(bad.isOk());
   ASSERT_TRUE(socket.addDestination(bad));
   ASSERT_TRUE(socket.addDestination(bad));
   ASSERT_TRUE(socket.addDestination(udpEndpoint("127.0.0.1", rx2.port())));

   Bytes pdu = makePdu(7, 1, 1, 64);
   // The last destination is good, so the result is its byte count.
   EXPECT_EQ(64, socket.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx2.receive().size());
   EXPECT_EQ(89, socket.getLastError());
   std::string const text = socket.getLastErrorString().c_str();
   EXPECT_EQ(0u, text.find("DtDisSocket::send(): Error - additional destination is invalid: "))
       << text;
   EXPECT_NE(std::string::npos, text.find(", ")) << text;
   EXPECT_EQ(DtInetSockStateError, socket.state());

   // With the bad one last, the result is -1.
   socket.removeDestination(udpEndpoint("127.0.0.1", rx2.port()));
   DtInetSockChain chain{&pdu};
   EXPECT_EQ(-1, socket.sendChain(chain, 0));
   EXPECT_EQ(0u,
             std::string(socket.getLastErrorString().c_str())
                 .find("DtDisSocket::sendChain(): Error - additional destination is invalid: "));
}

TEST(DtDisSocketLoopback, BadDefaultDestinationStopsTheWalk)
{
   Receiver rx;
   BadDestinationSocket socket;
   ASSERT_FALSE(socket.destination().isOk());
   ASSERT_TRUE(socket.addDestination(udpEndpoint("127.0.0.1", rx.port())));
   Bytes pdu = makePdu(7, 1, 1, 64);
   EXPECT_EQ(-1, socket.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(89, socket.getLastError());
   EXPECT_EQ(0u, std::string(socket.getLastErrorString().c_str())
                     .find("DtDisSocket::send(): Error - no default destination set: "));
   EXPECT_EQ(DtInetSockStateError, socket.state());
   EXPECT_TRUE(rx.receive(200).empty());
   // The destination stays marked bad: reading the text did not clear it.
   EXPECT_FALSE(socket.destination().isOk());
}

TEST(DtDisSocketLoopback, SelfReflectSuppressionDropsOwnTraffic)
{
   DtDisSocket probe(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false, false);
   probe.setLocalPort(0);
   ASSERT_TRUE(probe.openSocket());
   unsigned short const port = probe.localPort();
   probe.closeSocket();

   // Sends to its own receiving port: its own datagrams come back and are dropped.
   DtInetDevice lo = loopbackDevice();
   DtDisSocket socket(udpEndpoint("127.0.0.1", port), 0, &lo, DtInetSockFlagsDefault, true, true);
   ASSERT_TRUE(socket.isOk()) << socket.getLastErrorString();
   EXPECT_EQ(port, socket.localPort());
   DtInetEndpoint const local = socket.localSenderEndpoint();
   EXPECT_TRUE(local.isUdp());
   EXPECT_NE(0, local.port());
   EXPECT_NE(port, local.port());
   EXPECT_STREQ("127.0.0.1", local.address().toDtString().c_str());

   Bytes pdu = makePdu(7, 1, 1, 64);
   ASSERT_EQ(64, socket.send(pdu.data(), pdu.size(), 0));
   Bytes buffer(1500);
   DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(DtDisStatusOwnTraffic, readPdu(socket, buffer, from));
   EXPECT_TRUE(from == local);

   // Traffic from another socket passes.
   DtDisSocket other(udpEndpoint("127.0.0.1", port), 0, nullptr, DtInetSockFlagsDefault, false,
                     false);
   other.setLocalPort(0);
   ASSERT_TRUE(other.openSocket());
   ASSERT_EQ(64, other.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64, readPdu(socket, buffer, from));
   EXPECT_EQ(other.localPort(), from.port());
}

TEST(DtDisSocketLoopback, UnicastSuppressionWithoutDeviceFailsToOpen)
{
   DtDisSocket socket(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false, true);
   socket.setLocalPort(0);
   EXPECT_FALSE(socket.openSocket());
   EXPECT_EQ(14, socket.getLastError());
   EXPECT_EQ(DtInetSockStateError, socket.state());
   EXPECT_STREQ(
       "DtDisSocket::openSocket(): Could not identify localhost interface for "
       "self-reflect suppression",
       socket.getLastErrorString().c_str());
}

TEST(DtDisSocketLoopback, LocalSenderPortEqualToDestinationIsReplaced)
{
   Receiver rx;
   DtInetDevice lo = loopbackDevice();
   DtDisSocket socket(udpEndpoint("127.0.0.1", rx.port()), rx.port(), &lo, DtInetSockFlagsDefault,
                      false, true);
   socket.setLocalPort(0);
   ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
   EXPECT_NE(rx.port(), socket.localSenderEndpoint().port());
   EXPECT_NE(0, socket.localSenderEndpoint().port());
   EXPECT_TRUE(socket.setBroadcastOption(true));
   EXPECT_TRUE(socket.setSendBufferSize(65536));
}

TEST(DtDisSocketLoopback, AsynchronousSendsDrainAtClose)
{
   Receiver rx;
   ASSERT_TRUE(rx.ok);
   DtInetDevice lo = loopbackDevice();
   DtDisSocket socket(udpEndpoint("127.0.0.1", rx.port()), 0, &lo,
                      DtInetSockFlagsDefault | DtInetSockFlagAsyncSend, false, true);
   socket.setLocalPort(0);
   ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();

   int const count = 200;
   Bytes pdu = makePdu(7, 1, 1, 100);
   for (int i = 0; i < count; ++i)
   {
      pdu[20] = static_cast<char>(i);
      ASSERT_EQ(100, socket.send(pdu.data(), pdu.size(), 0));
   }
   // A chain too, gathered into one datagram by the sender thread.
   Bytes head(pdu.begin(), pdu.begin() + 30), tail(pdu.begin() + 30, pdu.end());
   DtInetSockChain chain{&head, &tail};
   ASSERT_EQ(100, socket.sendChain(chain, 0));
   EXPECT_TRUE(socket.closeSocket());

   // Everything posted before the close has been handed to the system, in order.
   for (int i = 0; i < count; ++i)
   {
      Bytes got = rx.receive();
      ASSERT_EQ(100u, got.size()) << i;
      EXPECT_EQ(static_cast<char>(i), got[20]);
   }
   EXPECT_EQ(100u, rx.receive().size());
}

// ============================================================ multicast in a namespace

TEST(DtDisSocketNamespace, MulticastSelfReflectIsSuppressed)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << reason;
   olt::TestNetns ns;
   if (!ns.ok())
      GTEST_SKIP() << ns.error();
   ASSERT_TRUE(ns.addVethPair("oltdisa", "oltdisb")) << ns.error();
   ASSERT_TRUE(ns.addAddress("oltdisa", "192.0.2.1/24")) << ns.error();
   ASSERT_TRUE(ns.addAddress("oltdisb", "192.0.2.2/24")) << ns.error();
   ASSERT_TRUE(ns.setLinkUp("oltdisa")) << ns.error();
   ASSERT_TRUE(ns.setLinkUp("oltdisb")) << ns.error();
   ASSERT_TRUE(ns.ip({"route", "add", "239.0.0.0/8", "dev", "oltdisa"})) << ns.error();

   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetDevice device(DtString("oltdisa"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk());
   DtInetEndpoint const group = udpEndpoint("239.192.7.7", 3100);
   {
      DtDisSocket socket(group, 0, &device, DtInetSockFlagsDefault, true, true);
      ASSERT_TRUE(socket.isOk()) << socket.getLastErrorString();
      EXPECT_EQ(3100, socket.localPort());
      EXPECT_NE(3100, socket.localSenderEndpoint().port());
      EXPECT_STREQ("192.0.2.1", socket.localSenderEndpoint().address().toDtString().c_str());
      ASSERT_TRUE(socket.setSendMcastDevice(DtInetAddr("192.0.2.1")));

      // A second member of the group on the same host, without suppression.
      DtDisSocket peer(group, 0, &device, DtInetSockFlagsDefault, true, false);
      ASSERT_TRUE(peer.isOk()) << peer.getLastErrorString();

      Bytes pdu = makePdu(7, 1, 1, 64);
      ASSERT_EQ(64, socket.send(pdu.data(), pdu.size(), 0)) << socket.getLastErrorString();

      // The peer sees the datagram; the sender drops its own copy as own traffic.
      Bytes buffer(1500);
      DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
      EXPECT_EQ(64, readPdu(peer, buffer, from));
      EXPECT_TRUE(from == socket.localSenderEndpoint()) << from.toDtString(true);
      EXPECT_EQ(DtDisStatusOwnTraffic, readPdu(socket, buffer, from));

      // What the peer sends reaches the suppressing socket.
      ASSERT_EQ(64, peer.send(pdu.data(), pdu.size(), 0)) << peer.getLastErrorString();
      int result = readPdu(socket, buffer, from);
      EXPECT_EQ(64, result);
      EXPECT_EQ(64, readPdu(peer, buffer, from));  // its own copy: no suppression there
   }
}
