//===- olHash.cpp - Process-wide registry of text ids ---------------------===//
//
// Family: Containers.
//
//===----------------------------------------------------------------------===//
#include <olutil/olHash.h>

#include <olutil/olPrint.h>

#include <cstring>
#include <mutex>

namespace
{

constexpr std::uint32_t theSeed = 0x811C9DC5u;
char const* const theNotSet = "NOT SET";

// Guards both registries; they are shared by every thread of the process.
std::mutex& registryMutex()
{
   static std::mutex mutex;
   return mutex;
}

std::uint32_t rotateLeft(std::uint32_t x, int bits)
{
   return (x << bits) | (x >> (32 - bits));
}

// MurmurHash3, x86_32 form. An id is the same in every run and on every
// machine, so the algorithm is followed exactly, its blocks read little-endian.
std::uint32_t murmurHash3x86_32(unsigned char const* data, std::size_t length, std::uint32_t seed)
{
   constexpr std::uint32_t c1 = 0xcc9e2d51u;
   constexpr std::uint32_t c2 = 0x1b873593u;
   std::uint32_t h = seed;
   std::size_t const blocks = length / 4;
   for (std::size_t i = 0; i < blocks; ++i)
   {
      unsigned char const* const at = data + 4 * i;
      std::uint32_t k = static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
                        static_cast<std::uint32_t>(at[2]) << 16 |
                        static_cast<std::uint32_t>(at[3]) << 24;
      k *= c1;
      k = rotateLeft(k, 15);
      k *= c2;
      h ^= k;
      h = rotateLeft(h, 13);
      h = h * 5 + 0xe6546b64u;
   }
   unsigned char const* const tail = data + 4 * blocks;
   std::uint32_t k = 0;
   switch (length & 3)
   {
   case 3:
      k ^= static_cast<std::uint32_t>(tail[2]) << 16;
      [[fallthrough]];
   case 2:
      k ^= static_cast<std::uint32_t>(tail[1]) << 8;
      [[fallthrough]];
   case 1:
      k ^= tail[0];
      k *= c1;
      k = rotateLeft(k, 15);
      k *= c2;
      h ^= k;
   }
   h ^= static_cast<std::uint32_t>(length);
   h ^= h >> 16;
   h *= 0x85ebca6bu;
   h ^= h >> 13;
   h *= 0xc2b2ae35u;
   h ^= h >> 16;
   return h;
}

}  // namespace

DtHash::DtHash() : hashValue(theInvalidValue), hashString(theNotSet)
{
}

DtHash::DtHash(std::string const& text) : hashValue(makeHash(text)), hashString(text)
{
}

DtHash::~DtHash() = default;

std::uint32_t DtHash::operator()() const
{
   return hashValue;
}

std::string const& DtHash::str() const
{
   return hashString;
}

bool DtHash::isValid() const
{
   return hashValue != theInvalidValue;
}

bool DtHash::operator<(DtHash const& other) const
{
   return hashValue < other.hashValue;
}

bool DtHash::operator>(DtHash const& other) const
{
   return hashValue > other.hashValue;
}

bool DtHash::operator<=(DtHash const& other) const
{
   return hashValue <= other.hashValue;
}

bool DtHash::operator>=(DtHash const& other) const
{
   return hashValue >= other.hashValue;
}

bool DtHash::operator==(DtHash const& other) const
{
   return hashValue == other.hashValue;
}

bool DtHash::operator!=(DtHash const& other) const
{
   return hashValue != other.hashValue;
}

void DtHash::set(std::string const& text)
{
   hashValue = makeHash(text);
   hashString = text;
}

std::uint32_t DtHash::value() const
{
   return hashValue;
}

std::uint32_t DtHash::value(std::string const& text)
{
   return makeHash(text);
}

std::uint32_t DtHash::makeHash(std::string const& text)
{
   std::lock_guard<std::mutex> lock(registryMutex());
   auto& strings = theHashStringMap();
   auto const known = strings.find(text);
   if (known != strings.end())
      return known->second;
   std::uint32_t const id = murmurHash3x86_32(
       reinterpret_cast<unsigned char const*>(text.data()), text.size(), theSeed);
   strings.emplace(text, id);
   theHashIdMap()[id] = text;
   return id;
}

std::string DtHash::valueToString(std::uint32_t const& id)
{
   {
      std::lock_guard<std::mutex> lock(registryMutex());
      auto const& ids = theHashIdMap();
      auto const known = ids.find(id);
      if (known != ids.end())
         return known->second;
   }
   DtWarn << "Cannot find string for hash id: " << id << std::endl;
   return theNotSet;
}

std::map<std::uint32_t, std::string>& DtHash::theHashIdMap()
{
   static std::map<std::uint32_t, std::string> ids;
   return ids;
}

std::map<std::string, std::uint32_t>& DtHash::theHashStringMap()
{
   static std::map<std::string, std::uint32_t> strings;
   return strings;
}
