//===- olMemUtil.cpp - The machine's memory figures -----------------------===//
//
// Family: Platform.
//
//===----------------------------------------------------------------------===//
#include <olutil/olMemUtil.h>

#include <olutil/olPrint.h>

#include <sys/sysinfo.h>

namespace
{

// The figures, or false after the warning that names the asking function.
bool readSystemInfo(char const* function, struct sysinfo& info)
{
   if (sysinfo(&info) == 0)
      return true;
   DtWarn << function << ": cannot get system info, returning 0" << std::endl;
   return false;
}

}  // namespace

unsigned long DtTotalPhysicalMemory()
{
   struct sysinfo info{};
   if (!readSystemInfo("DtTotalPhysicalMemory", info))
      return 0;
   return info.totalram * info.mem_unit;
}

unsigned long DtAvailablePhysicalMemory()
{
   struct sysinfo info{};
   if (!readSystemInfo("DtAvailablePhysicalMemory", info))
      return 0;
   return info.totalram * info.mem_unit;
}

unsigned long DtPhysicalMemoryUsed()
{
   struct sysinfo info{};
   if (!readSystemInfo("DtPhysicalMemoryUsed", info))
      return 0;
   return (info.totalram - info.freeram) * info.mem_unit;
}

double DtPercentageMemoryUsed()
{
   struct sysinfo info{};
   if (!readSystemInfo("DtPercentageMemoryUsed", info))
      return 0.0;
   // A machine that reports no memory at all must not divide by zero.
   if (info.totalram == 0)
      return 0.0;
   return 1.0 - static_cast<double>(info.freeram) / static_cast<double>(info.totalram);
}
