// Tests of DtException, its chain of causes, and DtTemplatedException.
#include <olutil/olExceptions.h>

#include <sstream>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace
{
std::string text(DtString const& s)
{
   return s.c_str();
}

std::string printed(DtException const& e)
{
   std::ostringstream out;
   out << e;
   return out.str();
}

int theRaiseLine = 0;
}  // namespace

// Outside the anonymous namespace, so that their signatures read the same with any
// compiler.
static void raiseAlreadyRunning(int)
{
   theRaiseLine = __LINE__ + 1;
   DtThrowException(1001, "Thread already running.");
}

static void raiseWithCause(DtException const& cause)
{
   theRaiseLine = __LINE__ + 1;
   DtThrowChainedException(-1, DtString("Input may not be null."), &cause);
}

namespace
{
// The what text of the exception DtThrowException raises for `code`.
template <int code>
std::string raisedText(char const* message)
{
   try
   {
      DtThrowException(code, message);
   }
   catch (DtTemplatedException<code> const& e)
   {
      return text(e.what());
   }
   return "not raised";
}
}  // namespace

// ---------------------------------------------------------------- construction

TEST(Exception, TwoArgumentFormHasNoLocation)
{
   DtException e("went wrong");
   EXPECT_EQ(text(e.what()), "went wrong");
   EXPECT_STREQ(e.message(), "went wrong");
   EXPECT_EQ(text(e.where()), "");
   EXPECT_EQ(e.lastException(), nullptr);
   EXPECT_EQ(e.initialException(), &e);
}

TEST(Exception, NullTextsGiveEmptyTexts)
{
   DtException plain(nullptr, nullptr);
   EXPECT_EQ(text(plain.what()), "");
   EXPECT_STREQ(plain.message(), "");

   DtException located(nullptr, nullptr, nullptr, 0, nullptr);
   EXPECT_EQ(text(located.what()), "");
   EXPECT_EQ(text(located.where()), " [:0] ");
}

TEST(Exception, WhereHoldsFunctionFileLineAndAFinalBlank)
{
   DtException e("bad", "void f(int)", "file.cpp", 42, nullptr);
   EXPECT_EQ(text(e.what()), "bad");
   EXPECT_EQ(text(e.where()), "void f(int) [file.cpp:42] ");
}

TEST(Exception, WhereWithLargestLine)
{
   DtException e("bad", "g", "x.cpp", 4294967295u);
   EXPECT_EQ(text(e.where()), "g [x.cpp:4294967295] ");
}

TEST(Exception, LongTextsAreKeptWhole)
{
   std::string longWhat(500, 'w');
   std::string longFunction(300, 'f');
   DtException e(longWhat.c_str(), longFunction.c_str(), "x.cpp", 1);
   EXPECT_EQ(text(e.what()), longWhat);
   EXPECT_EQ(text(e.where()), longFunction + " [x.cpp:1] ");
}

TEST(Exception, MessagePointerLivesWithTheException)
{
   DtException e("stable");
   char const* first = e.message();
   DtString copy = e.what();
   EXPECT_EQ(e.message(), first);
   EXPECT_STREQ(first, "stable");
}

// ---------------------------------------------------------------- chains

TEST(ExceptionChain, ThreeExceptionsPrintNewestFirst)
{
   DtException root("disk full", "void write()", "io.cpp", 10);
   DtException middle("save failed", "void save()", "doc.cpp", 20, &root);
   DtException newest("quit failed", "void quit()", "app.cpp", 30, &middle);

   EXPECT_EQ(printed(newest),
             "quit failed (void quit() [app.cpp:30] )\n"
             "save failed (void save() [doc.cpp:20] )\n"
             "disk full (void write() [io.cpp:10] )\n");
   ASSERT_NE(newest.initialException(), nullptr);
   EXPECT_EQ(text(newest.initialException()->what()), "disk full");
   EXPECT_EQ(newest.initialException()->lastException(), nullptr);
   ASSERT_NE(newest.lastException(), nullptr);
   EXPECT_EQ(text(newest.lastException()->what()), "save failed");
   EXPECT_EQ(newest.lastException()->initialException(), newest.initialException());
}

