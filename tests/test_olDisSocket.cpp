// Tests of DtDisSocket: the receive pipeline on chains, bundling, destinations,
// self-reflect suppression and the asynchronous send path.
#include <olutil/olDisSocket.h>

#include <poll.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include <gtest/gtest.h>

#include <olutil/olInetAddr.h>
#include <olutil/olInetDevice.h>
#include <olutil/olPrint.h>

#include "support_capture.h"
#include "support_netns.h"

namespace
{
typedef std::vector<char> Bytes;

// A PDU with a valid header; the body holds a marker so that PDUs can be told apart.
Bytes makePdu(unsigned char version, unsigned char exercise, unsigned char kind,
              unsigned short length, unsigned char status = 0, char marker = 'x')
{
   Bytes pdu(std::max<std::size_t>(length, 12), marker);
   char const header[] = {char(version),     char(exercise),      char(kind),   1, 0, 0, 0, 0,
                          char(length >> 8), char(length & 0xFF), char(status), 0};
   std::copy(header, header + 12, pdu.begin());
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

// What a read that gave no PDU stands for in a list of reads.
Bytes drop(int status)
{
   std::string const text = "drop " + std::to_string(status);
   return Bytes(text.begin(), text.end());
}

DtInetEndpoint udpEndpoint(char const* address, unsigned short port)
{
   return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolUdp);
}

// A socket that is never opened: the callbacks are driven by hand.
struct Offline : DtDisSocket
{
   Offline()
       : DtDisSocket(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false,
                     false)
   {
   }
};

// The socket's receive steps in their order, with the network replaced by a list
// of datagrams; `lastStatus` is the status carried out of the last read.
struct Pipeline
{
   Offline socket;
   std::deque<std::pair<Bytes, DtInetEndpoint>> network;
   int lastStatus = 0;

   void feed(Bytes const& datagram, DtInetEndpoint const& from = udpEndpoint("127.0.0.2", 1))
   {
      network.emplace_back(datagram, from);
   }

   int read(DtInetSockChain& chain, DtInetEndpoint& sender)
   {
      int carry = 0;
      int length = socket.getNextBundle(0, chain, sender, &carry);
      if (carry != DtDisStatusFromQueue && !network.empty())
      {
         Bytes const& datagram = network.front().first;
         std::size_t copied = 0;
         for (std::vector<char>* buffer : chain)
         {
            std::size_t const piece = std::min(buffer->size(), datagram.size() - copied);
            std::copy_n(datagram.begin() + copied, piece, buffer->begin());
            copied += piece;
         }
         length = static_cast<int>(datagram.size());
         sender = network.front().second;
         network.pop_front();
      }
      auto step = [&](int result) { length = result == 0 ? carry : result; };
      step(socket.minSizeFilter(length, chain, sender, &carry));
      step(socket.suppressSelfReflect(length, chain, sender, &carry));
      step(socket.unbundle(length, chain, sender, &carry));
      step(socket.filterExercisePdus(length, chain, sender, &carry));
      lastStatus = carry;
      return length;
   }

   // One read into a single buffer; `pdu` gets the bytes read, `from` the sender.
   int read(Bytes* pdu = nullptr, DtInetEndpoint* from = nullptr)
   {
      Bytes buffer(1500);
      DtInetSockChain chain{&buffer};
      DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
      int const length = read(chain, sender);
      if (pdu)
         pdu->assign(buffer.begin(), buffer.begin() + std::max(length, 0));
      if (from)
         *from = sender;
      return length;
   }

   // Reads until nothing is left (at most 64 reads); a drop reads as drop(status).
   std::vector<Bytes> readAll()
   {
      std::vector<Bytes> out;
      for (int i = 0; i < 64; ++i)
      {
         Bytes pdu;
         int const length = read(&pdu);
         if (length == 0 && network.empty() && socket.queuedPduCount() == 0)
            break;
         out.push_back(length > 0 ? pdu : drop(length));
      }
      return out;
   }
};
}  // namespace

// ============================================================ pure helpers

TEST(DtDisSocketHelpers, AlignedPaddingAndAlignValue)
{
   struct
   {
      unsigned int n, a, padding;
   } const cases[] = {{0, 8, 0}, {7, 8, 1}, {8, 8, 0}, {100, 8, 4}, {13, 0, 0}, {1023, 1024, 1}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.n) + " to " + std::to_string(c.a));
      EXPECT_EQ(c.padding, DtDisSocket::alignedPadding(c.n, c.a));
      EXPECT_EQ(c.n + c.padding, DtDisSocket::alignValue(c.n, c.a));
   }
}

TEST(DtDisSocketHelpers, AdvanceToOffsetSkipsWholeAndEmptyBuffers)
{
   Offline s;
   Bytes b0(10), b1(0), b2(5), b3(20);
   DtInetSockChain chain{&b0, &b1, &b2, &b3};
   struct
   {
      unsigned int offset;
      int index;  // 4 is the end
      unsigned int remaining;
   } const cases[] = {{0, 0, 0}, {10, 0, 10}, {11, 2, 1}, {16, 3, 1}, {35, 3, 20}, {36, 4, 1}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.offset);
      unsigned int offset = c.offset;
      EXPECT_EQ(c.index, s.advanceToOffset(offset, chain.begin(), chain.end()) - chain.begin());
      EXPECT_EQ(c.remaining, offset);
   }
   // Leading empty buffers are skipped even at offset 0.
   DtInetSockChain leading{&b1, &b1, &b2};
   unsigned int zero = 0;
   EXPECT_EQ(2, s.advanceToOffset(zero, leading.begin(), leading.end()) - leading.begin());
}

