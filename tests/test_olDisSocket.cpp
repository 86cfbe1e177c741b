// Tests of DtDisSocket: the receive pipeline on chains, bundling, destinations,
// self-reflect suppression and the asynchronous send path.
#include <olutil/olDisSocket.h>

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <thread>
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
   for (Bytes const& pdu : pdus)
   {
      if (!out.empty())
         out.resize(DtDisSocket::alignValue(static_cast<unsigned int>(out.size()), alignment), 0);
      out.insert(out.end(), pdu.begin(), pdu.end());
   }
   return out;
}

// A read that gave no PDU, in a list of reads.
Bytes drop(int status)
{
   std::string const text = "drop " + std::to_string(status);
   return Bytes(text.begin(), text.end());
}

Bytes cut(Bytes data, std::size_t keep)
{
   data.resize(keep);
   return data;
}

DtInetEndpoint udpEndpoint(char const* address, unsigned short port)
{
   return DtInetEndpoint(DtInetAddr(address), port, DtInetProtocolUdp);
}

// A socket never opened, its default destination maybe one that failed its lookup.
struct Offline : DtDisSocket
{
   using DtDisSocket::DtDisSocket;
   explicit Offline(bool badDestination = false)
       : DtDisSocket(udpEndpoint("127.0.0.1", 3000), 0, nullptr, DtInetSockFlagsDefault, false)
   {
      if (badDestination)
         myDestination.hostLookup(DtString("nohost.invalid"), 3000, DtInetUtils::DtInetFamilyIPv4);
   }
};

// The socket's receive steps in their order, the network replaced by a datagram list.
struct Pipeline
{
   Offline socket;
   std::deque<std::pair<Bytes, DtInetEndpoint>> network;
   int lastStatus = 0;
   DtInetEndpoint lastSender = udpEndpoint("0.0.0.0", 0);

   void feed(Bytes const& datagram, DtInetEndpoint const& from = udpEndpoint("127.0.0.2", 1))
   {
      network.emplace_back(datagram, from);
   }

   // One read into buffers of the given sizes; `pdu` gets the buffers joined.
   int read(Bytes& pdu, std::vector<std::size_t> const& layout = {1500})
   {
      std::vector<Bytes> buffers(layout.begin(), layout.end());
      DtInetSockChain chain;
      for (Bytes& b : buffers)
         chain.push_back(&b);
      DtInetEndpoint& sender = lastSender = udpEndpoint("0.0.0.0", 0);
      int carry = 0;
      int length = socket.getNextBundle(0, chain, sender, &carry);
      if (carry != DtDisStatusFromQueue && !network.empty())
      {
         Bytes const& datagram = network.front().first;
         std::size_t copied = 0;
         for (Bytes& b : buffers)
            copied += std::copy_n(datagram.begin() + copied,
                                  std::min(b.size(), datagram.size() - copied), b.begin()) -
                      b.begin();
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
      pdu.clear();
      for (Bytes& b : buffers)
         pdu.insert(pdu.end(), b.begin(), b.end());
      pdu.resize(std::max(length, 0));
      return length;
   }

   // Reads until nothing is left (at most 64 reads); empty reads are not listed.
   std::vector<Bytes> readAll()
   {
      std::vector<Bytes> out;
      for (int i = 0; i < 64 && (!network.empty() || socket.queuedPduCount() > 0); ++i)
      {
         Bytes pdu;
         if (int const length = read(pdu))
            out.push_back(length > 0 ? pdu : drop(length));
      }
      return out;
   }
};
}  // namespace

TEST(DtDisSocketFilters, CouplingSizeAndFilterTests)
{
   Offline s;
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
      Bytes pdu = makePdu(version, 1, kind, 40, bits);
      DtInetSockChain chain{&pdu};
      int status = 0;
      bool isCoupled = !coupled;
      EXPECT_EQ(
          40, s.getPduSize(pdu.data(), 0, chain.begin(), chain.end(), &status, &isCoupled, mustBe));
      EXPECT_EQ(coupled, isCoupled);
      EXPECT_EQ(statusAfter, status);
   }

   Bytes buffer = makePdu(7, 3, 1, 144);
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
   // Each test reads its own header byte; the address test never compares, so
   // an accept list fails all.
   using Test = DtPduFilterTest& (DtDisSocket::*)();
   for (auto [test, op, value, passes] :
        {std::tuple<Test, DtPduTestOperator, unsigned int, bool>{&DtDisSocket::protocolVersion,
                                                                 DtPduTestRejectListed, 7, false},
         {&DtDisSocket::exerciseId, DtPduTestAcceptListed, 3, true},
         {&DtDisSocket::pduKind, DtPduTestRejectListed, 1, false},
         {&DtDisSocket::ipAddr, DtPduTestAcceptListed, 127, false}})
   {
      SCOPED_TRACE(value);
      Offline f;
      (f.*test)().setTest(op, 1, &value);
      int status = 0;
      EXPECT_EQ(passes ? 144 : 0, f.filterExercisePdus(144, chain, sender, &status));
      EXPECT_EQ(passes ? 0 : DtDisStatusFiltered, status);
      EXPECT_EQ(-3, f.filterExercisePdus(-3, chain, sender, &status));
   }
}

