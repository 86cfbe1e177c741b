// libFuzzer target: arbitrary byte streams, cut at arbitrary points, from two peers
// through DtInetSocketMgr's read path on real loopback TCP connections.
//
// Input layout: byte 0 the settings (bit 0: chain reads, bit 1: the second peer ends
// its connection after writing), byte 1 the number of pieces, then one byte per piece
// (bits 0-5: the size of the read that follows it, bit 6: which peer writes it), and
// the rest is the stream, cut into pieces of equal size. Each peer's bytes must come
// out of the manager whole and in order, with the peer the manager names, and a peer
// that ended must be dropped once. Anything else stops the run.
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <olutil/olInetSocketMgr.h>
#include <olutil/olInetSocketUtils.h>
#include <olutil/olInetTcpSocket.h>
#include <olutil/olPrint.h>

namespace
{

constexpr int thePeers = 2;
// How long one wait for readable bytes lasts. Loopback delivers them at once; a read
// that found nothing may still be due to the manager's turn order, so waits are short
// and a deadline bounds them all.
constexpr int thePollMilliseconds = 10;

int theRemovals = 0;

bool countRemoval(DtInetSocket* socket, void*)
{
   ++theRemovals;
   delete socket;
   return true;
}

void check(bool condition, char const* what)
{
   if (!condition)
   {
      std::fprintf(stderr, "fuzz_tcp_mgr: %s\n", what);
      std::abort();
   }
}

// A manager whose connections are the accepted ends of loopback connections; the
// peers write into them.
struct Fixture
{
   std::unique_ptr<DtInetTcpSocket> listener;
   std::unique_ptr<DtInetSocketMgr> manager;
   std::unique_ptr<DtInetTcpSocket> peers[thePeers];
   DtInetSocket* accepted[thePeers] = {};

   Fixture()
   {
      DtNotifyLevel = -1;
      listener = std::make_unique<DtInetTcpSocket>(0, nullptr, DtInetUtils::DtInetFamilyIPv4,
                                                   DtInetSockFlagsDefault, true);
      check(listener->isOk(), "no listener on 127.0.0.1");
      reset();
   }

   // A fresh manager with fresh connections.
   void reset()
   {
      manager.reset();  // removes the remaining connections through the callback
      manager = std::make_unique<DtInetSocketMgr>(DtInetSockFlagsDefault);
      manager->addSocketRemovalCallback(countRemoval, nullptr, 0);
      for (int i = 0; i < thePeers; ++i)
      {
         peers[i] = std::make_unique<DtInetTcpSocket>(
             DtInetEndpoint(DtInetAddr("127.0.0.1"), listener->localPort(), DtInetProtocolTcp), 0,
             nullptr, DtInetSockFlagsDefault, true);
         check(peers[i]->isOk(), "peer did not connect");
         auto* connection = new DtInetTcpSocket();
         check(listener->acceptConnection(connection,
                                          DtInetSockFlagsDefault | DtInetSockFlagNonBlocking),
               "accept failed");
         check(manager->addConnection(connection) == connection, "connection not added");
         accepted[i] = connection;
      }
      theRemovals = 0;
   }

   // Waits (bounded) until one of the connections has something to read.
   void waitReadable()
   {
      std::vector<pollfd> ready;
      for (auto const& entry : manager->socketList())
         ready.push_back(pollfd{entry.second->descriptor(), POLLIN, 0});
      if (!ready.empty())
         ::poll(ready.data(), ready.size(), thePollMilliseconds);
   }
};

Fixture& fixture()
{
   static Fixture* theFixture = new Fixture;
   return *theFixture;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 2)
      return 0;
   Fixture& f = fixture();
   bool const chainReads = data[0] & 1;
   bool const secondEnds = data[0] & 2;
   std::size_t const pieces = data[1] % 32 + 1;
   if (size < 2 + pieces)
      return 0;
   uint8_t const* plan = data + 2;
   uint8_t const* stream = plan + pieces;
   std::size_t const streamSize = size - 2 - pieces;
   std::size_t const pieceSize = streamSize / pieces + 1;

   std::map<unsigned short, int> peerOfPort;
   for (int i = 0; i < thePeers; ++i)
      peerOfPort[f.peers[i]->localPort()] = i;
   std::string sent[thePeers], got[thePeers];

   std::vector<char> buffer(64);
   std::vector<char> a, b, c;
   auto readOnce = [&](std::size_t readSize)
   {
      DtInetEndpoint from;
      int result;
      if (chainReads)
      {
         // Three buffers sharing the read size, the middle one possibly empty.
         a.assign(readSize / 2 + 1, 0);
         b.assign(readSize % 3, 0);
         c.assign(readSize - readSize / 2, 0);
         DtInetSockChain chain{&a, &b, &c};
         result = f.manager->recvToChainFrom(chain, from, 0);
         if (result > 0)
         {
            std::vector<char> all;
            DtInetSockGatherChain(chain, all);
            check(static_cast<std::size_t>(result) <= all.size(), "read longer than the chain");
            buffer.assign(all.begin(), all.begin() + result);
         }
      }
      else
      {
         buffer.assign(readSize, 0);
         result = f.manager->recvFrom(buffer.data(), buffer.size(), from, 0);
      }
      check(result >= 0, "a read failed");
      if (result > 0)
      {
         auto const peer = peerOfPort.find(from.port());
         check(peer != peerOfPort.end(), "bytes from an unknown peer");
         got[peer->second].append(buffer.data(), static_cast<std::size_t>(result));
      }
      return result;
   };

   std::size_t offset = 0;
   for (std::size_t i = 0; i < pieces; ++i)
   {
      std::size_t const length = std::min(pieceSize, streamSize - offset);
      int const peer = (plan[i] >> 6) & 1;
      if (length > 0)
      {
         char* bytes = reinterpret_cast<char*>(const_cast<uint8_t*>(stream + offset));
         check(f.peers[peer]->send(bytes, length, 0) == static_cast<int>(length), "write failed");
         sent[peer].append(bytes, length);
         offset += length;
      }
      readOnce((plan[i] & 0x3F) + 1u);
   }
   if (secondEnds)
      f.peers[1]->closeSocket();

   // Everything written comes out, in order, each peer's bytes apart.
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
   while ((got[0].size() < sent[0].size() || got[1].size() < sent[1].size()) &&
          std::chrono::steady_clock::now() < deadline)
   {
      if (readOnce(64) == 0)
         f.waitReadable();
   }
   for (int i = 0; i < thePeers; ++i)
   {
      if (got[i] != sent[i])
         std::fprintf(stderr, "peer %d sent %zu got %zu\n", i, sent[i].size(), got[i].size());
      check(got[i] == sent[i], "a peer's bytes changed on the way");
   }

   if (secondEnds)
   {
      // The ended peer goes at the next reads that meet it, once.
      while (f.manager->socketList().size() == thePeers &&
             std::chrono::steady_clock::now() < deadline)
      {
         if (readOnce(64) == 0 && f.manager->socketList().size() == thePeers)
            f.waitReadable();
      }
      check(f.manager->socketList().size() == thePeers - 1, "ended peer not dropped");
      check(theRemovals == 1, "ended peer not reported exactly once");
      f.reset();
   }
   return 0;
}
