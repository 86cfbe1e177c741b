// Tests of console polling on a pseudo-terminal and on a pipe standing in for
// standard input, and of the terminal being restored on the ways out.
#include <olutil/olKeyboard.h>

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
   return condition();
}

// The child's wait status; a child that hangs is killed after the bound.
int waitForChild(pid_t child)
{
   int status = 0;
   if (!waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }))
   {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
   }
   return status;
}

void writeAll(int fd, std::string const& text)
{
   ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
}

// Standard input is replaced by a pseudo-terminal or a pipe for each test and
// put back afterwards.
class ConsoleTest : public ::testing::Test
{
protected:
   void SetUp() override { savedStdin = dup(STDIN_FILENO); }
   void TearDown() override
   {
      DtRestoreKbHit();
      dup2(savedStdin, STDIN_FILENO);
      close(savedStdin);
      for (int fd : {master, slave, writeEnd})
      {
         if (fd >= 0)
            close(fd);
      }
   }
   void usePseudoTerminal()
   {
      ASSERT_EQ(0, openpty(&master, &slave, nullptr, nullptr, nullptr));
      ASSERT_EQ(0, tcgetattr(slave, &original));
      ASSERT_TRUE(original.c_lflag & ICANON);
      ASSERT_TRUE(original.c_lflag & ECHO);
      ASSERT_EQ(STDIN_FILENO, dup2(slave, STDIN_FILENO));
   }
   void usePipe()
   {
      int fds[2];
      ASSERT_EQ(0, pipe(fds));
      ASSERT_EQ(STDIN_FILENO, dup2(fds[0], STDIN_FILENO));
      close(fds[0]);
      writeEnd = fds[1];
   }
   termios now() const
   {
      termios settings{};
      tcgetattr(slave, &settings);
      return settings;
   }
   bool restored() const
   {
      termios const settings = now();
      return settings.c_lflag == original.c_lflag && settings.c_cc[VMIN] == original.c_cc[VMIN] &&
             settings.c_cc[VTIME] == original.c_cc[VTIME];
   }

   int savedStdin = -1;
   int master = -1;
   int slave = -1;
   int writeEnd = -1;
   termios original{};
};

}  // namespace

TEST_F(ConsoleTest, KbHitCountsWaitingCharactersOnATerminalAndRestoresIt)
{
   usePseudoTerminal();
   EXPECT_EQ(0, DtKbHit());
   termios const raw = now();
   EXPECT_FALSE(raw.c_lflag & ICANON);
   EXPECT_FALSE(raw.c_lflag & ECHO);
   EXPECT_EQ(0, raw.c_cc[VMIN]);

   writeAll(master, "ab");
   EXPECT_TRUE(waitFor([] { return DtKbHit() == 2; })) << "no line end needed";
   EXPECT_EQ('a', DtGetCh());
   EXPECT_EQ('b', DtGetCh());
   EXPECT_EQ(0, DtKbHit());

   DtRestoreKbHit();
   EXPECT_TRUE(restored());
   DtRestoreKbHit();
   EXPECT_TRUE(restored()) << "a second restore changes nothing";

   // The next use saves the settings as they are then.
   termios changed = original;
   changed.c_cc[VTIME] = 3;
   ASSERT_EQ(0, tcsetattr(slave, TCSANOW, &changed));
   DtKbHit();
   EXPECT_EQ(0, now().c_cc[VMIN]);
   DtRestoreKbHit();
   EXPECT_EQ(3, now().c_cc[VTIME]);
}

TEST_F(ConsoleTest, KbHitOnAPipeCountsWithoutTerminalSettings)
{
   usePipe();
   EXPECT_EQ(0, DtKbHit());
   writeAll(writeEnd, "xyz");
   EXPECT_EQ(3, DtKbHit());
   EXPECT_EQ('x', DtGetCh());
   close(writeEnd);
   writeEnd = -1;
   EXPECT_EQ('y', DtGetCh());
   EXPECT_EQ('z', DtGetCh());
   EXPECT_EQ(-1, DtGetCh()) << "the end of input";
}

TEST_F(ConsoleTest, LinesArePolledOnATerminal)
{
   usePseudoTerminal();
   EXPECT_EQ(nullptr, DtPollBlockingInputLine()) << "nothing waits: back at once";
   writeAll(master, "hello\n");
   ASSERT_TRUE(waitFor([] {
      fd_set readable;
      FD_ZERO(&readable);
      FD_SET(STDIN_FILENO, &readable);
      timeval none{0, 0};
      return select(1, &readable, nullptr, nullptr, &none) == 1;
   }));
   char const* line = DtPollBlockingInputLine();
   ASSERT_NE(nullptr, line);
   EXPECT_STREQ("hello", line);
   EXPECT_EQ(nullptr, DtPollBlockingInputLine());
}