TEST(ExceptionChain, PrintedFormWithoutLocation)
{
   DtException root("cause");
   DtException top("effect", &root);
   EXPECT_EQ(printed(top), "effect ()\ncause ()\n");
}

TEST(ExceptionChain, TheCauseIsADeepCopy)
{
   auto* root = new DtException("root");
   auto* middle = new DtException("middle", root);
   DtException top("top", middle);
   EXPECT_NE(top.lastException(), middle);
   EXPECT_NE(top.lastException()->lastException(), root);
   delete middle;
   delete root;
   EXPECT_EQ(printed(top), "top ()\nmiddle ()\nroot ()\n");
}

TEST(ExceptionChain, CopyingCopiesTheWholeChain)
{
   DtException root("root", "r", "r.cpp", 1);
   DtException top("top", "t", "t.cpp", 2, &root);
   std::string before = printed(top);
   {
      DtException copy(top);
      EXPECT_EQ(printed(copy), before);
      EXPECT_NE(copy.lastException(), top.lastException());
      EXPECT_NE(copy.initialException(), top.initialException());
   }
   // The copy's end left the source's chain intact.
   EXPECT_EQ(printed(top), before);
}

TEST(ExceptionChain, AssignmentReplacesTextsAndChain)
{
   DtException a1("a1");
   DtException a("a", "fa", "a.cpp", 1, &a1);
   DtException b1("b1");
   DtException b0("b0", &b1);
   DtException b("b", "fb", "b.cpp", 2, &b0);

   a = b;
   EXPECT_EQ(printed(a), printed(b));
   EXPECT_NE(a.lastException(), b.lastException());

   DtException alone("alone");
   a = alone;
   EXPECT_EQ(a.lastException(), nullptr);
   EXPECT_EQ(printed(a), "alone ()\n");
   EXPECT_EQ(printed(b), "b (fb [b.cpp:2] )\nb0 ()\nb1 ()\n");
}

TEST(ExceptionChain, SelfAssignmentAndAssignmentFromOwnCause)
{
   DtException root("root");
   DtException top("top", &root);
   DtException& same = top;
   top = same;
   EXPECT_EQ(printed(top), "top ()\nroot ()\n");

   // The source lives inside the chain that the assignment lets go of.
   top = *top.lastException();
   EXPECT_EQ(printed(top), "root ()\n");
   EXPECT_EQ(top.lastException(), nullptr);
}

TEST(ExceptionChain, PrintingGoesToAnyStream)
{
   DtException e("x", "f", "g.cpp", 3);
   std::ostringstream out;
   out << "[" << e << "]";
   EXPECT_EQ(out.str(), "[x (f [g.cpp:3] )\n]");
}

// ---------------------------------------------------------------- templated exceptions

TEST(TemplatedException, TypesOfTheErrorCodes)
{
   static_assert(std::is_same<DtInvalidInput, DtTemplatedException<-1>>::value, "");
   static_assert(std::is_same<DtThreadAlreadyRunning, DtTemplatedException<1001>>::value, "");
   static_assert(std::is_same<DtThreadNotStarted, DtTemplatedException<1002>>::value, "");
   static_assert(std::is_same<DtThreadCreationError, DtTemplatedException<1003>>::value, "");
   static_assert(std::is_same<DtThreadWouldDeadlock, DtTemplatedException<1004>>::value, "");
   static_assert(std::is_base_of<DtException, DtInvalidInput>::value, "");
   static_assert(sizeof(DtInvalidInput) == sizeof(DtException), "adds no field");
   SUCCEED();
}

TEST(TemplatedException, EachCodeHasItsPrefix)
{
   struct Case
   {
      std::string raised;
      char const* expected;
   };
   Case const cases[] = {
       {raisedText<-1>("Input may not be null."), "DtInvalidInput: Input may not be null."},
       {raisedText<1001>("Thread already running."),
        "DtThreadAlreadyRunning: Thread already running."},
       {raisedText<1002>("Thread must be started to be stopped."),
        "DtThreadNotStarted: Thread must be started to be stopped."},
       {raisedText<1003>("Failed to start."), "DtThreadCreationError: Failed to start."},
       {raisedText<1004>("Would deadlock."), "DtThreadWouldDeadlock: Would deadlock."},
       {raisedText<77>("Unnamed."), "Unnamed."},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.expected);
      EXPECT_EQ(c.raised, c.expected);
   }
}

