// Tests of DtString: storage and capacities, conversions, splitting, editing and
// stream extraction.
#include <olutil/olString.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

// Exposes the storage fields so that the tests can check where a text lives.
class Probe : public DtString
{
public:
   using DtString::DtString;
   using DtString::operator=;
   Probe() = default;
   Probe(Probe const&) = default;
   Probe& operator=(Probe const&) = default;

   std::uint32_t cap() const { return capacity; }
   bool isInline() const { return text == inlineBuffer; }
   bool released() const { return text == nullptr; }
   bool owns() const { return ownsHeap; }
   void release() { clear(); }

   std::ptrdiff_t offsetOfInline() const { return offsetOf(inlineBuffer); }
   std::ptrdiff_t offsetOfText() const { return offsetOf(&text); }
   std::ptrdiff_t offsetOfOwns() const { return offsetOf(&ownsHeap); }
   std::ptrdiff_t offsetOfCapacity() const { return offsetOf(&capacity); }

private:
   std::ptrdiff_t offsetOf(void const* field) const
   {
      return static_cast<char const*>(field) - reinterpret_cast<char const*>(this);
   }
};

std::vector<std::string> texts(std::vector<DtString> const& v)
{
   std::vector<std::string> out;
   for (DtString const& s : v)
      out.push_back(s.stdString());
   return out;
}

}  // namespace

// ---------------------------------------------------------------- layout

TEST(DtStringLayout, FieldsFollowTheVirtualTablePointer)
{
   Probe p;
   EXPECT_EQ(sizeof(DtString), 88u);
   EXPECT_EQ(p.offsetOfInline(), 8);
   EXPECT_EQ(p.offsetOfText(), 72);
   EXPECT_EQ(p.offsetOfOwns(), 80);
   EXPECT_EQ(p.offsetOfCapacity(), 84);
   EXPECT_EQ(DtString::theMaxInsertionStringSize, 256);
}