TEST(DtDisSocketHelpers, GetPduSizeAcrossBufferLayouts)
{
   Offline s;
   Bytes const pdu = makePdu(7, 1, 1, 144, DtDisCoupledPduBit);
   struct
   {
      char const* name;
      std::size_t lead;   // bytes before the PDU in the first buffer
      std::size_t cut;    // the first buffer ends here (from the PDU start)
      std::size_t total;  // bytes of the PDU in the chain
      int size, status;
   } const cases[] = {
       {"whole, odd address", 3, 144, 144, 144, 0},
       {"eleven bytes are enough", 0, 11, 144, 144, 0},
       {"split header gives 0 at 10", 0, 10, 144, 0, 0},
       {"chain ends in the header", 0, 5, 9, 0, DtDisStatusChainTooShort},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.name);
      Bytes first(c.lead, 0);
      first.insert(first.end(), pdu.begin(), pdu.begin() + c.cut);
      Bytes second(pdu.begin() + c.cut, pdu.begin() + c.total);
      DtInetSockChain chain{&first, &second};
      int status = 0;
      bool coupled = false;
      EXPECT_EQ(c.size, s.getPduSize(first.data() + c.lead, static_cast<unsigned int>(c.lead),
                                     chain.begin(), chain.end(), &status, &coupled, false));
      EXPECT_EQ(c.status, status);
      EXPECT_EQ(c.status == 0, coupled);
   }
   DtInetSockChain empty;
   int status = 0;
   EXPECT_EQ(0, s.getPduSize(nullptr, 0, empty.begin(), empty.end(), &status, nullptr, false));
   EXPECT_EQ(DtDisStatusChainTooShort, status);
}

TEST(DtDisSocketHelpers, GetPduSizeCouplingRules)
{
   DtAttributePduStrategy const honour = DtAttributePduHonour,
                                ignore6 = DtAttributePduIgnoreOnVersion6;
   struct
   {
      unsigned char version, kind, status;
      DtAttributePduStrategy strategy;
      bool mustBeAttribute, coupled;
      int statusAfter;
   } const cases[] = {
       {7, 1, 0x08, honour, false, true, 0},
       {6, 1, 0x08, honour, false, true, 0},
       {6, 1, 0x08, ignore6, false, false, 0},
       {7, 1, 0x08, ignore6, false, true, 0},
       {7, 1, 0xF7, honour, false, false, 0},
       {7, 72, 0x08, honour, false, false, 0},
       {7, 72, 0x08, honour, true, false, 0},
       {7, 1, 0x00, honour, true, false, DtDisStatusNotAttributePdu},
       {7, 1, 0x08, honour, true, true, DtDisStatusNotAttributePdu},
   };
   Offline s;
   int row = 0;
   for (auto const& c : cases)
   {
      SCOPED_TRACE(row++);
      s.setAttributePduStrategy(c.strategy);
      Bytes pdu = makePdu(c.version, 1, c.kind, 40, c.status);
      DtInetSockChain chain{&pdu};
      int status = 0;
      bool coupled = !c.coupled;
      EXPECT_EQ(40, s.getPduSize(pdu.data(), 0, chain.begin(), chain.end(), &status, &coupled,
                                 c.mustBeAttribute));
      EXPECT_EQ(c.coupled, coupled);
      EXPECT_EQ(c.statusAfter, status);
   }
}

// ============================================================ receive callbacks

TEST(DtDisSocketFilters, MinSizeFilterAndNonPositiveCounts)
{
   Offline s;
   Bytes buffer(64);
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender = udpEndpoint("127.0.0.1", 1);
   EXPECT_EQ(12, s.minPacketSize());
   struct
   {
      int count, result, status;
   } const cases[] = {{11, 0, -2}, {12, 12, 0}, {0, 0, 0}, {-5, -5, 0}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.count);
      int status = 0;
      EXPECT_EQ(c.result, s.minSizeFilter(c.count, chain, sender, &status));
      EXPECT_EQ(c.status, status);
   }
   // Counts of 0 and below pass the exercise filter untouched, even a refusing one.
   unsigned int none = 0;
   s.exerciseId().setTest(DtPduTestAcceptListed, 0, &none);
   int status = -5;
   EXPECT_EQ(0, s.filterExercisePdus(0, chain, sender, &status));
   EXPECT_EQ(-3, s.filterExercisePdus(-3, chain, sender, &status));
   EXPECT_EQ(-5, status);
}

