// Tests of the abort function and of the fatal and warning functions.
#include <olutil/olFatal.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{
// Keeps every write as its level followed by its text.
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool) override
   {
      all += std::to_string(level) + text;
   }
   std::string all;
};

int theAborts = 0;

// Each test starts with a counting abort function, so nothing ends the test program,
// and every stream recorded; the start-up state is restored afterwards.
class FatalTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      theAborts = 0;
      DtSetAbortFunc([] { ++theAborts; });
      DtSetOstrelPrinter(&printer);
   }
   void TearDown() override
   {
      DtSetAbortFunc(nullptr);
      DtNotifyLevel = 2;
      DtSetOstrelPrinter(&DtStandardOutConsole);
   }
   RecordingPrinter printer;
};

// Runs `body` in a forked child with the library's default abort function, and gives
// its exit status, ':' and its standard output. The child writes far less than a pipe
// holds, and an alarm ends one that hangs.
std::string runInChild(void (*body)())
{
   int fds[2];
   if (pipe(fds) != 0)
      return "no pipe";
   std::fflush(nullptr);  // or the child's exit would print the parent's pending output
   pid_t const pid = fork();
   if (pid == 0)
   {
      alarm(20);
      dup2(fds[1], STDOUT_FILENO);
      body();
      std::fflush(nullptr);
      _exit(0);  // reached only when the body returned
   }
   close(fds[1]);
   std::string result;
   char chunk[4096];
   for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;)
      result.append(chunk, static_cast<std::size_t>(n));
   close(fds[0]);
   int status = 0;
   bool const exited = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status);
   return (exited ? std::to_string(WEXITSTATUS(status)) : "no exit") + ":" + result;
}

void writeFromExitHandler()
{
   if (::write(STDOUT_FILENO, "exit handler ran\n", 17) != 17)
      _exit(3);
}
}  // namespace

TEST(FatalExit, OnlyTheFatalFunctionsEndTheProcessWith255EvenSilenced)
{
   struct Case
   {
      void (*body)();
      std::string expected;
   } const cases[] = {
       {[]
        {
           std::atexit(writeFromExitHandler);  // the exit is an ordinary one
           DtFatalError("boom %d", 7);
        },
        "255:**FATAL ERROR**: boom 7\nexit handler ran\n"},
       {[]
        {
           DtSetOstrelPrinter(nullptr);
           DtFatalNetPerror("unheard");
        },
        "255:"},
       {[]
        {
           DtFatal << "just text\n";
           errno = EINVAL;
           DtWarnPerror("warned");
        },
        "0:just text\nwarned: " + std::string(std::strerror(EINVAL)) + "\n"},
   };
   for (Case const& c : cases)
      EXPECT_EQ(runInChild(c.body), c.expected);
}

TEST_F(FatalTest, FatalErrorReturnsWhenTheAbortFunctionReturns)
{
   DtFatalError("disk %s is %d%% full", "sda", 99);
   DtFatal << "only text\n";  // writing to DtFatal alone ends nothing
   EXPECT_EQ(theAborts, 1);
   EXPECT_EQ(printer.all, "0**FATAL ERROR**: disk sda is 99% full\n0only text\n");
   void (*thrower)() = [] { throw 17; };
   DtSetAbortFunc(thrower);
   EXPECT_EQ(DtGetAbortFunc(), thrower);
   EXPECT_THROW(DtFatalError("x"), int);
}

TEST_F(FatalTest, PerrorTextsTheCutAndTheLevels)
{
   errno = ENOENT;
   DtFatalPerror("cannot open %s", "x.cfg");
   errno = ECONNREFUSED;
   DtFatalNetPerror("connect");
   DtFatalError("%s", std::string(3000, 'q').c_str());
   DtFatalError(nullptr);
   errno = EACCES;
   DtWarnPerror("read %d", 3);
   errno = EHOSTUNREACH;
   DtWarnNetPerror("send %s %f", "value", 1.5);
   DtWarnPerror(nullptr);
   EXPECT_EQ(theAborts, 4) << "the warnings return without aborting";
   EXPECT_EQ(printer.all,
             "0**FATAL ERROR**: cannot open x.cfg: " + std::string(std::strerror(ENOENT)) +
                 "\n0**FATAL ERROR**: connect: " + std::string(std::strerror(ECONNREFUSED)) +
                 "\n0**FATAL ERROR**: " + std::string(2047, 'q') +
                 "\n1read 3: " + std::string(std::strerror(EACCES)) +
                 "\n1send value 1.500000: " + std::string(std::strerror(EHOSTUNREACH)) + "\n");
   printer.all.clear();
   DtNotifyLevel = 0;  // warnings go quiet; fatal errors still print
   DtWarnPerror("quiet");
   DtWarnNetPerror("quiet");
   DtFatalError("at zero");
   DtNotifyLevel = -1;  // silent, and still aborting
   DtFatalError("f");
   DtFatalPerror("p");
   EXPECT_EQ(theAborts, 7);
   EXPECT_EQ(printer.all, "0**FATAL ERROR**: at zero\n");
}
