// 16-byte unique identifiers over libuuid.
#include <olutil/olUuid.h>

#include <olutil/olPrint.h>

#include <cstring>
#include <ostream>
#include <uuid/uuid.h>

static_assert(sizeof(uuid_t) == DtOstUuid::theSize, "libuuid's identifier is 16 bytes");

namespace
{
// uuid_unparse writes 36 characters and a terminator.
constexpr int theTextSize = 37;

void unparse(unsigned char const* bytes, char (&text)[theTextSize])
{
   uuid_unparse(bytes, text);
}
}  // namespace

DtOstUuid::DtOstUuid()
{
   std::memset(myBytes, 0, sizeof(myBytes));
}

DtOstUuid::DtOstUuid(DtOstUuid const& other)
{
   std::memcpy(myBytes, other.myBytes, sizeof(myBytes));
}

DtOstUuid& DtOstUuid::operator=(DtOstUuid const& other)
{
   if (this != &other)
   {
      std::memcpy(myBytes, other.myBytes, sizeof(myBytes));
   }
   return *this;
}

DtOstUuid::~DtOstUuid() = default;

void DtOstUuid::generateUniqueId()
{
   uuid_generate(myBytes);
}

void DtOstUuid::print() const
{
   DtString text;
   getString(text);
   DtInfo << "UUID String: " << text.c_str() << std::endl;
}

unsigned char const* DtOstUuid::data() const
{
   return myBytes;
}

void DtOstUuid::setData(char const* bytes)
{
   if (bytes)
   {
      std::memcpy(myBytes, bytes, sizeof(myBytes));
   }
}

void DtOstUuid::setDataString(DtString const& text)
{
   // Parse into a scratch identifier: libuuid may have written part of it
   // before it finds the text wrong, and the value must stay as it was.
   uuid_t parsed;
   char const* chars = text.c_str();
   if (chars && uuid_parse(chars, parsed) == 0)
   {
      std::memcpy(myBytes, parsed, sizeof(myBytes));
      return;
   }
   // No end of line: the warning is these three pieces and nothing more.
   DtWarn << "Failed to convert " << (chars ? chars : "") << " to a UUID.";
}

void DtOstUuid::getString(DtString& text) const
{
   char buffer[theTextSize];
   unparse(myBytes, buffer);
   text = buffer;
}

void DtOstUuid::printData() const
{
   printDataToStream(DtInfo);
}

void DtOstUuid::printDataToStream(std::ostream& out) const
{
   char buffer[theTextSize];
   unparse(myBytes, buffer);
   out << buffer;
}

bool DtOstUuid::operator==(DtOstUuid const& other) const
{
   return std::memcmp(myBytes, other.myBytes, sizeof(myBytes)) == 0;
}

bool DtOstUuid::operator!=(DtOstUuid const& other) const
{
   return std::memcmp(myBytes, other.myBytes, sizeof(myBytes)) != 0;
}

bool DtOstUuid::operator<(DtOstUuid const& other) const
{
   return std::memcmp(myBytes, other.myBytes, sizeof(myBytes)) < 0;
}

DtOstUuid const& DtOstUuid::nullUuid()
{
   static DtOstUuid const theNullUuid;
   return theNullUuid;
}

std::ostream& operator<<(std::ostream& out, DtOstUuid const& uuid)
{
   uuid.printDataToStream(out);
   return out;
}
