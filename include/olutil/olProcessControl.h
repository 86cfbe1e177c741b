//===- olutil/olProcessControl.h - Waiting, sleeping, child processes -*- C++ -*-===//
//
// Family: Platform.
//
// Small wrappers for waiting on descriptors, yielding and sleeping, and
// DtCreateProcess, which starts a program as a daemon, as a background process in a
// process group of its own, or as a plain child.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLPROCESSCONTROL_H
#define OLUTIL_OLPROCESSCONTROL_H

#include <sys/select.h>

#include <vector>

#include <olutil/olFilename.h>

// How DtCreateProcess runs the child. Only the numbers matter.
enum DtProcessInteractivity_enum
{
   // Daemon: new session, double fork, descriptors 0 to 15 closed; the program
   // runs in a grandchild that can never regain a terminal.
   DtProcessDaemon = 0,
   // The same as DtProcessDaemon.
   DtProcessDaemonSession = 1,
   // Plain child: no further set-up.
   DtProcessChild = 2,
   // Background: own process group, hang-up and interrupt ignored.
   DtProcessBackground = 3
};

// select() with the timeout in seconds, split into whole seconds and microseconds
// (the fraction times 1e6). Returns what select returns. A negative timeout is
// refused by select (-1, EINVAL).
int DtSelect(int count, fd_set* read, fd_set* write, fd_set* except, double timeout);

// Gives up the processor (sched_yield).
void DtYield();

// The process id of the calling process (getpid).
int DtGetPid();

// Sleeps for the given number of seconds; 0 or less returns at once. A failed wait
// (a signal interrupting it, for one) ends the sleep early with a "select" warning
// on DtWarn.
void DtSleep(double seconds);

// Starts `program` with argv[0] set to its name without directory, then
// `arguments` (which must not hold the terminating null), and this process's
// environment. Returns true if a child was started: the caller cannot learn whether
// execve succeeded; a child that fails to run the program writes a message on
// DtFatal and exits with status 255.
//
// SIGPIPE and SIGALRM are set to their defaults while the child is made, so the
// program does not inherit them ignored; both are restored before returning.
// Daemon modes wait for the short-lived first child and report on DtVerbose; the
// child's standard descriptors stay closed. A mode other than 0, 1 and 3 runs a
// plain child.
//
// Thread safety: may be called from any thread; the handlers of SIGPIPE and SIGALRM
// are process-wide, so concurrent calls may restore each other's defaults.
bool DtCreateProcess(DtFilename const& program, std::vector<char const*> const& arguments,
                     DtProcessInteractivity_enum mode);

#endif  // OLUTIL_OLPROCESSCONTROL_H
