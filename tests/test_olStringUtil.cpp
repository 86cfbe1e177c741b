// Tests of the string wire forms, the text, number and C-string helpers, DtArgv
// and DtStringPatternMatch.
#include <olutil/olStringUtil.h>

#include <olutil/olUtil.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

using namespace std::string_literals;

namespace
{

DtStringEncodingType encoding(int value)
{
   return static_cast<DtStringEncodingType>(value);
}

// The bytes that DtStringToBuffer wrote, or "" when it wrote none.
std::string written(int encodingValue, int size, char const* text, bool wide, int* result)
{
   std::vector<char> buffer(static_cast<std::size_t>(size > 0 ? size : 1), '#');
   *result = DtStringToBuffer(encoding(encodingValue), buffer.data(), size, DtString(text), wide);
   return std::string(buffer.data(), static_cast<std::size_t>(*result > 0 ? *result : 0));
}

// Every test leaves the process-wide byte order as it found it.
class WireFormTest : public ::testing::Test
{
protected:
   void TearDown() override { DtSetNetworkByteOrdering(DtByteOrderNetwork); }
};

}  // namespace

// ---------------------------------------------------------------- wire forms

TEST_F(WireFormTest, ToBufferWritesEachFormByteForByteOrNothingWhenItDoesNotFit)
{
   struct Case
   {
      int encoding;
      int size;
      char const* text;
      bool wide;
      int result;
      std::string bytes;
   } const cases[] = {
       {0, 8, "abcd", false, 8, "\0\0\0\4abcd"s},
       {0, 7, "abcd", false, 0, ""},
       {0, 4, "", false, 4, "\0\0\0\0"s},
       {0, 3, "", false, 0, ""},
       {0, 12, "abcd", true, 12, "\0\0\0\4\0a\0b\0c\0d"s},
       {0, 11, "abcd", true, 0, ""},
       {0, 4, "", true, 4, "\0\0\0\0"s},
       {0, 6, "\xe9", true, 6, "\0\0\0\1\0\xe9"s},
       {1, 4, "abcd", false, 4, "abcd"},
       {1, 3, "abcd", false, 0, ""},
       {2, 4, "abcd", false, 0, ""},
       {2, 5, "abcd", false, 5, "abcd\0"s},
       {3, 5, "abcd", true, 5, "abcd\0"s},
       {2, 1, "", false, 1, "\0"s},
       {4, 4, "abcd", false, 4, "abcd"},
       {5, 4, "abcd", true, 4, "abcd"},
       {6, 4, "abcd", false, 4, "abcd"},
       {6, 3, "abcd", false, 0, ""},
       {7, 100, "abcd", false, 0, ""},
       {-1, 100, "abcd", false, 0, ""},
       {1, 0, "", false, 0, ""},
       {1, -5, "abcd", false, 0, ""},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.encoding) + " size " + std::to_string(c.size) + " \"" +
                   c.text + "\"" + (c.wide ? " wide" : ""));
      int result = -1;
      EXPECT_EQ(c.bytes, written(c.encoding, c.size, c.text, c.wide, &result));
      EXPECT_EQ(c.result, result);
   }
   EXPECT_EQ(0, DtStringToBuffer(DtStringEncodingPlain, nullptr, 10, DtString("a"), false));
}

TEST_F(WireFormTest, TheLengthPrefixFollowsTheProcessByteOrder)
{
   DtSetNetworkByteOrdering(DtByteOrderMachine);
   int result = 0;
   EXPECT_EQ("\2\0\0\0ab"s, written(0, 6, "ab", false, &result));
   DtString text;
   EXPECT_EQ(6, DtStringFromBuffer(DtStringEncodingCounted, &text, "\2\0\0\0ab", 6, false));
   EXPECT_EQ(DtString("ab"), text);
}

