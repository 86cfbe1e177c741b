//===- olExceptions.cpp - Exceptions with a chain of causes ----------------===//
//
// Family: Diagnostics.
//
//===----------------------------------------------------------------------===//
#include <olutil/olExceptions.h>

#include <iostream>
#include <string>

namespace
{
// A deep copy of `cause` and its whole chain, or null when there is none or the copy
// fails: an exception is still raised without its cause rather than not at all.
DtException* copyChain(DtException const* cause)
{
   if (!cause)
      return nullptr;
   try
   {
      return new DtException(*cause);
   }
   catch (...)
   {
      return nullptr;
   }
}
}  // namespace

DtException::DtException(char const* what, DtException const* cause) : last(copyChain(cause))
{
   try
   {
      if (what)
         whatText = what;
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << std::endl;
   }
}

DtException::DtException(char const* what, char const* function, char const* file,
                         unsigned int line, DtException const* cause)
    : last(copyChain(cause))
{
   try
   {
      if (what)
         whatText = what;
      if (function)
         whereText = function;
      whereText += " [";
      if (file)
         whereText += file;
      whereText += ":";
      // The final blank is part of the location text; readers rely on it.
      whereText += (std::to_string(line) + "] ").c_str();
   }
   catch (...)
   {
      // Raising an exception must not turn into a different failure, so nothing
      // escapes; the report goes straight to std::cerr, past the notification streams.
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << (file ? file : "") << std::endl;
   }
}

DtException::DtException(DtException const& other) : last(copyChain(other.last))
{
   try
   {
      whereText = other.whereText;
      whatText = other.whatText;
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << std::endl;
   }
}

DtException& DtException::operator=(DtException const& other)
{
   if (this == &other)
      return *this;
   // Copy the chain before letting go of ours: `other` may belong to our own chain.
   DtException* chain = copyChain(other.last);
   try
   {
      whereText = other.whereText;
      whatText = other.whatText;
   }
   catch (...)
   {
      std::cerr << "Error Creating DtException, could not produce valid error string: "
                << std::endl;
   }
   delete last;
   last = chain;
   return *this;
}

DtException::~DtException()
{
   delete last;
   last = nullptr;
}

DtException const* DtException::lastException() const
{
   return last;
}

DtException const* DtException::initialException() const
{
   DtException const* root = this;
   while (root->lastException())
      root = root->lastException();
   return root;
}

char const* DtException::message() const
{
   return whatText.c_str();
}

DtString DtException::what() const
{
   return whatText;
}

DtString DtException::where() const
{
   return whereText;
}

std::ostream& operator<<(std::ostream& out, DtException const& exception)
{
   for (DtException const* e = &exception; e; e = e->lastException())
      out << e->what().c_str() << " (" << e->where().c_str() << ")" << std::endl;
   return out;
}
