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
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace olt
{

inline std::uintptr_t volatile theBadAddress = 16;

// A store to an unmapped page, past the sanitizers' null and alignment checks.
[[gnu::noinline]] inline void faultOnBadAddress()
{
   *reinterpret_cast<int volatile*>(theBadAddress) = 1;
}

// Raises SIGSEGV, SIGFPE or SIGABRT the way a faulty program does. The division
// is written in assembly: in C++ a sanitizer would catch it before it faulted.
[[gnu::noinline]] inline void crashBy(int signal)
{
   int const zero = 0;
   if (signal == SIGSEGV)
      faultOnBadAddress();
   else if (signal == SIGFPE)
      asm volatile("movl $1, %%eax\n\tcltd\n\tidivl %0" : : "r"(zero) : "eax", "edx", "cc");
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
   if (whileRunning && child > 0)
      whileRunning(child);
   int status = -1;
   if (child > 0 && !waitFor([&] { return waitpid(child, &status, WNOHANG) == child; }))
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
   std::stringstream text;
   text << std::ifstream(path).rdbuf();
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

// Each test crashes its children into a directory of its own.
class CrashTest : public ::testing::Test
{
protected:
   void SetUp() override { std::filesystem::create_directories(directory); }
   void TearDown() override { std::filesystem::remove_all(directory); }

   std::string const directory = "/tmp/olt-crash-" + std::to_string(getpid()) + "-" +
                                 ::testing::UnitTest::GetInstance()->current_test_info()->name();
};

// Runs `crash` in a child whose crash file at `path` is a named pipe, held open
// for reading and filled to the brim: the handler waits in its first write, and a
// SIGABRT arrives while it is there. Gives the child's status, or -1 when the
// handler never reached the write. (A pipe without a reader would hold the writer
// in open, where a ThreadSanitizer build does not deliver signals.)
inline int crashWithSecondSignal(std::string const& path, std::function<void()> const& crash)
{
   unlink(path.c_str());
   int const fd = mkfifo(path.c_str(), 0600) == 0 ? open(path.c_str(), O_RDWR | O_NONBLOCK) : -1;
   fcntl(fd, F_SETPIPE_SZ, 4096);
   char const byte = 0;
   while (fd >= 0 && write(fd, &byte, 1) == 1)
   {
   }
   bool reached = fd >= 0 && errno == EAGAIN;
   // The kernel names the wait "pipe_write", or "anon_pipe_write" on newer kernels.
   auto const inPipeWrite = [](pid_t child)
   {
      std::string const wchan = fileText("/proc/" + std::to_string(child) + "/wchan");
      return wchan.size() >= 10 && wchan.compare(wchan.size() - 10, 10, "pipe_write") == 0;
   };
   int const status = inChild(crash,
                              [&](pid_t child)
                              {
                                 reached = reached && waitFor([&] { return inPipeWrite(child); });
                                 kill(child, SIGABRT);
                              });
   close(fd);
   return reached ? status : -1;
}

}  // namespace olt

#endif  // OLUTIL_TESTS_SUPPORT_CRASH_H
