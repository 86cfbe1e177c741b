//===- olutil/olPrint.h - Notification streams and printers ----*- C++ -*-===//
//
// Family: Diagnostics.
//
// All console and log output of the library goes through five global notification
// streams, one per severity (DtFatal, DtWarn, DtInfo, DtVerbose, DtDebug). A stream
// gathers characters into lines, drops them unless the process-wide DtNotifyLevel
// lets its severity through, and hands what passes to its printers: standard output,
// standard error, a (rolling, time-stamped) file, or a printer of the application's.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLPRINT_H
#define OLUTIL_OLPRINT_H

#include <olutil/olMutex.h>

#include <ctime>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

// The process-wide notification level, initially 2. A stream with threshold t prints
// when t <= DtNotifyLevel; a negative level silences every stream. The library never
// writes it: the application assigns it directly. Read without synchronisation.
extern int DtNotifyLevel;

// A sink for the text of one or more streams. Streams keep plain pointers: a printer
// must be detached from every stream before it is destroyed.
class DtPrinter
{
public:
   virtual ~DtPrinter();
   // Called with the text that passed a stream's level test. `level` is the stream's
   // threshold; `lineComplete` is true when `text` ends a line gathered by the stream.
   virtual void write(std::string const& text, int level, bool lineComplete) = 0;
};

// Writes to std::cout and flushes. Thread safe.
class DtStdoutPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool lineComplete) override;

private:
   DtMutex mutex;
};

// Writes to std::cerr and flushes. Thread safe.
class DtStderrPrinter : public DtPrinter
{
public:
   void write(std::string const& text, int level, bool lineComplete) override;

private:
   DtMutex mutex;
};

// Writes to a file, optionally stamping complete lines with the local time as
// "[Sat Nov 21 05:48:23 2026] ", and optionally rolling: once more than the rolling
// interval has passed since the file was opened, the next write renames the file to
// prefix + "_" + count + suffix ("app.log" becomes "app_1.log", then "app_2.log"...)
// and starts the named file afresh. An idle file never rolls. When the rename fails
// (the rolled name lies in a directory that does not exist, as it does when a
// directory of the path has a dot in its name), the named file is continued, nothing
// written is lost, and the first such failure is told on standard error.
//
// A file that cannot be opened leaves the printer not open; writes are then dropped
// without a message.
//
// Thread safety: write, resetFile and isOpen may be called from any thread; the file
// is guarded by the printer's mutex. setPrintTimestamps and setLogRollingInterval
// store without a lock and are meant for set-up time.
class DtFilePrinter : public DtPrinter
{
public:
   // Opens nothing.
   DtFilePrinter();
   // Opens (truncates) `name` for output when it is not null.
   explicit DtFilePrinter(char const* name);
   ~DtFilePrinter() override;

   void write(std::string const& text, int level, bool lineComplete) override;
   virtual void setPrintTimestamps(bool on);
   // Seconds a file is written before it rolls; 0 turns rolling off.
   virtual void setLogRollingInterval(unsigned int seconds);
   // Closes the current file, opens (truncates) `name` and restarts the roll count.
   // A null name does nothing.
   virtual void resetFile(char const* name);
   virtual bool isOpen();
   // Splits `name` at its last dot into the prefix and suffix used for rolling.
   virtual void cacheFilename(std::string const& name);

protected:
   DtMutex mutex;
   bool printTimestamps = false;
   std::time_t fileStartTime = 0;
   std::uint32_t rollCount = 0;
   std::uint32_t rollIntervalSeconds = 0;
   std::string fullName;
   std::string namePrefix;
   std::string nameSuffix;
   std::ofstream file;

private:
   void openLocked(char const* name);
   void rollLocked(std::time_t now);

   // A failed roll has been told on standard error for the present file.
   bool rollFailureReported = false;
};

class DtOutputStream;

// The stream buffer behind a DtOutputStream. It keeps no put area, so every character
// arrives in overflow(), where the stream's level is tested character by character:
// characters that fail the test are dropped for good. A newline hands the gathered
// line to the stream with lineComplete true; sync() hands over a partial line with
// lineComplete false. Shared by every thread that writes to its stream: its mutex
// guards the one pending line, and is held while the line goes to the printers.
class DtOutputStreamBuffer : public std::basic_streambuf<char>
{
public:
   DtOutputStreamBuffer();
   ~DtOutputStreamBuffer() override;

   DtOutputStreamBuffer(DtOutputStreamBuffer const&) = delete;
   DtOutputStreamBuffer& operator=(DtOutputStreamBuffer const&) = delete;

