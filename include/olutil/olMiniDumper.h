//===- olutil/olMiniDumper.h - Crash call stacks with files and lines -*- C++ -*-===//
//
// Family: Diagnostics.
//
// DtMiniDumper's printCallStack is a crash handler that writes the call stack
// to standard error and to "<log directory>/<application>.callstack.log", and
// turns each frame into a source file and line with the system's pmap and
// addr2line tools. The application installs it itself with sigaction
// (SA_SIGINFO); the library installs nothing.
//
// The handler works in two stages. First, with async-signal-safe calls only,
// it writes "Error: signal N: Stacktrace:" to standard error and the raw frames
// to the crash file, so the stack survives whatever happens next. Then it hands
// over to the helper tools: it removes LD_PRELOAD, runs pmap and addr2line, and
// replaces the crash file with the frames and their files and lines. A watchdog
// of 30 seconds bounds that stage, and a second fault in either stage ends the
// process at once; the process always ends with status 1.
//
// Threads: set the application name at start-up, from one thread. The handler
// runs on whichever thread faulted.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLMINIDUMPER_H
#define OLUTIL_OLMINIDUMPER_H

#include <signal.h>

#include <map>
#include <string>

class DtMiniDumper
{
public:
   DtMiniDumper() = delete;

   /// The handler; it does not return.
   static void printCallStack(int signal, siginfo_t* info, void* context);

   /// Fills myAddressSpace from "pmap -x -q PID": the lowest address of each
   /// mapped object, by the object's file name; anonymous mappings are passed
   /// over. Leaves it empty when pmap can't run.
   static void initializeAddressSpace();
   /// Splits one line of backtrace_symbols, "/usr/lib/libx.so(f+0x1) [0x2]",
   /// into the object ("/usr/lib/libx.so") and its file name ("libx.so"). The
   /// line is changed in place: it ends where the object ends.
   static void objFileAndNameFromStack(char* line, std::string& object, std::string& name);
   /// The line that "addr2line ADDRESS -e OBJECT" prints ("file.cpp:12"),
   /// without its end of line; empty when the tool can't run or says nothing.
   static std::string lookupFileInfo(std::string const& object, void* address);

   /// Sets myApplicationName and the crash file's name. While the name is
   /// empty, the program's own name (program_invocation_short_name) is used.
   static void setApplicationName(std::string const& name);
   /// DtFilename::combine(DtGetQorLogDirectory(), the application name)
   /// followed by ".callstack.log".
   static std::string callStackFileName();

   /// Object file name to the address at which it is loaded.
   static std::map<std::string, unsigned long> myAddressSpace;
   static std::string myApplicationName;
};

#endif  // OLUTIL_OLMINIDUMPER_H
