// libFuzzer target: arbitrary datagrams, split into arbitrarily sized chain
// buffers, through the receive callbacks of DtDisSocket, without the network.
//
// Input layout: byte 0 chooses the settings (minimum packet size, Attribute PDU
// strategy), byte 1 the number of buffers the datagram is scattered over, the
// next bytes their sizes, and the rest is the datagram. Every buffer is exactly
// as large as its piece, so a read past the datagram is a read past a buffer.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <olutil/olDisSocket.h>
#include <olutil/olInetAddr.h>
#include <olutil/olPrint.h>

namespace
{
typedef std::vector<std::unique_ptr<std::vector<char>>> Buffers;

// Reaches the test by which a direct chain read skips the walk over a datagram.
struct ProbedSocket : DtDisSocket
{
   using DtDisSocket::DtDisSocket;
   using DtDisSocket::isPlainPdu;
   using DtDisSocket::isPlainSinglePdu;
};

ProbedSocket& theSocket()
{
   // The warnings a malformed coupled PDU provokes would drown the fuzzer's output.
   DtNotifyLevel = -1;
   static ProbedSocket socket(DtInetEndpoint(DtInetAddr("127.0.0.1"), 3000, DtInetProtocolUdp), 0,
                              nullptr, DtInetSockFlagsDefault, false, false);
   return socket;
}

// Scatters `size` bytes over buffers of the given sizes; the last one takes the rest.
void scatter(uint8_t const* data, std::size_t size, std::vector<std::size_t> const& sizes,
             Buffers& buffers, DtInetSockChain& chain)
{
   std::size_t used = 0;
   for (std::size_t i = 0; i < sizes.size() && used < size; ++i)
   {
      std::size_t const piece =
          (i + 1 == sizes.size()) ? size - used : std::min(sizes[i], size - used);
      buffers.emplace_back(new std::vector<char>(piece));
      if (piece)
         std::memcpy(buffers.back()->data(), data + used, piece);
      chain.push_back(buffers.back().get());
      used += piece;
   }
   if (chain.empty())
   {
      buffers.emplace_back(new std::vector<char>(size));
      if (size)
         std::memcpy(buffers.back()->data(), data, size);
      chain.push_back(buffers.back().get());
   }
}

std::size_t capacityOf(DtInetSockChain const& chain)
{
   std::size_t total = 0;
   for (std::vector<char> const* buffer : chain)
      total += buffer->size();
   return total;
}

// The post-receive list in its registered order, with the pipeline's carry rule.
int postReceive(DtDisSocket& socket, int length, DtInetSockChain& chain, DtInetEndpoint& sender,
                int carry)
{
   typedef int (*Callback)(DtInetSocket*, int, DtInetSockChain&, DtInetEndpoint&, void*);
   Callback const callbacks[] = {&DtDisSocket::minSizeFilter, &DtDisSocket::suppressSelfReflect,
                                 &DtDisSocket::unbundle, &DtDisSocket::filterExercisePdus};
   for (Callback callback : callbacks)
   {
      length = callback(&socket, length, chain, sender, &carry);
      if (length == 0)
         length = carry;
   }
   return length;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 2)
      return 0;
   ProbedSocket& socket = theSocket();
   static int const minimums[] = {12, 0, 1, 20};
   socket.setMinPacketSize(minimums[data[0] & 3]);
   socket.setAttributePduStrategy((data[0] & 4) ? DtAttributePduIgnoreOnVersion6
                                                : DtAttributePduHonour);
   std::size_t const pieces = 1 + (data[1] & 7);
   std::vector<std::size_t> sizes;
   std::size_t at = 2;
   for (std::size_t i = 0; i < pieces && at < size; ++i)
      sizes.push_back(data[at++]);
   uint8_t const* datagram = data + at;
   std::size_t const length = size - at;

   Buffers buffers;
   DtInetSockChain chain;
   scatter(datagram, length, sizes, buffers, chain);
   DtInetEndpoint sender(DtInetAddr("127.0.0.2"), 4000, DtInetProtocolUdp);

   // A datagram the direct read would hand on untouched must come through the
   // callbacks whole, with nothing queued.
   bool const plain = socket.isPlainSinglePdu(chain, static_cast<int>(length));
   int const result = postReceive(socket, static_cast<int>(length), chain, sender, 0);
   if (result > static_cast<int>(length))
      __builtin_trap();  // more than arrived was handed out
   if (plain && (result != static_cast<int>(length) || socket.queuedPduCount() != 0))
      __builtin_trap();

   // Drain what the datagram left queued, one read at a time, each into a fresh
   // chain cut the same way.
   for (int reads = 0; reads < 4096 && socket.queuedPduCount() > 0; ++reads)
   {
      Buffers readBuffers;
      DtInetSockChain readChain;
      std::vector<std::size_t> readSizes = sizes;
      if (!readSizes.empty())
         readSizes.back() = 4096;
      std::vector<uint8_t> zeros(4096 + 255 * 8, 0);
      scatter(zeros.data(), zeros.size(), readSizes, readBuffers, readChain);
      int marker = 0;
      int got = socket.getNextBundle(0, readChain, sender, &marker);
      if (marker == DtDisStatusFromQueue)
      {
         bool const plainQueued = got > 0 && socket.isPlainPdu(readChain, got);
         int const before = got;
         got = postReceive(socket, got, readChain, sender, marker);
         if (got > static_cast<int>(capacityOf(readChain)))
            __builtin_trap();
         if (plainQueued && got != before)
            __builtin_trap();  // the direct read would have handed it on whole
      }
   }
   return 0;
}
