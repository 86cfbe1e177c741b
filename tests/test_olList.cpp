// Tests of DtList, DtIntrusiveList and DtListedObj.
#include <olutil/olList.h>

#include <vector>

#include <gtest/gtest.h>

namespace
{
std::vector<void*> contents(DtList const& list)
{
   std::vector<void*> out;
   for (DtListItem* item = list.first(); item; item = item->next())
      out.push_back(item->data());
   return out;
}

std::vector<void*> contentsBackwards(DtList const& list)
{
   std::vector<void*> out;
   for (DtListItem* item = list.last(); item; item = item->previous())
      out.push_back(item->data());
   return out;
}

// Counts its own destruction so tests can see what the list deleted.
struct Tracked : DtListedObj
{
   explicit Tracked(int* deaths) : deaths(deaths) {}
   ~Tracked() override { ++*deaths; }
   int* deaths;
};

int a = 1, b = 2, c = 3, d = 4;
}  // namespace

TEST(DtListTest, EmptyListHasNothing)
{
   DtList list;
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.last());
   EXPECT_EQ(0, list.count());
   EXPECT_TRUE(list.isEmpty());
   EXPECT_EQ(nullptr, list.itemLookup(&a));
}

TEST(DtListTest, AddOnEmptyListMakesFirstAndLast)
{
   DtList list;
   DtListItem* item = list.add(&a);
   EXPECT_EQ(item, list.first());
   EXPECT_EQ(item, list.last());
   EXPECT_EQ(&a, item->data());
   EXPECT_EQ(nullptr, item->next());
   EXPECT_EQ(nullptr, item->previous());
   EXPECT_EQ(1, list.count());
}

TEST(DtListTest, AddAppendsAndLinksBothWays)
{
   DtList list;
   list.add(&a);
   list.add(&b);
   list.add(&c);
   EXPECT_EQ((std::vector<void*>{&a, &b, &c}), contents(list));
   EXPECT_EQ((std::vector<void*>{&c, &b, &a}), contentsBackwards(list));
   EXPECT_EQ(3, list.count());
}

TEST(DtListTest, AddAfterNullPrependsOnFilledList)
{
   DtList list;
   list.add(&a);
   list.add(&b);
   DtListItem* head = list.addAfter(&c, nullptr);
   EXPECT_EQ(head, list.first());
   EXPECT_EQ((std::vector<void*>{&c, &a, &b}), contents(list));
   EXPECT_EQ((std::vector<void*>{&b, &a, &c}), contentsBackwards(list));
}

TEST(DtListTest, AddAfterMiddleAndLastKeepsLinks)
{
   DtList list;
   DtListItem* ia = list.add(&a);
   DtListItem* ib = list.add(&b);
   list.addAfter(&c, ia);
   DtListItem* id = list.addAfter(&d, ib);
   EXPECT_EQ(id, list.last());
   EXPECT_EQ((std::vector<void*>{&a, &c, &b, &d}), contents(list));
   EXPECT_EQ((std::vector<void*>{&d, &b, &c, &a}), contentsBackwards(list));
   EXPECT_EQ(4, list.count());
}

TEST(DtListTest, RemoveNullGivesNull)
{
   DtList list;
   list.add(&a);
   EXPECT_EQ(nullptr, list.remove(nullptr));
   EXPECT_EQ(1, list.count());
}

TEST(DtListTest, RemoveHeadMiddleTailPatchesEnds)
{
   DtList list;
   DtListItem* ia = list.add(&a);
   DtListItem* ib = list.add(&b);
   DtListItem* ic = list.add(&c);
   DtListItem* id = list.add(&d);

   EXPECT_EQ(&b, list.remove(ib));
   EXPECT_EQ((std::vector<void*>{&a, &c, &d}), contents(list));
   EXPECT_EQ((std::vector<void*>{&d, &c, &a}), contentsBackwards(list));

   EXPECT_EQ(&a, list.remove(ia));
   EXPECT_EQ(ic, list.first());
   EXPECT_EQ(nullptr, ic->previous());

   EXPECT_EQ(&d, list.remove(id));
   EXPECT_EQ(ic, list.last());
   EXPECT_EQ(nullptr, ic->next());
   EXPECT_EQ(1, list.count());

   EXPECT_EQ(&c, list.remove(ic));
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.last());
   EXPECT_EQ(0, list.count());
}

TEST(DtListTest, RemoveFromListKeepsItemLinks)
{
   DtList list;
   DtListItem* ia = list.add(&a);
   DtListItem* ib = list.add(&b);
   DtListItem* ic = list.add(&c);
   list.removeFromList(ib);
   EXPECT_EQ(ia, ib->previous());
   EXPECT_EQ(ic, ib->next());
   EXPECT_EQ(2, list.count());
   EXPECT_EQ(ic, ia->next());
   delete ib;
}

TEST(DtListTest, RemoveAllKeepsDataAndEmptiesList)
{
   int values[3] = {7, 8, 9};
   DtList list;
   for (int& v : values)
      list.add(&v);
   list.removeAll();
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.last());
   EXPECT_EQ(0, list.count());
   EXPECT_EQ(8, values[1]);
}

