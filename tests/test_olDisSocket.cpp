// Tests of DtDisSocket: the receive pipeline on chains, bundling, destinations,
// self-reflect suppression and the asynchronous send path.
#include <olutil/olDisSocket.h>

#include <poll.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>

#include <gtest/gtest.h>

#include <olutil/olInetDevice.h>

#include "support_capture.h"
#include "support_netns.h"

namespace
{
typedef std::vector<char> Bytes;
constexpr unsigned int theNonBlocking = DtInetSockFlagsDefault | DtInetSockFlagNonBlocking;

// A PDU of exercise 1 with a valid header; the body holds a marker to tell PDUs apart.
Bytes makePdu(unsigned char version, unsigned char kind, unsigned short length,
              unsigned char status = 0, char marker = 'x')
{
   Bytes pdu(std::max<std::size_t>(length, 12), marker);
   char const header[] = {
       char(version),       char(1),      char(kind), 1, 0, 0, 0, 0, char(length >> 8),
       char(length & 0xFF), char(status), 0};
   std::copy(header, header + 12, pdu.begin());
   return pdu;
}

// Concatenates PDUs, padding each one but the last to `alignment`.
Bytes bundleOf(std::vector<Bytes> const& pdus, unsigned int alignment)
{
   Bytes out;
   for (Bytes const& pdu : pdus)
   {
      if (!out.empty())
         out.resize(DtDisSocket::alignValue(static_cast<unsigned int>(out.size()), alignment), 0);
      out.insert(out.end(), pdu.begin(), pdu.end());
   }
   return out;
}

auto const cut = [](Bytes data, std::size_t keep) { return data.resize(keep), data; };
// A read that gave no PDU, in a list of reads.
auto const drop = [](int status) { return cut(Bytes(30, 'd'), 30 + status); };
auto const udpEndpoint = [](char const* address, unsigned short port)
{ return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolUdp); };

// A derived class: its reads go through the general callback pipeline.
struct Offline : DtDisSocket
{
   using DtDisSocket::DtDisSocket;
};

// A plain receiver on 127.0.0.1 with bounded waits.
struct Receiver
{
   boost::asio::io_context context;
   boost::asio::ip::udp::socket socket{context, {boost::asio::ip::make_address("127.0.0.1"), 0}};

   unsigned short port() const { return socket.local_endpoint().port(); }

   // The next datagram, or an empty one after `millis` without traffic.
   Bytes receive(int millis = 2000)
   {
      pollfd fd{socket.native_handle(), POLLIN, 0};
      Bytes buffer(65536);
      buffer.resize(::poll(&fd, 1, millis) > 0 ? socket.receive(boost::asio::buffer(buffer)) : 0);
      return buffer;
   }
};

// A socket towards 127.0.0.1:`port`, opened on a free local port.
template <class Socket = DtDisSocket>
std::unique_ptr<Socket> openDis(unsigned short port, DtInetDevice* device = nullptr,
                                unsigned int flags = DtInetSockFlagsDefault, bool suppress = false)
{
   auto socket =
       std::make_unique<Socket>(udpEndpoint("127.0.0.1", port), 0, device, flags, false, suppress);
   socket->setLocalPort(0);
   EXPECT_TRUE(socket->openSocket()) << socket->getLastErrorString();
   return socket->isOk() ? std::move(socket) : nullptr;
}

// Receivers that refuse kind 9: a DtDisSocket (its own receive steps called directly)
// and a derived class. Two senders take turns: each read must name its datagram's.
struct Loopback
{
   std::unique_ptr<DtDisSocket> receivers[2] = {openDis(0, nullptr, theNonBlocking),
                                                openDis<Offline>(0, nullptr, theNonBlocking)};
   std::unique_ptr<DtDisSocket> senders[2] = {openDis(0), openDis(0)};
   int turn = 0, reads = 0;

   Loopback()
   {
      static unsigned int kind = 9;
      for (auto& receiver : receivers)
         receiver->pduKind().setTest(DtPduTestRejectListed, 1, &kind);
   }

