//===- olStringUtil.cpp - String utilities and pattern matching -----------===//
//
// Family: Text.
//
//===----------------------------------------------------------------------===//
#include <olutil/olStringUtil.h>

#include <olutil/olPrint.h>
#include <olutil/olUtil.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

namespace
{

// The length prefix of the counted form is always the four bytes of a DtNetU32.
constexpr int thePrefixBytes = 4;
static_assert(sizeof(DtNetU32) == thePrefixBytes, "the length prefix is four bytes");
static_assert(sizeof(DtNetInt32) == thePrefixBytes, "the wide count is four bytes");
static_assert(sizeof(DtNetInt16) == 2, "a wide character is two bytes");

bool isTerminatedForm(DtStringEncodingType encoding)
{
   return encoding == DtStringEncodingTerminated || encoding == DtStringEncodingTerminatedAlt;
}

bool isPlainForm(DtStringEncodingType encoding)
{
   return encoding == DtStringEncodingPlain || encoding == DtStringEncodingFixed ||
          encoding == DtStringEncodingFixedAlt;
}

// Whether the characters of a counted string of `length` may be taken from a
// buffer of `size` bytes. The first test is the traditional one and is kept as
// it stands: it adds the prefix's width to the size instead of taking it away,
// so on its own it would accept up to eight bytes from beyond the buffer. The
// second test is the bound that keeps every read inside the buffer; a length
// that fails it is refused like any other that doesn't fit.
bool countedLengthFits(long long length, int size)
{
   if (length > static_cast<long long>(size) + DtVariableArraySizeLength)
      return false;
   return length <= static_cast<long long>(size) - thePrefixBytes;
}

int fromCountedNarrow(DtString* text, char const* buffer, int size)
{
   if (size < thePrefixBytes)
      return 0;
   DtNetU32 wire;
   std::memcpy(static_cast<void*>(&wire), buffer, sizeof wire);
   long long const length = static_cast<unsigned int>(wire);
   if (!countedLengthFits(length, size))
      return 0;
   *text = DtString(buffer + thePrefixBytes, static_cast<int>(length));
   return static_cast<int>(length) + DtVariableArraySizeLength;
}

int fromCountedWide(DtString* text, char const* buffer, int size)
{
   if (size < thePrefixBytes)
      return 0;
   DtNetInt32 wire;
   std::memcpy(static_cast<void*>(&wire), buffer, sizeof wire);
   long long const count = static_cast<int>(wire);
   if (count < 0 || 2 * count > static_cast<long long>(size) - thePrefixBytes)
      return 0;
   std::wstring wide(static_cast<std::size_t>(count), L'\0');
   for (long long i = 0; i < count; ++i)
   {
      DtNetInt16 unit;
      std::memcpy(static_cast<void*>(&unit), buffer + thePrefixBytes + 2 * i, sizeof unit);
      wide[static_cast<std::size_t>(i)] = static_cast<wchar_t>(static_cast<short>(unit));
   }
   *text = DtString(DtToString(wide));
   return 2 * static_cast<int>(count) + DtVariableArraySizeLength;
}

int hexDigitValue(char c)
{
   if (c >= '0' && c <= '9')
      return c - '0';
   if (c >= 'a' && c <= 'f')
      return c - 'a' + 10;
   if (c >= 'A' && c <= 'F')
      return c - 'A' + 10;
   return 0;
}

// The words of a command line split at blanks, at most `limit` of them.
std::vector<std::string> blankSeparatedWords(char const* line, int limit)
{
   std::vector<std::string> words;
   if (!line)
      return words;
   std::string copy(line);
   char* state = nullptr;
   for (char* word = strtok_r(&copy[0], " ", &state);
        word && static_cast<int>(words.size()) < limit; word = strtok_r(nullptr, " ", &state))
      words.emplace_back(word);
   return words;
}

}  // namespace

// ================================================================ wire forms

