//===- olutil/olHashKeys.h - Polymorphic keys of hash lists -----*- C++ -*-===//
//
// Family: Containers.
//
// The keys of a DtHashlist. DtBaseHashKey caches the hash of a key the first
// time it is asked for, and decides equality by hash and then by the text form
// of the keys, so keys of different types that print alike are equal. The
// integer, pointer, text and wide-text keys derive from it.
//
// A key takes no lock, and hashValue() writes its cache: share a key between
// threads only after its hash has been read once.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLHASHKEYS_H
#define OLUTIL_OLHASHKEYS_H

#include <olutil/olString.h>

#include <cstdint>
#include <string>

/// The type tags that hashKeyType() reports.
enum DtHashKeyType : int
{
   DtHashKeyBase = 0,
   DtHashKeyInt = 1,
   DtHashKeyPtr = 2,
   DtHashKeyString = 3,
   DtHashKeyWString = 4
};

class DtBaseHashKey
{
public:
   DtBaseHashKey() = default;
   DtBaseHashKey(DtBaseHashKey const&) = default;
   /// Copies the cached hash and whether it was computed.
   DtBaseHashKey& operator=(DtBaseHashKey const& other);

   // The order of these declarations is the order of the virtual table.
   virtual ~DtBaseHashKey();
   /// Equal hashes, and then equal text forms (stringRep) compared as DtString.
   virtual bool operator==(DtBaseHashKey const& other) const;
   /// The negation of the virtual operator==.
   virtual bool operator!=(DtBaseHashKey const& other) const;
   /// The hash, computed by computeHashValue() on first use and cached.
   virtual std::uint32_t hashValue() const;
   virtual int hashKeyType() const;
   /// A new copy of the same dynamic type, owned by the caller.
   virtual DtBaseHashKey* clone() const = 0;
   virtual DtString stringRep() const = 0;
   /// The equality that a hash list uses, asked of the stored key: by default
   /// the virtual operator==.
   virtual bool equalTo(DtBaseHashKey const& other) const;
   virtual std::uint32_t computeHashValue() = 0;

protected:
   // The order of these fields is part of the binary layout. Both may change
   // in a const hashValue().
   mutable bool hashComputed = false;
   mutable std::uint32_t hashCache = 0;
};

/// An unsigned integer key; it is its own hash.
class DtIntHashKey : public DtBaseHashKey
{
public:
   explicit DtIntHashKey(unsigned int value = 0) : myValue(value) {}
   DtIntHashKey(DtIntHashKey const&) = default;
   DtIntHashKey& operator=(DtIntHashKey const& other);
   ~DtIntHashKey() override;

   int hashKeyType() const override;
   DtBaseHashKey* clone() const override;
   /// The value in decimal.
   DtString stringRep() const override;
   /// Against another integer key, the values decide; otherwise the base rule.
   bool equalTo(DtBaseHashKey const& other) const override;
   std::uint32_t computeHashValue() override;
   virtual unsigned int value() const;

private:
   unsigned int myValue;
};

/// A pointer key: the hash is the low 32 bits of the pointer, the text form
/// the same bits in decimal.
class DtPtrHashKey : public DtBaseHashKey
{
public:
   explicit DtPtrHashKey(void* value = nullptr) : myValue(value) {}
   DtPtrHashKey(DtPtrHashKey const&) = default;
   DtPtrHashKey& operator=(DtPtrHashKey const& other);
   ~DtPtrHashKey() override;

   int hashKeyType() const override;
   DtBaseHashKey* clone() const override;
   DtString stringRep() const override;
   /// Against a key of the same dynamic type, the pointers decide (so two
   /// pointers with the same low 32 bits differ); otherwise the base rule.
   bool equalTo(DtBaseHashKey const& other) const override;
   std::uint32_t computeHashValue() override;
   virtual void* value() const;

private:
   void* myValue;
};

/// A text key. Its hash is a position-weighted sum of its bytes taken as
/// signed values, so bytes of 128 and above subtract.
///
/// setValue replaces the text and keeps the cached hash: a key whose hash was
/// read before setValue goes on reporting the old one, and must not be used
/// for lookups afterwards (kept so on purpose); use a new key to look up the
/// new text.
class DtStringHashKey : public DtBaseHashKey
{
public:
   explicit DtStringHashKey(DtString const& value = DtString()) : myValue(value) {}
   DtStringHashKey(DtStringHashKey const&) = default;
   DtStringHashKey& operator=(DtStringHashKey const& other);
   ~DtStringHashKey() override;

   int hashKeyType() const override;
   DtBaseHashKey* clone() const override;
   DtString stringRep() const override;
   std::uint32_t computeHashValue() override;
   virtual DtString const& value() const;
   virtual void setValue(DtString const& value);

private:
   DtString myValue;
};

/// A wide-text key, hashed as DtStringHashKey over its wchar_t units; its text
/// form is the narrow copy that DtToString makes. setValue keeps the cached
/// hash, as DtStringHashKey's does.
class DtWStringHashKey : public DtBaseHashKey
{
public:
   explicit DtWStringHashKey(std::wstring const& value = std::wstring()) : myValue(value) {}
   DtWStringHashKey(DtWStringHashKey const&) = default;
   DtWStringHashKey& operator=(DtWStringHashKey const& other);
   ~DtWStringHashKey() override;

   int hashKeyType() const override;
   DtBaseHashKey* clone() const override;
   DtString stringRep() const override;
   std::uint32_t computeHashValue() override;
   virtual std::wstring const& value() const;
   virtual void setValue(std::wstring const& value);

private:
   std::wstring myValue;
};

#endif  // OLUTIL_OLHASHKEYS_H