TEST_F(WireFormTest, FromBufferReadsEachFormAndNeverPastTheBuffer)
{
   struct Case
   {
      int encoding;
      std::string bytes;  // exactly the buffer: any read past it is caught by the sanitizer
      bool wide;
      int result;
      char const* text;  // null: the text is left as it was
   } const cases[] = {
       {0, "\0\0\0\4abcd"s, false, 8, "abcd"},
       {0, "\0\0\0\4abcdXYZ"s, false, 8, "abcd"},
       {0, "\0\0\0\0"s, false, 4, ""},
       // The traditional test lets a length reach 4 past the size; the
       // characters would then lie beyond the buffer, so it is refused.
       {0, "\0\0\0\5abcd"s, false, 0, nullptr},
       {0, "\0\0\0\x0c" "abcdefgh"s, false, 0, nullptr},
       {0, "\xff\xff\xff\xff"s, false, 0, nullptr},
       {0, "\0\0\0"s, false, 0, nullptr},
       {0, "\0\0\0\2\0a\0b"s, true, 8, "ab"},
       {0, "\0\0\0\1\x01\x41"s, true, 6, "A"},  // the narrow copy keeps the low byte
       {0, "\0\0\0\3\0a\0b"s, true, 0, nullptr},
       {0, "\xff\xff\xff\xff"s, true, 0, nullptr},  // a negative count
       {0, "\x40\0\0\0\0a"s, true, 0, nullptr},
       {2, "abc\0def"s, false, 4, "abc"},
       {3, "\0"s, true, 1, ""},
       {2, "abc"s, false, 0, nullptr},  // no terminator inside the buffer
       {2, ""s, false, 0, nullptr},
       {1, "ab\0d"s, false, 4, "ab"},  // all four bytes taken; the text ends at the NUL
       {4, "ab"s, false, 2, "ab"},
       {5, "ab"s, true, 2, "ab"},
       {1, ""s, false, 0, ""},
       {6, "abcd"s, false, 0, nullptr},
       {9, "abcd"s, false, 0, nullptr},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.encoding) + " " + ::testing::PrintToString(c.bytes) +
                   (c.wide ? " wide" : ""));
      std::unique_ptr<char[]> exact(new char[c.bytes.size() + 1]);
      std::memcpy(exact.get(), c.bytes.data(), c.bytes.size());
      DtString text("untouched");
      EXPECT_EQ(c.result, DtStringFromBuffer(encoding(c.encoding), &text, exact.get(),
                                             static_cast<int>(c.bytes.size()), c.wide));
      EXPECT_EQ(DtString(c.text ? c.text : "untouched"), text);
   }
   DtString text("untouched");
   EXPECT_EQ(0, DtStringFromBuffer(DtStringEncodingPlain, &text, "abc", -1, false));
   EXPECT_EQ(0, DtStringFromBuffer(DtStringEncodingPlain, nullptr, "abc", 3, false));
   EXPECT_EQ(0, DtStringFromBuffer(DtStringEncodingPlain, &text, nullptr, 3, false));
   EXPECT_EQ(DtString("untouched"), text);
}

TEST_F(WireFormTest, EveryReadableFormGivesBackWhatWasWrittenAndItsPadding)
{
   struct Case
   {
      int encoding;
      bool wide;
      int padding;
   } const cases[] = {{0, false, 4}, {0, true, 4}, {1, false, 0}, {2, false, 1},
                      {3, false, 1}, {4, false, 0}, {5, false, 0}};
   for (Case const& c : cases)
   {
      for (char const* original : {"", "x", "hello world", "\x7f\x80\xff"})
      {
         SCOPED_TRACE(std::to_string(c.encoding) + (c.wide ? " wide \"" : " \"") + original + "\"");
         char buffer[64];
         int const length = static_cast<int>(std::strlen(original));
         int const bytes =
             DtStringToBuffer(encoding(c.encoding), buffer, sizeof buffer, DtString(original), c.wide);
         EXPECT_EQ(c.wide ? 2 * length + 4 : length + c.padding, bytes);
         EXPECT_EQ(c.padding, DtStringGetNetPadding(encoding(c.encoding)));
         DtString back;
         EXPECT_EQ(bytes, DtStringFromBuffer(encoding(c.encoding), &back, buffer, bytes, c.wide));
         EXPECT_EQ(DtString(original), back);
      }
   }
   for (int other : {6, 7, -1})
      EXPECT_EQ(0, DtStringGetNetPadding(encoding(other))) << other;
}

// ---------------------------------------------------------------- text

