// Tests of console polling on a pseudo-terminal or pipe as standard input, and of restoring the
// terminal.
#include <olutil/olKeyboard.h>

#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

// Polls for at most 20 s, so that a fault fails the test instead of hanging it.
bool waitFor(std::function<bool()> const& condition)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
   return condition();
}

// The wait status of a child that runs body, then exits with 3; a hanging child is killed.
int inChild(std::function<void()> const& body)
{
   pid_t const child = fork();
   if (child == 0)
   {
      body();
      _exit(3);
   }
   int status = 0;
   if (!waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }))
   {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
   }
   return status;
}

// Standard input is replaced by a pseudo-terminal or a pipe for each test and put back afterwards.
class ConsoleTest : public ::testing::Test
{
protected:
   void TearDown() override
   {
      DtRestoreKbHit();
      dup2(savedStdin, STDIN_FILENO);
      close(savedStdin);
      close(slave);
      close(writeEnd);
   }
   void useInput(bool terminal)
   {
      ASSERT_EQ(0, terminal ? openpty(&writeEnd, &slave, nullptr, nullptr, nullptr) : pipe(fds));
      if (!terminal)
         slave = fds[0], writeEnd = fds[1];
      tcgetattr(slave, &original);
      ASSERT_EQ(STDIN_FILENO, dup2(slave, STDIN_FILENO));
   }
   void type(std::string const& text)
   {
      ASSERT_EQ(static_cast<ssize_t>(text.size()), write(writeEnd, text.data(), text.size()));
   }
   termios now() const
   {
      termios settings{};
      tcgetattr(slave, &settings);
      return settings;
   }
   bool restored() const
   {
      termios const t = now();
      return t.c_lflag == original.c_lflag && t.c_cc[VMIN] == original.c_cc[VMIN] &&
             t.c_cc[VTIME] == original.c_cc[VTIME];
   }

   int savedStdin = dup(STDIN_FILENO), slave = -1, writeEnd = -1, fds[2] = {-1, -1};
   termios original{};
};

}  // namespace

TEST_F(ConsoleTest, OnATerminalKbHitAndTheSimpleKeyboardPeekAndTheLastHolderRestores)
{
   useInput(true);
   EXPECT_EQ(0, DtKbHit());
   EXPECT_TRUE(!(now().c_lflag & (ICANON | ECHO)) && now().c_cc[VMIN] == 0);
   type("ab");
   EXPECT_TRUE(waitFor([] { return DtKbHit() == 2; })) << "no line end needed";
   EXPECT_TRUE(DtGetCh() == 'a' && DtGetCh() == 'b');
   DtRestoreKbHit();
   DtRestoreKbHit();
   EXPECT_TRUE(restored()) << "a second restore changes nothing";

   DtKbHit();
   auto* keyboard = new DtSimpleKeyboard;
   EXPECT_TRUE(!(now().c_lflag & (ICANON | ECHO | ISIG)) && now().c_cc[VMIN] == 1);
   type("q\x03");
   EXPECT_TRUE(waitFor([&] { return keyboard->kbhit() == 1; }));
   EXPECT_EQ(1, keyboard->kbhit()) << "the character is kept";
   EXPECT_EQ('q', keyboard->getkey());
   EXPECT_EQ(0x03, keyboard->getkey()) << "the interrupt character arrives as a character";
   DtRestoreKbHit();
   EXPECT_FALSE(now().c_lflag & ICANON) << "the keyboard still holds the terminal";
   delete keyboard;
   EXPECT_TRUE(restored());
}

TEST_F(ConsoleTest, OnAPipeLinesAreCutToTheBufferAndTheEndOfInputIsSeen)
{
   useInput(false);
   olt::CapturePrinter warnings(DtWarn);
   char buffer[8] = "#######";
   EXPECT_FALSE(DtPollBlockingInputLine(buffer, sizeof buffer) || *buffer) << "nothing waits";
   type("xyz\n\nabcdefghij\nz");
   EXPECT_EQ(17, DtKbHit());
   EXPECT_EQ('x', DtGetCh());
   // An empty line is a line; a long one is cut to size - 2 and the rest stays.
   std::string lines;
   for (int i = 0; i < 4 && DtPollBlockingInputLine(buffer, sizeof buffer); ++i)
      lines += std::string(buffer) + "|";
   EXPECT_EQ("yz||abcdef|ghij|", lines);
   EXPECT_EQ("DtPollBlockingInputLine: exceeded buffer size\n", warnings.text());
   EXPECT_EQ('z', DtPollBlockingInputChar());
   EXPECT_EQ(0, DtPollBlockingInputChar()) << "nothing waits";
   close(writeEnd);
   writeEnd = -1;
   EXPECT_EQ(-1, DtGetCh()) << "the end of input";
   EXPECT_EQ(0, inChild([] { DtPollBlockingInputLine(); })) << "polling there ends the process";
   EXPECT_EQ(0, inChild([] { DtPollBlockingInputChar(); }));
}

TEST_F(ConsoleTest, TheTerminalIsRestoredWhenTheProcessEnds)
{
   useInput(true);
   // exit(); SIGTERM's default course; the application's own handler, which stays.
   for (int how : {0, 1, 2})
   {
      SCOPED_TRACE(how);
      ASSERT_EQ(0, tcsetattr(slave, TCSANOW, &original));
      auto const child = [how]
      {
         if (how == 2)
            signal(SIGTERM, [](int) { _exit(5); });
         DtKbHit();
         if (how)
            raise(SIGTERM);
         std::exit(0);
      };
      EXPECT_EQ(how == 0 ? 0 : how == 1 ? SIGTERM : 5 << 8, inChild(child));
      EXPECT_EQ(how < 2, restored());
   }
}
