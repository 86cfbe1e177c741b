// Tests of the notification streams and printers.
#include <olutil/olPrint.h>

#include <regex.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace
{
using Writes = std::vector<std::string>;

// Keeps each write as its level, '+' when it completes a line or '-', and its text.
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& t, int level, bool lineComplete) override
   {
      writes.push_back(std::to_string(level) + (lineComplete ? "+" : "-") + t);
      text += t;
   }
   Writes writes;
   std::string text;
};

// A stream of the test's own, obeying a level of its own.
class StreamTest : public ::testing::Test
{
protected:
   int level = 2;
   DtOutputStreamBuffer buffer;
   RecordingPrinter printer;
   DtOutputStream stream{&buffer, level, 2, &printer};
};

class ProbedFilePrinter : public DtFilePrinter
{
public:
   using DtFilePrinter::DtFilePrinter;
   // Makes the current file look `seconds` old, so that rolling needs no waiting.
   void backdate(std::time_t seconds) { fileStartTime = std::time(nullptr) - seconds; }
};

// What goes to std::cerr while it lives.
class CapturedStandardError
{
public:
   CapturedStandardError() : mySaved(std::cerr.rdbuf(myText.rdbuf())) {}
   ~CapturedStandardError() { std::cerr.rdbuf(mySaved); }
   std::string text() const { return myText.str(); }

private:
   std::ostringstream myText;
   std::streambuf* mySaved;
};

class FilePrinterTest : public ::testing::Test
{
protected:
   FilePrinterTest() { std::filesystem::create_directories(dir); }
   ~FilePrinterTest() override { std::filesystem::remove_all(dir); }
   std::string path(char const* name) const { return dir + "/" + name; }
   // The texts of the named files, each followed by '|'; "-|" for a missing one.
   template <typename... Names>
   std::string read(Names... names) const
   {
      auto one = [this](char const* name)
      {
         std::ifstream in(path(name));
         return in ? std::string(std::istreambuf_iterator<char>(in), {}) + "|" : "-|";
      };
      return (one(names) + ...);
   }
   std::string const dir = "/tmp/olutil_print_" + std::to_string(getpid());
};
}  // namespace

TEST(GlobalStreams, FiveLevelsStartOnStandardOutputAndShareTheOstrelPrinter)
{
   auto writeAllFive = []
   {
      for (DtOutputStream* s : {&DtFatal, &DtWarn, &DtInfo, &DtVerbose, &DtDebug})
         *s << std::string(1, "fwivd"[s->threshold()]) + "\n";
   };
   testing::internal::CaptureStdout();
   DtNotifyLevel = 1;
   writeAllFive();
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "f\nw\n");
   // Setting a printer replaces the previous one on all five; null silences them.
   RecordingPrinter first, second;
   DtSetOstrelPrinter(&first);
   DtSetOstrelPrinter(nullptr);
   writeAllFive();
   DtSetOstrelPrinter(&second);
   DtNotifyLevel = 4;
   writeAllFive();
   DtNotifyLevel = 2;
   DtSetOstrelPrinter(&DtStandardOutConsole);
   EXPECT_TRUE(first.writes.empty());
   EXPECT_EQ(second.writes, (Writes{"0+f\n", "1+w\n", "2+i\n", "3+v\n", "4+d\n"}));
}

TEST_F(StreamTest, LevelIsTestedAtEachInsertionAndFlush)
{
   stream.unsetf(std::ios_base::unitbuf);  // let a line gather across insertions
   stream.setThreshold(3);
   stream << "lost ";
   level = 3;
   stream << "kept ";
   stream << "next\n";
   stream << "pending ";
   level = 2;
   stream.flush();  // fails the level test: the pending text is discarded
   EXPECT_EQ(printer.writes, (Writes{"3+kept next\n"}));
}

TEST_F(StreamTest, AttachAndDetach)
{
   RecordingPrinter other;
   stream.attachPrinter(&printer);  // already attached: prints once
   stream.attachPrinter(nullptr);
   stream.attachPrinter(&other);
   stream << "1";
   EXPECT_TRUE(stream.detachPrinter(&printer) && !stream.detachPrinter(&printer));
   stream << "2";
   stream.detachAllPrinters();
   stream << "3";
   EXPECT_EQ(printer.text + "|" + other.text, "1|12");
}

// Each insertion that ends in an end of line completes a line; a printf never does.
TEST_F(StreamTest, LineCompletePerInsertionAndPrintfFlushesFirstAndCuts)
{
   stream << "abc" << std::endl;
   stream << "one\ntwo";
   stream.unsetf(std::ios_base::unitbuf);
   stream << "partial ";
   stream("%d-%s\n", 5, "x");
   stream << "pending";
   stream(nullptr);  // a plain flush
   stream("%s", std::string(3000, 'q').c_str());
   EXPECT_EQ(printer.writes, (Writes{"2-abc", "2+\n", "2+one\n", "2-two", "2-partial ", "2-5-x\n",
                                     "2-pending", "2-" + std::string(2047, 'q')}));
}

TEST_F(StreamTest, PrintEnvironmentVariables)
{
   std::string expected = "DtPrintEnvironmentVariables\n";
   for (char** e = environ; *e; ++e)
      expected += std::string(*e) + "\n";
   DtPrintEnvironmentVariables(stream);
   EXPECT_EQ(printer.text, expected + "End of DtPrintEnvironmentVariables\n");
}

