// Tests of DtPduFilterTest.
#include <olutil/olPduFilterTest.h>

#include <gtest/gtest.h>

namespace
{
// A 12-byte PDU header with the given version, exercise and kind.
struct Pdu
{
   unsigned char bytes[12] = {7, 1, 1, 1, 0, 0, 0, 0, 0, 12, 0, 0};
   Pdu(unsigned char version, unsigned char exercise, unsigned char kind)
   {
      bytes[0] = version;
      bytes[1] = exercise;
      bytes[2] = kind;
   }
};

bool passesExercise(DtPduFilterTest& test, unsigned char exercise)
{
   Pdu pdu(7, exercise, 1);
   return test.evalTest(pdu.bytes, 1, DtPduFilterByte);
}
}  // namespace

TEST(DtPduFilterTestTest, NewTestPassesEveryByte)
{
   DtPduFilterTest test;
   EXPECT_EQ(DtPduTestRejectListed, test.getOperator());
   EXPECT_EQ(0, test.valueCount());
   for (unsigned int v = 0; v < 256; ++v)
   {
      unsigned char byte = static_cast<unsigned char>(v);
      EXPECT_TRUE(test.evalTest(&byte, 0, DtPduFilterByte)) << v;
   }
}

TEST(DtPduFilterTestTest, OperatorOneRejectsListedValues)
{
   DtPduFilterTest test;
   unsigned int values[] = {1, 2};
   test.setTest(DtPduTestRejectListed, 2, values);
   struct
   {
      unsigned char exercise;
      bool passes;
   } const cases[] = {{0, true}, {1, false}, {2, false}, {3, true}, {255, true}};
   for (auto const& c : cases)
   {
      SCOPED_TRACE(int(c.exercise));
      EXPECT_EQ(c.passes, passesExercise(test, c.exercise));
   }
}

TEST(DtPduFilterTestTest, OtherOperatorAcceptsOnlyListedValues)
{
   DtPduFilterTest test;
   unsigned int value = 1;
   test.setTest(DtPduTestAcceptListed, 1, &value);
   EXPECT_TRUE(passesExercise(test, 1));
   EXPECT_FALSE(passesExercise(test, 2));
   EXPECT_FALSE(passesExercise(test, 0));

   // Any operator value but 1 behaves the same way.
   test.setTest(static_cast<DtPduTestOperator>(5), 1, &value);
   EXPECT_TRUE(passesExercise(test, 1));
   EXPECT_FALSE(passesExercise(test, 2));
}

TEST(DtPduFilterTestTest, AcceptWithEmptyListFailsEverything)
{
   DtPduFilterTest test;
   test.setOperator(DtPduTestAcceptListed);
   for (unsigned int v = 0; v < 256; ++v)
      EXPECT_FALSE(passesExercise(test, static_cast<unsigned char>(v))) << v;
}

TEST(DtPduFilterTestTest, SetOperatorDiscardsValues)
{
   DtPduFilterTest test;
   unsigned int values[] = {4, 5, 6};
   test.setTest(DtPduTestAcceptListed, 3, values);
   EXPECT_EQ(3, test.valueCount());
   test.setOperator(DtPduTestAcceptListed);
   EXPECT_EQ(0, test.valueCount());
   EXPECT_FALSE(passesExercise(test, 4));
}

TEST(DtPduFilterTestTest, ExtendKeepsDuplicatesAndReduceRemovesOneEach)
{
   DtPduFilterTest test;
   unsigned int values[] = {3, 3, 9};
   test.setTest(DtPduTestAcceptListed, 3, values);
   EXPECT_EQ(3, test.valueCount());

   unsigned int three = 3;
   EXPECT_EQ(1, test.reduceTest(1, &three));
   EXPECT_EQ(2, test.valueCount());
   EXPECT_TRUE(passesExercise(test, 3));

   EXPECT_EQ(1, test.reduceTest(1, &three));
   EXPECT_FALSE(passesExercise(test, 3));
   EXPECT_TRUE(passesExercise(test, 9));

   // A value not in the list is counted as given but changes nothing.
   unsigned int absent[] = {42, 43};
   EXPECT_EQ(2, test.reduceTest(2, absent));
   EXPECT_EQ(1, test.valueCount());
}

TEST(DtPduFilterTestTest, ZeroIsAListableValue)
{
   DtPduFilterTest test;
   unsigned int zero = 0;
   test.setTest(DtPduTestAcceptListed, 1, &zero);
   EXPECT_TRUE(passesExercise(test, 0));
   EXPECT_FALSE(passesExercise(test, 1));
   test.reduceTest(1, &zero);
   EXPECT_EQ(0, test.valueCount());
}

TEST(DtPduFilterTestTest, ValuesAboveAByteNeverMatch)
{
   DtPduFilterTest test;
   unsigned int big = 256 + 7;
   test.setTest(DtPduTestAcceptListed, 1, &big);
   Pdu pdu(7, 1, 1);
   EXPECT_FALSE(test.evalTest(pdu.bytes, 0, DtPduFilterByte));
}

TEST(DtPduFilterTestTest, OffsetSelectsTheByte)
{
   DtPduFilterTest test;
   unsigned int kind = 72;
   test.setTest(DtPduTestAcceptListed, 1, &kind);
   Pdu pdu(6, 3, 72);
   EXPECT_TRUE(test.evalTest(pdu.bytes, 2, DtPduFilterByte));
   EXPECT_FALSE(test.evalTest(pdu.bytes, 1, DtPduFilterByte));
}

TEST(DtPduFilterTestTest, NonByteTypeAnswersByOperatorAlone)
{
   // The IP address test gives the same answer whatever it is handed.
   DtPduFilterTest test;
   unsigned int values[] = {127, 10};
   int endpointA = 1, endpointB = 2;
   test.setTest(DtPduTestRejectListed, 2, values);
   EXPECT_TRUE(test.evalTest(&endpointA, 0, DtPduFilterNone));
   EXPECT_TRUE(test.evalTest(&endpointB, 0, DtPduFilterNone));
   EXPECT_TRUE(test.evalTest(nullptr, 0, DtPduFilterNone));

   test.setTest(DtPduTestAcceptListed, 2, values);
   EXPECT_FALSE(test.evalTest(&endpointA, 0, DtPduFilterNone));
   EXPECT_FALSE(test.evalTest(&endpointB, 0, DtPduFilterNone));
   EXPECT_FALSE(test.evalTest(&endpointA, 0, static_cast<DtPduFilterType>(2)));
}

TEST(DtPduFilterTestTest, DisableTestRestoresPassAll)
{
   DtPduFilterTest test;
   unsigned int v = 5;
   test.setTest(DtPduTestAcceptListed, 1, &v);
   test.disableTest();
   EXPECT_TRUE(passesExercise(test, 1));
   EXPECT_TRUE(passesExercise(test, 5));
   EXPECT_EQ(0, test.valueCount());
}

TEST(DtPduFilterTestTest, CopyIsIndependent)
{
   DtPduFilterTest test;
   unsigned int v = 5;
   test.setTest(DtPduTestAcceptListed, 1, &v);
   DtPduFilterTest copy(test);
   test.clearList();
   EXPECT_TRUE(passesExercise(copy, 5));
   EXPECT_FALSE(passesExercise(test, 5));
}
