// Tests of the abort function and of the fatal and warning functions.
#include <olutil/olFatal.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool) override
   {
      all += text;
      levels.push_back(level);
   }
   std::string all;
   std::vector<int> levels;
};

int theAborts = 0;
void countingAbort()
{
   ++theAborts;
}

void throwingAbort()
{
   throw 17;
}

// Each test starts with a counting abort function (so nothing ends the test program),
// level 2 and every stream recorded; the start-up state is restored afterwards.
class FatalTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      theAborts = 0;
      savedAbort_ = DtGetAbortFunc();
      savedLevel_ = DtNotifyLevel;
      DtSetAbortFunc(countingAbort);
      DtNotifyLevel = 2;
      DtSetOstrelPrinter(&printer);
   }
   void TearDown() override
   {
      DtSetAbortFunc(savedAbort_);
      DtNotifyLevel = savedLevel_;
      DtSetOstrelPrinter(&DtStandardOutConsole);
   }

   RecordingPrinter printer;

private:
   DtAbortFunc savedAbort_ = nullptr;
   int savedLevel_ = 2;
};

struct ChildResult
{
   bool exited = false;
   int status = -1;
   std::string output;
};

// Runs `body` in a forked child whose standard output is captured, with the library's
// default abort function. A child that outlives the bound is killed.
ChildResult runInChild(std::function<void()> const& body)
{
   ChildResult result;
   int fds[2];
   if (pipe(fds) != 0)
      return result;
   std::cout.flush();
   std::fflush(nullptr);
   pid_t pid = fork();
   if (pid < 0)
      return result;
   if (pid == 0)
   {
      dup2(fds[1], STDOUT_FILENO);
      close(fds[0]);
      close(fds[1]);
      DtSetAbortFunc(nullptr);
      DtSetOstrelPrinter(&DtStandardOutConsole);
      body();
      std::cout.flush();
      _exit(0);  // reached only when the body returned
   }
   close(fds[1]);
   auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
   for (;;)
   {
      pollfd p{fds[0], POLLIN, 0};
      if (std::chrono::steady_clock::now() > deadline)
      {
         kill(pid, SIGKILL);
         break;
      }
      if (poll(&p, 1, 100) <= 0)
         continue;
      char chunk[512];
      ssize_t n = read(fds[0], chunk, sizeof chunk);
      if (n <= 0)
         break;
      result.output.append(chunk, static_cast<std::size_t>(n));
   }
   close(fds[0]);
   int status = 0;
   if (waitpid(pid, &status, 0) == pid && WIFEXITED(status))
   {
      result.exited = true;
      result.status = WEXITSTATUS(status);
   }
   return result;
}

std::string errnoText(int error)
{
   return std::strerror(error);
}

void writeFromExitHandler()
{
   char const text[] = "exit handler ran\n";
   ssize_t ignored = ::write(STDOUT_FILENO, text, sizeof text - 1);
   (void)ignored;
}
}  // namespace

// ---------------------------------------------------------------- ending the process

TEST(FatalExit, FatalErrorEndsTheProcessWithStatus255)
{
   ChildResult child = runInChild([] { DtFatalError("boom %d", 7); });
   ASSERT_TRUE(child.exited);
   EXPECT_EQ(child.status, 255);
   EXPECT_EQ(child.output, "**FATAL ERROR**: boom 7\n");
}

TEST(FatalExit, ExitHandlersRun)
{
   ChildResult child = runInChild(
       []
       {
          std::atexit(writeFromExitHandler);
          DtAbort();
       });
   ASSERT_TRUE(child.exited);
   EXPECT_EQ(child.status, 255);
   EXPECT_EQ(child.output, "exit handler ran\n");
}

TEST(FatalExit, SilencedLibraryStillEnds)
{
   ChildResult child = runInChild(
       []
       {
          DtSetOstrelPrinter(nullptr);
          DtFatalError("unheard");
       });
   ASSERT_TRUE(child.exited);
   EXPECT_EQ(child.status, 255);
   EXPECT_EQ(child.output, "");
}

TEST(FatalExit, EveryFatalFunctionEnds)
{
   std::vector<std::function<void()>> bodies = {
       [] { DtFatalPerror("p"); },
       [] { DtFatalNetPerror("n"); },
       [] { DtFatalError(nullptr); },
   };
   for (std::size_t i = 0; i < bodies.size(); ++i)
   {
      SCOPED_TRACE(i);
      ChildResult child = runInChild(bodies[i]);
      ASSERT_TRUE(child.exited);
      EXPECT_EQ(child.status, 255);
   }
}

TEST(FatalExit, WarningsAndPlainFatalOutputDoNotEnd)
{
   ChildResult child = runInChild(
       []
       {
          DtFatal << "just text\n";
          errno = EINVAL;
          DtWarnPerror("warned");
          DtWarnNetPerror("net warned");
       });
   ASSERT_TRUE(child.exited);
   EXPECT_EQ(child.status, 0);
   EXPECT_EQ(child.output, "just text\nwarned: " + errnoText(EINVAL) +
                               "\nnet warned: " + errnoText(EINVAL) + "\n");
}

