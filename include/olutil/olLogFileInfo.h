//===- olutil/olLogFileInfo.h - Run identity, log names, crash call stacks -*- C++ -*-===//
//
// Family: Diagnostics.
//
// An application that dies in the field should leave a file that says where.
// DtLogFileInfo gives every run one identity (application, protocol, version,
// date, time, host, revision, process id), from which the names of its log
// files follow, and holds a signal handler that writes the call stack to a
// ".callstack.log" file beside them. Nothing installs the handler by itself:
// the application calls setupErrorHandling() (or installs DtPrintAddrLines).
// DtMiniDumper (olMiniDumper.h) is the richer handler with files and lines.
//
// Threads: instance() may be called from any thread; the setters are meant for
// start-up, before the handler may run, and belong to one thread. The handler
// runs on whichever thread faulted.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLLOGFILEINFO_H
#define OLUTIL_OLLOGFILEINFO_H

#include <signal.h>

#include <string>

class DtLogFileInfo
{
public:
   /// The one object, made on first use and never freed.
   static DtLogFileInfo& instance();

   DtLogFileInfo(DtLogFileInfo const&) = delete;
   DtLogFileInfo& operator=(DtLogFileInfo const&) = delete;

   /// The name set by the application; empty until set. Names made from the
   /// identity use the program's own name (program_invocation_short_name)
   /// while this is empty, so a file always says which program wrote it.
   std::string const& getAppName() const { return appName; }
   void setAppName(std::string const& name);
   /// "%Y%m%d" of the local time when the object was made.
   std::string const& getDate() const { return date; }
   /// gethostname, read with a buffer of 256 bytes.
   std::string const& getHostname() const { return hostname; }
   /// May stay empty.
   std::string const& getProtocol() const { return protocol; }
   void setProtocol(std::string const& text);
   std::string const& getSvnRev() const { return svnRev; }
   void setSvnRev(std::string const& text);
   /// "%H%M%S" of the local time when the object was made.
   std::string const& getTime() const { return time; }
   std::string const& getVersion() const { return version; }
   void setVersion(std::string const& text);
   /// The process id when the object was made, as text.
   std::string const& getPid() const { return pid; }

   /// The run's identity: application name, protocol and version with no
   /// separator, then date, time, host name, revision and process id, each
   /// after a '-': "app1-20261121-054823-host-2-4242".
   std::string getFullString() const;
   /// getFullString() followed by ".log".
   std::string getLogFileName() const;
   /// getFullString() followed by ".callstack.log": where DtPrintAddrLines
   /// writes, relative to the current directory at the time of the crash.
   std::string getCallStackFileName() const;

   /// Installs DtPrintAddrLines for SIGSEGV, SIGABRT and SIGFPE (sigaction,
   /// SA_SIGINFO, an empty mask), and nothing else.
   static void setupErrorHandling();

private:
   DtLogFileInfo();
   // Keeps the crash file's name where the handler can read it without
   // allocating.
   void nameChanged();

   // The order of these fields is part of the binary layout.
   std::string appName;
   std::string date;
   std::string hostname;
   std::string protocol;
   std::string svnRev;
   std::string time;
   std::string version;
   std::string pid;
};

/// The handler of setupErrorHandling: writes "Error: signal N DESCRIPTION",
/// "Backtrace:" and up to 100 frames, one a line as backtrace_symbols gives
/// them, to getCallStackFileName(), then ends the process with status 1. It
/// does only async-signal-safe work, and a second fault while it runs ends the
/// process at once with status 1.
void DtPrintAddrLines(int signal, siginfo_t* info, void* context);

#endif  // OLUTIL_OLLOGFILEINFO_H