TEST(DtDisSocketUnbundling, QueuedPdusKeepTheirOwnSender)
{
   Pipeline p;
   // Version 6 packs odd lengths without padding, so headers sit at odd addresses.
   for (auto [n, version] : {std::pair<int, unsigned char>{1, 7}, {3, 6}, {8, 7}, {2, 6}})
   {
      SCOPED_TRACE(std::to_string(n) + " PDUs of version " + std::to_string(version));
      std::vector<Bytes> pdus;
      for (int i = 0; i < n; ++i)
         pdus.push_back(makePdu(version, 1, static_cast<unsigned char>(1 + i),
                                static_cast<unsigned short>(28 + 13 * i), 0, char('a' + i)));
      DtInetEndpoint const from = udpEndpoint("127.0.0.9", static_cast<unsigned short>(4000 + n));
      p.feed(bundleOf(pdus, version > 6 ? 8 : 0), from);
      for (int i = 0; i < n; ++i)
      {
         Bytes pdu;
         ASSERT_EQ(static_cast<int>(pdus[i].size()), p.read(pdu)) << i;
         EXPECT_EQ(pdus[i], pdu) << i;
         EXPECT_TRUE(p.lastSender == from) << p.lastSender.toDtString(true);
         EXPECT_EQ(i == 0 ? 0 : DtDisStatusFromQueue, p.lastStatus);
         EXPECT_EQ(static_cast<std::size_t>(n - 1 - i), p.socket.queuedPduCount());
      }
   }
}

TEST(DtDisSocketUnbundling, DatagramsGiveOnePduPerRead)
{
   unsigned char const H = DtDisAttributePduKind, C = DtDisCoupledPduBit;
   Bytes const a7 = makePdu(7, 1, 1, 30, 0, 'a'), next = makePdu(7, 1, 2, 60, 0, 'n');
   Bytes const coupled = makePdu(7, 1, 1, 100, C, 'p'), attribute = makePdu(7, 1, H, 40, 0, 'h');
   Bytes const p44 = makePdu(7, 1, 1, 44), pair = bundleOf({p44, makePdu(7, 1, 1, 40)}, 8);
   Bytes trailing = cut(makePdu(7, 1, 1, 40), 40 + 8 + 11);
   Bytes longLength = pair;
   longLength[48 + 8] = 1;  // the second PDU claims 296 bytes
   std::tuple<char const*, Bytes, std::vector<Bytes>, bool> const cases[] = {
       // clang-format off
       {"trailing bytes shorter than a PDU", trailing, {cut(trailing, 40)}, false},
       {"first coupled PDU joins its Attribute PDU", bundleOf({coupled, attribute, next}, 8),
        {bundleOf({coupled, attribute}, 8), next}, false},
       {"coupled PDU alone", coupled, {coupled}, true},
       // A later coupled PDU never joins: the Attribute PDU is read on its own.
       {"later coupled PDU", bundleOf({a7, coupled, attribute}, 8), {a7, coupled, attribute}, true},
       // Malformed datagrams: a status, or the PDUs before the fault, and nothing queued.
       {"length field 0", makePdu(7, 1, 1, 0), {}, false},
       {"length beyond the datagram", cut(makePdu(7, 1, 1, 300), 100),
        {drop(DtDisStatusChainTooShort)}, false},
       {"later length beyond the datagram", longLength, {p44}, false},
       {"cut padding", cut(pair, 46), {p44}, false},
       {"coupled with a short tail", cut(bundleOf({coupled, attribute}, 8), 114), {coupled}, true},
       // clang-format on
   };
   for (auto const& [name, datagram, reads, warns] : cases)
   {
      SCOPED_TRACE(name);
      olt::CapturePrinter warnings(DtWarn);
      Pipeline pipeline;
      pipeline.feed(datagram);
      EXPECT_EQ(reads, pipeline.readAll());
      EXPECT_EQ(0u, pipeline.socket.queuedPduCount());
      EXPECT_EQ(warns, warnings.text().find("Failed to read expected Coupled Attribute PDU\n") !=
                           std::string::npos)
          << warnings.text();
   }
}