TEST(DtDisSocketFilters, EachFilterTestDropsWithStatusMinusTwo)
{
   Bytes const pdu = makePdu(7, 3, 1, 144);
   struct
   {
      char const* name;
      DtPduFilterTest& (DtDisSocket::*test)();
      DtPduTestOperator op;
      unsigned int value;
      bool passes;
   } const cases[] = {
       {"version rejected", &DtDisSocket::protocolVersion, DtPduTestRejectListed, 7, false},
       {"exercise rejected", &DtDisSocket::exerciseId, DtPduTestRejectListed, 3, false},
       {"exercise accepted", &DtDisSocket::exerciseId, DtPduTestAcceptListed, 3, true},
       {"kind rejected", &DtDisSocket::pduKind, DtPduTestRejectListed, 1, false},
       // The address test never compares: reject lists pass all, accept lists fail all.
       {"address reject list", &DtDisSocket::ipAddr, DtPduTestRejectListed, 127, true},
       {"address accept list", &DtDisSocket::ipAddr, DtPduTestAcceptListed, 127, false},
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.name);
      Offline s;
      unsigned int value = c.value;
      (s.*c.test)().setTest(c.op, 1, &value);
      Bytes buffer = pdu;
      DtInetSockChain chain{&buffer};
      DtInetEndpoint sender = udpEndpoint("127.0.0.1", 4000);
      int status = 0;
      EXPECT_EQ(c.passes ? 144 : 0, s.filterExercisePdus(144, chain, sender, &status));
      EXPECT_EQ(c.passes ? 0 : DtDisStatusFiltered, status);
   }
}

// ============================================================ unbundling

TEST(DtDisSocketUnbundling, BundlesOfOneToEightPdusOfBothVersions)
{
   // One socket for all bundles, each from another sender: queued PDUs keep their own.
   Pipeline p;
   unsigned short port = 4000;
   for (auto [n, version] : {std::pair<int, unsigned char>{1, 7}, {3, 6}, {8, 7}, {2, 6}})
   {
      SCOPED_TRACE(std::to_string(n) + " PDUs of version " + std::to_string(version));
      std::vector<Bytes> pdus;
      for (int i = 0; i < n; ++i)
         pdus.push_back(makePdu(version, 1, static_cast<unsigned char>(1 + i),
                                static_cast<unsigned short>(28 + 13 * i), 0,
                                static_cast<char>('a' + i)));
      DtInetEndpoint const from = udpEndpoint("127.0.0.9", ++port);
      p.feed(bundleOf(pdus, version > 6 ? 8 : 0), from);
      for (int i = 0; i < n; ++i)
      {
         SCOPED_TRACE("read " + std::to_string(i));
         Bytes pdu;
         DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
         ASSERT_EQ(static_cast<int>(pdus[i].size()), p.read(&pdu, &sender));
         EXPECT_EQ(pdus[i], pdu);
         EXPECT_TRUE(sender == from) << sender.toDtString(true);
         EXPECT_EQ(i == 0 ? 0 : DtDisStatusFromQueue, p.lastStatus);
         EXPECT_EQ(static_cast<std::size_t>(n - 1 - i), p.socket.queuedPduCount());
      }
   }
}

TEST(DtDisSocketUnbundling, DatagramsGiveOnePduPerRead)
{
   olt::CapturePrinter quiet(DtWarn);  // the coupled cases warn on purpose
   unsigned char const H = DtDisAttributePduKind, C = DtDisCoupledPduBit;
   Bytes const a7 = makePdu(7, 1, 1, 30, 0, 'a'), b7 = makePdu(7, 1, 2, 20, 0, 'b');
   Bytes const coupled = makePdu(7, 1, 1, 100, C, 'p'), attribute = makePdu(7, 1, H, 40, 0, 'h');
   Bytes const next = makePdu(7, 1, 2, 60, 0, 'n'), p44 = makePdu(7, 1, 1, 44);
   Bytes const joined = bundleOf({coupled, attribute}, 8);  // 100, 4 padding, 40
   Bytes const pair = bundleOf({p44, makePdu(7, 1, 1, 40)}, 8);
   Bytes const plainCoupled = makePdu(7, 1, 1, 100, C);
   Bytes const coupledPair = bundleOf({plainCoupled, makePdu(7, 1, H, 40)}, 8);
   Bytes trailing = makePdu(7, 1, 1, 40);
   trailing.resize(40 + 8 + 11, 'z');
   auto cut = [](Bytes d, std::size_t keep)
   {
      d.resize(keep);
      return d;
   };
   auto patch = [](Bytes d, std::size_t at, char value)
   {
      d[at] = value;
      return d;
   };
   struct
   {
      char const* name;
      std::vector<Bytes> datagrams;
      std::vector<Bytes> reads;
      unsigned int rejectedKind = 0;  // 0: no kind filter
   } const cases[] = {
       // clang-format off
       {"trailing bytes shorter than a PDU", {trailing}, {cut(trailing, 40)}},
       {"coupled Attribute PDU travels with its PDU", {bundleOf({coupled, attribute, next}, 8)}, {joined, next}},
       {"coupled PDU alone", {coupled}, {coupled}},
       {"later coupled PDU leaves its Attribute PDU as the next", {bundleOf({a7, coupled, attribute}, 8)},
        {a7, coupled, attribute}},
       {"coupled bit without Attribute PDU behind", {bundleOf({coupled, next}, 8)}, {coupled, next}},
       {"filtered queued PDU", {bundleOf({a7, b7, p44}, 8)}, {a7, drop(-2), p44}, 2},
       // Malformed datagrams: a status, or the PDUs before the fault, and nothing queued.
       {"length field 0", {makePdu(7, 1, 1, 0)}, {}},
       {"length 0 in a bundle", {bundleOf({makePdu(7, 1, 1, 0), makePdu(7, 1, 1, 40)}, 8)}, {}},
       {"length beyond the datagram", {cut(makePdu(7, 1, 1, 300), 100)}, {drop(DtDisStatusChainTooShort)}},
       {"later length beyond the datagram", {patch(pair, 48 + 8, 1)}, {p44}},  // claims 296 bytes
       {"later length 0", {patch(pair, 48 + 9, 0)}, {p44}},
       {"cut padding", {cut(pair, 46)}, {p44}},
       {"coupled with a short tail", {cut(coupledPair, 114)}, {plainCoupled}},
       {"coupled attribute claiming too much", {patch(coupledPair, 104 + 8, 2)}, {plainCoupled}},  // 552
       // clang-format on
   };
   for (auto const& c : cases)
   {
      SCOPED_TRACE(c.name);
      Pipeline pipeline;
      unsigned int kind = c.rejectedKind;
      if (kind)
         pipeline.socket.pduKind().setTest(DtPduTestRejectListed, 1, &kind);
      for (Bytes const& datagram : c.datagrams)
         pipeline.feed(datagram);
      EXPECT_EQ(c.reads, pipeline.readAll());
   }
}

