//===- olString.cpp - The library's 8-bit text value ----------------------===//
//
// Family: Text.
//
//===----------------------------------------------------------------------===//
#include <olutil/olString.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <ostream>
#include <strings.h>

namespace
{

constexpr double theTwoTo63 = 9223372036854775808.0;
constexpr double theTwoTo64 = 18446744073709551616.0;

bool isNumberPrefix(char c)
{
   return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '+' || c == '0';
}

// Where a numeric conversion starts: past any mix of white space, '+' and '0',
// but never past the last byte, so "0" stays "0". Sets hex when the text is a
// hexadecimal bit pattern, and then points at its "0x" or at the 'x'.
char const* numberStart(char const* text, bool& hex)
{
   char const* at = text;
   std::size_t const len = std::strlen(text);
   if (len > 0)
   {
      char const* const last = text + len - 1;
      while (at < last && isNumberPrefix(*at))
         ++at;
   }
   hex = (*at == 'x' || *at == 'X') && at > text;
   if (hex && at[-1] == '0')
      --at;
   return at;
}

// Hexadecimal text carries the raw bits of a double, so that a double can pass
// through text exactly; the value is not an integer. False when nothing scanned.
bool scanBits(char const* at, double& value)
{
   unsigned long long bits = 0;
   if (std::sscanf(at, "%llx", &bits) < 1)
      return false;
   static_assert(sizeof bits == sizeof value, "a double is 64 bits");
   std::memcpy(&value, &bits, sizeof value);
   return true;
}

// The success rule of the unsigned and floating conversions: overflow is the
// value overflowValue with ERANGE, a bad argument is 0 with EINVAL, and
// otherwise something must have been read. errno is deliberately not cleared
// before the conversion, so a stale value counts.
bool decimalOk(double value, double overflowValue, char const* at, char const* end)
{
   if (value == overflowValue)
      return errno != ERANGE;
   if (value == 0.0 && errno == EINVAL)
      return false;
   return end > at;
}

enum class NumberKind
{
   Signed,
   Unsigned,
   Floating
};

// The conversion all four numeric operations share: the value as a double,
// and *ok by the rules of the kind asked for.
double parseNumber(char const* text, NumberKind kind, bool* ok)
{
   bool hex = false;
   char const* const at = numberStart(text, hex);
   double value = 0.0;
   if (hex)
   {
      bool const scanned = scanBits(at, value);
      // Only the signed conversion reports a successful scan; the others leave
      // the caller's flag as it was.
      if (ok && (kind == NumberKind::Signed || !scanned))
         *ok = scanned;
      return value;
   }

   char* end = nullptr;
   switch (kind)
   {
      case NumberKind::Signed:
         value = static_cast<double>(std::strtol(at, &end, 0));
         if (ok)
         {
            if (value == 0.0)
               *ok = end > at;
            else if (value == theTwoTo63 || value == -theTwoTo63)
               *ok = errno != ERANGE;
            else
               *ok = true;
         }
         break;
      case NumberKind::Unsigned:
         value = static_cast<double>(std::strtoul(at, &end, 0));
         if (ok)
            *ok = decimalOk(value, theTwoTo64, at, end);
         break;
      case NumberKind::Floating:
         value = std::strtod(at, &end);
         if (ok)
            *ok = decimalOk(value, HUGE_VAL, at, end);
         break;
   }
   return value;
}

// The truncating conversion of the x86-64 instruction set, without undefined
// behaviour: a value out of range, or NaN, gives the integer-indefinite value.
std::int64_t truncateTo64(double value)
{
   if (value >= -theTwoTo63 && value < theTwoTo63)
      return static_cast<std::int64_t>(value);
   return INT64_MIN;
}

int truncateToInt(double value)
{
   if (value > -2147483649.0 && value < 2147483648.0)
      return static_cast<int>(value);
   return INT_MIN;
}

// A 64-bit truncation of which the low 32 bits are kept: 2^32 and 2^64 both
// give 0, without a report.
unsigned int truncateToUInt(double value)
{
   return static_cast<unsigned int>(static_cast<std::uint64_t>(truncateTo64(value)));
}

}  // namespace

// ------------------------------------------------------------ construction

// The whole inline buffer is zeroed: copies take all of its 64 bytes, and they
// should carry nothing left over from the stack.
DtString::DtString() : inlineBuffer{}, text(inlineBuffer), ownsHeap(false), capacity(theInlineSize)
{
}

