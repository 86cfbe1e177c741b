// Tests of the string wire forms, text, number and C-string helpers, DtArgv and pattern matching.
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

// A heap copy of exactly these bytes, so that a read past them is caught by the sanitizer.
std::unique_ptr<char[]> exactCopy(std::string const& bytes)
{
   std::unique_ptr<char[]> exact(new char[bytes.size() + 1]);
   std::memcpy(exact.get(), bytes.data(), bytes.size());
   return exact;
}

}  // namespace

// Writing gives the bytes or nothing; reading never passes the buffer and a refusal keeps the text.
TEST(WireFormTest, EachEncodingWritesAndReadsItsFormAndRefusesWhatDoesNotFit)
{
   struct Case
   {
      int encoding;
      bool write;  // false: read bytes back
      int size;    // writing: buffer size
      std::string bytes;
      char const* text;  // reading: null when the text is left as it was
      bool wide;
      int result;
   } const cases[] = {
       {0, true, 8, "\0\0\0\4abcd"s, "abcd", false, 8},
       {0, true, 7, "", "abcd", false, 0},
       {0, true, 6, "\0\0\0\1\0\xe9"s, "\xe9", true, 6},
       {2, true, 4, "", "abcd", false, 0},
       {3, true, 5, "abcd\0"s, "abcd", true, 5},
       {7, true, 100, "", "abcd", false, 0},
       {1, true, -5, "", "abcd", false, 0},
       {0, false, 0, "\0\0\0\4abcdXYZ"s, "abcd", false, 8},
       // A length reaching up to 4 past the size would read beyond the buffer.
       {0, false, 0, "\0\0\0\5abcd"s, nullptr, false, 0},
       {0, false, 0, "\0\0\0\1\x01\x41"s, "A", true, 6},  // the narrow copy keeps the low byte
       {0, false, 0, "\0\0\0\3\0a\0b"s, nullptr, true, 0},
       {0, false, 0, "\xff\xff\xff\xff"s, nullptr, true, 0},
       {0, false, 0, "\x40\0\0\0\0a"s, nullptr, true, 0},  // twice the count overflows
       {2, false, 0, "abc\0def"s, "abc", false, 4},
       {2, false, 0, "abc"s, nullptr, false, 0},  // no terminator inside the buffer
       {1, false, 0, "ab\0d"s, "ab", false, 4},   // all four bytes taken; the text ends at the NUL
       {5, false, 0, ""s, "", false, 0},          // no bytes: the empty text
       {3, false, 0, "\0"s, "", true, 1},
       {4, false, 0, "\x7f\x80\xff"s, "\x7f\x80\xff", false, 3},
       {6, false, 0, "abcd"s, nullptr, false, 0},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(std::to_string(c.encoding) + (c.write ? " write " : " read ") +
                   ::testing::PrintToString(c.write ? std::string(c.text) : c.bytes) +
                   (c.wide ? " wide" : ""));
      if (c.write)
      {
         std::vector<char> buffer(static_cast<std::size_t>(c.size > 0 ? c.size : 1), '#');
         int const result = DtStringToBuffer(DtStringEncodingType(c.encoding), buffer.data(),
                                             c.size, DtString(c.text), c.wide);
         EXPECT_EQ(c.result, result);
         EXPECT_EQ(c.bytes,
                   std::string(buffer.data(), static_cast<std::size_t>(result > 0 ? result : 0)));
         continue;
      }
      auto const exact = exactCopy(c.bytes);
      DtString text("untouched");
      EXPECT_EQ(c.result, DtStringFromBuffer(DtStringEncodingType(c.encoding), &text, exact.get(),
                                             static_cast<int>(c.bytes.size()), c.wide));
      EXPECT_EQ(DtString(c.text ? c.text : "untouched"), text);
   }
   DtString text("untouched");
   EXPECT_EQ(0, DtStringToBuffer(DtStringEncodingPlain, nullptr, 10, DtString("a"), false));
   EXPECT_EQ(0, DtStringFromBuffer(DtStringEncodingPlain, &text, "abc", -1, false));
   EXPECT_EQ(0, DtStringFromBuffer(DtStringEncodingPlain, nullptr, "abc", 3, false));
   EXPECT_EQ(0, DtStringFromBuffer(DtStringEncodingPlain, &text, nullptr, 3, false));
   EXPECT_EQ(DtString("untouched"), text);
}

TEST(WireFormTest, PaddingAndTheProcessByteOrder)
{
   int const paddings[] = {4, 0, 1, 1, 0, 0, 0};
   for (int e : {0, 1, 2, 3, 4, 5, 6, -1})
      EXPECT_EQ(e < 0 ? 0 : paddings[e], DtStringGetNetPadding(DtStringEncodingType(e))) << e;

   DtSetNetworkByteOrdering(DtByteOrderMachine);
   char buffer[8];
   ASSERT_EQ(6, DtStringToBuffer(DtStringEncodingCounted, buffer, 8, DtString("ab"), false));
   EXPECT_EQ("\2\0\0\0ab"s, std::string(buffer, 6));
   DtString text;
   EXPECT_EQ(6, DtStringFromBuffer(DtStringEncodingCounted, &text, "\2\0\0\0ab", 6, false));
   EXPECT_EQ(DtString("ab"), text);
   DtSetNetworkByteOrdering(DtByteOrderNetwork);
}