TEST(TemplatedException, RaisedWithSignatureBareFileAndLine)
{
   try
   {
      raiseAlreadyRunning(5);
      FAIL() << "nothing was thrown";
   }
   catch (DtThreadAlreadyRunning const& e)
   {
      EXPECT_EQ(text(e.what()), "DtThreadAlreadyRunning: Thread already running.");
      std::string expected =
          "void raiseAlreadyRunning(int) [test_olExceptions.cpp:" + std::to_string(theRaiseLine) +
          "] ";
      EXPECT_EQ(text(e.where()), expected);
      EXPECT_EQ(e.lastException(), nullptr);
   }
}

TEST(TemplatedException, CaughtByItsOwnTypeOnly)
{
   bool caughtOwn = false;
   bool caughtOther = false;
   try
   {
      try
      {
         DtThrowException(1002, "Thread must be started to be stopped.");
      }
      catch (DtThreadAlreadyRunning const&)
      {
         caughtOther = true;
      }
   }
   catch (DtThreadNotStarted const&)
   {
      caughtOwn = true;
   }
   EXPECT_TRUE(caughtOwn);
   EXPECT_FALSE(caughtOther);
}

TEST(TemplatedException, CaughtAsTheBaseClass)
{
   try
   {
      DtThrowException(1003, "Failed to start.");
   }
   catch (DtException const& e)
   {
      EXPECT_STREQ(e.message(), "DtThreadCreationError: Failed to start.");
      return;
   }
   FAIL() << "not caught as DtException";
}

TEST(TemplatedException, ChainedRaiseKeepsACopyOfTheCause)
{
   try
   {
      DtException cause("socket closed", "void s()", "s.cpp", 9);
      raiseWithCause(cause);
   }
   catch (DtInvalidInput const& e)
   {
      EXPECT_EQ(text(e.what()), "DtInvalidInput: Input may not be null.");
      ASSERT_NE(e.lastException(), nullptr);
      EXPECT_EQ(text(e.initialException()->what()), "socket closed");
      EXPECT_EQ(text(e.initialException()->where()), "void s() [s.cpp:9] ");
      EXPECT_NE(
          text(e.where()).find("[test_olExceptions.cpp:" + std::to_string(theRaiseLine) + "] "),
          std::string::npos);
      return;
   }
   FAIL() << "nothing was thrown";
}

TEST(TemplatedException, MessageTypesAndNamedCodes)
{
   try
   {
      DtThrowException(DtThreadNotStartedCode, std::string("from std::string"));
   }
   catch (DtThreadNotStarted const& e)
   {
      EXPECT_STREQ(e.message(), "DtThreadNotStarted: from std::string");
   }
   try
   {
      DtThrowException(DtInvalidInputCode, DtString("from DtString"));
   }
   catch (DtInvalidInput const& e)
   {
      EXPECT_STREQ(e.message(), "DtInvalidInput: from DtString");
   }
   try
   {
      char const* none = nullptr;
      DtThrowException(DtThreadCreationErrorCode, none);
   }
   catch (DtThreadCreationError const& e)
   {
      EXPECT_STREQ(e.message(), "DtThreadCreationError: ");
   }
}

TEST(TemplatedException, SourceFileNameIsTheLastComponent)
{
   struct Case
   {
      char const* path;
      char const* name;
   };
   Case const cases[] = {
       {"/work/libsrc/olutil/olThreadedObject.cpp", "olThreadedObject.cpp"},
       {"relative/dir/file.cpp", "file.cpp"},
       {"file.cpp", "file.cpp"},
       {"/file.cpp", "file.cpp"},
       {"dir/", ""},
       {"", ""},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.path);
      EXPECT_STREQ(DtSourceFileName(c.path), c.name);
   }
   EXPECT_EQ(DtSourceFileName(nullptr), nullptr);
   static_assert(DtSourceFileName("a/b")[0] == 'b', "usable at compile time");
}
