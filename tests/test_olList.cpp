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

TEST(DtListTest, AddAndAddAfterLinkBothWays)
{
   DtList list;
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.itemLookup(&a));
   DtListItem* ia = list.add(&a);
   EXPECT_EQ(ia, list.first());
   EXPECT_EQ(ia, list.last());
   EXPECT_EQ(nullptr, ia->next());
   EXPECT_EQ(nullptr, ia->previous());

   list.add(&c);
   list.addAfter(&b, ia);                          // middle
   list.addAfter(&d, list.last());                 // tail
   DtListItem* head = list.addAfter(&d, nullptr);  // null position prepends
   EXPECT_EQ(head, list.first());
   EXPECT_EQ(5, list.count());
   EXPECT_EQ((std::vector<void*>{&d, &a, &b, &c, &d}), contents(list));
   EXPECT_EQ((std::vector<void*>{&d, &c, &b, &a, &d}), contentsBackwards(list));
   // Lookup finds the first match from the head; null data is a value like any other.
   EXPECT_EQ(head, list.itemLookup(&d));
   DtListItem* none = list.add(nullptr);
   EXPECT_EQ(none, list.itemLookup(nullptr));
}

TEST(DtListTest, RemovePatchesEndsAndKeepsData)
{
   struct Case
   {
      char const* name;
      int position;  // 0 head, 1 middle, 2 tail
      std::vector<void*> rest;
   };
   Case const cases[] = {{"head", 0, {&b, &c}}, {"middle", 1, {&a, &c}}, {"tail", 2, {&a, &b}}};
   for (Case const& tc : cases)
   {
      SCOPED_TRACE(tc.name);
      DtList list;
      DtListItem* items[] = {list.add(&a), list.add(&b), list.add(&c)};
      void* data = items[tc.position]->data();
      EXPECT_EQ(data, list.remove(items[tc.position]));
      EXPECT_EQ(2, list.count());
      EXPECT_EQ(tc.rest, contents(list));
      std::vector<void*> backwards(tc.rest.rbegin(), tc.rest.rend());
      EXPECT_EQ(backwards, contentsBackwards(list));
   }

   DtList list;
   EXPECT_EQ(nullptr, list.remove(nullptr));
   DtListItem* ia = list.add(&a);
   DtListItem* ib = list.add(&b);
   list.add(&c);
   // removeFromList unlinks but leaves the item's own links as they were.
   list.removeFromList(ib);
   EXPECT_EQ(ia, ib->previous());
   EXPECT_EQ(2, list.count());
   delete ib;
   list.removeAll();
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.last());
   EXPECT_EQ(0, list.count());
   EXPECT_EQ(1, a);  // the data stays alive
}

TEST(DtListTest, CopySharesDataWithNewNodes)
{
   DtList list;
   list.add(&a);
   list.add(&b);
   DtList copy(list);
   EXPECT_EQ(contents(list), contents(copy));
   EXPECT_NE(list.first(), copy.first());
   DtList other;
   other.add(&c);
   other = list;
   EXPECT_EQ((std::vector<void*>{&a, &b}), contents(other));
   DtList& self = other;
   other = self;
   EXPECT_EQ((std::vector<void*>{&a, &b}), contents(other));
}

TEST(DtIntrusiveListTest, ObjectKnowsItsListWhileHeld)
{
   int deaths = 0;
   Tracked obj(&deaths), front(&deaths);
   EXPECT_EQ(nullptr, obj.ownerList());
   {
      DtIntrusiveList list;
      DtListItem* item = list.add(&obj);
      EXPECT_EQ(&list, obj.ownerList());
      EXPECT_EQ(item, obj.ownerItem());
      DtListItem* head = list.addAfter(&front, nullptr);
      EXPECT_EQ(head, list.first());
      EXPECT_EQ(head, front.ownerItem());
      EXPECT_EQ(&obj, list.remove(item));
      EXPECT_EQ(nullptr, obj.ownerList());
      EXPECT_EQ(nullptr, obj.ownerItem());
      list.add(&obj);
      list.removeAll();
      EXPECT_EQ(nullptr, front.ownerList());
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
   EXPECT_EQ(list.first(), list.last());

   // An object the list does not hold is left alone.
   Tracked outsider(&deaths);
   list.removeAndDelete(static_cast<DtListedObj const*>(&outsider));
   EXPECT_EQ(2, deaths);

   list.removeAndDelete(static_cast<DtListedObj const*>(z));
   EXPECT_EQ(3, deaths);
   EXPECT_EQ(nullptr, list.first());
   EXPECT_EQ(nullptr, list.last());
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
