// Tests of DtMiniDumper: splitting stack lines, the address space, addr2line
// answers, and crashes in forked children with the call-stack file checked.
#include <olutil/olMiniDumper.h>

#include <dlfcn.h>
#include <gnu/libc-version.h>

#include <gtest/gtest.h>

#include "support_crash.h"

// The handler's second stage runs the tools and allocates by design (not so its first stage).
#if defined(__SANITIZE_THREAD__)
extern "C" char const* __tsan_default_options()
{
   return "report_signal_unsafe=0";
}
#endif

namespace
{

using namespace olt;

// Frames before the faulting one: TSan's signal wrapper twice and return path, ASan's backtrace.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t sanitizerFrames = 3;
#elif defined(__SANITIZE_ADDRESS__)
constexpr std::size_t sanitizerFrames = 1;
#else
constexpr std::size_t sanitizerFrames = 0;
#endif

// Where the object holding `address` is loaded: its lowest address.
std::uintptr_t baseOf(void const* address)
{
   Dl_info info{};
   return dladdr(address, &info) ? reinterpret_cast<std::uintptr_t>(info.dli_fbase) : 0;
}

class MiniDumperTest : public CrashTest
{
protected:
   // The status of a child that installs the handler, runs `setUp`, crashes by `signal`.
   int crash(int signal, std::function<void()> const& setUp = nullptr, bool secondSignal = false)
   {
      auto const child = [=]
      {
         if (dup2(open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO) < 0)
            _exit(97);
         setenv("QOR_LOG_DIR", directory.c_str(), 1);
         DtMiniDumper::setApplicationName("dumpapp");
         if (setUp)
            setUp();
         struct sigaction action = {};
         action.sa_sigaction = &DtMiniDumper::printCallStack;
         action.sa_flags = SA_SIGINFO;
         for (int s : {SIGSEGV, SIGABRT, SIGFPE})
            sigaction(s, &action, nullptr);
         crashBy(signal);
      };
      return secondSignal ? crashWithSecondSignal(crashPath, child) : inChild(child);
   }

   std::string const stderrPath = directory + "/stderr",
                     crashPath = directory + "/dumpapp.callstack.log";
};

}  // namespace

TEST(MiniDumperToolTest, StackLinesAddressSpaceAndAddr2line)
{
   auto const split = [](char const* text)
   {
      std::string line = text ? text : "", object = "old", name = "old";
      DtMiniDumper::objFileAndNameFromStack(text ? &line[0] : nullptr, object, name);
      return object + "|" + name + "|" + line.c_str();
   };
   EXPECT_EQ(split("/usr/lib/libx.so(f+0x1) [0x2]"), "/usr/lib/libx.so|libx.so|/usr/lib/libx.so");
   EXPECT_EQ(split("/a/b/(x) [0x1]"), "/a/b/||/a/b/");
   EXPECT_EQ(split(nullptr), "||");

   // Each object at its lowest address, anonymous mappings passed over, filled afresh.
   std::string const program = std::filesystem::read_symlink("/proc/self/exe").string();
   std::string const base = program.substr(program.rfind('/') + 1);
   DtMiniDumper::initializeAddressSpace();
   DtMiniDumper::initializeAddressSpace();
   auto const& space = DtMiniDumper::myAddressSpace;
   EXPECT_EQ(baseOf(reinterpret_cast<void*>(&baseOf)), space.at(base));
   EXPECT_EQ(baseOf(reinterpret_cast<void*>(&gnu_get_libc_version)), space.at("libc.so.6"));
   EXPECT_EQ(0u, space.count("]"));

   auto* const relative = reinterpret_cast<char*>(&baseOf) - space.at(base);
   std::string const answer = DtMiniDumper::lookupFileInfo(program, relative);
   EXPECT_TRUE(answer.find("test_olMiniDumper.cpp:") != std::string::npos && answer.back() != '\n')
       << answer;
   EXPECT_EQ("", DtMiniDumper::lookupFileInfo("/nonexistent/it's here", relative))
       << "nothing on standard output, and the quote goes to the tool as it is";
}

