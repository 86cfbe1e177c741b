// Tests of DtAssert and the DtAssertCheck macro.
#include <olutil/olAssert.h>

#include <olutil/olPrint.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool lineComplete) override
   {
      texts.push_back(text);
      levels.push_back(level);
      complete.push_back(lineComplete);
   }
   std::vector<std::string> texts;
   std::vector<int> levels;
   std::vector<bool> complete;
};

struct Call
{
   std::string file, function, expression;
   int line;
};
std::vector<Call> theCalls;

void recordingHandler(char const* file, char const* function, int line, char const* expression)
{
   theCalls.push_back({file, function, expression, line});
}

// Every test starts from the library's start-up state and leaves it so: the fatal
// reaction, level 2, and DtWarn recorded instead of printed.
class AssertTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      theCalls.clear();
      savedLevel_ = DtNotifyLevel;
      DtNotifyLevel = 2;
      DtSetOstrelPrinter(&printer);
   }
   void TearDown() override
   {
      DtAssert::fatal();
      DtNotifyLevel = savedLevel_;
      DtSetOstrelPrinter(&DtStandardOutConsole);
   }

   RecordingPrinter printer;

private:
   int savedLevel_ = 2;
};

int theEvaluations = 0;
bool countedFalse()
{
   ++theEvaluations;
   return false;
}
}  // namespace

static int theFailingLine = 0;

static void failingFunction(int value)
{
   theFailingLine = __LINE__ + 1;
   DtAssertCheck(value > 10);
}

TEST_F(AssertTest, FatalIsTheStartingReaction)
{
   // TearDown of every test restores it, so this holds whatever ran before.
   EXPECT_EQ(DtAssert::getAssertFunction(), &DtAssert::defaultFatal);
   EXPECT_EQ(DtAssert::theAssertFunction, &DtAssert::defaultFatal);
}

TEST_F(AssertTest, ModesSelectTheHandler)
{
   DtAssert::warn();
   EXPECT_EQ(DtAssert::getAssertFunction(), &DtAssert::defaultNonFatal);
   DtAssert::ignore();
   EXPECT_EQ(DtAssert::getAssertFunction(), nullptr);
   DtAssert::fatal();
   EXPECT_EQ(DtAssert::getAssertFunction(), &DtAssert::defaultFatal);
   DtAssert::setAssertFunction(recordingHandler);
   EXPECT_EQ(DtAssert::getAssertFunction(), &recordingHandler);
   DtAssert::setAssertFunction(nullptr);
   EXPECT_EQ(DtAssert::getAssertFunction(), nullptr);
}

TEST_F(AssertTest, NonFatalWritesOneLineOnWarnAndReturns)
{
   DtAssert::defaultNonFatal("file.cpp", "void f()", 12, "x > 0");
   ASSERT_EQ(printer.texts.size(), 1u);
   EXPECT_EQ(printer.texts[0], "DtAssert `x > 0` Failed in `void f()` [file.cpp:12]\n");
   EXPECT_EQ(printer.levels[0], 1);  // DtWarn, not DtFatal
   EXPECT_TRUE(printer.complete[0]);
}

TEST_F(AssertTest, FatalWritesTheSameLineAndThrowsAHeapException)
{
   try
   {
      DtAssert::defaultFatal("file.cpp", "void f()", 12, "x > 0");
      FAIL() << "nothing was thrown";
   }
   catch (DtException* raw)
   {
      std::unique_ptr<DtException> e(raw);
      EXPECT_STREQ(e->message(), "Assert");
      EXPECT_EQ(std::string(e->where().c_str()), "void f() [file.cpp:12] ");
      EXPECT_EQ(e->lastException(), nullptr);
   }
   ASSERT_EQ(printer.texts.size(), 1u);
   EXPECT_EQ(printer.texts[0], "DtAssert `x > 0` Failed in `void f()` [file.cpp:12]\n");
   EXPECT_EQ(printer.levels[0], 1);
}