TEST(DtDisSocketUnbundling, ScatteredChainsGiveTheSamePdus)
{
   std::vector<Bytes> pdus = {makePdu(7, 1, 1, 44, 0, 'a'), makePdu(7, 1, 2, 60, 0, 'b'),
                              makePdu(7, 1, 3, 36, 0, 'c')};
   // Cuts in bodies and padding, at a buffer's end, empty buffers; of the second
   // header (at 48) 11 bytes are enough, 10 give size 0 and end the walk.
   std::vector<std::vector<std::size_t>> const layouts = {
       {48, 64, 36}, {30, 100, 1370}, {20, 0, 80, 0, 1380}, {59, 1000}, {58, 1000}};
   for (auto const& layout : layouts)
   {
      SCOPED_TRACE(::testing::PrintToString(layout));
      Pipeline p;
      p.feed(bundleOf(pdus, 8));
      for (std::size_t i = 0; i < (layout[0] == 58 ? 1 : pdus.size()); ++i)
      {
         Bytes pdu;
         ASSERT_EQ(static_cast<int>(pdus[i].size()), p.read(pdu, layout)) << i;
         EXPECT_EQ(pdus[i], pdu) << i;
      }
      EXPECT_EQ(0u, p.socket.queuedPduCount());
   }

   // A queued PDU too big for the chain is dropped.
   Pipeline p;
   Bytes pdu;
   p.feed(bundleOf({makePdu(7, 1, 1, 40), makePdu(7, 1, 2, 200)}, 8));
   ASSERT_EQ(40, p.read(pdu));
   EXPECT_EQ(DtDisStatusChainTooShort, p.read(pdu, {100}));
   EXPECT_EQ(0u, p.socket.queuedPduCount());
}

namespace
{
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
   std::unique_ptr<Socket> socket(
       new Socket(udpEndpoint("127.0.0.1", port), 0, device, flags, false, suppress));
   socket->setLocalPort(0);
   if (socket->openSocket())
      return socket;
   ADD_FAILURE() << socket->getLastErrorString();
   return nullptr;
}

// Reads through a DtDisSocket, by chain or by plain recvFrom, with a bounded wait.
int readPdu(DtDisSocket& socket, Bytes& buffer, DtInetEndpoint* from = nullptr, bool plain = false)
{
   DtInetSockChain chain{&buffer};
   DtInetEndpoint ignored = udpEndpoint("0.0.0.0", 0), &sender = from ? *from : ignored;
   pollfd fd{socket.receiveDescriptor(), POLLIN, 0};
   if (socket.queuedPduCount() == 0 && ::poll(&fd, 1, 2000) <= 0)
      return 0;
   return plain ? socket.recvFrom(buffer.data(), buffer.size(), sender, 0)
                : socket.recvToChainFrom(chain, sender, 0);
}

int theCalls = 0;
}  // namespace

