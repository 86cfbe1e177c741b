// Tests of the hash keys: their hashes, text forms, caches and equality rules.
#include <olutil/olHashKeys.h>

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace
{

void* pointer(std::uintptr_t bits)
{
   return reinterpret_cast<void*>(bits);
}

// Counts how often its hash is computed.
class CountingKey : public DtIntHashKey
{
public:
   using DtIntHashKey::DtIntHashKey;
   DtBaseHashKey* clone() const override { return new CountingKey(*this); }
   std::uint32_t computeHashValue() override
   {
      ++computed;
      return DtIntHashKey::computeHashValue();
   }
   int computed = 0;
};

// An integer key that prints differently: only the integer rule finds it equal.
class LabelledIntKey : public DtIntHashKey
{
public:
   using DtIntHashKey::DtIntHashKey;
   DtString stringRep() const override { return DtString("#") + DtIntHashKey::stringRep(); }
};

// Claims the integer tag without being an integer key.
class TaggedKey : public DtStringHashKey
{
public:
   using DtStringHashKey::DtStringHashKey;
   int hashKeyType() const override { return DtHashKeyInt; }
};

}  // namespace

TEST(HashKeyTest, HashesTextFormsAndTypes)
{
   struct Case
   {
      std::shared_ptr<DtBaseHashKey> key;
      std::uint32_t hash;
      char const* text;
      int type;
   } const cases[] = {
       {std::make_shared<DtIntHashKey>(5), 5, "5", 1},
       {std::make_shared<DtIntHashKey>(4294967295u), 4294967295u, "4294967295", 1},
       {std::make_shared<DtPtrHashKey>(pointer(0x1234567890u)), 0x34567890u, "878082192", 2},
       {std::make_shared<DtPtrHashKey>(nullptr), 0, "0", 2},
       {std::make_shared<DtStringHashKey>("abc"), 97 + 98 * 2 + 99 * 3, "abc", 3},
       {std::make_shared<DtStringHashKey>(""), 0, "", 3},
       {std::make_shared<DtStringHashKey>("\xff"), 0xFFFFFFFFu, "\xff", 3},  // bytes above 127 subtract
       {std::make_shared<DtStringHashKey>("a\x80"), 97u - 256u, "a\x80", 3},
       {std::make_shared<DtWStringHashKey>(L"abc"), 97 + 98 * 2 + 99 * 3, "abc", 4},
       {std::make_shared<DtWStringHashKey>(L"\x0100"), 256, "", 4},  // narrowed to its low byte
       {std::make_shared<DtWStringHashKey>(std::wstring(1, static_cast<wchar_t>(-2))),
        0xFFFFFFFEu, "\xfe", 4},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.text);
      EXPECT_EQ(c.hash, c.key->hashValue());
      EXPECT_EQ(DtString(c.text), c.key->stringRep());
      EXPECT_EQ(c.type, c.key->hashKeyType());
      std::unique_ptr<DtBaseHashKey> clone(c.key->clone());
      EXPECT_EQ(typeid(*c.key), typeid(*clone));
      EXPECT_TRUE(*clone == *c.key);
      EXPECT_TRUE(clone->equalTo(*c.key));
   }
}

TEST(HashKeyTest, LongTextsWrapTheirHashWithoutOverflow)
{
   // Past 2^24 positions a byte's product no longer fits 32 bits: the hash is
   // the low 32 bits of the exact sum.
   std::string const text((1u << 24) + 100, '\x80');
   std::int64_t sum = 0;
   for (std::size_t i = 0; i < text.size(); ++i)
      sum += -128 * static_cast<std::int64_t>(i + 1);
   EXPECT_EQ(static_cast<std::uint32_t>(sum), DtStringHashKey(DtString(text)).hashValue());
}

TEST(HashKeyTest, TheHashIsComputedOnceAndCopiedWithTheKey)
{
   CountingKey key(7);
   EXPECT_EQ(7u, key.hashValue());
   EXPECT_EQ(7u, key.hashValue());
   EXPECT_EQ(1, key.computed);
   CountingKey copy(key);
   copy.computed = 0;
   EXPECT_EQ(7u, copy.hashValue());
   EXPECT_EQ(0, copy.computed) << "the cache came along";

   DtStringHashKey read("abc");
   DtStringHashKey fresh("xyz");
   EXPECT_EQ(590u, read.hashValue());
   fresh = read;
   fresh.setValue("zz");
   EXPECT_EQ(590u, fresh.hashValue()) << "assignment copies the cache";
}

TEST(HashKeyTest, SetValueKeepsAHashAlreadyRead)
{
   DtStringHashKey stale("abc");
   EXPECT_EQ(590u, stale.hashValue());
   stale.setValue("b");
   EXPECT_EQ(DtString("b"), stale.value());
   EXPECT_EQ(590u, stale.hashValue());
   EXPECT_FALSE(stale == DtStringHashKey("b")) << "its old hash no longer matches its text";

   DtStringHashKey unread("abc");
   unread.setValue("b");
   EXPECT_EQ(98u, unread.hashValue()) << "never read: the new text decides";

   DtWStringHashKey wide(L"abc");
   EXPECT_EQ(590u, wide.hashValue());
   wide.setValue(L"b");
   EXPECT_EQ(std::wstring(L"b"), wide.value());
   EXPECT_EQ(590u, wide.hashValue());
}

TEST(HashKeyTest, EqualityByHashAndTextAcrossTypes)
{
   struct Case
   {
      char const* what;
      std::shared_ptr<DtBaseHashKey> stored;
      std::shared_ptr<DtBaseHashKey> asked;
      bool equal;    // operator==
      bool equalTo;  // stored.equalTo(asked)
   } const cases[] = {
       {"same integers", std::make_shared<DtIntHashKey>(5), std::make_shared<DtIntHashKey>(5), true,
        true},
       {"integer and its text: other hashes", std::make_shared<DtIntHashKey>(5),
        std::make_shared<DtStringHashKey>("5"), false, false},
       {"same hash, other text", std::make_shared<DtIntHashKey>(98),
        std::make_shared<DtStringHashKey>("b"), false, false},
       {"integer and pointer that print alike", std::make_shared<DtIntHashKey>(5),
        std::make_shared<DtPtrHashKey>(pointer(5)), true, true},
       {"pointers alike in their low 32 bits only", std::make_shared<DtPtrHashKey>(pointer(5)),
        std::make_shared<DtPtrHashKey>(pointer(0x100000005u)), true, false},
       {"integer rule: values decide over text", std::make_shared<DtIntHashKey>(5),
        std::make_shared<LabelledIntKey>(5), false, true},
       {"the integer tag alone is not an integer key", std::make_shared<DtIntHashKey>(98),
        std::make_shared<TaggedKey>("b"), false, false},
       {"texts", std::make_shared<DtStringHashKey>("ab"), std::make_shared<DtStringHashKey>("ab"),
        true, true},
       {"text and wide text", std::make_shared<DtStringHashKey>("ab"),
        std::make_shared<DtWStringHashKey>(L"ab"), true, true},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      EXPECT_EQ(c.equal, *c.stored == *c.asked);
      EXPECT_EQ(!c.equal, *c.stored != *c.asked);
      EXPECT_EQ(c.equalTo, c.stored->equalTo(*c.asked));
   }
}
