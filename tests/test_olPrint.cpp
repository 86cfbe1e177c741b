// Tests of the notification streams and printers.
#include <olutil/olPrint.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace
{
using Writes = std::vector<std::string>;

std::string theOrder;  // the names of the printers in the order they were called

// Keeps each write as its level, '+' when it completes a line or '-', and its text.
class RecordingPrinter : public DtPrinter
{
public:
   explicit RecordingPrinter(char n = '?') : name(n) {}
   void write(std::string const& t, int level, bool lineComplete) override
   {
      writes.push_back(std::to_string(level) + (lineComplete ? "+" : "-") + t);
      text += t;
      theOrder += name;
   }
   char name;
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

DtOutputStream* const theStreams[] = {&DtFatal, &DtWarn, &DtInfo, &DtVerbose, &DtDebug};

void writeAllFive()
{
   for (DtOutputStream* stream : theStreams)
      *stream << std::string(1, "fwivd"[stream->threshold()]) + "\n";
}
}  // namespace

TEST(GlobalStreams, ThresholdsStartingPrintersAndSetOstrelPrinter)
{
   for (int level : {-1, 0, 2, 4})
   {
      DtNotifyLevel = level;
      for (int t = 0; t < 5; ++t)
         EXPECT_TRUE(theStreams[t]->threshold() == t && theStreams[t]->okToPrint() == (t <= level))
             << level << " " << t;
   }
   // All five start on standard output; standard error is attached to none.
   testing::internal::CaptureStdout();
   testing::internal::CaptureStderr();
   writeAllFive();
   DtStandardErrorConsole.write("err", 0, false);
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "f\nw\ni\nv\nd\n");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "err");
   // Setting a printer replaces the previous one on all five; null silences them.
   RecordingPrinter first, second;
   DtSetOstrelPrinter(&first);
   DtSetOstrelPrinter(&second);
   writeAllFive();
   DtSetOstrelPrinter(nullptr);
   testing::internal::CaptureStdout();
   writeAllFive();
   DtFatal("%s\n", "printf");
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
   DtNotifyLevel = 2;
   DtSetOstrelPrinter(&DtStandardOutConsole);
   EXPECT_TRUE(first.writes.empty());
   EXPECT_EQ(second.writes, (Writes{"0+f\n", "1+w\n", "2+i\n", "3+v\n", "4+d\n"}));
}

TEST_F(StreamTest, LevelChangesMidLine)
{
   stream.unsetf(std::ios_base::unitbuf);  // let a line gather across insertions
   stream.setThreshold(3);
   stream << "lost ";
   level = 3;
   stream << "kept ";
   level = 2;
   stream << "dropped ";
   level = 3;
   stream << "next\n";
   stream << "pending ";
   level = 2;
   stream.flush();  // fails the level test: the pending text is discarded
   level = 3;
   stream << "after\n";
   level = -1;
   stream.setThreshold(0);
   stream << "silent\n";
   EXPECT_TRUE(stream.good());
   EXPECT_EQ(printer.writes, (Writes{"3+kept next\n", "3+after\n"}));
}

TEST(OutputStreamBuffer, ABufferWithoutAStreamFailsSyncAndDropsCharacters)
{
   int level = 2;
   DtOutputStreamBuffer buffer;
   EXPECT_EQ(buffer.pubsync(), -1);
   RecordingPrinter printer;
   {
      DtOutputStream stream(&buffer, level, 2, &printer);
      stream.unsetf(std::ios_base::unitbuf);
      stream << "pending";
   }
   // The stream's end flushed the pending text and let go of the buffer.
   EXPECT_EQ(buffer.pubsync(), -1);
   EXPECT_EQ(buffer.sputc('x'), 'x');
   EXPECT_EQ(printer.writes, Writes{"2-pending"});
}

TEST_F(StreamTest, AttachAndDetach)
{
   RecordingPrinter other('o');
   printer.name = 'p';
   theOrder.clear();
   stream.attachPrinter(&printer);  // already attached: prints once
   stream.attachPrinter(nullptr);
   stream.attachPrinter(&other);
   stream << "1";
   EXPECT_FALSE(stream.detachPrinter(nullptr));
   EXPECT_TRUE(stream.detachPrinter(&printer));
   EXPECT_FALSE(stream.detachPrinter(&printer));
   stream.attachPrinter(&printer);  // now behind `other`
   stream("%s", "2");
   stream.detachAllPrinters();
   stream << "none";
   EXPECT_EQ(theOrder, "poop");
   EXPECT_EQ(printer.text + other.text, "1212");
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
   stream(nullptr);
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
   level = 1;
   DtPrintEnvironmentVariables(stream);  // the level applies
   EXPECT_EQ(printer.text, expected + "End of DtPrintEnvironmentVariables\n");
}

namespace
{
// Opens the printer's bookkeeping to the tests.
class ProbedFilePrinter : public DtFilePrinter
{
public:
   using DtFilePrinter::DtFilePrinter;
   std::uint32_t rolls() const { return rollCount; }
   std::string names() const { return fullName + "|" + namePrefix + "|" + nameSuffix; }
   // Makes the current file look `seconds` old, so that rolling needs no waiting.
   void backdate(std::time_t seconds) { fileStartTime = std::time(nullptr) - seconds; }
};

class FilePrinterTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      char pattern[] = "/tmp/olutil_print_XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      dir = pattern;
   }
   void TearDown() override { std::filesystem::remove_all(dir); }
   std::string path(char const* name) const { return dir + "/" + name; }
   // The texts of the named files, each followed by '|'; "-|" for a missing one.
   std::string read(std::initializer_list<char const*> names) const
   {
      std::string all;
      for (char const* name : names)
      {
         std::ifstream in(path(name));
         all += in ? std::string(std::istreambuf_iterator<char>(in), {}) + "|" : "-|";
      }
      return all;
   }
   std::string dir;
};