TEST(StringTextTest, ReplaceSearchAndFirstCharacterHelpers)
{
   struct Replace
   {
      char const* text;
      char const* from;
      char const* to;
      char const* all;
      char const* first;
   } const replaces[] = {
       {"a-b-c", "-", "+", "a+b+c", "a+b-c"},
       {"aaa", "aa", "b", "ba", "ba"},
       {"abab", "ab", "abab", "abababab", "ababab"},  // replaced text is not searched again
       {"abc", "x", "y", "abc", "abc"},
       {"abc", "", "x", "abc", "xabc"},  // an empty pattern replaces nothing in the all form
       {"", "a", "b", "", ""},
       {"abc", "abc", "", "", ""},
   };
   for (Replace const& r : replaces)
   {
      SCOPED_TRACE(std::string(r.text) + " " + r.from + " -> " + r.to);
      EXPECT_EQ(DtString(r.all), DtReplaceAllSubstrings(r.text, r.from, r.to));
      EXPECT_EQ(DtString(r.first), DtReplaceSubstring(r.text, r.from, r.to));
   }
   EXPECT_TRUE(DtContainsSubstring("hello", "ell"));
   EXPECT_TRUE(DtContainsSubstring("hello", ""));
   EXPECT_FALSE(DtContainsSubstring("hello", "elo"));
   EXPECT_FALSE(DtContainsSubstring("", "a"));

   struct First
   {
      char const* text;
      char const* lower;
      char const* upper;
      char const* conditional;
   } const firsts[] = {
       {"", "", "", ""},          {"A", "a", "A", "a"},       {"Abc", "abc", "Abc", "abc"},
       {"ABc", "aBc", "ABc", "ABc"}, {"A1", "a1", "A1", "A1"}, {"xY", "xY", "XY", "xY"},
       {"\xc9t\xe9", "\xc9t\xe9", "\xc9t\xe9", "\xc9t\xe9"},
   };
   for (First const& f : firsts)
   {
      SCOPED_TRACE(f.text);
      EXPECT_EQ(DtString(f.lower), DtFirstCharToLower(f.text));
      EXPECT_EQ(DtString(f.upper), DtFirstCharToUpper(f.text));
      EXPECT_EQ(DtString(f.conditional), DtFirstCharToLowerConditional(f.text));
   }
}

TEST(StringTextTest, WideTextNarrowsToTheLowByteOfEachCharacter)
{
   EXPECT_EQ("abc", DtToString(std::wstring(L"abc")));
   EXPECT_EQ("A\xe9", DtToString(L"\x0141\x00e9"));
   EXPECT_EQ("", DtToString(static_cast<wchar_t const*>(nullptr)));
   EXPECT_EQ(3u, DtToString(std::wstring(L"a\0b", 3)).size()) << "embedded NULs are kept";
}

// ------------------------------------------------------ numbers and addresses

TEST(StringNumberTest, AddressTextsBothWays)
{
   EXPECT_STREQ("192.168.0.1", DtInetAddrString(0xC0A80001u));
   EXPECT_STREQ("0.0.0.0", DtInetAddrString(0));
   EXPECT_EQ(0x7F000001u, DtStringToInetAddr("127.0.0.1"));
   EXPECT_EQ(0x7F000001u, DtStringToInetAddr(DtString("localhost")));
   EXPECT_EQ(0x0A000001u, DtStringToInetAddr("10.0.0.1")) << "numeric: nothing is sent";

   struct Hex
   {
      char const* text;
      unsigned int address;
   } const hexes[] = {
       {"C0A80001", 0xC0A80001u}, {"c0a80001", 0xC0A80001u}, {"7F000001tail", 0x7F000001u},
       {"C0A8000", 0xFFFFFFFFu},  {"C0A8", 0xFFFFFFFFu},      {"", 0xFFFFFFFFu},
       {"ZZA80001", 0xFFFFFFFFu},
   };
   for (Hex const& h : hexes)
   {
      SCOPED_TRACE(h.text);
      // Exactly the text's bytes, so that a read past its end is caught.
      std::size_t const size = std::strlen(h.text) + 1;
      std::unique_ptr<char[]> exact(new char[size]);
      std::memcpy(exact.get(), h.text, size);
      EXPECT_EQ(h.address, DtHexStringToInetAddr(exact.get()));
   }
   EXPECT_EQ(0xFFFFFFFFu, DtHexStringToInetAddr(nullptr));
}

