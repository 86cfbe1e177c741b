// Tests of DtSelect, DtSleep, DtYield and the three modes of DtCreateProcess.
#include <olutil/olProcessControl.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace
{

constexpr std::chrono::seconds theWaitBound(20);

bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + theWaitBound;
   while (!condition())
   {
      if (std::chrono::steady_clock::now() > deadline)
      {
         return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   }
   return true;
}

// Reaps finished children without blocking, so the tests leave no zombies behind.
void reapChildren()
{
   while (waitpid(-1, nullptr, WNOHANG) > 0)
   {
   }
}

// ---------------------------------------------------------------- waiting

TEST(DtSleepTest, ZeroAndNegativeReturnAtOnce)
{
   DtSleep(0);
   DtSleep(-1);
   DtSleep(-0.5);
   DtYield();
   SUCCEED();
}

class DtSelectTest : public ::testing::Test
{
protected:
   void SetUp() override { ASSERT_EQ(0, pipe(fds)); }
   void TearDown() override
   {
      close(fds[0]);
      close(fds[1]);
   }
   int fds[2] = {-1, -1};
};

TEST_F(DtSelectTest, ReadyDescriptorIsReported)
{
   ASSERT_EQ(1, write(fds[1], "x", 1));
   fd_set readable;
   FD_ZERO(&readable);
   FD_SET(fds[0], &readable);
   EXPECT_EQ(1, DtSelect(fds[0] + 1, &readable, nullptr, nullptr, 1.5));
   EXPECT_TRUE(FD_ISSET(fds[0], &readable));
}

TEST_F(DtSelectTest, FractionalTimeoutExpiresWithNothingReady)
{
   fd_set readable;
   FD_ZERO(&readable);
   FD_SET(fds[0], &readable);
   EXPECT_EQ(0, DtSelect(fds[0] + 1, &readable, nullptr, nullptr, 0.05));
   EXPECT_FALSE(FD_ISSET(fds[0], &readable));
}

TEST_F(DtSelectTest, NegativeTimeoutIsRefused)
{
   EXPECT_EQ(-1, DtSelect(0, nullptr, nullptr, nullptr, -1.0));
}

// ---------------------------------------------------------------- DtCreateProcess

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
      reapChildren();
      std::string const command = "rm -rf '" + directory + "'";
      EXPECT_EQ(0, std::system(command.c_str()));
   }

   // Writes an executable shell script; what it prints goes to the marker file,
   // written under a temporary name and renamed, so a reader never sees half of it.
   std::string script(std::string const& name, std::string const& body)
   {
      std::string const path = directory + "/" + name;
      std::ofstream out(path);
      out << "#!/bin/sh\n{\n"
          << body << "\n} > '" << marker << ".tmp'\nmv '" << marker << ".tmp' '" << marker << "'\n";
      out.close();
      chmod(path.c_str(), 0755);
      return path;
   }

   bool markerAppears()
   {
      return waitFor([&] { return access(marker.c_str(), F_OK) == 0; });
   }

   std::string markerText()
   {
      std::ifstream in(marker);
      std::stringstream text;
      text << in.rdbuf();
      return text.str();
   }

   std::string directory;
   std::string marker;
};

TEST_F(DtCreateProcessTest, PlainChildRunsWithItsArguments)
{
   std::string const program = script("args.sh", "printf '%s|%s|%s' \"$#\" \"$1\" \"$2\"");
   ASSERT_TRUE(
       DtCreateProcess(DtFilename(program.c_str()), {"first", "second arg"}, DtProcessChild));
   ASSERT_TRUE(markerAppears());
   EXPECT_EQ("2|first|second arg", markerText());
}

TEST_F(DtCreateProcessTest, EmptyArgumentListGivesOnlyTheProgramName)
{
   std::string const program = script("noargs.sh", "printf '%s' \"$#\"");
   ASSERT_TRUE(DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessChild));
   ASSERT_TRUE(markerAppears());
   EXPECT_EQ("0", markerText());
}

TEST_F(DtCreateProcessTest, ArgumentZeroIsTheBaseName)
{
   // sh -c reports its own argv[0] as $0.
   std::string const command = "printf '%s' \"$0\" > '" + marker + "'";
   ASSERT_TRUE(DtCreateProcess(DtFilename("/bin/sh"), {"-c", command.c_str()}, DtProcessChild));
   ASSERT_TRUE(markerAppears());
   EXPECT_EQ("sh", markerText());
}

TEST_F(DtCreateProcessTest, PlainChildReturnsWithoutWaitingForIt)
{
   // The child cannot finish until the parent writes to the FIFO, which it only does
   // after DtCreateProcess has returned.
   std::string const fifo = directory + "/fifo";
   ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
   std::string const program =
       script("blocked.sh", "read line < '" + fifo + "'; printf '%s' \"$line\"");
   ASSERT_TRUE(DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessChild));
   int writer = -1;
   ASSERT_TRUE(waitFor(
       [&]
       {
          writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK);
          return writer >= 0;
       }));
   ASSERT_EQ(6, write(writer, "hello\n", 6));
   close(writer);
   ASSERT_TRUE(markerAppears());
   EXPECT_EQ("hello", markerText());
}

