// Tests of the abort function and of the fatal and warning functions.
#include <olutil/olFatal.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
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

std::string errorText(int error)
{
   return std::strerror(error);
}

// Runs `body` in a forked child with the library's default abort function, and gives
// its exit status, ':' and its standard output. The child writes far less than a pipe
// holds, so it never blocks; one that outlives the bound is killed.
std::string runInChild(std::function<void()> const& body)
{
   int fds[2];
   if (pipe(fds) != 0)
      return "no pipe";
   std::cout.flush();
   std::fflush(nullptr);  // or the child's exit would print the parent's pending output
   pid_t pid = fork();
   if (pid == 0)
   {
      dup2(fds[1], STDOUT_FILENO);
      body();
      std::cout.flush();
      _exit(0);  // reached only when the body returned
   }
   close(fds[1]);
   int status = 0;
   pid_t done = 0;
   for (int i = 0; i < 3000 && pid > 0 && (done = waitpid(pid, &status, WNOHANG)) == 0; ++i)
      usleep(10000);
   if (pid > 0 && done == 0)
   {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
   }
   std::string result =
       done == pid && WIFEXITED(status) ? std::to_string(WEXITSTATUS(status)) + ":" : "no exit:";
   char chunk[4096];
   for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;)
      result.append(chunk, static_cast<std::size_t>(n));
   close(fds[0]);
   return result;
}

void writeFromExitHandler()
{
   char const text[] = "exit handler ran\n";
   ssize_t ignored = ::write(STDOUT_FILENO, text, sizeof text - 1);
   (void)ignored;
}
}  // namespace

TEST(FatalExit, OnlyTheFatalFunctionsEndTheProcessWith255EvenSilenced)
{
   std::vector<std::pair<void (*)(), std::string>> cases = {
       {[]
        {
           std::atexit(writeFromExitHandler);
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
        "0:just text\nwarned: " + errorText(EINVAL) + "\n"},
   };
   for (auto const& c : cases)
      EXPECT_EQ(runInChild(c.first), c.second);
}

TEST_F(FatalTest, FatalErrorReturnsWhenTheAbortFunctionReturns)
{
   DtFatalError("disk %s is %d%% full", "sda", 99);
   DtFatal << "only text\n";  // writing to DtFatal alone ends nothing
   EXPECT_EQ(theAborts, 1);
   EXPECT_EQ(printer.all, "**FATAL ERROR**: disk sda is 99% full\nonly text\n");
   EXPECT_EQ(printer.levels, (std::vector<int>{0, 0}));
   void (*thrower)() = [] { throw 17; };
   DtSetAbortFunc(thrower);
   EXPECT_EQ(DtGetAbortFunc(), thrower);
   EXPECT_THROW(DtFatalError("x"), int);
}

TEST_F(FatalTest, PerrorTextsTheCutAndTheLevel)
{
   errno = ENOENT;
   DtFatalPerror("cannot open %s", "x.cfg");
   errno = ECONNREFUSED;
   DtFatalNetPerror("connect");
   DtFatalError("%s", std::string(3000, 'q').c_str());
   DtFatalError(nullptr);
   EXPECT_EQ(printer.all, "**FATAL ERROR**: cannot open x.cfg: " + errorText(ENOENT) +
                              "\n**FATAL ERROR**: connect: " + errorText(ECONNREFUSED) +
                              "\n**FATAL ERROR**: " + std::string(2047, 'q') + "\n");
   DtNotifyLevel = 0;
   DtFatalError("at zero");
   DtNotifyLevel = -1;  // silent, and still aborting
   DtFatalError("f");
   DtFatalPerror("p");
   EXPECT_EQ(theAborts, 7);
   EXPECT_EQ(printer.levels, (std::vector<int>{0, 0, 0, 0}));
}

TEST_F(FatalTest, WarnPerrorPrintsOnWarnFromLevelOneAndReturns)
{
   errno = EACCES;
   DtWarnPerror("read %d", 3);
   errno = EHOSTUNREACH;
   DtWarnNetPerror("send %s %f", "value", 1.5);
   DtWarnPerror(nullptr);
   DtNotifyLevel = 0;
   DtWarnPerror("quiet");
   DtWarnNetPerror("quiet");
   EXPECT_EQ(printer.all, "read 3: " + errorText(EACCES) +
                              "\nsend value 1.500000: " + errorText(EHOSTUNREACH) + "\n");
   EXPECT_EQ(printer.levels, (std::vector<int>{1, 1}));
   EXPECT_EQ(theAborts, 0);
}
