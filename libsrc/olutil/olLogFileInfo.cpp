//===- olLogFileInfo.cpp - Run identity, log names, crash call stacks -----===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olLogFileInfo.h>

#include "olCrashSupport.h"

#include <olutil/olProcessControl.h>

#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace
{

// The crash file's name, kept up to date by every change of the identity so
// that the handler reads it without allocating. Empty until the identity exists.
char theCallStackPath[4096];

constexpr int theBacktraceFrames = 100;

std::string localTimeText(char const* format, std::tm const& local)
{
   char text[64];
   std::size_t const length = std::strftime(text, sizeof text, format, &local);
   return std::string(text, length);
}

// The application name in file names: the program's own name until one is set.
std::string nameForFiles(std::string const& appName)
{
   if (!appName.empty())
      return appName;
   return program_invocation_short_name ? program_invocation_short_name : "";
}

}  // namespace

DtLogFileInfo& DtLogFileInfo::instance()
{
   static DtLogFileInfo* const theInstance = new DtLogFileInfo;
   return *theInstance;
}

DtLogFileInfo::DtLogFileInfo()
{
   std::time_t const now = std::time(nullptr);
   std::tm local{};
   localtime_r(&now, &local);
   date = localTimeText("%Y%m%d", local);
   time = localTimeText("%H%M%S", local);
   char host[256] = {};
   if (gethostname(host, sizeof host) == 0)
   {
      host[sizeof host - 1] = 0;
      hostname = host;
   }
   pid = std::to_string(DtGetPid());
   nameChanged();
}

void DtLogFileInfo::setAppName(std::string const& name)
{
   appName = name;
   nameChanged();
}

void DtLogFileInfo::setProtocol(std::string const& text)
{
   protocol = text;
   nameChanged();
}

void DtLogFileInfo::setSvnRev(std::string const& text)
{
   svnRev = text;
   nameChanged();
}

void DtLogFileInfo::setVersion(std::string const& text)
{
   version = text;
   nameChanged();
}

std::string DtLogFileInfo::getFullString() const
{
   return nameForFiles(appName) + protocol + version + "-" + date + "-" + time + "-" + hostname +
          "-" + svnRev + "-" + pid;
}

std::string DtLogFileInfo::getLogFileName() const
{
   return getFullString() + ".log";
}

std::string DtLogFileInfo::getCallStackFileName() const
{
   return getFullString() + ".callstack.log";
}

void DtLogFileInfo::nameChanged()
{
   olcrash::FixedText path(theCallStackPath, sizeof theCallStackPath);
   path.add(getCallStackFileName().c_str());
}

void DtLogFileInfo::setupErrorHandling()
{
   // The crash file's name exists before any crash, and the unwinder is loaded
   // now rather than inside the handler.
   instance();
   void* warmUp[1];
   backtrace(warmUp, 1);

   struct sigaction action{};
   action.sa_sigaction = DtPrintAddrLines;
   action.sa_flags = SA_SIGINFO;
   sigemptyset(&action.sa_mask);
   for (int signal : {SIGSEGV, SIGABRT, SIGFPE})
      sigaction(signal, &action, nullptr);
}

void DtPrintAddrLines(int signal, siginfo_t*, void*)
{
   olcrash::enterHandler();
   char fallback[512];
   char const* path = theCallStackPath;
   if (!path[0])
   {
      olcrash::FixedText name(fallback, sizeof fallback);
      name.add(program_invocation_short_name).add(".callstack.log");
      path = fallback;
   }
   // A file that can't be opened loses the report, never the exit.
   int const fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   if (fd >= 0)
   {
      char header[256];
      olcrash::FixedText text(header, sizeof header);
      text.add("Error: signal ").addNumber(signal).add(" ");
      text.add(olcrash::signalDescription(signal)).add("\nBacktrace:\n");
      olcrash::writeText(fd, text);
      void* frames[theBacktraceFrames];
      int const count = backtrace(frames, theBacktraceFrames);
      if (count <= 0)
      {
         char const failed[] = "backtrace_symbols error\n";
         olcrash::writeAll(fd, failed, sizeof failed - 1);
      }
      else
      {
         olcrash::writeFrames(fd, frames, count);
      }
      close(fd);
   }
   // exit() would run exit handlers and flush streams in a process whose state
   // can't be trusted; the status is the same.
   _exit(1);
}
