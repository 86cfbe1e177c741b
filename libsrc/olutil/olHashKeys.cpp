//===- olHashKeys.cpp - Polymorphic keys of hash lists --------------------===//
//
// Family: Containers.
//
//===----------------------------------------------------------------------===//
#include <olutil/olHashKeys.h>

#include <olutil/olStringUtil.h>

#include <cstdint>
#include <cwchar>
#include <typeinfo>

namespace
{

// The position-weighted sum of the text keys: unit i, taken as a signed value,
// times i + 1, summed; the low 32 bits are the hash. Unsigned arithmetic gives
// exactly those bits, and cannot overflow into undefined behaviour on long texts.
template <typename Unit>
std::uint32_t positionWeightedSum(Unit const* units, std::size_t count)
{
   std::uint32_t total = 0;
   for (std::size_t i = 0; i < count; ++i)
   {
      auto const value = static_cast<std::uint32_t>(static_cast<std::int32_t>(units[i]));
      total += value * static_cast<std::uint32_t>(i + 1);
   }
   return total;
}

}  // namespace

// ============================================================ DtBaseHashKey

DtBaseHashKey& DtBaseHashKey::operator=(DtBaseHashKey const& other)
{
   hashComputed = other.hashComputed;
   hashCache = other.hashCache;
   return *this;
}

DtBaseHashKey::~DtBaseHashKey() = default;

bool DtBaseHashKey::operator==(DtBaseHashKey const& other) const
{
   return hashValue() == other.hashValue() && stringRep() == other.stringRep();
}

bool DtBaseHashKey::operator!=(DtBaseHashKey const& other) const
{
   return !(*this == other);
}

std::uint32_t DtBaseHashKey::hashValue() const
{
   if (!hashComputed)
   {
      // computeHashValue() changes nothing but what it returns; the cache is
      // the only state written here.
      hashCache = const_cast<DtBaseHashKey*>(this)->computeHashValue();
      hashComputed = true;
   }
   return hashCache;
}

int DtBaseHashKey::hashKeyType() const
{
   return DtHashKeyBase;
}

bool DtBaseHashKey::equalTo(DtBaseHashKey const& other) const
{
   return *this == other;
}

// ============================================================= DtIntHashKey

DtIntHashKey& DtIntHashKey::operator=(DtIntHashKey const& other)
{
   DtBaseHashKey::operator=(other);
   myValue = other.myValue;
   return *this;
}

DtIntHashKey::~DtIntHashKey() = default;

int DtIntHashKey::hashKeyType() const
{
   return DtHashKeyInt;
}

DtBaseHashKey* DtIntHashKey::clone() const
{
   return new DtIntHashKey(*this);
}

DtString DtIntHashKey::stringRep() const
{
   return DtString(myValue);
}

bool DtIntHashKey::equalTo(DtBaseHashKey const& other) const
{
   if (other.hashKeyType() == DtHashKeyInt)
   {
      // The tag alone does not make a key an integer key.
      if (auto const* integer = dynamic_cast<DtIntHashKey const*>(&other))
         return value() == integer->value();
   }
   return DtBaseHashKey::equalTo(other);
}

std::uint32_t DtIntHashKey::computeHashValue()
{
   return myValue;
}

unsigned int DtIntHashKey::value() const
{
   return myValue;
}

// ============================================================= DtPtrHashKey

DtPtrHashKey& DtPtrHashKey::operator=(DtPtrHashKey const& other)
{
   DtBaseHashKey::operator=(other);
   myValue = other.myValue;
   return *this;
}

DtPtrHashKey::~DtPtrHashKey() = default;

int DtPtrHashKey::hashKeyType() const
{
   return DtHashKeyPtr;
}

DtBaseHashKey* DtPtrHashKey::clone() const
{
   return new DtPtrHashKey(*this);
}

DtString DtPtrHashKey::stringRep() const
{
   return DtString(static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(myValue)));
}

bool DtPtrHashKey::equalTo(DtBaseHashKey const& other) const
{
   if (typeid(*this) == typeid(other))
      return value() == static_cast<DtPtrHashKey const&>(other).value();
   return DtBaseHashKey::equalTo(other);
}

std::uint32_t DtPtrHashKey::computeHashValue()
{
   return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(myValue));
}

void* DtPtrHashKey::value() const
{
   return myValue;
}

// ========================================================== DtStringHashKey

DtStringHashKey& DtStringHashKey::operator=(DtStringHashKey const& other)
{
   DtBaseHashKey::operator=(other);
   myValue = other.myValue;
   return *this;
}

DtStringHashKey::~DtStringHashKey() = default;

int DtStringHashKey::hashKeyType() const
{
   return DtHashKeyString;
}

DtBaseHashKey* DtStringHashKey::clone() const
{
   return new DtStringHashKey(*this);
}

DtString DtStringHashKey::stringRep() const
{
   return myValue;
}

std::uint32_t DtStringHashKey::computeHashValue()
{
   return positionWeightedSum(reinterpret_cast<signed char const*>(myValue.c_str()),
                              static_cast<std::size_t>(myValue.length()));
}

DtString const& DtStringHashKey::value() const
{
   return myValue;
}

void DtStringHashKey::setValue(DtString const& value)
{
   myValue = value;
}

// ========================================================= DtWStringHashKey

DtWStringHashKey& DtWStringHashKey::operator=(DtWStringHashKey const& other)
{
   DtBaseHashKey::operator=(other);
   myValue = other.myValue;
   return *this;
}

DtWStringHashKey::~DtWStringHashKey() = default;

int DtWStringHashKey::hashKeyType() const
{
   return DtHashKeyWString;
}

DtBaseHashKey* DtWStringHashKey::clone() const
{
   return new DtWStringHashKey(*this);
}

DtString DtWStringHashKey::stringRep() const
{
   return DtString(DtToString(myValue));
}

std::uint32_t DtWStringHashKey::computeHashValue()
{
   // Up to the terminator, as the narrow key counts its bytes.
   return positionWeightedSum(myValue.c_str(), std::wcslen(myValue.c_str()));
}

std::wstring const& DtWStringHashKey::value() const
{
   return myValue;
}

void DtWStringHashKey::setValue(std::wstring const& value)
{
   myValue = value;
}
