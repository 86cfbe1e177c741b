//===- olCrashSupport.h - What the crash handlers share -------*- C++ -*-===//
//
// Family: Diagnostics. Private to the library.
//
// The crash handlers of olLogFileInfo and olMiniDumper run in a process that
// has just faulted, perhaps inside malloc or with a lock held. Until they hand
// over to the helper tools they use only what is safe in a signal handler:
// the pieces here compose text in fixed buffers, write it with write(2), and
// keep a second fault from running a handler again.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLCRASHSUPPORT_H
#define OLUTIL_OLCRASHSUPPORT_H

#include <dlfcn.h>
#include <link.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace olcrash
{

// Text composed in a caller's fixed buffer; what doesn't fit is cut.
class FixedText
{
public:
   FixedText(char* buffer, std::size_t size) : myBuffer(buffer), mySize(size) { terminate(); }

   FixedText& add(char const* text)
   {
      for (; text && *text && myLength + 1 < mySize; ++text)
         myBuffer[myLength++] = *text;
      terminate();
      return *this;
   }

   FixedText& addNumber(long value)
   {
      char digits[24];
      int count = 0;
      unsigned long magnitude =
          value < 0 ? 0ul - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
      do
      {
         digits[count++] = static_cast<char>('0' + magnitude % 10);
         magnitude /= 10;
      } while (magnitude != 0);
      if (value < 0)
         digits[count++] = '-';
      char text[24];
      for (int i = 0; i < count; ++i)
         text[i] = digits[count - 1 - i];
      text[count] = 0;
      return add(text);
   }

   // `format` with its one "%d" replaced by `value`: printf's result, without printf,
   // which a signal handler may not call.
   FixedText& addFormatted(char const* format, long value)
   {
      char const* const mark = std::strstr(format, "%d");
      if (!mark)
         return add(format);
      for (char const* c = format; c < mark && myLength + 1 < mySize; ++c)
         myBuffer[myLength++] = *c;
      terminate();
      return addNumber(value).add(mark + 2);
   }

   // "%#tx": lower-case hexadecimal after "0x", and "0" alone for zero.
   FixedText& addHex(std::uintptr_t value)
   {
      if (value == 0)
         return add("0");
      char text[24];
      int count = 0;
      for (; value != 0; value >>= 4)
         text[count++] = "0123456789abcdef"[value & 0xf];
      char ordered[24] = {'0', 'x'};
      for (int i = 0; i < count; ++i)
         ordered[2 + i] = text[count - 1 - i];
      ordered[2 + count] = 0;
      return add(ordered);
   }

   // "%p": "(nil)" for null.
   FixedText& addPointer(void const* pointer)
   {
      if (!pointer)
         return add("(nil)");
      return addHex(reinterpret_cast<std::uintptr_t>(pointer));
   }

   char const* text() const { return myBuffer; }
   std::size_t length() const { return myLength; }

private:
   void terminate()
   {
      if (mySize > 0)
         myBuffer[myLength < mySize ? myLength : mySize - 1] = 0;
   }

   char* myBuffer;
   std::size_t mySize;
   std::size_t myLength = 0;
};

inline void writeAll(int fd, char const* text, std::size_t length)
{
   while (length > 0)
   {
      ssize_t const written = write(fd, text, length);
      if (written < 0 && errno == EINTR)
         continue;
      if (written <= 0)
         return;
      text += written;
      length -= static_cast<std::size_t>(written);
   }
}

inline void writeText(int fd, FixedText const& text)
{
   writeAll(fd, text.text(), text.length());
}

// One frame as backtrace_symbols describes it, "object(symbol+0xoff) [0xaddr]",
// without the allocation that backtrace_symbols makes (backtrace_symbols_fd,
// which doesn't allocate either, leaves out the blank before the address).
inline void addFrame(FixedText& text, void* address)
{
   Dl_info info{};
   link_map* map = nullptr;
   bool const found =
       dladdr1(address, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) != 0;
   if (!found || !info.dli_fname || !info.dli_fname[0])
   {
      text.add("[").addPointer(address).add("]");
      return;
   }
   // Without a symbol, the offset is taken from where the object was loaded.
   std::uintptr_t const base = info.dli_sname ? reinterpret_cast<std::uintptr_t>(info.dli_saddr)
                                              : (map ? map->l_addr : 0);
   text.add(info.dli_fname).add("(").add(info.dli_sname);
   if (info.dli_sname || base != 0)
   {
      auto const at = reinterpret_cast<std::uintptr_t>(address);
      if (at >= base)
         text.add("+").addHex(at - base);
      else
         text.add("-").addHex(base - at);
   }
   text.add(") [").addPointer(address).add("]");
}

// Writes the frames, one a line, each as addFrame gives it, led by `prefix`
// and its number counted from `firstNumber`.
inline void writeFrames(int fd, void* const* frames, int count, char const* prefix = nullptr,
                        int firstNumber = 0)
{
   for (int i = 0; i < count; ++i)
   {
      char buffer[1024];
      FixedText line(buffer, sizeof buffer);
      if (prefix)
         line.add(prefix).addNumber(firstNumber + i).add("] ");
      addFrame(line, frames[i]);
      line.add("\n");
      writeText(fd, line);
   }
}

// The thread that runs a crash handler, 0 while none does; one for the process,
// shared by both handlers.
inline std::atomic<long>& handlerOwner()
{
   static std::atomic<long> owner{0};
   return owner;
}

// Called first in every crash handler. The first fault goes on. A fault while
// the handler itself runs on this thread ends the process at once, so a
// handler never loops on its own faults. A fault on another thread waits, a
// bounded time, for the first report to be written and the process to end.
inline void enterHandler()
{
   long const self = syscall(SYS_gettid);
   long expected = 0;
   if (handlerOwner().compare_exchange_strong(expected, self))
      return;
   if (expected == self)
      _exit(1);
   timespec const pause{0, 50 * 1000 * 1000};
   for (int i = 0; i < 200; ++i)
      nanosleep(&pause, nullptr);
   _exit(1);
}

// The description of a signal, as strsignal gives it, without strsignal's
// buffer: null for a number the C library doesn't know.
inline char const* signalDescription(int signal)
{
   return sigdescr_np(signal);
}

}  // namespace olcrash

#endif  // OLUTIL_OLCRASHSUPPORT_H