void DtString::initFrom(char const* bytes, std::size_t n)
{
   if (n + 1 > theInlineSize)
   {
      text = new char[n + 1];
      capacity = static_cast<std::uint32_t>(n + 1);
      ownsHeap = true;
   }
   std::memcpy(text, bytes, n);
   text[n] = '\0';
}

DtString::DtString(char const* s) : DtString()
{
   if (s)
      initFrom(s, std::strlen(s));
}

DtString::DtString(char const* s, int n) : DtString()
{
   if (s && n > 0)
      initFrom(s, static_cast<std::size_t>(n));
}

DtString::DtString(std::string const& s) : DtString()
{
   initFrom(s.data(), s.size());
}

DtString::DtString(DtString const& other) : DtString()
{
   if (!other.text)
      return;
   if (other.capacity > theInlineSize)
   {
      text = new char[other.capacity];
      capacity = other.capacity;
      ownsHeap = true;
   }
   // By capacity, not by length: the copy keeps the source's room.
   std::memcpy(text, other.text, other.capacity);
}

DtString::DtString(double value) : DtString()
{
   char scratch[30];
   std::snprintf(scratch, sizeof scratch, "%.13g", value);
   setString(scratch);
}

// The integer and character texts always fit in the inline buffer.
DtString::DtString(int value) : DtString()
{
   std::snprintf(inlineBuffer, theInlineSize, "%d", value);
}

DtString::DtString(long value) : DtString()
{
   std::snprintf(inlineBuffer, theInlineSize, "%ld", value);
}

DtString::DtString(char value) : DtString()
{
   std::snprintf(inlineBuffer, theInlineSize, "%c", value);
}

DtString::DtString(unsigned int value) : DtString()
{
   std::snprintf(inlineBuffer, theInlineSize, "%u", value);
}

DtString::DtString(unsigned long value) : DtString()
{
   std::snprintf(inlineBuffer, theInlineSize, "%lu", value);
}

DtString::~DtString()
{
   if (ownsHeap)
      clear();
}

void DtString::clear()
{
   if (ownsHeap)
   {
      delete[] text;
      text = nullptr;
   }
   capacity = 0;
}

// ------------------------------------------------------------ assignment

void DtString::setString(char const* s)
{
   if (s == text)
      return;
   if (!s)
   {
      if (text)
         text[0] = '\0';
      return;
   }
   std::size_t const need = std::strlen(s) + 1;
   if (need > capacity)
   {
      char* block = new char[need];
      std::memcpy(block, s, need);
      if (ownsHeap)
         delete[] text;
      text = block;
      capacity = static_cast<std::uint32_t>(need);
      ownsHeap = true;
      return;
   }
   // s may lie inside this text.
   std::memmove(text, s, need);
}

DtString& DtString::operator=(char const* s)
{
   setString(s);
   return *this;
}

DtString& DtString::operator=(DtString const& other)
{
   if (this == &other)
      return *this;
   if (other.capacity > capacity)
   {
      char* block = new char[other.capacity];
      if (ownsHeap)
         delete[] text;
      text = block;
      capacity = other.capacity;
      ownsHeap = true;
   }
   if (!text || !other.text)
      return *this;
   std::memcpy(text, other.text, other.capacity);
   return *this;
}

// ------------------------------------------------------------ access

DtString::operator char const*() const
{
   return text;
}

DtString* DtString::clone() const
{
   return new DtString(*this);
}

char& DtString::operator[](int index)
{
   return text[index];
}

char const& DtString::operator[](int index) const
{
   return text[index];
}

int DtString::length() const
{
   return size();
}

int DtString::size() const
{
   return text ? static_cast<int>(std::strlen(text)) : 0;
}

std::string DtString::stdString() const
{
   return std::string(text);
}

char const* DtString::string() const
{
   return text;
}

char const* DtString::c_str() const
{
   return text;
}

bool DtString::isEmpty() const
{
   return text[0] == '\0';
}

DtString const& DtString::nullString()
{
   static DtString const empty;
   return empty;
}

DtString const& DtString::nullId()
{
   static DtString const empty;
   return empty;
}

// ------------------------------------------------------------ comparison

bool DtString::operator<(char const* s) const
{
   return text && s && std::strcmp(text, s) < 0;
}

bool DtString::operator>(char const* s) const
{
   return text && s && std::strcmp(text, s) > 0;
}

bool DtString::operator==(char const* s) const
{
   return text && s && std::strcmp(text, s) == 0;
}

bool DtString::operator!=(char const* s) const
{
   return text && s && std::strcmp(text, s) != 0;
}

bool DtString::operator<=(char const* s) const
{
   return text && s && std::strcmp(text, s) <= 0;
}