#if defined(__x86_64__) && defined(__GNUC__)
// In the Itanium C++ ABI a pointer to a virtual member holds 1 plus the byte
// offset of its slot; the destructor occupies slots 0 and 1.
template <typename F>
std::ptrdiff_t slotOf(F f)
{
   std::ptrdiff_t raw[2];
   static_assert(sizeof f == sizeof raw, "Itanium member function pointer");
   std::memcpy(raw, &f, sizeof raw);
   return (raw[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(DtStringLayout, VirtualSlotsKeepTheirOrder)
{
   using S = DtString;
   using Cmp = bool (S::*)(char const*) const;
   struct Row
   {
      char const* name;
      std::ptrdiff_t slot;
      std::ptrdiff_t expected;
   };
   Row const rows[] = {
       {"operator=(char const*)", slotOf(static_cast<S& (S::*)(char const*)>(&S::operator=)), 2},
       {"operator=(DtString)", slotOf(static_cast<S& (S::*)(S const&)>(&S::operator=)), 3},
       {"operator char const*", slotOf(&S::operator char const*), 4},
       {"clone", slotOf(&S::clone), 5},
       {"operator<", slotOf(static_cast<Cmp>(&S::operator<)), 6},
       {"operator>", slotOf(static_cast<Cmp>(&S::operator>)), 7},
       {"operator==", slotOf(static_cast<Cmp>(&S::operator==)), 8},
       {"operator!=", slotOf(static_cast<Cmp>(&S::operator!=)), 9},
       {"operator<=", slotOf(static_cast<Cmp>(&S::operator<=)), 10},
       {"operator>=", slotOf(static_cast<Cmp>(&S::operator>=)), 11},
       {"caseCompare(char const*)", slotOf(static_cast<Cmp>(&S::caseCompare)), 12},
       {"caseCompare(DtString)", slotOf(static_cast<bool (S::*)(S const&) const>(&S::caseCompare)),
        13},
       {"operator+", slotOf(static_cast<S (S::*)(char const*) const>(&S::operator+)), 14},
       {"operator+=(char const*)", slotOf(static_cast<S& (S::*)(char const*)>(&S::operator+=)), 15},
       {"operator+=(DtString)", slotOf(static_cast<S& (S::*)(S const&)>(&S::operator+=)), 16},
       {"operator[]", slotOf(static_cast<char& (S::*)(int)>(&S::operator[])), 17},
       {"operator[] const", slotOf(static_cast<char const& (S::*)(int) const>(&S::operator[])), 18},
       {"snipFront", slotOf(&S::snipFront), 19},
       {"snipBack", slotOf(&S::snipBack), 20},
       {"chompFront", slotOf(&S::chompFront), 21},
       {"chompBack", slotOf(&S::chompBack), 22},
       {"tokenize", slotOf(&S::tokenize), 23},
       {"toInt", slotOf(&S::toInt), 24},
       {"toUInt", slotOf(&S::toUInt), 25},
       {"toFloat", slotOf(&S::toFloat), 26},
       {"toDouble", slotOf(&S::toDouble), 27},
       {"toBoolean", slotOf(&S::toBoolean), 28},
       {"toUpper", slotOf(&S::toUpper), 29},
       {"toLower", slotOf(&S::toLower), 30},
       {"findChar", slotOf(&S::findChar), 31},
       {"findLastChar", slotOf(&S::findLastChar), 32},
       {"findString", slotOf(&S::findString), 33},
       {"findLastString", slotOf(&S::findLastString), 34},
       {"count", slotOf(&S::count), 35},
       {"length", slotOf(&S::length), 36},
       {"size", slotOf(&S::size), 37},
       {"stdString", slotOf(&S::stdString), 38},
       {"string", slotOf(&S::string), 39},
       {"c_str", slotOf(&S::c_str), 40},
       {"isEmpty", slotOf(&S::isEmpty), 41},
       {"section", slotOf(&S::section), 42},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.name);
      EXPECT_EQ(row.slot, row.expected);
   }
}
#endif

// ---------------------------------------------------------------- construction

TEST(DtStringConstruct, Texts)
{
   struct Row
   {
      DtString value;
      char const* expected;
   };
   Row const rows[] = {
       {DtString(), ""},
       {DtString(static_cast<char const*>(nullptr)), ""},
       {DtString("abc", 2), "ab"},
       {DtString(static_cast<char const*>(nullptr), 5), ""},
       {DtString("abc", -1), ""},
       {DtString(std::string("std")), "std"},
       {DtString(0.1), "0.1"},
       {DtString(1.0), "1"},
       {DtString(1e20), "1e+20"},
       {DtString(-2.5), "-2.5"},
       {DtString('x'), "x"},
       {DtString('\0'), ""},
       {DtString(INT_MIN), "-2147483648"},
       {DtString(LONG_MIN), "-9223372036854775808"},
       {DtString(UINT_MAX), "4294967295"},
       {DtString(ULONG_MAX), "18446744073709551615"},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.expected);
      EXPECT_STREQ(row.value.c_str(), row.expected);
   }
}

TEST(DtStringConstruct, CountedCopyKeepsEmbeddedNuls)
{
   Probe s("a\0bc", 4);
   EXPECT_EQ(s.size(), 1);
   EXPECT_EQ(std::memcmp(s.c_str(), "a\0bc", 5), 0);

   Probe wide(std::string(64, 'w'));
   EXPECT_EQ(wide.cap(), 65u);
   Probe counted(std::string(100, 'c').c_str(), 64);
   EXPECT_EQ(counted.cap(), 65u);
   EXPECT_EQ(counted.size(), 64);
}

// ---------------------------------------------------------------- storage

TEST(DtStringStorage, InlineUpTo63CharactersThenExactHeapBlock)
{
   Probe fits(std::string(63, 'a').c_str());
   EXPECT_TRUE(fits.isInline());
   EXPECT_FALSE(fits.owns());
   EXPECT_EQ(fits.cap(), 64u);

   Probe heap(std::string(64, 'a').c_str());
   EXPECT_FALSE(heap.isInline());
   EXPECT_TRUE(heap.owns());
   EXPECT_EQ(heap.cap(), 65u);
}

TEST(DtStringStorage, NeverReturnsToInlineAndKeepsItsBlock)
{
   Probe s("short");
   s = std::string(99, 'x').c_str();
   EXPECT_EQ(s.cap(), 100u);
   s = "x";
   EXPECT_FALSE(s.isInline());
   EXPECT_EQ(s.cap(), 100u);
   EXPECT_STREQ(s.c_str(), "x");
   s = std::string(100, 'y').c_str();
   EXPECT_EQ(s.cap(), 101u);
   s = nullptr;
   EXPECT_STREQ(s.c_str(), "");
   EXPECT_EQ(s.cap(), 101u);
}

TEST(DtStringStorage, AppendGrowsToExactSizeEveryTime)
{
   Probe s(std::string(60, 'a').c_str());
   s += "bbb";
   EXPECT_TRUE(s.isInline());
   EXPECT_EQ(s.cap(), 64u);
   s += "c";
   EXPECT_EQ(s.cap(), 65u);
   s += "d";
   EXPECT_EQ(s.cap(), 66u);
   s += "";
   EXPECT_EQ(s.cap(), 66u);
   s += DtString("ef");
   EXPECT_EQ(s.cap(), 68u);
   EXPECT_EQ(s.stdString(), std::string(60, 'a') + "bbbcdef");
}

TEST(DtStringStorage, AppendsItsOwnText)
{
   Probe small("abc");
   small += small.c_str();
   EXPECT_STREQ(small.c_str(), "abcabc");

   std::string const forty(40, 'q');
   Probe grows(forty.c_str());
   grows += grows.c_str();
   EXPECT_EQ(grows.stdString(), forty + forty);
   EXPECT_EQ(grows.cap(), 81u);
}

TEST(DtStringStorage, CopiesByCapacity)
{
   Probe big(std::string(99, 'x').c_str());
   big = "x";
   Probe copy(big);
   EXPECT_EQ(copy.cap(), 100u);
   EXPECT_STREQ(copy.c_str(), "x");

   Probe inlineCopy(Probe("in"));
   EXPECT_TRUE(inlineCopy.isInline());
   EXPECT_EQ(inlineCopy.cap(), 64u);

   // A smaller target takes the source's capacity, a larger one keeps its own.
   Probe target("t");
   target = big;
   EXPECT_EQ(target.cap(), 100u);
   EXPECT_TRUE(target.owns());
   Probe larger(std::string(199, 'z').c_str());
   larger = big;
   EXPECT_EQ(larger.cap(), 200u);
   EXPECT_STREQ(larger.c_str(), "x");

   std::unique_ptr<DtString> cloned(big.clone());
   EXPECT_STREQ(cloned->c_str(), "x");
   EXPECT_NE(cloned->c_str(), big.c_str());
}

TEST(DtStringStorage, SelfAssignmentChangesNothing)
{
   Probe s("keep");
   Probe& same = s;
   s = same;
   EXPECT_STREQ(s.c_str(), "keep");
   s = s.c_str();
   EXPECT_STREQ(s.c_str(), "keep");
   s = s.c_str() + 2;
   EXPECT_STREQ(s.c_str(), "ep");
}

TEST(DtStringStorage, ClearReleasesOnlyAHeapBlock)
{
   Probe inl("inline");
   inl.release();
   EXPECT_STREQ(inl.c_str(), "inline");
   EXPECT_EQ(inl.cap(), 0u);

   Probe heap(std::string(70, 'h').c_str());
   heap.release();
   EXPECT_TRUE(heap.released());
   EXPECT_TRUE(heap.owns());
   EXPECT_EQ(heap.cap(), 0u);

   // The released state is tolerated by the measuring and comparing operations.
   bool ok = true;
   EXPECT_EQ(heap.size(), 0);
   EXPECT_EQ(heap.length(), 0);
   EXPECT_FALSE(heap == "");
   EXPECT_FALSE(heap != "");
   EXPECT_EQ(heap.findChar('h'), -1);
   EXPECT_EQ(heap.findLastChar('h'), -1);
   EXPECT_EQ(heap.findString(DtString("h")), -1);
   EXPECT_EQ(heap.findLastString(DtString("h")), -1);
   EXPECT_EQ(heap.toInt(&ok), 0);
   EXPECT_EQ(heap.toDouble(&ok), 0.0);
   EXPECT_TRUE(ok);

   heap = "again";
   EXPECT_STREQ(heap.c_str(), "again");
   EXPECT_EQ(heap.cap(), 6u);
}

// ---------------------------------------------------------------- comparison

namespace
{
// Compares without regard to case, to show that the free operators dispatch.
class CaselessString : public DtString
{
public:
   using DtString::DtString;
   bool operator==(char const* s) const override { return caseCompare(s); }
   DtString operator+(char const* s) const override { return DtString("[") + s + "]"; }
};
}  // namespace

TEST(DtStringCompare, OperatorsAndNullArguments)
{
   DtString const b("b");
   EXPECT_TRUE(b < "c");
   EXPECT_TRUE(b > "a");
   EXPECT_TRUE(b == "b");
   EXPECT_TRUE(b != "B");
   EXPECT_TRUE(b <= "b");
   EXPECT_TRUE(b >= "b");
   EXPECT_TRUE(DtString("B") < b);
   EXPECT_TRUE(DtString("abc") == DtString("abc"));

   char const* none = nullptr;
   EXPECT_FALSE(b < none);
   EXPECT_FALSE(b > none);
   EXPECT_FALSE(b == none);
   EXPECT_FALSE(b != none);
   EXPECT_FALSE(b <= none);
   EXPECT_FALSE(b >= none);

   EXPECT_TRUE(DtString("Hello").caseCompare("hELLO"));
   EXPECT_TRUE(DtString("Hello").caseCompare(DtString("HELLO")));
   EXPECT_FALSE(DtString("Hello").caseCompare("Help"));
   EXPECT_FALSE(DtString("Hello").caseCompare(none));
}

TEST(DtStringCompare, FreeOperatorsDispatchThroughTheLeftOperand)
{
   CaselessString const caseless("ABC");
   DtString const& asBase = caseless;
   EXPECT_TRUE(asBase == DtString("abc"));
   EXPECT_FALSE(DtString("abc") == asBase);
   EXPECT_STREQ((asBase + DtString("x")).c_str(), "[x]");
}

TEST(DtStringConcat, Forms)
{
   DtString const a("ab");
   EXPECT_STREQ((a + "cd").c_str(), "abcd");
   EXPECT_STREQ(a.c_str(), "ab");
   EXPECT_STREQ(("x" + a).c_str(), "xab");
   EXPECT_STREQ((a + DtString("yz")).c_str(), "abyz");
}

TEST(DtStringAccess, SubscriptsAndSharedEmpties)
{
   DtString s("abc");
   s[0] = 'A';
   s[std::size_t{1}] = 'B';
   s[2L] = 'C';
   EXPECT_STREQ(s.c_str(), "ABC");
   EXPECT_EQ(static_cast<DtString const&>(s)[1u], 'B');

   EXPECT_TRUE(DtString::nullString().isEmpty());
   EXPECT_TRUE(DtString::nullId().isEmpty());
   EXPECT_NE(&DtString::nullString(), &DtString::nullId());
   EXPECT_EQ(&DtString::nullString(), &DtString::nullString());
}

// ---------------------------------------------------------------- searching

TEST(DtStringSearch, Positions)
{
   DtString s("abab");
   EXPECT_EQ(s.findChar('b'), 1);
   EXPECT_EQ(s.findLastChar('b'), 3);
   EXPECT_EQ(s.findChar('z'), -1);
   EXPECT_EQ(s.findString(DtString("ba")), 1);
   EXPECT_EQ(s.findString(DtString("")), 0);
   EXPECT_EQ(s.findString(DtString("zz")), -1);
   // Nearest the start, deliberately, like findString.
   EXPECT_EQ(s.findLastString(DtString("ab")), 0);
   EXPECT_EQ(s.findLastString(DtString("b")), 1);
   EXPECT_EQ(s.findLastString(DtString("")), 0);
   EXPECT_EQ(s.findLastString(DtString("abc")), -1);
   EXPECT_EQ(DtString("xyab").findLastString(DtString("ab")), 2);
   EXPECT_EQ(s.count('a'), 2);
   EXPECT_EQ(s.count('\0'), 0);
}

// ---------------------------------------------------------------- editing

TEST(DtStringEdit, Snips)
{
   struct Row
   {
      char const* text;
      bool front;
      char c;
      bool greedy;
      bool result;
      char const* expected;
   };
   Row const rows[] = {
       {"a/b/c", true, '/', true, true, "c"},       {"a/b/c", true, '/', false, true, "b/c"},
       {"a/b/c", false, '/', true, true, "a"},      {"a/b/c", false, '/', false, true, "a/b"},
       {"a/b/c", true, ':', false, false, "a/b/c"}, {"a/b/c", false, '\0', false, false, "a/b/c"},
       {"a/", true, '/', false, true, ""},          {"/a", false, '/', true, true, ""},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(std::string(row.text) + (row.front ? " front " : " back ") + row.c +
                   (row.greedy ? " greedy" : ""));
      DtString s(row.text);
      EXPECT_EQ(row.front ? s.snipFront(row.c, row.greedy) : s.snipBack(row.c, row.greedy),
                row.result);
      EXPECT_STREQ(s.c_str(), row.expected);
   }
}

TEST(DtStringEdit, ChompsAndCase)
{
   DtString s(" \t\n x y \r\n");
   EXPECT_TRUE(s.chompFront());
   EXPECT_STREQ(s.c_str(), "x y \r\n");
   EXPECT_FALSE(s.chompFront());
   EXPECT_TRUE(s.chompBack());
   EXPECT_STREQ(s.c_str(), "x y");
   EXPECT_FALSE(s.chompBack());

   DtString blank("   ");
   EXPECT_TRUE(blank.chompFront());
   EXPECT_TRUE(blank.isEmpty());
   blank = " \t ";
   EXPECT_TRUE(blank.chompBack());
   EXPECT_TRUE(blank.isEmpty());

   DtString mixed("aB1-z");
   mixed.toUpper();
   EXPECT_STREQ(mixed.c_str(), "AB1-Z");
   mixed.toLower();
   EXPECT_STREQ(mixed.c_str(), "ab1-z");
}

// ---------------------------------------------------------------- splitting

TEST(DtStringSplit, TokenizeKeepsInnerEmptyFieldsAndDropsATrailingOne)
{
   struct Row
   {
      char const* text;
      std::vector<std::string> expected;
   };
   Row const rows[] = {
       {"a,,b,", {"a", "", "b"}}, {",", {""}},       {"", {}},
       {"abc", {"abc"}},          {",a", {"", "a"}}, {",,", {"", ""}},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.text);
      std::vector<DtString> out{DtString("stale")};
      DtString(row.text).tokenize(',', out);
      EXPECT_EQ(texts(out), row.expected);
   }
   // A token longer than the inline buffer arrives whole.
   std::vector<DtString> out;
   DtString((std::string(100, 'L') + ",s").c_str()).tokenize(',', out);
   EXPECT_EQ(texts(out), (std::vector<std::string>{std::string(100, 'L'), "s"}));
}

