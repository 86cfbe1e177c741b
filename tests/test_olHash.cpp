// Tests of DtHash: MurmurHash3 ids, the two registries, and DtHash values.
#include <olutil/olHash.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

using namespace std::string_literals;

TEST(DtHashTest, IdsAreMurmurHash3WithTheLibrarySeed)
{
   // Reference values from an independent MurmurHash3 x86_32 implementation,
   // seed 0x811C9DC5; every tail length of the algorithm is covered.
   struct Case
   {
      std::string text;
      std::uint32_t id;
   } const cases[] = {
       {"", 0xab3e7c0bu},
       {"a", 0x80ffd795u},
       {"ab", 0xc4a79c70u},
       {"abc", 0x8e686885u},
       {"abcd", 0xf639e6e1u},
       {"hello", 0xf313adcdu},
       {"hello!", 0x08257a6bu},
       {"hello!!", 0x295e4663u},
       {"NOT SET", 0x39acfc3fu},
       {"\x80\xff\0x"s, 0xe9e60cdeu},  // bytes above 127 and an embedded NUL
       {"The quick brown fox jumps over the lazy dog", 0x197b9835u},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(::testing::PrintToString(c.text));
      EXPECT_EQ(c.id, DtHash::value(c.text));
      EXPECT_EQ(c.id, DtHash::makeHash(c.text)) << "the same id on every call";
      DtHash hash(c.text);
      EXPECT_EQ(c.id, hash());
      EXPECT_EQ(c.id, hash.value());
      EXPECT_EQ(c.text, hash.str());
      EXPECT_TRUE(hash.isValid());
      EXPECT_EQ(c.text, DtHash::valueToString(c.id));
      EXPECT_EQ(c.id, DtHash::theHashStringMap().at(c.text));
   }
}

TEST(DtHashTest, ADefaultValueIsNotSet)
{
   DtHash hash;
   EXPECT_FALSE(hash.isValid());
   EXPECT_EQ("NOT SET", hash.str());
   EXPECT_EQ(4294967295u, hash());
   hash.set("abc");
   EXPECT_TRUE(hash.isValid());
   EXPECT_EQ(0x8e686885u, hash.value());
   EXPECT_EQ("abc", hash.str());
}

TEST(DtHashTest, AnUnknownIdWarnsAndReadsNotSet)
{
   std::uint32_t unknown = 1;
   while (DtHash::theHashIdMap().count(unknown))
      ++unknown;
   olt::CapturePrinter warnings(DtWarn);
   EXPECT_EQ("NOT SET", DtHash::valueToString(unknown));
   EXPECT_EQ("Cannot find string for hash id: " + std::to_string(unknown) + "\n", warnings.text());
}

TEST(DtHashTest, TwoTextsWithOneIdShareItAndTheLaterOwnsItsText)
{
   // A known collision of the seeded hash.
   DtHash first("id51891");
   DtHash second("id91430");
   EXPECT_EQ(0x1780763eu, first());
   EXPECT_EQ(first, second);
   EXPECT_EQ("id91430", DtHash::valueToString(0x1780763eu));
   EXPECT_EQ(0x1780763eu, DtHash::value("id51891")) << "the earlier text keeps its id";
   EXPECT_EQ("id51891", first.str());
}

TEST(DtHashTest, ValuesCompareByTheirIdsAsUnsignedNumbers)
{
   DtHash const low("a");       // 0x80ffd795
   DtHash const high("hello");  // 0xf313adcd
   DtHash const unset;          // 0xffffffff
   EXPECT_TRUE(low < high);
   EXPECT_TRUE(high < unset);
   EXPECT_TRUE(high > low);
   EXPECT_TRUE(low <= low);
   EXPECT_TRUE(high >= low);
   EXPECT_FALSE(low >= high);
   EXPECT_TRUE(low == DtHash("a"));
   EXPECT_TRUE(low != high);
   EXPECT_FALSE(low != DtHash("a"));
}

TEST(DtHashTest, ThreadsRegisteringTheSameTextsAgreeOnEveryId)
{
   std::vector<std::vector<std::uint32_t>> seen(4);
   std::vector<std::thread> threads;
   for (std::size_t t = 0; t < seen.size(); ++t)
   {
      threads.emplace_back([&seen, t] {
         for (int i = 0; i < 500; ++i)
            seen[t].push_back(DtHash("shared-" + std::to_string(i))());
      });
   }
   for (std::thread& thread : threads)
      thread.join();
   for (std::size_t t = 1; t < seen.size(); ++t)
      EXPECT_EQ(seen[0], seen[t]);
   for (int i = 0; i < 500; ++i)
      EXPECT_EQ("shared-" + std::to_string(i), DtHash::valueToString(seen[0][static_cast<std::size_t>(i)]));
}
