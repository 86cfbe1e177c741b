// Tests of the notification streams and printers.
#include <olutil/olPrint.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <cctype>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

extern char** environ;

namespace
{
struct Record
{
   std::string text;
   int level;
   bool lineComplete;
};

// Keeps every write it is given, in order.
class RecordingPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool lineComplete) override
   {
      DtScopedLock lock(mutex);
      records.push_back({text, level, lineComplete});
   }
   std::string joined()
   {
      DtScopedLock lock(mutex);
      std::string all;
      for (Record const& r : records)
         all += r.text;
      return all;
   }

   DtMutex mutex;
   std::vector<Record> records;
};

// Appends its name to a shared log, to see the order in which printers are called.
class NamingPrinter : public DtPrinter
{
public:
   NamingPrinter(std::string name, std::string& log) : name_(std::move(name)), log_(log) {}
   void write(std::string const&, int, bool) override { log_ += name_; }

private:
   std::string name_;
   std::string& log_;
};

// A stream of the test's own, obeying a level of its own, so that nothing here
// depends on or disturbs the global streams.
class PrivateStreamTest : public ::testing::Test
{
protected:
   int level = 2;
   DtOutputStreamBuffer buffer;
   RecordingPrinter printer;
   DtOutputStream stream{&buffer, level, 2, &printer};
};

// Saves DtNotifyLevel and the global streams' printers, and restores the library's
// start-up state afterwards.
class GlobalStreamTest : public ::testing::Test
{
protected:
   void SetUp() override { savedLevel_ = DtNotifyLevel; }
   void TearDown() override
   {
      DtNotifyLevel = savedLevel_;
      DtSetOstrelPrinter(&DtStandardOutConsole);
   }

private:
   int savedLevel_ = 2;
};

// Static initialisers of programs that link the library may already use the streams.
bool writeDuringStaticInitialisation()
{
   RecordingPrinter early;
   DtVerbose.attachPrinter(&early);
   int saved = DtNotifyLevel;
   DtNotifyLevel = 3;
   DtVerbose << "early\n";
   DtNotifyLevel = saved;
   bool detached = DtVerbose.detachPrinter(&early);
   return detached && DtVerbose.good() && early.joined() == "early\n";
}
bool const theStaticWriteWorked = writeDuringStaticInitialisation();
}  // namespace

// ---------------------------------------------------------------- globals

TEST_F(GlobalStreamTest, StreamsUsableFromStaticInitialisers)
{
   EXPECT_TRUE(theStaticWriteWorked);
}

TEST_F(GlobalStreamTest, ThresholdsOfTheFiveStreams)
{
   EXPECT_EQ(DtFatal.threshold(), 0);
   EXPECT_EQ(DtWarn.threshold(), 1);
   EXPECT_EQ(DtInfo.threshold(), 2);
   EXPECT_EQ(DtVerbose.threshold(), 3);
   EXPECT_EQ(DtDebug.threshold(), 4);
}

TEST_F(GlobalStreamTest, WhichStreamsPrintAtEachLevel)
{
   struct Case
   {
      int level;
      bool fatal, warn, info, verbose, debug;
   };
   Case const cases[] = {
       {-1, false, false, false, false, false}, {0, true, false, false, false, false},
       {1, true, true, false, false, false},    {2, true, true, true, false, false},
       {3, true, true, true, true, false},      {4, true, true, true, true, true},
       {9, true, true, true, true, true},
   };
   for (Case const& c : cases)
   {
      SCOPED_TRACE("level " + std::to_string(c.level));
      DtNotifyLevel = c.level;
      EXPECT_EQ(DtFatal.okToPrint(), c.fatal);
      EXPECT_EQ(DtWarn.okToPrint(), c.warn);
      EXPECT_EQ(DtInfo.okToPrint(), c.info);
      EXPECT_EQ(DtVerbose.okToPrint(), c.verbose);
      EXPECT_EQ(DtDebug.okToPrint(), c.debug);
   }
}

TEST_F(GlobalStreamTest, AllStreamsStartOnStandardOutput)
{
   DtNotifyLevel = 4;
   testing::internal::CaptureStdout();
   DtFatal << "f\n";
   DtWarn << "w\n";
   DtInfo << "i\n";
   DtVerbose << "v\n";
   DtDebug << "d\n";
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "f\nw\ni\nv\nd\n");
}