TEST(DtStringSplit, SectionCountsNonEmptyFields)
{
   struct Row
   {
      char const* text;
      int first;
      int last;
      char const* expected;
   };
   Row const rows[] = {
       {"a,,b", 1, 1, "b"},       {"a,,b", 0, 1, "a,,b"}, {"a,,b", -1, -1, ""},
       {"a,b,c", 0, 0, "a"},      {"a,b,c", 1, 2, "b,c"}, {"a,b,c", -1, -1, "c"},
       {"a,b,c", 0, -1, "a,b,c"}, {"a,b,c", 2, 1, ""},    {"", 0, 0, ""},
       {",a,b", 0, 0, "a"},       {"a,b", 5, 9, ""},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(std::string(row.text) + " " + std::to_string(row.first) + ".." +
                   std::to_string(row.last));
      EXPECT_STREQ(DtString(row.text).section(',', row.first, row.last).c_str(), row.expected);
   }
}

// ---------------------------------------------------------------- conversions

namespace
{
enum class Ok
{
   False,
   True,
   AsGiven  // the caller's flag is left as it was
};

// Runs a conversion with the flag preset both ways and checks the flag.
template <typename Convert>
void expectOk(Ok want, Convert convert)
{
   for (bool preset : {false, true})
   {
      bool ok = preset;
      errno = 0;
      convert(&ok);
      bool const expected = want == Ok::AsGiven ? preset : want == Ok::True;
      EXPECT_EQ(ok, expected) << "flag preset " << preset;
   }
}
}  // namespace

