// Tests of the run's identity and log names, and of DtPrintAddrLines: crashes
// by SIGSEGV, SIGABRT and SIGFPE in forked children, and the call-stack file
// they leave.
#include <olutil/olLogFileInfo.h>

#include <execinfo.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "../libsrc/olutil/olCrashSupport.h"
#include "support_crash.h"

namespace
{

using namespace olt;

// Each test works in a directory of its own, which it leaves behind empty.
class LogFileInfoTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      std::filesystem::create_directories(directory);
      DtLogFileInfo& info = DtLogFileInfo::instance();
      info.setAppName("app");
      info.setProtocol("");
      info.setVersion("1");
      info.setSvnRev("2");
   }
   void TearDown() override { std::filesystem::remove_all(directory); }

   std::string const directory =
       "/tmp/olt-logfileinfo-" + std::to_string(getpid()) + "-" +
       ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

bool allDigits(std::string const& text, std::size_t count)
{
   return text.size() == count && text.find_first_not_of("0123456789") == std::string::npos;
}

// A line of backtrace_symbols ends with the frame's address: "... [0x4011d6]".
bool endsWithAddress(std::string const& line)
{
   std::size_t const open = line.rfind(" [0x");
   return open != std::string::npos && line.back() == ']' &&
          line.find_first_not_of("0123456789abcdef", open + 4) == line.size() - 1;
}

}  // namespace

TEST_F(LogFileInfoTest, TheIdentityJoinsItsFieldsInOrder)
{
   DtLogFileInfo const& info = DtLogFileInfo::instance();
   EXPECT_EQ(&info, &DtLogFileInfo::instance());
   EXPECT_TRUE(allDigits(info.getDate(), 8)) << info.getDate();
   EXPECT_EQ(0u, info.getDate().find("20"));
   EXPECT_TRUE(allDigits(info.getTime(), 6)) << info.getTime();
   EXPECT_LT(info.getTime(), "240000");
   char host[256] = {};
   gethostname(host, sizeof host - 1);
   EXPECT_EQ(host, info.getHostname());
   EXPECT_EQ(std::to_string(getpid()), info.getPid());
   EXPECT_EQ("app", info.getAppName());
   EXPECT_EQ("", info.getProtocol());
   EXPECT_EQ("1", info.getVersion());
   EXPECT_EQ("2", info.getSvnRev());

   std::string const tail = info.getDate() + "-" + info.getTime() + "-" + info.getHostname() +
                            "-2-" + info.getPid();
   EXPECT_EQ("app1-" + tail, info.getFullString());
   EXPECT_EQ("app1-" + tail + ".log", info.getLogFileName());
   EXPECT_EQ("app1-" + tail + ".callstack.log", info.getCallStackFileName());
   DtLogFileInfo::instance().setProtocol("dis");
   EXPECT_EQ("appdis1-" + tail, info.getFullString());
}

TEST_F(LogFileInfoTest, AnUnsetApplicationNameGivesTheProgramsName)
{
   DtLogFileInfo& info = DtLogFileInfo::instance();
   info.setAppName("");
   EXPECT_EQ("", info.getAppName());
   EXPECT_EQ(std::string(program_invocation_short_name) + "1-",
             info.getFullString().substr(0, std::strlen(program_invocation_short_name) + 2));
}

TEST_F(LogFileInfoTest, SetupChangesExactlyThreeSignals)
{
   // In a child: the test program's own handlers stay as they are.
   int report[2];
   ASSERT_EQ(0, pipe(report));
   int const status = inChild([&] {
      struct sigaction before[65] = {}, after[65] = {};
      for (int s = 1; s < 65; ++s)
         sigaction(s, nullptr, &before[s]);
      DtLogFileInfo::setupErrorHandling();
      std::string changed;
      for (int s = 1; s < 65; ++s)
      {
         sigaction(s, nullptr, &after[s]);
         bool const same = before[s].sa_handler == after[s].sa_handler &&
                           before[s].sa_flags == after[s].sa_flags;
         if (same)
            continue;
         changed += std::to_string(s);
         bool const ours = (after[s].sa_flags & SA_SIGINFO) &&
                           after[s].sa_sigaction == &DtPrintAddrLines;
         changed += ours ? "" : "(not the handler)";
         for (int m = 1; m < 65; ++m)
            changed += sigismember(&after[s].sa_mask, m) == 1 ? "(masks " + std::to_string(m) + ")" : "";
         changed += " ";
      }
      ssize_t const written = write(report[1], changed.data(), changed.size());
      _exit(written >= 0 ? 0 : 1);
   });
   close(report[1]);
   char text[256] = {};
   ssize_t const got = read(report[0], text, sizeof text - 1);
   close(report[0]);
   EXPECT_TRUE(exitedWith(status, 0)) << status;
   EXPECT_GT(got, 0);
   EXPECT_STREQ("6 8 11 ", text);
}