TEST_F(GlobalStreamTest, VerboseAtDefaultLevelPrintsNothingAndStaysUsable)
{
   DtNotifyLevel = 2;
   RecordingPrinter printer;
   DtSetOstrelPrinter(&printer);
   DtVerbose << "x\n";
   EXPECT_TRUE(printer.records.empty());
   EXPECT_TRUE(DtVerbose.good());
   DtNotifyLevel = 3;
   DtVerbose << "y\n";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "y\n");
   EXPECT_EQ(printer.records[0].level, 3);
   DtSetOstrelPrinter(nullptr);
}

TEST_F(GlobalStreamTest, SetOstrelPrinterReplacesThePrintersOfAllFive)
{
   DtNotifyLevel = 4;
   RecordingPrinter first, second;
   DtSetOstrelPrinter(&first);
   DtSetOstrelPrinter(&second);
   DtFatal << "f\n";
   DtWarn << "w\n";
   DtInfo << "i\n";
   DtVerbose << "v\n";
   DtDebug << "d\n";
   EXPECT_TRUE(first.records.empty());
   EXPECT_EQ(second.joined(), "f\nw\ni\nv\nd\n");
   std::vector<int> levels;
   for (Record const& r : second.records)
      levels.push_back(r.level);
   EXPECT_EQ(levels, (std::vector<int>{0, 1, 2, 3, 4}));
   DtSetOstrelPrinter(nullptr);
}

TEST_F(GlobalStreamTest, SetOstrelPrinterWithNullSilencesEverything)
{
   DtNotifyLevel = 4;
   DtSetOstrelPrinter(nullptr);
   testing::internal::CaptureStdout();
   testing::internal::CaptureStderr();
   DtFatal << "f\n";
   DtWarn << "w\n";
   DtInfo << "i\n";
   DtDebug("%s\n", "d");
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
   EXPECT_TRUE(DtFatal.good());
}

TEST_F(GlobalStreamTest, ConsolePrintersWriteToTheirOwnStreams)
{
   testing::internal::CaptureStdout();
   testing::internal::CaptureStderr();
   DtStandardOutConsole.write("to out", 7, false);
   DtStandardErrorConsole.write("to err", 7, true);
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "to out");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "to err");
}

TEST_F(GlobalStreamTest, StandardErrorConsoleCanBeAttached)
{
   DtInfo.detachAllPrinters();
   DtInfo.attachPrinter(&DtStandardErrorConsole);
   testing::internal::CaptureStdout();
   testing::internal::CaptureStderr();
   DtInfo << "to err\n";
   EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
   EXPECT_EQ(testing::internal::GetCapturedStderr(), "to err\n");
}

// ---------------------------------------------------------------- one stream

TEST_F(PrivateStreamTest, EachInsertionReachesThePrintersAtOnce)
{
   stream << "abc";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "abc");
   EXPECT_FALSE(printer.records[0].lineComplete);
   EXPECT_EQ(printer.records[0].level, 2);

   stream << std::endl;
   ASSERT_EQ(printer.records.size(), 2u);
   EXPECT_EQ(printer.records[1].text, "\n");
   EXPECT_TRUE(printer.records[1].lineComplete);
}

TEST_F(PrivateStreamTest, TextWithItsOwnNewlineArrivesAsOneLine)
{
   stream << "whole line\n";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "whole line\n");
   EXPECT_TRUE(printer.records[0].lineComplete);
}

TEST_F(PrivateStreamTest, InsertionSplitsAtEveryNewline)
{
   stream << "one\ntwo\nthr";
   ASSERT_EQ(printer.records.size(), 3u);
   EXPECT_EQ(printer.records[0].text, "one\n");
   EXPECT_TRUE(printer.records[0].lineComplete);
   EXPECT_EQ(printer.records[1].text, "two\n");
   EXPECT_TRUE(printer.records[1].lineComplete);
   EXPECT_EQ(printer.records[2].text, "thr");
   EXPECT_FALSE(printer.records[2].lineComplete);
}

TEST_F(PrivateStreamTest, NumbersAndCharactersAreInsertions)
{
   stream << 42 << ' ' << 1.5;
   ASSERT_EQ(printer.records.size(), 3u);
   EXPECT_EQ(printer.joined(), "42 1.5");
   for (Record const& r : printer.records)
      EXPECT_FALSE(r.lineComplete);
}