TEST(DtStringConvert, ToInt)
{
   struct Row
   {
      char const* text;
      int value;
      Ok ok;
   };
   Row const rows[] = {
       {"1", 1, Ok::True},
       {"", 0, Ok::False},
       {"   ", 0, Ok::False},
       {"+", 0, Ok::False},
       {"x10", 0, Ok::False},
       {" x10", 0, Ok::False},
       {"0", 0, Ok::True},
       {"007", 7, Ok::True},
       {"010", 10, Ok::True},
       {"-010", -8, Ok::True},
       {"+ 05", 5, Ok::True},
       {"\t\r\n42", 42, Ok::True},
       {"12abc", 12, Ok::True},
       {"-5", -5, Ok::True},
       {"2147483647", INT_MAX, Ok::True},
       {"3000000000", INT_MIN, Ok::True},
       {"99999999999999999999", INT_MIN, Ok::False},
       {"-99999999999999999999", INT_MIN, Ok::False},
       {"0x10", 0, Ok::True},
       {"-0x10", -16, Ok::True},
       {"0x4059000000000000", 100, Ok::True},
       {"0XC059000000000000", -100, Ok::True},
       {"0x7ff8000000000000", INT_MIN, Ok::True},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.text);
      DtString const s(row.text);
      errno = 0;
      EXPECT_EQ(s.toInt(), row.value);
      expectOk(row.ok, [&](bool* ok) { s.toInt(ok); });
   }
}

