//===- olAssert.cpp - Assertions with a selectable reaction ----------------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olAssert.h>

#include <olutil/olPrint.h>

#include <string>

// Constant-initialised, so assertions in static initialisers already react.
DtAssertFunction DtAssert::theAssertFunction = DtAssert::defaultFatal;

namespace
{
// "DtAssert `expression` Failed in `function` [file:line]" and an end of line, as one
// insertion so that the line reaches the printers whole.
void reportFailure(char const* file, char const* function, int line, char const* expression)
{
   std::string text("DtAssert `");
   text += expression ? expression : "";
   text += "` Failed in `";
   text += function ? function : "";
   text += "` [";
   text += file ? file : "";
   text += ":";
   text += std::to_string(line);
   text += "]\n";
   DtWarn << text;
}
}  // namespace

DtAssertFunction DtAssert::getAssertFunction()
{
   return theAssertFunction;
}

void DtAssert::setAssertFunction(DtAssertFunction function)
{
   theAssertFunction = function;
}

void DtAssert::ignore()
{
   setAssertFunction(nullptr);
}

void DtAssert::fatal()
{
   setAssertFunction(DtAssert::defaultFatal);
}

void DtAssert::warn()
{
   setAssertFunction(DtAssert::defaultNonFatal);
}

void DtAssert::defaultFatal(char const* file, char const* function, int line,
                            char const* expression)
{
   reportFailure(file, function, line, expression);
   // Thrown as a pointer on purpose: the catcher owns it, and it is not caught by
   // handlers of the by-value DtTemplatedException types.
   throw new DtException("Assert", function, file, static_cast<unsigned int>(line), nullptr);
}

void DtAssert::defaultNonFatal(char const* file, char const* function, int line,
                               char const* expression)
{
   reportFailure(file, function, line, expression);
}
