//===- olutil/olHashlist.h - Fixed-size chained hash table ------*- C++ -*-===//
//
// Family: Containers.
//
// DtHashlist maps polymorphic keys (olHashKeys.h) to untyped data pointers. It
// has a fixed number of buckets, each a DtList of entries, and keeps the data
// in a plain DtList as well, in insertion order, so that the same data can be
// walked without the keys; a second list holds the keys in the same order.
// The table never owns or frees its data; it owns a clone of every key.
//
// There is no growth and no rehash: the bucket count is what the constructor
// got, and long chains are the caller's concern.
//
// A hash list takes no lock: it belongs to one thread at a time.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLHASHLIST_H
#define OLUTIL_OLHASHLIST_H

#include <olutil/olHashKeys.h>
#include <olutil/olList.h>

/// One entry of a DtHashlist: an owned clone of its key, the item of the data
/// in the main list, and the item of the key in the key list.
class DtHashItem
{
public:
   /// Takes ownership of `key`.
   DtHashItem(DtBaseHashKey* key, DtListItem* item) : key(key), item(item) {}
   /// Clones the key, shares the main-list item and clears the key item.
   DtHashItem(DtHashItem const& other);
   DtHashItem& operator=(DtHashItem const& other);
   ~DtHashItem();

   DtBaseHashKey* hashKey() const { return key; }
   DtListItem* listItem() const { return item; }
   DtListItem* keyItem() const { return keyListItem; }
   void setKeyItem(DtListItem* item) { keyListItem = item; }

private:
   DtBaseHashKey* key;
   DtListItem* item;
   DtListItem* keyListItem = nullptr;
};

class DtHashlist
{
public:
   /// `size` buckets and a main list of its own. A size below 1 gives one
   /// bucket: the bucket is chosen by a division by the count.
   explicit DtHashlist(int size);
   /// Keeps the data in the caller's list, which it does not own; the list
   /// must outlive the table and is changed only through it.
   DtHashlist(DtList* list, int size);
   /// The same number of buckets, a main list of its own, and every key of
   /// `other` in its order; the data pointers are shared.
   DtHashlist(DtHashlist const& other);
   /// Empties this table and adds every entry of `other`; the bucket count
   /// stays. Assigning a table to itself changes nothing.
   DtHashlist& operator=(DtHashlist const& other);

   // The order of these declarations is the order of the virtual table.
   /// Empties the table, deletes the main list when owned, and frees the
   /// buckets. The data is never freed.
   virtual ~DtHashlist();
   /// Stores `data` under a clone of `key`, replacing any entry under an equal
   /// key; `old`, when given, receives the data replaced (or null). Returns
   /// the new item of the main list.
   virtual DtListItem* add(DtBaseHashKey const& key, void* data, void** old = nullptr);
   /// Takes out the entry under `key` and frees its key clone. Returns its
   /// data, or null when there is none.
   virtual void* remove(DtBaseHashKey const& key);
   /// The data under `key`, or null; a key stored with null data answers null
   /// too (itemLookup tells the two apart).
   virtual void* lookup(DtBaseHashKey const& key) const;
   /// The same as lookup, through the virtual lookup.
   virtual void* operator[](DtBaseHashKey const& key) const;
   /// The data, in insertion order.
   virtual DtList* list() const;
   /// Writes each key on DtInfo as "Key: %s\n", then " Data: %x\n" with the
   /// low 32 bits of the data pointer, or " Data: NULL\n".
   virtual void print() const;
   /// The key list: each item's data is the DtBaseHashKey clone that the
   /// table owns, in insertion order.
   virtual DtList const& keys() const;
   /// Removes every entry, in insertion order, through the virtual remove.
   virtual void empty();
   /// Empties this table and adds every entry of `other`, in its order,
   /// sharing the data. Taking from the table itself changes nothing.
   virtual void setFromOther(DtHashlist const& other);
   /// The item of the main list holding the data under `key`, or null.
   virtual DtListItem* itemLookup(DtBaseHashKey const& key) const;
   /// The bucket of `key`: its hash modulo the bucket count, both unsigned.
   virtual DtList* bucketFromHashKey(DtBaseHashKey const& key) const;
   /// The bucket's first item whose entry holds a key for which
   /// storedKey.equalTo(key) holds, or null. Its data is a DtHashItem*.
   virtual DtListItem* bucketItemLookup(DtBaseHashKey const& key) const;

   /// The number of buckets.
   int size() const { return bucketCount; }

private:
   // The order of these fields is part of the binary layout.
   int bucketCount;
   bool ownsList;
   DtList* mainList;
   DtList* buckets;
   DtList keyList;
};

#endif  // OLUTIL_OLHASHLIST_H
