// Tests of DtException, its chain of causes, and DtTemplatedException.
#include <olutil/olExceptions.h>

#include <sstream>
#include <string>

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

// Outside the anonymous namespace, so that the signature reads the same with any
// compiler.
static void raiseWithCause(DtException const* cause)
{
   theRaiseLine = __LINE__ + 1;
   DtThrowChainedException(1001, DtString("Thread already running."), cause);
}

// Defined at the end of this file, in a source file that lies at the root.
void raiseFromRootDirectory();

TEST(Exception, TextsLocationAndAChainPrintedNewestFirst)
{
   DtException plain("went wrong");
   EXPECT_EQ(text(plain.where()), "");
   EXPECT_EQ(plain.initialException(), &plain);
   DtException empty(nullptr, nullptr, nullptr, 0, nullptr);
   EXPECT_EQ(std::string(empty.message()) + "|" + text(empty.where()), "| [:0] ");
   DtException root("disk full", "void write()", "io.cpp", 4294967295u);
   DtException middle("save failed", &root);
   DtException newest("quit failed", "void quit()", "app.cpp", 30, &middle);
   EXPECT_EQ(printed(newest),
             "quit failed (void quit() [app.cpp:30] )\n"
             "save failed ()\n"
             "disk full (void write() [io.cpp:4294967295] )\n");
   EXPECT_EQ(text(newest.lastException()->what()), "save failed");
   EXPECT_EQ(text(newest.initialException()->what()), "disk full");
   EXPECT_EQ(newest.initialException()->lastException(), nullptr);
}

TEST(Exception, CausesCopiesAndAssignmentsOwnDeepCopiesOfTheChain)
{
   auto* root = new DtException("root", "r", "r.cpp", 1);
   auto* middle = new DtException("middle", root);
   DtException top("top", middle);
   EXPECT_NE(top.lastException(), middle);
   delete middle;
   delete root;
   std::string const chain = "top ()\nmiddle ()\nroot (r [r.cpp:1] )\n";
   EXPECT_EQ(printed(top), chain);
   {
      DtException copy(top);
      EXPECT_NE(copy.lastException(), top.lastException());
      DtException assigned("a", &copy);
      assigned = copy;
      EXPECT_EQ(printed(copy) + printed(assigned), chain + chain);
   }
   // The copies' end left the source's chain intact.
   EXPECT_EQ(printed(top), chain);
   DtException& same = top;
   top = same;
   // The source lives inside the chain that the assignment lets go of.
   top = *top.lastException();
   EXPECT_EQ(printed(top), "middle ()\nroot (r [r.cpp:1] )\n");
   top = DtException("alone");
   EXPECT_EQ(printed(top), "alone ()\n");
}

TEST(TemplatedException, EachCodeHasItsPrefix)
{
   static_assert(sizeof(DtInvalidInput) == sizeof(DtException), "adds no field");
   EXPECT_EQ(text(DtExceptionText<-1>("a")) + text(DtExceptionText<1001>("b")) +
                 text(DtExceptionText<1002>("c")) + text(DtExceptionText<1003>("d")) +
                 text(DtExceptionText<1004>("e")),
             "DtInvalidInput: aDtThreadAlreadyRunning: bDtThreadNotStarted: c"
             "DtThreadCreationError: dDtThreadWouldDeadlock: e");
}

TEST(TemplatedException, RaisedByValueWithSignatureFileLineAndCause)
{
   DtException cause("socket closed", "void s()", "s.cpp", 9);
   DtException const* const causes[] = {nullptr, &cause};
   for (DtException const* c : causes)
   {
      try
      {
         raiseWithCause(c);
         ADD_FAILURE() << "nothing was thrown";
      }
      catch (DtThreadNotStarted const&)
      {
         ADD_FAILURE() << "caught as another code's type";
      }
      catch (DtThreadAlreadyRunning const& e)
      {
         EXPECT_EQ(printed(e),
                   "DtThreadAlreadyRunning: Thread already running. (void "
                   "raiseWithCause(const DtException*) [test_olExceptions.cpp:" +
                       std::to_string(theRaiseLine) + "] )\n" +
                       (c ? "socket closed (void s() [s.cpp:9] )\n" : ""));
      }
   }
   // The file goes through the static DtFilename::stripPath, which keeps a lone
   // leading separator.
   try
   {
      raiseFromRootDirectory();
      ADD_FAILURE() << "nothing was thrown";
   }
   catch (DtThreadNotStarted const& e)
   {
      EXPECT_EQ(text(e.where()), "void raiseFromRootDirectory() [/raise.cpp:3] ");
   }
}

// Keep this last: from here on the file calls itself "/raise.cpp".
#line 1 "/raise.cpp"
void raiseFromRootDirectory()
{
   DtThrowException(1002, "from the root");
}