TEST(StringTextTest, ReplaceSearchFirstCharacterAndWideText)
{
   auto const replace =
       [](char const* text, char const* from, char const* to, char const* all, char const* first)
   {
      SCOPED_TRACE(std::string(text) + " " + from + " -> " + to);
      EXPECT_EQ(DtString(all), DtReplaceAllSubstrings(text, from, to));
      EXPECT_EQ(DtString(first), DtReplaceSubstring(text, from, to));
   };
   replace("aaa", "aa", "b", "ba", "ba");
   replace("abab", "ab", "abab", "abababab", "ababab");  // replaced text is not searched again
   replace("abc", "", "x", "abc", "xabc");  // an empty pattern replaces nothing in the all form
   replace("abc", "abc", "", "", "");
   EXPECT_FALSE(DtContainsSubstring("", "a"));

   EXPECT_EQ(DtString("aBc"), DtFirstCharToLower("ABc"));
   EXPECT_EQ(DtString("\xc9t"), DtFirstCharToLower("\xc9t")) << "ASCII letters only";
   EXPECT_EQ(DtString("abc"), DtFirstCharToLowerConditional("Abc"));
   EXPECT_EQ(DtString("ABc"), DtFirstCharToLowerConditional("ABc")) << "an acronym stays";
   EXPECT_EQ(DtString("A1|a"),
             DtFirstCharToLowerConditional("A1") + "|" + DtFirstCharToLowerConditional("A"))
       << "lowered only before a lower-case letter or alone";

   EXPECT_EQ("A\xe9", DtToString(L"\x0141\x00e9")) << "the low byte of each character";
   EXPECT_EQ("", DtToString(static_cast<wchar_t const*>(nullptr)));
}

TEST(StringNumberTest, AddressDegreeAndBinaryTexts)
{
   EXPECT_EQ(0x0A000001u, DtStringToInetAddr("10.0.0.1")) << "numeric: nothing is sent";
   EXPECT_EQ(0xC0A80001u, DtHexStringToInetAddr(exactCopy("c0a80001tail\0"s).get()));
   EXPECT_EQ(0xFFFFFFFFu, DtHexStringToInetAddr(exactCopy("C0A8000\0"s).get())) << "too short";
   EXPECT_EQ(0xFFFFFFFFu, DtHexStringToInetAddr(exactCopy("ZZA80001\0"s).get()));
   EXPECT_EQ(0xFFFFFFFFu, DtHexStringToInetAddr(nullptr));
   // Resolved locally, never through a name server: an IPv6 literal has no IPv4 answer.
   olt::CapturePrinter warnings(DtWarn);
   EXPECT_EQ(0u, DtStringToInetAddr("::1"));
   EXPECT_EQ(0u, DtStringToInetAddr(static_cast<char const*>(nullptr)));
   EXPECT_EQ(
       "DtStringToInetAddr: Could not resolve ::1 returning 0\n"
       "DtStringToInetAddr: Could not resolve  returning 0\n",
       warnings.text());

   EXPECT_EQ(DtString("1:00:00.00"), DtDeg2DmsString(0.999999999)) << "the carry reaches degrees";
   EXPECT_EQ(DtString("0:00:00.00"), DtDeg2DmsString(-0.0000000001)) << "no negative zero";
   EXPECT_EQ(DtString("179:59:59.96"), DtDeg2DmsString(179.99999));
   EXPECT_EQ(DtString("-0:00:00.01"), DtDeg2DmsString(-0.000002)) << "the sign of any angle";
   EXPECT_EQ(DtString("nan"), DtDeg2DmsString(std::nan("")));
   EXPECT_EQ(DtString("1e+12"), DtDeg2DmsString(1e12)) << "beyond whole degrees";
   char small[5] = "####";
   EXPECT_EQ(small, DtDeg2DmsString(1.5, small, sizeof small));
   EXPECT_STREQ("1:30", small) << "cut to the buffer";

   EXPECT_EQ("00011111", DtHexToBinary("1f", 8));
   EXPECT_EQ("0000", DtHexToBinary("g", 0));
   EXPECT_EQ("5", DtBinaryToHex("1x1"));
   EXPECT_EQ("A5", DtBinaryToHex("10100101")) << "whole nibbles get no padding";
   EXPECT_EQ("1FFFFFFFF", DtBinaryToHex("111111111111111111111111111111111"));
   EXPECT_EQ(0xFFFFFFFFu, DtBinaryToDecimal("111111111111111111111111111111111"));
   EXPECT_EQ(0u, DtBinaryToDecimal("100000000000000000000000000000000"))
       << "the 33rd digit shifts out";
}

