// Command-line parsing shared by the DIS tools: numbers with their bounds and the
// messages a bad option gets.
#ifndef OLUTIL_TOOLS_TOOLARGS_H
#define OLUTIL_TOOLS_TOOLARGS_H

#include <cstdio>
#include <cstdlib>

namespace oltool
{

// A whole decimal number within [low, high]; false leaves `value` alone.
inline bool parseLong(char const* text, long low, long high, long& value)
{
   char* end = nullptr;
   long const v = std::strtol(text, &end, 10);
   if (!text[0] || *end || v < low || v > high)
      return false;
   value = v;
   return true;
}

// A number of 0 or more, fractions allowed (rates, durations).
inline bool parseNonNegative(char const* text, double& value)
{
   char* end = nullptr;
   double const v = std::strtod(text, &end);
   if (!text[0] || *end || !(v >= 0))
      return false;
   value = v;
   return true;
}

// Reports an option the tool does not know, or a value it refused; always false,
// so that a parser can return it.
inline bool refuseOption(char const* tool, char const* option, char const* value, bool known)
{
   if (known)
      std::fprintf(stderr, "%s: bad value for %s: %s\n", tool, option, value);
   else
      std::fprintf(stderr, "%s: unknown option %s\n", tool, option);
   return false;
}

}  // namespace oltool

#endif  // OLUTIL_TOOLS_TOOLARGS_H
