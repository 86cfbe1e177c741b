// Tests of DtPduFilterTest.
#include <olutil/olPduFilterTest.h>

#include <utility>
#include <vector>

#include <gtest/gtest.h>

static bool passesExercise(DtPduFilterTest& test, unsigned char exercise)
{
   unsigned char pdu[12] = {7, exercise, 1, 1, 0, 0, 0, 0, 0, 12, 0, 0};
   return test.evalTest(pdu, 1, DtPduFilterByte);
}

TEST(DtPduFilterTestTest, OperatorOneRejectsListedAnyOtherAcceptsOnlyListed)
{
   struct Case
   {
      int op;  // -1: a new test
      std::vector<unsigned int> values;
      std::vector<std::pair<unsigned char, bool>> checks;
   } cases[] = {
       {-1, {}, {{0, true}, {255, true}}},
       {1, {1, 2}, {{1, false}, {2, false}, {3, true}}},
       {0, {1}, {{1, true}, {2, false}}},
       {5, {1}, {{1, true}, {2, false}}},
       {0, {}, {{0, false}, {1, false}}},
       {0, {0}, {{0, true}, {1, false}}},  // zero is a value like any other
       {0, {256 + 7}, {{7, false}}},       // values above a byte never match
   };
   for (Case& tc : cases)
   {
      DtPduFilterTest test;
      if (tc.op >= 0)
         test.setTest(static_cast<DtPduTestOperator>(tc.op), static_cast<int>(tc.values.size()),
                      tc.values.data());
      for (auto const& [exercise, passes] : tc.checks)
         EXPECT_EQ(passes, passesExercise(test, exercise)) << tc.op << " " << int(exercise);
   }
}

TEST(DtPduFilterTestTest, ListMaintenance)
{
   DtPduFilterTest test;
   unsigned int values[] = {3, 3, 9}, three = 3, absent = 42;
   test.setTest(DtPduTestAcceptListed, 3, values);  // duplicates are kept
   EXPECT_EQ(2, test.reduceTest(1, &three) + test.reduceTest(1, &absent));
   EXPECT_TRUE(passesExercise(test, 3)) << "one entry removed per value";
   EXPECT_EQ(2, test.valueCount());
   DtPduFilterTest copy(test);
   test.setOperator(DtPduTestAcceptListed);  // always discards the values
   EXPECT_FALSE(passesExercise(test, 9));
   EXPECT_TRUE(passesExercise(copy, 9));
   test.disableTest();
   EXPECT_TRUE(passesExercise(test, 1));
}

TEST(DtPduFilterTestTest, NonByteTypeAnswersByOperatorAloneAndReadsNothing)
{
   DtPduFilterTest test;
   unsigned int values[] = {127, 10};
   test.setTest(DtPduTestRejectListed, 2, values);
   EXPECT_TRUE(test.evalTest(nullptr, 0, DtPduFilterNone));
   test.setTest(DtPduTestAcceptListed, 2, values);
   EXPECT_FALSE(test.evalTest(nullptr, 0, static_cast<DtPduFilterType>(2)));
}
