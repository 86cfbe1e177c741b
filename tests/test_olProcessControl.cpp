// Tests of the modes of DtCreateProcess.
#include <olutil/olProcessControl.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace
{

bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   return condition();
}

// Each child runs in the test's directory; its report is renamed into "marker" when done.
class DtCreateProcessTest : public ::testing::Test
{
protected:
   DtCreateProcessTest() { std::filesystem::create_directories(directory); }
   ~DtCreateProcessTest() override { std::filesystem::remove_all(directory); }
   bool start(std::string const& body, DtProcessInteractivity_enum mode = DtProcessChild,
              std::vector<char const*> arguments = {})
   {
      std::string const command = "cd " + directory + " && { " + body + "; } > tmp; mv tmp marker";
      arguments.insert(arguments.begin(), {"-c", command.c_str()});
      return DtCreateProcess(DtFilename("/bin/sh"), arguments, mode);
   }
   std::string markerText()  // "" if the child never reports
   {
      std::stringstream text;
      if (waitFor([&] { return access(marker.c_str(), F_OK) == 0; }))
         text << std::ifstream(marker).rdbuf();
      return std::remove(marker.c_str()), text.str();
   }
   std::string const directory = "/tmp/olt-process-" + std::to_string(getpid());
   std::string const marker = directory + "/marker";
};

TEST_F(DtCreateProcessTest, ArgumentsFollowTheBaseNameAndEachModeSetsUpItsChild)
{
   // sh -c takes the first argument after the command as $0, else its own argv[0].
   char const* const format = "printf '%s|%s|%s' \"$0\" \"$#\" \"$1\"";
   ASSERT_TRUE(start(format, DtProcessChild, {"first", "second arg"}));
   EXPECT_EQ("first|1|second arg", markerText());
   ASSERT_TRUE(start(format));
   EXPECT_EQ("sh|0|", markerText());

   // $0 is our session. Flags G own group, S new session, L session leader, F fd 2 open; then in
   // hex the ignored ones of SIGHUP, SIGINT, SIGPIPE, SIGALRM, SIGTSTP, SIGTTIN, SIGTTOU.
   char const* const report =
       "set -- $(cut -d' ' -f1,5,6 /proc/$$/stat);"
       "m=0x$(sed -n 's/^SigIgn:\\t*//p' /proc/$$/status);"
       "[ $1 = $2 ] && printf G; [ $3 = $0 ] || printf S; [ $1 = $3 ] && printf L;"
       "[ -e /proc/$$/fd/2 ] && printf F; printf ' %x' $((m & 0x383003))";
   // SIGPIPE and SIGALRM are ignored here, so the child must have been given the defaults.
   auto const oldPipe = signal(SIGPIPE, SIG_IGN), oldAlarm = signal(SIGALRM, SIG_IGN);
   for (auto const& [mode, facts] : {std::pair{DtProcessDaemon, "S 380003"},
                                     {DtProcessDaemonSession, "S 380003"},
                                     {DtProcessChild, "F 0"},
                                     {DtProcessBackground, "GF 3"}})
   {
      SCOPED_TRACE(mode);
      EXPECT_TRUE(start(report, mode, {std::to_string(getsid(0)).c_str()}));
      EXPECT_EQ(facts, markerText());
   }
   EXPECT_TRUE(signal(SIGPIPE, oldPipe) == SIG_IGN && signal(SIGALRM, oldAlarm) == SIG_IGN)
       << "the parent's handlers are back";
}

TEST_F(DtCreateProcessTest, FailedExecveIsReportedByTheChild)
{
   std::string const program = directory + "/no-such-program";
   std::fflush(stdout);
   testing::internal::CaptureStdout();  // where DtFatal writes, in the child too
   bool const started = DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessChild);
   int status = 0;  // earlier children may end here first; this one exits with 255
   EXPECT_TRUE(waitFor([&] { return status == 0xFF00 || (waitpid(-1, &status, WNOHANG), false); }));
   std::string const text = testing::internal::GetCapturedStdout();
   EXPECT_TRUE(started) << "the parent only learns that a child exists";
   EXPECT_NE(std::string::npos, text.find("Fatal Error: Encountered error 2when starting process " +
                                          program + "\nExiting...\n"))
       << text;
}

}  // namespace
