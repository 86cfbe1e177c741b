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
};

std::string const theLong(99, 'x');

std::string joined(std::vector<DtString> const& tokens)
{
   std::string all;
   for (DtString const& token : tokens)
      all += token.stdString() + "|";
   return all;
}

}  // namespace

TEST(DtStringStorage, InlineUpTo63ThenExactHeapBlocksCopiedByCapacity)
{
   EXPECT_EQ(sizeof(DtString), 88u);
   std::string const s63(63, 'a');
   EXPECT_EQ(Probe(s63.c_str()).state(), "inline 64|" + s63);
   Probe s(theLong.c_str());
   s = "x";
   EXPECT_EQ(s.state(), "heap 100 owned|x");
   Probe a(s63.c_str());
   a += DtString("b");
   EXPECT_EQ(a.state(), "heap 65 owned|" + s63 + "b") << "grows to the exact size";
   Probe target("t");
   target = s;
   EXPECT_EQ(target.state(), "heap 100 owned|x") << "a smaller target takes the capacity";

   // clear() releases only a heap block; everything tolerates the released state.
   Probe heap(theLong.c_str());
   heap.release();
   EXPECT_EQ(heap.state(), "released 0 owned|");
   EXPECT_FALSE(heap.length() != 0 || heap == "" || heap != "" || heap.findChar('x') != -1 ||
                heap.findLastString(DtString("x")) != -1 || heap.toDouble() != 0.0);
   heap = "again";
   EXPECT_EQ(heap.state(), "heap 6 owned|again");
}

TEST(DtStringValue, ConstructCompareDispatchSearchAndEdit)
{
   char const* none = nullptr;
   DtString const b("b");
   EXPECT_FALSE(b < none || b > none || b == none || b != none || b <= none || b >= none);
   // findLastString gives the match nearest the start.
   DtString t("abab");
   EXPECT_EQ(0, t.findLastString(DtString("ab")));
   EXPECT_TRUE(t.findChar('b') == 1 && t.findLastChar('b') == 3 && t.findLastChar('x') == -1 &&
               t.count('a') == 2 && t.count('x') == 0);
   // Equal ignoring case, and never on a prefix alone.
   EXPECT_TRUE(DtString("Ab").caseCompare(DtString("aB")) && !DtString("Ab").caseCompare("a") &&
               !DtString("a").caseCompare("Ab"));
   DtString mixed("a1\xe9Z");
   mixed.toUpper();
   EXPECT_EQ(mixed, "A1\xe9Z");
   mixed.toLower();
   EXPECT_EQ(mixed, "a1\xe9z") << "ASCII letters only";
   // Numbers as printf prints them; a double keeps 13 significant digits.
   EXPECT_EQ(DtString(1.0 / 3) + "|" + DtString(-7) + "|" + DtString(4294967295u) + "|" +
                 DtString(-9000000000L) + "|" + DtString('c'),
             "0.3333333333333|-7|4294967295|-9000000000|c");

   // "+" or "-" for the result of a snip at '/', then the text left.
   auto snip = [](char const* text, bool front, bool greedy)
   {
      DtString s(text);
      bool const cut = front ? s.snipFront('/', greedy) : s.snipBack('/', greedy);
      return (cut ? "+" : "-") + s.stdString();
   };
   EXPECT_EQ(snip("a/b/c", true, true) + snip("a/b/c", false, false) + snip("a", true, false) +
                 snip("a/", true, false),
             "+c+a/b-a+");
   DtString chomped(" \t\n x y \r\n");
   EXPECT_TRUE(chomped.chompFront() && chomped.chompBack() && chomped == "x y");

   // tokenize keeps leading and inner empty fields, not a trailing one.
   auto split = [](char const* text)
   {
      std::vector<DtString> out{DtString("stale")};
      DtString(text).tokenize(',', out);
      return joined(out);
   };
   EXPECT_EQ(split("a,,b,") + " " + split(",") + " " + split(""), "a||b| | ");
   // section counts non-empty fields, but a negative index counts all of them.
   auto section = [](char const* text, int first, int last)
   { return DtString(text).section(',', first, last).stdString() + "|"; };
   EXPECT_EQ(section("a,,b", 1, 1) + section("a,,b", -1, -1) + section("a,b", 5, 9), "b|||");
}