TEST_F(PrivateStreamTest, WithoutUnitBufferingTheLineIsGathered)
{
   stream.unsetf(std::ios_base::unitbuf);
   stream << "ab" << 7 << "c";
   EXPECT_TRUE(printer.records.empty());
   stream << '\n';
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "ab7c\n");
   EXPECT_TRUE(printer.records[0].lineComplete);
}

TEST_F(PrivateStreamTest, BelowTheThresholdNothingArrivesAndTheStreamStaysGood)
{
   level = 1;
   stream << "dropped\n" << 5 << std::endl;
   stream.flush();
   EXPECT_TRUE(printer.records.empty());
   EXPECT_TRUE(stream.good());
}

TEST_F(PrivateStreamTest, NegativeLevelSilencesEvenThresholdZero)
{
   stream.setThreshold(0);
   EXPECT_EQ(stream.threshold(), 0);
   level = -1;
   stream << "x\n";
   stream("y\n");
   EXPECT_TRUE(printer.records.empty());
   level = 0;
   stream << "z\n";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].level, 0);
}

TEST_F(PrivateStreamTest, RaisingTheLevelMidLineKeepsOnlyLaterCharacters)
{
   stream.setThreshold(3);
   stream << "before ";
   level = 3;
   stream << "after\n";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "after\n");
   EXPECT_TRUE(printer.records[0].lineComplete);
}

TEST_F(PrivateStreamTest, DroppedCharactersDoNotComeBackWhenTheLevelRises)
{
   stream.unsetf(std::ios_base::unitbuf);
   stream.setThreshold(3);
   stream << "lost ";
   level = 3;
   stream << "kept\n";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "kept\n");
}

TEST_F(PrivateStreamTest, LoweringTheLevelMidLineDropsTheRest)
{
   stream.unsetf(std::ios_base::unitbuf);
   stream << "start ";
   level = 1;
   stream << "end\n";
   EXPECT_TRUE(printer.records.empty());
   level = 2;
   stream << "next\n";
   ASSERT_EQ(printer.records.size(), 1u);
   // The characters gathered before the change are still in the line.
   EXPECT_EQ(printer.records[0].text, "start next\n");
}

TEST_F(PrivateStreamTest, AFlushWhileTheLevelIsTooLowDiscardsThePendingText)
{
   stream.unsetf(std::ios_base::unitbuf);
   stream << "start ";
   level = 1;
   stream.flush();
   EXPECT_TRUE(stream.good());
   level = 2;
   stream << "next\n";
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "next\n");
}

namespace
{
// A stream whose level changes after a given number of level tests, to see that the
// buffer asks for every single character.
class FlippingStream : public DtOutputStream
{
public:
   FlippingStream(DtOutputStreamBuffer* buffer, int& level, DtPrinter* printer)
       : DtOutputStream(buffer, level, 2, printer), level_(level)
   {
   }
   bool okToPrint() const override
   {
      if (++tests_ == flipAfter)
         level_ = newLevel;
      return DtOutputStream::okToPrint();
   }

   int flipAfter = 0;
   int newLevel = 0;

private:
   int& level_;
   mutable int tests_ = 0;
};
}  // namespace

TEST(OutputStreamBuffer, LevelIsTestedForEachCharacterOfOneInsertion)
{
   int level = 1;
   DtOutputStreamBuffer buffer;
   RecordingPrinter printer;
   FlippingStream stream(&buffer, level, &printer);
   stream.flipAfter = 4;  // the fourth character sees the raised level
   stream.newLevel = 2;
   stream << "abcdef\n";
   EXPECT_EQ(printer.joined(), "def\n");
}

TEST(OutputStreamBuffer, SyncWithoutAStreamFails)
{
   DtOutputStreamBuffer buffer;
   EXPECT_EQ(buffer.pubsync(), -1);
}

TEST(OutputStreamBuffer, ABufferThatOutlivesItsStreamIsLeftAlone)
{
   int level = 2;
   DtOutputStreamBuffer buffer;
   RecordingPrinter printer;
   {
      DtOutputStream stream(&buffer, level, 2, &printer);
      stream.unsetf(std::ios_base::unitbuf);
      stream << "pending";
   }
   // The stream's end flushed the pending text.
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "pending");
   EXPECT_FALSE(printer.records[0].lineComplete);
   EXPECT_EQ(buffer.pubsync(), -1);
   EXPECT_EQ(buffer.sputc('x'), 'x');
   EXPECT_EQ(printer.records.size(), 1u);
}

// ---------------------------------------------------------------- printers