bool DtString::operator>=(char const* s) const
{
   return text && s && std::strcmp(text, s) >= 0;
}

bool DtString::caseCompare(char const* s) const
{
   return text && s && ::strcasecmp(text, s) == 0;
}

bool DtString::caseCompare(DtString const& other) const
{
   return caseCompare(other.string());
}

bool operator<(DtString const& a, DtString const& b)
{
   return a.operator<(b.string());
}

bool operator>(DtString const& a, DtString const& b)
{
   return a.operator>(b.string());
}

bool operator==(DtString const& a, DtString const& b)
{
   return a.operator==(b.string());
}

bool operator!=(DtString const& a, DtString const& b)
{
   return a.operator!=(b.string());
}

bool operator<=(DtString const& a, DtString const& b)
{
   return a.operator<=(b.string());
}

bool operator>=(DtString const& a, DtString const& b)
{
   return a.operator>=(b.string());
}

// ------------------------------------------------------------ concatenation

DtString DtString::operator+(char const* s) const
{
   DtString result(*this);
   result += s;
   return result;
}

DtString& DtString::operator+=(char const* s)
{
   // A null argument appends nothing rather than bringing the caller down.
   if (!s)
      return *this;
   std::size_t const n = std::strlen(s);
   if (n == 0)
      return *this;
   std::size_t const len = static_cast<std::size_t>(length());
   std::size_t const need = n + len + 1;
   if (need > capacity)
   {
      // Exactly the size needed and no more: a string rarely grows twice.
      char* block = new char[need];
      if (len > 0)
         std::memcpy(block, text, len);
      std::memcpy(block + len, s, n + 1);
      if (ownsHeap)
         delete[] text;
      text = block;
      capacity = static_cast<std::uint32_t>(need);
      ownsHeap = true;
   }
   else
   {
      // s may be this very text.
      std::memmove(text + len, s, n + 1);
   }
   return *this;
}

DtString& DtString::operator+=(DtString const& other)
{
   return *this += other.text;
}

DtString operator+(char const* a, DtString const& b)
{
   DtString result(a);
   result += b.operator char const*();
   return result;
}

DtString operator+(DtString const& a, DtString const& b)
{
   return a.operator+(b.string());
}

// ------------------------------------------------------------ editing

bool DtString::snipFront(char c, bool greedy)
{
   if (!text || c == '\0')
      return false;
   char const* hit = greedy ? std::strrchr(text, c) : std::strchr(text, c);
   if (!hit)
      return false;
   std::memmove(text, hit + 1, std::strlen(hit + 1) + 1);
   return true;
}

bool DtString::snipBack(char c, bool greedy)
{
   if (!text || c == '\0')
      return false;
   char* hit = greedy ? std::strchr(text, c) : std::strrchr(text, c);
   if (!hit)
      return false;
   *hit = '\0';
   return true;
}

bool DtString::chompFront()
{
   if (!text)
      return false;
   char const* at = text;
   while (std::isspace(static_cast<unsigned char>(*at)))
      ++at;
   if (at == text)
      return false;
   std::memmove(text, at, std::strlen(at) + 1);
   return true;
}

bool DtString::chompBack()
{
   if (!text)
      return false;
   std::size_t len = std::strlen(text);
   bool removed = false;
   while (len > 0 && std::isspace(static_cast<unsigned char>(text[len - 1])))
   {
      text[--len] = '\0';
      removed = true;
   }
   return removed;
}

void DtString::toUpper()
{
   int const n = size();
   for (int i = 0; i < n; ++i)
   {
      unsigned char const c = static_cast<unsigned char>(text[i]);
      if (std::isalpha(c))
         text[i] = static_cast<char>(std::toupper(c));
   }
}

void DtString::toLower()
{
   int const n = size();
   for (int i = 0; i < n; ++i)
   {
      unsigned char const c = static_cast<unsigned char>(text[i]);
      if (std::isalpha(c))
         text[i] = static_cast<char>(std::tolower(c));
   }
}

// ------------------------------------------------------------ searching

int DtString::findChar(char c)
{
   if (!text)
      return -1;
   char const* hit = std::strchr(text, c);
   return hit ? static_cast<int>(hit - text) : -1;
}

int DtString::findLastChar(char c)
{
   if (!text)
      return -1;
   char const* hit = std::strrchr(text, c);
   return hit ? static_cast<int>(hit - text) : -1;
}