// A stamp goes before what completes a line: for an end of line written on its
// own, right before the line end.
TEST_F(FilePrinterTest, OpeningTruncatesAFailedOpenIsQuietAndStampsPrecedeLineEnds)
{
   std::ofstream(path("stamped.log")) << "old content\n";
   DtFilePrinter printer(path("stamped.log").c_str());
   DtFilePrinter missing(path("missing/x.log").c_str()), unnamed(nullptr);
   EXPECT_TRUE(printer.isOpen() && !missing.isOpen() && !unnamed.isOpen());
   printer.write("plain\n", 2, true);
   printer.setPrintTimestamps(true);
   printer.write("whole\n", 2, true);
   printer.write("split", 2, false);
   printer.write("\n", 2, true);
   printer.write("printf 3\n", 2, false);
   std::string const stamp =
       "\\[[A-Za-z]{3} [A-Za-z]{3} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\\] ";
   std::string const text = read("stamped.log", "missing/x.log");
   regex_t pattern;
   ASSERT_EQ(0,
             regcomp(&pattern,
                     ("^plain\n" + stamp + "whole\nsplit" + stamp + "\nprintf 3\n\\|-\\|$").c_str(),
                     REG_EXTENDED | REG_NOSUB));
   EXPECT_EQ(0, regexec(&pattern, text.c_str(), 0, nullptr, 0)) << text;
   regfree(&pattern);
}

// With an interval of 5, a file 5 seconds old does not roll and one 6 seconds old
// does. A write that strays across a second boundary is ambiguous, and run again.
TEST_F(FilePrinterTest, RollsOnlyWhenMoreThanTheIntervalHasPassed)
{
   for (int attempt = 0; attempt < 5; ++attempt)
   {
      ProbedFilePrinter printer(path("five.log").c_str());
      printer.backdate(100000);
      printer.write("no interval\n", 2, true);
      printer.setLogRollingInterval(5);
      std::time_t const before = std::time(nullptr);
      printer.backdate(5);
      printer.write("at five\n", 2, true);
      if (std::time(nullptr) != before)
         continue;
      printer.backdate(6);
      printer.write("at six\n", 2, true);  // belongs to the new file
      EXPECT_EQ(read("five_1.log", "five.log", "five_2.log"), "no interval\nat five\n|at six\n|-|");
      return;
   }
   FAIL() << "the clock never allowed an unambiguous run";
}

TEST_F(FilePrinterTest, RolledNamesCountUpOldestFirstAndResetRestarts)
{
   ProbedFilePrinter printer(path("app.x.log").c_str());
   printer.setLogRollingInterval(5);
   for (char const* text : {"one\n", "two\n"})
   {
      printer.backdate(60);
      printer.write(text, 2, true);
   }
   EXPECT_EQ(read("app.x_1.log", "app.x_2.log", "app.x.log"), "|one\n|two\n|");
   printer.resetFile(path("nodot").c_str());
   printer.backdate(60);
   printer.write("new\n", 2, false);
   // The named file removed behind the printer's back cannot be rolled: it is
   // made again for what comes next, and the failure is told.
   ASSERT_EQ(std::remove(path("nodot").c_str()), 0);
   CapturedStandardError errors;
   printer.backdate(60);
   printer.write("kept\n", 2, true);
   EXPECT_EQ(read("nodot_1", "nodot_2", "nodot"), "|-|kept\n|");
   EXPECT_NE(errors.text().find("cannot roll " + path("nodot")), std::string::npos)
       << errors.text();
}

// "logs.d/app" rolls to "logs_1.d/app", in a directory that does not exist. The
// failed rename must lose no line, and is told on standard error once for each
// file however often it recurs; its number goes to the first roll that succeeds.
TEST_F(FilePrinterTest, AFailedRollKeepsEveryLineAndIsToldOnce)
{
   std::filesystem::create_directories(path("logs.d"));
   std::filesystem::create_directories(path("b.d"));
   CapturedStandardError errors;
   {
      ProbedFilePrinter printer(path("logs.d/app").c_str());
      printer.setLogRollingInterval(5);
      for (char const* text : {"one\n", "two\n", "three\n"})
      {
         printer.backdate(60);
         printer.write(text, 2, true);
      }
      std::filesystem::create_directories(path("logs_1.d"));
      printer.backdate(60);
      printer.write("four\n", 2, true);

      printer.resetFile(path("b.d/x").c_str());
      printer.write("five\n", 2, true);
      printer.backdate(60);
      printer.write("six\n", 2, true);
   }
   EXPECT_EQ(read("logs_1.d/app", "logs.d/app", "logs_2.d/app", "b.d/x"),
             "one\ntwo\nthree\n|four\n|-|five\nsix\n|");
   EXPECT_EQ(errors.text(),
             "DtFilePrinter: cannot roll " + path("logs.d/app") + " to " + path("logs_1.d/app") +
                 ": No such file or directory; writing on in " + path("logs.d/app") + "\n" +
                 "DtFilePrinter: cannot roll " + path("b.d/x") + " to " + path("b_1.d/x") +
                 ": No such file or directory; writing on in " + path("b.d/x") + "\n");
}
