// Tests of DtPduFilterTest.
#include <olutil/olPduFilterTest.h>

#include <vector>

#include <gtest/gtest.h>

namespace
{
bool passesExercise(DtPduFilterTest& test, unsigned char exercise)
{
   unsigned char pdu[12] = {7, exercise, 1, 1, 0, 0, 0, 0, 0, 12, 0, 0};
   return test.evalTest(pdu, 1, DtPduFilterByte);
}
}  // namespace

TEST(DtPduFilterTestTest, OperatorAndValuesDecide)
{
   struct Case
   {
      char const* name;
      int op;  // -1: a new test
      std::vector<unsigned int> values;
      std::vector<std::pair<unsigned char, bool>> checks;
   };
   Case const cases[] = {
       {"new test passes everything", -1, {}, {{0, true}, {1, true}, {255, true}}},
       {"1 rejects listed", 1, {1, 2}, {{0, true}, {1, false}, {2, false}, {3, true}}},
       {"0 accepts listed only", 0, {1}, {{1, true}, {2, false}, {0, false}}},
       {"any other value accepts listed only", 5, {1}, {{1, true}, {2, false}}},
       {"accept with empty list fails all", 0, {}, {{0, false}, {1, false}, {255, false}}},
       {"zero is listable", 0, {0}, {{0, true}, {1, false}}},
       {"values above a byte never match", 0, {256 + 7}, {{7, false}}},
   };
   for (Case const& tc : cases)
   {
      SCOPED_TRACE(tc.name);
      DtPduFilterTest test;
      std::vector<unsigned int> values = tc.values;
      if (tc.op >= 0)
         test.setTest(static_cast<DtPduTestOperator>(tc.op), static_cast<int>(values.size()),
                      values.data());
      for (auto const& check : tc.checks)
         EXPECT_EQ(check.second, passesExercise(test, check.first)) << int(check.first);
   }

   // The offset selects the byte.
   DtPduFilterTest test;
   unsigned int kind = 72;
   test.setTest(DtPduTestAcceptListed, 1, &kind);
   unsigned char pdu[12] = {6, 3, 72};
   EXPECT_TRUE(test.evalTest(pdu, 2, DtPduFilterByte));
   EXPECT_FALSE(test.evalTest(pdu, 1, DtPduFilterByte));
}

TEST(DtPduFilterTestTest, ListMaintenance)
{
   DtPduFilterTest test;
   unsigned int values[] = {3, 3, 9};
   test.setTest(DtPduTestAcceptListed, 3, values);
   EXPECT_EQ(3, test.valueCount());  // duplicates are kept

   unsigned int three = 3;
   EXPECT_EQ(1, test.reduceTest(1, &three));
   EXPECT_TRUE(passesExercise(test, 3));  // one entry removed per value
   EXPECT_EQ(1, test.reduceTest(1, &three));
   EXPECT_FALSE(passesExercise(test, 3));
   EXPECT_TRUE(passesExercise(test, 9));
   unsigned int absent[] = {42, 43};
   EXPECT_EQ(2, test.reduceTest(2, absent));
   EXPECT_EQ(1, test.valueCount());

   DtPduFilterTest copy(test);
   // Changing the operator always discards the values.
   test.setOperator(DtPduTestAcceptListed);
   EXPECT_EQ(0, test.valueCount());
   EXPECT_FALSE(passesExercise(test, 9));
   EXPECT_TRUE(passesExercise(copy, 9));

   test.setTest(DtPduTestAcceptListed, 1, &three);
   test.disableTest();
   EXPECT_TRUE(passesExercise(test, 1));
   EXPECT_EQ(0, test.valueCount());
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
