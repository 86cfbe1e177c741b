// Tests of DtMiniDumper: splitting stack lines, the address space from pmap,
// addr2line answers, and crashes by SIGSEGV, SIGABRT and SIGFPE in forked
// children with the call-stack file and standard error checked.
#include <olutil/olMiniDumper.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support_crash.h"

// The second stage of the handler hands over to the helper tools, which
// allocates inside the signal handler by design (the raw stack is already
// written by then). ThreadSanitizer reports each such call; the first stage,
// which must stay signal-safe, is held to that in test_olLogFileInfo, whose
// handler has no second stage.
#if defined(__SANITIZE_THREAD__)
extern "C" char const* __tsan_default_options()
{
   return "report_signal_unsafe=0";
}
#endif

namespace
{

using namespace olt;

#if defined(__SANITIZE_THREAD__)
constexpr std::size_t sanitizerFrames = 3;  // its signal wrapper, twice, and the return path
#elif defined(__SANITIZE_ADDRESS__)
constexpr std::size_t sanitizerFrames = 1;  // its backtrace
#else
constexpr std::size_t sanitizerFrames = 0;
#endif

// Where the crashing functions are.
std::string const theSource = "support_crash.h:";

// The lowest start of a mapping of `path`, from the kernel's own list.
unsigned long lowestMapping(std::string const& path)
{
   std::ifstream maps("/proc/self/maps");
   unsigned long lowest = ULONG_MAX;
   for (std::string line; std::getline(maps, line);)
   {
      if (line.size() > path.size() && line.compare(line.size() - path.size(), path.size(), path) == 0)
         lowest = std::min(lowest, std::stoul(line.substr(0, line.find('-')), nullptr, 16));
   }
   return lowest;
}

std::string thisProgram()
{
   return std::filesystem::read_symlink("/proc/self/exe").string();
}

bool contains(std::string const& text, std::string const& part)
{
   return text.find(part) != std::string::npos;
}

[[gnu::noinline]] int aFunctionOfThisFile(int x)
{
   return x * 3 + 1;
}

// Each test crashes its children into a log directory of its own.
class MiniDumperTest : public ::testing::Test
{
protected:
   void SetUp() override { std::filesystem::create_directories(directory); }
   void TearDown() override { std::filesystem::remove_all(directory); }

   // Runs a child that installs the handler, prepares with `setUp`, and
   // crashes by `signal` with its standard error in a file. Gives its status.
   int crashChild(int signal, std::function<void()> const& setUp = {},
                  std::function<void(pid_t)> const& whileRunning = {})
   {
      return inChild(
          [&] {
             int const err = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
             if (err < 0 || dup2(err, STDERR_FILENO) < 0)
                _exit(97);
             setenv("QOR_LOG_DIR", directory.c_str(), 1);
             DtMiniDumper::setApplicationName("dumpapp");
             if (setUp)
                setUp();
             struct sigaction action{};
             action.sa_sigaction = &DtMiniDumper::printCallStack;
             action.sa_flags = SA_SIGINFO;
             sigemptyset(&action.sa_mask);
             for (int s : {SIGSEGV, SIGABRT, SIGFPE})
                sigaction(s, &action, nullptr);
             crashBy(signal);
          },
          whileRunning);
   }

   std::string const directory =
       "/tmp/olt-minidumper-" + std::to_string(getpid()) + "-" +
       ::testing::UnitTest::GetInstance()->current_test_info()->name();
   std::string const stderrPath = directory + "/stderr";
   std::string const crashPath = directory + "/dumpapp.callstack.log";
};

}  // namespace

