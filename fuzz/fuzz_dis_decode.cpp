// libFuzzer target: arbitrary bytes as a PDU (or a datagram of PDUs) through the
// DIS tools' decoder and its three output forms, and through the walk over a
// bundle. The bytes are copied into a buffer of exactly their size, so that a
// read past the PDU is a read past the buffer.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../tools/disDecode.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   std::vector<unsigned char> const bytes(data, data + size);
   unsigned char const* const begin = bytes.data();

   oltool::DisPdu pdu;
   bool const decoded = oltool::decodeDisPdu(begin, bytes.size(), pdu);
   if (decoded != (size >= oltool::theDisHeaderSize))
      __builtin_trap();
   if (decoded)
   {
      std::vector<oltool::DisField> const fields = oltool::disFields(pdu);
      std::string const text = oltool::disTextLine(fields);
      std::string const json = oltool::disJsonLine(fields);
      std::string const csv = oltool::disCsvLine(fields);
      // A JSON line is one line of printable ASCII, whatever the PDU held.
      for (char c : json)
         if (c < 0x20 || c > 0x7E)
            __builtin_trap();
      if (text.find('\n') != std::string::npos || csv.find('\n') != std::string::npos)
         __builtin_trap();
   }

   // Every PDU the walk visits and every unit lie inside the datagram, in order.
   std::size_t end = 0;
   oltool::forEachDisPdu(
       begin, bytes.size(),
       [&](std::size_t offset, std::size_t length)
       {
          if (offset < end || length < oltool::theDisHeaderSize || offset + length > size)
             __builtin_trap();
          end = offset + length;
       });
   std::size_t unitEnd = 0;
   for (oltool::DisUnit const& unit : oltool::disUnits(begin, bytes.size()))
   {
      if (unit.offset < unitEnd || unit.offset + unit.length > size || unit.pdus < 1 ||
          unit.pdus > 2)
         __builtin_trap();
      unitEnd = unit.offset + unit.length;
   }
   return 0;
}