TEST_F(LogFileInfoTest, ACrashLeavesTheCallStackBesideTheLogsAndExitsWithOne)
{
   struct Case
   {
      int signal;
      char const* firstLine;
   } const cases[] = {
       {SIGSEGV, "Error: signal 11 Segmentation fault"},
       {SIGABRT, "Error: signal 6 Aborted"},
       {SIGFPE, "Error: signal 8 Floating point exception"},
   };
   std::string const name = DtLogFileInfo::instance().getCallStackFileName();
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.firstLine);
      int const status = inChild([&] {
         if (chdir(directory.c_str()) != 0)
            _exit(97);
         DtLogFileInfo::setupErrorHandling();
         crashBy(c.signal);
      });
      EXPECT_TRUE(exitedWith(status, 1)) << status;
      std::string const path = directory + "/" + name;
      std::vector<std::string> const lines = linesOf(fileText(path));
      ASSERT_GE(lines.size(), 4u) << fileText(path);
      EXPECT_EQ(c.firstLine, lines[0]);
      EXPECT_EQ("Backtrace:", lines[1]);
      bool handlerFrame = false;
      bool programFrame = false;
      for (std::size_t i = 2; i < lines.size(); ++i)
      {
         EXPECT_TRUE(endsWithAddress(lines[i])) << lines[i];
         // The handler leads; under a sanitizer, which takes backtrace over,
         // one frame of its own may come first.
         handlerFrame |= i <= 3 && lines[i].find("DtPrintAddrLines") != std::string::npos;
         programFrame |= lines[i].find(program_invocation_short_name) != std::string::npos;
      }
      EXPECT_TRUE(handlerFrame) << "the handler's own frame leads";
      EXPECT_TRUE(programFrame) << "a frame of the crashed program";
      std::filesystem::remove(path);
   }
}

TEST_F(LogFileInfoTest, ACrashBeforeAnyNameIsSetIsNamedAfterTheProgram)
{
   DtLogFileInfo::instance().setAppName("");
   std::string const name = DtLogFileInfo::instance().getCallStackFileName();
   ASSERT_EQ(0u, name.find(program_invocation_short_name));
   int const status = inChild([&] {
      if (chdir(directory.c_str()) != 0)
         _exit(97);
      DtLogFileInfo::setupErrorHandling();
      crashBy(SIGSEGV);
   });
   EXPECT_TRUE(exitedWith(status, 1)) << status;
   EXPECT_EQ(0u, fileText(directory + "/" + name).find("Error: signal 11 "));
}

TEST_F(LogFileInfoTest, AFileThatCannotBeOpenedStillEndsTheProcess)
{
   int const status = inChild([&] {
      std::string const gone = directory + "/gone";
      std::filesystem::create_directories(gone);
      if (chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0)
         _exit(97);
      DtLogFileInfo::setupErrorHandling();
      crashBy(SIGABRT);
   });
   EXPECT_TRUE(exitedWith(status, 1)) << status;
}

TEST_F(LogFileInfoTest, ASecondFaultWhileTheHandlerRunsEndsTheProcessAtOnce)
{
   // The crash file is a full pipe: the handler waits in its first write, and
   // a second signal arrives while it is there. Run again, the handler would
   // wait in its write once more and never end.
#if defined(__SANITIZE_THREAD__)
   GTEST_SKIP() << "ThreadSanitizer holds back every signal that arrives while a handler "
                   "runs, so a second signal can't reach the handler here";
#endif
   std::string const name = DtLogFileInfo::instance().getCallStackFileName();
   FullPipe const pipe(directory + "/" + name);
   ASSERT_TRUE(pipe.full);
   bool reachedTheHandler = false;
   int const status = inChild(
       [&] {
          if (chdir(directory.c_str()) != 0)
             _exit(97);
          DtLogFileInfo::setupErrorHandling();
          crashBy(SIGSEGV);
       },
       [&](pid_t child) {
          reachedTheHandler = waitFor([&] { return waitsInPipeWrite(child); });
          kill(child, SIGABRT);
       });
   EXPECT_TRUE(reachedTheHandler);
   EXPECT_TRUE(exitedWith(status, 1)) << status;
}

TEST(CrashFrameTest, FramesAreWrittenAsBacktraceSymbolsWritesThem)
{
   // The crash handlers can't call backtrace_symbols, which allocates: their
   // own lines must match it byte for byte, blank before the address included.
   std::vector<void*> addresses(32);
   addresses.resize(static_cast<std::size_t>(backtrace(addresses.data(), 32)));
   ASSERT_GE(addresses.size(), 3u);
   addresses.push_back(nullptr);
   addresses.push_back(reinterpret_cast<void*>(16));  // in no object
   addresses.push_back(reinterpret_cast<void*>(&write));  // a symbol's own address
   addresses.push_back(reinterpret_cast<char*>(&write) + 5);
   addresses.push_back(reinterpret_cast<void*>(&olt::faultOnBadAddress));  // no exported name
   char** const expected = backtrace_symbols(addresses.data(), static_cast<int>(addresses.size()));
   ASSERT_NE(nullptr, expected);
   for (std::size_t i = 0; i < addresses.size(); ++i)
   {
      char buffer[1024];
      olcrash::FixedText line(buffer, sizeof buffer);
      olcrash::addFrame(line, addresses[i]);
      EXPECT_STREQ(expected[i], line.text()) << i;
   }
   std::free(expected);
}

TEST(CrashFrameTest, FixedTextCutsWhatDoesNotFitAndFormatsNumbers)
{
   char buffer[8];
   olcrash::FixedText text(buffer, sizeof buffer);
   text.add("ab").addNumber(-120).addNumber(0).add("xyz");
   EXPECT_STREQ("ab-1200", buffer) << "seven characters and the terminator";
   EXPECT_EQ(7u, text.length());
   char wide[64];
   olcrash::FixedText numbers(wide, sizeof wide);
   numbers.addHex(0).add(" ").addHex(0x1db).add(" ").addPointer(nullptr).add(" ");
   numbers.addNumber(9223372036854775807L);
   EXPECT_STREQ("0 0x1db (nil) 9223372036854775807", wide);
}
