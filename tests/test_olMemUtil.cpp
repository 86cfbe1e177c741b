// Tests of the memory figures, against /proc/meminfo, and of their failure path
// with sysinfo refused by a seccomp filter in a child process.
#include <olutil/olMemUtil.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "support_capture.h"

namespace
{

unsigned long memInfoBytes(std::string const& field)
{
   std::ifstream meminfo("/proc/meminfo");
   std::string line;
   while (std::getline(meminfo, line))
   {
      if (line.compare(0, field.size() + 1, field + ":") == 0)
      {
         std::istringstream values(line.substr(field.size() + 1));
         unsigned long kilobytes = 0;
         values >> kilobytes;
         return kilobytes * 1024;
      }
   }
   return 0;
}

constexpr int theNoSeccomp = 77;

// Makes sysinfo fail with EPERM in this process from now on.
bool refuseSysinfo()
{
   sock_filter filter[] = {
       BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
       BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_sysinfo, 0, 1),
       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
       BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
   };
   sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
   return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
          prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

TEST(MemUtilTest, FiguresAgreeWithTheKernelsOwnAccount)
{
   unsigned long const total = DtTotalPhysicalMemory();
   EXPECT_EQ(memInfoBytes("MemTotal"), total);
   EXPECT_EQ(total, DtAvailablePhysicalMemory()) << "the total, kept so";
   unsigned long const used = DtPhysicalMemoryUsed();
   EXPECT_GT(used, 0u);
   EXPECT_LE(used, total);
   double const fraction = DtPercentageMemoryUsed();
   EXPECT_GT(fraction, 0.0);
   EXPECT_LE(fraction, 1.0);
}

TEST(MemUtilTest, AFailedSysinfoWarnsWithTheFunctionsNameAndGivesZero)
{
   int report[2];
   ASSERT_EQ(0, pipe(report));
   pid_t const child = fork();
   ASSERT_GE(child, 0);
   if (child == 0)
   {
      close(report[0]);
      if (!refuseSysinfo())
         _exit(theNoSeccomp);
      std::string text;
      {
         olt::CapturePrinter warnings(DtWarn);
         bool const zeros = DtTotalPhysicalMemory() == 0 && DtAvailablePhysicalMemory() == 0 &&
                            DtPhysicalMemoryUsed() == 0 && DtPercentageMemoryUsed() == 0.0;
         text = (zeros ? "zeros\n" : "not zero\n") + warnings.text();
      }
      ssize_t const written = write(report[1], text.data(), text.size());
      _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
   }
   close(report[1]);
   std::string text;
   char chunk[512];
   for (ssize_t got; (got = read(report[0], chunk, sizeof chunk)) > 0;)
      text.append(chunk, static_cast<std::size_t>(got));
   close(report[0]);
   int status = 0;
   ASSERT_EQ(child, waitpid(child, &status, 0));
   ASSERT_TRUE(WIFEXITED(status));
   if (WEXITSTATUS(status) == theNoSeccomp)
      GTEST_SKIP() << "seccomp filters are not available here";
   EXPECT_EQ(0, WEXITSTATUS(status));
   EXPECT_EQ("zeros\n"
             "DtTotalPhysicalMemory: cannot get system info, returning 0\n"
             "DtAvailablePhysicalMemory: cannot get system info, returning 0\n"
             "DtPhysicalMemoryUsed: cannot get system info, returning 0\n"
             "DtPercentageMemoryUsed: cannot get system info, returning 0\n",
             text);
}
