//===- olPduFilterTest.h - One list-based test on incoming PDUs -*- C++ -*-===//
//
// Family: DIS.
//
// DtPduFilterTest holds an operator and a list of byte values. DtDisSocket
// keeps four of them (protocol version, exercise id, PDU kind, IP address) and
// applies them to every PDU it delivers. With the operator
// DtPduTestRejectListed a listed value fails and everything else passes; with
// any other operator only a listed value passes.
//
// A test takes no lock: it is set up and evaluated by one thread at a time.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLPDUFILTERTEST_H
#define OLUTIL_OLPDUFILTERTEST_H

#include <olutil/olList.h>

// How a test treats the values in its list.
enum DtPduTestOperator : int
{
   // Only a listed value passes.
   DtPduTestAcceptListed = 0,
   // A listed value fails; everything else passes.
   DtPduTestRejectListed = 1
};

// What a test looks at.
enum DtPduFilterType : int
{
   // No comparison: the answer depends on the operator alone.
   DtPduFilterNone = 0,
   // One byte of the PDU, at the offset given to evalTest.
   DtPduFilterByte = 1
};

class DtPduFilterTest
{
public:
   // An empty test that passes everything (see disableTest).
   DtPduFilterTest();
   DtPduFilterTest(DtPduFilterTest const&) = default;
   DtPduFilterTest& operator=(DtPduFilterTest const&) = default;
   virtual ~DtPduFilterTest();

   // Clears the list, then stores op: changing the operator always discards
   // the values.
   virtual void setOperator(DtPduTestOperator op);
   // setOperator(op), then extendTest(n, values).
   virtual void setTest(DtPduTestOperator op, int n, unsigned int* values);
   // Adds n values; duplicates are kept.
   virtual void extendTest(int n, unsigned int* values);
   // Removes, for each value, its first entry in the list; returns n.
   virtual int reduceTest(int n, unsigned int* values);
   // True when the data passes. A type other than DtPduFilterByte compares
   // nothing and answers whether the operator is DtPduTestRejectListed.
   virtual bool evalTest(void* data, int offset, DtPduFilterType type);
   // Removes every value.
   virtual void clearList();

   // Leaves a test that passes everything: an empty reject list.
   void disableTest();

   // True when evalTest passes every PDU whatever it holds: a reject list that is
   // empty. Lets a caller skip the call on the common path.
   bool passesEverything() const
   {
      return myOperator == DtPduTestRejectListed && myValues.isEmpty();
   }

   DtPduTestOperator getOperator() const { return myOperator; }
   // The values, each stored directly in a list slot (see valueOf).
   DtList const& values() const { return myValues; }
   int valueCount() const { return myValues.count(); }
   static unsigned int valueOf(DtListItem const* item);

private:
   DtPduTestOperator myOperator = DtPduTestRejectListed;
   DtList myValues;
};

#endif  // OLUTIL_OLPDUFILTERTEST_H