TEST(StringNumberTest, NamesWithoutAnIpv4AddressWarnAndGiveZero)
{
   olt::CapturePrinter warnings(DtWarn);
   // Resolved locally, never through a name server: an IPv6 literal has no
   // IPv4 answer.
   EXPECT_EQ(0u, DtStringToInetAddr("::1"));
   EXPECT_EQ(0u, DtStringToInetAddr(static_cast<char const*>(nullptr)));
   EXPECT_EQ("DtStringToInetAddr: Could not resolve ::1 returning 0\n"
             "DtStringToInetAddr: Could not resolve  returning 0\n",
             warnings.text());
}

TEST(StringNumberTest, DegreesAsDegreesMinutesAndSeconds)
{
   struct Case
   {
      double degrees;
      char const* text;
   } const cases[] = {
       {0.0, "0:00:00.00"},         {1.5, "1:30:00.00"},       {-1.5, "-1:30:00.00"},
       {45.2625, "45:15:45.00"},    {0.999999999, "1:00:00.00"}, {-0.0000000001, "0:00:00.00"},
       {179.99999, "179:59:59.96"}, {12.0 + 3.0 / 60 + 4.25 / 3600, "12:03:04.25"},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.degrees);
      EXPECT_EQ(DtString(c.text), DtDeg2DmsString(c.degrees));
   }
   char small[5] = "####";
   EXPECT_EQ(small, DtDeg2DmsString(1.5, small, sizeof small));
   EXPECT_STREQ("1:30", small) << "cut to the buffer";
   char untouched[2] = "#";
   DtDeg2DmsString(1.5, untouched, 0);
   EXPECT_STREQ("#", untouched);
   EXPECT_EQ(DtString("nan"), DtDeg2DmsString(std::nan("")));
   EXPECT_EQ(DtString("1e+12"), DtDeg2DmsString(1e12)) << "beyond the range of whole degrees";
}

TEST(StringNumberTest, BinaryHexadecimalAndDecimalTexts)
{
   struct HexToBinary
   {
      char const* hex;
      int width;
      char const* binary;
   } const toBinary[] = {
       {"A", 0, "1010"},  {"1f", 8, "00011111"}, {"1F", 12, "000000011111"},
       {"FF", 4, "11111111"}, {"", 4, "0000"},   {"g", 0, "0000"}, {"", -3, ""},
   };
   for (HexToBinary const& c : toBinary)
   {
      SCOPED_TRACE(std::string(c.hex) + " width " + std::to_string(c.width));
      EXPECT_EQ(c.binary, DtHexToBinary(c.hex, c.width));
   }

   struct BinaryText
   {
      char const* binary;
      char const* hex;
      unsigned int value;
   } const binaries[] = {
       {"1010", "A", 10},     {"11111", "1F", 31},   {"", "", 0},
       {"0000000", "00", 0},  {"1x1", "5", 5},       {"110", "6", 6},
       {"111111111111111111111111111111111", "1FFFFFFFF", 0xFFFFFFFFu},
       {"100000000000000000000000000000000", "100000000", 0},  // the 33rd digit shifts out
   };
   for (BinaryText const& c : binaries)
   {
      SCOPED_TRACE(c.binary);
      EXPECT_EQ(c.hex, DtBinaryToHex(c.binary));
      EXPECT_EQ(c.value, DtBinaryToDecimal(c.binary));
   }

   std::vector<int> bits;
   DtDecimalToBinary(6, bits);
   EXPECT_EQ((std::vector<int>{0, 1, 1}), bits) << "least significant bit first";
   DtDecimalToBinary(1, bits);
   EXPECT_EQ((std::vector<int>{1, 0, 1, 1}), bits) << "inserted in front of what was there";
   bits.clear();
   DtDecimalToBinary(0, bits);
   EXPECT_EQ(std::vector<int>{0}, bits);
   bits.clear();
   DtDecimalToBinary(0x80000000u, bits);
   EXPECT_EQ(32u, bits.size());
   EXPECT_EQ(1, bits.back());
}

// ------------------------------------------------------ C strings and arguments

