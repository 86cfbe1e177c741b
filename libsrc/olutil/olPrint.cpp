//===- olPrint.cpp - Notification streams and printers ---------------------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olPrint.h>

#include <olutil/olFatal.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

extern char** environ;

namespace
{
// Streams and the fatal functions format into buffers of this size; longer output
// is cut.
constexpr std::size_t theFormatBufferSize = 2048;

// The header of every fatal error line.
constexpr char theFatalHeader[] = "**FATAL ERROR**: ";

// vsnprintf into `buffer`, whose last byte is always a terminator.
void formatInto(char (&buffer)[theFormatBufferSize], char const* format, va_list args)
{
   std::vsnprintf(buffer, theFormatBufferSize, format, args);
   buffer[theFormatBufferSize - 1] = '\0';
}

// The C library's message for `error`, thread safe.
std::string errorText(int error)
{
   char scratch[256];
   return strerror_r(error, scratch, sizeof scratch);
}
}  // namespace

// Built before every static initialiser of default priority, in this library and in
// the programs that link it, so that those may report on the streams; destroyed in
// the reverse order after them.
#define OLUTIL_EARLY_INIT __attribute__((init_priority(101)))

int DtNotifyLevel = 2;

DtStdoutPrinter DtStandardOutConsole OLUTIL_EARLY_INIT;
DtStderrPrinter DtStandardErrorConsole OLUTIL_EARLY_INIT;

DtOutputStreamBuffer DtInfoBuffer OLUTIL_EARLY_INIT;
DtOutputStreamBuffer DtWarnBuffer OLUTIL_EARLY_INIT;
DtOutputStreamBuffer DtFatalBuffer OLUTIL_EARLY_INIT;
DtOutputStreamBuffer DtVerboseBuffer OLUTIL_EARLY_INIT;
DtOutputStreamBuffer DtDebugBuffer OLUTIL_EARLY_INIT;

DtOutputStream DtFatal OLUTIL_EARLY_INIT(&DtFatalBuffer, DtNotifyLevel, 0, &DtStandardOutConsole);
DtOutputStream DtWarn OLUTIL_EARLY_INIT(&DtWarnBuffer, DtNotifyLevel, 1, &DtStandardOutConsole);
DtOutputStream DtInfo OLUTIL_EARLY_INIT(&DtInfoBuffer, DtNotifyLevel, 2, &DtStandardOutConsole);
DtOutputStream DtVerbose OLUTIL_EARLY_INIT(&DtVerboseBuffer, DtNotifyLevel, 3,
                                           &DtStandardOutConsole);
DtOutputStream DtDebug OLUTIL_EARLY_INIT(&DtDebugBuffer, DtNotifyLevel, 4, &DtStandardOutConsole);

// ---------------------------------------------------------------- printers

DtPrinter::~DtPrinter() = default;

void DtStdoutPrinter::write(std::string const& text, int, bool)
{
   DtScopedLock lock(mutex);
   std::cout << text;
   std::cout.flush();
}

void DtStderrPrinter::write(std::string const& text, int, bool)
{
   DtScopedLock lock(mutex);
   std::cerr << text;
   std::cerr.flush();
}

DtFilePrinter::DtFilePrinter() = default;

DtFilePrinter::DtFilePrinter(char const* name)
{
   DtScopedLock lock(mutex);
   if (name)
      openLocked(name);
}

DtFilePrinter::~DtFilePrinter()
{
   DtScopedLock lock(mutex);
   if (file.is_open())
      file.close();
}

void DtFilePrinter::openLocked(char const* name)
{
   file.open(name, std::ios::out | std::ios::trunc);
   fileStartTime = std::time(nullptr);
   cacheFilename(name);
}

void DtFilePrinter::setPrintTimestamps(bool on)
{
   printTimestamps = on;
}

void DtFilePrinter::setLogRollingInterval(unsigned int seconds)
{
   rollIntervalSeconds = seconds;
}

bool DtFilePrinter::isOpen()
{
   DtScopedLock lock(mutex);
   return file.is_open();
}

void DtFilePrinter::resetFile(char const* name)
{
   if (!name)
      return;
   DtScopedLock lock(mutex);
   if (isOpen())
      file.close();
   // A failed close leaves the stream's error state set; the new file starts clean.
   file.clear();
   openLocked(name);
   rollCount = 0;
   rollFailureReported = false;
}

