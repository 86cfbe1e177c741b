// Numbers held in wire byte order.
#include <olutil/olUtil.h>

#include <arpa/inet.h>

DtNetworkByteOrderType DtNetworkByteOrder = DtByteOrderNetwork;
int DtVariableArraySizeLength = 4;

DtNetworkByteOrderType DtNetworkByteOrdering()
{
   // Read through a volatile access: the order is a plain global that
   // applications may assign directly, and each conversion must see it as it
   // stands at that moment.
   return *static_cast<DtNetworkByteOrderType volatile*>(&DtNetworkByteOrder);
}

void DtSetNetworkByteOrdering(DtNetworkByteOrderType order)
{
   DtNetworkByteOrder = order;
}

namespace
{
bool storedInNetworkOrder()
{
   return DtNetworkByteOrdering() == DtByteOrderNetwork;
}

// Between a value and its stored form; the swap is its own inverse, so one function
// serves both directions.
std::uint16_t stored16(std::uint16_t value)
{
   return storedInNetworkOrder() ? htons(value) : value;
}

std::uint32_t stored32(std::uint32_t value)
{
   return storedInNetworkOrder() ? htonl(value) : value;
}
}  // namespace

DtNetU16& DtNetU16::operator=(unsigned short const& value)
{
   myStored = stored16(value);
   return *this;
}

DtNetU16::operator unsigned short() const
{
   return stored16(myStored);
}

DtNetU32& DtNetU32::operator=(unsigned int const& value)
{
   myStored = stored32(value);
   return *this;
}

DtNetU32::operator unsigned int() const
{
   return stored32(myStored);
}

DtNetU64& DtNetU64::operator=(unsigned long const& value)
{
   unsigned int const high = static_cast<unsigned int>(value >> 32);
   unsigned int const low = static_cast<unsigned int>(value & 0xffffffffUL);
   if (storedInNetworkOrder())
   {
      myFirst = high;
      mySecond = low;
   }
   else
   {
      myFirst = low;
      mySecond = high;
   }
   return *this;
}

DtNetU64::operator unsigned long() const
{
   unsigned long const first = static_cast<unsigned int>(myFirst);
   unsigned long const second = static_cast<unsigned int>(mySecond);
   if (storedInNetworkOrder())
   {
      return (first << 32) | second;
   }
   return (second << 32) | first;
}

DtNetInt16& DtNetInt16::operator=(short const& value)
{
   myStored = stored16(static_cast<std::uint16_t>(value));
   return *this;
}

DtNetInt16::operator short() const
{
   return static_cast<short>(stored16(myStored));
}

DtNetInt32& DtNetInt32::operator=(int const& value)
{
   myStored = stored32(static_cast<std::uint32_t>(value));
   return *this;
}

DtNetInt32::operator int() const
{
   return static_cast<int>(stored32(myStored));
}
