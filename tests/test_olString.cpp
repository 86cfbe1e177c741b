// Tests of DtString.
#include <olutil/olString.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
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
      auto at = [this](void const* p)
      { return static_cast<char const*>(p) - reinterpret_cast<char const*>(this); };
      return {at(inlineBuffer), at(&text), at(&ownsHeap), at(&capacity)};
   }
};

// Shows which operand's virtual member the free operators use.
class CaselessString : public DtString
{
public:
   using DtString::DtString;
   bool operator==(char const* s) const override { return caseCompare(s); }
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
// Itanium ABI: a pointer to a virtual member holds 1 plus its slot's byte offset;
// the destructor occupies slots 0 and 1.
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
   // clang-format off
   using S = DtString;
   using Set = S& (S::*)(char const*);       using SetS = S& (S::*)(S const&);
   using Cmp = bool (S::*)(char const*) const; using CmpS = bool (S::*)(S const&) const;
   using At = char& (S::*)(int);              using AtC = char const& (S::*)(int) const;
   std::ptrdiff_t const slots[] = {
       slotOf(Set(&S::operator=)), slotOf(SetS(&S::operator=)), slotOf(&S::operator char const*),
       slotOf(&S::clone), slotOf(Cmp(&S::operator<)), slotOf(Cmp(&S::operator>)),
       slotOf(Cmp(&S::operator==)), slotOf(Cmp(&S::operator!=)), slotOf(Cmp(&S::operator<=)),
       slotOf(Cmp(&S::operator>=)), slotOf(Cmp(&S::caseCompare)), slotOf(CmpS(&S::caseCompare)),
       slotOf(static_cast<S (S::*)(char const*) const>(&S::operator+)), slotOf(Set(&S::operator+=)),
       slotOf(SetS(&S::operator+=)), slotOf(At(&S::operator[])), slotOf(AtC(&S::operator[])),
       slotOf(&S::snipFront), slotOf(&S::snipBack), slotOf(&S::chompFront), slotOf(&S::chompBack),
       slotOf(&S::tokenize), slotOf(&S::toInt), slotOf(&S::toUInt), slotOf(&S::toFloat),
       slotOf(&S::toDouble), slotOf(&S::toBoolean), slotOf(&S::toUpper), slotOf(&S::toLower),
       slotOf(&S::findChar), slotOf(&S::findLastChar), slotOf(&S::findString),
       slotOf(&S::findLastString), slotOf(&S::count), slotOf(&S::length), slotOf(&S::size),
       slotOf(&S::stdString), slotOf(&S::string), slotOf(&S::c_str), slotOf(&S::isEmpty),
       slotOf(&S::section)};
   // clang-format on
   ASSERT_EQ(sizeof slots / sizeof slots[0], 41u);
   for (std::ptrdiff_t i = 0; i < 41; ++i)
      EXPECT_EQ(slots[i], i + 2) << "declaration " << i;
}
#endif

TEST(DtStringStorage, InlineUpTo63ThenExactHeapBlocksCopiedByCapacity)
{
   std::string const s63(63, 'a'), s64(64, 'a');
   EXPECT_EQ(Probe(s63.c_str()).state(), "inline 64|" + s63);
   EXPECT_EQ(Probe(s64.c_str()).state(), "heap 65 owned|" + s64);
   Probe s("short");
   s = theLong.c_str();
   s = "x";
   EXPECT_EQ(s.state(), "heap 100 owned|x");

   // No spare room: every append that does not fit reallocates to the exact size.
   std::string const sixty(60, 'a');
   Probe a(sixty.c_str());
   a += "bbb";
   EXPECT_EQ(a.state(), "inline 64|" + sixty + "bbb");
   a += "c";
   a += DtString("de");
   EXPECT_EQ(a.state(), "heap 67 owned|" + sixty + "bbbcde");
   Probe grows(sixty.c_str());
   grows += grows.c_str();  // its own text, through the new block
   EXPECT_EQ(grows.state(), "heap 121 owned|" + sixty + sixty);

   EXPECT_EQ(Probe(s).state(), "heap 100 owned|x");
   // A smaller target takes the source's capacity, a larger one keeps its own.
   Probe target("t");
   target = s;
   EXPECT_EQ(target.state(), "heap 100 owned|x");
   Probe larger((theLong + theLong + "z").c_str());
   larger = s;
   EXPECT_EQ(larger.state(), "heap 200 owned|x");
   Probe overlap("keep");
   overlap = overlap.c_str() + 2;
   EXPECT_EQ(overlap.state(), "inline 64|ep");

   // clear() releases only a heap block.
   Probe inl("inline");
   inl.release();
   EXPECT_EQ(inl.state(), "inline 0|inline");
   Probe heap(theLong.c_str());
   heap.release();
   EXPECT_EQ(heap.state(), "released 0 owned|");
   // Measuring, comparing, searching and converting tolerate the released state.
   bool ok = true;
   EXPECT_FALSE(heap.length() != 0 || heap == "" || heap != "" || heap.findChar('x') != -1);
   EXPECT_TRUE(heap.findLastString(DtString("x")) == -1 && heap.toDouble(&ok) == 0.0 && ok);
   heap = "again";
   EXPECT_EQ(heap.state(), "heap 6 owned|again");
}

