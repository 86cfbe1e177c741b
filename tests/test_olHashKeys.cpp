// Tests of the hash keys: their hashes, text forms, caches and equality rules.
#include <olutil/olHashKeys.h>

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace
{

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

TEST(HashKeyTest, HashesTextFormsTypesAndClones)
{
   auto const check = [](DtBaseHashKey&& key, std::uint32_t hash, char const* text, int type)
   {
      SCOPED_TRACE(text);
      EXPECT_EQ(hash, key.hashValue());
      EXPECT_EQ(DtString(text), key.stringRep());
      EXPECT_EQ(type, key.hashKeyType());
      std::unique_ptr<DtBaseHashKey> clone(key.clone());
      EXPECT_TRUE(typeid(key) == typeid(*clone) && *clone == key && clone->equalTo(key));
   };
   check(DtIntHashKey(4294967295u), 4294967295u, "4294967295", 1);
   check(DtPtrHashKey(reinterpret_cast<void*>(0x1234567890u)), 0x34567890u, "878082192", 2);
   check(DtStringHashKey("abc"), 97 + 98 * 2 + 99 * 3, "abc", 3);
   check(DtStringHashKey("\xff"), 0xFFFFFFFFu, "\xff", 3);  // bytes above 127 subtract
   check(DtWStringHashKey(L"\x0100"), 256, "", 4);          // the text narrowed to its low byte
   check(DtWStringHashKey(std::wstring(1, static_cast<wchar_t>(-2))), 0xFFFFFFFEu, "\xfe", 4);
   check(DtWStringHashKey(std::wstring(L"a\0b", 3)), 97, "a", 4);  // up to the terminator

   // Past 2^24 positions a byte's product overflows 32 bits: the low 32 bits of the exact sum.
   std::string const text((1u << 24) + 100, '\x80');
   std::int64_t const n = static_cast<std::int64_t>(text.size());
   EXPECT_EQ(static_cast<std::uint32_t>(-128 * (n * (n + 1) / 2)),
             DtStringHashKey(DtString(text)).hashValue());
}

TEST(HashKeyTest, TheHashIsCachedOnceReadCopiedAssignedAndKeptBySetValue)
{
   DtStringHashKey read("abc"), fresh("xyz"), unread("abc");
   read.hashValue();
   DtStringHashKey copy(read);
   copy.setValue("q");
   fresh = read;
   fresh.setValue("zz");
   read.setValue("b");
   unread.setValue("b");
   EXPECT_TRUE(copy.hashValue() == 590u && fresh.hashValue() == 590u) << "the cache comes along";
   EXPECT_TRUE(read.value() == "b" && read.hashValue() == 590u);
   EXPECT_FALSE(read == DtStringHashKey("b")) << "its old hash no longer matches its text";
   EXPECT_EQ(98u, unread.hashValue()) << "never read: the new text decides";
}

TEST(HashKeyTest, EqualityByHashAndTextAcrossTypes)
{
   // operator== (and != its opposite), then stored.equalTo(asked).
   auto const equal = [](DtBaseHashKey const& stored, DtBaseHashKey const& asked)
   {
      EXPECT_NE(stored == asked, stored != asked);
      return std::to_string(stored == asked) + std::to_string(stored.equalTo(asked));
   };
   EXPECT_EQ("00", equal(DtIntHashKey(5), DtStringHashKey("5"))) << "other hashes";
   EXPECT_EQ("00", equal(DtIntHashKey(98), DtStringHashKey("b"))) << "same hash, other text";
   EXPECT_EQ("11", equal(DtIntHashKey(5), DtPtrHashKey(reinterpret_cast<void*>(5))))
       << "print alike";
   EXPECT_EQ("10", equal(DtPtrHashKey(reinterpret_cast<void*>(5)),
                         DtPtrHashKey(reinterpret_cast<void*>(0x100000005u))))
       << "pointers alike in their low 32 bits only";
   EXPECT_EQ("01", equal(DtIntHashKey(5), LabelledIntKey(5))) << "integer rule: values decide";
   EXPECT_EQ("00", equal(DtIntHashKey(98), TaggedKey("b"))) << "the integer tag alone";
   EXPECT_EQ("11", equal(DtStringHashKey("ab"), DtWStringHashKey(L"ab")));
}
