// Tests of DtHashlist: buckets and collisions, the main and key lists, copies,
// replaced entries and printing.
#include <olutil/olHashlist.h>

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

int a = 1, b = 2, c = 3, d = 4;

std::vector<void*> dataOf(DtList const& list)
{
   std::vector<void*> data;
   for (DtListItem* item = list.first(); item; item = item->next())
      data.push_back(item->data());
   return data;
}

std::vector<std::string> keyTexts(DtHashlist const& table)
{
   std::vector<std::string> texts;
   for (DtListItem* item = table.keys().first(); item; item = item->next())
      texts.push_back(static_cast<DtBaseHashKey*>(item->data())->stringRep().c_str());
   return texts;
}

// Counts the calls that reach the virtual remove.
class CountingHashlist : public DtHashlist
{
public:
   using DtHashlist::DtHashlist;
   void* remove(DtBaseHashKey const& key) override
   {
      ++removes;
      return DtHashlist::remove(key);
   }
   int removes = 0;
};

}  // namespace

TEST(DtHashlistTest, AddLookupAndRemoveKeepTheListsInInsertionOrder)
{
   DtHashlist table(7);
   EXPECT_EQ(7, table.size());
   DtListItem* itemA = table.add(DtStringHashKey("a"), &a);
   table.add(DtIntHashKey(2), &b);
   table.add(DtPtrHashKey(&c), &c);
   ASSERT_NE(nullptr, itemA);
   EXPECT_EQ(&a, itemA->data());
   EXPECT_EQ((std::vector<void*>{&a, &b, &c}), dataOf(*table.list()));
   EXPECT_EQ(&a, table.lookup(DtStringHashKey("a")));
   EXPECT_EQ(&b, table[DtIntHashKey(2)]);
   EXPECT_EQ(&c, table.lookup(DtPtrHashKey(&c)));
   EXPECT_EQ(itemA, table.itemLookup(DtStringHashKey("a")));
   EXPECT_EQ(nullptr, table.lookup(DtStringHashKey("b")));

   EXPECT_EQ(&b, table.remove(DtIntHashKey(2)));
   EXPECT_EQ(nullptr, table.remove(DtIntHashKey(2)));
   EXPECT_EQ((std::vector<void*>{&a, &c}), dataOf(*table.list()));
   EXPECT_EQ(2, table.keys().count());
   EXPECT_EQ(nullptr, table.lookup(DtIntHashKey(2)));
}

TEST(DtHashlistTest, AddingUnderAnEqualKeyReplacesAndReportsTheOldData)
{
   DtHashlist table(3);
   table.add(DtStringHashKey("k"), &a);
   table.add(DtStringHashKey("other"), &b);
   void* old = &d;
   DtListItem* item = table.add(DtStringHashKey("k"), &c, &old);
   EXPECT_EQ(&a, old);
   EXPECT_EQ(&c, item->data());
   EXPECT_EQ(2, table.list()->count());
   EXPECT_EQ((std::vector<void*>{&b, &c}), dataOf(*table.list())) << "the new entry goes last";
   EXPECT_EQ((std::vector<std::string>{"other", "k"}), keyTexts(table));
   table.add(DtStringHashKey("new"), &a, &old);
   EXPECT_EQ(nullptr, old) << "no entry was replaced";

   // Keys of other types that print alike are equal when their hashes match.
   table.add(DtIntHashKey(5), &d);
   EXPECT_EQ(&d, table.lookup(DtPtrHashKey(reinterpret_cast<void*>(5))));
   EXPECT_EQ(nullptr, table.lookup(DtStringHashKey("5"))) << "\"5\" hashes to 53";
}

TEST(DtHashlistTest, OneDataUnderTwoKeysAndNullData)
{
   DtHashlist table(5);
   table.add(DtStringHashKey("x"), &a);
   table.add(DtStringHashKey("y"), &a);
   EXPECT_EQ((std::vector<void*>{&a, &a}), dataOf(*table.list()));
   table.add(DtStringHashKey("none"), nullptr);
   EXPECT_EQ(nullptr, table.lookup(DtStringHashKey("none")));
   EXPECT_EQ(nullptr, table.lookup(DtStringHashKey("absent")));
   EXPECT_NE(nullptr, table.itemLookup(DtStringHashKey("none"))) << "stored, with null data";
   EXPECT_EQ(nullptr, table.itemLookup(DtStringHashKey("absent")));
}

TEST(DtHashlistTest, CollidingKeysShareABucketAndAreAllFound)
{
   for (int buckets : {1, 2, 7})
   {
      SCOPED_TRACE(buckets);
      DtHashlist table(buckets);
      std::vector<int> values(40);
      for (int i = 0; i < 40; ++i)
         table.add(DtIntHashKey(static_cast<unsigned int>(i * buckets)), &values[static_cast<std::size_t>(i)]);
      // "ab" and "ca" hash alike (97 + 196 and 99 + 194): one bucket, told apart by their text.
      table.add(DtStringHashKey("ab"), &a);
      table.add(DtStringHashKey("ca"), &b);
      EXPECT_EQ(table.bucketFromHashKey(DtStringHashKey("ab")),
                table.bucketFromHashKey(DtStringHashKey("ca")));
      EXPECT_EQ(&a, table.lookup(DtStringHashKey("ab")));
      EXPECT_EQ(&b, table.lookup(DtStringHashKey("ca")));
      EXPECT_EQ(&values[20], table.remove(DtIntHashKey(static_cast<unsigned int>(20 * buckets))));
      for (int i = 0; i < 40; ++i)
      {
         void* const expected = i == 20 ? nullptr : &values[static_cast<std::size_t>(i)];
         EXPECT_EQ(expected, table.lookup(DtIntHashKey(static_cast<unsigned int>(i * buckets)))) << i;
      }
      EXPECT_EQ(41, table.list()->count());
   }
}

