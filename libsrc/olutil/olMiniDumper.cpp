//===- olMiniDumper.cpp - Crash call stacks with files and lines ----------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olMiniDumper.h>

#include "olCrashSupport.h"
#include "olLogDirectory.h"

#include <olutil/olFilename.h>

#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

std::map<std::string, unsigned long> DtMiniDumper::myAddressSpace;
std::string DtMiniDumper::myApplicationName;

namespace
{

constexpr int theStackFrames = 50;
// The frames of the handler itself and of the signal's return path.
constexpr int theHandlerFrames = 2;
constexpr unsigned int theWatchdogSeconds = 30;

// The crash file's name as the first, signal-safe stage writes it; set at load
// and by setApplicationName.
char theCrashPath[4096];

void rememberCrashPath(std::string const& name)
{
   olcrash::FixedText path(theCrashPath, sizeof theCrashPath);
   path.add(name.c_str());
}

std::string crashFileName(DtFilename const& directory, std::string application)
{
   if (application.empty() && program_invocation_short_name)
      application = program_invocation_short_name;
   return std::string(DtFilename::combine(directory, DtFilename(application.c_str())).c_str()) +
          ".callstack.log";
}

// The name and the unwinder are ready before any crash: a handler that loaded
// the unwinder itself would call the dynamic loader, which may allocate. Loading
// the library creates no folder: until setApplicationName, a crash with the log
// folder missing loses only the first stage's raw copy.
struct PreparedAtLoad
{
   PreparedAtLoad()
   {
      rememberCrashPath(crashFileName(olfilename::qorLogDirectoryPath(), std::string()));
      void* warmUp[1];
      backtrace(warmUp, 1);
   }
} thePreparedAtLoad;

// "addr2line" runs through the shell: the object's path goes in single quotes.
std::string shellQuoted(std::string const& text)
{
   std::string quoted = "'";
   for (char c : text)
   {
      if (c == '\'')
         quoted += "'\\''";
      else
         quoted += c;
   }
   return quoted + "'";
}

bool tellsFileAndLine(std::string const& answer)
{
   return !answer.empty() && answer != "??:0" && answer != "??:?";
}

void runQuietly(char const* command)
{
   int const status = std::system(command);
   static_cast<void>(status);
}

void endOnWatchdog(int)
{
   _exit(1);
}

// The second stage may wait on the helper tools, or on a lock that the faulting
// thread held: whatever happens, the process ends within the watchdog's time.
void startWatchdog()
{
   struct sigaction action{};
   action.sa_handler = endOnWatchdog;
   sigemptyset(&action.sa_mask);
   sigaction(SIGALRM, &action, nullptr);
   sigset_t alarmOnly;
   sigemptyset(&alarmOnly);
   sigaddset(&alarmOnly, SIGALRM);
   pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
   alarm(theWatchdogSeconds);
}

// First stage, signal-safe only: the header on standard error, the raw frames
// in the crash file.
void writeRawStack(int signal, void* const* frames, int count)
{
   char header[64];
   olcrash::FixedText text(header, sizeof header);
   text.addFormatted("Error: signal %d: Stacktrace:\n", signal);
   olcrash::writeText(STDERR_FILENO, text);

   int const fd = open(theCrashPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   if (fd < 0)
      return;
   if (count > theHandlerFrames)
      olcrash::writeFrames(fd, frames + theHandlerFrames, count - theHandlerFrames, "[#");
   close(fd);
}

// Second stage: the helper tools turn the frames into files and lines; the
// full report replaces the raw one in a single rename.
void writeDescribedStack(void* const* frames, int count)
{
   unsetenv("LD_PRELOAD");
   runQuietly("pmap -V > /dev/null");
   runQuietly("addr2line -V > /dev/null");
   char** const lines = backtrace_symbols(frames, count);
   DtMiniDumper::initializeAddressSpace();

   std::string const path = DtMiniDumper::callStackFileName();
   std::string const partial = path + ".partial";
   FILE* const file = std::fopen(partial.c_str(), "w");
   for (int i = theHandlerFrames; i < count; ++i)
   {
      std::string line = lines ? lines[i] : "";
      int const number = i - theHandlerFrames;
      std::fprintf(stderr, "[#%d] %s\n", number, line.c_str());
      if (file)
         std::fprintf(file, "[#%d] %s\n", number, line.c_str());

      std::string object, name;
      DtMiniDumper::objFileAndNameFromStack(&line[0], object, name);
      std::string answer = DtMiniDumper::lookupFileInfo(object, frames[i]);
      if (!tellsFileAndLine(answer))
      {
         // A position-independent object answers only to addresses relative
         // to where it was loaded.
         auto const loaded = DtMiniDumper::myAddressSpace.find(name);
         auto const address = reinterpret_cast<std::uintptr_t>(frames[i]);
         if (loaded != DtMiniDumper::myAddressSpace.end() && address >= loaded->second)
            answer = DtMiniDumper::lookupFileInfo(
                object, reinterpret_cast<void*>(address - loaded->second));
      }
      if (tellsFileAndLine(answer))
      {
         std::fprintf(stderr, "%s\n", answer.c_str());
         if (file)
            std::fprintf(file, "%s\n", answer.c_str());
      }
   }
   std::free(lines);
   if (file && std::fclose(file) == 0 && std::rename(partial.c_str(), path.c_str()) == 0 &&
       path != theCrashPath)
      unlink(theCrashPath);  // the raw report went elsewhere: the full one replaces it
}

}  // namespace

void DtMiniDumper::printCallStack(int signal, siginfo_t*, void*)
{
   olcrash::enterHandler();
   // Taken here, so that frames 0 and 1 are this handler and the signal's
   // return path whatever the compiler inlines.
   void* frames[theStackFrames];
   int const count = backtrace(frames, theStackFrames);
   writeRawStack(signal, frames, count);
   startWatchdog();
   writeDescribedStack(frames, count);
   // exit() would run exit handlers in a process whose state can't be trusted.
   _exit(1);
}

void DtMiniDumper::initializeAddressSpace()
{
   myAddressSpace.clear();
   char command[96];
   std::snprintf(command, sizeof command, "pmap -x -q %i 2> /dev/null | tail -n +2",
                 static_cast<int>(getpid()));
   FILE* const pipe = popen(command, "r");
   if (!pipe)
      return;
   char line[256];
   while (std::fgets(line, sizeof line, pipe))
   {
      unsigned long const address = std::strtoul(line, nullptr, 16);
      char const* const blank = std::strrchr(line, ' ');
      std::string name = blank ? blank + 1 : line;
      if (!name.empty())
         name.pop_back();  // the end of line
      if (name == "]")
         continue;  // "[ anon ]" and its kind
      // pmap lists in address order: the first address of a name is its lowest.
      myAddressSpace.emplace(name, address);
   }
   pclose(pipe);
}

void DtMiniDumper::objFileAndNameFromStack(char* line, std::string& object, std::string& name)
{
   object.clear();
   name.clear();
   if (!line)
      return;
   char const* nameStart = line;
   for (char* at = line; *at; ++at)
   {
      if (*at == '(' || *at == ' ')
      {
         *at = 0;
         break;
      }
      if (*at == '/')
         nameStart = at + 1;
   }
   object = line;
   name = nameStart;
}

std::string DtMiniDumper::lookupFileInfo(std::string const& object, void* address)
{
   std::string const quoted = shellQuoted(object);
   std::vector<char> command(quoted.size() + 64);
   std::snprintf(command.data(), command.size(), "addr2line %p -e %s 2> /dev/null", address,
                 quoted.c_str());
   FILE* const pipe = popen(command.data(), "r");
   if (!pipe)
      return std::string();
   char line[256];
   std::string answer;
   if (std::fgets(line, sizeof line, pipe))
   {
      answer = line;
      answer.pop_back();  // the end of line
   }
   pclose(pipe);
   return answer;
}

void DtMiniDumper::setApplicationName(std::string const& name)
{
   myApplicationName = name;
   rememberCrashPath(callStackFileName());
}

std::string DtMiniDumper::callStackFileName()
{
   return crashFileName(DtGetQorLogDirectory(), myApplicationName);
}
