//===- olString.h - The library's 8-bit text value --------------*- C++ -*-===//
//
// Family: Text.
//
// DtString is the text type of nearly every olutil interface: names, addresses
// in text form, exception messages, hash keys and file names (DtFilename
// derives from it). It holds a NUL-terminated C string in a 64-byte buffer
// inside the object, or in one exact-size heap block of its own, converts to
// and from numbers with the C library's formatted conversions, and is
// polymorphic: nearly every operation is virtual so that a derived text class
// can override it, and the free operators dispatch through those members.
//
// A DtString takes no lock. It belongs to one thread at a time; several threads
// may read one string concurrently as long as none writes it.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLSTRING_H
#define OLUTIL_OLSTRING_H

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <vector>

class DtString
{
public:
   // The word size operator>> has always been sized for. It reads words of any
   // length whole; the constant stays for programs that size buffers by it.
   static constexpr int theMaxInsertionStringSize = 256;

   // Bytes of the buffer inside the object; texts of up to 63 characters never
   // touch the heap.
   static constexpr unsigned int theInlineSize = 64;

   // ---------------------------------------------------------- construction
   DtString();
   // Null gives the empty string.
   DtString(char const* s);
   // Exactly n bytes of s, embedded NULs included, then a terminator. Null s or
   // a negative n gives the empty string.
   DtString(char const* s, int n);
   DtString(std::string const& s);
   // Copies by capacity: the copy has the source's capacity, not a tight fit.
   DtString(DtString const& other);
   // "%.13g"
   DtString(double value);
   // "%d"
   DtString(int value);
   // "%ld"
   DtString(long value);
   // "%c": the character NUL gives the empty string.
   DtString(char value);
   // "%u"
   DtString(unsigned int value);
   // "%lu"
   DtString(unsigned long value);

   // ------------------------------------------------ virtual operations
   // The order of these declarations is the order of the virtual table, which
   // derived text classes and their users depend on: append only at the end.

   virtual ~DtString();

   // Same as setString; returns this string.
   virtual DtString& operator=(char const* s);
   // Copies by capacity; a target whose block is already large enough keeps it.
   virtual DtString& operator=(DtString const& other);

   // The text as it stands, without a null test.
   virtual operator char const*() const;

   // A new heap copy, owned by the caller.
   virtual DtString* clone() const;

   // Byte-order comparisons (strcmp). Each gives false when this text or the
   // argument is null, operator!= included.
   virtual bool operator<(char const* s) const;
   virtual bool operator>(char const* s) const;
   virtual bool operator==(char const* s) const;
   virtual bool operator!=(char const* s) const;
   virtual bool operator<=(char const* s) const;
   virtual bool operator>=(char const* s) const;

   // True when equal without regard to case (strcasecmp); gives no ordering.
   virtual bool caseCompare(char const* s) const;
   virtual bool caseCompare(DtString const& other) const;

   virtual DtString operator+(char const* s) const;
   // Grows to exactly the size needed, with no spare room. A null argument
   // appends nothing.
   virtual DtString& operator+=(char const* s);
   virtual DtString& operator+=(DtString const& other);

   // The byte at the index, without a bounds check.
   virtual char& operator[](int index);
   virtual char const& operator[](int index) const;

   // Removes everything up to and including the first occurrence of c, or the
   // last one when greedy. False when c is NUL or does not occur.
   virtual bool snipFront(char c, bool greedy = false);
   // Cuts the text at the last occurrence of c, or at the first one when
   // greedy, removing that byte and all behind it. False when c is NUL or does
   // not occur.
   virtual bool snipBack(char c, bool greedy = false);
   // Remove leading or trailing white space; true if any byte went.
   virtual bool chompFront();
   virtual bool chompBack();

   // Splits at every sep. Leading and inner empty fields are kept, a trailing
   // empty field is dropped: "a,,b," gives "a", "", "b"; "," gives one empty
   // token; the empty text gives none. out is replaced whole, and may hold this
   // very string: tokens[0].tokenize(',', tokens) splits tokens[0].
   virtual void tokenize(char sep, std::vector<DtString>& out) const;

