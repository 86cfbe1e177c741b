// Tests of DtString.
#include <olutil/olString.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
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

   void release() { clear(); }
   // "where capacity [owned]|text"
   std::string state() const
   {
      std::string where = !text ? "released" : text == inlineBuffer ? "inline" : "heap";
      return where + " " + std::to_string(capacity) + (ownsHeap ? " owned|" : "|") +
             (text ? text : "");
   }
   std::vector<std::ptrdiff_t> offsets() const
   {
      char const* self = reinterpret_cast<char const*>(this);
      return {inlineBuffer - self, reinterpret_cast<char const*>(&text) - self,
              reinterpret_cast<char const*>(&ownsHeap) - self,
              reinterpret_cast<char const*>(&capacity) - self};
   }
};

// Shows which operand's virtual member the free operators use.
class CaselessString : public DtString
{
public:
   using DtString::DtString;
   bool operator==(char const* s) const override { return caseCompare(s); }
   DtString operator+(char const* s) const override { return DtString("[") + s + "]"; }
};

std::string const theLong(99, 'x');

}  // namespace

TEST(DtStringLayout, FieldsFollowTheVirtualTablePointer)
{
   EXPECT_EQ(sizeof(DtString), 88u);
   EXPECT_EQ(Probe().offsets(), (std::vector<std::ptrdiff_t>{8, 72, 80, 84}));
   EXPECT_EQ(DtString::theMaxInsertionStringSize, 256);
}