TEST(MiniDumperLineTest, StackLinesSplitIntoObjectAndFileName)
{
   struct Case
   {
      char const* line;
      char const* object;
      char const* name;
   } const cases[] = {
       {"/usr/lib/libx.so(f+0x1) [0x2]", "/usr/lib/libx.so", "libx.so"},
       {"./prog(+0x1234) [0x5555]", "./prog", "prog"},
       {"prog [0x1]", "prog", "prog"},
       {"/a/b/(x) [0x1]", "/a/b/", ""},
       {"[0x10]", "[0x10]", "[0x10]"},
       {"", "", ""},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.line);
      std::string line = c.line;
      std::string object = "old", name = "old";
      DtMiniDumper::objFileAndNameFromStack(&line[0], object, name);
      EXPECT_EQ(c.object, object);
      EXPECT_EQ(c.name, name);
      EXPECT_EQ(std::strlen(c.object), std::strlen(line.c_str())) << "the line ends with the object";
   }
   std::string object = "old", name = "old";
   DtMiniDumper::objFileAndNameFromStack(nullptr, object, name);
   EXPECT_EQ("", object);
}

TEST(MiniDumperToolTest, TheAddressSpaceHoldsTheLowestAddressOfEachObject)
{
   DtMiniDumper::initializeAddressSpace();
   auto const& space = DtMiniDumper::myAddressSpace;
   std::string const program = thisProgram();
   std::string const base = std::filesystem::path(program).filename().string();
   ASSERT_EQ(1u, space.count(base));
   EXPECT_EQ(lowestMapping(program), space.at(base));
   ASSERT_EQ(1u, space.count("libc.so.6"));
   EXPECT_EQ(lowestMapping("/libc.so.6"), space.at("libc.so.6"));
   EXPECT_EQ(0u, space.count("]")) << "anonymous mappings are passed over";
   DtMiniDumper::initializeAddressSpace();
   EXPECT_EQ(lowestMapping(program), DtMiniDumper::myAddressSpace.at(base)) << "filled afresh";
}

TEST(MiniDumperToolTest, Addr2lineAnswersForAddressesRelativeToTheObject)
{
   EXPECT_EQ(7, aFunctionOfThisFile(2));
   std::string const program = thisProgram();
   auto const address = reinterpret_cast<std::uintptr_t>(&aFunctionOfThisFile);
   auto const relative = reinterpret_cast<void*>(address - lowestMapping(program));
   std::string const answer = DtMiniDumper::lookupFileInfo(program, relative);
   EXPECT_TRUE(contains(answer, "test_olMiniDumper.cpp:")) << answer;
   EXPECT_NE('\n', answer.empty() ? 0 : answer.back());
   EXPECT_EQ("", DtMiniDumper::lookupFileInfo("/nonexistent/it's here", relative))
       << "nothing on standard output, and the quote goes to the tool as it is";
}

TEST_F(MiniDumperTest, TheCrashFileIsNamedAfterTheApplicationInTheLogDirectory)
{
   std::string const saved = DtMiniDumper::myApplicationName;
   setenv("QOR_LOG_DIR", directory.c_str(), 1);
   DtMiniDumper::setApplicationName("named");
   EXPECT_EQ(directory + "/named.callstack.log", DtMiniDumper::callStackFileName());
   DtMiniDumper::setApplicationName("");
   EXPECT_EQ(directory + "/" + program_invocation_short_name + ".callstack.log",
             DtMiniDumper::callStackFileName());
   unsetenv("QOR_LOG_DIR");
   DtMiniDumper::setApplicationName(saved);
}