TEST(DtStringConvert, ToUInt)
{
   struct Row
   {
      char const* text;
      unsigned int value;
      Ok ok;
   };
   Row const rows[] = {
       {"7", 7u, Ok::True},
       {"0", 0u, Ok::True},
       {"", 0u, Ok::False},
       {"abc", 0u, Ok::False},
       {"4294967295", UINT_MAX, Ok::True},
       {"4294967296", 0u, Ok::True},
       {"-1", 0u, Ok::True},
       {"010", 10u, Ok::True},
       {"18446744073709551616", 0u, Ok::False},
       {"0x4059000000000000", 100u, Ok::AsGiven},
       {" x1", 0u, Ok::False},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.text);
      DtString const s(row.text);
      errno = 0;
      EXPECT_EQ(s.toUInt(), row.value);
      expectOk(row.ok, [&](bool* ok) { s.toUInt(ok); });
   }
}

TEST(DtStringConvert, ToDoubleAndToFloat)
{
   struct Row
   {
      char const* text;
      double value;
      Ok ok;
   };
   Row const rows[] = {
       {"1.5", 1.5, Ok::True},
       {"0.5", 0.5, Ok::True},
       {"-0.25", -0.25, Ok::True},
       {"+ 2.5", 2.5, Ok::True},
       {"12abc", 12.0, Ok::True},
       {"", 0.0, Ok::False},
       {"abc", 0.0, Ok::False},
       {"1e999", HUGE_VAL, Ok::False},
       {"-1e999", -HUGE_VAL, Ok::True},
       {"inf", HUGE_VAL, Ok::True},
       {"0x4059000000000000", 100.0, Ok::AsGiven},
       {"0x3ff0000000000000", 1.0, Ok::AsGiven},
       {" xg", 0.0, Ok::False},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.text);
      DtString const s(row.text);
      errno = 0;
      EXPECT_EQ(s.toDouble(), row.value);
      EXPECT_EQ(s.toFloat(), static_cast<float>(row.value));
      expectOk(row.ok, [&](bool* ok) { s.toDouble(ok); });
      expectOk(row.ok, [&](bool* ok) { s.toFloat(ok); });
   }
}

