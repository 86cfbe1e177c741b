// Tests of DtException, its chain of causes, and DtTemplatedException.
#include <olutil/olExceptions.h>

#include <sstream>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

static std::string printed(DtException const& e)
{
   std::ostringstream out;
   out << e;
   return out.str();
}

static int theRaiseLine = 0;

static void raiseWithCause(DtException const* cause)
{
   theRaiseLine = __LINE__ + 1;
   DtThrowChainedException(1001, DtString("Thread already running."), cause);
}

TEST(Exception, TextsLocationAndAChainPrintedNewestFirst)
{
   DtException empty(nullptr, nullptr, nullptr, 0, nullptr);
   EXPECT_EQ(std::string(empty.message()) + "|" + empty.where().c_str(), "| [:0] ");
   DtException root("disk full", "void write()", "io.cpp", 4294967295u);
   EXPECT_EQ(root.initialException(), &root);
   DtException middle("save failed", &root);
   DtException newest("quit failed", "void quit()", "app.cpp", 30, &middle);
   EXPECT_EQ(printed(newest),
             "quit failed (void quit() [app.cpp:30] )\n"
             "save failed ()\n"
             "disk full (void write() [io.cpp:4294967295] )\n");
   EXPECT_STREQ(newest.initialException()->message(), "disk full");
}

TEST(Exception, CausesCopiesAndAssignmentsOwnDeepCopiesOfTheChain)
{
   auto* root = new DtException("root", "r", "r.cpp", 1);
   auto* middle = new DtException("middle", root);
   DtException top("top", middle);
   delete middle;
   delete root;
   std::string const chain = "top ()\nmiddle ()\nroot (r [r.cpp:1] )\n";
   EXPECT_EQ(printed(top), chain);
   {
      DtException copy(top);
      DtException assigned("a", &copy);
      assigned = copy;
      EXPECT_EQ(printed(copy) + printed(assigned), chain + chain);
   }
   EXPECT_EQ(printed(top), chain) << "the copies' end left the source's chain intact";
   top = *&top;
   top = *top.lastException();  // the source lives inside the chain being let go
   EXPECT_EQ(printed(top), "middle ()\nroot (r [r.cpp:1] )\n");
}

TEST(TemplatedException, EachCodeHasItsPrefix)
{
   static_assert(sizeof(DtInvalidInput) == sizeof(DtException), "adds no field");
   static_assert(!std::is_same_v<DtThreadNotStarted, DtThreadAlreadyRunning>);
   EXPECT_EQ(std::string(DtExceptionText<-1>("a").c_str()) + DtExceptionText<1001>("b").c_str() +
                 DtExceptionText<1002>("c").c_str() + DtExceptionText<1003>("d").c_str(),
             "DtInvalidInput: aDtThreadAlreadyRunning: bDtThreadNotStarted: c"
             "DtThreadCreationError: d");
}

TEST(TemplatedException, RaisedByValueWithSignatureBareFileLineAndCause)
{
   DtException cause("socket closed", "void s()", "s.cpp", 9);
   try
   {
      raiseWithCause(&cause);
      ADD_FAILURE() << "nothing was thrown";
   }
   catch (DtThreadAlreadyRunning const& e)
   {
      EXPECT_EQ(printed(e),
                "DtThreadAlreadyRunning: Thread already running. (void "
                "raiseWithCause(const DtException*) [test_olExceptions.cpp:" +
                    std::to_string(theRaiseLine) + "] )\nsocket closed (void s() [s.cpp:9] )\n");
   }
}