TEST_F(MiniDumperTest, ACrashWritesTheStackWithFilesAndLinesAndExitsWithOne)
{
   for (int signal : {SIGSEGV, SIGABRT, SIGFPE})
   {
      SCOPED_TRACE(signal);
      int const status = crashChild(signal, [] {
         // Whatever preloads into the crashed program must not preload into the tools.
         setenv("LD_PRELOAD", "/nonexistent/libpreloaded.so", 1);
      });
      EXPECT_TRUE(exitedWith(status, 1)) << status;

      std::string const err = fileText(stderrPath);
      std::vector<std::string> const errLines = linesOf(err);
      ASSERT_GE(errLines.size(), 3u) << err;
      EXPECT_EQ("Error: signal " + std::to_string(signal) + ": Stacktrace:", errLines[0]);
      EXPECT_EQ(0u, errLines[1].find("[#0] ")) << errLines[1];
      EXPECT_FALSE(contains(err, "LD_PRELOAD")) << err;

      std::string const report = fileText(crashPath);
      std::vector<std::string> const lines = linesOf(report);
      ASSERT_GE(lines.size(), 2u) << report;
      EXPECT_EQ(0u, lines[0].find("[#0] ")) << lines[0];
      EXPECT_TRUE(contains(report, theSource)) << "the crashing function's file and line:\n"
                                                << report;
      EXPECT_TRUE(contains(err, report)) << "standard error carries the same report";
      EXPECT_FALSE(std::filesystem::exists(crashPath + ".partial"));
      if (signal == SIGSEGV)
      {
         // Frame 0 is the faulting function; under a sanitizer, which takes
         // backtrace and the signal handlers over, frames of its own come first.
         std::vector<std::string> frames;
         for (std::string const& line : lines)
         {
            if (line.compare(0, 2, "[#") == 0)
               frames.push_back(line);
         }
         std::size_t first = 0;
         while (first < frames.size() && !contains(frames[first], program_invocation_short_name))
            ++first;
         EXPECT_LT(first, sanitizerFrames + 1) << "the faulting function leads:\n" << report;
      }
      std::filesystem::remove(crashPath);
   }
}

TEST_F(MiniDumperTest, WithoutTheToolsTheFramesStandAlone)
{
   int const status = crashChild(SIGSEGV, [] { setenv("PATH", "/nonexistent", 1); });
   EXPECT_TRUE(exitedWith(status, 1)) << status;
   std::vector<std::string> const lines = linesOf(fileText(crashPath));
   ASSERT_GE(lines.size(), 2u);
   for (std::size_t i = 0; i < lines.size(); ++i)
      EXPECT_EQ("[#" + std::to_string(i) + "] ", lines[i].substr(0, 4 + std::to_string(i).size()))
          << lines[i];
}

TEST_F(MiniDumperTest, AnUnnamedApplicationsFileNamesTheProgram)
{
   int const status = crashChild(SIGABRT, [] { DtMiniDumper::setApplicationName(""); });
   EXPECT_TRUE(exitedWith(status, 1)) << status;
   std::string const path = directory + "/" + program_invocation_short_name + ".callstack.log";
   EXPECT_EQ(0u, fileText(path).find("[#0] "));
}

TEST_F(MiniDumperTest, ALogDirectoryThatIsMissingStillEndsTheProcess)
{
   int const status = crashChild(SIGFPE, [this] {
      setenv("QOR_LOG_DIR", (directory + "/missing").c_str(), 1);
      DtMiniDumper::setApplicationName("dumpapp");
   });
   EXPECT_TRUE(exitedWith(status, 1)) << status;
   EXPECT_TRUE(contains(fileText(stderrPath), "Error: signal 8: Stacktrace:"));
}

TEST_F(MiniDumperTest, ASecondFaultWhileTheHandlerRunsEndsTheProcessAtOnce)
{
   // The crash file is a full pipe: the first stage waits in its first write,
   // and a second signal arrives while it is there.
#if defined(__SANITIZE_THREAD__)
   GTEST_SKIP() << "ThreadSanitizer holds back every signal that arrives while a handler "
                   "runs, so a second signal can't reach the handler here";
#endif
   FullPipe const pipe(crashPath);
   ASSERT_TRUE(pipe.full);
   bool reachedTheHandler = false;
   int const status = crashChild(SIGSEGV, {}, [&](pid_t child) {
      reachedTheHandler = waitFor([&] { return waitsInPipeWrite(child); });
      kill(child, SIGABRT);
   });
   EXPECT_TRUE(reachedTheHandler);
   EXPECT_TRUE(exitedWith(status, 1)) << status;
}