   // Sends to receiver `r`, reads (2 s poll, 64 at most, every third whole-buffer read a
   // recvFrom) into layouts[n] or the last one until nothing is queued: PDUs or drop().
   std::vector<Bytes> exchange(int r, Bytes datagram,
                               std::vector<std::vector<std::size_t>> const& layouts = {{1500}})
   {
      DtDisSocket &rx = *receivers[r], &tx = *senders[turn ^= 1];
      DtInetEndpoint to = udpEndpoint("127.0.0.1", rx.localPort()), from = to;
      EXPECT_EQ(int(datagram.size()), tx.sendTo(datagram.data(), datagram.size(), to, 0));
      std::vector<Bytes> out;
      pollfd fd{rx.receiveDescriptor(), POLLIN, 0};
      for (std::size_t n = 0;
           n < 64 && (n == 0 ? ::poll(&fd, 1, 2000) > 0 : rx.queuedPduCount() > 0); ++n)
      {
         auto const& layout = layouts[std::min(n, layouts.size() - 1)];
         std::vector<Bytes> buffers(layout.begin(), layout.end());
         DtInetSockChain chain;
         for (Bytes& b : buffers)
            chain.push_back(&b);
         from.setPort(1);  // a PDU read from the queue names its sender too
         int const length = layout.size() == 1 && ++reads % 3 == 0
                                ? rx.recvFrom(buffers[0].data(), layout[0], from, 0)
                                : rx.recvToChainFrom(chain, from, 0);
         if (length > 0 || from.port() != 1)
         {
            EXPECT_EQ(from.port(), tx.localPort()) << n;
         }
         Bytes pdu;
         for (Bytes& b : buffers)
            pdu.insert(pdu.end(), b.begin(), b.end());
         if (length != 0)
            out.push_back(length > 0 ? cut(pdu, length) : drop(length));
      }
      EXPECT_EQ(0u, rx.queuedPduCount());
      return out;
   }
};
}  // namespace

// The header decisions without a network: coupling by version, strategy and status
// bits; the size filter; each filter test reading its own header byte.
TEST(DtDisSocketFilters, CouplingSizeAndFilterTests)
{
   Offline s(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false);
   DtAttributePduStrategy const honour = DtAttributePduHonour,
                                ignore6 = DtAttributePduIgnoreOnVersion6;
   // version, kind, status byte, strategy, must be an Attribute PDU; coupled, status
   for (auto [version, kind, bits, strategy, mustBe, coupled, statusAfter] :
        {std::tuple{6, 1, 0x08, honour, false, true, 0},
         {6, 1, 0x08, ignore6, false, false, 0},
         {7, 1, 0x08, ignore6, false, true, 0},
         {7, 1, 0xF7, honour, false, false, 0},
         {7, 72, 0x08, honour, true, false, 0},
         {7, 1, 0x08, honour, true, true, int(DtDisStatusNotAttributePdu)}})
   {
      SCOPED_TRACE(::testing::Message()
                   << version << ' ' << kind << ' ' << bits << ' ' << strategy);
      s.setAttributePduStrategy(strategy);
      Bytes pdu = makePdu(version, kind, 40, bits);
      DtInetSockChain chain{&pdu};
      int status = 0;
      bool isCoupled = !coupled;
      EXPECT_EQ(
          40, s.getPduSize(pdu.data(), 0, chain.begin(), chain.end(), &status, &isCoupled, mustBe));
      EXPECT_EQ(coupled, isCoupled);
      EXPECT_EQ(statusAfter, status);
   }

   // An offset at a buffer's end stays in it; empty buffers after a move are skipped.
   Bytes ten(10), none, twenty(20);
   DtInetSockChain pieces{&ten, &none, &twenty};
   for (auto [offset, index, left] : {std::tuple{10u, 0, 10u}, {11u, 2, 1u}, {40u, 3, 10u}})
   {
      unsigned int at = offset;
      EXPECT_EQ(index, s.advanceToOffset(at, pieces.begin(), pieces.end()) - pieces.begin());
      EXPECT_EQ(left, at) << offset;
   }

   Bytes buffer = makePdu(7, 1, 144);
   buffer[1] = 3;  // exercise 3
   DtInetSockChain chain{&buffer};
   DtInetEndpoint sender = udpEndpoint("127.0.0.1", 4000);
   // Counts of 0 and below pass untouched.
   for (auto [count, result, statusAfter] :
        {std::tuple{11, 0, -2}, {12, 12, 0}, {0, 0, 0}, {-5, -5, 0}})
   {
      int status = 0;
      EXPECT_EQ(result, s.minSizeFilter(count, chain, sender, &status)) << count;
      EXPECT_EQ(statusAfter, status) << count;
   }
   // The address test never compares, so an accept list fails all.
   using Test = DtPduFilterTest& (DtDisSocket::*)();
   for (auto [test, op, value, passes] :
        {std::tuple<Test, DtPduTestOperator, unsigned int, bool>{&DtDisSocket::protocolVersion,
                                                                 DtPduTestRejectListed, 7, false},
         {&DtDisSocket::exerciseId, DtPduTestAcceptListed, 3, true},
         {&DtDisSocket::pduKind, DtPduTestRejectListed, 1, false},
         {&DtDisSocket::ipAddr, DtPduTestAcceptListed, 127, false}})
   {
      SCOPED_TRACE(value);
      Offline f(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false);
      (f.*test)().setTest(op, 1, &value);
      int status = 0;
      EXPECT_EQ(passes ? 144 : 0, f.filterExercisePdus(144, chain, sender, &status));
      EXPECT_EQ(passes ? 0 : DtDisStatusFiltered, status);
      EXPECT_EQ(-3, f.filterExercisePdus(-3, chain, sender, &status));
   }

   // Nothing pending: the callback form of a flush answers with the chain's size, or
   // with a count of 0 or below as it came.
   for (int count : {5, 0, -2})
      EXPECT_EQ(count > 0 ? 144 : count, DtDisSocket::flushBundle(&s, count, chain, sender, &s));
   // Either family refuses destinations of the other.
   Offline v6(udpEndpoint("::1", 3000), 0, nullptr, DtInetSockFlagsDefault, false);
   EXPECT_FALSE(v6.addDestination(sender));
   EXPECT_TRUE(v6.addDestination(udpEndpoint("::1", 3001)));
}

