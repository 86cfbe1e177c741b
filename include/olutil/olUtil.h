//===-- olutil/olUtil.h - Numbers held in wire byte order -------*- C++ -*-===//
//
// Family: Text.
//
// Records that travel between simulation hosts keep their numbers in a byte
// order chosen once per process. DtNetU16, DtNetU32, DtNetU64, DtNetInt16 and
// DtNetInt32 hold one number in that stored form and convert on every read and
// write, so a record declared with them can be copied to the wire as it stands.
// DtU128 carries a 128-bit value, such as an IPv6 address, as a number.
//
// Threads: the order is a plain process-wide value without a lock; set it once
// at start-up, before any record is filled. An instance of a number class
// belongs to one thread at a time.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLUTIL_H
#define OLUTIL_OLUTIL_H

#include <cstdint>

/// How the number classes hold their values. Only DtByteOrderNetwork (1)
/// converts; every other value keeps the machine's own order. The type is an
/// int, so any value may be stored.
enum DtNetworkByteOrderType : int
{
   DtByteOrderMachine = 0,  ///< held as this machine holds them, no conversion
   DtByteOrderNetwork = 1   ///< held big-endian, as on the wire
};

/// The process-wide order, initially DtByteOrderNetwork. Every read and write
/// of a number class consults it afresh.
extern DtNetworkByteOrderType DtNetworkByteOrder;

/// Width in bytes of the length prefix of variable-size arrays in records.
/// Initially 4; exported for applications.
extern int DtVariableArraySizeLength;

/// Returns the current order (the value of DtNetworkByteOrder at this moment).
DtNetworkByteOrderType DtNetworkByteOrdering();
/// Sets the order. A number written under one order and read under the other
/// comes back byte-swapped: set it before any record is filled.
void DtSetNetworkByteOrdering(DtNetworkByteOrderType order);

/// An unsigned 16-bit number held in the stored order.
class DtNetU16
{
public:
   DtNetU16() : myStored(0) {}
   DtNetU16(unsigned short const& value) { *this = value; }
   DtNetU16(DtNetU16 const&) = default;

   DtNetU16& operator=(DtNetU16 const&) = default;
   /// Stores the wire form of `value`.
   DtNetU16& operator=(unsigned short const& value);

   /// The value in host order.
   operator unsigned short() const;

private:
   std::uint16_t myStored;
};

/// An unsigned 32-bit number held in the stored order.
class DtNetU32
{
public:
   DtNetU32() : myStored(0) {}
   DtNetU32(unsigned int const& value) { *this = value; }
   DtNetU32(DtNetU32 const&) = default;

   DtNetU32& operator=(DtNetU32 const&) = default;
   /// Stores the wire form of `value`.
   DtNetU32& operator=(unsigned int const& value);

   /// The value in host order.
   operator unsigned int() const;

private:
   std::uint32_t myStored;
};

/// An unsigned 64-bit number held as two DtNetU32 halves. In network order the
/// high half comes first; otherwise the low half does, the machine's own form.
class DtNetU64
{
public:
   DtNetU64() = default;
   DtNetU64(unsigned long const& value) { *this = value; }
   DtNetU64(DtNetU64 const&) = default;

   DtNetU64& operator=(DtNetU64 const&) = default;
   DtNetU64& operator=(unsigned long const& value);

   /// The value in host order.
   operator unsigned long() const;

private:
   DtNetU32 myFirst;
   DtNetU32 mySecond;
};

/// A signed 16-bit number held in the stored order, as DtNetU16 holds it.
class DtNetInt16
{
public:
   DtNetInt16() : myStored(0) {}
   DtNetInt16(short const& value) { *this = value; }
   DtNetInt16(DtNetInt16 const&) = default;

   DtNetInt16& operator=(DtNetInt16 const&) = default;
   DtNetInt16& operator=(short const& value);

   operator short() const;

private:
   std::uint16_t myStored;
};

/// A signed 32-bit number held in the stored order, as DtNetU32 holds it.
class DtNetInt32
{
public:
   DtNetInt32() : myStored(0) {}
   DtNetInt32(int const& value) { *this = value; }
   DtNetInt32(DtNetInt32 const&) = default;

   DtNetInt32& operator=(DtNetInt32 const&) = default;
   DtNetInt32& operator=(int const& value);

   operator int() const;

private:
   std::uint32_t myStored;
};

/// A 128-bit unsigned value as two 64-bit words, high word first. Held in host
/// order; it is a carrier, not a wire form.
class DtU128
{
public:
   /// Leaves both words as they were: the value is undefined until assigned.
   DtU128() {}
   /// High word 0, low word `lowWord`.
   DtU128(unsigned long lowWord) : high(0), low(lowWord) {}
   DtU128(unsigned long highWord, unsigned long lowWord) : high(highWord), low(lowWord) {}
   DtU128(DtU128 const&) = default;
   DtU128& operator=(DtU128 const&) = default;

   bool operator==(DtU128 const& other) const { return high == other.high && low == other.low; }
   bool operator!=(DtU128 const& other) const { return !(*this == other); }

   unsigned long high;
   unsigned long low;
};

#endif  // OLUTIL_OLUTIL_H