TEST_F(MiniDumperTest, ACrashWritesTheStackWithFilesAndLinesAndExitsWithOne)
{
   for (int signal : {SIGSEGV, SIGABRT, SIGFPE})
   {
      SCOPED_TRACE(signal);
      // Whatever preloads into the crashed program must not preload into the tools.
      int const status =
          crash(signal, [] { setenv("LD_PRELOAD", "/nonexistent/libpreloaded.so", 1); });
      EXPECT_TRUE(exitedWith(status, 1)) << status;
      std::string const err = fileText(stderrPath), report = fileText(crashPath);
      EXPECT_EQ(0u, err.find("Error: signal " + std::to_string(signal) + ": Stacktrace:\n[#0] "))
          << err;
      EXPECT_EQ(std::string::npos, err.find("LD_PRELOAD")) << err;
      EXPECT_NE(std::string::npos, err.find(report)) << "standard error carries the same report";
      EXPECT_EQ(0u, report.find("[#0] ")) << report;
      EXPECT_NE(std::string::npos, report.find("support_crash.h:")) << report;
      EXPECT_FALSE(std::filesystem::exists(crashPath + ".partial"));
      // Frame 0 is the faulting function, after a sanitizer's own frames.
      std::size_t const lead = report.rfind("[#", report.find(program_invocation_short_name));
      EXPECT_LE(signal == SIGSEGV ? std::stoul(report.substr(lead + 2)) : 0, sanitizerFrames)
          << report;
   }
}

TEST_F(MiniDumperTest, NoToolsNoNameOrNoLogDirectoryStillReportAndEnd)
{
   EXPECT_TRUE(exitedWith(crash(SIGSEGV, [] { setenv("PATH", "/nonexistent", 1); }), 1));
   std::vector<std::string> const lines = linesOf(fileText(crashPath));
   for (std::size_t i = 0; i < lines.size(); ++i)
      EXPECT_EQ(0u, lines[i].find("[#" + std::to_string(i) + "] ")) << "frames stand alone";
   EXPECT_GE(lines.size(), 2u);

   EXPECT_TRUE(exitedWith(crash(SIGABRT, [] { DtMiniDumper::setApplicationName(""); }), 1));
   std::string const named = directory + "/" + program_invocation_short_name + ".callstack.log";
   EXPECT_EQ(0u, fileText(named).find("[#0] ")) << "named after the program";

   auto const missing = [this] { setenv("QOR_LOG_DIR", (directory + "/missing").c_str(), 1); };
   EXPECT_TRUE(exitedWith(crash(SIGFPE, missing), 1));
   EXPECT_NE(std::string::npos, fileText(stderrPath).find("Error: signal 8: Stacktrace:"));
}

// Loading the library prepares the crash file's name but makes no folder: this
// program, run again with a fresh home and no test, leaves the home empty.
TEST_F(MiniDumperTest, LoadingTheLibraryCreatesNoFolder)
{
   std::string const home = directory + "/home";
   std::filesystem::create_directories(home);
   int const status = inChild(
       [&]
       {
          for (char const* name : {"QOR_LOG_DIR", "QOR_INSTALL_DIR", "QOR_BASE_DIR"})
             unsetenv(name);
          setenv("HOME", home.c_str(), 1);
          int const quiet = open("/dev/null", O_WRONLY);
          dup2(quiet, STDOUT_FILENO);
          execl("/proc/self/exe", "test", "--gtest_filter=-*", static_cast<char*>(nullptr));
          _exit(96);
       });
   EXPECT_TRUE(exitedWith(status, 0)) << status;
   EXPECT_TRUE(std::filesystem::is_empty(home));
}

TEST_F(MiniDumperTest, ASecondFaultWhileTheHandlerRunsEndsTheProcessAtOnce)
{
#if defined(__SANITIZE_THREAD__)
   GTEST_SKIP() << "ThreadSanitizer holds back signals that arrive while a handler runs";
#endif
   int const status = crash(SIGSEGV, nullptr, true);
   EXPECT_TRUE(exitedWith(status, 1)) << status << " (-1: the handler never reached its write)";
}