TEST(DtStringConvert, DoubleBitsSurviveText)
{
   double const original = 0.1;
   unsigned long long bits;
   std::memcpy(&bits, &original, sizeof bits);
   char text[32];
   std::snprintf(text, sizeof text, "0x%llx", bits);
   EXPECT_EQ(DtString(text).toDouble(), original);
}

TEST(DtStringConvert, StaleRangeErrorCounts)
{
   bool ok = true;
   errno = ERANGE;
   EXPECT_EQ(DtString("-1").toUInt(&ok), 0u);
   EXPECT_FALSE(ok);
   errno = 0;
}

TEST(DtStringConvert, ToBoolean)
{
   struct Row
   {
      char const* text;
      bool value;
      bool ok;
   };
   Row const rows[] = {
       {"1", true, true},    {"0", false, true},   {"-1", true, true},     {"2", true, true},
       {"true", true, true}, {"TRUE", true, true}, {"False", false, true}, {"yes", false, false},
       {"", false, false},   {"0x1", false, true},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.text);
      bool ok = !row.ok;
      errno = 0;
      EXPECT_EQ(DtString(row.text).toBoolean(&ok), row.value);
      EXPECT_EQ(ok, row.ok);
   }
}

// ---------------------------------------------------------------- streams

namespace
{
std::vector<std::string> extractAll(std::string const& input)
{
   std::istringstream in(input);
   std::vector<std::string> out;
   DtString word;
   // Bounded in case a fault stops the stream from failing.
   for (int i = 0; i < 100 && in >> word; ++i)
      out.push_back(word.stdString());
   return out;
}
}  // namespace