// Every datagram read directly and through the general pipeline, by chain and plain.
TEST(DtDisSocketLoopback, DatagramsGiveOnePduPerRead)
{
   Loopback loop;
   ASSERT_TRUE(loop.receivers[0] && loop.receivers[1] && loop.senders[0] && loop.senders[1]);
   Bytes const a7 = makePdu(7, 1, 30, 0, 'a'), next = makePdu(7, 2, 60, 0, 'n');
   Bytes const coupled = makePdu(7, 1, 100, DtDisCoupledPduBit, 'p');
   Bytes const attribute = makePdu(7, DtDisAttributePduKind, 40, 0, 'h');
   Bytes const p44 = makePdu(7, 1, 44), pair = bundleOf({p44, makePdu(7, 1, 40)}, 8);
   Bytes trailing = cut(makePdu(7, 1, 40), 40 + 8 + 11), longLength = pair;
   longLength[48 + 8] = 1;  // the second PDU claims 296 bytes
   // Version 6 packs odd lengths without padding, so headers sit at odd addresses.
   std::vector<Bytes> const odd6 = {makePdu(6, 1, 29, 0, 'a'), makePdu(6, 3, 43, 0, 'b'),
                                    makePdu(6, 5, 57, 0, 'c')};
   // Each case: the reads it gives and the warnings they print.
   std::string const w = "Failed to read expected Coupled Attribute PDU\n";
   std::tuple<char const*, Bytes, std::vector<Bytes>, std::string> const cases[] = {
       // clang-format off
       {"three of version 6", bundleOf(odd6, 0), odd6, ""},
       {"the last filtered", bundleOf({a7, next, makePdu(7, 9, 40)}, 8),
        {a7, next, drop(DtDisStatusFiltered)}, ""},
       {"filtered alone", makePdu(7, 9, 40), {drop(DtDisStatusFiltered)}, ""},
       {"trailing bytes shorter than a PDU", trailing, {cut(trailing, 40)}, ""},
       {"first coupled PDU joins its Attribute PDU", bundleOf({coupled, attribute, next}, 8),
        {bundleOf({coupled, attribute}, 8), next}, ""},
       {"coupled PDU alone", coupled, {coupled}, w},
       // A later coupled PDU never joins: the Attribute PDU is read on its own.
       {"later coupled PDU", bundleOf({a7, coupled, attribute}, 8), {a7, coupled, attribute}, w + w},
       // Malformed datagrams: a status, or the PDUs before the fault, and nothing queued.
       {"shorter than a header", Bytes(11, 'x'), {drop(-2)}, ""},
       {"length field 0", makePdu(7, 1, 0), {}, ""},
       {"length beyond the datagram", cut(makePdu(7, 1, 300), 100),
        {drop(DtDisStatusChainTooShort)}, ""},
       {"later length beyond the datagram", longLength, {p44}, ""},
       {"cut padding", cut(pair, 46), {p44}, ""},
       {"coupled with a short tail", cut(bundleOf({coupled, attribute}, 8), 114), {coupled}, w},
       // clang-format on
   };
   for (auto const& [name, datagram, reads, warns] : cases)
      for (int r : {0, 1, 0, 1})
      {
         SCOPED_TRACE(name + std::string(r ? ", general" : ", direct"));
         olt::CapturePrinter warnings(DtWarn);
         EXPECT_EQ(reads, loop.exchange(r, datagram));
         EXPECT_EQ(warns, warnings.text());
      }

   // Cuts in bodies and padding, at a buffer's end, empty buffers; of the second
   // header (at 48) 11 bytes are enough, 10 give size 0 and end the walk. A queued
   // PDU too big for the chain is dropped.
   std::vector<Bytes> const pdus = {makePdu(7, 1, 44, 0, 'a'), makePdu(7, 2, 60, 0, 'b'),
                                    makePdu(7, 3, 36, 0, 'c')};
   std::pair<std::vector<std::vector<std::size_t>>, std::vector<Bytes>> const layouts[] = {
       {{{48, 64, 36}}, pdus},
       {{{30, 100, 1370}}, pdus},
       {{{20, 0, 80, 0, 1380}}, pdus},
       {{{59, 1000}}, pdus},
       {{{58, 1000}}, {pdus[0]}},
       {{{1500}, {50}}, {pdus[0], drop(DtDisStatusChainTooShort), pdus[2]}}};
   for (int r : {0, 1})
      for (auto const& [layout, reads] : layouts)
      {
         SCOPED_TRACE(::testing::PrintToString(layout) + (r ? ", general" : ", direct"));
         EXPECT_EQ(reads, loop.exchange(r, bundleOf(pdus, 8), layout));
      }

   // A receive list changed after construction takes effect on the next read; the
   // last argument of a receive callback is the status word, not the user data.
   static int calls = 0;
   auto const count = [](DtInetSocket*, int n, DtInetSockChain&, DtInetEndpoint&, void*)
   { return ++calls, n; };
   DtDisSocket& direct = *loop.receivers[0];
   direct.addProcessingCallback(DtInetSockPostReceive, count, nullptr, 9);
   direct.removeProcessingCallback(DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(
                                                              &DtDisSocket::filterExercisePdus));
   EXPECT_EQ(std::vector<Bytes>{makePdu(7, 9, 40)}, loop.exchange(0, makePdu(7, 9, 40)));
   // Without the filter's length, unbundling alone leaves out bytes too few for a PDU.
   EXPECT_EQ(std::vector<Bytes>{makePdu(7, 1, 40)}, loop.exchange(0, cut(makePdu(7, 1, 40), 45)));
   EXPECT_EQ(2, calls);
}