int DtStringToBuffer(DtStringEncodingType encoding, char* buffer, int size, DtString const& text,
                     bool wide)
{
   if (!buffer || size <= 0)
      return 0;
   long long const length = text.length();
   char const* const chars = text.c_str();
   if (encoding == DtStringEncodingCounted)
   {
      DtNetU32 const wire(static_cast<unsigned int>(length));
      if (!wide)
      {
         if (size <= length + 3)
            return 0;
         std::memcpy(buffer, static_cast<void const*>(&wire), sizeof wire);
         std::memcpy(buffer + thePrefixBytes, chars, static_cast<std::size_t>(length));
         return static_cast<int>(length) + 4;
      }
      if (size < 2 * (length + 2))
         return 0;
      std::memcpy(buffer, static_cast<void const*>(&wire), sizeof wire);
      for (long long i = 0; i < length; ++i)
      {
         buffer[thePrefixBytes + 2 * i] = 0;
         buffer[thePrefixBytes + 2 * i + 1] = chars[i];
      }
      return 2 * (static_cast<int>(length) + 2);
   }
   if (isTerminatedForm(encoding))
   {
      if (size <= length)
         return 0;
      std::memcpy(buffer, chars, static_cast<std::size_t>(length) + 1);
      return static_cast<int>(length) + 1;
   }
   if (isPlainForm(encoding) || encoding == DtStringEncodingWriteOnly)
   {
      if (size < length)
         return 0;
      std::memcpy(buffer, chars, static_cast<std::size_t>(length));
      return static_cast<int>(length);
   }
   return 0;
}

int DtStringFromBuffer(DtStringEncodingType encoding, DtString* text, char const* buffer, int size,
                       bool wide)
{
   if (!text || size < 0 || (!buffer && size > 0))
      return 0;
   if (encoding == DtStringEncodingCounted)
      return wide ? fromCountedWide(text, buffer, size) : fromCountedNarrow(text, buffer, size);
   if (isTerminatedForm(encoding))
   {
      if (size <= 0)
         return 0;
      std::size_t const length = strnlen(buffer, static_cast<std::size_t>(size));
      if (length == static_cast<std::size_t>(size))
         return 0;  // no terminator inside the buffer
      *text = buffer;
      return static_cast<int>(length) + 1;
   }
   if (isPlainForm(encoding))
   {
      *text = DtString(buffer, size);
      return size;
   }
   // DtStringEncodingWriteOnly and anything unknown: written, never read.
   return 0;
}

int DtStringGetNetPadding(DtStringEncodingType encoding)
{
   if (encoding == DtStringEncodingCounted)
      return DtVariableArraySizeLength;
   if (isTerminatedForm(encoding))
      return 1;
   return 0;
}

// ====================================================================== text

DtString DtReplaceAllSubstrings(DtString const& text, DtString const& from, DtString const& to)
{
   std::size_t const fromLength = static_cast<std::size_t>(from.length());
   if (fromLength == 0)
      return text;
   std::string result;
   char const* rest = text.c_str();
   for (char const* found = std::strstr(rest, from.c_str()); found;
        found = std::strstr(rest, from.c_str()))
   {
      result.append(rest, found);
      result += to.c_str();
      rest = found + fromLength;
   }
   result += rest;
   return DtString(result);
}

DtString DtReplaceSubstring(DtString const& text, DtString const& from, DtString const& to)
{
   char const* const found = std::strstr(text.c_str(), from.c_str());
   if (!found)
      return text;
   std::string result(text.c_str(), found);
   result += to.c_str();
   result += found + from.length();
   return DtString(result);
}

bool DtContainsSubstring(DtString const& text, DtString const& part)
{
   return std::strstr(text.c_str(), part.c_str()) != nullptr;
}

DtString DtFirstCharToLower(DtString const& text)
{
   DtString result(text);
   if (!result.isEmpty())
      result[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(result[0])));
   return result;
}

DtString DtFirstCharToUpper(DtString const& text)
{
   DtString result(text);
   if (!result.isEmpty())
      result[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(result[0])));
   return result;
}

DtString DtFirstCharToLowerConditional(DtString const& text)
{
   int const length = text.length();
   if (length == 0)
      return text;
   if (length > 1 && !std::islower(static_cast<unsigned char>(text[1])))
      return text;  // an acronym keeps its capitals
   return DtFirstCharToLower(text);
}

std::string DtToString(std::wstring const& text)
{
   std::string narrow;
   narrow.reserve(text.size());
   for (wchar_t c : text)
      narrow += static_cast<char>(c);
   return narrow;
}

std::string DtToString(wchar_t const* text)
{
   return text ? DtToString(std::wstring(text)) : std::string();
}

// ===================================================== numbers and addresses

char const* DtInetAddrString(unsigned int address)
{
   in_addr wire{};
   wire.s_addr = htonl(address);
   return inet_ntoa(wire);
}

unsigned int DtStringToInetAddr(char const* name)
{
   addrinfo* results = nullptr;
   unsigned int address = 0;
   bool found = false;
   if (name && getaddrinfo(name, nullptr, nullptr, &results) == 0)
   {
      // With no hints the answers may lead with IPv6; only an IPv4 one has a
      // 32-bit address to give.
      for (addrinfo* at = results; at && !found; at = at->ai_next)
      {
         if (at->ai_family == AF_INET && at->ai_addr)
         {
            sockaddr_in v4{};
            std::memcpy(&v4, at->ai_addr, sizeof v4);
            address = ntohl(v4.sin_addr.s_addr);
            found = true;
         }
      }
      freeaddrinfo(results);
   }
   if (!found)
      DtWarn << "DtStringToInetAddr: Could not resolve " << (name ? name : "") << " returning 0"
             << std::endl;
   return address;
}

