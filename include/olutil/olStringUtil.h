//===- olutil/olStringUtil.h - String utilities and pattern matching -*- C++ -*-===//
//
// Family: Text.
//
// Free functions over DtString and plain character arrays: the wire forms in
// which a string travels inside records, substring search and replacement,
// number, address and binary texts, and the small C-string helpers that older
// interfaces still use. DtStringPatternMatch is a reusable substring search
// with a skip table built once per pattern.
//
// Threads: DtArgv and DtArgc share one array and belong to one thread at a
// time; DtInetAddrString returns the C library's static buffer. Everything else
// here uses no shared state.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLSTRINGUTIL_H
#define OLUTIL_OLSTRINGUTIL_H

#include <olutil/olString.h>

#include <string>
#include <vector>

/// The wire form of a string. The type is an int: any value may be passed,
/// and an unknown one is refused (0 bytes).
enum DtStringEncodingType : int
{
   /// A four-byte length in the wire order of DtNetU32, then the characters;
   /// wide: the length, then each character as a 16-bit unit.
   DtStringEncodingCounted = 0,
   /// The characters alone; the reader takes the whole buffer.
   DtStringEncodingPlain = 1,
   /// The characters and a terminating NUL.
   DtStringEncodingTerminated = 2,
   /// The same as DtStringEncodingTerminated.
   DtStringEncodingTerminatedAlt = 3,
   /// The characters alone, as DtStringEncodingPlain.
   DtStringEncodingFixed = 4,
   /// The characters alone, as DtStringEncodingPlain.
   DtStringEncodingFixedAlt = 5,
   /// The characters alone; written, never read (DtStringFromBuffer gives 0).
   DtStringEncodingWriteOnly = 6
};

// ------------------------------------------------------------- wire forms

/// Writes `text` in the wire form `encoding` at `buffer`, which holds `size`
/// bytes. Returns the bytes written, or 0 when they don't fit, the encoding is
/// unknown, or the buffer is null. `wide` matters to DtStringEncodingCounted
/// only: each character then goes out as a zero byte and the character.
int DtStringToBuffer(DtStringEncodingType encoding, char* buffer, int size, DtString const& text,
                     bool wide);

/// Reads a string in the wire form `encoding` from the `size` bytes at
/// `buffer` into `text`. Returns the bytes consumed, or 0 when nothing valid
/// is there; `text` is then left as it was (a plain form of 0 bytes gives the
/// empty text and 0). Never reads outside the buffer: a length that runs past
/// the end, a missing terminator, or a negative size gives 0.
int DtStringFromBuffer(DtStringEncodingType encoding, DtString* text, char const* buffer, int size,
                       bool wide);

/// The bytes that a wire form adds to the characters: DtVariableArraySizeLength
/// for DtStringEncodingCounted, 1 for the terminated forms, 0 otherwise.
int DtStringGetNetPadding(DtStringEncodingType encoding);

// ------------------------------------------------------------------ text

/// A copy of `text` with every occurrence of `from` replaced by `to`, left to
/// right; replaced text is not searched again. An empty `from` replaces nothing.
DtString DtReplaceAllSubstrings(DtString const& text, DtString const& from, DtString const& to);
/// A copy of `text` with the first occurrence of `from` replaced by `to`.
DtString DtReplaceSubstring(DtString const& text, DtString const& from, DtString const& to);
/// True if `part` occurs in `text`; the empty part occurs in every text.
bool DtContainsSubstring(DtString const& text, DtString const& part);

/// Copies with the first character changed by tolower or toupper.
DtString DtFirstCharToLower(DtString const& text);
DtString DtFirstCharToUpper(DtString const& text);
/// Lowers the first character of a one-character text, and of a longer text
/// only when its second character is lower case, so that an acronym keeps
/// its capitals: "Abc" gives "abc", "ABc" stays.
DtString DtFirstCharToLowerConditional(DtString const& text);

/// A narrow copy: one char, the low byte, for each wide character. Null gives
/// the empty text.
std::string DtToString(std::wstring const& text);
std::string DtToString(wchar_t const* text);

// ---------------------------------------------------- numbers and addresses

/// Dotted text of a host-order IPv4 address. The text is inet_ntoa's static
/// buffer, overwritten by the next call in the same thread.
char const* DtInetAddrString(unsigned int address);

/// Host-order IPv4 address of a name or dotted text, through getaddrinfo; the
/// first IPv4 answer is taken. A name that can't be resolved writes
/// "DtStringToInetAddr: Could not resolve NAME returning 0" to DtWarn and
/// gives 0.
unsigned int DtStringToInetAddr(char const* name);
unsigned int DtStringToInetAddr(DtString const& name);

