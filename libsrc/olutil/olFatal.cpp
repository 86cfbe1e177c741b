//===- olFatal.cpp - The replaceable abort function ------------------------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olFatal.h>

#include <cstdlib>

namespace
{
// Null means the default reaction, exit(-1). Constant-initialised, so a fatal error
// raised by any static initialiser finds it in place.
DtAbortFunc theAbortFunction = nullptr;
}  // namespace

void DtSetAbortFunc(DtAbortFunc function)
{
   theAbortFunction = function;
}

DtAbortFunc DtGetAbortFunc()
{
   return theAbortFunction;
}

void DtAbort()
{
   if (!theAbortFunction)
      std::exit(-1);
   theAbortFunction();
}