void DtFilePrinter::cacheFilename(std::string const& name)
{
   fullName = name;
   namePrefix = name;
   nameSuffix.clear();
   std::string::size_type dot = name.rfind('.');
   if (dot != std::string::npos)
   {
      namePrefix = name.substr(0, dot);
      nameSuffix = name.substr(dot);
   }
}

void DtFilePrinter::rollLocked(std::time_t now)
{
   file.close();
   file.clear();
   ++rollCount;
   std::string const rolledName = namePrefix + "_" + std::to_string(rollCount) + nameSuffix;
   if (std::rename(fullName.c_str(), rolledName.c_str()) == 0)
   {
      file.open(fullName, std::ios::out | std::ios::trunc);
   }
   else
   {
      // The lines written so far are still in the named file, and starting it
      // afresh would lose them: it is continued instead, and the roll number
      // is left for the next roll that succeeds. A dot in a directory part puts
      // the rolled name in a directory that does not exist, so this failure
      // can repeat at every interval; it is told once.
      int const error = errno;
      --rollCount;
      if (!rollFailureReported)
      {
         rollFailureReported = true;
         DtStandardErrorConsole.write("DtFilePrinter: cannot roll " + fullName + " to " +
                                          rolledName + ": " + errorText(error) +
                                          "; writing on in " + fullName + "\n",
                                      1, true);
      }
      file.open(fullName, std::ios::out | std::ios::app);
   }
   fileStartTime = now;
}

void DtFilePrinter::write(std::string const& text, int, bool lineComplete)
{
   if (!isOpen())
      return;

   // The whole write, roll included, holds the mutex so that two threads cannot both
   // decide to roll the same file.
   DtScopedLock lock(mutex);
   std::time_t now = 0;
   if (rollIntervalSeconds != 0 || (printTimestamps && lineComplete))
      now = std::time(nullptr);

   if (rollIntervalSeconds != 0 &&
       std::difftime(now, fileStartTime) > static_cast<double>(rollIntervalSeconds))
      rollLocked(now);

   if (printTimestamps && lineComplete)
   {
      std::tm local{};
      char stamp[64];
      localtime_r(&now, &local);
      if (asctime_r(&local, stamp))
      {
         std::size_t length = std::strlen(stamp);
         if (length > 0)
            stamp[length - 1] = '\0';  // asctime's own newline
         file << '[' << stamp << "] ";
      }
   }
   file << text;
   file.flush();
}

// ---------------------------------------------------------------- stream buffer

DtOutputStreamBuffer::DtOutputStreamBuffer() = default;

DtOutputStreamBuffer::~DtOutputStreamBuffer()
{
   stream = nullptr;
}

void DtOutputStreamBuffer::setOutputStream(DtOutputStream* outputStream)
{
   DtScopedLock lock(mutex);
   stream = outputStream;
}

DtOutputStreamBuffer::int_type DtOutputStreamBuffer::overflow(int_type c)
{
   DtScopedLock lock(mutex);
   // The level is tested for each character: what fails the test is dropped for good,
   // and nothing of it is kept for a later change of the level.
   if (stream && stream->okToPrint() && !traits_type::eq_int_type(c, traits_type::eof()))
   {
      char ch = traits_type::to_char_type(c);
      line += ch;
      if (ch == '\n')
      {
         stream->write(line, true);
         line.clear();
      }
   }
   // A filtered stream must still look healthy to the code inserting into it.
   return traits_type::not_eof(c);
}

int DtOutputStreamBuffer::sync()
{
   DtScopedLock lock(mutex);
   if (!stream)
      return -1;
   if (!line.empty())
   {
      stream->write(line, false);
      line.clear();
   }
   return 0;
}

// ---------------------------------------------------------------- stream

DtOutputStream::DtOutputStream(DtOutputStreamBuffer* buffer, int& notifyLevel, int threshold,
                               DtPrinter* firstPrinter)
    : std::ostream(buffer), buffer(buffer), threshold_(threshold), notifyLevel(notifyLevel)
{
   {
      DtScopedLock lock(streamMutex);
      if (this->buffer)
         this->buffer->setOutputStream(this);
   }
   // Every insertion ends with a flush, so each reaches the printers at once.
   setf(std::ios_base::unitbuf);
   if (firstPrinter)
      attachPrinter(firstPrinter);
}