TEST(DtDisSocketLoopback, DirectReadPathGivesThePipelineResults)
{
   olt::CapturePrinter warnings(DtWarn);
   auto direct = openDis(0);
   // A derived class reads through the general callback pipeline; DtDisSocket
   // itself calls its own callbacks directly.
   auto general = openDis<Offline>(0);
   ASSERT_TRUE(direct && general);
   DtDisSocket* const sockets[] = {direct.get(), general.get()};
   Bytes const coupled = makePdu(7, 1, 1, 100, DtDisCoupledPduBit, 'p');
   Bytes const attribute = makePdu(7, 1, DtDisAttributePduKind, 40, 0, 'h');
   // Kind 9 is filtered in the later rounds.
   // clang-format off
   std::vector<Bytes> const datagrams = {makePdu(7, 1, 1, 144), makePdu(6, 1, 2, 13),
       makePdu(7, 1, 9, 40), coupled, bundleOf({coupled, attribute, makePdu(7, 1, 2, 24)}, 8),
       bundleOf({makePdu(6, 1, 1, 30), makePdu(6, 1, 9, 30), makePdu(6, 1, 3, 30)}, 0),
       makePdu(7, 1, 1, 0), cut(makePdu(7, 1, 1, 300), 100), Bytes(5, 'x'), makePdu(7, 1, 3, 40)};
   // clang-format on
   // Each read: result, PDU, warnings; even rounds read directly, odd ones generally.
   std::vector<std::vector<std::tuple<int, std::string, std::string>>> reads(2);
   unsigned int kind = 9;
   for (std::size_t round = 0; round < 4; ++round)
   {
      DtDisSocket& socket = *sockets[round % 2];
      if (round >= 2)
         socket.pduKind().setTest(DtPduTestRejectListed, 1, &kind);
      DtInetEndpoint to = udpEndpoint("127.0.0.1", socket.localPort());
      for (Bytes datagram : datagrams)
      {
         ASSERT_EQ(int(datagram.size()),
                   sockets[1 - round % 2]->sendTo(datagram.data(), datagram.size(), to, 0));
         for (int n = 0; n < 10; ++n)
         {
            Bytes buffer(1500);
            std::size_t const before = warnings.text().size();
            // Every third read takes the plain recvFrom path, fresh or queued.
            int const result = readPdu(socket, buffer, nullptr, reads[round % 2].size() % 3 == 0);
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
   // The last argument of a receive callback is the status word, not the user data.
   auto const count = [](DtInetSocket*, int n, DtInetSockChain&, DtInetEndpoint&, void*)
   { return ++theCalls, n; };
   direct->addProcessingCallback(DtInetSockPostReceive, count, nullptr, 9);
   direct->removeProcessingCallback(DtInetSockPostReceive, static_cast<DtInetSockProcessingCb>(
                                                               &DtDisSocket::filterExercisePdus));
   Bytes filtered = makePdu(7, 1, 9, 40);
   DtInetEndpoint self = udpEndpoint("127.0.0.1", direct->localPort());
   ASSERT_EQ(40, direct->sendTo(filtered.data(), filtered.size(), self, 0));
   EXPECT_EQ(40, readPdu(*direct, filtered));
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
   { return socket->sendTo(pdu.data(), pdu.size(), target, 0) == int(pdu.size()); };

   // 100 and 200 bytes with alignment 8: 100, 4 zero bytes, 200.
   Bytes a = makePdu(7, 1, 1, 100, 0, 'a'), b = makePdu(7, 1, 2, 200, 0, 'b');
   ASSERT_TRUE(send(a) && send(b));
   EXPECT_TRUE(rx.receive(100).empty());
   EXPECT_EQ(304, socket->flushBundle(target));
   EXPECT_EQ(bundleOf({a, b}, 8), rx.receive());
   EXPECT_EQ(0, socket->flushBundle(target));

   // A PDU larger than the maximum flushes what is pending and goes out alone.
   socket->setBundling(300);
   Bytes big = makePdu(7, 1, 3, 400, 0, 'c');
   ASSERT_TRUE(send(a) && send(big));
   EXPECT_EQ(a, rx.receive());
   EXPECT_EQ(big, rx.receive());

   // A PDU exactly the maximum is bundled; the next one that would overflow sends it.
   Bytes exact = makePdu(7, 1, 4, 300, 0, 'd'), small = makePdu(7, 1, 5, 20, 0, 'e');
   ASSERT_TRUE(send(exact));
   EXPECT_TRUE(rx.receive(100).empty());
   ASSERT_TRUE(send(small));
   EXPECT_EQ(exact, rx.receive());
   EXPECT_EQ(1, socket->flush());
   EXPECT_EQ(small, rx.receive());

   // setMaxBundleSize alone turns isBundling on but not the bundling step.
   socket->setBundling(0);
   socket->setMaxBundleSize(500);
   EXPECT_TRUE(socket->isBundling());
   ASSERT_TRUE(send(a));
   EXPECT_EQ(a, rx.receive());
   socket->setMaxBundleSize(0);

   // Bundles are kept per destination, and closing flushes them.
   Receiver rx2;
   ASSERT_TRUE(socket->addDestination(udpEndpoint("127.0.0.1", rx2.port())));
   socket->setBundling(1400, 7, 9, true);  // only the size counts
   socket->setBundleByteAlignment(1);
   Bytes pdu = makePdu(6, 1, 1, 45);
   for (int i = 0; i < 3; ++i)
      ASSERT_EQ(45, socket->send(pdu.data(), pdu.size(), 0));
   EXPECT_TRUE(socket->closeSocket());
   EXPECT_EQ(135u, rx.receive().size());  // alignment 1 packs them
   EXPECT_EQ(135u, rx2.receive().size());
}

TEST(DtDisSocketLoopback, SendWalksEveryDestinationAndReturnsTheLast)
{
   Receiver rx1, rx2;
   auto socket = openDis(rx1.port());
   ASSERT_TRUE(socket);
   Bytes pdu = makePdu(7, 1, 1, 64);
   DtInetSockChain chain{&pdu};
   ASSERT_TRUE(socket->addDestination(udpEndpoint("127.0.0.1", rx2.port())));
   EXPECT_FALSE(socket->addDestination(udpEndpoint("::1", rx2.port())));  // another family
   EXPECT_EQ(64, socket->send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64, socket->sendChain(chain, 0));
   for (Receiver* rx : {&rx1, &rx1, &rx2, &rx2})
      EXPECT_EQ(64u, rx->receive().size());

   // Bad additional destinations do not stop the walk; the last result counts. The
   // failing lookups run where no query can leave the machine.
   std::unique_ptr<DtInetEndpoint> badOne;
   std::unique_ptr<Offline> badDefaultOne;
   std::string reason;
   if (!olt::runIsolated(
           [&]
           {
              badOne = std::make_unique<DtInetEndpoint>(DtString("nohost.invalid"), 3000,
                                                        DtInetProtocolUdp,
                                                        DtInetUtils::DtInetFamilyIPv4);
              badDefaultOne = std::make_unique<Offline>(true);
           },
           &reason))
      GTEST_SKIP() << "the failing lookups run where no query can leave the machine: " << reason;
   DtInetEndpoint& bad = *badOne;
   socket->removeDestination(udpEndpoint("127.0.0.1", rx2.port()));
   ASSERT_TRUE(socket->addDestination(bad));
   ASSERT_TRUE(socket->addDestination(udpEndpoint("127.0.0.1", rx2.port())));
   ASSERT_TRUE(socket->addDestination(bad));
   EXPECT_EQ(-1, socket->sendChain(chain, 0));
   EXPECT_EQ(64u, rx1.receive().size());
   EXPECT_EQ(64u, rx2.receive().size());
   EXPECT_EQ(89, socket->getLastError());
   EXPECT_EQ(DtInetSockStateError, socket->state());
   std::string text = socket->getLastErrorString().c_str();
   EXPECT_EQ(0u, text.find("DtDisSocket::sendChain(): Error - additional destination is invalid: "))
       << text;

   // A bad default destination stops the walk at once.
   Offline& badDefault = *badDefaultOne;
   ASSERT_TRUE(badDefault.addDestination(udpEndpoint("127.0.0.1", rx1.port())));
   EXPECT_EQ(-1, badDefault.send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(89, badDefault.getLastError());
   text = badDefault.getLastErrorString().c_str();
   EXPECT_EQ(0u, text.find("DtDisSocket::send(): Error - no default destination set: ")) << text;
   EXPECT_TRUE(rx1.receive(200).empty());
}

TEST(DtDisSocketLoopback, DefaultDestinationWhoseLookupFailedStopsEverySend)
{
   Receiver rx1, rx2;
   // A failed lookup keeps the earlier address, rx1's: a socket that lost the failure on
   // the way in would be seen sending there.
   DtInetEndpoint const good = udpEndpoint("127.0.0.1", rx1.port());
   DtInetEndpoint bad = good;
   std::string reason;
   if (!olt::runIsolated(
           [&] { bad.hostLookup(DtString("nohost.invalid"), 0, DtInetUtils::DtInetFamilyIPv4); },
           &reason))
      GTEST_SKIP() << "the failing lookup runs where no query can leave the machine: " << reason;
   ASSERT_FALSE(bad.isOk());
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   // Through the constructor or setDestination; with and without the send socket and
   // bundling.
   for (auto [viaConstructor, suppress, bundle] :
        {std::tuple{true, false, 0}, {true, true, 0}, {false, false, 1400}, {false, true, 0}})
   {
      SCOPED_TRACE(::testing::Message() << "constructor " << viaConstructor << ", suppression "
                                        << suppress << ", bundling " << bundle);
      DtDisSocket socket(viaConstructor ? bad : good, 0, &lo, DtInetSockFlagsDefault, false,
                         suppress);
      socket.setLocalPort(0);
      ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
      ASSERT_TRUE(socket.addDestination(udpEndpoint("127.0.0.1", rx2.port())));
      socket.setBundling(bundle);
      if (!viaConstructor)
      {
         ASSERT_TRUE(socket.setDestination(bad));
      }
      EXPECT_FALSE(socket.destination().isOk());

      Bytes pdu = makePdu(7, 1, 1, 64);
      DtInetSockChain chain{&pdu};
      // The endpoint's own message is read from a copy, so every attempt fails alike.
      for (int attempt = 0; attempt < 2; ++attempt)
      {
         EXPECT_EQ(-1, socket.send(pdu.data(), pdu.size(), 0));
         EXPECT_EQ(89, socket.getLastError());
         EXPECT_STREQ(
             "DtDisSocket::send(): Error - no default destination set: "
             "Host lookup failed for nohost.invalid",
             socket.getLastErrorString().c_str());
         EXPECT_EQ(-1, socket.sendChain(chain, 0));
         EXPECT_STREQ(
             "DtDisSocket::sendChain(): Error - no default destination set: "
             "Host lookup failed for nohost.invalid",
             socket.getLastErrorString().c_str());
         EXPECT_EQ(DtInetSockStateError, socket.state());
      }
      // The walk ended before the additional destination; nothing waits to be bundled.
      EXPECT_TRUE(socket.pendingBundles().empty());
      EXPECT_TRUE(rx1.receive(20).empty());
      EXPECT_TRUE(rx2.receive(20).empty());
   }
}

TEST(DtDisSocketLoopback, BundlesOfHundredsOfPdusArriveWhole)
{
   // 200 PDUs of 20 bytes, each padded to 24 but the last: a pending chain of 399
   // buffers, far past the 64 that Boost.Asio passes to one system call.
   auto receiver = openDis(0);
   ASSERT_TRUE(receiver);
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   for (auto [suppress, flags] : {std::pair{false, unsigned(DtInetSockFlagsDefault)},
                                  {true, DtInetSockFlagsDefault},
                                  {true, DtInetSockFlagsDefault | DtInetSockFlagAsyncSend}})
   {
      SCOPED_TRACE(::testing::Message() << "suppression " << suppress << ", flags " << flags);
      auto sender = openDis(receiver->localPort(), &lo, flags, suppress);
      ASSERT_TRUE(sender);
      sender->setBundling(65000);
      std::vector<Bytes> pdus;
      for (int i = 0; i < 200; ++i)
      {
         pdus.push_back(makePdu(7, 1, 1, 20, 0, char('a' + i % 26)));
         pdus.back()[4] = static_cast<char>(i);  // the time stamp tells them apart
         ASSERT_EQ(20, sender->send(pdus.back().data(), 20, 0)) << i;
      }
      ASSERT_EQ(1u, sender->pendingBundles().size());
      EXPECT_EQ(399u, sender->pendingBundles().begin()->second.second.size());
      EXPECT_EQ(200u * 24 - 4, sender->pendingBundles().begin()->second.first);
      EXPECT_EQ(1, sender->flush()) << sender->getLastErrorString();
      EXPECT_TRUE(sender->pendingBundles().empty());

      // A later bundle is the next datagram: the first is not sent again.
      Bytes last = makePdu(7, 1, 2, 20, 0, 'z');
      ASSERT_EQ(20, sender->send(last.data(), last.size(), 0));
      EXPECT_TRUE(sender->closeSocket());
      pdus.push_back(last);
      for (std::size_t i = 0; i < pdus.size(); ++i)
      {
         Bytes buffer(65536);
         ASSERT_EQ(20, readPdu(*receiver, buffer)) << i;
         ASSERT_EQ(pdus[i], cut(buffer, 20)) << i;
      }
      EXPECT_EQ(0u, receiver->queuedPduCount());
   }
}

TEST(DtDisSocketLoopback, SelfReflectSuppressionAndTheSendSocket)
{
   // Towards a unicast destination the interface must be named.
   DtDisSocket unnamed(udpEndpoint("127.0.0.1", 0), 0, nullptr, DtInetSockFlagsDefault, false,
                       true);
   EXPECT_FALSE(unnamed.openSocket());
   EXPECT_EQ(14, unnamed.getLastError());
   EXPECT_EQ(DtInetSockStateError, unnamed.state());
   EXPECT_STREQ(
       "DtDisSocket::openSocket(): Could not identify localhost interface for "
       "self-reflect suppression",
       unnamed.getLastErrorString().c_str());

   // Sends to its own receiving port: its own datagrams come back and are dropped.
   auto other = openDis(0);
   ASSERT_TRUE(other);
   unsigned short const port = other->localPort();
   other->closeSocket();
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   DtDisSocket socket(udpEndpoint("127.0.0.1", port), port, &lo, DtInetSockFlagsDefault, false,
                      true);
   ASSERT_TRUE(socket.openSocket()) << socket.getLastErrorString();
   DtInetEndpoint const local = socket.localSenderEndpoint();
   // A local sender port equal to the destination's is replaced by a free one.
   EXPECT_NE(port, local.port());
   Bytes pdu = makePdu(7, 1, 1, 64), buffer(1500);
   ASSERT_EQ(64, socket.send(pdu.data(), pdu.size(), 0));
   DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(DtDisStatusOwnTraffic, readPdu(socket, buffer, &from));
   EXPECT_TRUE(from == local);
   other = openDis(port);
   ASSERT_TRUE(other);
   ASSERT_EQ(64, other->send(pdu.data(), pdu.size(), 0));
   EXPECT_EQ(64, readPdu(socket, buffer));

   // A hop count beyond 255 is a failure, not an exception; note the two blanks.
   EXPECT_FALSE(socket.setMcastTtlOption(300));
   EXPECT_EQ(0u, std::string(socket.getLastErrorString().c_str())
                     .find("DtDisSocket::setSendSockMcastTtl(): Error setting multicast TTL for "
                           "send socket to  300"))
       << socket.getLastErrorString();
}

TEST(DtDisSocketLoopback, AsynchronousSendsDrainAtClose)
{
   Receiver rx;
   DtInetDevice lo(DtString("lo"), DtInetUtils::DtInetFamilyIPv4);
   auto socket = openDis(rx.port(), &lo, DtInetSockFlagsDefault | DtInetSockFlagAsyncSend, true);
   ASSERT_TRUE(socket);
   Bytes pdu = makePdu(7, 1, 1, 100);
   for (int i = 0; i < 200; ++i)
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
   for (int i = 0; i < 200; ++i)
      ASSERT_EQ(static_cast<char>(i), rx.receive().at(20)) << i;
   EXPECT_EQ(pdu, rx.receive());
}

TEST(DtDisSocketNamespace, MulticastSelfReflectIsSuppressed)
{
   std::string reason;
   if (!olt::TestNetns::isAvailable(&reason))
      GTEST_SKIP() << reason;
   olt::TestNetns ns;
   if (!ns.ok())
      GTEST_SKIP() << ns.error();
   ASSERT_TRUE(ns.addVethPair("oltdisa", "oltdisb") && ns.addAddress("oltdisa", "192.0.2.1/24") &&
               ns.addAddress("oltdisb", "192.0.2.2/24") && ns.setLinkUp("oltdisa") &&
               ns.setLinkUp("oltdisb") && ns.ip({"route", "add", "239.0.0.0/8", "dev", "oltdisa"}))
       << ns.error();
   olt::NetnsGuard inside(ns);
   ASSERT_TRUE(inside.ok()) << inside.error();

   DtInetDevice device(DtString("oltdisa"), DtInetUtils::DtInetFamilyIPv4);
   ASSERT_TRUE(device.isOk());
   DtInetEndpoint const group = udpEndpoint("239.192.7.7", 3100);
   DtDisSocket socket(group, 0, &device, DtInetSockFlagsDefault, true, true);
   ASSERT_TRUE(socket.isOk()) << socket.getLastErrorString();
   DtInetEndpoint const local = socket.localSenderEndpoint();
   EXPECT_NE(3100, local.port());
   EXPECT_STREQ("192.0.2.1", local.address().toDtString().c_str());
   ASSERT_TRUE(socket.setSendMcastDevice(DtInetAddr("192.0.2.1")));
   // A second member of the group on the same host, without suppression.
   DtDisSocket peer(group, 0, &device, DtInetSockFlagsDefault, true, false);
   ASSERT_TRUE(peer.isOk()) << peer.getLastErrorString();

   // The peer sees the datagram; the sender drops its own copy as own traffic.
   Bytes pdu = makePdu(7, 1, 1, 64), buffer(1500);
   ASSERT_EQ(64, socket.send(pdu.data(), pdu.size(), 0)) << socket.getLastErrorString();
   DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
   EXPECT_EQ(64, readPdu(peer, buffer, &from));
   EXPECT_TRUE(from == local) << from.toDtString(true);
   EXPECT_EQ(DtDisStatusOwnTraffic, readPdu(socket, buffer));
   // What the peer sends reaches the suppressing socket; the peer gets its own copy.
   ASSERT_EQ(64, peer.send(pdu.data(), pdu.size(), 0)) << peer.getLastErrorString();
   EXPECT_EQ(64, readPdu(socket, buffer));
   EXPECT_EQ(64, readPdu(peer, buffer));
}

namespace
{
constexpr unsigned int theNonBlocking = DtInetSockFlagsDefault | DtInetSockFlagNonBlocking;

// Repeats a non-blocking read until it gives something other than 0, for at most
// five seconds.
template <class Read>
int waitForRead(Read read)
{
   auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
   int result = 0;
   while ((result = read()) == 0 && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
   return result;
}
}  // namespace

// The longest PDU a datagram can carry over IPv4 comes whole into a chain that holds
// it, and as -4 into one that does not, whether read directly or in the background.
TEST(DtDisSocketLoopback, LargestPduOnBothReceivePaths)
{
   constexpr unsigned short theLargest = 65507;
   for (unsigned int flags : {theNonBlocking, theNonBlocking | DtInetSockFlagAsyncRecv})
   {
      SCOPED_TRACE(flags);
      auto receiver = openDis(0, nullptr, flags);
      ASSERT_TRUE(receiver);
      auto sender = openDis(receiver->localPort());
      ASSERT_TRUE(sender);
      Bytes const large = makePdu(7, 1, 1, theLargest, 0, 'L'), small = makePdu(7, 1, 1, 64);
      Bytes whole(theLargest), head(theLargest - 1000), tail(997);
      DtInetSockChain fits{&whole}, shortBy3{&head, &tail};
      DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
      auto read = [&](DtInetSockChain& chain)
      {
         Bytes pdu = large;
         EXPECT_EQ(theLargest, sender->send(pdu.data(), pdu.size(), 0));
         return waitForRead([&] { return receiver->recvToChainFrom(chain, from, 0); });
      };
      EXPECT_EQ(theLargest, read(fits));
      EXPECT_TRUE(whole == large);
      EXPECT_EQ(DtDisStatusChainTooShort, read(shortBy3));
      Bytes pdu = small, buffer(1500);
      ASSERT_EQ(64, sender->send(pdu.data(), pdu.size(), 0));
      DtInetSockChain next{&buffer};
      EXPECT_EQ(64, waitForRead([&] { return receiver->recvToChainFrom(next, from, 0); }));
   }
}

// Three hosts (see olt::TestHosts): sockets are opened inside a host by on(), and
// every count is exact.
class DtDisSocketHosts : public ::testing::Test
{
protected:
   void SetUp() override
   {
      std::string reason;
      if (!olt::TestNetns::isAvailable(&reason))
         GTEST_SKIP() << reason;
      myHosts = std::make_unique<olt::TestHosts>();
      ASSERT_TRUE(myHosts->ok()) << myHosts->error();
   }

   static DtInetEndpoint group(bool ipv6, unsigned short port)
   {
      return udpEndpoint(ipv6 ? "ff15::7:1" : "239.7.0.1", port);
   }

   // A socket opened inside `host`, on `device` ("" for none).
   std::unique_ptr<DtDisSocket> on(int host, DtInetEndpoint const& destination,
                                   bool suppress = false, std::string const& device = "")
   {
      olt::NetnsGuard inside(myHosts->host(host));
      EXPECT_TRUE(inside.ok()) << inside.error();
      std::unique_ptr<DtInetDevice> chosen;
      if (!device.empty())
         chosen = std::make_unique<DtInetDevice>(DtString(device.c_str()),
                                                 DtInetUtils::DtInetFamilyIPv4);
      auto socket = std::make_unique<DtDisSocket>(destination, 0, chosen.get(), theNonBlocking,
                                                  true, suppress);
      EXPECT_TRUE(socket->isOk()) << socket->getLastErrorString();
      return socket;
   }

   static void sendPdus(DtDisSocket& socket, int count)
   {
      for (int i = 0; i < count; ++i)
      {
         Bytes pdu = makePdu(7, 1, 1, 100, 0, static_cast<char>('a' + i % 26));
         ASSERT_EQ(100, socket.send(pdu.data(), pdu.size(), 0)) << socket.getLastErrorString();
      }
      ASSERT_GE(socket.flush(), 0);
   }

   struct Tally
   {
      int pdus = 0, own = 0, other = 0;
      std::string text() const
      {
         return std::to_string(pdus) + " PDUs, " + std::to_string(own) + " own, " +
                std::to_string(other) + " other";
      }
   };

   // Reads until nothing has come for 0.3 seconds (at most ten seconds in all).
   static Tally drain(DtDisSocket& socket)
   {
      using Clock = std::chrono::steady_clock;
      Tally tally;
      Bytes buffer(1500);
      DtInetSockChain chain{&buffer};
      DtInetEndpoint from = udpEndpoint("0.0.0.0", 0);
      auto const end = Clock::now() + std::chrono::seconds(10);
      auto last = Clock::now();
      while (Clock::now() < end && Clock::now() - last < std::chrono::milliseconds(300))
      {
         int const result = socket.recvToChainFrom(chain, from, 0);
         if (result == 0)
         {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            continue;
         }
         last = Clock::now();
         ++(result == 100 ? tally.pdus : result == DtDisStatusOwnTraffic ? tally.own : tally.other);
      }
      return tally;
   }

   std::unique_ptr<olt::TestHosts> myHosts;
};

TEST_F(DtDisSocketHosts, MulticastReachesEveryMemberWithAndWithoutBundling)
{
   for (bool ipv6 : {false, true})
   {
      for (int bundle : {0, 1400})
      {
         SCOPED_TRACE(std::string(ipv6 ? "IPv6" : "IPv4") + " bundle " + std::to_string(bundle));
         auto first = on(1, group(ipv6, 3300));
         auto second = on(2, group(ipv6, 3300));
         auto sender = on(0, group(ipv6, 3300));
         sender->setBundling(bundle);
         sendPdus(*sender, 50);
         EXPECT_EQ(drain(*first).text(), "50 PDUs, 0 own, 0 other");
         EXPECT_EQ(drain(*second).text(), "50 PDUs, 0 own, 0 other");
      }
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
   EXPECT_EQ(drain(*first).text(), "30 PDUs, 0 own, 0 other");
   EXPECT_EQ(drain(*second).text(), "30 PDUs, 0 own, 0 other");
   EXPECT_EQ(drain(*onSegment1).text(), "20 PDUs, 0 own, 0 other");
   EXPECT_EQ(drain(*offSegment1).text(), "0 PDUs, 0 own, 0 other");
}

// A suppressing socket without a device sends and receives on one group while
// another host sends to it: it drops its own PDUs only, and the third host hears both.
TEST_F(DtDisSocketHosts, SelfReflectSuppressionWhileAnotherHostSends)
{
   for (bool ipv6 : {false, true})
   {
      SCOPED_TRACE(ipv6 ? "IPv6" : "IPv4");
      auto suppressing = on(0, group(ipv6, 3320), true);
      auto peer = on(1, group(ipv6, 3320));
      auto watcher = on(2, group(ipv6, 3320));
      EXPECT_EQ(suppressing->localSenderEndpoint().address().toDtString().stdString(),
                olt::TestHosts::address(0, 0, ipv6));
      sendPdus(*suppressing, 20);
      sendPdus(*peer, 30);
      EXPECT_EQ(drain(*suppressing).text(), "30 PDUs, 20 own, 0 other");
      EXPECT_EQ(drain(*peer).text(), "50 PDUs, 0 own, 0 other");  // its own included
      EXPECT_EQ(drain(*watcher).text(), "50 PDUs, 0 own, 0 other");
   }
}

// A device on the second interface sends the group's PDUs out of it, from the send
// socket of suppression as from the socket itself.
TEST_F(DtDisSocketHosts, GroupTrafficLeavesByTheChosenInterface)
{
   for (bool ipv6 : {false, true})
   {
      for (bool suppress : {false, true})
      {
         SCOPED_TRACE(std::string(ipv6 ? "IPv6" : "IPv4") + (suppress ? " suppressing" : ""));
         auto onSegment1 = on(1, group(ipv6, 3330), false, olt::TestHosts::device(1));
         auto onSegment0 = on(2, group(ipv6, 3330));
         auto sender = on(0, group(ipv6, 3330), suppress, olt::TestHosts::device(1));
         sendPdus(*sender, 25);
         EXPECT_EQ(drain(*onSegment1).text(), "25 PDUs, 0 own, 0 other");
         EXPECT_EQ(drain(*onSegment0).text(), "0 PDUs, 0 own, 0 other");
      }
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
   ASSERT_TRUE(
       linkLocal.sh("set -e\n"
                    "ip link add oltll0 type veth peer name oltll1\n"
                    "ip link add oltll2 type veth peer name oltll3\n"
                    "for d in oltll0 oltll1 oltll2 oltll3; do\n"
                    "  ip link set $d addrgenmode none; done\n"
                    "ip -6 address add fe80::10/64 dev oltll0 nodad\n"
                    "ip -6 address add fe80::12/64 dev oltll2 nodad\n"
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