// A queued PDU too long for the caller's chain is lost, and that read ends with -4:
// it must neither hide the loss behind the next datagram nor wait for one.
TEST(DtDisSocketLoopback, AQueuedPduTooLongForTheChainEndsTheRead)
{
   Loopback loop;
   ASSERT_TRUE(loop.receivers[0] && loop.receivers[1] && loop.senders[0]);
   std::vector<Bytes> const pdus = {makePdu(7, 1, 44, 0, 'a'), makePdu(7, 2, 60, 0, 'b'),
                                    makePdu(7, 3, 36, 0, 'c')};
   Bytes const later = makePdu(7, 4, 40, 0, 'z');
   for (int r : {0, 1})
   {
      SCOPED_TRACE(r ? "general" : "direct");
      DtDisSocket& rx = *loop.receivers[r];
      DtInetEndpoint to = udpEndpoint("127.0.0.1", rx.localPort()), from = to;
      for (Bytes datagram : {bundleOf(pdus, 8), later})
         ASSERT_EQ(int(datagram.size()),
                   loop.senders[0]->sendTo(datagram.data(), datagram.size(), to, 0));
      std::vector<Bytes> reads;
      for (std::size_t size : {1500, 50, 1500, 1500})
      {
         pollfd fd{rx.receiveDescriptor(), POLLIN, 0};
         if (rx.queuedPduCount() == 0)
         {
            ASSERT_GT(::poll(&fd, 1, 2000), 0);
         }
         Bytes buffer(size);
         DtInetSockChain chain{&buffer};
         int const length = rx.recvToChainFrom(chain, from, 0);
         reads.push_back(length > 0 ? cut(buffer, length) : drop(length));
      }
      EXPECT_EQ((std::vector<Bytes>{pdus[0], drop(DtDisStatusChainTooShort), pdus[2], later}),
                reads);
   }
}