TEST(StringCTest, ResizeRoundsUpZeroesAndNeverShrinks)
{
   int const list[] = {5, 7, 5, 0, 9};  // ends at the first 0
   EXPECT_EQ("0 1 -1 -1 -1",
             std::to_string(DtIsInList(list, 5)) + " " + std::to_string(DtIsInList(list, 7)) + " " +
                 std::to_string(DtIsInList(list, 9)) + " " + std::to_string(DtIsInList(list, 0)) +
                 " " + std::to_string(DtIsInList(nullptr, 5)));
   char* buffer = nullptr;
   int capacity = 99;  // ignored for a null buffer
   EXPECT_EQ(-1, DtResizeString(buffer, capacity, INT_MAX));
   EXPECT_EQ(-1, DtResizeString(buffer, capacity, -1));
   EXPECT_EQ(nullptr, buffer);
   ASSERT_EQ(0, DtResizeString(buffer, capacity, 6));
   std::strcpy(buffer, "abcdef");
   ASSERT_EQ(0, DtResizeString(buffer, capacity, 8));
   ASSERT_EQ(0, DtResizeString(buffer, capacity, 2)) << "never shrinks";
   EXPECT_EQ(12, capacity);
   EXPECT_EQ("abcdef\0\0\0\0\0\0"s, std::string(buffer, 12)) << "the new bytes are zero";
   std::free(buffer);
}

TEST(StringCTest, ArgvSplitsAtBlanksBehindMainWithinOneArrayOfAtMostOneHundred)
{
   auto const split = [](char const* text, std::vector<std::string> const& words)
   {
      SCOPED_TRACE(text);
      std::string line(text);
      int count = -1;
      char** argv = DtArgv(&line[0], &count);
      ASSERT_EQ(static_cast<int>(words.size()), count);
      EXPECT_EQ(count, DtArgc(&line[0]));
      for (int i = 0; i < count; ++i)
         EXPECT_EQ(words[static_cast<std::size_t>(i)], argv[i]);
      EXPECT_EQ(nullptr, argv[count]);
      EXPECT_EQ(text, line) << "the line itself is not cut";
   };
   split("  one   two ", {"main", "one", "two"});
   split("a\tb", {"main", "a\tb"});  // blanks only
   int count = 0;
   EXPECT_STREQ("main", DtArgv(nullptr, &count)[0]);
   EXPECT_EQ(1, count);

   std::string line;
   for (int i = 1; i <= 150; ++i)
      line += "w" + std::to_string(i) + " ";
   char** argv = DtArgv(&line[0], &count);
   EXPECT_EQ(DtArgvMaxEntries, count);
   EXPECT_EQ(DtArgvMaxEntries, DtArgc(&line[0]));
   EXPECT_STREQ("w99", argv[DtArgvMaxEntries - 1]) << "DtArgc leaves the array alone";
   char next[] = "x";
   char** again = DtArgv(next, nullptr);
   EXPECT_EQ(argv, again) << "one array, reused";
   EXPECT_EQ(nullptr, again[2]) << "nothing of the longer line is left";
}

TEST(StringPatternMatchTest, FindsWhatAPlainSearchFindsForEveryShortStringAndStart)
{
   // Every string of up to six bytes and every pattern of up to three over an
   // alphabet with a byte above 127, from every start.
   std::vector<std::string> texts{""};
   for (std::size_t i = 0; texts[i].size() < 6; ++i)
      for (char c : {'a', 'b', '\xe9'})
         texts.push_back(texts[i] + c);
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
            int const expected = text.empty()                 ? -2
                                 : found == std::string::npos ? -1
                                                              : static_cast<int>(found);
            ASSERT_EQ(expected, match.indexOfOccurence(start))
                << ::testing::PrintToString(text) << " / " << ::testing::PrintToString(pattern)
                << " from " << start;
         }
      }
   }

   EXPECT_EQ(-1, DtStringPatternMatch("abab", "ab").indexOfOccurence(-1));
   EXPECT_EQ(-1, DtStringPatternMatch("abab", "ab").indexOfOccurence(INT_MAX));
   EXPECT_EQ(-2, DtStringPatternMatch("abc", "").indexOfOccurence(0));
   EXPECT_EQ(-2, DtStringPatternMatch().indexOfOccurence(0));
}

TEST(StringPatternMatchTest, PatternChangesAndCopies)
{
   DtStringPatternMatch match("", "ba");
   EXPECT_EQ(-2, match.indexOfOccurence(0));
   match.setString("abba");
   EXPECT_EQ(2, match.indexOfOccurence(0)) << "the table is built once the string is there";

   auto* original = new DtStringPatternMatch("xxabxx", "ab");
   DtStringPatternMatch copy(*original);
   DtStringPatternMatch assigned;
   assigned = *original;
   delete original;
   EXPECT_EQ(2, copy.indexOfOccurence(0)) << "a copy has a table of its own";
   EXPECT_EQ(2, assigned.indexOfOccurence(1));
   assigned.setPattern("");
   DtStringPatternMatch const& itself = assigned;
   assigned = itself;
   EXPECT_EQ(-2, assigned.indexOfOccurence(0));
}
