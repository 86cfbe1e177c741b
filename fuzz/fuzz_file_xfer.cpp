// libFuzzer target: the file transporter's packet reassembly, fed a byte stream whole
// and again cut at arbitrary points.
//
// Input layout: byte 0 the largest packet (32 + 4 * byte), byte 1 the number of cuts
// (up to 32), then one byte per cut (the size of that piece, 0 taken as 1), and the
// rest is the stream; after the last cut the remainder goes in one piece. Both runs
// must tell the sink the same story (the same files, the same bytes, the same fault),
// an ended file must hold exactly the bytes it announced, and names must be safe.
// Anything else stops the run.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <olutil/olInetFileTransport.h>

namespace
{

class LogSink : public DtInetFilePacketAssembler::Sink
{
public:
   std::string log;

   bool beginFile(std::uint32_t id, std::string const& name, std::uint32_t, std::uint32_t total,
                  std::uint32_t) override
   {
      if (!DtInetFilePacketAssembler::isSafeName(name))
         stop("an unsafe name was accepted");
      log += "B" + std::to_string(id) + "/" + name + "/" + std::to_string(total) + "|";
      myTotal = total;
      myGot = 0;
      return true;
   }
   bool fileData(char const* data, std::size_t length) override
   {
      if (length == 0 || myGot + length > myTotal)
         stop("data beyond the announced size");
      myGot += length;
      log += "D" + std::string(data, length) + "|";
      return true;
   }
   bool endFile() override
   {
      if (myGot != myTotal)
         stop("a file ended short");
      log += "E|";
      return true;
   }
   void transferFailed(std::string const& why) override { log += "F" + why + "|"; }

private:
   static void stop(char const* what)
   {
      std::fprintf(stderr, "fuzz_file_xfer: %s\n", what);
      std::abort();
   }
   std::uint64_t myTotal = 0;
   std::uint64_t myGot = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
   if (size < 2)
      return 0;
   std::size_t const maxPacket = 32 + 4 * static_cast<std::size_t>(data[0]);
   std::size_t const cuts = std::min<std::size_t>(data[1] % 33, size - 2);
   std::uint8_t const* pieces = data + 2;
   char const* stream = reinterpret_cast<char const*>(data + 2 + cuts);
   std::size_t const length = size - 2 - cuts;

   LogSink whole;
   DtInetFilePacketAssembler wholeAssembler(whole, maxPacket);
   bool const wholeFed = wholeAssembler.feed(stream, length);
   bool const wholeFinished = wholeAssembler.finish();

   LogSink split;
   DtInetFilePacketAssembler splitAssembler(split, maxPacket);
   bool splitFed = true;
   std::size_t at = 0;
   for (std::size_t i = 0; i < cuts && at < length; ++i)
   {
      std::size_t const piece = std::min<std::size_t>(pieces[i] ? pieces[i] : 1, length - at);
      splitFed = splitAssembler.feed(stream + at, piece) && splitFed;
      at += piece;
   }
   if (at < length)
      splitFed = splitAssembler.feed(stream + at, length - at) && splitFed;
   bool const splitFinished = splitAssembler.finish();

   if (whole.log != split.log || wholeFed != splitFed || wholeFinished != splitFinished)
   {
      std::fprintf(stderr, "fuzz_file_xfer: cutting the stream changed the outcome\n");
      std::abort();
   }
   return 0;
}
