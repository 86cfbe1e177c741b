// Tests of DtList, DtIntrusiveList and DtListedObj.
#include <olutil/olList.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
using Data = std::vector<void*>;

std::string expect(Data const& data, int count)
{
   return ::testing::PrintToString(data) + " #" + std::to_string(count);
}

// The data and the count; the walk back must agree. Bounded in case of a cycle.
std::string links(DtList const& list)
{
   Data forward, backward;
   for (DtListItem* item = list.first(); item && forward.size() < 99; item = item->next())
      forward.push_back(item->data());
   for (DtListItem* item = list.last(); item && backward.size() < 99; item = item->previous())
      backward.insert(backward.begin(), item->data());
   EXPECT_EQ(forward, backward) << "the backward links disagree";
   return expect(forward, list.count());
}

int theDeaths = 0;
struct Tracked : DtListedObj
{
   ~Tracked() override { ++theDeaths; }
};

int a = 1, b = 2, c = 3, d = 4;
}  // namespace

TEST(DtListTest, AddLinksBothWaysAndCopiesShareTheData)
{
   DtList list;
   DtListItem* ia = list.add(&a);
   list.add(&c);
   list.addAfter(&b, ia);                          // middle
   list.addAfter(&d, list.last());                 // tail
   DtListItem* head = list.addAfter(&d, nullptr);  // null position prepends
   EXPECT_EQ(links(list), expect({&d, &a, &b, &c, &d}, 5));
   EXPECT_EQ(head, list.itemLookup(&d)) << "the first match from the head";
   EXPECT_EQ(nullptr, list.itemLookup(&list));

   DtList copy(list);
   EXPECT_EQ(links(copy), expect({&d, &a, &b, &c, &d}, 5));
   EXPECT_NE(head, copy.first());
   list.remove(head);
   copy = list;
   DtList& self = copy;
   copy = self;
   EXPECT_EQ(links(copy), expect({&a, &b, &c, &d}, 4));
}

TEST(DtListTest, RemovePatchesEndsAndKeepsData)
{
   Data const rests[] = {{&b, &c}, {&a, &c}, {&a, &b}};  // after removing head, middle, tail
   for (int position = 0; position < 3; ++position)
   {
      DtList list;
      DtListItem* items[] = {list.add(&a), list.add(&b), list.add(&c)};
      void* const data = items[position]->data();
      EXPECT_EQ(data, list.remove(items[position]));
      EXPECT_EQ(links(list), expect(rests[position], 2)) << position;
      list.removeAll();
      EXPECT_EQ(links(list), expect({}, 0));
   }
   EXPECT_EQ(nullptr, DtList().remove(nullptr));
}

TEST(DtIntrusiveListTest, ObjectKnowsItsListWhileHeld)
{
   Tracked obj;
   DtIntrusiveList list;
   DtListItem* item = list.add(&obj);
   EXPECT_TRUE(obj.ownerList() == &list && obj.ownerItem() == item);
   EXPECT_EQ(&obj, list.remove(item));
   EXPECT_TRUE(!obj.ownerList() && !obj.ownerItem());
   {
      DtIntrusiveList dying;
      dying.add(&obj);
   }
   EXPECT_TRUE(!obj.ownerList() && !obj.ownerItem()) << "a dying list lets go of its objects";
}

TEST(DtIntrusiveListTest, RemoveAndDeleteTakesTwoOffTheCountButAllAndDeleteOne)
{
   theDeaths = 0;
   Tracked z;  // outlives the list, which lets go of it when destroyed
   DtIntrusiveList list;
   Tracked* x = new Tracked;
   list.add(x);
   DtListItem* iy = list.add(new Tracked);
   list.add(&z);
   list.removeAndDelete(iy);  // unlinked twice: the links are right, the count 2 lower
   EXPECT_EQ(1, theDeaths);
   EXPECT_EQ(links(list), expect({x, &z}, 1));
   list.removeAndDelete(static_cast<DtListedObj const*>(x));
   EXPECT_EQ(links(list), expect({&z}, -1));

   DtIntrusiveList all;
   all.add(new Tracked);
   all.add(static_cast<void*>(nullptr));
   all.add(new Tracked);
   all.removeAllAndDelete();
   EXPECT_EQ(4, theDeaths);
   EXPECT_EQ(links(all), expect({}, 0));
}
