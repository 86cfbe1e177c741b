// Tests of DtAssert and the DtAssertCheck macro.
#include <olutil/olAssert.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{
class AssertTest : public ::testing::Test
{
protected:
   void TearDown() override { DtAssert::fatal(); }
   olt::CapturePrinter capture{DtWarn};
};

std::string theCalls;
}  // namespace

static int theFailingLine = 0;
static void failingFunction(int value)
{
   theFailingLine = __LINE__ + 1;
   DtAssertCheck(value > 10);
}

TEST_F(AssertTest, MacroInTheThreeModes)
{
   DtAssert::warn();
   failingFunction(3);
   failingFunction(11);
   std::string const at = "[test_olAssert.cpp:" + std::to_string(theFailingLine) + "]";
   std::string const line =
       "DtAssert `value > 10` Failed in `void failingFunction(int)` " + at + "\n";
   EXPECT_EQ(capture.text(), line);
   DtAssert::fatal();  // prints the same line, then throws a pointer
   try
   {
      failingFunction(0);
      ADD_FAILURE() << "nothing was thrown";
   }
   catch (DtException* thrown)
   {
      std::unique_ptr<DtException> const e(thrown);
      EXPECT_EQ(std::string(e->message()) + "|" + e->where().c_str(),
                "Assert|void failingFunction(int) " + at + " ");
      EXPECT_EQ(e->lastException(), nullptr);
   }
   DtAssert::ignore();
   failingFunction(0);
   EXPECT_EQ(capture.text(), line + line);
}

TEST_F(AssertTest, MacroPassesItsArgumentsInOrderAndEvaluatesOnce)
{
   theCalls.clear();
   DtAssert::setAssertFunction(
       [](char const* file, char const* function, int line, char const* expression)
       {
          theCalls +=
              std::string(file) + "|" + function + "|" + std::to_string(line) + "|" + expression;
       });
   int const line = __LINE__ + 1;
   DtAssertCheck(1 + 1 == 3);
   EXPECT_EQ(theCalls, "test_olAssert.cpp|" + std::string(__PRETTY_FUNCTION__) + "|" +
                           std::to_string(line) + "|1 + 1 == 3");
   int evaluations = 0;
   if (evaluations == 0)
      DtAssertCheck(++evaluations == 0);
   else
      FAIL() << "the macro swallowed the else";
   EXPECT_EQ(evaluations, 1);
   EXPECT_NE(theCalls.find("|++evaluations == 0"), std::string::npos) << "the handler ran";
}