unsigned int DtStringToInetAddr(DtString const& name)
{
   return DtStringToInetAddr(name.c_str());
}

unsigned int DtHexStringToInetAddr(char const* text)
{
   // Eight characters are read; a shorter text would send the read past its end.
   if (!text || strnlen(text, 8) < 8)
      return INADDR_NONE;
   char dotted[32];
   std::snprintf(dotted, sizeof dotted, "0x%c%c.0x%c%c.0x%c%c.0x%c%c", text[0], text[1], text[2],
                 text[3], text[4], text[5], text[6], text[7]);
   return ntohl(inet_addr(dotted));
}

char* DtDeg2DmsString(double degrees, char* buffer, int size)
{
   if (!buffer || size <= 0)
      return buffer;
   std::size_t const room = static_cast<std::size_t>(size);
   // Whole degrees go through %d: an angle beyond its range, or not a number,
   // is printed as a plain number instead.
   if (!std::isfinite(degrees) || std::fabs(degrees) >= 2147483647.0)
   {
      std::snprintf(buffer, room, "%g", degrees);
      return buffer;
   }
   constexpr int decimals = 2;
   constexpr int width = decimals + 3;  // "SS.ss"
   // Rounded once, in hundredths of a second, so that 59.999 seconds carries
   // into the minutes instead of printing as "60.00".
   long long const hundredths = std::llround(std::fabs(degrees) * 360000.0);
   long long const whole = hundredths / 360000;
   long long const minutes = hundredths % 360000 / 6000;
   double const seconds = static_cast<double>(hundredths % 6000) / 100.0;
   char const* const sign = degrees < 0 && hundredths > 0 ? "-" : "";
   std::snprintf(buffer, room, "%s%d:%2.2d:%0*.*lf", sign, static_cast<int>(whole),
                 static_cast<int>(minutes), width, decimals, seconds);
   return buffer;
}

DtString DtDeg2DmsString(double degrees)
{
   char buffer[64];
   return DtString(DtDeg2DmsString(degrees, buffer, sizeof buffer));
}

std::string DtHexToBinary(std::string const& hex, int width)
{
   std::string binary;
   binary.reserve(hex.size() * 4);
   for (char c : hex)
   {
      int const value = hexDigitValue(c);
      for (int bit = 3; bit >= 0; --bit)
         binary += (value >> bit & 1) ? '1' : '0';
   }
   if (width > static_cast<int>(binary.size()))
      binary.insert(0, static_cast<std::size_t>(width) - binary.size(), '0');
   return binary;
}

std::string DtBinaryToHex(std::string const& binary)
{
   static char const digits[] = "0123456789ABCDEF";
   std::string padded(binary);
   padded.insert(0, (4 - padded.size() % 4) % 4, '0');
   std::string hex;
   for (std::size_t at = 0; at < padded.size(); at += 4)
   {
      int value = 0;
      for (std::size_t i = 0; i < 4; ++i)
         value = value << 1 | (padded[at + i] == '1');
      hex += digits[value];
   }
   return hex;
}

void DtDecimalToBinary(unsigned int value, std::vector<int>& bits)
{
   std::vector<int> lowFirst;
   do
   {
      lowFirst.push_back(static_cast<int>(value & 1u));
      value >>= 1;
   } while (value != 0);
   bits.insert(bits.begin(), lowFirst.begin(), lowFirst.end());
}

unsigned int DtBinaryToDecimal(std::string const& binary)
{
   unsigned int value = 0;
   for (char c : binary)
      value = value << 1 | (c == '1' ? 1u : 0u);
   return value;
}

// ================================================== C strings and arguments

int DtIsInList(int const* list, int value)
{
   if (!list)
      return -1;
   for (int i = 0; list[i] != 0; ++i)
   {
      if (list[i] == value)
         return i;
   }
   return -1;
}

char* DtStrdup(char const* text)
{
   if (!text)
      return nullptr;
   std::size_t const size = std::strlen(text) + 1;
   char* copy = new char[size];
   std::memcpy(copy, text, size);
   return copy;
}

void DtToLower(char* text)
{
   for (; text && *text; ++text)
      *text = static_cast<char>(std::tolower(static_cast<unsigned char>(*text)));
}

void DtToUpper(char* text)
{
   for (; text && *text; ++text)
      *text = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
}