TEST_F(PrivateStreamTest, AttachingOnePrinterTwicePrintsOnce)
{
   stream.attachPrinter(&printer);
   stream << "once\n";
   EXPECT_EQ(printer.records.size(), 1u);
}

TEST_F(PrivateStreamTest, DetachRules)
{
   RecordingPrinter other;
   EXPECT_FALSE(stream.detachPrinter(nullptr));
   EXPECT_FALSE(stream.detachPrinter(&other));
   EXPECT_TRUE(stream.detachPrinter(&printer));
   EXPECT_FALSE(stream.detachPrinter(&printer));
   stream << "nobody listens\n";
   EXPECT_TRUE(printer.records.empty());
   EXPECT_TRUE(stream.good());
}

TEST_F(PrivateStreamTest, NullPrinterIsIgnored)
{
   stream.attachPrinter(nullptr);
   stream << "x\n";
   EXPECT_EQ(printer.records.size(), 1u);
}

TEST_F(PrivateStreamTest, PrintersPrintInTheOrderOfAttachment)
{
   std::string log;
   NamingPrinter a("a", log), b("b", log), c("c", log);
   stream.detachAllPrinters();
   stream.attachPrinter(&b);
   stream.attachPrinter(&a);
   stream.attachPrinter(&c);
   stream.attachPrinter(&b);
   stream << "1\n";
   EXPECT_EQ(log, "bac");
   EXPECT_TRUE(stream.detachPrinter(&a));
   stream.attachPrinter(&a);
   stream << "2\n";
   EXPECT_EQ(log, "bacbca");
   stream.detachAllPrinters();
   stream << "3\n";
   EXPECT_EQ(log, "bacbca");
}

TEST_F(PrivateStreamTest, WriteHandsTextToPrintersUnchanged)
{
   stream.write("no newline", true);
   stream.write("", false);
   ASSERT_EQ(printer.records.size(), 2u);
   EXPECT_EQ(printer.records[0].text, "no newline");
   EXPECT_TRUE(printer.records[0].lineComplete);
   EXPECT_FALSE(printer.records[1].lineComplete);
   level = 0;
   stream.write("dropped", true);
   EXPECT_EQ(printer.records.size(), 2u);
}

// ---------------------------------------------------------------- printf form

TEST_F(PrivateStreamTest, PrintfFormatsWithoutCompletingTheLine)
{
   stream("%d-%s-%c\n", 5, "x", 'y');
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "5-x-y\n");
   EXPECT_FALSE(printer.records[0].lineComplete);
}

TEST_F(PrivateStreamTest, PrintfAddsNoNewline)
{
   stream("%s", "abc");
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "abc");
}

TEST_F(PrivateStreamTest, PrintfCutsAt2047Bytes)
{
   std::string longText(3000, 'q');
   stream("%s", longText.c_str());
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, std::string(2047, 'q'));
}

TEST_F(PrivateStreamTest, PrintfBelowTheThresholdDoesNothing)
{
   level = 1;
   stream("%s\n", "x");
   EXPECT_TRUE(printer.records.empty());
}

TEST_F(PrivateStreamTest, PrintfFlushesAPendingPartialLineFirst)
{
   stream.unsetf(std::ios_base::unitbuf);
   stream << "partial ";
   stream("%d\n", 1);
   ASSERT_EQ(printer.records.size(), 2u);
   EXPECT_EQ(printer.records[0].text, "partial ");
   EXPECT_FALSE(printer.records[0].lineComplete);
   EXPECT_EQ(printer.records[1].text, "1\n");
}

TEST_F(PrivateStreamTest, NullFormatIsAPlainFlush)
{
   stream.unsetf(std::ios_base::unitbuf);
   stream << "pending";
   EXPECT_TRUE(printer.records.empty());
   stream(nullptr);
   ASSERT_EQ(printer.records.size(), 1u);
   EXPECT_EQ(printer.records[0].text, "pending");
   EXPECT_FALSE(printer.records[0].lineComplete);
   stream(nullptr);
   EXPECT_EQ(printer.records.size(), 1u);
}

// ---------------------------------------------------------------- environment

