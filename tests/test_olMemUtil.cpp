// Tests of the memory figures, against /proc/meminfo, and with sysinfo refused by seccomp.
#include <olutil/olMemUtil.h>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "support_capture.h"

TEST(MemUtilTest, FiguresAgreeWithTheKernelsOwnAccount)
{
   std::ifstream meminfo("/proc/meminfo");
   std::string field;
   unsigned long kilobytes = 0;
   ASSERT_TRUE(meminfo >> field >> kilobytes && field == "MemTotal:");
   unsigned long const total = DtTotalPhysicalMemory();
   EXPECT_EQ(kilobytes * 1024, total);
   EXPECT_EQ(total, DtAvailablePhysicalMemory()) << "the total, kept so";
   EXPECT_TRUE(DtPhysicalMemoryUsed() > 0 && DtPhysicalMemoryUsed() <= total);
   EXPECT_TRUE(DtPercentageMemoryUsed() > 0.0 && DtPercentageMemoryUsed() <= 1.0);
}

TEST(MemUtilTest, AFailedSysinfoWarnsWithTheFunctionsNameAndGivesZero)
{
   pid_t const child = fork();
   ASSERT_GE(child, 0);
   if (child == 0)
   {
      // sysinfo fails with EPERM in this process from now on.
      sock_filter filter[] = {
          BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_sysinfo, 0, 1),
          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (EPERM & SECCOMP_RET_DATA)),
          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      };
      sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
      if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
          prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
         _exit(77);
      olt::CapturePrinter warnings(DtWarn);
      bool const zeros = DtTotalPhysicalMemory() == 0 && DtAvailablePhysicalMemory() == 0 &&
                         DtPhysicalMemoryUsed() == 0 && DtPercentageMemoryUsed() == 0.0;
      std::string expected;
      for (char const* name : {"DtTotalPhysicalMemory", "DtAvailablePhysicalMemory",
                               "DtPhysicalMemoryUsed", "DtPercentageMemoryUsed"})
         expected += std::string(name) + ": cannot get system info, returning 0\n";
      _exit(zeros && warnings.text() == expected ? 0 : 1);
   }
   int status = 0;
   ASSERT_EQ(child, waitpid(child, &status, 0));
   if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
      GTEST_SKIP() << "seccomp filters are not available here";
   EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "1: not zeros, or other warnings";
}
