// Progress of the file-transfer tools: while a file of 4 MB or more moves, a line
// a second on standard error with the bytes moved so far and the rate, and a last
// line when it is complete.
#ifndef OLUTIL_TOOLS_FILEPROGRESS_H
#define OLUTIL_TOOLS_FILEPROGRESS_H

#include <chrono>
#include <cstdint>
#include <cstdio>

namespace oltool
{

class FileProgress
{
public:
   FileProgress(char const* tool, bool quiet) : myTool(tool), myQuiet(quiet) {}

   // Whether a file of `total` bytes gets progress lines.
   bool shows(std::uint64_t total) const { return !myQuiet && total >= theShownFrom; }

   // The rate counts from now.
   void start() { myStart = myLast = std::chrono::steady_clock::now(); }

   void report(char const* name, std::uint64_t done, std::uint64_t total)
   {
      if (!shows(total))
         return;
      auto const now = std::chrono::steady_clock::now();
      if (done < total && now - myLast < std::chrono::seconds(1))
         return;
      myLast = now;
      double const seconds = std::chrono::duration<double>(now - myStart).count();
      double const rate = seconds > 0 ? static_cast<double>(done) / seconds / 1e6 : 0;
      std::fprintf(stderr, "%s: %s: %llu of %llu bytes, %.1f MB/s\n", myTool, name,
                   static_cast<unsigned long long>(done), static_cast<unsigned long long>(total),
                   rate);
   }

private:
   static constexpr std::uint64_t theShownFrom = 4u << 20;

   char const* myTool;
   bool myQuiet;
   std::chrono::steady_clock::time_point myStart, myLast;
};

}  // namespace oltool

#endif  // OLUTIL_TOOLS_FILEPROGRESS_H
