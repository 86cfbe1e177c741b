// olfile-recv: receives files sent by olfile-send (or any DtInetFileTransporter) into
// a directory, printing the path of each complete file on standard output.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include <olutil/olFilename.h>
#include <olutil/olInetFileTransport.h>

#include "fileProgress.h"
#include "toolArgs.h"

namespace
{

char const* const theTool = "olfile-recv";
long const theDefaultPort = 5050;

void usage(FILE* out)
{
   std::fprintf(out,
                "usage: %s [--port N | --range A-B] [--dir DIR] [--once] [--timeout S]\n"
                "Receives files into DIR and prints the path of each complete file.\n"
                "  --port N      listen on port N (default %ld; 0: a port the system chooses)\n"
                "  --range A-B   listen on the first free port from A to B\n"
                "  --dir DIR     directory to write into (default .)\n"
                "  --once        end after the first complete file\n"
                "  --timeout S   end after S seconds (default 0: until interrupted)\n"
                "  --quiet       no progress lines (default: a line a second for files of\n"
                "                4 MB and more, with bytes received and rate)\n"
                "  --help        this text\n"
                "Exit status: 0 done, 1 no free port, or --once ended without a file,\n"
                "2 bad usage.\n",
                theTool, theDefaultPort);
}

class ProgressReceiver : public DtInetFileTransporter
{
public:
   ProgressReceiver(int port, int range, DtFilename const& dir, int* found, bool quiet)
       : DtInetFileTransporter(port, range > 1, range, dir, found), myProgress(theTool, quiet)
   {
   }

protected:
   void receiveProgress(std::string const& name, std::uint64_t done, std::uint64_t total) override
   {
      if (myProgress.shows(total) && name != myName)
      {
         myName = name;
         myProgress.start();
      }
      myProgress.report(name.c_str(), done, total);
   }

private:
   oltool::FileProgress myProgress;
   std::string myName;
};

void printFile(DtFilename const& file, void* count)
{
   std::fprintf(stdout, "%s\n", file.c_str());
   std::fflush(stdout);
   ++*static_cast<long*>(count);
}

}  // namespace

int main(int argc, char** argv)
{
   long port = theDefaultPort, last = theDefaultPort;
   std::string dir = ".";
   bool once = false, quiet = false;
   double timeout = 0;
   oltool::OptionReader in(theTool, argc, argv);
   while (in.next())
   {
      std::string const& arg = in.name();
      if (arg == "--help" || arg == "-h")
      {
         usage(stdout);
         return 0;
      }
      if (arg == "--once" || arg == "--quiet")
      {
         if (!in.noValue())
            break;
         (arg == "--once" ? once : quiet) = true;
         continue;
      }
      if (arg != "--port" && arg != "--range" && arg != "--dir" && arg != "--timeout")
      {
         oltool::refuseOption(theTool, arg.c_str(), "", false);
         usage(stderr);
         return oltool::theExitUsage;
      }
      char const* value = in.value();
      if (!value)
         break;
      bool ok = true;
      if (arg == "--port")
      {
         ok = oltool::parseLong(value, 0, 65535, port);
         last = port;
      }
      else if (arg == "--range")
      {
         std::string const text = value;
         std::string::size_type const dash = text.find('-');
         ok = dash != std::string::npos &&
              oltool::parseLong(text.substr(0, dash).c_str(), 1, 65535, port) &&
              oltool::parseLong(text.c_str() + dash + 1, port, 65535, last);
      }
      else if (arg == "--dir")
         dir = value;
      else
         ok = oltool::parseNonNegative(value, timeout);
      if (!ok)
      {
         oltool::refuseOption(theTool, arg.c_str(), value, true);
         return oltool::theExitUsage;
      }
   }
   if (in.failed())
   {
      usage(stderr);
      return oltool::theExitUsage;
   }
   oltool::NotificationToStderr notes(theTool, true);
   oltool::catchInterrupts();
   int found = -1;
   ProgressReceiver receiver(static_cast<int>(port), static_cast<int>(last - port + 1),
                             DtFilename(dir.c_str()), &found, quiet);
   if (!receiver.isListening())
   {
      std::fprintf(stderr, "%s: no free port from %ld to %ld\n", theTool, port, last);
      return oltool::theExitProblem;
   }
   std::fprintf(stderr, "%s: listening on port %d, writing into %s\n", theTool, found, dir.c_str());
   long files = 0;
   receiver.addFileTransferedCallback(printFile, &files);
   auto const deadline = std::chrono::steady_clock::now() +
                         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                             std::chrono::duration<double>(timeout));
   while (!oltool::theInterrupted && !(once && files > 0) &&
          (timeout == 0 || std::chrono::steady_clock::now() < deadline))
   {
      receiver.tick();
      // Never a busy loop, also while a peer stalls mid-file.
      receiver.waitForActivity(100);
   }
   std::fprintf(stderr, "%s: %ld files received, %ld warnings\n", theTool, files, notes.warnings());
   return once && files == 0 ? oltool::theExitProblem : 0;
}