/// Host-order IPv4 address from eight hexadecimal digits, "C0A80001" giving
/// 0xC0A80001. Characters past the eighth are ignored. A null text, one of
/// fewer than eight characters, or one that inet_addr refuses in the form
/// "0xAA.0xBB.0xCC.0xDD" gives 0xFFFFFFFF (INADDR_NONE).
unsigned int DtHexStringToInetAddr(char const* text);

/// Degrees as "D:MM:SS.ss", the format "%d:%2.2d:%0*.*lf" with two decimals
/// of seconds; a negative angle is led by '-'. Writes at most `size` bytes,
/// terminator included, and returns `buffer`; a text that doesn't fit is cut.
char* DtDeg2DmsString(double degrees, char* buffer, int size);
DtString DtDeg2DmsString(double degrees);

/// Text of '0' and '1', four to a hexadecimal digit, padded on the left with
/// '0' to `width` characters. A character that isn't a hexadecimal digit
/// counts as 0.
std::string DtHexToBinary(std::string const& hex, int width);
/// Upper-case hexadecimal text, one digit to four binary digits, counted from
/// the right (a short leading group is padded with zeros). Any character but
/// '1' counts as 0.
std::string DtBinaryToHex(std::string const& binary);
/// Inserts the bits of `value` at the front of `bits`, so that the least
/// significant bit ends first and whatever `bits` held follows the most
/// significant one. 0 gives the single bit 0.
void DtDecimalToBinary(unsigned int value, std::vector<int>& bits);
/// The value of a text of binary digits, most significant first; any character
/// but '1' counts as 0. Digits past the 32nd shift the first ones out.
unsigned int DtBinaryToDecimal(std::string const& binary);

// --------------------------------------------------- C strings and arguments

/// Index of `value` in a zero-terminated list, or -1. 0 is never found, since
/// it ends the list; a null list gives -1.
int DtIsInList(int const* list, int value);
/// A new copy, made with new[]: release it with delete[]. Null gives null.
char* DtStrdup(char const* text);
/// Change the text in place; null does nothing.
void DtToLower(char* text);
void DtToUpper(char* text);

/// Makes `buffer` (from malloc, or null) hold at least `length` characters and
/// a terminator: the capacity becomes `length` + 1 rounded up to a multiple of
/// 4, the new bytes zeroed. A buffer that is large enough is left alone.
/// Returns 0, or -1 for a negative length or a failed allocation (the capacity
/// is then 0 and the old block stays where it was). Release with free().
int DtResizeString(char*& buffer, int& capacity, int length);

/// The size of DtArgv's array.
constexpr int DtArgvMaxEntries = 100;

/// Splits a command line at blanks into an argument vector whose entry 0 is
/// "main". At most DtArgvMaxEntries entries, "main" included; words past that
/// are dropped. Entries behind the last are null. `count`, when given,
/// receives the number of entries. The array and the words belong to the
/// library and stay valid until the next DtArgv call, which reuses them.
char** DtArgv(char* line, int* count);
/// The number of entries that DtArgv would give for `line`; leaves DtArgv's
/// array alone.
int DtArgc(char* line);

// ----------------------------------------------------------- pattern match

/// A substring search that builds a 256-entry skip table once per pattern and
/// then finds occurrences in a string from any start, skipping ahead by what
/// the table says after each failed comparison. All bytes are searched as
/// unsigned values, those of 128 and above included.
class DtStringPatternMatch
{
public:
   DtStringPatternMatch();
   /// Builds the table when both texts are non-empty.
   DtStringPatternMatch(DtString const& string, DtString const& pattern);
   DtStringPatternMatch(DtStringPatternMatch const& other);
   DtStringPatternMatch& operator=(DtStringPatternMatch const& other);
   virtual ~DtStringPatternMatch();

   /// Replaces the pattern and rebuilds the table.
   void setPattern(DtString const& pattern);
   DtString const& pattern() const;
   void setString(DtString const& string);
   DtString const& string() const;

   /// The position of the first occurrence of the pattern that starts at
   /// `start` or later; -1 when there is none or `start` lies outside the
   /// string; -2 when the string or the pattern is empty.
   int indexOfOccurence(int start);

private:
   void buildTable();

   // The order of these fields is part of the binary layout.
   DtString searched;
   DtString patternText;
   // Owned array of 256 entries, null until built. An entry above 0 is the
   // skip for a byte that can't end a match; an entry below 1 marks a byte
   // equal to the pattern's last one, and its magnitude is the skip after a
   // failed comparison.
   int* skipTable = nullptr;
};

#endif  // OLUTIL_OLSTRINGUTIL_H
