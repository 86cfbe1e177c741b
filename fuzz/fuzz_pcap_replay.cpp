// libFuzzer target: the capture reading of oldis-replay. Byte 0 chooses the way
// in: an even byte takes the rest as a whole capture file, opened by libpcap from
// memory and read record by record; an odd byte takes byte 1 as the link type
// (one of those read, or one that is not) and byte 2 as the bytes the capture
// cut off, and the rest as one packet record. Every payload handed out must lie
// inside its record.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "../tools/pcapReplay.h"

namespace
{
void checkInside(oltool::CapturedDatagram const& d, unsigned char const* record, std::size_t size)
{
   if (d.payload < record || d.payload + d.size > record + size || d.size != d.udp.size ||
       !oltool::looksLikeDis(d.payload, d.size))
      __builtin_trap();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 1)
      return 0;
   if ((data[0] & 1) == 0)
   {
      std::vector<unsigned char> const file(data + 1, data + size);
      std::string error;
      std::unique_ptr<oltool::CaptureReader> reader =
          oltool::CaptureReader::openMemory(file.data(), file.size(), "input", error);
      if (!reader)
         return 0;
      oltool::CaptureCounts counts;
      oltool::CapturedDatagram datagram;
      for (int records = 0; records < 1000; ++records)
      {
         oltool::CaptureReader::Next const next = reader->next(datagram, counts, 0);
         if (next == oltool::CaptureReader::End || next == oltool::CaptureReader::Failed)
            break;
         if (next == oltool::CaptureReader::Datagram && datagram.size > file.size())
            __builtin_trap();
      }
      if (counts.datagrams + counts.skipped() != counts.packets)
         __builtin_trap();
      return 0;
   }
   if (size < 3)
      return 0;
   static int const linkTypes[] = {DLT_EN10MB, DLT_LINUX_SLL, DLT_LINUX_SLL2, DLT_RAW,
                                   DLT_IPV4,   DLT_NULL,      DLT_LOOP,       DLT_IEEE802_11};
   int const linkType = linkTypes[data[1] % (sizeof linkTypes / sizeof linkTypes[0])];
   std::vector<unsigned char> const record(data + 3, data + size);
   std::size_t const wireLength = record.size() + data[2];
   oltool::CaptureCounts counts;
   oltool::CapturedDatagram datagram;
   unsigned int const port = (data[1] & 0x80) ? 3000 : 0;
   if (oltool::datagramFromRecord(linkType, record.data(), record.size(), wireLength, port, counts,
                                  datagram) == oltool::CaptureVerdict::Datagram)
      checkInside(datagram, record.data(), record.size());
   if (counts.packets != 1 || counts.datagrams + counts.skipped() != 1)
      __builtin_trap();
   return 0;
}