TEST(DtStringStream, WordsAndQuotedPhrases)
{
   struct Row
   {
      char const* input;
      std::vector<std::string> expected;
   };
   Row const rows[] = {
       {"hello  world", {"hello", "world"}},
       {"\"a   b\" c", {"a b", "c"}},
       {"\"quoted\"", {"quoted"}},
       {"\"", {""}},
       {"\"\" x", {"", "x"}},
       {" \"one\ttwo\nthree\" x", {"one two three", "x"}},
       {"\"a b \"", {"a b "}},
       {"mid\"dle\"", {"mid\"dle\""}},
       {"", {}},
       // A stream that ends inside a phrase gives what was read.
       {"\"a b", {"a b"}},
       {"x \"open  end  ", {"x", "open end"}},
   };
   for (Row const& row : rows)
   {
      SCOPED_TRACE(row.input);
      EXPECT_EQ(extractAll(row.input), row.expected);
   }

   std::ostringstream out;
   out << DtString("shown") << '|';
   EXPECT_EQ(out.str(), "shown|");
}

TEST(DtStringStream, FailedExtractionLeavesTheEmptyText)
{
   std::istringstream in("   ");
   DtString s("old");
   EXPECT_FALSE(in >> s);
   EXPECT_TRUE(s.isEmpty());

   std::istringstream open("\"never closed");
   EXPECT_TRUE(open >> s);
   EXPECT_TRUE(open.eof());
   EXPECT_STREQ(s.c_str(), "never closed");
   EXPECT_FALSE(open >> s);
}

TEST(DtStringStream, WordsLongerThanTheBufferArriveWhole)
{
   int const size = DtString::theMaxInsertionStringSize;
   for (int length : {size - 2, size - 1, size, size + 1, 2 * size - 2, 2 * size - 1, 3 * size})
   {
      SCOPED_TRACE(length);
      std::string const word(static_cast<std::size_t>(length), 'w');
      EXPECT_EQ(extractAll(word + " next"), (std::vector<std::string>{word, "next"}));
      EXPECT_EQ(extractAll(word), (std::vector<std::string>{word}));
      EXPECT_EQ(extractAll("\"a " + word + "\""), (std::vector<std::string>{"a " + word}));
   }
}
