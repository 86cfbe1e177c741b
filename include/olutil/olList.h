//===- olList.h - Doubly linked lists of untyped pointers ------*- C++ -*-===//
//
// Family: Containers.
//
// DtList is a doubly linked list of void pointers whose nodes (DtListItem) are
// separate heap objects owned by the list; the data they point to is never
// owned. DtIntrusiveList holds objects derived from DtListedObj, which know the
// list and node that hold them, and can delete them through removeAndDelete.
//
// A list takes no lock: it is used by one thread at a time.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLLIST_H
#define OLUTIL_OLLIST_H

class DtList;
class DtIntrusiveList;

// One node of a DtList: links and the data pointer it carries.
class DtListItem
{
public:
   explicit DtListItem(void* data = nullptr) : myData(data) {}
   // Zeroes the links and the data pointer, so a stale node is recognisable.
   virtual ~DtListItem();

   DtListItem(DtListItem const&) = delete;
   DtListItem& operator=(DtListItem const&) = delete;

   DtListItem* next() const { return myNext; }
   DtListItem* previous() const { return myPrevious; }
   void* data() const { return myData; }

private:
   friend class DtList;

   DtListItem* myPrevious = nullptr;
   DtListItem* myNext = nullptr;
   void* myData = nullptr;
};

// Doubly linked list of void pointers. The list owns its nodes, never the data.
class DtList
{
public:
   DtList() = default;
   // Appends every data pointer of the other list, in order: data is shared,
   // nodes are new.
   DtList(DtList const& other);
   DtList& operator=(DtList const& other);
   // Deletes every node; the data stays alive.
   virtual ~DtList();

   // Links item behind after, or at the head when after is null. An item with
   // no successor becomes the last one. The count rises by one.
   virtual void addToList(DtListItem* item, DtListItem* after);
   // Unlinks item, patching first and last as needed, and lowers the count by
   // one. The item's own links keep their values.
   virtual void removeFromList(DtListItem* item);

   DtListItem* first() const { return firstItem; }
   DtListItem* last() const { return lastItem; }
   int count() const { return itemCount; }
   bool isEmpty() const { return firstItem == nullptr; }

   // Appends data; returns the new node.
   DtListItem* add(void* data);
   // Inserts data behind after; a null after prepends. Returns the new node.
   DtListItem* addAfter(void* data, DtListItem* after);
   // Unlinks and deletes item and returns its data; null gives null.
   void* remove(DtListItem* item);
   // Removes every node; the data pointers stay valid.
   void removeAll();
   // The first node, from the head, that carries data; null when none.
   DtListItem* itemLookup(void const* data) const;

protected:
   DtListItem* firstItem = nullptr;
   DtListItem* lastItem = nullptr;
   int itemCount = 0;

   // Gives derived lists access to the links of a node.
   static DtListItem*& nextOf(DtListItem* item) { return item->myNext; }
   static DtListItem*& previousOf(DtListItem* item) { return item->myPrevious; }
};

// Base of objects held by a DtIntrusiveList: knows the list and node holding it.
class DtListedObj
{
public:
   DtListedObj() = default;
   // A copy is not in any list.
   DtListedObj(DtListedObj const&) {}
   DtListedObj& operator=(DtListedObj const&) { return *this; }
   // Nulls both owner pointers. It does not unlink the object: whoever deletes
   // an object still held must take it out of its list first.
   virtual ~DtListedObj();

   DtIntrusiveList* ownerList() const { return myOwnerList; }
   DtListItem* ownerItem() const { return myOwnerItem; }

private:
   friend class DtIntrusiveList;

   DtIntrusiveList* myOwnerList = nullptr;
   DtListItem* myOwnerItem = nullptr;
};

// A list of DtListedObj objects. Every data pointer added must be a
// DtListedObj* (converted to void* from that exact type). The list can delete
// its objects through the removeAndDelete family.
class DtIntrusiveList : public DtList
{
public:
   DtIntrusiveList() = default;
   // An object belongs to one intrusive list at a time, so lists are not copied.
   DtIntrusiveList(DtIntrusiveList const&) = delete;
   DtIntrusiveList& operator=(DtIntrusiveList const&) = delete;
   // Deletes the nodes and clears the owner pointers of the objects still held;
   // the objects stay alive.
   ~DtIntrusiveList() override;

   // The base operation, then records this list and the node in the object.
   void addToList(DtListItem* item, DtListItem* after) override;
   // The base operation, then clears the object's owner pointers.
   void removeFromList(DtListItem* item) override;

   // Takes the node out and deletes the object. The node is unlinked twice (the
   // second time to the same values), so the count falls by 2: callers must not
   // rely on count() after this call. Kept as it is on purpose.
   virtual void removeAndDelete(DtListItem* item);
   // Removes and deletes every object; the count falls by one per object.
   virtual void removeAllAndDelete();

   // Looks the object up and calls removeAndDelete on its node. Does nothing
   // when the object is not in the list.
   void removeAndDelete(DtListedObj const* obj);

   using DtList::add;
   using DtList::addAfter;
   DtListItem* add(DtListedObj* obj) { return DtList::add(static_cast<void*>(obj)); }
   DtListItem* addAfter(DtListedObj* obj, DtListItem* after)
   {
      return DtList::addAfter(static_cast<void*>(obj), after);
   }
};

#endif  // OLUTIL_OLLIST_H
