//===- olProcessControl.cpp - Waiting, sleeping, child processes ----------===//
#include <olutil/olProcessControl.h>

#include <sched.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>

#include <olutil/olFilename.h>
#include <olutil/olPrint.h>

extern char** environ;

namespace
{
// A child leaves with this status when it cannot run the program (exit(-1)).
constexpr int theChildFailureStatus = 255;

// The handlers of SIGPIPE and SIGALRM, set to their defaults for the life of the
// object so a new program does not inherit them ignored, and put back afterwards.
class DefaultSignalHandlers
{
public:
   DefaultSignalHandlers()
   {
      struct sigaction defaults;
      std::memset(&defaults, 0, sizeof defaults);
      defaults.sa_handler = SIG_DFL;
      sigemptyset(&defaults.sa_mask);
      sigaction(SIGPIPE, &defaults, &oldPipe_);
      sigaction(SIGALRM, &defaults, &oldAlarm_);
   }
   ~DefaultSignalHandlers()
   {
      sigaction(SIGPIPE, &oldPipe_, nullptr);
      sigaction(SIGALRM, &oldAlarm_, nullptr);
   }
   DefaultSignalHandlers(DefaultSignalHandlers const&) = delete;
   DefaultSignalHandlers& operator=(DefaultSignalHandlers const&) = delete;

private:
   struct sigaction oldPipe_;
   struct sigaction oldAlarm_;
};

void ignoreSignal(int number)
{
   signal(number, SIG_IGN);
}

// Turns the child into a daemon: a new session, no terminal signals, no inherited
// descriptors, and a second fork so that the process that runs the program is not
// a session leader and can never acquire a controlling terminal. Returns in the
// grandchild only.
void becomeDaemon()
{
   setsid();
   ignoreSignal(SIGTTOU);
   ignoreSignal(SIGTTIN);
   ignoreSignal(SIGTSTP);
   for (int descriptor = 0; descriptor < 16; ++descriptor)
   {
      close(descriptor);
   }
   ignoreSignal(SIGHUP);
   ignoreSignal(SIGINT);
   pid_t const grandchild = fork();
   if (grandchild < 0)
   {
      DtWarn << "Daemon startup failed - stage 2.\n";
      DtWarn.flush();
      _exit(theChildFailureStatus);
   }
   if (grandchild > 0)
   {
      // _exit: the exit handlers and static objects belong to the parent's program
      // and must not run a second time in a copy of it.
      _exit(0);
   }
}

// Runs in the forked child: never returns.
[[noreturn]] void runChild(char const* path, std::vector<char*> const& argv,
                           DtProcessInteractivity_enum mode)
{
   if (mode == DtProcessBackground)
   {
      // The parent sets the group too; doing it on both sides closes the race with
      // execve.
      setpgid(0, 0);
      ignoreSignal(SIGHUP);
      ignoreSignal(SIGINT);
   }
   else if (mode == DtProcessDaemon || mode == DtProcessDaemonSession)
   {
      becomeDaemon();
   }
   execve(path, argv.data(), environ);
   int const error = errno;
   DtFatal << "Fatal Error: Encountered error " << error << "when starting process " << path
           << "\nExiting...\n";
   DtFatal.flush();
   _exit(theChildFailureStatus);
}
}  // namespace

int DtSelect(int count, fd_set* read, fd_set* write, fd_set* except, double timeout)
{
   struct timeval limit;
   limit.tv_sec = static_cast<time_t>(timeout);
   limit.tv_usec = static_cast<suseconds_t>((timeout - static_cast<double>(limit.tv_sec)) * 1e6);
   return select(count, read, write, except, &limit);
}

void DtYield()
{
   sched_yield();
}

int DtGetPid()
{
   return static_cast<int>(getpid());
}

void DtSleep(double seconds)
{
   if (seconds <= 0.0)
   {
      return;
   }
   if (DtSelect(0, nullptr, nullptr, nullptr, seconds) < 0)
   {
      DtWarnPerror("select");
   }
}

bool DtCreateProcess(DtFilename const& program, std::vector<char const*> const& arguments,
                     DtProcessInteractivity_enum mode)
{
   char const* const path = program.c_str() ? program.c_str() : "";
   // Everything the child needs is built before fork: after it, a child of a
   // threaded program must not allocate.
   std::vector<char*> argv;
   argv.reserve(arguments.size() + 2);
   // The name a program sees as argv[0]: its file name without the directory.
   DtFilename baseName(path);
   baseName.stripPath();
   argv.push_back(const_cast<char*>(baseName.c_str()));
   for (char const* argument : arguments)
   {
      argv.push_back(const_cast<char*>(argument));
   }
   argv.push_back(nullptr);

   DefaultSignalHandlers defaults;
   pid_t const child = fork();
   if (child < 0)
   {
      DtWarn << "Could not fork process" << std::endl;
      return false;
   }
   if (child == 0)
   {
      runChild(path, argv, mode);
   }

   if (mode == DtProcessBackground)
   {
      // EACCES means the child has already run execve, which it does only after
      // putting itself into its own group.
      if (setpgid(child, 0) != 0 && errno != EACCES)
      {
         DtWarn << "Background process " << path << " startup failed" << std::endl;
      }
      return true;
   }
   if (mode == DtProcessDaemon || mode == DtProcessDaemonSession)
   {
      // The first child exits as soon as it has forked the daemon.
      int status = 0;
      pid_t waited;
      do
      {
         waited = waitpid(child, &status, 0);
      } while (waited < 0 && errno == EINTR);
      DtVerbose << "Child process: " << path << " started in background ( " << child << " )\n";
      return true;
   }
   return true;
}