TEST_F(ConsoleTest, LinesArePolledOnAPipeAndALongOneIsCut)
{
   usePipe();
   char buffer[8] = "#######";
   EXPECT_FALSE(DtPollBlockingInputLine(buffer, sizeof buffer));
   EXPECT_STREQ("", buffer);

   writeAll(writeEnd, "one\n\nabcdefghij\n");
   EXPECT_TRUE(DtPollBlockingInputLine(buffer, sizeof buffer));
   EXPECT_STREQ("one", buffer);
   EXPECT_TRUE(DtPollBlockingInputLine(buffer, sizeof buffer)) << "an empty line is a line";
   EXPECT_STREQ("", buffer);
   {
      olt::CapturePrinter warnings(DtWarn);
      EXPECT_TRUE(DtPollBlockingInputLine(buffer, sizeof buffer));
      EXPECT_STREQ("abcdef", buffer) << "size - 2 characters";
      EXPECT_EQ("DtPollBlockingInputLine: exceeded buffer size\n", warnings.text());
   }
   EXPECT_TRUE(DtPollBlockingInputLine(buffer, sizeof buffer));
   EXPECT_STREQ("ghij", buffer) << "the rest stayed in the input";

   EXPECT_FALSE(DtPollBlockingInputLine(nullptr, 8));
   char one[1] = {'#'};
   writeAll(writeEnd, "z\n");
   {
      olt::CapturePrinter warnings(DtWarn);
      EXPECT_TRUE(DtPollBlockingInputLine(one, 1)) << "no room: nothing is read";
      EXPECT_EQ(0, one[0]);
   }
   EXPECT_EQ('z', DtPollBlockingInputChar());
   EXPECT_EQ('\n', DtPollBlockingInputChar());
   EXPECT_EQ(0, DtPollBlockingInputChar()) << "nothing waits";
}

TEST_F(ConsoleTest, TheEndOfInputEndsTheProcessWithStatusZero)
{
   for (int which = 0; which < 2; ++which)
   {
      SCOPED_TRACE(which == 0 ? "line" : "character");
      int fds[2];
      ASSERT_EQ(0, pipe(fds));
      close(fds[1]);  // before the fork, so the child finds the input ended
      pid_t const child = fork();
      ASSERT_GE(child, 0);
      if (child == 0)
      {
         dup2(fds[0], STDIN_FILENO);
         if (which == 0)
            DtPollBlockingInputLine();
         else
            DtPollBlockingInputChar();
         _exit(3);  // returned instead of ending the process
      }
      close(fds[0]);
      int const status = waitForChild(child);
      ASSERT_TRUE(WIFEXITED(status));
      EXPECT_EQ(0, WEXITSTATUS(status));
   }
}

TEST_F(ConsoleTest, TheTerminalIsRestoredWhenTheProcessEnds)
{
   usePseudoTerminal();
   struct Case
   {
      char const* what;
      int signal;  // 0: exit()
      bool ownHandler;
      bool restored;
   } const cases[] = {
       {"exit", 0, false, true},
       {"SIGTERM", SIGTERM, false, true},
       {"SIGINT", SIGINT, false, true},
       {"SIGHUP", SIGHUP, false, true},
       {"the application's own SIGTERM handler stays", SIGTERM, true, false},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.what);
      ASSERT_EQ(0, tcsetattr(slave, TCSANOW, &original));
      pid_t const child = fork();
      ASSERT_GE(child, 0);
      if (child == 0)
      {
         if (c.ownHandler)
            std::signal(c.signal, [](int) { _exit(5); });
         DtKbHit();
         if (c.signal)
            raise(c.signal);
         std::exit(0);
      }
      int const status = waitForChild(child);
      if (c.ownHandler)
      {
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 5) << status;
      }
      else if (c.signal)
      {
         EXPECT_TRUE(WIFSIGNALED(status)) << "the signal still takes its default course";
         EXPECT_EQ(c.signal, WTERMSIG(status));
      }
      else
      {
         EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
      }
      EXPECT_EQ(c.restored, restored());
   }
}

TEST_F(ConsoleTest, TheSimpleKeyboardPeeksOneCharacterAtATime)
{
   usePseudoTerminal();
   {
      DtSimpleKeyboard keyboard;
      termios const raw = now();
      EXPECT_FALSE(raw.c_lflag & (ICANON | ECHO | ISIG));
      EXPECT_EQ(1, raw.c_cc[VMIN]);
      EXPECT_EQ(0, raw.c_cc[VTIME]);
      EXPECT_EQ(0, keyboard.kbhit()) << "never waits";
      writeAll(master, "q\x03");
      EXPECT_TRUE(waitFor([&] { return keyboard.kbhit() == 1; }));
      EXPECT_EQ(1, keyboard.kbhit()) << "the character is kept";
      EXPECT_EQ('q', keyboard.getkey());
      EXPECT_EQ(0x03, keyboard.getkey()) << "the interrupt character arrives as a character";
      EXPECT_EQ(0, keyboard.kbhit());
      EXPECT_EQ(1, now().c_cc[VMIN]);
   }
   EXPECT_TRUE(restored());
}

TEST_F(ConsoleTest, TheSimpleKeyboardReadsAPipeWithoutWaiting)
{
   usePipe();
   DtSimpleKeyboard keyboard;
   EXPECT_EQ(0, keyboard.kbhit());
   writeAll(writeEnd, "k");
   EXPECT_EQ(1, keyboard.kbhit());
   EXPECT_EQ('k', keyboard.getkey());
   close(writeEnd);
   writeEnd = -1;
   EXPECT_EQ(0, keyboard.kbhit());
   EXPECT_EQ(-1, keyboard.getkey());
}

TEST_F(ConsoleTest, TheLastHolderPutsBackTheOriginalWhateverTheOrder)
{
   usePseudoTerminal();
   DtKbHit();
   auto* keyboard = new DtSimpleKeyboard;
   DtRestoreKbHit();
   EXPECT_FALSE(now().c_lflag & ICANON) << "the keyboard still holds the terminal";
   delete keyboard;
   EXPECT_TRUE(restored());
}
