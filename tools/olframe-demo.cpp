// olframe-demo: shows the library's frame at work.
//
// Text built with DtString goes to the five notification streams at several
// levels; DtNotifyLevel decides what passes; a DtFilePrinter keeps a
// timestamped log that rolls while the program runs.
//
//   olframe-demo [--seconds N] [--roll N] [--dir DIR]
#include <olutil/olPrint.h>
#include <olutil/olString.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace
{

void usage()
{
   DtInfo << "usage: olframe-demo [--seconds N] [--roll N] [--dir DIR]\n"
          << "  --seconds N  how long to write to the log (default 5)\n"
          << "  --roll N     roll the log every N seconds (default 1)\n"
          << "  --dir DIR    where the log goes (default: a new folder under /tmp)\n";
}

std::vector<std::string> logFilesIn(std::string const& dir)
{
   std::vector<std::string> names;
   if (DIR* d = opendir(dir.c_str()))
   {
      while (dirent* e = readdir(d))
      {
         if (std::strncmp(e->d_name, "frame", 5) == 0)
            names.emplace_back(e->d_name);
      }
      closedir(d);
   }
   std::sort(names.begin(), names.end());
   return names;
}

int countLines(std::string const& path)
{
   std::ifstream in(path);
   return static_cast<int>(
       std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n'));
}

}  // namespace

int main(int argc, char** argv)
{
   int seconds = 5;
   unsigned int roll = 1;
   std::string dir;
   for (int i = 1; i < argc; ++i)
   {
      DtString arg(argv[i]);
      bool ok = true;
      if (arg == "--seconds" && i + 1 < argc)
         seconds = DtString(argv[++i]).toInt(&ok);
      else if (arg == "--roll" && i + 1 < argc)
         roll = DtString(argv[++i]).toUInt(&ok);
      else if (arg == "--dir" && i + 1 < argc)
         dir = argv[++i];
      else
      {
         usage();
         return arg == "--help" ? 0 : 2;
      }
      if (!ok || seconds < 0 || seconds > 3600)
      {
         DtWarn << "olframe-demo: bad number after " << arg << "\n";
         return 2;
      }
   }
   if (dir.empty())
   {
      char pattern[] = "/tmp/olframe-XXXXXX";
      if (!mkdtemp(pattern))
      {
         DtWarn << "olframe-demo: cannot make a folder under /tmp\n";
         return 1;
      }
      dir = pattern;
   }

   // Text is built with DtString: numbers convert, sections split fields.
   DtString title("olutil frame demo");
   title.toUpper();
   DtString fields("alpha,,gamma,delta");
   DtInfo << title << ": level " << DtNotifyLevel << ", fields 1..2 of \"" << fields << "\" are \""
          << fields.section(',', 1, 2) << "\"\n";

   // The level filters per stream: Verbose and Debug are silent at level 2.
   DtVerbose << "verbose: not shown at level 2\n";
   DtNotifyLevel = 4;
   DtVerbose << "verbose: shown once the level is 4\n";
   DtDebug("debug: printf-style, %d PDUs of %.1f bytes on average\n", 12, 144.0);
   DtNotifyLevel = 2;
   DtDebug << "debug: silent again\n";
   DtWarn << "warning: this goes to every printer attached to DtWarn\n";

   // A file printer with timestamps that rolls every `roll` seconds.
   std::string logName = dir + "/frame.log";
   DtFilePrinter log(logName.c_str());
   log.setPrintTimestamps(true);
   log.setLogRollingInterval(roll);
   DtInfo.attachPrinter(&log);
   DtWarn.attachPrinter(&log);
   DtInfo << "logging to " << logName << " for " << seconds << " s, rolling every " << roll
          << " s\n";
   // Ticks go to the log alone, warnings to the console and the log; the log rolls
   // when a write finds the current file older than the interval.
   DtInfo.detachPrinter(&DtStandardOutConsole);
   for (int tick = 0; tick < seconds * 4; ++tick)
   {
      // One insertion per line, so the file printer stamps the start of each line.
      DtInfo << DtString("tick ") + DtString(tick) + "\n";
      if (tick % 4 == 3)
         DtWarn << DtString("warning at tick ") + DtString(tick) + "\n";
      usleep(250 * 1000);
   }
   DtInfo.detachPrinter(&log);
   DtWarn.detachPrinter(&log);
   DtInfo.attachPrinter(&DtStandardOutConsole);

   std::vector<std::string> files = logFilesIn(dir);
   DtInfo << "log files in " << dir << ":\n";
   for (std::string const& name : files)
      DtInfo << "  " << name << " (" << countLines(dir + "/" + name) << " lines)\n";
   std::ifstream first(dir + "/frame.log");
   std::string line;
   if (std::getline(first, line))
      DtInfo << "newest log opens with: " << line << "\n";
   return files.empty() ? 1 : 0;
}
