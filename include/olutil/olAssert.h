//===- olutil/olAssert.h - Assertions with a selectable reaction -*- C++ -*-===//
//
// Family: Diagnostics.
//
// A failed DtAssertCheck calls the current assert function, which the application
// selects: DtAssert::fatal() (the default) prints the failure on DtWarn and throws a
// heap DtException* with the text "Assert", DtAssert::warn() only prints, and
// DtAssert::ignore() does nothing at all. A handler of the application's own may be
// stored too.
//
// The assert function is a plain global with no lock: select it at start-up.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLASSERT_H
#define OLUTIL_OLASSERT_H

#include <olutil/olExceptions.h>

// Reacts to a failed assertion: file, function, line and the text of the expression.
typedef void (*DtAssertFunction)(char const* file, char const* function, int line,
                                 char const* expression);

class DtAssert
{
public:
   static DtAssertFunction getAssertFunction();
   // Null is accepted: assertions then have no effect.
   static void setAssertFunction(DtAssertFunction function);
   // setAssertFunction(nullptr).
   static void ignore();
   // setAssertFunction(DtAssert::defaultFatal).
   static void fatal();
   // setAssertFunction(DtAssert::defaultNonFatal).
   static void warn();

   // Writes the failure line on DtWarn, then throws a new DtException* whose text is
   // "Assert"; the catcher owns it. Unlike DtTemplatedException, which is thrown by
   // value, so that a catcher of one kind does not catch the other.
   static void defaultFatal(char const* file, char const* function, int line,
                            char const* expression);
   // Writes the failure line on DtWarn and returns:
   //    DtAssert `expression` Failed in `function` [file:line]
   static void defaultNonFatal(char const* file, char const* function, int line,
                               char const* expression);

   // The current reaction; initially defaultFatal.
   static DtAssertFunction theAssertFunction;
};

// Evaluates `condition` once; when it is false, calls the current assert function,
// if there is one, with the bare source file name, the full signature of the calling
// function, the line and the text of the condition.
#define DtAssertCheck(condition)                                                         \
   do                                                                                    \
   {                                                                                     \
      if (!(condition))                                                                  \
      {                                                                                  \
         DtAssertFunction dtAssertFunction_ = DtAssert::getAssertFunction();             \
         if (dtAssertFunction_)                                                          \
            dtAssertFunction_(DtSourceFileName(__FILE__), __PRETTY_FUNCTION__, __LINE__, \
                              #condition);                                               \
      }                                                                                  \
   } while (0)

#endif  // OLUTIL_OLASSERT_H
