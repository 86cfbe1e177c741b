// libFuzzer target: arbitrary text through DtString's conversions, splitting,
// field selection, editing and extraction from a stream.
//
// Input layout: byte 0 is the separator, bytes 1 and 2 the first and last field
// of a section (as signed bytes, so negative indices come up), and the rest is
// the text, NULs included. Besides the sanitizers' checks, the harness traps
// when splitting loses or invents text, when a section holds more than its
// source, or when a word read from a stream is longer than the stream.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <olutil/olString.h>

namespace
{

// The text the tokens stand for: every separator kept, a trailing one dropped.
void checkTokens(DtString const& text, char sep, std::vector<DtString> const& tokens)
{
   std::string joined;
   for (std::size_t i = 0; i < tokens.size(); ++i)
   {
      if (i > 0)
         joined += sep;
      joined += tokens[i].c_str();
   }
   std::string expected = text.c_str();
   if (!expected.empty() && expected.back() == sep)
      expected.pop_back();
   if (joined != expected)
      __builtin_trap();
   for (DtString token : tokens)
      if (sep != '\0' && token.findChar(sep) >= 0)
         __builtin_trap();  // a token holds its separator
}

void convert(DtString const& s)
{
   bool ok = false;
   (void)s.toInt(&ok);
   (void)s.toUInt(&ok);
   (void)s.toFloat(&ok);
   (void)s.toDouble(&ok);
   (void)s.toBoolean(&ok);
   (void)s.toInt();
}

// Every edit on a copy; an edit never makes a text longer.
void edit(DtString const& s, char c)
{
   int const size = s.size();
   DtString copies[] = {s, s, s, s, s, s, s, s};
   copies[0].snipFront(c, false);
   copies[1].snipFront(c, true);
   copies[2].snipBack(c, false);
   copies[3].snipBack(c, true);
   copies[4].chompFront();
   copies[5].chompBack();
   copies[6].toUpper();
   copies[7].toLower();
   for (DtString const& copy : copies)
      if (copy.size() > size)
         __builtin_trap();
   (void)s.count(c);
   DtString probe(s);
   (void)probe.findChar(c);
   (void)probe.findLastChar(c);
   DtString const tail(s.c_str() + size / 2);
   if (probe.findString(tail) < 0 || probe.findLastString(tail) < 0)
      __builtin_trap();  // the text's own tail is always found
}

// Extraction of every word the stream holds, bounded by the stream's length.
void extract(char const* bytes, std::size_t size)
{
   std::istringstream in(std::string(bytes, size));
   DtString word;
   for (std::size_t i = 0; i <= size && in >> word; ++i)
      if (static_cast<std::size_t>(word.size()) > size)
         __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, std::size_t size)
{
   if (size < 3)
      return 0;
   char const sep = static_cast<char>(data[0]);
   int const first = static_cast<int8_t>(data[1]);
   int const last = static_cast<int8_t>(data[2]);
   char const* const bytes = reinterpret_cast<char const*>(data + 3);
   std::size_t const length = size - 3;

   // The text as the counted constructor keeps it, NULs included, and as the
   // other constructors see it, up to the first NUL.
   DtString const counted(bytes, static_cast<int>(length));
   DtString const plain(std::string(bytes, length));
   if (std::strcmp(counted.c_str(), plain.c_str()) != 0)
      __builtin_trap();

   convert(counted);
   edit(counted, sep);

   std::vector<DtString> tokens;
   counted.tokenize(sep, tokens);
   checkTokens(counted, sep, tokens);
   // A section holds the text's own fields and separators, and one separator
   // more in front when the first field lies before the start.
   DtString const section = counted.section(sep, first, last);
   if (section.size() > counted.size() + 1)
      __builtin_trap();

   extract(bytes, length);

   // The numeric constructors on the input's bytes.
   if (length >= sizeof(double))
   {
      double value;
      std::memcpy(&value, bytes, sizeof value);
      convert(DtString(value));
      long number;
      std::memcpy(&number, bytes, sizeof number);
      convert(DtString(number));
      convert(DtString(static_cast<unsigned long>(number)));
      convert(DtString(static_cast<int>(number)));
      convert(DtString(static_cast<unsigned int>(number)));
      convert(DtString(static_cast<char>(number)));
   }
   return 0;
}