DtOutputStream::~DtOutputStream()
{
   if (buffer)
   {
      buffer->pubsync();
      // A buffer that outlives its stream must not reach back into it.
      buffer->setOutputStream(nullptr);
   }
}

void DtOutputStream::attachPrinter(DtPrinter* printer)
{
   if (!printer)
      return;
   DtScopedLock lock(printersMutex);
   if (std::find(printers.begin(), printers.end(), printer) == printers.end())
      printers.push_back(printer);
}

bool DtOutputStream::detachPrinter(DtPrinter* printer)
{
   if (!printer)
      return false;
   DtScopedLock lock(printersMutex);
   auto found = std::find(printers.begin(), printers.end(), printer);
   if (found == printers.end())
      return false;
   printers.erase(found);
   return true;
}

void DtOutputStream::detachAllPrinters()
{
   DtScopedLock lock(printersMutex);
   printers.clear();
}

void DtOutputStream::write(std::string const& text, bool lineComplete)
{
   if (!okToPrint())
      return;
   DtScopedLock lock(printersMutex);
   for (DtPrinter* printer : printers)
      printer->write(text, threshold(), lineComplete);
}

void DtOutputStream::setThreshold(int threshold)
{
   threshold_ = threshold;
}

int DtOutputStream::threshold() const
{
   return threshold_;
}

bool DtOutputStream::okToPrint() const
{
   return threshold() <= notifyLevel;
}

void DtOutputStream::operator()(char const* format, ...)
{
   if (!okToPrint())
      return;
   {
      // A pending partial line comes out before the formatted text.
      DtScopedLock lock(streamMutex);
      if (buffer)
         buffer->pubsync();
   }
   if (!format)
      return;

   char text[theFormatBufferSize];
   va_list args;
   va_start(args, format);
   formatInto(text, format, args);
   va_end(args);
   write(text, false);
}

// ---------------------------------------------------------------- free functions

void DtSetOstrelPrinter(DtPrinter* printer)
{
   DtOutputStream* streams[] = {&DtWarn, &DtInfo, &DtVerbose, &DtFatal, &DtDebug};
   for (DtOutputStream* stream : streams)
      stream->detachAllPrinters();
   for (DtOutputStream* stream : streams)
      stream->attachPrinter(printer);
}

void DtPrintEnvironmentVariables(DtOutputStream& out)
{
   out << "DtPrintEnvironmentVariables\n";
   for (char** entry = environ; entry && *entry; ++entry)
      out << *entry << "\n";
   out << "End of DtPrintEnvironmentVariables\n";
}

namespace
{
// Prints one line on `stream` when `format` is not null and the level reaches
// `minimumLevel`: `header`, the message and, when `withErrno`, ": " and the text of
// `error`. The line goes in as one insertion so that it reaches the printers whole.
void reportLine(DtOutputStream& stream, int minimumLevel, char const* header, bool withErrno,
                int error, char const* format, va_list args)
{
   if (!format || DtNotifyLevel < minimumLevel)
      return;
   char message[theFormatBufferSize];
   formatInto(message, format, args);
   std::string line(header);
   line += message;
   if (withErrno)
   {
      line += ": ";
      line += errorText(error);
   }
   line += '\n';
   stream << line;
}
}  // namespace

void DtFatalError(char const* format, ...)
{
   va_list args;
   va_start(args, format);
   reportLine(DtFatal, 0, theFatalHeader, false, 0, format, args);
   va_end(args);
   DtAbort();
}

void DtFatalPerror(char const* format, ...)
{
   int error = errno;
   va_list args;
   va_start(args, format);
   reportLine(DtFatal, 0, theFatalHeader, true, error, format, args);
   va_end(args);
   DtAbort();
}

void DtFatalNetPerror(char const* format, ...)
{
   int error = errno;
   va_list args;
   va_start(args, format);
   reportLine(DtFatal, 0, theFatalHeader, true, error, format, args);
   va_end(args);
   DtAbort();
}

void DtWarnPerror(char const* format, ...)
{
   int error = errno;
   va_list args;
   va_start(args, format);
   reportLine(DtWarn, 1, "", true, error, format, args);
   va_end(args);
}

void DtWarnNetPerror(char const* format, ...)
{
   int error = errno;
   va_list args;
   va_start(args, format);
   reportLine(DtWarn, 1, "", true, error, format, args);
   va_end(args);
}