TEST(DtDisSocketUnbundling, ScatteredChainsGiveTheSamePdus)
{
   std::vector<Bytes> pdus = {makePdu(7, 1, 1, 44, 0, 'a'), makePdu(7, 1, 2, 60, 0, 'b'),
                              makePdu(7, 1, 3, 36, 0, 'c')};
   Bytes datagram = bundleOf(pdus, 8);
   // Buffer sizes that cut PDU bodies, but not headers, across buffers. The last
   // layout cuts the second header (the second buffer starts at 48, the cut is at 53),
   // which ends the walk after the first PDU.
   std::vector<std::vector<std::size_t>> const layouts = {
       {48, 64, 36}, {30, 100, 1370}, {20, 0, 80, 0, 1380}, {53, 1000}};
   for (auto const& layout : layouts)
   {
      SCOPED_TRACE(::testing::PrintToString(layout));
      bool const cutHeader = layout[0] == 53;
      Pipeline p;
      p.feed(datagram);
      for (std::size_t i = 0; i < (cutHeader ? 1 : pdus.size()); ++i)
      {
         SCOPED_TRACE(i);
         std::vector<Bytes> buffers;
         DtInetSockChain chain;
         for (std::size_t size : layout)
            buffers.emplace_back(size);
         for (Bytes& b : buffers)
            chain.push_back(&b);
         DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
         ASSERT_EQ(static_cast<int>(pdus[i].size()), p.read(chain, sender));
         Bytes joined;
         for (Bytes& b : buffers)
            joined.insert(joined.end(), b.begin(), b.end());
         EXPECT_TRUE(std::equal(pdus[i].begin(), pdus[i].end(), joined.begin()));
      }
      EXPECT_EQ(0u, p.socket.queuedPduCount());
   }
}

TEST(DtDisSocketUnbundling, QueuedPduTooBigForTheChainIsDropped)
{
   Pipeline p;
   Bytes buffer(100);
   DtInetSockChain smallChain{&buffer};
   DtInetEndpoint sender = udpEndpoint("0.0.0.0", 0);
   // An empty queue gives 0; a marker already set is left alone.
   int status = 0;
   EXPECT_EQ(0, p.socket.getNextBundle(0, smallChain, sender, &status));
   EXPECT_EQ(0, status);
   status = -3;
   EXPECT_EQ(17, p.socket.getNextBundle(17, smallChain, sender, &status));
   EXPECT_EQ(-3, status);

   p.feed(bundleOf({makePdu(7, 1, 1, 40), makePdu(7, 1, 2, 200)}, 8));
   ASSERT_EQ(40, p.read());
   ASSERT_EQ(1u, p.socket.queuedPduCount());
   status = 0;
   EXPECT_EQ(0, p.socket.getNextBundle(0, smallChain, sender, &status));
   EXPECT_EQ(DtDisStatusChainTooShort, status);
   EXPECT_EQ(0u, p.socket.queuedPduCount());
}

// ============================================================ set-up and settings

