// Tests of the run's identity and log names, and of DtPrintAddrLines in crashing children.
#include <olutil/olLogFileInfo.h>

#include <execinfo.h>

#include <gtest/gtest.h>

#include "../libsrc/olutil/olCrashSupport.h"
#include "support_crash.h"

using namespace olt;

class LogFileInfoTest : public CrashTest
{
protected:
   // The identity is made here, so that parent and children share one pid and time
   // in the crash file's name.
   void SetUp() override
   {
      CrashTest::SetUp();
      DtLogFileInfo::instance();
   }
   static constexpr int Plain = 0, DirectoryGone = 1, SecondSignal = 2;
   // The status of a child that sets up the handlers and crashes by `signal`.
   int crash(int signal, int how = Plain)
   {
      std::string const where = directory + (how == DirectoryGone ? "/gone" : "");
      std::filesystem::create_directories(where);
      auto const child = [=]
      {
         if (chdir(where.c_str()) != 0 || (how == DirectoryGone && rmdir(where.c_str()) != 0))
            _exit(97);
         DtLogFileInfo::setupErrorHandling();
         crashBy(signal);
      };
      return how == SecondSignal ? crashWithSecondSignal(where + "/" + name(), child)
                                 : inChild(child);
   }
   static std::string name() { return DtLogFileInfo::instance().getCallStackFileName(); }
};

TEST_F(LogFileInfoTest, TheIdentityJoinsItsFieldsInOrder)
{
   DtLogFileInfo& info = DtLogFileInfo::instance();
   info.setAppName("app");
   info.setProtocol("");
   info.setVersion("1");
   info.setSvnRev("2");
   std::string const date = info.getDate(), time = info.getTime();
   EXPECT_TRUE((date + time).size() == 14 && date.compare(0, 2, "20") == 0 && time < "240000" &&
               (date + time).find_first_not_of("0123456789") == std::string::npos)
       << date + time;
   char host[256] = {};
   gethostname(host, sizeof host - 1);
   std::string const tail = date + "-" + time + "-" + host + "-2-" + std::to_string(getpid());
   EXPECT_EQ("app1-" + tail, info.getFullString());
   EXPECT_EQ("app1-" + tail + ".callstack.log", info.getCallStackFileName());
   info.setProtocol("dis");
   EXPECT_EQ("appdis1-" + tail, info.getFullString());
   info.setAppName("");
   EXPECT_EQ(std::string(program_invocation_short_name) + "dis1-" + tail, info.getFullString())
       << "an unset name gives the program's";
}

TEST_F(LogFileInfoTest, SetupInAChildChangesExactlyThreeSignals)
{
   inChild(
       [&]
       {
          struct sigaction before[65] = {}, after = {};
          for (int s = 1; s < 65; ++s)
             sigaction(s, nullptr, &before[s]);
          DtLogFileInfo::setupErrorHandling();
          std::ofstream changed(directory + "/changed");
          for (int s = 1; s < 65; ++s)
             if (sigaction(s, nullptr, &after) == 0 &&
                 (after.sa_handler != before[s].sa_handler || after.sa_flags != before[s].sa_flags))
                changed << s << (after.sa_sigaction == &DtPrintAddrLines)
                        << ((after.sa_flags & SA_SIGINFO) != 0) << sigisemptyset(&after.sa_mask)
                        << " ";
       });
   // Each changed signal, then 1s: to the handler, with its information, masking nothing.
   EXPECT_EQ("6111 8111 11111 ", fileText(directory + "/changed"));
}

TEST_F(LogFileInfoTest, ACrashLeavesTheCallStackBesideTheLogsAndExitsWithOne)
{
   for (auto const& [signal, firstLine] :
        {std::pair<int, char const*>{SIGSEGV, "Error: signal 11 Segmentation fault"},
         {SIGABRT, "Error: signal 6 Aborted"},
         {SIGFPE, "Error: signal 8 Floating point exception"}})
   {
      SCOPED_TRACE(firstLine);
      EXPECT_TRUE(exitedWith(crash(signal), 1));
      std::string const report = fileText(directory + "/" + name());
      std::vector<std::string> const lines = linesOf(report);
      ASSERT_GE(lines.size(), 4u) << report;
      EXPECT_EQ(0u, report.find(std::string(firstLine) + "\nBacktrace:\n")) << report;
      // The handler leads, after at most one frame of a sanitizer's.
      EXPECT_NE(std::string::npos, (lines[2] + lines[3]).find("DtPrintAddrLines")) << report;
      EXPECT_NE(std::string::npos, report.find(program_invocation_short_name)) << report;
   }
}

TEST_F(LogFileInfoTest, WithoutANameNoFileOrASecondFaultACrashStillEnds)
{
   DtLogFileInfo::instance().setAppName("");
   EXPECT_TRUE(exitedWith(crash(SIGSEGV), 1));
   EXPECT_EQ(0u, fileText(directory + "/" + name()).find("Error: signal 11 "));

   EXPECT_TRUE(exitedWith(crash(SIGABRT, DirectoryGone), 1)) << "the file can't be opened";
#if !defined(__SANITIZE_THREAD__)  // which holds back signals that arrive while a handler runs
   int const status = crash(SIGSEGV, SecondSignal);
   EXPECT_TRUE(exitedWith(status, 1)) << status << " (-1: the handler never reached its write)";
#endif
}

TEST(CrashFrameTest, FramesAreWrittenAsBacktraceSymbolsWritesThemAndTextIsCut)
{
   // The handlers can't call backtrace_symbols, which allocates, but match it byte for byte.
   std::vector<void*> addresses(32);
   addresses.resize(static_cast<std::size_t>(backtrace(addresses.data(), 32)));
   addresses.push_back(nullptr);
   addresses.push_back(reinterpret_cast<void*>(16));      // in no object
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

   char small[8];
   olcrash::FixedText text(small, sizeof small);
   text.add("ab").addNumber(-120).addNumber(0).add("xyz");
   EXPECT_STREQ("ab-1200", small) << "seven characters and the terminator";
   EXPECT_EQ(7u, text.length());
   char wide[64];
   olcrash::FixedText numbers(wide, sizeof wide);
   numbers.addHex(0).add(" ").addHex(0x1db).add(" ").addPointer(nullptr).add(" ");
   numbers.addNumber(9223372036854775807L);
   EXPECT_STREQ("0 0x1db (nil) 9223372036854775807", wide);
}