int DtString::findString(DtString const& other) const
{
   char const* wanted = other.c_str();
   if (!text || !wanted)
      return -1;
   char const* hit = std::strstr(text, wanted);
   return hit ? static_cast<int>(hit - text) : -1;
}

int DtString::findLastString(DtString const& other)
{
   if (!text)
      return -1;
   char const* wanted = other.c_str();
   if (!wanted || wanted[0] == '\0')
      return 0;
   // The search ends at the occurrence nearest the start, as findString's does;
   // callers depend on that.
   return findString(other);
}

int DtString::count(char c) const
{
   int const n = size();
   int found = 0;
   for (int i = 0; i < n; ++i)
   {
      if (text[i] == c)
         ++found;
   }
   return found;
}

// ------------------------------------------------------------ splitting

void DtString::tokenize(char sep, std::vector<DtString>& out) const
{
   // The tokens are gathered apart and handed over at the end: out may hold
   // this very string, which clearing it first would destroy.
   std::vector<DtString> tokens;
   DtString token;
   int const n = size();
   for (int i = 0; i < n; ++i)
   {
      if (text[i] == sep)
      {
         tokens.push_back(token);
         token = nullString();
      }
      else
      {
         char const piece[2] = {text[i], '\0'};
         token += piece;
      }
   }
   if (!token.isEmpty())
      tokens.push_back(token);
   out.swap(tokens);
}

DtString DtString::section(char sep, int first, int last) const
{
   std::vector<DtString> tokens;
   tokenize(sep, tokens);
   DtString result;
   if (tokens.empty())
      return result;
   int const n = static_cast<int>(tokens.size());
   // Negative indices count back over all tokens, while the field numbers
   // below count only non-empty ones; callers rely on this mismatch.
   if (first < 0)
      first += n;
   if (last < 0)
      last += n;
   char const sepText[2] = {sep, '\0'};
   for (int i = 0, k = 0; k <= last && i < n; ++i)
   {
      if (k >= first)
      {
         if (k > first)
            result += sepText;
         result += tokens[i];
      }
      if (!tokens[i].isEmpty())
         ++k;
   }
   return result;
}

// ------------------------------------------------------------ conversion

int DtString::toInt(bool* ok) const
{
   if (!text)
      return 0;
   return truncateToInt(parseNumber(text, NumberKind::Signed, ok));
}

unsigned int DtString::toUInt(bool* ok) const
{
   if (!text)
      return 0;
   return truncateToUInt(parseNumber(text, NumberKind::Unsigned, ok));
}

float DtString::toFloat(bool* ok) const
{
   if (!text)
      return 0.0f;
   return static_cast<float>(parseNumber(text, NumberKind::Floating, ok));
}

double DtString::toDouble(bool* ok) const
{
   if (!text)
      return 0.0;
   return parseNumber(text, NumberKind::Floating, ok);
}

bool DtString::toBoolean(bool* ok) const
{
   bool flag = true;
   int const number = toInt(&flag);
   bool result = false;
   if (flag)
      result = number != 0;
   else if (caseCompare("true"))
      result = flag = true;
   else
      flag = caseCompare("false");
   if (ok)
      *ok = flag;
   return result;
}

// ------------------------------------------------------------ streams

std::ostream& operator<<(std::ostream& os, DtString const& s)
{
   return os << s.string();
}

namespace
{

// Reads one white-space-delimited word whole, however long, NULs included: the
// quotes are looked for in the bytes as they came, and the text made of them
// ends at its first NUL like every text of a DtString. A word read is never
// empty. False when no word could be read.
bool readWord(std::istream& is, std::string& word)
{
   return static_cast<bool>(is >> word);
}

bool endsInQuote(std::string const& word)
{
   return !word.empty() && word.back() == '"';
}

}  // namespace

std::istream& operator>>(std::istream& is, DtString& s)
{
   std::string word;
   readWord(is, word);
   if (word.empty() || word[0] != '"')
   {
      s = word.c_str();
      return is;
   }
   if (endsInQuote(word))
   {
      // A lone quote both opens and closes: the empty text.
      s = word.size() >= 2 ? word.substr(1, word.size() - 2).c_str() : "";
      return is;
   }
   std::string phrase = word.substr(1);
   bool closed = false;
   while (!closed && readWord(is, word))
   {
      phrase += ' ';
      closed = endsInQuote(word);
      if (closed)
         word.pop_back();
      phrase += word;
   }
   // A stream that ends inside a phrase yields what was read, like the end of
   // any last word: end of input, but no failure.
   if (!closed)
      is.clear(is.rdstate() & ~std::ios::failbit);
   s = phrase.c_str();
   return is;
}
