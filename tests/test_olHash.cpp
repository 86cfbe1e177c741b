// Tests of DtHash: MurmurHash3 ids, the two registries, and DtHash values.
#include <olutil/olHash.h>

#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

using namespace std::string_literals;

TEST(DtHashTest, IdsAreMurmurHash3WithTheLibrarySeedRegisteredBothWays)
{
   // From an independent MurmurHash3 x86_32, seed 0x811C9DC5; every tail length.
   for (auto const& [text, id] : {std::pair<std::string, std::uint32_t>{"", 0xab3e7c0bu},
                                  {"a", 0x80ffd795u},
                                  {"ab", 0xc4a79c70u},
                                  {"abc", 0x8e686885u},
                                  {"\x80\xff\0x"s, 0xe9e60cdeu},  // bytes above 127, a NUL
                                  {"The quick brown fox jumps over the lazy dog", 0x197b9835u}})
   {
      SCOPED_TRACE(::testing::PrintToString(text));
      DtHash const hash(text);
      EXPECT_TRUE(hash() == id && hash.value() == id && hash.isValid() && hash.str() == text &&
                  DtHash::value(text) == id && DtHash::makeHash(text) == id);
      EXPECT_EQ(text, DtHash::valueToString(id));
   }
   DtHash unset;
   EXPECT_TRUE(!unset.isValid() && unset.str() == "NOT SET" && unset() == 4294967295u);
   unset.set("abc");
   EXPECT_TRUE(unset.isValid() && unset.value() == 0x8e686885u && unset.str() == "abc");
   EXPECT_TRUE(DtHash("a") < DtHash("hello") && DtHash("hello") < DtHash() &&  // unsigned
               DtHash("hello") >= DtHash("a") && !(DtHash("a") != DtHash("a")));

   std::uint32_t unknown = 1;
   while (DtHash::theHashIdMap().count(unknown))
      ++unknown;
   olt::CapturePrinter warnings(DtWarn);
   EXPECT_EQ("NOT SET", DtHash::valueToString(unknown));
   EXPECT_EQ("Cannot find string for hash id: " + std::to_string(unknown) + "\n", warnings.text());

   // A known collision of the seeded hash: the later text owns the id's text.
   DtHash first("id51891"), second("id91430");
   EXPECT_TRUE(first() == 0x1780763eu && first == second && first.str() == "id51891");
   EXPECT_EQ("id91430", DtHash::valueToString(0x1780763eu));
   EXPECT_EQ(0x1780763eu, DtHash::value("id51891")) << "the earlier text keeps its id";
}

TEST(DtHashTest, ThreadsRegisteringTheSameTextsAgreeOnEveryId)
{
   std::vector<std::uint32_t> seen[4];
   std::vector<std::thread> threads;
   for (auto& ids : seen)
      threads.emplace_back(
          [&ids]
          {
             for (int i = 0; i < 500; ++i)
                ids.push_back(DtHash("shared-" + std::to_string(i))());
          });
   for (std::thread& thread : threads)
      thread.join();
   for (auto const& ids : seen)
      EXPECT_EQ(seen[0], ids);
   for (std::size_t i = 0; i < 500; ++i)
      EXPECT_EQ("shared-" + std::to_string(i), DtHash::valueToString(seen[0][i]));
}