TEST(DtDisSocketSetup, DefaultsCallbacksBundlingAndDestinations)
{
   DtDisSocket socket(udpEndpoint("127.0.0.1", 3456), 0, nullptr, DtInetSockFlagsDefault, false,
                      false);
   EXPECT_FALSE(socket.isBundling());
   EXPECT_EQ(8u, socket.sendBundleByteAlignment());
   EXPECT_EQ(DtAttributePduHonour, socket.attributePduStrategy());
   EXPECT_EQ(nullptr, socket.disSendSocket());
   auto const addToBundle = static_cast<DtInetSockProcessingCb>(&DtDisSocket::addToBundle);
   auto const removes = [&](DtInetSockProcessingType type, DtInetSockProcessingCb cb)
   { return socket.removeProcessingCallback(type, cb); };
   // suppressSelfReflect and addToBundle are absent; minSizeFilter is registered once.
   EXPECT_FALSE(removes(DtInetSockPreSend, addToBundle));
   EXPECT_FALSE(removes(DtInetSockPostReceive,
                        static_cast<DtInetSockProcessingCb>(&DtDisSocket::suppressSelfReflect)));
   auto const minSize = static_cast<DtInetSockProcessingCb>(&DtDisSocket::minSizeFilter);
   EXPECT_TRUE(removes(DtInetSockPostReceive, minSize));
   EXPECT_FALSE(removes(DtInetSockPostReceive, minSize));

   // Only the first argument counts; off removes the callback.
   socket.setBundling(1400, 7, 9, true);
   EXPECT_EQ(1400, socket.getMaxBundleSize());
   socket.setBundling(0);
   EXPECT_FALSE(socket.isBundling());
   EXPECT_FALSE(removes(DtInetSockPreSend, addToBundle));
   // setMaxBundleSize alone turns bundling on without the callback.
   socket.setMaxBundleSize(500);
   EXPECT_TRUE(socket.isBundling());
   EXPECT_FALSE(removes(DtInetSockPreSend, addToBundle));
   socket.setMaxBundleSize(0);
   socket.setBundling(1400, 0, 0, false);
   EXPECT_TRUE(removes(DtInetSockPreSend, addToBundle));

   // Destinations of the other address family are refused, both ways.
   EXPECT_FALSE(socket.addDestination(udpEndpoint("::1", 3000)));
   EXPECT_TRUE(socket.addDestination(udpEndpoint("127.0.0.2", 3000)));
   EXPECT_TRUE(socket.addDestination(udpEndpoint("127.0.0.3", 3000)));
   EXPECT_TRUE(socket.removeDestination(udpEndpoint("127.0.0.2", 3000)));
   EXPECT_FALSE(socket.removeDestination(udpEndpoint("127.0.0.2", 3000)));
   ASSERT_EQ(1u, socket.additionalDestinations().size());
   EXPECT_TRUE(socket.additionalDestinations()[0] == udpEndpoint("127.0.0.3", 3000));

   DtDisSocket v6(udpEndpoint("::1", 3000), 0, nullptr, DtInetSockFlagsDefault, false, false);
   EXPECT_FALSE(v6.addDestination(udpEndpoint("127.0.0.1", 3000)));
   EXPECT_TRUE(v6.addDestination(udpEndpoint("::1", 3001)));
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
      mySocket.bind({boost::asio::ip::make_address("127.0.0.1"), 0}, error);
      EXPECT_FALSE(error) << error.message();
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
      buffer.resize(mySocket.receive(boost::asio::buffer(buffer), 0, error));
      return error ? Bytes() : buffer;
   }

private:
   boost::asio::io_context myContext;
   boost::asio::ip::udp::socket mySocket;
};

// Takes ownership of `raw` and opens it on a free local port; null on failure.
template <class Socket>
std::unique_ptr<Socket> opened(Socket* raw)
{
   std::unique_ptr<Socket> socket(raw);
   socket->setLocalPort(0);
   if (socket->openSocket())
      return socket;
   ADD_FAILURE() << socket->getLastErrorString();
   return nullptr;
}

// Sockets towards 127.0.0.1:`port`. The DIS socket is of the class itself, so
// that its reads take the direct path.
std::unique_ptr<DtDisSocket> openDis(unsigned short port, bool suppress = false,
                                     DtInetDevice* device = nullptr,
                                     unsigned int flags = DtInetSockFlagsDefault)
{
   return opened(
       new DtDisSocket(udpEndpoint("127.0.0.1", port), 0, device, flags, false, suppress));
}

std::unique_ptr<DtInetUdpSocket> openUdp(unsigned short port)
{
   return opened(new DtInetUdpSocket(udpEndpoint("127.0.0.1", port), 0, nullptr,
                                     DtInetSockFlagsDefault, false));
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

// Reads through a DtDisSocket, by chain or by plain recvFrom, with a bounded wait.
int readPdu(DtDisSocket& socket, Bytes& buffer, DtInetEndpoint& sender, bool plain = false)
{
   DtInetSockChain chain{&buffer};
   if (socket.queuedPduCount() == 0)
   {
      pollfd fd{socket.receiveDescriptor(), POLLIN, 0};
      if (::poll(&fd, 1, 2000) <= 0)
         return 0;
   }
   return plain ? socket.recvFrom(buffer.data(), buffer.size(), sender, 0)
                : socket.recvToChainFrom(chain, sender, 0);
}
}  // namespace

// A derived class reads through the general callback pipeline; DtDisSocket itself
// calls its own callbacks directly. Both must give the same reads.
struct GeneralPathSocket : DtDisSocket
{
   using DtDisSocket::DtDisSocket;
};

// The last argument of a receive callback is the status word, not the user data.
int theCalls = 0;
int countCalls(DtInetSocket*, int length, DtInetSockChain&, DtInetEndpoint&, void*)
{
   ++theCalls;
   return length;
}

