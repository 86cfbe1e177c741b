// olfile-send: sends files to an olfile-recv (or any DtInetFileTransporter) over TCP,
// one connection per file, with progress on standard error for large files.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <olutil/olFilename.h>
#include <olutil/olInetFileTransport.h>

#include "fileProgress.h"
#include "toolArgs.h"

namespace
{

char const* const theTool = "olfile-send";
long const theDefaultPort = 5050;

void usage(FILE* out)
{
   std::fprintf(out,
                "usage: %s [--quiet] HOST[:PORT] FILE...\n"
                "Sends each FILE to the file receiver at HOST (an address or a host name;\n"
                "[ADDRESS]:PORT for IPv6), port PORT (default %ld), over its own TCP\n"
                "connection. Only the file's name travels, not its directory.\n"
                "  --quiet   no progress lines (default: a line a second for files of 4 MB\n"
                "            and more, with bytes sent and rate)\n"
                "  --help    this text\n"
                "Exit status: 0 all files sent, 1 a file could not be sent, 2 bad usage.\n",
                theTool, theDefaultPort);
}

// Prints a line a second while a large file goes out, and a last line at the end.
class ProgressSender : public DtInetFileTransporter
{
public:
   // It listens on a port of the system's choice, which nothing sends to.
   explicit ProgressSender(bool quiet)
       : DtInetFileTransporter(0, false, 1, DtFilename(".")), myProgress(theTool, quiet)
   {
   }

   void start() { myProgress.start(); }

protected:
   void sendProgress(DtFilename const& file, std::uint64_t done, std::uint64_t total) override
   {
      myProgress.report(file.c_str(), done, total);
   }

private:
   oltool::FileProgress myProgress;
};

// "host", "host:port", "[v6]:port" or a bare IPv6 address.
bool splitTarget(std::string const& text, std::string& host, long& port)
{
   port = theDefaultPort;
   if (!text.empty() && text[0] == '[')
   {
      std::string::size_type const close = text.find(']');
      if (close == std::string::npos)
         return false;
      host = text.substr(1, close - 1);
      if (close + 1 == text.size())
         return !host.empty();
      return text[close + 1] == ':' &&
             oltool::parseLong(text.c_str() + close + 2, 1, 65535, port) && !host.empty();
   }
   std::string::size_type const colon = text.find(':');
   if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos)
   {
      host = text;  // no port, or an IPv6 address without one
      return !host.empty();
   }
   host = text.substr(0, colon);
   return !host.empty() && oltool::parseLong(text.c_str() + colon + 1, 1, 65535, port);
}

}  // namespace

int main(int argc, char** argv)
{
   std::vector<std::string> arguments;
   bool quiet = false;
   oltool::OptionReader in(theTool, argc, argv);
   in.acceptArguments(arguments);
   while (in.next())
   {
      if (in.name() == "--help" || in.name() == "-h")
      {
         usage(stdout);
         return 0;
      }
      if (in.name() == "--quiet" && in.noValue())
         quiet = true;
      else if (!in.failed())
      {
         oltool::refuseOption(theTool, in.name().c_str(), "", false);
         usage(stderr);
         return oltool::theExitUsage;
      }
   }
   if (in.failed() || arguments.size() < 2)
   {
      if (!in.failed())
         std::fprintf(stderr, "%s: needs HOST[:PORT] and at least one FILE\n", theTool);
      usage(stderr);
      return oltool::theExitUsage;
   }
   std::string host;
   long port = 0;
   if (!splitTarget(arguments[0], host, port))
   {
      std::fprintf(stderr, "%s: bad target %s\n", theTool, arguments[0].c_str());
      return oltool::theExitUsage;
   }
   std::string error;
   std::unique_ptr<DtInetEndpoint> peer =
       oltool::makeEndpoint(host, static_cast<unsigned short>(port), error);
   if (!peer)
   {
      std::fprintf(stderr, "%s: bad host %s: %s\n", theTool, host.c_str(), error.c_str());
      return oltool::theExitUsage;
   }
   oltool::NotificationToStderr notes(theTool, true);
   ProgressSender sender(quiet);
   int failures = 0;
   for (std::size_t i = 1; i < arguments.size(); ++i)
   {
      DtFilename const file(arguments[i].c_str());
      sender.start();
      if (sender.sendFile(file, peer->address(), static_cast<int>(port)))
      {
         if (!quiet)
            std::fprintf(stderr, "%s: sent %s (%ld bytes)\n", theTool, file.c_str(),
                         file.fileLength());
      }
      else
      {
         std::fprintf(stderr, "%s: could not send %s to %s port %ld\n", theTool, file.c_str(),
                      host.c_str(), port);
         ++failures;
      }
   }
   return failures ? oltool::theExitProblem : 0;
}