TEST_F(AssertTest, FatalThrowIsNotCaughtAsAValue)
{
   bool caughtByValue = false;
   DtException* caught = nullptr;
   try
   {
      try
      {
         DtAssert::defaultFatal("a.cpp", "g", 1, "false");
      }
      catch (DtException const&)
      {
         caughtByValue = true;
      }
   }
   catch (DtException* e)
   {
      caught = e;
   }
   EXPECT_FALSE(caughtByValue);
   ASSERT_NE(caught, nullptr);
   delete caught;
}

TEST_F(AssertTest, FatalThrowsEvenWhenTheLevelHidesTheLine)
{
   DtNotifyLevel = 0;
   DtException* caught = nullptr;
   try
   {
      DtAssert::defaultFatal("a.cpp", "g", 1, "false");
   }
   catch (DtException* e)
   {
      caught = e;
   }
   EXPECT_TRUE(printer.texts.empty());
   ASSERT_NE(caught, nullptr);
   delete caught;
}

TEST_F(AssertTest, NullPiecesPrintAsEmptyAndLeaveWarnUsable)
{
   DtAssert::defaultNonFatal(nullptr, nullptr, -3, nullptr);
   ASSERT_EQ(printer.texts.size(), 1u);
   EXPECT_EQ(printer.texts[0], "DtAssert `` Failed in `` [:-3]\n");
   EXPECT_TRUE(DtWarn.good());
}

TEST_F(AssertTest, MacroWithWarnPrintsAndGoesOn)
{
   DtAssert::warn();
   failingFunction(3);
   ASSERT_EQ(printer.texts.size(), 1u);
   EXPECT_EQ(printer.texts[0],
             "DtAssert `value > 10` Failed in `void failingFunction(int)` "
             "[test_olAssert.cpp:" +
                 std::to_string(theFailingLine) + "]\n");
   failingFunction(11);
   EXPECT_EQ(printer.texts.size(), 1u);
}

TEST_F(AssertTest, MacroWithFatalThrows)
{
   DtException* caught = nullptr;
   try
   {
      failingFunction(0);
   }
   catch (DtException* e)
   {
      caught = e;
   }
   ASSERT_NE(caught, nullptr);
   EXPECT_STREQ(caught->message(), "Assert");
   EXPECT_EQ(std::string(caught->where().c_str()), "void failingFunction(int) [test_olAssert.cpp:" +
                                                       std::to_string(theFailingLine) + "] ");
   delete caught;
   EXPECT_EQ(printer.texts.size(), 1u);
}

TEST_F(AssertTest, MacroWithIgnoreDoesNothing)
{
   DtAssert::ignore();
   EXPECT_NO_THROW(failingFunction(0));
   EXPECT_TRUE(printer.texts.empty());
}

TEST_F(AssertTest, MacroPassesItsArgumentsInTheHandlersOrder)
{
   DtAssert::setAssertFunction(recordingHandler);
   int line = __LINE__ + 1;
   DtAssertCheck(1 + 1 == 3);
   ASSERT_EQ(theCalls.size(), 1u);
   EXPECT_EQ(theCalls[0].file, "test_olAssert.cpp");
   EXPECT_NE(theCalls[0].function.find("MacroPassesItsArgumentsInTheHandlersOrder"),
             std::string::npos);
   EXPECT_EQ(theCalls[0].line, line);
   EXPECT_EQ(theCalls[0].expression, "1 + 1 == 3");
}

TEST_F(AssertTest, MacroEvaluatesItsConditionOnce)
{
   DtAssert::setAssertFunction(recordingHandler);
   theEvaluations = 0;
   DtAssertCheck(countedFalse());
   EXPECT_EQ(theEvaluations, 1);
   EXPECT_EQ(theCalls.size(), 1u);

   DtAssert::ignore();
   DtAssertCheck(countedFalse());
   EXPECT_EQ(theEvaluations, 2);
}

TEST_F(AssertTest, MacroIsOneStatement)
{
   DtAssert::setAssertFunction(recordingHandler);
   if (theCalls.empty())
      DtAssertCheck(false);
   else
      FAIL() << "the macro swallowed the else";
   EXPECT_EQ(theCalls.size(), 1u);
}