TEST(DtDisSocketLoopback, BundleSizesFlushRulesAndClose)
{
   Receiver rx;
   auto socket = openDis(rx.port());
   ASSERT_TRUE(socket);
   socket->setBundling(1400);
   DtInetEndpoint target = udpEndpoint("127.0.0.1", rx.port());
   auto send = [&](Bytes& pdu)
   { return socket->sendTo(pdu.data(), pdu.size(), target, 0) == int(pdu.size()); };

   // 100 and 200 bytes with alignment 8: 100, 4 zero bytes, 200.
   Bytes a = makePdu(7, 1, 100, 0, 'a'), b = makePdu(7, 2, 200, 0, 'b');
   ASSERT_TRUE(send(a) && send(b));
   EXPECT_TRUE(rx.receive(100).empty());
   EXPECT_EQ(304, socket->flushBundle(target));
   EXPECT_EQ(bundleOf({a, b}, 8), rx.receive());
   EXPECT_EQ(0, socket->flushBundle(target));

   // A PDU larger than the maximum flushes what is pending and goes out alone; one
   // exactly the maximum is bundled, and the next that would overflow sends it.
   socket->setBundling(300);
   Bytes big = makePdu(7, 3, 400, 0, 'c'), exact = makePdu(7, 4, 300, 0, 'd');
   ASSERT_TRUE(send(a) && send(big) && send(exact));
   EXPECT_EQ(a, rx.receive());
   EXPECT_EQ(big, rx.receive());
   EXPECT_TRUE(rx.receive(100).empty());
   ASSERT_TRUE(send(b));
   EXPECT_EQ(exact, rx.receive());
   EXPECT_EQ(1, socket->flush());
   EXPECT_EQ(b, rx.receive());
   // A bundle that reaches the maximum exactly stays one datagram.
   Bytes c96 = makePdu(7, 5, 96, 0, 'e'), c204 = makePdu(7, 6, 204, 0, 'f');
   ASSERT_TRUE(send(c96) && send(c204));
   EXPECT_EQ(1, socket->flush());
   EXPECT_EQ(bundleOf({c96, c204}, 8), rx.receive());
}