#if defined(__x86_64__) && defined(__GNUC__)
// In the Itanium C++ ABI a pointer to a virtual member holds 1 plus the byte
// offset of its slot; the destructor occupies slots 0 and 1.
template <typename Member>
std::ptrdiff_t slotOf(Member f)
{
   std::ptrdiff_t raw[2];
   static_assert(sizeof f == sizeof raw, "Itanium member function pointer");
   std::memcpy(raw, &f, sizeof raw);
   return (raw[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

TEST(DtStringLayout, VirtualSlotsKeepTheirOrder)
{
   using S = DtString;
   using Set = S& (S::*)(char const*);
   using SetS = S& (S::*)(S const&);
   using Cmp = bool (S::*)(char const*) const;
   using CmpS = bool (S::*)(S const&) const;
   using Plus = S (S::*)(char const*) const;
   using At = char& (S::*)(int);
   using AtC = char const& (S::*)(int) const;
   // clang-format off
   std::ptrdiff_t const slots[] = {
       slotOf(Set(&S::operator=)),   slotOf(SetS(&S::operator=)),  slotOf(&S::operator char const*),
       slotOf(&S::clone),            slotOf(Cmp(&S::operator<)),   slotOf(Cmp(&S::operator>)),
       slotOf(Cmp(&S::operator==)),  slotOf(Cmp(&S::operator!=)),  slotOf(Cmp(&S::operator<=)),
       slotOf(Cmp(&S::operator>=)),  slotOf(Cmp(&S::caseCompare)), slotOf(CmpS(&S::caseCompare)),
       slotOf(Plus(&S::operator+)),  slotOf(Set(&S::operator+=)),  slotOf(SetS(&S::operator+=)),
       slotOf(At(&S::operator[])),   slotOf(AtC(&S::operator[])),  slotOf(&S::snipFront),
       slotOf(&S::snipBack),         slotOf(&S::chompFront),       slotOf(&S::chompBack),
       slotOf(&S::tokenize),         slotOf(&S::toInt),            slotOf(&S::toUInt),
       slotOf(&S::toFloat),          slotOf(&S::toDouble),         slotOf(&S::toBoolean),
       slotOf(&S::toUpper),          slotOf(&S::toLower),          slotOf(&S::findChar),
       slotOf(&S::findLastChar),     slotOf(&S::findString),       slotOf(&S::findLastString),
       slotOf(&S::count),            slotOf(&S::length),           slotOf(&S::size),
       slotOf(&S::stdString),        slotOf(&S::string),           slotOf(&S::c_str),
       slotOf(&S::isEmpty),          slotOf(&S::section)};
   // clang-format on
   ASSERT_EQ(sizeof slots / sizeof slots[0], 41u);
   for (std::ptrdiff_t i = 0; i < 41; ++i)
      EXPECT_EQ(slots[i], i + 2) << "declaration " << i;
}
#endif

TEST(DtStringConstruct, Texts)
{
   char const* const none = nullptr;
   // clang-format off
   std::pair<DtString, char const*> const rows[] = {
       {DtString(none), ""}, {DtString("abc", 2), "ab"}, {DtString(none, 5), ""}, {DtString("abc", -1), ""},
       {DtString(std::string("std")), "std"}, {DtString(0.1), "0.1"}, {DtString(1e20), "1e+20"},
       {DtString('\0'), ""}, {DtString(LONG_MIN), "-9223372036854775808"},
       {DtString(ULONG_MAX), "18446744073709551615"}};
   // clang-format on
   for (auto const& [value, expected] : rows)
      EXPECT_STREQ(value.c_str(), expected);
}

TEST(DtStringStorage, InlineUpTo63CharactersThenExactHeapBlock)
{
   std::string const s63(63, 'a'), s64(64, 'a');
   EXPECT_EQ(Probe(s63.c_str()).state(), "inline 64|" + s63);
   EXPECT_EQ(Probe(s64.c_str()).state(), "heap 65 owned|" + s64);
   EXPECT_EQ(Probe((s64 + "bc").c_str(), 64).state(), "heap 65 owned|" + s64);
   // A counted copy does not stop at a NUL, but every operation does.
   Probe nul("a\0bc", 4);
   EXPECT_EQ(nul.size(), 1);
   EXPECT_EQ(std::memcmp(nul.c_str(), "a\0bc", 5), 0);
}

TEST(DtStringStorage, GrowsToExactSizesAndNeverReturnsInline)
{
   Probe s("short");
   s = theLong.c_str();
   s = "x";
   EXPECT_EQ(s.state(), "heap 100 owned|x");
   s = (theLong + "y").c_str();
   s = nullptr;
   EXPECT_EQ(s.state(), "heap 101 owned|");

   // Every append that does not fit reallocates to exactly the size needed.
   std::string const sixty(60, 'a');
   Probe a(sixty.c_str());
   a += "bbb";
   EXPECT_EQ(a.state(), "inline 64|" + sixty + "bbb");
   a += "c";
   a += static_cast<char const*>(nullptr);
   EXPECT_EQ(a.state(), "heap 65 owned|" + sixty + "bbbc");
   a += DtString("de");
   EXPECT_EQ(a.state(), "heap 67 owned|" + sixty + "bbbcde");

   // Appending its own text through a new block.
   std::string const forty(40, 'q');
   Probe grows(forty.c_str());
   grows += grows.c_str();
   EXPECT_EQ(grows.state(), "heap 81 owned|" + forty + forty);
}

TEST(DtStringStorage, CopiesByCapacity)
{
   Probe big(theLong.c_str());
   big = "x";
   EXPECT_EQ(Probe(big).state(), "heap 100 owned|x");
   std::unique_ptr<DtString> cloned(big.clone());
   EXPECT_STREQ(cloned->c_str(), "x");

   // A smaller target takes the source's capacity, a larger one keeps its own.
   Probe target("t");
   target = big;
   EXPECT_EQ(target.state(), "heap 100 owned|x");
   Probe larger((theLong + theLong + "z").c_str());
   larger = big;
   EXPECT_EQ(larger.state(), "heap 200 owned|x");

   // Assigning a string, or its own text, to itself changes nothing.
   Probe& same = target;
   target = same;
   target = target.c_str();
   EXPECT_EQ(target.state(), "heap 100 owned|x");
   Probe overlap("keep");
   overlap = overlap.c_str() + 2;
   EXPECT_EQ(overlap.state(), "inline 64|ep");
}

TEST(DtStringStorage, ClearReleasesOnlyAHeapBlock)
{
   Probe inl("inline");
   inl.release();
   EXPECT_EQ(inl.state(), "inline 0|inline");

   Probe heap(theLong.c_str());
   heap.release();
   EXPECT_EQ(heap.state(), "released 0 owned|");
   // The measuring, comparing, searching and converting operations tolerate it.
   EXPECT_EQ(heap.length(), 0);
   EXPECT_FALSE(heap == "" || heap != "");
   EXPECT_EQ(heap.findChar('x') + heap.findLastString(DtString("x")), -2);
   bool ok = true;
   EXPECT_EQ(heap.toInt(&ok) + heap.toDouble(&ok), 0.0);
   EXPECT_TRUE(ok);
   heap = "again";
   EXPECT_EQ(heap.state(), "heap 6 owned|again");
}

TEST(DtStringCompare, OperatorsNullArgumentsAndDispatch)
{
   DtString const b("b");
   EXPECT_TRUE(b < "c" && b > "a" && b == "b" && b != "B" && b <= "b" && b >= "b");
   char const* none = nullptr;
   EXPECT_FALSE(b < none || b > none || b == none || b != none || b <= none || b >= none);

   DtString const hello("Hello");
   EXPECT_TRUE(hello.caseCompare("hELLO") && !hello.caseCompare(DtString("Help")));

   // The left operand's virtual member decides.
   CaselessString const caseless("ABC");
   DtString const& asBase = caseless;
   EXPECT_TRUE(asBase == DtString("abc"));
   EXPECT_FALSE(DtString("abc") == asBase);
   EXPECT_STREQ((asBase + DtString("x")).c_str(), "[x]");
}

TEST(DtStringAccess, ConcatenationSubscriptsCaseSearchAndSharedEmpties)
{
   DtString const a("ab");
   EXPECT_EQ((a + "cd").stdString() + ("x" + a).c_str() + (a + DtString("yz")).c_str() + a.c_str(),
             "abcdxababyzab");

   DtString s("abc");
   s[0] = 'A';
   EXPECT_EQ(static_cast<DtString const&>(s)[0], 'A');
   s = "aB1-z";
   s.toUpper();
   std::string const upper = s.stdString();
   s.toLower();
   EXPECT_EQ(upper + s.stdString(), "AB1-Zab1-z");

   EXPECT_TRUE(DtString::nullString().isEmpty() && DtString::nullId().isEmpty());
   EXPECT_NE(&DtString::nullString(), &DtString::nullId());

   // Searching. findLastString gives the match nearest the start, deliberately.
   DtString t("abab");
   auto first = [&t](char const* x) { return t.findString(DtString(x)); };
   auto last = [&t](char const* x) { return t.findLastString(DtString(x)); };
   // clang-format off
   EXPECT_EQ((std::vector<int>{t.findChar('b'), t.findLastChar('b'), t.findChar('z'), first("ba"),
                               first(""), first("zz"), last("ab"), last(""), last("abc"),
                               t.count('a'), t.count('\0')}),
             (std::vector<int>{1, 3, -1, 1, 0, -1, 0, 0, -1, 2, 0}));
   // clang-format on
   EXPECT_EQ(DtString("xyab").findLastString(DtString("ab")), 2);
}

TEST(DtStringEdit, SnipsAndChomps)
{
   // f/F snipFront (F greedy), b/B snipBack (B greedy), < chompFront, > chompBack.
   // clang-format off
   std::tuple<char const*, char, char, bool, char const*> const rows[] = {
       {"a/b/c", 'F', '/', true, "c"}, {"a/b/c", 'f', '/', true, "b/c"}, {"a/b/c", 'B', '/', true, "a"},
       {"a/b/c", 'b', '/', true, "a/b"}, {"a/b/c", 'f', ':', false, "a/b/c"},
       {"a/b/c", 'b', '\0', false, "a/b/c"}, {"a/", 'f', '/', true, ""}, {"/a", 'B', '/', true, ""},
       {" \t\n x y \r\n", '<', 0, true, "x y \r\n"}, {"x y ", '<', 0, false, "x y "},
       {" x y \r\n", '>', 0, true, " x y"}, {" x y", '>', 0, false, " x y"}, {" \t ", '>', 0, true, ""}};
   // clang-format on
   for (auto const& [text, op, c, result, expected] : rows)
   {
      SCOPED_TRACE(std::string(text) + " " + op + " " + c);
      DtString s(text);
      bool const greedy = op == 'F' || op == 'B';
      EXPECT_EQ(op == '<'                ? s.chompFront()
                : op == '>'              ? s.chompBack()
                : op == 'f' || op == 'F' ? s.snipFront(c, greedy)
                                         : s.snipBack(c, greedy),
                result);
      EXPECT_STREQ(s.c_str(), expected);
   }
}

TEST(DtStringSplit, TokenizeAndSection)
{
   std::string const big(100, 'L');
   std::pair<std::string, std::vector<std::string>> const rows[] = {{"a,,b,", {"a", "", "b"}},
                                                                    {",", {""}},
                                                                    {"", {}},
                                                                    {",,", {"", ""}},
                                                                    {big + ",s", {big, "s"}}};
   // tokenize keeps leading and inner empty fields, not a trailing one.
   for (auto const& [text, expected] : rows)
   {
      SCOPED_TRACE(text);
      std::vector<DtString> out{DtString("stale")};
      DtString(text).tokenize(',', out);
      std::vector<std::string> got;
      for (DtString const& token : out)
         got.push_back(token.stdString());
      EXPECT_EQ(got, expected);
   }

   // section counts non-empty fields, but a negative index counts all of them.
   std::tuple<char const*, int, int, char const*> const sections[] = {
       {"a,,b", 1, 1, "b"},    {"a,,b", 0, 1, "a,,b"}, {"a,,b", -1, -1, ""}, {"a,b,c", 1, 2, "b,c"},
       {"a,b,c", -1, -1, "c"}, {"a,b,c", 2, 1, ""},    {",a,b", 0, 0, "a"},  {"a,b", 5, 9, ""}};
   for (auto const& [text, first, last, expected] : sections)
   {
      SCOPED_TRACE(::testing::Message() << text << " " << first << ".." << last);
      EXPECT_STREQ(DtString(text).section(',', first, last).c_str(), expected);
   }
}

namespace
{
// What a conversion does with the caller's flag: F false, T true, G left as given.
using Ok = int;
constexpr Ok F = 0, T = 1, G = 2;

// Checks the value (NaN matches NaN), then the flag with either preset.
template <typename V>
void expectConversion(char const* what, DtString const& s, V value, Ok ok,
                      V (DtString::*convert)(bool*) const)
{
   SCOPED_TRACE(what);
   errno = 0;
   V const got = (s.*convert)(nullptr);
   EXPECT_TRUE(got == value || (got != got && value != value)) << got << " for " << value;
   for (bool preset : {false, true})
   {
      bool flag = preset;
      errno = 0;
      (s.*convert)(&flag);
      EXPECT_EQ(flag, ok == G ? preset : ok == T) << "preset " << preset;
   }
}
}  // namespace

TEST(DtStringConvert, Numbers)
{
   double const nan = std::nan("");
   // text, toInt, toUInt, toDouble (toFloat the same, narrowed), each with its flag.
   // clang-format off
   std::tuple<char const*, int, Ok, unsigned int, Ok, double, Ok> const rows[] = {
       {"",                      0,       F, 0u,          F, 0.0,          F},
       {" x10",                  0,       F, 0u,          F, 0.0,          F},
       {"0",                     0,       T, 0u,          T, 0.0,          T},
       {"010",                   10,      T, 10u,         T, 10.0,         T},
       {"-010",                  -8,      T, 0u,          T, -10.0,        T},
       {"+ 05",                  5,       T, 5u,          T, 5.0,          T},
       {"12abc",                 12,      T, 12u,         T, 12.0,         T},
       {"1.5",                   1,       T, 1u,          T, 1.5,          T},
       {"-1",                    -1,      T, 0u,          T, -1.0,         T},
       {"4294967295",            INT_MIN, T, UINT_MAX,    T, 4294967295.0, T},
       {"4294967296",            INT_MIN, T, 0u,          T, 4294967296.0, T},
       {"18446744073709551616",  INT_MIN, F, 0u,          F, 0x1p64,       T},
       {"1e999",                 1,       T, 1u,          T, HUGE_VAL,     F},
       {"-1e999",                -1,      T, 0u,          T, -HUGE_VAL,    T},
       {"inf",                   0,       F, 0u,          F, HUGE_VAL,     T},
       // Hexadecimal text is the bit pattern of a double.
       {"0x10",                  0,       T, 0u,          G, 0x10p-1074,   G},
       {"-0x10",                 -16,     T, 0u,          T, -16.0,        T},
       {"0XC059000000000000",    -100,    T, 4294967196u, G, -100.0,       G},
       {"0x7ff8000000000000",    INT_MIN, T, 0u,          G, nan,          G}};
   // clang-format on
   for (auto const& [text, i, iOk, u, uOk, d, dOk] : rows)
   {
      SCOPED_TRACE(text);
      DtString const s(text);
      expectConversion("toInt", s, i, iOk, &DtString::toInt);
      expectConversion("toUInt", s, u, uOk, &DtString::toUInt);
      expectConversion("toDouble", s, d, dOk, &DtString::toDouble);
      expectConversion("toFloat", s, static_cast<float>(d), dOk, &DtString::toFloat);
   }

   // errno is not cleared before the conversion: a stale range error counts.
   bool ok = true;
   errno = ERANGE;
   EXPECT_EQ(DtString("-1").toUInt(&ok), 0u);
   EXPECT_FALSE(ok);
   errno = 0;
}

TEST(DtStringConvert, ToBoolean)
{
   std::tuple<char const*, bool, Ok> const rows[] = {
       {"0", false, T},   {"-1", true, T}, {"TRUE", true, T}, {"False", false, T},
       {"yes", false, F}, {"", false, F},  {"0x1", false, T}};
   for (auto const& [text, value, ok] : rows)
   {
      SCOPED_TRACE(text);
      expectConversion("toBoolean", DtString(text), value, ok, &DtString::toBoolean);
   }
}

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

TEST(DtStringStream, WordsQuotedPhrasesAndEndOfInput)
{
   std::pair<char const*, std::vector<std::string>> const rows[] = {
       {"hello  world", {"hello", "world"}},
       {"\"\" x", {"", "x"}},
       {"\"a b \"", {"a b "}},
       {"mid\"dle\"", {"mid\"dle\""}},
       {"", {}},
       {" \"one\ttwo\nthree\" x", {"one two three", "x"}}};
   for (auto const& [input, expected] : rows)
   {
      SCOPED_TRACE(input);
      EXPECT_EQ(extractAll(input), expected);
   }
   std::ostringstream out;
   out << DtString("shown") << '|';
   EXPECT_EQ(out.str(), "shown|");

   // An unclosed phrase gives what was read, then the stream is done.
   std::istringstream open("x \"never   closed  ");
   DtString s("old");
   std::istringstream blank("   ");
   EXPECT_FALSE(blank >> s);
   EXPECT_TRUE(s.isEmpty());
   EXPECT_TRUE(open >> s && open >> s);
   EXPECT_TRUE(open.eof());
   EXPECT_STREQ(s.c_str(), "never closed");
   EXPECT_FALSE(open >> s);
}

TEST(DtStringStream, WordsLongerThanTheBufferArriveWhole)
{
   int const size = DtString::theMaxInsertionStringSize;
   for (int length : {size - 1, size, 2 * size - 1, 3 * size})
   {
      SCOPED_TRACE(length);
      std::string const word(static_cast<std::size_t>(length), 'w');
      EXPECT_EQ(extractAll(word + " next"), (std::vector<std::string>{word, "next"}));
      EXPECT_EQ(extractAll(word), (std::vector<std::string>{word}));
      EXPECT_EQ(extractAll("\"a " + word + "\""), (std::vector<std::string>{"a " + word}));
   }
}