// ---------------------------------------------------------------- abort function

TEST_F(FatalTest, AbortFunctionIsStoredAndCalled)
{
   EXPECT_EQ(DtGetAbortFunc(), &countingAbort);
   DtAbort();
   EXPECT_EQ(theAborts, 1);
   DtSetAbortFunc(throwingAbort);
   EXPECT_EQ(DtGetAbortFunc(), &throwingAbort);
   EXPECT_THROW(DtAbort(), int);
}

TEST_F(FatalTest, FatalErrorReturnsWhenTheAbortFunctionReturns)
{
   DtFatalError("disk %s is %d%% full", "sda", 99);
   EXPECT_EQ(theAborts, 1);
   EXPECT_EQ(printer.all, "**FATAL ERROR**: disk sda is 99% full\n");
   EXPECT_EQ(printer.levels, std::vector<int>{0});
}

TEST_F(FatalTest, AnAbortFunctionThatThrowsPassesThrough)
{
   DtSetAbortFunc(throwingAbort);
   EXPECT_THROW(DtFatalError("x"), int);
   EXPECT_EQ(printer.all, "**FATAL ERROR**: x\n");
}

TEST_F(FatalTest, NullFormatPrintsNothingAndAborts)
{
   DtFatalError(nullptr);
   DtFatalPerror(nullptr);
   DtFatalNetPerror(nullptr);
   EXPECT_EQ(theAborts, 3);
   EXPECT_EQ(printer.all, "");
}

TEST_F(FatalTest, LevelDecidesPrintingButNeverAborting)
{
   struct Case
   {
      int level;
      bool prints;
   };
   Case const cases[] = {{-1, false}, {0, true}, {1, true}, {4, true}};
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.level);
      DtNotifyLevel = c.level;
      printer.all.clear();
      theAborts = 0;
      DtFatalError("f");
      DtFatalPerror("p");
      EXPECT_EQ(theAborts, 2);
      EXPECT_EQ(!printer.all.empty(), c.prints);
   }
}

TEST_F(FatalTest, PerrorAddsTheSystemMessage)
{
   errno = ENOENT;
   DtFatalPerror("cannot open %s", "x.cfg");
   errno = ECONNREFUSED;
   DtFatalNetPerror("connect");
   EXPECT_EQ(theAborts, 2);
   EXPECT_EQ(printer.all, "**FATAL ERROR**: cannot open x.cfg: " + errnoText(ENOENT) +
                              "\n**FATAL ERROR**: connect: " + errnoText(ECONNREFUSED) + "\n");
}

TEST_F(FatalTest, MessagesAreCutAt2047Bytes)
{
   std::string longText(3000, 'q');
   DtFatalError("%s", longText.c_str());
   EXPECT_EQ(printer.all, "**FATAL ERROR**: " + std::string(2047, 'q') + "\n");
   printer.all.clear();
   errno = EPERM;
   DtWarnPerror("%s", longText.c_str());
   EXPECT_EQ(printer.all, std::string(2047, 'q') + ": " + errnoText(EPERM) + "\n");
}

TEST_F(FatalTest, WritingToFatalAloneEndsNothing)
{
   DtFatal << "only text\n";
   DtFatal("%s\n", "only printf");
   EXPECT_EQ(theAborts, 0);
   EXPECT_EQ(printer.all, "only text\nonly printf\n");
}

// ---------------------------------------------------------------- warnings

TEST_F(FatalTest, WarnPerrorPrintsOnWarnAndReturns)
{
   errno = EACCES;
   DtWarnPerror("read %d", 3);
   errno = EHOSTUNREACH;
   DtWarnNetPerror("send");
   EXPECT_EQ(theAborts, 0);
   EXPECT_EQ(printer.all,
             "read 3: " + errnoText(EACCES) + "\nsend: " + errnoText(EHOSTUNREACH) + "\n");
   EXPECT_EQ(printer.levels, (std::vector<int>{1, 1}));
}

TEST_F(FatalTest, WarnPerrorIsSilentBelowLevelOne)
{
   DtNotifyLevel = 0;
   DtWarnPerror("quiet");
   DtWarnNetPerror("quiet");
   EXPECT_EQ(printer.all, "");
   DtNotifyLevel = 1;
   DtWarnPerror(nullptr);
   DtWarnNetPerror(nullptr);
   EXPECT_EQ(printer.all, "");
   EXPECT_EQ(theAborts, 0);
}

TEST_F(FatalTest, ErrnoIsReadBeforeFormatting)
{
   // An argument whose formatting could disturb errno must not change the message.
   errno = ENOSPC;
   DtWarnPerror("%s %f", "value", 1.5);
   EXPECT_EQ(printer.all, "value 1.500000: " + errnoText(ENOSPC) + "\n");
}
