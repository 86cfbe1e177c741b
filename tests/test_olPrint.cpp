// Tests of the notification streams and printers.
#include <olutil/olPrint.h>

#include <regex.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{
// Keeps each write as its level, '+' when it completes a line or '-', and its text.
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& t, int level, bool lineComplete) override
   {
      writes.push_back(std::to_string(level) + (lineComplete ? "+" : "-") + t);
   }
   std::vector<std::string> writes;
};

class ProbedFilePrinter : public DtFilePrinter
{
public:
   using DtFilePrinter::DtFilePrinter;
   // Makes the current file look `seconds` old, so that rolling needs no waiting.
   void backdate(std::time_t seconds) { fileStartTime = std::time(nullptr) - seconds; }
};

class FilePrinterTest : public ::testing::Test
{
protected:
   FilePrinterTest() { std::filesystem::create_directories(dir); }
   ~FilePrinterTest() override { std::filesystem::remove_all(dir); }
   std::string path(char const* name) const { return dir + "/" + name; }
   // The text of the named file and '|', or "-|" when there is none.
   std::string read(char const* name) const
   {
      std::ifstream in(path(name));
      return in ? std::string(std::istreambuf_iterator<char>(in), {}) + "|" : "-|";
   }
   std::string const dir = "/tmp/olutil_print_" + std::to_string(getpid());
};
}  // namespace

// The level is tested at each insertion and flush; each insertion that ends in
// an end of line completes a line, a printf never does and is cut to 2047.
TEST(StreamTest, LevelsPrintersLinesAndPrintf)
{
   int level = 2;  // the stream's own
   DtOutputStreamBuffer buffer;
   RecordingPrinter printer, other;
   DtOutputStream stream{&buffer, level, 2, &printer};
   stream.attachPrinter(&printer);  // already attached: prints once
   stream.attachPrinter(&other);
   stream << "abc" << std::endl;
   EXPECT_TRUE(stream.detachPrinter(&other) && !stream.detachPrinter(&other));
   stream << "one\ntwo";
   stream.unsetf(std::ios_base::unitbuf);  // let a line gather across insertions
   stream.setThreshold(3);
   stream << "lost ";
   level = 3;
   stream << "partial ";
   stream("%d-%s\n", 5, "x");
   stream << "pending";
   stream(nullptr);  // a plain flush
   stream("%s", std::string(3000, 'q').c_str());
   stream << "dropped";
   level = 2;
   stream.flush();  // fails the level test: the pending text is discarded
   EXPECT_EQ(printer.writes,
             (std::vector<std::string>{"2-abc", "2+\n", "2+one\n", "2-two", "3-partial ", "3-5-x\n",
                                       "3-pending", "3-" + std::string(2047, 'q')}));
   EXPECT_EQ(other.writes, (std::vector<std::string>{"2-abc", "2+\n"}));
}

// Out of the box the five streams print on standard output up to Info; one call
// gives all five another printer.
TEST(StreamTest, DefaultLevelConsoleAndOnePrinterForAll)
{
   DtOutputStream* const streams[] = {&DtFatal, &DtWarn, &DtInfo, &DtVerbose, &DtDebug};
   testing::internal::CaptureStdout();
   for (DtOutputStream* stream : streams)
      *stream << stream->threshold() << "\n";
   EXPECT_EQ("0\n1\n2\n", testing::internal::GetCapturedStdout());
   RecordingPrinter printer;
   DtSetOstrelPrinter(&printer);
   DtNotifyLevel = 4;
   for (DtOutputStream* stream : streams)
      *stream << "x\n";
   DtNotifyLevel = 2;
   DtSetOstrelPrinter(&DtStandardOutConsole);
   EXPECT_EQ(printer.writes,
             (std::vector<std::string>{"0+x\n", "1+x\n", "2+x\n", "3+x\n", "4+x\n"}));
}

// Opening truncates; a stamp goes before what completes a line: for an end of
// line written on its own, right before the line end.
TEST_F(FilePrinterTest, StampsPrecedeLineEnds)
{
   std::ofstream(path("stamped.log")) << "old content\n";
   DtFilePrinter printer(path("stamped.log").c_str());
   printer.setPrintTimestamps(true);
   printer.write("whole\n", 2, true);
   printer.write("split", 2, false);
   printer.write("\n", 2, true);
   printer.write("printf 3\n", 2, false);
   std::string const stamp =
       "\\[[A-Za-z]{3} [A-Za-z]{3} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\\] ";
   std::string const expected = "^" + stamp + "whole\nsplit" + stamp + "\nprintf 3\n\\|$";
   std::string const text = read("stamped.log");
   regex_t pattern;
   ASSERT_EQ(0, regcomp(&pattern, expected.c_str(), REG_EXTENDED | REG_NOSUB));
   EXPECT_EQ(0, regexec(&pattern, text.c_str(), 0, nullptr, 0)) << text;
   regfree(&pattern);
}

// With an interval of 5 a file 5 seconds old does not roll, one 6 seconds old does;
// names count up. A write that strays across a second is ambiguous, and run again.
TEST_F(FilePrinterTest, RollsOnlyWhenMoreThanTheIntervalHasPassed)
{
   for (int attempt = 0; attempt < 5; ++attempt)
   {
      ProbedFilePrinter printer(path("app.x.log").c_str());
      printer.setLogRollingInterval(5);
      std::time_t const before = std::time(nullptr);
      printer.backdate(5);
      printer.write("at five\n", 2, true);
      if (std::time(nullptr) != before)
         continue;
      printer.backdate(6);
      printer.write("at six\n", 2, true);  // belongs to the new file
      printer.backdate(60);
      printer.write("later\n", 2, true);
      EXPECT_EQ(read("app.x_1.log") + read("app.x_2.log") + read("app.x.log") + read("app.x_3.log"),
                "at five\n|at six\n|later\n|-|");
      return;
   }
   FAIL() << "the clock never allowed an unambiguous run";
}

// A failed roll loses no line and is told on standard error once however often it
// recurs; its number goes to the first roll that succeeds.
TEST_F(FilePrinterTest, AFailedRollKeepsEveryLineAndIsToldOnce)
{
   std::filesystem::create_directories(path("logs.d"));
   testing::internal::CaptureStderr();
   // "logs.d/app" rolls to "logs_1.d/app", in a directory that does not exist yet.
   ProbedFilePrinter printer(path("logs.d/app").c_str());
   printer.setLogRollingInterval(5);
   for (char const* text : {"one\n", "two\n", "three\n", "four\n"})
   {
      if (*text == 'f')
         std::filesystem::create_directories(path("logs_1.d"));
      printer.backdate(60);
      printer.write(text, 2, true);
   }
   EXPECT_EQ(read("logs_1.d/app") + read("logs.d/app") + read("logs_2.d/app"),
             "one\ntwo\nthree\n|four\n|-|");
   EXPECT_EQ(testing::internal::GetCapturedStderr(),
             "DtFilePrinter: cannot roll " + path("logs.d/app") + " to " + path("logs_1.d/app") +
                 ": No such file or directory; writing on in " + path("logs.d/app") + "\n");
   // A new file numbers its rolls from 1 again.
   printer.resetFile(path("b.log").c_str());
   printer.backdate(60);
   printer.write("five\n", 2, true);
   EXPECT_EQ(read("b_1.log") + read("b.log"), "|five\n|");
}