TEST(DtListTest, ItemLookupFindsFirstMatch)
{
   DtList list;
   list.add(&a);
   DtListItem* first = list.add(&b);
   list.add(&b);
   EXPECT_EQ(first, list.itemLookup(&b));
   EXPECT_EQ(nullptr, list.itemLookup(&c));
}

TEST(DtListTest, NullDataIsAValue)
{
   DtList list;
   DtListItem* item = list.add(nullptr);
   EXPECT_EQ(item, list.itemLookup(nullptr));
   EXPECT_EQ(nullptr, list.remove(item));
   EXPECT_EQ(0, list.count());
}

TEST(DtListTest, CopySharesDataWithNewNodes)
{
   DtList list;
   list.add(&a);
   list.add(&b);
   DtList copy(list);
   EXPECT_EQ(contents(list), contents(copy));
   EXPECT_NE(list.first(), copy.first());
   EXPECT_EQ(2, copy.count());

   DtList other;
   other.add(&c);
   other = list;
   EXPECT_EQ((std::vector<void*>{&a, &b}), contents(other));
   EXPECT_EQ(2, other.count());

   DtList& self = other;
   other = self;
   EXPECT_EQ((std::vector<void*>{&a, &b}), contents(other));
}

TEST(DtIntrusiveListTest, ObjectKnowsItsListWhileHeld)
{
   int deaths = 0;
   Tracked obj(&deaths);
   EXPECT_EQ(nullptr, obj.ownerList());
   {
      DtIntrusiveList list;
      DtListItem* item = list.add(&obj);
      EXPECT_EQ(&list, obj.ownerList());
      EXPECT_EQ(item, obj.ownerItem());
      EXPECT_EQ(&obj, list.remove(item));
      EXPECT_EQ(nullptr, obj.ownerList());
      EXPECT_EQ(nullptr, obj.ownerItem());
      list.add(&obj);
   }
   // The list is gone; the object no longer points into it.
   EXPECT_EQ(nullptr, obj.ownerList());
   EXPECT_EQ(nullptr, obj.ownerItem());
   EXPECT_EQ(0, deaths);
}

TEST(DtIntrusiveListTest, RemoveAndDeleteTakesTwoOffTheCount)
{
   int deaths = 0;
   DtIntrusiveList list;
   Tracked* x = new Tracked(&deaths);
   Tracked* y = new Tracked(&deaths);
   Tracked* z = new Tracked(&deaths);
   list.add(x);
   DtListItem* iy = list.add(y);
   list.add(z);
   ASSERT_EQ(3, list.count());

   list.removeAndDelete(iy);
   EXPECT_EQ(1, deaths);
   // The node was unlinked twice: the links are right but the count is 2 lower.
   EXPECT_EQ(1, list.count());
   EXPECT_EQ((std::vector<void*>{x, z}), contents(list));
   EXPECT_EQ((std::vector<void*>{z, x}), contentsBackwards(list));

   list.removeAndDelete(static_cast<DtListedObj const*>(x));
   EXPECT_EQ(2, deaths);
   EXPECT_EQ(-1, list.count());
   EXPECT_EQ((std::vector<void*>{z}), contents(list));
   EXPECT_EQ(list.first(), list.last());

   list.removeAndDelete(static_cast<DtListedObj const*>(z));
   EXPECT_EQ(3, deaths);
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.last());
}

TEST(DtIntrusiveListTest, RemoveAndDeleteOfUnknownObjectDoesNothing)
{
   int deaths = 0;
   Tracked outsider(&deaths);
   DtIntrusiveList list;
   list.removeAndDelete(static_cast<DtListedObj const*>(&outsider));
   EXPECT_EQ(0, deaths);
   EXPECT_EQ(0, list.count());
}

TEST(DtIntrusiveListTest, RemoveAllAndDeleteTakesOnePerItem)
{
   int deaths = 0;
   DtIntrusiveList list;
   for (int i = 0; i < 4; ++i)
      list.add(new Tracked(&deaths));
   list.add(static_cast<void*>(nullptr));
   ASSERT_EQ(5, list.count());
   list.removeAllAndDelete();
   EXPECT_EQ(4, deaths);
   EXPECT_EQ(0, list.count());
   EXPECT_EQ(nullptr, list.first());
}

TEST(DtIntrusiveListTest, PlainRemoveClearsOwnerButKeepsObject)
{
   int deaths = 0;
   Tracked obj(&deaths);
   DtIntrusiveList list;
   list.add(&obj);
   list.removeAll();
   EXPECT_EQ(nullptr, obj.ownerList());
   EXPECT_EQ(0, deaths);
   EXPECT_EQ(0, list.count());
}

TEST(DtIntrusiveListTest, AddAfterNullPrependsAndRecordsOwner)
{
   int deaths = 0;
   Tracked x(&deaths), y(&deaths);
   DtIntrusiveList list;
   list.add(&x);
   DtListItem* head = list.addAfter(&y, nullptr);
   EXPECT_EQ(head, list.first());
   EXPECT_EQ(head, y.ownerItem());
   EXPECT_EQ(&list, y.ownerList());
   list.removeAll();
}