// The stamp of a write at `t`, as "[Sat Nov 21 05:48:23 2026] ".
std::string stampAt(std::time_t t)
{
   std::tm local{};
   char stamp[64];
   std::strftime(stamp, sizeof stamp, "[%a %b %e %H:%M:%S %Y] ", localtime_r(&t, &local));
   return stamp;
}
}  // namespace

TEST_F(FilePrinterTest, OpeningTruncatesAFailedOpenIsQuietAndNamesSplitAtTheLastDot)
{
   std::ofstream(path("plain.log")) << "old content\n";
   DtFilePrinter printer(path("plain.log").c_str());
   ASSERT_TRUE(printer.isOpen());
   printer.write("one ", 2, false);
   printer.write("two\n", 2, true);
   DtFilePrinter missing(path("missing/x.log").c_str()), unnamed(nullptr);
   EXPECT_FALSE(missing.isOpen() || unnamed.isOpen());
   missing.write("lost\n", 2, true);
   unnamed.write("lost\n", 2, true);
   EXPECT_EQ(read({"plain.log", "missing/x.log"}), "one two\n|-|");

   ProbedFilePrinter names;  // wherever the dot stands
   std::string split;
   for (char const* name : {"a.b.c", "dir.d/file", ".hidden", ""})
   {
      names.cacheFilename(name);
      split += names.names() + " ";
   }
   EXPECT_EQ(split, "a.b.c|a.b|.c dir.d/file|dir|.d/file .hidden||.hidden || ");
}

TEST_F(FilePrinterTest, TimestampsGoBeforeWhatCompletesALine)
{
   int level = 2;
   DtOutputStreamBuffer buffer;
   DtFilePrinter printer(path("stamped.log").c_str());
   DtOutputStream stream(&buffer, level, 2, &printer);
   stream << "plain\n";
   printer.setPrintTimestamps(true);
   std::time_t const before = std::time(nullptr);
   stream << "whole\n";
   // The separately inserted end of line is what completes the line, so the stamp
   // stands right before it.
   stream << "split" << std::endl;
   stream("printf %d\n", 3);
   std::time_t const after = std::time(nullptr);
   stream.detachPrinter(&printer);
   std::string const text = read({"stamped.log"});
   bool matched = false;
   for (std::time_t t1 = before; t1 <= after; ++t1)
      for (std::time_t t2 = t1; t2 <= after; ++t2)
         matched |=
             text == "plain\n" + stampAt(t1) + "whole\nsplit" + stampAt(t2) + "\nprintf 3\n|";
   EXPECT_TRUE(matched) << text;
}

// With an interval of 5, a file 5 seconds old does not roll and one 6 seconds old
// does. A write that strays across a second boundary is ambiguous, and run again.
TEST_F(FilePrinterTest, RollsOnlyWhenMoreThanTheIntervalHasPassed)
{
   bool decided = false;
   for (int attempt = 0; attempt < 5 && !decided; ++attempt)
   {
      ProbedFilePrinter printer(path("five.log").c_str());
      printer.backdate(100000);
      printer.write("no interval\n", 2, true);
      printer.setLogRollingInterval(5);
      std::time_t before = std::time(nullptr);
      printer.backdate(5);
      printer.write("at five\n", 2, true);
      if (std::time(nullptr) != before)
         continue;
      EXPECT_EQ(printer.rolls(), 0u);
      printer.backdate(6);
      printer.write("at six\n", 2, true);
      EXPECT_EQ(printer.rolls(), 1u);
      // The write that triggered the roll belongs to the new file.
      printer.backdate(60);  // idle: nothing written, nothing rolls
      EXPECT_EQ(read({"five_1.log", "five.log", "five_2.log"}),
                "no interval\nat five\n|at six\n|-|");
      decided = true;
   }
   EXPECT_TRUE(decided) << "the clock never allowed an unambiguous run";
}

TEST_F(FilePrinterTest, RolledFilesCountUpOldestFirstAndResetRestarts)
{
   ProbedFilePrinter printer(path("app.log").c_str());
   printer.setLogRollingInterval(5);
   for (char const* text : {"one\n", "two\n", "three\n"})
   {
      printer.backdate(60);
      printer.write(text, 2, true);
   }
   EXPECT_EQ(read({"app_1.log", "app_2.log", "app_3.log", "app.log"}), "|one\n|two\n|three\n|");
   printer.resetFile(nullptr);
   EXPECT_EQ(printer.rolls(), 3u);
   printer.resetFile(path("nodot").c_str());
   EXPECT_EQ(printer.rolls(), 0u);
   printer.write("old\n", 2, false);
   printer.backdate(60);
   printer.write("new\n", 2, false);
   EXPECT_EQ(read({"nodot_1", "nodot", "app.log"}), "old\n|new\n|three\n|");
   // A rename that fails goes unreported, and the named file starts afresh.
   ASSERT_EQ(std::remove(path("nodot").c_str()), 0);
   printer.backdate(60);
   printer.write("kept\n", 2, true);
   EXPECT_EQ(printer.rolls(), 2u);
   EXPECT_EQ(read({"nodot_2", "nodot"}), "-|kept\n|");
}