TEST_F(PrivateStreamTest, PrintEnvironmentVariablesListsEveryEntry)
{
   ASSERT_EQ(setenv("OLUTIL_TEST_MARKER", "present", 1), 0);
   std::size_t entries = 0;
   for (char** e = environ; *e; ++e)
      ++entries;
   DtPrintEnvironmentVariables(stream);
   unsetenv("OLUTIL_TEST_MARKER");

   std::vector<std::string> lines;
   std::istringstream in(printer.joined());
   for (std::string line; std::getline(in, line);)
      lines.push_back(line);
   ASSERT_EQ(lines.size(), entries + 2);
   EXPECT_EQ(lines.front(), "DtPrintEnvironmentVariables");
   EXPECT_EQ(lines.back(), "End of DtPrintEnvironmentVariables");
   EXPECT_NE(std::find(lines.begin(), lines.end(), "OLUTIL_TEST_MARKER=present"), lines.end());
}

TEST_F(PrivateStreamTest, PrintEnvironmentVariablesObeysTheLevel)
{
   level = 1;
   DtPrintEnvironmentVariables(stream);
   EXPECT_TRUE(printer.records.empty());
}

// ---------------------------------------------------------------- file printer

namespace
{
// Opens the printer's bookkeeping to the tests.
class ProbedFilePrinter : public DtFilePrinter
{
public:
   using DtFilePrinter::DtFilePrinter;
   std::time_t startTime() const { return fileStartTime_; }
   std::uint32_t rolls() const { return rollCount_; }
   std::string const& fullName() const { return fullName_; }
   std::string const& prefix() const { return namePrefix_; }
   std::string const& suffix() const { return nameSuffix_; }
   // Makes the current file look `seconds` old, so that rolling is tested without
   // waiting for the clock.
   void backdate(std::time_t seconds) { fileStartTime_ = std::time(nullptr) - seconds; }
};

std::string readFile(std::string const& path)
{
   std::ifstream in(path);
   std::ostringstream text;
   text << in.rdbuf();
   return text.str();
}

bool fileExists(std::string const& path)
{
   struct stat info;
   return ::stat(path.c_str(), &info) == 0;
}

// Polls the clock until it shows `second` or later; bounded by the clock itself.
void waitForSecond(std::time_t second)
{
   for (int i = 0; i < 500 && std::time(nullptr) < second; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// A fresh directory for each test, removed with its files afterwards.
class FilePrinterTest : public ::testing::Test
{
protected:
   void SetUp() override
   {
      char pattern[] = "/tmp/olutil_print_XXXXXX";
      ASSERT_NE(mkdtemp(pattern), nullptr);
      dir = pattern;
   }
   void TearDown() override
   {
      if (DIR* d = opendir(dir.c_str()))
      {
         while (dirent* entry = readdir(d))
         {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
               std::remove((dir + "/" + name).c_str());
         }
         closedir(d);
      }
      rmdir(dir.c_str());
   }
   std::string path(char const* name) const { return dir + "/" + name; }

   std::string dir;
};

// "[Sat Nov 21 05:48:23 2026] ", the stamp of a complete line.
// In `shape`, 'a' is a letter, '9' a digit, '_' a digit or a blank.
constexpr char theStampShape[] = "[aaa aaa _9 99:99:99 9999] ";
constexpr std::size_t theStampLength = sizeof theStampShape - 1;

bool isStampAt(std::string const& text, std::size_t at)
{
   if (text.size() < at + theStampLength)
      return false;
   for (std::size_t i = 0; i < theStampLength; ++i)
   {
      unsigned char c = static_cast<unsigned char>(text[at + i]);
      switch (theStampShape[i])
      {
         case 'a':
            if (!std::isalpha(c))
               return false;
            break;
         case '9':
            if (!std::isdigit(c))
               return false;
            break;
         case '_':
            if (!std::isdigit(c) && c != ' ')
               return false;
            break;
         default:
            if (c != static_cast<unsigned char>(theStampShape[i]))
               return false;
      }
   }
   return true;
}

// True when `text` is `pattern` with a stamp wherever the pattern holds '@'.
bool matchesWithStamps(std::string const& text, std::string const& pattern)
{
   std::size_t at = 0;
   for (char p : pattern)
   {
      if (p == '@')
      {
         if (!isStampAt(text, at))
            return false;
         at += theStampLength;
      }
      else if (at >= text.size() || text[at++] != p)
         return false;
   }
   return at == text.size();
}
}  // namespace

TEST_F(FilePrinterTest, WritesTextAsItComes)
{
   DtFilePrinter printer(path("plain.log").c_str());
   ASSERT_TRUE(printer.isOpen());
   printer.write("one ", 2, false);
   printer.write("two\n", 2, true);
   EXPECT_EQ(readFile(path("plain.log")), "one two\n");
}

TEST_F(FilePrinterTest, OpeningTruncates)
{
   {
      std::ofstream old(path("old.log"));
      old << "old content\n";
   }
   DtFilePrinter printer(path("old.log").c_str());
   printer.write("new\n", 2, true);
   EXPECT_EQ(readFile(path("old.log")), "new\n");
}

TEST_F(FilePrinterTest, AFileThatCannotBeOpenedIsQuietlyNotOpen)
{
   DtFilePrinter printer(path("missing/dir/x.log").c_str());
   EXPECT_FALSE(printer.isOpen());
   printer.write("lost\n", 2, true);
   EXPECT_FALSE(fileExists(path("missing/dir/x.log")));

   DtFilePrinter unnamed;
   EXPECT_FALSE(unnamed.isOpen());
   unnamed.write("lost\n", 2, true);
   DtFilePrinter null(nullptr);
   EXPECT_FALSE(null.isOpen());
}

TEST_F(FilePrinterTest, TimestampsGoBeforeWhatCompletesALine)
{
   int level = 2;
   DtOutputStreamBuffer buffer;
   DtFilePrinter printer(path("stamped.log").c_str());
   printer.setPrintTimestamps(true);
   DtOutputStream stream(&buffer, level, 2, &printer);

   stream << "whole\n";
   // Text followed by a separately inserted end of line gets its stamp right before
   // the line end: the end of line is what completes the line.
   stream << "split" << std::endl;
   stream("printf %d\n", 3);
   stream.detachPrinter(&printer);

   std::string text = readFile(path("stamped.log"));
   EXPECT_TRUE(matchesWithStamps(text, "@whole\nsplit@\nprintf 3\n")) << text;
}

TEST_F(FilePrinterTest, TimestampIsTheLocalTimeOfTheWrite)
{
   DtFilePrinter printer(path("now.log").c_str());
   printer.setPrintTimestamps(true);
   bool decided = false;
   for (int attempt = 0; attempt < 5 && !decided; ++attempt)
   {
      std::time_t before = std::time(nullptr);
      printer.write("x\n", 2, true);
      if (std::time(nullptr) != before)
         continue;
      std::tm local{};
      localtime_r(&before, &local);
      char expected[64];
      std::strftime(expected, sizeof expected, "[%a %b %e %H:%M:%S %Y] x\n", &local);
      std::string text = readFile(path("now.log"));
      EXPECT_EQ(text.substr(text.size() - std::strlen(expected)), expected);
      decided = true;
   }
   EXPECT_TRUE(decided);
}

TEST(StampShape, CheckerAcceptsOnlyStamps)
{
   EXPECT_TRUE(matchesWithStamps("[Sat Nov  1 05:48:23 2026] x", "@x"));
   EXPECT_TRUE(matchesWithStamps("[Sat Nov 21 05:48:23 2026] x", "@x"));
   EXPECT_FALSE(matchesWithStamps("[Sat Nov 21 05:48:23 2026]x", "@x"));
   EXPECT_FALSE(matchesWithStamps("x", "@x"));
   EXPECT_FALSE(matchesWithStamps("[Sat Nov 21 05:48:23 2026] x\n", "@x"));
}

TEST_F(FilePrinterTest, NoTimestampsUnlessAsked)
{
   DtFilePrinter printer(path("bare.log").c_str());
   printer.write("line\n", 2, true);
   printer.setPrintTimestamps(true);
   printer.write("partial", 2, false);
   printer.setPrintTimestamps(false);
   printer.write("\n", 2, true);
   EXPECT_EQ(readFile(path("bare.log")), "line\npartial\n");
}

TEST_F(FilePrinterTest, CacheFilenameSplitsAtTheLastDot)
{
   struct Case
   {
      char const* name;
      char const* prefix;
      char const* suffix;
   };
   Case const cases[] = {
       {"app.log", "app", ".log"},
       {"noext", "noext", ""},
       {"a.b.c", "a.b", ".c"},
       {".hidden", "", ".hidden"},
       {"dir.d/file", "dir", ".d/file"},
       {"trailing.", "trailing", "."},
       {"/var/log/x.txt", "/var/log/x", ".txt"},
       {"", "", ""},
   };
   ProbedFilePrinter printer;
   for (Case const& c : cases)
   {
      SCOPED_TRACE(c.name);
      printer.cacheFilename(c.name);
      EXPECT_EQ(printer.fullName(), c.name);
      EXPECT_EQ(printer.prefix(), c.prefix);
      EXPECT_EQ(printer.suffix(), c.suffix);
   }
}

TEST_F(FilePrinterTest, ResetFileMovesToANewFile)
{
   ProbedFilePrinter printer(path("first.log").c_str());
   printer.write("1\n", 2, true);
   printer.resetFile(nullptr);
   EXPECT_EQ(printer.fullName(), path("first.log"));
   printer.resetFile(path("second.txt").c_str());
   EXPECT_TRUE(printer.isOpen());
   EXPECT_EQ(printer.rolls(), 0u);
   EXPECT_EQ(printer.suffix(), ".txt");
   printer.write("2\n", 2, true);
   EXPECT_EQ(readFile(path("first.log")), "1\n");
   EXPECT_EQ(readFile(path("second.txt")), "2\n");

   DtFilePrinter late;
   late.resetFile(path("late.log").c_str());
   EXPECT_TRUE(late.isOpen());
}

TEST_F(FilePrinterTest, NoRollingWithoutAnInterval)
{
   ProbedFilePrinter printer(path("steady.log").c_str());
   printer.backdate(100000);
   printer.write("x\n", 2, true);
   EXPECT_EQ(printer.rolls(), 0u);
   EXPECT_FALSE(fileExists(path("steady_1.log")));
   EXPECT_EQ(readFile(path("steady.log")), "x\n");
}

// With an interval of 5, a file 5 seconds old does not roll and one 6 seconds old
// does. A write that strays across a second boundary makes the case ambiguous, so it
// is run again (a bounded number of times).
TEST_F(FilePrinterTest, RollsOnlyWhenMoreThanTheIntervalHasPassed)
{
   bool decided = false;
   for (int attempt = 0; attempt < 5 && !decided; ++attempt)
   {
      std::remove(path("five_1.log").c_str());
      ProbedFilePrinter printer(path("five.log").c_str());
      ASSERT_TRUE(printer.isOpen());
      printer.setLogRollingInterval(5);

      std::time_t before = std::time(nullptr);
      printer.backdate(5);
      printer.write("at five\n", 2, true);
      if (std::time(nullptr) != before)
         continue;
      EXPECT_EQ(printer.rolls(), 0u);
      EXPECT_FALSE(fileExists(path("five_1.log")));

      printer.backdate(6);
      printer.write("at six\n", 2, true);
      EXPECT_EQ(printer.rolls(), 1u);
      EXPECT_EQ(readFile(path("five_1.log")), "at five\n");
      // The write that triggered the roll belongs to the new file.
      EXPECT_EQ(readFile(path("five.log")), "at six\n");
      decided = true;
   }
   EXPECT_TRUE(decided) << "the clock never allowed an unambiguous run";
}

// The same on the real clock, with an interval of 1 second: a write in the first
// second after opening keeps the file, one in the second after rolls it.
TEST_F(FilePrinterTest, RollsOnTheRealClock)
{
   bool decided = false;
   for (int attempt = 0; attempt < 5 && !decided; ++attempt)
   {
      std::remove(path("app_1.log").c_str());
      ProbedFilePrinter printer(path("app.log").c_str());
      ASSERT_TRUE(printer.isOpen());
      printer.setLogRollingInterval(1);
      std::time_t start = printer.startTime();

      waitForSecond(start + 1);
      if (std::time(nullptr) != start + 1)
         continue;
      printer.write("first\n", 2, true);
      if (std::time(nullptr) != start + 1)
         continue;
      EXPECT_EQ(printer.rolls(), 0u);
      EXPECT_FALSE(fileExists(path("app_1.log")));

      waitForSecond(start + 2);
      printer.write("second\n", 2, true);
      EXPECT_EQ(printer.rolls(), 1u);
      EXPECT_GE(printer.startTime(), start + 2);
      EXPECT_EQ(readFile(path("app_1.log")), "first\n");
      EXPECT_EQ(readFile(path("app.log")), "second\n");
      decided = true;
   }
   EXPECT_TRUE(decided) << "the clock never allowed an unambiguous run";
}

TEST_F(FilePrinterTest, RolledFilesCountUpOldestFirst)
{
   ProbedFilePrinter printer(path("app.log").c_str());
   printer.setLogRollingInterval(5);
   char const* texts[] = {"one\n", "two\n", "three\n", "four\n"};
   for (char const* text : texts)
   {
      printer.backdate(60);
      printer.write(text, 2, true);
   }
   EXPECT_EQ(printer.rolls(), 4u);
   EXPECT_EQ(readFile(path("app_1.log")), "");
   EXPECT_EQ(readFile(path("app_2.log")), "one\n");
   EXPECT_EQ(readFile(path("app_3.log")), "two\n");
   EXPECT_EQ(readFile(path("app_4.log")), "three\n");
   EXPECT_EQ(readFile(path("app.log")), "four\n");
}

TEST_F(FilePrinterTest, ANameWithoutDotRollsToNameUnderscoreCount)
{
   ProbedFilePrinter printer(path("nodot").c_str());
   printer.setLogRollingInterval(1);
   printer.write("old\n", 2, false);
   printer.backdate(10);
   printer.write("new\n", 2, false);
   EXPECT_EQ(readFile(path("nodot_1")), "old\n");
   EXPECT_EQ(readFile(path("nodot")), "new\n");
}

TEST_F(FilePrinterTest, AnIdleFileDoesNotRoll)
{
   ProbedFilePrinter printer(path("idle.log").c_str());
   printer.setLogRollingInterval(1);
   printer.backdate(10);
   EXPECT_FALSE(fileExists(path("idle_1.log")));
   EXPECT_EQ(printer.rolls(), 0u);
}

TEST_F(FilePrinterTest, ResetFileRestartsTheRollCount)
{
   ProbedFilePrinter printer(path("count.log").c_str());
   printer.setLogRollingInterval(1);
   printer.write("a\n", 2, true);
   printer.backdate(10);
   printer.write("b\n", 2, true);
   EXPECT_EQ(printer.rolls(), 1u);
   EXPECT_EQ(readFile(path("count_1.log")), "a\n");

   printer.resetFile(path("count.log").c_str());
   EXPECT_EQ(printer.rolls(), 0u);
   printer.write("c\n", 2, true);
   printer.backdate(10);
   printer.write("d\n", 2, true);
   EXPECT_EQ(printer.rolls(), 1u);
   // The count started again, so the first rolled name is used again.
   EXPECT_EQ(readFile(path("count_1.log")), "c\n");
   EXPECT_FALSE(fileExists(path("count_2.log")));
   EXPECT_EQ(readFile(path("count.log")), "d\n");
}

TEST_F(FilePrinterTest, ARollThatCannotRenameGoesOn)
{
   ProbedFilePrinter printer(path("gone.log").c_str());
   printer.setLogRollingInterval(1);
   printer.write("lost\n", 2, true);
   ASSERT_EQ(std::remove(path("gone.log").c_str()), 0);
   printer.backdate(10);
   printer.write("kept\n", 2, true);
   EXPECT_EQ(printer.rolls(), 1u);
   EXPECT_FALSE(fileExists(path("gone_1.log")));
   EXPECT_TRUE(printer.isOpen());
   EXPECT_EQ(readFile(path("gone.log")), "kept\n");
}

TEST_F(FilePrinterTest, TimestampsAndRollingTogether)
{
   ProbedFilePrinter printer(path("both.log").c_str());
   printer.setLogRollingInterval(1);
   printer.setPrintTimestamps(true);
   printer.write("old\n", 2, true);
   printer.backdate(10);
   printer.write("new\n", 2, true);
   EXPECT_TRUE(matchesWithStamps(readFile(path("both_1.log")), "@old\n"));
   EXPECT_TRUE(matchesWithStamps(readFile(path("both.log")), "@new\n"));
}

TEST_F(FilePrinterTest, StreamsOfManyThreadsReachOneFile)
{
   int level = 2;
   DtOutputStreamBuffer buffer;
   DtFilePrinter printer(path("threads.log").c_str());
   DtOutputStream stream(&buffer, level, 2, &printer);
   std::vector<std::thread> threads;
   for (int t = 0; t < 4; ++t)
      threads.emplace_back(
          [&stream]
          {
             for (int i = 0; i < 200; ++i)
                stream("%s", "0123456789\n");
          });
   for (std::thread& t : threads)
      t.join();
   stream.detachAllPrinters();
   // printf-style writes go to the printers whole, so no line is torn.
   std::istringstream in(readFile(path("threads.log")));
   int lines = 0;
   for (std::string line; std::getline(in, line); ++lines)
      ASSERT_EQ(line, "0123456789");
   EXPECT_EQ(lines, 800);
}
