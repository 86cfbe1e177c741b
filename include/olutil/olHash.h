//===- olutil/olHash.h - Process-wide registry of text ids ------*- C++ -*-===//
//
// Family: Containers.
//
// DtHash turns a text into a 32-bit id that stays the same for the life of the
// process, and back. The id is MurmurHash3 (x86_32, seed 0x811C9DC5) of the
// text's bytes; two registries, id to text and text to id, remember every text
// seen. A DtHash value holds one id and its text and compares by id.
//
// Threads: makeHash, value(text), valueToString and the constructors from a
// text may be called from any thread; they serialise on one lock inside the
// library. The maps returned by theHashIdMap() and theHashStringMap() are the
// registries themselves: reading them directly is not guarded. A DtHash
// object belongs to one thread at a time.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLHASH_H
#define OLUTIL_OLHASH_H

#include <cstdint>
#include <map>
#include <string>

class DtHash
{
public:
   /// The id of a value that holds no text.
   static constexpr std::uint32_t theInvalidValue = 4294967295u;

   /// Holds theInvalidValue and the text "NOT SET".
   DtHash();
   /// Holds the text and its id, registering both.
   explicit DtHash(std::string const& text);
   DtHash(DtHash const&) = default;
   DtHash& operator=(DtHash const&) = default;

   // The order of these declarations is the order of the virtual table.
   virtual ~DtHash();
   /// The id.
   virtual std::uint32_t operator()() const;
   /// The text.
   virtual std::string const& str() const;
   /// The id differs from theInvalidValue; a text whose id happens to be that
   /// value reads as invalid too.
   virtual bool isValid() const;
   /// Compare the ids as unsigned numbers. The order is stable inside one
   /// process and carries no other meaning.
   virtual bool operator<(DtHash const& other) const;
   virtual bool operator>(DtHash const& other) const;
   virtual bool operator<=(DtHash const& other) const;
   virtual bool operator>=(DtHash const& other) const;
   virtual bool operator==(DtHash const& other) const;
   virtual bool operator!=(DtHash const& other) const;

   /// Holds the text and its id from now on.
   void set(std::string const& text);
   /// The id.
   std::uint32_t value() const;

   /// The id of a text: the one registered for it, or a new one, registered.
   static std::uint32_t value(std::string const& text);
   static std::uint32_t makeHash(std::string const& text);
   /// The text registered for an id. An unknown id writes "Cannot find string
   /// for hash id: " and the id, with an end of line, to DtWarn, and gives
   /// "NOT SET". Two texts with one id are not told apart: the later text owns
   /// the id here, while each keeps its id in the other direction.
   static std::string valueToString(std::uint32_t const& id);

   /// The registries, id to text and text to id. Nothing is ever removed.
   static std::map<std::uint32_t, std::string>& theHashIdMap();
   static std::map<std::string, std::uint32_t>& theHashStringMap();

private:
   // The order of these fields is part of the binary layout.
   std::uint32_t hashValue;
   std::string hashString;
};

#endif  // OLUTIL_OLHASH_H