   // Numeric conversions. Leading blanks, tabs, line ends, '+' and '0' are
   // skipped (never the last byte). Hexadecimal text ("0x...") is the raw
   // IEEE-754 bit pattern of a double, not an integer value: "0x4059000000000000"
   // is 100 in all four. ok, when given, reports success; a null text returns
   // 0 and leaves *ok alone. Trailing text is not an error.
   virtual int toInt(bool* ok = nullptr) const;
   virtual unsigned int toUInt(bool* ok = nullptr) const;
   virtual float toFloat(bool* ok = nullptr) const;
   virtual double toDouble(bool* ok = nullptr) const;
   // A number decides first (non-zero is true); otherwise "true" and "false",
   // in any case. Anything else gives false with *ok false.
   virtual bool toBoolean(bool* ok = nullptr) const;

   virtual void toUpper();
   virtual void toLower();

   // Positions from 0, or -1 when not found.
   virtual int findChar(char c);
   virtual int findLastChar(char c);
   // An empty other gives 0.
   virtual int findString(DtString const& other) const;
   // Gives the occurrence nearest the start, the same as findString: existing
   // callers rely on this, so "abab" searched for "ab" gives 0.
   virtual int findLastString(DtString const& other);
   virtual int count(char c) const;

   // Both measure up to the first NUL; the length is not stored.
   virtual int length() const;
   virtual int size() const;

   virtual std::string stdString() const;
   virtual char const* string() const;
   virtual char const* c_str() const;
   virtual bool isEmpty() const;

   // Fields first to last of the text split at sep, joined again with sep.
   // Field numbers count non-empty tokens only, while a negative index is
   // counted back from the number of all tokens, empty ones included.
   virtual DtString section(char sep, int first, int last) const;

   // ------------------------------------------------ non-virtual operations

   // Subscripts with other integer types (size_t, long, ...), which would
   // otherwise be ambiguous with the built-in subscript of char const*.
   template <typename Index, typename = std::enable_if_t<std::is_integral<Index>::value &&
                                                         !std::is_same<Index, int>::value>>
   char& operator[](Index index)
   {
      return (*this)[static_cast<int>(index)];
   }
   template <typename Index, typename = std::enable_if_t<std::is_integral<Index>::value &&
                                                         !std::is_same<Index, int>::value>>
   char const& operator[](Index index) const
   {
      return (*this)[static_cast<int>(index)];
   }

   // Replaces the text. Null stores the empty text; the string's own text is
   // left alone. A larger text gets a heap block of exactly its size.
   void setString(char const* s);

   // Shared empty strings, built on first use.
   static DtString const& nullString();
   static DtString const& nullId();

protected:
   // Frees an owned block, leaving text null (the released state); an inline
   // string keeps its text. In both cases capacity becomes 0. Used on the way to
   // a new allocation or to destruction only.
   void clear();

private:
   // Constructors' common tail: n bytes, then a terminator, in the inline
   // buffer or in a heap block of exactly n + 1 bytes.
   void initFrom(char const* bytes, std::size_t n);

protected:
   // The order of these fields is part of the binary layout.
   char inlineBuffer[theInlineSize];
   // Points to inlineBuffer or to the heap block; null only once released.
   char* text;
   // True when text was allocated here and must be freed here.
   bool ownsHeap;
   // Bytes usable at text, terminator included: 64 while inline, otherwise the
   // exact size asked of the allocator.
   std::uint32_t capacity;
};

// These dispatch through the left operand's virtual member with the right
// operand's string(), so a derived class's override decides.
bool operator<(DtString const& a, DtString const& b);
bool operator>(DtString const& a, DtString const& b);
bool operator==(DtString const& a, DtString const& b);
bool operator!=(DtString const& a, DtString const& b);
bool operator<=(DtString const& a, DtString const& b);
bool operator>=(DtString const& a, DtString const& b);

DtString operator+(char const* a, DtString const& b);
DtString operator+(DtString const& a, DtString const& b);

std::ostream& operator<<(std::ostream& os, DtString const& s);
// Reads one white-space-delimited word, or a phrase in double quotes whose
// inner white space becomes single blanks: "\"a   b\"" gives "a b". A phrase
// that the stream ends before closing keeps what was read. Words of any length
// are read whole. A NUL in the stream ends the text there, inside a phrase too;
// the quotes are still looked for in the bytes as they came.
std::istream& operator>>(std::istream& is, DtString& s);

#endif  // OLUTIL_OLSTRING_H
