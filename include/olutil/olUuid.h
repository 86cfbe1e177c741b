//===-- olutil/olUuid.h - 16-byte unique identifiers ------------*- C++ -*-===//
//
// Family: Text.
//
// DtOstUuid is the library's 16-byte unique identifier. It is made by the
// system's UUID generator, travels as its 16 bytes, and reads and writes the
// usual 36-character text form ("xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx").
//
// Threads: an identifier is a plain value used by one thread at a time;
// nullUuid() is shared and only read.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLUUID_H
#define OLUTIL_OLUUID_H

#include <olutil/olString.h>

#include <iosfwd>

class DtOstUuid
{
public:
   static constexpr int theSize = 16;

   /// The null identifier: all 16 bytes zero.
   DtOstUuid();
   DtOstUuid(DtOstUuid const& other);
   DtOstUuid& operator=(DtOstUuid const& other);
   virtual ~DtOstUuid();

   /// Replaces the value with a newly generated identifier.
   virtual void generateUniqueId();
   /// Writes "UUID String: ", the text form and an end of line to DtInfo.
   virtual void print() const;
   /// The 16 bytes.
   virtual unsigned char const* data() const;
   /// Copies 16 bytes from `bytes`.
   virtual void setData(char const* bytes);
   /// Parses the text form. Text that is not a UUID is reported on DtWarn and
   /// leaves the value as it was.
   virtual void setDataString(DtString const& text);
   /// Writes the lower-case text form into `text`.
   virtual void getString(DtString& text) const;
   /// Writes the text form, alone, to DtInfo.
   virtual void printData() const;
   /// Writes the text form, alone, to `out`.
   virtual void printDataToStream(std::ostream& out) const;

   bool operator==(DtOstUuid const& other) const;
   bool operator!=(DtOstUuid const& other) const;
   /// Byte-wise order, for sorted containers.
   bool operator<(DtOstUuid const& other) const;

   /// The one process-wide null identifier.
   static DtOstUuid const& nullUuid();
   /// Alignment of the identifier in records: byte-aligned.
   static int octetBoundary() { return 1; }

private:
   unsigned char myBytes[theSize];
};

/// Writes the text form alone.
std::ostream& operator<<(std::ostream& out, DtOstUuid const& uuid);

#endif  // OLUTIL_OLUUID_H
