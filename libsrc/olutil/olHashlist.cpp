//===- olHashlist.cpp - Fixed-size chained hash table ---------------------===//
//
// Family: Containers.
//
//===----------------------------------------------------------------------===//
#include <olutil/olHashlist.h>

#include <olutil/olPrint.h>

#include <cstdint>

namespace
{

// A table needs at least one bucket: the bucket is the hash modulo the count.
int usableBucketCount(int size)
{
   return size < 1 ? 1 : size;
}

DtHashItem* entryOf(DtListItem* bucketItem)
{
   return static_cast<DtHashItem*>(bucketItem->data());
}

}  // namespace

// =============================================================== DtHashItem

DtHashItem::DtHashItem(DtHashItem const& other)
    : key(other.key ? other.key->clone() : nullptr), item(other.item)
{
}

DtHashItem& DtHashItem::operator=(DtHashItem const& other)
{
   if (this != &other)
   {
      DtBaseHashKey* const copy = other.key ? other.key->clone() : nullptr;
      delete key;
      key = copy;
      item = other.item;
      keyListItem = nullptr;
   }
   return *this;
}

DtHashItem::~DtHashItem()
{
   delete key;
}

// =============================================================== DtHashlist

DtHashlist::DtHashlist(int size)
    : bucketCount(usableBucketCount(size)), ownsList(true), mainList(new DtList),
      buckets(new DtList[static_cast<unsigned int>(bucketCount)])
{
}

DtHashlist::DtHashlist(DtList* list, int size)
    : bucketCount(usableBucketCount(size)), ownsList(list == nullptr),
      mainList(list ? list : new DtList),
      buckets(new DtList[static_cast<unsigned int>(bucketCount)])
{
}

DtHashlist::DtHashlist(DtHashlist const& other) : DtHashlist(other.bucketCount)
{
   setFromOther(other);
}

DtHashlist& DtHashlist::operator=(DtHashlist const& other)
{
   if (this != &other)
      setFromOther(other);
   return *this;
}

DtHashlist::~DtHashlist()
{
   // Through this class's own empty: a derived table is already gone.
   DtHashlist::empty();
   if (ownsList)
      delete mainList;
   delete[] buckets;
}

DtListItem* DtHashlist::add(DtBaseHashKey const& key, void* data, void** old)
{
   void* const replaced = remove(key);
   if (old)
      *old = replaced;
   DtListItem* const item = mainList->add(data);
   auto* const entry = new DtHashItem(key.clone(), item);
   bucketFromHashKey(key)->add(entry);
   entry->setKeyItem(keyList.add(entry->hashKey()));
   return item;
}

void* DtHashlist::remove(DtBaseHashKey const& key)
{
   DtListItem* const bucketItem = bucketItemLookup(key);
   if (!bucketItem)
      return nullptr;
   // `key` may be the entry's own clone (empty() passes those): it is not
   // touched once the entry is deleted.
   auto* const entry = static_cast<DtHashItem*>(bucketFromHashKey(key)->remove(bucketItem));
   keyList.remove(entry->keyItem());
   void* const data = mainList->remove(entry->listItem());
   delete entry;
   return data;
}

void* DtHashlist::lookup(DtBaseHashKey const& key) const
{
   DtListItem* const item = itemLookup(key);
   return item ? item->data() : nullptr;
}

void* DtHashlist::operator[](DtBaseHashKey const& key) const
{
   return lookup(key);
}

DtList* DtHashlist::list() const
{
   return mainList;
}

void DtHashlist::print() const
{
   for (DtListItem* item = keyList.first(); item; item = item->next())
   {
      auto const* const key = static_cast<DtBaseHashKey const*>(item->data());
      DtInfo("Key: %s\n", key->stringRep().c_str());
      void* const data = lookup(*key);
      // %x takes an unsigned int: the pointer's low 32 bits are what it shows.
      if (data)
         DtInfo(" Data: %x\n", static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(data)));
      else
         DtInfo(" Data: NULL\n");
   }
}

DtList const& DtHashlist::keys() const
{
   return keyList;
}

void DtHashlist::empty()
{
   DtListItem* item = keyList.first();
   while (item)
   {
      DtListItem* const following = item->next();
      remove(*static_cast<DtBaseHashKey const*>(item->data()));
      item = following;
   }
}

void DtHashlist::setFromOther(DtHashlist const& other)
{
   // Emptying the table first would lose every entry of a table copied from itself.
   if (&other == this)
      return;
   empty();
   for (DtListItem* item = other.keys().first(); item; item = item->next())
   {
      auto const& key = *static_cast<DtBaseHashKey const*>(item->data());
      add(key, other.lookup(key), nullptr);
   }
}

DtListItem* DtHashlist::itemLookup(DtBaseHashKey const& key) const
{
   DtListItem* const bucketItem = bucketItemLookup(key);
   return bucketItem ? entryOf(bucketItem)->listItem() : nullptr;
}

DtList* DtHashlist::bucketFromHashKey(DtBaseHashKey const& key) const
{
   unsigned int const index = key.hashValue() % static_cast<unsigned int>(bucketCount);
   return &buckets[index];
}

DtListItem* DtHashlist::bucketItemLookup(DtBaseHashKey const& key) const
{
   for (DtListItem* item = bucketFromHashKey(key)->first(); item; item = item->next())
   {
      if (entryOf(item)->hashKey()->equalTo(key))
         return item;
   }
   return nullptr;
}
