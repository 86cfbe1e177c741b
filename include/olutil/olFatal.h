//===- olutil/olFatal.h - The replaceable abort function --------*- C++ -*-===//
//
// Family: Diagnostics.
//
// DtFatalError and its kin (olPrint.h) print and then call DtAbort(), which ends the
// process with status 255 unless the application stored an abort function of its
// own. Such a function may end the process its own way, throw, or return, in which
// case the fatal error returns to its caller, who must be able to go on.
//
// The abort function is a plain global with no lock: set it at start-up.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLFATAL_H
#define OLUTIL_OLFATAL_H

#include <olutil/olPrint.h>

// An abort function: no arguments, no result.
typedef void (*DtAbortFunc)();

// Stores `function`; null restores the default, exit(-1).
void DtSetAbortFunc(DtAbortFunc function);
// The stored abort function, or null.
DtAbortFunc DtGetAbortFunc();
// Calls the stored abort function and returns when it returns; with none stored,
// calls exit(-1): the exit status is 255 and the exit handlers run.
void DtAbort();

#endif  // OLUTIL_OLFATAL_H
