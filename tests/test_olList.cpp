// Tests of DtList, DtIntrusiveList and DtListedObj.
#include <olutil/olList.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using Data = std::vector<void*>;

// The data and the count; the walk back must agree. Bounded in case of a cycle.
std::string links(DtList const& list)
{
   Data forward, backward;
   for (DtListItem* item = list.first(); item && forward.size() < 99; item = item->next())
      forward.push_back(item->data());
   for (DtListItem* item = list.last(); item && backward.size() < 99; item = item->previous())
      backward.insert(backward.begin(), item->data());
   EXPECT_EQ(forward, backward) << "the backward links disagree";
   return ::testing::PrintToString(forward) + " #" + std::to_string(list.count());
}

std::string expect(Data const& data, int count)
{
   return ::testing::PrintToString(data) + " #" + std::to_string(count);
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
   EXPECT_TRUE(!list.first() && !list.itemLookup(&a));
   DtListItem* ia = list.add(&a);
   EXPECT_TRUE(ia == list.first() && ia == list.last() && !ia->next() && !ia->previous());
   list.add(&c);
   list.addAfter(&b, ia);                          // middle
   list.addAfter(&d, list.last());                 // tail
   DtListItem* head = list.addAfter(&d, nullptr);  // null position prepends
   EXPECT_EQ(head, list.first());
   EXPECT_EQ(links(list), expect({&d, &a, &b, &c, &d}, 5));
   // Lookup finds the first match from the head; null data is a value like any other.
   EXPECT_EQ(head, list.itemLookup(&d));
   DtListItem* none = list.add(nullptr);
   EXPECT_EQ(none, list.itemLookup(nullptr));
}

TEST(DtListTest, RemovePatchesEndsAndKeepsData)
{
   Data const rests[] = {{&b, &c}, {&a, &c}, {&a, &b}};  // after removing head, middle, tail
   for (int position = 0; position < 3; ++position)
   {
      SCOPED_TRACE(position);
      DtList list;
      DtListItem* items[] = {list.add(&a), list.add(&b), list.add(&c)};
      void* data = items[position]->data();
      EXPECT_EQ(data, list.remove(items[position]));
      EXPECT_EQ(links(list), expect(rests[position], 2));
   }

   DtList list;
   EXPECT_EQ(nullptr, list.remove(nullptr));
   DtListItem* ia = list.add(&a);
   DtListItem* ib = list.add(&b);
   list.add(&c);
   // removeFromList unlinks but leaves the item's own links as they were.
   list.removeFromList(ib);
   EXPECT_EQ(ia, ib->previous());
   EXPECT_EQ(links(list), expect({&a, &c}, 2));
   delete ib;
   list.removeAll();
   EXPECT_TRUE(!list.first() && !list.last());
   EXPECT_EQ(0, list.count());
   EXPECT_EQ(1, a);  // the data stays alive
}

TEST(DtListTest, CopySharesDataWithNewNodes)
{
   DtList list;
   list.add(&a);
   list.add(&b);
   DtList copy(list);
   EXPECT_EQ(links(copy), expect({&a, &b}, 2));
   EXPECT_NE(list.first(), copy.first());
   DtList other;
   other.add(&c);
   other = list;
   DtList& self = other;
   other = self;
   EXPECT_EQ(links(other), expect({&a, &b}, 2));
}

TEST(DtIntrusiveListTest, ObjectKnowsItsListWhileHeld)
{
   int deaths = 0;
   Tracked obj(&deaths), front(&deaths);
   EXPECT_EQ(nullptr, obj.ownerList());
   {
      DtIntrusiveList list;
      DtListItem* item = list.add(&obj);
      EXPECT_TRUE(obj.ownerList() == &list && obj.ownerItem() == item);
      DtListItem* head = list.addAfter(&front, nullptr);
      EXPECT_TRUE(head == list.first() && head == front.ownerItem());
      EXPECT_EQ(&obj, list.remove(item));
      EXPECT_TRUE(!obj.ownerList() && !obj.ownerItem());
      list.add(&obj);
      list.removeAll();
      EXPECT_EQ(nullptr, front.ownerList());
      list.add(&obj);
   }
   // The list is gone; the object no longer points into it.
   EXPECT_TRUE(!obj.ownerList() && !obj.ownerItem());
   EXPECT_EQ(0, deaths);
}

TEST(DtIntrusiveListTest, RemoveAndDeleteTakesTwoOffTheCountButAllAndDeleteOne)
{
   int deaths = 0;
   DtIntrusiveList list;
   Tracked* x = new Tracked(&deaths);
   Tracked* y = new Tracked(&deaths);
   Tracked* z = new Tracked(&deaths);
   list.add(x);
   DtListItem* iy = list.add(y);
   list.add(z);
   // The node is unlinked twice: the links are right but the count is 2 lower.
   list.removeAndDelete(iy);
   EXPECT_EQ(1, deaths);
   EXPECT_EQ(links(list), expect({x, z}, 1));
   list.removeAndDelete(static_cast<DtListedObj const*>(x));
   EXPECT_EQ(2, deaths);
   EXPECT_EQ(links(list), expect({z}, -1));
   // An object the list does not hold is left alone.
   Tracked outsider(&deaths);
   list.removeAndDelete(static_cast<DtListedObj const*>(&outsider));
   list.removeAndDelete(static_cast<DtListedObj const*>(z));
   EXPECT_EQ(3, deaths);
   EXPECT_TRUE(!list.first() && !list.last());

   DtIntrusiveList all;
   for (int i = 0; i < 4; ++i)
      all.add(new Tracked(&deaths));
   all.add(static_cast<void*>(nullptr));
   all.removeAllAndDelete();
   EXPECT_EQ(7, deaths);
   EXPECT_EQ(0, all.count());
   EXPECT_EQ(nullptr, all.first());
}
