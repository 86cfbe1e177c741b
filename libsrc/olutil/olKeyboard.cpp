//===- olKeyboard.cpp - Polling the console for input ---------------------===//
//
// Family: Platform.
//
//===----------------------------------------------------------------------===//
#include <olutil/olKeyboard.h>

#include <olutil/olPrint.h>
#include <olutil/olProcessControl.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace
{

// ------------------------------------------------------- terminal hold
// The terminal as it was before anything here changed it, kept while DtKbHit
// or a DtSimpleKeyboard holds changed settings, so that every way out of the
// process can put it back.

int const theRestoringSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr int theRestoringSignalCount = sizeof theRestoringSignals / sizeof theRestoringSignals[0];

struct TerminalHold
{
   // Read by the signal handler.
   volatile sig_atomic_t holders = 0;
   termios original{};
   bool exitHookRegistered = false;
   bool handlerInstalled[theRestoringSignalCount] = {};
};

TerminalHold theHold;

void restoreOriginalSettings()
{
   if (theHold.holders > 0)
      tcsetattr(STDIN_FILENO, TCSANOW, &theHold.original);
}

// Runs in a signal handler: tcsetattr, sigaction and raise are all safe there.
// The signal is blocked while the handler runs, so the raise takes effect, with
// the default action, as soon as the handler returns.
void restoreThenResignal(int signal)
{
   int const savedErrno = errno;
   restoreOriginalSettings();
   struct sigaction fallback{};
   fallback.sa_handler = SIG_DFL;
   sigemptyset(&fallback.sa_mask);
   sigaction(signal, &fallback, nullptr);
   raise(signal);
   errno = savedErrno;
}

// Only where the application left the default action: its own handlers stay.
void installSignalRestore()
{
   for (int i = 0; i < theRestoringSignalCount; ++i)
   {
      struct sigaction current{};
      if (sigaction(theRestoringSignals[i], nullptr, &current) != 0)
         continue;
      if ((current.sa_flags & SA_SIGINFO) || current.sa_handler != SIG_DFL)
         continue;
      struct sigaction restoring{};
      restoring.sa_handler = restoreThenResignal;
      sigemptyset(&restoring.sa_mask);
      theHold.handlerInstalled[i] = sigaction(theRestoringSignals[i], &restoring, nullptr) == 0;
   }
}

void removeSignalRestore()
{
   for (int i = 0; i < theRestoringSignalCount; ++i)
   {
      if (!theHold.handlerInstalled[i])
         continue;
      theHold.handlerInstalled[i] = false;
      struct sigaction current{};
      if (sigaction(theRestoringSignals[i], nullptr, &current) != 0)
         continue;
      if (!(current.sa_flags & SA_SIGINFO) && current.sa_handler == restoreThenResignal)
      {
         struct sigaction fallback{};
         fallback.sa_handler = SIG_DFL;
         sigemptyset(&fallback.sa_mask);
         sigaction(theRestoringSignals[i], &fallback, nullptr);
      }
   }
}

// The holders, oldest first, each by the settings it found and puts back.
std::vector<termios*>& holdStack()
{
   static auto* const theStack = new std::vector<termios*>;
   return *theStack;
}

void holdTerminal(termios* found)
{
   if (theHold.holders == 0)
   {
      theHold.original = *found;
      installSignalRestore();
   }
   holdStack().push_back(found);
   theHold.holders = static_cast<int>(holdStack().size());
   if (!theHold.exitHookRegistered)
      theHold.exitHookRegistered = std::atexit(restoreOriginalSettings) == 0;
}

// The newest holder puts back what it found. One that lets go out of turn
// changes nothing now: the holder above it inherits what it found. The last
// one puts back the original.
void releaseTerminal(termios* found)
{
   std::vector<termios*>& stack = holdStack();
   auto const at = std::find(stack.begin(), stack.end(), found);
   if (at == stack.end())
      return;
   if (stack.size() == 1)
   {
      restoreOriginalSettings();
      removeSignalRestore();
   }
   else if (at + 1 == stack.end())
   {
      tcsetattr(STDIN_FILENO, TCSANOW, found);
   }
   else
   {
      **(at + 1) = *found;
   }
   stack.erase(at);
   theHold.holders = static_cast<int>(stack.size());
}

// ------------------------------------------------------- standard input

// One byte from standard input: 1, 0 at the end of input, -1 on failure.
int readByte(unsigned char& byte)
{
   for (;;)
   {
      ssize_t const got = read(STDIN_FILENO, &byte, 1);
      if (got >= 0)
         return static_cast<int>(got);
      if (errno != EINTR)
         return -1;
   }
}

// Whether input waits, without waiting for it. A failing select is reported
// under `what` and counts as nothing waiting.
bool inputWaits(char const* what)
{
   fd_set readable;
   FD_ZERO(&readable);
   FD_SET(STDIN_FILENO, &readable);
   int const ready = DtSelect(STDIN_FILENO + 1, &readable, nullptr, nullptr, 0.0);
   if (ready < 0)
   {
      std::perror(what);
      return false;
   }
   return ready > 0;
}

// DtKbHit's state.
bool theKbHitInitialised = false;
bool theKbHitSaved = false;
termios theKbHitSettings{};

}  // namespace

