// Test support: real faults in forked children, and reading what they leave.
#ifndef OLUTIL_TESTS_SUPPORT_CRASH_H
#define OLUTIL_TESTS_SUPPORT_CRASH_H

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace olt
{

inline std::uintptr_t volatile theBadAddress = 16;

// A store to an unmapped page, past the sanitizers' null and alignment checks.
[[gnu::noinline]] inline void faultOnBadAddress()
{
   *reinterpret_cast<int volatile*>(theBadAddress) = 1;
}

// A real division fault; a division written in C++ would be caught by the
// undefined-behaviour checks of a sanitizer build before it faulted.
[[gnu::noinline]] inline void divideByZero()
{
   int const zero = 0;
   asm volatile("movl $1, %%eax\n\tcltd\n\tidivl %0" : : "r"(zero) : "eax", "edx", "cc");
}

// Raises SIGSEGV, SIGFPE or SIGABRT the way a faulty program does.
[[gnu::noinline]] inline void crashBy(int signal)
{
   if (signal == SIGSEGV)
      faultOnBadAddress();
   else if (signal == SIGFPE)
      divideByZero();
   else
      std::abort();
   _exit(99);  // the crash did not happen
}

inline bool waitFor(std::function<bool()> const& condition, int seconds = 60)
{
   auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
   while (!condition() && std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
   return condition();
}

// Runs `body` in a child and gives its wait status; `whileRunning` runs in the
// parent meanwhile. A child that hangs is killed after the bound.
inline int inChild(std::function<void()> const& body,
                   std::function<void(pid_t)> const& whileRunning = {})
{
   pid_t const child = fork();
   if (child == 0)
   {
      body();
      _exit(98);
   }
   if (child < 0)
      return -1;
   if (whileRunning)
      whileRunning(child);
   int status = 0;
   if (!waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }))
   {
      kill(child, SIGKILL);
      waitpid(child, &status, 0);
   }
   return status;
}

inline bool exitedWith(int status, int code)
{
   return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

inline std::string fileText(std::string const& path)
{
   std::ifstream file(path);
   std::stringstream text;
   text << file.rdbuf();
   return text.str();
}

inline std::vector<std::string> linesOf(std::string const& text)
{
   std::vector<std::string> lines;
   std::istringstream stream(text);
   for (std::string line; std::getline(stream, line);)
      lines.push_back(line);
   return lines;
}

// A named pipe at `path`, held open for reading and filled to the brim, so
// that whoever opens it to write waits in its first write: there a signal can
// reach a handler that is still writing its report. (A pipe without a reader
// would hold the writer in open, where a ThreadSanitizer build does not deliver
// signals.)
class FullPipe
{
public:
   explicit FullPipe(std::string const& path)
   {
      if (mkfifo(path.c_str(), 0600) != 0)
         return;
      fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
      if (fd < 0)
         return;
      fcntl(fd, F_SETPIPE_SZ, 4096);
      char const byte = 0;
      while (write(fd, &byte, 1) == 1)
      {
      }
      full = errno == EAGAIN;
   }
   ~FullPipe()
   {
      if (fd >= 0)
         close(fd);
   }
   FullPipe(FullPipe const&) = delete;
   FullPipe& operator=(FullPipe const&) = delete;

   bool full = false;

private:
   int fd = -1;
};

// Whether the process waits in a write to a pipe ("pipe_write", or
// "anon_pipe_write" on newer kernels).
inline bool waitsInPipeWrite(pid_t process)
{
   std::string const wchan = fileText("/proc/" + std::to_string(process) + "/wchan");
   std::string const tail = "pipe_write";
   return wchan.size() >= tail.size() &&
          wchan.compare(wchan.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_CRASH_H