TEST(StringCTest, ListsCopiesAndCase)
{
   int const list[] = {5, 7, 9, 0};
   int const empty[] = {0};
   EXPECT_EQ(1, DtIsInList(list, 7));
   EXPECT_EQ(-1, DtIsInList(list, 4));
   EXPECT_EQ(-1, DtIsInList(list, 0)) << "0 ends the list";
   EXPECT_EQ(-1, DtIsInList(empty, 5));
   EXPECT_EQ(-1, DtIsInList(nullptr, 5));

   char const original[] = "Mixed Case";
   char* copy = DtStrdup(original);
   ASSERT_NE(nullptr, copy);
   EXPECT_NE(original, copy);
   DtToUpper(copy);
   EXPECT_STREQ("MIXED CASE", copy);
   DtToLower(copy);
   EXPECT_STREQ("mixed case", copy);
   delete[] copy;
   EXPECT_EQ(nullptr, DtStrdup(nullptr));
   DtToUpper(nullptr);
   DtToLower(nullptr);
}

TEST(StringCTest, ResizeRoundsUpToFourZeroesNewBytesAndNeverShrinks)
{
   struct Case
   {
      int length;
      int result;
      int capacity;
   } const fresh[] = {{4, 0, 8}, {3, 0, 4}, {0, 0, 4}, {7, 0, 8}, {-1, -1, 0}, {-2, -1, 0},
                      {INT_MAX, -1, 0}};
   for (Case const& c : fresh)
   {
      SCOPED_TRACE(c.length);
      char* buffer = nullptr;
      int capacity = 99;  // ignored for a null buffer
      EXPECT_EQ(c.result, DtResizeString(buffer, capacity, c.length));
      EXPECT_EQ(c.capacity, capacity);
      EXPECT_EQ(c.result == 0, buffer != nullptr);
      for (int i = 0; i < capacity; ++i)
         EXPECT_EQ(0, buffer[i]) << i;
      std::free(buffer);
   }

   char* buffer = nullptr;
   int capacity = 0;
   ASSERT_EQ(0, DtResizeString(buffer, capacity, 6));
   std::strcpy(buffer, "abcdef");
   ASSERT_EQ(0, DtResizeString(buffer, capacity, 8));
   EXPECT_EQ(12, capacity);
   EXPECT_STREQ("abcdef", buffer);
   EXPECT_EQ(std::string(4, '\0'), std::string(buffer + 8, 4)) << "the new bytes are zero";
   char* const same = buffer;
   EXPECT_EQ(0, DtResizeString(buffer, capacity, 2));
   EXPECT_EQ(12, capacity);
   EXPECT_EQ(same, buffer);
   std::free(buffer);
}

TEST(StringCTest, ArgvSplitsAtBlanksBehindMainWithinItsArray)
{
   struct Case
   {
      char const* line;
      std::vector<std::string> words;
   } const cases[] = {
       {"a b", {"main", "a", "b"}},
       {"  one   two ", {"main", "one", "two"}},
       {"", {"main"}},
       {"a\tb", {"main", "a\tb"}},  // blanks only
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.line);
      std::string line(c.line);
      int count = -1;
      char** argv = DtArgv(&line[0], &count);
      ASSERT_EQ(static_cast<int>(c.words.size()), count);
      EXPECT_EQ(count, DtArgc(&line[0]));
      for (int i = 0; i < count; ++i)
         EXPECT_EQ(c.words[static_cast<std::size_t>(i)], argv[i]);
      EXPECT_EQ(nullptr, argv[count]);
      EXPECT_EQ(c.line, line) << "the line itself is not cut";
   }
   EXPECT_EQ(1, DtArgc(nullptr));
   int count = 0;
   EXPECT_STREQ("main", DtArgv(nullptr, &count)[0]);
   EXPECT_EQ(1, count);
}

TEST(StringCTest, ArgvKeepsAtMostOneHundredEntriesAndOneCallReplacesTheLast)
{
   std::string line;
   for (int i = 1; i <= 150; ++i)
      line += "w" + std::to_string(i) + " ";
   int count = 0;
   char** argv = DtArgv(&line[0], &count);
   EXPECT_EQ(DtArgvMaxEntries, count);
   EXPECT_STREQ("w99", argv[DtArgvMaxEntries - 1]);
   EXPECT_EQ(DtArgvMaxEntries, DtArgc(&line[0]));
   EXPECT_STREQ("w99", argv[DtArgvMaxEntries - 1]) << "DtArgc leaves the array alone";

   char next[] = "x";
   char** again = DtArgv(next, nullptr);
   EXPECT_EQ(argv, again) << "one array, reused";
   EXPECT_STREQ("x", again[1]);
   EXPECT_EQ(nullptr, again[2]) << "nothing of the longer line is left";
}