TEST(DtHashlistTest, BucketsAreChosenByUnsignedModuloAndZeroBucketsMeansOne)
{
   DtHashlist table(10);
   // "\xff" hashes to 0xFFFFFFFF: 5 as an unsigned remainder, -1 as a signed one.
   EXPECT_EQ(table.bucketFromHashKey(DtIntHashKey(5)), table.bucketFromHashKey(DtStringHashKey("\xff")));
   table.add(DtStringHashKey("\xff"), &a);
   EXPECT_EQ(&a, table.lookup(DtStringHashKey("\xff")));

   for (int size : {0, -4})
   {
      SCOPED_TRACE(size);
      DtHashlist tiny(size);
      EXPECT_EQ(1, tiny.size());
      tiny.add(DtStringHashKey("p"), &a);
      tiny.add(DtIntHashKey(9), &b);
      EXPECT_EQ(&a, tiny.lookup(DtStringHashKey("p")));
      EXPECT_EQ(&b, tiny.lookup(DtIntHashKey(9)));
      DtHashlist copy(tiny);
      EXPECT_EQ(1, copy.size());
   }
}

TEST(DtHashlistTest, AKeyWhoseTextChangedAfterItsHashIsNotFound)
{
   DtHashlist table(13);
   DtStringHashKey key("abc");
   table.add(key, &a);
   key.setValue("xyz");
   EXPECT_EQ(nullptr, table.lookup(key)) << "old hash, new text: matches nothing";
   EXPECT_EQ(nullptr, table.lookup(DtStringHashKey("xyz")));
   EXPECT_EQ(&a, table.lookup(DtStringHashKey("abc"))) << "the stored clone kept the old text";
}

TEST(DtHashlistTest, CopiesCloneTheKeysAndShareTheData)
{
   DtHashlist original(5);
   original.add(DtStringHashKey("one"), &a);
   original.add(DtIntHashKey(2), &b);
   original.add(DtStringHashKey("three"), nullptr);

   DtHashlist copy(original);
   EXPECT_EQ(5, copy.size());
   EXPECT_EQ(dataOf(*original.list()), dataOf(*copy.list()));
   EXPECT_EQ(keyTexts(original), keyTexts(copy));
   EXPECT_NE(original.list(), copy.list());
   EXPECT_NE(original.keys().first()->data(), copy.keys().first()->data()) << "keys are cloned";
   EXPECT_NE(nullptr, copy.itemLookup(DtStringHashKey("three")));

   copy.remove(DtStringHashKey("one"));
   EXPECT_EQ(&a, original.lookup(DtStringHashKey("one"))) << "the copy is independent";

   DtHashlist assigned(2);
   assigned.add(DtStringHashKey("gone"), &d);
   assigned = original;
   EXPECT_EQ(2, assigned.size()) << "the bucket count stays";
   EXPECT_EQ(keyTexts(original), keyTexts(assigned));
   EXPECT_EQ(nullptr, assigned.lookup(DtStringHashKey("gone")));

   DtHashlist const& itself = assigned;
   assigned = itself;
   assigned.setFromOther(assigned);
   EXPECT_EQ(keyTexts(original), keyTexts(assigned)) << "copying a table onto itself keeps it";
}

TEST(DtHashlistTest, EmptyingGoesThroughTheVirtualRemoveInOrder)
{
   CountingHashlist table(4);
   table.add(DtStringHashKey("a"), &a);
   table.add(DtStringHashKey("b"), &b);
   EXPECT_EQ(2, table.removes) << "add removes first";
   table.empty();
   EXPECT_EQ(4, table.removes);
   EXPECT_TRUE(table.list()->isEmpty());
   EXPECT_TRUE(table.keys().isEmpty());
   EXPECT_EQ(nullptr, table.lookup(DtStringHashKey("a")));
   table.add(DtStringHashKey("again"), &c);
   EXPECT_EQ(&c, table.lookup(DtStringHashKey("again")));
}

TEST(DtHashlistTest, ACallersListIsUsedButNotOwned)
{
   DtList list;
   {
      DtHashlist table(&list, 3);
      table.add(DtStringHashKey("a"), &a);
      table.add(DtStringHashKey("b"), &b);
      EXPECT_EQ(&list, table.list());
      EXPECT_EQ((std::vector<void*>{&a, &b}), dataOf(list));
   }
   EXPECT_TRUE(list.isEmpty()) << "the table took its entries, and left the list alive";
   DtHashlist ownsOne(nullptr, 3);
   ownsOne.add(DtStringHashKey("a"), &a);
   EXPECT_EQ(&a, ownsOne.lookup(DtStringHashKey("a")));
}

TEST(DtHashlistTest, PrintWritesEachKeyAndItsDataOnInfo)
{
   DtHashlist table(3);
   table.add(DtStringHashKey("first"), reinterpret_cast<void*>(0xab12u));
   table.add(DtIntHashKey(7), nullptr);
   table.add(DtStringHashKey("wide"), reinterpret_cast<void*>(0x123456789au));
   olt::CapturePrinter info(DtInfo);
   table.print();
   EXPECT_EQ("Key: first\n Data: ab12\nKey: 7\n Data: NULL\nKey: wide\n Data: 3456789a\n", info.text());
}