TEST(DtStringValue, ConstructCompareDispatchAndSearch)
{
   char const* none = nullptr;
   std::string const texts = DtString(none).stdString() + "|" + DtString("abc", 2).c_str() + "|" +
                             DtString("abc", -1).c_str() + "|" + DtString(0.1).c_str() + "|" +
                             DtString(1e20).c_str() + "|" + DtString(LONG_MIN).c_str();
   EXPECT_EQ(texts, "|ab||0.1|1e+20|-9223372036854775808");

   DtString const b("b");
   EXPECT_TRUE(b < "c" && b > "a" && b == "b" && b != "B" && b <= "b" && b >= "b");
   EXPECT_FALSE(b < none || b > none || b == none || b != none || b <= none || b >= none);
   EXPECT_TRUE(DtString("Hello").caseCompare("hELLO") && !DtString("Hello").caseCompare("Help"));
   // The left operand's virtual member decides.
   CaselessString const caseless("ABC");
   DtString const& asBase = caseless;
   EXPECT_TRUE(asBase == DtString("abc"));
   EXPECT_FALSE(DtString("abc") == asBase);

   // findLastString gives the match nearest the start.
   DtString t("abab");
   auto first = [&t](char const* x) { return t.findString(DtString(x)); };
   auto last = [&t](char const* x) { return t.findLastString(DtString(x)); };
   EXPECT_EQ((std::vector<int>{t.findChar('b'), t.findLastChar('b'), t.findChar('z'), first("ba"),
                               first("zz"), last("ab"), last(""), last("abc"), t.count('a')}),
             (std::vector<int>{1, 3, -1, 1, -1, 0, 0, -1, 2}));
}

TEST(DtStringEdit, SnipsAndChomps)
{
   // f/F snipFront (F greedy), b/B snipBack (B greedy), < chompFront, > chompBack;
   // "+" or "-" for the result, then the text left.
   auto edit = [](char const* text, char op, char c = '/')
   {
      DtString s(text);
      bool const cut = op == '<'                ? s.chompFront()
                       : op == '>'              ? s.chompBack()
                       : op == 'f' || op == 'F' ? s.snipFront(c, op == 'F')
                                                : s.snipBack(c, op == 'B');
      return (cut ? "+" : "-") + s.stdString();
   };
   EXPECT_EQ((std::vector<std::string>{edit("a/b/c", 'F'), edit("a/b/c", 'f'), edit("a/b/c", 'B'),
                                       edit("a/b/c", 'b'), edit("a/b/c", 'f', ':'), edit("a/", 'f'),
                                       edit(" \t\n x y \r\n", '<'), edit(" x y \r\n", '>'),
                                       edit(" \t ", '>')}),
             (std::vector<std::string>{"+c", "+b/c", "+a", "+a/b", "-a/b/c", "+", "+x y \r\n",
                                       "+ x y", "+"}));
}

TEST(DtStringSplit, TokenizeAndSection)
{
   // tokenize keeps leading and inner empty fields, not a trailing one.
   auto split = [](char const* text)
   {
      std::vector<DtString> out{DtString("stale")};
      DtString(text).tokenize(',', out);
      std::string all;
      for (DtString const& token : out)
         all += token.stdString() + "|";
      return all;
   };
   EXPECT_EQ(split("a,,b,") + " " + split(",") + " " + split(""), "a||b| | ");
   // section counts non-empty fields, but a negative index counts all of them.
   auto section = [](char const* text, int first, int last)
   { return DtString(text).section(',', first, last).stdString() + "|"; };
   EXPECT_EQ(section("a,,b", 1, 1) + section("a,,b", -1, -1) + section("a,b,c", 1, 2) +
                 section("a,b", 5, 9),
             "b||b,c||");
}