TEST_F(DtCreateProcessTest, ChildGetsDefaultPipeAndAlarmHandlersAndCallerKeepsItsOwn)
{
   struct sigaction ignore = {};
   ignore.sa_handler = SIG_IGN;
   struct sigaction oldPipe = {};
   struct sigaction oldAlarm = {};
   sigaction(SIGPIPE, &ignore, &oldPipe);
   sigaction(SIGALRM, &ignore, &oldAlarm);

   // SigIgn is a hexadecimal mask with bit (signal - 1) set for each ignored signal.
   std::string const program = script("signals.sh", "grep '^SigIgn:' /proc/$$/status");
   bool const started = DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessChild);

   struct sigaction now = {};
   sigaction(SIGPIPE, nullptr, &now);
   EXPECT_EQ(SIG_IGN, now.sa_handler) << "SIGPIPE handler restored";
   sigaction(SIGALRM, nullptr, &now);
   EXPECT_EQ(SIG_IGN, now.sa_handler) << "SIGALRM handler restored";
   sigaction(SIGPIPE, &oldPipe, nullptr);
   sigaction(SIGALRM, &oldAlarm, nullptr);

   ASSERT_TRUE(started);
   ASSERT_TRUE(markerAppears());
   std::string const text = markerText();
   ASSERT_EQ(0U, text.find("SigIgn:")) << text;
   unsigned long long const mask = std::stoull(text.substr(7), nullptr, 16);
   EXPECT_EQ(0ULL, mask & (1ULL << (SIGPIPE - 1))) << text;
   EXPECT_EQ(0ULL, mask & (1ULL << (SIGALRM - 1))) << text;
}

TEST_F(DtCreateProcessTest, BackgroundChildLeadsItsOwnGroupAndIgnoresHangUpAndInterrupt)
{
   std::string const program = script(
       "background.sh",
       "printf '%s %s ' $$ \"$(cut -d' ' -f5 /proc/$$/stat)\"; grep '^SigIgn:' /proc/$$/status");
   ASSERT_TRUE(DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessBackground));
   ASSERT_TRUE(markerAppears());
   std::istringstream in(markerText());
   long pid = 0;
   long group = 0;
   std::string label;
   std::string hexMask;
   in >> pid >> group >> label >> hexMask;
   ASSERT_EQ("SigIgn:", label);
   EXPECT_EQ(pid, group) << "the child leads its own process group";
   EXPECT_NE(static_cast<long>(getpgrp()), group);
   unsigned long long const mask = std::stoull(hexMask, nullptr, 16);
   EXPECT_NE(0ULL, mask & (1ULL << (SIGHUP - 1)));
   EXPECT_NE(0ULL, mask & (1ULL << (SIGINT - 1)));
}

TEST_F(DtCreateProcessTest, DaemonRunsInANewSessionWithoutDescriptors)
{
   for (DtProcessInteractivity_enum mode : {DtProcessDaemon, DtProcessDaemonSession})
   {
      SCOPED_TRACE(mode);
      std::remove(marker.c_str());
      // Session id is field 6 of /proc/PID/stat, parent field 4.
      std::string const program = script(
          "daemon" + std::to_string(static_cast<int>(mode)) + ".sh",
          "printf '%s %s ' $$ \"$(cut -d' ' -f6 /proc/$$/stat)\"; "
          "if [ -e /proc/$$/fd/2 ]; then printf 'stderr-open'; else printf 'stderr-closed'; fi");
      ASSERT_TRUE(DtCreateProcess(DtFilename(program.c_str()), {}, mode));
      ASSERT_TRUE(markerAppears());
      std::istringstream in(markerText());
      long pid = 0;
      long session = 0;
      std::string descriptors;
      in >> pid >> session >> descriptors;
      EXPECT_NE(static_cast<long>(getsid(0)), session) << "a new session";
      EXPECT_NE(pid, session) << "the daemon is not the session leader";
      EXPECT_EQ("stderr-closed", descriptors);
   }
}

TEST_F(DtCreateProcessTest, FailedExecveIsReportedByTheChild)
{
   // Capture what the child writes on standard output, where DtFatal prints.
   int output[2];
   ASSERT_EQ(0, pipe(output));
   std::cout.flush();
   std::fflush(stdout);
   int const savedStdout = dup(1);
   dup2(output[1], 1);
   close(output[1]);
   std::string const program = directory + "/no-such-program";
   bool const started = DtCreateProcess(DtFilename(program.c_str()), {}, DtProcessChild);
   dup2(savedStdout, 1);
   close(savedStdout);
   ASSERT_TRUE(started) << "the parent only learns that a child exists";

   // The pipe reaches end of file once the child (the only other writer) has exited.
   std::string text;
   char buffer[512];
   ssize_t count;
   fcntl(output[0], F_SETFL, O_NONBLOCK);
   EXPECT_TRUE(waitFor(
       [&]
       {
          while ((count = read(output[0], buffer, sizeof buffer)) > 0)
          {
             text.append(buffer, static_cast<size_t>(count));
          }
          return count == 0;
       }));
   close(output[0]);
   std::string const expected =
       "Fatal Error: Encountered error 2when starting process " + program + "\nExiting...\n";
   EXPECT_NE(std::string::npos, text.find(expected)) << text;

   int status = 0;
   bool sawFailure = false;
   EXPECT_TRUE(waitFor(
       [&]
       {
          pid_t const child = waitpid(-1, &status, WNOHANG);
          if (child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 255)
          {
             sawFailure = true;
          }
          return sawFailure || child < 0;
       }));
   EXPECT_TRUE(sawFailure) << "the child ends itself with status 255";
}

}  // namespace