// Bad additional destinations do not stop the walk, and the last result counts; a bad
// default destination stops every send at once. A failed lookup keeps the earlier
// address, rx1's: a socket that lost the failure on the way in would be seen sending there.
TEST(DtDisSocketLoopback, DestinationsWhoseLookupFailed)
{
   Receiver rx1, rx2;
   DtInetEndpoint const good = udpEndpoint("127.0.0.1", rx1.port()),
                        second = udpEndpoint("127.0.0.1", rx2.port());
   DtInetEndpoint bad = good;
   std::optional<DtInetEndpoint> additional;
   std::string reason;
   if (!olt::runIsolated(
           [&]
           {
              bad.hostLookup(DtString("nohost.invalid"), 0, DtInetUtils::DtInetFamilyIPv4);
              additional.emplace(DtString("nohost.invalid"), 3000, DtInetProtocolUdp,
                                 DtInetUtils::DtInetFamilyIPv4);
           },
           &reason))
      GTEST_SKIP() << "the failing lookups run where no query can leave the machine: " << reason;
   ASSERT_FALSE(bad.isOk() || additional->isOk());
   Bytes pdu = makePdu(7, 1, 64);
   DtInetSockChain chain{&pdu};

   auto walker = openDis(rx1.port());
   ASSERT_TRUE(walker);
   ASSERT_TRUE(walker->addDestination(second));  // then removed, to be added again
   EXPECT_FALSE(walker->addDestination(udpEndpoint("::1", rx2.port())));  // another family
   walker->removeDestination(second);
   ASSERT_TRUE(walker->addDestination(*additional) && walker->addDestination(second) &&
               walker->addDestination(*additional));
   EXPECT_EQ(-1, walker->sendChain(chain, 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx2.receive().size());
   EXPECT_TRUE(rx2.receive(100).empty());
   EXPECT_EQ(89, walker->getLastError());
   EXPECT_EQ(DtInetSockStateError, walker->state());
   EXPECT_STREQ(
       "DtDisSocket::sendChain(): Error - additional destination is invalid: Host "
       "lookup failed for nohost.invalid, Host lookup failed for nohost.invalid",
       walker->getLastErrorString().c_str());
   // Removing destinations leaves each other one as good or bad as it was; the
   // result is the last destination's, not a sum.
   ASSERT_TRUE(walker->removeDestination(*additional) && walker->removeDestination(*additional));
   EXPECT_EQ(64, walker->sendChain(chain, 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx2.receive().size());

   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   // Through the constructor or setDestination; with and without send socket, bundling.
   for (auto [viaConstructor, suppress, bundle] :
        {std::tuple{true, false, 0}, {true, true, 0}, {false, false, 1400}, {false, true, 0}})
   {
      SCOPED_TRACE(::testing::Message() << viaConstructor << suppress << bundle);
      DtDisSocket socket(viaConstructor ? bad : good, 0, &lo, DtInetSockFlagsDefault, false,
                         suppress);
      socket.setLocalPort(0);
      ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
      ASSERT_TRUE(socket.addDestination(second));
      socket.setBundling(bundle);
      ASSERT_TRUE(viaConstructor || socket.setDestination(bad));
      EXPECT_FALSE(socket.destination().isOk());
      // The endpoint's own message is read from a copy, so every attempt fails alike.
      for (int attempt = 0; attempt < 4; ++attempt)
      {
         bool const chained = attempt % 2;
         EXPECT_EQ(-1, chained ? socket.sendChain(chain, 0) : socket.send(pdu.data(), 64, 0));
         EXPECT_EQ(89, socket.getLastError());
         EXPECT_EQ(
             std::string(chained ? "DtDisSocket::sendChain()" : "DtDisSocket::send()") +
                 ": Error - no default destination set: Host lookup failed for nohost.invalid",
             socket.getLastErrorString().c_str());
         EXPECT_EQ(DtInetSockStateError, socket.state());
      }
      // The walk ended before the additional destination; nothing waits to be bundled.
      EXPECT_TRUE(socket.pendingBundles().empty());
      EXPECT_TRUE(rx1.receive(20).empty());
      EXPECT_TRUE(rx2.receive(20).empty());
   }
}

// 200 PDUs of 20 bytes, each padded to 24 but the last: a pending chain of 399 buffers,
// far past the 64 that Boost.Asio passes to one system call.
TEST(DtDisSocketLoopback, BundlesOfHundredsOfPdusArriveWhole)
{
   Receiver rx;
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   for (auto [suppress, flags] : {std::pair{false, unsigned(DtInetSockFlagsDefault)},
                                  {true, DtInetSockFlagsDefault},
                                  {true, DtInetSockFlagsDefault | DtInetSockFlagAsyncSend}})
   {
      SCOPED_TRACE(::testing::Message() << "suppression " << suppress << ", flags " << flags);
      auto sender = openDis(rx.port(), &lo, flags, suppress);
      ASSERT_TRUE(sender);
      sender->setBundling(65000);
      std::vector<Bytes> pdus;
      for (int i = 0; i < 200; ++i)
      {
         pdus.push_back(makePdu(7, 1, 20, 0, char('a' + i % 26)));
         pdus.back()[4] = static_cast<char>(i);  // the time stamp tells them apart
         ASSERT_EQ(20, sender->send(pdus.back().data(), 20, 0)) << i;
      }
      ASSERT_EQ(1u, sender->pendingBundles().size());
      EXPECT_EQ(399u, sender->pendingBundles().begin()->second.second.size());
      EXPECT_EQ(200u * 24 - 4, sender->pendingBundles().begin()->second.first);
      EXPECT_EQ(1, sender->flush()) << sender->getLastErrorString();
      EXPECT_TRUE(sender->pendingBundles().empty());
      // A later bundle is the next datagram: the first is not sent again. Closing
      // sends what the background sender still holds.
      Bytes last = makePdu(7, 2, 20, 0, 'z');
      ASSERT_EQ(20, sender->send(last.data(), 20, 0));
      EXPECT_TRUE(sender->closeSocket());
      EXPECT_EQ(DtInetSockStateClosed, sender->state());
      EXPECT_EQ(bundleOf(pdus, 8), rx.receive());
      EXPECT_EQ(last, rx.receive());
   }
}

// Unicast self-reflect suppression on loopback: the interface must be named, and a
// socket that sends to its own receiving port drops what it sent, not what others send,
// read directly and through the general pipeline of a derived class.
TEST(DtDisSocketLoopback, SelfReflectSuppressionDropsOwnUnicastOnly)
{
   DtDisSocket unnamed(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false,
                       true);
   EXPECT_FALSE(unnamed.openSocket());
   EXPECT_EQ(14, unnamed.getLastError());
   EXPECT_STREQ(
       "DtDisSocket::openSocket(): Could not identify localhost interface for "
       "self-reflect suppression",
       unnamed.getLastErrorString().c_str());

   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   for (bool general : {false, true})
   {
      SCOPED_TRACE(general ? "general" : "direct");
      auto other = openDis(0);
      ASSERT_TRUE(other);
      unsigned short const port = other->localPort();
      other->closeSocket();
      DtInetEndpoint const destination = udpEndpoint("127.0.0.1", port);
      std::unique_ptr<DtDisSocket> socket =
          general ? std::make_unique<Offline>(destination, port, &lo, DtInetSockFlagsDefault, false,
                                              true)
                  : std::make_unique<DtDisSocket>(destination, port, &lo, DtInetSockFlagsDefault,
                                                  false, true);
      ASSERT_TRUE(socket->openSocket()) << socket->getLastErrorString();
      DtInetEndpoint const local = socket->localSenderEndpoint();
      EXPECT_NE(port, local.port()) << "a sender port equal to the destination's is replaced";
      auto readOne = [&socket](DtInetEndpoint& from)
      {
         pollfd fd{socket->receiveDescriptor(), POLLIN, 0};
         Bytes buffer(1500);
         DtInetSockChain chain{&buffer};
         return ::poll(&fd, 1, 2000) > 0 ? socket->recvToChainFrom(chain, from, 0) : -99;
      };
      Bytes pdu = makePdu(7, 1, 64);
      DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
      ASSERT_EQ(64, socket->send(pdu.data(), pdu.size(), 0));
      EXPECT_EQ(DtDisStatusOwnTraffic, readOne(from));
      EXPECT_TRUE(from == local) << from.toDtString(true);
      // The same address from another port is someone else.
      other = openDis(port);
      ASSERT_TRUE(other);
      ASSERT_EQ(64, other->send(pdu.data(), pdu.size(), 0));
      EXPECT_EQ(64, readOne(from));
      EXPECT_EQ(other->localPort(), from.port());
   }
}

// Three hosts (see olt::TestHosts), sockets opened inside one by on(); exact counts.
class DtDisSocketHosts : public olt::HostsTest
{
protected:
   using Counts = std::map<int, int>;

   static DtInetEndpoint group(bool ipv6, unsigned short port)
   {
      return udpEndpoint(ipv6 ? "ff15::7:1" : "239.7.0.1", port);
   }

   // A socket opened inside `host`, on `device` ("" for none).
   std::unique_ptr<DtDisSocket> on(int host, DtInetEndpoint const& destination,
                                   bool suppress = false, std::string const& device = "")
   {
      olt::NetnsGuard inside(myHosts->host(host));
      auto socket = std::make_unique<DtDisSocket>(destination, 0, olt::ipv4Device(device).get(),
                                                  theNonBlocking, true, suppress);
      EXPECT_TRUE(inside.ok() && socket->isOk()) << inside.error() << socket->getLastErrorString();
      return socket;
   }

   static void sendPdus(DtDisSocket& socket, int count)
   {
      Bytes pdu = makePdu(7, 1, 100);
      for (int i = 0; i < count; ++i)
         ASSERT_EQ(100, socket.send(pdu.data(), pdu.size(), 0)) << socket.getLastErrorString();
      ASSERT_GE(socket.flush(), 0);
   }

   // Results of the reads until none has come for a while: result -> count.
   static Counts drain(DtDisSocket& socket)
   {
      Bytes buffer(1500);
      DtInetEndpoint from;
      return olt::drain([&] { return socket.recvFrom(buffer.data(), 1500, from, 0); });
   }

   static Counts pdus(int count) { return count ? Counts{{100, count}} : Counts{}; }
};

// One group, bundled or not: a suppressing socket without a device drops its own
// datagrams only (a bundle of 13 PDUs is one), the others hear every PDU.
TEST_F(DtDisSocketHosts, MulticastReachesEveryMemberAndSuppressionDropsOwnOnly)
{
   for (bool ipv6 : {false, true})
      for (int bundle : {0, 1400})
      {
         SCOPED_TRACE(std::string(ipv6 ? "IPv6" : "IPv4") + " bundle " + std::to_string(bundle));
         auto suppressing = on(0, group(ipv6, 3320), true);
         auto peer = on(1, group(ipv6, 3320));
         auto watcher = on(2, group(ipv6, 3320));
         EXPECT_EQ(suppressing->localSenderEndpoint().address().toDtString().stdString(),
                   olt::TestHosts::address(0, 0, ipv6));
         suppressing->setBundling(bundle);
         peer->setBundling(bundle);
         sendPdus(*suppressing, 20);
         sendPdus(*peer, 30);
         EXPECT_EQ(drain(*suppressing),
                   (Counts{{100, 30}, {DtDisStatusOwnTraffic, bundle ? 2 : 20}}));
         EXPECT_EQ(drain(*peer), pdus(50));  // its own included
         EXPECT_EQ(drain(*watcher), pdus(50));
         // A hop count beyond 255 is a failure, not an exception; note the two blanks.
         EXPECT_FALSE(suppressing->setMcastTtlOption(300));
         EXPECT_EQ(0u, std::string(suppressing->getLastErrorString().c_str())
                           .find("DtDisSocket::setSendSockMcastTtl(): Error setting multicast "
                                 "TTL for send socket to  300"));
      }
}

TEST_F(DtDisSocketHosts, BroadcastReachesTheHostsOfItsSegmentOnly)
{
   auto broadcast = [](char const* address, unsigned short port)
   { return DtInetEndpoint(DtInetAddr(address, "255.255.255.0"), port, DtInetProtocolUdp); };
   // Hosts 1 and 2 share segment 0 with host 0; host 2 is not on segment 1.
   auto first = on(1, broadcast("10.77.0.255", 3310));
   auto second = on(2, broadcast("10.77.0.255", 3310));
   auto onSegment1 = on(0, broadcast("10.78.0.255", 3311));
   auto offSegment1 = on(2, broadcast("10.78.0.255", 3311));
   sendPdus(*on(0, broadcast("10.77.0.255", 3310)), 30);
   sendPdus(*on(1, broadcast("10.78.0.255", 3311)), 20);
   EXPECT_EQ(drain(*first), pdus(30));
   EXPECT_EQ(drain(*second), pdus(30));
   EXPECT_EQ(drain(*onSegment1), pdus(20));
   EXPECT_EQ(drain(*offSegment1), pdus(0));
}

// A device on the second interface sends the group's PDUs out of it, from the send
// socket of suppression as from the socket itself.
TEST_F(DtDisSocketHosts, GroupTrafficLeavesByTheChosenInterface)
{
   for (bool ipv6 : {false, true})
      for (bool suppress : {false, true})
      {
         SCOPED_TRACE(std::string(ipv6 ? "IPv6" : "IPv4") + (suppress ? " suppressing" : ""));
         auto onSegment1 = on(1, group(ipv6, 3330), false, olt::TestHosts::device(1));
         auto onSegment0 = on(2, group(ipv6, 3330));
         sendPdus(*on(0, group(ipv6, 3330), suppress, olt::TestHosts::device(1)), 25);
         EXPECT_EQ(drain(*onSegment1), pdus(25));
         EXPECT_EQ(drain(*onSegment0), pdus(0));
      }
}

// Without a device, IPv6 multicast with suppression sends from the first interface
// that is up, multicast-capable and not loopback (here the search by scope finds
// none: the interfaces have link-local addresses only); with loopback alone it
// refuses to open rather than send into nothing.
TEST(DtDisSocketNamespace, Ipv6SuppressionNeverSendsFromLoopbackUnlessItCan)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << reason;
   olt::TestNetns linkLocal, loopbackOnly;
   ASSERT_TRUE(linkLocal.ok() && loopbackOnly.ok()) << linkLocal.error() << loopbackOnly.error();
   ASSERT_TRUE(linkLocal.sh(
       "set -e; for d in 0 2; do\n"
       "  ip link add oltll$d type veth peer name oltll$((d + 1))\n"
       "  ip link set oltll$d addrgenmode none; ip link set oltll$((d + 1)) addrgenmode none\n"
       "  ip -6 address add fe80::1$d/64 dev oltll$d nodad; done\n"
       "ip link set oltll2 up; ip link set oltll3 up\n"))
       << linkLocal.error();
   DtInetEndpoint const group = udpEndpoint("ff15::7:2", 3340);
   {
      olt::NetnsGuard inside(linkLocal);
      ASSERT_TRUE(inside.ok()) << inside.error();
      DtDisSocket socket(group, 0, nullptr, theNonBlocking, true, true);
      ASSERT_TRUE(socket.isOk()) << socket.getLastErrorString();
      // oltll0 comes first but is down; the address carries its interface.
      EXPECT_EQ(socket.localSenderEndpoint().address().toDtString().stdString(), "fe80::12%oltll2");
   }

   olt::NetnsGuard inside(loopbackOnly);
   ASSERT_TRUE(inside.ok()) << inside.error();
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   for (DtInetDevice* device : {static_cast<DtInetDevice*>(nullptr), &lo})
   {
      SCOPED_TRACE(device ? "lo" : "no device");
      DtDisSocket socket(group, 0, device, theNonBlocking, true, true);
      EXPECT_EQ(14, socket.getLastError());
      EXPECT_EQ(DtInetSockStateError, socket.state());
      EXPECT_STREQ(
          "DtDisSocket::openSocket(): Could not identify a non-loopback interface for "
          "self-reflect suppression: IPv6 multicast to ff15::7:2 sent from ::1 reaches no "
          "host; give the device to send from",
          socket.getLastErrorString().c_str());
   }
   // An interface-local group never leaves the host anyway.
   DtDisSocket local(udpEndpoint("ff01::7:2", 3340), 0, nullptr, theNonBlocking, true, true);
   EXPECT_TRUE(local.isOk()) << local.getLastErrorString();
}