// --------------------------------------------------------------- pattern match

TEST(StringPatternMatchTest, EdgesOfTheSearch)
{
   struct Case
   {
      char const* string;
      char const* pattern;
      int start;
      int index;
   } const cases[] = {
       {"abab", "ab", 0, 0},     {"abab", "ab", 1, 2},      {"abab", "ab", 2, 2},
       {"abab", "ab", 3, -1},    {"abab", "ab", -1, -1},    {"abab", "ab", INT_MAX, -1},
       {"ab", "abc", 0, -1},     {"abc", "", 0, -2},        {"", "a", 0, -2},
       {"aaaa", "aa", 1, 1},     {"abcabd", "abd", 0, 3},   {"x", "x", 0, 0},
       {"x\xe9y\xe9z", "\xe9z", 0, 3},  // bytes of 128 and above
       {"\xff\xfe\xff", "\xff", 1, 2},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(::testing::PrintToString(std::string(c.string)) + " / " +
                   ::testing::PrintToString(std::string(c.pattern)) + " from " +
                   std::to_string(c.start));
      DtStringPatternMatch match(c.string, c.pattern);
      EXPECT_EQ(c.index, match.indexOfOccurence(c.start));
   }
   DtStringPatternMatch nothing;
   EXPECT_EQ(-2, nothing.indexOfOccurence(0));
}

TEST(StringPatternMatchTest, FindsWhatAPlainSearchFindsForEveryShortStringAndStart)
{
   // Every string of up to six bytes and every pattern of up to three over an
   // alphabet with a byte above 127, from every start.
   std::string const alphabet = "ab\xe9";
   std::vector<std::string> texts{""};
   for (std::size_t from = 0; texts.back().size() < 6;)
   {
      std::size_t const end = texts.size();
      for (std::size_t i = from; i < end; ++i)
         for (char c : alphabet)
            texts.push_back(texts[i] + c);
      from = end;
   }
   std::size_t checked = 0;
   for (std::string const& pattern : texts)
   {
      if (pattern.empty() || pattern.size() > 3)
         continue;
      DtStringPatternMatch match;
      match.setPattern(pattern.c_str());
      for (std::string const& text : texts)
      {
         match.setString(text.c_str());
         for (int start = 0; start <= static_cast<int>(text.size()); ++start)
         {
            std::size_t const found = text.find(pattern, static_cast<std::size_t>(start));
            int const expected =
                text.empty() ? -2 : found == std::string::npos ? -1 : static_cast<int>(found);
            ASSERT_EQ(expected, match.indexOfOccurence(start))
                << ::testing::PrintToString(text) << " / " << ::testing::PrintToString(pattern)
                << " from " << start;
            ++checked;
         }
      }
   }
   EXPECT_GT(checked, 100000u);
}

TEST(StringPatternMatchTest, PatternChangesCopiesAndAccessors)
{
   DtStringPatternMatch match("", "ba");
   EXPECT_EQ(-2, match.indexOfOccurence(0));
   match.setString("abba");
   EXPECT_EQ(DtString("abba"), match.string());
   EXPECT_EQ(2, match.indexOfOccurence(0)) << "the table is built once the string is there";
   match.setPattern("bb");
   EXPECT_EQ(DtString("bb"), match.pattern());
   EXPECT_EQ(1, match.indexOfOccurence(0));
   match.setPattern("ab");
   EXPECT_EQ(0, match.indexOfOccurence(0));

   auto* original = new DtStringPatternMatch("xxabxx", "ab");
   DtStringPatternMatch copy(*original);
   DtStringPatternMatch assigned;
   assigned = *original;
   delete original;
   EXPECT_EQ(2, copy.indexOfOccurence(0)) << "a copy has a table of its own";
   EXPECT_EQ(2, assigned.indexOfOccurence(1));
   assigned.setPattern("");
   EXPECT_EQ(-2, assigned.indexOfOccurence(0));
   DtStringPatternMatch const& itself = assigned;
   assigned = itself;
   EXPECT_EQ(-2, assigned.indexOfOccurence(0));
}
