// Tests of DtAssert and the DtAssertCheck macro.
#include <olutil/olAssert.h>

#include <olutil/olPrint.h>

#include <algorithm>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace
{
// Keeps every write as its level, ' ' when it completes a line or '+', and its text.
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool lineComplete) override
   {
      all += std::to_string(level) + (lineComplete ? " " : "+") + text;
   }
   std::string all;
};

std::string theCalls;
void recordingHandler(char const* file, char const* function, int line, char const* expression)
{
   theCalls += std::string(file) + "|" + function + "|" + std::to_string(line) + "|" + expression;
}

// Runs `body`; the pointer an assertion threw, or null.
std::unique_ptr<DtException> thrownBy(void (*body)())
{
   try
   {
      body();
   }
   catch (DtException* e)
   {
      return std::unique_ptr<DtException>(e);
   }
   return nullptr;
}

// Starts from the fatal reaction and level 2, with DtWarn recorded instead of printed.
class AssertTest : public ::testing::Test
{
protected:
   void SetUp() override { DtSetOstrelPrinter(&printer); }
   void TearDown() override
   {
      DtAssert::fatal();
      DtNotifyLevel = 2;
      DtSetOstrelPrinter(&DtStandardOutConsole);
   }
   RecordingPrinter printer;
};
}  // namespace

static int theFailingLine = 0;
static void failingFunction(int value)
{
   theFailingLine = __LINE__ + 1;
   DtAssertCheck(value > 10);
}

TEST_F(AssertTest, DefaultHandlersPrintOnWarnAndFatalThrowsAPointer)
{
   // TearDown of every test restores it, so this holds whatever ran before.
   EXPECT_EQ(DtAssert::getAssertFunction(), &DtAssert::defaultFatal);
   std::string const line = "1 DtAssert `x > 0` Failed in `void f()` [file.cpp:12]\n";
   DtAssert::defaultNonFatal("file.cpp", "void f()", 12, "x > 0");
   auto e = thrownBy([] { DtAssert::defaultFatal("file.cpp", "void f()", 12, "x > 0"); });
   ASSERT_NE(e, nullptr);
   EXPECT_EQ(std::string(e->message()) + "|" + e->where().c_str(),
             "Assert|void f() [file.cpp:12] ");
   EXPECT_EQ(e->lastException(), nullptr);
   DtNotifyLevel = 0;  // hides the line, but still throws
   EXPECT_NE(thrownBy([] { DtAssert::defaultFatal("a.cpp", "g", 1, "false"); }), nullptr);
   EXPECT_EQ(printer.all, line + line);
}

TEST_F(AssertTest, MacroInTheThreeModes)
{
   DtAssert::warn();
   EXPECT_EQ(DtAssert::getAssertFunction(), &DtAssert::defaultNonFatal);
   failingFunction(3);
   failingFunction(11);
   std::string const at = "[test_olAssert.cpp:" + std::to_string(theFailingLine) + "]";
   EXPECT_EQ(printer.all,
             "1 DtAssert `value > 10` Failed in `void failingFunction(int)` " + at + "\n");
   DtAssert::fatal();
   auto e = thrownBy([] { failingFunction(0); });
   ASSERT_NE(e, nullptr);
   EXPECT_EQ(std::string(e->where().c_str()), "void failingFunction(int) " + at + " ");
   printer.all.clear();
   DtAssert::ignore();
   EXPECT_EQ(DtAssert::getAssertFunction(), nullptr);
   EXPECT_EQ(thrownBy([] { failingFunction(0); }), nullptr);
   EXPECT_EQ(printer.all, "");
}

TEST_F(AssertTest, MacroPassesItsArgumentsInOrderAndEvaluatesOnce)
{
   theCalls.clear();
   DtAssert::setAssertFunction(recordingHandler);
   EXPECT_EQ(DtAssert::theAssertFunction, &recordingHandler);
   int line = __LINE__ + 1;
   DtAssertCheck(1 + 1 == 3);
   EXPECT_EQ(theCalls, "test_olAssert.cpp|" + std::string(__PRETTY_FUNCTION__) + "|" +
                           std::to_string(line) + "|1 + 1 == 3");
   int evaluations = 0;
   if (evaluations == 0)
      DtAssertCheck(++evaluations == 0);
   else
      FAIL() << "the macro swallowed the else";
   EXPECT_EQ(evaluations, 1);
   EXPECT_EQ(std::count(theCalls.begin(), theCalls.end(), '|'), 6) << "called once more";
}
