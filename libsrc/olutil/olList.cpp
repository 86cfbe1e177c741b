// Doubly linked lists of untyped pointers, and the intrusive list of DtListedObj.
#include <olutil/olList.h>

DtListItem::~DtListItem()
{
   myPrevious = nullptr;
   myNext = nullptr;
   myData = nullptr;
}

// ---------------------------------------------------------------- DtList

DtList::DtList(DtList const& other)
{
   for (DtListItem* item = other.firstItem; item; item = item->next())
      add(item->data());
}

DtList& DtList::operator=(DtList const& other)
{
   if (this == &other)
      return *this;
   removeAll();
   for (DtListItem* item = other.firstItem; item; item = item->next())
      add(item->data());
   return *this;
}

DtList::~DtList()
{
   DtListItem* item = firstItem;
   while (item)
   {
      DtListItem* following = item->myNext;
      delete item;
      item = following;
   }
   firstItem = lastItem = nullptr;
   itemCount = 0;
}

void DtList::addToList(DtListItem* item, DtListItem* after)
{
   if (after)
   {
      item->myPrevious = after;
      item->myNext = after->myNext;
      if (after->myNext)
         after->myNext->myPrevious = item;
      after->myNext = item;
   }
   else
   {
      item->myPrevious = nullptr;
      item->myNext = firstItem;
      if (firstItem)
         firstItem->myPrevious = item;
      firstItem = item;
   }
   if (!item->myNext)
      lastItem = item;
   ++itemCount;
}

void DtList::removeFromList(DtListItem* item)
{
   if (item->myPrevious)
      item->myPrevious->myNext = item->myNext;
   else
      firstItem = item->myNext;
   if (item->myNext)
      item->myNext->myPrevious = item->myPrevious;
   else
      lastItem = item->myPrevious;
   --itemCount;
}

DtListItem* DtList::add(void* data)
{
   return addAfter(data, lastItem);
}

DtListItem* DtList::addAfter(void* data, DtListItem* after)
{
   DtListItem* item = new DtListItem(data);
   addToList(item, after);
   return item;
}

void* DtList::remove(DtListItem* item)
{
   if (!item)
      return nullptr;
   removeFromList(item);
   void* data = item->myData;
   delete item;
   return data;
}

void DtList::removeAll()
{
   DtListItem* item = firstItem;
   while (item)
   {
      DtListItem* following = item->myNext;
      remove(item);
      item = following;
   }
}

DtListItem* DtList::itemLookup(void const* data) const
{
   for (DtListItem* item = firstItem; item; item = item->myNext)
   {
      if (item->myData == data)
         return item;
   }
   return nullptr;
}

// ---------------------------------------------------------------- DtListedObj

DtListedObj::~DtListedObj()
{
   myOwnerList = nullptr;
   myOwnerItem = nullptr;
}

// ---------------------------------------------------------------- DtIntrusiveList

DtIntrusiveList::~DtIntrusiveList()
{
   // The objects outlive the list: they must not point back into freed nodes.
   for (DtListItem* item = firstItem; item; item = item->next())
   {
      if (DtListedObj* obj = static_cast<DtListedObj*>(item->data()))
      {
         obj->myOwnerList = nullptr;
         obj->myOwnerItem = nullptr;
      }
   }
}

void DtIntrusiveList::addToList(DtListItem* item, DtListItem* after)
{
   DtList::addToList(item, after);
   if (item && item->data())
   {
      DtListedObj* obj = static_cast<DtListedObj*>(item->data());
      obj->myOwnerList = this;
      obj->myOwnerItem = item;
   }
}

void DtIntrusiveList::removeFromList(DtListItem* item)
{
   DtList::removeFromList(item);
   if (DtListedObj* obj = static_cast<DtListedObj*>(item->data()))
   {
      obj->myOwnerList = nullptr;
      obj->myOwnerItem = nullptr;
   }
}

void DtIntrusiveList::removeAndDelete(DtListItem* item)
{
   if (!item)
      return;
   removeFromList(item);
   // remove() unlinks a second time through the virtual removeFromList; the
   // neighbours get the same values again, and the count falls once more.
   DtListedObj* obj = static_cast<DtListedObj*>(DtList::remove(item));
   delete obj;
}

void DtIntrusiveList::removeAllAndDelete()
{
   DtListItem* item = firstItem;
   while (item)
   {
      DtListItem* following = item->next();
      DtListedObj* obj = static_cast<DtListedObj*>(DtList::remove(item));
      delete obj;
      item = following;
   }
}

void DtIntrusiveList::removeAndDelete(DtListedObj const* obj)
{
   removeAndDelete(itemLookup(obj));
}
