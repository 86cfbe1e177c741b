// Tests of DtHashlist: buckets and collisions, the main and key lists, copies and printing.
#include <olutil/olHashlist.h>

#include <algorithm>
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

// The keys' texts, each followed by '|'.
std::string keyTexts(DtHashlist const& table)
{
   std::string texts;
   for (DtListItem* item = table.keys().first(); item; item = item->next())
      texts += std::string(static_cast<DtBaseHashKey*>(item->data())->stringRep().c_str()) + "|";
   return texts;
}

}  // namespace

TEST(DtHashlistTest, AddLookupReplaceAndRemoveKeepTheListsInInsertionOrder)
{
   DtHashlist table(7);
   table.add(DtStringHashKey("a"), &a);
   table.add(DtIntHashKey(2), &b);
   table.add(DtPtrHashKey(&c), &c);
   table.add(DtStringHashKey("none"), nullptr);
   EXPECT_EQ((std::vector<void*>{&a, &b, &c, nullptr}), dataOf(*table.list()));
   EXPECT_TRUE(table[DtIntHashKey(2)] == &b && table.lookup(DtPtrHashKey(&c)) == &c);
   EXPECT_NE(nullptr, table.itemLookup(DtStringHashKey("none"))) << "stored, with null data";
   EXPECT_EQ(&b, table.remove(DtIntHashKey(2)));
   EXPECT_EQ(nullptr, table.remove(DtIntHashKey(2)));

   // An equal key replaces the entry, which goes last, and reports the old data.
   void* old = &d;
   EXPECT_EQ(&d, table.add(DtStringHashKey("a"), &d, &old)->data());
   EXPECT_EQ(&a, old);
   EXPECT_EQ((std::vector<void*>{&c, nullptr, &d}), dataOf(*table.list()));
   EXPECT_EQ(std::string(DtPtrHashKey(&c).stringRep().c_str()) + "|none|a|", keyTexts(table));
   table.add(DtStringHashKey("new"), &a, &old);
   EXPECT_EQ(nullptr, old) << "no entry was replaced";
}

TEST(DtHashlistTest, CollidingKeysShareABucketAndZeroBucketsMeansOne)
{
   for (int buckets : {0, -4, 1, 2, 7})
   {
      SCOPED_TRACE(buckets);
      DtHashlist table(buckets);
      EXPECT_EQ(std::max(buckets, 1), table.size());
      std::vector<int> values(40);
      auto const key = [&](int i) { return DtIntHashKey(static_cast<unsigned>(i * table.size())); };
      for (int i = 0; i < 40; ++i)
         table.add(key(i), &values[static_cast<std::size_t>(i)]);
      // "ab" and "ca" hash alike (97 + 196 and 99 + 194), told apart by their text.
      table.add(DtStringHashKey("ab"), &a);
      table.add(DtStringHashKey("ca"), &b);
      EXPECT_TRUE(table.lookup(DtStringHashKey("ab")) == &a &&
                  table.lookup(DtStringHashKey("ca")) == &b);
      EXPECT_EQ(&values[20], table.remove(key(20)));
      for (int i = 0; i < 40; ++i)
         EXPECT_EQ(i == 20 ? nullptr : &values[static_cast<std::size_t>(i)], table.lookup(key(i)))
             << i;
      EXPECT_EQ(std::max(buckets, 1), DtHashlist(table).size());
   }
   // "\xff" hashes to 0xFFFFFFFF: 5 as an unsigned remainder, -1 as a signed one.
   DtHashlist table(10);
   EXPECT_EQ(table.bucketFromHashKey(DtIntHashKey(5)),
             table.bucketFromHashKey(DtStringHashKey("\xff")));
   table.add(DtStringHashKey("\xff"), &a);
   EXPECT_EQ(&a, table.lookup(DtStringHashKey("\xff")));
}

TEST(DtHashlistTest, CopiesCloneTheKeysShareTheDataAndTablesEmpty)
{
   DtHashlist original(5);
   original.add(DtStringHashKey("one"), &a);
   original.add(DtIntHashKey(2), &b);
   original.add(DtStringHashKey("three"), nullptr);
   DtHashlist copy(original);
   EXPECT_TRUE(copy.size() == 5 && dataOf(*original.list()) == dataOf(*copy.list()));
   EXPECT_EQ(keyTexts(original), keyTexts(copy));
   EXPECT_NE(original.keys().first()->data(), copy.keys().first()->data()) << "keys are cloned";
   EXPECT_NE(nullptr, copy.itemLookup(DtStringHashKey("three"))) << "null data copied too";
   copy.remove(DtStringHashKey("one"));
   EXPECT_EQ(&a, original.lookup(DtStringHashKey("one"))) << "the copy is independent";

   DtHashlist assigned(2);
   assigned.add(DtStringHashKey("gone"), &d);
   assigned = original;
   EXPECT_TRUE(assigned.size() == 2 && !assigned.lookup(DtStringHashKey("gone")))
       << "the bucket count stays, the old entries go";
   EXPECT_EQ(keyTexts(original), keyTexts(assigned));
   DtHashlist const& itself = assigned;
   assigned = itself;
   assigned.setFromOther(assigned);
   EXPECT_EQ(keyTexts(original), keyTexts(assigned)) << "copying a table onto itself keeps it";

   // Emptying leaves a table to reuse; a caller's list is used but not owned.
   DtList list;
   {
      DtHashlist table(&list, 3);
      table.add(DtStringHashKey("a"), &a);
      table.empty();
      EXPECT_TRUE(list.isEmpty() && table.keys().isEmpty() && !table.lookup(DtStringHashKey("a")));
      table.add(DtStringHashKey("b"), &b);
      EXPECT_EQ((std::vector<void*>{&b}), dataOf(list));
   }
   EXPECT_TRUE(list.isEmpty()) << "the table took its entries, and left the list alive";
}

TEST(DtHashlistTest, PrintWritesEachKeyAndItsDataOnInfo)
{
   DtHashlist table(3);
   table.add(DtStringHashKey("first"), reinterpret_cast<void*>(0xab12u));
   table.add(DtIntHashKey(7), nullptr);
   table.add(DtStringHashKey("wide"), reinterpret_cast<void*>(0x123456789au));
   olt::CapturePrinter info(DtInfo);
   table.print();
   EXPECT_EQ("Key: first\n Data: ab12\nKey: 7\n Data: NULL\nKey: wide\n Data: 3456789a\n",
             info.text());
}