TEST(DtStringConvert, NumbersAndBooleans)
{
   // What a conversion does with the caller's flag: F false, T true, G left as given.
   using Ok = int;
   constexpr Ok F = 0, T = 1, G = 2;
   auto expectConversion = [](DtString const& s, auto value, Ok ok, auto convert)
   {
      bool cleared = false, set = true;
      errno = 0;
      auto const got = (s.*convert)(&cleared);
      errno = 0;
      (s.*convert)(&set);
      EXPECT_TRUE(got == value || (got != got && value != value)) << s.c_str() << ": " << got;
      EXPECT_TRUE(cleared == (ok == T) && set == (ok != F)) << s.c_str();
   };
   // text, toInt, toUInt, toDouble (toFloat the same, narrowed), each with its flag.
   // clang-format off
   std::tuple<char const*, int, Ok, unsigned int, Ok, double, Ok> const rows[] = {
       {"",                     0,       F, 0u,          F, 0.0,          F},
       {"0",                    0,       T, 0u,          T, 0.0,          T},
       {"010",                  10,      T, 10u,         T, 10.0,         T},
       {"-010",                 -8,      T, 0u,          T, -10.0,        T},
       {"+ 05",                 5,       T, 5u,          T, 5.0,          T},
       {"12abc",                12,      T, 12u,         T, 12.0,         T},
       {"18446744073709551616", INT_MIN, F, 0u,          F, 0x1p64,       T},
       {"1e999",                1,       T, 1u,          T, HUGE_VAL,     F},
       {"-1e999",               -1,      T, 0u,          T, -HUGE_VAL,    T},
       // Hexadecimal text is the bit pattern of a double.
       {"0x10",                 0,       T, 0u,          G, 0x10p-1074,   G},
       {"-0x10",                -16,     T, 0u,          T, -16.0,        T},
       {"0XC059000000000000",   -100,    T, 4294967196u, G, -100.0,       G}};
   std::tuple<char const*, bool, Ok> const words[] = {
       {"-1", true, T}, {"TRUE", true, T}, {"False", false, T}, {"yes", false, F}, {"0x1", false, T}};
   // clang-format on
   for (auto const& [text, i, iOk, u, uOk, d, dOk] : rows)
   {
      DtString const s(text);
      expectConversion(s, i, iOk, &DtString::toInt);
      expectConversion(s, u, uOk, &DtString::toUInt);
      expectConversion(s, d, dOk, &DtString::toDouble);
      expectConversion(s, static_cast<float>(d), dOk, &DtString::toFloat);
   }
   for (auto const& [text, value, ok] : words)
      expectConversion(DtString(text), value, ok, &DtString::toBoolean);
   // errno is not cleared first: a stale range error counts.
   bool ok = true;
   errno = ERANGE;
   EXPECT_TRUE(DtString("-1").toUInt(&ok) == 0u && !ok);
   errno = 0;
}

TEST(DtStringStream, WordsQuotedPhrasesEndOfInputAndLongWords)
{
   auto extractAll = [](std::string const& input)
   {
      std::istringstream in(input);
      std::vector<std::string> out;
      DtString word;
      for (int i = 0; i < 100 && in >> word; ++i)  // bounded should the stream never fail
         out.push_back(word.stdString());
      return out;
   };
   EXPECT_EQ(extractAll("\"\" mid\"dle\" \"one\ttwo\nthree \" x"),
             (std::vector<std::string>{"", "mid\"dle\"", "one two three ", "x"}));

   // An unclosed phrase gives what was read, then the stream is done.
   EXPECT_EQ(extractAll("x \"never   closed  "), (std::vector<std::string>{"x", "never closed"}));

   // Words longer than the insertion buffer arrive whole.
   int const size = DtString::theMaxInsertionStringSize;
   for (int length : {size - 1, size, 3 * size})
   {
      std::string const word(static_cast<std::size_t>(length), 'w');
      EXPECT_EQ(extractAll(word + " next"), (std::vector<std::string>{word, "next"})) << length;
      EXPECT_EQ(extractAll("\"a " + word + "\""), (std::vector<std::string>{"a " + word}));
   }
}