   // The stream this buffer feeds; not owned.
   virtual void setOutputStream(DtOutputStream* stream);

protected:
   int sync() override;
   int_type overflow(int_type c) override;

private:
   std::string line;
   DtMutex mutex;
   DtOutputStream* stream = nullptr;
};

// A notification stream: a std::ostream that prints through any number of printers
// when its threshold is at most the level it obeys. It is unit buffered, so every
// insertion reaches the printers at once: `DtInfo << "abc"` arrives with lineComplete
// false, an end of line inserted afterwards arrives by itself with lineComplete true,
// and text that holds its own newline arrives as a whole line with lineComplete true.
//
// Thread safety: any thread may use any stream. Insertions from several threads may
// interleave, since one insertion chain is not atomic and all threads share the
// stream's pending line. Locks are taken in the order: buffer, printer list, printer.
// A printer's write runs with the printer list locked, so it must not attach or
// detach printers on the same stream.
class DtOutputStream : public std::ostream
{
public:
   // `buffer` is not owned and must outlive the stream; `notifyLevel` is the level to
   // obey; `firstPrinter` may be null.
   DtOutputStream(DtOutputStreamBuffer* buffer, int& notifyLevel, int threshold,
                  DtPrinter* firstPrinter);
   ~DtOutputStream() override;

   DtOutputStream(DtOutputStream const&) = delete;
   DtOutputStream& operator=(DtOutputStream const&) = delete;

   // Appends `printer` unless it is null or attached already; printers print in the
   // order they were attached.
   virtual void attachPrinter(DtPrinter* printer);
   // False for null or a printer that is not attached.
   virtual bool detachPrinter(DtPrinter* printer);
   virtual void detachAllPrinters();
   // Hands `text` to every printer when okToPrint(). It hides the unformatted
   // std::ostream::write, which remains reachable by its qualified name.
   virtual void write(std::string const& text, bool lineComplete);
   virtual void setThreshold(int threshold);
   virtual int threshold() const;
   // threshold() <= the level this stream obeys.
   virtual bool okToPrint() const;
   // printf-style output: flushes a pending partial line first, then prints at most
   // 2047 bytes of the formatted text with lineComplete false. It adds no newline. A
   // null format is a plain flush.
   virtual void operator()(char const* format, ...);

private:
   DtOutputStreamBuffer* buffer;
   DtMutex streamMutex;
   std::vector<DtPrinter*> printers;
   DtMutex printersMutex;
   int threshold_;
   int& notifyLevel;
};

extern DtStdoutPrinter DtStandardOutConsole;
// Attached to no stream until the application attaches it.
extern DtStderrPrinter DtStandardErrorConsole;

extern DtOutputStreamBuffer DtInfoBuffer;
extern DtOutputStreamBuffer DtWarnBuffer;
extern DtOutputStreamBuffer DtFatalBuffer;
extern DtOutputStreamBuffer DtVerboseBuffer;
extern DtOutputStreamBuffer DtDebugBuffer;

// The five notification streams, thresholds 0 to 4, each starting with
// DtStandardOutConsole attached. They are built before any static initialiser of
// default priority in the library or in programs that link it runs, and are destroyed
// (flushing) after them. Writing to DtFatal ends nothing: DtFatalError does.
extern DtOutputStream DtFatal;    // threshold 0
extern DtOutputStream DtWarn;     // threshold 1
extern DtOutputStream DtInfo;     // threshold 2
extern DtOutputStream DtVerbose;  // threshold 3
extern DtOutputStream DtDebug;    // threshold 4

// Replaces the printers of all five streams with `printer`; null leaves them all
// without a printer, which silences the library entirely.
void DtSetOstrelPrinter(DtPrinter* printer);

// Writes every entry of the process environment to `out`, one a line, between a
// "DtPrintEnvironmentVariables" and an "End of DtPrintEnvironmentVariables" line.
void DtPrintEnvironmentVariables(DtOutputStream& out);

// Fatal errors: when `format` is not null and DtNotifyLevel is at least 0, print
// "**FATAL ERROR**: " and the message (DtFatalPerror and DtFatalNetPerror add ": " and
// strerror(errno)) as one line on DtFatal; then, always, call DtAbort(). With no abort
// function set the process exits with status 255; with one that returns, these
// functions return to their caller. Messages are cut at 2047 bytes.
void DtFatalError(char const* format, ...);
void DtFatalPerror(char const* format, ...);
void DtFatalNetPerror(char const* format, ...);

// Warnings: when `format` is not null and DtNotifyLevel is at least 1, print the
// message, ": " and strerror(errno) as one line on DtWarn, and return.
void DtWarnPerror(char const* format, ...);
void DtWarnNetPerror(char const* format, ...);

#endif  // OLUTIL_OLPRINT_H
