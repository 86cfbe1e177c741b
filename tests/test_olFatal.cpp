// Tests of the abort function and of the fatal and warning functions.
#include <olutil/olFatal.h>

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

// A counting abort function keeps the test program alive; every stream is recorded.
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

std::string withErrno(char const* message, int error)
{
   return std::string(message) + ": " + std::strerror(error) + "\n";
}
}  // namespace

// The default abort is an ordinary exit(-1): exit handlers run, even when silenced.
TEST(FatalDeathTest, DefaultAbortExitsWith255)
{
   EXPECT_EXIT(
       {
          std::atexit([] { std::fputs("exit handler ran\n", stderr); });
          DtFatalError("boom");
       },
       ::testing::ExitedWithCode(255), "exit handler ran");
   EXPECT_EXIT(
       {
          DtNotifyLevel = -1;
          DtFatalNetPerror("unheard");
       },
       ::testing::ExitedWithCode(255), "");
}

TEST_F(FatalTest, FatalErrorReturnsWhenTheAbortFunctionReturns)
{
   DtFatalError("disk %s is %d%% full", "sda", 99);
   DtFatal << "only text\n";  // writing to DtFatal alone ends nothing
   EXPECT_EQ(theAborts, 1);
   EXPECT_EQ(printer.all, "0**FATAL ERROR**: disk sda is 99% full\n0only text\n");
}

TEST_F(FatalTest, PerrorTextsTheCutAndTheLevels)
{
   errno = ENOENT;
   DtFatalPerror("cannot open %s", "x.cfg");
   DtFatalError("%s", std::string(3000, 'q').c_str());
   DtFatalError(nullptr);
   errno = EHOSTUNREACH;
   DtWarnNetPerror("send %s %d", "value", 1);
   DtWarnPerror(nullptr);
   errno = EACCES;
   DtWarnPerror("read");
   EXPECT_EQ(theAborts, 3) << "the warnings return without aborting";
   EXPECT_EQ(printer.all, "0**FATAL ERROR**: " + withErrno("cannot open x.cfg", ENOENT) +
                              "0**FATAL ERROR**: " + std::string(2047, 'q') + "\n1" +
                              withErrno("send value 1", EHOSTUNREACH) + "1" +
                              withErrno("read", EACCES));
   printer.all.clear();
   DtNotifyLevel = 0;  // warnings go quiet; fatal errors still print
   DtWarnPerror("quiet");
   DtFatalError("at zero");
   DtNotifyLevel = -1;  // silent, and still aborting
   DtFatalPerror("p");
   EXPECT_EQ(theAborts, 5);
   EXPECT_EQ(printer.all, "0**FATAL ERROR**: at zero\n");
}