int DtResizeString(char*& buffer, int& capacity, int length)
{
   if (!buffer)
      capacity = 0;
   long long const wanted = static_cast<long long>(length) + 1;
   if (wanted < 1)
      return -1;
   long long const need = (wanted + 3) / 4 * 4;
   if (need > INT_MAX)
      return -1;
   if (need <= capacity)
      return 0;
   void* const grown = buffer ? std::realloc(buffer, static_cast<std::size_t>(need))
                              : std::malloc(static_cast<std::size_t>(need));
   if (!grown)
   {
      capacity = 0;
      return -1;
   }
   long long const kept = capacity > 0 ? capacity : 0;
   std::memset(static_cast<char*>(grown) + kept, 0, static_cast<std::size_t>(need - kept));
   buffer = static_cast<char*>(grown);
   capacity = static_cast<int>(need);
   return 0;
}

char** DtArgv(char* line, int* count)
{
   static char theProgramName[] = "main";
   static char* theEntries[DtArgvMaxEntries];
   // The words of the last call, freed when the next call reuses the array.
   static std::vector<std::unique_ptr<char[]>> theWords;

   theWords.clear();
   std::fill(std::begin(theEntries), std::end(theEntries), nullptr);
   theEntries[0] = theProgramName;
   int entries = 1;
   for (std::string const& word : blankSeparatedWords(line, DtArgvMaxEntries - 1))
   {
      theWords.emplace_back(DtStrdup(word.c_str()));
      theEntries[entries++] = theWords.back().get();
   }
   if (count)
      *count = entries;
   return theEntries;
}

int DtArgc(char* line)
{
   return 1 + static_cast<int>(blankSeparatedWords(line, DtArgvMaxEntries - 1).size());
}

// ============================================================ pattern match

DtStringPatternMatch::DtStringPatternMatch() = default;

DtStringPatternMatch::DtStringPatternMatch(DtString const& string, DtString const& pattern)
    : searched(string), patternText(pattern)
{
   if (!searched.isEmpty() && !patternText.isEmpty())
      buildTable();
}

DtStringPatternMatch::DtStringPatternMatch(DtStringPatternMatch const& other)
    : searched(other.searched), patternText(other.patternText)
{
   if (other.skipTable)
   {
      skipTable = new int[256];
      std::copy(other.skipTable, other.skipTable + 256, skipTable);
   }
}

DtStringPatternMatch& DtStringPatternMatch::operator=(DtStringPatternMatch const& other)
{
   if (this != &other)
   {
      DtStringPatternMatch copy(other);
      std::swap(searched, copy.searched);
      std::swap(patternText, copy.patternText);
      std::swap(skipTable, copy.skipTable);
   }
   return *this;
}

DtStringPatternMatch::~DtStringPatternMatch()
{
   delete[] skipTable;
}

void DtStringPatternMatch::setPattern(DtString const& pattern)
{
   patternText = pattern;
   delete[] skipTable;
   skipTable = nullptr;
   if (!patternText.isEmpty())
      buildTable();
}

DtString const& DtStringPatternMatch::pattern() const
{
   return patternText;
}

void DtStringPatternMatch::setString(DtString const& string)
{
   searched = string;
}

DtString const& DtStringPatternMatch::string() const
{
   return searched;
}

void DtStringPatternMatch::buildTable()
{
   if (!skipTable)
      skipTable = new int[256];
   int const m = patternText.length();
   char const* const pattern = patternText.c_str();
   std::fill(skipTable, skipTable + 256, m);
   // Indexed by the byte as an unsigned value: a signed char would index bytes
   // of 128 and above before the start of the table.
   for (int i = 0; i + 1 < m; ++i)
      skipTable[static_cast<unsigned char>(pattern[i])] = m - 1 - i;
   int& last = skipTable[static_cast<unsigned char>(pattern[m - 1])];
   last = -last;
}

int DtStringPatternMatch::indexOfOccurence(int start)
{
   int const n = searched.length();
   int const m = patternText.length();
   if (n == 0 || m == 0)
      return -2;
   // A negative start would compare bytes before the string.
   if (start < 0)
      return -1;
   if (!skipTable)
      buildTable();
   char const* const text = searched.c_str();
   char const* const pattern = patternText.c_str();
   long long at = static_cast<long long>(start) + m - 1;
   while (at < n)
   {
      int const entry = skipTable[static_cast<unsigned char>(text[at])];
      if (entry >= 1)
      {
         at += entry;
         continue;
      }
      long long const first = at - m + 1;
      if (std::memcmp(text + first, pattern, static_cast<std::size_t>(m)) == 0)
         return static_cast<int>(first);
      at -= entry;
   }
   return -1;
}