TEST(DtDisSocketLoopback, DirectReadPathGivesThePipelineResults)
{
   olt::CapturePrinter warnings(DtWarn);
   auto direct = openDis(0);
   auto general = opened(new GeneralPathSocket(udpEndpoint("127.0.0.1", 0), 0, nullptr,
                                               DtInetSockFlagsDefault, false, false));
   ASSERT_TRUE(direct && general);
   DtDisSocket* const sockets[] = {direct.get(), general.get()};
   Bytes const coupled = makePdu(7, 1, 1, 100, DtDisCoupledPduBit, 'p');
   Bytes const attribute = makePdu(7, 1, DtDisAttributePduKind, 40, 0, 'h');
   Bytes cut = makePdu(7, 1, 1, 300);
   cut.resize(100);
   std::vector<Bytes> const datagrams = {
       makePdu(7, 1, 1, 144),
       makePdu(6, 1, 2, 13),
       makePdu(7, 1, 9, 40),  // the kind filtered in the second round
       coupled,               // coupled, nothing behind
       bundleOf({coupled, attribute, makePdu(7, 1, 2, 24)}, 8),
       bundleOf({makePdu(6, 1, 1, 30), makePdu(6, 1, 9, 30), makePdu(6, 1, 3, 30)}, 0),
       makePdu(7, 1, 1, 0),
       cut,
       Bytes(5, 'x'),
       makePdu(7, 1, 1, 40, 0, 'z'),
   };
   // Each read: its result, the PDU, and what it warned. The first round has no
   // filter test set, the second one filters a PDU kind.
   std::vector<std::vector<std::tuple<int, std::string, std::string>>> reads(2);
   unsigned int kind = 9;
   for (std::size_t round = 0; round < 4; ++round)
   {
      DtDisSocket& socket = *sockets[round % 2];
      if (round >= 2)
         socket.pduKind().setTest(DtPduTestRejectListed, 1, &kind);
      auto sender = openUdp(socket.localPort());
      ASSERT_TRUE(sender);
      for (Bytes datagram : datagrams)
      {
         ASSERT_EQ(static_cast<int>(datagram.size()),
                   sender->send(datagram.data(), datagram.size(), 0));
         for (int n = 0; n < 10; ++n)
         {
            Bytes buffer(1500);
            DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
            std::size_t const before = warnings.text().size();
            // Every third read takes the plain recvFrom path, fresh or queued.
            int const result = readPdu(socket, buffer, from, reads[round % 2].size() % 3 == 0);
            reads[round % 2].emplace_back(result, std::string(buffer.data(), std::max(result, 0)),
                                          warnings.text().substr(before));
            if (socket.queuedPduCount() == 0)
               break;
         }
      }
   }
   EXPECT_EQ(reads[0], reads[1]);
   EXPECT_EQ(general->totalPacketsReceived(), direct->totalPacketsReceived());
   EXPECT_EQ(general->totalBytesReceived(), direct->totalBytesReceived());
   ASSERT_EQ(26u, reads[0].size());
   EXPECT_EQ(144, std::get<0>(reads[0][0]));
   EXPECT_EQ(40, std::get<0>(reads[0][2]));
   EXPECT_EQ(DtDisStatusFiltered, std::get<0>(reads[0][13 + 2]));
   EXPECT_EQ("Failed to read expected Coupled Attribute PDU\n", std::get<2>(reads[0][3]));

   // Changing a receive list after construction takes effect on the next read.
   theCalls = 0;
   direct->addProcessingCallback(DtInetSockPostReceive, &countCalls, nullptr, 9);
   direct->removeProcessingCallback(DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(
                                                               &DtDisSocket::filterExercisePdus));
   auto sender = openUdp(direct->localPort());
   ASSERT_TRUE(sender);
   Bytes filtered = makePdu(7, 1, 9, 40);
   ASSERT_EQ(40, sender->send(filtered.data(), filtered.size(), 0));
   Bytes buffer(1500);
   DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(40, readPdu(*direct, buffer, from));
   EXPECT_EQ(1, theCalls);
}