// A NUL in the stream ends the text it stands in, also a whole word's or the
// rest of a phrase's; the quotes are found in the bytes as they came. The
// opening word of the first phrases is long enough to take the word's storage
// off the stack, where a read before it is seen.
TEST(DtStringStream, NulBytesEndWordsAndMayLeaveThemEmpty)
{
   std::string const letters(20, 'q');
   std::string const nul(1, '\0');
   // clang-format off
   std::vector<std::pair<std::string, std::vector<std::string>>> const cases = {
       {"\"" + letters + " " + nul,             {letters + " "}},
       {"\"" + letters + " " + nul + " b\" c",   {letters + " ", "c"}},
       {nul + " x",                             {"", "x"}},
       {"ab" + nul + "cd ef",                   {"ab", "ef"}},
       {"\"a" + nul + "\" z",                   {"a", "z"}},
       {"\"" + nul,                             {""}},
   };
   // clang-format on
   for (auto const& [input, expected] : cases)
   {
      SCOPED_TRACE(::testing::PrintToString(input));
      std::istringstream in(input);
      std::vector<std::string> out;
      DtString word("stale");
      for (int i = 0; i < 10 && in >> word; ++i)
         out.push_back(word.stdString());
      EXPECT_EQ(expected, out);
   }
}

// Every operation that takes text must give the same result when that text is
// the string itself, or lies inside its buffer, as when it is a separate copy:
// growing the string frees the buffer the argument points into.
TEST(DtStringAliasing, ArgumentsFromTheStringItselfActAsCopies)
{
   typedef std::function<std::string(DtString & target, DtString const& argument)> Edit;
   auto middle = [](DtString const& s) { return s.c_str() + s.size() / 2; };
   auto tokens = [](std::vector<DtString> const& all)
   {
      std::string joined;
      for (DtString const& token : all)
         joined += token.stdString() + "|";
      return joined;
   };
   // clang-format off
   std::vector<std::pair<char const*, Edit>> const edits = {
       {"= whole",       [](DtString& t, DtString const& a) { t = a; return t.stdString(); }},
       {"= text",        [](DtString& t, DtString const& a) { t = a.c_str(); return t.stdString(); }},
       {"= middle",      [&](DtString& t, DtString const& a) { t = middle(a); return t.stdString(); }},
       {"setString",     [&](DtString& t, DtString const& a) { t.setString(middle(a)); return t.stdString(); }},
       {"+= whole",      [](DtString& t, DtString const& a) { t += a; return t.stdString(); }},
       {"+= text",       [](DtString& t, DtString const& a) { t += a.c_str(); return t.stdString(); }},
       {"+= middle",     [&](DtString& t, DtString const& a) { t += middle(a); return t.stdString(); }},
       {"+ text",        [](DtString& t, DtString const& a) { return (t + a.c_str()).stdString(); }},
       {"free +",        [](DtString& t, DtString const& a) { return (a.c_str() + t).stdString(); }},
       {"DtString + DtString", [](DtString& t, DtString const& a) { return (t + a).stdString(); }},
       {"compare",       [](DtString& t, DtString const& a)
                         { return std::to_string((t == a) + 2 * (t < a) + 4 * (t >= a) + 8 * t.caseCompare(a)); }},
       {"find",          [&](DtString& t, DtString const& a)
                         { return std::to_string(t.findString(a)) + std::to_string(t.findLastString(middle(a))); }},
       {"tokenize into", [&](DtString& t, DtString const& a)
                         {
                            // Aliased, the string split is the first element of
                            // the vector it splits into.
                            std::vector<DtString> out{t, DtString("x")};
                            DtString const& source = &t == &a ? out[0] : t;
                            source.tokenize('.', out);
                            return tokens(out);
                         }},
   };
   // clang-format on
   std::string const long64(64, 'n');
   std::string const long200 = std::string(100, 'd') + ".d/" + std::string(95, 'e');
   for (char const* start : {"", "a", "dir.d/name.ext", long64.c_str(), long200.c_str()})
   {
      for (auto const& [name, edit] : edits)
      {
         SCOPED_TRACE(std::string(name) + " on " + std::to_string(std::strlen(start)) + " bytes");
         DtString separate(start), argument(start), aliased(start);
         std::string const expected = edit(separate, argument);
         EXPECT_EQ(expected, edit(aliased, aliased));
      }
   }
}
