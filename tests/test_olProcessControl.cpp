// Tests of DtSelect, DtSleep, DtYield and the modes of DtCreateProcess.
#include <olutil/olProcessControl.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{

// Every wait in these tests gives up after 20 seconds.
bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   return condition();
}

TEST(DtSelectTest, SplitsItsTimeoutAndSleepIgnoresNonPositiveTimes)
{
   DtSleep(0);
   DtSleep(-1);
   DtYield();
   int fds[2];
   ASSERT_EQ(0, pipe(fds));
   fd_set readable;
   FD_ZERO(&readable);
   FD_SET(fds[0], &readable);
   EXPECT_EQ(0, DtSelect(fds[0] + 1, &readable, nullptr, nullptr, 0.05));
   ASSERT_EQ(1, write(fds[1], "x", 1));
   FD_SET(fds[0], &readable);
   EXPECT_EQ(1, DtSelect(fds[0] + 1, &readable, nullptr, nullptr, 1.5));
   EXPECT_EQ(-1, DtSelect(0, nullptr, nullptr, nullptr, -1.0));
   close(fds[0]);
   close(fds[1]);
}

// Each test gets a fresh directory for its scripts and for the marker file that a
// child writes (under a temporary name, then renamed, so it is never seen half done).
class DtCreateProcessTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      char pattern[] = "/tmp/olt-process-XXXXXX";
      ASSERT_NE(nullptr, mkdtemp(pattern));
      directory = pattern;
      marker = directory + "/marker";
   }
   void TearDown() override
   {
      while (waitpid(-1, nullptr, WNOHANG) > 0)
         continue;
      std::filesystem::remove_all(directory);
   }

   // Starts a script whose output becomes the marker's text.
   bool start(std::string const& body, DtProcessInteractivity_enum mode = DtProcessChild,
              std::vector<char const*> const& arguments = {})
   {
      std::string const path = directory + "/probe.sh";
      std::ofstream(path) << "#!/bin/sh\n{\n"
                          << body << "\n} > '" << marker << ".tmp'\nmv '" << marker << ".tmp' '"
                          << marker << "'\n";
      chmod(path.c_str(), 0755);
      return DtCreateProcess(DtFilename(path.c_str()), arguments, mode);
   }

   // What the child wrote, once it is there (bounded); "" if it never came.
   std::string markerText()
   {
      if (!waitFor([&] { return access(marker.c_str(), F_OK) == 0; }))
         return "";
      std::stringstream text;
      text << std::ifstream(marker).rdbuf();
      std::remove(marker.c_str());
      return text.str();
   }

   std::string directory;
   std::string marker;
};

TEST_F(DtCreateProcessTest, ArgumentsFollowTheBaseNameAndAPlainChildIsNotWaitedFor)
{
   char const* const format = "printf '%s|%s|%s' \"$#\" \"$1\" \"$2\"";
   ASSERT_TRUE(start(format, DtProcessChild, {"first", "second arg"}));
   EXPECT_EQ("2|first|second arg", markerText());
   ASSERT_TRUE(start(format));
   EXPECT_EQ("0||", markerText());
   // sh -c reports its own argv[0] as $0.
   std::string const command =
       "printf '%s' \"$0\" > '" + marker + ".tmp'; mv '" + marker + ".tmp' '" + marker + "'";
   ASSERT_TRUE(DtCreateProcess(DtFilename("/bin/sh"), {"-c", command.c_str()}, DtProcessChild));
   EXPECT_EQ("sh", markerText());

   // A plain child is not waited for: it cannot finish until the parent writes to the FIFO, which
   // it only does after DtCreateProcess has returned.
   std::string const fifo = directory + "/fifo";
   ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
   ASSERT_TRUE(start("read line < '" + fifo + "'; printf '%s' \"$line\""));
   int writer = -1;
   ASSERT_TRUE(waitFor([&] { return (writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; }));
   ASSERT_EQ(6, write(writer, "hello\n", 6));
   close(writer);
   EXPECT_EQ("hello", markerText());
}

TEST_F(DtCreateProcessTest, EachModeSetsUpItsChild)
{
   // The child reports its pid, process group, session, whether descriptor 2 is open,
   // and its mask of ignored signals (hexadecimal, bit signal-1).
   std::string const report =
       "set -- $(cut -d' ' -f1,5,6 /proc/$$/stat); printf '%s %s %s ' $1 $2 $3; "
       "if [ -e /proc/$$/fd/2 ]; then printf 'open '; else printf 'closed '; fi; "
       "sed -n 's/^SigIgn:\\t*//p' /proc/$$/status";
   struct Case
   {
      DtProcessInteractivity_enum mode;
      bool ownGroup, newSession, descriptorsOpen, hangUpAndInterruptIgnored;
   } const cases[] = {{DtProcessDaemon, false, true, false, true},
                      {DtProcessDaemonSession, false, true, false, true},
                      {DtProcessChild, false, false, true, false},
                      {DtProcessBackground, true, false, true, true}};
   auto bit = [](int signal) { return 1ULL << (signal - 1); };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.mode);
      // Ignored here, so the child must have been given the defaults.
      auto const oldPipe = signal(SIGPIPE, SIG_IGN);
      auto const oldAlarm = signal(SIGALRM, SIG_IGN);
      bool const started = start(report, c.mode);
      auto const pipeWas = signal(SIGPIPE, oldPipe), alarmWas = signal(SIGALRM, oldAlarm);
      EXPECT_TRUE(pipeWas == SIG_IGN && alarmWas == SIG_IGN) << "the parent's handlers are back";
      ASSERT_TRUE(started);

      std::istringstream in(markerText());
      long pid = 0, group = 0, session = 0;
      std::string descriptors, hexMask;
      ASSERT_TRUE(in >> pid >> group >> session >> descriptors >> hexMask);
      unsigned long long const ignored = std::stoull(hexMask, nullptr, 16);
      EXPECT_EQ(c.ownGroup, group == pid);
      EXPECT_EQ(c.newSession, session != static_cast<long>(getsid(0)));
      EXPECT_NE(pid, session) << "the program never leads a session";
      EXPECT_EQ(c.descriptorsOpen ? "open" : "closed", descriptors);
      EXPECT_EQ(0ULL, ignored & (bit(SIGPIPE) | bit(SIGALRM)));
      if (c.hangUpAndInterruptIgnored)
      {
         EXPECT_EQ(bit(SIGHUP) | bit(SIGINT), ignored & (bit(SIGHUP) | bit(SIGINT)));
      }
   }
}

TEST_F(DtCreateProcessTest, FailedExecveIsReportedByTheChild)
{
   // The child prints on standard output, where DtFatal goes: send it to the marker.
   std::string const program = directory + "/no-such-program";
   std::fflush(stdout);
   int const savedStdout = dup(1);
   int const file = open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
   dup2(file, 1);
   close(file);
   bool const started = DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessChild);
   dup2(savedStdout, 1);
   close(savedStdout);
   ASSERT_TRUE(started) << "the parent only learns that a child exists";
   // Other tests' children may end here too: look for the one that exits with 255.
   bool sawFailure = false;
   EXPECT_TRUE(waitFor(
       [&]
       {
          int status = 0;
          pid_t const child = waitpid(-1, &status, WNOHANG);
          sawFailure = sawFailure || (child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 255);
          return sawFailure || child < 0;
       }));
   EXPECT_TRUE(sawFailure) << "the child ends itself with status 255";
   std::string const text = markerText();
   EXPECT_NE(std::string::npos, text.find("Fatal Error: Encountered error 2when starting process " +
                                          program + "\nExiting...\n"))
       << text;
}

}  // namespace
