//===- olutil/olMemUtil.h - The machine's memory figures --------*- C++ -*-===//
//
// Family: Platform.
//
// The machine's physical memory, in bytes, as sysinfo reports it. When sysinfo
// fails, each function writes its name followed by ": cannot get system info,
// returning 0" to DtWarn and returns 0. Any thread may call them.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLMEMUTIL_H
#define OLUTIL_OLMEMUTIL_H

/// totalram times mem_unit.
unsigned long DtTotalPhysicalMemory();
/// The same total as DtTotalPhysicalMemory: this reads the total rather than
/// the free figure, and is kept so on purpose.
unsigned long DtAvailablePhysicalMemory();
/// (totalram - freeram) times mem_unit.
unsigned long DtPhysicalMemoryUsed();
/// 1.0 minus the free figure over the total, a fraction from 0 to 1; 0 when
/// the total reads 0.
double DtPercentageMemoryUsed();

#endif  // OLUTIL_OLMEMUTIL_H