TEST(DtStringConvert, NumbersAndBooleans)
{
   // What a conversion does with the caller's flag: F false, T true, G left as given.
   enum Ok
   {
      F,
      T,
      G
   };
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
   // text, toInt, toUInt, toDouble, each with its flag.
   // clang-format off
   std::tuple<char const*, int, Ok, unsigned int, Ok, double, Ok> const rows[] = {
       {"",                     0,       F, 0u,          F, 0.0,          F},
       {" +0",                  0,       T, 0u,          T, 0.0,          T},
       {"-010",                 -8,      T, 0u,          T, -10.0,        T},
       {"18446744073709551616", INT_MIN, F, 0u,          F, 0x1p64,       T},
       {"1e999",                1,       T, 1u,          T, HUGE_VAL,     F},
       // Hexadecimal text is the bit pattern of a double.
       {"0XC059000000000000",   -100,    T, 4294967196u, G, -100.0,       G}};
   // clang-format on
   for (auto const& [text, i, iOk, u, uOk, d, dOk] : rows)
   {
      DtString const s(text);
      expectConversion(s, i, iOk, &DtString::toInt);
      expectConversion(s, u, uOk, &DtString::toUInt);
      expectConversion(s, d, dOk, &DtString::toDouble);
   }
   expectConversion(DtString("-1"), true, T, &DtString::toBoolean);
   expectConversion(DtString("0x1"), false, T, &DtString::toBoolean);
   expectConversion(DtString("FALSE"), false, T, &DtString::toBoolean);
   expectConversion(DtString("True"), true, T, &DtString::toBoolean);
   expectConversion(DtString("yes"), false, F, &DtString::toBoolean);
   // errno is not cleared first: a stale range error counts.
   bool ok = true;
   errno = ERANGE;
   EXPECT_TRUE(DtString("-1").toUInt(&ok) == 0u && !ok);
   errno = 0;
}

// A NUL ends the word or phrase it stands in; the 20 letters put the word's
// storage on the heap, where a read before it is seen.
TEST(DtStringStream, WordsPhrasesLongWordsAndNulBytes)
{
   std::string const q(20, 'q'), nul(1, '\0'), w(3 * DtString::theMaxInsertionStringSize, 'w');
   // clang-format off
   std::vector<std::pair<std::string, std::vector<std::string>>> const cases = {
       {"\"\" mid\"dle\" \"one\ttwo\nthree \" x", {"", "mid\"dle\"", "one two three ", "x"}},
       {"x \"never   closed  ",                 {"x", "never closed"}},
       {w + " next",                            {w, "next"}},
       {"\"" + q + " " + nul + " b\" c",        {q + " ", "c"}},
       {nul + " x",                             {"", "x"}},
       {"ab" + nul + "cd ef",                   {"ab", "ef"}},
       {"\"" + nul,                             {""}},
   };
   // clang-format on
   for (auto const& [input, expected] : cases)
   {
      SCOPED_TRACE(::testing::PrintToString(input.substr(0, 40)));
      std::istringstream in(input);
      std::vector<std::string> out;
      DtString word("stale");
      for (int i = 0; i < 10 && in >> word; ++i)  // bounded should the stream never fail
         out.push_back(word.stdString());
      EXPECT_EQ(expected, out);
   }
}

// Text from the string itself or its buffer acts as a copy, though growing frees that
// buffer; tokenize may be given a vector that holds the string it splits.
TEST(DtStringAliasing, ArgumentsFromTheStringItselfActAsCopies)
{
   typedef std::function<std::string(DtString & target, DtString const& argument)> Edit;
   auto middle = [](DtString const& s) { return s.c_str() + s.size() / 2; };
   // clang-format off
   std::vector<std::pair<char const*, Edit>> const edits = {
       {"= whole",       [](DtString& t, DtString const& a) { t = a; return t.stdString(); }},
       {"= middle",      [&](DtString& t, DtString const& a) { t = middle(a); return t.stdString(); }},
       {"+= middle",     [&](DtString& t, DtString const& a) { t += middle(a); return t.stdString(); }},
       {"tokenize into", [&](DtString& t, DtString const& a)
                         {
                            std::vector<DtString> out{t, DtString("x")};
                            DtString const& source = &t == &a ? out[0] : t;
                            source.tokenize('.', out);
                            return joined(out);
                         }},
   };
   // clang-format on
   std::string const long64(64, 'n');
   std::string const long200 = std::string(100, 'd') + ".d/" + std::string(95, 'e');
   for (char const* start : {"", "dir.d/name.ext", long64.c_str(), long200.c_str()})
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