TEST(DtDisSocketLoopback, BundleSizesFlushRulesAndClose)
{
   Receiver rx;
   auto socket = openDis(rx.port());
   ASSERT_TRUE(socket);
   socket->setBundling(1400);
   DtInetEndpoint target = udpEndpoint("127.0.0.1", rx.port());
   auto send = [&](Bytes& pdu)
   { return socket->sendTo(pdu.data(), pdu.size(), target, 0) == static_cast<int>(pdu.size()); };

   // 100 and 200 bytes with alignment 8: 100, 4 zero bytes, 200.
   Bytes a = makePdu(7, 1, 1, 100, 0, 'a'), b = makePdu(7, 1, 2, 200, 0, 'b');
   ASSERT_TRUE(send(a) && send(b));
   ASSERT_EQ(1u, socket->pendingBundles().size());
   auto const& bundle = socket->pendingBundles().begin()->second;
   EXPECT_EQ(304u, bundle.first);
   ASSERT_EQ(3u, bundle.second.size());
   EXPECT_EQ(Bytes(4, 0), *bundle.second[1]);
   EXPECT_TRUE(rx.receive(100).empty());
   EXPECT_EQ(304, socket->flushBundle(target));
   Bytes expected = a;
   expected.resize(104, 0);
   expected.insert(expected.end(), b.begin(), b.end());
   EXPECT_EQ(expected, rx.receive());
   EXPECT_EQ(0, socket->flushBundle(target));
   EXPECT_EQ(1, socket->flush());

   // A PDU larger than the maximum flushes what is pending and goes out alone.
   socket->setBundling(300);
   Bytes big = makePdu(7, 1, 3, 400, 0, 'c');
   ASSERT_TRUE(send(a) && send(big));
   EXPECT_EQ(100u, rx.receive().size());
   EXPECT_EQ(400u, rx.receive().size());
   EXPECT_TRUE(socket->pendingBundles().empty());

   // A PDU exactly the maximum is bundled; the next one that would overflow sends it.
   Bytes exact = makePdu(7, 1, 4, 300, 0, 'd'), small = makePdu(7, 1, 5, 20, 0, 'e');
   ASSERT_TRUE(send(exact));
   EXPECT_EQ(1u, socket->pendingBundles().size());
   ASSERT_TRUE(send(small));
   EXPECT_EQ(300u, rx.receive().size());
   EXPECT_EQ(20u, socket->pendingBundles().begin()->second.first);

   // Turning bundling off keeps what is pending; the next send goes straight out.
   socket->setBundling(0);
   EXPECT_EQ(1u, socket->pendingBundles().size());
   ASSERT_TRUE(send(a));
   EXPECT_EQ(100u, rx.receive().size());
   EXPECT_EQ(1, socket->flush());
   EXPECT_EQ(20u, rx.receive().size());
   EXPECT_TRUE(socket->pendingBundles().empty());

   // Bundles are kept per destination, and closing flushes them.
   Receiver rx2;
   ASSERT_TRUE(socket->addDestination(udpEndpoint("127.0.0.1", rx2.port())));
   socket->setBundling(1400);
   socket->setBundleByteAlignment(1);
   Bytes pdu = makePdu(6, 1, 1, 45);
   for (int i = 0; i < 3; ++i)
      ASSERT_EQ(45, socket->send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(2u, socket->pendingBundles().size());
   for (auto const& entry : socket->pendingBundles())
      EXPECT_EQ(135u, entry.second.first);  // alignment 1 packs them
   EXPECT_TRUE(socket->closeSocket());
   EXPECT_EQ(135u, rx.receive().size());
   EXPECT_EQ(135u, rx2.receive().size());
   EXPECT_TRUE(socket->pendingBundles().empty());
}

TEST(DtDisSocketLoopback, SendWalksEveryDestinationAndReturnsTheLast)
{
   Receiver rx1, rx2, rx3;
   auto socket = openDis(rx1.port());
   ASSERT_TRUE(socket);
   Bytes pdu = makePdu(7, 1, 1, 64);
   DtInetSockChain chain{&pdu};
   ASSERT_TRUE(socket->addDestination(udpEndpoint("127.0.0.1", rx2.port())));
   ASSERT_TRUE(socket->addDestination(udpEndpoint("127.0.0.1", rx3.port())));
   EXPECT_EQ(64, socket->send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64, socket->sendChain(chain, 0));
   for (Receiver* rx : {&rx1, &rx2, &rx3})
      for (int i = 0; i < 2; ++i)
         EXPECT_EQ(64u, rx->receive().size());

   // Bad additional destinations do not stop the walk; the last result counts.
   DtInetEndpoint bad(DtString("nohost.invalid"), 3000, DtInetProtocolUdp,
                      DtInetUtils::DtInetFamilyIPv4);
   ASSERT_FALSE(bad.isOk());
   socket->removeDestination(udpEndpoint("127.0.0.1", rx2.port()));
   ASSERT_TRUE(socket->addDestination(bad));
   ASSERT_TRUE(socket->addDestination(bad));
   EXPECT_EQ(-1, socket->sendChain(chain, 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx3.receive().size());
   EXPECT_EQ(89, socket->getLastError());
   EXPECT_EQ(DtInetSockStateError, socket->state());
   std::string text = socket->getLastErrorString().c_str();
   EXPECT_EQ(0u, text.find("DtDisSocket::sendChain(): Error - additional destination is invalid: "))
       << text;
   EXPECT_NE(std::string::npos, text.find(", ")) << text;

   // A bad default destination stops the walk at once.
   BadDestinationSocket badDefault;
   ASSERT_TRUE(badDefault.addDestination(udpEndpoint("127.0.0.1", rx1.port())));
   EXPECT_EQ(-1, badDefault.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(89, badDefault.getLastError());
   text = badDefault.getLastErrorString().c_str();
   EXPECT_EQ(0u, text.find("DtDisSocket::send(): Error - no default destination set: ")) << text;
   EXPECT_TRUE(rx1.receive(200).empty());
   // The destination stays marked bad: reading the text did not clear it.
   EXPECT_FALSE(badDefault.destination().isOk());
}

TEST(DtDisSocketLoopback, SelfReflectSuppressionAndTheSendSocket)
{
   {
      // Suppression towards a unicast destination needs the interface named;
      // only broadcast and multicast destinations find theirs by themselves.
      DtDisSocket socket(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false,
                         true);
      socket.setLocalPort(0);
      EXPECT_FALSE(socket.openSocket());
      EXPECT_EQ(14, socket.getLastError());
      EXPECT_EQ(DtInetSockStateError, socket.state());
      EXPECT_STREQ(
          "DtDisSocket::openSocket(): Could not identify localhost interface for "
          "self-reflect suppression",
          socket.getLastErrorString().c_str());
   }
   unsigned short port = 0;
   {
      auto probe = openDis(0);
      ASSERT_TRUE(probe);
      port = probe->localPort();
   }

   // Sends to its own receiving port: its own datagrams come back and are dropped.
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   DtDisSocket socket(udpEndpoint("127.0.0.1", port), port, &lo, DtInetSockFlagsDefault, false,
                      true);
   // Before opening, the send-socket options fail on the closed send socket.
   ASSERT_NE(nullptr, socket.disSendSocket());
   EXPECT_FALSE(socket.setBroadcastOption(true));
   EXPECT_FALSE(socket.setSendBufferSize(65536));
   ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
   DtInetEndpoint const local = socket.localSenderEndpoint();
   // A local sender port equal to the destination's is replaced by a free one.
   EXPECT_NE(0, local.port());
   EXPECT_NE(port, local.port());
   EXPECT_STREQ("127.0.0.1", local.address().toDtString().c_str());
   EXPECT_TRUE(socket.setBroadcastOption(true));

   Bytes pdu = makePdu(7, 1, 1, 64);
   ASSERT_EQ(64, socket.send(pdu.data(), pdu.size(), 0));
   Bytes buffer(1500);
   DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(DtDisStatusOwnTraffic, readPdu(socket, buffer, from));
   EXPECT_TRUE(from == local);

   // Traffic from another socket passes.
   auto other = openDis(port);
   ASSERT_TRUE(other);
   ASSERT_EQ(64, other->send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64, readPdu(socket, buffer, from));
   EXPECT_EQ(other->localPort(), from.port());

   // A send-socket failure text is the fixed text followed by the system's message
   // (the system refuses a send low watermark on datagram sockets).
   EXPECT_FALSE(socket.setSendLowWatermark(100));
   std::string const text = socket.getLastErrorString().c_str();
   std::string const fixed =
       "DtDisSocket::setSendSockSendLowWatermark(): Error setting send low "
       "watermark to 100 on send socket";
   EXPECT_EQ(0u, text.find(fixed)) << text;
   EXPECT_EQ(std::string::npos, text.find('\n')) << text;
   EXPECT_GT(text.size(), fixed.size()) << text;

   // A hop count beyond 255 is a failure, not an exception.
   bool ttlResult = true;
   EXPECT_NO_THROW(ttlResult = socket.setMcastTtlOption(300));
   EXPECT_FALSE(ttlResult);
   EXPECT_EQ(0u, std::string(socket.getLastErrorString().c_str())
                     .find("DtDisSocket::setSendSockMcastTtl(): Error setting multicast TTL for "
                           "send socket to  300"));
}

TEST(DtDisSocketLoopback, AsynchronousSendsDrainAtClose)
{
   Receiver rx;
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   auto socket = openDis(rx.port(), true, &lo, DtInetSockFlagsDefault | DtInetSockFlagAsyncSend);
   ASSERT_TRUE(socket);

   int const count = 200;
   Bytes pdu = makePdu(7, 1, 1, 100);
   for (int i = 0; i < count; ++i)
   {
      pdu[20] = static_cast<char>(i);
      ASSERT_EQ(100, socket->send(pdu.data(), pdu.size(), 0));
   }
   // A chain too, gathered into one datagram by the sender thread.
   Bytes head(pdu.begin(), pdu.begin() + 30), tail(pdu.begin() + 30, pdu.end());
   DtInetSockChain chain{&head, &tail};
   ASSERT_EQ(100, socket->sendChain(chain, 0));
   EXPECT_TRUE(socket->closeSocket());

   // Everything posted before the close has been handed to the system, in order.
   for (int i = 0; i < count; ++i)
   {
      Bytes got = rx.receive();
      ASSERT_EQ(100u, got.size()) << i;
      EXPECT_EQ(static_cast<char>(i), got[20]);
   }
   EXPECT_EQ(pdu, rx.receive());
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
   ASSERT_TRUE(ns.addAddress("oltdisa", "192.0.2.1/24") &&
               ns.addAddress("oltdisb", "192.0.2.2/24") && ns.setLinkUp("oltdisa") &&
               ns.setLinkUp("oltdisb"))
       << ns.error();
   ASSERT_TRUE(ns.ip({"route", "add", "239.0.0.0/8", "dev", "oltdisa"})) << ns.error();

   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetDevice device(DtString("oltdisa"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk());
   DtInetEndpoint const group = udpEndpoint("239.192.7.7", 3100);
   DtDisSocket socket(group, 0, &device, DtInetSockFlagsDefault, true, true);
   ASSERT_TRUE(socket.isOk()) << socket.getLastErrorString();
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

   // What the peer sends reaches the suppressing socket; the peer gets its own copy.
   ASSERT_EQ(64, peer.send(pdu.data(), pdu.size(), 0)) << peer.getLastErrorString();
   EXPECT_EQ(64, readPdu(socket, buffer, from));
   EXPECT_EQ(64, readPdu(peer, buffer, from));
}