// ============================================================ console input

int DtKbHit()
{
   if (!theKbHitInitialised)
   {
      theKbHitInitialised = true;
      if (tcgetattr(STDIN_FILENO, &theKbHitSettings) == 0)
      {
         theKbHitSaved = true;
         holdTerminal(&theKbHitSettings);
         termios raw = theKbHitSettings;
         raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
         raw.c_cc[VMIN] = 0;
         tcsetattr(STDIN_FILENO, TCSANOW, &raw);
      }
      std::setbuf(stdin, nullptr);
   }
   int waiting = 0;
   if (ioctl(STDIN_FILENO, FIONREAD, &waiting) != 0)
      return 0;
   return waiting;
}

void DtRestoreKbHit()
{
   theKbHitInitialised = false;
   if (theKbHitSaved)
   {
      theKbHitSaved = false;
      releaseTerminal(&theKbHitSettings);
   }
}

int DtGetCh()
{
   unsigned char byte = 0;
   return readByte(byte) == 1 ? byte : -1;
}

bool DtPollBlockingInputLine(char* buffer, int size)
{
   if (!buffer || size < 1)
      return false;
   buffer[0] = 0;
   if (!inputWaits("DtPollBlockingInputLine: select"))
      return false;
   int const limit = size - 2;
   int count = 0;
   for (;;)
   {
      if (count >= limit)
      {
         DtWarn << "DtPollBlockingInputLine: exceeded buffer size\n";
         buffer[count] = 0;
         return true;
      }
      unsigned char byte = 0;
      int const got = readByte(byte);
      if (got == 0)
         std::exit(0);
      if (got < 0 || byte == '\n')
      {
         buffer[count] = 0;
         return got > 0 || count > 0;
      }
      buffer[count++] = static_cast<char>(byte);
   }
}

char* DtPollBlockingInputLine()
{
   static char theLine[512];
   return DtPollBlockingInputLine(theLine, sizeof theLine) ? theLine : nullptr;
}

int DtPollBlockingInputChar()
{
   if (!inputWaits("DtPollBlockingInputChar: select"))
      return 0;
   unsigned char byte = 0;
   int const got = readByte(byte);
   if (got == 0)
      std::exit(0);
   return got > 0 ? byte : 0;
}

// ========================================================== DtSimpleKeyboard

DtSimpleKeyboard::DtSimpleKeyboard()
{
   if (tcgetattr(STDIN_FILENO, &saved) != 0)
      return;
   haveSaved = true;
   holdTerminal(&saved);
   termios raw = saved;
   raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
   raw.c_cc[VMIN] = 1;
   raw.c_cc[VTIME] = 0;
   tcsetattr(STDIN_FILENO, TCSANOW, &raw);
}

DtSimpleKeyboard::~DtSimpleKeyboard()
{
   if (haveSaved)
      releaseTerminal(&saved);
}

int DtSimpleKeyboard::kbhit()
{
   if (peek != -1)
      return 1;
   unsigned char byte = 0;
   int got = 0;
   termios current{};
   if (haveSaved && tcgetattr(STDIN_FILENO, &current) == 0)
   {
      // With VMIN 0 and VTIME 0 a read returns at once, with or without a byte.
      current.c_cc[VMIN] = 0;
      tcsetattr(STDIN_FILENO, TCSANOW, &current);
      got = readByte(byte);
      current.c_cc[VMIN] = 1;
      tcsetattr(STDIN_FILENO, TCSANOW, &current);
   }
   else if (inputWaits("DtSimpleKeyboard::kbhit: select"))
   {
      got = readByte(byte);
   }
   if (got != 1)
      return 0;
   peek = byte;
   return 1;
}

int DtSimpleKeyboard::getkey()
{
   if (peek != -1)
   {
      int const key = peek;
      peek = -1;
      return key;
   }
   unsigned char byte = 0;
   return readByte(byte) == 1 ? byte : -1;
}
