// libFuzzer target: arbitrary bytes through the string wire forms, both ways,
// and through DtStringPatternMatch.
//
// Input: byte 0 picks the encoding (bits 0-2, so 7 is an unknown one), the
// wide form (bit 3) and a pattern length (bits 4-7); byte 1 is a signed start
// for the search; the rest is the buffer. A read must stay inside the buffer
// (the sanitizers see any byte past it), consume at most its size, and what it
// read must write back to the same bytes. The search must find what a plain
// search finds.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <olutil/olStringUtil.h>

namespace
{

void check(bool condition)
{
   if (!condition)
      __builtin_trap();
}

std::string textOf(DtString const& text)
{
   return std::string(text.c_str());
}

// Writes `text` in `encoding` into a buffer of exactly `size` bytes.
std::string written(DtStringEncodingType encoding, DtString const& text, bool wide, int size)
{
   std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 0));
   int const bytes = DtStringToBuffer(encoding, buffer.data(), size, text, wide);
   check(bytes >= 0 && bytes <= size);
   return std::string(buffer.data(), static_cast<std::size_t>(bytes));
}

void checkRead(DtStringEncodingType encoding, bool wide, char const* buffer, int size)
{
   DtString text("before");
   int const consumed = DtStringFromBuffer(encoding, &text, buffer, size, wide);
   check(consumed >= 0 && consumed <= size);
   if (consumed == 0)
      return;
   std::string const read(buffer, static_cast<std::size_t>(consumed));
   std::string const chars = textOf(text);
   int const length = static_cast<int>(chars.size());
   switch (encoding)
   {
   case DtStringEncodingCounted:
   {
      int const count = wide ? (consumed - 4) / 2 : consumed - 4;
      check(length <= count);
      // Back to the same bytes when nothing was lost: no NUL cut the text, and
      // in the wide form every high byte was zero.
      bool whole = length == count;
      for (int i = 0; wide && whole && i < count; ++i)
         whole = read[static_cast<std::size_t>(4 + 2 * i)] == 0;
      if (whole)
         check(written(encoding, text, wide, consumed) == read);
      break;
   }
   case DtStringEncodingTerminated:
   case DtStringEncodingTerminatedAlt:
      check(consumed == length + 1);
      check(written(encoding, text, wide, consumed) == read);
      break;
   case DtStringEncodingPlain:
   case DtStringEncodingFixed:
   case DtStringEncodingFixedAlt:
      check(consumed == size);
      check(read.compare(0, chars.size(), chars) == 0);
      check(written(encoding, text, wide, consumed) == chars);
      break;
   default:
      check(false);  // nothing else is ever read
   }
}

void checkSearch(std::string const& text, std::string const& pattern, int start)
{
   DtStringPatternMatch match(text.c_str(), pattern.c_str());
   int const found = match.indexOfOccurence(start);
   // The matcher sees both texts up to their first NUL.
   std::string const haystack(text.c_str());
   std::string const needle(pattern.c_str());
   int expected = -2;
   if (!haystack.empty() && !needle.empty())
   {
      std::size_t const at =
          start < 0 ? std::string::npos : haystack.find(needle, static_cast<std::size_t>(start));
      expected = at == std::string::npos ? -1 : static_cast<int>(at);
   }
   check(found == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 2 || size > 1 << 16)
      return 0;
   auto const encoding = static_cast<DtStringEncodingType>(data[0] & 7);
   bool const wide = (data[0] & 8) != 0;
   std::size_t const patternLength = data[0] >> 4;
   int const start = static_cast<signed char>(data[1]);
   // The buffer in a block of its own and of its exact size.
   std::vector<char> const buffer(data + 2, data + size);
   int const bufferSize = static_cast<int>(buffer.size());

   checkRead(encoding, wide, buffer.data(), bufferSize);

   // Any text, written into a buffer that may be too small, and read back.
   DtString const text(std::string(buffer.begin(), buffer.end()));
   for (int room : {bufferSize, bufferSize / 2, 3})
   {
      std::string const bytes = written(encoding, text, wide, room);
      if (!bytes.empty())
         checkRead(encoding, wide, bytes.data(), static_cast<int>(bytes.size()));
   }

   std::size_t const split = patternLength < buffer.size() ? patternLength : buffer.size();
   std::string const pattern(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(split));
   std::string const searched(buffer.begin() + static_cast<std::ptrdiff_t>(split), buffer.end());
   checkSearch(searched, pattern, start);
   return 0;
}
