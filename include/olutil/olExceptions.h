//===- olutil/olExceptions.h - Exceptions with a chain of causes -*- C++ -*-===//
//
// Family: Diagnostics.
//
// DtException carries what happened, where it was raised (function, file and line)
// and an owned copy of the exception that caused it, so a chain of causes travels
// with the newest failure. DtTemplatedException<code> gives each kind of error a type
// of its own, to be caught by type; DtThrowException raises one with its location.
//
//===----------------------------------------------------------------------===//
#ifndef OLUTIL_OLEXCEPTIONS_H
#define OLUTIL_OLEXCEPTIONS_H

#include <olutil/olFilename.h>
#include <olutil/olString.h>

#include <ostream>
#include <string>

// An exception with a message, a location and a chain of causes. It is not a
// std::exception. Each exception owns a deep copy of its whole chain: copying copies
// the chain, and destroying one exception never touches another's chain. Its
// constructors never throw: a failure while building the texts is reported on
// std::cerr and the exception is still built. The copies of causes are plain
// DtException objects, whatever the type of the cause was.
//
// Exceptions are plain values; an object is used by one thread at a time.
class DtException
{
public:
   // `what` may be null (empty text); `where()` stays empty. A non-null `last` is
   // deep-copied as this exception's cause.
   explicit DtException(char const* what = nullptr, DtException const* last = nullptr);
   // where() becomes "function [file:line] ", final blank included.
   DtException(char const* what, char const* function, char const* file, unsigned int line,
               DtException const* last = nullptr);
   DtException(DtException const& other);
   DtException& operator=(DtException const& other);
   virtual ~DtException();

   // The direct cause, or null; owned by this exception.
   virtual DtException const* lastException() const;
   // The root cause: the end of the chain, or this exception when it has no cause.
   virtual DtException const* initialException() const;
   // The what text; the pointer lives as long as the exception.
   virtual char const* message() const;
   virtual DtString what() const;
   virtual DtString where() const;

private:
   void copyTexts(DtException const& other);

   DtString whereText;
   DtString whatText;
   DtException* last;
};

// Writes the exception and then each of its causes, newest first, one a line:
// what, " (", where, ")".
std::ostream& operator<<(std::ostream& out, DtException const& exception);

// An exception type per error code, thrown by value (DtThrowException) and caught by
// type. It adds nothing to DtException.
template <int code>
class DtTemplatedException : public DtException
{
public:
   DtTemplatedException(char const* what, char const* function, char const* file, unsigned int line,
                        DtException const* last = nullptr)
       : DtException(what, function, file, line, last)
   {
   }
};

// The error codes in use and their names.
enum DtExceptionCode
{
   DtInvalidInputCode = -1,
   DtThreadAlreadyRunningCode = 1001,
   DtThreadNotStartedCode = 1002,
   DtThreadCreationErrorCode = 1003,
   DtThreadWouldDeadlockCode = 1004
};

typedef DtTemplatedException<DtInvalidInputCode> DtInvalidInput;
typedef DtTemplatedException<DtThreadAlreadyRunningCode> DtThreadAlreadyRunning;
typedef DtTemplatedException<DtThreadNotStartedCode> DtThreadNotStarted;
typedef DtTemplatedException<DtThreadCreationErrorCode> DtThreadCreationError;
typedef DtTemplatedException<DtThreadWouldDeadlockCode> DtThreadWouldDeadlock;

// The prefix put before the message of a DtTemplatedException<code>: its name and ": ".
// Codes without a name get no prefix.
template <int code>
struct DtExceptionPrefix
{
   static constexpr char const* text = "";
};
template <>
struct DtExceptionPrefix<DtInvalidInputCode>
{
   static constexpr char const* text = "DtInvalidInput: ";
};
template <>
struct DtExceptionPrefix<DtThreadAlreadyRunningCode>
{
   static constexpr char const* text = "DtThreadAlreadyRunning: ";
};
template <>
struct DtExceptionPrefix<DtThreadNotStartedCode>
{
   static constexpr char const* text = "DtThreadNotStarted: ";
};
template <>
struct DtExceptionPrefix<DtThreadCreationErrorCode>
{
   static constexpr char const* text = "DtThreadCreationError: ";
};
template <>
struct DtExceptionPrefix<DtThreadWouldDeadlockCode>
{
   static constexpr char const* text = "DtThreadWouldDeadlock: ";
};

// The bare file name of a source path: what follows its last '/'. Usable at compile
// time; DtAssertCheck reports its file with it.
constexpr char const* DtSourceFileName(char const* path)
{
   char const* name = path;
   for (char const* p = path; p && *p; ++p)
   {
      if (*p == '/')
         name = p + 1;
   }
   return name;
}

// The text of a DtTemplatedException<code>: its prefix joined to `message`.
template <int code>
DtString DtExceptionText(char const* message)
{
   DtString text(DtExceptionPrefix<code>::text);
   if (message)
      text += message;
   return text;
}
template <int code>
DtString DtExceptionText(DtString const& message)
{
   return DtExceptionText<code>(message.c_str());
}
template <int code>
DtString DtExceptionText(std::string const& message)
{
   return DtExceptionText<code>(message.c_str());
}

// Throws DtTemplatedException<code> by value, its text the code's prefix and `message`
// (a char const* or a DtString), its location the raising function's full signature,
// the source file name as the static DtFilename::stripPath gives it, and the line.
//    DtThrowException(1001, "Thread already running.");
#define DtThrowException(code, message)                               \
   throw DtTemplatedException<(code)>(                                \
       DtExceptionText<(code)>(message).c_str(), __PRETTY_FUNCTION__, \
       DtFilename::stripPath(DtFilename(__FILE__)).c_str(), __LINE__, nullptr)

// As DtThrowException, with `cause` (a DtException const*) copied as the cause.
#define DtThrowChainedException(code, message, cause)                 \
   throw DtTemplatedException<(code)>(                                \
       DtExceptionText<(code)>(message).c_str(), __PRETTY_FUNCTION__, \
       DtFilename::stripPath(DtFilename(__FILE__)).c_str(), __LINE__, (cause))

#endif  // OLUTIL_OLEXCEPTIONS_H
