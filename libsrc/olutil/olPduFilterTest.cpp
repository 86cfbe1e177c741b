// The list-based PDU filter test of DtDisSocket.
#include <olutil/olPduFilterTest.h>

#include <cstdint>

namespace
{
// Values live in the list's pointer-sized slot itself; nothing is allocated.
void* slotOf(unsigned int value)
{
   return reinterpret_cast<void*>(static_cast<std::uintptr_t>(value));
}
}  // namespace

DtPduFilterTest::DtPduFilterTest()
{
   disableTest();
}

DtPduFilterTest::~DtPduFilterTest() = default;

unsigned int DtPduFilterTest::valueOf(DtListItem const* item)
{
   return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(item->data()));
}

void DtPduFilterTest::disableTest()
{
   setOperator(DtPduTestRejectListed);
}

void DtPduFilterTest::setOperator(DtPduTestOperator op)
{
   clearList();
   myOperator = op;
}

void DtPduFilterTest::setTest(DtPduTestOperator op, int n, unsigned int* values)
{
   setOperator(op);
   extendTest(n, values);
}

void DtPduFilterTest::extendTest(int n, unsigned int* values)
{
   if (!values)
      return;
   for (int i = 0; i < n; ++i)
      myValues.add(slotOf(values[i]));
}

int DtPduFilterTest::reduceTest(int n, unsigned int* values)
{
   if (!values)
      return n;
   for (int i = 0; i < n; ++i)
      myValues.remove(myValues.itemLookup(slotOf(values[i])));
   return n;
}

bool DtPduFilterTest::evalTest(void* data, int offset, DtPduFilterType type)
{
   bool const rejecting = (myOperator == DtPduTestRejectListed);
   // Only a byte test reads anything: the IP address test of DtDisSocket is
   // called with DtPduFilterNone and so never looks at its list or endpoint.
   if (type != DtPduFilterByte)
      return rejecting;
   if (!data)
      return rejecting;
   unsigned int const byte = static_cast<unsigned char const*>(data)[offset];
   for (DtListItem* item = myValues.first(); item; item = item->next())
   {
      if (valueOf(item) == byte)
         return !rejecting;
   }
   return rejecting;
}

void DtPduFilterTest::clearList()
{
   myValues.removeAll();
}
